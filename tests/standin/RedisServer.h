// A redis-server of a test process's (or a benchmark's) own, in a fresh temporary directory,
// listening on a Unix socket there or on a loopback port, optionally with a password; it keeps
// nothing across a restart unless given "--appendonly yes". The object kills it and removes the
// directory when it goes, also when a test fails, and the server is killed when the thread that
// started it ends, so that a crashed test leaves nothing behind. Not for use from several threads
// at once. Header-only, so that the benchmark program can use it too. (The service scenarios in
// Python, tests/service/, start their servers with a harness of their own.)
#ifndef KSMEM_TESTS_STANDIN_REDISSERVER_H_
#define KSMEM_TESTS_STANDIN_REDISSERVER_H_

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

class RedisServer {
 public:
  enum class Listen { kUnixSocket, kLoopback };

  // `moreArguments` go to redis-server after the others, as they are: "--appendonly yes", or
  // cluster settings. A `password` that is not empty is required of every client (requirepass)
  // and is part of url().
  // REQUIRES: `password` holds letters, digits and "-._~" only, so that it goes into a URL as it
  // is.
  explicit RedisServer(Listen listen, std::vector<std::string> moreArguments = {},
                       std::string password = "")
      : moreArguments(std::move(moreArguments)), password(std::move(password)) {
    std::string pattern = std::filesystem::temp_directory_path() / "ksmem-redis-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) directory = pattern;
    if (listen == Listen::kUnixSocket) socketPath = directory + "/redis.sock";
  }
  ~RedisServer() {
    kill();
    std::error_code ignored;
    if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
  }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  // A reply, arrays flattened: strings, status and error replies as their text, integers in
  // decimal, nil as nothing.
  using Reply = std::vector<std::string>;

  // Starts redis-server and waits until it answers PING, which it does only once it has loaded
  // its append-only file, and names its own process id. False, with problem() saying why, when
  // redis-server is not installed, does not answer within ten seconds, or the options are
  // unusable. On loopback the first start picks a port from 20000 to 30000, leaving room for
  // the cluster bus port (port + 10000), and picks again when that or the bus port is taken;
  // later starts keep it.
  // REQUIRES: not running.
  bool start() {
    static std::mt19937 random(std::random_device{}());
    if (directory.empty()) return fail("no temporary directory could be made");
    for (int attempt = 0; attempt < 10; ++attempt) {
      why.clear();
      const bool picked = socketPath.empty() && tcpPort == 0;
      if (picked) tcpPort = std::uniform_int_distribution<int>(20000, 30000)(random);
      if (launch()) return true;
      if (!picked || why.find("Address already in use") == std::string::npos) return false;
      tcpPort = 0;
    }
    return false;
  }

  // Kills the server as a crash would (SIGKILL), also a frozen one, and reaps it. Does nothing
  // when it is not running.
  void kill() {
    connection.reset();
    if (process <= 0) return;
    ::kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    process = 0;
  }

  bool running() const { return process > 0; }

  // The address as KSMEM_SERVICE takes it, with the password when there is one:
  // "redis://[:PASSWORD@]127.0.0.1:PORT" or "unix://[:PASSWORD@]/PATH". It ends with the
  // address, so that a test may append "/DB" (redis://) and then "?options".
  std::string url() const {
    const std::string credentials = password.empty() ? "" : ":" + password + "@";
    return socketPath.empty() ? "redis://" + credentials + "127.0.0.1:" + std::to_string(tcpPort)
                              : "unix://" + credentials + socketPath;
  }
  int port() const { return tcpPort; }  // 0 on a Unix socket
  const std::string& problem() const { return why; }

  // The reply to the command `parts`, through hiredis on a connection that the object keeps,
  // authenticated when the server has a password, with a time limit of five seconds. When the
  // connection fails, the reply is hiredis's text of why ("Connection refused", "Resource
  // temporarily unavailable" at the time limit, ...) and the next command connects again.
  Reply command(std::initializer_list<std::string_view> parts) {
    const timeval limit = {5, 0};
    if (connection == nullptr || connection->err != 0) {
      connection.reset(socketPath.empty() ? redisConnectWithTimeout("127.0.0.1", tcpPort, limit)
                                          : redisConnectUnixWithTimeout(socketPath.c_str(), limit));
      if (connection == nullptr || connection->err != 0) {
        return {connection == nullptr ? "out of memory" : connection->errstr};
      }
      fcntl(connection->fd, F_SETFD, FD_CLOEXEC);  // not for the servers started later
      redisSetTimeout(connection.get(), limit);
      if (!password.empty()) command({"AUTH", password});
    }
    std::vector<const char*> argv;
    std::vector<std::size_t> lengths;
    for (const std::string_view part : parts) {
      argv.push_back(part.data());
      lengths.push_back(part.size());
    }
    auto* reply = static_cast<redisReply*>(redisCommandArgv(
        connection.get(), static_cast<int>(argv.size()), argv.data(), lengths.data()));
    if (reply == nullptr) return {connection->errstr};
    Reply flat;
    flatten(reply, flat);
    freeReplyObject(reply);
    return flat;
  }

