#include "util/SAXToNodeParser.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <sstream>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "util/DomException.h"

using xercesc::XMLPlatformUtils;
using xercesc::XMLString;

namespace Kestrane::Net::KsModelEventManager::Util {

namespace {

// Holds a buffer of XMLString::transcode until the end of the scope.
class TranscodedText {
 public:
  explicit TranscodedText(const XMLCh* text)
      : bytes(XMLString::transcode(text, XMLPlatformUtils::fgMemoryManager)) {}
  ~TranscodedText() { XMLString::release(&bytes, XMLPlatformUtils::fgMemoryManager); }
  TranscodedText(const TranscodedText&) = delete;
  TranscodedText& operator=(const TranscodedText&) = delete;

  char* bytes;
};

// Whether the native code page writes U+0001 to U+007F as the bytes 0x01 to 0x7F, as every
// ASCII-based code page does.
bool nativeCodePageKeepsAscii() {
  XMLCh ascii[128];
  for (int i = 0; i < 127; ++i) ascii[i] = static_cast<XMLCh>(i + 1);
  ascii[127] = 0;
  TranscodedText narrow(ascii);
  if (narrow.bytes == nullptr) return false;
  for (int i = 0; i < 127; ++i) {
    if (static_cast<unsigned char>(narrow.bytes[i]) != i + 1) return false;
  }
  return narrow.bytes[127] == '\0';
}

}  // namespace

std::string toNarrowString(const XMLCh* text, bool replaceSubstitutionChars) {
  if (text == nullptr) {
    return std::string();
  }
  TranscodedText narrow(text);
  if (narrow.bytes == nullptr) {
    return std::string();
  }
  std::string result(narrow.bytes);
  if (replaceSubstitutionChars) {
    std::replace(result.begin(), result.end(), '\x1A', '?');
  }
  return result;
}

bool SAXToNodeParser::replaceSubstitutionChars = false;

void SAXToNodeParser::setReplaceSubstitutionChars(bool replace) {
  replaceSubstitutionChars = replace;
}

SAXToNodeParser::SAXToNodeParser()
    : current(nullptr), depth(0), treeBytes(0), treeBudget(0), nativeKeepsAscii(false) {
  securityManager.setEntityExpansionLimit(kMaxEntityExpansions);
}

SAXToNodeParser::~SAXToNodeParser() = default;

XMLNode* SAXToNodeParser::getRoot() {
  if (!root) {
    root.reset(new XMLNode());
  }
  return root.get();
}

void SAXToNodeParser::startParse(const std::string& name) {
  root.reset();
  current = nullptr;
  depth = 0;
  treeBytes = 0;
  treeBudget = SIZE_MAX;
  nativeKeepsAscii = nativeCodePageKeepsAscii();
  reader.reset(xercesc::XMLReaderFactory::createXMLReader(XMLPlatformUtils::fgMemoryManager));
  documentName = name;
  reader->setContentHandler(this);
  reader->setErrorHandler(this);
  // With no entity resolver installed, this makes every external entity and external DTD a
  // fatal error of the reader instead of a file read or a download, and skips schema hints.
  reader->setFeature(xercesc::XMLUni::fgXercesDisableDefaultEntityResolution, true);
  reader->setProperty(xercesc::XMLUni::fgXercesSecurityManager, &securityManager);
}

XMLNode* SAXToNodeParser::parseString(const std::string& xml) {
  startParse("From String");
  // The reader gets the terminating NUL as part of the buffer; text behind an embedded NUL is
  // not seen.
  const XMLSize_t byteCount = std::strlen(xml.c_str()) + 1;
  treeBudget = kTreeAllowance + kMaxTreeRatio * byteCount;
  xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(xml.c_str()), byteCount,
                                    "From-String", false, XMLPlatformUtils::fgMemoryManager);
  reader->parse(source);
  return root.get();
}

XMLNode* SAXToNodeParser::parseFile(const std::string& systemId) {
  startParse(systemId);
  reader->parse(systemId.c_str());
  return root.get();
}

