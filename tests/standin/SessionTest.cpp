// The client library against the stand-in transport and its embedded service, linked as an
// application links them.
#include <gtest/gtest.h>

#include "client/KsMEMConnection.h"

using namespace Kestrane::Net::KsModelEventManager::Client;

namespace {

TEST(SessionTest, StatusCheckAgainstTheEmbeddedServiceGivesZero) {
  KsMEMConnection connection;

  EXPECT_EQ(0, connection.getStatus());
  EXPECT_EQ(0, connection.getStatus());
}

}  // namespace
