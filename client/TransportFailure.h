// The one place where a failure result of the transport becomes an exception.
#ifndef KSMEM_CLIENT_TRANSPORTFAILURE_H_
#define KSMEM_CLIENT_TRANSPORTFAILURE_H_

#include <cstdint>
#include <string>

namespace Kestrane::Net::KsModelEventManager::Client {

// Throws the exception class that belongs to the transport result `code`, with the transport's
// last error text as its message and type code 0 (the codes are named in KsMemBinding.h):
//   1001, -2996..-2999, -3001    KsMEMConnectionException
//   1002, -751, -3017, -3099     KsMEMProtocolException
//   1003, -3009, -3010, -3016    KsMEMRuntimeException
//   anything else                KsMEMUnrecognisedException
[[noreturn]] void throwTransportFailure(int32_t code);

// The transport's last error text, copied; a fixed text in its place when the transport has
// none ("No error message received") or cannot give it ("Could not retrieve last error
// message."), and an empty text when the call failed yet handed out a text.
std::string getLastErrorText();

}  // namespace Kestrane::Net::KsModelEventManager::Client

#endif  // KSMEM_CLIENT_TRANSPORTFAILURE_H_
