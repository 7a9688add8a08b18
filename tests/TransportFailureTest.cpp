#include <gtest/gtest.h>

#include "client/Exception.h"
#include "client/TransportFailure.h"
#include "tests/ScriptedTransport.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;

namespace {

enum class Kind { Connection, Protocol, Runtime, Unrecognised };

// Which class throwTransportFailure(code) throws, checking type code and message on the way.
Kind kindOf(int32_t code) {
  try {
    throwTransportFailure(code);
  } catch (const KsMEMConnectionException& e) {
    EXPECT_EQ(0, e.getType());
    return Kind::Connection;
  } catch (const KsMEMProtocolException& e) {
    EXPECT_EQ(0, e.getType());
    return Kind::Protocol;
  } catch (const KsMEMRuntimeException& e) {
    EXPECT_EQ(0, e.getType());
    return Kind::Runtime;
  } catch (const KsMEMUnrecognisedException& e) {
    EXPECT_EQ(0, e.getType());
    return Kind::Unrecognised;
  }
  ADD_FAILURE() << "nothing thrown for " << code;
  return Kind::Unrecognised;
}

TEST(TransportFailureTest, CodeDecidesTheClass) {
  st::reset();
  for (int32_t code : {1001, -2996, -2997, -2998, -2999, -3001})
    EXPECT_EQ(Kind::Connection, kindOf(code)) << code;
  for (int32_t code : {1002, -751, -3017, -3099}) EXPECT_EQ(Kind::Protocol, kindOf(code)) << code;
  for (int32_t code : {1003, -3009, -3010, -3016}) EXPECT_EQ(Kind::Runtime, kindOf(code)) << code;
  for (int32_t code : {-1, -2, -750, -752, -2995, -3000, -3002, -3100, 0, 19, 1004})
    EXPECT_EQ(Kind::Unrecognised, kindOf(code)) << code;
}

TEST(TransportFailureTest, MessageIsTheTransportsLastErrorText) {
  st::reset();
  st::setLastError("client 'bob' is not registered");

  try {
    throwTransportFailure(-751);
  } catch (const KsMEMProtocolException& e) {
    EXPECT_EQ("client 'bob' is not registered", e.getMessage());
  }
  EXPECT_EQ(std::vector<st::Entry>{st::GetLastError}, st::entries());
}

TEST(TransportFailureTest, LastErrorTextCoversAllFourAnswers) {
  st::reset();
  st::setLastError("text", 0);
  EXPECT_EQ("text", getLastErrorText());
  st::setLastError(nullptr, 0);
  EXPECT_EQ("No error message received", getLastErrorText());
  st::setLastError(nullptr, -1);
  EXPECT_EQ("Could not retrieve last error message.", getLastErrorText());
  st::setLastError("stale", 3);
  EXPECT_EQ("", getLastErrorText());
}

TEST(ExceptionTest, TypeCodeDefaultsToZeroAndCopiesKeepCodeAndMessage) {
  const KsMEMProtocolException plain("Client not Registered with Model Event Manager");
  const KsMEMProtocolException coded(-2, "Client not Registered with Model Event Manager");
  EXPECT_EQ(0, plain.getType());
  EXPECT_EQ(-2, coded.getType());
  EXPECT_EQ(plain.getMessage(), coded.getMessage());

  const Exception sliced = coded;  // copying through the base keeps code and message
  EXPECT_EQ(-2, sliced.getType());
  EXPECT_EQ("Client not Registered with Model Event Manager", sliced.getMessage());

  KsMEMRuntimeException empty;
  EXPECT_EQ(0, empty.getType());
  EXPECT_EQ("", empty.getMessage());
}

}  // namespace
