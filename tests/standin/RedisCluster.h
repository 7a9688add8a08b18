// A Redis Cluster of a test's (or a benchmark's) own: six redis-servers on loopback, joined by
// redis-cli into three primaries with one replica each. Every node requires the password (and
// replicas give it to their primaries), keeps an append-only file, and takes a node it has not
// heard from for a second as failing, so that a replica takes over a killed primary within a few
// seconds. Nodes are named by their port. Each node runs in a temporary directory of its own;
// the object kills every node and removes the directories when it goes, also when a test
// fails. Not for use from several threads at once. Header-only, so that the benchmark program
// can use it too.
#ifndef KSMEM_TESTS_STANDIN_REDISCLUSTER_H_
#define KSMEM_TESTS_STANDIN_REDISCLUSTER_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tests/standin/RedisServer.h"
#include "tests/standin/RedisWire.h"

class RedisCluster {
 public:
  // REQUIRES: `password` holds only letters, digits and "-._~".
  explicit RedisCluster(std::string password = "ksmem-cluster-secret")
      : password(std::move(password)) {}
  ~RedisCluster() {
    for (const auto& node : nodes) node->kill();  // a test's cluster has nothing worth keeping
  }
  RedisCluster(const RedisCluster&) = delete;
  RedisCluster& operator=(const RedisCluster&) = delete;

  // Starts the six nodes, creates the cluster and waits until every node reports it as ok and
  // every replica is in sync with its primary. False, with problem() saying why, when that has
  // not happened within 30 seconds or a node or redis-cli failed.
  // REQUIRES: not started before.
  bool start() {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
    std::mt19937 random(std::random_device{}());
    std::vector<std::string> create = {"redis-cli", "--cluster", "create"};
    while (nodes.size() < 6) {
      std::string failure;
      for (int attempt = 0; attempt < 5; ++attempt) {  // another program may take a port first
        RedisServer::Options options(RedisServer::Listen::kLoopback);
        options.durability = RedisServer::Durability::kAppendEverySecond;
        options.password = password;
        options.port = freeNodePort(random);
        options.moreArguments = {"--cluster-enabled", "yes", "--masterauth", password,
                                 "--cluster-node-timeout", "1000",
                                 // A replica syncs at once, not after the five seconds that Redis
                                 // waits by default for more replicas to share the transfer.
                                 "--repl-diskless-sync-delay", "0"};
        auto node = std::make_unique<RedisServer>(options);
        if (node->start()) {
          create.push_back("127.0.0.1:" + std::to_string(node->port()));
          nodes.push_back(std::move(node));
          failure.clear();
          break;
        }
        failure = node->problem();
      }
      if (!failure.empty()) return fail("a node did not start: " + failure);
    }
    create.insert(create.end(), {"--cluster-replicas", "1", "--cluster-yes", "-a", password,
                                 "--no-auth-warning"});
    std::string output;
    if (!run(create, deadline, output)) {
      return fail("redis-cli --cluster create failed: " + output);
    }
    return settle(deadline) || fail("the cluster was not ok within 30 seconds");
  }

  const std::string& problem() const { return why; }

  // The address as KSMEM_SERVICE takes it, every node a seed:
  // "redis-cluster://:PASSWORD@127.0.0.1:P1,127.0.0.1:P2,...". A test may append "?options".
  std::string url() const {
    std::string url = "redis-cluster://:" + password + "@", separator;
    for (const auto& node : nodes) {
      url += separator + "127.0.0.1:" + std::to_string(node->port());
      separator = ",";
    }
    return url;
  }

  // The ports of the primaries that serve slots, by their first slot, as a running node sees
  // them now.
  std::vector<int> primaryPorts() {
    RedisWire node = wire(anyRunningPort(), kQuestionTime);
    std::vector<std::pair<int, int>> primaries;  // first slot and port
    for (const NodeView& seen : nodesAsSeenBy(node)) {
      if (!seen.slots.empty()) primaries.emplace_back(seen.slots[0].first, seen.port);
    }
    std::sort(primaries.begin(), primaries.end());
    std::vector<int> ports;
    for (const auto& primary : primaries) ports.push_back(primary.second);
    return ports;
  }

  // The port of the primary that serves the slot of `key`, hash tag and all, as a running node
  // sees it now; 0 when none does.
  int ownerOf(std::string_view key) {
    RedisWire node = wire(anyRunningPort(), kQuestionTime);
    const std::vector<std::string> reply = node.command({"CLUSTER", "KEYSLOT", key});
    const int slot = reply.size() == 1 ? std::atoi(reply[0].c_str()) : -1;
    for (const NodeView& seen : nodesAsSeenBy(node)) {
      for (const auto& [first, last] : seen.slots) {
        if (first <= slot && slot <= last) return seen.port;
      }
    }
    return 0;
  }

  // Kills the primary at `port` as a crash would (SIGKILL). False when no running node there
  // serves slots.
  bool killPrimary(int port) {
    const std::vector<int> primaries = primaryPorts();
    RedisServer* node = running(port);
    if (node == nullptr || std::find(primaries.begin(), primaries.end(), port) == primaries.end()) {
      return false;
    }
    node->kill();
    return true;
  }

  // Waits until a running node serves every slot, every running node reports the cluster as
  // ok and every replica is in sync with its primary: after killPrimary(), until a replica has
  // taken over. False, with problem() saying so, when that has not happened within 30 seconds.
  bool waitForFailover() {
    return settle(Clock::now() + std::chrono::seconds(30)) ||
           fail("no replica took over within 30 seconds");
  }

