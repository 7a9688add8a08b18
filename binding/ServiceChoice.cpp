#include "binding/ServiceChoice.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string_view>

#include "binding/EmbeddedService.h"
#include "binding/RedisService.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

namespace {

// Decimal digits alone, from `least` up to `most`.
std::optional<int> number(std::string_view text, long least, long most) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  long value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value < least || value > most) return std::nullopt;
  return static_cast<int>(value);
}

std::optional<RedisAddress> redisAddress(std::string_view url) {
  RedisAddress address;
  address.url = std::string(url);
  if (url.substr(0, 8) == "redis://") {
    std::string_view hostAndPort = url.substr(8);
    const std::size_t slash = hostAndPort.find('/');
    if (slash != std::string_view::npos) {
      const std::optional<int> db = number(hostAndPort.substr(slash + 1), 0, 0x7FFFFFFF);
      if (!db) return std::nullopt;
      address.db = *db;
      hostAndPort = hostAndPort.substr(0, slash);
    }
    const std::size_t colon = hostAndPort.find(':');
    if (colon != std::string_view::npos) {
      const std::optional<int> port = number(hostAndPort.substr(colon + 1), 1, 65535);
      if (!port) return std::nullopt;
      address.port = *port;
    }
    address.host = std::string(hostAndPort.substr(0, colon));
    if (address.host.empty()) return std::nullopt;
    return address;
  }
  if (url.substr(0, 8) == "unix:///") {
    std::string_view path = url.substr(7);
    const std::size_t query = path.find('?');
    if (query != std::string_view::npos) {
      const std::string_view parameter = path.substr(query + 1);
      const std::optional<int> db = parameter.substr(0, 3) == "db="
                                        ? number(parameter.substr(3), 0, 0x7FFFFFFF)
                                        : std::nullopt;
      if (!db) return std::nullopt;
      address.db = *db;
      path = path.substr(0, query);
    }
    address.socketPath = std::string(path);
    return address;
  }
  return std::nullopt;
}

ServiceChoice choose(const char* value) {
  ServiceChoice choice;
  const std::string_view setting = value != nullptr ? value : "";
  if (setting.empty() || setting == "embedded") {
    choice.backend = std::make_unique<EmbeddedService>();
  } else if (std::optional<RedisAddress> address = redisAddress(setting)) {
    choice.backend = std::make_unique<RedisService>(std::move(*address));
  } else {
    choice.problem =
        "KSMEM_SERVICE is \"" + std::string(setting) +
        "\", which names no service. Accepted forms: unset, empty or \"embedded\" for the "
        "service inside this process; \"redis://HOST[:PORT][/DB]\" (port 6379 unless given) or "
        "\"unix:///PATH/TO/SOCKET[?db=N]\" for a service kept in Redis.";
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
