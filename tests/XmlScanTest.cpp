#include <gtest/gtest.h>

#include <string>

#include "util/XmlScan.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlScanTest, RootNamespaceComesFromTheRootsOwnDeclarationOrIsEmpty) {
  EXPECT_EQ(getRootNamespace("<?xml version=\"1.0\"?><r xmlns=\"urn:d\" a=\"1\"/>"), "urn:d");
  EXPECT_EQ(getRootNamespace("<?xml version=\"1.0\"?><p:r xmlns=\"urn:d\" xmlns:p=\"urn:p\"/>"),
            "urn:p");
  EXPECT_EQ(getRootNamespace("  <r id=\"1\"><c xmlns=\"urn:later\"/></r>"), "urn:later");
  EXPECT_EQ(getRootNamespace("<r xmlns=\"urn:cut"), "urn:cut");  // truncated: runs to the end
  for (const char* text :
       {"<r><c xmlns=\"urn:c\"/></r>", "<p:r xmlns=\"urn:d\">", "no markup", "", "<?xml", "<",
        "<r xmlns=\"", "<r ", "<a<b:r xmlns:a<b=\"urn:x\">"}) {  // no prefix holds "<"
    EXPECT_EQ(getRootNamespace(text), "") << text;
  }
}

TEST(XmlScanTest, TagOffsetUsesThePrefixDeclaredForTheUriOrElseTheBareLocalName) {
  const std::string prefixed = "<p:r xmlns:p=\"urn:p\"><p:item a=\"1\">x</p:item></p:r>";
  const std::string unprefixed = "<r xmlns=\"urn:d\"><item>x</item></r>";
  EXPECT_EQ(findTagOffset(prefixed, "urn:p^item", true), prefixed.find(" a="));
  EXPECT_EQ(findTagOffset(prefixed, "urn:p^item", false), prefixed.find("</p:item>"));
  EXPECT_EQ(findTagOffset(unprefixed, "urn:d^item", true), unprefixed.find("<item>") + 5);
  EXPECT_EQ(findTagOffset(unprefixed, "urn:absent^item", false), unprefixed.find("</item>"));
  EXPECT_EQ(findTagOffset("<r><item>x</item></r>", "item", true), 8u);
  EXPECT_EQ(findTagOffset("urn:a<x>", "urn:a^x", true), 7u);  // URI at the very start
  // What stands between "xmlns:" and the URI is no prefix if it holds markup.
  EXPECT_EQ(findTagOffset("<r xmlns:<<=\"urn:x\"><a/></r>", "urn:x^a", true), 22u);
  for (const char* text : {"<r xmlns=\"urn:d\"/>", "", "=\"urn:d", "xmlns:Xurn:d"}) {
    EXPECT_EQ(findTagOffset(text, "urn:d^item", true), std::string::npos) << text;
  }
  EXPECT_EQ(findTagOffset("", "", true), std::string::npos);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
