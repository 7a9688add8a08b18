// Gathering a reply and sending a body through KsMEMRequest::exchange, each beside memcpy of the
// same number of bytes, measured in the same run; and a getStatus round trip with no service
// behind it, the library's own share of that row in ksmem_bench.
//
// This program defines the eight transport entries itself: a scripted transport that runs one
// stream-form exchange (status 19, the body, status 20, the reply in deliveries of 16384 bytes,
// -1) and does no more per call than any transport must: it measures each body chunk, since a
// text comes without its length, and copies each delivery into the library's buffer. The
// recording fake of the unit tests would add its own copies of every text to the figures.
//
// Memory: every gathering iteration allocates its result, the reference with one new[] of the
// final size, the library by doubling from 16384 bytes. This program has the allocator map each
// block of 128 KiB or more afresh and unmap it on release, so both write to fresh pages at
// either size, as the page_faults counter shows; left to its own thresholds the allocator would
// hand one side warm memory and the other fresh, depending on the history of sizes. Sending
// writes into warm memory on both sides: the library's 4098-byte chunk buffer, the reference's
// destination allocated once.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "bench/PageFaults.h"
#include "client/KsMEMConnection.h"
#include "client/KsMEMRequest.h"
#include "client/KsMemBinding.h"
#include "client/StringViewStream.h"
#include "schemas/_2009_06/base/Namespace.h"

using Kestrane::Net::KsModelEventManager::Client::KsMEMConnection;
using Kestrane::Net::KsModelEventManager::Client::KsMEMRequest;
using Kestrane::Net::KsModelEventManager::Client::StringViewStream;

namespace {

struct ScriptedExchange {
  enum Phase { kHeaderBlock, kBody, kReply };
  Phase phase = kHeaderBlock;
  std::string_view reply;
  size_t delivered = 0;
  size_t bodyBytes = 0;
};

ScriptedExchange transport;

// An input stream over a text that the caller keeps alive, read without a copy, as the
// connection hands its body to a request.
// The next exchange replies with `reply`, which must outlive it.
void scriptExchange(std::string_view reply) { transport = ScriptedExchange{{}, reply, 0, 0}; }

// Text of `size` bytes, no zero byte among them, looking like event data.
std::string textOfSize(size_t size) {
  const std::string_view piece = "<reading sensor=\"t2\" unit=\"C\">19.0</reading>\n";
  std::string text;
  text.reserve(size);
  while (text.size() < size) text.append(piece.substr(0, size - text.size()));
  return text;
}

// What a connection's putEvents or getEvents puts in a request.
void addEventHeaders(KsMEMRequest& request, const char* operation) {
  request.addHeader("Service-Name", "KsMEMRequest");
  request.addHeader("Operation-Name", operation);
  request.addHeader("Log-Correlation-ID", "bench");
  request.addHeader("Server-ID", "plant-7");
  request.addHeader("Client-ID", "alice");
}

void gatherByLibrary(benchmark::State& state, size_t size) {
  const std::string reply = textOfSize(size);
  const std::string bodyText = "Get Events Request";
  const PageFaultCounter faults;
  for (auto _ : state) {
    scriptExchange(reply);
    KsMEMRequest request;
    addEventHeaders(request, "getEvents");
    StringViewStream body(bodyText);
    request.setRequestStream(&body);
    const std::string gathered = request.exchange();
    benchmark::DoNotOptimize(gathered.data());
    if (gathered.size() != size) state.SkipWithError("the reply came back incomplete");
  }
  faults.report(state);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void gatherByMemcpy(benchmark::State& state, size_t size) {
  const std::string reply = textOfSize(size);
  const PageFaultCounter faults;
  for (auto _ : state) {
    const std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), reply.data(), size);
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
  faults.report(state);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void sendByLibrary(benchmark::State& state, size_t size) {
  const std::string events = textOfSize(size);
  // What putEvents gets back for one other client.
  const std::string reply =
      std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?><SharedClientIDs xmlns=\"") +
      Kestrane::Schemas::KsModelEventManager::_2009_06::Base::kBaseNamespaceURI +
      "\"><sharedClients>bob</sharedClients></SharedClientIDs>";
  for (auto _ : state) {
    scriptExchange(reply);
    KsMEMRequest request;
    addEventHeaders(request, "putEvents");
    StringViewStream body(events);
    request.setRequestStream(&body);
    benchmark::DoNotOptimize(request.exchange());
    if (transport.bodyBytes != size) state.SkipWithError("the body went out incomplete");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void sendByMemcpy(benchmark::State& state, size_t size) {
  const std::string events = textOfSize(size);
  const std::unique_ptr<char[]> copy(new char[size]);
  std::memset(copy.get(), 0, size);
  for (auto _ : state) {
    std::memcpy(copy.get(), events.data(), size);
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

// The library's own share of a getStatus round trip: the embedded service's is left out.
void statusOverScriptedTransport(benchmark::State& state) {
  const std::string echo = "KsMEM Status check";
  KsMEMConnection connection;
  for (auto _ : state) {
    scriptExchange(echo);
    if (connection.getStatus() != 0) {
      state.SkipWithError("the status check was not echoed");
      break;
    }
  }
}

constexpr size_t kMiB = 1 << 20;

const bool registered = [] {
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);  // fixed: no longer raised as blocks are freed
  benchmark::RegisterBenchmark("gather_1MiB/ksmem", gatherByLibrary, kMiB);
  benchmark::RegisterBenchmark("gather_1MiB/memcpy", gatherByMemcpy, kMiB);
  benchmark::RegisterBenchmark("gather_64MiB/ksmem", gatherByLibrary, 64 * kMiB);
  benchmark::RegisterBenchmark("gather_64MiB/memcpy", gatherByMemcpy, 64 * kMiB);
  benchmark::RegisterBenchmark("send_1MiB/ksmem", sendByLibrary, kMiB);
  benchmark::RegisterBenchmark("send_1MiB/memcpy", sendByMemcpy, kMiB);
  benchmark::RegisterBenchmark("getStatus_scripted_transport/ksmem", statusOverScriptedTransport);
  return true;
}();

}  // namespace

extern "C" {

int32_t KsMem_Init(KsMemAllocFunc, KsMemFreeFunc) { return 0; }
int32_t KsMem_Term(void) { return 0; }
int32_t KsMem_Send(const char*) { return -3016; }  // the text form is not benchmarked
int32_t KsMem_SendEOF(void) { return 0; }
int32_t KsMem_Complete(void) { return 0; }

int32_t KsMem_SendNoAck(const char* text) {
  if (transport.phase == ScriptedExchange::kBody) transport.bodyBytes += std::strlen(text);
  return 1;
}

int32_t KsMem_Receive(char* buffer) {
  switch (transport.phase) {
    case ScriptedExchange::kHeaderBlock:
      transport.phase = ScriptedExchange::kBody;
      return 19;
    case ScriptedExchange::kBody:
      transport.phase = ScriptedExchange::kReply;
      return 20;
    case ScriptedExchange::kReply:
      break;
  }
  const size_t remaining = transport.reply.size() - transport.delivered;
  if (remaining == 0) return -1;
  const size_t count =
      remaining < KSMEM_RECEIVE_BUFFER_SIZE ? remaining : KSMEM_RECEIVE_BUFFER_SIZE;
  std::memcpy(buffer, transport.reply.data() + transport.delivered, count);
  transport.delivered += count;
  return static_cast<int32_t>(count);
}

int32_t KsMem_GetLastError(const char** text) {
  *text = "the scripted transport was called out of turn";
  return 0;
}

}  // extern "C"
