// toUtf8 and fromUtf8 between the native code page, UTF-8 on the machines this is built for,
// and UTF-8: passes of bounded size that keep characters whole, and failures that say where.
#include <gtest/gtest.h>

#include "tests/ScriptedTransport.h"
#include "util/Utf8.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

namespace st = ScriptedTransport;

std::string to(const std::string& s) { return toUtf8(s.data(), static_cast<int32_t>(s.size())); }
std::string from(const std::string& s) {
  return fromUtf8(s.data(), static_cast<int32_t>(s.size()));
}

TEST(Utf8Test, TextOfAnyLengthComesThroughWholeAcrossPassesOf20480Units) {
  // 20479 units in front put the two units of U+1F600 into two passes; the euros put three
  // bytes across the end of a pass.
  std::string euros;
  while (euros.size() < 100000)
    euros +=
        "\xE2\x82\xAC"
        "a";
  for (const std::string& text : {std::string(),
                                  std::string(20479, 'a') + "\xF0\x9F\x98\x80"
                                                            "b",
                                  euros.substr(0, 20480), euros}) {
    EXPECT_EQ(to(text), text);
    EXPECT_EQ(from(text), text);
  }
  EXPECT_EQ(to("\xE9") + to("a\xE9z"),
            "\xEF\xBF\xBD"
            "a\xEF\xBF\xBDz");  // U+FFFD, whole
  EXPECT_EQ(to(std::string("ab\0cd", 5)), "ab");
}

TEST(Utf8Test, FailedStepNamesTheConverterAndTheErrorWhileWarningsPass) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open("UTF-8", &status);
  const std::string failed =
      st::thrownBy([&] { checkConversionStatus(converter, U_INVALID_CHAR_FOUND, true); });
  EXPECT_EQ(failed.find("Exception 0 An error occured converting UTF-8 (UTF-8, "), 0u);
  EXPECT_NE(failed.find(") to Unicode.\nU_INVALID_CHAR_FOUND\n"), std::string::npos);
  EXPECT_EQ(st::thrownBy([&] { checkConversionStatus(converter, U_USING_DEFAULT_WARNING, false); }),
            "");
  ucnv_close(converter);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
