// Conversions between numbers, booleans and text.
//
// The floating-point conversions always use the "C" locale, whatever the global locale is: a
// double or float is written as one digit, a point, 17 digits, "e", a sign and an exponent of
// at least two digits, and a point is what they read. The integer conversions use the global
// locale in force when they are called, so that intToString follows its digit grouping.
//
// Reading never fails: an empty text, or one that does not begin with a number of the wanted
// kind (leading white space is skipped), gives 0; whatever follows the number is ignored, and
// a number out of range gives what the stream's extraction stores.
//
// Every function may be called from any thread.
#ifndef KSMEM_UTIL_STRINGCONVERSIONS_H_
#define KSMEM_UTIL_STRINGCONVERSIONS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace Kestrane::Net::KsModelEventManager::Util {

std::string intToString(int32_t value);
std::string doubleToString(double value);
// The float is widened to double, so its text shows the digits of the widened value.
std::string floatToString(float value);

int32_t stringToInt(const std::string& text);
double stringToDouble(const std::string& text);
float stringToFloat(const std::string& text);

// "1" for true, "0" for false.
std::string boolToString(const bool& value);
// True for exactly "true" or exactly "1"; false for anything else, the empty text included.
bool stringToBool(const std::string& text);

// Cuts `text` at every `separator`. The result has one entry more than `text` has separators;
// empty entries stay, so a text without a separator (the empty text too) gives one entry.
std::vector<std::string> splitString(std::string text, char separator);

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_STRINGCONVERSIONS_H_
