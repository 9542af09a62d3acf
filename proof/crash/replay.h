// Plays the next process for many states of a window: each in a copy, in child processes that cannot harm the driver.
#ifndef ENCAP_PROOF_CRASH_REPLAY_H
#define ENCAP_PROOF_CRASH_REPLAY_H

#include "aftermath.h"
#include "support/stepper.h"
#include "survivors/judge.h"

namespace crash {

struct Verdicts {
  std::string failure;        // of the first state that failed; "" when none did
  std::size_t failed_at = 0;  // its number
  States seconds;             // what a second death at each change of the recovery leaves; buried
};

// Requires that no thread holds the window's lock. With `watched`, collects the states of second deaths.
Verdicts play(const Window &window, const Expectation &expected, const std::vector<Image> &states, unsigned deaths,
              bool watched);

/*
 * Plays every trial of a survivor in each state; with `recovered_alike_once`, in the first of those states alone that
 * are the same bytes once the services have recovered. A trial that faults or hangs is a failure in `tally`.
 */
void play_survivors(const Window &window, const Expectation &expected, const std::vector<Image> &states,
                    bool recovered_alike_once, Tally &tally);

}  // namespace crash

#endif
