#include "binding/HeaderBlock.h"

#include <string>

#include "client/KsMemBinding.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

std::size_t parseHeaderBlock(std::string_view text, Service::RequestHeaders& headers) {
  const auto malformed = [](const std::string& problem) {
    throw Service::ServiceFailure(KSMEM_ERR_MALFORMED_REQUEST, problem);
  };
  std::size_t lineStart = 0;
  for (int lineNumber = 1;; ++lineNumber) {
    const std::size_t lineEnd = text.find("\r\n", lineStart);
    if (lineEnd == std::string_view::npos) {
      malformed("The request's header block is not closed by an empty line (CR LF alone).");
    }
    if (lineEnd == lineStart) return lineEnd + 2;
    const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    const std::size_t equals = line.find('=');
    const std::string where =
        "Line " + std::to_string(lineNumber) + " of the request's header block";
    if (equals == std::string_view::npos) {
      malformed(where + " (\"" + std::string(line) + "\") has no \"=\" between name and value.");
    }
    if (equals == 0) {
      malformed(where + " (\"" + std::string(line) + "\") has no header name before \"=\".");
    }
    const std::string name(line.substr(0, equals));
    if (!headers.emplace(name, std::string(line.substr(equals + 1))).second) {
      malformed(where + " repeats the header \"" + name + "\".");
    }
    lineStart = lineEnd + 2;
  }
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
