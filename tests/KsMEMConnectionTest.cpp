#include <gtest/gtest.h>

#include "client/KsMEMConnection.h"
#include "tests/ScriptedTransport.h"

using namespace Kestrane::Net::KsModelEventManager::Client;
namespace st = ScriptedTransport;

namespace {

const std::string kStatusBody = "KsMEM Status check";
const std::string kStatusBlock =
    "Log-Correlation-ID=KsMEMConnection.getStatus\r\n"
    "Operation-Name=getStatus\r\n"
    "Service-Name=KsMEMRequest\r\n"
    "\r\n";

class KsMEMConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override { st::reset(); }
};

TEST_F(KsMEMConnectionTest, StatusIsZeroWhenTheServiceEchoesTheBody) {
  KsMEMConnection connection;
  st::scriptExchange(kStatusBody);

  EXPECT_EQ(0, connection.getStatus());

  using E = st::Entry;
  EXPECT_EQ((std::vector<E>{E::Init, E::SendNoAck, E::SendEOF, E::Receive, E::SendNoAck, E::SendEOF,
                            E::Receive, E::Receive, E::Receive, E::Complete}),
            st::entries());
  EXPECT_EQ((std::vector<std::string>{kStatusBlock, kStatusBody}), st::sentNoAck());
}

TEST_F(KsMEMConnectionTest, StatusIsMinusTwoForAnyOtherReply) {
  KsMEMConnection connection;
  for (const std::string& reply : {std::string(), kStatusBody + "\r\n", std::string("ks")}) {
    st::scriptExchange(reply);
    EXPECT_EQ(-2, connection.getStatus()) << reply;
  }
}

TEST_F(KsMEMConnectionTest, TransportThatCannotStartIsTriedAgainAtTheNextOperation) {
  KsMEMConnection connection;
  st::script(st::Init, 1003);

  try {
    connection.getStatus();
    FAIL() << "no exception";
  } catch (const KsMEMConnectionException& e) {
    EXPECT_EQ(-1, e.getType());
  }
  EXPECT_EQ(std::vector<st::Entry>({st::Init, st::GetLastError}), st::entries());

  st::reset();
  st::scriptExchange(kStatusBody);
  EXPECT_EQ(0, connection.getStatus());
  EXPECT_EQ(1, st::count(st::Init));
}

TEST_F(KsMEMConnectionTest, TransportStartsOncePerConnectionAndCopiesTakeTheFlagOver) {
  auto checkStatus = [](KsMEMConnection& connection) {
    st::scriptExchange(kStatusBody);
    EXPECT_EQ(0, connection.getStatus());
  };
  {
    KsMEMConnection first;
    checkStatus(first);
    checkStatus(first);
    KsMEMConnection copy(first);
    checkStatus(copy);
    KsMEMConnection assigned;
    assigned = first;
    checkStatus(assigned);
  }
  EXPECT_EQ(1, st::count(st::Init));

  KsMEMConnection later;  // the transport was never ended, yet a new connection starts it
  checkStatus(later);
  EXPECT_EQ(2, st::count(st::Init));
  EXPECT_EQ(0, st::count(st::Term));
}

}  // namespace
