// escapeXML and unescapeXML: the eight bytes and their references. That the one undoes the other
// for any text, fuzz/text.cpp checks.
#include <gtest/gtest.h>

#include "util/XmlEscape.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlEscapeTest, EscapeReplacesTheEightSpecialBytesAndUnescapeOnlyTheirReferencesInOnePass) {
  EXPECT_EQ(escapeXML("\t\n\"%&'<>a\r\x01\xC3\xA9"),
            "&#9;&#10;&quot;&#x25;&amp;&apos;&lt;&gt;a\r\x01\xC3\xA9");
  EXPECT_EQ(unescapeXML("&#9;&#10;&quot;&#x25;&amp;&apos;&lt;&gt;&amp;lt;"), "\t\n\"%&'<>&lt;");
  EXPECT_EQ(unescapeXML("&foo; &#xA; &#37; &AMP; &#10 a&&lt;&"),
            "&foo; &#xA; &#37; &AMP; &#10 a&<&");
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
