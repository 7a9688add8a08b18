// The Model Event Manager service run inside the calling process, the transport's default
// backend: it needs no set-up and lives as long as the process. Only threads of this process
// reach it. The operations and their replies are those of ServiceBackend.
//
// Clients are grouped into sessions by server identifier, in order of registration, and each
// client keeps a queue of pending events.
//
// Safe to use from several threads at once: all state sits under one lock.
#ifndef KSMEM_BINDING_EMBEDDEDSERVICE_H_
#define KSMEM_BINDING_EMBEDDEDSERVICE_H_

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "binding/ServiceBackend.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

class EmbeddedService : public ServiceBackend {
 protected:
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
  struct Client {
    std::string id;
    std::vector<std::string> pendingEvents;  // oldest first
  };
  using Session = std::vector<Client>;  // in order of registration

  // The caller within its session, or null when it is not registered. REQUIRES: mutex held.
  Client* find(const std::string& serverID, const std::string& clientID);
  // The ids of `clients`, all but `leftOut` if given.
  static ClientIDs idsOf(const Session& clients, const Client* leftOut = nullptr);

  std::mutex mutex;
  std::map<std::string, Session> sessions;  // by server identifier; never empty
};

}  // namespace Kestrane::Net::KsModelEventManager::Binding

#endif  // KSMEM_BINDING_EMBEDDEDSERVICE_H_
