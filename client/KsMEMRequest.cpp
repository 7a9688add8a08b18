#include "client/KsMEMRequest.h"

#include <cstdint>
#include <cstdlib>
#include <istream>

#include "client/Exception.h"
#include "client/KsMemBinding.h"
#include "client/TransportFailure.h"
#include "util/Utf8.h"

namespace Kestrane::Net::KsModelEventManager::Client {

namespace {

// Bytes read from the body stream per chunk.
constexpr int32_t kChunkSize = 4098;
// Capacity of the transport's reply buffer, and the first capacity of the gathered reply.
constexpr int32_t kReplyBufferSize = KSMEM_RECEIVE_BUFFER_SIZE;
// The largest reply accepted: the gathered length stays a signed 32-bit count.
constexpr int32_t kMaxReplySize = 1 << 30;

}  // namespace

KsMEMRequest::KsMEMRequest() : replyBuffer(new char[kReplyBufferSize]), requestStream(nullptr) {}

KsMEMRequest::~KsMEMRequest() = default;

void KsMEMRequest::addHeader(const char* name, const char* value) { headers.emplace(name, value); }

void KsMEMRequest::clearHeaders() { headers.clear(); }

void KsMEMRequest::setRequestStream(std::istream* stream) { requestStream = stream; }

void KsMEMRequest::setRequestBody(const char* text) { requestBody = text; }

void KsMEMRequest::initialise() {
  const int32_t result = KsMem_Init(&malloc, &free);
  if (result != 0) throwTransportFailure(result);
}

void KsMEMRequest::terminate() {
  const int32_t result = KsMem_Term();
  if (result < 0) throwTransportFailure(result);
}

std::string KsMEMRequest::buildHeaderText() const {
  std::string text;
  for (const auto& [name, value] : headers) {
    text += name;
    text += '=';
    if (value != "null") text += value;
    text += "\r\n";
  }
  text += "\r\n";
  return text;
}

std::string KsMEMRequest::exchange() {
  if (!requestBody.empty()) {
    sendRequestText((buildHeaderText() + requestBody).c_str());
    return readReply();
  }
  if (requestStream == nullptr) {
    throw KsMEMProtocolException("Failed to read the request stream.");
  }

  sendHeaderBlock();
  int32_t status = receive();
  while (status == KSMEM_STATUS_BODY_WANTED) status = sendRequestStream();
  if (status < 0) throwTransportFailure(status);
  if (status != KSMEM_STATUS_NO_MORE_TO_SEND && status != KSMEM_STATUS_GO_ON) {
    // No other status has a meaning here; waiting for one that does could last forever.
    throw KsMEMProtocolException("The transport answered the request with status " +
                                 std::to_string(status) +
                                 ", which is neither 19 (send the body) nor 20 or 0 (reply).");
  }
  return readReply();
}

void KsMEMRequest::sendRequestText(const char* text) {
  if (text == nullptr) throwTransportFailure(KSMEM_ERR_NO_TEXT);
  int32_t result = KsMem_Send(text);
  if (result < 0) throwTransportFailure(result);
  result = KsMem_SendEOF();
  if (result < 0) throwTransportFailure(result);
}

void KsMEMRequest::sendHeaderBlock() {
  const std::string block = buildHeaderText();
  const char kConversionFailed[] = "Exception occurred while converting to UTF-8 bytes.";
  if (block.size() > static_cast<size_t>(INT32_MAX)) throw KsMEMRuntimeException(kConversionFailed);
  std::string utf8;
  try {
    utf8 = Util::toUtf8(block.data(), static_cast<int32_t>(block.size()));
  } catch (const Utf8ConversionException&) {
    throw KsMEMRuntimeException(kConversionFailed);
  }
  const int32_t result = KsMem_SendNoAck(utf8.c_str());
  if (result < 0) throwTransportFailure(result);
  KsMem_SendEOF();  // the status that follows tells whether the transport took the block
}

int32_t KsMEMRequest::sendRequestStream() {
  // The transport takes a zero-terminated text and no length, so each chunk is read into a
  // buffer with room for the terminating zero and handed over from there.
  char chunk[kChunkSize + 1];
  int32_t lastSendResult = 0;
  int32_t count;
  do {
    requestStream->read(chunk, kChunkSize);
    count = static_cast<int32_t>(requestStream->gcount());
    if (count > 0) {
      chunk[count] = '\0';
      lastSendResult = KsMem_SendNoAck(chunk);
    }
  } while (!requestStream->eof() && count != 0 && lastSendResult > 0);

  if (lastSendResult < 0) throwTransportFailure(lastSendResult);
  const int32_t result = KsMem_SendEOF();
  if (result < 0) throwTransportFailure(result);
  return receive();
}

std::string KsMEMRequest::readReply() {
  std::string reply;
  reply.reserve(kReplyBufferSize);
  for (;;) {
    const int32_t count = receive();
    if (count == KSMEM_END_OF_REPLY) break;
    if (count < KSMEM_END_OF_REPLY) throwTransportFailure(count);
    // A transport that claims more than its buffer holds is not read beyond the buffer.
    if (count > kReplyBufferSize) {
      throw KsMEMProtocolException("The transport delivered " + std::to_string(count) +
                                   " bytes at once, more than its buffer of " +
                                   std::to_string(kReplyBufferSize) + " bytes holds.");
    }
    if (reply.size() + static_cast<size_t>(count) > static_cast<size_t>(kMaxReplySize)) {
      throw KsMEMRuntimeException("The reply is too large: it exceeds " +
                                  std::to_string(kMaxReplySize) + " bytes.");
    }
    reply.append(replyBuffer.get(), static_cast<size_t>(count));
  }
  KsMem_Complete();
  return reply;
}

int32_t KsMEMRequest::receive() { return KsMem_Receive(replyBuffer.get()); }

}  // namespace Kestrane::Net::KsModelEventManager::Client
