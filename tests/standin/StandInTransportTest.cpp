// The stand-in transport and the service behind it, driven through the eight C entries only.
// The same tests hold for every service (see SharedServiceTest.cpp for how ctest runs them
// against Redis); server identifiers are unique to the run, so a shared service does too.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "client/KsMemBinding.h"
#include "schemas/_2009_06/base/Namespace.h"
#include "tests/standin/RedisServer.h"

namespace {

std::string lastError() {
  const char* text = nullptr;
  EXPECT_EQ(KsMem_GetLastError(&text), 0);
  return text != nullptr ? text : "";
}

// What a call gives in place of a reply when it fails: its result and the last error text.
std::string failure(int32_t code) { return "failed " + std::to_string(code) + ": " + lastError(); }

// The header block as the client library renders it, in name order.
std::string headerBlock(const std::string& operation, const std::string& serverID = "",
                        const std::string& clientID = "") {
  const bool identity = operation != "getStatus";
  return (identity ? "Client-ID=" + clientID + "\r\n" : "") +
         "Log-Correlation-ID=test\r\nOperation-Name=" + operation + "\r\n" +
         (identity ? "Server-ID=" + serverID + "\r\n" : "") + "Service-Name=KsMEMRequest\r\n\r\n";
}

// The reply buffer, with guard bytes behind it that a delivery must not reach.
struct ReplyBuffer {
  char bytes[KSMEM_RECEIVE_BUFFER_SIZE + 64];
  ReplyBuffer() { std::fill(std::begin(bytes), std::end(bytes), '#'); }
  bool guardIntact() const {
    return std::all_of(bytes + KSMEM_RECEIVE_BUFFER_SIZE, std::end(bytes),
                       [](char c) { return c == '#'; });
  }
};

std::string readReply(ReplyBuffer& buffer) {
  std::string reply;
  for (int32_t count; (count = KsMem_Receive(buffer.bytes)) != -1;) {
    if (count < 0) return failure(count);
    if (count > KSMEM_RECEIVE_BUFFER_SIZE || !buffer.guardIntact()) return "delivery too long";
    reply.append(buffer.bytes, count);
  }
  EXPECT_EQ(KsMem_Complete(), 0);
  return reply;
}

// One whole exchange in the stream form, the body in chunks of at most 4098 bytes.
std::string streamExchange(const std::string& block, const std::string& body) {
  ReplyBuffer buffer;
  int32_t result = KsMem_SendNoAck(block.c_str());
  if (result < 0) return failure(result);
  KsMem_SendEOF();
  if ((result = KsMem_Receive(buffer.bytes)) < 0) return failure(result);
  EXPECT_EQ(result, 19);
  for (std::size_t offset = 0; offset < body.size(); offset += 4098) {
    if ((result = KsMem_SendNoAck(body.substr(offset, 4098).c_str())) < 0) return failure(result);
    EXPECT_GT(result, 0);
  }
  if ((result = KsMem_SendEOF()) < 0) return failure(result);
  if ((result = KsMem_Receive(buffer.bytes)) < 0) return failure(result);
  EXPECT_EQ(result, 20);
  return readReply(buffer);
}

// One whole exchange in the text form: header block and body in one send.
std::string textExchange(const std::string& request) {
  ReplyBuffer buffer;
  int32_t result = KsMem_Send(request.c_str());
  if (result != 0 || (result = KsMem_SendEOF()) != 0) return failure(result);
  return readReply(buffer);
}

// One exchange; getEvents is followed by the client's getSharedClients, as the client library
// does, which confirms that the batch was handed over.
std::string call(const std::string& operation, const std::string& serverID,
                 const std::string& clientID, const std::string& body = "request body") {
  const std::string reply = streamExchange(headerBlock(operation, serverID, clientID), body);
  if (operation == "getEvents")
    streamExchange(headerBlock("getSharedClients", serverID, clientID), "");
  return reply;
}

std::string status(const std::string& body) { return call("getStatus", "", "", body); }

std::string sharedClientIDs(const std::vector<std::string>& clients) {
  std::string document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><SharedClientIDs xmlns=\"";
  document += Kestrane::Schemas::KsModelEventManager::_2009_06::Base::kBaseNamespaceURI;
  document += "\">";
  for (const std::string& client : clients) {
    document += "<sharedClients>" + client + "</sharedClients>";
  }
  return document + "</SharedClientIDs>";
}

// Every byte value but NUL, over and over.
std::string everyByte(std::size_t length) {
  std::string text(length, '\0');
  for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i % 255 + 1);
  return text;
}

TEST(StandInTransport, BodyComesBackInDeliveriesOfAtMost16384InStreamAndTextForm) {
  const std::string body = everyByte(40000), text = "first line\r\n\r\n" + body;
  EXPECT_EQ(status(body), body);
  EXPECT_EQ(textExchange(headerBlock("getStatus") + text), text);
}

