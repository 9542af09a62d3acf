// One open client, and the window that it works in.
#ifndef VRELLIS_CLIENT_SESSION_H
#define VRELLIS_CLIENT_SESSION_H

#include "avl/avl_change.h"
#include "records/layout.h"

namespace clients {

// The root of the tunnel tree while the tree has one version, so that a look leaves the cache line alone in which the
// lock and the root's field lie. Any thread may read and write it.
class KnownRoot {
 public:
  // Returns: 0 when it is not known.
  std::uint64_t at(std::uint64_t version) const {
    if (__atomic_load_n(&version_, __ATOMIC_ACQUIRE) != version) {
      return 0;
    }
    const std::uint64_t root = __atomic_load_n(&root_, __ATOMIC_ACQUIRE);
    return __atomic_load_n(&version_, __ATOMIC_RELAXED) == version ? root : 0;
  }

  // Requires an even version. The version of an empty tree stays as it is when the first node comes.
  void remember(std::uint64_t version, std::uint64_t root) {
    if (root != 0 && __atomic_exchange_n(&version_, kBusy, __ATOMIC_ACQ_REL) != kBusy) {
      __atomic_store_n(&root_, root, __ATOMIC_RELEASE);
      __atomic_store_n(&version_, version, __ATOMIC_RELEASE);
    }
  }

 private:
  static constexpr std::uint64_t kBusy = 1;  // another thread writes it

  std::uint64_t version_;
  std::uint64_t root_;
};

}  // namespace clients

// Written by open and close alone; which record is the client's may not change while it is open.
struct encap_client {
  clients::ClientRecord *record;
  clients::Ledger *ledger;
  std::uint32_t generation;  // of the process that opened it: a child of fork is the next one
  clients::KnownRoot root;   // written by looks
};

namespace clients {

// How many forks led to this process since the library was loaded.
std::uint32_t generation();

// The root of the clients' records in the database of this process.
ClientRoot &client_root();

// Opens the database for one more client of this process, or keeps the one that is open, if it is the configured one.
// Returns: 0, to be given back by close_database(); the codes of encap_db_open() with `error` filled.
int open_database(const encap_db_config_t &config, shmwin_error_t *error);
void close_database();

/*
 * Takes the database lock and takes back what a dead process left open.
 * Returns: 0 with the lock held; EPERM in a forked child; the lock's status.
 */
int enter_database(const encap_client_t &client);
void leave_database();

}  // namespace clients

#endif
