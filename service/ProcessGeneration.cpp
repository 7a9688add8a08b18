#include "service/ProcessGeneration.h"

#include <pthread.h>

#include <atomic>

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

std::atomic<unsigned> forks{0};

void countFork() { forks.fetch_add(1, std::memory_order_relaxed); }

const bool forkHandlerRegistered = pthread_atfork(nullptr, nullptr, countFork) == 0;

}  // namespace

unsigned processGeneration() { return forks.load(std::memory_order_relaxed); }

}  // namespace Kestrane::Net::KsModelEventManager::Service
