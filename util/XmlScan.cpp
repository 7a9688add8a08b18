#include "util/XmlScan.h"

#include <algorithm>
#include <cstring>

namespace Kestrane::Net::KsModelEventManager::Util {

namespace {

constexpr std::string::size_type npos = std::string::npos;

// Whether `text` could be a namespace prefix: no markup, quote or white space in it. A prefix
// goes into the pattern that is searched for next; one that held such bytes could match at
// nearly every position of a hostile text and make that search quadratic.
bool couldBePrefix(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || std::strchr("<>&\"'=/", c) != nullptr;
  });
}

// The prefix declared right in front of the URI at `uriOffset` ("xmlns:PREFIX=\"URI"), empty
// for a default namespace or where no "xmlns" stands in front of it.
std::string declaredPrefix(const std::string& text, std::string::size_type uriOffset) {
  // The declaration ends with '="' directly in front of the URI.
  if (uriOffset < 2) return std::string();
  std::string::size_type end = uriOffset - 2;
  if (end < 5) return std::string();
  std::string::size_type xmlns = text.rfind("xmlns", end - 5);
  if (xmlns == npos) return std::string();
  std::string::size_type prefixStart = xmlns + (text.compare(xmlns, 6, "xmlns:") == 0 ? 6 : 5);
  if (prefixStart >= end) return std::string();
  std::string prefix = text.substr(prefixStart, end - prefixStart);
  return couldBePrefix(prefix) ? prefix : std::string();
}

}  // namespace

std::string getRootNamespace(const std::string& text) {
  std::string::size_type first = text.find('<');
  if (first == npos) return std::string();
  // A declaration is expected at the very start; searching on from 1 passes over it.
  std::string::size_type from = text.compare(first, 5, "<?xml") == 0 ? 1 : first;
  std::string::size_type bracket = text.find('<', from);
  if (bracket == npos) return std::string();
  std::string::size_type nameStart = bracket + 1;
  std::string::size_type close = text.find('>', nameStart);
  std::string::size_type blank = text.find(' ', nameStart);
  // A start tag cut off before its ">" runs to the end of the text.
  if (blank == npos || (close != npos && blank > close)) return std::string();

  std::string name = text.substr(nameStart, blank - nameStart);
  std::string::size_type colon = name.find(':');
  if (colon != npos && !couldBePrefix(name.substr(0, colon))) return std::string();
  std::string key =
      colon == npos ? std::string("xmlns=\"") : "xmlns:" + name.substr(0, colon) + "=\"";
  std::string::size_type keyOffset = text.find(key, nameStart);
  if (keyOffset == npos) return std::string();
  std::string::size_type uriStart = keyOffset + key.size();
  std::string::size_type quote = text.find('"', uriStart);
  return text.substr(uriStart, quote == npos ? npos : quote - uriStart);
}

std::string::size_type findTagOffset(const std::string& text, const std::string& expandedName,
                                     bool opening) {
  std::string pattern = opening ? "<" : "</";
  std::string::size_type caret = expandedName.find('^');
  std::string uri = caret == npos ? expandedName : expandedName.substr(0, caret);
  std::string local = caret == npos ? expandedName : expandedName.substr(caret + 1);

  std::string::size_type uriOffset = text.find(uri);
  std::string prefix = uriOffset == npos ? std::string() : declaredPrefix(text, uriOffset);
  if (!prefix.empty()) pattern += prefix + ":";
  pattern += local;

  std::string::size_type found = text.find(pattern);
  if (found == npos || !opening) return found;
  return found + pattern.size();
}

}  // namespace Kestrane::Net::KsModelEventManager::Util
