#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/XercesFixture.h"
#include "util/DomException.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Kestrane::Net::KsModelEventManager::Util::DomException;
using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Net::KsModelEventManager::Util::XMLNode;

namespace {

// A file under the test temporary directory, removed at the end of the scope.
class TempFile {
 public:
  TempFile(const std::string& name, const std::string& content)
      : path(::testing::TempDir() + "ksmem_xml_" + name) {
    std::ofstream(path) << content;
  }
  ~TempFile() { std::remove(path.c_str()); }

  const std::string path;
};

const char kSecret[] = "SECRET-CONTENT-4711";

}  // namespace

class SAXToNodeParserDiagnostics : public XercesFixture {
 protected:
  // The message of the DomException that parsing xml throws; fails the test if none is thrown.
  std::string failureOf(const std::string& xml) {
    try {
      parser.parseString(xml);
    } catch (const DomException& e) {
      return e.getMessage();
    }
    ADD_FAILURE() << "no DomException for: " << xml;
    return std::string();
  }

  SAXToNodeParser parser;
};

TEST_F(SAXToNodeParserDiagnostics, MalformedDocumentNamesBufferLineColumnAndReaderMessage) {
  EXPECT_EQ(
      "Fatal Error: parsing: From-String: line 2, char 6\n"
      "Message: expected end of tag 'b'\n",
      failureOf("<a>\n<b></a>"));
  EXPECT_EQ(
      "Fatal Error: parsing: From-String: line 1, char 1\n"
      "Message: invalid document structure\n",
      failureOf(""));
}

TEST_F(SAXToNodeParserDiagnostics, MissingFileIsNamedAsTheCallerGaveIt) {
  parser.parseString("<a/>");
  const std::string missing = ::testing::TempDir() + "ksmem_no_such_reply.xml";

  try {
    parser.parseFile(missing);
    FAIL() << "no DomException";
  } catch (const DomException& e) {
    EXPECT_EQ("XML Document '" + missing + "' does not exist.\n", e.getMessage());
  }
}

TEST_F(SAXToNodeParserDiagnostics, ParseFileReadsALocalDocument) {
  TempFile reply("reply.xml", "<r><c>1</c></r>");

  XMLNode* root = parser.parseFile(reply.path);

  ASSERT_EQ(1u, root->getChildren().size());
  EXPECT_EQ("1", root->getChildren()[0]->getValue());
}

TEST_F(SAXToNodeParserDiagnostics, SubstitutionCharInAMessageIsAlwaysReplaced) {
  const std::string message = failureOf(
      "<?xml version='1.1'?><!DOCTYPE r [<!ENTITY e SYSTEM 'file:///none\x1A'>]><r>&e;</r>");

  EXPECT_NE(std::string::npos, message.find("'file:///none?'")) << message;
}

TEST_F(SAXToNodeParserDiagnostics, ReaderWarningChangesNothing) {
  XMLNode* root = parser.parseString(
      "<!DOCTYPE r [<!ATTLIST r a CDATA 'x'><!ATTLIST r a CDATA 'y'>]><r>t</r>");

  EXPECT_EQ("x", root->getAttribute("a"));
  EXPECT_EQ("t", root->getValue());
}

TEST_F(SAXToNodeParserDiagnostics, ExternalEntityToALocalFileIsNeverRead) {
  TempFile secret("secret.txt", kSecret);
  TempFile entityDocument("entity.xml", "<!DOCTYPE r [<!ENTITY e SYSTEM 'ksmem_xml_secret.txt'>]>"
                                        "<r>&e;</r>");
  const std::string documents[] = {
      "<!DOCTYPE r [<!ENTITY e SYSTEM 'file://" + secret.path + "'>]><r>&e;</r>",
      "<!DOCTYPE r [<!ENTITY % p SYSTEM '" + secret.path + "'> %p;]><r/>",
  };

  for (const std::string& xml : documents) {
    const std::string message = failureOf(xml);
    EXPECT_NE(std::string::npos, message.find("unable to open external entity")) << message;
    EXPECT_EQ(std::string::npos, message.find(kSecret));
    EXPECT_EQ(std::string::npos, parser.getRoot()->getValue().find(kSecret));
  }
  // Beside a file, a relative reference would resolve next to it.
  EXPECT_THROW(parser.parseFile(entityDocument.path), DomException);
  EXPECT_EQ(std::string::npos, parser.getRoot()->getValue().find(kSecret));
}

