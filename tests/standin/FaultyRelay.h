// A TCP relay on 127.0.0.1 in front of a RedisServer listening on loopback, which loses chosen
// replies: it passes requests on as they are, finds where each reply ends, and swallows the
// chosen ones, so that the command has run in Redis but the caller never hears of it. With
// kCloseConnection the caller's connection breaks at once where the reply would have come; with
// kKeepSilent the connection stays open and nothing more comes on it, so the caller runs into
// its own time limit. Replies before the swallowed one reach the caller as they should.
//
// Replies are counted over all connections in the order they come from Redis; every connection
// counts, including its AUTH and PING. The relay speaks RESP2 (the protocol of hiredis 0.14); a
// reply it cannot parse ends that connection.
//
// It serves every connection on a thread of its own, from the constructor to the destructor,
// which closes every socket. The test process may fork children that connect to it: only the
// parent runs the relay, and a connection the relay ends is ended for the child too. The
// methods may be called from any thread.
#ifndef KSMEM_TESTS_STANDIN_FAULTYRELAY_H_
#define KSMEM_TESTS_STANDIN_FAULTYRELAY_H_

#include <atomic>
#include <random>
#include <string>
#include <thread>

#include "tests/standin/RedisServer.h"

class FaultyRelay {
 public:
  enum class Loss { kCloseConnection, kKeepSilent };
  enum class Pick {
    kEveryNth,      // replies n, 2n, 3n, ...
    kRandomOneInN,  // each reply with chance 1/n, from a generator seeded with `seed`
  };

  // Starts relaying to `redis`. Throws std::invalid_argument when n < 1 and std::system_error
  // when the relay cannot listen.
  // REQUIRES: `redis` listens on loopback (Listen::kLoopback).
  FaultyRelay(const RedisServer& redis, Loss loss, Pick pick, int n, unsigned seed = 1);
  ~FaultyRelay();
  FaultyRelay(const FaultyRelay&) = delete;
  FaultyRelay& operator=(const FaultyRelay&) = delete;

  // The relay's address as KSMEM_SERVICE takes it, with the password of `redis`:
  // "redis://[:PASSWORD@]127.0.0.1:PORT", to which a test may append "/DB" and "?options".
  std::string url() const;
  int port() const { return listenPort; }

  long long swallowed() const { return swallowedCount; }
  long long forwarded() const { return forwardedCount; }

 private:
  struct Connection;

  void serve();
  bool step(Connection& c, short callerEvents, short redisEvents);
  void pass(Connection& c, const char* data, std::size_t size);
  void closeSockets();

  const int redisPort;
  const std::string password;
  const Loss loss;
  const Pick pick;
  const int n;
  int listenFd = -1;
  int listenPort = 0;
  int wakeFds[2] = {-1, -1};  // the destructor writes to [1] to end serve()
  long long replies = 0;      // seen so far; used by the relay thread alone, as is `random`
  std::mt19937 random;
  std::atomic<long long> swallowedCount{0};
  std::atomic<long long> forwardedCount{0};
  std::thread thread;
};

#endif  // KSMEM_TESTS_STANDIN_FAULTYRELAY_H_
