// The Model Event Manager service kept in Redis, so that processes on any number of machines
// share one service. The operations, their replies and the delivery of events are those of
// ServiceBackend; the state lives in Redis alone, so it is whatever Redis keeps.
//
// Keys of server S, with S in its key form (every byte outside 0x21..0x7E and each of "%",
// "{", "}", ":" written as "%" and two upper-case hex digits), all under the hash tag
// {ksmem:S}, which is never empty, so that one node of a Redis Cluster holds them all:
//   {ksmem:S}:log       Stream: the server's events, a copy each, with sender and position
//   {ksmem:S}:clients   sorted set: the clients, scored by order of registration
//   {ksmem:S}:cursors   hash: client -> "ID N", the last event it acknowledged and its position
//   {ksmem:S}:lag       sorted set: client -> the time part of its cursor, for the slowest
//   {ksmem:S}:head      hash: "id" and "n" of the newest event
//   {ksmem:S}:op:ID     a post or unregister done, kept for kRepeatWindow (at least)
// Client identifiers are stored as they are, byte for byte.
//
// Each operation is one Lua script (the .lua files beside this one; EVALSHA, EVAL again after NOSCRIPT) whose keys are all
// passed in KEYS, so no other client ever sees half an operation. The log is trimmed behind the
// slowest cursor and, as each event is posted, to the retention limit; Redis trims whole blocks
// of entries, so it may keep up to about 100 events more than the limit says.
//
// Each thread of each process reaches Redis through a RedisRouter of its own (one connection,
// or one per node of a cluster), made at its first request; a forked child makes its own. When
// the reply to a request is lost (the connection broke, or the time limit passed), the request
// is sent again, once to a single server, until the time limit to a cluster. On a cluster,
// scripts that add or remove clients or events wait until a replica has them (RedisRouter).
// A post or an unregister carries an id made here, random and unique across processes and
// machines; the script recognises an id it has seen and answers as the first time without
// doing it again.
// A repeated fetch carries the same acknowledgement and reads the same batch.
//
// Safe to use from several threads at once.
#ifndef KSMEM_SERVICE_REDIS_REDISSERVICE_H_
#define KSMEM_SERVICE_REDIS_REDISSERVICE_H_

#include <chrono>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "service/redis/RedisRouter.h"
#include "service/ServiceBackend.h"
#include "service/ServiceURL.h"

namespace Kestrane::Net::KsModelEventManager::Service {

class RedisService : public ServiceBackend {
 public:
  // How long a post or unregister is remembered at least, so that a repeat is recognised.
  static constexpr std::chrono::seconds kRepeatWindow{60};

  // Connects to nothing yet: the first request of each thread does.
  explicit RedisService(ServiceURL url);

 protected:
  void checkAnswers() override;
  ClientIDs registerClient(const std::string& serverID, const std::string& clientID) override;
  ClientIDs unregisterClient(const std::string& serverID, const std::string& clientID) override;
  ClientIDs putEvents(const std::string& serverID, const std::string& clientID,
                      const std::string& event) override;
  Batch getEvents(const std::string& serverID, const std::string& clientID,
                  const std::string& acknowledged) override;
  ClientIDs getSharedClients(const std::string& serverID, const std::string& clientID) override;
  std::vector<Backlog> getClientBacklogs(const std::string& serverID) override;

 private:
  enum Script { kRegister, kUnregister, kPut, kGet, kShared, kScriptCount };

  // The calling thread's way to this service.
  RedisRouter& router();
  // Runs `script` with the server's keys (and `opKey` after them, if not empty) and `args`, the
  // first of them the caller; an error reply fails the request, and so does a nil reply, which
  // says that the caller is not registered.
  RedisReply run(Script script, const std::string& serverID, std::string_view opKey,
                 std::initializer_list<std::string_view> args);
  ClientIDs clientsOf(const RedisReply& reply);

  const ServiceURL url;
};

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_REDIS_REDISSERVICE_H_
