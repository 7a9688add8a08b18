#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "util/XmlEscape.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlEscapeTest, EscapeReplacesTheEightSpecialBytesAndUnescapeOnlyTheirReferencesInOnePass) {
  const struct {
    std::string text, escaped;
  } pairs[] = {
      {"\t\n\"%&'<>", "&#9;&#10;&quot;&#x25;&amp;&apos;&lt;&gt;"},
      {"&amp;", "&amp;amp;"},
      {"a\rb\x01\xC3\xA9z plain", "a\rb\x01\xC3\xA9z plain"},
      {"", ""},
  };
  for (const auto& pair : pairs) {
    EXPECT_EQ(escapeXML(pair.text), pair.escaped);
    EXPECT_EQ(unescapeXML(pair.escaped), pair.text);
  }
  EXPECT_EQ(unescapeXML("&#x25;&#x25;"), "%%");
  EXPECT_EQ(unescapeXML("&foo; &#xA; &#37; &AMP; &#10"), "&foo; &#xA; &#37; &AMP; &#10");
  EXPECT_EQ(unescapeXML("a&&lt;&"), "a&<&");
}

// Texts drawn from every byte that may stand in an XML document (tab, line feed, carriage
// return, 0x20 upward), mixed with pieces of references so that ampersands meet near-matches.
TEST(XmlEscapeTest, UnescapeOfEscapeGivesAnyTextBack) {
  std::vector<std::string> alphabet = {"&", "amp;", "lt;", "#x25;", "#10", "#9;", ";", "&#"};
  for (int byte = 0; byte < 256; ++byte) {
    if (byte >= 0x20 || byte == '\t' || byte == '\n' || byte == '\r') {
      alphabet.push_back(std::string(1, static_cast<char>(byte)));
    }
  }
  std::mt19937 random(20090601);
  std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
  std::uniform_int_distribution<int> length(0, 200);
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (int n = length(random); n > 0; --n) text += alphabet[pick(random)];
    std::string escaped = escapeXML(text);
    ASSERT_EQ(escaped.find_first_of("\t\n\"%'<>"), std::string::npos) << text;
    ASSERT_EQ(unescapeXML(escaped), text);
  }
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
