// SAXToNodeParser: reads one XML document into a tree of XMLNode.
//
// It is the SAX2 handler of a Xerces-C++ reader, with namespace processing on and validation
// off. Every element becomes one node, with its namespace URI and local name (the prefix is
// lost), its attributes keyed by local name (xmlns declarations are not attributes; of two
// attributes with one local name the one listed last stays), and all character data that
// stands directly inside it joined untrimmed into its value: whitespace between children, CDATA
// and resolved references included. Comments, processing instructions and whatever lies outside
// the root leave no trace. What an internal DTD subset defines (entities, attribute defaults)
// arrives as ordinary text and attributes.
//
// Replies come from the network, so the reader refuses four things in a document:
//   - anything outside the document itself: an external entity or an external DTD ends the parse
//     and nothing is fetched, neither file nor URL; a schema location hint is ignored;
//   - more than kMaxEntityExpansions entity expansions;
//   - in a parsed string, a tree (nodes, names, URIs, values, attributes) larger than
//     kTreeAllowance plus kMaxTreeRatio times the string's length: attribute defaults apply to
//     every element, and a namespace URI is copied into every node, without counting as
//     expansions;
//   - elements nested deeper than kMaxDepth.
// Every failure, refusals included, leaves parseString/parseFile as a DomException whose message
// says what went wrong: where, for what the reader finds; in which document, for the refusals
// of depth and size. Warnings of the reader are dropped.
//
// All text is narrowed by toNarrowString into the native code page of the process.
//
// The parser owns the tree: a root pointer it hands out is valid until the next parse on this
// object or the parser's destruction, and the caller never deletes it. After a failure the parser
// keeps the partial tree (see getRoot) and frees it like any other. One object belongs to one
// thread, and one parse on it ends before the next starts.
//
// REQUIRES: xercesc::XMLPlatformUtils::Initialize() before a parse; Terminate() only after the
// parser is destroyed, since it holds a reader of that library.
#ifndef KSMEM_UTIL_SAXTONODEPARSER_H_
#define KSMEM_UTIL_SAXTONODEPARSER_H_

#include <memory>
#include <string>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/util/SecurityManager.hpp>

#include "util/XMLNode.h"

namespace Kestrane::Net::KsModelEventManager::Util {

// Transcodes text of the reader into a narrow string, as XMLString::transcode gives it in the
// native code page, up to its first NUL; a null text gives an empty string. Where
// replaceSubstitutionChars is true, every byte 0x1A (the substitution character of many code
// pages) becomes '?'.
std::string toNarrowString(const XMLCh* text, bool replaceSubstitutionChars);

class SAXToNodeParser : public xercesc::DefaultHandler {
 public:
  // Replies nest two levels deep; 256 leaves room for any real document and keeps the
  // recursive XMLNode destructor and print within a few tens of KiB of stack.
  static constexpr int kMaxDepth = 256;
  // Replies use no entities of their own; 1000 is ample for a hand-written internal subset and
  // stops an exponential expansion within milliseconds.
  static constexpr XMLSize_t kMaxEntityExpansions = 1000;
  // A reply's tree is a few times the size of the reply; the allowance covers the small
  // documents whose internal subset legitimately expands.
  static constexpr size_t kTreeAllowance = 1 << 20;
  static constexpr size_t kMaxTreeRatio = 16;

  SAXToNodeParser();
  // Frees the reader, then the tree, in any state but during a parse.
  ~SAXToNodeParser() override;

  SAXToNodeParser(const SAXToNodeParser&) = delete;
  SAXToNodeParser& operator=(const SAXToNodeParser&) = delete;

  // Parses the document in xml, up to its first NUL byte, and returns its root. Deletes the
  // tree of an earlier parse first. Throws DomException where the document can't be used.
  // REQUIRES: no parse on this object is under way.
  XMLNode* parseString(const std::string& xml);
  // As parseString, for the document that systemId (a file name or URL) names.
  XMLNode* parseFile(const std::string& systemId);

  // The root of the latest parse: the partial tree after a failure. Where there is none (a new
  // parser, or a failure before the first element), an empty node, owned like any tree.
  XMLNode* getRoot();

  // Whether text and attribute values have byte 0x1A replaced by '?'. One switch for the whole
  // process, off unless set; read afresh at each piece of text. Element and attribute names are
  // never replaced, failure messages always are.
  static void setReplaceSubstitutionChars(bool replace);

  // Called by the reader only.
  void characters(const XMLCh* const chars, const XMLSize_t length) override;
  void endDocument() override {}
  void endElement(const XMLCh* const uri, const XMLCh* const localname,
                  const XMLCh* const qname) override;
  void ignorableWhitespace(const XMLCh* const, const XMLSize_t) override {}
  void processingInstruction(const XMLCh* const, const XMLCh* const) override {}
  void startDocument() override {}
  void startElement(const XMLCh* const uri, const XMLCh* const localname, const XMLCh* const qname,
                    const xercesc::Attributes& attrs) override;
  void warning(const xercesc::SAXParseException&) override {}
  void error(const xercesc::SAXParseException& failure) override;
  void fatalError(const xercesc::SAXParseException& failure) override;

 private:
  // Drops the previous tree and reader and sets up a fresh, guarded reader for documentName.
  void startParse(const std::string& name);
  [[noreturn]] void throwParseFailure(const char* label, const xercesc::SAXParseException& failure);
  // Counts `bytes` more into the tree; throws DomException past the budget of the parse.
  void chargeTree(size_t bytes);
  // "XML Document 'NAME' " followed by `what`.
  [[noreturn]] void throwRefusal(const std::string& what);
  // toNarrowString, without the transcoder for text of ASCII characters where the native code
  // page keeps them as they are.
  std::string narrow(const XMLCh* text, bool replaceSubstitution) const;

  static bool replaceSubstitutionChars;

  std::unique_ptr<XMLNode> root;
  XMLNode* current;  // innermost open element, null when none is open
  int depth;         // number of open elements
  size_t treeBytes;
  size_t treeBudget;
  bool nativeKeepsAscii;  // checked at the start of each parse
  xercesc::SecurityManager securityManager;
  // Declared after root and securityManager, so that it goes before both.
  std::unique_ptr<xercesc::SAX2XMLReader> reader;
  std::string documentName;
};

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_SAXTONODEPARSER_H_
