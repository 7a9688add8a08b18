#include "binding/RedisService.h"

#include <hiredis/hiredis.h>
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "binding/ServiceChoice.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

namespace {

enum Script { kRegister, kUnregister, kPut, kGet, kShared, kScriptCount };

// Finds the caller (ARGV[1]) among the server's clients (KEYS[1]).
const std::string kFindCaller =
    "local clients = redis.call('LRANGE', KEYS[1], 0, -1)\n"
    "local known = false\n"
    "for _, c in ipairs(clients) do if c == ARGV[1] then known = true break end end\n";

// KEYS[1] is the server's clients, KEYS[2] the caller's events, ARGV[1] the caller. A script
// returns false (a nil reply) when the caller is not registered.
const std::string kScripts[kScriptCount] = {
    kFindCaller +
        "if not known then\n"
        "  redis.call('RPUSH', KEYS[1], ARGV[1])\n"
        "  clients[#clients + 1] = ARGV[1]\n"
        "end\n"
        "return clients\n",
    "if redis.call('LREM', KEYS[1], 1, ARGV[1]) == 0 then return false end\n"
    "redis.call('DEL', KEYS[2])\n"
    "return redis.call('LRANGE', KEYS[1], 0, -1)\n",
    // ARGV[2] is the prefix of the events keys, ARGV[3] the event.
    kFindCaller +
        "if not known then return false end\n"
        "local others = {}\n"
        "for _, c in ipairs(clients) do\n"
        "  if c ~= ARGV[1] then\n"
        "    redis.call('RPUSH', ARGV[2] .. c, ARGV[3])\n"
        "    others[#others + 1] = c\n"
        "  end\n"
        "end\n"
        "return others\n",
    kFindCaller +
        "if not known then return false end\n"
        "local events = redis.call('LRANGE', KEYS[2], 0, -1)\n"
        "redis.call('DEL', KEYS[2])\n"
        "return table.concat(events)\n",
    kFindCaller +
        "if not known then return false end\n"
        "return clients\n",
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

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string idOf(std::string_view form) {
  std::string id;
  id.reserve(form.size());
  for (std::size_t i = 0; i < form.size(); ++i) {
    const int high = form[i] == '%' && i + 2 < form.size() ? hexDigit(form[i + 1]) : -1;
    const int low = high >= 0 ? hexDigit(form[i + 2]) : -1;
    if (low >= 0) {
      id += static_cast<char>(high << 4 | low);
      i += 2;
    } else {
      id += form[i];
    }
  }
  return id;
}

struct Keys {
  Keys(const std::string& serverID, const std::string& clientID)
      : caller(keyForm(clientID)),
        clients("ksmem:{" + keyForm(serverID) + "}:clients"),
        eventsPrefix("ksmem:{" + keyForm(serverID) + "}:events:"),
        events(eventsPrefix + caller) {}
  std::string caller, clients, eventsPrefix, events;
};

struct ReplyDeleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

// The calling thread's connection. It serves the backend whose address opened it, in the
// process that opened it: a forked child or another backend opens a connection of its own.
struct Connection {
  const RedisAddress* address = nullptr;
  unsigned process = 0;  // processGeneration() when opened
  redisContext* context = nullptr;
  std::string scriptSHA[kScriptCount];  // digests of the scripts, as SCRIPT LOAD gave them

  ~Connection() { close(); }
  void close() {
    if (context != nullptr) redisFree(context);
    context = nullptr;
  }
};

thread_local Connection connection;

// Holds SIGPIPE back from this thread while it lives, so that writing to a connection that
// Redis has closed fails with EPIPE instead of ending the process. A SIGPIPE raised meanwhile
// is taken back; one that was pending before is left alone.
class PipeSignalHeld {
 public:
  PipeSignalHeld() {
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &previousMask);
    wasPending = pending();
  }
  ~PipeSignalHeld() {
    if (!wasPending && pending()) {
      const timespec noWait{0, 0};
      sigtimedwait(&pipeSignal, nullptr, &noWait);
    }
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

 private:
  static bool pending() {
    sigset_t signals;
    sigpending(&signals);
    return sigismember(&signals, SIGPIPE) == 1;
  }

  sigset_t pipeSignal;
  sigset_t previousMask;
  bool wasPending = false;
};

timeval timeLimit() { return {static_cast<time_t>(RedisService::kTimeout.count()), 0}; }

[[noreturn]] void unreachable(const RedisAddress& address, const char* what,
                              const std::string& reason) {
  throw ServiceFailure{kServiceUnreachable, what + address.url + ": " + reason};
}

[[noreturn]] void refused(const RedisAddress& address, const redisReply& error) {
  throw ServiceFailure{kServiceRefused, "the service at " + address.url + " refused the request: " +
                                            std::string(error.str, error.len)};
}

[[noreturn]] void unexpectedReply(const RedisAddress& address) {
  throw ServiceFailure{kServiceRefused, "the service at " + address.url +
                                            " gave a reply of another kind than was asked for"};
}

// Sends one command on the thread's open connection and gives its reply, an error reply too.
// A connection that fails is closed.
Reply command(const RedisAddress& address, const std::vector<std::string_view>& parts) {
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
  for (const std::string_view part : parts) {
    argv.push_back(part.data());
    lengths.push_back(part.size());
  }
  errno = 0;
  auto* reply = static_cast<redisReply*>(redisCommandArgv(
      connection.context, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  if (reply != nullptr) return Reply(reply);
  const bool timedOut = errno == EAGAIN || errno == EWOULDBLOCK;
  const std::string reason =
      connection.context->err == REDIS_ERR_IO && timedOut
          ? "no reply within " + std::to_string(RedisService::kTimeout.count()) + " seconds"
          : connection.context->errstr;
  connection.close();
  unreachable(address, "lost the connection to the service at ", reason);
}

// Opens the thread's connection to `address` unless it is open already.
void open(const RedisAddress& address) {
  if (connection.context != nullptr && connection.address == &address &&
      connection.process == processGeneration()) {
    return;
  }
  connection.close();
  connection.address = &address;
  connection.process = processGeneration();
  connection.context =
      address.socketPath.empty()
          ? redisConnectWithTimeout(address.host.c_str(), address.port, timeLimit())
          : redisConnectUnixWithTimeout(address.socketPath.c_str(), timeLimit());
  if (connection.context == nullptr) throw std::bad_alloc();
  if (connection.context->err != 0 ||
      redisSetTimeout(connection.context, timeLimit()) != REDIS_OK) {
    const std::string reason = connection.context->errstr;
    connection.close();
    unreachable(address, "cannot reach the service at ", reason);
  }
  if (address.db == 0) return;
  const Reply selected = command(address, {"SELECT", std::to_string(address.db)});
  if (selected->type == REDIS_REPLY_ERROR) {
    const std::string reason(selected->str, selected->len);
    connection.close();
    unreachable(address, "cannot reach the service at ", reason);
  }
}

Reply runScript(const RedisAddress& address, Script script,
                std::initializer_list<std::string_view> keys,
                std::initializer_list<std::string_view> args) {
  const PipeSignalHeld held;
  open(address);
  std::string& sha = connection.scriptSHA[script];
  if (sha.empty()) {
    const Reply loaded = command(address, {"SCRIPT", "LOAD", kScripts[script]});
    if (loaded->type == REDIS_REPLY_ERROR) refused(address, *loaded);
    if (loaded->type != REDIS_REPLY_STRING) unexpectedReply(address);
    sha.assign(loaded->str, loaded->len);
  }
  const std::string keyCount = std::to_string(keys.size());
  std::vector<std::string_view> parts = {"EVALSHA", sha, keyCount};
  parts.insert(parts.end(), keys);
  parts.insert(parts.end(), args);
  Reply reply = command(address, parts);
  if (reply->type == REDIS_REPLY_ERROR &&
      std::string_view(reply->str, reply->len).substr(0, 8) == "NOSCRIPT") {
    parts[0] = "EVAL";
    parts[1] = kScripts[script];
    reply = command(address, parts);
  }
  if (reply->type == REDIS_REPLY_ERROR) refused(address, *reply);
  return reply;
}

std::optional<ClientIDs> clientsOf(const RedisAddress& address, const Reply& reply) {
  if (reply->type == REDIS_REPLY_NIL) return std::nullopt;
  if (reply->type != REDIS_REPLY_ARRAY) unexpectedReply(address);
  ClientIDs ids;
  for (std::size_t i = 0; i < reply->elements; ++i) {
    const redisReply* element = reply->element[i];
    if (element->type != REDIS_REPLY_STRING) unexpectedReply(address);
    ids.push_back(idOf(std::string_view(element->str, element->len)));
  }
  return ids;
}

}  // namespace

RedisService::RedisService(RedisAddress address) : address(std::move(address)) {}

void RedisService::checkAnswers() {
  const PipeSignalHeld held;
  open(address);
  const Reply reply = command(address, {"PING"});
  if (reply->type == REDIS_REPLY_ERROR) refused(address, *reply);
}

ClientIDs RedisService::registerClient(const std::string& serverID, const std::string& clientID) {
  const Keys keys(serverID, clientID);
  std::optional<ClientIDs> clients =
      clientsOf(address, runScript(address, kRegister, {keys.clients}, {keys.caller}));
  if (!clients) unexpectedReply(address);
  return std::move(*clients);
}

std::optional<ClientIDs> RedisService::unregisterClient(const std::string& serverID,
                                                        const std::string& clientID) {
  const Keys keys(serverID, clientID);
  return clientsOf(address,
                   runScript(address, kUnregister, {keys.clients, keys.events}, {keys.caller}));
}

std::optional<ClientIDs> RedisService::putEvents(const std::string& serverID,
                                                 const std::string& clientID,
                                                 const std::string& event) {
  const Keys keys(serverID, clientID);
  return clientsOf(
      address, runScript(address, kPut, {keys.clients}, {keys.caller, keys.eventsPrefix, event}));
}

std::optional<std::string> RedisService::getEvents(const std::string& serverID,
                                                   const std::string& clientID) {
  const Keys keys(serverID, clientID);
  const Reply reply = runScript(address, kGet, {keys.clients, keys.events}, {keys.caller});
  if (reply->type == REDIS_REPLY_NIL) return std::nullopt;
  if (reply->type != REDIS_REPLY_STRING) unexpectedReply(address);
  return std::string(reply->str, reply->len);
}

std::optional<ClientIDs> RedisService::getSharedClients(const std::string& serverID,
                                                        const std::string& clientID) {
  const Keys keys(serverID, clientID);
  return clientsOf(address, runScript(address, kShared, {keys.clients}, {keys.caller}));
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
