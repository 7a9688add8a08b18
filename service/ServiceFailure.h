// How a request fails anywhere in the service: a failure code of KsMemBinding.h and, as what(),
// a sentence that says what was wrong in words a user understands. The transport's entries turn
// it into their result and last-error text.
#ifndef KSMEM_SERVICE_SERVICEFAILURE_H_
#define KSMEM_SERVICE_SERVICEFAILURE_H_

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Kestrane::Net::KsModelEventManager::Service {

struct ServiceFailure : std::runtime_error {
  ServiceFailure(int32_t code, const std::string& text) : std::runtime_error(text), code(code) {}
  int32_t code;
};

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_SERVICEFAILURE_H_
