#include "service/ServiceBackend.h"

#include <thread>
#include <utility>

#include "client/KsMemBinding.h"
#include "schemas/_2009_06/base/Namespace.h"
#include "service/PercentEncoding.h"

namespace Kestrane::Net::KsModelEventManager::Service {

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


// What this thread's last getEvents handed over, until the client's next request confirms it.
struct Unconfirmed {
  const ServiceBackend* backend = nullptr;
  std::string serverID;
  std::string clientID;
  std::string last;
};
thread_local Unconfirmed unconfirmed;

}  // namespace

ServiceFailure ServiceBackend::unknownClient(const std::string& serverID,
                                             const std::string& clientID,
                                             const std::string& operation) {
  return {KSMEM_ERR_UNKNOWN_CLIENT,
          "Client \"" + clientID +
              "\" is not registered with the Model Event Manager under server \"" + serverID +
              "\", so it cannot call " + operation + "; it must call registerClient first."};
}

std::string ServiceBackend::handle(const RequestHeaders& headers, const std::string& body) {
  const Unconfirmed fetched = std::exchange(unconfirmed, Unconfirmed());
  const auto operationHeader = headers.find("Operation-Name");
  if (operationHeader == headers.end()) {
    throw ServiceFailure(
        KSMEM_ERR_MALFORMED_REQUEST,
        "The request names no operation: its header block has no \"Operation-Name\".");
  }
  const std::string& operation = operationHeader->second;
  const std::string serverID = headerValue(headers, "Server-ID");
  const std::string clientID = headerValue(headers, "Client-ID");
  uint64_t number = 0;
  const FaultRule::Kind fault = faultOn(operation, number);
  // Made only when a fault strikes: requests without one pay for none of it.
  const auto exchange = [&] {
    return operation + " (matching exchange " + std::to_string(number) + " of this process)";
  };
  if (fault == FaultRule::Kind::kUnreachable) {
    throw injected(KSMEM_ERR_SERVICE_UNREACHABLE,
                   exchange() + " did not reach the service, which is unchanged");
  }
  if (fault == FaultRule::Kind::kRefused) {
    throw injected(KSMEM_ERR_SERVICE_REFUSED, "the service refused " + exchange());
  }
  std::string reply = serve(operation, serverID, clientID, body);
  if (fault == FaultRule::Kind::kDelay) std::this_thread::sleep_for(faults.delay);
  // Before the handover counts: a client that never saw the reply has not received the batch.
  if (fault == FaultRule::Kind::kLostReply) {
    throw injected(KSMEM_ERR_SERVICE_UNREACHABLE,
                   "the service served " + exchange() + ", and its reply was lost");
  }
  if (operation == "getSharedClients" && fetched.backend == this &&
      fetched.serverID == serverID && fetched.clientID == clientID) {
    std::lock_guard<std::mutex> lock(acknowledgementsMutex);
    acknowledgements[{serverID, clientID}] = fetched.last;
  }
  return reply;
}

FaultRule::Kind ServiceBackend::faultOn(const std::string& operation, uint64_t& number) {
  if (faults.kind == FaultRule::Kind::kNone ||
      (!faults.operation.empty() && faults.operation != operation)) {
    return FaultRule::Kind::kNone;
  }
  number = matching.fetch_add(1, std::memory_order_relaxed) + 1;
  return faults.strikes(number) ? faults.kind : FaultRule::Kind::kNone;
}

ServiceFailure ServiceBackend::injected(int32_t code, const std::string& what) const {
  return {code, "Fault injected by KSMEM_SERVICE (" + faults.options + "): " + what + "."};
}

std::string ServiceBackend::serve(const std::string& operation, const std::string& serverID,
                                  const std::string& clientID, const std::string& body) {
  if (operation == "getStatus") {
    checkAnswers();
    return body;
  }
  if (operation == "registerClient") {
    if (serverID.empty()) {
      throw ServiceFailure(KSMEM_ERR_MALFORMED_REQUEST,
                           "Client \"" + clientID +
                               "\" cannot register without a server identifier: the request's "
                               "\"Server-ID\" header is empty or missing.");
    }
    return sharedClientIDsDocument(registerClient(serverID, clientID));
  }
  if (operation == "getEvents") {
    std::string acknowledged;
    {
      std::lock_guard<std::mutex> lock(acknowledgementsMutex);
      const auto found = acknowledgements.find({serverID, clientID});
      if (found != acknowledgements.end()) acknowledged = found->second;
    }
    Batch batch = getEvents(serverID, clientID, acknowledged);
    if (!batch.last.empty()) unconfirmed = {this, serverID, clientID, std::move(batch.last)};
    return std::move(batch.events);
  }
  if (operation == "getClientBacklogs") {
    // A client identifier on a line of its own: bytes that would split or blur it escaped.
    std::string lines;
    for (const Backlog& backlog : getClientBacklogs(serverID)) {
      lines += std::to_string(backlog.pending) + " " + std::to_string(backlog.oldestAgeMs) + " " +
               percentEncoded(backlog.clientID, 0xFF, "%") + "\n";
    }
    return lines;
  }
  ClientIDs clients;
  if (operation == "unregisterClient") {
    clients = unregisterClient(serverID, clientID);
    std::lock_guard<std::mutex> lock(acknowledgementsMutex);
    acknowledgements.erase({serverID, clientID});
  } else if (operation == "putEvents") {
    if (body.size() > kMaxEventBytes) {
      throw ServiceFailure(KSMEM_ERR_MALFORMED_REQUEST,
                           "The event is " + std::to_string(body.size()) +
                               " bytes long; the Model Event Manager takes events of at most " +
                               std::to_string(kMaxEventBytes) + " bytes.");
    }
    clients = putEvents(serverID, clientID, body);
  } else if (operation == "getSharedClients") {
    clients = getSharedClients(serverID, clientID);
  } else {
    throw ServiceFailure(KSMEM_ERR_UNKNOWN_OPERATION,
                         "The Model Event Manager has no operation \"" + operation + "\".");
  }
  return sharedClientIDsDocument(clients);
}

}  // namespace Kestrane::Net::KsModelEventManager::Service
