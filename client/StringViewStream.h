// StringViewStream: an input stream over a string that the caller keeps alive, so that a request
// body of any size goes to KsMEMRequest without a copy. The string must outlive the stream and
// must not change while the stream is read.
#ifndef KSMEM_CLIENT_STRINGVIEWSTREAM_H_
#define KSMEM_CLIENT_STRINGVIEWSTREAM_H_

#include <istream>
#include <streambuf>
#include <string>

namespace Kestrane::Net::KsModelEventManager::Client {

class StringViewStream : private std::streambuf, public std::istream {
 public:
  explicit StringViewStream(const std::string& text) : std::istream(this) {
    char* begin = const_cast<char*>(text.data());  // the get area is only read
    setg(begin, begin, begin + text.size());
  }
};

}  // namespace Kestrane::Net::KsModelEventManager::Client

#endif  // KSMEM_CLIENT_STRINGVIEWSTREAM_H_
