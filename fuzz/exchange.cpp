// Fuzz target: the exchange engine under all six connection operations, over a transport whose
// every answer comes from the input: results of KsMem_Init and of each send, statuses, delivery
// counts and bytes, failure codes, and what KsMem_GetLastError hands out.
//
// The transport keeps the contract's state machine and ends the run at the first call that the
// contract does not allow: a call before KsMem_Init, anything but KsMem_GetLastError right
// after a failure result, a second KsMem_GetLastError, KsMem_Complete other than after the -1
// that ends a reply, a chunk longer than 4098 bytes, KsMem_Term. The one step the library takes
// on purpose is honoured: the result of the KsMem_SendEOF behind the header block is not
// examined, so a failure there is reported again by the status read that follows.
//
// Each operation is checked against the model of the connection that the driver keeps (its
// identity and whether its transport is up):
//   - the header block, byte for byte, and the body chunks, as a prefix of the body;
//   - KsMem_Init exactly when the connection has not started the transport;
//   - the outcome: getStatus gives 0 for an echo of its body and -2 otherwise, or
//     KsMEMConnectionException -1 "KsMEM Connection failed"; unregisterClient a plain
//     Exception; the others the class that the failure table gives for the code, or
//     KsMEMProtocolException for an answer the contract does not allow (a status other than
//     19, 20, 0, a delivery count above 16384); type code 0 and the message that
//     KsMem_GetLastError's text and result make; DomException only for a reply that is no
//     client list; refusals with -2 and no transport call when not registered;
//   - the caller's arguments: replies appended, replaced or untouched as the operation says,
//     and a generated client list read back exactly.
// Deliveries stay within 16384 bytes but for the out-of-contract counts, and the bytes
// delivered per input are bounded, so that no input reaches the library's 1 GiB limit.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/Exception.h"
#include "client/KsMEMConnection.h"
#include "client/KsMemBinding.h"
#include "util/DomException.h"
#include "util/Utf8.h"
#include "util/XmlEscape.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
using Kestrane::Net::KsModelEventManager::Util::DomException;
using List = std::vector<std::string>;

