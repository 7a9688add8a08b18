#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/XercesFixture.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Net::KsModelEventManager::Util::XMLNode;

TEST(XMLNode, AttributesTellAnEmptyValueFromAMissingKeyAndOrderAsUnsignedBytesShorterFirst) {
  XMLNode node;
  for (const char* key : {"\xE4x", "a", "Ab", "A"}) node.setAttribute(key, "1");
  node.setAttribute("a", "");

  EXPECT_EQ("1", node.getAttribute("Ab"));
  EXPECT_EQ("", node.getAttribute("missing"));
  EXPECT_FALSE(node.hasAttribute("missing"));  // the miss above inserted nothing
  EXPECT_TRUE(node.hasAttribute("a"));
  std::string keys;
  for (const auto& [key, value] : node.getAttributes()) keys += key + "=" + value + " ";
  EXPECT_EQ("A=1 Ab=1 a= \xE4x=1 ", keys);
}

class XMLNodePrint : public XercesFixture {};

TEST_F(XMLNodePrint, WritesOnlyElementNamesTwoBlanksDeeperPerLevel) {
  SAXToNodeParser parser;
  XMLNode* root = parser.parseString("<p:a xmlns:p='urn:x' k='v'>text<b><c>&lt;</c></b><d/></p:a>");
  std::ostringstream out;

  root->print(out, "  ");

  EXPECT_EQ("  <a>\n    <b>\n      <c>\n      </c>\n    </b>\n    <d>\n    </d>\n  </a>\n",
            out.str());
}
