// Conversion between the platform's default encoding and UTF-8, through UTF-16 with a pair of
// ICU converters opened for the one call.
//
// Input of any length is converted in bounded passes (at most 20480 UTF-16 units and 30720
// output bytes of working memory); unmappable input is substituted, not refused. A zero byte in
// the input ends the piece of output that holds it. Safe to call from several threads at once.
// Throws Client::Utf8ConversionException when a converter cannot be opened or a conversion step
// fails.
#ifndef KSMEM_UTIL_UTF8_H_
#define KSMEM_UTIL_UTF8_H_

#include <unicode/ucnv.h>

#include <cstdint>
#include <string>

namespace Kestrane::Net::KsModelEventManager::Util {

// REQUIRES: `bytes` points to `length` readable bytes (a negative length counts as 0).
std::string toUtf8(const char* bytes, int32_t length);
std::string fromUtf8(const char* bytes, int32_t length);

// Throws Utf8ConversionException naming the converter and the ICU error when `status` is a
// failure; returns otherwise (warnings pass). `intoUnicode` tells which way the failed step went.
void checkConversionStatus(UConverter* converter, UErrorCode status, bool intoUnicode);

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_UTF8_H_
