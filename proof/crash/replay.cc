#include "replay.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace crash {
namespace {

constexpr std::size_t kBatch = 128;                                // states a child process plays
constexpr unsigned kSecondsOfABatch = 240, kSecondsOfATrial = 60;  // then it hangs

// What a child tells the driver; it survives the child.
struct Report {
  std::size_t playing;  // state under way
  std::size_t done;
  pid_t tid;
  Kinds kinds;
  char failure[16384];
  ChangeLog log[kBatch];
};

Report &report() {
  static auto *const shared = static_cast<Report *>(
      mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  return *shared;
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
  alarm(kSecondsOfABatch);
  batch.window.become_copy();
  Report &shared = report();
  shared.tid = getpid();
  for (std::size_t i = batch.begin; i < batch.end; ++i) {
    shared.playing = i;
    batch.window.put(batch.states[i]);
    const std::string wrong = aftermath(batch.window, batch.expected, batch.deaths, shared.kinds,
                                        batch.watched ? &shared.log[i - batch.begin] : nullptr);
    if (!wrong.empty()) {
      std::snprintf(shared.failure, sizeof shared.failure, "%s", wrong.c_str());
      return;
    }
    ++shared.done;
  }
}

// The states that a second death leaves, from the changes of a recovery.
void add_seconds(const Batch &batch, std::size_t number, std::vector<Image> &seconds) {
  const Report &shared = report();
  const ChangeLog &log = shared.log[number - batch.begin];
  Image image = batch.states[number];
  for (std::uint32_t i = 0; i < log.count; ++i) {
    std::memcpy(image.data() + log.change[i].offset, &log.change[i].value, 8);
    if (i + 1 == log.count || log.change[i + 1].instruction != log.change[i].instruction) {
      Image left = image;
      batch.window.bury(left, shared.tid);
      seconds.push_back(std::move(left));
    }
  }
}

// Without the handlers of fork(): the child does not enter itself into the window's table of processes.
int wait_for_child(const std::function<void()> &work) {
  const pid_t child = _Fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

std::string failure_of(int status) {
  const Report &shared = report();
  if (WIFSIGNALED(status)) {
    return WTERMSIG(status) == SIGALRM ? "the next process hangs\n"
                                       : "the next process dies of signal " + std::to_string(WTERMSIG(status)) + '\n';
  }
  const bool overflow =
      std::any_of(std::begin(shared.log), std::end(shared.log), [](auto &log) { return log.overflow; });
  return overflow ? "a recovery has more changes than can be logged\n" : shared.failure;
}

void play_batch(const Batch &batch, Verdicts &verdicts, Kinds &kinds) {
  Report &shared = report();
  shared.done = 0;
  shared.kinds = {};
  shared.failure[0] = '\0';
  const int status = wait_for_child([&batch] { play_in_child(batch); });
  for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
    kinds[kind] += shared.kinds[kind];
  }
  verdicts.failure = failure_of(status);
  verdicts.failed_at = shared.playing;
  for (std::size_t i = 0; batch.watched && i < shared.done; ++i) {
    add_seconds(batch, batch.begin + i, verdicts.seconds);
  }
}

}  // namespace

Verdicts play(const Window &window, const Expectation &expected, const std::vector<Image> &states, unsigned deaths,
              bool watched, Kinds &kinds) {
  Verdicts verdicts;
  for (std::size_t begin = 0; begin < states.size() && verdicts.failure.empty(); begin += kBatch) {
    const std::size_t end = std::min(begin + kBatch, states.size());
    play_batch({window, expected, states, deaths, watched, begin, end}, verdicts, kinds);
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
  };
  for (std::size_t begin = 0; begin < all; begin = playing + 1) {
    const int status = wait_for_child([&] { survive(begin); });
    if (status == 0) {
      return;
    }
    tally.add("a survivor's trial " + std::to_string(playing % each) + ": " + failure_of(status), false);
  }
}

}  // namespace crash
