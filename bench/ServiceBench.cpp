// The service of the stand-in transport, embedded and kept in Redis on loopback:
//   round_trip_*        alice posts an event with putEvents and bob fetches it with getEvents
//                       (which also lists the shared clients), through KsMEMConnection; for
//                       Redis beside the commands such a round trip needs at the least, sent
//                       one at a time through hiredis
//   idle_fetch, put     one getEvents with nothing pending, and one putEvents, at the transport
//                       (no XML parse), by a client of a server with 1000 clients beside the
//                       same with 2 clients
//   memory_per_event    what Redis holds per posted event of 1000 bytes that no client has
//                       fetched yet, over the event's size, at 2, 100 and 1000 clients
//   round_trip_cluster  the round trip through a Redis Cluster of three primaries with a
//                       replica each (a post waits for its replica), and of three primaries
//                       alone (routing only), beside the same through a single Redis
//
// A process talks to the one service KSMEM_SERVICE names at its first KsMem_Init, so each case
// runs in a forked child of its own: the benchmark asks the child for one operation at a time
// and takes the time that the child measured around it. The Redis cases use the loopback
// redis-server and the two clusters that bench/run.sh starts through tests/service/servers.py
// and names in KSMEM_REDIS_REDIS, KSMEM_REDIS_CLUSTER and KSMEM_REDIS_CLUSTER_WITHOUT_REPLICAS;
// without them they are skipped, saying so.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "binding/TextExchange.h"
#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
using Kestrane::Net::KsModelEventManager::Binding::TextReply;
using Kestrane::Net::KsModelEventManager::Binding::textExchange;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kEvent =
    "<reading sensor=\"t2\" unit=\"\xC2\xB0"
    "C\">19.0</reading>";

// The environment variables in which bench/run.sh names the loopback Redis and the clusters.
const std::string kRedis = "KSMEM_REDIS_REDIS", kCluster = "KSMEM_REDIS_CLUSTER",
                  kPrimariesAlone = "KSMEM_REDIS_CLUSTER_WITHOUT_REPLICAS";

// The URL of the Redis or Redis Cluster that bench/run.sh names in the environment variable
// `name`; nothing, with the row skipped saying so, when it is not set.
std::optional<std::string> urlFrom(benchmark::State& state, const std::string& name) {
  const char* url = std::getenv(name.c_str());
  if (url != nullptr) return url;
  state.SkipWithError(("no " + name + " for this case: run it through bench/run.sh").c_str());
  return std::nullopt;
}

// A connection of the benchmark's own to the Redis at a "redis://127.0.0.1:PORT" URL, for the
// commands that the library is measured against and for INFO.
class RawRedis {
 public:
  using Reply = std::unique_ptr<redisReply, void (*)(void*)>;

  // Connecting and each command wait five seconds at most.
  explicit RawRedis(const std::string& url)
      : context(redisConnectWithTimeout("127.0.0.1", std::atoi(url.c_str() + url.rfind(':') + 1),
                                        kLimit),
                redisFree) {
    if (problem().empty()) redisSetTimeout(context.get(), kLimit);
  }

  // Why there is no connection, or "" when there is one.
  std::string problem() const {
    if (context == nullptr) return "out of memory";
    return context->err == 0 ? "" : "no connection to Redis: " + std::string(context->errstr);
  }

  // The reply to the command `parts`; null when there is none.
  Reply command(std::initializer_list<std::string_view> parts) {
    std::vector<const char*> argv;
    std::vector<std::size_t> lengths;
    for (const std::string_view part : parts) {
      argv.push_back(part.data());
      lengths.push_back(part.size());
    }
    return Reply(static_cast<redisReply*>(redisCommandArgv(
                     context.get(), static_cast<int>(argv.size()), argv.data(), lengths.data())),
                 freeReplyObject);
  }

  // The text of a string reply, or `otherwise`.
  static std::string text(const Reply& reply, const std::string& otherwise) {
    const bool string = reply != nullptr && reply->type == REDIS_REPLY_STRING;
    return string ? std::string(reply->str, reply->len) : otherwise;
  }

  // The integer field `name` of INFO (for instance "used_memory"), or -1 when there is none.
  long long infoInteger(const std::string& name) {
    const std::string info = "\n" + text(command({"INFO"}), "");
    const std::size_t at = info.find("\n" + name + ":");
    return at == std::string::npos ? -1 : std::atoll(info.c_str() + at + name.size() + 2);
  }

 private:
  static constexpr timeval kLimit = {5, 0};
  std::unique_ptr<redisContext, void (*)(redisContext*)> context;
};

// A child process that uses `service`: it runs `setUp` once, which gives the operation, then
// runs the operation once for each request of the parent and answers with the nanoseconds it
// took, or -1 once it failed (or threw).
class ServiceChild {
 public:
  using Operation = std::function<bool()>;

