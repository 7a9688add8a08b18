#include "binding/EmbeddedService.h"

#include <algorithm>
#include <utility>

namespace Kestrane::Net::KsModelEventManager::Binding {

ClientIDs EmbeddedService::idsOf(const Session& clients, const Client* leftOut) {
  ClientIDs ids;
  for (const Client& client : clients) {
    if (&client != leftOut) ids.push_back(client.id);
  }
  return ids;
}

EmbeddedService::Client* EmbeddedService::find(const std::string& serverID,
                                               const std::string& clientID) {
  const auto session = sessions.find(serverID);
  if (session == sessions.end()) return nullptr;
  Session& clients = session->second;
  const auto caller = std::find_if(clients.begin(), clients.end(),
                                   [&](const Client& c) { return c.id == clientID; });
  return caller != clients.end() ? &*caller : nullptr;
}

ClientIDs EmbeddedService::registerClient(const std::string& serverID,
                                          const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  if (find(serverID, clientID) == nullptr) sessions[serverID].push_back(Client{clientID, {}});
  return idsOf(sessions[serverID]);
}

std::optional<ClientIDs> EmbeddedService::unregisterClient(const std::string& serverID,
                                                           const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  const Client* caller = find(serverID, clientID);
  if (caller == nullptr) return std::nullopt;
  Session& clients = sessions[serverID];
  clients.erase(clients.begin() + (caller - clients.data()));
  ClientIDs remaining = idsOf(clients);
  if (clients.empty()) sessions.erase(serverID);
  return remaining;
}

std::optional<ClientIDs> EmbeddedService::putEvents(const std::string& serverID,
                                                    const std::string& clientID,
                                                    const std::string& event) {
  std::lock_guard<std::mutex> lock(mutex);
  const Client* caller = find(serverID, clientID);
  if (caller == nullptr) return std::nullopt;
  Session& clients = sessions[serverID];
  for (Client& client : clients) {
    if (&client != caller) client.pendingEvents.push_back(event);
  }
  return idsOf(clients, caller);
}

std::optional<std::string> EmbeddedService::getEvents(const std::string& serverID,
                                                      const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  Client* caller = find(serverID, clientID);
  if (caller == nullptr) return std::nullopt;
  std::string events;
  for (const std::string& event : caller->pendingEvents) events += event;
  std::vector<std::string>().swap(caller->pendingEvents);
  return events;
}

std::optional<ClientIDs> EmbeddedService::getSharedClients(const std::string& serverID,
                                                           const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  if (find(serverID, clientID) == nullptr) return std::nullopt;
  return idsOf(sessions[serverID]);
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
