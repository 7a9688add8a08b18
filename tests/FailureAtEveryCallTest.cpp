// For every operation of the connection, and every transport call that it makes, a failure of
// that call must reach the caller as the operation documents, leave the caller's arguments and
// the connection's identity as documented, end the exchange at once, and leave the connection
// usable. The call sequences come from a recorded successful run of each operation.
#include <gtest/gtest.h>

#include <functional>

#include "client/KsMEMConnection.h"
#include "tests/ScriptedTransport.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;
using List = std::vector<std::string>;

namespace {

const char kLastError[] = "the service says no";

// What the caller holds around one operation.
struct Arguments {
  std::string events = "caller's events";
  List clients = {"caller's client"};
  std::string correlation = "corr";
};

struct Operation {
  const char* name;
  bool needsRegistration;
  std::function<void()> scriptSuccess;
  std::function<void(KsMEMConnection&, Arguments&)> run;
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

const std::string kEvents = "pending events";

std::vector<Operation> operations() {
  return {
      {"getStatus", false, [] { st::scriptExchange("KsMEM Status check"); },
       [](KsMEMConnection& c, Arguments&) { ASSERT_EQ(0, c.getStatus()); }},
      {"registerClient", false, [] { st::scriptExchange(st::clientsReply({"me"})); },
       [](KsMEMConnection& c, Arguments& a) {
         std::string server = "S", client = "me", locale = "en";
         c.registerClient(server, client, locale, a.clients);
       }},
      {"unregisterClient", true, [] { st::scriptExchange(st::clientsReply({"other"})); },
       [](KsMEMConnection& c, Arguments& a) { c.unregisterClient(a.clients); }},
      {"getEvents", true,
       [] {
         st::scriptExchange(kEvents);
         st::scriptExchange(st::clientsReply({"me", "other"}));
       },
       [](KsMEMConnection& c, Arguments& a) { c.getEvents(a.events, a.clients, a.correlation); }},
      {"putEvents", true, [] { st::scriptExchange(st::clientsReply({"other"})); },
       [](KsMEMConnection& c, Arguments& a) { c.putEvents(a.events, a.clients, a.correlation); }},
      {"getSharedClients", true,
       [] {
         st::scriptExchange(st::clientsReply({"me", "other"}));
       },
       [](KsMEMConnection& c, Arguments& a) { c.getSharedClients(a.clients); }},
  };
}

// A connection in the state the operation needs, whose transport is not started yet, so that
// KsMem_Init is part of the operation's own calls: a registration whose KsMem_Init failed
// leaves exactly that.
void prepare(KsMEMConnection& connection, const Operation& operation) {
  st::reset();
  if (operation.needsRegistration) {
    std::string server = "S", client = "me", locale = "en";
    List ignored;
    st::script(st::Init, 1001);
    EXPECT_THROW(connection.registerClient(server, client, locale, ignored),
                 KsMEMConnectionException);
  }
  st::reset();
  st::setLastError(kLastError);
}

// The calls of a successful run, with what a failure of each one means.
struct Recording {
  std::vector<st::Entry> entries;
  std::vector<bool> inReply;   // a KsMem_Receive of reply bytes, where -1 is the normal end
  std::vector<bool> examined;  // the end of the header block and KsMem_Complete are not
  std::vector<int> exchange;   // which exchange of the operation the call belongs to
};

Recording record(const Operation& operation) {
  KsMEMConnection connection;
  prepare(connection, operation);
  operation.scriptSuccess();
  Arguments arguments;
  operation.run(connection, arguments);

  Recording r;
  r.entries = st::entries();
  int exchange = 0;
  int sendEOFs = 0;      // in this exchange
  bool reading = false;  // past the status that leads to the reply
  for (size_t i = 0; i < r.entries.size(); ++i) {
    const st::Entry entry = r.entries[i];
    if (entry == st::SendEOF) ++sendEOFs;
    r.inReply.push_back(entry == st::Receive && reading);
    r.examined.push_back(entry != st::Complete && !(entry == st::SendEOF && sendEOFs == 1));
    r.exchange.push_back(exchange);
    // The status read after the body's end is followed by the reply.
    if (entry == st::Receive && sendEOFs == 2) reading = true;
    if (entry == st::Complete) {
      ++exchange;
      sendEOFs = 0;
      reading = false;
    }
  }
  return r;
}

enum class Kind { Connection, Protocol, Runtime, Unrecognised };

Kind kindOfCode(int32_t code) {
  switch (code) {
    case -2996:
      return Kind::Connection;
    case -751:
      return Kind::Protocol;
    case -3009:
      return Kind::Runtime;
    default:
      return Kind::Unrecognised;
  }
}

// Runs the operation and tells how it failed: the most derived class, with type and message.
struct Outcome {
  bool failed = false;
  std::string cls;
  int type = 0;
  std::string message;
};

Outcome runCatching(const Operation& operation, KsMEMConnection& connection, Arguments& args) {
  Outcome outcome;
  auto note = [&](const char* cls, const Exception& e) {
    outcome = {true, cls, e.getType(), e.getMessage()};
  };
  try {
    operation.run(connection, args);
  } catch (const KsMEMConnectionException& e) {
    note("connection", e);
  } catch (const KsMEMProtocolException& e) {
    note("protocol", e);
  } catch (const KsMEMRuntimeException& e) {
    note("runtime", e);
  } catch (const KsMEMUnrecognisedException& e) {
    note("unrecognised", e);
  } catch (const Exception& e) {
    note("Exception", e);
  }
  return outcome;
}

std::string expectedClass(const Operation& operation, int32_t code) {
  if (std::string(operation.name) == "getStatus") return "connection";
  if (std::string(operation.name) == "unregisterClient") return "Exception";
  switch (kindOfCode(code)) {
    case Kind::Connection:
      return "connection";
    case Kind::Protocol:
      return "protocol";
    case Kind::Runtime:
      return "runtime";
    case Kind::Unrecognised:
      return "unrecognised";
  }
  return "";
}

class FailureAtEveryCallTest : public ::testing::TestWithParam<Operation> {};

TEST_P(FailureAtEveryCallTest, FailureOfAnyCallIsReportedAndSurvivedAsDocumented) {
  const Operation& operation = GetParam();
  const Recording recording = record(operation);
  const std::string name = operation.name;
  // KsMem_Init, then per exchange: header block, its end, status, body, its end, status, one
  // delivery, the end of the reply, KsMem_Complete.
  ASSERT_EQ(name == "getEvents" ? 19u : 10u, recording.entries.size());

  for (size_t position = 0; position < recording.entries.size(); ++position) {
    for (int32_t code : {-2996, -751, -3009, -5000, -1}) {
      if (code == -1 && recording.inReply[position]) continue;  // the normal end of a reply
      SCOPED_TRACE(name + ": call " + std::to_string(position) + " fails with " +
                   std::to_string(code));
      KsMEMConnection connection;
      prepare(connection, operation);
      operation.scriptSuccess();
      st::failCall(position, code);
      Arguments args;
      const Arguments before;

      const Outcome outcome = runCatching(operation, connection, args);

      if (!recording.examined[position]) {
        EXPECT_FALSE(outcome.failed) << outcome.message;
        continue;
      }
      ASSERT_TRUE(outcome.failed);
      EXPECT_EQ(expectedClass(operation, code), outcome.cls);
      if (name == "getStatus") {
        EXPECT_EQ(-1, outcome.type);
        EXPECT_EQ("KsMEM Connection failed", outcome.message);
      } else {
        EXPECT_EQ(0, outcome.type);
        EXPECT_EQ(kLastError, outcome.message);
      }

      // Nothing after the failure but fetching its text.
      const std::vector<st::Entry> calls = st::entries();
      ASSERT_LE(position + 2, calls.size());
      EXPECT_EQ(std::vector<st::Entry>{st::GetLastError},
                std::vector<st::Entry>(calls.begin() + position + 1, calls.end()));

      // What the caller held.
      if (name == "getEvents" && recording.exchange[position] == 1) {
        EXPECT_EQ(kEvents, args.events);
        EXPECT_TRUE(args.clients.empty());
      } else {
        EXPECT_EQ(before.events, args.events);
        EXPECT_EQ(before.clients, args.clients);
      }

      // The connection works again; its identity is as documented.
      st::reset();
      st::scriptExchange(st::clientsReply({"x"}));
      List clients;
      const bool registeredAfter =
          name == "registerClient" || (operation.needsRegistration && name != "unregisterClient");
      if (registeredAfter) {
        connection.getSharedClients(clients);
        EXPECT_EQ(List{"x"}, clients);
        EXPECT_NE(std::string::npos, st::sentNoAck()[0].find("Server-ID=S\r\n"));
      } else {
        try {
          connection.getSharedClients(clients);
          ADD_FAILURE() << "not refused";
        } catch (const KsMEMProtocolException* e) {
          delete e;
        }
        st::reset();
        st::scriptExchange("KsMEM Status check");
        EXPECT_EQ(0, connection.getStatus());
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllOperations, FailureAtEveryCallTest, ::testing::ValuesIn(operations()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
