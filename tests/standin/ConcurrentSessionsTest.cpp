// Connections on many threads at once, against the embedded service: each thread runs whole
// sessions while others construct, copy and destroy connections and parse replies.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>

#include "tests/standin/Calls.h"

using namespace Kestrane::Net::KsModelEventManager::Client;

namespace {

constexpr int kThreads = 8;
constexpr int kEventsPerThread = 25;

// Spins until every thread has arrived; the threads run for a short while only.
class Barrier {
 public:
  explicit Barrier(int parties) : waiting(parties) {}
  void arriveAndWait() {
    waiting.fetch_sub(1);
    while (waiting.load() > 0) std::this_thread::yield();
  }

 private:
  std::atomic<int> waiting;
};

TEST(ConcurrentSessionsTest, EightThreadsDeliverEveryEventExactlyOnce) {
  Barrier registered(kThreads);
  Barrier posted(kThreads);
  std::vector<std::string> received(kThreads);
  std::vector<std::string> failures(kThreads);

  auto session = [&](int t) {
    try {
      const std::string client = "c" + std::to_string(t);
      KsMEMConnection connection;
      registerAs(connection, "concurrent", client);
      registered.arriveAndWait();

      for (int i = 0; i < kEventsPerThread; ++i) {
        // A copy posts, and goes again: the XML library must stay up for everyone else.
        KsMEMConnection copy(connection), other;
        const std::string event = "<e from=\"" + client + "\" n=\"" + std::to_string(i) + "\"/>";
        if (post(copy, event).size() != kThreads - 1) failures[t] += "queued for too few; ";
        if (other.getStatus() != 0) failures[t] += "status; ";
      }
      posted.arriveAndWait();

      received[t] = fetch(connection);
      List clients;
      connection.unregisterClient(clients);
    } catch (const Exception& e) {
      failures[t] += e.getMessage();
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(session, t);
  for (std::thread& thread : threads) thread.join();

  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ("", failures[t]) << "thread " << t;
    // Every other thread's events, each once, in the order each sender posted them.
    std::map<std::string, int> next;
    size_t at = 0;
    int count = 0;
    while ((at = received[t].find("<e from=\"", at)) != std::string::npos) {
      const size_t nameEnd = received[t].find('"', at + 9);
      const std::string from = received[t].substr(at + 9, nameEnd - at - 9);
      const int n = std::stoi(received[t].substr(received[t].find("n=\"", at) + 3));
      EXPECT_NE("c" + std::to_string(t), from);
      EXPECT_EQ(next[from]++, n) << "from " << from << " at thread " << t;
      ++count;
      at = nameEnd;
    }
    EXPECT_EQ((kThreads - 1) * kEventsPerThread, count) << "thread " << t;
  }
}

}  // namespace
