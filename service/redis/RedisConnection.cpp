#include "service/redis/RedisConnection.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cerrno>
#include <new>

#include "client/KsMemBinding.h"

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

// Holds SIGPIPE back from this thread while it lives, so that writing to a connection that
// Redis has closed fails with EPIPE instead of ending the process. A SIGPIPE raised meanwhile
// is taken back; one that was pending before is left alone.
class PipeSignalHeld {
 public:
  PipeSignalHeld() {
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &previousMask);
    wasPending = pending();
  }
  ~PipeSignalHeld() {
    if (!wasPending && pending()) {
      const timespec noWait{0, 0};
      sigtimedwait(&pipeSignal, nullptr, &noWait);
    }
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

 private:
  static bool pending() {
    sigset_t signals;
    sigpending(&signals);
    return sigismember(&signals, SIGPIPE) == 1;
  }

  sigset_t pipeSignal;
  sigset_t previousMask;
  bool wasPending = false;
};

timeval timeLimit(const ServiceURL& url) {
  const auto milliseconds = url.timeout.count();
  return {static_cast<time_t>(milliseconds / 1000),
          static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
}

std::string timeLimitText(const ServiceURL& url) {
  const auto milliseconds = url.timeout.count();
  return milliseconds % 1000 == 0 ? std::to_string(milliseconds / 1000) + " seconds"
                                  : std::to_string(milliseconds) + " ms";
}

}  // namespace

RedisConnection::RedisConnection(const ServiceURL& url, const Endpoint* node)
    : url(url), node(node) {}

RedisConnection::~RedisConnection() { close(); }

void RedisConnection::close() {
  if (context != nullptr) redisFree(context);
  context = nullptr;
}

template <typename Failure>
void RedisConnection::fail(const char* what, const std::string& reason) {
  close();
  std::string text = what + url.shown + ": ";
  if (url.kind == ServiceURL::Kind::kRedisCluster) {
    text += "node " + node->host + ":" + std::to_string(node->port) + ": ";
  }
  throw Failure(KSMEM_ERR_SERVICE_UNREACHABLE, text + reason);
}

void RedisConnection::refused(const redisReply& error) const {
  throw ServiceFailure(
      KSMEM_ERR_SERVICE_REFUSED,
      "the service at " + url.shown + " refused the request: " + std::string(error.str, error.len));
}

void RedisConnection::unexpected() const {
  throw ServiceFailure(
      KSMEM_ERR_SERVICE_REFUSED,
      "the service at " + url.shown + " gave a reply of another kind than was asked for");
}

std::vector<RedisReply> RedisConnection::send(const std::vector<RedisCommand>& batch,
                                              std::string& why) {
  std::vector<RedisReply> replies;
  replies.reserve(batch.size());
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
  try {
    for (const RedisCommand& parts : batch) {
      argv.clear();
      lengths.clear();
      for (const std::string_view part : parts) {
        argv.push_back(part.data());
        lengths.push_back(part.size());
      }
      if (redisAppendCommandArgv(context, static_cast<int>(argv.size()), argv.data(),
                                 lengths.data()) != REDIS_OK) {
        throw std::bad_alloc();
      }
    }
  } catch (...) {
    close();  // what is queued would go out with the next request and answer in its place
    throw;
  }
  errno = 0;
  for (std::size_t i = 0; i < batch.size(); ++i) {
    void* reply = nullptr;
    if (redisGetReply(context, &reply) != REDIS_OK || reply == nullptr) {
      const bool timedOut =
          context->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK);
      why = timedOut ? "no reply within " + timeLimitText(url) : std::string(context->errstr);
      return {};
    }
    replies.emplace_back(static_cast<redisReply*>(reply));
  }
  return replies;
}

void RedisConnection::open() {
  const timeval limit = timeLimit(url);
  context = node != nullptr ? redisConnectWithTimeout(node->host.c_str(), node->port, limit)
                            : redisConnectUnixWithTimeout(url.socketPath.c_str(), limit);
  if (context == nullptr) throw std::bad_alloc();
  if (context->err != 0 || redisSetTimeout(context, limit) != REDIS_OK) {
    fail<NotConnected>("cannot reach the service at ", context->errstr);
  }
  fcntl(context->fd, F_SETFD, FD_CLOEXEC);  // a program this process runs does not inherit it
  std::vector<RedisCommand> setUp;
  if (!url.password.empty()) {
    setUp.push_back(url.user.empty() ? RedisCommand{"AUTH", url.password}
                                     : RedisCommand{"AUTH", url.user, url.password});
  }
  const std::string db = std::to_string(url.db);
  if (url.db != 0) setUp.push_back({"SELECT", db});
  if (setUp.empty()) return;
  std::string why;
  const std::vector<RedisReply> replies = send(setUp, why);
  if (replies.empty()) fail<NotConnected>("cannot reach the service at ", why);
  for (const RedisReply& reply : replies) {
    if (reply->type == REDIS_REPLY_ERROR) {
      fail<ServiceFailure>("cannot reach the service at ", std::string(reply->str, reply->len));
    }
  }
}

std::vector<RedisReply> RedisConnection::commands(const std::vector<RedisCommand>& batch) {
  const PipeSignalHeld held;
  if (context == nullptr) open();
  std::string why;
  std::vector<RedisReply> replies = send(batch, why);
  if (replies.empty()) fail<ReplyLost>("lost the connection to the service at ", why);
  return replies;
}

RedisReply RedisConnection::command(const RedisCommand& parts) {
  return std::move(commands({parts}).front());
}

}  // namespace Kestrane::Net::KsModelEventManager::Service
