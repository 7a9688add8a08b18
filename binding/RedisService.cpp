#include "binding/RedisService.h"

#include <sys/random.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

#include "binding/ServiceChoice.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

namespace {

// The scripts see the server's keys in this order, and a post's or an unregister's op key
// after them: KEYS[1] clients, KEYS[2] cursors, KEYS[3] lag, KEYS[4] log, KEYS[5] head,
// KEYS[6] op. A cursor or a `last` is "ID N": a stream entry id and the entry's position.
const std::string kHelpers = R"lua(
local function idOf(position) return string.match(position, '^%S+') end
local function msOf(position) return string.match(position, '^%d+') end
local function after(a, b)
  local am, as = string.match(a, '^(%d+)-(%d+)$')
  local bm, bs = string.match(b, '^(%d+)-(%d+)$')
  if not am or not bm then return false end
  am, as, bm, bs = tonumber(am), tonumber(as), tonumber(bm), tonumber(bs)
  return am > bm or (am == bm and as > bs)
end
local function newest()
  local head = redis.call('HMGET', KEYS[5], 'id', 'n')
  return (head[1] or '0-0') .. ' ' .. (head[2] or '0')
end
local function moveCursor(client, position)
  redis.call('HSET', KEYS[2], client, position)
  redis.call('ZADD', KEYS[3], msOf(position), client)
end
local function dropAcknowledged()
  local slowest = redis.call('ZRANGE', KEYS[3], 0, 0, 'WITHSCORES')
  if slowest[2] then redis.call('XTRIM', KEYS[4], 'MINID', '~', slowest[2]) end
end
)lua";

// ARGV[1] is the caller in every script. A script returns false (a nil reply) when the caller
// is not registered.
const std::string kScripts[] = {
    // register
    kHelpers + R"lua(
if not redis.call('HGET', KEYS[2], ARGV[1]) then
  local top = redis.call('ZREVRANGE', KEYS[1], 0, 0, 'WITHSCORES')
  redis.call('ZADD', KEYS[1], (tonumber(top[2]) or 0) + 1, ARGV[1])
  moveCursor(ARGV[1], newest())
end
return redis.call('ZRANGE', KEYS[1], 0, -1)
)lua",
    // unregister; ARGV[2] how long to remember the op
    kHelpers + R"lua(
if redis.call('EXISTS', KEYS[6]) == 1 then return redis.call('ZRANGE', KEYS[1], 0, -1) end
if redis.call('HDEL', KEYS[2], ARGV[1]) == 0 then return false end
redis.call('ZREM', KEYS[1], ARGV[1])
redis.call('ZREM', KEYS[3], ARGV[1])
redis.call('SET', KEYS[6], '', 'EX', ARGV[2])
if redis.call('EXISTS', KEYS[1]) == 0 then
  redis.call('DEL', KEYS[4], KEYS[5])
  return {}
end
dropAcknowledged()
return redis.call('ZRANGE', KEYS[1], 0, -1)
)lua",
    // put; ARGV[2] the event, ARGV[3] events to keep (0: any number), ARGV[4] milliseconds to
    // keep them (0: any time), ARGV[5] how long to remember the op. The op remembers the last
    // registration it was queued for, so that a repeat answers with the same clients (less any
    // that left since).
    kHelpers + R"lua(
