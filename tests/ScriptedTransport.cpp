#include "tests/ScriptedTransport.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <optional>

#include "client/KsMemBinding.h"

namespace ScriptedTransport {
namespace {

struct Result {
  int32_t value;
  std::shared_ptr<const std::string> bytes;  // delivered whole, or as a reply in pieces
  bool reply = false;
  size_t delivered = 0;
};

struct State {
  std::vector<Entry> calls;
  std::vector<std::string> texts;
  size_t sentBytes = 0;
  std::deque<Result> scripts[GetLastError];
  std::optional<std::string> lastErrorText = "scripted failure";
  int32_t lastErrorResult = 0;
  bool recording = true;
  size_t position = 0;  // of the next call, KsMem_GetLastError not counted
  size_t failPosition = SIZE_MAX;
  int32_t failCode = 0;
};

State state;

int32_t answer(Entry entry, int32_t fallback, const char* text = nullptr, char* buffer = nullptr) {
  if (state.recording) state.calls.push_back(entry);
  if (text != nullptr) state.sentBytes += std::strlen(text);
  if (text != nullptr && state.recording) state.texts.push_back(text);
  if (state.position++ == state.failPosition) return state.failCode;
  std::deque<Result>& queue = state.scripts[entry];
  if (queue.empty()) return fallback;
  Result next = queue.front();
  if (next.bytes && buffer != nullptr) {
    const size_t left = next.bytes->size() - next.delivered;
    next.value =
        static_cast<int32_t>(next.reply ? std::min<size_t>(left, KSMEM_RECEIVE_BUFFER_SIZE) : left);
    std::memcpy(buffer, next.bytes->data() + next.delivered, next.value);
    queue.front().delivered += next.value;
    if (next.reply && next.value > 0) return next.value;
    if (next.reply) next.value = KSMEM_END_OF_REPLY;
  }
  queue.pop_front();
  return next.value;
}

}  // namespace

void reset() { state = State(); }

void script(Entry entry, int32_t result) { state.scripts[entry].push_back({result, nullptr}); }

void deliver(const std::string& bytes) {
  state.scripts[Receive].push_back({0, std::make_shared<const std::string>(bytes)});
}

void scriptExchange(std::shared_ptr<const std::string> reply) {
  script(Receive, KSMEM_STATUS_BODY_WANTED);
  script(Receive, KSMEM_STATUS_NO_MORE_TO_SEND);
  state.scripts[Receive].push_back({0, std::move(reply), true});
}

void failCall(size_t position, int32_t code) {
  state.failPosition = position;
  state.failCode = code;
}

void setLastError(const char* text, int32_t result) {
  state.lastErrorText = text != nullptr ? std::optional<std::string>(text) : std::nullopt;
  state.lastErrorResult = result;
}

void record(bool on) { state.recording = on; }

const std::vector<Entry>& entries() { return state.calls; }

int count(Entry entry) { return std::count(state.calls.begin(), state.calls.end(), entry); }

const std::vector<std::string>& texts() { return state.texts; }

size_t sentBytes() { return state.sentBytes; }

}  // namespace ScriptedTransport

using namespace ScriptedTransport;

extern "C" {

int32_t KsMem_Init(KsMemAllocFunc, KsMemFreeFunc) { return answer(Init, 0); }
int32_t KsMem_Term(void) { return answer(Term, 0); }
int32_t KsMem_Send(const char* text) { return answer(Send, 1, text); }
int32_t KsMem_SendNoAck(const char* text) { return answer(SendNoAck, 1, text); }
int32_t KsMem_SendEOF(void) { return answer(SendEOF, 0); }
int32_t KsMem_Receive(char* buffer) { return answer(Receive, KSMEM_END_OF_REPLY, nullptr, buffer); }
int32_t KsMem_Complete(void) { return answer(Complete, 0); }

int32_t KsMem_GetLastError(const char** text) {
  if (state.recording) state.calls.push_back(GetLastError);
  *text = state.lastErrorText ? state.lastErrorText->c_str() : nullptr;
  return state.lastErrorResult;
}

}  // extern "C"
