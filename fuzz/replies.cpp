// Fuzz target: a reply of the service, arbitrary bytes, read the way the connection reads it
// (SAXToNodeParser::parseString, then SharedClientIDs::parse).
//
// A DomException is the one allowed failure; a crash, a leak or any other exception is a
// finding. The parser stops at the first NUL, so what follows it is parsed as a second reply on
// the same parser object, which exercises a parse after a success or a failure. A list that was
// read, and whose entries are plain printable text, must come back the same when written with
// outputXML and read again.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
#include <xercesc/util/PlatformUtils.hpp>

#include "schemas/_2009_06/base/SharedClientIDs.h"
#include "util/DomException.h"
#include "util/SAXToNodeParser.h"
#include "util/XmlStream.h"

using Kestrane::Net::KsModelEventManager::Util::DomException;
using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Net::KsModelEventManager::Util::XmlStream;
using Kestrane::Schemas::KsModelEventManager::_2009_06::Base::SharedClientIDs;
using List = std::vector<std::string>;

namespace {

// Bytes that outputXML writes so that a reader gives them back unchanged: a raw carriage
// return would be read as a line feed, and other control bytes are no XML characters.
bool isPlainText(const std::string& entry) {
  for (unsigned char byte : entry) {
    if ((byte < 0x20 || byte > 0x7E) && byte != '\t' && byte != '\n') return false;
  }
  return true;
}

bool readClients(SAXToNodeParser& parser, const std::string& reply, List& clients) {
  SharedClientIDs object;
  try {
    object.parse(*parser.parseString(reply));
  } catch (const DomException&) {
    return false;
  }
  object.getSharedClients(clients);
  return true;
}

void checkWrittenListReadsBack(const List& clients) {
  for (const std::string& entry : clients) {
    if (!isPlainText(entry)) return;
  }
  SharedClientIDs object;
  object.setSharedClients(clients);
  XmlStream xml;
  object.outputXML(xml, "SharedClientIDs");

  SAXToNodeParser parser;
  List again;
  if (!readClients(parser, xml.str(), again) || again != clients) {
    std::fprintf(stderr, "written list does not read back:\n%s\n", xml.str().c_str());
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  xercesc::XMLPlatformUtils::Initialize();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string::size_type nul = input.find('\0');
  SAXToNodeParser parser;

  List clients;
  if (readClients(parser, input, clients)) checkWrittenListReadsBack(clients);
  if (nul != std::string::npos) {
    List more;
    if (readClients(parser, input.substr(nul + 1), more)) checkWrittenListReadsBack(more);
  }
  return 0;
}
