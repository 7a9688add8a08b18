// XmlStream is the text stream on which a schema object writes itself as XML: a string stream
// that also keeps a table of the document's XML namespaces and the prefix of each.
//
// The markup operations return the markup as a string and do not write it; the caller writes
// what it gets with <<. One stream is one document: the table, the prefix counter and the
// first-element state live as long as the stream, so a second object written to it goes out
// behind the first, without declarations.
//
// Prefixes are always generated, "ns0", "ns1", ..., never reused. Every namespace is declared
// with its prefix, and all declarations stand on the first start tag, formed from what the
// table holds at that moment; a namespace added later gets a prefix but no declaration. The
// only layout is the line feed in front of every start tag. Nothing is checked or escaped
// here: escaping element text is the caller's (see util/XmlEscape.h).
//
// A stream belongs to one thread at a time.
#ifndef KSMEM_UTIL_XMLSTREAM_H_
#define KSMEM_UTIL_XMLSTREAM_H_

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <sstream>
#include <stack>
#include <string>
#include <utility>
#include <vector>

#include "util/Export.h"

namespace Kestrane::Net::KsModelEventManager::Util {

class KSMEM_EXPORT XmlStream : public std::stringstream {
 public:
  XmlStream();

  // True until the first start tag has been formed, even if its text was thrown away.
  bool isFirstElement() const;

  // Gives a prefix to every URI of `namespaces` that has none, numbered in the set's order.
  // A URI that has a prefix keeps it and spends no number.
  void addNamespaces(std::set<std::string> namespaces);

  // "\n<", the qualified tag and, on the first element only, an " xmlns:PREFIX=\"URI\"" for
  // every entry of the table in URI order; no closing bracket. Forming it ends the first
  // element. A `tag` holding a colon is taken as qualified already and goes out unchanged;
  // otherwise the prefix of `namespaceURI` is put in front, if the table has one.
  std::string startTagOpen(const std::string& namespaceURI, const std::string& tag);
  // "/>" if `empty`, ">" otherwise.
  std::string startTagClose(bool empty) const;
  // startTagOpen, then attributeText of each pair in the order given, then ">".
  std::string startTag(const std::string& namespaceURI, const std::string& tag,
                       const std::vector<std::pair<std::string, std::string>>& attributes);
  // " NAME=\"VALUE\"".
  std::string attributeText(const std::string& name, const std::string& value) const;
  // "</", the tag qualified as by startTagOpen, ">".
  std::string endTag(const std::string& namespaceURI, const std::string& tag) const;

  // The URI's prefix, or an empty string if the table has none.
  std::string getPrefix(const std::string& namespaceURI) const;

  // Opens a namespace scope: gives `namespaceURI` a prefix if it has none and returns whether
  // it made one. The matching removeNamespace closes the scope and drops the prefix again if
  // this call made it.
  bool addNamespace(const std::string& namespaceURI);
  // Closes the innermost scope opened by addNamespace; with no scope open, does nothing.
  void removeNamespace(const std::string& namespaceURI);

 private:
  bool giveNamespacePrefix(const std::string& namespaceURI);
  std::string qualifiedTag(const std::string& namespaceURI, const std::string& tag) const;

  std::map<std::string, std::string> namespacePrefixes;  // URI -> prefix
  std::stack<bool, std::deque<bool>> namespaceScopes;    // true: the scope made its prefix
  int32_t nextPrefixNumber;
  bool firstElement;
};

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_XMLSTREAM_H_
