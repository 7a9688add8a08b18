// XmlStream's namespace scopes. How a stream forms markup and declares its namespaces, the
// output tests of SharedClientIDs show.
#include <gtest/gtest.h>

#include "util/XmlStream.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlStreamTest, RemoveNamespaceDropsOnlyAPrefixItsScopeMade) {
  XmlStream xml;
  xml.removeNamespace("urn:a");  // no scope open: nothing happens
  xml.addNamespaces({"urn:kept"});
  EXPECT_TRUE(xml.addNamespace("urn:a"));
  EXPECT_FALSE(xml.addNamespace("urn:kept"));
  xml.removeNamespace("urn:kept");
  xml.removeNamespace("urn:a");

  EXPECT_EQ(xml.getPrefix("urn:kept") + "|" + xml.getPrefix("urn:a"), "ns0|");
  xml.addNamespace("urn:a");
  EXPECT_EQ(xml.getPrefix("urn:a"), "ns2");
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
