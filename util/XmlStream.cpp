#include "util/XmlStream.h"

#include "util/StringConversions.h"

namespace Kestrane::Net::KsModelEventManager::Util {

XmlStream::XmlStream()
    : std::stringstream(std::ios_base::in | std::ios_base::out),
      nextPrefixNumber(0),
      firstElement(true) {}

bool XmlStream::isFirstElement() const { return firstElement; }

void XmlStream::addNamespaces(std::set<std::string> namespaces) {
  for (const std::string& namespaceURI : namespaces) giveNamespacePrefix(namespaceURI);
}

std::string XmlStream::startTagOpen(const std::string& namespaceURI, const std::string& tag) {
  std::string markup = "\n<" + qualifiedTag(namespaceURI, tag);
  if (firstElement) {
    for (const auto& [uri, prefix] : namespacePrefixes) {
      markup += " xmlns:" + prefix + "=\"" + uri + "\"";
    }
    firstElement = false;
  }
  return markup;
}

std::string XmlStream::startTagClose(bool empty) const { return empty ? "/>" : ">"; }

std::string XmlStream::startTag(
    const std::string& namespaceURI, const std::string& tag,
    const std::vector<std::pair<std::string, std::string>>& attributes) {
  std::string markup = startTagOpen(namespaceURI, tag);
  for (const auto& [name, value] : attributes) markup += attributeText(name, value);
  return markup + ">";
}

std::string XmlStream::attributeText(const std::string& name, const std::string& value) const {
  return " " + name + "=\"" + value + "\"";
}

std::string XmlStream::endTag(const std::string& namespaceURI, const std::string& tag) const {
  return "</" + qualifiedTag(namespaceURI, tag) + ">";
}

std::string XmlStream::getPrefix(const std::string& namespaceURI) const {
  auto found = namespacePrefixes.find(namespaceURI);
  return found == namespacePrefixes.end() ? std::string() : found->second;
}

bool XmlStream::addNamespace(const std::string& namespaceURI) {
  bool made = giveNamespacePrefix(namespaceURI);
  namespaceScopes.push(made);
  return made;
}

void XmlStream::removeNamespace(const std::string& namespaceURI) {
  if (namespaceScopes.empty()) return;
  bool made = namespaceScopes.top();
  namespaceScopes.pop();
  if (made) namespacePrefixes.erase(namespaceURI);
}

bool XmlStream::giveNamespacePrefix(const std::string& namespaceURI) {
  if (namespacePrefixes.count(namespaceURI) != 0) return false;
  namespacePrefixes[namespaceURI] = "ns" + intToString(nextPrefixNumber);
  ++nextPrefixNumber;
  return true;
}

std::string XmlStream::qualifiedTag(const std::string& namespaceURI, const std::string& tag) const {
  if (tag.find(':') != std::string::npos) return tag;
  std::string prefix = getPrefix(namespaceURI);
  return prefix.empty() ? tag : prefix + ":" + tag;
}

}  // namespace Kestrane::Net::KsModelEventManager::Util
