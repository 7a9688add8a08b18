#include "tests/standin/FaultyRelay.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

// What one read takes from a socket, and so the most that waits in each direction of a
// connection: the relay reads a side only once what it read before has been sent on.
constexpr std::size_t kChunk = 65536;
// The longest header line of a reply (a status or an error text) that the relay accepts.
constexpr std::size_t kLongestLine = 65536;

// Follows a stream of RESP2 replies to tell where each one ends. Knows nothing of sockets.
class ReplyScanner {
 public:
  // True between replies: the next byte starts a new one.
  bool betweenReplies() const { return line.empty() && bulkLeft == 0 && openArrays.empty(); }

  // Takes bytes from `data` up to the end of the reply in progress, or all of them when it
  // does not end within `size`, and sets `taken` to their count. False when the bytes are no
  // RESP2 reply.
  bool scan(const char* data, std::size_t size, std::size_t& taken) {
    taken = 0;
    while (taken < size) {
      if (bulkLeft > 0) {
        const std::size_t part = std::min(bulkLeft, size - taken);
        taken += part;
        bulkLeft -= part;
        if (bulkLeft == 0 && elementEnded()) return true;
        continue;
      }
      const char* newline = static_cast<const char*>(std::memchr(data + taken, '\n', size - taken));
      const std::size_t end = newline == nullptr ? size : newline - data + 1;
      line.append(data + taken, end - taken);
      taken = end;
      if (line.size() > kLongestLine) return false;
      if (newline == nullptr) return true;
      bool ended = false;
      if (!takeLine(ended)) return false;
      if (ended) return true;
    }
    return true;
  }

 private:
  // Reads the header line in `line`; `ended` tells whether the reply is now complete.
  bool takeLine(bool& ended) {
    if (line.size() < 3 || line[line.size() - 2] != '\r') return false;
    const char type = line[0];
    char* end = nullptr;
    const long long count = std::strtoll(line.c_str() + 1, &end, 10);
    const bool counted = end == line.c_str() + line.size() - 2 && end != line.c_str() + 1;
    line.clear();
    switch (type) {
      case '+':
      case '-':
      case ':':
        break;
      case '$':
        if (!counted) return false;
        if (count >= 0) {
          bulkLeft = static_cast<std::size_t>(count) + 2;  // the bytes and their "\r\n"
          return true;
        }
        break;  // nil
      case '*':
        if (!counted) return false;
        if (count > 0) {
          openArrays.push_back(count);
          return true;
        }
        break;  // empty or nil
      default:
        return false;
    }
    ended = elementEnded();
    return true;
  }

  // Counts an element as done in the arrays that hold it; true when that ends the reply.
  bool elementEnded() {
    while (!openArrays.empty()) {
      if (--openArrays.back() > 0) return false;
      openArrays.pop_back();
    }
    return true;
  }

  std::string line;                   // the header line read so far
  std::size_t bulkLeft = 0;           // bytes of a bulk string still to come, "\r\n" included
  std::vector<long long> openArrays;  // for each array the reply is inside, elements to come
};

void closeSocket(int& fd) {
  if (fd < 0) return;
  shutdown(fd, SHUT_RDWR);  // ends the connection also where a forked child holds a copy
  close(fd);
  fd = -1;
}

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

struct FaultyRelay::Connection {
  enum class State {
    kRelaying,
    kClosing,  // Redis is gone or a reply was swallowed: send what is left, then close
    kSilent,   // a reply was swallowed: say nothing more, drop what comes until the caller goes
  };

  ~Connection() {
    closeSocket(caller);
    closeSocket(redis);
  }

  // Done with Redis: closes that side and goes on as `next` says.
  void endRedis(State next) {
    closeSocket(redis);
    toRedis.clear();
    state = next;
  }

  int caller = -1;
  int redis = -1;  // -1 once the relay is done with Redis
  State state = State::kRelaying;
  std::string toRedis;   // requests read from the caller, not yet sent on
  std::string toCaller;  // replies passed on, not yet sent
  ReplyScanner replies;
};

FaultyRelay::FaultyRelay(const RedisServer& redis, Loss loss, Pick pick, int n, unsigned seed)
    : redisPort(redis.port()),
      password(redis.password()),
      loss(loss),
      pick(pick),
      n(n),
      random(seed) {
  if (n < 1) throw std::invalid_argument("FaultyRelay: n must be 1 or more");
  sockaddr_in address = loopbackAddress(0);
  socklen_t length = sizeof address;
  listenFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd < 0 || bind(listenFd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listenFd, 128) != 0 ||
      getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      pipe2(wakeFds, O_CLOEXEC) != 0) {
    const int error = errno;
    closeSockets();
    throw std::system_error(error, std::generic_category(), "FaultyRelay cannot listen");
  }
  listenPort = ntohs(address.sin_port);
  try {
    thread = std::thread(&FaultyRelay::serve, this);
  } catch (...) {
    closeSockets();
    throw;
  }
}

