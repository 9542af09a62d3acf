// A worker process as its supervisor sees it.
#ifndef ENCAP_DEMO_CHILD_H
#define ENCAP_DEMO_CHILD_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "messages.h"

namespace demo {

// Starts a fresh process of this program in the worker's role. It ends with its supervisor, whichever way that ends.
// Waiting for it here has no limit of its own: the guard above the supervisor sets one for the whole demo.
class Child {
 public:
  Child(std::uint32_t worker, const std::string &route_file, const std::string &directory);
  ~Child();
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  pid_t pid() const { return pid_; }

  void command(Verb verb, std::uint32_t count = 0);
  void recover(const std::vector<Reference> &others);

  // Throw std::runtime_error when the worker is gone.
  Reply reply();
  Reply reply(std::vector<Reference> &references);
  Reply ask(Verb verb, std::uint32_t count = 0);

  bool has_replied() const;

  void kill() const;
  int wait();  // Returns: the status of waitpid().

 private:
  pid_t pid_ = -1;
  int commands_ = -1;
  int replies_ = -1;
  char letter_;
};

}  // namespace demo

#endif
