// A transport for tests: defines the eight KsMem_ entries, records every call with the text it
// was given, and answers from a script. Linked into the unit tests in place of the stand-in.
//
// Each entry answers with the next result scripted for it, or with its default when none is
// left: 0 for KsMem_Init, KsMem_Term, KsMem_SendEOF and KsMem_Complete, 1 for KsMem_Send and
// KsMem_SendNoAck, -1 (end of reply) for KsMem_Receive. KsMem_GetLastError hands out the text
// and result set by setLastError (by default "scripted failure" and 0).
#ifndef KSMEM_TESTS_SCRIPTEDTRANSPORT_H_
#define KSMEM_TESTS_SCRIPTEDTRANSPORT_H_

#include <cstdint>
#include <string>
#include <vector>

namespace ScriptedTransport {

enum Entry { Init, Term, Send, SendNoAck, SendEOF, Receive, Complete, GetLastError };

struct Call {
  Entry entry;
  std::string text;  // what KsMem_Send or KsMem_SendNoAck was given, up to its zero byte
};

// Forgets every call and script, and restores the default last error.
void reset();

// The next call of `entry` returns `result`. For Receive, nothing is written to the buffer.
void script(Entry entry, int32_t result);
// The next KsMem_Receive copies `bytes` into the buffer and returns their count.
void deliver(const std::string& bytes);
// A whole reply: deliveries of at most 16384 bytes, then -1.
void deliverReply(const std::string& reply);
// A stream-form exchange that wants the body (19), then replies with `reply` (20, deliveries).
void scriptExchange(const std::string& reply);

// The call at `position` (counting from 0 every call but KsMem_GetLastError) returns `code`
// in place of what it would have returned; a KsMem_Receive then writes nothing.
void failCall(size_t position, int32_t code);

// A reply document that lists `clients`.
std::string clientsReply(const std::vector<std::string>& clients);

// Text and result of KsMem_GetLastError; a null text hands out a null pointer.
void setLastError(const char* text, int32_t result = 0);

const std::vector<Call>& calls();
// The entries called, in order, e.g. {SendNoAck, SendEOF, Receive, ...}.
std::vector<Entry> entries();
// The texts given to KsMem_SendNoAck, in order.
std::vector<std::string> sentNoAck();
int count(Entry entry);

}  // namespace ScriptedTransport

#endif  // KSMEM_TESTS_SCRIPTEDTRANSPORT_H_