FaultyRelay::~FaultyRelay() {
  const char stop = 's';
  [[maybe_unused]] const ssize_t written = write(wakeFds[1], &stop, 1);  // an empty pipe takes it
  thread.join();
  closeSockets();
}

void FaultyRelay::closeSockets() {
  closeSocket(listenFd);
  for (int& fd : wakeFds) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

std::string FaultyRelay::url() const {
  const std::string credentials = password.empty() ? "" : ":" + password + "@";
  return "redis://" + credentials + "127.0.0.1:" + std::to_string(listenPort);
}

void FaultyRelay::serve() {
  std::vector<std::unique_ptr<Connection>> connections;
  std::vector<pollfd> polled;
  for (;;) {
    polled.assign({{wakeFds[0], POLLIN, 0}, {listenFd, POLLIN, 0}});
    for (const auto& c : connections) {
      const bool readCaller = c->state == Connection::State::kSilent ||
                              (c->state == Connection::State::kRelaying && c->toRedis.empty());
      polled.push_back(
          {c->caller,
           static_cast<short>((readCaller ? POLLIN : 0) | (c->toCaller.empty() ? 0 : POLLOUT)), 0});
      // A closed side is left out of poll() by its negative descriptor.
      polled.push_back({c->redis,
                        static_cast<short>((c->toCaller.empty() ? POLLIN : 0) |
                                           (c->toRedis.empty() ? 0 : POLLOUT)),
                        0});
    }
    if (poll(polled.data(), polled.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (polled[0].revents != 0) return;

    for (std::size_t i = connections.size(); i-- > 0;) {
      if (!step(*connections[i], polled[2 + 2 * i].revents, polled[3 + 2 * i].revents)) {
        connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
    if (polled[1].revents & POLLIN) {
      auto c = std::make_unique<Connection>();
      c->caller = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      c->redis = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      const sockaddr_in redis = loopbackAddress(redisPort);
      const int on = 1;
      if (c->caller >= 0 && c->redis >= 0 &&
          (connect(c->redis, reinterpret_cast<const sockaddr*>(&redis), sizeof redis) == 0 ||
           errno == EINPROGRESS)) {
        setsockopt(c->caller, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(c->redis, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        connections.push_back(std::move(c));
      }  // else the caller's connection closes at once, as when Redis is down
    }
  }
}

// Moves what `callerEvents` and `redisEvents` let through one step on. False when the
// connection is over.
bool FaultyRelay::step(Connection& c, short callerEvents, short redisEvents) {
  char chunk[kChunk];
  if (callerEvents & (POLLERR | POLLHUP)) return false;
  if (callerEvents & POLLIN) {
    const ssize_t count = recv(c.caller, chunk, sizeof chunk, 0);
    if (count == 0 || (count < 0 && !wouldBlock())) return false;
    if (count > 0 && c.state == Connection::State::kRelaying) c.toRedis.append(chunk, count);
  }

  if (c.redis >= 0 && (redisEvents & POLLIN)) {
    const ssize_t count = recv(c.redis, chunk, sizeof chunk, 0);
    if (count > 0) {
      pass(c, chunk, static_cast<std::size_t>(count));
    } else if (count == 0 || !wouldBlock()) {
      c.endRedis(Connection::State::kClosing);
    }
  } else if (redisEvents & (POLLERR | POLLHUP)) {
    c.endRedis(Connection::State::kClosing);
  }

  if (c.redis >= 0 && !c.toRedis.empty()) {
    const ssize_t count = send(c.redis, c.toRedis.data(), c.toRedis.size(), MSG_NOSIGNAL);
    if (count > 0) c.toRedis.erase(0, static_cast<std::size_t>(count));
    if (count < 0 && !wouldBlock()) c.endRedis(Connection::State::kClosing);
  }
  if (!c.toCaller.empty()) {
    const ssize_t count = send(c.caller, c.toCaller.data(), c.toCaller.size(), MSG_NOSIGNAL);
    if (count < 0 && !wouldBlock()) return false;
    if (count > 0) c.toCaller.erase(0, static_cast<std::size_t>(count));
  }
  return !(c.state == Connection::State::kClosing && c.toCaller.empty());
}

// Queues for the caller the replies in `data` from Redis, up to a reply that it swallows.
void FaultyRelay::pass(Connection& c, const char* data, std::size_t size) {
  for (std::size_t at = 0; at < size;) {
    if (c.replies.betweenReplies()) {
      ++replies;
      if (pick == Pick::kEveryNth ? replies % n == 0 : random() % static_cast<unsigned>(n) == 0) {
        ++swallowedCount;
        c.endRedis(loss == Loss::kCloseConnection ? Connection::State::kClosing
                                                  : Connection::State::kSilent);
        return;
      }
      ++forwardedCount;
    }
    std::size_t taken = 0;
    if (!c.replies.scan(data + at, size - at, taken)) {
      c.endRedis(Connection::State::kClosing);
      return;
    }
    c.toCaller.append(data + at, taken);
    at += taken;
  }
}
