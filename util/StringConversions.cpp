#include "util/StringConversions.h"

#include <ios>
#include <locale>
#include <sstream>

namespace Kestrane::Net::KsModelEventManager::Util {

namespace {

// Made on first use (a function-local static is safe against concurrent first calls) and
// kept for the rest of the process.
const std::locale& cLocale() {
  static const std::locale locale("C");
  return locale;
}

std::string floatingToString(double value) {
  std::ostringstream stream;
  stream.imbue(cLocale());
  stream.precision(17);
  stream << std::scientific << value;
  return stream.str();
}

// The stream starts with the global locale; `pinC` replaces it with the "C" locale.
template <typename Number>
Number stringToNumber(const std::string& text, bool pinC) {
  if (text.empty()) return 0;
  std::istringstream stream(text);
  if (pinC) stream.imbue(cLocale());
  Number value = 0;
  stream >> value;
  return value;
}

}  // namespace

std::string intToString(int32_t value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

std::string doubleToString(double value) { return floatingToString(value); }

std::string floatToString(float value) { return floatingToString(static_cast<double>(value)); }

int32_t stringToInt(const std::string& text) { return stringToNumber<int32_t>(text, false); }

double stringToDouble(const std::string& text) { return stringToNumber<double>(text, true); }

float stringToFloat(const std::string& text) { return stringToNumber<float>(text, true); }

std::string boolToString(const bool& value) { return value ? "1" : "0"; }

bool stringToBool(const std::string& text) { return text == "true" || text == "1"; }

std::vector<std::string> splitString(std::string text, char separator) {
  std::vector<std::string> parts;
  std::string::size_type start = 0;
  std::string::size_type found;
  while ((found = text.find(separator, start)) != std::string::npos) {
    parts.push_back(text.substr(start, found - start));
    start = found + 1;
  }
  parts.push_back(text.substr(start));
  return parts;
}

}  // namespace Kestrane::Net::KsModelEventManager::Util
