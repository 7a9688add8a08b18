// One connection to one Redis server, used by one thread at a time. It connects when a command
// first needs it, within the service URL's time limit, then authenticates (AUTH) and selects
// the database as the URL says; each command waits at most that time limit for its reply.
// While a command runs, SIGPIPE is held back from the thread, so that a connection that Redis
// closed fails the command rather than ending the process.
//
// Failures throw ServiceFailure with kServiceUnreachable and a text that names the service (its
// password hidden) and the reason: "cannot reach the service at URL: ..." when connecting or
// authenticating fails, and ReplyLost, "lost the connection to the service at URL: ...", when
// a command went out and no reply came back (the connection broke or the time limit passed):
// Redis may or may not have run it. Either way the connection is closed, and the next command
// connects again. An error reply of Redis is a reply like any other.
#ifndef KSMEM_BINDING_REDISCONNECTION_H_
#define KSMEM_BINDING_REDISCONNECTION_H_

#include <hiredis/hiredis.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "binding/ServiceBackend.h"
#include "binding/ServiceURL.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

struct ReplyDeleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using RedisReply = std::unique_ptr<redisReply, ReplyDeleter>;

struct ReplyLost : ServiceFailure {};

class RedisConnection {
 public:
  // Connects to nothing yet. `url` must outlive the connection.
  explicit RedisConnection(const ServiceURL& url);
  ~RedisConnection();
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;

  // Sends one command, connecting first if needed, and gives its reply (never null).
  RedisReply command(const std::vector<std::string_view>& parts);

  // The failure text "the service at URL refused the request: ERROR" for an error reply.
  [[noreturn]] void refused(const redisReply& error) const;
  // The failure for a reply of another type than the command gives.
  [[noreturn]] void unexpected() const;

 private:
  void open();
  void close();
  // Sends on the open connection: the reply, or null with the connection closed and `why`
  // saying what went wrong.
  RedisReply send(const std::vector<std::string_view>& parts, std::string& why);
  [[noreturn]] void unreachable(const std::string& reason);

  const ServiceURL& url;
  redisContext* context = nullptr;
};

}  // namespace Kestrane::Net::KsModelEventManager::Binding

#endif  // KSMEM_BINDING_REDISCONNECTION_H_
