// A redis-server of a test's (or a benchmark's) own: it runs without persistence, listening on a
// Unix socket in a fresh temporary directory or on a free loopback port; it can be stopped and
// started again at the same address, and the object stops it and removes the directory when it
// goes. Header-only, so that the benchmark program can use it too.
#ifndef KSMEM_TESTS_STANDIN_REDISSERVER_H_
#define KSMEM_TESTS_STANDIN_REDISSERVER_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

// A server identifier that no other run of the tests uses, so that they hold on a shared Redis.
inline std::string uniqueServerID(const std::string& name) {
  static const std::string run =
      std::to_string(getpid()) + "-" +
      std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
  return name + "@" + run;
}

class RedisServer {
 public:
  enum class Listen { kUnixSocket, kLoopback };

  explicit RedisServer(Listen listen) {
    std::string pattern = std::filesystem::temp_directory_path() / "ksmem-redis-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) directory = pattern;
    if (listen == Listen::kUnixSocket) socketPath = directory + "/redis.sock";
    if (listen == Listen::kLoopback) port = freeLoopbackPort();
  }
  ~RedisServer() {
    stop();
    std::error_code ignored;
    if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
  }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  // Starts redis-server and waits until it accepts connections. False, with problem() saying
  // why, when it is not installed or does not come up within ten seconds.
  bool start() {
    if (directory.empty()) return fail("no temporary directory could be made");
    const std::string log = directory + "/redis.log";
    std::vector<std::string> args = {
        "redis-server", "--save", "",       "--appendonly",      "no", "--dir", directory,
        "--logfile",    log,      "--port", std::to_string(port)};
    if (socketPath.empty()) args.insert(args.end(), {"--bind", "127.0.0.1"});
    if (!socketPath.empty()) args.insert(args.end(), {"--unixsocket", socketPath});
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);  // a test that crashes leaves no server behind
      const int devNull = open("/dev/null", O_RDWR);
      for (int stream = 0; stream < 3; ++stream) dup2(devNull, stream);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    for (int wait = 0; wait < 2000; ++wait) {  // 5 ms each
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        pid = 0;
        std::ifstream logText(log);
        return fail(WIFEXITED(status) && WEXITSTATUS(status) == 127
                        ? "redis-server is not installed (Debian package redis-server)"
                        : "redis-server stopped at once: " +
                              std::string(std::istreambuf_iterator<char>(logText), {}));
      }
      const int probe = connect();
      if (probe >= 0) {
        close(probe);
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    stop();
    return fail("redis-server did not accept connections within ten seconds");
  }

  void stop() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    pid = 0;
  }

  // The address as KSMEM_SERVICE takes it.
  std::string url() const {
    return socketPath.empty() ? "redis://127.0.0.1:" + std::to_string(port)
                              : "unix://" + socketPath;
  }
  const std::string& problem() const { return why; }

  // A socket connected to the server, or -1. The caller closes it.
  int connect() const {
    sockaddr_un local{AF_UNIX, {}};
    socketPath.copy(local.sun_path, sizeof local.sun_path - 1);
    const sockaddr_in loopback = loopbackAddress(port);
    const int on = 1;
    const int fd = socket(socketPath.empty() ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
    const int result =
        socketPath.empty()
            ? ::connect(fd, reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback)
            : ::connect(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local);
    if (socketPath.empty()) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (result == 0) return fd;
    close(fd);
    return -1;
  }

 private:
  static sockaddr_in loopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }

  static int freeLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopbackAddress(0);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
  }

  bool fail(const std::string& reason) {
    why = reason;
    return false;
  }

  std::string directory;
  std::string socketPath;  // empty when listening on loopback
  int port = 0;
  pid_t pid = 0;
  std::string why;
};

#endif  // KSMEM_TESTS_STANDIN_REDISSERVER_H_
