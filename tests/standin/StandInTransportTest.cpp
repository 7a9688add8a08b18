// The stand-in transport and the service behind it, driven through the eight C entries only.
// The same tests hold for every service (see SharedServiceTest.cpp for how ctest runs them
// against Redis); server identifiers are unique to the run, so a shared service does too.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "client/KsMemBinding.h"
#include "schemas/_2009_06/base/Namespace.h"
#include "tests/standin/RedisServer.h"

namespace {

constexpr int32_t kUnknownClient = -751;
constexpr int32_t kUnknownOperation = -3017;
constexpr int32_t kMalformedRequest = -3099;
constexpr int32_t kCallOutOfTurn = -3016;

struct Outcome {
  int32_t code = 0;  // 0, or the failure result
  std::string reply;
  std::string error;            // the last error text after a failure
  std::vector<int32_t> pieces;  // the size of every reply delivery
};

std::string lastError() {
  const char* text = nullptr;
  EXPECT_EQ(KsMem_GetLastError(&text), 0);
  return text != nullptr ? text : "";
}

Outcome failure(int32_t code) { return {code, "", lastError(), {}}; }

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
  static constexpr int kGuard = 64;
  char bytes[KSMEM_RECEIVE_BUFFER_SIZE + kGuard];
  ReplyBuffer() { std::fill(std::begin(bytes), std::end(bytes), '#'); }
  bool guardIntact() const {
    return std::all_of(bytes + KSMEM_RECEIVE_BUFFER_SIZE, std::end(bytes),
                       [](char c) { return c == '#'; });
  }
};

Outcome readReply(ReplyBuffer& buffer) {
  Outcome outcome;
  for (int32_t count; (count = KsMem_Receive(buffer.bytes)) != -1;) {
    if (count < 0) return failure(count);
    EXPECT_TRUE(buffer.guardIntact());
    outcome.reply.append(buffer.bytes, count);
    outcome.pieces.push_back(count);
  }
  EXPECT_EQ(KsMem_Complete(), 0);
  return outcome;
}

// One whole exchange in the stream form, the body in chunks of at most 4098 bytes.
Outcome streamExchange(const std::string& block, const std::string& body) {
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

Outcome call(const std::string& operation, const std::string& serverID,
             const std::string& clientID, const std::string& body = "request body") {
  return streamExchange(headerBlock(operation, serverID, clientID), body);
}

Outcome status(const std::string& body) { return call("getStatus", "", "", body); }

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

TEST(StandInTransport, InitAndTermSucceedHoweverOftenTheyAreCalled) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(KsMem_Init(std::malloc, std::free), 0);
  EXPECT_EQ(KsMem_Term(), 0);
  EXPECT_EQ(status("KsMEM Status check").reply, "KsMEM Status check");
}

TEST(StandInTransport, LongBodyGoesInChunksAndLongReplyComesInPiecesOfAtMost16384) {
  const std::string body = everyByte(40000);
  const Outcome outcome = status(body);
  EXPECT_EQ(outcome.reply, body);
  EXPECT_EQ(outcome.pieces, (std::vector<int32_t>{16384, 16384, 7232}));
}

TEST(StandInTransport, EmptyChunkIsTakenAndTheBodyGoesOn) {
  ReplyBuffer buffer;
  ASSERT_GE(KsMem_SendNoAck(headerBlock("getStatus").c_str()), 0);
  ASSERT_EQ(KsMem_SendEOF(), 0);
  ASSERT_EQ(KsMem_Receive(buffer.bytes), 19);
  EXPECT_GT(KsMem_SendNoAck(""), 0);
  EXPECT_GT(KsMem_SendNoAck("abc"), 0);
  ASSERT_EQ(KsMem_SendEOF(), 0);
  ASSERT_EQ(KsMem_Receive(buffer.bytes), 20);
  EXPECT_EQ(readReply(buffer).reply, "abc");
}

TEST(StandInTransport, TextFormTakesHeaderBlockAndBodyInOneSend) {
  const std::string body = "first line\r\n\r\n" + everyByte(20000);
  ReplyBuffer buffer;
  ASSERT_EQ(KsMem_Send((headerBlock("getStatus") + body).c_str()), 0);
  ASSERT_EQ(KsMem_SendEOF(), 0);
  const Outcome outcome = readReply(buffer);
  EXPECT_EQ(outcome.reply, body);
  EXPECT_EQ(outcome.pieces, (std::vector<int32_t>{16384, 3630}));
}

