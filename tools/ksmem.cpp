// ksmem: a command-line client of the Model Event Manager service.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "binding/TextExchange.h"
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
    "  put --server S --client C [--] TEXT\n"
    "           register, then post TEXT as one event to every other client of S (after\n"
    "           --, TEXT may start with -)\n"
    "  get --server S --client C [--follow]\n"
    "           register, then print the pending events of C exactly as they were posted,\n"
    "           fetching until none is left; with --follow, go on printing events as they\n"
    "           arrive until interrupted (Ctrl-C)\n"
    "  unregister --server S --client C\n"
    "           remove client C and its pending events\n"
    "  clients --server S\n"
    "           list the clients of S with the events each has pending and the age of the\n"
    "           oldest, so that a client that stopped fetching shows before the retention\n"
    "           limit drops its events\n"
    "  --help   show this text\n"
    "\n"
    "--service URL chooses the service, in place of the environment variable KSMEM_SERVICE:\n"
    "  embedded (the default; also unset or empty)\n"
    "                                             the service inside this process\n"
    "  redis://[USER:PASSWORD@]HOST[:PORT][/DB]   a service kept in Redis, over TCP (port 6379\n"
    "                                             and database 0 unless given)\n"
    "  unix://[USER:PASSWORD@]/PATH/TO/SOCKET     the same, through a Unix socket\n"
    "  redis-cluster://[USER:PASSWORD@]HOST:PORT[,HOST:PORT...]\n"
    "                                             the same, kept in a Redis Cluster whose\n"
    "                                             nodes include these hosts (the seeds)\n"
    "Each may end in ?OPTION=VALUE&... with the options\n"
    "  retention=EVENTS         events a server's log keeps at most (default 100000;\n"
    "                           0: no limit)\n"
    "  retention-age=DURATION   how long a server's log keeps an event, in whole seconds\n"
    "                           (default 7d; 0: no limit)\n"
    "  timeout=DURATION         time limit of connecting and of each Redis command, above 0\n"
    "                           (default 5s; Redis forms only)\n"
    "  db=N                     the Redis database (default 0; unix:// only, as redis://\n"
    "                           names it in its path)\n"
    "  fault=KIND               faults on demand, for testing an application: unreachable,\n"
    "                           lost-reply, refused or delay:DURATION, on the exchanges that\n"
    "                           fault-on=OPERATION, fault-every=N or fault-rate=P with\n"
    "                           fault-seed=S choose (default: every exchange)\n"
    "A DURATION is a whole number with the unit ms, s, m, h or d, or without a unit in\n"
    "seconds, e.g. 500ms, 90 or 12h; at most 3650d.\n"
    "\n"
    "Two processes exchange an event through Redis (bob registers first, so that alice's\n"
    "event is queued for him):\n"
    "  ksmem --service redis://127.0.0.1:6379 register --server S --client bob\n"
    "  ksmem --service redis://127.0.0.1:6379 put --server S --client alice \"text\"\n"
    "  ksmem --service redis://127.0.0.1:6379 get --server S --client bob\n";

volatile std::sig_atomic_t interrupted = 0;

void interrupt(int) { interrupted = 1; }

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

// Fetches until a fetch brings nothing. Each fetch acknowledges what the one before it
// handed over, so the events printed are not fetched again by the next process. Where events
// come faster than they are fetched, it stops after 1000 fetches, and the next process prints
// the last batch again.
void printPendingEvents(KsMEMConnection& connection) {
  std::string events, correlation = "ksmem";
  std::vector<std::string> clients;
  for (int fetches = 0; fetches < 1000; ++fetches) {
    connection.getEvents(events, clients, correlation);
    std::cout << events << std::flush;
    if (events.empty()) break;
  }
}

