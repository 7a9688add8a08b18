#include "service/redis/RedisRouter.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "client/KsMemBinding.h"

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

constexpr int kSlots = 16384;
// Redirections that one command follows at most; a cluster that sends it further is in flux.
constexpr int kMaxRedirections = 16;

uint16_t crc16(std::string_view data) {
  uint16_t crc = 0;
  for (const char c : data) {
    crc ^= static_cast<uint16_t>(static_cast<unsigned char>(c) << 8);
    for (int bit = 0; bit < 8; ++bit) {
      crc = static_cast<uint16_t>(crc & 0x8000 ? (crc << 1) ^ 0x1021 : crc << 1);
    }
  }
  return crc;
}

bool startsWith(const redisReply& reply, std::string_view prefix) {
  return reply.type == REDIS_REPLY_ERROR &&
         std::string_view(reply.str, reply.len).substr(0, prefix.size()) == prefix;
}

// The "HOST:PORT" at the end of a MOVED or ASK error.
Endpoint redirectTarget(const redisReply& error) {
  const std::string_view text(error.str, error.len);
  const std::string_view address = text.substr(text.rfind(' ') + 1);
  const std::size_t colon = address.rfind(':');
  Endpoint target{std::string(address.substr(0, colon)), 0};
  if (colon != std::string_view::npos)
    target.port = std::atoi(std::string(address.substr(colon + 1)).c_str());
  return target;
}

}  // namespace

int hashSlot(std::string_view key) {
  const std::size_t open = key.find('{');
  if (open != std::string_view::npos) {
    const std::size_t close = key.find('}', open + 1);
    if (close != std::string_view::npos && close > open + 1) {
      key = key.substr(open + 1, close - open - 1);
    }
  }
  return crc16(key) % kSlots;
}

RedisRouter::RedisRouter(const ServiceURL& url) : url(url) {
  if (url.kind != ServiceURL::Kind::kRedisCluster) {
    auto node = std::make_unique<Node>();
    if (!url.nodes.empty()) node->address = url.nodes.front();
    node->connection =
        std::make_unique<RedisConnection>(url, url.nodes.empty() ? nullptr : &node->address);
    nodes.push_back(std::move(node));
    return;
  }
  for (const Endpoint& seed : url.nodes) nodeAt(seed.host, seed.port);
  slotOwner.assign(kSlots, nullptr);
}

RedisRouter::Node& RedisRouter::nodeAt(const std::string& host, int port) {
  for (const std::unique_ptr<Node>& node : nodes) {
    if (node->address.host == host && node->address.port == port) return *node;
  }
  auto node = std::make_unique<Node>();
  node->address = Endpoint{host, port};
  node->connection = std::make_unique<RedisConnection>(url, &node->address);
  nodes.push_back(std::move(node));
  return *nodes.back();
}

void RedisRouter::readSlotMap(Clock::time_point deadline) {
  // The node that gave the map last is asked first: a seed that has gone silent would cost a
  // whole time limit each time.
  for (std::size_t k = 0; k < nodes.size() && Clock::now() < deadline; ++k) {
    const std::size_t i = (mapSource + k) % nodes.size();
    Node& asked = *nodes[i];
    RedisReply map;
    try {
      map = asked.connection->command({"CLUSTER", "SLOTS"});
    } catch (const NotConnected&) {
      continue;
    } catch (const ReplyLost&) {
      continue;
    }
    if (map->type != REDIS_REPLY_ARRAY) continue;
    mapSource = i;
    std::fill(slotOwner.begin(), slotOwner.end(), nullptr);
    // Each range: first slot, last slot, then the primary and its replicas, each as
    // [host, port, id, ...]; a host that the node does not know is "" or "?".
    for (std::size_t r = 0; r < map->elements; ++r) {
      const redisReply& range = *map->element[r];
      if (range.type != REDIS_REPLY_ARRAY || range.elements < 3 ||
          range.element[0]->type != REDIS_REPLY_INTEGER ||
          range.element[1]->type != REDIS_REPLY_INTEGER ||
          range.element[2]->type != REDIS_REPLY_ARRAY || range.element[2]->elements < 2 ||
          range.element[2]->element[0]->type != REDIS_REPLY_STRING ||
          range.element[2]->element[1]->type != REDIS_REPLY_INTEGER) {
        continue;
      }
      const redisReply& primary = *range.element[2];
      std::string host(primary.element[0]->str, primary.element[0]->len);
      if (host.empty() || host == "?") host = asked.address.host;
      Node& owner = nodeAt(host, static_cast<int>(primary.element[1]->integer));
      const long long first = std::max(0LL, range.element[0]->integer);
      const long long last = std::min(kSlots - 1LL, range.element[1]->integer);
      for (long long slot = first; slot <= last; ++slot) slotOwner[slot] = &owner;
    }
    return;
  }
}

RedisRouter::Node& RedisRouter::nodeOf(int slot, Clock::time_point deadline) {
  if (slotOwner[slot] == nullptr) readSlotMap(deadline);
  // While the map says nothing of the slot, ask any node: it redirects.
  return slotOwner[slot] != nullptr ? *slotOwner[slot] : *nodes.front();
}

