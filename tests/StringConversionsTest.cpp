#include <gtest/gtest.h>

#include <locale>
#include <stdexcept>
#include <string>
#include <vector>

#include "util/StringConversions.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(StringConversionsTest, FloatingPointIsWrittenInScientificNotationWithSeventeenDigits) {
  EXPECT_EQ(doubleToString(0.5), "5.00000000000000000e-01");
  EXPECT_EQ(doubleToString(-1234.5), "-1.23450000000000000e+03");
  EXPECT_EQ(doubleToString(0.0), "0.00000000000000000e+00");
  // A float shows the digits of its value widened to double.
  EXPECT_EQ(floatToString(0.1f), "1.00000001490116119e-01");
  EXPECT_EQ(stringToDouble(doubleToString(0.1)), 0.1);
}

TEST(StringConversionsTest, ReadingTakesTheLeadingNumberAndGivesZeroForNone) {
  for (const char* none : {"", "abc", "   "}) {
    EXPECT_EQ(stringToInt(none), 0) << none;
    EXPECT_EQ(stringToDouble(none), 0.0) << none;
  }
  EXPECT_EQ(stringToFloat(""), 0.0f);
  EXPECT_EQ(stringToInt("42abc"), 42);
  EXPECT_EQ(stringToInt("  -17 "), -17);
  EXPECT_EQ(stringToDouble("2.5e3xyz"), 2500.0);
  EXPECT_EQ(stringToFloat("x1.5"), 0.0f);
  EXPECT_EQ(stringToFloat("1.5"), 1.5f);
  EXPECT_EQ(intToString(-2147483647 - 1), "-2147483648");
}

TEST(StringConversionsTest, BooleansWriteDigitsAndReadOnlyTrueOrOne) {
  EXPECT_EQ(boolToString(true) + boolToString(false), "10");
  EXPECT_TRUE(stringToBool("true"));
  EXPECT_TRUE(stringToBool("1"));
  for (const char* text : {"0", "True", "TRUE", "", " 1", "yes"}) {
    EXPECT_FALSE(stringToBool(text)) << text;
  }
}

TEST(StringConversionsTest, SplitKeepsEmptyEntriesAndGivesOneMoreEntryThanSeparators) {
  using List = std::vector<std::string>;
  EXPECT_EQ(splitString("a,b,,c,", ','), (List{"a", "b", "", "c", ""}));
  EXPECT_EQ(splitString("", ','), (List{""}));
  EXPECT_EQ(splitString("abc", ','), (List{"abc"}));
  EXPECT_EQ(splitString(",", ','), (List{"", ""}));
}

TEST(StringConversionsTest, FloatingPointIgnoresACommaDecimalGlobalLocaleWhileIntegersFollowIt) {
  std::locale german;
  try {
    german = std::locale("de_DE.UTF-8");
  } catch (const std::runtime_error&) {
    GTEST_SKIP() << "locale de_DE.UTF-8 is not installed (generate it with locale-gen)";
  }
  struct Restore {  // the old global locale, the C library's included, when the test ends
    std::locale previous;
    ~Restore() { std::locale::global(previous); }
  } restore{std::locale::global(german)};

  EXPECT_EQ(doubleToString(1.5), "1.50000000000000000e+00");
  EXPECT_EQ(floatToString(-0.25f), "-2.50000000000000000e-01");
  EXPECT_EQ(stringToDouble("1.5"), 1.5);
  EXPECT_EQ(stringToFloat("2,5"), 2.0f);
  EXPECT_EQ(intToString(1234567), "1.234.567");
  EXPECT_EQ(stringToInt("1.234"), 1234);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
