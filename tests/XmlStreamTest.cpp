#include <gtest/gtest.h>

#include <string>

#include "util/XmlStream.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlStreamTest, PrefixesAreNumberedWithoutGapsAndDeclaredInUriOrderOnTheFirstStartTagOnly) {
  XmlStream xml;
  EXPECT_TRUE(xml.isFirstElement());
  EXPECT_EQ(xml.getPrefix("urn:a"), "");

  xml.addNamespaces({"urn:c", "urn:b"});
  EXPECT_FALSE(xml.addNamespace("urn:b"));  // known: keeps its prefix and spends no number
  xml.addNamespaces({"urn:b", "urn:a"});
  const std::string first =
      xml.startTag("urn:unknown", "e", {{"z", "1"}, {"a", "2\""}, {"z", "3"}});
  const std::string second = xml.startTagOpen("urn:a", "child");

  EXPECT_EQ(first,
            "\n<e xmlns:ns2=\"urn:a\" xmlns:ns0=\"urn:b\" xmlns:ns1=\"urn:c\" z=\"1\" "
            "a=\"2\"\" z=\"3\">");
  EXPECT_EQ(second, "\n<ns2:child");
  EXPECT_FALSE(xml.isFirstElement());
  EXPECT_EQ(xml.str(), "");  // markup is returned, not written
}

TEST(XmlStreamTest, TagsAreQualifiedOnlyWithoutAColonAndWithAKnownUri) {
  XmlStream xml;
  EXPECT_EQ(xml.startTagOpen("urn:a", "root"), "\n<root");  // the first element, table or not
  xml.addNamespaces({"urn:a"});
  EXPECT_EQ(xml.startTagOpen("urn:a", "child"), "\n<ns0:child");
  EXPECT_EQ(xml.startTagOpen("urn:a", "x:t"), "\n<x:t");
  EXPECT_EQ(xml.startTag("urn:a", "e", {}), "\n<ns0:e>");
  EXPECT_EQ(xml.endTag("urn:a", "x:t"), "</x:t>");
  EXPECT_EQ(xml.endTag("urn:a", "t"), "</ns0:t>");
  EXPECT_EQ(xml.endTag("urn:unknown", "t"), "</t>");
  EXPECT_EQ(xml.endTag("urn:a", ""), "</ns0:>");
}

TEST(XmlStreamTest, RemoveNamespaceDropsOnlyAPrefixItsScopeMade) {
  XmlStream xml;
  xml.removeNamespace("urn:a");  // no scope open: nothing happens
  xml.addNamespaces({"urn:kept"});
  EXPECT_TRUE(xml.addNamespace("urn:a"));
  EXPECT_FALSE(xml.addNamespace("urn:kept"));

  xml.removeNamespace("urn:kept");
  xml.removeNamespace("urn:a");

  EXPECT_EQ(xml.getPrefix("urn:kept"), "ns0");
  EXPECT_EQ(xml.getPrefix("urn:a"), "");
  EXPECT_TRUE(xml.addNamespace("urn:a"));
  EXPECT_EQ(xml.getPrefix("urn:a"), "ns2");
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
