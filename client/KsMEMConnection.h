// KsMEMConnection is what an application holds to be a client of the Model Event Manager
// service: it checks that the service answers, and stamps every request with the same headers.
//
// The connection holds no open resource between operations, only its identity and whether it
// has started the transport (which it does at its first operation; it never ends it). Each
// operation runs one exchange on the caller's thread and blocks until it has ended.
//
// getStatus() returns 0 when the service echoes the status text and -2 when it answers anything
// else; any failure reaches the caller as KsMEMConnectionException with type code -1.
//
// Threads: one connection serves one thread at a time. Connections on different threads may be
// used, constructed, copied and destroyed at once: each live connection holds a share of the
// process-wide start of the XML library, which ends when the last connection goes.
#ifndef KSMEM_CLIENT_KSMEMCONNECTION_H_
#define KSMEM_CLIENT_KSMEMCONNECTION_H_

#include <string>

#include "client/Exception.h"
#include "util/Export.h"

namespace Kestrane {
namespace Net {
namespace KsModelEventManager {
namespace Client {

class KsMEMRequest;

class KSMEM_EXPORT KsMEMConnection {
 public:
  // Starts the XML library if no other connection holds it; does not touch the transport.
  KsMEMConnection();
  // Copies identity and transport state: a copy of a started connection does not start the
  // transport again.
  KsMEMConnection(const KsMEMConnection& other);
  KsMEMConnection& operator=(const KsMEMConnection& other);
  ~KsMEMConnection();

  // Sends "KsMEM Status check" and compares the reply with it: 0 when equal, -2 otherwise.
  // Needs no registration and sends no identity.
  int getStatus();

 private:
  // Starts the transport if needed, then adds Service-Name, Operation-Name,
  // Log-Correlation-ID, Locale (when set) and, with `sendIdentity`, Server-ID and Client-ID.
  void setRequestHeader(KsMEMRequest& request, std::string& operationName,
                        std::string& logCorrelationID, bool sendIdentity);
  // Registered means a non-empty server identifier.
  bool isClientRegistered();
  void initKsMem();
  void termKsMem();

  std::string serverID;
  std::string clientID;
  bool transportInitialised;
  std::string locale;
};

}  // namespace Client
}  // namespace KsModelEventManager
}  // namespace Net
}  // namespace Kestrane

#endif  // KSMEM_CLIENT_KSMEMCONNECTION_H_
