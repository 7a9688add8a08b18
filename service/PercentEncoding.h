// Bytes written as "%" and two upper-case hex digits, and read back: client identifiers on a
// line of their own or in a Redis key, and the credentials of a service URL.
#ifndef KSMEM_SERVICE_PERCENTENCODING_H_
#define KSMEM_SERVICE_PERCENTENCODING_H_

#include <optional>
#include <string>
#include <string_view>

namespace Kestrane::Net::KsModelEventManager::Service {

// Appends the two upper-case hex digits of `byte`.
void appendHex(std::string& text, unsigned char byte);

// `text` with every byte below 0x21 or above `highest`, and every byte of `alsoEscaped`, written
// as "%" and two hex digits.
std::string percentEncoded(std::string_view text, unsigned char highest,
                           std::string_view alsoEscaped);

// `text` with each "%" and two hex digits read back as the byte; nothing when a "%" is not
// followed by two hex digits.
std::optional<std::string> percentDecoded(std::string_view text);

}  // namespace Kestrane::Net::KsModelEventManager::Service

#endif  // KSMEM_SERVICE_PERCENTENCODING_H_
