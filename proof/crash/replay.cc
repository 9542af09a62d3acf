#include "replay.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "support/driver.h"

namespace crash {
namespace {

constexpr std::size_t kBatch = 128;                                // states a child process plays
constexpr unsigned kSecondsOfABatch = 240, kSecondsOfATrial = 60;  // then it hangs

// What a child tells the driver; it survives the child.
struct Report {
  std::size_t playing;  // state under way
  std::size_t done;
  pid_t tid;
  char failure[16384];
  ChangeLog log[kBatch];
};

Report &report() {
  static auto &shared = shared_record<Report>();
  return shared;
}

struct Batch {
  const Window &window;
  const Expectation &expected;
  const std::vector<Image> &states;
  unsigned deaths;
  bool watched;
  std::size_t begin, end;
};

void play_in_child(const Batch &batch) {
  batch.window.become_copy();
  Report &shared = report();
  shared.tid = getpid();
  for (std::size_t i = batch.begin; i < batch.end; ++i) {
    shared.playing = i;
    batch.window.put(batch.states[i]);
    const std::string wrong =
        aftermath(batch.window, batch.expected, batch.deaths, batch.watched ? &shared.log[i - batch.begin] : nullptr);
    if (!wrong.empty()) {
      std::snprintf(shared.failure, sizeof shared.failure, "%s", wrong.c_str());
      return;
    }
    ++shared.done;
  }
}

void play_batch(const Batch &batch, Verdicts &verdicts) {
  Report &shared = report();
  shared.done = 0;
  shared.failure[0] = '\0';
  verdicts.failure = run_in_child(kSecondsOfABatch, [&batch] {
    play_in_child(batch);
    return true;
  });
  const bool overflow =
      std::any_of(std::begin(shared.log), std::end(shared.log), [](auto &log) { return log.overflow; });
  verdicts.failure += overflow ? "a recovery has more changes than can be logged" : shared.failure;
  verdicts.failed_at = shared.playing;
  for (std::size_t i = 0; batch.watched && i < shared.done; ++i) {
    verdicts.seconds.add_deaths(batch.window, batch.states[batch.begin + i], shared.log[i], shared.tid);
  }
}

}  // namespace

Verdicts play(const Window &window, const Expectation &expected, const std::vector<Image> &states, unsigned deaths,
              bool watched) {
  Verdicts verdicts;
  for (std::size_t begin = 0; begin < states.size() && verdicts.failure.empty(); begin += kBatch) {
    const std::size_t end = std::min(begin + kBatch, states.size());
    play_batch({window, expected, states, deaths, watched, begin, end}, verdicts);
  }
  return verdicts;
}

void play_survivors(const Window &window, const Expectation &expected, const std::vector<Image> &states,
                    bool recovered_alike_once, Tally &tally) {
  const std::size_t each = trials().size(), all = states.size() * each;
  std::size_t &playing = report().playing;
  const auto survive = [&](std::size_t begin) {
    window.become_copy();
    Judge judge(window, expected, tally);
    for (std::size_t i = begin; i < all; ++i) {
      alarm(kSecondsOfATrial);
      playing = i;
      if (recovered_alike_once && i % each == 0 && judge.is_known(states[i / each])) {
        i += each - 1;
      } else {
        judge.play(states[i / each], i % each);
      }
    }
    return true;
  };
  for (std::size_t begin = 0; begin < all; begin = playing + 1) {
    const std::string ended = run_in_child(kSecondsOfATrial, [&] { return survive(begin); });
    if (ended.empty()) {
      return;
    }
    tally.fail("a survivor's trial " + std::to_string(playing % each) + ": " + ended);
  }
}

}  // namespace crash
