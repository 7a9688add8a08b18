#include "schemas/_2009_06/base/SharedClientIDs.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "schemas/_2009_06/base/Namespace.h"
#include "tests/XercesFixture.h"
#include "util/DomException.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"
#include "util/XmlStream.h"

namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base {
namespace {

using Net::KsModelEventManager::Util::DomException;
using Net::KsModelEventManager::Util::SAXToNodeParser;
using Net::KsModelEventManager::Util::XmlStream;
using List = std::vector<std::string>;

const std::string kUri = kBaseNamespaceURI;

List entriesOf(const SharedClientIDs& object) {
  List entries;
  object.getSharedClients(entries);
  return entries;
}

SharedClientIDs objectWith(const List& entries) {
  SharedClientIDs object;
  object.setSharedClients(entries);
  return object;
}

TEST(SharedClientIDsTest, OutputXMLWritesOneDocumentAcrossObjectsOnAStream) {
  XmlStream xml;
  objectWith({"alpha", "b<c"}).outputXML(xml, "SharedClientIDs");
  objectWith({"d"}).outputXML(xml, "SharedClientIDs");

  EXPECT_EQ(xml.str(),
            "\n<ns0:SharedClientIDs xmlns:ns0=\"" + kUri + "\">"
            "<ns0:sharedClients>alpha</ns0:sharedClients>"
            "<ns0:sharedClients>b&lt;c</ns0:sharedClients>"
            "</ns0:SharedClientIDs>"
            "\n<ns0:SharedClientIDs><ns0:sharedClients>d</ns0:sharedClients>"
            "</ns0:SharedClientIDs>");
}

TEST(SharedClientIDsTest, OutputXMLOfAnEmptyListStillWritesStartAndEndTags) {
  XmlStream xml;
  SharedClientIDs().outputXML(xml, "SharedClientIDs");
  EXPECT_EQ(xml.str(),
            "\n<ns0:SharedClientIDs xmlns:ns0=\"" + kUri + "\"></ns0:SharedClientIDs>");
}

TEST(SharedClientIDsTest, OutputXMLPrefixesChildrenWhateverTheTagAndOnlyWithAKnownUri) {
  XmlStream declared;
  objectWith({"", "x"}).outputXML(declared, "my:list");
  XmlStream undeclared;
  undeclared << undeclared.startTagOpen("urn:other", "root") << ">";
  objectWith({"y"}).outputXML(undeclared, "list");

  EXPECT_EQ(declared.str(),
            "\n<my:list xmlns:ns0=\"" + kUri + "\">"
            "<ns0:sharedClients></ns0:sharedClients>"
            "<ns0:sharedClients>x</ns0:sharedClients></my:list>");
  EXPECT_EQ(undeclared.str(), "\n<root>\n<list><sharedClients>y</sharedClients></list>");
}

TEST(SharedClientIDsTest, EntriesAreAlwaysAppendedNeverReplaced) {
  SharedClientIDs object;
  object.addSharedClientID("a");
  object.setSharedClients({"b", "a"});
  List out = {"kept"};
  object.getSharedClients(out);
  std::set<std::string> namespaces = {kUri, "urn:x"};
  object.getNamespaces(namespaces);

  EXPECT_EQ(out, (List{"kept", "a", "b", "a"}));
  EXPECT_EQ(namespaces, (std::set<std::string>{kUri, "urn:x"}));
}

TEST(SharedClientIDsTest, MovesTakeTheListAndLeaveTheSourceEmptyWithItsCount) {
  SharedClientIDs source = objectWith({"a", "b"});
  source.ref();
  SharedClientIDs moved(std::move(source));
  SharedClientIDs target = objectWith({"old"});
  target = std::move(moved);
  SharedClientIDs& alias = target;
  target = std::move(alias);

  EXPECT_EQ(entriesOf(target), (List{"a", "b"}));
  EXPECT_EQ(target.askRefCount(), 1);
  EXPECT_EQ(entriesOf(source), List{});
  EXPECT_EQ(source.askRefCount(), 1);
  EXPECT_EQ(entriesOf(moved), List{});
  EXPECT_EQ(moved.askRefCount(), 1);
}

class SharedClientIDsXmlTest : public XercesFixture {
 protected:
  // Appends what `document` holds to `object`; the tree lives only for this call.
  static void parseInto(SharedClientIDs& object, const std::string& document) {
    SAXToNodeParser parser;
    object.parse(*parser.parseString(document));
  }
};

TEST_F(SharedClientIDsXmlTest, OutputXMLReadsBackThroughTheParserUnchanged) {
  const List entries = {"\t\n\"%&'<>",     "", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9D\x84\x9E",
                        "&amp; &#10; ]]>", "", "plain"};
  XmlStream xml;
  objectWith(entries).outputXML(xml, "SharedClientIDs");
  SharedClientIDs read;
  parseInto(read, xml.str());
  EXPECT_EQ(entriesOf(read), entries);
}

TEST_F(SharedClientIDsXmlTest, ParseAppendsChildrenOfAnyNamespaceAndRepeats) {
  const std::string document =
      "<r xmlns:o=\"urn:other\"><sharedClients>a</sharedClients><sharedClients/>"
      "<o:sharedClients>b</o:sharedClients></r>";
  SharedClientIDs object = objectWith({"x"});
  parseInto(object, document);
  parseInto(object, document);
  parseInto(object, "<r/>");
  EXPECT_EQ(entriesOf(object), (List{"x", "a", "", "b", "a", "", "b"}));
}

TEST_F(SharedClientIDsXmlTest, ParseStopsAtTheFirstUnexpectedChildKeepingWhatItRead) {
  for (const std::string name : {"SharedClients", "sharedClient"}) {
    SharedClientIDs object = objectWith({"x"});
    std::string message;
    try {
      parseInto(object, "<r><sharedClients>a</sharedClients><" + name +
                            ">b</" + name + "><sharedClients>c</sharedClients></r>");
    } catch (const DomException& e) {
      message = e.getMessage();
    }
    EXPECT_EQ(message, "Unexpected node name: " + name);
    EXPECT_EQ(entriesOf(object), (List{"x", "a"}));
  }
}

}  // namespace
}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base
