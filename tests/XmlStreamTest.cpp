#include "util/XmlStream.h"

#include <gtest/gtest.h>

#include <string>

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

TEST(XmlStreamTest, PrefixesFollowUriOrderAndAreDeclaredOnTheFirstStartTagOnly) {
  XmlStream xml;
  EXPECT_TRUE(xml.isFirstElement());
  EXPECT_EQ(xml.getPrefix("urn:a"), "");

  xml.addNamespaces({"urn:b", "urn:a"});
  std::string first = xml.startTagOpen("urn:b", "root");
  std::string second = xml.startTagOpen("urn:a", "child");

  EXPECT_EQ(first, "\n<ns1:root xmlns:ns0=\"urn:a\" xmlns:ns1=\"urn:b\"");
  EXPECT_EQ(second, "\n<ns0:child");
  EXPECT_FALSE(xml.isFirstElement());
  EXPECT_EQ(xml.str(), "");  // markup is returned, not written
}

TEST(XmlStreamTest, AKnownUriKeepsItsPrefixAndSpendsNoNumber) {
  XmlStream xml;
  xml.addNamespaces({"urn:m"});
  EXPECT_FALSE(xml.addNamespace("urn:m"));
  xml.addNamespaces({"urn:m", "urn:a", "urn:z"});
  EXPECT_EQ(xml.getPrefix("urn:m"), "ns0");
  EXPECT_EQ(xml.getPrefix("urn:a"), "ns1");
  EXPECT_EQ(xml.getPrefix("urn:z"), "ns2");
}

TEST(XmlStreamTest, AFirstStartTagWithAnEmptyTableStillEndsTheFirstElement) {
  XmlStream xml;
  EXPECT_EQ(xml.startTagOpen("urn:a", "root"), "\n<root");
  xml.addNamespaces({"urn:a"});
  EXPECT_EQ(xml.startTagOpen("urn:a", "child"), "\n<ns0:child");
}

TEST(XmlStreamTest, TagsAreQualifiedOnlyWithoutAColonAndWithAKnownUri) {
  XmlStream xml;
  xml.addNamespaces({"urn:a"});
  EXPECT_EQ(xml.startTagOpen("urn:unknown", "t"), "\n<t xmlns:ns0=\"urn:a\"");
  EXPECT_EQ(xml.startTagOpen("urn:a", "x:t"), "\n<x:t");
  EXPECT_EQ(xml.endTag("urn:a", "x:t"), "</x:t>");
  EXPECT_EQ(xml.endTag("urn:a", "t"), "</ns0:t>");
  EXPECT_EQ(xml.endTag("urn:unknown", "t"), "</t>");
  EXPECT_EQ(xml.endTag("urn:a", ""), "</ns0:>");
}

TEST(XmlStreamTest, StartTagPutsDeclarationsBeforeAttributesInTheirOrder) {
  XmlStream xml;
  xml.addNamespaces({"urn:a"});
  EXPECT_EQ(xml.startTag("urn:a", "e", {{"z", "1"}, {"a", "2\""}, {"z", "3"}}),
            "\n<ns0:e xmlns:ns0=\"urn:a\" z=\"1\" a=\"2\"\" z=\"3\">");
  EXPECT_EQ(xml.startTag("urn:a", "e", {}), "\n<ns0:e>");
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