local function queuedFor(upTo)
  local others = {}
  for _, c in ipairs(redis.call('ZRANGEBYSCORE', KEYS[1], '-inf', upTo)) do
    if c ~= ARGV[1] then others[#others + 1] = c end
  end
  return others
end
local done = redis.call('GET', KEYS[6])
if done then return queuedFor(done) end
local cursor = redis.call('HGET', KEYS[2], ARGV[1])
if not cursor then return false end
local before = newest()
local n = redis.call('HINCRBY', KEYS[5], 'n', 1)
local add = {'XADD', KEYS[4]}
if ARGV[3] ~= '0' then add = {'XADD', KEYS[4], 'MAXLEN', '~', ARGV[3]} end
for _, part in ipairs({'*', 'sender', ARGV[1], 'n', n, 'event', ARGV[2]}) do add[#add + 1] = part end
local id = redis.call(unpack(add))
redis.call('HSET', KEYS[5], 'id', id)
if ARGV[4] ~= '0' then
  local now = redis.call('TIME')
  local cutoff = tonumber(now[1]) * 1000 + math.floor(tonumber(now[2]) / 1000) - tonumber(ARGV[4])
  if cutoff > 0 then redis.call('XTRIM', KEYS[4], 'MINID', '~', string.format('%d', cutoff)) end
end
-- A caller that had nothing pending need not hold the log back for an event of its own.
if idOf(cursor) == idOf(before) then
  moveCursor(ARGV[1], id .. ' ' .. n)
  dropAcknowledged()
end
local top = redis.call('ZREVRANGE', KEYS[1], 0, 0, 'WITHSCORES')
redis.call('SET', KEYS[6], top[2], 'EX', ARGV[5])
return queuedFor(top[2])
)lua",
    // get; ARGV[2] the acknowledgement (empty: none), ARGV[3] and ARGV[4] the batch's most
    // events and bytes, ARGV[5] the most entries to look at. Gives {last, events}.
    kHelpers + R"lua(
local cursor = redis.call('HGET', KEYS[2], ARGV[1])
if not cursor then return false end
if ARGV[2] ~= '' and after(idOf(ARGV[2]), idOf(cursor)) then
  cursor = ARGV[2]
  moveCursor(ARGV[1], cursor)
  dropAcknowledged()
end
local events, count, bytes, last = {}, 0, 0, ''
local maxEvents, maxBytes, left = tonumber(ARGV[3]), tonumber(ARGV[4]), tonumber(ARGV[5])
local from = '(' .. idOf(cursor)
while left > 0 do
  local page = math.min(left, 100)
  local entries = redis.call('XRANGE', KEYS[4], from, '+', 'COUNT', page)
  for _, entry in ipairs(entries) do
    local fields = entry[2]
    if fields[2] ~= ARGV[1] then
      if count == maxEvents or (count > 0 and bytes + #fields[6] > maxBytes) then
        return {last, table.concat(events)}
      end
      count = count + 1
      bytes = bytes + #fields[6]
      events[count] = fields[6]
    end
    last = entry[1] .. ' ' .. fields[4]
    from = '(' .. entry[1]
  end
  if #entries < page then break end
  left = left - page
end
return {last, table.concat(events)}
)lua",
    // shared clients
    R"lua(
if redis.call('HEXISTS', KEYS[2], ARGV[1]) == 0 then return false end
return redis.call('ZRANGE', KEYS[1], 0, -1)
)lua",
};

std::string keyForm(const std::string& id) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string form;
  form.reserve(id.size());
  for (const char c : id) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x21 || byte > 0x7E || c == '%' || c == '{' || c == '}' || c == ':') {
      form += '%';
      form += kHex[byte >> 4];
      form += kHex[byte & 0xF];
    } else {
      form += c;
    }
  }
  return form;
}

struct ServerKeys {
  explicit ServerKeys(const std::string& serverID)
      : tag("{ksmem:" + keyForm(serverID) + "}"),
        clients(tag + ":clients"),
        cursors(tag + ":cursors"),
        lag(tag + ":lag"),
        log(tag + ":log"),
        head(tag + ":head") {}
  std::string tag, clients, cursors, lag, log, head;
};

// A key for one post or unregister: random, so unique across processes and machines.
std::string newOpKey(const std::string& serverID) {
  static const char kHex[] = "0123456789abcdef";
  unsigned char random[16];
  std::size_t filled = 0;
  while (filled < sizeof random) {
    const ssize_t count = getrandom(random + filled, sizeof random - filled, 0);
    if (count > 0) filled += static_cast<std::size_t>(count);
  }
  std::string key = ServerKeys(serverID).tag + ":op:";
  for (const unsigned char byte : random) {
    key += kHex[byte >> 4];
    key += kHex[byte & 0xF];
  }
  return key;
}

// The calling thread's way to Redis and the digests of the scripts as Redis gave them; made
// anew for another service, or in a forked child.
struct ThreadRouter {
  const RedisService* service = nullptr;
  unsigned generation = 0;
  std::unique_ptr<RedisRouter> router;
  std::string scriptSHA[std::size(kScripts)];
};
thread_local ThreadRouter threadRouter;

std::string text(const redisReply& reply) { return std::string(reply.str, reply.len); }

