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

// Every class below has the same five members as Exception, defined in the library, so that
// a program built against it finds each one exported.

// Common base of the classes below; never thrown as such.
class KSMEM_EXPORT KsMEMException : public Exception {
 public:
  KsMEMException(int type, const std::string& message);
  explicit KsMEMException(const std::string& message);
  KsMEMException(const KsMEMException& other);
  KsMEMException& operator=(const KsMEMException& other);
  ~KsMEMException();
};

class KSMEM_EXPORT KsMEMConnectionException : public KsMEMException {
 public:
  KsMEMConnectionException(int type, const std::string& message);
  explicit KsMEMConnectionException(const std::string& message);
  KsMEMConnectionException(const KsMEMConnectionException& other);
  KsMEMConnectionException& operator=(const KsMEMConnectionException& other);
  ~KsMEMConnectionException();
};

class KSMEM_EXPORT KsMEMProtocolException : public KsMEMException {
 public:
  KsMEMProtocolException(int type, const std::string& message);
  explicit KsMEMProtocolException(const std::string& message);
  KsMEMProtocolException(const KsMEMProtocolException& other);
  KsMEMProtocolException& operator=(const KsMEMProtocolException& other);
  ~KsMEMProtocolException();
};

class KSMEM_EXPORT KsMEMRuntimeException : public KsMEMException {
 public:
  KsMEMRuntimeException(int type, const std::string& message);
  // The only class that can be built without an argument: empty message, type code 0.
  explicit KsMEMRuntimeException(const std::string& message = std::string());
  KsMEMRuntimeException(const KsMEMRuntimeException& other);
  KsMEMRuntimeException& operator=(const KsMEMRuntimeException& other);
  ~KsMEMRuntimeException();
};

class KSMEM_EXPORT KsMEMUnrecognisedException : public KsMEMException {
 public:
  KsMEMUnrecognisedException(int type, const std::string& message);
  explicit KsMEMUnrecognisedException(const std::string& message);
  KsMEMUnrecognisedException(const KsMEMUnrecognisedException& other);
  KsMEMUnrecognisedException& operator=(const KsMEMUnrecognisedException& other);
  ~KsMEMUnrecognisedException();
};

// A failure of the UTF-8 conversion. Internal: the request turns it into a
// KsMEMRuntimeException before it could reach an application.
class Utf8ConversionException : public KsMEMException {
 public:
  Utf8ConversionException(int type, const std::string& message);
  explicit Utf8ConversionException(const std::string& message);
  Utf8ConversionException(const Utf8ConversionException& other);
  Utf8ConversionException& operator=(const Utf8ConversionException& other);
  ~Utf8ConversionException();
};

}  // namespace Kestrane::Net::KsModelEventManager::Client

#endif  // KSMEM_CLIENT_EXCEPTION_H_
