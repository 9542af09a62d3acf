// The entries of waiting threads, as their own process and other processes read them; watching a mutex; the setting.
#include "ptd.h"

#include <sched.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <thread>

#include "ltrace/ltrace_fixture.h"

namespace vrellis {
namespace {

std::uint64_t monotonic_ns() {  // the clock of the service
  return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1));
}

using PtdTest = TraceTest;

TEST_F(PtdTest, AWaitIsToldOfWhileItLastsAndCountedAfterwards) {
  expect_in_child([] {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const std::string long_name = "a_function_whose_name_is_far_longer_than_the_room_that_an_entry_has";
    ptd_wait_t wait[2];
    EXPECT_EQ(ptd_waits(wait, 2), 0);
    ptd_unset_mutex_block();  // no wait has begun
    EXPECT_EQ(ptd_waits(wait, 2), 0);
    const std::uint64_t before = monotonic_ns();
    ptd_set_mutex_block(&mutex, long_name.c_str(), 43);
    ASSERT_EQ(ptd_waits(wait, 2), 1);
    EXPECT_EQ(ptd_waits(nullptr, 0), 1);
    EXPECT_EQ(wait[0].mutex, reinterpret_cast<std::uintptr_t>(&mutex));
    EXPECT_EQ(wait[0].function, long_name.substr(0, 47));
    EXPECT_EQ((std::array{wait[0].line, wait[0].tid}), (std::array{43, gettid()}));
    EXPECT_GE(wait[0].since_ns, before);
    EXPECT_EQ(wait[0].waits, 0U);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ptd_unset_mutex_block();
    ptd_set_mutex_block(&mutex, "short", 44);
    ptd_unset_mutex_block();
    ASSERT_EQ(ptd_waits(wait, 2), 1);
    EXPECT_EQ((std::array{wait[0].mutex, wait[0].waits}), (std::array<std::uint64_t, 2>{0, 2}));
    EXPECT_STREQ(wait[0].function, "short");
    EXPECT_GE(wait[0].longest_ns, 2'000'000U);
    EXPECT_GE(wait[0].total_ns, wait[0].longest_ns);
  });
}

TEST_F(PtdTest, AWaiterThatDiedStillTellsWhoWaitedWhereAndSinceWhen) {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const std::uint64_t before = monotonic_ns();
  const pid_t pid = spawn_waiting([] {
    pthread_mutex_lock(&mutex);
    std::thread([] {
      ptd_set_mutex_block(&mutex, "take_the_lock", 43);
      pthread_mutex_lock(&mutex);
    }).detach();
    while (ptd_waits(nullptr, 0) == 0) {
      std::this_thread::yield();
    }
  });
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
  expect_in_child([] {
    static pthread_mutex_t mutexes[] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};
    static constexpr const char *kNames[] = {"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", "bb"};
    const std::jthread waiter([](const std::stop_token &stop) {
      for (std::uint64_t i = 0; !stop.stop_requested(); ++i) {
        ptd_set_mutex_block(&mutexes[i % 2], kNames[i % 2], static_cast<int>(i % 2));
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
        EXPECT_EQ(wait.mutex, reinterpret_cast<std::uintptr_t>(&mutexes[wait.line]));
        EXPECT_STREQ(wait.function, kNames[wait.line]);
      }
    }
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

TEST_F(PtdTest, WatchingTheMutexEndsWithItsHoldOrItsBudget) {
  const struct {
    const char *budget_ns;
    bool one_processor;             // the waiter shares it with the holder, which it would keep from going on
    std::uint64_t unwatched_below;  // the longest time of a wait that does not watch
  } cases[] = {{"1000000", false, 500'000}, {"1000000", true, 500'000}, {"0", false, 10'000}};
  for (const auto &each : cases) {
    setenv("PTD_SPIN_NS", each.budget_ns, 1);
    expect_in_child([&each] {
      cpu_set_t allowed;
      sched_getaffinity(0, sizeof allowed, &allowed);
      const bool watches = CPU_COUNT(&allowed) > 1 && !each.one_processor && *each.budget_ns != '0';
      if (each.one_processor) {
        CPU_ZERO(&allowed);
        CPU_SET(static_cast<unsigned>(sched_getcpu()), &allowed);
        ASSERT_EQ(sched_setaffinity(0, sizeof allowed, &allowed), 0);
      }
      pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
      EXPECT_LT(watch_ns(mutex, 20), each.unwatched_below) << "free";
      pthread_mutex_lock(&mutex);
      const std::uint64_t held_ns = watch_ns(mutex, watches ? 1 : 20);
      EXPECT_TRUE(watches ? held_ns >= 1'000'000 : held_ns < each.unwatched_below) << held_ns;
    });
  }
}

TEST_F(PtdTest, ABadSettingIsReportedOnceAndCountsAsTheDefault) {
  for (const char *text : {"", "fast", "-1", "+5", " 5", "5ns", "1000001", "99999999999999999999", "5", "0"}) {
    setenv("PTD_SPIN_NS", text, 1);
    expect_in_child([text] {
      pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
      testing::internal::CaptureStderr();
      watch_ns(mutex, 2);
      const std::string told = testing::internal::GetCapturedStderr();
      const bool good = std::string_view(text).size() == 1;
      EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), good ? 0 : 1);
      EXPECT_EQ(told.ends_with(" PTD_SPIN_NS is not a number from 0 to 1000000 and counts as 100000: '" +
                               std::string(text) + "'\n"),
                !good)
          << told;
    });
  }
}

}  // namespace
}  // namespace vrellis