namespace {

constexpr int32_t kMaxDelivery = KSMEM_RECEIVE_BUFFER_SIZE;
constexpr size_t kMaxChunk = 4098;
constexpr size_t kDeliveredBytesPerInput = 1 << 19;
constexpr int kMaxOperationsPerInput = 48;
const char kNotRegistered[] = "Client not Registered with Model Event Manager";

// Every code of the failure table, its neighbours, the end of a reply and the library's own
// code.
constexpr int32_t kFailureCodes[] = {KSMEM_ERR_UNKNOWN_CLIENT,
                                     KSMEM_ERR_CONNECTION_HIGHEST,
                                     KSMEM_ERR_CONNECTION_HIGHEST - 1,
                                     KSMEM_ERR_CONNECTION_LOWEST + 1,
                                     KSMEM_ERR_CONNECTION_LOWEST,
                                     KSMEM_ERR_SERVICE_UNREACHABLE,
                                     KSMEM_ERR_SERVICE_REFUSED,
                                     KSMEM_ERR_TRANSPORT_FAULT,
                                     KSMEM_ERR_OUT_OF_TURN,
                                     KSMEM_ERR_UNKNOWN_OPERATION,
                                     KSMEM_ERR_MALFORMED_REQUEST,
                                     KSMEM_END_OF_REPLY,
                                     KSMEM_END_OF_REPLY - 1,
                                     KSMEM_ERR_UNKNOWN_CLIENT + 1,
                                     KSMEM_ERR_CONNECTION_HIGHEST + 1,
                                     KSMEM_ERR_CONNECTION_LOWEST - 1,
                                     KSMEM_ERR_NO_TEXT,
                                     KSMEM_ERR_MALFORMED_REQUEST - 1,
                                     KSMEM_ERR_MALFORMED_REQUEST + 1,
                                     INT32_MIN};
constexpr int32_t kInitOnlyCodes[] = {KSMEM_ERR_INIT_CONNECTION,
                                      KSMEM_ERR_INIT_PROTOCOL,
                                      KSMEM_ERR_INIT_RUNTIME,
                                      1,
                                      KSMEM_ERR_INIT_CONNECTION - 1,
                                      KSMEM_ERR_INIT_RUNTIME + 1,
                                      INT32_MAX};

FuzzedDataProvider* input;

[[noreturn]] void broken(const std::string& what) {
  std::fprintf(stderr, "invariant broken: %s\n", what.c_str());
  std::abort();
}

void require(bool condition, const std::string& what) {
  if (!condition) broken(what);
}

enum class Kind { None, Connection, Protocol, Runtime, Unrecognised, Plain, Dom, ProtocolPointer };

const char* kindName(Kind kind) {
  static const char* const kNames[] = {"nothing",
                                       "KsMEMConnectionException",
                                       "KsMEMProtocolException",
                                       "KsMEMRuntimeException",
                                       "KsMEMUnrecognisedException",
                                       "Exception",
                                       "DomException",
                                       "KsMEMProtocolException*"};
  return kNames[static_cast<int>(kind)];
}

// The class that a failure result maps to.
Kind classOf(int32_t code) {
  if (code >= KSMEM_ERR_CONNECTION_LOWEST && code <= KSMEM_ERR_CONNECTION_HIGHEST) {
    return Kind::Connection;
  }
  switch (code) {
    case KSMEM_ERR_INIT_CONNECTION:
    case KSMEM_ERR_SERVICE_UNREACHABLE:
      return Kind::Connection;
    case KSMEM_ERR_INIT_PROTOCOL:
    case KSMEM_ERR_UNKNOWN_CLIENT:
    case KSMEM_ERR_UNKNOWN_OPERATION:
    case KSMEM_ERR_MALFORMED_REQUEST:
      return Kind::Protocol;
    case KSMEM_ERR_INIT_RUNTIME:
    case KSMEM_ERR_SERVICE_REFUSED:
    case KSMEM_ERR_TRANSPORT_FAULT:
    case KSMEM_ERR_OUT_OF_TURN:
      return Kind::Runtime;
    default:
      return Kind::Unrecognised;
  }
}

// A text as a C reader sees it: up to its first zero byte.
std::string cut(const std::string& text) { return text.substr(0, std::strlen(text.c_str())); }

enum class Phase { Idle, HeaderSent, AwaitingStatus, SendingBody, Replying, Finishing, Failed };
enum class ReplyMode { Raw, ClientList, Echo };

// One exchange as the transport saw it.
struct Exchange {
  std::string headerBlock;
  List chunks;  // as handed over, each up to its zero byte
  std::string reply;
  bool completed = false;
  ReplyMode mode = ReplyMode::Raw;
  List generatedClients;         // for ReplyMode::ClientList
  bool wholeClientList = false;  // the generated list went out whole before the -1
};

// What the transport answered that the operation must report.
struct Problem {
  enum { None, Failure, OutOfContract } kind = None;
  int32_t code = 0;
  std::string message;  // what getLastErrorText makes of KsMem_GetLastError's answer
};

struct Transport {
  Phase phase = Phase::Idle;
  bool initialised = false;
  bool headerEofFailed = false;
  int32_t headerEofCode = 0;
  bool bodyEnded = false;    // a chunk got 0: the next call must be KsMem_SendEOF
  std::string pendingReply;  // ClientList and Echo: what is left to deliver
  std::string lastErrorText;
  size_t delivered = 0;

