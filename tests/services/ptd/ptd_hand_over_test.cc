// Waits for a mutex whose hand-over is lost: the kernel woke a process that was killed before it could take the mutex.
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "child.h"
#include "process/process.h"
#include "ptd.h"

namespace vrellis {
namespace {

using namespace std::chrono_literals;
using test_support::end_of;
using test_support::Signal;
using test_support::spawn;

// Mutexes that processes share are made and taken as the database does it.
void make_mutex(pthread_mutex_t *mutex, int type = PTHREAD_MUTEX_RECURSIVE, int robustness = PTHREAD_MUTEX_ROBUST) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_settype(&attributes, type);
  pthread_mutexattr_setrobust(&attributes, robustness);
  EXPECT_EQ(pthread_mutex_init(mutex, &attributes), 0);
  pthread_mutexattr_destroy(&attributes);
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

struct Shared {
  pthread_mutex_t mutex;
  std::atomic<pid_t> first;
  std::atomic<bool> overtook;
  std::atomic<bool> taken;
};

void stay_on(int processor) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<unsigned>(processor), &one);
  EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
}

// Waits until the process sleeps.
void await_sleep(pid_t process) {
  for (int quiet = 0; quiet < 5;) {
    ProcessStat stat{};
    quiet = read_process_stat(process, &stat) && stat.state == 'S' ? quiet + 1 : 0;
    std::this_thread::sleep_for(1ms);
  }
}

class HandOver : public testing::Test {
 protected:
  void SetUp() override {
    setenv("LTRACE", "off", 1);
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    shared_ = new (memory) Shared{};
  }
  void TearDown() override {
    unsetenv("LTRACE");
    unsetenv("PTD_SPIN_NS");
    munmap(shared_, sizeof(Shared));
  }

  void wake_one_and_kill_it(bool holder_dies);

  Shared *shared_ = nullptr;
};

// The holder unlocks, so that the kernel wakes the first waiter, locks again at once, and kills that waiter before it
// runs: they share a processor, where the waiter runs only when no other process does. The mutex then shows no sign of
// the second waiter. Afterwards the holder unlocks, or dies as well.
void HandOver::wake_one_and_kill_it(bool holder_dies) {
  shared_->overtook = shared_->taken = false;
  make_mutex(&shared_->mutex);
  const int processor = sched_getcpu();
  Signal held;
  Signal go;
  Signal gone;
  const pid_t holder = spawn([&] {
    stay_on(processor);
    take(&shared_->mutex);
    held.give();
    go.await();
    pthread_mutex_unlock(&shared_->mutex);
    shared_->overtook = pthread_mutex_trylock(&shared_->mutex) == 0;
    kill(shared_->first, SIGKILL);
    gone.await();
    if (holder_dies) {
      kill(getpid(), SIGKILL);
    }
    return shared_->overtook ? pthread_mutex_unlock(&shared_->mutex) : 0;
  });
  held.await();
  shared_->first = spawn([&] {
    stay_on(processor);
    const sched_param none{};
    EXPECT_EQ(sched_setscheduler(0, SCHED_IDLE, &none), 0);
    take(&shared_->mutex);
    return pause();
  });
  await_sleep(shared_->first);
  const pid_t second = spawn([&] {
    shared_->taken = take(&shared_->mutex) == 0;
    return pthread_mutex_unlock(&shared_->mutex);
  });
  await_sleep(second);
  go.give();
  EXPECT_EQ(end_of(shared_->first), -SIGKILL);
  gone.give();
  EXPECT_EQ(end_of(holder), holder_dies ? -SIGKILL : 0);
  for (int wait = 0; wait < 500 && !shared_->taken; ++wait) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(shared_->taken) << "the second waiter sleeps beside a free mutex";
  if (!shared_->taken) {
    kill(second, SIGKILL);
  }
  EXPECT_EQ(end_of(second), 0);
  EXPECT_EQ(take(&shared_->mutex), 0);
}

TEST_F(HandOver, AWaiterIsNotLeftAsleepWhenTheOneThatWasWokenDies) {
  for (const bool holder_dies : {false, true}) {
    SCOPED_TRACE(holder_dies ? "the holder that overtook dies, too" : "the holder that overtook unlocks");
    int rounds = 0;  // on a busy machine the first waiter can be faster than the holder
    do {
      wake_one_and_kill_it(holder_dies);
    } while (!shared_->overtook && ++rounds < 50 && !HasFailure());
    EXPECT_TRUE(shared_->overtook);
  }
}

// The service may take the mutex for the thread, but what the thread holds afterwards is decided by its own lock call.
TEST_F(HandOver, AfterTheWaitAThreadHoldsWhatItsOwnLockCallTook) {
  pthread_mutex_t *const mutex = &shared_->mutex;
  const auto elsewhere = [](const std::function<void()> &work) { std::thread(work).join(); };
  const auto expect_free = [&] {
    elsewhere([&] {
      EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
      EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    });
  };
  for (const int type : {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_RECURSIVE}) {
    for (const int robustness : {PTHREAD_MUTEX_STALLED, PTHREAD_MUTEX_ROBUST}) {
      SCOPED_TRACE("type " + std::to_string(type) + ", robustness " + std::to_string(robustness));
      make_mutex(mutex, type, robustness);
      EXPECT_EQ(wait_for(mutex), 0);
      elsewhere([&] { EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY); });
      EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
      expect_free();
      ptd_set_mutex_block(mutex, "test", 1);  // the thread's own lock call failed
      ptd_unset_mutex_block();
      expect_free();
    }
  }
  const auto let_a_holder_die = [&] { end_of(spawn([&] { return pthread_mutex_lock(mutex); })); };
  let_a_holder_die();
  EXPECT_EQ(wait_for(mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  expect_free();
  let_a_holder_die();
  EXPECT_EQ(pthread_mutex_trylock(mutex), EOWNERDEAD);
  EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  EXPECT_EQ(wait_for(mutex), ENOTRECOVERABLE);
}

}  // namespace
}  // namespace vrellis
