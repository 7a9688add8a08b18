#include "service/EmbeddedService.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace Kestrane::Net::KsModelEventManager::Service {

EmbeddedService::EmbeddedService(const ServiceURL& url)
    : ServiceBackend(url.faults), retention(url.retention) {}

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
  const auto client = std::find_if(clients.begin(), clients.end(),
                                   [&](const Client& c) { return c.id == clientID; });
  return client != clients.end() ? &*client : nullptr;
}

EmbeddedService::Client& EmbeddedService::caller(const std::string& serverID,
                                                 const std::string& clientID,
                                                 const char* operation) {
  Client* found = find(serverID, clientID);
  if (found == nullptr) throw unknownClient(serverID, clientID, operation);
  return *found;
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

ClientIDs EmbeddedService::unregisterClient(const std::string& serverID,
                                            const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  const Client& leaving = caller(serverID, clientID, "unregisterClient");
  Server& server = servers[serverID];
  server.clients.erase(server.clients.begin() + (&leaving - server.clients.data()));
  ClientIDs remaining = idsOf(server);
  if (server.clients.empty()) {
    servers.erase(serverID);
  } else {
    dropAcknowledged(server);
  }
  return remaining;
}

ClientIDs EmbeddedService::putEvents(const std::string& serverID, const std::string& clientID,
                                     const std::string& event) {
  std::lock_guard<std::mutex> lock(mutex);
  Client& sender = caller(serverID, clientID, "putEvents");
  Server& server = servers[serverID];
  const Clock::time_point now = Clock::now();
  server.log.push_back(Entry{++server.added, clientID, event, now});
  // A caller that had nothing pending need not hold the log back for an event of its own.
  if (sender.cursor == server.added - 1) sender.cursor = server.added;
  while (retention.events > 0 && server.log.size() > retention.events) server.log.pop_front();
  while (retention.age.count() > 0 && !server.log.empty() &&
         now - server.log.front().posted > retention.age) {
    server.log.pop_front();
  }
  dropAcknowledged(server);
  return idsOf(server, &sender);
}

ServiceBackend::Batch EmbeddedService::getEvents(const std::string& serverID,
                                                 const std::string& clientID,
                                                 const std::string& acknowledged) {
  std::lock_guard<std::mutex> lock(mutex);
  Client& fetcher = caller(serverID, clientID, "getEvents");
  Server& server = servers[serverID];
  // Only a `last` of this service comes back here; anything else acknowledges nothing.
  const uint64_t position = std::strtoull(acknowledged.c_str(), nullptr, 10);
  if (position > fetcher.cursor && position <= server.added) {
    fetcher.cursor = position;
    dropAcknowledged(server);
  }
  Batch batch;
  std::size_t count = 0;
  const uint64_t first = server.firstPosition();
  std::size_t at =
      fetcher.cursor < first ? 0 : static_cast<std::size_t>(fetcher.cursor + 1 - first);
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

ClientIDs EmbeddedService::getSharedClients(const std::string& serverID,
                                            const std::string& clientID) {
  std::lock_guard<std::mutex> lock(mutex);
  caller(serverID, clientID, "getSharedClients");
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

}  // namespace Kestrane::Net::KsModelEventManager::Service