  // Per operation; cleared by the driver.
  std::vector<Exchange> exchanges;
  int initCalls = 0;
  bool initSucceeded = false;
  int calls = 0;
  Problem problem;
};

Transport transport;

int32_t fail(int32_t code) {
  transport.phase = Phase::Failed;
  transport.problem = {Problem::Failure, code, ""};
  return code;
}

// A failure result. While a reply is read, -1 ends it and is no failure.
int32_t pickFailure(bool readingReply = false) {
  const int32_t worst = readingReply ? KSMEM_END_OF_REPLY - 1 : KSMEM_END_OF_REPLY;
  const size_t choice = input->ConsumeIntegralInRange<size_t>(0, std::size(kFailureCodes));
  if (choice == std::size(kFailureCodes)) return std::min(input->ConsumeIntegral<int32_t>(), worst);
  return std::min(kFailureCodes[choice], worst);
}

Exchange& current() {
  require(!transport.exchanges.empty(), "exchange call before a header block");
  return transport.exchanges.back();
}

void enter(const char* entry) {
  ++transport.calls;
  require(transport.phase != Phase::Failed,
          std::string(entry) + " after a failure result, before KsMem_GetLastError");
}

std::string clientListDocument(List& clients) {
  static const char kAlphabet[] = "abcXYZ019 _-.&<>\"'%\t\n";
  const int count = input->ConsumeIntegralInRange(0, 5);
  std::string document = "<?xml version=\"1.0\"?>\n<SharedClientIDs xmlns=\"urn:x\">";
  for (int i = 0; i < count; ++i) {
    std::string client = input->ConsumeRandomLengthString(24);
    for (char& byte : client)
      byte = kAlphabet[static_cast<unsigned char>(byte) % (sizeof kAlphabet - 1)];
    clients.push_back(client);
    document += "<sharedClients>" + Kestrane::Net::KsModelEventManager::Util::escapeXML(client) +
                "</sharedClients>";
  }
  return document + "</SharedClientIDs>";
}

void startReply() {
  transport.phase = Phase::Replying;
  Exchange& exchange = current();
  switch (input->ConsumeIntegralInRange(0, 2)) {
    case 0:
      exchange.mode = ReplyMode::Raw;
      transport.pendingReply.clear();
      break;
    case 1:
      exchange.mode = ReplyMode::ClientList;
      transport.pendingReply = clientListDocument(exchange.generatedClients);
      break;
    default:
      exchange.mode = ReplyMode::Echo;
      transport.pendingReply.clear();
      for (const std::string& chunk : exchange.chunks) transport.pendingReply += chunk;
      break;
  }
}

int32_t receiveStatus() {
  if (transport.headerEofFailed) {
    transport.headerEofFailed = false;
    return fail(transport.headerEofCode);
  }
  const uint8_t choice = input->ConsumeIntegral<uint8_t>();
  switch (choice % 8) {
    case 0:
    case 4:
      startReply();
      return KSMEM_STATUS_NO_MORE_TO_SEND;
    case 1:
      startReply();
      return KSMEM_STATUS_GO_ON;
    case 2:
    case 3:
      transport.phase = Phase::SendingBody;
      transport.bodyEnded = false;
      return KSMEM_STATUS_BODY_WANTED;
    case 5:
    case 6:
      return fail(choice % 8 == 6 ? KSMEM_END_OF_REPLY : pickFailure());
    default: {
      int32_t status = input->ConsumeIntegral<int32_t>();
      if (status < 0) return fail(status);
      if (status == KSMEM_STATUS_GO_ON || status == KSMEM_STATUS_BODY_WANTED ||
          status == KSMEM_STATUS_NO_MORE_TO_SEND) {
        status = KSMEM_STATUS_NO_MORE_TO_SEND + 1;
      }
      transport.phase = Phase::Idle;
      transport.problem = {Problem::OutOfContract, status, ""};
      return status;
    }
  }
}

int32_t deliver(char* buffer) {
  Exchange& exchange = current();
  const uint8_t choice = input->ConsumeIntegral<uint8_t>();
  if (choice % 16 == 1) return fail(pickFailure(true));
  if (choice % 16 == 2) {
    transport.phase = Phase::Idle;
    const int32_t count = input->ConsumeIntegralInRange(kMaxDelivery + 1, INT32_MAX);
    transport.problem = {Problem::OutOfContract, count, ""};
    return count;
  }
  const bool generated = exchange.mode != ReplyMode::Raw;
  if (choice % 16 == 0 || (generated && transport.pendingReply.empty()) ||
      transport.delivered >= kDeliveredBytesPerInput) {
    transport.phase = Phase::Finishing;
    exchange.wholeClientList =
        exchange.mode == ReplyMode::ClientList && transport.pendingReply.empty();
    return KSMEM_END_OF_REPLY;
  }
  size_t count = input->ConsumeIntegralInRange<size_t>(0, kMaxDelivery);
  count = std::min(count, kDeliveredBytesPerInput - transport.delivered);
  std::string bytes;
  if (generated) {
    count = std::min(count, transport.pendingReply.size());
    bytes = transport.pendingReply.substr(0, count);
    transport.pendingReply.erase(0, count);
  } else {
    bytes = input->ConsumeBytesAsString(count);
    // A short input still makes long deliveries: its bytes repeat.
    if (bytes.empty() && count > 0) bytes = "x";
    while (bytes.size() < count) bytes.append(bytes, 0, count - bytes.size());
  }
  std::memcpy(buffer, bytes.data(), bytes.size());
  exchange.reply += bytes;
  transport.delivered += bytes.size();
  return static_cast<int32_t>(bytes.size());
}

}  // namespace

