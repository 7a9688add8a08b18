// ksmem: a command-line client of the Model Event Manager service.
#include <iostream>
#include <string>

#include "client/KsMEMConnection.h"

using namespace Kestrane::Net::KsModelEventManager::Client;

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "status";
  if (command != "status") {
    std::cerr << "usage: ksmem status\n";
    return 2;
  }
  try {
    KsMEMConnection connection;
    const int status = connection.getStatus();
    std::cout << "getStatus: " << status << (status == 0 ? " (the service answers)" : "") << "\n";
    return status == 0 ? 0 : 1;
  } catch (const Exception& e) {
    std::cerr << "ksmem: " << e.getMessage() << " (type " << e.getType() << ")\n";
    return 1;
  }
}