// Of a stream entry as XRANGE gives it, field text `index` (-1: the entry's id); "" when the
// entry has no such string.
const char* entryField(const redisReply& entry, int index) {
  if (entry.type != REDIS_REPLY_ARRAY || entry.elements != 2) return "";
  const redisReply* value = entry.element[0];
  if (index >= 0) {
    const redisReply& fields = *entry.element[1];
    if (fields.type != REDIS_REPLY_ARRAY || static_cast<std::size_t>(index) >= fields.elements) {
      return "";
    }
    value = fields.element[index];
  }
  return value->type == REDIS_REPLY_STRING ? value->str : "";
}

}  // namespace

RedisService::RedisService(ServiceURL url) : url(std::move(url)) {}

RedisRouter& RedisService::router() {
  ThreadRouter& own = threadRouter;
  if (own.service != this || own.generation != processGeneration() || !own.router) {
    own = ThreadRouter();
    own.service = this;
    own.generation = processGeneration();
    own.router = std::make_unique<RedisRouter>(url);
  }
  return *own.router;
}

RedisReply RedisService::run(Script script, const std::string& serverID, std::string_view opKey,
                             std::initializer_list<std::string_view> args) {
  const ServerKeys keys(serverID);
  const int slot = hashSlot(keys.tag);
  RedisRouter& redis = router();
  std::string& sha = threadRouter.scriptSHA[script];
  if (sha.empty()) {
    const RedisReply loaded = redis.command(slot, {"SCRIPT", "LOAD", kScripts[script]});
    if (loaded->type == REDIS_REPLY_ERROR) redis.last().refused(*loaded);
    if (loaded->type != REDIS_REPLY_STRING) redis.last().unexpected();
    sha = text(*loaded);
  }
  RedisCommand parts = {"EVALSHA",    sha,          opKey.empty() ? "5" : "6",
                        keys.clients, keys.cursors, keys.lag,
                        keys.log,     keys.head};
  if (!opKey.empty()) parts.push_back(opKey);
  parts.insert(parts.end(), args);
  // Scripts that add or remove clients or events are passed on to a replica before they count.
  const bool replicated = script == kRegister || script == kUnregister || script == kPut;
  RedisReply reply = redis.command(slot, parts, replicated);
  if (reply->type == REDIS_REPLY_ERROR && text(*reply).rfind("NOSCRIPT", 0) == 0) {
    parts[0] = "EVAL";
    parts[1] = kScripts[script];
    reply = redis.command(slot, parts, replicated);
  }
  if (reply->type == REDIS_REPLY_ERROR) redis.last().refused(*reply);
  return reply;
}

std::optional<ClientIDs> RedisService::clientsOf(const RedisReply& reply) {
  if (reply->type == REDIS_REPLY_NIL) return std::nullopt;
  if (reply->type != REDIS_REPLY_ARRAY) router().last().unexpected();
  ClientIDs ids;
  ids.reserve(reply->elements);
  for (std::size_t i = 0; i < reply->elements; ++i) {
    if (reply->element[i]->type != REDIS_REPLY_STRING) router().last().unexpected();
    ids.push_back(text(*reply->element[i]));
  }
  return ids;
}

void RedisService::checkAnswers() {
  const RedisReply reply = router().command(0, {"PING"});
  if (reply->type == REDIS_REPLY_ERROR) router().last().refused(*reply);
}

ClientIDs RedisService::registerClient(const std::string& serverID, const std::string& clientID) {
  std::optional<ClientIDs> clients = clientsOf(run(kRegister, serverID, {}, {clientID}));
  if (!clients) router().last().unexpected();
  return std::move(*clients);
}

std::optional<ClientIDs> RedisService::unregisterClient(const std::string& serverID,
                                                        const std::string& clientID) {
  const std::string window = std::to_string(kRepeatWindow.count());
  return clientsOf(run(kUnregister, serverID, newOpKey(serverID), {clientID, window}));
}

