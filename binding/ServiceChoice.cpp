#include "binding/ServiceChoice.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "binding/EmbeddedService.h"
#include "binding/RedisService.h"
#include "binding/ServiceURL.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

namespace {

ServiceChoice choose(const char* value) {
  ServiceChoice choice;
  std::optional<ServiceURL> url = parseServiceURL(value != nullptr ? value : "", choice.problem);
  if (url && url->kind == ServiceURL::Kind::kEmbedded) {
    choice.backend = std::make_unique<EmbeddedService>(url->retention);
  } else if (url) {
    choice.backend = std::make_unique<RedisService>(std::move(*url));
  }
  return choice;
}

// The choice is made once per process. A forked child must make its own (it does not share its
// parent's embedded service or connections), so a handler that runs in the child forgets the
// choice and counts the fork; the fork itself waits for a choice in progress, so the child
// never inherits the lock held.
std::mutex choiceMutex;
std::atomic<bool> chosen{false};
std::atomic<unsigned> forks{0};
ServiceChoice choice;  // guarded by choiceMutex until chosen

void holdChoiceForFork() { choiceMutex.lock(); }
void releaseChoiceAfterFork() { choiceMutex.unlock(); }
void forgetChoiceInChild() {
  chosen.store(false, std::memory_order_relaxed);
  forks.fetch_add(1, std::memory_order_relaxed);
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

unsigned processGeneration() { return forks.load(std::memory_order_relaxed); }

}  // namespace Kestrane::Net::KsModelEventManager::Binding
