// A bare Redis client for tests and benchmarks: one command at a time over a plain socket, the
// whole reply read back, no client library in between. Every read and write has a time limit,
// so a server that stays silent fails the command instead of hanging the test. Once a command
// has failed (connection closed, time limit, malformed reply) the wire is broken for good:
// failure() says why and later commands fail at once. One wire serves one thread at a time.
// Header-only, so that the benchmark program can use it too.
#ifndef KSMEM_TESTS_STANDIN_REDISWIRE_H_
#define KSMEM_TESTS_STANDIN_REDISWIRE_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

inline sockaddr_in loopbackAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket connected to 127.0.0.1:`port`, without Nagle's delay, or -1. The caller closes it.
// Close-on-exec, so that servers that the test starts later do not hold it open.
inline int connectLoopback(int port) {
  const sockaddr_in address = loopbackAddress(port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

class RedisWire {
 public:
  // Takes over `fd`, a socket connected to Redis (-1 gives a wire that is broken from the
  // start). With a password, authenticates first; a refused password breaks the wire, with
  // Redis's answer in failure().
  explicit RedisWire(int fd, const std::string& password = "",
                     std::chrono::milliseconds timeLimit = std::chrono::seconds(10))
      : fd(fd) {
    if (fd < 0) {
      why = "not connected";
      return;
    }
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(timeLimit.count() / 1000);
    limit.tv_usec = static_cast<suseconds_t>(timeLimit.count() % 1000 * 1000);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (password.empty()) return;
    const std::vector<std::string> reply = command({"AUTH", password});
    if (reply != std::vector<std::string>{"OK"} && why.empty()) {
      why = "AUTH refused: " + (reply.empty() ? std::string("no reply") : reply[0]);
    }
  }
  ~RedisWire() {
    if (fd >= 0) close(fd);
  }
  RedisWire(const RedisWire&) = delete;
  RedisWire& operator=(const RedisWire&) = delete;

  // The strings of the reply to the command `parts`, arrays flattened: bulk strings as they
  // are, a status or integer reply as its line without the type byte, an error reply as its
  // line with the "-" kept, nothing for nil. Empty when the wire is broken.
  std::vector<std::string> command(std::initializer_list<std::string_view> parts) {
    std::vector<std::string> reply;
    if (!why.empty()) return reply;
    std::string request = "*" + std::to_string(parts.size()) + "\r\n";
    for (const std::string_view part : parts) {
      request += "$" + std::to_string(part.size()) + "\r\n";
      request.append(part.data(), part.size());
      request += "\r\n";
    }
    for (std::size_t sent = 0; sent < request.size();) {
      const ssize_t count = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) {
        breakWith(count == 0 ? "connection closed" : std::strerror(errno));
        return reply;
      }
      sent += static_cast<std::size_t>(count);
    }
    if (!readReply(reply)) reply.clear();
    return reply;
  }

  // The integer field `name` of INFO (for instance "used_memory"), or -1 when there is none.
  long long infoInteger(std::string_view name) {
    const std::vector<std::string> reply = command({"INFO"});
    const std::string value = reply.size() == 1 ? field(reply[0], name) : "";
    char* end = nullptr;
    const long long number = std::strtoll(value.c_str(), &end, 10);
    return value.empty() || *end != '\0' ? -1 : number;
  }

  // The value in the line "`name`:value" of `text`, as INFO and CLUSTER INFO give it, or ""
  // when there is no such line.
  static std::string field(std::string_view text, std::string_view name) {
    for (std::size_t at = 0; at < text.size();) {
      std::size_t end = text.find('\n', at);
      if (end == std::string_view::npos) end = text.size();
      std::string_view line = text.substr(at, end - at);
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      if (line.size() > name.size() && line.substr(0, name.size()) == name &&
          line[name.size()] == ':') {
        return std::string(line.substr(name.size() + 1));
      }
      at = end + 1;
    }
    return "";
  }

  // Empty while the wire works; else why it broke: "connection closed", "no reply within the
  // time limit", a system error text or a protocol complaint.
  const std::string& failure() const { return why; }

 private:
  void breakWith(const std::string& reason) {
    if (why.empty()) why = reason;
  }

  bool fill(std::size_t wanted) {
    while (received.size() - offset < wanted) {
      char chunk[65536];
      const ssize_t count = read(fd, chunk, sizeof chunk);
      if (count <= 0) {
        breakWith(count == 0                                ? "connection closed"
                  : errno == EAGAIN || errno == EWOULDBLOCK ? "no reply within the time limit"
                                                            : std::strerror(errno));
        return false;
      }
      received.append(chunk, static_cast<std::size_t>(count));
    }
    return true;
  }

  bool readLine(std::string& line) {
    std::size_t end;
    while ((end = received.find("\r\n", offset)) == std::string::npos) {
      if (!fill(received.size() - offset + 1)) return false;
    }
    line.assign(received, offset, end - offset);
    offset = end + 2;
    return true;
  }

  bool readReply(std::vector<std::string>& reply) {
    if (offset == received.size()) {
      received.clear();
      offset = 0;
    }
    std::string line;
    if (!readLine(line)) return false;
    if (line.empty()) {
      breakWith("protocol error: an empty line in place of a reply");
      return false;
    }
    const long count = std::atol(line.c_str() + 1);
    switch (line[0]) {
      case '*':
        for (long i = 0; i < count; ++i) {
          if (!readReply(reply)) return false;
        }
        return true;
      case '$':
        if (count < 0) return true;
        if (!fill(static_cast<std::size_t>(count) + 2)) return false;
        reply.push_back(received.substr(offset, static_cast<std::size_t>(count)));
        offset += static_cast<std::size_t>(count) + 2;
        return true;
      case '-':
        reply.push_back(line);
        return true;
      case '+':
      case ':':
        reply.push_back(line.substr(1));
        return true;
      default:
        breakWith("protocol error: got '" + line.substr(0, 1) + "' as reply type byte");
        return false;
    }
  }

  int fd;
  std::string received;
  std::size_t offset = 0;  // where the unread part of `received` starts
  std::string why;
};

#endif  // KSMEM_TESTS_STANDIN_REDISWIRE_H_
