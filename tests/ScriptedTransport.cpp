#include "tests/ScriptedTransport.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>

#include "client/KsMemBinding.h"

namespace ScriptedTransport {
namespace {

struct Result {
  int32_t value;
  std::string bytes;  // copied into the buffer by KsMem_Receive
};

struct State {
  std::vector<Call> calls;
  std::map<Entry, std::deque<Result>> scripts;
  std::string lastErrorText = "scripted failure";
  bool lastErrorIsNull = false;
  int32_t lastErrorResult = 0;
  size_t position = 0;  // of the next call, KsMem_GetLastError not counted
  size_t failPosition = SIZE_MAX;
  int32_t failCode = 0;
};

State& state() {
  static State s;
  return s;
}

int32_t next(Entry entry, int32_t fallback, char* buffer = nullptr) {
  auto& queue = state().scripts[entry];
  if (state().position++ == state().failPosition) {
    if (!queue.empty()) queue.pop_front();
    return state().failCode;
  }
  if (queue.empty()) return fallback;
  Result result = std::move(queue.front());
  queue.pop_front();
  if (buffer != nullptr && !result.bytes.empty()) {
    std::memcpy(buffer, result.bytes.data(), result.bytes.size());
  }
  return result.value;
}

int32_t record(Entry entry, const char* text, int32_t fallback) {
  state().calls.push_back({entry, text != nullptr ? std::string(text) : std::string()});
  return next(entry, fallback);
}

}  // namespace

void reset() { state() = State(); }

void script(Entry entry, int32_t result) { state().scripts[entry].push_back({result, {}}); }

void deliver(const std::string& bytes) {
  state().scripts[Receive].push_back({static_cast<int32_t>(bytes.size()), bytes});
}

void deliverReply(const std::string& reply) {
  for (size_t at = 0; at < reply.size(); at += KSMEM_RECEIVE_BUFFER_SIZE) {
    deliver(reply.substr(at, KSMEM_RECEIVE_BUFFER_SIZE));
  }
  script(Receive, -1);
}

void scriptExchange(const std::string& reply) {
  script(Receive, 19);
  script(Receive, 20);
  deliverReply(reply);
}

std::string clientsReply(const std::vector<std::string>& clients) {
  std::string reply = "<?xml version=\"1.0\"?><SharedClientIDs xmlns=\"urn:x\">";
  for (const std::string& client : clients) {
    reply += "<sharedClients>" + client + "</sharedClients>";
  }
  return reply + "</SharedClientIDs>";
}

void failCall(size_t position, int32_t code) {
  state().failPosition = position;
  state().failCode = code;
}

void setLastError(const char* text, int32_t result) {
  state().lastErrorIsNull = text == nullptr;
  state().lastErrorText = text != nullptr ? text : "";
  state().lastErrorResult = result;
}

const std::vector<Call>& calls() { return state().calls; }

std::vector<Entry> entries() {
  std::vector<Entry> result;
  for (const Call& call : state().calls) result.push_back(call.entry);
  return result;
}

std::vector<std::string> sentNoAck() {
  std::vector<std::string> result;
  for (const Call& call : state().calls) {
    if (call.entry == SendNoAck) result.push_back(call.text);
  }
  return result;
}

int count(Entry entry) {
  const std::vector<Entry> called = entries();
  return static_cast<int>(std::count(called.begin(), called.end(), entry));
}

}  // namespace ScriptedTransport

using namespace ScriptedTransport;

extern "C" {

int32_t KsMem_Init(KsMemAllocFunc, KsMemFreeFunc) { return record(Init, nullptr, 0); }
int32_t KsMem_Term(void) { return record(Term, nullptr, 0); }
int32_t KsMem_Send(const char* text) { return record(Send, text, 1); }
int32_t KsMem_SendNoAck(const char* text) { return record(SendNoAck, text, 1); }
int32_t KsMem_SendEOF(void) { return record(SendEOF, nullptr, 0); }
int32_t KsMem_Complete(void) { return record(Complete, nullptr, 0); }

int32_t KsMem_Receive(char* buffer) {
  state().calls.push_back({Receive, {}});
  return next(Receive, -1, buffer);
}

int32_t KsMem_GetLastError(const char** text) {
  state().calls.push_back({GetLastError, {}});
  *text = state().lastErrorIsNull ? nullptr : state().lastErrorText.c_str();
  return state().lastErrorResult;
}

}  // extern "C"
