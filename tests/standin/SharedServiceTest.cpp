// The service shared by processes: how KSMEM_SERVICE chooses it, and the service kept in Redis
// seen by several processes at once, across a restart of Redis, and in its keys.
//
// Under ctest the standin suites run twice: once as they are, once with KSMEM_TEST_SERVICE=redis,
// when the environment below starts a redis-server of this process's own before the first test,
// points KSMEM_SERVICE at it and stops it after the last. The Redis tests here run in that second
// run alone.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

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

std::string lastError() {
  const char* text = nullptr;
  KsMem_GetLastError(&text);
  return text != nullptr ? text : "";
}

// A whole getStatus exchange in the text form; its failure code, or 0.
int32_t statusExchange() {
  char reply[KSMEM_RECEIVE_BUFFER_SIZE];
  int32_t result = KsMem_Send("Operation-Name=getStatus\r\n\r\nping");
  if (result >= 0) result = KsMem_SendEOF();
  while (result >= 0) result = KsMem_Receive(reply);
  if (result != -1) return result;
  KsMem_Complete();
  return 0;
}

// The elements of the list at `key` in this run's Redis, one a line without line breaks.
List listInRedis(const std::string& key) {
  const std::string command = "redis-cli -s '" + ownRedis->url().substr(7) +
                              "' --raw LRANGE '" + key + "' 0 -1";
  List elements;
  FILE* output = popen(command.c_str(), "r");
  char line[4096];
  while (output != nullptr && std::fgets(line, sizeof line, output) != nullptr) {
    elements.emplace_back(line, std::strcspn(line, "\n"));
  }
  if (output != nullptr) pclose(output);
  return elements;
}

// One event of a crowd test: a header "<sender:sequence:length>", then bytes 1..255 in an order
// of the event's own and multi-byte UTF-8.
std::string crowdEvent(int sender, int sequence) {
  std::string payload;
  for (int i = 0; i < 300 + sequence % 40; ++i) {
    payload += static_cast<char>(1 + (sender * 31 + sequence + i) % 255);
  }
  payload += "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x93\xA6";
  return "<" + std::to_string(sender) + ":" + std::to_string(sequence) + ":" +
         std::to_string(payload.size()) + ">" + payload;
}

// Registers as client `self` of `server`, waits until all `processes` clients are there, posts
// `events` events and fetches between posts, then fetches until every event of the others is
// in. Gives everything fetched, as it came.
std::string postAndFetch(std::string server, int self, int processes, int events) {
  KsMEMConnection connection;
  std::string client = "client-" + std::to_string(self), locale, correlation = "crowd";
  List clients;
  connection.registerClient(server, client, locale, clients);
  while (clients.size() < static_cast<std::size_t>(processes)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    clients.clear();
    connection.getSharedClients(clients);
  }
  std::size_t expected = 0;
  for (int sender = 0; sender < processes; ++sender) {
    for (int i = 0; sender != self && i < events; ++i) expected += crowdEvent(sender, i).size();
  }
  std::string received, fetched;
  for (int i = 0; i < events; ++i) {
    std::string event = crowdEvent(self, i);
    connection.putEvents(event, clients, correlation);
    connection.getEvents(fetched, clients, correlation);
    received += fetched;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (received.size() < expected && std::chrono::steady_clock::now() < deadline) {
    connection.getEvents(fetched, clients, correlation);
    received += fetched;
  }
  return received;
}

TEST(SharedService, ProcessesPostingAtOnceDeliverEveryEventOnceToEveryOtherClient) {
  if (ownRedis == nullptr) GTEST_SKIP() << kRedisOnly;
  constexpr int kProcesses = 4;
  constexpr int kEvents = 150;
  const std::string server = uniqueServerID("crowd");

  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(std::make_unique<ChildProcess>(
        [&, p] { return postAndFetch(server, p, kProcesses, kEvents); }));
  }

  for (int p = 0; p < kProcesses; ++p) {
    const std::string received = children[p]->output();
    std::map<int, int> nextFrom;  // the sequence number expected next, by sender
    for (std::size_t at = 0; at < received.size();) {
      int sender = -1, sequence = -1;
      std::size_t length = 0;
      ASSERT_EQ(std::sscanf(received.c_str() + at, "<%d:%d:%zu>", &sender, &sequence, &length),
                3) << "client " << p << " received bytes that begin no event, at " << at;
      const std::string event = crowdEvent(sender, sequence);
      ASSERT_EQ(received.compare(at, event.size(), event), 0)
          << "client " << p << " received event " << sender << ":" << sequence << " altered";
      EXPECT_NE(sender, p) << "client " << p << " received its own event";
      EXPECT_EQ(sequence, nextFrom[sender]++) << "client " << p << ", from " << sender;
      at += event.size();
    }
    for (int sender = 0; sender < kProcesses; ++sender) {
      EXPECT_EQ(nextFrom[sender], sender == p ? 0 : kEvents) << p << " from " << sender;
    }
  }
}

