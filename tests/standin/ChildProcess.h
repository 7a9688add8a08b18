// Runs a piece of a test in a forked child of the test process, so that it starts with
// transport state of its own: the child reads KSMEM_SERVICE again and opens its own
// connections. Several children run at once; what each one's work returns comes back through a
// pipe.
#ifndef KSMEM_TESTS_STANDIN_CHILDPROCESS_H_
#define KSMEM_TESTS_STANDIN_CHILDPROCESS_H_

#include <sys/types.h>

#include <functional>
#include <string>

class ChildProcess {
 public:
  // Starts the child, which runs `work` and ends. `work` must not use GoogleTest assertions
  // (they would be counted in the child alone); it reports through what it returns.
  explicit ChildProcess(const std::function<std::string()>& work);
  // Waits for the child if output() has not.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits for the child and gives what `work` returned. A child that threw or died counts as
  // a test failure.
  std::string output();

 private:
  pid_t pid = -1;
  int readEnd = -1;
};

#endif  // KSMEM_TESTS_STANDIN_CHILDPROCESS_H_
