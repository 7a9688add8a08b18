// The service shared by processes: how KSMEM_SERVICE chooses it, and the service kept in Redis
// seen by several processes at once, across a restart of Redis, and in its keys.
//
// Under ctest the standin suites run twice: once as they are, once with KSMEM_TEST_SERVICE=redis,
// when the environment below starts a redis-server of this process's own before the first test,
// points KSMEM_SERVICE at it and stops it after the last. The Redis tests here run in that second
// run alone.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"
#include "tests/standin/ChildProcess.h"
#include "tests/standin/RedisServer.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
using List = std::vector<std::string>;

namespace {

RedisServer* ownRedis = nullptr;  // set while the run has a redis-server of its own

class OwnRedisEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    const char* wanted = std::getenv("KSMEM_TEST_SERVICE");
    if (wanted == nullptr || std::string(wanted) != "redis") return;
    server = std::make_unique<RedisServer>(RedisServer::Listen::kUnixSocket);
    ASSERT_TRUE(server->start()) << server->problem();
    setenv("KSMEM_SERVICE", server->url().c_str(), 1);
    ownRedis = server.get();
  }
  void TearDown() override {
    ownRedis = nullptr;
    server.reset();
  }

 private:
  std::unique_ptr<RedisServer> server;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new OwnRedisEnvironment);

constexpr char kRedisOnly[] = "needs a redis-server of its own: run with KSMEM_TEST_SERVICE=redis";

// registerClient; gives the shared clients of the reply.
List registerAs(KsMEMConnection& connection, std::string server, std::string client) {
  std::string locale;
  List clients;
  connection.registerClient(server, client, locale, clients);
  return clients;
}

// putEvents; gives the clients the event is queued for.
List post(KsMEMConnection& connection, std::string event) {
  std::string correlation = "c";
  List queuedFor;
  connection.putEvents(event, queuedFor, correlation);
  return queuedFor;
}

std::string fetch(KsMEMConnection& connection) {
  std::string events, correlation = "c";
  List clients;
  connection.getEvents(events, clients, correlation);
  return events;
}

// The message of the KsMEMConnectionException that `operation` throws.
template <typename Operation>
std::string connectionFailure(Operation operation) {
  try {
    operation();
  } catch (const KsMEMConnectionException& e) {
    return e.getMessage();
  }
  return "no KsMEMConnectionException";
}

// The elements of the list at `key` in this run's Redis, one a line without line breaks.
List listInRedis(const std::string& key) {
  const std::string command =
      "redis-cli -s '" + ownRedis->url().substr(7) + "' --raw LRANGE '" + key + "' 0 -1";
  List elements;
  FILE* output = popen(command.c_str(), "r");
  char line[4096];
  while (output != nullptr && std::fgets(line, sizeof line, output) != nullptr) {
    elements.emplace_back(line, std::strcspn(line, "\n"));
  }
  if (output != nullptr) pclose(output);
  return elements;
}

constexpr int kProcesses = 4;
constexpr int kEvents = 150;
constexpr std::size_t kEventSize = 350;

// Event `sequence` of client `sender` in the crowd test: "<sender:sequence>", multi-byte UTF-8,
// then bytes 1..255 in an order of the event's own.
std::string crowdEvent(int sender, int sequence) {
  std::string event = "<" + std::to_string(sender) + ":" + std::to_string(1000 + sequence) +
                      ">caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x93\xA6";
  for (std::size_t i = event.size(); i < kEventSize; ++i) {
    event += static_cast<char>(1 + (sender * 31 + sequence + i) % 255);
  }
  return event;
}

// Registers as client `self` of `server`, waits until all clients are there, posts its events
// and fetches between posts, then fetches until every event of the others is in. Gives
// everything fetched, as it came.
std::string postAndFetch(const std::string& server, int self) {
  KsMEMConnection connection;
  List clients = registerAs(connection, server, "client-" + std::to_string(self));
  while (clients.size() < kProcesses) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    clients.clear();
    connection.getSharedClients(clients);
  }
  std::string received;
  for (int i = 0; i < kEvents; ++i) {
    post(connection, crowdEvent(self, i));
    received += fetch(connection);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (received.size() < (kProcesses - 1) * kEvents * kEventSize &&
         std::chrono::steady_clock::now() < deadline) {
    received += fetch(connection);
  }
  return received;
}

