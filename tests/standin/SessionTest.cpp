// The client library against the stand-in transport and its embedded service, linked as an
// application links them.
#include <gtest/gtest.h>

#include "client/KsMEMConnection.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
using List = std::vector<std::string>;

namespace {

// A connection registered as `client` under `server`.
struct Client {
  Client(std::string server, std::string client) {
    std::string locale = "en";
    connection.registerClient(server, client, locale, registered);
  }
  KsMEMConnection connection;
  List registered;
};

TEST(SessionTest, TwoClientsExchangeEventsByteForByte) {
  Client alice("session-1", "alice");
  Client bob("session-1", "bob");
  std::string binary;
  for (int b = 1; b < 256; ++b) binary += static_cast<char>(b);
  std::string first = "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x93\xA6";
  std::string big(70000, 'x');  // several chunks out, several deliveries back
  std::string correlation = "corr";
  List queuedFor;

  for (std::string* event : {&first, &binary, &big}) {
    alice.connection.putEvents(*event, queuedFor, correlation);
  }
  std::string events;
  List shared = {"stale"};
  bob.connection.getEvents(events, shared, correlation);

  EXPECT_EQ(List{"alice"}, alice.registered);
  EXPECT_EQ((List{"alice", "bob"}), bob.registered);
  EXPECT_EQ((List{"bob", "bob", "bob"}), queuedFor);
  EXPECT_EQ(first + binary + big, events);
  EXPECT_EQ((List{"alice", "bob"}), shared);

  alice.connection.getEvents(events, shared, correlation);
  EXPECT_EQ("", events);  // a poster does not receive its own events

  List remaining;
  alice.connection.unregisterClient(remaining);
  bob.connection.unregisterClient(remaining);
  EXPECT_EQ(List{"bob"}, remaining);
}

// Each refusal is caught by its class across the shared library's boundary.
TEST(SessionTest, RefusalsOfTheServiceReachTheCallerByClassAndLeaveTheConnectionUsable) {
  std::string empty, nobody = "nobody", locale, events = "e", correlation = "c";
  List clients;
  Client ghost("session-2", "ghost");
  KsMEMConnection copy(ghost.connection);
  copy.unregisterClient(clients);  // the service forgets it; `ghost` still holds the identity

  EXPECT_THROW(copy.registerClient(empty, nobody, locale, clients), KsMEMProtocolException);
  EXPECT_THROW(ghost.connection.putEvents(events, clients, correlation), KsMEMProtocolException);
  try {
    ghost.connection.unregisterClient(clients);
    FAIL() << "no exception";
  } catch (const KsMEMException&) {
    FAIL() << "unregisterClient must rethrow as plain Exception";
  } catch (const Exception& e) {
    EXPECT_NE(std::string::npos, e.getMessage().find("ghost")) << e.getMessage();
  }
  EXPECT_EQ(0, ghost.connection.getStatus());
}

TEST(SessionTest, ConnectionOutlivingItsSourceStillParsesReplies) {
  auto* source = new KsMEMConnection;
  KsMEMConnection copy(*source);
  delete source;  // must not end the XML library under the copy
  std::string server = "session-3", client = "carol", locale = "";
  List clients;

  copy.registerClient(server, client, locale, clients);

  EXPECT_EQ(List{"carol"}, clients);
  copy.unregisterClient(clients);
}

}  // namespace