extern "C" {

int32_t KsMem_Init(KsMemAllocFunc allocate, KsMemFreeFunc release) {
  enter("KsMem_Init");
  require(transport.phase == Phase::Idle, "KsMem_Init inside an exchange");
  require(allocate == &malloc && release == &free, "KsMem_Init not given malloc and free");
  ++transport.initCalls;
  if (input->ConsumeIntegral<uint8_t>() < 224) {
    transport.initialised = true;
    transport.initSucceeded = true;
    return 0;
  }
  if (input->ConsumeBool()) {
    return fail(
        kInitOnlyCodes[input->ConsumeIntegralInRange<size_t>(0, std::size(kInitOnlyCodes) - 1)]);
  }
  return fail(pickFailure());
}

int32_t KsMem_Term(void) { broken("KsMem_Term called"); }

int32_t KsMem_Send(const char*) {
  broken("KsMem_Send called; every operation uses the stream form");
}

int32_t KsMem_SendNoAck(const char* text) {
  enter("KsMem_SendNoAck");
  require(text != nullptr, "KsMem_SendNoAck given a null text");
  const uint8_t choice = input->ConsumeIntegral<uint8_t>();
  if (transport.phase == Phase::Idle) {
    require(transport.initialised, "header block sent before KsMem_Init succeeded");
    transport.exchanges.emplace_back();
    transport.exchanges.back().headerBlock = text;
    transport.phase = Phase::HeaderSent;
    if (choice >= 240) return fail(pickFailure());
    return choice < 200 ? 1 : 0;
  }
  require(transport.phase == Phase::SendingBody, "KsMem_SendNoAck outside header and body");
  require(!transport.bodyEnded, "body chunk sent after a chunk was answered with 0");
  require(std::strlen(text) <= kMaxChunk, "body chunk longer than 4098 bytes");
  current().chunks.push_back(text);
  switch (choice % 8) {
    case 6:
      transport.bodyEnded = true;
      return 0;
    case 7:
      return fail(pickFailure());
    default:
      return choice % 2 == 0 ? 1 : input->ConsumeIntegralInRange(1, INT32_MAX);
  }
}

int32_t KsMem_SendEOF(void) {
  enter("KsMem_SendEOF");
  const bool failing = input->ConsumeIntegral<uint8_t>() >= 240;
  if (transport.phase == Phase::HeaderSent) {
    transport.phase = Phase::AwaitingStatus;
    if (!failing) return 0;
    // Not examined by the library; the status read that follows reports it.
    transport.headerEofFailed = true;
    transport.headerEofCode = pickFailure();
    return transport.headerEofCode;
  }
  require(transport.phase == Phase::SendingBody, "KsMem_SendEOF outside header and body");
  transport.phase = Phase::AwaitingStatus;
  return failing ? fail(pickFailure()) : 0;
}

int32_t KsMem_Receive(char* buffer) {
  enter("KsMem_Receive");
  require(buffer != nullptr, "KsMem_Receive given a null buffer");
  if (transport.phase == Phase::AwaitingStatus) return receiveStatus();
  require(transport.phase == Phase::Replying, "KsMem_Receive outside status and reply");
  return deliver(buffer);
}

int32_t KsMem_Complete(void) {
  enter("KsMem_Complete");
  require(transport.phase == Phase::Finishing, "KsMem_Complete other than after the -1 of a reply");
  transport.phase = Phase::Idle;
  current().completed = true;
  return input->ConsumeIntegral<int32_t>();
}

int32_t KsMem_GetLastError(const char** text) {
  ++transport.calls;
  require(transport.phase == Phase::Failed, "KsMem_GetLastError without a failure before it");
  require(text != nullptr && *text == nullptr, "KsMem_GetLastError not given a null text pointer");
  transport.phase = Phase::Idle;
  // 0: text, result 0; 1: no text, result 0; 2: no text, failed; 3: text, failed.
  const int choice = input->ConsumeIntegralInRange(0, 3);
  const bool hasText = choice == 0 || choice == 3;
  int32_t result = 0;
  if (choice >= 2) {
    result = input->ConsumeIntegral<int32_t>();
    if (result == 0) result = -1;
  }
  transport.lastErrorText = input->ConsumeRandomLengthString(40);
  if (hasText) *text = transport.lastErrorText.c_str();
  std::string& message = transport.problem.message;
  if (result == 0) {
    message = hasText ? cut(transport.lastErrorText) : "No error message received";
  } else {
    message = hasText ? "" : "Could not retrieve last error message.";
  }
  return result;
}

}  // extern "C"

