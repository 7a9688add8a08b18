#include <gtest/gtest.h>

#include <sstream>

#include "client/Exception.h"
#include "client/KsMEMRequest.h"
#include "tests/ScriptedTransport.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;

namespace {

class KsMEMRequestTest : public ::testing::Test {
 protected:
  void SetUp() override { st::reset(); }

  // A request with the three headers of a status check and `body` as its stream.
  std::string exchangeStream(const std::string& body) {
    std::istringstream stream(body);
    KsMEMRequest request;
    request.addHeader("Service-Name", "KsMEMRequest");
    request.addHeader("Operation-Name", "getStatus");
    request.addHeader("Log-Correlation-ID", "KsMEMConnection.getStatus");
    request.setRequestStream(&stream);
    return request.exchange();
  }
};

const std::string kStatusBlock =
    "Log-Correlation-ID=KsMEMConnection.getStatus\r\n"
    "Operation-Name=getStatus\r\n"
    "Service-Name=KsMEMRequest\r\n"
    "\r\n";

TEST_F(KsMEMRequestTest, StreamFormCallsTheTransportInOrder) {
  st::scriptExchange("reply text");

  EXPECT_EQ("reply text", exchangeStream("KsMEM Status check"));

  using E = st::Entry;
  EXPECT_EQ((std::vector<E>{E::SendNoAck, E::SendEOF, E::Receive, E::SendNoAck, E::SendEOF,
                            E::Receive, E::Receive, E::Receive, E::Complete}),
            st::entries());
  EXPECT_EQ((std::vector<std::string>{kStatusBlock, "KsMEM Status check"}), st::sentNoAck());
}

TEST_F(KsMEMRequestTest, TextFormSendsBlockAndBodyTogetherWithoutStatusDialogue) {
  std::istringstream unread("never read");
  KsMEMRequest request;
  request.addHeader("Operation-Name", "getStatus");
  request.setRequestStream(&unread);
  request.setRequestBody("the body");
  st::deliverReply("ok");

  EXPECT_EQ("ok", request.exchange());

  using E = st::Entry;
  EXPECT_EQ((std::vector<E>{E::Send, E::SendEOF, E::Receive, E::Receive, E::Complete}),
            st::entries());
  EXPECT_EQ("Operation-Name=getStatus\r\n\r\nthe body", st::calls()[0].text);
  EXPECT_EQ(0, unread.tellg());
}

TEST_F(KsMEMRequestTest, EmptyBodyTextKeepsTheStreamForm) {
  std::istringstream stream("x");
  KsMEMRequest request;
  request.setRequestStream(&stream);
  request.setRequestBody("");
  st::scriptExchange("");

  request.exchange();

  EXPECT_EQ((std::vector<std::string>{"\r\n", "x"}), st::sentNoAck());
}

TEST_F(KsMEMRequestTest, HeaderBlockIsOrderedByBytesAndRendersNullEmpty) {
  KsMEMRequest request;
  request.addHeader("Server-ID", "null");
  request.addHeader("Client-ID", "Null");
  request.addHeader("Locale", "en");
  request.addHeader("Locale", "de");  // a second value for a name is dropped
  request.addHeader("Log-Correlation-ID", "");
  request.addHeader("\xE4x", "after");
  request.addHeader("Ax", "nullable");
  request.addHeader("A", "a=b\r\nc");  // no escaping of any kind

  EXPECT_EQ(
      "A=a=b\r\nc\r\n"
      "Ax=nullable\r\n"
      "Client-ID=Null\r\n"
      "Locale=en\r\n"
      "Log-Correlation-ID=\r\n"
      "Server-ID=\r\n"
      "\xE4x=after\r\n"
      "\r\n",
      request.buildHeaderText());

  request.clearHeaders();
  EXPECT_EQ("\r\n", request.buildHeaderText());
}

TEST_F(KsMEMRequestTest, BodyGoesOutInChunksOf4098Bytes) {
  for (size_t size : {4098u, 4099u, 10000u}) {
    st::reset();
    st::scriptExchange("");

    exchangeStream(std::string(size, 'a'));

    const auto sent = st::sentNoAck();
    std::vector<size_t> chunks;
    for (size_t i = 1; i < sent.size(); ++i) chunks.push_back(sent[i].size());
    const std::vector<size_t> expected = size == 4098   ? std::vector<size_t>{4098}
                                         : size == 4099 ? std::vector<size_t>{4098, 1}
                                                        : std::vector<size_t>{4098, 4098, 1804};
    EXPECT_EQ(expected, chunks) << size;
  }
}

TEST_F(KsMEMRequestTest, EmptyBodySendsNoChunkButEndsTheBody) {
  st::scriptExchange("");

  exchangeStream("");

  using E = st::Entry;
  EXPECT_EQ((std::vector<E>{E::SendNoAck, E::SendEOF, E::Receive, E::SendEOF, E::Receive,
                            E::Receive, E::Complete}),
            st::entries());
}

TEST_F(KsMEMRequestTest, ChunkAcceptedWithZeroEndsTheBody) {
  st::script(st::SendNoAck, 1);  // header block
  st::script(st::SendNoAck, 0);  // first chunk: no more wanted
  st::scriptExchange("");

  exchangeStream(std::string(9000, 'q'));

  EXPECT_EQ(2u, st::sentNoAck().size());
  EXPECT_EQ(2, st::count(st::SendEOF));
}

TEST_F(KsMEMRequestTest, ZeroByteInBodyEndsWhatTheTransportSeesOfTheChunk) {
  st::scriptExchange("");

  exchangeStream(std::string("ab\0cd", 5));

  EXPECT_EQ("ab", st::sentNoAck()[1]);
}

TEST_F(KsMEMRequestTest, StatusNineteenAgainSendsOnlyAnotherEndOfBody) {
  st::script(st::Receive, 19);
  st::script(st::Receive, 19);
  st::script(st::Receive, 0);
  st::deliverReply("r");

  EXPECT_EQ("r", exchangeStream("body"));

  EXPECT_EQ(2u, st::sentNoAck().size());
  EXPECT_EQ(3, st::count(st::SendEOF));
}

TEST_F(KsMEMRequestTest, StatusTwentyOrZeroAtOnceSkipsTheBody) {
  for (int32_t status : {20, 0}) {
    st::reset();
    st::script(st::Receive, status);
    st::deliverReply("r");

    EXPECT_EQ("r", exchangeStream("body"));
    EXPECT_EQ(1u, st::sentNoAck().size()) << "status " << status;
  }
}

TEST_F(KsMEMRequestTest, UnknownPositiveStatusFailsNamingItAndCallsNothingMore) {
  st::script(st::Receive, 7);

  try {
    exchangeStream("body");
    FAIL() << "no exception";
  } catch (const KsMEMProtocolException& e) {
    EXPECT_NE(std::string::npos, e.getMessage().find("status 7")) << e.getMessage();
  }
  using E = st::Entry;
  EXPECT_EQ((std::vector<E>{E::SendNoAck, E::SendEOF, E::Receive}), st::entries());
}

TEST_F(KsMEMRequestTest, TextFormFailuresAreReported) {
  KsMEMRequest request;
  request.setRequestBody("b");
  st::script(st::Send, -3009);
  EXPECT_THROW(request.exchange(), KsMEMRuntimeException);

  st::reset();
  st::script(st::SendEOF, -751);
  EXPECT_THROW(request.exchange(), KsMEMProtocolException);
  EXPECT_EQ(0, st::count(st::Receive));
}

TEST_F(KsMEMRequestTest, RequestWithoutBodyOrStreamIsRefusedBeforeAnyCall) {
  KsMEMRequest request;

  try {
    request.exchange();
    FAIL() << "no exception";
  } catch (const KsMEMProtocolException& e) {
    EXPECT_EQ("Failed to read the request stream.", e.getMessage());
    EXPECT_EQ(0, e.getType());
  }
  EXPECT_TRUE(st::calls().empty());
}

TEST_F(KsMEMRequestTest, ReplyIsGatheredWholeWithZeroBytesAndSmallCounts) {
  st::script(st::Receive, 20);
  st::deliver(std::string(19, 'a'));  // 19 and 20 are counts once the reply is running
  st::deliver(std::string(20, 'b'));
  st::deliver("");
  st::deliver(std::string("z\0z", 3));
  st::script(st::Receive, -1);

  EXPECT_EQ(std::string(19, 'a') + std::string(20, 'b') + std::string("z\0z", 3),
            exchangeStream("body"));
}

TEST_F(KsMEMRequestTest, DeliveryLargerThanTheBufferIsRefused) {
  st::script(st::Receive, 20);
  st::script(st::Receive, 16385);

  EXPECT_THROW(exchangeStream("body"), KsMEMProtocolException);
  EXPECT_EQ(0, st::count(st::Complete));
}

TEST_F(KsMEMRequestTest, ReplyBeyondOneGibibyteIsRefused) {
  st::script(st::Receive, 20);
  for (int i = 0; i < (1 << 30) / 16384; ++i) st::script(st::Receive, 16384);
  st::script(st::Receive, 1);

  try {
    exchangeStream("body");
    FAIL() << "no exception";
  } catch (const KsMEMRuntimeException& e) {
    EXPECT_EQ("The reply is too large: it exceeds 1073741824 bytes.", e.getMessage());
  }
  EXPECT_EQ(0, st::count(st::Complete));
}

TEST_F(KsMEMRequestTest, InitialiseFailsOnAnyNonZeroResultAndTerminateOnNegative) {
  st::script(st::Init, 1001);
  EXPECT_THROW(KsMEMRequest::initialise(), KsMEMConnectionException);
  st::script(st::Init, 5);
  EXPECT_THROW(KsMEMRequest::initialise(), KsMEMUnrecognisedException);
  st::script(st::Term, 3);
  EXPECT_NO_THROW(KsMEMRequest::terminate());
  st::script(st::Term, -3099);
  EXPECT_THROW(KsMEMRequest::terminate(), KsMEMProtocolException);
}

}  // namespace
