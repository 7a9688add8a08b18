// The Model Event Manager service run inside the calling process, the transport's default
// backend: it needs no set-up and lives as long as the process. Only threads of this process
// reach it. The operations, their replies and the delivery of events are those of
// ServiceBackend.
//
// Each server keeps its events in one log, a copy per event, and each client a cursor into it.
// The log drops what every client has acknowledged, and when an event is posted, what lies
// beyond the retention limit (exactly: the newest `retention.events` stay).
//
// Safe to use from several threads at once: all state sits under one lock.
#ifndef KSMEM_SERVICE_EMBEDDEDSERVICE_H_
#define KSMEM_SERVICE_EMBEDDEDSERVICE_H_

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "service/ServiceBackend.h"
#include "service/ServiceURL.h"

namespace Kestrane::Net::KsModelEventManager::Service {

class EmbeddedService : public ServiceBackend {
 public:
  explicit EmbeddedService(const ServiceURL& url);

 protected:
  ClientIDs registerClient(const std::string& serverID, const std::string& clientID) override;
  ClientIDs unregisterClient(const std::string& serverID, const std::string& clientID) override;
  ClientIDs putEvents(const std::string& serverID, const std::string& clientID,
                      const std::string& event) override;
  Batch getEvents(const std::string& serverID, const std::string& clientID,
                  const std::string& acknowledged) override;
  ClientIDs getSharedClients(const std::string& serverID, const std::string& clientID) override;
  std::vector<Backlog> getClientBacklogs(const std::string& serverID) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    uint64_t position;  // 1 for the server's first event, and on by one
    std::string sender;
    std::string event;
    Clock::time_point posted;
  };
  struct Client {
    std::string id;
    uint64_t cursor;  // position of the last event acknowledged (or posted before it came)
  };
  struct Server {
    uint64_t added = 0;           // position of the newest event
    std::deque<Entry> log;        // oldest first, positions without gaps
    std::vector<Client> clients;  // in order of registration
    uint64_t firstPosition() const { return log.empty() ? added + 1 : log.front().position; }
  };

  // The caller within its server, or null when it is not registered. REQUIRES: mutex held.
  Client* find(const std::string& serverID, const std::string& clientID);
  // The caller of `operation` within its server; throws unknownClient when it is not
  // registered. REQUIRES: mutex held.
  Client& caller(const std::string& serverID, const std::string& clientID, const char* operation);
  // Drops the events that every client has acknowledged. REQUIRES: mutex held.
  static void dropAcknowledged(Server& server);
  // The ids of the server's clients, all but `leftOut` if given.
  static ClientIDs idsOf(const Server& server, const Client* leftOut = nullptr);

  const Retention retention;
  std::mutex mutex;
  std::map<std::string, Server> servers;  // by server identifier; guarded; never without clients
};

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_EMBEDDEDSERVICE_H_
