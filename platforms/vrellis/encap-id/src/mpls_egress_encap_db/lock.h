// The database lock: one robust, process-shared, recursive mutex in the header, at egress_encap_db + 48.
//
// It serialises every thread of every process that uses the database; being the only lock, it has no order to respect.
// The compiler checks it (clang, -Wthread-safety): `database_lock` stands for the mutex, is acquired when the lock
// call's result is 0, and is required by whatever touches trees and slots.
#ifndef MPLS_EGRESS_ENCAP_DB_LOCK_H
#define MPLS_EGRESS_ENCAP_DB_LOCK_H

#include <pthread.h>

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

// Returns the unlock's status, which is part of some operations' results: hence no scoped guard.
// Unchecked inside, like the lock call: this is where the capability goes.
TAKES_NO_DATABASE_LOCK
inline int vrl_egress_encap_db_unlock(pthread_mutex_t *mutex) RELEASES_DATABASE_LOCK {
  return pthread_mutex_unlock(mutex);
}

inline pthread_mutex_t *database_mutex() {
  return &egress_encap_db->lock.mutex;
}

}  // namespace encap

#endif
