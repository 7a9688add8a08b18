// ScriptedTransport defines the eight KsMem_ entries for programs that drive the client library
// without a service: the unit tests, the install test's program and the transport benchmark
// link it in place of the stand-in transport.
//
// Each entry answers with the next result scripted for it, or else with its default: 0 for
// KsMem_Init, KsMem_Term, KsMem_SendEOF and KsMem_Complete, 1 for KsMem_Send and
// KsMem_SendNoAck, KSMEM_END_OF_REPLY for KsMem_Receive. KsMem_GetLastError hands out the text
// and result of setLastError ("scripted failure" and 0 until set). Every call is recorded, with
// the text it was given, unless recording is off. One thread at a time.
#ifndef KSMEM_TESTS_SCRIPTEDTRANSPORT_H_
#define KSMEM_TESTS_SCRIPTEDTRANSPORT_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ScriptedTransport {

enum Entry { Init, Term, Send, SendNoAck, SendEOF, Receive, Complete, GetLastError };

// Forgets every call and script, restores the default last error and records again.
void reset();

// The next call of `entry` returns `result`; a KsMem_Receive leaves the buffer as it is.
void script(Entry entry, int32_t result);
// The next KsMem_Receive copies `bytes` into the buffer and returns their count.
void deliver(const std::string& bytes);
// A stream-form exchange: status 19, then 20, then the reply in deliveries of at most 16384
// bytes, then the end of the reply. The reply is shared, not copied, so that a benchmark can
// script a large one for every exchange.
void scriptExchange(std::shared_ptr<const std::string> reply);
inline void scriptExchange(std::string reply) {
  scriptExchange(std::make_shared<const std::string>(std::move(reply)));
}

// The call at `position` (counting every call from 0, KsMem_GetLastError not included) returns
// `code` and takes nothing from the script.
void failCall(size_t position, int32_t code);
// What KsMem_GetLastError hands out; a null text hands out a null pointer.
void setLastError(const char* text, int32_t result = 0);
// Off: calls are counted for failCall but not recorded, so that the transport costs no more per
// call than any transport must: it measures each text, as a text comes without its length.
void record(bool on);

const std::vector<Entry>& entries();
int count(Entry entry);
// The texts given to KsMem_Send and KsMem_SendNoAck, in order, and their bytes in all.
const std::vector<std::string>& texts();
size_t sentBytes();

}  // namespace ScriptedTransport

#endif  // KSMEM_TESTS_SCRIPTEDTRANSPORT_H_
