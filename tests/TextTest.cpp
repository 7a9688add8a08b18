// util's text functions: XML escapes and plain-text scans, numbers and booleans as text
// (floating point always in the "C" locale, integers in the global one, reading that never
// fails), and conversion between the native code page and UTF-8 in passes of bounded size that
// keep characters whole. That unescapeXML undoes escapeXML for any text, fuzz/text.cpp checks.
#include <gtest/gtest.h>

#include <locale>
#include <stdexcept>

#include "tests/ThrownBy.h"
#include "util/StringConversions.h"
#include "util/Utf8.h"
#include "util/XmlEscape.h"
#include "util/XmlScan.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlEscapeTest, EscapeReplacesTheEightSpecialBytesAndUnescapeOnlyTheirReferencesInOnePass) {
  EXPECT_EQ(escapeXML("\t\n\"%&'<>a\r\x01\xC3\xA9"),
            "&#9;&#10;&quot;&#x25;&amp;&apos;&lt;&gt;a\r\x01\xC3\xA9");
  EXPECT_EQ(unescapeXML("&#9;&#10;&quot;&#x25;&amp;&apos;&lt;&gt;&amp;lt;"), "\t\n\"%&'<>&lt;");
  EXPECT_EQ(unescapeXML("&foo; &#xA; &#37; &AMP; &#10 a&&lt;&"),
            "&foo; &#xA; &#37; &AMP; &#10 a&<&");
}

TEST(XmlScanTest, RootNamespaceComesFromTheRootsOwnDeclarationOrIsEmpty) {
  EXPECT_EQ(getRootNamespace("<?xml version=\"1.0\"?><r xmlns=\"urn:d\" a=\"1\"/>"), "urn:d");
  EXPECT_EQ(getRootNamespace("<?xml version=\"1.0\"?><p:r xmlns=\"urn:d\" xmlns:p=\"urn:p\"/>"),
            "urn:p");
  EXPECT_EQ(getRootNamespace("<r xmlns=\"urn:cut"), "urn:cut");
  for (const char* text : {"<r><c xmlns=\"urn:c\"/></r>", "no markup", "<?xml", "<r ",
                           "<a<b:r xmlns:a<b=\"urn:x\">"}) {
    EXPECT_EQ(getRootNamespace(text), "") << text;
  }
}

TEST(XmlScanTest, TagOffsetUsesThePrefixDeclaredForTheUriOrElseTheBareLocalName) {
  const std::string prefixed = "<p:r xmlns:p=\"urn:p\"><p:item a=\"1\">x</p:item></p:r>";
  EXPECT_EQ(findTagOffset(prefixed, "urn:p^item", true), prefixed.find(" a="));
  EXPECT_EQ(findTagOffset(prefixed, "urn:p^item", false), prefixed.find("</p:item>"));
  EXPECT_EQ(findTagOffset("<r xmlns=\"urn:d\"><item>", "urn:d^item", true), 22u);
  EXPECT_EQ(findTagOffset("<r xmlns:<<=\"urn:x\"><a/></r>", "urn:x^a", true), 22u);
  EXPECT_EQ(findTagOffset("<r xmlns=\"urn:d\"/>", "urn:d^item", true), std::string::npos);
}

TEST(StringConversionsTest, NumbersAndBooleansGoToTextAndBackAsDocumented) {
  EXPECT_EQ(doubleToString(-1234.5) + " " + floatToString(0.1f),
            "-1.23450000000000000e+03 1.00000001490116119e-01");
  EXPECT_EQ(stringToDouble(doubleToString(0.1)), 0.1);
  EXPECT_EQ(stringToInt("  -17 ") + stringToInt("42abc") + stringToInt("abc") + stringToInt(""),
            25);
  EXPECT_EQ(stringToDouble("2.5e3xyz") + stringToFloat("x1.5") + stringToFloat("1.5"), 2501.5);
  EXPECT_EQ(intToString(-2147483647 - 1) + boolToString(true) + boolToString(false),
            "-214748364810");
  for (const char* text : {"true", "1", "0", "True", "", " 1"})
    EXPECT_EQ(stringToBool(text), text == std::string("true") || text == std::string("1")) << text;
  EXPECT_EQ(splitString("a,b,,c,", ','), (std::vector<std::string>{"a", "b", "", "c", ""}));
  EXPECT_EQ(splitString("", ','), std::vector<std::string>{""});
}

// With a comma-decimal global locale, floating point stays in the "C" locale.
TEST(StringConversionsTest, FloatingPointIgnoresTheGlobalLocaleWhileIntegersFollowIt) {
  std::locale previous;
  try {
    previous = std::locale::global(std::locale("de_DE.UTF-8"));
  } catch (const std::runtime_error&) {
    GTEST_SKIP() << "locale de_DE.UTF-8 is not installed (scripts/install-deps.sh makes it)";
  }
  const std::string texts = doubleToString(1.5) + " " + intToString(1234567);
  const double read = stringToDouble("1.5") + stringToFloat("2,5");
  std::locale::global(previous);

  EXPECT_EQ(texts, "1.50000000000000000e+00 1.234.567");
  EXPECT_EQ(read, 3.5);
}

std::string to(const std::string& s) { return toUtf8(s.data(), static_cast<int>(s.size())); }
std::string from(const std::string& s) { return fromUtf8(s.data(), static_cast<int>(s.size())); }

TEST(Utf8Test, TextOfAnyLengthComesThroughWholeAcrossPassesOf20480Units) {
  // 20479 units in front put the two units of U+1F600 into two passes; the euros put three
  // bytes across the end of a pass.
  std::string euros;
  while (euros.size() < 100000) euros += "\u20ACa";
  for (const std::string& text :
       {std::string(), std::string(20479, 'a') + "\U0001F600b", euros.substr(0, 20480), euros}) {
    EXPECT_EQ(to(text), text);
    EXPECT_EQ(from(text), text);
  }
  EXPECT_EQ(to("\xE9") + to("a\xE9z"), "\uFFFDa\uFFFDz");  // a replacement character, whole
  EXPECT_EQ(to(std::string("ab\0cd", 5)), "ab");
}

TEST(Utf8Test, FailedStepNamesTheConverterAndTheErrorWhileWarningsPass) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open("UTF-8", &status);
  const std::string failed =
      thrownBy([&] { checkConversionStatus(converter, U_INVALID_CHAR_FOUND, true); });
  EXPECT_EQ(failed.find("Utf8ConversionException 0 An error occured converting UTF-8 (UTF-8, "),
            0u);
  EXPECT_NE(failed.find(") to Unicode.\nU_INVALID_CHAR_FOUND\n"), std::string::npos);
  EXPECT_EQ(thrownBy([&] { checkConversionStatus(converter, U_USING_DEFAULT_WARNING, false); }),
            "");
  ucnv_close(converter);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
