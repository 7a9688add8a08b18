#include "util/DomException.h"

namespace Kestrane::Net::KsModelEventManager::Util {

DomException::DomException() = default;

DomException::DomException(const std::string& message) : message(message) {}

DomException::DomException(const DomException& other) = default;

DomException& DomException::operator=(const DomException& other) = default;

DomException::~DomException() = default;

void DomException::setMessage(const std::string& newMessage) { message = newMessage; }

const std::string& DomException::getMessage() const { return message; }

}  // namespace Kestrane::Net::KsModelEventManager::Util