// One session, step by step: who a post is queued for, who gets it, and what registering
// again, unregistering and a second server change.
TEST(StandInTransport, ClientsOfAServerReceiveEachOthersEventsOnceWithExactReplyDocuments) {
  const std::string s = uniqueServerID("session"), t = uniqueServerID("second");
  const std::string odd = "c&<>\"'", oddXml = "c&amp;&lt;&gt;&quot;&apos;";
  const std::string first = "<event id=\"1\">&amp;</event>\r\n", second = everyByte(9000);
  const struct {
    const std::string& server;
    std::string operation, client, reply, body = "request body";
  } steps[] = {
      {s, "registerClient", "alice", sharedClientIDs({"alice"})},
      {s, "registerClient", "bob", sharedClientIDs({"alice", "bob"})},
      {s, "registerClient", odd, sharedClientIDs({"alice", "bob", oddXml})},
      {t, "registerClient", "alice", sharedClientIDs({"alice"})},
      {s, "putEvents", "alice", sharedClientIDs({"bob", oddXml}), first},
      {s, "putEvents", "alice", sharedClientIDs({"bob", oddXml}), second},
      {s, "registerClient", "bob", sharedClientIDs({"alice", "bob", oddXml})},
      {s, "getEvents", "bob", first + second},
      {s, "getEvents", "bob", ""},
      {s, "getEvents", "alice", ""},
      {t, "getEvents", "alice", ""},
      {s, "putEvents", odd, sharedClientIDs({"alice", "bob"}), "news"},
      {s, "unregisterClient", "bob", sharedClientIDs({"alice", oddXml})},
      {s, "registerClient", "bob", sharedClientIDs({"alice", oddXml, "bob"})},
      {s, "getEvents", "bob", ""},
      {s, "getEvents", "alice", "news"},
      {s, "getSharedClients", "bob", sharedClientIDs({"alice", oddXml, "bob"})},
      {s, "unregisterClient", "alice", sharedClientIDs({oddXml, "bob"})},
      {s, "unregisterClient", odd, sharedClientIDs({"bob"})},
      {s, "unregisterClient", "bob", sharedClientIDs({})},
  };
  for (const auto& step : steps) {
    EXPECT_EQ(call(step.operation, step.server, step.client, step.body), step.reply)
        << step.operation << " by " << step.client;
  }
  EXPECT_EQ(call("getEvents", s, "alice").rfind("failed -751: ", 0), 0u);
}

// What a fetch hands over is acknowledged by the client's next fetch once the client list
// that the client library asks for after every getEvents has been answered; until then a
// getEvents brings the same batch again, so a getEvents that fails halfway loses nothing.
TEST(StandInTransport, FetchedBatchComesAgainUntilTheClientListAfterItIsAnswered) {
  const std::string server = uniqueServerID("handover"),
                    getEvents = headerBlock("getEvents", server, "bob");
  call("registerClient", server, "bob");
  call("registerClient", server, "alice");
  call("putEvents", server, "alice", "news");

  const std::string first = streamExchange(getEvents, "");
  const std::string again = streamExchange(getEvents, "");
  call("getSharedClients", server, "bob");
  const std::string afterwards = streamExchange(getEvents, "");

  EXPECT_EQ(first + "|" + again + "|" + afterwards, "news|news|");
}

TEST(StandInTransport, RefusedRequestsFailWithTheirCodeAndSayWhy) {
  const std::string known = uniqueServerID("known-server"), other = uniqueServerID("other");
  call("registerClient", known, "known");
  const struct {
    std::string block, outcome;
  } refusals[] = {
      {headerBlock("getEvents", other, "known"),
       "failed -751: Client \"known\" is not registered with the Model Event Manager under "
       "server \"" +
           other + "\", so it cannot call getEvents; it must call registerClient first."},
      {headerBlock("fetchEverything", known, "known"),
       "failed -3017: The Model Event Manager has no operation \"fetchEverything\"."},
      {headerBlock("registerClient", "", "nobody"),
       "failed -3099: Client \"nobody\" cannot register without a server identifier: the "
       "request's \"Server-ID\" header is empty or missing."},
      {"Service-Name=KsMEMRequest\r\n\r\n",
       "failed -3099: The request names no operation: its header block has no "
       "\"Operation-Name\"."},
      {"Operation-Name=getStatus\r\nno equals sign\r\n\r\n",
       "failed -3099: Line 2 of the request's header block (\"no equals sign\") has no \"=\" "
       "between name and value."},
      {"Operation-Name=getStatus\r\n\r\nbody too soon",
       "failed -3099: Text follows the request's header block; in the stream form the body is "
       "sent in chunks after the transport has asked for it."},
      {"Operation-Name=getStatus\r\n",
       "failed -3099: The request's header block is not closed by an empty line (CR LF alone)."},
  };
  for (const auto& refusal : refusals) {
    EXPECT_EQ(streamExchange(refusal.block, "body"), refusal.outcome) << refusal.block;
  }
  for (const char* operation : {"unregisterClient", "putEvents", "getSharedClients"}) {
    EXPECT_EQ(call(operation, known, "stranger").rfind("failed -751: ", 0), 0u) << operation;
  }
}

