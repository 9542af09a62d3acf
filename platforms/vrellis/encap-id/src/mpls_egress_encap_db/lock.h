// The database lock: one robust, process-shared, recursive mutex in the header, at egress_encap_db + 48.
//
// The lock serialises all threads of all processes that use the database. The library has no other lock, so no order
// of locks has to be kept. Clang checks the use of the lock (-Wthread-safety): `database_lock` stands for the mutex,
// the lock call acquires it when its result is 0, and each function that reads or changes trees or slots requires it.
#ifndef MPLS_EGRESS_ENCAP_DB_LOCK_H
#define MPLS_EGRESS_ENCAP_DB_LOCK_H

#include <pthread.h>

#include "../diag/points.h"
#include "../mpls_egress_encap_db.h"

#if defined(__clang__)
#define ENCAP_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define ENCAP_THREAD_SAFETY(attribute)
#endif

namespace encap {

class ENCAP_THREAD_SAFETY(capability("mutex")) DatabaseLock {};
extern DatabaseLock database_lock;  // a token for the compiler; never defined

#define REQUIRES_DATABASE_LOCK ENCAP_THREAD_SAFETY(requires_capability(::encap::database_lock))
#define ACQUIRES_DATABASE_LOCK_WHEN_0 ENCAP_THREAD_SAFETY(try_acquire_capability(0, ::encap::database_lock))
#define RELEASES_DATABASE_LOCK ENCAP_THREAD_SAFETY(release_capability(::encap::database_lock))
#define TAKES_NO_DATABASE_LOCK ENCAP_THREAD_SAFETY(no_thread_safety_analysis)

}  // namespace encap

extern "C" int vrl_egress_encap_db_lock(pthread_mutex_t *mutex) ACQUIRES_DATABASE_LOCK_WHEN_0;

namespace encap {

inline pthread_mutex_t *database_mutex() {
  return &egress_encap_db->lock.mutex;
}

// Takes the database lock. Returns: 0 with the lock held; the lock's code without it, reported by the point `Failed`.
template <Point Failed>
inline int take_lock() ACQUIRES_DATABASE_LOCK_WHEN_0 {
  const int locked = vrl_egress_encap_db_lock(database_mutex());
  if (locked != 0) {
    emit<Failed>(locked);
  }
  return locked;
}

// Gives the database lock back. Returns the status of the unlock. That status is part of the result of some operations,
// so there is no scoped guard. The compiler does not check the body, since this is where the capability ends.
TAKES_NO_DATABASE_LOCK
inline int release_lock() RELEASES_DATABASE_LOCK {
  return pthread_mutex_unlock(database_mutex());
}

// As release_lock(); the point `Failed` reports an unlock that fails.
template <Point Failed>
inline int release_lock() RELEASES_DATABASE_LOCK {
  const int unlocked = release_lock();
  if (unlocked != 0) {
    emit<Failed>(unlocked);
  }
  return unlocked;
}

}  // namespace encap

#endif
