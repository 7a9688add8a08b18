// getRootNamespace and findTagOffset, the two plain-text scanners.
#include <gtest/gtest.h>

#include "util/XmlScan.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlScanTest, RootNamespaceComesFromTheRootsOwnDeclarationOrIsEmpty) {
  EXPECT_EQ(getRootNamespace("<?xml version=\"1.0\"?><r xmlns=\"urn:d\" a=\"1\"/>"), "urn:d");
  EXPECT_EQ(getRootNamespace("<?xml version=\"1.0\"?><p:r xmlns=\"urn:d\" xmlns:p=\"urn:p\"/>"),
            "urn:p");
  EXPECT_EQ(getRootNamespace("<r xmlns=\"urn:cut"), "urn:cut");
  for (const char* text : {"<r><c xmlns=\"urn:c\"/></r>", "no markup", "<?xml", "<r ",
                           "<a<b:r xmlns:a<b=\"urn:x\">"}) {
    EXPECT_EQ(getRootNamespace(text), "") << text;
  }
}

TEST(XmlScanTest, TagOffsetUsesThePrefixDeclaredForTheUriOrElseTheBareLocalName) {
  const std::string prefixed = "<p:r xmlns:p=\"urn:p\"><p:item a=\"1\">x</p:item></p:r>";
  EXPECT_EQ(findTagOffset(prefixed, "urn:p^item", true), prefixed.find(" a="));
  EXPECT_EQ(findTagOffset(prefixed, "urn:p^item", false), prefixed.find("</p:item>"));
  EXPECT_EQ(findTagOffset("<r xmlns=\"urn:d\"><item>", "urn:d^item", true), 22u);
  EXPECT_EQ(findTagOffset("<r xmlns:<<=\"urn:x\"><a/></r>", "urn:x^a", true), 22u);
  EXPECT_EQ(findTagOffset("<r xmlns=\"urn:d\"/>", "urn:d^item", true), std::string::npos);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
