// Waits for a mutex: what other processes read of them, watching the mutex, the setting, and a hand-over that is lost
// because the kernel woke a process that was killed before it could take the mutex.
#include "ptd.h"

#include <sched.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <thread>

#include "ltrace/ltrace_fixture.h"
#include "process/process.h"

namespace vrellis {
namespace {

using namespace std::chrono_literals;

std::uint64_t monotonic_ns() {  // the clock of the service
  return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1));
}

using PtdTest = TraceTest;

TEST_F(PtdTest, AWaitIsToldOfWhileItLastsAndCountedAfterwardsAlsoByTheDead) {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  static const std::string name = "a_function_whose_name_is_far_longer_than_the_room_that_an_entry_has";
  const std::uint64_t before = monotonic_ns();
  const pid_t pid = spawn_waiting([] {
    ptd_unset_mutex_block();  // no wait has begun
    for (const int line : {41, 42}) {
      ptd_set_mutex_block(&mutex, "ended", line);
      std::this_thread::sleep_for(2ms);
      ptd_unset_mutex_block();
    }
    std::thread([] {
      ptd_set_mutex_block(&mutex, name.c_str(), 43);
      pause();
    }).detach();
    while (ptd_waits(nullptr, 0) < 2) {
      std::this_thread::yield();
    }
  });
  for (const bool dead : {false, true}) {
    if (dead) {
      kill_hard(pid);
    }
    const auto file = open_one();
    EXPECT_EQ(file->alive(), !dead);
    const auto waits = file->waits();
    ASSERT_EQ(waits.size(), 2U);
    const auto &[ended, lasting] = std::tie(waits[0], waits[1]);
    EXPECT_EQ(std::tuple(ended.tid, ended.line, ended.mutex, ended.waits), std::tuple(pid, 42, 0U, 2U));
    EXPECT_STREQ(ended.function, "ended");
    EXPECT_GE(ended.longest_ns, 2'000'000U);
    EXPECT_GE(ended.total_ns, ended.longest_ns + 2'000'000U);
    EXPECT_EQ(std::tuple(lasting.line, lasting.mutex, lasting.waits),
              std::tuple(43, reinterpret_cast<std::uintptr_t>(&mutex), 0U));
    EXPECT_EQ(lasting.function, name.substr(0, 47));
    EXPECT_NE(lasting.tid, pid);
    EXPECT_TRUE(before <= lasting.since_ns && lasting.since_ns <= monotonic_ns());
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
    for (const std::uint64_t end = monotonic_ns() + 300'000'000; monotonic_ns() < end || seen < 100;) {
      ptd_wait_t wait;
      if (ptd_waits(&wait, 1) == 1 && wait.mutex != 0) {
        ++seen;
        EXPECT_EQ(wait.mutex, reinterpret_cast<std::uintptr_t>(&mutexes[wait.line]));
        EXPECT_STREQ(wait.function, kNames[wait.line]);
      }
    }
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

void stay_on(int processor) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<unsigned>(processor), &one);
  EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
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
      if (each.one_processor) {
        stay_on(sched_getcpu());
      }
      cpu_set_t allowed;
      sched_getaffinity(0, sizeof allowed, &allowed);
      const bool watches = CPU_COUNT(&allowed) > 1 && *each.budget_ns != '0';
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
      const std::string sentence = " PTD_SPIN_NS is not a number from 0 to 1000000 and counts as 100000: '";
      const bool good = std::string_view(text).size() == 1;
      EXPECT_EQ(told.substr(good ? 0 : told.find(sentence)), good ? "" : sentence + text + "'\n") << told;
    });
  }
}

// Waits for a mutex that is busy.
int wait_for(pthread_mutex_t *mutex) {
  ptd_set_mutex_block(mutex, "wait_for", 1);
  const int status = pthread_mutex_lock(mutex);
  ptd_unset_mutex_block();
  return status;
}

int take(pthread_mutex_t *mutex) {
  int status = pthread_mutex_trylock(mutex);
  if (status == EBUSY) {
    status = wait_for(mutex);
  }
  return status == EOWNERDEAD ? pthread_mutex_consistent(mutex) : status;
}

// Waits until the process sleeps.
void await_sleep(pid_t process) {
  for (int quiet = 0; quiet < 5;) {
    ProcessStat stat{};
    quiet = read_process_stat(process, &stat) && stat.state == 'S' ? quiet + 1 : 0;
    std::this_thread::sleep_for(1ms);
  }
}