TEST_F(SAXToNodeParserDiagnostics, ExternalDtdIsNeverRead) {
  TempFile dtd("external.dtd", std::string("<!ENTITY x '") + kSecret + "'>");

  const std::string message =
      failureOf("<!DOCTYPE r SYSTEM 'file://" + dtd.path + "'><r>&x;</r>");

  EXPECT_NE(std::string::npos, message.find("unable to open DTD document")) << message;
  EXPECT_EQ(std::string::npos, message.find(kSecret));
}

TEST_F(SAXToNodeParserDiagnostics, SchemaLocationHintIsIgnoredNotFetched) {
  TempFile schema("schema.xsd", kSecret);  // not a schema: reading it would fail the parse

  XMLNode* root = parser.parseString(
      "<r xmlns='urn:a' xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
      "xsi:schemaLocation='urn:a file://" + schema.path + "'><c/></r>");

  EXPECT_EQ(1u, root->getChildren().size());
  EXPECT_TRUE(root->hasAttribute("schemaLocation"));
}

TEST_F(SAXToNodeParserDiagnostics, BillionLaughsFailsFastAtTheExpansionLimit) {
  std::ostringstream subset;
  subset << "<!ENTITY l0 'lol'>";
  for (int i = 1; i < 10; ++i) {
    subset << "<!ENTITY l" << i << " '";
    for (int j = 0; j < 10; ++j) subset << "&l" << i - 1 << ";";
    subset << "'>";
  }
  const std::string doctype = "<!DOCTYPE r [" + subset.str() + "]>";

  for (const std::string& body : {std::string("<r>&l9;</r>"), std::string("<r a='&l9;'/>")}) {
    const auto start = std::chrono::steady_clock::now();
    const std::string message = failureOf(doctype + body);
    const auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_NE(std::string::npos, message.find("more than '1000' entity expansions")) << message;
    EXPECT_LT(elapsed, std::chrono::seconds(1));
  }
}

TEST_F(SAXToNodeParserDiagnostics, SmallReplyCannotBuildAHugeTree) {
  const std::string kb100(100 * 1024, 'v');
  std::string manyElements;
  for (int i = 0; i < 10000; ++i) manyElements += "<e/>";
  std::string elementEntity = "<!ENTITY e '" + manyElements.substr(0, 400) + "'>";
  std::string entityUses;
  for (int i = 0; i < 990; ++i) entityUses += "&e;";

  for (const std::string& xml : {
           // A 100 KiB attribute default on each of 10000 elements: 1 GiB from 140 KiB.
           "<!DOCTYPE r [<!ATTLIST e d CDATA '" + kb100 + "'>]><r>" + manyElements + "</r>",
           // A 100 KiB namespace URI copied into each of 10000 nodes.
           "<r xmlns='urn:" + kb100 + "'>" + manyElements + "</r>",
           // An entity of 100 elements, used 990 times: under the expansion limit.
           "<!DOCTYPE r [" + elementEntity + "]><r>" + entityUses + "</r>"}) {
    const std::string message = failureOf(xml);

    EXPECT_EQ(0u, message.find("XML Document 'From String' would build a tree of more than "))
        << message;
  }
}

TEST_F(SAXToNodeParserDiagnostics, NestingBeyondTheDepthBoundFails) {
  const int limit = SAXToNodeParser::kMaxDepth;
  auto nested = [](int depth) {
    std::string xml;
    for (int i = 0; i < depth; ++i) xml += "<e>";
    for (int i = 0; i < depth; ++i) xml += "</e>";
    return xml;
  };
  XMLNode* deepest = parser.parseString(nested(limit));
  std::ostringstream out;
  deepest->print(out, "");
  const std::string outline = out.str();
  EXPECT_EQ(2 * limit, std::count(outline.begin(), outline.end(), '\n'));

  EXPECT_EQ("XML Document 'From String' nests elements deeper than 256 levels.\n",
            failureOf(nested(limit + 1)));
}
