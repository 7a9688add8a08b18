#include "service/PercentEncoding.h"

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

void appendHex(std::string& text, unsigned char byte) {
  static const char kHex[] = "0123456789ABCDEF";
  text += kHex[byte >> 4];
  text += kHex[byte & 0xF];
}

std::string percentEncoded(std::string_view text, unsigned char highest,
                           std::string_view alsoEscaped) {
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x21 || byte > highest || alsoEscaped.find(c) != std::string_view::npos) {
      encoded += '%';
      appendHex(encoded, byte);
    } else {
      encoded += c;
    }
  }
  return encoded;
}

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? hexDigit(text[i + 2]) : -1;
    if (low < 0) return std::nullopt;
    decoded += static_cast<char>(high << 4 | low);
    i += 2;
  }
  return decoded;
}

}  // namespace Kestrane::Net::KsModelEventManager::Service
