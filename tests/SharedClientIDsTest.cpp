#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "schemas/_2009_06/base/Namespace.h"
#include "schemas/_2009_06/base/SharedClientIDs.h"
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

TEST(SharedClientIDsTest, OutputXMLDeclaresTheNamespaceOnTheFirstElementAndPrefixesEveryChild) {
  XmlStream two, empty, colonTag, foreign;
  objectWith({"alpha", "b<c"}).outputXML(two, "SharedClientIDs");
  objectWith({"d"}).outputXML(two, "SharedClientIDs");
  SharedClientIDs().outputXML(empty, "SharedClientIDs");
  objectWith({"", "x"}).outputXML(colonTag, "my:list");
  foreign << foreign.startTagOpen("urn:other", "root") << ">";
  objectWith({"y"}).outputXML(foreign, "list");

  EXPECT_EQ(two.str(), "\n<ns0:SharedClientIDs xmlns:ns0=\"" + kUri +
                           "\">"
                           "<ns0:sharedClients>alpha</ns0:sharedClients>"
                           "<ns0:sharedClients>b&lt;c</ns0:sharedClients>"
                           "</ns0:SharedClientIDs>"
                           "\n<ns0:SharedClientIDs><ns0:sharedClients>d</ns0:sharedClients>"
                           "</ns0:SharedClientIDs>");
  EXPECT_EQ(empty.str(),
            "\n<ns0:SharedClientIDs xmlns:ns0=\"" + kUri + "\"></ns0:SharedClientIDs>");
  EXPECT_EQ(colonTag.str(), "\n<my:list xmlns:ns0=\"" + kUri +
                                "\">"
                                "<ns0:sharedClients></ns0:sharedClients>"
                                "<ns0:sharedClients>x</ns0:sharedClients></my:list>");
  EXPECT_EQ(foreign.str(), "\n<root>\n<list><sharedClients>y</sharedClients></list>");
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

TEST_F(SharedClientIDsXmlTest, ParseAppendsSharedClientsChildrenUntilTheFirstOtherName) {
  const struct {
    std::string document;
    List entries;
    std::string failure;
  } documents[] = {
      {"<r xmlns:o=\"urn:other\"><sharedClients>a</sharedClients><sharedClients/>"
       "<o:sharedClients>b</o:sharedClients></r>",
       {"x", "a", "", "b"},
       ""},
      {"<r/>", {"x"}, ""},
      {"<r><sharedClients>a</sharedClients><SharedClients>b</SharedClients>"
       "<sharedClients>c</sharedClients></r>",
       {"x", "a"},
       "Unexpected node name: SharedClients"},
      {"<r><sharedClients>a</sharedClients><sharedClient>b</sharedClient></r>",
       {"x", "a"},
       "Unexpected node name: sharedClient"},
  };
  for (const auto& document : documents) {
    SharedClientIDs object = objectWith({"x"});
    std::string failure;
    try {
      parseInto(object, document.document);
    } catch (const DomException& e) {
      failure = e.getMessage();
    }
    EXPECT_EQ(failure, document.failure) << document.document;
    EXPECT_EQ(entriesOf(object), document.entries);
  }
}

}  // namespace
}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base
