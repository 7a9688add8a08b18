// The eight transport entries, serving every request with the service that KSMEM_SERVICE
// chooses (service/ServiceChoice.h). When it names none, KsMem_Init fails with KSMEM_ERR_INIT_CONNECTION
// and every exchange with KSMEM_ERR_SERVICE_UNREACHABLE, each with a text that names the value
// and the accepted forms.
//
// Each thread has its own exchange in progress, so connections on different threads never see
// each other's traffic; the last error text is per thread too. An exchange moves through the
// phases below, one call at a time. A call that does not fit the phase fails and abandons the
// exchange, as does every other failure, and a new header block (KsMem_SendNoAck outside the
// body, or KsMem_Send) always starts a new exchange. While the body is wanted a text sent with
// KsMem_SendNoAck is a body chunk, whatever it holds: a client that abandons an exchange there
// must end it (KsMem_SendEOF and a status read, or KsMem_Complete) before it starts the next.

// Only the eight entries leave the library. First, so that the headers below, which include it
// too, find the entries declared with default visibility already.
#pragma GCC visibility push(default)
#include "client/KsMemBinding.h"
#pragma GCC visibility pop

#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "binding/HeaderBlock.h"
#include "service/ServiceBackend.h"
#include "service/ServiceChoice.h"

namespace Kestrane::Net::KsModelEventManager::Binding {
namespace {

using Service::ServiceFailure;

enum class Phase {
  kNone,              // no exchange on this thread
  kHeaderBlock,       // stream form: header block taken, awaiting KsMem_SendEOF
  kHeaderBlockEnded,  // awaiting the status read, which asks for the body
  kBody,              // body chunks arriving
  kBodyEnded,         // awaiting the status read, which serves the request
  kText,              // text form: header block and body taken, awaiting KsMem_SendEOF
  kTextEnded,         // awaiting the first reply read, which serves the request
  kReply,             // reply pieces being read
  kReplyEnded,        // the end of the reply was read, awaiting KsMem_Complete
};

const char* describe(Phase phase) {
  switch (phase) {
    case Phase::kNone:
      return "no exchange is in progress on this thread";
    case Phase::kHeaderBlock:
      return "the header block has not yet been ended by KsMem_SendEOF";
    case Phase::kHeaderBlockEnded:
      return "the status after the header block has not been read";
    case Phase::kBody:
      return "the request body is still being sent";
    case Phase::kBodyEnded:
      return "the status after the body has not been read";
    case Phase::kText:
      return "the request text has not yet been ended by KsMem_SendEOF";
    case Phase::kTextEnded:
      return "the reply has not been read";
    case Phase::kReply:
      return "the reply is being read";
    case Phase::kReplyEnded:
      return "the reply has been read and awaits KsMem_Complete";
  }
  return "";
}

struct Exchange {
  Phase phase = Phase::kNone;
  Service::RequestHeaders headers;
  std::string body;
  std::string reply;
  std::size_t delivered = 0;  // bytes of the reply handed out so far
};

thread_local Exchange exchange;
thread_local std::optional<std::string> lastError;

void endExchange() {
  // Moving the buffers out releases them now rather than at the thread's end.
  Exchange finished = std::move(exchange);
  exchange = Exchange();
}

int32_t fail(int32_t code, std::string text) {
  endExchange();
  lastError = std::move(text);
  return code;
}

int32_t outOfTurn(const char* entry) {
  const bool abandoning = exchange.phase != Phase::kNone;
  return fail(KSMEM_ERR_OUT_OF_TURN, std::string(entry) +
                                         " was called out of turn: " + describe(exchange.phase) +
                                         (abandoning ? ". The exchange is abandoned." : "."));
}

// Runs one entry's work. A failure of the request becomes its result and last-error text; any
// other exception (memory ran out) a fault of the transport, since none may cross the C
// interface.
template <typename Work>
int32_t guarded(const char* entry, Work work) {
  const auto fault = [entry](const char* what) {
    return fail(KSMEM_ERR_TRANSPORT_FAULT, std::string(entry) + " failed inside the transport (" +
                                               what + "). The exchange is abandoned.");
  };
  try {
    return work();
  } catch (const ServiceFailure& failure) {
    return fail(failure.code, failure.what());
  } catch (const std::exception& e) {
    return fault(e.what());
  } catch (...) {
    return fault("an exception of unknown type");
  }
}

int32_t startExchange(const char* text, bool textForm) {
  endExchange();
  const std::string_view request(text);
  const std::size_t blockLength = parseHeaderBlock(request, exchange.headers);
  if (textForm) {
    exchange.body.assign(request.substr(blockLength));
    exchange.phase = Phase::kText;
  } else if (blockLength != request.size()) {
    return fail(KSMEM_ERR_MALFORMED_REQUEST,
                "Text follows the request's header block; in the stream form the body is sent "
                "in chunks after the transport has asked for it.");
  } else {
    exchange.phase = Phase::kHeaderBlock;
  }
  return 0;
}

// Hands the finished request to the service; 0 once the reply is ready to be read.
int32_t serve() {
  const Service::ServiceChoice& service = Service::processService();
  if (!service.backend) return fail(KSMEM_ERR_SERVICE_UNREACHABLE, service.problem);
  exchange.reply = service.backend->handle(exchange.headers, exchange.body);
  exchange.phase = Phase::kReply;
  return 0;
}

int32_t deliver(char* buffer) {
  const std::size_t remaining = exchange.reply.size() - exchange.delivered;
  if (remaining == 0) {
    std::string().swap(exchange.reply);
    exchange.delivered = 0;
    exchange.phase = Phase::kReplyEnded;
    return KSMEM_END_OF_REPLY;
  }
  const std::size_t count =
      remaining < KSMEM_RECEIVE_BUFFER_SIZE ? remaining : KSMEM_RECEIVE_BUFFER_SIZE;
  std::memcpy(buffer, exchange.reply.data() + exchange.delivered, count);
  exchange.delivered += count;
  return static_cast<int32_t>(count);
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Binding

using namespace Kestrane::Net::KsModelEventManager;
using namespace Kestrane::Net::KsModelEventManager::Binding;

extern "C" {

int32_t KsMem_Init(KsMemAllocFunc, KsMemFreeFunc) {
  return guarded("KsMem_Init", []() -> int32_t {
    const Service::ServiceChoice& service = Service::processService();
    if (service.backend) return 0;
    lastError = service.problem;
    return KSMEM_ERR_INIT_CONNECTION;
  });
}

int32_t KsMem_Term(void) { return 0; }

int32_t KsMem_Send(const char* text) {
  return guarded("KsMem_Send", [&]() -> int32_t {
    if (text == nullptr) return fail(KSMEM_ERR_OUT_OF_TURN, "KsMem_Send was given no text.");
    return startExchange(text, true);
  });
}

int32_t KsMem_SendNoAck(const char* text) {
  return guarded("KsMem_SendNoAck", [&]() -> int32_t {
    if (text == nullptr) return fail(KSMEM_ERR_OUT_OF_TURN, "KsMem_SendNoAck was given no text.");
    if (exchange.phase == Phase::kBody) {
      exchange.body += text;
      return 1;  // above 0 lets the body go on, an empty chunk included
    }
    const int32_t result = startExchange(text, false);
    return result < 0 ? result : 1;
  });
}

int32_t KsMem_SendEOF(void) {
  return guarded("KsMem_SendEOF", []() -> int32_t {
    switch (exchange.phase) {
      case Phase::kHeaderBlock:
        exchange.phase = Phase::kHeaderBlockEnded;
        return 0;
      case Phase::kBody:
        exchange.phase = Phase::kBodyEnded;
        return 0;
      case Phase::kText:
        exchange.phase = Phase::kTextEnded;
        return 0;
      default:
        return outOfTurn("KsMem_SendEOF");
    }
  });
}

int32_t KsMem_Receive(char* buffer) {
  return guarded("KsMem_Receive", [&]() -> int32_t {
    if (buffer == nullptr) return fail(KSMEM_ERR_OUT_OF_TURN, "KsMem_Receive was given no buffer.");
    switch (exchange.phase) {
      case Phase::kHeaderBlockEnded:
        exchange.phase = Phase::kBody;
        return KSMEM_STATUS_BODY_WANTED;
      case Phase::kBodyEnded: {
        const int32_t served = serve();
        return served < 0 ? served : KSMEM_STATUS_NO_MORE_TO_SEND;
      }
      case Phase::kTextEnded: {
        const int32_t served = serve();
        return served < 0 ? served : deliver(buffer);
      }
      case Phase::kReply:
        return deliver(buffer);
      case Phase::kReplyEnded:
        return KSMEM_END_OF_REPLY;
      default:
        return outOfTurn("KsMem_Receive");
    }
  });
}

int32_t KsMem_Complete(void) {
  return guarded("KsMem_Complete", []() -> int32_t {
    if (exchange.phase == Phase::kNone) return outOfTurn("KsMem_Complete");
    endExchange();
    return 0;
  });
}

int32_t KsMem_GetLastError(const char** text) {
  if (text == nullptr) return KSMEM_ERR_OUT_OF_TURN;
  *text = lastError ? lastError->c_str() : nullptr;
  return 0;
}

}  // extern "C"
