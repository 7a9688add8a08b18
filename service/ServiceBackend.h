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
//   putEvents         appends the body, as one event, to the server's log for every other client
//                     registered now; an event over kMaxEventBytes is refused whole
//   getEvents         replies with the next batch of the caller's events, concatenated, oldest
//                     first: at most kBatchEvents events and kBatchBytes bytes (one event always)
//   getSharedClients  changes nothing
// registerClient, unregisterClient, putEvents and getSharedClients reply with a SharedClientIDs
// document: the server's clients after the change (for putEvents, the clients the event was
// queued for). Any operation but getStatus and registerClient from a client that is not
// registered fails with KSMEM_ERR_UNKNOWN_CLIENT. Event texts are kept byte for byte.
//
// Delivery is at least once. Each server keeps one log of events and, for each client, a cursor:
// the last event that the client has acknowledged. A fetch reads after the cursor and does not
// move it; the client's next fetch acknowledges what this one handed over. So a reply lost on
// the way is read again, and a process that starts afresh (it forgets what it fetched) receives
// its last unacknowledged batch again. A batch counts as handed over once the request that the
// client library makes right after every getEvents, the client's getSharedClients on the same
// thread, has been answered: a getEvents that fails in its second step is fetched again.
// Events that no client still needs are dropped from the log, and so are events beyond the
// retention limit of ServiceURL, acknowledged or not.
//
// Operators may also ask getClientBacklogs (Server-ID only, no registration): a line per client
// of the server, in order of registration, "PENDING AGE CLIENT": the events in the log after its
// cursor (its own posts since then included), the milliseconds since the oldest of them was
// posted (-1 when none), and the client identifier with bytes below 0x21 and "%" written as "%"
// and two hex digits.
//
// handle() may be called from several threads at once; a backend guards its own state.
#ifndef KSMEM_SERVICE_SERVICEBACKEND_H_
#define KSMEM_SERVICE_SERVICEBACKEND_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "service/FaultRule.h"
#include "service/ServiceFailure.h"

namespace Kestrane::Net::KsModelEventManager::Service {

// What every backend keeps to, so that a reply stays far below the client's limits.
inline constexpr std::size_t kMaxEventBytes = std::size_t{1} << 20;
inline constexpr std::size_t kBatchEvents = 1000;
inline constexpr std::size_t kBatchBytes = std::size_t{4} << 20;
// Log entries that one fetch looks at, at most: the caller's own events are passed over, and a
// long run of them must not make one fetch long. The next fetch goes on from there.
inline constexpr std::size_t kFetchScanLimit = 10000;

// The headers of a request by name, as the client rendered them.
using RequestHeaders = std::map<std::string, std::string>;
using ClientIDs = std::vector<std::string>;

class ServiceBackend {
 public:
  // `faults`: the exchanges that fail on demand.
  explicit ServiceBackend(FaultRule faults) : faults(std::move(faults)) {}
  virtual ~ServiceBackend() = default;

  // Serves one request, `body` byte for byte, and gives the reply bytes. Throws ServiceFailure
  // when the request cannot be served, or when the fault rule strikes it.
  std::string handle(const RequestHeaders& headers, const std::string& body);

 protected:
  // What one fetch hands over, and `last`: where in the log it stopped (empty when it looked at
  // no entry), which the client's next fetch passes back as its acknowledgement.
  struct Batch {
    std::string events;
    std::string last;
  };
  struct Backlog {
    std::string clientID;
    uint64_t pending = 0;
    int64_t oldestAgeMs = -1;
  };

  // The operations of a well-formed request. Each throws ServiceFailure when it cannot be
  // served; those that take a caller throw unknownClient(...) when (serverID, clientID) is not
  // registered.
  //
  // getStatus: returns once the service has shown that it answers.
  virtual void checkAnswers() {}
  virtual ClientIDs registerClient(const std::string& serverID, const std::string& clientID) = 0;
  virtual ClientIDs unregisterClient(const std::string& serverID,
                                     const std::string& clientID) = 0;
  // Gives the clients that the event was queued for.
  virtual ClientIDs putEvents(const std::string& serverID, const std::string& clientID,
                              const std::string& event) = 0;
  // First moves the caller's cursor up to `acknowledged` (a `last` of an earlier batch of this
  // client, or empty), never back; then gives the batch after the cursor.
  virtual Batch getEvents(const std::string& serverID, const std::string& clientID,
                          const std::string& acknowledged) = 0;
  virtual ClientIDs getSharedClients(const std::string& serverID,
                                     const std::string& clientID) = 0;
  virtual std::vector<Backlog> getClientBacklogs(const std::string& serverID) = 0;

  // The failure of `operation` from a caller that is not registered.
  static ServiceFailure unknownClient(const std::string& serverID, const std::string& clientID,
                                      const std::string& operation);

 private:
  std::string serve(const std::string& operation, const std::string& serverID,
                    const std::string& clientID, const std::string& body);

  // The fault that the rule puts on this exchange of `operation`, counting it if it matches.
  FaultRule::Kind faultOn(const std::string& operation, uint64_t& number);
  ServiceFailure injected(int32_t code, const std::string& what) const;

  const FaultRule faults;
  std::atomic<uint64_t> matching{0};  // exchanges that the fault rule matched so far

  std::mutex acknowledgementsMutex;
  // By server and client: the `last` that the client's next fetch acknowledges.
  std::map<std::pair<std::string, std::string>, std::string> acknowledgements;  // guarded
};

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_SERVICEBACKEND_H_
