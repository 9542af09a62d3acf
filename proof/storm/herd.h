// A herd of processes, each of several threads, that work on one database and are killed and started again. It takes
// care of the processes alone; a storm says what they do and what must be true when they pause.
#ifndef ENCAP_PROOF_HERD_H
#define ENCAP_PROOF_HERD_H

#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace crash {

inline constexpr std::uint32_t kProcesses = 4, kThreads = 3, kOwners = kProcesses * kThreads;

// What one thread tells the verifier.
struct ThreadState {
  std::atomic<std::uint64_t> operations;
  std::atomic<pid_t> tid;
  std::atomic<bool> parked;
  char failure[512];
};

// Lies in memory that survives the processes.
struct HerdState {
  ThreadState thread[kOwners + 1];  // one more for a process that is no member of the herd
  std::atomic<bool> stop, pause;
};

// Parks the calling thread while the verifier wants a pause.
void park_if_asked(HerdState &state, std::uint32_t owner);

// Calls step() until it returns false, the storm ends, or the thread has failed. The thread is parked after that.
void work_in_steps(HerdState &state, std::uint32_t owner, const std::function<bool()> &step);

// A thread of a storm whose processes share a `Journal`, which has the `herd`.
template <typename Journal>
class Member {
 public:
  Member(Journal &journal, std::uint32_t owner, std::uint64_t seed) : journal_(journal), owner_(owner), random_(seed) {}

 protected:
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  // Writes down what went wrong, which fails the storm. Returns: false.
  bool fail(const char *format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(journal_.herd.thread[owner_].failure, sizeof(ThreadState::failure), format, arguments);
    va_end(arguments);
    return false;
  }
  bool has_failed() const { return journal_.herd.thread[owner_].failure[0] != '\0'; }

  Journal &journal_;
  const std::uint32_t owner_;
  std::mt19937_64 random_;
};

class Herd {
 public:
  using Live = std::function<void(std::uint32_t process, std::uint64_t seed)>;

  // `context` tells how the run can be repeated. `live` is what a process does until it is killed or told to stop.
  Herd(HerdState &state, std::string context, Live live);

  void start(std::uint32_t process, std::uint64_t seed);
  void end(std::uint32_t process);  // by SIGKILL
  void send(std::uint32_t process, int signal) const;
  bool is_alive(std::uint32_t process) const { return pid_[process] != 0; }

  // Fails the run when a thread has failed or a process has ended by itself.
  void expect_well() const;

  // Lets all that live come to the end of their operations, until resume(). A thread that does not, though the lock is
  // free, sleeps for ever: that fails the run.
  void pause();
  void resume() { state_.pause = false; }

  void stop();  // and waits for all
  std::uint64_t operations() const;
  [[noreturn]] void fail(const std::string &text) const;

 private:
  HerdState &state_;
  const std::string context_;
  const Live live_;
  pid_t pid_[kProcesses] = {};
};

}  // namespace crash

#endif
