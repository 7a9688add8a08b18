#include "util/XMLNode.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/XercesFixture.h"
#include "util/SAXToNodeParser.h"

using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Net::KsModelEventManager::Util::XMLNode;

TEST(XMLNode, AttributeLookupTellsAnEmptyValueFromAMissingKey) {
  XMLNode node;
  node.setAttribute("empty", "");
  node.setAttribute("k", "1");
  node.setAttribute("k", "2");

  EXPECT_TRUE(node.hasAttribute("empty"));
  EXPECT_EQ("", node.getAttribute("empty"));
  EXPECT_EQ("", node.getAttribute("missing"));
  EXPECT_FALSE(node.hasAttribute("missing"));  // the miss above inserted nothing
  EXPECT_EQ("2", node.getAttribute("k"));
  EXPECT_EQ(2u, node.getAttributes().size());
}

TEST(XMLNode, AttributeKeysOrderAsUnsignedBytesShorterFirst) {
  XMLNode node;
  for (const char* key : {"\xE4x", "a", "Ab", "A"}) {
    node.setAttribute(key, "v");
  }

  std::vector<std::string> keys;
  for (const auto& attribute : node.getAttributes()) {
    keys.push_back(attribute.first);
  }
  EXPECT_EQ((std::vector<std::string>{"A", "Ab", "a", "\xE4x"}), keys);
}

class XMLNodePrint : public XercesFixture {};

TEST_F(XMLNodePrint, WritesOnlyElementNamesTwoBlanksDeeperPerLevel) {
  SAXToNodeParser parser;
  XMLNode* root = parser.parseString(
      "<p:a xmlns:p='urn:x' k='v'>text<b><c>&lt;</c></b><d/></p:a>");
  std::ostringstream out;

  root->print(out, "  ");

  EXPECT_EQ("  <a>\n    <b>\n      <c>\n      </c>\n    </b>\n    <d>\n    </d>\n  </a>\n",
            out.str());
}
