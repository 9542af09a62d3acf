// A mutex that processes share, taken as the database takes its lock.
#ifndef TESTS_SERVICES_SHARED_MUTEX_H
#define TESTS_SERVICES_SHARED_MUTEX_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>

#include "ptd.h"

namespace test_support {

inline void make_mutex(pthread_mutex_t *mutex, int type = PTHREAD_MUTEX_RECURSIVE,
                       int robustness = PTHREAD_MUTEX_ROBUST) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_settype(&attributes, type);
  pthread_mutexattr_setrobust(&attributes, robustness);
  EXPECT_EQ(pthread_mutex_init(mutex, &attributes), 0);
  pthread_mutexattr_destroy(&attributes);
}

// Waits for a mutex that is busy.
inline int wait_for(pthread_mutex_t *mutex) {
  ptd_set_mutex_block(mutex, "wait_for", 1);
  const int status = pthread_mutex_lock(mutex);
  ptd_unset_mutex_block();
  return status;
}

inline int take(pthread_mutex_t *mutex) {
  int status = pthread_mutex_trylock(mutex);
  if (status == EBUSY) {
    status = wait_for(mutex);
  }
  return status == EOWNERDEAD ? pthread_mutex_consistent(mutex) : status;
}

}  // namespace test_support

#endif
