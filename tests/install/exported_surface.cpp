// Built apart from the library, against its installed headers and shared object: it calls every
// member of the exception family, which must come from the library, and catches by its class a
// DomException thrown inside the library. Its own transport entries answer registerClient with a
// reply that is not XML.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "client/Exception.h"
#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"
#include "util/DomException.h"

using namespace Kestrane::Net::KsModelEventManager;

namespace {
const char kReply[] = "not XML";
int receives = 0;
}  // namespace

extern "C" {
int32_t KsMem_Init(KsMemAllocFunc, KsMemFreeFunc) { return 0; }
int32_t KsMem_Term(void) { return 0; }
int32_t KsMem_Send(const char*) { return 1; }
int32_t KsMem_SendNoAck(const char*) { return 1; }
int32_t KsMem_SendEOF(void) { return 0; }
int32_t KsMem_Complete(void) { return receives = 0; }
int32_t KsMem_GetLastError(const char** text) {
  *text = "no error";
  return 0;
}
// Status 19 asks for the body, 20 leads to the reply, then the reply and its end.
int32_t KsMem_Receive(char* buffer) {
  switch (receives++) {
    case 0:
      return 19;
    case 1:
      return 20;
    case 2:
      std::memcpy(buffer, kReply, sizeof kReply - 1);
      return sizeof kReply - 1;
    default:
      return -1;
  }
}
}

namespace {

// Both constructors, the copy constructor, assignment and the destructor of `Class`.
template <typename Class>
bool fiveMembersWork(const char* name) {
  const Class typed(-2, "typed");
  Class plain("plain");
  const Class copy(typed);
  plain = copy;
  const bool works = plain.getType() == -2 && plain.getMessage() == "typed";
  if (!works) std::printf("%s: the members gave type %d, message \"%s\"\n", name,
                          plain.getType(), plain.getMessage().c_str());
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
  try {
    connection.registerClient(server, client, locale, clients);
  } catch (const Client::Exception&) {
    caughtBy = "the Exception handler";
  } catch (const Util::DomException& e) {
    caughtBy = e.getMessage().empty() ? "DomException without a message" : "DomException";
  }
  if (caughtBy != "DomException") {
    std::printf("registerClient on a reply that is not XML: caught by %s\n", caughtBy.c_str());
    works = false;
  }
  return works ? 0 : 1;
}
