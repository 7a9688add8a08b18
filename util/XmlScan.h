// Two scanners that look into an XML document as plain text, by substring search, without a
// parser: they know nothing of comments, quoting or nesting, and trust the text to be laid out
// as a serializer writes it. Neither throws, whatever the text; both may be called from any
// thread.
//
// An expanded name is one string: the namespace URI, "^", and the local name.
#ifndef KSMEM_UTIL_XMLSCAN_H_
#define KSMEM_UTIL_XMLSCAN_H_

#include <string>

namespace Kestrane::Net::KsModelEventManager::Util {

// The namespace URI of the root element, taken from the first "xmlns=\"" (or, for a prefixed
// root, "xmlns:PREFIX=\"") found from the root's start tag on, up to the next quotation mark or
// the end of the text. An XML declaration is passed over only at the very start of the text.
// Empty when the text holds no "<", when the root's start tag has no attribute (whatever its
// children declare), when the root's prefix holds markup, a quote or white space, or when the
// declaration is nowhere.
std::string getRootNamespace(const std::string& text);

// Where the first element with `expandedName` stands. An `expandedName` without "^" serves
// whole as URI and local name. The prefix is read from the nearest "xmlns" in front of the
// URI's first occurrence, taken as "xmlns:PREFIX=\"URI"; a default namespace, a URI the text
// does not hold, no "xmlns" in front of it, or a "prefix" holding markup, a quote or white
// space means the bare local name. Both run in time linear in the text's length. With `opening`,
// the offset right behind "<" and the qualified name (so at the blank in front of the attributes,
// if any); otherwise the offset of "</". std::string::npos if no such tag is found.
std::string::size_type findTagOffset(const std::string& text, const std::string& expandedName,
                                     bool opening);

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_XMLSCAN_H_
