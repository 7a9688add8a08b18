#include "schemas/_2009_06/base/SharedClientIDs.h"

#include <utility>

#include "schemas/_2009_06/base/Namespace.h"
#include "util/DomException.h"
#include "util/XMLNode.h"
#include "util/XmlEscape.h"
#include "util/XmlStream.h"

namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base {

namespace Util = Net::KsModelEventManager::Util;

namespace {
const char kChildName[] = "sharedClients";
}  // namespace

SharedClientIDs::SharedClientIDs() : BaseObject(kBaseNamespaceURI) {}

SharedClientIDs::SharedClientIDs(const SharedClientIDs& other) = default;

// BaseObject has no move operations, so its fields are copied.
SharedClientIDs::SharedClientIDs(SharedClientIDs&& other)
    : BaseObject(other), sharedClients(std::move(other.sharedClients)) {
  other.sharedClients.clear();
}

SharedClientIDs& SharedClientIDs::operator=(const SharedClientIDs& other) = default;

SharedClientIDs& SharedClientIDs::operator=(SharedClientIDs&& other) {
  if (this == &other) return *this;
  BaseObject::operator=(other);
  sharedClients = std::move(other.sharedClients);
  other.sharedClients.clear();
  return *this;
}

SharedClientIDs::~SharedClientIDs() = default;

void SharedClientIDs::getSharedClients(std::vector<std::string>& clients) const {
  clients.insert(clients.end(), sharedClients.begin(), sharedClients.end());
}

void SharedClientIDs::setSharedClients(const std::vector<std::string>& clients) {
  sharedClients.insert(sharedClients.end(), clients.begin(), clients.end());
}

void SharedClientIDs::addSharedClientID(const std::string& client) {
  sharedClients.push_back(client);
}

void SharedClientIDs::parse(const Util::XMLNode& node) {
  const std::vector<Util::XMLNode*>& children = node.getChildren();
  if (children.size() > sharedClients.capacity()) sharedClients.reserve(children.size());
  for (const Util::XMLNode* child : children) {
    if (child->getName() != kChildName) {
      throw Util::DomException("Unexpected node name: " + child->getName());
    }
    sharedClients.push_back(child->getValue());
  }
}

void SharedClientIDs::getNamespaces(std::set<std::string>& namespaces) const {
  namespaces.insert(namespaceURI);
}

SharedClientIDs* SharedClientIDs::reallyClone() { return new SharedClientIDs(*this); }

void SharedClientIDs::outputXML(Util::XmlStream& xml, const std::string& tag) const {
  outputXMLBase(xml, tag,
                "Kestrane::Schemas::KsModelEventManager::_2009_06::Base::SharedClientIDs::"
                "outputXML");
  xml << xml.startTagClose(false);
  std::string prefix = xml.getPrefix(namespaceURI);
  std::string qualified = (prefix.empty() ? "" : prefix + ":") + kChildName;
  for (const std::string& client : sharedClients) {
    xml << "<" << qualified << ">" << Util::escapeXML(client) << "</" << qualified << ">";
  }
  xml << xml.endTag(namespaceURI, tag);
}

}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base