namespace {

// What the driver knows of one connection.
struct Model {
  std::string serverID;
  std::string clientID;
  std::string locale;
  bool transportInitialised = false;
  bool registered() const { return !serverID.empty(); }
};

struct Caught {
  Kind kind = Kind::None;
  int type = 0;
  std::string message;
};

template <typename Operation>
Caught run(Operation operation) {
  try {
    operation();
    return {};
  } catch (const KsMEMConnectionException& e) {
    return {Kind::Connection, e.getType(), e.getMessage()};
  } catch (const KsMEMProtocolException& e) {
    return {Kind::Protocol, e.getType(), e.getMessage()};
  } catch (const KsMEMRuntimeException& e) {
    return {Kind::Runtime, e.getType(), e.getMessage()};
  } catch (const KsMEMUnrecognisedException& e) {
    return {Kind::Unrecognised, e.getType(), e.getMessage()};
  } catch (const KsMEMException& e) {
    broken("exception of class KsMEMException or Utf8ConversionException: " + e.getMessage());
  } catch (const Exception& e) {
    return {Kind::Plain, e.getType(), e.getMessage()};
  } catch (const DomException& e) {
    return {Kind::Dom, 0, e.getMessage()};
  } catch (KsMEMProtocolException* e) {
    Caught caught{Kind::ProtocolPointer, e->getType(), e->getMessage()};
    delete e;
    return caught;
  }
}

std::string expectedHeaderBlock(const Model& model, const std::string& operation,
                                const std::string& logCorrelationID, bool sendIdentity) {
  std::map<std::string, std::string> headers = {{"Service-Name", "KsMEMRequest"},
                                                {"Operation-Name", operation},
                                                {"Log-Correlation-ID", cut(logCorrelationID)}};
  if (!model.locale.empty()) headers["Locale"] = cut(model.locale);
  if (sendIdentity) {
    headers["Server-ID"] = cut(model.serverID);
    headers["Client-ID"] = cut(model.clientID);
  }
  std::string block;
  for (const auto& [name, value] : headers) {
    block += name + "=" + (value == "null" ? "" : value) + "\r\n";
  }
  block += "\r\n";
  return Kestrane::Net::KsModelEventManager::Util::toUtf8(block.data(),
                                                          static_cast<int32_t>(block.size()));
}

// The chunks the body goes out in, each as the transport sees it.
List expectedChunks(const std::string& body) {
  List chunks;
  for (size_t at = 0; at < body.size(); at += kMaxChunk)
    chunks.push_back(cut(body.substr(at, kMaxChunk)));
  return chunks;
}

void checkExchange(const Exchange& exchange, const Model& model, const std::string& operation,
                   const std::string& logCorrelationID, bool sendIdentity,
                   const std::string& body) {
  require(
      exchange.headerBlock == expectedHeaderBlock(model, operation, logCorrelationID, sendIdentity),
      operation + ": header block differs:\n" + exchange.headerBlock);
  const List chunks = expectedChunks(body);
  require(exchange.chunks.size() <= chunks.size() &&
              std::equal(exchange.chunks.begin(), exchange.chunks.end(), chunks.begin()),
          operation + ": body chunks are not the body");
}

// The failure that an operation reports, against what the transport answered.
void checkReportedFailure(const Caught& caught, const std::string& operation) {
  const Problem& problem = transport.problem;
  require(problem.kind != Problem::None, operation + ": " + kindName(caught.kind) +
                                             " without a transport failure: " + caught.message);
  const Kind expected = problem.kind == Problem::Failure ? classOf(problem.code) : Kind::Protocol;
  require(caught.kind == expected, operation + ": " + kindName(caught.kind) + " for code " +
                                       std::to_string(problem.code) + ", expected " +
                                       kindName(expected));
  require(caught.type == 0, operation + ": type code " + std::to_string(caught.type));
  if (problem.kind == Problem::Failure) {
    require(caught.message == problem.message, operation + ": message \"" + caught.message +
                                                   "\", expected \"" + problem.message + "\"");
  }
}

// A reply that the operation read as a client list: what it may append.
void checkClientsRead(const Exchange& exchange, const List& before, const List& after,
                      const std::string& operation) {
  require(after.size() >= before.size() && std::equal(before.begin(), before.end(), after.begin()),
          operation + ": entries before the call were changed");
  if (exchange.wholeClientList) {
    require(List(after.begin() + before.size(), after.end()) == exchange.generatedClients,
            operation + ": clients read differ from the clients sent");
  }
}

// DomException is allowed only for a whole reply that is no client list.
void checkDomException(const std::string& operation) {
  require(!transport.exchanges.empty() && transport.exchanges.back().completed,
          operation + ": DomException without a whole reply");
  require(!transport.exchanges.back().wholeClientList,
          operation + ": DomException for a generated client list");
}

std::string fixedBody(const std::string& operation) {
  static const std::map<std::string, std::string> kBodies = {
      {"getStatus", "KsMEM Status check"},
      {"registerClient", "KsMEM register client"},
      {"unregisterClient", "KsMEM unregister client"},
      {"getEvents", "Get Events Request"},
      {"getSharedClients", "KsMEM getClients Operation"}};
  return kBodies.at(operation);
}

List consumeList() {
  List list;
  for (int i = input->ConsumeIntegralInRange(0, 2); i > 0; --i)
    list.push_back(input->ConsumeRandomLengthString(8));
  return list;
}

std::string consumeIdentity() { return input->ConsumeRandomLengthString(12); }

class Driver {
 public:
  void runOne() {
    transport.exchanges.clear();
    transport.initCalls = 0;
    transport.initSucceeded = false;
    transport.calls = 0;
    transport.problem = {};
    const size_t slot = input->ConsumeIntegralInRange<size_t>(0, 1);
    if (!connections[slot]) {
      connections[slot].emplace();
      models[slot] = Model();
    }
    KsMEMConnection& connection = *connections[slot];
    Model& model = models[slot];
    const bool wasInitialised = model.transportInitialised;

    switch (input->ConsumeIntegralInRange(0, 8)) {
      case 0:
        getStatus(connection, model);
        break;
      case 1:
        registerClient(connection, model);
        break;
      case 2:
        unregisterClient(connection, model);
        break;
      case 3:
        getEvents(connection, model);
        break;
      case 4:
        putEvents(connection, model);
        break;
      case 5:
        getSharedClients(connection, model);
        break;
      case 6: {  // assignment, possibly to itself
        const size_t from = input->ConsumeIntegralInRange<size_t>(0, 1);
        if (connections[from]) {
          connection = *connections[from];
          models[slot] = models[from];
        }
        return;
      }
      case 7: {  // copy construction
        const size_t from = input->ConsumeIntegralInRange<size_t>(0, 1);
        if (connections[from] && from != slot) {
          connections[slot].emplace(*connections[from]);
          models[slot] = models[from];
        }
        return;
      }
      default:
        connections[slot].reset();
        return;
    }

    require(transport.phase == Phase::Idle, "operation ended with its exchange unfinished");
    if (transport.calls == 0) return;  // refused
    require(transport.initCalls == (wasInitialised ? 0 : 1),
            "KsMem_Init called " + std::to_string(transport.initCalls) + " times by a connection " +
                (wasInitialised ? "with" : "without") + " a started transport");
  }

