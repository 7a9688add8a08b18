// The Model Event Manager service as the transport sees it: one request in, one reply or one
// failure out. The transport parses the header block and gathers the body; handle() reads the
// operation and the caller's identity from the headers, refuses what no service could serve, and
// passes the rest to the backend's operations.
//
// Every backend behaves alike towards a client (the operations, their replies and their failure
// codes are the same), so the transport need not know which one it talks to:
//   getStatus         replies with the body unchanged, once the service has shown that it answers
//   registerClient    adds the caller to its server's clients (a client already there keeps its
//                     place and its pending events); an empty Server-ID is refused
//   unregisterClient  removes the caller and drops its pending events
//   putEvents         queues the body, as one event, for every other client of the server
//   getEvents         takes the caller's pending events and replies with them concatenated
//   getSharedClients  changes nothing
// registerClient, unregisterClient, putEvents and getSharedClients reply with a SharedClientIDs
// document: the server's clients after the change (for putEvents, the clients the event was
// queued for). Any operation but getStatus and registerClient from a client that is not
// registered fails with kUnknownClient. Event texts are kept byte for byte.
//
// handle() may be called from several threads at once; a backend guards its own state.
#ifndef KSMEM_BINDING_SERVICEBACKEND_H_
#define KSMEM_BINDING_SERVICEBACKEND_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "binding/HeaderBlock.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

// Failure codes that a backend reports; the client library maps each to an exception class.
inline constexpr int32_t kUnknownClient = -751;        // the caller is not registered
inline constexpr int32_t kServiceUnreachable = -3001;  // no connection to the service, or it broke
inline constexpr int32_t kServiceRefused = -3009;      // the service failed the request it got
inline constexpr int32_t kUnknownOperation = -3017;    // Operation-Name names no operation
inline constexpr int32_t kMalformedRequest = -3099;    // the request cannot be served as sent

struct ServiceResult {
  int32_t code = 0;  // 0 for a reply, else one of the failure codes above
  std::string text;  // the reply bytes, or for a failure a sentence that says what was wrong
};

// What a backend's operation throws when the service cannot serve the request at all.
struct ServiceFailure {
  int32_t code;
  std::string text;
};

using ClientIDs = std::vector<std::string>;

class ServiceBackend {
 public:
  virtual ~ServiceBackend() = default;

  // Serves one request: `headers` as the client rendered them, `body` byte for byte.
  ServiceResult handle(const RequestHeaders& headers, const std::string& body);

 protected:
  // The operations of a well-formed request. Those that take a caller give nothing back when
  // (serverID, clientID) is not registered. Each may throw ServiceFailure.
  //
  // getStatus: returns once the service has shown that it answers.
  virtual void checkAnswers() {}
  virtual ClientIDs registerClient(const std::string& serverID, const std::string& clientID) = 0;
  virtual std::optional<ClientIDs> unregisterClient(const std::string& serverID,
                                                    const std::string& clientID) = 0;
  // Gives the clients that the event was queued for.
  virtual std::optional<ClientIDs> putEvents(const std::string& serverID,
                                             const std::string& clientID,
                                             const std::string& event) = 0;
  virtual std::optional<std::string> getEvents(const std::string& serverID,
                                               const std::string& clientID) = 0;
  virtual std::optional<ClientIDs> getSharedClients(const std::string& serverID,
                                                    const std::string& clientID) = 0;
};

}  // namespace Kestrane::Net::KsModelEventManager::Binding

#endif  // KSMEM_BINDING_SERVICEBACKEND_H_
