// One connection to one Redis server (the service's, or one node of its cluster), used by one
// thread at a time. It connects when a command first needs it, within the service URL's time
// limit, then authenticates (AUTH) and selects the database as the URL says; each command waits
// at most that time limit for its reply. While it sends, SIGPIPE is held back from the thread,
// so that a connection that Redis closed fails the command rather than ending the process.
//
// Failures throw, each a ServiceFailure with KSMEM_ERR_SERVICE_UNREACHABLE and a text that names
// the service (its password hidden), the node when it is one of a cluster's, and the reason:
//   NotConnected  "cannot reach the service at URL: ..." when connecting fails;
//   ServiceFailure of its own kind, with the same text, when Redis refuses the password or the
//                 database, which trying again would not mend;
//   ReplyLost     "lost the connection to the service at URL: ..." when a command went out and
//                 no reply came back (the connection broke or the time limit passed): Redis may
//                 or may not have run it.
// Either way the connection is closed, and the next command connects again. An error reply of
// Redis is a reply like any other.
#ifndef KSMEM_SERVICE_REDIS_REDISCONNECTION_H_
#define KSMEM_SERVICE_REDIS_REDISCONNECTION_H_

#include <hiredis/hiredis.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "service/ServiceFailure.h"
#include "service/ServiceURL.h"

namespace Kestrane::Net::KsModelEventManager::Service {

struct ReplyDeleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using RedisReply = std::unique_ptr<redisReply, ReplyDeleter>;
using RedisCommand = std::vector<std::string_view>;

struct NotConnected : ServiceFailure {
  using ServiceFailure::ServiceFailure;
};
struct ReplyLost : ServiceFailure {
  using ServiceFailure::ServiceFailure;
};

class RedisConnection {
 public:
  // Connects to nothing yet. `node` is the server to reach, null for the URL's Unix socket.
  // `url` must outlive the connection.
  RedisConnection(const ServiceURL& url, const Endpoint* node);
  ~RedisConnection();
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;

  // Sends the commands one after the other without waiting, connecting first if needed, and
  // gives their replies in order (never null).
  std::vector<RedisReply> commands(const std::vector<RedisCommand>& batch);
  RedisReply command(const RedisCommand& parts);

  // The failure text "the service at URL refused the request: ERROR" for an error reply.
  [[noreturn]] void refused(const redisReply& error) const;
  // The failure for a reply of another type than the command gives.
  [[noreturn]] void unexpected() const;

 private:
  void open();
  void close();
  // Sends `batch` on the open connection and reads the replies; none, with `why` saying what
  // went wrong, when one does not come.
  std::vector<RedisReply> send(const std::vector<RedisCommand>& batch, std::string& why);
  // Closes the connection and throws a Failure that names the service, the node and `reason`.
  template <typename Failure>
  [[noreturn]] void fail(const char* what, const std::string& reason);

  const ServiceURL& url;
  const Endpoint* const node;
  redisContext* context = nullptr;
};

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_REDIS_REDISCONNECTION_H_
