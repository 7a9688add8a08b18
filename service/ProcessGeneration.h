// A number that changes in a forked child, so that state kept per process or per thread (a
// connection to Redis, say) can tell that it was inherited from the parent rather than made in
// this process. Safe to call from several threads at once.
#ifndef KSMEM_SERVICE_PROCESSGENERATION_H_
#define KSMEM_SERVICE_PROCESSGENERATION_H_

namespace Kestrane::Net::KsModelEventManager::Service {

unsigned processGeneration();

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_PROCESSGENERATION_H_
