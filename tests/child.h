// Processes and threads that a test starts, and the word that one gives another.
#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

namespace test_support {

// Starts `body` in a process that ends with the status it returns, and with this process at the latest.
template <typename Body>
pid_t spawn(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(body());
  }
  EXPECT_GT(child, 0);
  return child;
}

// Returns: its exit status, or minus the signal that ended it.
inline int end_of(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Runs `body` in a child process. Returns: as end_of().
inline int in_child(const std::function<int()> &body) {
  return end_of(spawn(body));
}

// Runs `body` in a child process, in which no expectation of it may fail.
inline void expect_in_child(const std::function<void()> &body) {
  EXPECT_EQ(in_child([&] { return body(), testing::Test::HasFailure() ? 1 : 0; }), 0);
}

// Returns: whether the calling process is of this user and group alone from now on.
inline bool become(uid_t user, gid_t group) {
  return setgroups(0, nullptr) == 0 && setresgid(group, group, group) == 0 && setresuid(user, user, user) == 0;
}

inline void kill_hard(pid_t child) {
  kill(child, SIGKILL);
  EXPECT_EQ(end_of(child), -SIGKILL);
}

class Signal {
 public:
  Signal() { EXPECT_EQ(pipe(end_), 0); }
  ~Signal() {
    leave_to_others();
    close(end_[0]);
  }
  Signal(const Signal &) = delete;
  Signal &operator=(const Signal &) = delete;

  void give() const { EXPECT_EQ(write(end_[1], "!", 1), 1); }

  // False when no process is left to give it.
  bool await() {
    leave_to_others();
    char byte;
    return read(end_[0], &byte, 1) == 1;
  }

  // This process will not give it.
  void leave_to_others() { close(std::exchange(end_[1], -1)); }

 private:
  int end_[2];
};

// Starts `body` in a process that waits, when it is through with it, until it is killed. Returns after that.
template <typename Body>
pid_t spawn_waiting(Body body) {
  Signal through;
  const pid_t child = spawn([&] {
    body();
    through.give();
    return pause();
  });
  EXPECT_TRUE(through.await());
  return child;
}

// Runs body(i) in `number` processes that begin at once. Returns: how many ended with status 0, with 1, in another way.
template <typename Body>
std::array<unsigned, 3> at_once(unsigned number, Body body) {
  Signal start;
  std::vector<pid_t> children;
  for (unsigned i = 0; i < number; ++i) {
    children.push_back(spawn([&] { return start.await() ? 2 : body(i); }));
  }
  start.leave_to_others();
  std::array<unsigned, 3> count{};
  for (const pid_t child : children) {
    const int end = end_of(child);
    ++count[end == 0 || end == 1 ? static_cast<unsigned>(end) : 2];
  }
  return count;
}

// Runs `body` in so many threads, none of which ends before all have come to its end.
inline void in_threads(int number, const std::function<void()> &body) {
  std::latch done(number);
  std::vector<std::jthread> threads;
  for (int i = 0; i < number; ++i) {
    threads.emplace_back([&] {
      body();
      done.arrive_and_wait();
    });
  }
}

}  // namespace test_support

#endif
