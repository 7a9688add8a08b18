// Where one thread's commands for the service go: the one Redis server of a redis:// or unix://
// service, or, for a redis-cluster:// service, the node of the Redis Cluster that holds the hash
// slot of the command's keys.
//
// For a cluster it learns which node holds which slot from the nodes it knows (the seeds
// first) with CLUSTER SLOTS, keeps one connection per node, follows MOVED (remembering it) and
// ASK (ASKING, then the command once), and waits a moment and tries again on TRYAGAIN and
// CLUSTERDOWN, and when a node cannot be reached or its reply is lost (then it reads the map
// anew, since a replica may have taken over). It gives up when the service's time limit has
// passed since the command began. A write that changes state can ask to be replicated: it then
// returns only once its primary has passed it on to a replica (WAIT), also when it went there
// by ASK. A primary stands alone, and its writes count without a replica, only while no replica
// is connected to it and the cluster has marked each of its replicas as failed: a replica that
// merely lost its link, or one that has just taken over from a primary that does not know it
// yet, still counts.
//
// A single server is asked once more after a lost reply, and not again after it cannot be
// reached. Every request is made so that sending it twice does no harm (RedisService).
#ifndef KSMEM_SERVICE_REDIS_REDISROUTER_H_
#define KSMEM_SERVICE_REDIS_REDISROUTER_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "service/redis/RedisConnection.h"
#include "service/ServiceURL.h"

namespace Kestrane::Net::KsModelEventManager::Service {

// The hash slot of `key` as Redis Cluster computes it: CRC16 of the key's hash tag (the text
// between its first "{" and the next "}", when not empty) or else of the whole key, modulo 16384.
int hashSlot(std::string_view key);

class RedisRouter {
 public:
  // `url` must outlive the router.
  explicit RedisRouter(const ServiceURL& url);

  // Sends `parts`, whose keys all lie in hash slot `slot`, and gives the reply: an error reply
  // too, but never a redirection. With `replicated`, the write is also passed on to a replica
  // before this returns. Throws ServiceFailure (RedisConnection) when it cannot be done.
  RedisReply command(int slot, const RedisCommand& parts, bool replicated = false);

  // The connection that the last command went out on: for failure texts.
  RedisConnection& last() { return *lastConnection; }

 private:
  struct Node {
    Endpoint address;
    std::unique_ptr<RedisConnection> connection;
    int replicas = 0;  // replicas connected to this primary as it last said; 0 until asked
    bool alone = false;  // it had no replica at all when last asked, and none has connected
  };

  using Clock = std::chrono::steady_clock;

  // The node of `slot` as far as is known; the map is read first if there is none.
  Node& nodeOf(int slot, Clock::time_point deadline);
  Node& nodeAt(const std::string& host, int port);
  // Reads the slot map from the first node that answers, asking no more nodes once `deadline`
  // has passed; leaves it as it was if none does.
  void readSlotMap(Clock::time_point deadline);
  // Sends `parts` to `node`, after ASKING when `asking`; with `replicated`, waits until a
  // replica has the write (WAIT) unless the node stands alone.
  RedisReply send(Node& node, const RedisCommand& parts, bool replicated, bool asking);
  // Takes the replicas connected to `node` from its reply to ROLE (0 for a node that is no
  // primary), and tells whether it stands alone: none is connected, it is still a primary and
  // its view of the cluster (CLUSTER NODES) names no replica of its own that is not marked as
  // failed. An error reply to either, as for a user not allowed them, throws as a refusal.
  bool standsAlone(Node& node, const redisReply& role);

  const ServiceURL& url;
  std::vector<std::unique_ptr<Node>> nodes;  // seeds first, then as the map names them
  std::vector<Node*> slotOwner;              // by slot; null where unknown
  std::size_t mapSource = 0;                 // the node that gave the slot map last
  RedisConnection* lastConnection = nullptr;
};

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_REDIS_REDISROUTER_H_
