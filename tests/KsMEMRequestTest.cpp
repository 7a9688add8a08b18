// One exchange of KsMEMRequest with the scripted transport: what goes out, in which calls, and
// how the statuses and deliveries that come back are taken; and throwTransportFailure, the class
// a result code selects and the message the transport's last error text makes.
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <tuple>

#include "client/KsMEMRequest.h"
#include "client/KsMemBinding.h"
#include "client/TransportFailure.h"
#include "tests/ScriptedTransport.h"
#include "tests/ThrownBy.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;

namespace {

// The stream form with one header and `body`: the reply, or what was thrown.
std::string exchange(const std::string& body) {
  std::istringstream stream(body);
  KsMEMRequest request;
  request.addHeader("Operation-Name", "getStatus");
  request.setRequestStream(&stream);
  std::string reply;
  const std::string thrown = thrownBy([&] { reply = request.exchange(); });
  return thrown.empty() ? reply : thrown;
}

TEST(KsMEMRequestTest, HeaderBlockOrdersNamesAsBytesKeepsFirstValuesAndRendersExactlyNullEmpty) {
  KsMEMRequest request;
  const char* headers[] = {"Server-ID", "null",     "Client-ID", "Null",  "Locale", "en",
                           "Locale",    "de",       "\xE4x",     "after", "Ax",     "nullable",
                           "A",         "a=b\r\nc", "Log",       ""};
  for (size_t i = 0; i < std::size(headers); i += 2) request.addHeader(headers[i], headers[i + 1]);
  EXPECT_EQ(request.buildHeaderText(),
            "A=a=b\r\nc\r\nAx=nullable\r\nClient-ID=Null\r\nLocale=en\r\nLog=\r\nServer-ID=\r\n"
            "\xE4x=after\r\n\r\n");
  request.clearHeaders();
  EXPECT_EQ(request.buildHeaderText(), "\r\n");
}

// The sizes of the texts sent for a body of `size` bytes; the first chunk may be accepted with 0.
TEST(KsMEMRequestTest, StreamFormSendsTheBlockThenTheBodyInChunksOf4098BytesUntilOneTakesNoMore) {
  const std::tuple<size_t, bool, std::string> bodies[] = {{0, false, "28 "},
                                                          {4098, false, "28 4098 "},
                                                          {4099, false, "28 4098 1 "},
                                                          {10000, false, "28 4098 4098 1804 "},
                                                          {9000, true, "28 4098 "}};
  for (const auto& [size, acceptedWithZero, chunks] : bodies) {
    st::reset();
    if (acceptedWithZero) {
      st::script(st::SendNoAck, 1);  // the header block
      st::script(st::SendNoAck, 0);
    }
    st::scriptExchange("reply");

    EXPECT_EQ(exchange(std::string(size, 'a')), "reply");

    std::string sent;
    for (const std::string& text : st::texts()) sent += std::to_string(text.size()) + " ";
    EXPECT_EQ(sent, chunks);
    EXPECT_EQ(st::count(st::SendEOF), 2);
  }
}

// Deliveries of 19 and 20 bytes, none and a zero byte: counts, once the reply is running.
const std::string kDeliveries[] = {std::string(19, 'a'), std::string(20, 'b'), "",
                                   std::string("z\0z", 3)};
const std::string kReply = kDeliveries[0] + kDeliveries[1] + kDeliveries[3];

TEST(KsMEMRequestTest, StatusDecidesWhetherTheBodyGoesOutAndWhatComesNext) {
  const std::tuple<std::vector<int32_t>, std::string, size_t> cases[] = {
      {{KSMEM_STATUS_BODY_WANTED, KSMEM_STATUS_BODY_WANTED, KSMEM_STATUS_GO_ON}, kReply, 2},
      {{KSMEM_STATUS_NO_MORE_TO_SEND}, kReply, 1},
      {{KSMEM_STATUS_GO_ON}, kReply, 1},
      {{7},
       "KsMEMProtocolException 0 The transport answered the request with status 7, which is "
       "neither 19 (send the body) nor 20 or 0 (reply).",
       1},
      {{KSMEM_END_OF_REPLY}, "KsMEMUnrecognisedException 0 scripted failure", 1},
  };
  for (const auto& [statuses, outcome, texts] : cases) {
    st::reset();
    for (int32_t status : statuses) st::script(st::Receive, status);
    for (const std::string& bytes : kDeliveries) st::deliver(bytes);

    EXPECT_EQ(exchange("body"), outcome);
    EXPECT_EQ(st::texts().size(), texts) << outcome;
    EXPECT_EQ(st::count(st::Complete), outcome == kReply ? 1 : 0) << outcome;
  }
}

TEST(KsMEMRequestTest, ReplyMayReach1GiBAndADeliveryMayFillTheBufferButNoMore) {
  const int full = KSMEM_RECEIVE_BUFFER_SIZE, gib = (1 << 30) / full;
  const std::tuple<int, int32_t, std::string> cases[] = {
      {gib, 0, "1073741824 bytes"},
      {gib, 1, "KsMEMRuntimeException 0 The reply is too large: it exceeds 1073741824 bytes."},
      {1, 0, "16384 bytes"},
      {0, full + 1,
       "KsMEMProtocolException 0 The transport delivered 16385 bytes at once, more than its buffer "
       "of 16384 bytes holds."}};
  for (const auto& [fullDeliveries, last, outcome] : cases) {
    st::reset();
    st::script(st::Receive, KSMEM_STATUS_NO_MORE_TO_SEND);
    for (int i = 0; i < fullDeliveries; ++i) st::script(st::Receive, full);
    if (last != 0) st::script(st::Receive, last);

    const std::string reply = exchange("body");

    EXPECT_EQ(reply.size() < 200 ? reply : std::to_string(reply.size()) + " bytes", outcome);
  }
}

TEST(KsMEMRequestTest, TextFormSendsBlockAndBodyInOneTextAndLeavesTheStreamUnread) {
  std::istringstream unread("never read");
  KsMEMRequest request, empty;
  request.addHeader("Operation-Name", "getStatus");
  request.setRequestStream(&unread);
  request.setRequestBody("the body");
  st::reset();
  st::deliver("ok");

  EXPECT_EQ(request.exchange(), "ok");
  EXPECT_EQ(st::texts(), std::vector<std::string>{"Operation-Name=getStatus\r\n\r\nthe body"});
  EXPECT_EQ(st::count(st::Send) + st::count(st::SendEOF) + st::count(st::Complete), 3);
  EXPECT_EQ(unread.tellg(), 0);
  EXPECT_EQ(thrownBy([&] { empty.exchange(); }),
            "KsMEMProtocolException 0 Failed to read the request stream.");
}

TEST(KsMEMRequestTest, InitialiseFailsOnAnyResultButZeroAndTerminateOnNegativeOnly) {
  st::reset();
  st::script(st::Init, 5);
  st::script(st::Term, 3);
  st::script(st::Term, KSMEM_ERR_MALFORMED_REQUEST);
  EXPECT_EQ(thrownBy(KsMEMRequest::initialise), "KsMEMUnrecognisedException 0 scripted failure");
  EXPECT_EQ(thrownBy(KsMEMRequest::terminate), "");
  EXPECT_EQ(thrownBy(KsMEMRequest::terminate), "KsMEMProtocolException 0 scripted failure");
}

// The numbers that the transport library sends: every other test uses the names, so this one
// alone notices a name that no longer stands for what the transport sends.
TEST(TransportContractTest, EachStatusAndResultCodeHasTheNumberTheTransportSends) {
  const std::pair<int32_t, int32_t> named[] = {{KSMEM_RECEIVE_BUFFER_SIZE, 16384},
                                               {KSMEM_STATUS_BODY_WANTED, 19},
                                               {KSMEM_STATUS_NO_MORE_TO_SEND, 20},
                                               {KSMEM_STATUS_GO_ON, 0},
                                               {KSMEM_END_OF_REPLY, -1},
                                               {KSMEM_ERR_INIT_CONNECTION, 1001},
                                               {KSMEM_ERR_INIT_PROTOCOL, 1002},
                                               {KSMEM_ERR_INIT_RUNTIME, 1003},
                                               {KSMEM_ERR_UNKNOWN_CLIENT, -751},
                                               {KSMEM_ERR_CONNECTION_HIGHEST, -2996},
                                               {KSMEM_ERR_CONNECTION_LOWEST, -2999},
                                               {KSMEM_ERR_SERVICE_UNREACHABLE, -3001},
                                               {KSMEM_ERR_NO_TEXT, -3002},
                                               {KSMEM_ERR_SERVICE_REFUSED, -3009},
                                               {KSMEM_ERR_TRANSPORT_FAULT, -3010},
                                               {KSMEM_ERR_OUT_OF_TURN, -3016},
                                               {KSMEM_ERR_UNKNOWN_OPERATION, -3017},
                                               {KSMEM_ERR_MALFORMED_REQUEST, -3099}};
  for (std::size_t i = 0; i < std::size(named); ++i) {
    EXPECT_EQ(named[i].first, named[i].second) << "entry " << i << " of the table";
  }
}

TEST(TransportFailureTest,
     ResultCodeSelectsTheClassAndTheLastErrorTextOrAFixedStandInBecomesTheMessage) {
  st::reset();
  st::setLastError("text");
  const std::pair<std::vector<int32_t>, std::string> classes[] = {
      {{KSMEM_ERR_INIT_CONNECTION, KSMEM_ERR_CONNECTION_HIGHEST, KSMEM_ERR_CONNECTION_HIGHEST - 1,
        KSMEM_ERR_CONNECTION_LOWEST + 1, KSMEM_ERR_CONNECTION_LOWEST,
        KSMEM_ERR_SERVICE_UNREACHABLE},
       "KsMEMConnectionException 0 text"},
      {{KSMEM_ERR_INIT_PROTOCOL, KSMEM_ERR_UNKNOWN_CLIENT, KSMEM_ERR_UNKNOWN_OPERATION,
        KSMEM_ERR_MALFORMED_REQUEST},
       "KsMEMProtocolException 0 text"},
      {{KSMEM_ERR_INIT_RUNTIME, KSMEM_ERR_SERVICE_REFUSED, KSMEM_ERR_TRANSPORT_FAULT,
        KSMEM_ERR_OUT_OF_TURN},
       "KsMEMRuntimeException 0 text"},
      // The neighbours of those, and the results that are no failure codes.
      {{KSMEM_ERR_INIT_RUNTIME + 1, KSMEM_ERR_UNKNOWN_CLIENT + 1, KSMEM_ERR_UNKNOWN_CLIENT - 1,
        KSMEM_ERR_CONNECTION_HIGHEST + 1, KSMEM_ERR_CONNECTION_LOWEST - 1, KSMEM_ERR_NO_TEXT,
        KSMEM_ERR_MALFORMED_REQUEST - 1, KSMEM_END_OF_REPLY, KSMEM_STATUS_GO_ON,
        KSMEM_STATUS_BODY_WANTED},
       "KsMEMUnrecognisedException 0 text"},
  };
  for (const auto& [codes, thrown] : classes)
    for (int32_t code : codes)
      EXPECT_EQ(thrownBy([=] { throwTransportFailure(code); }), thrown) << code;

  // A fixed text stands in when the transport gives none, or its call failed.
  const std::tuple<const char*, int32_t, std::string> answers[] = {
      {"text", 0, "text"},
      {nullptr, 0, "No error message received"},
      {nullptr, -1, "Could not retrieve last error message."},
      {"stale", 3, ""}};
  for (const auto& [text, result, message] : answers) {
    st::setLastError(text, result);
    EXPECT_EQ(getLastErrorText(), message);
  }
}

}  // namespace