void SAXToNodeParser::startElement(const XMLCh* const uri, const XMLCh* const localname,
                                   const XMLCh* const, const xercesc::Attributes& attrs) {
  if (depth == kMaxDepth) {
    throwRefusal("nests elements deeper than " + std::to_string(kMaxDepth) + " levels.\n");
  }
  std::unique_ptr<XMLNode> node(new XMLNode());
  node->name = narrow(localname, false);
  node->namespaceURI = narrow(uri, false);
  chargeTree(sizeof(XMLNode) + node->name.size() + node->namespaceURI.size());
  for (XMLSize_t i = 0; i < attrs.getLength(); ++i) {
    std::string attributeValue = narrow(attrs.getValue(i), replaceSubstitutionChars);
    std::string attributeName = narrow(attrs.getLocalName(i), false);
    chargeTree(attributeName.size() + attributeValue.size());
    node->setAttribute(attributeName, attributeValue);
  }

  if (!root) {
    root = std::move(node);
    current = root.get();
  } else {
    node->parent = current;
    current->children.push_back(node.get());
    current = node.release();
  }
  ++depth;
}

void SAXToNodeParser::characters(const XMLCh* const chars, const XMLSize_t) {
  std::string piece = narrow(chars, replaceSubstitutionChars);
  if (current != nullptr) {
    chargeTree(piece.size());
    current->value += piece;
  }
}

// The transcoder takes a lock and makes an allocation per call, which costs more than building
// the node; element names, namespaces and identifiers in replies are ASCII.
std::string SAXToNodeParser::narrow(const XMLCh* text, bool replaceSubstitution) const {
  if (!nativeKeepsAscii || text == nullptr) return toNarrowString(text, replaceSubstitution);
  std::string result;
  char piece[128];  // one pass: most names, namespaces and values fit in one piece
  size_t used = 0;
  for (const XMLCh* unit = text; *unit != 0; ++unit) {
    if (*unit >= 0x80) return toNarrowString(text, replaceSubstitution);
    if (used == sizeof piece) {
      result.append(piece, used);
      used = 0;
    }
    piece[used++] = static_cast<char>(*unit);
  }
  result.append(piece, used);
  if (replaceSubstitution) std::replace(result.begin(), result.end(), '\x1A', '?');
  return result;
}

void SAXToNodeParser::chargeTree(size_t bytes) {
  treeBytes += bytes;
  if (treeBytes > treeBudget) {
    throwRefusal("would build a tree of more than " + std::to_string(treeBudget) + " bytes.\n");
  }
}

void SAXToNodeParser::throwRefusal(const std::string& what) {
  throw DomException("XML Document '" + documentName + "' " + what);
}

void SAXToNodeParser::endElement(const XMLCh* const, const XMLCh* const, const XMLCh* const) {
  if (current == nullptr) {
    std::cerr << "End element called when not inside one!" << std::endl;
    return;
  }
  current = current->parent;
  --depth;
}

void SAXToNodeParser::error(const xercesc::SAXParseException& failure) {
  throwParseFailure("Error: parsing: ", failure);
}

void SAXToNodeParser::fatalError(const xercesc::SAXParseException& failure) {
  throwParseFailure("Fatal Error: parsing: ", failure);
}

void SAXToNodeParser::throwParseFailure(const char* label,
                                        const xercesc::SAXParseException& failure) {
  std::ostringstream text;
  const std::string systemId = toNarrowString(failure.getSystemId(), true);
  if (systemId.empty()) {
    // The reader had no source open: the document could not be read at all.
    text << "XML Document '" << documentName << "' does not exist.\n";
  } else {
    text << label << systemId << ": line " << failure.getLineNumber() << ", char "
         << failure.getColumnNumber() << "\n";
    const std::string message = toNarrowString(failure.getMessage(), true);
    if (!message.empty()) {
      text << "Message: " << message << "\n";
    }
  }
  throw DomException(text.str());
}

}  // namespace Kestrane::Net::KsModelEventManager::Util
