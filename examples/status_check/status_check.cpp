// Checks that the Model Event Manager service answers.
#include <iostream>

#include "client/KsMEMConnection.h"

using namespace Kestrane::Net::KsModelEventManager::Client;

int main() {
  try {
    KsMEMConnection connection;
    const int status = connection.getStatus();  // 0: the service echoed the status text
    std::cout << "getStatus: " << status << "\n";
    return status == 0 ? 0 : 1;
  } catch (const KsMEMConnectionException& e) {
    std::cerr << "the service cannot be reached: " << e.getMessage() << "\n";
    return 1;
  }
}
