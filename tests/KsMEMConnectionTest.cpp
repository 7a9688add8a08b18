// The six operations of KsMEMConnection against the scripted transport: what each sends, what
// it does to the caller's arguments, and what a failure of any transport call leaves behind.
#include <gtest/gtest.h>

#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"
#include "tests/ScriptedTransport.h"
#include "tests/ThrownBy.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;
using List = std::vector<std::string>;

namespace {

const std::string kStatusBody = "KsMEM Status check";
const std::string kEvents("e1\0\xFF", 4);
const std::string kNotRegistered = "-2 Client not Registered with Model Event Manager";
// Replies of the service that lists no client, and bob.
const std::string kClients = "<?xml version=\"1.0\"?><SharedClientIDs xmlns=\"urn:x\">",
                  kNoClients = kClients + "</SharedClientIDs>",
                  kBob = kClients + "<sharedClients>bob</sharedClients></SharedClientIDs>";

// What the caller holds around one operation.
struct Arguments {
  std::string events = "<e>\xC3\xA9&</e>";
  List clients = {"x"};
  std::string correlation = "job-9";
};

// The header block of a connection registered as server S, client alice, locale en, with the
// operation's own correlation identifier unless the caller gives one.
std::string registeredBlock(const std::string& operation, std::string correlation = "") {
  if (correlation.empty()) correlation = "KsMEMConnection." + operation;
  return "Client-ID=alice\r\nLocale=en\r\nLog-Correlation-ID=" + correlation +
         "\r\nOperation-Name=" + operation + "\r\nServer-ID=S\r\nService-Name=KsMEMRequest\r\n\r\n";
}

const struct {
  std::string name, block, body;
} kOperations[] = {
    {"getStatus",
     "Locale=en\r\nLog-Correlation-ID=KsMEMConnection.getStatus\r\nOperation-Name=getStatus\r\n"
     "Service-Name=KsMEMRequest\r\n\r\n",
     kStatusBody},
    {"registerClient", registeredBlock("registerClient"), "KsMEM register client"},
    {"unregisterClient", registeredBlock("unregisterClient"), "KsMEM unregister client"},
    {"getEvents", registeredBlock("getEvents", "job-9"), "Get Events Request"},
    {"putEvents", registeredBlock("putEvents", "job-9"), Arguments().events},
    {"getSharedClients", registeredBlock("getSharedClients"), "KsMEM getClients Operation"},
};

// Runs `operation` as (S, alice, en) with the caller's `a`; what it throws, or its result.
std::string run(KsMEMConnection& connection, const std::string& operation, Arguments& a) {
  std::string server = "S", client = "alice", locale = "en", status;
  const std::string thrown = thrownBy([&] {
    if (operation == "getStatus") status = std::to_string(connection.getStatus());
    if (operation == "registerClient") connection.registerClient(server, client, locale, a.clients);
    if (operation == "unregisterClient") connection.unregisterClient(a.clients);
    if (operation == "getEvents") connection.getEvents(a.events, a.clients, a.correlation);
    if (operation == "putEvents") connection.putEvents(a.events, a.clients, a.correlation);
    if (operation == "getSharedClients") connection.getSharedClients(a.clients);
  });
  return thrown.empty() ? status : thrown;
}

// Replies for a successful run: the echo, or clients, after the events for getEvents.
void scriptReplies(const std::string& operation) {
  if (operation == "getStatus") return st::scriptExchange(kStatusBody);
  if (operation == "getEvents") st::scriptExchange(kEvents);
  st::scriptExchange(kBob);
}

// A connection registered as (S, alice, en) whose transport has not started: its registration
// failed in KsMem_Init, which leaves it registered.
void registerWithoutTransport(KsMEMConnection& connection) {
  Arguments ignored;
  st::reset();
  st::script(st::Init, KSMEM_ERR_INIT_CONNECTION);
  EXPECT_EQ(run(connection, "registerClient", ignored),
            "KsMEMConnectionException 0 scripted failure");
  st::reset();
}

// Whether getSharedClients gets past its registration check to the transport.
bool isRegistered(KsMEMConnection& connection) {
  Arguments ignored;
  st::scriptExchange(kNoClients);
  return run(connection, "getSharedClients", ignored).empty();
}

TEST(KsMEMConnectionTest, EachOperationSendsItsHeadersAndBodyAndFillsTheCallersArguments) {
  for (const auto& operation : kOperations) {
    KsMEMConnection connection;
    registerWithoutTransport(connection);
    scriptReplies(operation.name);
    Arguments arguments;

    EXPECT_EQ(run(connection, operation.name, arguments), operation.name == "getStatus" ? "0" : "");

    List sent = {operation.block, operation.body};
    if (operation.name == "getEvents")
      sent.insert(sent.end(), {kOperations[5].block, kOperations[5].body});
    EXPECT_EQ(List(st::texts()), sent);
    const bool reads = operation.name != "getStatus", replaces = operation.name == "getEvents";
    EXPECT_EQ(arguments.clients, (replaces ? List{"bob"} : reads ? List{"x", "bob"} : List{"x"}));
    EXPECT_EQ(arguments.events, replaces ? kEvents : Arguments().events);
  }
}

TEST(KsMEMConnectionTest, FailureOfAnyTransportCallReachesTheCallerAsDocumentedAndEndsTheExchange) {
  for (const auto& operation : kOperations) {
    for (size_t position = 0; position < (operation.name == "getEvents" ? 19u : 10u); ++position) {
      SCOPED_TRACE(operation.name + ": call " + std::to_string(position) + " fails");
      KsMEMConnection connection;
      registerWithoutTransport(connection);
      scriptReplies(operation.name);
      st::setLastError("no");
      st::failCall(position, KSMEM_ERR_UNKNOWN_CLIENT);
      Arguments arguments;

      const std::string thrown = run(connection, operation.name, arguments);

      // The end of a header block and KsMem_Complete are not examined.
      if (position == 2 || position == 9 || position == 11 || position == 18) {
        EXPECT_EQ(thrown, operation.name == "getStatus" ? "0" : "");
        continue;
      }
      EXPECT_EQ(thrown, operation.name == "getStatus"
                            ? "KsMEMConnectionException -1 KsMEM Connection failed"
                        : operation.name == "unregisterClient" ? "Exception 0 no"
                                                               : "KsMEMProtocolException 0 no");
      EXPECT_EQ(st::entries().size(), position + 2);
      EXPECT_EQ(st::entries().back(), st::GetLastError);
      const bool secondExchange = position >= 10;
      EXPECT_EQ(arguments.events, secondExchange ? kEvents : Arguments().events);
      EXPECT_EQ(arguments.clients, secondExchange ? List() : Arguments().clients);
      st::reset();
      EXPECT_EQ(isRegistered(connection), operation.name != "unregisterClient");
    }
  }
}

TEST(KsMEMConnectionTest, RegisteredMeansANonEmptyServerIdentifierUntilUnregistered) {
  KsMEMConnection connection;
  Arguments arguments;
  st::reset();
  // Unregistered, it refuses without calling the transport or changing the arguments.
  EXPECT_EQ(run(connection, "getEvents", arguments), "KsMEMProtocolException " + kNotRegistered);
  EXPECT_EQ(run(connection, "putEvents", arguments), "KsMEMProtocolException " + kNotRegistered);
  EXPECT_EQ(run(connection, "getSharedClients", arguments),
            "KsMEMProtocolException* " + kNotRegistered);
  EXPECT_EQ(arguments.events, Arguments().events);
  EXPECT_EQ(arguments.clients, Arguments().clients);
  EXPECT_TRUE(st::entries().empty());

  List clients;
  const auto registerAs = [&](std::string server, std::string client, std::string locale) {
    st::reset();
    st::scriptExchange(kNoClients);
    connection.registerClient(server, client, locale, clients);
  };
  registerAs("S", "\xE9", "");
  EXPECT_TRUE(isRegistered(connection));
  EXPECT_EQ(st::texts()[0].find("Client-ID=\xEF\xBF\xBD\r\nLog"), 0u);  // UTF-8; no empty Locale
  KsMEMConnection copy(connection);
  registerAs("", "alice", "");
  EXPECT_FALSE(isRegistered(connection));
  EXPECT_TRUE(isRegistered(copy));

  registerAs("S", "alice", "en");
  st::scriptExchange("<SharedClientIDs><other/></SharedClientIDs>");
  EXPECT_EQ(thrownBy([&] { connection.unregisterClient(clients); }),
            "DomException Unexpected node name: other");
  EXPECT_TRUE(isRegistered(connection));
  st::scriptExchange(kNoClients);
  connection.unregisterClient(clients);
  EXPECT_FALSE(isRegistered(connection));
  st::reset();
  st::scriptExchange(kStatusBody);
  connection.getStatus();
  EXPECT_EQ(st::texts()[0].find("Locale=en\r\n"), 0u);  // the locale stays
}

TEST(KsMEMConnectionTest, StatusIsMinusTwoForAnyReplyButAnEchoOfItsBody) {
  KsMEMConnection connection;
  for (const std::string& reply : {std::string(), kStatusBody + "\r\n"}) {
    st::scriptExchange(reply);
    EXPECT_EQ(connection.getStatus(), -2) << reply;
  }
}

TEST(KsMEMConnectionTest,
     TransportStartsOncePerConnectionAgainAfterAFailureAndCopiesTakeTheFlagOver) {
  {
    KsMEMConnection first;
    registerWithoutTransport(first);
    EXPECT_TRUE(isRegistered(first));  // starts the transport
    KsMEMConnection copy(first), assigned;
    assigned = first;
    EXPECT_TRUE(isRegistered(copy) && isRegistered(assigned));
  }
  KsMEMConnection later;
  st::scriptExchange(kStatusBody);
  later.getStatus();
  EXPECT_EQ(st::count(st::Init), 2);
}

}  // namespace
