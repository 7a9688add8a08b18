#include "service/redis/RedisService.h"

#include <sys/random.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

#include "service/PercentEncoding.h"
#include "service/ProcessGeneration.h"

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

// The scripts, embedded from the .lua files beside this one at build time. All but the last
// start with the helpers.
const std::string kHelpers =
#include "helpers.lua.inc"
    ;
const std::string kScripts[] = {
    kHelpers +
#include "register.lua.inc"
    ,
    kHelpers +
#include "unregister.lua.inc"
    ,
    kHelpers +
#include "put.lua.inc"
    ,
    kHelpers +
#include "get.lua.inc"
    ,
#include "shared_clients.lua.inc"
};
// The operation that each script serves, for the failure of a caller that is not registered.
const char* const kOperations[] = {"registerClient", "unregisterClient", "putEvents",
                                   "getEvents", "getSharedClients"};

// Server S in its key form.
std::string keyForm(const std::string& serverID) { return percentEncoded(serverID, 0x7E, "%{}:"); }

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
  unsigned char random[16];
  std::size_t filled = 0;
  while (filled < sizeof random) {
    const ssize_t count = getrandom(random + filled, sizeof random - filled, 0);
    if (count > 0) filled += static_cast<std::size_t>(count);
  }
  std::string key = ServerKeys(serverID).tag + ":op:";
  for (const unsigned char byte : random) appendHex(key, byte);
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

RedisService::RedisService(ServiceURL url) : ServiceBackend(url.faults), url(std::move(url)) {}

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
  if (reply->type == REDIS_REPLY_NIL) {
    throw unknownClient(serverID, std::string(*args.begin()), kOperations[script]);
  }
  return reply;
}

ClientIDs RedisService::clientsOf(const RedisReply& reply) {
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
  return clientsOf(run(kRegister, serverID, {}, {clientID}));
}

ClientIDs RedisService::unregisterClient(const std::string& serverID,
                                         const std::string& clientID) {
  const std::string window = std::to_string(kRepeatWindow.count());
  return clientsOf(run(kUnregister, serverID, newOpKey(serverID), {clientID, window}));
}

ClientIDs RedisService::putEvents(const std::string& serverID, const std::string& clientID,
                                  const std::string& event) {
  const std::string keep = std::to_string(url.retention.events);
  const std::string keepMs = std::to_string(url.retention.age.count() * 1000);
  const std::string window = std::to_string(
      std::max(kRepeatWindow.count(),
               std::chrono::duration_cast<std::chrono::seconds>(url.timeout * 4).count()));
  return clientsOf(
      run(kPut, serverID, newOpKey(serverID), {clientID, event, keep, keepMs, window}));
}

ServiceBackend::Batch RedisService::getEvents(const std::string& serverID,
                                              const std::string& clientID,
                                              const std::string& acknowledged) {
  const RedisReply reply = run(kGet, serverID, {},
                               {clientID, acknowledged, std::to_string(kBatchEvents),
                                std::to_string(kBatchBytes), std::to_string(kFetchScanLimit)});
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 ||
      reply->element[0]->type != REDIS_REPLY_STRING ||
      reply->element[1]->type != REDIS_REPLY_STRING) {
    router().last().unexpected();
  }
  return Batch{text(*reply->element[1]), text(*reply->element[0])};
}

ClientIDs RedisService::getSharedClients(const std::string& serverID,
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
  for (const std::string& client : clientsOf(request({"ZRANGE", keys.clients, "0", "-1"}))) {
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

}  // namespace Kestrane::Net::KsModelEventManager::Service
