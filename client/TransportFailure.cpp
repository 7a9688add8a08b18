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
  if (code >= KSMEM_ERR_CONNECTION_LOWEST && code <= KSMEM_ERR_CONNECTION_HIGHEST) {
    throw KsMEMConnectionException(message);
  }
  switch (code) {
    case KSMEM_ERR_INIT_CONNECTION:
    case KSMEM_ERR_SERVICE_UNREACHABLE:
      throw KsMEMConnectionException(message);
    case KSMEM_ERR_INIT_PROTOCOL:
    case KSMEM_ERR_UNKNOWN_CLIENT:
    case KSMEM_ERR_UNKNOWN_OPERATION:
    case KSMEM_ERR_MALFORMED_REQUEST:
      throw KsMEMProtocolException(message);
    case KSMEM_ERR_INIT_RUNTIME:
    case KSMEM_ERR_SERVICE_REFUSED:
    case KSMEM_ERR_TRANSPORT_FAULT:
    case KSMEM_ERR_OUT_OF_TURN:
      throw KsMEMRuntimeException(message);
    default:
      throw KsMEMUnrecognisedException(message);
  }
}

}  // namespace Kestrane::Net::KsModelEventManager::Client
