// Runs work in a child process one instruction at a time, and keeps each state in which its death would leave a window.
#ifndef ENCAP_PROOF_STEPPER_H
#define ENCAP_PROOF_STEPPER_H

#include <sched.h>

#include <functional>
#include <unordered_set>

#include "support/window.h"
#include "support/write_watch.h"

namespace crash {

// A child process that stops before its work and then goes on by single steps. Until it ends, it and the calling thread
// share one processor: to wake a process on another one at each step takes three times as long.
class Stepper {
 public:
  // Ends the program with a sentence where processes must not be traced.
  explicit Stepper(const std::function<void()> &work);
  ~Stepper();
  Stepper(const Stepper &) = delete;
  Stepper &operator=(const Stepper &) = delete;

  bool step();  // one instruction; false when the work is done
  void kill();
  pid_t pid() const { return pid_; }
  std::uint64_t instructions() const { return instructions_; }

 private:
  cpu_set_t processors_{};  // the calling thread's, given back to it
  pid_t pid_;
  bool ended_ = false;
  std::uint64_t instructions_ = 0;
};

// States in the order in which they were first seen, none twice.
class States {
 public:
  bool add(Image image);  // false: seen before
  // What a death of thread `tid` leaves at each change that the log has of `image`.
  void add_deaths(const Window &window, Image image, const ChangeLog &log, pid_t tid);
  const std::vector<Image> &all() const { return images_; }

 private:
  std::vector<Image> images_;
  std::unordered_set<std::uint64_t> seen_;
};

/*
 * Does `work` in a child process, which may fault or hang, without the handlers of fork(): the child does not enter
 * itself into the window's table of processes. Returns: "" if the work was good, or how the child ended.
 */
std::string run_in_child(unsigned seconds, const std::function<bool()> &work);

struct Walk {
  States states;  // buried: as the next process finds them
  std::uint64_t instructions = 0;
  std::uint64_t changes = 0;  // of the window
};

// Steps through `work` on the window as it is, from the state before to the state after.
Walk walk_through(const Window &window, const std::function<void()> &work);

// Kills `work` for good at its change number `change`. Returns: the window as the kernel leaves it, owner's id aside.
Image killed_at(const Window &window, const std::function<void()> &work, std::uint64_t change);

}  // namespace crash

#endif
