#include "util/Utf8.h"

#include <unicode/utypes.h>

#include <memory>

#include "client/Exception.h"

namespace Kestrane::Net::KsModelEventManager::Util {

using Client::Utf8ConversionException;

namespace {

struct ConverterCloser {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using ConverterPtr = std::unique_ptr<UConverter, ConverterCloser>;

// The working state of one call: buffers sized to the input, up to a fixed bound, and the two
// converters. Everything goes with the object, on failure too.
struct Utf8Conversion {
  static constexpr size_t kMaxUchars = 20480;
  static constexpr size_t kMaxBytes = 30720;

  // `outputMayExpand`: UTF-8 output may need more bytes than the input had (toUtf8).
  Utf8Conversion(bool outputMayExpand, int32_t length) {
    const size_t inputLength = length > 0 ? static_cast<size_t>(length) : 0;
    if (inputLength < kMaxUchars) {
      ucharCapacity = inputLength;
      byteCapacity = static_cast<size_t>(static_cast<double>(inputLength) * 1.5);
    }
    if (!outputMayExpand) byteCapacity = ucharCapacity;
    ucharBuffer.reset(new UChar[ucharCapacity + 1]);
    byteBuffer.reset(new char[byteCapacity + 1]);
    ucharBuffer[0] = 0;
    byteBuffer[0] = 0;

    UErrorCode status = U_ZERO_ERROR;
    nativeConverter.reset(ucnv_open(nullptr, &status));
    if (status <= U_ZERO_ERROR) utf8Converter.reset(ucnv_open("UTF-8", &status));
    if (status > U_ZERO_ERROR) {
      throw Utf8ConversionException(std::string("Error opening converter ") + u_errorName(status) +
                                    "\n");
    }
  }

  std::string convert(const char* bytes, int32_t length, UConverter* into, UConverter* outOf) {
    std::string output;
    const char* source = bytes;
    const char* const sourceLimit = bytes + (length > 0 ? length : 0);
    UErrorCode inbound;
    do {
      inbound = U_ZERO_ERROR;
      UChar* uchars = ucharBuffer.get();
      ucnv_toUnicode(into, &uchars, ucharBuffer.get() + ucharCapacity, &source, sourceLimit,
                     nullptr, static_cast<size_t>(sourceLimit - source) <= ucharCapacity, &inbound);
      *uchars = 0;
      const UChar* ucharSource = ucharBuffer.get();
      const UChar* const ucharLimit = uchars;
      // Only the last pass may flush: a pass can end between the two halves of a surrogate
      // pair, which a flush would replace by substitution characters.
      const bool lastPass = inbound != U_BUFFER_OVERFLOW_ERROR;
      UErrorCode outbound;
      do {
        outbound = U_ZERO_ERROR;
        char* target = byteBuffer.get();
        ucnv_fromUnicode(
            outOf, &target, byteBuffer.get() + byteCapacity, &ucharSource, ucharLimit, nullptr,
            lastPass && static_cast<size_t>(ucharLimit - ucharSource) <= byteCapacity, &outbound);
        *target = 0;
        output.append(byteBuffer.get());
      } while (outbound == U_BUFFER_OVERFLOW_ERROR);
      checkConversionStatus(outOf, outbound, false);
    } while (inbound == U_BUFFER_OVERFLOW_ERROR);
    checkConversionStatus(into, inbound, true);
    return output;
  }

  size_t ucharCapacity = kMaxUchars;
  size_t byteCapacity = kMaxBytes;
  std::unique_ptr<UChar[]> ucharBuffer;
  std::unique_ptr<char[]> byteBuffer;
  ConverterPtr nativeConverter;
  ConverterPtr utf8Converter;
};

}  // namespace

std::string toUtf8(const char* bytes, int32_t length) {
  Utf8Conversion conversion(true, length);
  return conversion.convert(bytes, length, conversion.nativeConverter.get(),
                            conversion.utf8Converter.get());
}

std::string fromUtf8(const char* bytes, int32_t length) {
  Utf8Conversion conversion(false, length);
  return conversion.convert(bytes, length, conversion.utf8Converter.get(),
                            conversion.nativeConverter.get());
}

void checkConversionStatus(UConverter* converter, UErrorCode status, bool intoUnicode) {
  if (status <= U_ZERO_ERROR) return;

  UErrorCode nameStatus = U_ZERO_ERROR;
  const char* name = ucnv_getName(converter, &nameStatus);
  std::string description = name != nullptr ? name : "";
  description += " (";
  const uint16_t aliasCount = ucnv_countAliases(name, &nameStatus);
  for (uint16_t i = 0; i < aliasCount; ++i) {
    const char* alias = ucnv_getAlias(name, i, &nameStatus);
    if (i > 0) description += ", ";
    if (alias != nullptr) description += alias;
  }
  description += ")";

  std::string message = intoUnicode
                            ? "An error occured converting " + description + " to Unicode.\n"
                            : "An error occured converting Unicode to " + description + ".\n";
  message += u_errorName(status);
  message += "\n";
  throw Utf8ConversionException(message);
}

}  // namespace Kestrane::Net::KsModelEventManager::Util
