// ksmem: a command-line client of the Model Event Manager service.
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"
#include "util/DomException.h"

using namespace Kestrane::Net::KsModelEventManager;
using Client::KsMEMConnection;

namespace {

const char kUsage[] =
    "usage: ksmem [--service URL] COMMAND\n"
    "\n"
    "A client of the Model Event Manager service, through the transport library\n"
    "libKsMemBinding. The stand-in transport serves requests from an embedded, in-process\n"
    "service, or from a service kept in Redis that any number of processes share.\n"
    "\n"
    "commands:\n"
    "  status   check that the service answers: prints the result of getStatus\n"
    "           (0: the service echoed the status text, -2: it answered something else)\n"
    "  demo     run a whole session and show each step: two clients register under one\n"
    "           server identity, one posts events, the other fetches them and lists the\n"
    "           shared clients, both unregister\n"
    "  register --server S --client C\n"
    "           register client C under server S and print the shared clients; a client\n"
    "           that is registered already keeps its place and its pending events\n"
    "  put --server S --client C TEXT\n"
    "           register, then post TEXT as one event to every other client of S\n"
    "  get --server S --client C\n"
    "           register, then print the pending events of C exactly as they were posted\n"
    "  unregister --server S --client C\n"
    "           remove client C and its pending events\n"
    "  --help   show this text\n"
    "\n"
    "--service URL chooses the service, in place of the environment variable KSMEM_SERVICE:\n"
    "  embedded (the default)           the service inside this process\n"
    "  redis://HOST[:PORT][/DB]         a service kept in Redis (port 6379 unless given)\n"
    "  unix:///PATH/TO/SOCKET[?db=N]    the same, through a Unix socket\n"
    "\n"
    "Two processes exchange an event through Redis (bob registers first, so that alice's\n"
    "event is queued for him):\n"
    "  ksmem --service redis://127.0.0.1:6379 register --server S --client bob\n"
    "  ksmem --service redis://127.0.0.1:6379 put --server S --client alice \"text\"\n"
    "  ksmem --service redis://127.0.0.1:6379 get --server S --client bob\n";

std::string listText(const std::vector<std::string>& clients) {
  std::string text = "[";
  for (size_t i = 0; i < clients.size(); ++i) text += (i > 0 ? ", " : "") + clients[i];
  return text + "]";
}

int status() {
  KsMEMConnection connection;
  const int result = connection.getStatus();
  std::cout << "getStatus: " << result
            << (result == 0 ? " (the service answers)" : " (unexpected answer)") << "\n";
  return result == 0 ? 0 : 1;
}

int demo() {
  std::string server = "plant-7";
  std::string aliceID = "alice";
  std::string bobID = "bob";
  std::string locale = "en";
  std::vector<std::string> clients;
  KsMEMConnection alice;
  KsMEMConnection bob;

  std::cout << "1. alice checks the service: getStatus -> " << alice.getStatus() << "\n";

  alice.registerClient(server, aliceID, locale, clients);
  std::cout << "2. alice registers as (" << server << ", alice): shared clients "
            << listText(clients) << "\n";

  clients.clear();
  bob.registerClient(server, bobID, locale, clients);
  std::cout << "3. bob registers as (" << server << ", bob): shared clients " << listText(clients)
            << "\n";

  std::string correlation = "demo-1";
  int step = 4;
  for (std::string event : {"<reading sensor=\"t1\">21.5</reading>",
                            "<reading sensor=\"t2\">19.0 \xC2\xB0"
                            "C</reading>"}) {
    clients.clear();
    alice.putEvents(event, clients, correlation);
    std::cout << step++ << ". alice posts " << event << ": queued for " << listText(clients)
              << "\n";
  }

  std::string events;
  bob.getEvents(events, clients, correlation);
  std::cout << step++ << ". bob fetches his events: " << events << "\n"
            << "   and the shared clients: " << listText(clients) << "\n";

  clients.clear();
  bob.getSharedClients(clients);
  std::cout << step++ << ". bob lists the shared clients: " << listText(clients) << "\n";

  clients.clear();
  alice.unregisterClient(clients);
  std::cout << step++ << ". alice unregisters: remaining " << listText(clients) << "\n";

  clients.clear();
  bob.unregisterClient(clients);
  std::cout << step++ << ". bob unregisters: remaining " << listText(clients) << "\n";
  return 0;
}

// register, put, get and unregister: each process registers again, which keeps the client's
// place and pending events, so that the client lives on between processes.
int clientCommand(const std::string& command, std::string server, std::string client,
                  std::string text) {
  KsMEMConnection connection;
  std::string locale;
  std::string correlation = "ksmem";
  std::vector<std::string> clients;
  connection.registerClient(server, client, locale, clients);
  if (command == "register") {
    std::cout << "registered (" << server << ", " << client << "): shared clients "
              << listText(clients) << "\n";
  } else if (command == "put") {
    clients.clear();
    connection.putEvents(text, clients, correlation);
    std::cout << "queued for " << listText(clients) << "\n";
  } else if (command == "get") {
    std::string events;
    connection.getEvents(events, clients, correlation);
    std::cout << events << std::flush;
  } else {
    clients.clear();
    connection.unregisterClient(clients);
    std::cout << "unregistered (" << server << ", " << client << "): remaining "
              << listText(clients) << "\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::size_t at = 0;
  if (args.size() >= 2 && args[0] == "--service") {
    // The client library has no configuration: the transport reads the choice from here.
    setenv("KSMEM_SERVICE", args[1].c_str(), 1);
    at = 2;
  }
  const std::string command = at < args.size() ? args[at++] : "";
  std::string server, client;
  std::vector<std::string> operands;
  for (; at < args.size(); ++at) {
    if (args[at] == "--server" && at + 1 < args.size()) {
      server = args[++at];
    } else if (args[at] == "--client" && at + 1 < args.size()) {
      client = args[++at];
    } else {
      operands.push_back(args[at]);
    }
  }
  const bool clientOperation =
      command == "register" || command == "put" || command == "get" || command == "unregister";
  const bool complete = clientOperation ? !server.empty() && !client.empty() &&
                                              operands.size() == (command == "put" ? 1u : 0u)
                                        : server.empty() && client.empty() && operands.empty();
  try {
    if (complete && command == "status") return status();
    if (complete && command == "demo") return demo();
    if (complete && clientOperation) {
      return clientCommand(command, server, client, operands.empty() ? "" : operands[0]);
    }
    if (command == "--help" || command == "-h") {
      std::cout << kUsage;
      return 0;
    }
    std::cerr << kUsage;
    return 2;
  } catch (const Client::Exception& e) {
    std::cerr << "ksmem: " << e.getMessage() << " (type " << e.getType() << ")";
    const char* reason = nullptr;  // getStatus keeps its own message: ask the transport why
    if (e.getType() == -1 && KsMem_GetLastError(&reason) == 0 && reason != nullptr) {
      std::cerr << ": " << reason;
    }
    std::cerr << "\n";
  } catch (const Client::KsMEMProtocolException* e) {  // getSharedClients: not registered
    std::cerr << "ksmem: " << e->getMessage() << " (type " << e->getType() << ")\n";
    delete e;
  } catch (const Util::DomException& e) {
    std::cerr << "ksmem: unreadable reply: " << e.getMessage() << "\n";
  } catch (const std::exception& e) {
    std::cerr << "ksmem: " << e.what() << "\n";
  } catch (...) {
    std::cerr << "ksmem: unexpected failure\n";
  }
  return 1;
}
