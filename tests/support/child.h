// Child processes of a test.
#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace test_support {

// Runs `body` in a child process. Returns: its exit status, or minus the signal that ended it.
inline int in_child(const std::function<int()> &body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace test_support

#endif
