// Plays the trials of survivors, and judges what they are answered and what the next repair makes of it.
#ifndef ENCAP_PROOF_CRASH_JUDGE_H
#define ENCAP_PROOF_CRASH_JUDGE_H

#include <atomic>
#include <unordered_set>

#include "trials.h"

namespace crash {

// What all survivors were answered. Lies in memory that their processes share.
struct Tally {
  std::atomic<std::uint64_t> answered[256];  // by row of the table of answers
  std::atomic<std::uint64_t> failures;

  void fail(const std::string &text);  // tells of the first ones
};

// All trials of one scenario, which interrupts an operation. Requires a window that is this process's own copy.
class Judge {
 public:
  Judge(const Window &window, const Expectation &expected, Tally &tally)
      : window_(window), expected_(expected), tally_(tally) {}

  // Whether the services' recovery makes of `image` what it has made of an earlier one.
  bool is_known(const Image &image);
  void play(const Image &image, std::size_t trial);

 private:
  Facts recover(const Image &image) const;
  void fail(const Survivor &survivor, const std::string &what) const;
  bool repairs(const Survivor &survivor) const;
  void compare_answers(const Survivor &survivor, std::size_t before_repair) const;

  const Window &window_;
  const Expectation &expected_;
  Tally &tally_;
  std::unordered_set<std::uint64_t> known_;
};

}  // namespace crash

#endif
