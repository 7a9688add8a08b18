// throwTransportFailure: the class a result code selects, and the message that the transport's
// last error text makes.
#include <gtest/gtest.h>

#include "client/KsMemBinding.h"
#include "client/TransportFailure.h"
#include "tests/ScriptedTransport.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;

namespace {

TEST(TransportFailureTest, ResultCodeSelectsTheClassAndTheLastErrorTextBecomesTheMessage) {
  st::reset();
  st::setLastError("text");
  const struct {
    std::vector<int32_t> codes;
    std::string thrown;
  } classes[] = {
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
  for (const auto& expected : classes) {
    for (int32_t code : expected.codes)
      EXPECT_EQ(st::thrownBy([=] { throwTransportFailure(code); }), expected.thrown) << code;
  }
}

TEST(TransportFailureTest, LastErrorTextStandsInWithAFixedTextWhenTheTransportGivesNone) {
  const struct {
    const char* text;
    int32_t result;
    std::string message;
  } answers[] = {{"text", 0, "text"},
                 {nullptr, 0, "No error message received"},
                 {nullptr, -1, "Could not retrieve last error message."},
                 {"stale", 3, ""}};
  for (const auto& answer : answers) {
    st::setLastError(answer.text, answer.result);
    EXPECT_EQ(getLastErrorText(), answer.message);
  }
}

}  // namespace
