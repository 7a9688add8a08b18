// KsMEMConnection is what an application holds to be a client of the Model Event Manager
// service: it checks that the service answers, registers under a server and client identity,
// posts and fetches events, lists the clients that share its server, and unregisters.
//
// The connection holds no open resource between operations, only its identity (server, client,
// locale) and whether it has started the transport (which it does at its first operation; it
// never ends it). Each operation builds one request, runs its exchange on the caller's thread
// and blocks until it has ended. Nothing is retried.
//
// Lists of clients are appended to, never replaced, except by getEvents, which empties its list
// first. Failures, by operation:
//   getStatus         KsMEMConnectionException, type code -1, whatever went wrong below
//   unregisterClient  plain Exception with the type code and message of the failure below
//   the other four    the KsMEM* class of the transport failure; KsMEMRuntimeException when
//                     the request cannot be formed or the reply exceeds 1 GiB;
//                     KsMEMProtocolException when the transport breaks its contract (a status
//                     or a delivery size it may not give), and with type code -2 when the
//                     connection is not registered (getEvents, putEvents, and
//                     getSharedClients, which throws it as a pointer the catcher must delete)
//   reply parsers     Util::DomException when a reply is not the expected XML document
//
// Threads: one connection serves one thread at a time. Connections may be constructed, copied
// and destroyed on different threads at once: each live connection holds a share of the
// process-wide start of the XML library, which ends when the last connection goes. Using
// connections on different threads at once also needs a transport that keeps one exchange per
// thread, as the stand-in transport does.
#ifndef KSMEM_CLIENT_KSMEMCONNECTION_H_
#define KSMEM_CLIENT_KSMEMCONNECTION_H_

#include <string>
#include <vector>

#include "client/Exception.h"
#include "util/Export.h"

namespace Kestrane::Net::KsModelEventManager::Client {

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

  // Stores the identity first, whatever happens next: the connection counts as registered
  // whenever `serverID` is not empty. Appends the clients registered under that server.
  void registerClient(std::string& serverID, std::string& clientID, std::string& locale,
                      std::vector<std::string>& sharedClients);
  // Clears server and client identity when it returns or fails with an Exception (not on a
  // DomException); the locale stays. Appends the clients that remain.
  void unregisterClient(std::vector<std::string>& sharedClients);
  // Replaces `events` with the pending events, as the service sent them, then replaces
  // `sharedClients` with the clients of the server (a second exchange).
  // REQUIRES: registered.
  void getEvents(std::string& events, std::vector<std::string>& sharedClients,
                 std::string& logCorrelationID);
  // Sends `events` unchanged as one event to the other clients of the server; appends the
  // clients it was queued for.
  // REQUIRES: registered.
  void putEvents(std::string& events, std::vector<std::string>& sharedClients,
                 std::string& logCorrelationID);
  // Appends the clients registered under this connection's server.
  // REQUIRES: registered; otherwise throws a heap-allocated KsMEMProtocolException* that the
  // catcher owns.
  void getSharedClients(std::vector<std::string>& sharedClients);

 private:
  // Starts the transport if needed, then adds Service-Name, Operation-Name,
  // Log-Correlation-ID, Locale (when set) and, with `sendIdentity`, Server-ID and Client-ID.
  void setRequestHeader(KsMEMRequest& request, std::string& operationName,
                        std::string& logCorrelationID, bool sendIdentity);
  // Registered means a non-empty server identifier.
  bool isClientRegistered();
  // One whole exchange: a new request with the headers above and `body` as its stream.
  std::string runRequest(std::string operationName, std::string logCorrelationID, bool sendIdentity,
                         const std::string& body);
  void initKsMem();
  void termKsMem();

  std::string serverID;
  std::string clientID;
  bool transportInitialised;
  std::string locale;
};

}  // namespace Kestrane::Net::KsModelEventManager::Client

#endif  // KSMEM_CLIENT_KSMEMCONNECTION_H_
