#include "service/FaultRule.h"

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

// SplitMix64: a well-mixed 64-bit value from any 64-bit input.
uint64_t mixed(uint64_t x) {
  x += 0x9E3779B97F4A7C15u;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
  return x ^ (x >> 31);
}

}  // namespace

bool FaultRule::strikes(uint64_t number) const {
  if (kind == Kind::kNone) return false;
  if (!rate) return number % every == 0;
  // The top 53 bits as a fraction in [0, 1): one draw per exchange, the same in every run.
  const double draw = static_cast<double>(mixed(mixed(seed) ^ number) >> 11) * 0x1.0p-53;
  return draw < *rate;
}

}  // namespace Kestrane::Net::KsModelEventManager::Service