bool RedisRouter::standsAlone(Node& node, const redisReply& role) {
  if (role.type == REDIS_REPLY_ERROR) node.connection->refused(role);
  // A primary answers ["master", offset, [[host, port, offset], ...]].
  const bool listsReplicas = role.type == REDIS_REPLY_ARRAY && role.elements >= 3 &&
                             role.element[2]->type == REDIS_REPLY_ARRAY;
  node.replicas = listsReplicas ? static_cast<int>(role.element[2]->elements) : 0;
  if (node.replicas > 0) return node.alone = false;
  if (node.alone) return true;
  const RedisReply view = node.connection->command({"CLUSTER", "NODES"});
  if (view->type == REDIS_REPLY_ERROR) node.connection->refused(*view);
  if (view->type != REDIS_REPLY_STRING) return false;
  // A line per node: ID ADDRESS FLAGS PRIMARY-ID ..., the flags such as "myself,master",
  // "slave" or "slave,fail"; "fail?" is this node's suspicion alone, not yet the cluster's.
  std::string self;
  std::vector<std::pair<std::string, bool>> replicas;  // each one's primary, and if it failed
  std::istringstream lines(std::string(view->str, view->len));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string id, address, flags, primary;
    fields >> id >> address >> flags >> primary;
    flags = "," + flags + ",";
    const auto has = [&](const char* flag) { return flags.find(flag) != std::string::npos; };
    if (has(",myself,") && !has(",master,")) return false;
    if (has(",myself,")) self = id;
    if (has(",slave,")) replicas.emplace_back(primary, has(",fail,"));
  }
  if (self.empty()) return false;
  bool any = false, working = false;
  for (const auto& [primary, failed] : replicas) {
    any = any || primary == self;
    working = working || (primary == self && !failed);
  }
  // Only a primary without any replica is remembered: a failed one may come back, and until
  // it is in sync again, the primary must not count a write without it.
  node.alone = !any;
  return !working;
}

RedisReply RedisRouter::send(Node& node, const RedisCommand& parts, bool replicated, bool asking) {
  lastConnection = node.connection.get();
  // ASKING lets the node that a slot is moving to take the one command after it.
  std::vector<RedisCommand> batch;
  if (asking) batch.push_back({"ASKING"});
  batch.push_back(parts);
  const std::size_t own = batch.size() - 1;  // where the command's own reply comes
  if (!replicated) return std::move(node.connection->commands(batch)[own]);
  const std::string waitMs = std::to_string(std::max<long long>(1, url.timeout.count() / 2));
  const RedisCommand wait = {"WAIT", "1", waitMs}, role = {"ROLE"};
  // WAIT goes with the command in one round trip where the node had replicas when last asked.
  // Otherwise ROLE does, so that a replica that has come since (after a failover, or at the
  // start of the cluster) is waited for from the first write after it.
  batch.push_back(node.replicas > 0 ? wait : role);
  std::vector<RedisReply> replies = node.connection->commands(batch);
  RedisReply reply = std::move(replies[own]);
  if (reply->type == REDIS_REPLY_ERROR) return reply;
  RedisReply acknowledged = std::move(replies.back());
  if (node.replicas == 0) {
    if (standsAlone(node, *acknowledged)) return reply;
    acknowledged = node.connection->command(wait);
  }
  // WAIT answers how many replicas have the write.
  if (acknowledged->type == REDIS_REPLY_INTEGER && acknowledged->integer >= 1) return reply;
  // No replica took the write: where the primary has lost its replicas for good, it stands
  // alone. Otherwise the write may vanish with this primary, so it does not count.
  if (standsAlone(node, *node.connection->command(role))) return reply;
  throw ReplyLost(KSMEM_ERR_SERVICE_UNREACHABLE,
                  "lost the connection to the service at " + url.shown + ": node " +
                      node.address.host + ":" + std::to_string(node.address.port) +
                      ": no replica took the write within " + waitMs + " ms");
}

RedisReply RedisRouter::command(int slot, const RedisCommand& parts, bool replicated) {
  if (url.kind != ServiceURL::Kind::kRedisCluster) {
    try {
      return send(*nodes.front(), parts, false, false);
    } catch (const ReplyLost&) {
      return send(*nodes.front(), parts, false, false);
    }
  }
  const Clock::time_point deadline = Clock::now() + url.timeout;
  auto pause = std::chrono::milliseconds(10);
  const auto waitAMoment = [&] {
    std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline - Clock::now()));
    pause = std::min(pause * 2, std::chrono::milliseconds(200));
  };
  Node* asking = nullptr;
  for (int redirections = 0;;) {
    Node& node = asking != nullptr ? *asking : nodeOf(slot, deadline);
    const bool asked = asking != nullptr;
    asking = nullptr;  // once: after a lost reply, the slot's owner is asked again
    try {
      RedisReply reply = send(node, parts, replicated, asked);
      const bool moved = startsWith(*reply, "MOVED "), ask = startsWith(*reply, "ASK ");
      if ((moved || ask) && ++redirections <= kMaxRedirections) {
        const Endpoint target = redirectTarget(*reply);
        Node& next = nodeAt(target.host.empty() ? node.address.host : target.host, target.port);
        if (ask) asking = &next;
        if (moved) {  // the map read again may be older than the node that answered
          readSlotMap(deadline);
          slotOwner[slot] = &next;
        }
        continue;
      }
      if ((startsWith(*reply, "TRYAGAIN") || startsWith(*reply, "CLUSTERDOWN")) &&
          Clock::now() < deadline) {
        waitAMoment();
        continue;
      }
      return reply;
    } catch (const NotConnected&) {
      if (Clock::now() >= deadline) throw;
    } catch (const ReplyLost&) {
      if (Clock::now() >= deadline) throw;
    }
    // The node is gone or did not answer: a replica may be taking over. Ask again for the map.
    waitAMoment();
    readSlotMap(deadline);
  }
}

}  // namespace Kestrane::Net::KsModelEventManager::Service