TEST(SharedService, ProcessesPostingAtOnceDeliverEveryEventOnceToEveryOtherClient) {
  if (ownRedis == nullptr) GTEST_SKIP() << kRedisOnly;
  const std::string server = uniqueServerID("crowd");
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(std::make_unique<ChildProcess>([&, p] { return postAndFetch(server, p); }));
  }

  for (int p = 0; p < kProcesses; ++p) {
    const std::string received = children[p]->output();
    std::string from[kProcesses];  // by the sender's digit, in the order of arrival
    for (std::size_t at = 0; at < received.size(); at += kEventSize) {
      const int sender = static_cast<unsigned char>(received[at + 1]) % kProcesses;
      from[sender] += received.substr(at, kEventSize);
    }
    for (int sender = 0; sender < kProcesses; ++sender) {
      std::string sent;
      for (int i = 0; sender != p && i < kEvents; ++i) sent += crowdEvent(sender, i);
      EXPECT_TRUE(from[sender] == sent)
          << "client " << p << " received other events from " << sender << " than were sent";
    }
  }
}

TEST(SharedService, StoppedRedisFailsTheNextOperationAndTheSameConnectionWorksOnceItIsBack) {
  if (ownRedis == nullptr) GTEST_SKIP() << kRedisOnly;
  const std::string server = uniqueServerID("restart");
  KsMEMConnection connection, bob;
  registerAs(connection, server, "alice");

  ownRedis->stop();
  const std::string lost = connectionFailure([&] { post(connection, "event"); });
  int statusType = 0;
  try {
    connection.getStatus();
  } catch (const KsMEMConnectionException& e) {
    statusType = e.getType();
  }
  const std::string unreachable = connectionFailure([&] { post(connection, "event"); });
  ASSERT_TRUE(ownRedis->start()) << ownRedis->problem();

  EXPECT_EQ(lost.rfind("lost the connection to the service at " + ownRedis->url() + ": ", 0), 0u)
      << lost;
  EXPECT_EQ(statusType, -1);
  EXPECT_EQ(unreachable,
            "cannot reach the service at " + ownRedis->url() + ": No such file or directory");
  EXPECT_EQ(connection.getStatus(), 0);
  registerAs(connection, server, "alice");  // this Redis keeps nothing
  registerAs(bob, server, "bob");
  EXPECT_EQ(post(connection, "after the restart"), List{"bob"});
}

TEST(SharedService, KeysNameServerAndClientWithOddBytesPercentEncoded) {
  if (ownRedis == nullptr) GTEST_SKIP() << kRedisOnly;
  const std::string server = "plant {7}:caf\xC3\xA9%" + uniqueServerID("");
  const std::string key = "ksmem:{plant%20%7B7%7D%3Acaf%C3%A9%25" + uniqueServerID("") + "}:";
  KsMEMConnection oddClient, poster;
  registerAs(oddClient, server, "b:c {d}%");

  const List registered = registerAs(poster, server, "x");
  const List queuedFor = post(poster, "news");

  EXPECT_EQ(registered, (List{"b:c {d}%", "x"}));
  EXPECT_EQ(queuedFor, List{"b:c {d}%"});
  EXPECT_EQ(listInRedis(key + "clients"), (List{"b%3Ac%20%7Bd%7D%25", "x"}));
  EXPECT_EQ(listInRedis(key + "events:b%3Ac%20%7Bd%7D%25"), List{"news"});
}

TEST(SharedService, KsmemServiceIsReadOncePerProcessAndAnUnknownFormFailsWith1001) {
  // In a child: the results of KsMem_Init with `value` and then with "embedded", and where the
  // first failed, the message of a connection's first operation.
  const auto initTwice = [](const std::string& value) {
    return ChildProcess([value] {
             setenv("KSMEM_SERVICE", value.c_str(), 1);
             const int32_t first = KsMem_Init(malloc, free);
             setenv("KSMEM_SERVICE", "embedded", 1);
             const std::string results =
                 std::to_string(first) + " " + std::to_string(KsMem_Init(malloc, free));
             if (first == 0) return results;
             KsMEMConnection connection;
             return results + " " + connectionFailure([&] { registerAs(connection, "s", "c"); });
           })
        .output();
  };

  for (const char* value : {"", "embedded", "redis://127.0.0.1", "redis://db.example:6390/3",
                            "unix:///run/redis.sock", "unix:///run/redis.sock?db=2"}) {
    EXPECT_EQ(initTwice(value), "0 0") << value;
  }
  for (const std::string value : {"Embedded", "http://127.0.0.1:6379", "redis://:6379",
                                  "redis://host:99999", "redis://host:0", "redis://host/x",
                                  "unix://relative.sock", "unix:///run/redis.sock?database=2"}) {
    EXPECT_EQ(initTwice(value),
              "1001 1001 KSMEM_SERVICE is \"" + value +
                  "\", which names no service. Accepted forms: unset, empty or \"embedded\" for "
                  "the service inside this process; \"redis://HOST[:PORT][/DB]\" (port 6379 "
                  "unless given) or \"unix:///PATH/TO/SOCKET[?db=N]\" for a service kept in "
                  "Redis.");
  }
}

}  // namespace
