// SharedClientIDs and its base BaseObject: the XML written and read, lists that are only ever
// appended to, and the reference count that copies carry and clones restart; and the namespace
// scopes of the XmlStream it writes to.
#include <gtest/gtest.h>

#include <memory>
#include <tuple>

#include "client/KsMEMConnection.h"
#include "schemas/_2009_06/base/Namespace.h"
#include "schemas/_2009_06/base/SharedClientIDs.h"
#include "tests/ThrownBy.h"
#include "util/SAXToNodeParser.h"
#include "util/XmlStream.h"

namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base {
namespace {

using Net::KsModelEventManager::Util::BaseObject;
using Net::KsModelEventManager::Util::XmlStream;
using List = std::vector<std::string>;

const std::string kUri = kBaseNamespaceURI;

SharedClientIDs objectWith(const List& entries) {
  SharedClientIDs object;
  object.addSharedClientID("first");
  object.setSharedClients(entries);
  return object;
}

List entriesOf(const SharedClientIDs& object) {
  List entries = {"kept"};
  object.getSharedClients(entries);
  return entries;
}

class SharedClientIDsTest : public ::testing::Test {
  // Holds the XML library started.
  const Net::KsModelEventManager::Client::KsMEMConnection xmlLibrary;
};

TEST_F(SharedClientIDsTest, OutputXMLDeclaresTheNamespaceOnTheFirstElementAndPrefixesEveryChild) {
  XmlStream two, colonTag, foreign;
  objectWith({"b<c"}).outputXML(two, "SharedClientIDs");
  SharedClientIDs().outputXML(two, "SharedClientIDs");
  SharedClientIDs().outputXML(colonTag, "my:list");
  foreign << foreign.startTagOpen("urn:other", "root") << foreign.startTagClose(true);
  objectWith({}).outputXML(foreign, "list");

  EXPECT_EQ(two.str(), "\n<ns0:SharedClientIDs xmlns:ns0=\"" + kUri +
                           "\"><ns0:sharedClients>first</ns0:sharedClients><ns0:sharedClients>"
                           "b&lt;c</ns0:sharedClients></ns0:SharedClientIDs>\n"
                           "<ns0:SharedClientIDs></ns0:SharedClientIDs>");
  EXPECT_EQ(colonTag.str(), "\n<my:list xmlns:ns0=\"" + kUri + "\"></my:list>");
  EXPECT_EQ(foreign.str(), "\n<root/>\n<list><sharedClients>first</sharedClients></list>");
}

TEST_F(SharedClientIDsTest, ParseAppendsEveryEntryUntilAChildOfAnotherName) {
  const List entries = {"\t\n\"%&'<>", "", "caf\xC3\xA9 \xF0\x9D\x84\x9E", "&amp; ]]>"};
  SharedClientIDs source;
  source.setSharedClients(entries);
  XmlStream written;
  source.outputXML(written, "SharedClientIDs");
  const std::tuple<std::string, List, std::string> replies[] = {
      {written.str(), entriesOf(objectWith(entries)), ""},
      {"<r xmlns:o='urn:o'><sharedClients>a</sharedClients><o:sharedClients/></r>",
       {"kept", "first", "a", ""},
       ""},
      {"<r><sharedClients>a</sharedClients><SharedClients>b</SharedClients></r>",
       {"kept", "first", "a"},
       "DomException Unexpected node name: SharedClients"},
  };
  for (const auto& [reply, appended, failure] : replies) {
    SharedClientIDs object = objectWith({});
    Net::KsModelEventManager::Util::SAXToNodeParser parser;
    const auto& root = *parser.parseString(reply);  // a binding, which a lambda cannot capture
    EXPECT_EQ(thrownBy([&] { object.parse(root); }), failure);
    EXPECT_EQ(entriesOf(object), appended);
  }
}

// A schema object that notes its own end.
struct Probe : SharedClientIDs {
  ~Probe() override { deleted = true; }
  static inline bool deleted = false;
};

TEST(BaseObjectTest, OnlyTheUnrefToZeroDeletesAndClonesStartAtZeroWhereCopiesCarryTheCount) {
  BaseObject* object = new Probe;
  object->unref();  // to -1
  object->ref();
  object->ref();
  EXPECT_EQ(object->askRefCount(), 1);
  EXPECT_FALSE(Probe::deleted);
  object->unref();
  EXPECT_TRUE(Probe::deleted);

  SharedClientIDs source = objectWith({"a"}), moved = objectWith({}), assigned;
  source.ref();
  const std::unique_ptr<SharedClientIDs> clone(static_cast<SharedClientIDs*>(source.clone())),
      copy(source.reallyClone());
  assigned = std::move(moved);

  EXPECT_EQ(clone->askRefCount(), 0);
  EXPECT_EQ(copy->askRefCount(), 1);
  EXPECT_EQ(entriesOf(*clone), (List{"kept", "first", "a"}));
  EXPECT_EQ(entriesOf(moved), List{"kept"});
  EXPECT_EQ(entriesOf(assigned), (List{"kept", "first"}));
}

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
}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base
