#include "binding/HeaderBlock.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

bool parseHeaderBlock(std::string_view text, RequestHeaders& headers, std::size_t& blockLength,
                      std::string& problem) {
  std::size_t lineStart = 0;
  for (int lineNumber = 1;; ++lineNumber) {
    const std::size_t lineEnd = text.find("\r\n", lineStart);
    if (lineEnd == std::string_view::npos) {
      problem = "The request's header block is not closed by an empty line (CR LF alone).";
      return false;
    }
    if (lineEnd == lineStart) {
      blockLength = lineEnd + 2;
      return true;
    }
    const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    const std::size_t equals = line.find('=');
    const std::string where =
        "Line " + std::to_string(lineNumber) + " of the request's header block";
    if (equals == std::string_view::npos) {
      problem = where + " (\"" + std::string(line) + "\") has no \"=\" between name and value.";
      return false;
    }
    if (equals == 0) {
      problem = where + " (\"" + std::string(line) + "\") has no header name before \"=\".";
      return false;
    }
    const std::string name(line.substr(0, equals));
    if (!headers.emplace(name, std::string(line.substr(equals + 1))).second) {
      problem = where + " repeats the header \"" + name + "\".";
      return false;
    }
    lineStart = lineEnd + 2;
  }
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
