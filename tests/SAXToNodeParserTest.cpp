#include "util/SAXToNodeParser.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/XercesFixture.h"
#include "util/DomException.h"
#include "util/XMLNode.h"

using Kestrane::Net::KsModelEventManager::Util::DomException;
using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Net::KsModelEventManager::Util::XMLNode;

class SAXToNodeParserTest : public XercesFixture {
 protected:
  void TearDown() override { SAXToNodeParser::setReplaceSubstitutionChars(false); }

  SAXToNodeParser parser;
};

TEST_F(SAXToNodeParserTest, SingleEmptyElementGivesABareRoot) {
  XMLNode* root = parser.parseString("<?xml version='1.0'?>\n<!-- c --><only/><?pi x?>\n");

  EXPECT_EQ("", root->getNamespaceURI());
  EXPECT_EQ("only", root->getName());
  EXPECT_EQ("", root->getValue());
  EXPECT_TRUE(root->getAttributes().empty());
  EXPECT_TRUE(root->getChildren().empty());
  EXPECT_EQ(nullptr, root->getParent());
}

TEST_F(SAXToNodeParserTest, PrefixedAndDefaultNamespaceElementsGiveEqualNodes) {
  SAXToNodeParser other;
  XMLNode* prefixed = parser.parseString("<p:a xmlns:p='urn:x'><p:b/><c/></p:a>");
  XMLNode* unprefixed = other.parseString("<a xmlns='urn:x'><b/><c xmlns=''/></a>");

  for (XMLNode* root : {prefixed, unprefixed}) {
    EXPECT_EQ("urn:x", root->getNamespaceURI());
    EXPECT_EQ("a", root->getName());
    EXPECT_TRUE(root->getAttributes().empty());  // declarations are no attributes
    ASSERT_EQ(2u, root->getChildren().size());
    EXPECT_EQ("urn:x", root->getChildren()[0]->getNamespaceURI());
    EXPECT_EQ("b", root->getChildren()[0]->getName());
    EXPECT_EQ("", root->getChildren()[1]->getNamespaceURI());
    EXPECT_EQ(root, root->getChildren()[1]->getParent());
  }
}

TEST_F(SAXToNodeParserTest, AttributesAreKeyedByLocalNameAndTheLastListedWins) {
  XMLNode* root = parser.parseString(
      "<a xmlns:p='urn:1' xmlns:q='urn:2' p:k='1' q:k='2' plain='v &amp; w'/>");

  EXPECT_EQ(2u, root->getAttributes().size());
  EXPECT_EQ("2", root->getAttribute("k"));
  EXPECT_EQ("v & w", root->getAttribute("plain"));
}

TEST_F(SAXToNodeParserTest, MixedContentJoinsTheTextAroundChildren) {
  XMLNode* root = parser.parseString("<a>x<b>y</b>z<b>w</b></a>");

  EXPECT_EQ("xz", root->getValue());
  ASSERT_EQ(2u, root->getChildren().size());
  EXPECT_EQ("y", root->getChildren()[0]->getValue());
  EXPECT_EQ("w", root->getChildren()[1]->getValue());
}

TEST_F(SAXToNodeParserTest, WhitespaceBetweenChildrenIsKeptInTheParentValue) {
  XMLNode* root = parser.parseString("<r>\n  <c/>\n</r>");

  EXPECT_EQ("\n  \n", root->getValue());
}

TEST_F(SAXToNodeParserTest, CdataReferencesAndCommentsJoinIntoPlainText) {
  XMLNode* root = parser.parseString(
      "<r><a>&amp;<![CDATA[<]]></a><b>x<!-- gap -->y&#65;&#x42;</b></r>");

  EXPECT_EQ("&<", root->getChildren()[0]->getValue());
  EXPECT_EQ("xyAB", root->getChildren()[1]->getValue());
}

TEST_F(SAXToNodeParserTest, InternalSubsetEntitiesAndAttributeDefaultsStillApply) {
  XMLNode* root = parser.parseString(
      "<!DOCTYPE r [<!ATTLIST r d CDATA 'dflt'><!ENTITY i 'in<e/>ternal'>]><r>&i;</r>");

  EXPECT_EQ("internal", root->getValue());
  EXPECT_EQ("dflt", root->getAttribute("d"));
  ASSERT_EQ(1u, root->getChildren().size());
  EXPECT_EQ("e", root->getChildren()[0]->getName());
}

TEST_F(SAXToNodeParserTest, SubstitutionCharIsReplacedInTextAndAttributeValuesOnlyWhenOn) {
  const std::string xml = "<?xml version='1.1'?><r a='x&#x1A;y'>p&#x1A;q</r>";
  XMLNode* kept = parser.parseString(xml);
  EXPECT_EQ("p\x1Aq", kept->getValue());
  EXPECT_EQ("x\x1Ay", kept->getAttribute("a"));

  SAXToNodeParser::setReplaceSubstitutionChars(true);
  XMLNode* replaced = parser.parseString(xml);

  EXPECT_EQ("p?q", replaced->getValue());
  EXPECT_EQ("x?y", replaced->getAttribute("a"));
  EXPECT_EQ("r", replaced->getName());
}

TEST_F(SAXToNodeParserTest, EachParseReplacesTheTreeOfTheLastOne) {
  parser.parseString("<first><c/></first>");
  XMLNode* root = parser.parseString("<second/>");

  EXPECT_EQ("second", root->getName());
  EXPECT_TRUE(root->getChildren().empty());
  EXPECT_EQ(root, parser.getRoot());
}

TEST_F(SAXToNodeParserTest, GetRootOnANewParserGivesAnEmptyNodeThatTheNextParseReplaces) {
  XMLNode* empty = parser.getRoot();
  EXPECT_EQ("", empty->getName());
  EXPECT_TRUE(empty->getChildren().empty());

  XMLNode* root = parser.parseString("<a/>");

  EXPECT_EQ("a", root->getName());
  EXPECT_EQ(root, parser.getRoot());
}

TEST_F(SAXToNodeParserTest, FailedParseLeavesThePartialTreeAndTheParserReusable) {
  EXPECT_THROW(parser.parseString("<a>t<b>u</b><c>v"), DomException);
  XMLNode* partial = parser.getRoot();
  EXPECT_EQ("a", partial->getName());
  EXPECT_EQ("t", partial->getValue());
  ASSERT_EQ(2u, partial->getChildren().size());
  EXPECT_EQ("c", partial->getChildren()[1]->getName());

  EXPECT_THROW(parser.parseString("no markup"), DomException);
  EXPECT_EQ("", parser.getRoot()->getName());  // failed before the first element

  EXPECT_EQ("ok", parser.parseString("<ok/>")->getName());
}

TEST_F(SAXToNodeParserTest, TextBehindAnEmbeddedNulIsNotSeen) {
  XMLNode* root = parser.parseString(std::string("<a>x</a>\0<b>garbage", 19));
  EXPECT_EQ("a", root->getName());
  EXPECT_EQ("x", root->getValue());

  EXPECT_THROW(parser.parseString(std::string("<a>x\0</a>", 9)), DomException);
}
