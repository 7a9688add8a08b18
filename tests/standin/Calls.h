// The operations of KsMEMConnection as the stand-in suites call them: the arguments that a
// caller makes up on the spot, the result as what the call gives.
#ifndef KSMEM_TESTS_STANDIN_CALLS_H_
#define KSMEM_TESTS_STANDIN_CALLS_H_

#include <string>
#include <vector>

#include "client/KsMEMConnection.h"
#include "tests/ThrownBy.h"

using Kestrane::Net::KsModelEventManager::Client::KsMEMConnection;
using List = std::vector<std::string>;

// The clients of `server` after registering, with the locale "en".
inline List registerAs(KsMEMConnection& connection, std::string server, std::string client) {
  std::string locale = "en";
  List clients;
  connection.registerClient(server, client, locale, clients);
  return clients;
}

// The clients that `event` is queued for.
inline List post(KsMEMConnection& connection, std::string event) {
  std::string correlation = "c";
  List queuedFor;
  connection.putEvents(event, queuedFor, correlation);
  return queuedFor;
}

inline std::string fetch(KsMEMConnection& connection) {
  std::string events, correlation = "c";
  List clients;
  connection.getEvents(events, clients, correlation);
  return events;
}

#endif  // KSMEM_TESTS_STANDIN_CALLS_H_