std::optional<ClientIDs> RedisService::putEvents(const std::string& serverID,
                                                 const std::string& clientID,
                                                 const std::string& event) {
  const std::string keep = std::to_string(url.retention.events);
  const std::string keepMs = std::to_string(url.retention.age.count() * 1000);
  const std::string window = std::to_string(
      std::max(kRepeatWindow.count(),
               std::chrono::duration_cast<std::chrono::seconds>(url.timeout * 4).count()));
  return clientsOf(
      run(kPut, serverID, newOpKey(serverID), {clientID, event, keep, keepMs, window}));
}

std::optional<ServiceBackend::Batch> RedisService::getEvents(const std::string& serverID,
                                                             const std::string& clientID,
                                                             const std::string& acknowledged) {
  const RedisReply reply = run(kGet, serverID, {},
                               {clientID, acknowledged, std::to_string(kBatchEvents),
                                std::to_string(kBatchBytes), std::to_string(kFetchScanLimit)});
  if (reply->type == REDIS_REPLY_NIL) return std::nullopt;
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 ||
      reply->element[0]->type != REDIS_REPLY_STRING ||
      reply->element[1]->type != REDIS_REPLY_STRING) {
    router().last().unexpected();
  }
  return Batch{text(*reply->element[1]), text(*reply->element[0])};
}

std::optional<ClientIDs> RedisService::getSharedClients(const std::string& serverID,
                                                        const std::string& clientID) {
  return clientsOf(run(kShared, serverID, {}, {clientID}));
}

std::vector<ServiceBackend::Backlog> RedisService::getClientBacklogs(const std::string& serverID) {
  // An operator's view, read with plain commands: it need not be one instant.
  const ServerKeys keys(serverID);
  const int slot = hashSlot(keys.tag);
  RedisRouter& redis = router();
  const auto request = [&](const RedisCommand& parts) { return redis.command(slot, parts); };
  const RedisReply time = request({"TIME"});
  const RedisReply head = request({"HGET", keys.head, "n"});
  const RedisReply first = request({"XRANGE", keys.log, "-", "+", "COUNT", "1"});
  const RedisReply cursors = request({"HGETALL", keys.cursors});
  const auto isString = [](const redisReply* reply) { return reply->type == REDIS_REPLY_STRING; };
  if (time->type != REDIS_REPLY_ARRAY || time->elements != 2 || !isString(time->element[0]) ||
      !isString(time->element[1]) || (head->type != REDIS_REPLY_NIL && !isString(head.get())) ||
      first->type != REDIS_REPLY_ARRAY || cursors->type != REDIS_REPLY_ARRAY) {
    redis.last().unexpected();
  }
  const int64_t nowMs =
      std::atoll(time->element[0]->str) * 1000 + std::atoll(time->element[1]->str) / 1000;
  const uint64_t newest = isString(head.get()) ? std::strtoull(head->str, nullptr, 10) : 0;
  // Position of the oldest event still in the log: the fourth field of the first entry.
  uint64_t oldest = newest + 1;
  if (first->elements == 1) oldest = std::strtoull(entryField(*first->element[0], 3), nullptr, 10);
  std::map<std::string, std::string> cursorOf;
  for (std::size_t i = 0; i + 1 < cursors->elements; i += 2) {
    if (!isString(cursors->element[i]) || !isString(cursors->element[i + 1]))
      redis.last().unexpected();
    cursorOf[text(*cursors->element[i])] = text(*cursors->element[i + 1]);
  }
  std::vector<Backlog> backlogs;
  const std::optional<ClientIDs> clients = clientsOf(request({"ZRANGE", keys.clients, "0", "-1"}));
  for (const std::string& client : clients.value_or(ClientIDs())) {
    Backlog backlog{client};
    const std::string& cursor = cursorOf[backlog.clientID];
    const std::size_t space = cursor.find(' ');
    const uint64_t position = std::strtoull(cursor.c_str() + space + 1, nullptr, 10);
    const uint64_t from = std::max(position + 1, oldest);
    backlog.pending = newest + 1 > from ? newest + 1 - from : 0;
    if (backlog.pending > 0) {
      const RedisReply next =
          request({"XRANGE", keys.log, "(" + cursor.substr(0, space), "+", "COUNT", "1"});
      if (next->type == REDIS_REPLY_ARRAY && next->elements == 1) {
        backlog.oldestAgeMs = nowMs - std::atoll(entryField(*next->element[0], -1));
      }
    }
    backlogs.push_back(std::move(backlog));
  }
  return backlogs;
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