  // The number of keys in the node at `port` (DBSIZE), or -1 when it does not answer.
  long long keyCount(int port) {
    const std::vector<std::string> reply = wire(port, kQuestionTime).command({"DBSIZE"});
    return reply.size() == 1 && reply[0].rfind('-', 0) != 0 ? std::atoll(reply[0].c_str()) : -1;
  }

  // A new authenticated connection to the node at `port`.
  RedisWire wire(int port, std::chrono::milliseconds timeLimit = std::chrono::seconds(10)) const {
    return RedisWire(connectLoopback(port), password, timeLimit);
  }

 private:
  using Clock = std::chrono::steady_clock;
  // The time limit of the questions that the object asks the nodes itself.
  static constexpr std::chrono::seconds kQuestionTime{2};

  // A node in the reply of CLUSTER NODES.
  struct NodeView {
    int port = 0;
    bool replica = false;
    std::vector<std::pair<int, int>> slots;  // first and last slot of each range it serves
  };

  // A port for a node whose cluster bus port (port + 10000) is free too.
  static int freeNodePort(std::mt19937& random) {
    const auto bindable = [](int port) {
      const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      const int on = 1;
      setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      const sockaddr_in address = loopbackAddress(port);
      const bool free = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
      close(fd);
      return free;
    };
    std::uniform_int_distribution<int> ports(20000, 30000);
    for (int attempt = 0; attempt < 100; ++attempt) {
      const int port = ports(random);
      if (bindable(port) && bindable(port + 10000)) return port;
    }
    return 20000;  // let redis-server say what is wrong with it
  }

  // Runs `args`, keeping the start of their output in `output`. False when they do not end
  // with status 0 before `deadline`; they are killed at the deadline.
  static bool run(const std::vector<std::string>& args, Clock::time_point deadline,
                  std::string& output) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const pid_t pid = startProgram(args, ends[1]);
    close(ends[1]);
    bool ended = false;  // the program closed its output: it is exiting
    while (pid > 0 && !ended && Clock::now() < deadline) {
      pollfd readable = {ends[0], POLLIN, 0};
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      if (poll(&readable, 1, static_cast<int>(left.count())) <= 0) continue;
      char chunk[4096];
      const ssize_t count = read(ends[0], chunk, sizeof chunk);
      if (count > 0 && output.size() < 65536) output.append(chunk, static_cast<std::size_t>(count));
      ended = count == 0 || (count < 0 && errno != EINTR);
    }
    close(ends[0]);
    if (pid < 0) return false;
    if (!ended) {
      kill(pid, SIGKILL);
      output += " (stopped at the time limit)";
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  // CLUSTER NODES, as the node behind `node` sees them.
  static std::vector<NodeView> nodesAsSeenBy(RedisWire& node) {
    std::vector<NodeView> view;
    const std::vector<std::string> reply = node.command({"CLUSTER", "NODES"});
    if (reply.size() != 1) return view;
    const std::string& text = reply[0];
    for (std::size_t at = 0; at < text.size();) {
      std::size_t end = text.find('\n', at);
      if (end == std::string::npos) end = text.size();
      // <id> <ip:port@busport[,hostname]> <flags> <primary> <ping> <pong> <epoch> <link> <slot>...
      std::vector<std::string> fields;
      for (std::size_t from = at; from < end;) {
        std::size_t to = std::min(text.find(' ', from), end);
        fields.push_back(text.substr(from, to - from));
        from = to + 1;
      }
      at = end + 1;
      if (fields.size() < 8) continue;
      NodeView node;
      node.port = std::atoi(fields[1].c_str() + fields[1].find(':') + 1);
      node.replica = ("," + fields[2] + ",").find(",slave,") != std::string::npos;
      for (std::size_t i = 8; i < fields.size(); ++i) {
        if (fields[i][0] == '[') continue;  // a slot on its way to or from another node
        const std::size_t dash = fields[i].find('-');
        const int first = std::atoi(fields[i].c_str());
        node.slots.emplace_back(
            first, dash == std::string::npos ? first : std::atoi(fields[i].c_str() + dash + 1));
      }
      view.push_back(std::move(node));
    }
    return view;
  }

  // True when every running node sees the cluster as ok with every slot served by a running
  // node, and every running replica has its link to its primary up.
  bool settled() {
    for (const auto& node : nodes) {
      if (node->pid() == 0) continue;
      RedisWire asked = wire(node->port(), kQuestionTime);
      const std::vector<std::string> info = asked.command({"CLUSTER", "INFO"});
      if (info.size() != 1 || RedisWire::field(info[0], "cluster_state") != "ok") return false;
      int served = 0;
      for (const NodeView& seen : nodesAsSeenBy(asked)) {
        for (const auto& [first, last] : seen.slots) {
          if (running(seen.port) == nullptr) return false;
          served += last - first + 1;
        }
        if (seen.replica && seen.port == node->port()) {
          const std::vector<std::string> replication = asked.command({"INFO", "replication"});
          if (replication.size() != 1 ||
              RedisWire::field(replication[0], "master_link_status") != "up") {
            return false;
          }
        }
      }
      if (served != 16384) return false;
    }
    return true;
  }

  bool settle(Clock::time_point deadline) {
    while (!settled()) {
      if (Clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
  }

  RedisServer* running(int port) const {
    for (const auto& node : nodes) {
      if (node->port() == port && node->pid() != 0) return node.get();
    }
    return nullptr;
  }

  int anyRunningPort() const {
    for (const auto& node : nodes) {
      if (node->pid() != 0) return node->port();
    }
    return 0;
  }

  bool fail(const std::string& reason) {
    why = reason;
    return false;
  }

  const std::string password;
  std::vector<std::unique_ptr<RedisServer>> nodes;
  std::string why;
};

#endif  // KSMEM_TESTS_STANDIN_REDISCLUSTER_H_
