#include "service/ServiceChoice.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "service/EmbeddedService.h"
#include "service/ServiceURL.h"
#include "service/redis/RedisService.h"

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

// The one place that builds the backend a URL names.
ServiceChoice choose(const char* value) {
  ServiceChoice choice;
  try {
    ServiceURL url = parseServiceURL(value != nullptr ? value : "");
    if (url.kind == ServiceURL::Kind::kEmbedded) {
      choice.backend = std::make_unique<EmbeddedService>(url);
    } else {
      choice.backend = std::make_unique<RedisService>(std::move(url));
    }
  } catch (const ServiceFailure& failure) {
    choice.problem = failure.what();
  }
  return choice;
}

// The choice is made once per process. A forked child must make its own (it does not share its
// parent's embedded service or connections), so a handler that runs in the child forgets the
// choice; the fork itself waits for a choice in progress, so the child never inherits the lock
// held.
std::mutex choiceMutex;
std::atomic<bool> chosen{false};
ServiceChoice choice;  // guarded by choiceMutex until chosen

void holdChoiceForFork() { choiceMutex.lock(); }
void releaseChoiceAfterFork() { choiceMutex.unlock(); }
void forgetChoiceInChild() {
  chosen.store(false, std::memory_order_relaxed);
  choiceMutex.unlock();
}

const bool forkHandlersRegistered =
    pthread_atfork(holdChoiceForFork, releaseChoiceAfterFork, forgetChoiceInChild) == 0;

}  // namespace

const ServiceChoice& processService() {
  if (chosen.load(std::memory_order_acquire)) return choice;
  std::lock_guard<std::mutex> lock(choiceMutex);
  if (!chosen.load(std::memory_order_relaxed)) {
    choice = choose(std::getenv("KSMEM_SERVICE"));
    chosen.store(true, std::memory_order_release);
  }
  return choice;
}

}  // namespace Kestrane::Net::KsModelEventManager::Service
