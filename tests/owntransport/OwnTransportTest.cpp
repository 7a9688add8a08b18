// A program that defines the eight transport entries itself and links the client library gets
// its own entries called, not those of the transport library that the client library links.
#include <cstdio>
#include <cstring>

#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"

namespace {
int calls = 0;
int receives = 0;
const char kEcho[] = "KsMEM Status check";
}  // namespace

extern "C" {
int32_t KsMem_Init(KsMemAllocFunc, KsMemFreeFunc) { return ++calls, 0; }
int32_t KsMem_Term(void) { return ++calls, 0; }
int32_t KsMem_Send(const char*) { return ++calls, 1; }
int32_t KsMem_SendNoAck(const char*) { return ++calls, 1; }
int32_t KsMem_SendEOF(void) { return ++calls, 0; }
int32_t KsMem_Complete(void) { return ++calls, 0; }
int32_t KsMem_GetLastError(const char** text) {
  *text = "own transport";
  return ++calls, 0;
}
// Status 19, then 20, then the echo, then the end of the reply.
int32_t KsMem_Receive(char* buffer) {
  ++calls;
  switch (receives++) {
    case 0:
      return 19;
    case 1:
      return 20;
    case 2:
      std::memcpy(buffer, kEcho, sizeof kEcho - 1);
      return sizeof kEcho - 1;
    default:
      return -1;
  }
}
}

int main() {
  Kestrane::Net::KsModelEventManager::Client::KsMEMConnection connection;
  const int status = connection.getStatus();
  std::printf("getStatus %d through %d calls of our own entries\n", status, calls);
  return status == 0 && calls == 10 ? 0 : 1;
}
