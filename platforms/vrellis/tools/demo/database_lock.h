// The database lock, held for a scope. Recursive: the operations take it again inside.
#ifndef ENCAP_DEMO_DATABASE_LOCK_H
#define ENCAP_DEMO_DATABASE_LOCK_H

#include <stdexcept>

#include "mpls_egress_encap_db.h"

namespace demo {

class DatabaseLock {
 public:
  DatabaseLock() {
    if (vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex) != 0) {
      throw std::runtime_error("the database lock cannot be taken");
    }
  }
  ~DatabaseLock() { pthread_mutex_unlock(&egress_encap_db->lock.mutex); }
  DatabaseLock(const DatabaseLock &) = delete;
  DatabaseLock &operator=(const DatabaseLock &) = delete;
};

}  // namespace demo

#endif
