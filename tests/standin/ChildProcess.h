// Runs a piece of a test in a forked child of the test process, so that it starts with
// transport state of its own: the child sets KSMEM_SERVICE, reads it again and opens its own
// connections. Several children run at once; what each one's work returns comes back through a
// pipe.
#ifndef KSMEM_TESTS_STANDIN_CHILDPROCESS_H_
#define KSMEM_TESTS_STANDIN_CHILDPROCESS_H_

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

class ChildProcess {
 public:
  // Starts the child, which sets KSMEM_SERVICE to `service`, runs `work` and ends. `work` must
  // not use GoogleTest assertions (they would be counted in the child alone); it reports through
  // what it returns.
  ChildProcess(const std::string& service, const std::function<std::string()>& work) {
    int ends[2];
    if (pipe(ends) != 0) {
      ADD_FAILURE() << "no pipe for a child process";
      return;
    }
    const pid_t parent = getpid();
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a child that hangs goes with the test process
      if (getppid() != parent) _exit(1);
      setenv("KSMEM_SERVICE", service.c_str(), 1);
      std::string text;
      int status = 1;
      try {
        text = work();
        status = 0;
      } catch (const std::exception& e) {
        text = std::string("the child process threw: ") + e.what();
      } catch (...) {
        text = "the child process threw an exception of no standard kind";
      }
      for (ssize_t count = 0;
           !text.empty() && (count = write(ends[1], text.data(), text.size())) > 0;) {
        text.erase(0, static_cast<std::size_t>(count));
      }
      _exit(status);
    }
    close(ends[1]);
    readEnd = ends[0];
    if (pid < 0) ADD_FAILURE() << "fork failed";
  }
  // Waits for the child if output() has not.
  ~ChildProcess() {
    if (pid > 0) output();
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits for the child and gives what `work` returned. A child that threw or died counts as
  // a test failure, and gives "".
  std::string output() {
    std::string text;
    char chunk[65536];
    for (ssize_t count; readEnd >= 0 && (count = read(readEnd, chunk, sizeof chunk)) > 0;) {
      text.append(chunk, static_cast<std::size_t>(count));
    }
    if (readEnd >= 0) close(readEnd);
    readEnd = -1;
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid &&
        !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
      const std::string bySignal =
          WIFSIGNALED(status) ? ", signal " + std::to_string(WTERMSIG(status)) : "";
      ADD_FAILURE() << "child process " << pid << " failed" << bySignal << ": " << text;
      text.clear();
    }
    pid = -1;
    return text;
  }

 private:
  pid_t pid = -1;
  int readEnd = -1;
};

#endif  // KSMEM_TESTS_STANDIN_CHILDPROCESS_H_
