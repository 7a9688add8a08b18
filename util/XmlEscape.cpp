#include "util/XmlEscape.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace Kestrane::Net::KsModelEventManager::Util {

namespace {

// Indexed by byte: what the byte becomes, in the first `length` of seven bytes. An entry is
// eight bytes, so that escapeXML writes every byte with one fixed-size copy and no branch.
struct Replacement {
  char bytes[7] = {};
  unsigned char length = 1;
};
static_assert(sizeof(Replacement) == 8, "a replacement is copied as eight bytes");

struct ReplacementTable {
  Replacement entries[256];
  constexpr ReplacementTable() : entries() {
    for (int byte = 0; byte < 256; ++byte) entries[byte].bytes[0] = static_cast<char>(byte);
    set('\t', "&#9;");
    set('\n', "&#10;");
    set('"', "&quot;");
    set('%', "&#x25;");
    set('&', "&amp;");
    set('\'', "&apos;");
    set('<', "&lt;");
    set('>', "&gt;");
  }
  constexpr void set(char byte, std::string_view reference) {
    Replacement& entry = entries[static_cast<unsigned char>(byte)];
    for (size_t i = 0; i < reference.size(); ++i) entry.bytes[i] = reference[i];
    entry.length = static_cast<unsigned char>(reference.size());
  }
};
constexpr ReplacementTable kReplacements;
constexpr size_t kLongestReplacement = 6;

struct Reference {
  std::string_view name;  // what follows the ampersand, semicolon included
  char byte;
};

// Compared in this order; the first that matches wins.
constexpr Reference kReferences[] = {
    {"amp;", '&'},  {"lt;", '<'},    {"gt;", '>'},   {"#x25;", '%'},
    {"quot;", '"'}, {"apos;", '\''}, {"#10;", '\n'}, {"#9;", '\t'},
};

}  // namespace

// Every byte goes through the table as one eight-byte copy, with no branch: a branch on special
// bytes mispredicts wherever they are mixed in, and counting the exact size first would cost as
// much as the escaping. The text is escaped window by window into a stack buffer and appended.
std::string escapeXML(const std::string& text) {
  constexpr size_t kWindow = 1024;
  char escaped[kWindow * kLongestReplacement + sizeof(Replacement)];
  std::string result;
  result.reserve(text.size());
  const unsigned char* byte = reinterpret_cast<const unsigned char*>(text.data());
  const unsigned char* const end = byte + text.size();
  while (byte != end) {
    const unsigned char* const windowEnd =
        byte + std::min(kWindow, static_cast<size_t>(end - byte));
    char* out = escaped;
    auto put = [&out](unsigned char in) {
      const Replacement& replacement = kReplacements.entries[in];
      std::memcpy(out, &replacement, sizeof replacement);
      out += replacement.length;
    };
    // Eight at a time from a local copy, which the writes through `out` cannot alias.
    for (; windowEnd - byte >= 8; byte += 8) {
      unsigned char eight[8];
      std::memcpy(eight, byte, 8);
      for (const unsigned char in : eight) put(in);
    }
    for (; byte != windowEnd; ++byte) put(*byte);
    result.append(escaped, static_cast<size_t>(out - escaped));
  }
  return result;
}

// Copies runs of ordinary bytes whole into a result reserved up front and never edits in place,
// so a text full of references still costs linear time.
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

}  // namespace Kestrane::Net::KsModelEventManager::Util
