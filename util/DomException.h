// DomException: the failure of an XML document that the library can't use, either because the
// reader refused it (malformed, unreadable, or one of the limits of SAXToNodeParser) or because
// its content is not what a schema object expects.
//
// It is no member of the Client::Exception family and derives from nothing; handlers for
// Exception don't catch it, and it passes through the connection operations to the
// application unchanged. Thrown and caught by value. getMessage() is the whole text for people,
// always ending in a line break when it comes from the parser.
//
// Exported with its type information, so that an application's handler matches the very class
// that the library throws, whatever its toolchain does with type names.
#ifndef KSMEM_UTIL_DOMEXCEPTION_H_
#define KSMEM_UTIL_DOMEXCEPTION_H_

#include <string>

#include "util/Export.h"

namespace Kestrane::Net::KsModelEventManager::Util {

class KSMEM_EXPORT DomException {
 public:
  DomException();
  explicit DomException(const std::string& message);
  DomException(const DomException& other);
  DomException& operator=(const DomException& other);
  virtual ~DomException();

  virtual void setMessage(const std::string& newMessage);
  // Valid as long as this object and until the next setMessage.
  virtual const std::string& getMessage() const;

 private:
  std::string message;
};

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_DOMEXCEPTION_H_
