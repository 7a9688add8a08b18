#include "client/TransportFailure.h"

#include "client/Exception.h"
#include "client/KsMemBinding.h"

namespace Kestrane::Net::KsModelEventManager::Client {

std::string getLastErrorText() {
  const char* text = nullptr;
  const int32_t result = KsMem_GetLastError(&text);
  if (result == 0) return text != nullptr ? std::string(text) : "No error message received";
  // The text, if any, is not trusted when the call itself failed.
  return text == nullptr ? "Could not retrieve last error message." : "";
}

void throwTransportFailure(int32_t code) {
  const std::string message = getLastErrorText();
  switch (code) {
    case 1001:
    case -2996:
    case -2997:
    case -2998:
    case -2999:
    case -3001:
      throw KsMEMConnectionException(message);
    case 1002:
    case -751:
    case -3017:
    case -3099:
      throw KsMEMProtocolException(message);
    case 1003:
    case -3009:
    case -3010:
    case -3016:
      throw KsMEMRuntimeException(message);
    default:
      throw KsMEMUnrecognisedException(message);
  }
}

}  // namespace Kestrane::Net::KsModelEventManager::Client
