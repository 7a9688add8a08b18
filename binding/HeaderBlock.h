// Reads back the header block that opens every request: lines "Name=Value" each ended by
// CR LF, closed by one empty line (CR LF alone). The name runs to the first "=", the value is
// the rest of the line, so a value may hold "=" (but not CR LF, which would end its line).
#ifndef KSMEM_BINDING_HEADERBLOCK_H_
#define KSMEM_BINDING_HEADERBLOCK_H_

#include <cstddef>
#include <string_view>

#include "service/ServiceBackend.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

// Parses the header block at the start of `text` into `headers` and gives the count of bytes up
// to and including the closing empty line; what follows is the body. A malformed block throws
// ServiceFailure (KSMEM_ERR_MALFORMED_REQUEST) with a sentence that says what is wrong;
// `headers` may then hold the lines read before the fault.
std::size_t parseHeaderBlock(std::string_view text, Service::RequestHeaders& headers);

}  // namespace Kestrane::Net::KsModelEventManager::Binding

#endif  // KSMEM_BINDING_HEADERBLOCK_H_
