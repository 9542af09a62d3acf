// Waits for a mutex as they are told of in the process and from outside, alive and dead.
#include "ptd.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include "ltrace_fixture.h"

namespace vrellis {
namespace {

std::uint64_t monotonic_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

constexpr char kLongName[] = "a_function_whose_name_is_far_longer_than_the_room_that_an_entry_has";

using PtdTest = TraceTest;

TEST_F(PtdTest, AWaitIsToldOfWhileItLastsAndCountedAfterwards) {
  run([] {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ptd_wait_t wait[2];
    EXPECT_EQ(ptd_waits(wait, 2), 0);
    ptd_unset_mutex_block();  // without a wait: nothing
    EXPECT_EQ(ptd_waits(wait, 2), 0);
    const std::uint64_t before = monotonic_ns();
    ptd_set_mutex_block(&mutex, kLongName, 43);
    ASSERT_EQ(ptd_waits(wait, 2), 1);
    EXPECT_EQ(ptd_waits(nullptr, 0), 1);
    EXPECT_EQ(wait[0].mutex, reinterpret_cast<std::uintptr_t>(&mutex));
    EXPECT_EQ(wait[0].function, std::string(kLongName).substr(0, 47));
    EXPECT_EQ(wait[0].line, 43);
    EXPECT_EQ(wait[0].tid, gettid());
    EXPECT_GE(wait[0].since_ns, before);
    EXPECT_EQ(wait[0].waits, 0U);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ptd_unset_mutex_block();
    ptd_set_mutex_block(&mutex, "short", 44);
    ptd_unset_mutex_block();
    ASSERT_EQ(ptd_waits(wait, 2), 1);
    EXPECT_EQ(wait[0].mutex, 0U);
    EXPECT_EQ(wait[0].waits, 2U);
    EXPECT_STREQ(wait[0].function, "short");
    EXPECT_GE(wait[0].longest_ns, 2'000'000U);
    EXPECT_GE(wait[0].total_ns, wait[0].longest_ns);
  });
}

TEST_F(PtdTest, AWaiterThatDiedStillTellsWhoWaitedWhereAndSinceWhen) {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const std::uint64_t before = monotonic_ns();
  const pid_t pid = start(
      [] {
        pthread_mutex_lock(&mutex);
        std::thread([] {
          ptd_set_mutex_block(&mutex, "take_the_lock", 43);
          pthread_mutex_lock(&mutex);
        }).detach();
        ptd_wait_t wait;
        while (ptd_waits(&wait, 1) == 0) {
          std::this_thread::yield();
        }
      },
      true);
  for (const bool dead : {false, true}) {
    if (dead) {
      kill_hard(pid);
    }
    const auto file = open_one();
    const auto waits = file->waits();
    ASSERT_EQ(waits.size(), 1U);
    EXPECT_EQ(file->alive(), !dead);
    EXPECT_EQ(waits[0].mutex, reinterpret_cast<std::uintptr_t>(&mutex));
    EXPECT_STREQ(waits[0].function, "take_the_lock");
    EXPECT_EQ(waits[0].line, 43);
    EXPECT_NE(waits[0].tid, pid);
    EXPECT_GE(waits[0].since_ns, before);
    EXPECT_LE(waits[0].since_ns, monotonic_ns());
  }
}

TEST_F(PtdTest, ReadersSeeWholeEntriesOfABusyWaiter) {
  setenv("PTD_SPIN_NS", "0", 1);  // there are no mutexes at these addresses to be watched
  run([] {
    static constexpr const char *kNames[] = {"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", "bb"};
    std::atomic<bool> stop{false};
    std::thread waiter([&stop] {
      for (std::uint64_t i = 0; !stop; ++i) {
        ptd_set_mutex_block(reinterpret_cast<pthread_mutex_t *>(i % 2 + 1), kNames[i % 2], static_cast<int>(i % 2));
        if (i % 16 == 0) {
          std::this_thread::yield();
        }
        ptd_unset_mutex_block();
      }
    });
    int seen = 0;
    const std::uint64_t begin = monotonic_ns();
    const auto elapsed_ms = [begin] { return (monotonic_ns() - begin) / 1'000'000; };
    while (elapsed_ms() < 300 || (seen < 100 && elapsed_ms() < 10'000)) {
      ptd_wait_t wait;
      if (ptd_waits(&wait, 1) == 1 && wait.mutex != 0) {
        ++seen;
        EXPECT_EQ(wait.line, static_cast<int>(wait.mutex - 1));
        EXPECT_STREQ(wait.function, kNames[wait.line]);
      }
    }
    stop = true;
    waiter.join();
    EXPECT_GE(seen, 100);
  });
}

// The shortest of some waits that watch a mutex.
std::uint64_t watch_ns(pthread_mutex_t &mutex, int tries) {
  std::uint64_t shortest = ~0ULL;
  for (int i = 0; i < tries; ++i) {
    const std::uint64_t before = monotonic_ns();
    ptd_set_mutex_block(&mutex, "watcher", 1);
    ptd_unset_mutex_block();
    shortest = std::min(shortest, monotonic_ns() - before);
  }
  return shortest;
}

void expect_watch(bool restricted) {
  cpu_set_t allowed;
  sched_getaffinity(0, sizeof allowed, &allowed);
  const bool watches = CPU_COUNT(&allowed) > 1 && !restricted;
  if (restricted) {
    CPU_ZERO(&allowed);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &allowed);
    ASSERT_EQ(sched_setaffinity(0, sizeof allowed, &allowed), 0);
  }
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_LT(watch_ns(mutex, 20), 500'000U) << "free";
  pthread_mutex_lock(&mutex);
  if (watches) {
    EXPECT_GE(watch_ns(mutex, 1), 1'000'000U) << "held";
  } else {
    EXPECT_LT(watch_ns(mutex, 20), 500'000U) << "held by whom it would keep from going on";
  }
}

TEST_F(PtdTest, WatchingTheMutexEndsWithItsHoldOrItsBudget) {
  setenv("PTD_SPIN_NS", "100000000000", 1);  // cut to a millisecond
  run([] { expect_watch(false); });
  run([] { expect_watch(true); });
}

TEST_F(PtdTest, WatchingMayBeSwitchedOff) {
  setenv("PTD_SPIN_NS", "0", 1);
  run([] {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    EXPECT_LT(watch_ns(mutex, 20), 10'000U);
  });
}

}  // namespace
}  // namespace vrellis
