// The service that KSMEM_SERVICE names, read from its text:
//   unset, empty or "embedded"                     the service inside this process
//   "redis://[USER:PASSWORD@]HOST[:PORT][/DB]"     a service kept in Redis, over TCP (port 6379
//                                                  and database 0 unless given)
//   "unix://[USER:PASSWORD@]/PATH/TO/SOCKET"       the same, through a Unix socket
//   "redis-cluster://[USER:PASSWORD@]HOST:PORT[,HOST:PORT...]"
//                                                  the same, kept in a Redis Cluster whose nodes
//                                                  include the hosts given (the seeds)
// Each form may end in "?OPTION=VALUE&..." with the options
//   retention=EVENTS        events a server's log keeps at most (default 100000; 0: no limit)
//   retention-age=DURATION  how long a server's log keeps an event, in whole seconds (default
//                           7d; 0: no limit)
//   timeout=DURATION        time limit of connecting and of each Redis command, above 0
//                           (default 5s; Redis forms only)
//   db=N                    the Redis database (default 0; unix:// only, as redis:// names it
//                           in its path)
//   fault=KIND             faults on demand (FaultRule.h): unreachable, lost-reply, refused or
//                          delay:DURATION
//   fault-on=OPERATION     only exchanges of this operation (default: every operation)
//   fault-every=N          the Nth, 2Nth, ... matching exchange of the process (default 1)
//   fault-rate=P           instead of fault-every: each matching exchange with probability P,
//   fault-seed=S           drawn from seed S (default 1), the same in every run
// A DURATION is a whole number with the unit ms, s, m, h or d, or without a unit in seconds;
// at most 3650d.
// Credentials are percent-decoded; with a user, Redis is asked to AUTH as that user, with a
// password alone as the default user.
#ifndef KSMEM_SERVICE_SERVICEURL_H_
#define KSMEM_SERVICE_SERVICEURL_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "service/FaultRule.h"

namespace Kestrane::Net::KsModelEventManager::Service {

// What a server's log keeps of events that not every client has acknowledged.
struct Retention {
  uint64_t events = 100000;                    // 0: no limit by count
  std::chrono::seconds age{7 * 24 * 60 * 60};  // 0: no limit by age
};

struct Endpoint {
  std::string host;
  int port = 6379;
};

struct ServiceURL {
  enum class Kind { kEmbedded, kRedis, kRedisCluster };
  Kind kind = Kind::kEmbedded;
  // The text as given but with the password replaced by "***": the name of the service in
  // every failure text.
  std::string shown;
  std::vector<Endpoint> nodes;  // the server, or a cluster's seeds; empty for a Unix socket
  std::string socketPath;       // a Unix socket
  std::string user;             // empty: the default user
  std::string password;         // empty: no AUTH
  int db = 0;
  std::chrono::milliseconds timeout{5000};
  Retention retention;
  FaultRule faults;
};

// The service that `text` names. Throws ServiceFailure (KSMEM_ERR_SERVICE_UNREACHABLE) with a
// sentence that says what is wrong with it and lists the accepted forms (the password is never
// in it).
ServiceURL parseServiceURL(std::string_view text);

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_SERVICEURL_H_
