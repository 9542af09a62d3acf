// A worker process as its supervisor sees it, and what the two say to each other.
#ifndef ENCAP_DEMO_CHILD_H
#define ENCAP_DEMO_CHILD_H

#include <sys/types.h>

#include "model/plan.h"

namespace demo {

enum class Verb : std::uint32_t {
  kEnter,     // enter the next `count` hops
  kChurn,     // enter the next hop and release it again, for ever
  kRefresh,   // after a restart: enter all hops, and give back what no hop names
  kWithdraw,  // release the first hop that is still entered
  kLeave,     // give everything back and end
};

struct Command {
  Verb verb;
  std::uint32_t count;
};

struct Reply {
  int status;             // first status of a call that was not 0
  std::uint32_t entered;  // hops
  std::uint32_t created;  // of these: with a new NH
  std::uint32_t renewed;  // of these: references that the client held before
  std::uint32_t gone;     // references given back at the end of a refresh, or by leaving
  encap_left_t left;      // kWithdraw
};

inline constexpr int kWorkerFd = 3;  // the worker's end of the socket

// Starts a fresh process of this program in the worker's role. It ends with its supervisor, whichever way that ends.
// Waiting for it here has no limit of its own: the guard above the supervisor sets one for the whole demo.
class Child {
 public:
  Child(const Plan &plan, std::uint32_t worker);
  ~Child();
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  pid_t pid() const { return pid_; }
  void command(Verb verb, std::uint32_t count = 0);
  Reply reply();  // throws std::runtime_error when the worker is gone
  Reply ask(Verb verb, std::uint32_t count = 0);
  bool has_replied() const;

  void stop();  // returns when it stands still
  void go_on() const;
  int kill();  // returns the status of waitpid(), as the next one does
  int wait_until_end();

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
};

// The worker's role: works until it is told to leave or the supervisor is gone. Returns: the exit status.
int run_worker(const Plan &plan, std::uint32_t worker);

}  // namespace demo

#endif