TEST(StandInTransport, TwoClientsExchangeEventsByteForByte) {
  const std::string server = uniqueServerID("session-server");
  const std::string first = "<event id=\"1\">&amp;</event>\r\n";
  const std::string second = everyByte(9000);
  EXPECT_EQ(call("registerClient", server, "alice").reply, sharedClientIDs({"alice"}));
  EXPECT_EQ(call("registerClient", server, "bob").reply, sharedClientIDs({"alice", "bob"}));
  EXPECT_EQ(call("putEvents", server, "alice", first).reply, sharedClientIDs({"bob"}));
  EXPECT_EQ(call("putEvents", server, "alice", second).reply, sharedClientIDs({"bob"}));

  EXPECT_EQ(call("getEvents", server, "bob").reply, first + second);
  EXPECT_EQ(call("getEvents", server, "bob").reply, "");
  EXPECT_EQ(call("getEvents", server, "alice").reply, "");
  EXPECT_EQ(call("getSharedClients", server, "bob").reply, sharedClientIDs({"alice", "bob"}));
  EXPECT_EQ(call("unregisterClient", server, "alice").reply, sharedClientIDs({"bob"}));
  EXPECT_EQ(call("getEvents", server, "alice").code, kUnknownClient);
  EXPECT_EQ(call("unregisterClient", server, "bob").reply, sharedClientIDs({}));
}

TEST(StandInTransport, EventsGoOnlyToOtherClientsOfTheSameServer) {
  const std::string north = uniqueServerID("north"), south = uniqueServerID("south");
  for (const char* client : {"a", "b", "c"}) call("registerClient", north, client);
  call("registerClient", south, "a");
  EXPECT_EQ(call("putEvents", north, "b", "news").reply, sharedClientIDs({"a", "c"}));
  EXPECT_EQ(call("getEvents", north, "b").reply, "");
  EXPECT_EQ(call("getEvents", south, "a").reply, "");
  EXPECT_EQ(call("getEvents", north, "a").reply, "news");
  EXPECT_EQ(call("getEvents", north, "c").reply, "news");
}

TEST(StandInTransport, RegisteringAgainKeepsPendingEventsAndUnregisteringDropsThem) {
  const std::string again = uniqueServerID("again");
  for (const char* client : {"a", "b", "c"}) call("registerClient", again, client);
  call("putEvents", again, "c", "event");
  EXPECT_EQ(call("registerClient", again, "a").reply, sharedClientIDs({"a", "b", "c"}));
  call("unregisterClient", again, "b");
  EXPECT_EQ(call("registerClient", again, "b").reply, sharedClientIDs({"a", "c", "b"}));
  EXPECT_EQ(call("getEvents", again, "a").reply, "event");
  EXPECT_EQ(call("getEvents", again, "b").reply, "");
}

TEST(StandInTransport, ClientIDsAreEscapedInTheDocument) {
  EXPECT_EQ(call("registerClient", uniqueServerID("escape-server"), "a&<>\"'b").reply,
            sharedClientIDs({"a&amp;&lt;&gt;&quot;&apos;b"}));
}

TEST(StandInTransport, RefusedRequestsFailWithTheirCodeAndSayWhy) {
  const std::string known = uniqueServerID("known-server"), other = uniqueServerID("other");
  call("registerClient", known, "known");
  const struct {
    std::string block;
    int32_t code;
    std::string error;
  } refusals[] = {
      {headerBlock("getEvents", other, "known"), kUnknownClient,
       "Client \"known\" is not registered with the Model Event Manager under server \"" +
           other + "\", so it cannot call getEvents; it must call registerClient first."},
      {headerBlock("fetchEverything", known, "known"), kUnknownOperation,
       "The Model Event Manager has no operation \"fetchEverything\"."},
      {headerBlock("registerClient", "", "nobody"), kMalformedRequest,
       "Client \"nobody\" cannot register without a server identifier: the request's "
       "\"Server-ID\" header is empty or missing."},
      {"Service-Name=KsMEMRequest\r\n\r\n", kMalformedRequest,
       "The request names no operation: its header block has no \"Operation-Name\"."},
      {"Operation-Name=getStatus\r\nno equals sign\r\n\r\n", kMalformedRequest,
       "Line 2 of the request's header block (\"no equals sign\") has no \"=\" between name "
       "and value."},
      {"Operation-Name=getStatus\r\n\r\nbody too soon", kMalformedRequest,
       "Text follows the request's header block; in the stream form the body is sent in chunks "
       "after the transport has asked for it."},
      {"Operation-Name=getStatus\r\n", kMalformedRequest,
       "The request's header block is not closed by an empty line (CR LF alone)."},
  };
  for (const auto& refusal : refusals) {
    const Outcome outcome = streamExchange(refusal.block, "body");
    EXPECT_EQ(outcome.code, refusal.code) << refusal.block;
    EXPECT_EQ(outcome.error, refusal.error);
  }
  for (const char* operation : {"unregisterClient", "putEvents", "getSharedClients"}) {
    EXPECT_EQ(call(operation, known, "stranger").code, kUnknownClient) << operation;
  }
}

