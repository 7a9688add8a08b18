// A TCP relay on 127.0.0.1 in front of a RedisServer listening on loopback, which loses replies
// at random: it passes requests on as they are, finds where each reply ends with hiredis's reader,
// and swallows each with a chance of 1/n, so that the command has run in Redis but the caller never
// hears of it. With kCloseConnection the caller's connection breaks at once where the reply would
// have come; with kKeepSilent the connection stays open and nothing more comes on it, so the
// caller runs into its own time limit. Replies before the swallowed one reach the caller as
// they should. Replies are counted over all connections in the order they come from Redis;
// every connection counts, including its AUTH and PING. A reply that does not parse ends its
// connection.
//
// The relay runs in a child process of its own, with a thread for each direction of each
// connection, from the constructor to the destructor, which kills it; the system then closes
// every connection. So the test process keeps no relay thread that could hold a lock while it
// forks children of its own, and those children hold no copy of the relay's sockets. The
// methods may be called from any thread.
#ifndef KSMEM_TESTS_STANDIN_FAULTYRELAY_H_
#define KSMEM_TESTS_STANDIN_FAULTYRELAY_H_

#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "tests/standin/RedisServer.h"

class FaultyRelay {
 public:
  enum class Loss { kCloseConnection, kKeepSilent };

  // Starts relaying to `redis`, picking the replies to lose with a generator seeded with
  // `seed`. Throws std::invalid_argument when n < 1 and std::system_error
  // when the relay cannot listen or start.
  // REQUIRES: `redis` listens on loopback (Listen::kLoopback).
  FaultyRelay(const RedisServer& redis, Loss loss, int n, unsigned seed)
      : redisPort(redis.port()), loss(loss), n(n), random(seed) {
    if (n < 1) throw std::invalid_argument("FaultyRelay: n must be 1 or more");
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    const int listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const pid_t parent = getpid();
    if (counts == MAP_FAILED ||
        bind(listenFd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listenFd, 128) != 0 ||
        getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        (relay = fork()) < 0) {
      const int error = errno;
      close(listenFd);
      if (counts != MAP_FAILED) munmap(counts, sizeof(Counts));
      throw std::system_error(error, std::generic_category(), "FaultyRelay cannot start");
    }
    if (relay == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);  // the parent ended before prctl took effect
      acceptCallers(listenFd);
    }
    close(listenFd);
    // The url of `redis` ends with its port; the relay's takes its place.
    relayURL =
        redis.url().substr(0, redis.url().rfind(':') + 1) + std::to_string(ntohs(address.sin_port));
  }
  ~FaultyRelay() {
    ::kill(relay, SIGKILL);
    waitpid(relay, nullptr, 0);
    munmap(counts, sizeof(Counts));
  }
  FaultyRelay(const FaultyRelay&) = delete;
  FaultyRelay& operator=(const FaultyRelay&) = delete;

  // The relay's address as KSMEM_SERVICE takes it, with the password of `redis`:
  // "redis://[:PASSWORD@]127.0.0.1:PORT", to which a test may append "/DB" and "?options".
  const std::string& url() const { return relayURL; }

  long long swallowed() const { return counts->swallowed; }

 private:
  // Shared by the test process and the relay process; the mapping starts zeroed.
  struct Counts {
    std::atomic<long long> swallowed;
  };

  struct Connection {
    Connection(int caller, int redis) : caller(caller), redis(redis) {}
    ~Connection() {
      close(caller);
      close(redis);
    }
    // Wakes both threads of the connection.
    void end() const {
      shutdown(caller, SHUT_RDWR);
      shutdown(redis, SHUT_RDWR);
    }

    const int caller, redis;
    std::atomic<bool> silent{false};  // a reply was swallowed: requests go nowhere from now on
  };

  static sockaddr_in loopback(int port) {
    return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  }

  static bool sendAll(int fd, const char* data, std::size_t size) {
    for (ssize_t sent; size > 0; data += sent, size -= static_cast<std::size_t>(sent)) {
      if ((sent = send(fd, data, size, MSG_NOSIGNAL)) <= 0) return false;
    }
    return true;
  }

  // The relay process: serves callers until it is killed.
  [[noreturn]] void acceptCallers(int listenFd) {
    for (;;) {
      const int caller = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
      if (caller < 0 && errno != EINTR && errno != ECONNABORTED) _exit(1);
      if (caller < 0) continue;
      const int redis = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), on = 1;
      const sockaddr_in address = loopback(redisPort);
      const auto c = std::make_shared<Connection>(caller, redis);
      // When Redis is down, the threads end at once and so does the caller's connection.
      if (connect(redis, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        c->end();
      }
      setsockopt(caller, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      setsockopt(redis, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      std::thread(&FaultyRelay::passRequests, this, c).detach();
      std::thread(&FaultyRelay::passReplies, this, c).detach();
    }
  }

  void passRequests(const std::shared_ptr<Connection>& c) {
    char chunk[65536];
    for (ssize_t count; (count = recv(c->caller, chunk, sizeof chunk, 0)) > 0;) {
      if (!c->silent && !sendAll(c->redis, chunk, static_cast<std::size_t>(count))) break;
    }
    c->end();
  }

  // Passes on whole replies, each as soon as its last byte has come.
  void passReplies(const std::shared_ptr<Connection>& c) {
    std::unique_ptr<redisReader, void (*)(redisReader*)> reader(redisReaderCreate(),
                                                                redisReaderFree);
    std::string pending;  // what came from Redis after the last whole reply
    char chunk[65536];
    for (ssize_t count; (count = recv(c->redis, chunk, sizeof chunk, 0)) > 0;) {
      pending.append(chunk, static_cast<std::size_t>(count));
      void* reply = nullptr;
      int status = redisReaderFeed(reader.get(), chunk, static_cast<std::size_t>(count));
      while (status == REDIS_OK &&
             (status = redisReaderGetReply(reader.get(), &reply)) == REDIS_OK && reply != nullptr) {
        freeReplyObject(reply);
        // The reader stops right after a whole reply: what it has not taken is the next one's.
        const std::size_t size = pending.size() - (reader->len - reader->pos);
        if (swallowNext()) {
          c->silent = loss == Loss::kKeepSilent;
          if (!c->silent) c->end();
          return;
        }
        if (!sendAll(c->caller, pending.data(), size)) return c->end();
        pending.erase(0, size);
      }
      if (status != REDIS_OK) break;
    }
    c->end();
  }

  bool swallowNext() {
    std::lock_guard<std::mutex> lock(mutex);
    const bool swallow = random() % static_cast<unsigned>(n) == 0;
    if (swallow) ++counts->swallowed;
    return swallow;
  }

  const int redisPort;
  const Loss loss;
  const int n;
  Counts* const counts = static_cast<Counts*>(
      mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t relay = -1;
  std::string relayURL;
  std::mutex mutex;     // in the relay process, for the threads of all its connections
  std::mt19937 random;  // guarded by `mutex`
};

#endif  // KSMEM_TESTS_STANDIN_FAULTYRELAY_H_