 private:
  void noteInit(Model& model) {
    if (transport.initSucceeded) model.transportInitialised = true;
  }

  void getStatus(KsMEMConnection& connection, Model& model) {
    int result = 1;
    const Caught caught = run([&] { result = connection.getStatus(); });
    noteInit(model);
    if (caught.kind == Kind::None) {
      const Exchange& exchange = transport.exchanges.at(0);
      checkExchange(exchange, model, "getStatus", "KsMEMConnection.getStatus", false,
                    fixedBody("getStatus"));
      require(exchange.completed, "getStatus returned without a whole reply");
      require(result == (exchange.reply == "KsMEM Status check" ? 0 : -2), "getStatus result");
      return;
    }
    require(caught.kind == Kind::Connection && caught.type == -1 &&
                caught.message == "KsMEM Connection failed",
            std::string("getStatus threw ") + kindName(caught.kind) + " " +
                std::to_string(caught.type) + " " + caught.message);
    require(transport.problem.kind != Problem::None,
            "getStatus failed without a transport failure");
  }

  void registerClient(KsMEMConnection& connection, Model& model) {
    std::string serverID = consumeIdentity(), clientID = consumeIdentity(),
                locale = consumeIdentity();
    const List before = consumeList();
    List clients = before;
    const Caught caught =
        run([&] { connection.registerClient(serverID, clientID, locale, clients); });
    model.serverID = serverID;
    model.clientID = clientID;
    model.locale = locale;
    noteInit(model);
    checkOutcome(caught, "registerClient", model, before, clients);
  }

