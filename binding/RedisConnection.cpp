#include "binding/RedisConnection.h"

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cerrno>
#include <new>

namespace Kestrane::Net::KsModelEventManager::Binding {

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

RedisConnection::RedisConnection(const ServiceURL& url) : url(url) {}

RedisConnection::~RedisConnection() { close(); }

void RedisConnection::close() {
  if (context != nullptr) redisFree(context);
  context = nullptr;
}

void RedisConnection::unreachable(const std::string& reason) {
  close();
  throw ServiceFailure{kServiceUnreachable,
                       "cannot reach the service at " + url.shown + ": " + reason};
}

void RedisConnection::refused(const redisReply& error) const {
  throw ServiceFailure{kServiceRefused, "the service at " + url.shown + " refused the request: " +
                                            std::string(error.str, error.len)};
}

void RedisConnection::unexpected() const {
  throw ServiceFailure{kServiceRefused, "the service at " + url.shown +
                                            " gave a reply of another kind than was asked for"};
}

void RedisConnection::open() {
  const timeval limit = timeLimit(url);
  context = url.socketPath.empty() ? redisConnectWithTimeout(url.host.c_str(), url.port, limit)
                                   : redisConnectUnixWithTimeout(url.socketPath.c_str(), limit);
  if (context == nullptr) throw std::bad_alloc();
  if (context->err != 0 || redisSetTimeout(context, limit) != REDIS_OK)
    unreachable(context->errstr);
  std::string why;
  const auto setUp = [&](const std::vector<std::string_view>& parts) {
    const RedisReply reply = send(parts, why);
    if (reply == nullptr) unreachable(why);
    if (reply->type == REDIS_REPLY_ERROR) unreachable(std::string(reply->str, reply->len));
  };
  if (!url.password.empty() && url.user.empty()) setUp({"AUTH", url.password});
  if (!url.password.empty() && !url.user.empty()) setUp({"AUTH", url.user, url.password});
  if (url.db != 0) setUp({"SELECT", std::to_string(url.db)});
}

RedisReply RedisConnection::send(const std::vector<std::string_view>& parts, std::string& why) {
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
  argv.reserve(parts.size());
  lengths.reserve(parts.size());
  for (const std::string_view part : parts) {
    argv.push_back(part.data());
    lengths.push_back(part.size());
  }
  errno = 0;
  auto* reply = static_cast<redisReply*>(
      redisCommandArgv(context, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  if (reply != nullptr) return RedisReply(reply);
  const bool timedOut = context->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK);
  why = timedOut ? "no reply within " + timeLimitText(url) : std::string(context->errstr);
  close();
  return nullptr;
}

RedisReply RedisConnection::command(const std::vector<std::string_view>& parts) {
  const PipeSignalHeld held;
  if (context == nullptr) open();
  std::string why;
  RedisReply reply = send(parts, why);
  if (reply == nullptr) {
    ReplyLost lost;
    lost.code = kServiceUnreachable;
    lost.text = "lost the connection to the service at " + url.shown + ": " + why;
    throw lost;
  }
  return reply;
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
