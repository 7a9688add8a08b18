// The family of exceptions through which the client library reports failures.
//
// Every object carries an integer type code and a message for people. The class says what kind
// of failure it was, and that is what a handler selects by:
//   KsMEMConnectionException   the service could not be reached (any failure of getStatus)
//   KsMEMProtocolException     the request was refused: client not registered, no body, ...
//   KsMEMRuntimeException      the request could not be formed or processed
//   KsMEMUnrecognisedException a transport result code that has no class of its own
// The type code is 0 unless the operation that throws documents another (-1 connection
// failed, -2 client not registered); a transport result code is never stored.
//
// The classes are plain values: no virtual members, no std::exception base. Copying through a
// base class gives an object of that base with the same type code and message.
#ifndef KSMEM_CLIENT_EXCEPTION_H_
#define KSMEM_CLIENT_EXCEPTION_H_

#include <cstdint>
#include <string>

#include "util/Export.h"

namespace Kestrane::Net::KsModelEventManager::Client {

class KSMEM_EXPORT Exception {
 public:
  Exception(int type, const std::string& message);
  explicit Exception(const std::string& message);  // type code 0
  Exception(const Exception& other);
  Exception& operator=(const Exception& other);
  ~Exception();

  int getType() const;
  // Valid as long as this object.
  const std::string& getMessage() const;

 private:
  int32_t type;
  std::string message;
};

// Common base of the classes below; never thrown as such.
class KSMEM_EXPORT KsMEMException : public Exception {
 public:
  using Exception::Exception;
};

class KSMEM_EXPORT KsMEMConnectionException : public KsMEMException {
 public:
  using KsMEMException::KsMEMException;
};

class KSMEM_EXPORT KsMEMProtocolException : public KsMEMException {
 public:
  using KsMEMException::KsMEMException;
};

class KSMEM_EXPORT KsMEMRuntimeException : public KsMEMException {
 public:
  using KsMEMException::KsMEMException;
  // Empty message, type code 0.
  KsMEMRuntimeException() : KsMEMException(std::string()) {}
};

class KSMEM_EXPORT KsMEMUnrecognisedException : public KsMEMException {
 public:
  using KsMEMException::KsMEMException;
};

// A failure of the UTF-8 conversion. Internal: the request turns it into a
// KsMEMRuntimeException before it could reach an application.
class Utf8ConversionException : public KsMEMException {
 public:
  using KsMEMException::KsMEMException;
};

}  // namespace Kestrane::Net::KsModelEventManager::Client

#endif  // KSMEM_CLIENT_EXCEPTION_H_