  // The value in the line "`name`:value" of a reply such as that of INFO or CLUSTER INFO, or ""
  // when there is no such line.
  static std::string field(const Reply& reply, std::string_view name) {
    const std::string text = reply.size() == 1 ? "\n" + reply[0] : "";
    const std::size_t at = text.find("\n" + std::string(name) + ":");
    const std::size_t from = at + name.size() + 2;
    return at == std::string::npos ? "" : text.substr(from, text.find('\r', from) - from);
  }

  // The whole number that `reply` is (DBSIZE, CLUSTER KEYSLOT), or -1 when it is none.
  static long long number(const Reply& reply) {
    const bool digit = reply.size() == 1 && std::isdigit(static_cast<unsigned char>(reply[0][0]));
    return digit ? std::atoll(reply[0].c_str()) : -1;
  }

  // The integer field `name` of INFO (for instance "used_memory"), or -1 when there is none.
  long long infoInteger(std::string_view name) { return number({field(command({"INFO"}), name)}); }

 private:
  static void flatten(const redisReply* reply, Reply& flat) {
    if (reply->type == REDIS_REPLY_ARRAY) {
      for (std::size_t i = 0; i < reply->elements; ++i) flatten(reply->element[i], flat);
    } else if (reply->type == REDIS_REPLY_INTEGER) {
      flat.push_back(std::to_string(reply->integer));
    } else if (reply->type != REDIS_REPLY_NIL) {
      flat.emplace_back(reply->str, reply->len);
    }
  }

  bool launch() {
    connection.reset();
    const std::string log = directory + "/redis.log";
    const std::string port = std::to_string(tcpPort);
    std::vector<std::string> args = {"redis-server", "--save",    "",         "--dir",
                                     directory,      "--logfile", log,        "--port",
                                     port,           "--bind",    "127.0.0.1"};
    args.insert(args.end(),
                {"--unixsocket", socketPath, "--requirepass", password, "--appendonly", "no"});
    args.insert(args.end(), moreArguments.begin(), moreArguments.end());
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    // Also what redis-server says before it opens its log, such as a complaint about an option.
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    const pid_t parent = getpid();
    process = output < 0 ? -1 : fork();
    if (process == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);  // the parent ended before prctl took effect
      dup2(output, 1);
      dup2(output, 2);
      execvp(argv[0], argv.data());
      const char notRun[] = "redis-server could not be run: is it installed?\n";
      [[maybe_unused]] const ssize_t written = write(2, notRun, sizeof notRun - 1);
      _exit(127);
    }
    if (output >= 0) close(output);
    if (process < 0) {
      process = 0;
      return fail("cannot open " + log + " or fork for redis-server");
    }
    for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
         std::chrono::steady_clock::now() < deadline;) {
      if (waitpid(process, nullptr, WNOHANG) == process) {
        process = 0;
        std::ifstream text(log);
        return fail("redis-server stopped at once: " +
                    std::string(std::istreambuf_iterator<char>(text), {}));
      }
      // Another server may hold the port, ours then stops at once; only ours gives our pid.
      if (command({"PING"}) == Reply{"PONG"} &&
          field(command({"INFO", "server"}), "process_id") == std::to_string(process)) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    kill();
    return fail("redis-server did not answer PING within ten seconds");
  }

  bool fail(const std::string& reason) {
    why = reason;
    return false;
  }

  const std::vector<std::string> moreArguments;
  const std::string password;
  std::string directory;
  std::string socketPath;  // empty when listening on loopback
  int tcpPort = 0;         // 0 on a Unix socket, and on loopback until the first start
  pid_t process = 0;
  std::unique_ptr<redisContext, void (*)(redisContext*)> connection{nullptr, redisFree};
  std::string why;
};

#endif  // KSMEM_TESTS_STANDIN_REDISSERVER_H_
