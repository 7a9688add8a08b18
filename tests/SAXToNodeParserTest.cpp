// SAXToNodeParser and the XMLNode tree it builds: what a document becomes, what a failure says,
// and what the reader refuses to read or to build.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <tuple>

#include "client/KsMEMConnection.h"
#include "tests/ThrownBy.h"
#include "util/SAXToNodeParser.h"

using namespace Kestrane::Net::KsModelEventManager;
using namespace Kestrane::Net::KsModelEventManager::Util;

namespace {

// A node and its subtree on one line: {URI}name, key=value per attribute, the value in quotes,
// each child in brackets. Checks on the way that every child points back to its parent.
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

std::string nested(int depth) {
  std::string open, close;
  for (int i = 0; i < depth; ++i) open += "<e>", close += "</e>";
  return open + close;
}

class SAXToNodeParserTest : public ::testing::Test {
 protected:
  void TearDown() override { SAXToNodeParser::setReplaceSubstitutionChars(false); }

  // What parsing `xml`, or the file at `path`, throws.
  std::string failureOf(const std::string& xml, const std::string& path = "") {
    return thrownBy([&] { path.empty() ? parser.parseString(xml) : parser.parseFile(path); });
  }

  const Client::KsMEMConnection xmlLibrary;  // holds the XML library started
  SAXToNodeParser parser;
};

TEST_F(SAXToNodeParserTest, TreeHoldsElementsByUriAndLocalNameAttributesByLocalNameAndAllText) {
  const std::pair<std::string, std::string> documents[] = {
      {"<?xml version='1.0'?>\n<!-- c --><p:a xmlns:p='urn:x'><p:b/><c/></p:a><?pi x?>",
       "{urn:x}a '' [{urn:x}b ''] [{}c '']"},
      {"<a xmlns='urn:x' xmlns:q='urn:2' k='1' q:k='2' z='v &amp; w'><c xmlns=''/></a>",
       "{urn:x}a k=2 z=v & w '' [{}c '']"},
      {"<r>x\n<b>y</b><![CDATA[<]]>z&#65;<!-- gap --><b/></r>", "{}r 'x\n<zA' [{}b 'y'] [{}b '']"},
      {"<!DOCTYPE r [<!ATTLIST r d CDATA 'dflt'><!ENTITY i 'in<e/>ternal'>]><r>&i;</r>",
       "{}r d=dflt 'internal' [{}e '']"},
      {std::string("<a>x</a>\0<b>garbage", 19), "{}a 'x'"},
  };
  EXPECT_EQ(shape(*parser.getRoot()), "{} ''");
  for (const auto& [xml, tree] : documents) {
    EXPECT_EQ(shape(*parser.parseString(xml)), tree) << xml;
    EXPECT_EQ(parser.getRoot()->getParent(), nullptr);
  }
  std::string siblings = "<r a=''>";
  for (int i = 0; i < 300; ++i) siblings += "<e/>";
  const XMLNode* root = parser.parseString(siblings + "</r>");
  EXPECT_EQ(root->getChildren().size(), 300u);
  EXPECT_TRUE(root->hasAttribute("a") && !root->hasAttribute("b") &&
              root->getAttribute("b").empty());
  EXPECT_EQ(failureOf("<a>t<b>u</b><c>v").substr(0, 34), "DomException Fatal Error: parsing:");
  EXPECT_EQ(shape(*parser.getRoot()).substr(0, 23), "{}a 't' [{}b 'u'] [{}c ");  // partial
}

TEST_F(SAXToNodeParserTest, SubstitutionCharIsReplacedInTextAndAttributeValuesOnlyWhenSwitchedOn) {
  const std::string xml = "<?xml version='1.1'?><r a='x&#x1A;y'>p&#x1A;q</r>";
  EXPECT_EQ(shape(*parser.parseString(xml)), "{}r a=x\x1Ay 'p\x1Aq'");
  SAXToNodeParser::setReplaceSubstitutionChars(true);
  EXPECT_EQ(shape(*parser.parseString(xml)), "{}r a=x?y 'p?q'");
}

TEST_F(SAXToNodeParserTest, FailureSaysWhereAndWhyAndNothingOutsideTheDocumentIsRead) {
  const std::string secret = ::testing::TempDir() + "ksmem_secret.txt";
  std::ofstream(secret) << "SECRET";
  const std::string missing = ::testing::TempDir() + "ksmem_no_such_reply.xml";
  const std::string laughs =
      "<!DOCTYPE r [<!ENTITY a 'aaaaaaaaaa'><!ENTITY b '&a;&a;&a;&a;&a;"
      "&a;&a;&a;&a;&a;'><!ENTITY c '&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;'>"
      "<!ENTITY d '&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;'>]><r>&d;&d;</r>";
  std::string elements;
  for (int i = 0; i < 10000; ++i) elements += "<e/>";
  const std::string kb100(100 * 1024, 'v'), tooLarge = "' would build a tree of more than ";
  const std::tuple<std::string, std::string, std::string> documents[] = {
      {"<a>\n<b></a>", "",
       "Fatal Error: parsing: From-String: line 2, char 6\nMessage: expected end of tag 'b'\n"},
      {"", missing, "XML Document '" + missing + "' does not exist.\n"},
      {nested(SAXToNodeParser::kMaxDepth + 1), "",
       "XML Document 'From String' nests elements deeper than 256 levels.\n"},
      {"<!DOCTYPE r [<!ENTITY e SYSTEM 'file://" + secret + "'>]><r>&e;</r>", "",
       "unable to open external entity"},
      {"<!DOCTYPE r SYSTEM 'file://" + secret + "'><r/>", "", "unable to open DTD document"},
      {laughs, "", "more than '1000' entity expansions"},
      // 1 GiB of attribute defaults, or of namespace URIs, from 140 KiB.
      {"<!DOCTYPE r [<!ATTLIST e d CDATA '" + kb100 + "'>]><r>" + elements + "</r>", "", tooLarge},
      {"<r xmlns='urn:" + kb100 + "'>" + elements + "</r>", "", tooLarge},
  };
  for (const auto& [xml, path, expected] : documents) {
    const std::string message = failureOf(xml, path);
    EXPECT_NE(message.find(expected), std::string::npos) << message;
    EXPECT_EQ((message + parser.getRoot()->getValue()).find("SECRET"), std::string::npos);
  }
  std::remove(secret.c_str());
}

TEST_F(SAXToNodeParserTest, PrintOutlinesTheElementNamesTwoBlanksDeeperPerLevel) {
  std::ostringstream outline, deepest;
  parser.parseString("<p:a xmlns:p='urn:x' k='v'>text<b><c>&lt;</c></b><d/></p:a>")
      ->print(outline, "  ");
  parser.parseString(nested(SAXToNodeParser::kMaxDepth))->print(deepest, "");

  EXPECT_EQ(outline.str(),
            "  <a>\n    <b>\n      <c>\n      </c>\n    </b>\n    <d>\n    </d>\n  </a>\n");
  const std::string lines = deepest.str();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2 * SAXToNodeParser::kMaxDepth);
}

}  // namespace
