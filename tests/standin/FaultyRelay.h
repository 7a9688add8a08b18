// A TCP relay on 127.0.0.1 in front of a RedisServer listening on loopback, which loses what
// Redis answers: it passes requests on as they are and drops each piece of reply that comes from
// Redis with a chance of 1/n, so that the commands have run in Redis but the caller never hears
// of them. With kCloseConnection the caller's connection then breaks; with kKeepSilent it stays
// open and nothing more comes on it, so that the caller runs into its own time limit. Every
// connection counts, including its AUTH and PING. Given a text `only`, the relay loses only a
// reply to a request that holds it, and only until it has lost one.
//
// The relay runs in a child process of its own, with a thread per connection, from the
// constructor to the destructor, which kills it; the system then closes every connection. So
// the test process keeps no relay thread that could hold a lock while it forks children of its
// own.
#ifndef KSMEM_TESTS_STANDIN_FAULTYRELAY_H_
#define KSMEM_TESTS_STANDIN_FAULTYRELAY_H_

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "tests/standin/RedisServer.h"

class FaultyRelay {
 public:
  enum class Loss { kCloseConnection, kKeepSilent };

  // Starts relaying to `redis`; the pieces to lose are picked by generators seeded from `seed`.
  // Throws std::system_error when the relay cannot listen or start.
  // REQUIRES: `redis` listens on loopback (Listen::kLoopback); n >= 1.
  FaultyRelay(const RedisServer& redis, Loss loss, int n, unsigned seed, std::string only = "")
      : only(std::move(only)) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const pid_t parent = getpid();
    if (swallowedCount == MAP_FAILED ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener, 128) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        (relay = fork()) < 0) {
      const int error = errno;
      close(listener);
      if (swallowedCount != MAP_FAILED) munmap(swallowedCount, sizeof *swallowedCount);
      throw std::system_error(error, std::generic_category(), "FaultyRelay cannot start");
    }
    if (relay == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);  // the parent ended before prctl took effect
      for (unsigned connection = seed;; ++connection) {
        const int caller = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (caller < 0 && errno != EINTR && errno != ECONNABORTED) _exit(1);
        if (caller >= 0) {
          std::thread(&FaultyRelay::pass, this, caller, redis.port(), loss, n, connection).detach();
        }
      }
    }
    close(listener);
    // The url of `redis` ends with its port; the relay's takes its place.
    relayURL =
        redis.url().substr(0, redis.url().rfind(':') + 1) + std::to_string(ntohs(address.sin_port));
  }
  ~FaultyRelay() {
    ::kill(relay, SIGKILL);
    waitpid(relay, nullptr, 0);
    munmap(swallowedCount, sizeof *swallowedCount);
  }
  FaultyRelay(const FaultyRelay&) = delete;
  FaultyRelay& operator=(const FaultyRelay&) = delete;

  // The relay's address as KSMEM_SERVICE takes it, with the password of `redis`:
  // "redis://[:PASSWORD@]127.0.0.1:PORT", to which a test may append "/DB" and "?options".
  const std::string& url() const { return relayURL; }

  // How many pieces of reply the relay has lost so far.
  long long swallowed() const { return *swallowedCount; }

 private:
  static sockaddr_in loopback(int port) {
    return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  }

  static bool sendAll(int fd, const char* data, ssize_t size) {
    for (ssize_t sent; size > 0; data += sent, size -= sent) {
      if ((sent = send(fd, data, static_cast<std::size_t>(size), MSG_NOSIGNAL)) <= 0) return false;
    }
    return true;
  }

  // Relays one caller's connection until either side closes it or a loss ends it.
  void pass(int caller, int redisPort, Loss loss, int n, unsigned seed) {
    std::mt19937 random(seed);
    const int redis = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), on = 1;
    const sockaddr_in address = loopback(redisPort);
    setsockopt(caller, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(redis, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    pollfd ends[2] = {{caller, POLLIN, 0}, {redis, POLLIN, 0}};
    bool silent = false;          // a reply was lost: from now on nothing goes either way
    bool mayLose = only.empty();  // what the caller sent last allows a loss
    char chunk[65536];
    // When Redis is down, the caller's connection ends at once.
    bool open = connect(redis, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    while (open && poll(ends, 2, -1) > 0) {
      for (int from = 0; open && from < 2; ++from) {
        if (ends[from].revents == 0) continue;
        const ssize_t count = recv(ends[from].fd, chunk, sizeof chunk, 0);
        if (count > 0 && from == 0 && !only.empty()) {
          mayLose = std::string_view(chunk, count).find(only) != std::string_view::npos &&
                    *swallowedCount == 0;
        }
        const bool lost = count > 0 && from == 1 && !silent && mayLose && random() % n == 0;
        if (lost) ++*swallowedCount;
        silent = silent || (lost && loss == Loss::kKeepSilent);
        open = count > 0 && !(lost && loss == Loss::kCloseConnection) &&
               (silent || sendAll(ends[1 - from].fd, chunk, count));
      }
    }
    close(caller);
    close(redis);
  }

  // Shared by the test process and the relay process; the mapping starts zeroed.
  std::atomic<long long>* const swallowedCount = static_cast<std::atomic<long long>*>(
      mmap(nullptr, sizeof(std::atomic<long long>), PROT_READ | PROT_WRITE,
           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const std::string only;
  pid_t relay = -1;
  std::string relayURL;
};

#endif  // KSMEM_TESTS_STANDIN_FAULTYRELAY_H_
