#include <gtest/gtest.h>

#include <string>

#include "tests/XercesFixture.h"
#include "util/DomException.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Kestrane::Net::KsModelEventManager::Util::DomException;
using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Net::KsModelEventManager::Util::XMLNode;

namespace {

// A node and its subtree on one line: {URI}name, the attributes as key=value, the value in
// quotes, each child in brackets. Checks on the way that every child points back to its parent.
std::string shape(const XMLNode& node) {
  std::string text = "{" + node.getNamespaceURI() + "}" + node.getName();
  for (const auto& [key, value] : node.getAttributes()) text += " " + key + "=" + value;
  text += " '" + node.getValue() + "'";
  for (const XMLNode* child : node.getChildren()) {
    EXPECT_EQ(child->getParent(), &node);
    text += " [" + shape(*child) + "]";
  }
  return text;
}

}  // namespace

class SAXToNodeParserTest : public XercesFixture {
 protected:
  void TearDown() override { SAXToNodeParser::setReplaceSubstitutionChars(false); }

  SAXToNodeParser parser;
};

TEST_F(SAXToNodeParserTest, TreeHoldsElementsByUriAndLocalNameAttributesByLocalNameAndAllText) {
  const struct {
    std::string xml, tree;
  } documents[] = {
      {"<?xml version='1.0'?>\n<!-- c --><only/><?pi x?>\n", "{}only ''"},
      // Prefixed or under a default namespace, the same nodes; declarations are no attributes.
      {"<p:a xmlns:p='urn:x'><p:b/><c/></p:a>", "{urn:x}a '' [{urn:x}b ''] [{}c '']"},
      {"<a xmlns='urn:x'><b/><c xmlns=''/></a>", "{urn:x}a '' [{urn:x}b ''] [{}c '']"},
      {"<a xmlns:p='urn:1' xmlns:q='urn:2' p:k='1' q:k='2' plain='v &amp; w'/>",
       "{}a k=2 plain=v & w ''"},
      {"<a>x<b>y</b>z<b>w</b></a>", "{}a 'xz' [{}b 'y'] [{}b 'w']"},
      {"<r>\n  <c/>\n</r>", "{}r '\n  \n' [{}c '']"},
      {"<r><a>&amp;<![CDATA[<]]></a><b>x<!-- gap -->y&#65;&#x42;</b></r>",
       "{}r '' [{}a '&<'] [{}b 'xyAB']"},
      {"<!DOCTYPE r [<!ATTLIST r d CDATA 'dflt'><!ENTITY i 'in<e/>ternal'>]><r>&i;</r>",
       "{}r d=dflt 'internal' [{}e '']"},
      // The reader warns of the second declaration and goes on with the first.
      {"<!DOCTYPE r [<!ATTLIST r a CDATA 'x'><!ATTLIST r a CDATA 'y'>]><r>t</r>", "{}r a=x 't'"},
      {std::string("<a>x</a>\0<b>garbage", 19), "{}a 'x'"},
  };
  for (const auto& document : documents) {
    const XMLNode* root = parser.parseString(document.xml);
    EXPECT_EQ(shape(*root), document.tree) << document.xml;
    EXPECT_EQ(root->getParent(), nullptr);
  }
}

TEST_F(SAXToNodeParserTest, SubstitutionCharIsReplacedInTextAndAttributeValuesOnlyWhenOn) {
  const std::string xml = "<?xml version='1.1'?><r a='x&#x1A;y'>p&#x1A;q</r>";
  const std::string kept = shape(*parser.parseString(xml));
  SAXToNodeParser::setReplaceSubstitutionChars(true);
  const std::string replaced = shape(*parser.parseString(xml));

  EXPECT_EQ(kept, "{}r a=x\x1Ay 'p\x1Aq'");
  EXPECT_EQ(replaced, "{}r a=x?y 'p?q'");
}

TEST_F(SAXToNodeParserTest, GetRootGivesAnEmptyNodeBeforeTheFirstParseAndTheLastTreeAfter) {
  EXPECT_EQ(shape(*parser.getRoot()), "{} ''");
  parser.parseString("<first><c/></first>");
  XMLNode* root = parser.parseString("<second/>");

  EXPECT_EQ(root, parser.getRoot());
  EXPECT_EQ(shape(*root), "{}second ''");
}

TEST_F(SAXToNodeParserTest, FailedParseLeavesThePartialTreeAndTheParserReusable) {
  EXPECT_THROW(parser.parseString("<a>t<b>u</b><c>v"), DomException);
  const std::string partial = shape(*parser.getRoot());
  EXPECT_EQ(partial.substr(0, 23), "{}a 't' [{}b 'u'] [{}c ") << partial;  // c's text may be cut
  EXPECT_THROW(parser.parseString(std::string("<a>x\0</a>", 9)), DomException);
  EXPECT_THROW(parser.parseString("no markup"), DomException);
  EXPECT_EQ(shape(*parser.getRoot()), "{} ''");  // failed before the first element

  EXPECT_EQ(shape(*parser.parseString("<ok/>")), "{}ok ''");
}
