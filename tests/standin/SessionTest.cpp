// One whole session against the stand-in transport and its service, linked as an application
// links them, and what the transport counts as handed over. ctest runs it against the embedded
// service and again against a Redis of its own (tests/CMakeLists.txt).
#include <gtest/gtest.h>

#include "binding/TextExchange.h"
#include "tests/standin/Calls.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
using Kestrane::Net::KsModelEventManager::Binding::textExchange;

namespace {

TEST(SessionTest, ClientsOfAServerReceiveEachOthersEventsOnceByteForByteAndRefusalsSayWhy) {
  const std::string odd = "c&<>\"'";
  std::string binary;
  for (int b = 1; b < 256; ++b) binary += static_cast<char>(b);
  // `big` is the largest event that the service takes.
  const std::string text = "caf\xC3\xA9 \xE2\x82\xAC\r\n", big(1 << 20, 'x');
  KsMEMConnection alice, bob, oddOne, elsewhere, bobAgain, bobBack;
  const List registered[] = {registerAs(alice, "plant-7", "alice"),
                             registerAs(bob, "plant-7", "bob"), registerAs(oddOne, "plant-7", odd),
                             registerAs(elsewhere, "plant=8", "alice")};

  const List queuedFor[] = {post(alice, text), post(alice, binary), post(alice, big)};
  const List registeredAgain = registerAs(bobAgain, "plant-7", "bob");
  const std::string bobFirst = fetch(bob), bobSecond = fetch(bob);
  const std::string aliceOwn = fetch(alice), otherServer = fetch(elsewhere);
  const List queuedForNews = post(oddOne, "news");
  List afterBobLeft;
  bob.unregisterClient(afterBobLeft);
  const List bobBackRegistered = registerAs(bobBack, "plant-7", "bob");

  EXPECT_EQ(registered[0], List{"alice"});
  EXPECT_EQ(registered[2], (List{"alice", "bob", odd}));
  for (const List& clients : queuedFor) EXPECT_EQ(clients, (List{"bob", odd}));
  EXPECT_EQ(registeredAgain, (List{"alice", "bob", odd}));  // keeps its place
  EXPECT_TRUE(bobFirst == text + binary + big);
  EXPECT_EQ(bobSecond + aliceOwn + otherServer, "");
  EXPECT_EQ(queuedForNews, (List{"alice", "bob"}));
  EXPECT_EQ(afterBobLeft, (List{"alice", odd}));
  EXPECT_EQ(bobBackRegistered, (List{"alice", odd, "bob"}));
  EXPECT_EQ(fetch(bobBack), "");  // what was posted before it registered
  EXPECT_EQ(fetch(alice), "news");

  // The service's refusals reach the caller by class, with its words.
  std::string noServer, nobody = "nobody", locale;
  List ignored;
  KsMEMConnection(oddOne).unregisterClient(ignored);  // the copy leaves, oddOne stays
  EXPECT_EQ(thrownBy([&] { KsMEMConnection().registerClient(noServer, nobody, locale, ignored); }),
            "KsMEMProtocolException 0 Client \"nobody\" cannot register without a server "
            "identifier: the request's \"Server-ID\" header is empty or missing.");
  EXPECT_EQ(thrownBy([&] { post(oddOne, "too late"); }),
            "KsMEMProtocolException 0 Client \"" + odd +
                "\" is not registered with the Model Event Manager under server \"plant-7\", so "
                "it cannot call putEvents; it must call registerClient first.");
  EXPECT_THROW(oddOne.unregisterClient(ignored), Exception);
  EXPECT_EQ(alice.getStatus(), 0);
}

// The reply of one exchange in the text form, or "failed".
std::string exchange(const std::string& operation, const std::string& client,
                     const std::string& body = "") {
  const auto reply = textExchange(
      {{"Client-ID", client}, {"Operation-Name", operation}, {"Server-ID", "handover"}}, body);
  return reply.code == 0 ? reply.text : "failed";
}

// A batch is acknowledged by the client's next fetch once the client list after it has been
// answered; until then a fetch brings it again, whatever else the client sends meanwhile. Seen at
// the transport's own entries: a client library always asks for the client list right after a
// fetch, and the service scenarios in Python (tests/service/) cannot see this.
TEST(HandoverTest, FetchedBatchComesAgainUntilTheClientListAfterItIsAnswered) {
  exchange("registerClient", "bob");
  exchange("registerClient", "alice");
  exchange("putEvents", "alice", "news");

  const std::string first = exchange("getEvents", "bob");
  exchange("putEvents", "bob", "reply");
  const std::string again = exchange("getEvents", "bob");
  exchange("getSharedClients", "bob");
  const std::string afterwards = exchange("getEvents", "bob");

  EXPECT_EQ(first + "|" + again + "|" + afterwards, "news|news|");
}

}  // namespace
