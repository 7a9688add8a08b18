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
// and takes the time that the child measured around it. The Redis cases start a redis-server
// of their own and are skipped, saying why, without one.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "binding/TextExchange.h"
#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"
#include "tests/standin/RedisCluster.h"
#include "tests/standin/RedisServer.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
using Kestrane::Net::KsModelEventManager::Binding::TextReply;
using Kestrane::Net::KsModelEventManager::Binding::textExchange;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kEvent =
    "<reading sensor=\"t2\" unit=\"\xC2\xB0"
    "C\">19.0</reading>";

// The loopback Redis of this run, started at its first use; null, with `problem` set, if none.
RedisServer* loopbackRedis(std::string& problem) {
  static std::unique_ptr<RedisServer> server;
  static std::string why;
  if (!server && why.empty()) {
    server = std::make_unique<RedisServer>(RedisServer::Listen::kLoopback);
    if (!server->start()) {
      why = "no Redis for this case: " + server->problem();
      server.reset();
    }
  }
  problem = why;
  return server.get();
}

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

// The Redis Cluster of this run, with a replica for each primary or none, started at its first
// use; null, with `problem` set, if none.
RedisCluster* loopbackCluster(bool replicated, std::string& problem) {
  static std::unique_ptr<RedisCluster> clusters[2];
  static std::string why[2];
  std::unique_ptr<RedisCluster>& cluster = clusters[replicated];
  if (!cluster && why[replicated].empty()) {
    cluster = std::make_unique<RedisCluster>(replicated);
    if (!cluster->start()) {
      why[replicated] = "no Redis Cluster for this case: " + cluster->problem();
      cluster.reset();
    }
  }
  problem = why[replicated];
  return cluster.get();
}

void roundTripsThroughCluster(benchmark::State& state, bool replicated) {
  std::string problem;
  RedisCluster* cluster = loopbackCluster(replicated, problem);
  if (cluster == nullptr) return state.SkipWithError(problem.c_str());
  ServiceChild child(cluster->url(), roundTrip);
  timeInChild(state, child);
}

void BM_RoundTripRedis(benchmark::State& state) {
  std::string problem;
  RedisServer* redis = loopbackRedis(problem);
  if (redis == nullptr) return state.SkipWithError(problem.c_str());
  ServiceChild child(redis->url(), roundTrip);
  timeInChild(state, child);
}

// What a round trip has Redis do at the least, one command at a time. putEvents: check that
// alice is registered, append the event, list the clients; getEvents: read bob's cursor, move
// it, read what follows; getSharedClients: check that bob is registered, list the clients.
void BM_RawRedisCommandsOfARoundTrip(benchmark::State& state) {
  std::string problem;
  RedisServer* redis = loopbackRedis(problem);
  if (redis == nullptr) return state.SkipWithError(problem.c_str());
  const std::string prefix = "raw-" + std::to_string(getpid());
  const std::string clients = prefix + ":clients", cursors = prefix + ":cursors",
                    log = prefix + ":log";
  redis->command({"DEL", clients, cursors, log});
  redis->command({"ZADD", clients, "1", "alice", "2", "bob"});
  redis->command({"HSET", cursors, "alice", "0-0", "bob", "0-0"});
  for (auto _ : state) {
    redis->command({"HGET", cursors, "alice"});
    const std::vector<std::string> id =
        redis->command({"XADD", log, "*", "sender", "alice", "event", kEvent});
    redis->command({"ZRANGE", clients, "0", "-1"});
    const std::vector<std::string> cursor = redis->command({"HGET", cursors, "bob"});
    const std::vector<std::string> read =
        redis->command({"XRANGE", log, "(" + (cursor.empty() ? "0-0" : cursor[0]), "+"});
    redis->command({"HSET", cursors, "bob", id.empty() ? "0-0" : id[0]});
    redis->command({"HEXISTS", cursors, "bob"});
    if (read.size() != 5 || redis->command({"ZRANGE", clients, "0", "-1"}).size() != 2) {
      state.SkipWithError("Redis did not answer as it should");
      break;
    }
  }
}

// A getEvents with nothing pending, or a putEvents, by c0 of a server with `clients` clients.
void atTransport(benchmark::State& state, const std::string& operation, int clients) {
  std::string problem;
  RedisServer* redis = loopbackRedis(problem);
  if (redis == nullptr) return state.SkipWithError(problem.c_str());
  ServiceChild child(redis->url(), [&]() -> ServiceChild::Operation {
    const std::string server = serverWithClients(clients);
    return [server, operation] { return exchange(operation, server, "c0", kEvent).has_value(); };
  });
  timeInChild(state, child);
}

// Redis's memory for kPosted events of 1000 bytes that none of `clients` clients has fetched,
// per event and over the event's size. One iteration: it fills a server of its own.
void memoryPerEvent(benchmark::State& state, int clients) {
  constexpr int kPosted = 2000;
  std::string problem;
  RedisServer* redis = loopbackRedis(problem);
  if (redis == nullptr) return state.SkipWithError(problem.c_str());
  ServiceChild child(redis->url(), [&]() -> ServiceChild::Operation {
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
    const long long before = redis->infoInteger("used_memory");
    if (child.timeOne() < 0) return state.SkipWithError("posting failed in the child");
    const long long after = redis->infoInteger("used_memory");
    state.counters["memory_over_event_size"] =
        static_cast<double>(after - before) / kPosted / 1000.0;
  }
}

const bool registered = [] {
  using benchmark::RegisterBenchmark;
  RegisterBenchmark("round_trip_embedded/ksmem", BM_RoundTripEmbedded)->UseManualTime();
  RegisterBenchmark("round_trip_redis/ksmem", BM_RoundTripRedis)->UseManualTime();
  RegisterBenchmark("round_trip_redis/raw_commands", BM_RawRedisCommandsOfARoundTrip)
      ->UseRealTime();
  RegisterBenchmark("round_trip_cluster/ksmem", roundTripsThroughCluster, true)->UseManualTime();
  RegisterBenchmark("round_trip_cluster/single_redis", BM_RoundTripRedis)->UseManualTime();
  RegisterBenchmark("round_trip_cluster_without_replicas/ksmem", roundTripsThroughCluster, false)
      ->UseManualTime();
  RegisterBenchmark("round_trip_cluster_without_replicas/single_redis", BM_RoundTripRedis)
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
