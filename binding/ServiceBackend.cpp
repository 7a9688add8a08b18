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
  return {KSMEM_ERR_UNKNOWN_CLIENT,
          "Client \"" + clientID +
              "\" is not registered with the Model Event Manager under server \"" + serverID +
              "\", so it cannot call " + operation + "; it must call registerClient first."};
}

// A client identifier on a line of its own: bytes that would split or blur it written as "%"
// and two hex digits.
void appendVisible(std::string& text, const std::string& id) {
  static const char kHex[] = "0123456789ABCDEF";
  for (const char c : id) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x21 || c == '%') {
      text += '%';
      text += kHex[byte >> 4];
      text += kHex[byte & 0xF];
    } else {
      text += c;
    }
  }
}

// What this thread's last getEvents handed over, until the client's next request confirms it.
struct Unconfirmed {
  const ServiceBackend* backend = nullptr;
  std::string serverID;
  std::string clientID;
  std::string last;
};
thread_local Unconfirmed unconfirmed;

}  // namespace

ServiceResult ServiceBackend::handle(const RequestHeaders& headers, const std::string& body) {
  const Unconfirmed fetched = std::exchange(unconfirmed, Unconfirmed());
  const auto operationHeader = headers.find("Operation-Name");
  if (operationHeader == headers.end()) {
    return {KSMEM_ERR_MALFORMED_REQUEST,
            "The request names no operation: its header block has no \"Operation-Name\"."};
  }
  const std::string& operation = operationHeader->second;
  const std::string serverID = headerValue(headers, "Server-ID");
  const std::string clientID = headerValue(headers, "Client-ID");
  try {
    ServiceResult result = serve(operation, serverID, clientID, body);
    if (result.code == 0 && operation == "getSharedClients" && fetched.backend == this &&
        fetched.serverID == serverID && fetched.clientID == clientID) {
      std::lock_guard<std::mutex> lock(acknowledgementsMutex);
      acknowledgements[{serverID, clientID}] = fetched.last;
    }
    return result;
  } catch (ServiceFailure& failure) {
    return {failure.code, std::move(failure.text)};
  }
}

ServiceResult ServiceBackend::serve(const std::string& operation, const std::string& serverID,
                                    const std::string& clientID, const std::string& body) {
  if (operation == "getStatus") {
    checkAnswers();
    return {0, body};
  }
  if (operation == "registerClient") {
    if (serverID.empty()) {
      return {KSMEM_ERR_MALFORMED_REQUEST,
              "Client \"" + clientID +
                  "\" cannot register without a server identifier: the request's "
                  "\"Server-ID\" header is empty or missing."};
    }
    return {0, sharedClientIDsDocument(registerClient(serverID, clientID))};
  }
  if (operation == "getEvents") {
    std::string acknowledged;
    {
      std::lock_guard<std::mutex> lock(acknowledgementsMutex);
      const auto found = acknowledgements.find({serverID, clientID});
      if (found != acknowledgements.end()) acknowledged = found->second;
    }
    std::optional<Batch> batch = getEvents(serverID, clientID, acknowledged);
    if (!batch) return unknownClient(serverID, clientID, operation);
    if (!batch->last.empty()) unconfirmed = {this, serverID, clientID, std::move(batch->last)};
    return {0, std::move(batch->events)};
  }
  if (operation == "getClientBacklogs") {
    std::string lines;
    for (const Backlog& backlog : getClientBacklogs(serverID)) {
      lines += std::to_string(backlog.pending) + " " + std::to_string(backlog.oldestAgeMs) + " ";
      appendVisible(lines, backlog.clientID);
      lines += "\n";
    }
    return {0, lines};
  }
  std::optional<ClientIDs> clients;
  if (operation == "unregisterClient") {
    clients = unregisterClient(serverID, clientID);
    if (clients) {
      std::lock_guard<std::mutex> lock(acknowledgementsMutex);
      acknowledgements.erase({serverID, clientID});
    }
  } else if (operation == "putEvents") {
    if (body.size() > kMaxEventBytes) {
      return {KSMEM_ERR_MALFORMED_REQUEST,
              "The event is " + std::to_string(body.size()) +
                  " bytes long; the Model Event Manager takes events of at most " +
                  std::to_string(kMaxEventBytes) + " bytes."};
    }
    clients = putEvents(serverID, clientID, body);
  } else if (operation == "getSharedClients") {
    clients = getSharedClients(serverID, clientID);
  } else {
    return {KSMEM_ERR_UNKNOWN_OPERATION,
            "The Model Event Manager has no operation \"" + operation + "\"."};
  }
  if (!clients) return unknownClient(serverID, clientID, operation);
  return {0, sharedClientIDsDocument(*clients)};
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding
