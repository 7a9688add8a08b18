// A redis-server of a test's (or a benchmark's) own, in a fresh temporary directory, listening on
// a Unix socket there or on a loopback port, optionally with a password. By default it keeps
// nothing across a restart; with an append-only file it keeps what it acknowledged across stop()
// and kill(). It can be stopped or killed and started again at the same address and directory,
// and the object stops it and removes the directory when it goes, also when the test fails. Not
// for use from several threads at once. Header-only, so that the benchmark program can use it
// too.
#ifndef KSMEM_TESTS_STANDIN_REDISSERVER_H_
#define KSMEM_TESTS_STANDIN_REDISSERVER_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/standin/RedisWire.h"

// A server identifier that no other run of the tests uses, so that they hold on a shared Redis.
inline std::string uniqueServerID(const std::string& name) {
  static const std::string run =
      std::to_string(getpid()) + "-" +
      std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
  return name + "@" + run;
}

// Starts the program args[0], found on PATH, with `args`, its standard output and error going
// to `outputFd` (to /dev/null when -1). The child is killed when the calling thread ends, so
// that a test that crashes leaves nothing behind; it exits with 127 when the program cannot be
// run. Gives its pid, or -1 when fork fails. The caller waits for it.
inline pid_t startProgram(std::vector<std::string> args, int outputFd = -1) {
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the parent ended before prctl took effect
    const int input = open("/dev/null", O_RDWR);
    const int output = outputFd >= 0 ? outputFd : input;
    dup2(input, 0);
    dup2(output, 1);
    dup2(output, 2);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

class RedisServer {
 public:
  enum class Listen { kUnixSocket, kLoopback };
  // Redis writes the append-only file before it replies, so a killed process loses nothing
  // acknowledged either way (unless an fsync had stalled the disk for seconds); the fsync
  // policy decides what a crash of the machine may lose.
  enum class Durability {
    kNone,               // no persistence at all
    kAppendEverySecond,  // append-only file, fsync once a second: up to a second
    kAppendAlways,       // append-only file, fsync before each reply: nothing acknowledged
  };

  struct Options {
    explicit Options(Listen listen) : listen(listen) {}

    Listen listen;
    Durability durability = Durability::kNone;
    // When not empty, required of every client (requirepass) and part of url(). Letters,
    // digits and "-._~" only, so that it goes into a URL as it is.
    std::string password;
    int port = 0;  // for kLoopback; 0 picks a free one
    // Given to redis-server after the others, as they are (for instance cluster settings).
    std::vector<std::string> moreArguments;
  };

  explicit RedisServer(Listen listen) : RedisServer(Options(listen)) {}
  explicit RedisServer(Options chosen) : options(std::move(chosen)) {
    std::string pattern = std::filesystem::temp_directory_path() / "ksmem-redis-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) directory = pattern;
    if (options.listen == Listen::kUnixSocket) socketPath = directory + "/redis.sock";
    if (options.listen == Listen::kLoopback && options.port == 0) {
      options.port = freeLoopbackPort();
    }
  }
  ~RedisServer() {
    stop();
    std::error_code ignored;
    if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
  }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  // Starts redis-server and waits until it answers PING, which it does only once it has loaded
  // its append-only file. False, with problem() saying why, when it is not installed, does not
  // come up within ten seconds, or the options are unusable.
  // REQUIRES: not running.
  bool start() {
    if (directory.empty()) return fail("no temporary directory could be made");
    if (options.password.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                           "0123456789-._~") != std::string::npos) {
      return fail("the password may hold only letters, digits and \"-._~\"");
    }
    const std::string log = directory + "/redis.log";
    const bool appendOnly = options.durability != Durability::kNone;
    std::vector<std::string> args = {
        "redis-server", "--save",    "",  "--appendonly", appendOnly ? "yes" : "no",   "--dir",
        directory,      "--logfile", log, "--port",       std::to_string(options.port)};
    if (appendOnly) {
      args.insert(args.end(),
                  {"--appendfsync",
                   options.durability == Durability::kAppendAlways ? "always" : "everysec"});
    }
    if (!options.password.empty()) args.insert(args.end(), {"--requirepass", options.password});
    if (socketPath.empty()) args.insert(args.end(), {"--bind", "127.0.0.1"});
    if (!socketPath.empty()) args.insert(args.end(), {"--unixsocket", socketPath});
    args.insert(args.end(), options.moreArguments.begin(), options.moreArguments.end());
    // Also what redis-server says before it opens its log, such as a complaint about an option.
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    process = startProgram(args, output);
    if (output >= 0) close(output);
    if (process < 0) {
      process = 0;
      return fail("fork failed");
    }
    for (int wait = 0; wait < 2000; ++wait) {  // 5 ms each
      int status = 0;
      if (waitpid(process, &status, WNOHANG) == process) {
        process = 0;
        std::ifstream logText(log);
        return fail(WIFEXITED(status) && WEXITSTATUS(status) == 127
                        ? "redis-server is not installed (Debian package redis-server)"
                        : "redis-server stopped at once: " +
                              std::string(std::istreambuf_iterator<char>(logText), {}));
      }
      if (wire(std::chrono::seconds(1)).command({"PING"}) == std::vector<std::string>{"PONG"}) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    stop();
    return fail("redis-server did not answer PING within ten seconds");
  }

  // Stops the server as an operator would (SIGTERM: it writes out its append-only file). Does
  // nothing when it is not running.
  void stop() { end(SIGTERM); }

  // Kills the server as a crash would (SIGKILL): what was not yet written to the append-only
  // file is lost. Does nothing when it is not running.
  void kill() { end(SIGKILL); }

  // The server's process id, 0 when it is not running.
  pid_t pid() const { return process; }

  // The address as KSMEM_SERVICE takes it, with the password when there is one:
  // "redis://[:PASSWORD@]127.0.0.1:PORT" or "unix://[:PASSWORD@]/PATH". It ends with the
  // address, so that a test may append "/DB" (redis://) and then "?options".
  std::string url() const {
    const std::string credentials = options.password.empty() ? "" : ":" + options.password + "@";
    return socketPath.empty() ? "redis://" + credentials + "127.0.0.1:" + std::to_string(port())
                              : "unix://" + credentials + socketPath;
  }
  int port() const { return socketPath.empty() ? options.port : 0; }  // 0 on a Unix socket
  const std::string& password() const { return options.password; }
  const std::string& problem() const { return why; }

  // A socket connected to the server, or -1. The caller closes it.
  int connect() const {
    if (socketPath.empty()) return connectLoopback(options.port);
    sockaddr_un address{AF_UNIX, {}};
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 &&
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return fd;
    }
    if (fd >= 0) close(fd);
    return -1;
  }

  // A new connection to the server, authenticated when it has a password.
  RedisWire wire(std::chrono::milliseconds timeLimit = std::chrono::seconds(10)) const {
    return RedisWire(connect(), options.password, timeLimit);
  }

 private:
  static int freeLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopbackAddress(0);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
  }

  void end(int signal) {
    if (process <= 0) return;
    ::kill(process, signal);
    waitpid(process, nullptr, 0);
    process = 0;
  }

  bool fail(const std::string& reason) {
    why = reason;
    return false;
  }

  Options options;
  std::string directory;
  std::string socketPath;  // empty when listening on loopback
  pid_t process = 0;
  std::string why;
};

#endif  // KSMEM_TESTS_STANDIN_REDISSERVER_H_
