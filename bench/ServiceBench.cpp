// Round trips through KsMEMConnection (alice posts an event with putEvents, bob fetches it with
// getEvents, which also lists the shared clients) against the embedded service and against
// Redis on loopback, beside the Redis commands that such a round trip needs at the least, sent
// one at a time over a bare socket: the ceiling for the Redis case.
//
// A process talks to the one service KSMEM_SERVICE names at its first KsMem_Init, so each
// round-trip case runs its connections in a forked child of its own: the benchmark asks the
// child for one round trip at a time and takes the time that the child measured around it.
// The Redis cases start a redis-server of their own and are skipped, saying why, without one.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "client/KsMEMConnection.h"
#include "tests/standin/RedisServer.h"
#include "tests/standin/RedisWire.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
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

// alice and bob of one server, in a child process that uses `service`. Each request makes the
// child do one round trip and answer with the nanoseconds it took, or -1 once it failed.
class RoundTripChild {
 public:
  explicit RoundTripChild(const std::string& service) {
    int requests[2], answers[2];
    if (pipe(requests) != 0 || pipe(answers) != 0) return;
    pid = fork();
    if (pid == 0) {
      close(requests[1]);
      close(answers[0]);
      setenv("KSMEM_SERVICE", service.c_str(), 1);
      serve(requests[0], answers[1]);
      _exit(0);
    }
    close(requests[0]);
    close(answers[1]);
    requestEnd = requests[1];
    answerEnd = answers[0];
  }
  ~RoundTripChild() {
    close(requestEnd);
    close(answerEnd);
    if (pid > 0) waitpid(pid, nullptr, 0);
  }
  RoundTripChild(const RoundTripChild&) = delete;
  RoundTripChild& operator=(const RoundTripChild&) = delete;

  // Nanoseconds of one round trip, or -1.
  int64_t roundTrip() {
    int64_t nanoseconds = -1;
    if (write(requestEnd, "r", 1) != 1 ||
        read(answerEnd, &nanoseconds, sizeof nanoseconds) != sizeof nanoseconds) {
      return -1;
    }
    return nanoseconds;
  }

 private:
  static void serve(int requests, int answers) {
    try {
      std::string server = "bench-" + std::to_string(getpid()), aliceID = "alice", bobID = "bob";
      std::string locale, correlation = "bench", event = kEvent, events;
      std::vector<std::string> clients;
      KsMEMConnection alice, bob;
      alice.registerClient(server, aliceID, locale, clients);
      bob.registerClient(server, bobID, locale, clients);
      for (char request; read(requests, &request, 1) == 1;) {
        const Clock::time_point start = Clock::now();
        clients.clear();
        alice.putEvents(event, clients, correlation);
        bob.getEvents(events, clients, correlation);
        const int64_t nanoseconds =
            events == kEvent ? (Clock::now() - start) / std::chrono::nanoseconds(1) : -1;
        if (write(answers, &nanoseconds, sizeof nanoseconds) != sizeof nanoseconds) return;
      }
    } catch (const Exception&) {
      const int64_t failed = -1;
      if (write(answers, &failed, sizeof failed) != sizeof failed) return;
    }
  }

  pid_t pid = -1;
  int requestEnd = -1;
  int answerEnd = -1;
};

void roundTrips(benchmark::State& state, const std::string& service) {
  RoundTripChild child(service);
  if (child.roundTrip() < 0) {  // warms up too: connections, scripts, the XML library
    state.SkipWithError(("no round trip with KSMEM_SERVICE=" + service).c_str());
    return;
  }
  double seconds = 0;
  for (auto _ : state) {
    const int64_t nanoseconds = child.roundTrip();
    if (nanoseconds < 0) {
      state.SkipWithError("a round trip failed");
      break;
    }
    seconds += nanoseconds * 1e-9;
    state.SetIterationTime(nanoseconds * 1e-9);
  }
  state.counters["round_trips_per_s"] = static_cast<double>(state.iterations()) / seconds;
}

void BM_RoundTripEmbedded(benchmark::State& state) { roundTrips(state, "embedded"); }

void BM_RoundTripRedis(benchmark::State& state) {
  std::string problem;
  RedisServer* redis = loopbackRedis(problem);
  if (redis == nullptr) {
    state.SkipWithError(problem.c_str());
    return;
  }
  roundTrips(state, redis->url());
}

// What a round trip has Redis do at the least, one command at a time: putEvents reads the
// clients and queues the event, getEvents takes the pending events and lists the clients.
void BM_RawRedisCommandsOfARoundTrip(benchmark::State& state) {
  std::string problem;
  RedisServer* redis = loopbackRedis(problem);
  if (redis == nullptr) {
    state.SkipWithError(problem.c_str());
    return;
  }
  RedisWire wire = redis->wire();
  const std::string clients = "raw-" + std::to_string(getpid()) + ":clients";
  const std::string events = "raw-" + std::to_string(getpid()) + ":events:bob";
  wire.command({"DEL", clients});
  wire.command({"RPUSH", clients, "alice", "bob"});
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    wire.command({"LRANGE", clients, "0", "-1"});
    wire.command({"RPUSH", events, kEvent});
    wire.command({"LRANGE", events, "0", "-1"});
    wire.command({"DEL", events});
    if (wire.command({"LRANGE", clients, "0", "-1"}).size() != 2) {
      state.SkipWithError("Redis did not answer as it should");
      break;
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  state.counters["round_trips_per_s"] = static_cast<double>(state.iterations()) / seconds;
}

BENCHMARK(BM_RoundTripEmbedded)->UseManualTime();
BENCHMARK(BM_RoundTripRedis)->UseManualTime();
BENCHMARK(BM_RawRedisCommandsOfARoundTrip)->UseRealTime();

}  // namespace
