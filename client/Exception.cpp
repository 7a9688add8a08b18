#include "client/Exception.h"

namespace Kestrane::Net::KsModelEventManager::Client {

Exception::Exception(int type, const std::string& message) : type(type), message(message) {}

Exception::Exception(const std::string& message) : type(0), message(message) {}

Exception::Exception(const Exception& other) = default;

Exception& Exception::operator=(const Exception& other) = default;

Exception::~Exception() = default;

int Exception::getType() const { return type; }

const std::string& Exception::getMessage() const { return message; }

}  // namespace Kestrane::Net::KsModelEventManager::Client
