// Built apart from the library, against its installed headers and shared object, with a
// transport of its own (tests/ScriptedTransport.cpp), which must be the one called: it calls
// every member of the exception family, which must come from the library, and catches by its
// class the DomException that the library throws for a reply that is not XML.
#include <cstdio>
#include <string>
#include <vector>

#include "client/Exception.h"
#include "client/KsMEMConnection.h"
#include "tests/ScriptedTransport.h"
#include "util/DomException.h"

using namespace Kestrane::Net::KsModelEventManager;

namespace {

// Both constructors, the copy constructor, assignment and the destructor of `Class`.
template <typename Class>
bool fiveMembersWork(const char* name) {
  const Class typed(-2, "typed");
  Class plain("plain");
  const Class copy(typed);
  plain = copy;
  const bool works = plain.getType() == -2 && plain.getMessage() == "typed";
  if (!works)
    std::printf("%s: type %d, message \"%s\"\n", name, plain.getType(), plain.getMessage().c_str());
  return works;
}

}  // namespace

int main() {
  bool works = fiveMembersWork<Client::Exception>("Exception") &&
               fiveMembersWork<Client::KsMEMException>("KsMEMException") &&
               fiveMembersWork<Client::KsMEMConnectionException>("KsMEMConnectionException") &&
               fiveMembersWork<Client::KsMEMProtocolException>("KsMEMProtocolException") &&
               fiveMembersWork<Client::KsMEMRuntimeException>("KsMEMRuntimeException") &&
               fiveMembersWork<Client::KsMEMUnrecognisedException>("KsMEMUnrecognisedException") &&
               Client::KsMEMRuntimeException().getMessage().empty();

  Client::KsMEMConnection connection;
  std::string server = "plant-7", client = "alice", locale;
  std::vector<std::string> clients;
  std::string caughtBy = "no handler";
  ScriptedTransport::scriptExchange("not XML");
  try {
    connection.registerClient(server, client, locale, clients);
  } catch (const Client::Exception&) {
    caughtBy = "the Exception handler";
  } catch (const Util::DomException& e) {
    caughtBy = e.getMessage().empty() ? "DomException without a message" : "DomException";
  }
  if (caughtBy != "DomException" || ScriptedTransport::count(ScriptedTransport::Init) != 1) {
    std::printf("registerClient on a reply that is not XML: caught by %s\n", caughtBy.c_str());
    works = false;
  }
  return works ? 0 : 1;
}