  ServiceChild(const std::string& service, const std::function<Operation()>& setUp) {
    int requests[2], answers[2];
    if (pipe(requests) != 0 || pipe(answers) != 0) return;
    pid = fork();
    if (pid == 0) {
      close(requests[1]);
      close(answers[0]);
      setenv("KSMEM_SERVICE", service.c_str(), 1);
      serve(setUp, requests[0], answers[1]);
      _exit(0);
    }
    close(requests[0]);
    close(answers[1]);
    requestEnd = requests[1];
    answerEnd = answers[0];
  }
  ~ServiceChild() {
    close(requestEnd);
    close(answerEnd);
    if (pid > 0) waitpid(pid, nullptr, 0);
  }
  ServiceChild(const ServiceChild&) = delete;
  ServiceChild& operator=(const ServiceChild&) = delete;

  // Nanoseconds of one operation, or -1.
  int64_t timeOne() {
    int64_t nanoseconds = -1;
    if (write(requestEnd, "r", 1) != 1 ||
        read(answerEnd, &nanoseconds, sizeof nanoseconds) != sizeof nanoseconds) {
      return -1;
    }
    return nanoseconds;
  }

 private:
  static void serve(const std::function<Operation()>& setUp, int requests, int answers) {
    int64_t nanoseconds = -1;
    try {
      const Operation operation = setUp();
      for (char request; read(requests, &request, 1) == 1;) {
        const Clock::time_point start = Clock::now();
        const bool done = operation();
        nanoseconds = done ? (Clock::now() - start) / std::chrono::nanoseconds(1) : -1;
        if (write(answers, &nanoseconds, sizeof nanoseconds) != sizeof nanoseconds || !done) return;
      }
    } catch (...) {
      nanoseconds = -1;
      if (write(answers, &nanoseconds, sizeof nanoseconds) != sizeof nanoseconds) return;
    }
  }

  pid_t pid = -1;
  int requestEnd = -1;
  int answerEnd = -1;
};

// Times the child's operation once per iteration (the first run warms up: connections,
// scripts, the XML library).
void timeInChild(benchmark::State& state, ServiceChild& child) {
  if (child.timeOne() < 0) {
    state.SkipWithError("the operation failed in the child");
    return;
  }
  for (auto _ : state) {
    const int64_t nanoseconds = child.timeOne();
    if (nanoseconds < 0) {
      state.SkipWithError("the operation failed in the child");
      break;
    }
    state.SetIterationTime(nanoseconds * 1e-9);
  }
}

// alice posts, bob fetches, through KsMEMConnection.
ServiceChild::Operation roundTrip() {
  auto alice = std::make_shared<KsMEMConnection>(), bob = std::make_shared<KsMEMConnection>();
  std::string server = "bench-" + std::to_string(getpid()), aliceID = "alice", bobID = "bob";
  std::string locale;
  std::vector<std::string> clients;
  alice->registerClient(server, aliceID, locale, clients);
  bob->registerClient(server, bobID, locale, clients);
  return [alice, bob] {
    std::string correlation = "bench", event = kEvent, events;
    std::vector<std::string> clients;
    alice->putEvents(event, clients, correlation);
    bob->getEvents(events, clients, correlation);
    return events == kEvent;
  };
}

// One exchange in the text form, straight through the transport's entries; the reply, or
// nothing when it failed.
std::optional<std::string> exchange(const std::string& operation, const std::string& server,
                                    const std::string& client, const std::string& body = "") {
  TextReply reply = textExchange({{"Client-ID", client},
                                  {"Log-Correlation-ID", "bench"},
                                  {"Operation-Name", operation},
                                  {"Server-ID", server},
                                  {"Service-Name", "KsMEMRequest"}},
                                 body);
  if (reply.code != 0) return std::nullopt;
  return std::move(reply.text);
}

// Registers `clients` clients "c0", "c1", ... of a server of this process's own; gives the
// server's identifier.
std::string serverWithClients(int clients) {
  if (KsMem_Init(std::malloc, std::free) != 0) throw std::runtime_error("no transport");
  const std::string server = "bench-" + std::to_string(getpid());
  for (int c = 0; c < clients; ++c) {
    if (!exchange("registerClient", server, "c" + std::to_string(c))) {
      throw std::runtime_error("registerClient failed");
    }
  }
  return server;
}

void BM_RoundTripEmbedded(benchmark::State& state) {
  ServiceChild child("embedded", roundTrip);
  timeInChild(state, child);
}

// The round trip through the Redis or Redis Cluster named in the environment variable `name`.
void roundTripsThrough(benchmark::State& state, const std::string& name) {
  const std::optional<std::string> url = urlFrom(state, name);
  if (!url) return;
  ServiceChild child(*url, roundTrip);
  timeInChild(state, child);
}