  void unregisterClient(KsMEMConnection& connection, Model& model) {
    const List before = consumeList();
    List clients = before;
    const Caught caught = run([&] { connection.unregisterClient(clients); });
    noteInit(model);
    if (caught.kind == Kind::Plain) {
      // The class is gone, type code and message are those of the failure below.
      Caught asBelow = caught;
      const Problem& problem = transport.problem;
      asBelow.kind = problem.kind == Problem::Failure ? classOf(problem.code) : Kind::Protocol;
      checkOutcome(asBelow, "unregisterClient", model, before, clients);
    } else {
      require(caught.kind == Kind::None || caught.kind == Kind::Dom,
              std::string("unregisterClient threw ") + kindName(caught.kind));
      checkOutcome(caught, "unregisterClient", model, before, clients);
    }
    if (caught.kind != Kind::Dom) {
      model.serverID.clear();
      model.clientID.clear();
    }
  }

  void getEvents(KsMEMConnection& connection, Model& model) {
    const std::string eventsBefore = input->ConsumeRandomLengthString(8);
    const std::string logCorrelationID = input->ConsumeRandomLengthString(12);
    std::string events = eventsBefore;
    std::string correlation = logCorrelationID;
    const List before = consumeList();
    List clients = before;
    const Caught caught = run([&] { connection.getEvents(events, clients, correlation); });
    noteInit(model);
    if (checkRefusal(caught, model, "getEvents", Kind::Protocol)) {
      require(events == eventsBefore && clients == before, "getEvents refusal changed arguments");
      return;
    }
    const std::vector<Exchange>& exchanges = transport.exchanges;
    require(correlation == logCorrelationID, "getEvents changed its log correlation ID");
    if (exchanges.empty() || !exchanges[0].completed) {  // the first exchange failed
      checkReportedFailure(caught, "getEvents");
      if (!exchanges.empty())
        checkExchange(exchanges[0], model, "getEvents", logCorrelationID, true,
                      fixedBody("getEvents"));
      require(events == eventsBefore && clients == before, "getEvents failure changed arguments");
      return;
    }
    checkExchange(exchanges[0], model, "getEvents", logCorrelationID, true, fixedBody("getEvents"));
    require(events == exchanges[0].reply, "getEvents: events differ from the reply");
    require(exchanges.size() == 2,
            "getEvents made " + std::to_string(exchanges.size()) + " exchanges");
    const Exchange& second = exchanges[1];
    checkExchange(second, model, "getSharedClients", "KsMEMConnection.getSharedClients", true,
                  fixedBody("getSharedClients"));
    if (caught.kind == Kind::None) {
      checkClientsRead(second, {}, clients, "getEvents");
      return;
    }
    if (caught.kind == Kind::Dom) {
      checkDomException("getEvents");
    } else {
      checkReportedFailure(caught, "getEvents");
    }
    require(clients.empty(), "getEvents: clients not emptied after its second exchange failed");
  }

