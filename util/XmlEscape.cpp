#include "util/XmlEscape.h"

#include <string_view>

namespace Kestrane {
namespace Net {
namespace KsModelEventManager {
namespace Util {

namespace {

// Indexed by byte; empty for a byte that passes unchanged.
struct ReferenceTable {
  std::string_view entries[256];
  constexpr ReferenceTable() : entries() {
    entries[static_cast<unsigned char>('\t')] = "&#9;";
    entries[static_cast<unsigned char>('\n')] = "&#10;";
    entries[static_cast<unsigned char>('"')] = "&quot;";
    entries[static_cast<unsigned char>('%')] = "&#x25;";
    entries[static_cast<unsigned char>('&')] = "&amp;";
    entries[static_cast<unsigned char>('\'')] = "&apos;";
    entries[static_cast<unsigned char>('<')] = "&lt;";
    entries[static_cast<unsigned char>('>')] = "&gt;";
  }
};
constexpr ReferenceTable kEscapes;

std::string_view referenceFor(char byte) {
  return kEscapes.entries[static_cast<unsigned char>(byte)];
}

struct Reference {
  std::string_view name;  // what follows the ampersand, semicolon included
  char byte;
};

// Compared in this order; the first that matches wins.
constexpr Reference kReferences[] = {
    {"amp;", '&'},  {"lt;", '<'},    {"gt;", '>'},  {"#x25;", '%'},
    {"quot;", '"'}, {"apos;", '\''}, {"#10;", '\n'}, {"#9;", '\t'},
};

}  // namespace

// Both functions copy runs of ordinary bytes whole into a result reserved up front and never
// edit in place, so a text full of special characters still costs linear time; escapeXML
// counts the exact size first so that a large result is neither regrown nor copied.
std::string escapeXML(const std::string& text) {
  std::string::size_type size = text.size();
  for (char byte : text) {
    std::string_view reference = referenceFor(byte);
    if (!reference.empty()) size += reference.size() - 1;
  }
  std::string result;
  result.reserve(size);
  std::string::size_type runStart = 0;
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    std::string_view reference = referenceFor(text[i]);
    if (reference.empty()) continue;
    result.append(text, runStart, i - runStart);
    result.append(reference);
    runStart = i + 1;
  }
  result.append(text, runStart, std::string::npos);
  return result;
}

std::string unescapeXML(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  const std::string_view whole(text);
  std::string::size_type runStart = 0;
  std::string::size_type i = 0;
  while ((i = text.find('&', i)) != std::string::npos) {
    std::string_view behind = whole.substr(i + 1);
    const Reference* match = nullptr;
    for (const Reference& reference : kReferences) {
      if (behind.substr(0, reference.name.size()) == reference.name) {
        match = &reference;
        break;
      }
    }
    if (match == nullptr) {
      ++i;
      continue;
    }
    result.append(text, runStart, i - runStart);
    result.push_back(match->byte);
    i += 1 + match->name.size();
    runStart = i;
  }
  result.append(text, runStart, std::string::npos);
  return result;
}

}  // namespace Util
}  // namespace KsModelEventManager
}  // namespace Net
}  // namespace Kestrane
