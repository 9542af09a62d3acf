// Lower bounds. `MutexPair` is the lock alone. `Bound` is the lock and two searches in plain AVL trees: children
// followed one compare at a time through a callback that calls memcmp, no points, no records; nodes of the database's
// sizes, one after the other in the order in which they were entered, in shared memory.
#ifndef ENCAP_BENCH_BOUND_H
#define ENCAP_BENCH_BOUND_H

#include "contestants/contestant.h"
#include "contestants/lock.h"

namespace encap_bench {

// Memory of the same kind as a window's, given back at the end.
class SharedMemory {
 public:
  explicit SharedMemory(std::size_t bytes);
  ~SharedMemory();
  SharedMemory(const SharedMemory &) = delete;
  SharedMemory &operator=(const SharedMemory &) = delete;

  void *take(std::size_t bytes);

 private:
  char *begin_;
  std::size_t bytes_;
  std::size_t taken_ = 0;
};

class MutexPair {
 public:
  static constexpr const char *kName = "mutex pair";

  MutexPair();
  bool lock_and_unlock() {
    const Guard guard(mutex_);
    return true;
  }

 private:
  SharedMemory memory_;
  pthread_mutex_t *mutex_;
};

class Bound {
 public:
  static constexpr const char *kName = "bound";

  Bound(const Place &place, const Workload &workload, Role role);

  Found find(const Key &key);
  bool insert(const Encap &encap, bool with_tunnel);

 private:
  SharedMemory memory_;
  pthread_mutex_t *mutex_;
  void *tunnels_ = nullptr;
};

}  // namespace encap_bench

#endif
