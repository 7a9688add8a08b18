#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/XercesFixture.h"
#include "util/DomException.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Kestrane::Net::KsModelEventManager::Util::DomException;
using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Net::KsModelEventManager::Util::XMLNode;

namespace {

// A file under the test temporary directory, removed at the end of the scope.
struct TempFile {
  TempFile(const std::string& name, const std::string& content)
      : path(::testing::TempDir() + "ksmem_xml_" + name) {
    std::ofstream(path) << content;
  }
  ~TempFile() { std::remove(path.c_str()); }

  const std::string path;
};

const char kSecret[] = "SECRET-CONTENT-4711";

std::string nested(int depth) {
  std::string xml;
  for (int i = 0; i < depth; ++i) xml += "<e>";
  for (int i = 0; i < depth; ++i) xml += "</e>";
  return xml;
}

}  // namespace

class SAXToNodeParserDiagnostics : public XercesFixture {
 protected:
  // The message of the DomException that parsing xml (or the file at `path`) throws; fails
  // the test if none is thrown.
  std::string failureOf(const std::string& xml, const std::string& path = "") {
    try {
      path.empty() ? parser.parseString(xml) : parser.parseFile(path);
    } catch (const DomException& e) {
      return e.getMessage();
    }
    ADD_FAILURE() << "no DomException for: " << xml << path;
    return std::string();
  }

  SAXToNodeParser parser;
};

TEST_F(SAXToNodeParserDiagnostics, FailureTextNamesTheDocumentWhereAndWhy) {
  const std::string missing = ::testing::TempDir() + "ksmem_no_such_reply.xml";
  EXPECT_EQ(
      "Fatal Error: parsing: From-String: line 2, char 6\n"
      "Message: expected end of tag 'b'\n",
      failureOf("<a>\n<b></a>"));
  EXPECT_EQ(
      "Fatal Error: parsing: From-String: line 1, char 1\n"
      "Message: invalid document structure\n",
      failureOf(""));
  EXPECT_EQ("XML Document 'From String' nests elements deeper than 256 levels.\n",
            failureOf(nested(SAXToNodeParser::kMaxDepth + 1)));
  EXPECT_EQ("XML Document '" + missing + "' does not exist.\n", failureOf("", missing));
  // A substitution char in the text is replaced whatever the switch says.
  EXPECT_NE(std::string::npos,
            failureOf("<?xml version='1.1'?><!DOCTYPE r [<!ENTITY e SYSTEM 'file:///none\x1A'>]>"
                      "<r>&e;</r>")
                .find("'file:///none?'"));
}

TEST_F(SAXToNodeParserDiagnostics, NothingOutsideTheDocumentIsRead) {
  TempFile secret("secret.txt", kSecret);
  TempFile dtd("external.dtd", std::string("<!ENTITY x '") + kSecret + "'>");
  TempFile schema("schema.xsd", kSecret);  // not a schema: reading it would fail the parse
  // Beside a file, a relative reference would resolve next to it.
  TempFile besideSecret("entity.xml",
                        "<!DOCTYPE r [<!ENTITY e SYSTEM 'ksmem_xml_secret.txt'>]><r>&e;</r>");
  const struct {
    std::string xml, path, reason;
  } documents[] = {
      {"<!DOCTYPE r [<!ENTITY e SYSTEM 'file://" + secret.path + "'>]><r>&e;</r>", "",
       "unable to open external entity"},
      {"<!DOCTYPE r [<!ENTITY % p SYSTEM '" + secret.path + "'> %p;]><r/>", "",
       "unable to open external entity"},
      {"", besideSecret.path, "unable to open external entity"},
      {"<!DOCTYPE r SYSTEM 'file://" + dtd.path + "'><r>&x;</r>", "",
       "unable to open DTD document"},
  };
  for (const auto& document : documents) {
    const std::string message = failureOf(document.xml, document.path);
    EXPECT_NE(std::string::npos, message.find(document.reason)) << message;
    EXPECT_EQ(std::string::npos, message.find(kSecret));
    EXPECT_EQ(std::string::npos, parser.getRoot()->getValue().find(kSecret));
  }

  const XMLNode* root = parser.parseString(
      "<r xmlns='urn:a' xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
      "xsi:schemaLocation='urn:a file://" +
      schema.path + "'><c>1</c></r>");
  EXPECT_EQ("1", root->getChildren().at(0)->getValue());
  EXPECT_TRUE(root->hasAttribute("schemaLocation"));
}

TEST_F(SAXToNodeParserDiagnostics, DocumentsThatWouldGrowBeyondTheBoundsFailFast) {
  std::ostringstream laughs;
  laughs << "<!DOCTYPE r [<!ENTITY l0 'lol'>";
  for (int i = 1; i < 10; ++i) {
    laughs << "<!ENTITY l" << i << " '";
    for (int j = 0; j < 10; ++j) laughs << "&l" << i - 1 << ";";
    laughs << "'>";
  }
  laughs << "]>";
  const std::string kb100(100 * 1024, 'v');
  std::string manyElements, entityUses;
  for (int i = 0; i < 10000; ++i) manyElements += "<e/>";
  for (int i = 0; i < 990; ++i) entityUses += "&e;";
  const std::string hugeTree = "XML Document 'From String' would build a tree of more than ";
  const struct {
    std::string xml, reason;
  } documents[] = {
      {laughs.str() + "<r>&l9;</r>", "more than '1000' entity expansions"},
      {laughs.str() + "<r a='&l9;'/>", "more than '1000' entity expansions"},
      // A 100 KiB attribute default on each of 10000 elements: 1 GiB from 140 KiB.
      {"<!DOCTYPE r [<!ATTLIST e d CDATA '" + kb100 + "'>]><r>" + manyElements + "</r>", hugeTree},
      // A 100 KiB namespace URI copied into each of 10000 nodes.
      {"<r xmlns='urn:" + kb100 + "'>" + manyElements + "</r>", hugeTree},
      // An entity of 100 elements, used 990 times: under the expansion limit.
      {"<!DOCTYPE r [<!ENTITY e '" + manyElements.substr(0, 400) + "'>]><r>" + entityUses + "</r>",
       hugeTree},
  };
  for (const auto& document : documents) {
    const auto start = std::chrono::steady_clock::now();
    const std::string message = failureOf(document.xml);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_NE(std::string::npos, message.find(document.reason)) << message;
  }

  std::ostringstream outline;  // the deepest document that is allowed
  parser.parseString(nested(SAXToNodeParser::kMaxDepth))->print(outline, "");
  const std::string lines = outline.str();
  EXPECT_EQ(2 * SAXToNodeParser::kMaxDepth, std::count(lines.begin(), lines.end(), '\n'));
}