// What the processes of a test share.
struct Shared {
  pthread_mutex_t mutex;
  std::atomic<pid_t> first;
  std::atomic<bool> overtook;
};
Shared &shared =
    *static_cast<Shared *>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

// The holder unlocks, so that the kernel wakes the first waiter, locks again at once, and kills that waiter before it
// runs: they share a processor, where the waiter runs only when no other process does. The mutex then shows no sign of
// the second waiter. Afterwards the holder unlocks, or dies as well.
void wake_one_and_kill_it(bool holder_dies) {
  shared.overtook = false;
  make_mutex(&shared.mutex);
  const int processor = sched_getcpu();
  Signal go;
  Signal gone;
  const pid_t holder = spawn([&] {
    stay_on(processor);
    take(&shared.mutex);
    go.await();
    pthread_mutex_unlock(&shared.mutex);
    shared.overtook = pthread_mutex_trylock(&shared.mutex) == 0;
    kill(shared.first, SIGKILL);
    gone.await();
    if (holder_dies) {
      kill(getpid(), SIGKILL);
    }
    return shared.overtook ? pthread_mutex_unlock(&shared.mutex) : 0;
  });
  await_sleep(holder);
  shared.first = spawn([&] {
    stay_on(processor);
    const sched_param none{};
    EXPECT_EQ(sched_setscheduler(0, SCHED_IDLE, &none), 0);
    take(&shared.mutex);
    return pause();
  });
  await_sleep(shared.first);
  const pid_t second = spawn([&] {
    alarm(10);
    const int status = take(&shared.mutex);
    return status != 0 ? status : pthread_mutex_unlock(&shared.mutex);
  });
  await_sleep(second);
  go.give();
  EXPECT_EQ(end_of(shared.first), -SIGKILL);
  gone.give();
  EXPECT_EQ(end_of(holder), holder_dies ? -SIGKILL : 0);
  EXPECT_EQ(end_of(second), 0) << "the second waiter sleeps beside a free mutex";
  EXPECT_EQ(take(&shared.mutex) + pthread_mutex_unlock(&shared.mutex), 0);
}

TEST_F(PtdTest, AWaiterIsNotLeftAsleepWhenTheOneThatWasWokenDies) {
  for (const bool holder_dies : {false, true}) {
    SCOPED_TRACE(holder_dies ? "the holder that overtook dies, too" : "the holder that overtook unlocks");
    int rounds = 0;  // on a busy machine the first waiter can be faster than the holder
    do {
      wake_one_and_kill_it(holder_dies);
    } while (!shared.overtook && ++rounds < 50 && !HasFailure());
    EXPECT_TRUE(shared.overtook);
  }
}

// The service may take the mutex for the thread, but what the thread holds afterwards is decided by its own lock call.
TEST_F(PtdTest, AfterTheWaitAThreadHoldsWhatItsOwnLockCallTook) {
  pthread_mutex_t *const mutex = &shared.mutex;
  const auto expect_elsewhere = [mutex](int status) {  // in another thread, which tries to lock
    std::thread([=] {
      EXPECT_EQ(pthread_mutex_trylock(mutex), status);
      EXPECT_TRUE(status != 0 || pthread_mutex_unlock(mutex) == 0);
    }).join();
  };
  for (const int type : {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_RECURSIVE}) {
    for (const int robustness : {PTHREAD_MUTEX_STALLED, PTHREAD_MUTEX_ROBUST}) {
      SCOPED_TRACE("type " + std::to_string(type) + ", robustness " + std::to_string(robustness));
      make_mutex(mutex, type, robustness);
      EXPECT_EQ(wait_for(mutex), 0);
      expect_elsewhere(EBUSY);
      EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
      expect_elsewhere(0);
      ptd_set_mutex_block(mutex, "test", 1);  // the thread's own lock call failed
      ptd_unset_mutex_block();
      expect_elsewhere(0);
    }
  }
  EXPECT_EQ(in_child([&] { return pthread_mutex_lock(mutex); }), 0);
  EXPECT_EQ(pthread_mutex_trylock(mutex), EOWNERDEAD);
  EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  EXPECT_EQ(wait_for(mutex), ENOTRECOVERABLE);
}

}  // namespace
}  // namespace vrellis
