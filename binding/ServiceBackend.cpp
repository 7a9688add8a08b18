#include "binding/ServiceBackend.h"

#include <utility>

#include "schemas/_2009_06/base/Namespace.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

namespace {

std::string headerValue(const RequestHeaders& headers, const char* name) {
  const auto found = headers.find(name);
  return found != headers.end() ? found->second : std::string();
}

void appendEscaped(std::string& document, const std::string& text) {
  for (const char c : text) {
    switch (c) {
      case '&':
        document += "&amp;";
        break;
      case '<':
        document += "&lt;";
        break;
      case '>':
        document += "&gt;";
        break;
      case '"':
        document += "&quot;";
        break;
      case '\'':
        document += "&apos;";
        break;
      default:
        document += c;
    }
  }
}

std::string sharedClientIDsDocument(const ClientIDs& clients) {
  std::string document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><SharedClientIDs xmlns=\"";
  document += Schemas::KsModelEventManager::_2009_06::Base::kBaseNamespaceURI;
  document += "\">";
  for (const std::string& client : clients) {
    document += "<sharedClients>";
    appendEscaped(document, client);
    document += "</sharedClients>";
  }
  document += "</SharedClientIDs>";
  return document;
}

ServiceResult unknownClient(const std::string& serverID, const std::string& clientID,
                            const std::string& operation) {
  return {kUnknownClient, "Client \"" + clientID +
                              "\" is not registered with the Model Event Manager under server \"" +
                              serverID + "\", so it cannot call " + operation +
                              "; it must call registerClient first."};
}

}  // namespace

ServiceResult ServiceBackend::handle(const RequestHeaders& headers, const std::string& body) {
  const auto operationHeader = headers.find("Operation-Name");
  if (operationHeader == headers.end()) {
    return {kMalformedRequest,
            "The request names no operation: its header block has no \"Operation-Name\"."};
  }
  const std::string& operation = operationHeader->second;
  const std::string serverID = headerValue(headers, "Server-ID");
  const std::string clientID = headerValue(headers, "Client-ID");
  try {
    if (operation == "getStatus") {
      checkAnswers();
      return {0, body};
    }
    if (operation == "registerClient") {
      if (serverID.empty()) {
        return {kMalformedRequest, "Client \"" + clientID +
                                       "\" cannot register without a server identifier: the "
                                       "request's \"Server-ID\" header is empty or missing."};
      }
      return {0, sharedClientIDsDocument(registerClient(serverID, clientID))};
    }
    if (operation == "getEvents") {
      std::optional<std::string> events = getEvents(serverID, clientID);
      if (!events) return unknownClient(serverID, clientID, operation);
      return {0, std::move(*events)};
    }
    std::optional<ClientIDs> clients;
    if (operation == "unregisterClient") {
      clients = unregisterClient(serverID, clientID);
    } else if (operation == "putEvents") {
      clients = putEvents(serverID, clientID, body);
    } else if (operation == "getSharedClients") {
      clients = getSharedClients(serverID, clientID);
    } else {
      return {kUnknownOperation, "The Model Event Manager has no operation \"" + operation + "\"."};
    }
    if (!clients) return unknownClient(serverID, clientID, operation);
    return {0, sharedClientIDsDocument(*clients)};
  } catch (ServiceFailure& failure) {
    return {failure.code, std::move(failure.text)};
  }
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