TEST(StandInTransport, LastErrorBelongsToTheThreadThatFailed) {
  EXPECT_LT(KsMem_Complete(), 0);
  const char* text = "unset";
  int32_t result = 1;
  std::thread([&] { result = KsMem_GetLastError(&text); }).join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(text, nullptr);
  EXPECT_NE(lastError(), "");
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
      if (textForm) {
        ASSERT_EQ(KsMem_Send((block + "fresh").c_str()), 0);
        ASSERT_EQ(KsMem_SendEOF(), 0);
        EXPECT_EQ(readReply(buffer).reply, "fresh") << steps;
      } else {
        EXPECT_EQ(status("fresh").reply, "fresh") << steps;
      }
    }
  }
}

TEST(StandInTransport, ExchangeInProgressIsInvisibleToOtherThreads) {
  ReplyBuffer buffer;
  ASSERT_GE(KsMem_SendNoAck(headerBlock("getStatus").c_str()), 0);
  ASSERT_EQ(KsMem_SendEOF(), 0);
  ASSERT_EQ(KsMem_Receive(buffer.bytes), 19);
  ASSERT_GT(KsMem_SendNoAck("main "), 0);

  Outcome other;
  std::thread([&] { other = status("other thread"); }).join();

  ASSERT_GT(KsMem_SendNoAck("thread"), 0);
  ASSERT_EQ(KsMem_SendEOF(), 0);
  ASSERT_EQ(KsMem_Receive(buffer.bytes), 20);
  EXPECT_EQ(readReply(buffer).reply, "main thread");
  EXPECT_EQ(other.reply, "other thread");
}

TEST(StandInTransport, ClientsOnTwoThreadsAtOnceReceiveEachOthersEventsInOrder) {
  const std::string server = uniqueServerID("busy-server");
  const std::string names[2] = {"left", "right"};
  const auto event = [](int thread, int i) {
    return std::string(3000 + i % 3000, static_cast<char>('a' + thread)) + std::to_string(i);
  };
  constexpr int kEvents = 2000;
  std::atomic<int> waiting{2};
  std::string received[2];
  int wrongReplies[2] = {0, 0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      call("registerClient", server, names[t]);
      for (--waiting; waiting > 0;) std::this_thread::yield();
      for (int i = 0; i < kEvents; ++i) {
        const Outcome put = call("putEvents", server, names[t], event(t, i));
        if (put.reply != sharedClientIDs({names[1 - t]})) ++wrongReplies[t];
        received[t] += call("getEvents", server, names[t]).reply;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  for (int t = 0; t < 2; ++t) {
    received[t] += call("getEvents", server, names[t]).reply;
    std::string sent;
    for (int i = 0; i < kEvents; ++i) sent += event(1 - t, i);
    EXPECT_EQ(wrongReplies[t], 0);
    EXPECT_TRUE(received[t] == sent) << names[t] << " received other events than were sent";
  }
}

TEST(StandInTransport, CallsOutOfTurnFailCleanly) {
  ReplyBuffer buffer;
  char* const reply = buffer.bytes;
  const std::string block = headerBlock("getStatus");
  EXPECT_EQ(KsMem_Receive(reply), kCallOutOfTurn);
  EXPECT_EQ(lastError(),
            "KsMem_Receive was called out of turn: no exchange is in progress on this thread.");
  EXPECT_EQ(KsMem_SendEOF(), kCallOutOfTurn);
  EXPECT_EQ(KsMem_Complete(), kCallOutOfTurn);

  KsMem_SendNoAck(block.c_str());
  EXPECT_EQ(KsMem_Receive(reply), kCallOutOfTurn);
  EXPECT_EQ(lastError(), "KsMem_Receive was called out of turn: the header block has not yet "
                         "been ended by KsMem_SendEOF. The exchange is abandoned.");
  KsMem_Send((block + "x").c_str());
  KsMem_SendEOF();
  EXPECT_EQ(KsMem_SendEOF(), kCallOutOfTurn);

  EXPECT_LT(KsMem_Send(nullptr), 0);
  EXPECT_LT(KsMem_SendNoAck(nullptr), 0);
  EXPECT_LT(KsMem_Receive(nullptr), 0);
  EXPECT_LT(KsMem_GetLastError(nullptr), 0);
  EXPECT_EQ(status("still served").reply, "still served");
}

}  // namespace
