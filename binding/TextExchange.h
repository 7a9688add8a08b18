// One whole exchange in the text form, straight through the transport's eight entries: for
// programs that talk to the transport itself rather than through the client library (ksmem's
// operator view, tests and benchmarks of the service). Works with any transport library.
#ifndef KSMEM_BINDING_TEXTEXCHANGE_H_
#define KSMEM_BINDING_TEXTEXCHANGE_H_

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "client/KsMemBinding.h"

namespace Kestrane::Net::KsModelEventManager::Binding {

struct TextReply {
  int32_t code = 0;  // 0, or the failure result of the entry that failed
  std::string text;  // the reply, or the transport's last-error text
};

// Starts the transport, sends the header block of `headers` ("Name", "Value") followed by
// `body`, and gathers the reply.
inline TextReply textExchange(
    std::initializer_list<std::pair<std::string_view, std::string_view>> headers,
    std::string_view body = {}) {
  std::string request;
  for (const auto& [name, value] : headers) {
    request.append(name).append("=").append(value).append("\r\n");
  }
  request.append("\r\n").append(body);
  const auto failed = [](int32_t code) {
    const char* text = nullptr;
    KsMem_GetLastError(&text);
    return TextReply{code, text != nullptr ? text : "the transport gave no reason"};
  };
  int32_t result = KsMem_Init(std::malloc, std::free);
  if (result != 0) return failed(result);
  if ((result = KsMem_Send(request.c_str())) < 0 || (result = KsMem_SendEOF()) < 0) {
    return failed(result);
  }
  TextReply reply;
  char buffer[KSMEM_RECEIVE_BUFFER_SIZE];
  while ((result = KsMem_Receive(buffer)) != KSMEM_END_OF_REPLY) {
    if (result < 0) return failed(result);
    reply.text.append(buffer, static_cast<std::size_t>(result));
  }
  KsMem_Complete();
  return reply;
}

}  // namespace Kestrane::Net::KsModelEventManager::Binding

#endif  // KSMEM_BINDING_TEXTEXCHANGE_H_