TEST(StandInTransport, AbandonedExchangeGivesWayToTheNextOne) {
  // Steps: H header block, E KsMem_SendEOF, R KsMem_Receive, B a body chunk, C KsMem_Complete,
  // T a request text whose reply takes three pieces.
  const std::string block = headerBlock("getStatus");
  for (const std::string steps : {"H", "HE", "HERBC", "HERBE", "T", "TER", "TERRRR"}) {
    for (const bool textForm : {false, true}) {
      ReplyBuffer buffer;
      for (const char step : steps) {
        if (step == 'H') KsMem_SendNoAck(block.c_str());
        if (step == 'E') KsMem_SendEOF();
        if (step == 'R') KsMem_Receive(buffer.bytes);
        if (step == 'B') KsMem_SendNoAck("chunk");
        if (step == 'C') KsMem_Complete();
        if (step == 'T') KsMem_Send((block + everyByte(40000)).c_str());
      }
      EXPECT_EQ(textForm ? textExchange(block + "fresh") : status("fresh"), "fresh") << steps;
    }
  }
}

TEST(StandInTransport, ExchangeInProgressTakesEmptyChunksAndIsInvisibleToOtherThreads) {
  ReplyBuffer buffer;
  ASSERT_GE(KsMem_SendNoAck(headerBlock("getStatus").c_str()), 0);
  ASSERT_EQ(KsMem_SendEOF(), 0);
  ASSERT_EQ(KsMem_Receive(buffer.bytes), 19);
  ASSERT_GT(KsMem_SendNoAck("main "), 0);
  ASSERT_GT(KsMem_SendNoAck(""), 0);

  std::string other;
  std::thread([&] { other = status("other thread"); }).join();

  ASSERT_GT(KsMem_SendNoAck("thread"), 0);
  ASSERT_EQ(KsMem_SendEOF(), 0);
  ASSERT_EQ(KsMem_Receive(buffer.bytes), 20);
  EXPECT_EQ(readReply(buffer), "main thread");
  EXPECT_EQ(other, "other thread");
}

TEST(StandInTransport, ClientsOnTwoThreadsAtOnceReceiveEachOthersEventsInOrder) {
  const std::string server = uniqueServerID("busy-server"), names[2] = {"left", "right"};
  const auto event = [](int thread, int i) {
    return std::string(3000 + i % 3000, static_cast<char>('a' + thread)) + std::to_string(i);
  };
  constexpr int kEvents = 2000;
  std::atomic<int> waiting{2};
  std::string received[2];
  int wrongReplies[2] = {0, 0};
  std::thread threads[2];
  for (int t = 0; t < 2; ++t) {
    threads[t] = std::thread([&, t] {
      call("registerClient", server, names[t]);
      for (--waiting; waiting > 0;) std::this_thread::yield();
      for (int i = 0; i < kEvents; ++i) {
        const std::string put = call("putEvents", server, names[t], event(t, i));
        if (put != sharedClientIDs({names[1 - t]})) ++wrongReplies[t];
        received[t] += call("getEvents", server, names[t]);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  for (int t = 0; t < 2; ++t) {
    for (std::string more; !(more = call("getEvents", server, names[t])).empty();) {
      received[t] += more;  // a fetch hands over a bounded batch; the next brings the rest
    }
    std::string sent;
    for (int i = 0; i < kEvents; ++i) sent += event(1 - t, i);
    EXPECT_EQ(wrongReplies[t], 0);
    EXPECT_TRUE(received[t] == sent) << names[t] << " received other events than were sent";
  }
}

TEST(StandInTransport, CallsOutOfTurnFailCleanlyAndLeaveTheServiceUsable) {
  ReplyBuffer buffer;
  const std::string block = headerBlock("getStatus");
  EXPECT_EQ(failure(KsMem_Receive(buffer.bytes)),
            "failed -3016: KsMem_Receive was called out of turn: no exchange is in progress on "
            "this thread.");
  const char* otherThreadsError = "unset";
  std::thread([&] { EXPECT_EQ(KsMem_GetLastError(&otherThreadsError), 0); }).join();
  EXPECT_EQ(otherThreadsError, nullptr);  // the text belongs to the thread that failed
  EXPECT_EQ(KsMem_SendEOF(), -3016);
  EXPECT_EQ(KsMem_Complete(), -3016);

  KsMem_SendNoAck(block.c_str());
  EXPECT_EQ(failure(KsMem_Receive(buffer.bytes)),
            "failed -3016: KsMem_Receive was called out of turn: the header block has not yet "
            "been ended by KsMem_SendEOF. The exchange is abandoned.");
  KsMem_Send((block + "x").c_str());
  KsMem_SendEOF();
  EXPECT_EQ(KsMem_SendEOF(), -3016);

  EXPECT_LT(KsMem_Send(nullptr), 0);
  EXPECT_LT(KsMem_SendNoAck(nullptr), 0);
  EXPECT_LT(KsMem_Receive(nullptr), 0);
  EXPECT_LT(KsMem_GetLastError(nullptr), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(KsMem_Init(std::malloc, std::free), 0);
  EXPECT_EQ(KsMem_Term(), 0);
  EXPECT_EQ(status("still served"), "still served");
}

}  // namespace
