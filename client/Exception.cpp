#include "client/Exception.h"

namespace Kestrane::Net::KsModelEventManager::Client {

Exception::Exception(int type, const std::string& message) : type(type), message(message) {}

Exception::Exception(const std::string& message) : type(0), message(message) {}

Exception::Exception(const Exception& other) = default;

Exception& Exception::operator=(const Exception& other) = default;

Exception::~Exception() = default;

int Exception::getType() const { return type; }

const std::string& Exception::getMessage() const { return message; }

// The five members of a class of the family below Exception: each passes to its base, so
// that the type code and message live in Exception alone.
#define KSMEM_EXCEPTION_MEMBERS(Class, Base)                                  \
  Class::Class(int type, const std::string& message) : Base(type, message) {} \
  Class::Class(const std::string& message) : Base(message) {}                 \
  Class::Class(const Class& other) = default;                                 \
  Class& Class::operator=(const Class& other) = default;                      \
  Class::~Class() = default;

KSMEM_EXCEPTION_MEMBERS(KsMEMException, Exception)
KSMEM_EXCEPTION_MEMBERS(KsMEMConnectionException, KsMEMException)
KSMEM_EXCEPTION_MEMBERS(KsMEMProtocolException, KsMEMException)
KSMEM_EXCEPTION_MEMBERS(KsMEMRuntimeException, KsMEMException)
KSMEM_EXCEPTION_MEMBERS(KsMEMUnrecognisedException, KsMEMException)
KSMEM_EXCEPTION_MEMBERS(Utf8ConversionException, KsMEMException)

#undef KSMEM_EXCEPTION_MEMBERS

}  // namespace Kestrane::Net::KsModelEventManager::Client
