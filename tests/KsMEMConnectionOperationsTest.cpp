// registerClient, unregisterClient, getEvents, putEvents and getSharedClients against the
// scripted transport: what goes on the wire, and what survives each failure.
#include <gtest/gtest.h>

#include "client/KsMEMConnection.h"
#include "tests/ScriptedTransport.h"
#include "util/DomException.h"

using namespace Kestrane::Net::KsModelEventManager;
using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;
using List = std::vector<std::string>;

namespace {

// The header block that a request with these headers renders.
std::string block(const std::vector<std::pair<std::string, std::string>>& headers) {
  std::string text;
  for (const auto& [name, value] : headers) text += name + "=" + value + "\r\n";
  return text + "\r\n";
}

class OperationsTest : public ::testing::Test {
 protected:
  void SetUp() override { st::reset(); }

  // Registers as (server, client, locale) and forgets the calls that took.
  void registerAs(std::string server, std::string client, std::string locale = "") {
    st::scriptExchange(st::clientsReply({client}));
    List ignored;
    connection.registerClient(server, client, locale, ignored);
    st::reset();
  }

  KsMEMConnection connection;
};

TEST_F(OperationsTest, RegisterSendsIdentityAndLocaleAndAppendsTheClients) {
  std::string server = "S1", client = "alice", locale = "de_CH";
  List clients = {"x", "y"};
  st::scriptExchange(st::clientsReply({"alice", "bob"}));

  connection.registerClient(server, client, locale, clients);

  EXPECT_EQ((List{"x", "y", "alice", "bob"}), clients);
  EXPECT_EQ((List{block({{"Client-ID", "alice"},
                         {"Locale", "de_CH"},
                         {"Log-Correlation-ID", "KsMEMConnection.registerClient"},
                         {"Operation-Name", "registerClient"},
                         {"Server-ID", "S1"},
                         {"Service-Name", "KsMEMRequest"}}),
                  "KsMEM register client"}),
            st::sentNoAck());
}

TEST_F(OperationsTest, RegisteringWithEmptyServerSendsItAndLeavesTheConnectionUnregistered) {
  registerAs("S1", "alice");
  std::string server = "", client = "alice", locale = "";
  List clients;
  st::scriptExchange(st::clientsReply({}));

  connection.registerClient(server, client, locale, clients);

  EXPECT_NE(std::string::npos, st::sentNoAck()[0].find("Server-ID=\r\n"));
  EXPECT_TRUE(clients.empty());
  st::reset();
  std::string events = "e", correlation = "c";
  EXPECT_THROW(connection.putEvents(events, clients, correlation), KsMEMProtocolException);
  EXPECT_TRUE(st::calls().empty());
}

TEST_F(OperationsTest, LocaleGoesOnEveryRequestUntilARegistrationClearsIt) {
  registerAs("S1", "alice", "fr");
  st::scriptExchange("KsMEM Status check");
  connection.getStatus();
  EXPECT_EQ(block({{"Locale", "fr"},
                   {"Log-Correlation-ID", "KsMEMConnection.getStatus"},
                   {"Operation-Name", "getStatus"},
                   {"Service-Name", "KsMEMRequest"}}),
            st::sentNoAck()[0]);

  registerAs("S1", "alice", "");
  st::scriptExchange("KsMEM Status check");
  connection.getStatus();
  EXPECT_EQ(std::string::npos, st::sentNoAck()[0].find("Locale"));
}

TEST_F(OperationsTest, UnregisterClearsIdentityButKeepsLocale) {
  registerAs("S1", "alice", "en");
  List clients = {"first"};
  st::scriptExchange(st::clientsReply({"bob"}));

  connection.unregisterClient(clients);

  EXPECT_EQ((List{"first", "bob"}), clients);
  EXPECT_EQ((List{block({{"Client-ID", "alice"},
                         {"Locale", "en"},
                         {"Log-Correlation-ID", "KsMEMConnection.unregisterClient"},
                         {"Operation-Name", "unregisterClient"},
                         {"Server-ID", "S1"},
                         {"Service-Name", "KsMEMRequest"}}),
                  "KsMEM unregister client"}),
            st::sentNoAck());

  st::reset();
  st::scriptExchange(st::clientsReply({}));
  connection.unregisterClient(clients);  // never asks whether it is registered
  EXPECT_NE(std::string::npos, st::sentNoAck()[0].find("Client-ID=\r\nLocale=en\r\n"));
  EXPECT_NE(std::string::npos, st::sentNoAck()[0].find("Server-ID=\r\n"));
}

TEST_F(OperationsTest, UnreadableUnregisterReplyKeepsTheIdentity) {
  registerAs("S1", "alice");
  List clients;
  st::scriptExchange("<SharedClientIDs><other/></SharedClientIDs>");

  try {
    connection.unregisterClient(clients);
    FAIL() << "no exception";
  } catch (const Util::DomException& e) {
    EXPECT_EQ("Unexpected node name: other", e.getMessage());
  }

  st::reset();
  st::scriptExchange(st::clientsReply({"bob"}));
  connection.getSharedClients(clients);  // still registered
  EXPECT_EQ(List{"bob"}, clients);
}

TEST_F(OperationsTest, GetEventsReplacesEventsAndClientsThroughTwoExchanges) {
  registerAs("S1", "alice");
  std::string events = "old", correlation = "job-9";
  List clients = {"old"};
  st::scriptExchange(std::string("e1\x01\xFF", 4));
  st::scriptExchange(st::clientsReply({"alice", "bob"}));

  connection.getEvents(events, clients, correlation);

  EXPECT_EQ(std::string("e1\x01\xFF", 4), events);
  EXPECT_EQ((List{"alice", "bob"}), clients);
  const List sent = st::sentNoAck();
  ASSERT_EQ(4u, sent.size());
  EXPECT_EQ(block({{"Client-ID", "alice"},
                   {"Log-Correlation-ID", "job-9"},
                   {"Operation-Name", "getEvents"},
                   {"Server-ID", "S1"},
                   {"Service-Name", "KsMEMRequest"}}),
            sent[0]);
  EXPECT_EQ("Get Events Request", sent[1]);
  EXPECT_EQ(block({{"Client-ID", "alice"},
                   {"Log-Correlation-ID", "KsMEMConnection.getSharedClients"},
                   {"Operation-Name", "getSharedClients"},
                   {"Server-ID", "S1"},
                   {"Service-Name", "KsMEMRequest"}}),
            sent[2]);
  EXPECT_EQ("KsMEM getClients Operation", sent[3]);
}

TEST_F(OperationsTest, PutEventsSendsTheCallersBytesAndAppendsTheClients) {
  registerAs("S1", "alice");
  std::string events = std::string(5000, 'e') + "<&\xC3\xA9", correlation = "put-1";
  List clients = {"x"};
  st::scriptExchange(st::clientsReply({"bob", "carol"}));

  connection.putEvents(events, clients, correlation);

  EXPECT_EQ((List{"x", "bob", "carol"}), clients);
  const List sent = st::sentNoAck();
  ASSERT_EQ(3u, sent.size());
  EXPECT_NE(std::string::npos, sent[0].find("Operation-Name=putEvents\r\n"));
  EXPECT_NE(std::string::npos, sent[0].find("Log-Correlation-ID=put-1\r\n"));
  EXPECT_EQ(events, sent[1] + sent[2]);
}

TEST_F(OperationsTest, PutEventsWithAnUnreadableReplyFailsAfterSending) {
  registerAs("S1", "alice");
  std::string events = "e", correlation = "c";
  List clients = {"x"};
  st::scriptExchange("not xml");

  EXPECT_THROW(connection.putEvents(events, clients, correlation), Util::DomException);
  EXPECT_EQ(List{"x"}, clients);
  EXPECT_EQ("e", st::sentNoAck()[1]);
}

TEST_F(OperationsTest, UnregisteredConnectionIsRefusedWithoutTouchingTheTransport) {
  std::string events = "keep", correlation = "c";
  List clients = {"keep"};

  for (auto operation : {0, 1}) {
    try {
      if (operation == 0) connection.getEvents(events, clients, correlation);
      if (operation == 1) connection.putEvents(events, clients, correlation);
      FAIL() << "no exception";
    } catch (const KsMEMProtocolException& e) {
      EXPECT_EQ(-2, e.getType());
      EXPECT_EQ("Client not Registered with Model Event Manager", e.getMessage());
    }
  }

  std::string caughtAs;
  try {
    connection.getSharedClients(clients);
  } catch (const Exception&) {
    caughtAs = "by value";
  } catch (const Exception* e) {
    caughtAs = "by pointer";
    EXPECT_EQ(-2, e->getType());
    delete static_cast<const KsMEMProtocolException*>(e);
  }
  EXPECT_EQ("by pointer", caughtAs);
  EXPECT_EQ("keep", events);
  EXPECT_EQ(List{"keep"}, clients);
  EXPECT_TRUE(st::calls().empty());
}

TEST_F(OperationsTest, EmptyClientIdentifierStillCountsAsRegistered) {
  registerAs("S1", "");
  List clients = {"a"};
  st::scriptExchange(st::clientsReply({"a"}));

  connection.getSharedClients(clients);

  EXPECT_EQ((List{"a", "a"}), clients);
  EXPECT_NE(std::string::npos, st::sentNoAck()[0].find("Client-ID=\r\n"));
}

TEST_F(OperationsTest, CopyOfARegisteredConnectionIsIndependent) {
  registerAs("S1", "alice");
  KsMEMConnection copy(connection);
  List clients;
  st::scriptExchange(st::clientsReply({}));
  copy.unregisterClient(clients);

  st::reset();
  st::scriptExchange(st::clientsReply({"alice"}));
  connection.getSharedClients(clients);  // the source is still registered

  EXPECT_EQ(List{"alice"}, clients);
  EXPECT_NE(std::string::npos, st::sentNoAck()[0].find("Server-ID=S1\r\n"));
}

}  // namespace
