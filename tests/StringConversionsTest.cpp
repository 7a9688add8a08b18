// Numbers and booleans to and from text: floating point always in the "C" locale, integers in
// the global one, and reading that never fails.
#include <gtest/gtest.h>

#include <locale>
#include <stdexcept>

#include "util/StringConversions.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(StringConversionsTest, NumbersAndBooleansGoToTextAndBackAsDocumented) {
  EXPECT_EQ(doubleToString(-1234.5) + " " + floatToString(0.1f),
            "-1.23450000000000000e+03 1.00000001490116119e-01");
  EXPECT_EQ(stringToDouble(doubleToString(0.1)), 0.1);
  EXPECT_EQ(stringToInt("  -17 ") + stringToInt("42abc") + stringToInt("abc") + stringToInt(""),
            25);
  EXPECT_EQ(stringToDouble("2.5e3xyz") + stringToFloat("x1.5") + stringToFloat("1.5"), 2501.5);
  EXPECT_EQ(intToString(-2147483647 - 1) + boolToString(true) + boolToString(false),
            "-214748364810");
  for (const char* text : {"true", "1", "0", "True", "", " 1"}) {
    EXPECT_EQ(stringToBool(text), text == std::string("true") || text == std::string("1")) << text;
  }
  EXPECT_EQ(splitString("a,b,,c,", ','), (std::vector<std::string>{"a", "b", "", "c", ""}));
  EXPECT_EQ(splitString("", ','), std::vector<std::string>{""});
}

// With a comma-decimal global locale, floating point stays in the "C" locale.
TEST(StringConversionsTest, FloatingPointIgnoresTheGlobalLocaleWhileIntegersFollowIt) {
  std::locale german;
  try {
    german = std::locale("de_DE.UTF-8");
  } catch (const std::runtime_error&) {
    GTEST_SKIP() << "locale de_DE.UTF-8 is not installed (scripts/install-deps.sh makes it)";
  }
  const std::locale previous = std::locale::global(german);
  const std::string texts = doubleToString(1.5) + " " + intToString(1234567);
  const double read = stringToDouble("1.5") + stringToFloat("2,5");
  std::locale::global(previous);

  EXPECT_EQ(texts, "1.50000000000000000e+00 1.234.567");
  EXPECT_EQ(read, 3.5);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
