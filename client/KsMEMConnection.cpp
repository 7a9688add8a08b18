#include "client/KsMEMConnection.h"

#include <mutex>
#include <sstream>

#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "client/KsMEMRequest.h"

namespace Kestrane {
namespace Net {
namespace KsModelEventManager {
namespace Client {

namespace {

// The XML library is started once for all live connections and ended with the last of them,
// so that overlapping connections, a copy and its source among them, may go in any order.
std::mutex xmlParserMutex;
int xmlParserUsers = 0;

void acquireXmlParser() {
  std::lock_guard<std::mutex> lock(xmlParserMutex);
  if (xmlParserUsers == 0) {
    xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale, nullptr,
                                          nullptr, nullptr);
  }
  ++xmlParserUsers;
}

void releaseXmlParser() {
  std::lock_guard<std::mutex> lock(xmlParserMutex);
  if (--xmlParserUsers == 0) xercesc::XMLPlatformUtils::Terminate();
}

const char kServiceName[] = "KsMEMRequest";

}  // namespace

KsMEMConnection::KsMEMConnection() : transportInitialised(false) { acquireXmlParser(); }

KsMEMConnection::KsMEMConnection(const KsMEMConnection& other)
    : serverID(other.serverID),
      clientID(other.clientID),
      transportInitialised(other.transportInitialised),
      locale(other.locale) {
  acquireXmlParser();
}

KsMEMConnection& KsMEMConnection::operator=(const KsMEMConnection& other) {
  serverID = other.serverID;
  clientID = other.clientID;
  transportInitialised = other.transportInitialised;
  locale = other.locale;
  return *this;
}

KsMEMConnection::~KsMEMConnection() { releaseXmlParser(); }

void KsMEMConnection::setRequestHeader(KsMEMRequest& request, std::string& operationName,
                                       std::string& logCorrelationID, bool sendIdentity) {
  initKsMem();
  request.addHeader("Service-Name", kServiceName);
  request.addHeader("Operation-Name", operationName.c_str());
  request.addHeader("Log-Correlation-ID", logCorrelationID.c_str());
  if (!locale.empty()) request.addHeader("Locale", locale.c_str());
  if (sendIdentity) {
    request.addHeader("Server-ID", serverID.c_str());
    request.addHeader("Client-ID", clientID.c_str());
  }
}

bool KsMEMConnection::isClientRegistered() { return !serverID.empty(); }

void KsMEMConnection::initKsMem() {
  if (transportInitialised) return;
  KsMEMRequest::initialise();
  transportInitialised = true;
}

void KsMEMConnection::termKsMem() {
  if (!transportInitialised) return;
  KsMEMRequest::terminate();
  transportInitialised = false;
}

int KsMEMConnection::getStatus() {
  const std::string body = "KsMEM Status check";
  try {
    KsMEMRequest request;
    std::string operationName = "getStatus";
    std::string logCorrelationID = "KsMEMConnection.getStatus";
    setRequestHeader(request, operationName, logCorrelationID, false);
    std::istringstream bodyStream(body);
    request.setRequestStream(&bodyStream);
    return request.exchange() == body ? 0 : -2;
  } catch (const Exception&) {
    throw KsMEMConnectionException(-1, "KsMEM Connection failed");
  }
}

}  // namespace Client
}  // namespace KsModelEventManager
}  // namespace Net
}  // namespace Kestrane
