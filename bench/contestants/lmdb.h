// LMDB on the shared-memory file system, as its documentation advises where nothing must reach a disk and callers lock:
// MDB_WRITEMAP | MDB_NOSYNC, MDB_NOLOCK under the same mutex as the others (no reader table to enter), one read
// transaction reset and renewed, one write transaction a change.
//
// One table, the key with the tunnel first: a tunnel's NHs stand together, neighbours tell whether the tunnel is there.
#ifndef ENCAP_BENCH_LMDB_H
#define ENCAP_BENCH_LMDB_H

#include <lmdb.h>

#include "contestants/contestant.h"
#include "contestants/lock.h"

namespace encap_bench {

class Lmdb {
 public:
  enum class Locks { mutex, own };

  static constexpr const char *kName = "LMDB";

  Lmdb(const Place &place, const Workload &workload, Role role) : Lmdb(place, workload, role, Locks::mutex) {}
  ~Lmdb();
  Lmdb(const Lmdb &) = delete;
  Lmdb &operator=(const Lmdb &) = delete;

  Found find(const Key &key);
  Found share(const Key &key);
  bool insert(const Encap &encap, bool /*with_tunnel*/) { return attach(encap, 1); }
  bool attach(const Encap &encap, std::uint32_t users);
  bool release(const Encap &encap);
  bool detach(const Encap &encap);
  bool read_back(const Encap &encap, Data &data);
  std::uint64_t bytes() const;

 protected:
  Lmdb(const Place &place, const Workload &workload, Role role, Locks locks);

 private:
  // One read transaction: calls body(found, record) and returns its result.
  template <typename Body>
  auto read(const Key &key, Body body);
  Found miss(const Key &key);

  std::string file_;
  Role role_;
  MDB_env *env_ = nullptr;
  MDB_dbi table_ = 0;
  MDB_txn *reader_ = nullptr;
  MDB_cursor *reading_ = nullptr;
  pthread_mutex_t *mutex_ = nullptr;  // nullptr: LMDB locks by itself
};

// As LMDB is meant to be used by several processes: it locks by itself, and readers take no lock.
class LmdbOwnLocks : public Lmdb {
 public:
  static constexpr const char *kName = "LMDB, own locks";
  LmdbOwnLocks(const Place &place, const Workload &workload, Role role) : Lmdb(place, workload, role, Locks::own) {}
};

}  // namespace encap_bench

#endif
