#include "util/BaseObject.h"

#include "util/XmlStream.h"

namespace Kestrane::Net::KsModelEventManager::Util {

BaseObject::BaseObject() : refCount(0) {}

BaseObject::BaseObject(const char* namespaceURI) : namespaceURI(namespaceURI), refCount(0) {}

BaseObject::BaseObject(const BaseObject& other) = default;

BaseObject& BaseObject::operator=(const BaseObject& other) = default;

BaseObject::~BaseObject() = default;

void BaseObject::ref() { addRef(); }

void BaseObject::unref() { removeRef(); }

int BaseObject::askRefCount() const { return refCount; }

BaseObject* BaseObject::clone() {
  BaseObject* copy = reallyClone();
  copy->refCount = 0;
  return copy;
}

bool BaseObject::outputXMLBase(XmlStream& xml, const std::string& tag,
                               const char* /*caller*/) const {
  bool first = xml.isFirstElement();
  if (first) {
    std::set<std::string> namespaces;
    getNamespaces(namespaces);
    xml.addNamespaces(namespaces);
  }
  xml << xml.startTagOpen(namespaceURI, tag);
  return first;
}

void BaseObject::addRef() { ++refCount; }

void BaseObject::removeRef() {
  if (--refCount == 0) delete this;
}

}  // namespace Kestrane::Net::KsModelEventManager::Util
