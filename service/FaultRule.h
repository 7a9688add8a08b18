// Faults on demand: which exchanges of this process fail, and how, as the fault options of
// KSMEM_SERVICE say (ServiceURL.h), so that an application can be tested against the failures
// it will meet in production. Every backend applies the rule alike (ServiceBackend::handle):
//   kUnreachable  the request does not reach the service: nothing changes there, and the
//                 exchange fails with KSMEM_ERR_SERVICE_UNREACHABLE, as a connection failure does
//   kLostReply    the service serves the request and the reply is lost: the change stands, and
//                 the exchange fails with KSMEM_ERR_SERVICE_UNREACHABLE
//   kRefused      the service refuses the request: KSMEM_ERR_SERVICE_REFUSED
//   kDelay        the reply comes `delay` later
// Matching exchanges (those of `operation`, or all when it is empty) are numbered from 1 per
// process. The rule strikes the Nth, 2Nth, ... of them with `every` = N, or with `rate` set each
// one with that probability, decided by `seed` and the number alone, so that a run can be
// repeated exactly.
#ifndef KSMEM_SERVICE_FAULTRULE_H_
#define KSMEM_SERVICE_FAULTRULE_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Kestrane::Net::KsModelEventManager::Service {

struct FaultRule {
  enum class Kind { kNone, kUnreachable, kLostReply, kRefused, kDelay };
  Kind kind = Kind::kNone;
  std::chrono::milliseconds delay{0};  // kDelay
  std::string operation;               // empty: every operation
  uint64_t every = 1;
  std::optional<double> rate;  // from 0 to 1; in place of `every`
  uint64_t seed = 1;
  std::string options;  // the options that made the rule, as given, for failure texts

  // Whether the rule strikes the matching exchange `number` (from 1).
  bool strikes(uint64_t number) const;
};

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_FAULTRULE_H_
