// The lock of every contestant: a robust, recursive, process-shared mutex, tried first and then waited for.
#ifndef ENCAP_BENCH_LOCK_H
#define ENCAP_BENCH_LOCK_H

#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace encap_bench {

inline void init_mutex(pthread_mutex_t *mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

class Guard {
 public:
  explicit Guard(pthread_mutex_t *mutex) : mutex_(mutex) {
    int status = pthread_mutex_trylock(mutex_);
    if (__builtin_expect(status == EBUSY, 0)) {
      status = pthread_mutex_lock(mutex_);
    }
    if (__builtin_expect(status != 0, 0)) {
      std::fprintf(stderr, "a contestant's lock failed: %d\n", status);
      std::abort();
    }
  }
  ~Guard() { pthread_mutex_unlock(mutex_); }
  Guard(const Guard &) = delete;
  Guard &operator=(const Guard &) = delete;

 private:
  pthread_mutex_t *mutex_;
};

}  // namespace encap_bench

#endif
