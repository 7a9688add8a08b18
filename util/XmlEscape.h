// Carries text to and from the form in which it stands inside an XML element.
//
// escapeXML replaces exactly eight bytes and passes every other byte through, the carriage
// return, other control bytes and bytes from 0x80 upward (so multi-byte characters) included:
//   tab "&#9;"  line feed "&#10;"  " "&quot;"  % "&#x25;"  & "&amp;"  ' "&apos;"  < "&lt;"
//   > "&gt;"
// unescapeXML turns those eight references back, byte for byte and case-sensitively, in one
// pass from left to right: a byte it has made is not looked at again, so "&amp;lt;" gives
// "&lt;". Every other reference or ampersand passes unchanged ("&foo;", "&#xA;", "&AMP;", a
// lone "&"). unescapeXML(escapeXML(t)) == t for every t; the reverse does not hold.
//
// Both take time linear in the text's length, keep no state and may be called from any thread.
#ifndef KSMEM_UTIL_XMLESCAPE_H_
#define KSMEM_UTIL_XMLESCAPE_H_

#include <string>

namespace Kestrane::Net::KsModelEventManager::Util {

std::string escapeXML(const std::string& text);
std::string unescapeXML(const std::string& text);

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_XMLESCAPE_H_
