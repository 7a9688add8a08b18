// BaseObject is the abstract root of the schema objects: each concrete class stands for one
// type of the service's XML schema and gives its element's namespace URI to the constructor.
//
// Objects on the stack or inside another object ignore the reference count. Objects on the
// heap are held through ref/unref: every holder calls ref when it takes a reference and unref
// when it drops it, and the unref that brings the count to exactly 0 deletes the object. A new
// object, and the result of clone, starts at 0, so its first holder must call ref. The
// destructor is protected: a holder of a BaseObject* ends it with unref, never with delete.
//
// Copying (construction and assignment) copies the reference count too, so never assign to an
// object that others hold. The count is a plain integer: an object belongs to one thread at a
// time.
#ifndef KSMEM_UTIL_BASEOBJECT_H_
#define KSMEM_UTIL_BASEOBJECT_H_

#include <cstdint>
#include <set>
#include <string>

#include "util/Export.h"

namespace Kestrane::Net::KsModelEventManager::Util {

class XmlStream;

// The declaration order of the virtual members below is the order of their slots in the
// exported virtual table: destructor, reallyClone, getNamespaces.
class KSMEM_EXPORT BaseObject {
 public:
  BaseObject(const BaseObject& other);
  BaseObject& operator=(const BaseObject& other);

  void ref();
  // Deletes this object, as the call's last act, when the count comes to exactly 0; a count
  // that goes negative deletes nothing.
  void unref();
  int askRefCount() const;

  // A new heap copy of the same dynamic type whose count is 0; the caller owns it. This object
  // is not changed.
  BaseObject* clone();

 protected:
  BaseObject();
  explicit BaseObject(const char* namespaceURI);
  virtual ~BaseObject();

 public:
  // A new heap copy of the same dynamic type made by its copy constructor, so with this
  // object's count; the caller owns it.
  virtual BaseObject* reallyClone() = 0;
  // Adds the URI of every XML namespace that the object's XML form uses; keeps what
  // `namespaces` holds.
  virtual void getNamespaces(std::set<std::string>& namespaces) const = 0;

 protected:
  // Writes the opening of the object's start tag, `tag` qualified by the namespace's prefix,
  // up to and not including its closing bracket, for the caller to add attributes and close.
  // If this is the document's first element, the stream's namespace table is first filled from
  // getNamespaces and the start tag carries the declarations. Returns whether this was the
  // first element. `caller` names the calling operation and is not read.
  bool outputXMLBase(XmlStream& xml, const std::string& tag, const char* caller) const;

  std::string namespaceURI;

 private:
  void addRef();
  void removeRef();

  int32_t refCount;
};

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_BASEOBJECT_H_
