// Under ctest the standin suites run twice: once as they are, once with KSMEM_TEST_SERVICE=redis,
// when this environment starts a redis-server of the test process's own on a Unix socket before
// the first test, points KSMEM_SERVICE at it (the transport reads it at its first use) and stops
// it after the last.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "tests/standin/RedisServer.h"

namespace {

class OwnRedisEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    const char* wanted = std::getenv("KSMEM_TEST_SERVICE");
    if (wanted == nullptr || std::string(wanted) != "redis") return;
    server = std::make_unique<RedisServer>(RedisServer::Listen::kUnixSocket);
    ASSERT_TRUE(server->start()) << server->problem();
    setenv("KSMEM_SERVICE", server->url().c_str(), 1);
  }
  void TearDown() override { server.reset(); }

 private:
  std::unique_ptr<RedisServer> server;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new OwnRedisEnvironment);

}  // namespace
