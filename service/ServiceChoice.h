// Which service the stand-in transport serves its requests with, as the environment variable
// KSMEM_SERVICE says (ServiceURL.h has the forms): the embedded service unless it names Redis.
// The variable is read once per process, at the first KsMem_Init (or at the first exchange of a
// caller that skips KsMem_Init); changing it later has no effect. A forked child is a process of
// its own: it reads the variable again, and it does not share its parent's embedded service.
//
// Safe to call from several threads at once.
#ifndef KSMEM_SERVICE_SERVICECHOICE_H_
#define KSMEM_SERVICE_SERVICECHOICE_H_

#include <memory>
#include <string>

#include "service/ServiceBackend.h"

namespace Kestrane::Net::KsModelEventManager::Service {

struct ServiceChoice {
  std::unique_ptr<ServiceBackend> backend;  // null when KSMEM_SERVICE names no service
  std::string problem;                      // then a sentence naming the value and the forms
};

// The choice of the calling process, made at the first call in this process. The reference
// stays valid for the life of the process.
const ServiceChoice& processService();

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_SERVICECHOICE_H_
