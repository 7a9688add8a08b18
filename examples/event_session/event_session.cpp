// Two clients of one server: one posts an event, the other fetches it, both unregister.
#include <iostream>
#include <string>
#include <vector>

#include "client/KsMEMConnection.h"
#include "util/DomException.h"

using namespace Kestrane::Net::KsModelEventManager;
using Client::KsMEMConnection;

int main() {
  std::string server = "example-server", sender = "sender", receiver = "receiver", locale = "en";
  std::vector<std::string> clients;
  try {
    KsMEMConnection a;
    KsMEMConnection b;
    a.registerClient(server, sender, locale, clients);
    b.registerClient(server, receiver, locale, clients);

    std::string event = "<alarm level=\"2\">pressure high</alarm>", correlation = "example-1";
    std::vector<std::string> queuedFor;
    a.putEvents(event, queuedFor, correlation);

    std::string received;
    std::vector<std::string> shared;
    b.getEvents(received, shared, correlation);
    std::cout << "received: " << received << "\n";

    a.unregisterClient(clients);
    b.unregisterClient(clients);
    return received == event ? 0 : 1;
  } catch (const Client::Exception& e) {
    std::cerr << "failed: " << e.getMessage() << "\n";
  } catch (const Client::KsMEMProtocolException* e) {  // getSharedClients when not registered
    std::cerr << "failed: " << e->getMessage() << "\n";
    delete e;
  } catch (const Util::DomException& e) {
    std::cerr << "unreadable reply: " << e.getMessage();
  }
  return 1;
}
