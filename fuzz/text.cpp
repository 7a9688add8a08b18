// Fuzz target: the text utilities, on arbitrary bytes.
//
//   escapeXML/unescapeXML  unescapeXML(escapeXML(s)) == s for every s, and the escaped text
//                          holds none of the escaped bytes but the ampersands of references;
//   getRootNamespace       never throws, and gives a piece of the text;
//   findTagOffset          never throws, and gives npos or an offset inside the text;
//   toUtf8/fromUtf8        never fail but with Utf8ConversionException; for a text without NUL
//                          both give valid UTF-8 (the native encoding is UTF-8 wherever ICU
//                          is built for Linux), and a text that is valid UTF-8 unchanged.
//
// The build checks every std::string index and ASan every heap access, so a read out of bounds
// ends the run like a broken check.
//
// Input layout: the whole input is the text of the escaping and the scanners. For
// findTagOffset, byte 0 gives the length of the expanded name and the direction, the name
// follows, the rest is the document. For the conversions, bytes 0 and 1 give a run of padding
// put in front of the rest, sized around the bounds of the conversion's passes so that
// characters straddle them.
#include <unicode/ucnv.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "client/Exception.h"
#include "util/Utf8.h"
#include "util/XmlEscape.h"
#include "util/XmlScan.h"

using namespace Kestrane::Net::KsModelEventManager::Util;
using Kestrane::Net::KsModelEventManager::Client::Utf8ConversionException;

namespace {

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "invariant broken: %s\n", what);
  std::abort();
}

bool isValidUtf8WithoutNul(const std::string& text) {
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    if (lead == 0) return false;
    size_t length;
    uint32_t codePoint;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      codePoint = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      codePoint = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (text.size() - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    const uint32_t smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
    if (codePoint < smallest || codePoint > 0x10FFFF) return false;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
    i += length;
  }
  return true;
}

void checkEscaping(const std::string& text) {
  const std::string escaped = escapeXML(text);
  require(escaped.find_first_of("\t\n\"%'<>") == std::string::npos,
          "escapeXML left a special byte");
  require(unescapeXML(escaped) == text, "unescapeXML(escapeXML(s)) != s");
  unescapeXML(text);
}

void checkScanners(const std::string& input) {
  const std::string uri = getRootNamespace(input);
  require(input.find(uri) != std::string::npos, "getRootNamespace gave text not in the input");

  if (input.empty()) return;
  const unsigned char control = static_cast<unsigned char>(input[0]);
  const size_t nameLength = std::min<size_t>(control >> 1, input.size() - 1);
  const std::string expandedName = input.substr(1, nameLength);
  const std::string text = input.substr(1 + nameLength);
  const std::string::size_type offset = findTagOffset(text, expandedName, (control & 1) != 0);
  require(offset == std::string::npos || offset <= text.size(),
          "findTagOffset gave an offset behind the text");
}

std::string convert(bool intoUtf8, const std::string& text) {
  try {
    const char* bytes = text.data();
    const int32_t length = static_cast<int32_t>(text.size());
    return intoUtf8 ? toUtf8(bytes, length) : fromUtf8(bytes, length);
  } catch (const Utf8ConversionException&) {
    return std::string();
  }
}

// `count` times `unit`, built by doubling.
std::string repeat(const char* unit, size_t count) {
  if (count == 0) return std::string();
  std::string text(unit);
  const size_t size = text.size() * count;
  while (text.size() * 2 <= size) text += text;
  text.append(text, 0, size - text.size());
  return text;
}

void checkConversions(const std::string& input) {
  if (input.size() < 2) return;
  const unsigned char padByte = static_cast<unsigned char>(input[0]);
  const unsigned char padOffset = static_cast<unsigned char>(input[1]);
  // Bounds of a pass: 20480 input bytes or UTF-16 units, 30720 output bytes of toUtf8; a
  // character of 1 to 4 bytes in the padding moves them through every alignment.
  static const char* const kPadding[] = {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
  static const size_t kPadBases[] = {0, 20480, 0, 10240, 0, 6827, 0, 30720};
  const size_t base = kPadBases[(padByte >> 2) % 8];
  const std::string padding =
      base == 0 ? std::string() : repeat(kPadding[padByte & 3], base + padOffset % 64 - 32);
  const std::string data = input.substr(2);
  const std::string text = padding + data;

  const std::string native = convert(false, text);
  const std::string utf8 = convert(true, text);
  static const bool nativeIsUtf8 = std::string(ucnv_getDefaultName()) == "UTF-8";
  if (!nativeIsUtf8 || data.find('\0') != std::string::npos) return;
  if (isValidUtf8WithoutNul(data)) {
    require(native == text, "fromUtf8 changed valid UTF-8");
    require(utf8 == text, "toUtf8 changed valid UTF-8");
    return;
  }
  // Bad bytes become U+FFFD; the valid padding in front of them comes through unchanged.
  for (const std::string* output : {&native, &utf8}) {
    require(output->compare(0, padding.size(), padding) == 0, "conversion changed valid UTF-8");
    require(isValidUtf8WithoutNul(output->substr(padding.size())), "conversion gave invalid UTF-8");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  checkEscaping(input);
  checkScanners(input);
  checkConversions(input);
  return 0;
}
