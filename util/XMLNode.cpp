#include "util/XMLNode.h"

namespace Kestrane::Net::KsModelEventManager::Util {

XMLNode::XMLNode() : parent(nullptr) {}

// Recursive: the parser bounds the nesting depth of every tree it builds.
XMLNode::~XMLNode() {
  for (XMLNode* child : children) {
    delete child;
  }
}

void XMLNode::setAttribute(const std::string& key, const std::string& attributeValue) {
  attributes[key] = attributeValue;
}

std::string XMLNode::getAttribute(const std::string& key) const {
  auto found = attributes.find(key);
  return found == attributes.end() ? std::string() : found->second;
}

bool XMLNode::hasAttribute(const std::string& key) const {
  return attributes.find(key) != attributes.end();
}

void XMLNode::print(std::ostream& out, const std::string& indent) const {
  out << indent << "<" << name << ">" << std::endl;
  const std::string childIndent = indent + "  ";
  for (const XMLNode* child : children) {
    child->print(out, childIndent);
  }
  out << indent << "</" << name << ">" << std::endl;
}

}  // namespace Kestrane::Net::KsModelEventManager::Util