  void putEvents(KsMEMConnection& connection, Model& model) {
    const std::string piece = input->ConsumeRandomLengthString(64);
    std::string eventsBefore;
    for (int i = input->ConsumeIntegralInRange(1, 256); i > 0; --i) eventsBefore += piece;
    std::string events = eventsBefore;
    std::string correlation = input->ConsumeRandomLengthString(12);
    const std::string logCorrelationID = correlation;
    const List before = consumeList();
    List clients = before;
    const Caught caught = run([&] { connection.putEvents(events, clients, correlation); });
    noteInit(model);
    require(events == eventsBefore && correlation == logCorrelationID,
            "putEvents changed its input");
    if (checkRefusal(caught, model, "putEvents", Kind::Protocol)) {
      require(clients == before, "putEvents refusal changed arguments");
      return;
    }
    checkOutcome(caught, "putEvents", model, before, clients, logCorrelationID, eventsBefore);
  }

  void getSharedClients(KsMEMConnection& connection, Model& model) {
    const List before = consumeList();
    List clients = before;
    const Caught caught = run([&] { connection.getSharedClients(clients); });
    noteInit(model);
    if (checkRefusal(caught, model, "getSharedClients", Kind::ProtocolPointer)) {
      require(clients == before, "getSharedClients refusal changed arguments");
      return;
    }
    checkOutcome(caught, "getSharedClients", model, before, clients);
  }

  // An unregistered connection refuses with -2 before it calls the transport.
  bool checkRefusal(const Caught& caught, const Model& model, const std::string& operation,
                    Kind kind) {
    if (model.registered()) {
      require(transport.calls > 0, operation + ": no transport call on a registered connection");
      return false;
    }
    require(caught.kind == kind && caught.type == -2 && caught.message == kNotRegistered,
            operation + ": not refused on an unregistered connection");
    require(transport.calls == 0, operation + ": called the transport before refusing");
    return true;
  }

  // One exchange whose reply is read as a client list (register, unregister, put, get clients).
  void checkOutcome(const Caught& caught, const std::string& operation, const Model& model,
                    const List& before, const List& clients,
                    const std::string& logCorrelationID = "", const std::string& body = "") {
    const bool ownCorrelation = operation == "getEvents" || operation == "putEvents";
    const std::string correlation =
        ownCorrelation ? logCorrelationID : "KsMEMConnection." + operation;
    const std::string sentBody = operation == "putEvents" ? body : fixedBody(operation);
    require(transport.exchanges.size() <= 1, operation + ": more than one exchange");
    if (!transport.exchanges.empty()) {
      checkExchange(transport.exchanges[0], model, operation, correlation, true, sentBody);
    }
    switch (caught.kind) {
      case Kind::None:
        require(transport.exchanges.size() == 1 && transport.exchanges[0].completed,
                operation + " returned without a whole reply");
        checkClientsRead(transport.exchanges[0], before, clients, operation);
        return;
      case Kind::Dom:
        checkDomException(operation);
        break;
      default:
        checkReportedFailure(caught, operation);
        break;
    }
    require(clients == before, operation + ": clients changed by a failed call");
  }

  std::optional<KsMEMConnection> connections[2];
  Model models[2];
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Holds the XML library for the whole run, so that it is not started and ended per input.
  static KsMEMConnection keeper;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  input = &provider;
  transport = Transport();
  {
    Driver driver;
    for (int i = 0; i < kMaxOperationsPerInput && provider.remaining_bytes() > 0; ++i)
      driver.runOne();
  }
  input = nullptr;
  return 0;
}
