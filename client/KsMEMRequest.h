// KsMEMRequest holds one request to the service while it is put together and sent, and carries
// it through the transport in one exchange.
//
// A request is a table of named headers, ordered by name as byte strings, plus a body: either a
// text (setRequestBody) sent together with the header block, or a stream (setRequestStream) sent
// in chunks when the transport asks for it. exchange() returns the whole reply as it came, zero
// bytes included, or throws a member of the Exception family; after a failure no further
// transport call is made for that exchange.
//
// A request is built for one exchange on one thread. It owns its buffers and headers; the body
// stream stays the caller's and must outlive exchange().
#ifndef KSMEM_CLIENT_KSMEMREQUEST_H_
#define KSMEM_CLIENT_KSMEMREQUEST_H_

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>

namespace Kestrane::Net::KsModelEventManager::Client {

class KsMEMRequest {
 public:
  KsMEMRequest();
  KsMEMRequest(const KsMEMRequest&) = delete;
  KsMEMRequest& operator=(const KsMEMRequest&) = delete;
  ~KsMEMRequest();

  // Copies both texts, each up to its first zero byte. A name already present keeps its value.
  // REQUIRES: neither pointer is null.
  void addHeader(const char* name, const char* value);
  void clearHeaders();

  // The request only reads the stream; it never releases it. Replaces an earlier stream.
  void setRequestStream(std::istream* stream);
  // A non-empty text takes precedence over the stream.
  // REQUIRES: `text` is not null.
  void setRequestBody(const char* text);

  // Sends the request and returns the reply, at most 1 GiB (a longer one fails with
  // KsMEMRuntimeException).
  // REQUIRES: the transport was initialised (initialise()).
  std::string exchange();

  // The header block as it goes on the wire: "name=value" CR LF per header in table order, a
  // value of exactly "null" rendered empty, then one more CR LF.
  std::string buildHeaderText() const;

  // Start and end the transport (KsMem_Init with malloc and free, KsMem_Term).
  static void initialise();
  static void terminate();

 private:
  void sendHeaderBlock();
  void sendRequestText(const char* text);
  int32_t sendRequestStream();
  std::string readReply();
  int32_t receive();

  std::unique_ptr<char[]> replyBuffer;
  std::istream* requestStream;
  std::map<std::string, std::string> headers;  // std::string orders by unsigned bytes
  std::string requestBody;
};

}  // namespace Kestrane::Net::KsModelEventManager::Client

#endif  // KSMEM_CLIENT_KSMEMREQUEST_H_
