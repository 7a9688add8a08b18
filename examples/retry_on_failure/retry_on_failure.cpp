// An application's retry loop, tested against lost replies. With the faults on demand of the
// stand-in transport, the reply to every third post is lost after the service has stored the
// event; the application posts it again, so the receiver gets some events twice and keeps each
// once by the number it carries. Exits 0 when every event arrived.
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "client/KsMEMConnection.h"

using namespace Kestrane::Net::KsModelEventManager::Client;

// Posts `event`, again after a connection failure, at most `tries` times in all.
void postWithRetry(KsMEMConnection& connection, std::string event, int tries) {
  std::string correlation = "retry-example";
  for (int attempt = 1;; ++attempt) {
    std::vector<std::string> queuedFor;
    try {
      connection.putEvents(event, queuedFor, correlation);
      return;
    } catch (const KsMEMConnectionException& e) {
      if (attempt == tries) throw;
      std::cout << "posting again after: " << e.getMessage() << "\n";
    }
  }
}

int main() {
  // Unless the caller chose a service: the embedded one, losing the reply to every third post.
  setenv("KSMEM_SERVICE", "embedded?fault=lost-reply&fault-on=putEvents&fault-every=3", 0);
  constexpr int kEvents = 10;
  std::string server = "plant-7", sender = "sender", receiver = "receiver", locale = "en";
  std::vector<std::string> clients;
  try {
    KsMEMConnection out, in;
    in.registerClient(server, receiver, locale, clients);
    out.registerClient(server, sender, locale, clients);
    for (int i = 0; i < kEvents; ++i) {
      postWithRetry(out, "<reading n=\"" + std::to_string(i) + "\"/>", 3);
    }

    std::string events, all, correlation = "retry-example";
    for (int fetches = 0; fetches < 100; ++fetches) {
      in.getEvents(events, clients, correlation);
      if (events.empty()) break;
      all += events;
    }
    std::set<std::string> distinct;
    int received = 0;
    for (std::size_t at = 0, end; (end = all.find("/>", at)) != std::string::npos; at = end + 2) {
      distinct.insert(all.substr(at, end + 2 - at));
      ++received;
    }
    std::cout << "received " << received << " events, " << distinct.size() << " distinct\n";
    return distinct.size() == kEvents ? 0 : 1;
  } catch (const Exception& e) {
    std::cerr << "failed: " << e.getMessage() << "\n";
  }
  return 1;
}