// Prints events as they arrive, looking again at once while events come and backing off to a
// second while none do, until SIGINT or SIGTERM; then fetches what is left, so that what was
// printed is acknowledged. A service that cannot be reached is tried again each second.
void followEvents(KsMEMConnection& connection) {
  struct sigaction action {};
  action.sa_handler = interrupt;
  action.sa_flags = SA_RESETHAND;  // a second Ctrl-C ends the process at once
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::string events, correlation = "ksmem";
  std::vector<std::string> clients;
  auto pause = std::chrono::milliseconds(0);
  while (!interrupted) {
    try {
      connection.getEvents(events, clients, correlation);
      std::cout << events << std::flush;
      pause = events.empty() ? std::min(std::max(pause * 2, std::chrono::milliseconds(50)),
                                        std::chrono::milliseconds(1000))
                             : std::chrono::milliseconds(0);
    } catch (const Client::KsMEMConnectionException& e) {
      std::cerr << "ksmem: " << e.getMessage() << "; trying again\n";
      pause = std::chrono::milliseconds(1000);
    }
    for (auto slept = std::chrono::milliseconds(0); slept < pause && !interrupted;
         slept += std::chrono::milliseconds(10)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  printPendingEvents(connection);
}

// "3 d 4 h", "5 m 3 s", "850 ms": an age for people.
std::string ageText(long long milliseconds) {
  if (milliseconds < 0) return "-";
  if (milliseconds < 1000) return std::to_string(milliseconds) + " ms";
  const long long seconds = milliseconds / 1000;
  const struct {
    long long size;
    const char* unit;
  } units[] = {{86400, "d"}, {3600, "h"}, {60, "m"}, {1, "s"}};
  for (std::size_t i = 0; i + 1 < std::size(units); ++i) {
    if (seconds >= units[i].size) {
      return std::to_string(seconds / units[i].size) + " " + units[i].unit + " " +
             std::to_string(seconds % units[i].size / units[i + 1].size) + " " + units[i + 1].unit;
    }
  }
  return std::to_string(seconds) + " s";
}

// The clients of `server` with their backlogs, as the stand-in's service reports them through
// its operator operation getClientBacklogs, which no client library call makes.
int listClients(const std::string& server) {
  const Binding::TextReply reply =
      Binding::textExchange({{"Operation-Name", "getClientBacklogs"}, {"Server-ID", server}});
  if (reply.code != 0) {
    std::cerr << "ksmem: " << reply.text << " (code " << reply.code << ")\n";
    return 1;
  }
  std::istringstream lines(reply.text);
  std::printf("%-24s %10s  %s\n", "CLIENT", "PENDING", "OLDEST PENDING");
  unsigned long long pending;
  long long age;
  std::string client;
  while (lines >> pending >> age >> client) {
    std::printf("%-24s %10llu  %s\n", client.c_str(), pending, ageText(age).c_str());
  }
  return 0;
}

// register, put, get and unregister: each process registers again, which keeps the client's
// place and pending events, so that the client lives on between processes.
int clientCommand(const std::string& command, std::string server, std::string client,
                  std::string text, bool follow) {
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
    follow ? followEvents(connection) : printPendingEvents(connection);
  } else {
    clients.clear();
    connection.unregisterClient(clients);
    std::cout << "unregistered (" << server << ", " << client << "): remaining "
              << listText(clients) << "\n";
  }
  return 0;
}

// A command line, read. `problem` is empty when the line is understood, and otherwise one
// sentence that says what is wrong with it.
struct Invocation {
  std::optional<std::string> service;
  std::string command, server, client, text;
  bool follow = false;
  std::string problem;
};

// What each command takes after its name.
struct Syntax {
  std::string_view command;
  bool server, client, text, follow;
};
constexpr Syntax kSyntax[] = {
    {"status", false, false, false, false}, {"demo", false, false, false, false},
    {"register", true, true, false, false}, {"put", true, true, true, false},
    {"get", true, true, false, true},       {"unregister", true, true, false, false},
    {"clients", true, false, false, false}, {"--help", false, false, false, false},
    {"-h", false, false, false, false}};

// [--service URL] COMMAND [OPTION...] [--] [TEXT]
Invocation parse(const std::vector<std::string>& args) {
  Invocation in;
  const auto problem = [&in](std::string sentence) {
    in.problem = std::move(sentence);
    return in;
  };
  std::size_t at = 0;
  if (at < args.size() && args[at] == "--service") {
    if (++at == args.size()) return problem("--service needs a value (a URL)");
    in.service = args[at++];
  }
  if (at == args.size()) return problem("no command given");
  in.command = args[at++];
  const Syntax* syntax = nullptr;
  for (const Syntax& each : kSyntax) {
    if (each.command == in.command) syntax = &each;
  }
  if (syntax == nullptr) {
    return problem(in.command[0] == '-' ? "unknown option " + in.command
                                        : "unknown command '" + in.command + "'");
  }
  std::vector<std::string> operands;
  bool optionsEnded = false;
  for (; at < args.size(); ++at) {
    const std::string& arg = args[at];
    std::string* value = arg == "--server" && syntax->server   ? &in.server
                         : arg == "--client" && syntax->client ? &in.client
                                                               : nullptr;
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      operands.push_back(arg);
    } else if (arg == "--") {
      optionsEnded = true;
    } else if (value != nullptr) {
      if (++at == args.size() || args[at].empty()) return problem(arg + " needs a value");
      *value = args[at];
    } else if (arg == "--follow" && syntax->follow) {
      in.follow = true;
    } else {
      return problem(arg == "--service" ? "--service goes before the command"
                                        : in.command + " has no option " + arg);
    }
  }
  const std::size_t operandsTaken = syntax->text ? 1 : 0;
  if (operands.size() > operandsTaken) {
    return problem("unexpected operand '" + operands[operandsTaken] + "' (" + in.command +
                   (syntax->text ? " takes one TEXT)" : " takes none)"));
  }
  if (syntax->server && in.server.empty()) return problem(in.command + " needs --server");
  if (syntax->client && in.client.empty()) return problem(in.command + " needs --client");
  if (operands.size() < operandsTaken) return problem(in.command + " needs a TEXT to post");
  if (syntax->text) in.text = operands[0];
  return in;
}

}  // namespace

int main(int argc, char** argv) {
  const Invocation in = parse(std::vector<std::string>(argv + 1, argv + argc));
  if (!in.problem.empty()) {
    std::cerr << "ksmem: " << in.problem << "; see 'ksmem --help'\n";
    return 2;
  }
  if (in.command == "--help" || in.command == "-h") {
    std::cout << kUsage;
    return 0;
  }
  // The client library has no configuration: the transport reads the choice from here.
  if (in.service) setenv("KSMEM_SERVICE", in.service->c_str(), 1);
  try {
    if (in.command == "status") return status();
    if (in.command == "demo") return demo();
    if (in.command == "clients") return listClients(in.server);
    return clientCommand(in.command, in.server, in.client, in.text, in.follow);
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
