// Reads back the header block that opens every request: lines "Name=Value" each ended by
// CR LF, closed by one empty line (CR LF alone). The name runs to the first "=", the value is
// the rest of the line, so a value may hold "=" (but not CR LF, which would end its line).
#ifndef KSMEM_BINDING_HEADERBLOCK_H_
#define KSMEM_BINDING_HEADERBLOCK_H_

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace Kestrane::Net::KsModelEventManager::Binding {

using RequestHeaders = std::map<std::string, std::string>;

// Parses the header block at the start of `text` into `headers` and sets `blockLength` to the
// count of bytes up to and including the closing empty line; what follows is the body. On a
// malformed block returns false and sets `problem` to a sentence that says what is wrong;
// `headers` may then hold the lines read before the fault.
bool parseHeaderBlock(std::string_view text, RequestHeaders& headers, std::size_t& blockLength,
                      std::string& problem);

}  // namespace Kestrane::Net::KsModelEventManager::Binding

#endif  // KSMEM_BINDING_HEADERBLOCK_H_
