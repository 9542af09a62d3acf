#include "process/robust_lock.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrellis {
namespace {

constexpr std::uint32_t kTidBits = 0x3fffffff;
constexpr std::uint32_t kOwnerDied = 0x40000000;
constexpr std::uint32_t kWaiters = 0x80000000;

// The C library's owner field of a mutex that was taken over from a dead thread and is not yet made consistent.
constexpr std::uint32_t kInconsistent = 0x7fffffff;

std::uint32_t word_of(const pthread_mutex_t &mutex) {
  auto &word = const_cast<int &>(mutex.__data.__lock);
  return static_cast<std::uint32_t>(std::atomic_ref(word).load(std::memory_order_acquire));
}

}  // namespace

RobustLock read_robust_lock(const pthread_mutex_t &mutex) {
  RobustLock lock{};
  const auto owner = static_cast<std::uint32_t>(mutex.__data.__owner);
  lock.kind = mutex.__data.__kind;
  lock.word = word_of(mutex);
  lock.owner_died = (lock.word & kOwnerDied) != 0;
  lock.held = (lock.word & kTidBits) != 0 || lock.owner_died;
  lock.waiters = (lock.word & kWaiters) != 0;
  lock.taken_over = lock.held && owner == kInconsistent;
  lock.depth = mutex.__data.__count;
  lock.owner = static_cast<pid_t>((lock.word & kTidBits) != 0 ? lock.word & kTidBits : owner & kTidBits);
  if ((lock.word & kTidBits) == 0 && lock.taken_over) {
    lock.owner = 0;
  }
  return lock;
}

Liveness liveness_of_owner(const RobustLock &lock, std::uint64_t address, std::uint64_t own) {
  const Liveness liveness = liveness_of_thread(lock.owner);
  if (liveness == Liveness::kAlive && own != 0 && maps_same_memory(lock.owner, address, own) == Mapped::kNo) {
    return Liveness::kDead;
  }
  return liveness;
}

bool is_lost(const pthread_mutex_t &mutex) {
  const RobustLock lock = read_robust_lock(mutex);
  const auto address = reinterpret_cast<std::uintptr_t>(&mutex);
  return lock.held && !lock.owner_died && liveness_of_owner(lock, address, address) == Liveness::kDead &&
         word_of(mutex) == lock.word;  // or the thread gave it back before it ended
}

}  // namespace vrellis