// What a round trip has Redis do at the least, one command at a time. putEvents: check that
// alice is registered, append the event, list the clients; getEvents: read bob's cursor, move
// it, read what follows; getSharedClients: check that bob is registered, list the clients.
void BM_RawRedisCommandsOfARoundTrip(benchmark::State& state) {
  const std::optional<std::string> url = urlFrom(state, kRedis);
  if (!url) return;
  RawRedis redis(*url);
  if (!redis.problem().empty()) return state.SkipWithError(redis.problem().c_str());
  const std::string prefix = "raw-" + std::to_string(getpid());
  const std::string clients = prefix + ":clients", cursors = prefix + ":cursors",
                    log = prefix + ":log";
  redis.command({"DEL", clients, cursors, log});
  redis.command({"ZADD", clients, "1", "alice", "2", "bob"});
  redis.command({"HSET", cursors, "alice", "0-0", "bob", "0-0"});
  for (auto _ : state) {
    redis.command({"HGET", cursors, "alice"});
    const RawRedis::Reply id =
        redis.command({"XADD", log, "*", "sender", "alice", "event", kEvent});
    redis.command({"ZRANGE", clients, "0", "-1"});
    const RawRedis::Reply cursor = redis.command({"HGET", cursors, "bob"});
    // One entry: its id and its four fields.
    const RawRedis::Reply read =
        redis.command({"XRANGE", log, "(" + RawRedis::text(cursor, "0-0"), "+"});
    redis.command({"HSET", cursors, "bob", RawRedis::text(id, "0-0")});
    redis.command({"HEXISTS", cursors, "bob"});
    const RawRedis::Reply listed = redis.command({"ZRANGE", clients, "0", "-1"});
    if (read == nullptr || read->elements != 1 || listed == nullptr || listed->elements != 2) {
      state.SkipWithError("Redis did not answer as it should");
      break;
    }
  }
}

// A getEvents with nothing pending, or a putEvents, by c0 of a server with `clients` clients.
void atTransport(benchmark::State& state, const std::string& operation, int clients) {
  const std::optional<std::string> url = urlFrom(state, kRedis);
  if (!url) return;
  ServiceChild child(*url, [&]() -> ServiceChild::Operation {
    const std::string server = serverWithClients(clients);
    return [server, operation] { return exchange(operation, server, "c0", kEvent).has_value(); };
  });
  timeInChild(state, child);
}

// Redis's memory for kPosted events of 1000 bytes that none of `clients` clients has fetched,
// per event and over the event's size. One iteration: it fills a server of its own.
void memoryPerEvent(benchmark::State& state, int clients) {
  constexpr int kPosted = 2000;
  const std::optional<std::string> url = urlFrom(state, kRedis);
  if (!url) return;
  RawRedis redis(*url);
  if (!redis.problem().empty()) return state.SkipWithError(redis.problem().c_str());
  ServiceChild child(*url, [&]() -> ServiceChild::Operation {
    const std::string server = serverWithClients(clients);
    return [server] {
      std::string event(1000, '.');
      for (int i = 0; i < kPosted; ++i) {
        event.replace(0, 8, std::to_string(10000000 + i));
        if (!exchange("putEvents", server, "c0", event)) return false;
      }
      return true;
    };
  });
  for (auto _ : state) {
    const long long before = redis.infoInteger("used_memory");
    if (child.timeOne() < 0) return state.SkipWithError("posting failed in the child");
    const long long after = redis.infoInteger("used_memory");
    if (before < 0 || after < 0) return state.SkipWithError("INFO gave no used_memory");
    state.counters["memory_over_event_size"] =
        static_cast<double>(after - before) / kPosted / 1000.0;
  }
}

const bool registered = [] {
  using benchmark::RegisterBenchmark;
  RegisterBenchmark("round_trip_embedded/ksmem", BM_RoundTripEmbedded)->UseManualTime();
  RegisterBenchmark("round_trip_redis/ksmem", roundTripsThrough, kRedis)->UseManualTime();
  RegisterBenchmark("round_trip_redis/raw_commands", BM_RawRedisCommandsOfARoundTrip)
      ->UseRealTime();
  RegisterBenchmark("round_trip_cluster/ksmem", roundTripsThrough, kCluster)->UseManualTime();
  RegisterBenchmark("round_trip_cluster/single_redis", roundTripsThrough, kRedis)->UseManualTime();
  RegisterBenchmark("round_trip_cluster_without_replicas/ksmem", roundTripsThrough, kPrimariesAlone)
      ->UseManualTime();
  RegisterBenchmark("round_trip_cluster_without_replicas/single_redis", roundTripsThrough, kRedis)
      ->UseManualTime();
  for (const char* operation : {"getEvents", "putEvents"}) {
    const std::string row =
        operation == std::string("getEvents") ? "idle_fetch_redis/" : "put_redis/";
    RegisterBenchmark((row + "2_clients").c_str(), atTransport, operation, 2)->UseManualTime();
    RegisterBenchmark((row + "ksmem_1000_clients").c_str(), atTransport, operation, 1000)
        ->UseManualTime();
  }
  for (const int clients : {2, 100, 1000}) {
    RegisterBenchmark(
        ("memory_per_event_redis/ksmem_" + std::to_string(clients) + "_clients").c_str(),
        memoryPerEvent, clients)
        ->Iterations(1);
  }
  return true;
}();

}  // namespace
