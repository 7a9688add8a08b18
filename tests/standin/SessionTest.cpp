// One whole session against the stand-in transport and its service, linked as an application
// links them. ctest runs it against the embedded service and again against a Redis of the test
// process's own (SharedServiceTest.cpp).
#include <gtest/gtest.h>

#include "client/KsMEMConnection.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
using List = std::vector<std::string>;

namespace {

// A connection registered as `client` under `server`, and what each operation gave.
struct Client {
  Client(std::string server, std::string client) {
    std::string locale = "en";
    connection.registerClient(server, client, locale, registered);
  }
  List post(std::string event) {
    std::string correlation = "session";
    List queuedFor;
    connection.putEvents(event, queuedFor, correlation);
    return queuedFor;
  }
  std::string fetch() {
    std::string events, correlation = "session";
    List clients = {"stale"};
    connection.getEvents(events, clients, correlation);
    EXPECT_FALSE(clients.empty() || clients[0] == "stale");
    return events;
  }
  List unregister() {
    List remaining;
    connection.unregisterClient(remaining);
    return remaining;
  }
  KsMEMConnection connection;
  List registered;
};

TEST(SessionTest, ClientsOfAServerReceiveEachOthersEventsOnceByteForByteAndRefusalsSayWhy) {
  const std::string odd = "c&<>\"'";
  std::string binary;
  for (int b = 1; b < 256; ++b) binary += static_cast<char>(b);
  const std::string text = "caf\xC3\xA9 \xE2\x82\xAC\r\n", big(70000, 'x');
  Client alice("plant-7", "alice"), bob("plant-7", "bob"), oddOne("plant-7", odd);
  Client elsewhere("plant-8", "alice");

  const List queuedFor[] = {alice.post(text), alice.post(binary), alice.post(big)};
  const List registeredAgain = Client("plant-7", "bob").registered;
  const std::string bobFirst = bob.fetch(), bobAgain = bob.fetch();
  const std::string aliceOwn = alice.fetch(), otherServer = elsewhere.fetch();
  const List queuedForNews = oddOne.post("news");
  const List afterBobLeft = bob.unregister();
  Client bobBack("plant-7", "bob");

  EXPECT_EQ(alice.registered, List{"alice"});
  EXPECT_EQ(oddOne.registered, (List{"alice", "bob", odd}));
  for (const List& clients : queuedFor) EXPECT_EQ(clients, (List{"bob", odd}));
  EXPECT_EQ(registeredAgain, (List{"alice", "bob", odd}));  // keeps its place
  EXPECT_TRUE(bobFirst == text + binary + big);
  EXPECT_EQ(bobAgain + aliceOwn + otherServer, "");
  EXPECT_EQ(queuedForNews, (List{"alice", "bob"}));
  EXPECT_EQ(afterBobLeft, (List{"alice", odd}));
  EXPECT_EQ(bobBack.registered, (List{"alice", odd, "bob"}));
  EXPECT_EQ(bobBack.fetch(), "");  // what was posted before it registered
  EXPECT_EQ(alice.fetch(), "news");

  // The service's refusals reach the caller by class, with its words.
  std::string noServer, nobody = "nobody", locale;
  List ignored;
  KsMEMConnection(oddOne.connection).unregisterClient(ignored);  // the copy leaves, oddOne stays
  try {
    KsMEMConnection().registerClient(noServer, nobody, locale, ignored);
    ADD_FAILURE() << "registered without a server";
  } catch (const KsMEMProtocolException& e) {
    EXPECT_EQ(e.getMessage(),
              "Client \"nobody\" cannot register without a server identifier: the request's "
              "\"Server-ID\" header is empty or missing.");
  }
  try {
    oddOne.post("too late");
    ADD_FAILURE() << "posted unregistered";
  } catch (const KsMEMProtocolException& e) {
    EXPECT_EQ(e.getMessage(), "Client \"" + odd +
                                  "\" is not registered with the Model Event Manager under server "
                                  "\"plant-7\", so it cannot call putEvents; it must call "
                                  "registerClient first.");
  }
  EXPECT_THROW(oddOne.unregister(), Exception);
  EXPECT_EQ(alice.connection.getStatus(), 0);
}

}  // namespace
