#include "util/XmlScan.h"

#include <gtest/gtest.h>

#include <string>

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

const std::string::size_type npos = std::string::npos;

TEST(XmlScanTest, RootNamespaceComesFromTheRootsOwnDeclaration) {
  EXPECT_EQ(getRootNamespace("<?xml version=\"1.0\"?><r xmlns=\"urn:d\" a=\"1\"/>"), "urn:d");
  EXPECT_EQ(getRootNamespace("<p:r xmlns=\"urn:d\" xmlns:p=\"urn:p\"><c/></p:r>"), "urn:p");
  EXPECT_EQ(getRootNamespace("  <r id=\"1\"><c xmlns=\"urn:later\"/></r>"), "urn:later");
}

TEST(XmlScanTest, RootNamespaceIsEmptyWhereNoneCanBeFound) {
  EXPECT_EQ(getRootNamespace("<r><c xmlns=\"urn:c\"/></r>"), "");
  EXPECT_EQ(getRootNamespace("<p:r xmlns=\"urn:d\">"), "");
  EXPECT_EQ(getRootNamespace("no markup at all"), "");
  EXPECT_EQ(getRootNamespace(""), "");
  EXPECT_EQ(getRootNamespace("<?xml"), "");
  EXPECT_EQ(getRootNamespace("<"), "");
  EXPECT_EQ(getRootNamespace("<a<b:r xmlns:a<b=\"urn:x\">"), "");  // no prefix holds "<"
  EXPECT_EQ(getRootNamespace("<r xmlns=\"urn:cut"), "urn:cut");  // truncated: runs to the end
  EXPECT_EQ(getRootNamespace("<r xmlns=\""), "");
  EXPECT_EQ(getRootNamespace("<r "), "");
}

TEST(XmlScanTest, TagOffsetUsesThePrefixDeclaredForTheUri) {
  const std::string text = "<p:r xmlns:p=\"urn:p\"><p:item a=\"1\">x</p:item></p:r>";
  EXPECT_EQ(findTagOffset(text, "urn:p^item", true), text.find(" a="));
  EXPECT_EQ(findTagOffset(text, "urn:p^item", false), text.find("</p:item>"));
}

TEST(XmlScanTest, TagOffsetUsesTheBareLocalNameWithoutAPrefix) {
  const std::string text = "<r xmlns=\"urn:d\"><item>x</item></r>";
  EXPECT_EQ(findTagOffset(text, "urn:d^item", true), text.find("<item>") + 5);
  EXPECT_EQ(findTagOffset(text, "urn:absent^item", false), text.find("</item>"));
  EXPECT_EQ(findTagOffset("<r><item>x</item></r>", "item", true), 8u);
  EXPECT_EQ(findTagOffset("urn:a<x>", "urn:a^x", true), 7u);  // URI at the very start
  // What stands between "xmlns:" and the URI is no prefix if it holds markup.
  EXPECT_EQ(findTagOffset("<r xmlns:<<=\"urn:x\"><a/></r>", "urn:x^a", true), 22u);
}

TEST(XmlScanTest, TagOffsetIsNposForATagFoundNowhere) {
  EXPECT_EQ(findTagOffset("<r xmlns=\"urn:d\"/>", "urn:d^item", true), npos);
  EXPECT_EQ(findTagOffset("", "urn:d^item", false), npos);
  EXPECT_EQ(findTagOffset("", "", true), npos);
  EXPECT_EQ(findTagOffset("=\"urn:d", "urn:d^x", true), npos);
  EXPECT_EQ(findTagOffset("xmlns:Xurn:d", "urn:d^x", true), npos);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
