#include "tests/standin/ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>

ChildProcess::ChildProcess(const std::function<std::string()>& work) {
  int ends[2];
  if (pipe(ends) != 0) {
    ADD_FAILURE() << "no pipe for a child process";
    return;
  }
  pid = fork();
  if (pid == 0) {
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
    for (std::size_t written = 0; written < text.size();) {
      const ssize_t count = write(ends[1], text.data() + written, text.size() - written);
      if (count <= 0) break;
      written += static_cast<std::size_t>(count);
    }
    _exit(status);
  }
  close(ends[1]);
  readEnd = ends[0];
  if (pid < 0) ADD_FAILURE() << "fork failed";
}

ChildProcess::~ChildProcess() {
  if (pid > 0) output();
}

std::string ChildProcess::output() {
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
    ADD_FAILURE() << "child process " << pid << " failed: " << text;
  }
  pid = -1;
  return text;
}
