// Writes a list of client identifiers as XML, then reads the document back with Xerces-C++.
#include <iostream>
#include <string>
#include <vector>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>

#include "schemas/_2009_06/base/SharedClientIDs.h"
#include "util/XmlStream.h"

using Kestrane::Net::KsModelEventManager::Util::XmlStream;
using Kestrane::Schemas::KsModelEventManager::_2009_06::Base::SharedClientIDs;
using namespace xercesc;

// Collects the text of every sharedClients element.
class ClientCollector : public DefaultHandler {
 public:
  void startElement(const XMLCh*, const XMLCh* localName, const XMLCh*,
                    const Attributes&) override {
    char* name = XMLString::transcode(localName);
    inClient = std::string(name) == "sharedClients";
    XMLString::release(&name);
    if (inClient) clients.emplace_back();
  }
  void characters(const XMLCh* text, const XMLSize_t) override {
    if (!inClient) return;
    char* narrow = XMLString::transcode(text);
    clients.back() += narrow;
    XMLString::release(&narrow);
  }
  void endElement(const XMLCh*, const XMLCh*, const XMLCh*) override { inClient = false; }

  std::vector<std::string> clients;

 private:
  bool inClient = false;
};

int main() {
  SharedClientIDs written;
  written.addSharedClientID("alice");
  written.addSharedClientID("bob & \"carol\" <ops>");

  XmlStream xml;
  written.outputXML(xml, "SharedClientIDs");
  const std::string document = xml.str();
  std::cout << "written:" << document << "\n";

  XMLPlatformUtils::Initialize();
  std::vector<std::string> read;
  {
    ClientCollector collector;
    SAX2XMLReader* reader = XMLReaderFactory::createXMLReader();
    reader->setContentHandler(&collector);
    MemBufInputSource source(reinterpret_cast<const XMLByte*>(document.data()), document.size(),
                             "client list");
    reader->parse(source);
    delete reader;
    read = collector.clients;
  }
  XMLPlatformUtils::Terminate();

  std::vector<std::string> expected;
  written.getSharedClients(expected);
  std::cout << "read back " << read.size()
            << " clients: " << (read == expected ? "the same list" : "a different list") << "\n";
  return read == expected ? 0 : 1;
}