TEST(SharedService, StoppedRedisFailsTheNextOperationAndTheSameConnectionWorksOnceItIsBack) {
  if (ownRedis == nullptr) GTEST_SKIP() << kRedisOnly;
  KsMEMConnection connection;
  std::string server = uniqueServerID("restart"), alice = "alice", locale, correlation = "c";
  std::string event = "after the restart";
  List clients;
  connection.registerClient(server, alice, locale, clients);

  ownRedis->stop();
  const int32_t lostCode = statusExchange();
  const std::string lostText = lastError();
  const int32_t unreachableCode = statusExchange();
  const std::string unreachableText = lastError();
  int statusType = 0;
  std::string putMessage;
  try {
    connection.getStatus();
  } catch (const KsMEMConnectionException& e) {
    statusType = e.getType();
  }
  try {
    connection.putEvents(event, clients, correlation);
  } catch (const KsMEMConnectionException& e) {
    putMessage = e.getMessage();
  }
  ASSERT_TRUE(ownRedis->start()) << ownRedis->problem();

  EXPECT_EQ(lostCode, -3001);
  EXPECT_EQ(lostText.rfind("lost the connection to the service at " + ownRedis->url() + ": ", 0),
            0u) << lostText;
  EXPECT_EQ(unreachableCode, -3001);
  EXPECT_EQ(unreachableText, "cannot reach the service at " + ownRedis->url() +
                                 ": No such file or directory");
  EXPECT_EQ(statusType, -1);
  EXPECT_EQ(putMessage, unreachableText);

  EXPECT_EQ(connection.getStatus(), 0);
  clients.clear();
  connection.registerClient(server, alice, locale, clients);  // this Redis keeps nothing
  std::string bob = "bob";
  KsMEMConnection().registerClient(server, bob, locale, clients);
  clients.clear();
  connection.putEvents(event, clients, correlation);
  EXPECT_EQ(clients, List{"bob"});
}

TEST(SharedService, KeysNameServerAndClientWithOddBytesPercentEncoded) {
  if (ownRedis == nullptr) GTEST_SKIP() << kRedisOnly;
  const std::string server = "plant {7}:caf\xC3\xA9%" + uniqueServerID("");
  const std::string serverKey = "plant%20%7B7%7D%3Acaf%C3%A9%25" + uniqueServerID("");
  std::string serverID = server, odd = "b:c {d}%", poster = "x", locale, event = "news";
  std::string correlation = "c";
  List registered, queuedFor;
  KsMEMConnection oddClient, posting;
  oddClient.registerClient(serverID, odd, locale, registered);
  registered.clear();
  posting.registerClient(serverID, poster, locale, registered);

  posting.putEvents(event, queuedFor, correlation);

  EXPECT_EQ(registered, (List{"b:c {d}%", "x"}));
  EXPECT_EQ(queuedFor, List{"b:c {d}%"});
  EXPECT_EQ(listInRedis("ksmem:{" + serverKey + "}:clients"), (List{"b%3Ac%20%7Bd%7D%25", "x"}));
  EXPECT_EQ(listInRedis("ksmem:{" + serverKey + "}:events:b%3Ac%20%7Bd%7D%25"), List{"news"});
}

TEST(SharedService, KsmemServiceIsReadOncePerProcessAndAnUnknownFormFailsWith1001) {
  const char* const accepted[] = {"", "embedded", "redis://127.0.0.1", "redis://db.example:6390/3",
                                  "unix:///run/redis.sock", "unix:///run/redis.sock?db=2"};
  const char* const refused[] = {"Embedded", "http://127.0.0.1:6379", "redis://:6379",
                                 "redis://host:99999", "redis://host:0", "redis://host/x",
                                 "unix://relative.sock", "unix:///run/redis.sock?database=2"};
  const auto initTwice = [](const char* value) {
    return ChildProcess([value] {
             setenv("KSMEM_SERVICE", value, 1);
             const int32_t first = KsMem_Init(malloc, free);
             setenv("KSMEM_SERVICE", "embedded", 1);
             const int32_t second = KsMem_Init(malloc, free);
             return std::to_string(first) + " " + std::to_string(second) + " " +
                    (first != 0 ? lastError() : "");
           }).output();
  };
  const auto firstOperation = [] {
    return ChildProcess([] {
             setenv("KSMEM_SERVICE", "http://127.0.0.1:6379", 1);
             std::string server = "s", client = "c", locale;
             List clients;
             try {
               KsMEMConnection().registerClient(server, client, locale, clients);
             } catch (const KsMEMConnectionException& e) {
               return e.getMessage();
             }
             return std::string("no KsMEMConnectionException");
           }).output();
  };

  for (const char* value : accepted) EXPECT_EQ(initTwice(value), "0 0 ") << value;
  for (const char* value : refused) {
    EXPECT_EQ(initTwice(value).substr(0, 10), "1001 1001 ") << value;
  }
  const std::string expectedText =
      "KSMEM_SERVICE is \"http://127.0.0.1:6379\", which names no service. Accepted forms: "
      "unset, empty or \"embedded\" for the service inside this process; "
      "\"redis://HOST[:PORT][/DB]\" (port 6379 unless given) or "
      "\"unix:///PATH/TO/SOCKET[?db=N]\" for a service kept in Redis.";
  EXPECT_EQ(initTwice("http://127.0.0.1:6379"), "1001 1001 " + expectedText);
  EXPECT_EQ(firstOperation(), expectedText);
}

}  // namespace
