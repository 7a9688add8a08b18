#include "client/KsMEMConnection.h"

#include <mutex>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "client/KsMEMRequest.h"
#include "client/StringViewStream.h"
#include "schemas/_2009_06/base/SharedClientsReply.h"

namespace Kestrane::Net::KsModelEventManager::Client {

namespace {

// The XML library is started once for all live connections and ended with the last of them,
// so that overlapping connections, a copy and its source among them, may go in any order.
std::mutex xmlParserMutex;
int xmlParserUsers = 0;

void acquireXmlParser() {
  std::lock_guard<std::mutex> lock(xmlParserMutex);
  if (xmlParserUsers == 0) {
    xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale, nullptr, nullptr,
                                          nullptr);
  }
  ++xmlParserUsers;
}

void releaseXmlParser() {
  std::lock_guard<std::mutex> lock(xmlParserMutex);
  if (--xmlParserUsers == 0) xercesc::XMLPlatformUtils::Terminate();
}

const char kServiceName[] = "KsMEMRequest";
const char kNotRegistered[] = "Client not Registered with Model Event Manager";

}  // namespace

using Schemas::KsModelEventManager::_2009_06::Base::appendSharedClients;

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

std::string KsMEMConnection::runRequest(std::string operationName, std::string logCorrelationID,
                                        bool sendIdentity, const std::string& body) {
  KsMEMRequest request;
  setRequestHeader(request, operationName, logCorrelationID, sendIdentity);
  StringViewStream bodyStream(body);
  request.setRequestStream(&bodyStream);
  return request.exchange();
}

int KsMEMConnection::getStatus() {
  const std::string body = "KsMEM Status check";
  try {
    return runRequest("getStatus", "KsMEMConnection.getStatus", false, body) == body ? 0 : -2;
  } catch (const Exception&) {
    throw KsMEMConnectionException(-1, "KsMEM Connection failed");
  }
}

void KsMEMConnection::registerClient(std::string& serverID, std::string& clientID,
                                     std::string& locale, std::vector<std::string>& sharedClients) {
  this->serverID = serverID;
  this->clientID = clientID;
  this->locale = locale;
  appendSharedClients(
      runRequest("registerClient", "KsMEMConnection.registerClient", true, "KsMEM register client"),
      sharedClients);
}

void KsMEMConnection::unregisterClient(std::vector<std::string>& sharedClients) {
  try {
    appendSharedClients(runRequest("unregisterClient", "KsMEMConnection.unregisterClient", true,
                                   "KsMEM unregister client"),
                        sharedClients);
  } catch (const Exception& failure) {
    serverID.clear();
    clientID.clear();
    throw Exception(failure);  // deliberately the root class: callers catch Exception here
  }
  serverID.clear();
  clientID.clear();
}

void KsMEMConnection::getEvents(std::string& events, std::vector<std::string>& sharedClients,
                                std::string& logCorrelationID) {
  if (!isClientRegistered()) throw KsMEMProtocolException(-2, kNotRegistered);
  events = runRequest("getEvents", logCorrelationID, true, "Get Events Request");
  sharedClients.clear();
  getSharedClients(sharedClients);
}

void KsMEMConnection::putEvents(std::string& events, std::vector<std::string>& sharedClients,
                                std::string& logCorrelationID) {
  if (!isClientRegistered()) throw KsMEMProtocolException(-2, kNotRegistered);
  appendSharedClients(runRequest("putEvents", logCorrelationID, true, events), sharedClients);
}

void KsMEMConnection::getSharedClients(std::vector<std::string>& sharedClients) {
  if (!isClientRegistered()) throw new KsMEMProtocolException(-2, kNotRegistered);
  appendSharedClients(runRequest("getSharedClients", "KsMEMConnection.getSharedClients", true,
                                 "KsMEM getClients Operation"),
                      sharedClients);
}

}  // namespace Kestrane::Net::KsModelEventManager::Client
