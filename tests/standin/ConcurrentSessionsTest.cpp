// Connections on many threads at once, against the embedded service: each thread runs whole
// sessions while others construct, copy and destroy connections and parse replies.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <regex>
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
  Barrier registered(kThreads), posted(kThreads);
  std::vector<std::string> received(kThreads), failures(kThreads);

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

  // Every other thread's events, each once, in the order each sender posted them.
  const std::regex event("<e from=\"(c[0-9]+)\" n=\"([0-9]+)\"/>");
  std::string inOrder;
  for (int i = 0; i < kEventsPerThread; ++i) inOrder += std::to_string(i) + " ";
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ("", failures[t]) << "thread " << t;
    std::map<std::string, std::string> bySender, expected;
    for (std::sregex_iterator it(received[t].begin(), received[t].end(), event), end; it != end;
         ++it)
      bySender[(*it)[1]] += (*it)[2].str() + " ";
    for (int s = 0; s < kThreads; ++s)
      if (s != t) expected["c" + std::to_string(s)] = inOrder;
    EXPECT_EQ(bySender, expected) << "thread " << t;
  }
}

}  // namespace
