#include <gtest/gtest.h>

#include "client/Exception.h"
#include "util/Utf8.h"

using namespace Kestrane::Net::KsModelEventManager;
using Util::fromUtf8;
using Util::toUtf8;

namespace {

// The platform's default encoding is UTF-8 on the machines this is built for, so text goes
// through both converters unchanged and bad bytes become U+FFFD.
class Utf8Test : public ::testing::Test {
 protected:
  static std::string to(const std::string& s) {
    return toUtf8(s.data(), static_cast<int32_t>(s.size()));
  }
  static std::string from(const std::string& s) {
    return fromUtf8(s.data(), static_cast<int32_t>(s.size()));
  }
};

TEST_F(Utf8Test, EmptyInputGivesEmptyOutput) {
  EXPECT_EQ("", to(""));
  EXPECT_EQ("", from(""));
}

TEST_F(Utf8Test, OneBadByteExpandsToAReplacementCharacterThatComesOutWhole) {
  // One byte of input sizes the output buffer to one byte; U+FFFD needs three.
  EXPECT_EQ("\xEF\xBF\xBD", to("\xE9"));
  EXPECT_EQ("a\xEF\xBF\xBDz", to("a\xE9z"));
}

TEST_F(Utf8Test, LongInputTakesSeveralPassesInOrder) {
  // Three-byte characters, so that passes of 20480 units end inside a character.
  for (size_t size : {20479u, 20480u, 20481u, 100000u}) {
    std::string text;
    while (text.size() + 4 <= size)
      text +=
          "\xE2\x82\xAC"
          "a";
    text.resize(size, 'x');
    EXPECT_EQ(text, to(text)) << size;
    EXPECT_EQ(text, from(text)) << size;
  }
}

TEST_F(Utf8Test, ZeroByteCutsThePieceThatHoldsIt) { EXPECT_EQ("ab", to(std::string("ab\0cd", 5))); }

TEST_F(Utf8Test, FailedStepNamesTheConverterAndTheError) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open("UTF-8", &status);
  ASSERT_TRUE(U_SUCCESS(status));

  try {
    Util::checkConversionStatus(converter, U_INVALID_CHAR_FOUND, true);
    FAIL() << "no exception";
  } catch (const Client::Utf8ConversionException& e) {
    EXPECT_EQ(0, e.getType());
    EXPECT_EQ(0u, e.getMessage().find("An error occured converting UTF-8 (UTF-8, "));
    EXPECT_NE(std::string::npos, e.getMessage().find(") to Unicode.\nU_INVALID_CHAR_FOUND\n"));
  }
  EXPECT_NO_THROW(Util::checkConversionStatus(converter, U_USING_DEFAULT_WARNING, false));
  ucnv_close(converter);
}

}  // namespace
