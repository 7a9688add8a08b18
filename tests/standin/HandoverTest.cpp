// What the transport counts as handed over, seen at its own entries: a client library always
// asks for the client list right after a fetch, so no application can send anything between the
// two, and the service scenarios in Python (tests/service/) cannot see this.
#include <gtest/gtest.h>

#include <string>

#include "binding/TextExchange.h"

using Kestrane::Net::KsModelEventManager::Binding::textExchange;

namespace {

// The reply of one exchange in the text form, or "failed".
std::string exchange(const std::string& operation, const std::string& client,
                     const std::string& body = "") {
  const auto reply = textExchange(
      {{"Client-ID", client}, {"Operation-Name", operation}, {"Server-ID", "handover"}}, body);
  return reply.code == 0 ? reply.text : "failed";
}

// A batch is acknowledged by the client's next fetch once the client list after it has been
// answered; until then a fetch brings it again, whatever else the client sends meanwhile.
TEST(HandoverTest, FetchedBatchComesAgainUntilTheClientListAfterItIsAnswered) {
  exchange("registerClient", "bob");
  exchange("registerClient", "alice");
  exchange("putEvents", "alice", "news");

  const std::string first = exchange("getEvents", "bob");
  exchange("putEvents", "bob", "reply");
  const std::string again = exchange("getEvents", "bob");
  exchange("getSharedClients", "bob");
  const std::string afterwards = exchange("getEvents", "bob");

  EXPECT_EQ(first + "|" + again + "|" + afterwards, "news|news|");
}

}  // namespace
