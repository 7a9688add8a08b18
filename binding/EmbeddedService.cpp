#include "binding/EmbeddedService.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace Kestrane::Net::KsModelEventManager::Binding {

EmbeddedService::EmbeddedService(Retention retention) : retention(retention) {}

ClientIDs EmbeddedService::idsOf(const Server& server, const Client* leftOut) {
  ClientIDs ids;
  for (const Client& client : server.clients) {
    if (&client != leftOut) ids.push_back(client.id);
  }
  return ids;
}

EmbeddedService::Client* EmbeddedService::find(const std::string& serverID,
                                               const std::string& clientID) {
  const auto server = servers.find(serverID);
  if (server == servers.end()) return nullptr;
  std::vector<Client>& clients = server->second.clients;
  const auto caller = std::find_if(clients.begin(), clients.end(),
                                   [&](const Client& c) { return c.id == clientID; });
  return caller != clients.end() ? &*caller : nullptr;
}

void EmbeddedService::dropAcknowledged(Server& server) {
  uint64_t slowest = server.added;
  for (const Client& client : server.clients) slowest = std::min(slowest, client.cursor);
  while (!server.log.empty() && server.log.front().position <= slowest) server.log.pop_front();
}

ClientIDs EmbeddedService::registerClient(const std::string& serverID,
                                          const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  Server& server = servers[serverID];
  if (find(serverID, clientID) == nullptr) server.clients.push_back(Client{clientID, server.added});
  return idsOf(server);
}

std::optional<ClientIDs> EmbeddedService::unregisterClient(const std::string& serverID,
                                                           const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  const Client* caller = find(serverID, clientID);
  if (caller == nullptr) return std::nullopt;
  Server& server = servers[serverID];
  server.clients.erase(server.clients.begin() + (caller - server.clients.data()));
  ClientIDs remaining = idsOf(server);
  if (server.clients.empty()) {
    servers.erase(serverID);
  } else {
    dropAcknowledged(server);
  }
  return remaining;
}

std::optional<ClientIDs> EmbeddedService::putEvents(const std::string& serverID,
                                                    const std::string& clientID,
                                                    const std::string& event) {
  std::lock_guard<std::mutex> lock(mutex);
  Client* caller = find(serverID, clientID);
  if (caller == nullptr) return std::nullopt;
  Server& server = servers[serverID];
  const Clock::time_point now = Clock::now();
  server.log.push_back(Entry{++server.added, clientID, event, now});
  // A caller that had nothing pending need not hold the log back for an event of its own.
  if (caller->cursor == server.added - 1) caller->cursor = server.added;
  while (retention.events > 0 && server.log.size() > retention.events) server.log.pop_front();
  while (retention.age.count() > 0 && !server.log.empty() &&
         now - server.log.front().posted > retention.age) {
    server.log.pop_front();
  }
  dropAcknowledged(server);
  return idsOf(server, caller);
}

std::optional<ServiceBackend::Batch> EmbeddedService::getEvents(const std::string& serverID,
                                                                const std::string& clientID,
                                                                const std::string& acknowledged) {
  std::lock_guard<std::mutex> lock(mutex);
  Client* caller = find(serverID, clientID);
  if (caller == nullptr) return std::nullopt;
  Server& server = servers[serverID];
  // Only a `last` of this service comes back here; anything else acknowledges nothing.
  const uint64_t position = std::strtoull(acknowledged.c_str(), nullptr, 10);
  if (position > caller->cursor && position <= server.added) {
    caller->cursor = position;
    dropAcknowledged(server);
  }
  Batch batch;
  std::size_t count = 0;
  const uint64_t first = server.firstPosition();
  std::size_t at =
      caller->cursor < first ? 0 : static_cast<std::size_t>(caller->cursor + 1 - first);
  for (std::size_t looked = 0; at < server.log.size() && looked < kFetchScanLimit; ++at, ++looked) {
    const Entry& entry = server.log[at];
    if (entry.sender != clientID) {
      if (count == kBatchEvents ||
          (count > 0 && batch.events.size() + entry.event.size() > kBatchBytes)) {
        break;
      }
      batch.events += entry.event;
      ++count;
    }
    batch.last = std::to_string(entry.position);
  }
  return batch;
}

std::optional<ClientIDs> EmbeddedService::getSharedClients(const std::string& serverID,
                                                           const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  if (find(serverID, clientID) == nullptr) return std::nullopt;
  return idsOf(servers[serverID]);
}

std::vector<ServiceBackend::Backlog> EmbeddedService::getClientBacklogs(
    const std::string& serverID) {
  std::lock_guard<std::mutex> lock(mutex);
  std::vector<Backlog> backlogs;
  const auto found = servers.find(serverID);
  if (found == servers.end()) return backlogs;
  const Server& server = found->second;
  const Clock::time_point now = Clock::now();
  const uint64_t first = server.firstPosition();
  for (const Client& client : server.clients) {
    Backlog backlog{client.id};
    const uint64_t from = std::max(client.cursor + 1, first);
    backlog.pending = server.added + 1 - from;
    if (backlog.pending > 0) {
      const Clock::duration age = now - server.log[from - first].posted;
      backlog.oldestAgeMs = std::chrono::duration_cast<std::chrono::milliseconds>(age).count();
    }
    backlogs.push_back(std::move(backlog));
  }
  return backlogs;
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
