// The Model Event Manager service kept in Redis, so that processes on any number of machines
// share one service. The operations and their replies are those of ServiceBackend; the state
// lives in Redis alone, so it is whatever Redis keeps (nothing survives a restart of a Redis
// that does not persist).
//
// Keys, with S the server and C the client identifier in their key form (every byte outside
// 0x21..0x7E and each of "%", "{", "}", ":" written as "%" and two upper-case hex digits):
//   ksmem:{S}:clients     list of the key forms of the server's clients, in order of registration
//   ksmem:{S}:events:C    list of the pending events of client C, oldest first
// All keys of one server share the hash tag {S}, so one node of a Redis Cluster holds them.
//
// Each operation is one Lua script (EVALSHA, EVAL again after NOSCRIPT), so no other client
// ever sees half an operation: an event is queued for every other client or for none, and
// getEvents takes what is pending exactly once.
//
// Each thread of each process has its own connection, opened at its first request and opened
// again at the first request after it broke; a forked child opens its own. Connecting and each
// command wait at most kTimeout. When Redis cannot be reached or the connection breaks, the
// request fails with kServiceUnreachable and a text that names the address and the reason; an
// error reply of Redis fails it with kServiceRefused. Nothing is retried within one request.
//
// Safe to use from several threads at once.
#ifndef KSMEM_BINDING_REDISSERVICE_H_
#define KSMEM_BINDING_REDISSERVICE_H_

#include <chrono>
#include <string>

#include "binding/ServiceBackend.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

struct RedisAddress {
  std::string url;   // as given; names the service in failure texts
  std::string host;  // TCP, when socketPath is empty
  int port = 6379;
  std::string socketPath;  // a Unix socket
  int db = 0;
};

class RedisService : public ServiceBackend {
 public:
  static constexpr std::chrono::seconds kTimeout{5};

  // Connects to nothing yet: the first request of each thread does.
  explicit RedisService(RedisAddress address);

 protected:
  void checkAnswers() override;
  ClientIDs registerClient(const std::string& serverID, const std::string& clientID) override;
  std::optional<ClientIDs> unregisterClient(const std::string& serverID,
                                            const std::string& clientID) override;
  std::optional<ClientIDs> putEvents(const std::string& serverID, const std::string& clientID,
                                     const std::string& event) override;
  std::optional<std::string> getEvents(const std::string& serverID,
                                       const std::string& clientID) override;
  std::optional<ClientIDs> getSharedClients(const std::string& serverID,
                                            const std::string& clientID) override;

 private:
  const RedisAddress address;
};

}  // namespace Kestrane::Net::KsModelEventManager::Binding

#endif  // KSMEM_BINDING_REDISSERVICE_H_
