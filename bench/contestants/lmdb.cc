#include "contestants/lmdb.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <optional>

namespace encap_bench {
namespace {

struct StoredKey {
  mpls_tunnel_key_t tunnel;
  mpls_nh_key_t nh;
};

struct Record {
  std::uint32_t nh;
  std::uint32_t users;
  std::uint32_t seed_nh;
  std::uint32_t failover_nh;
  std::uint32_t tun;
};

void demand(int status, const char *what) {
  if (status != 0) {
    std::fprintf(stderr, "LMDB, %s: %s\n", what, mdb_strerror(status));
    std::exit(1);
  }
}

StoredKey stored(const Key &key) {
  return {tunnel_part(key), nh_part(key)};
}

template <typename T>
MDB_val as_value(T &object) {
  return {sizeof object, &object};
}

Record record_in(const MDB_val &value) {
  Record record;
  std::memcpy(&record, value.mv_data, sizeof record);
  return record;
}

bool same_tunnel(const MDB_val &key, const StoredKey &wanted) {
  return std::memcmp(key.mv_data, &wanted.tunnel, sizeof wanted.tunnel) == 0;
}

pthread_mutex_t *map_mutex(const std::string &file, Role role) {
  const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(pthread_mutex_t)) != 0) {
    demand(errno, "file of the mutex");
  }
  void *const mapped = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  demand(mapped == MAP_FAILED ? errno : 0, "mapping of the mutex");
  auto *mutex = static_cast<pthread_mutex_t *>(mapped);
  if (role == Role::creator) {
    init_mutex(mutex);
  }
  return mutex;
}

// Holds a mutex unless it is nullptr.
class MutexIfAny {
 public:
  explicit MutexIfAny(pthread_mutex_t *mutex) {
    if (mutex != nullptr) {
      guard_.emplace(mutex);
    }
  }

 private:
  std::optional<Guard> guard_;
};

// One change: a write transaction with a cursor on the one key. Aborts when the body says so.
template <typename Body>
bool change(MDB_env *env, MDB_dbi table, Body body) {
  MDB_txn *txn;
  demand(mdb_txn_begin(env, nullptr, 0, &txn), "begin");
  if (!body(txn, table)) {
    mdb_txn_abort(txn);
    return false;
  }
  demand(mdb_txn_commit(txn), "commit");
  return true;
}

// Changes the count of the key's users by `step`; `at_once` or with the last user the record goes.
bool count_users(MDB_txn *txn, MDB_dbi table, const Key &key, int step, bool at_once, Record &record) {
  StoredKey wanted = stored(key);
  MDB_val name = as_value(wanted);
  MDB_val value;
  MDB_cursor *cursor;
  demand(mdb_cursor_open(txn, table, &cursor), "cursor");
  bool done = mdb_cursor_get(cursor, &name, &value, MDB_SET) == 0;
  if (done) {
    record = record_in(value);
    record.users += static_cast<std::uint32_t>(step);
    value = as_value(record);
    done = (at_once || record.users == 0 ? mdb_cursor_del(cursor, 0)
                                         : mdb_cursor_put(cursor, &name, &value, MDB_CURRENT)) == 0;
  }
  mdb_cursor_close(cursor);
  return done;
}

}  // namespace

Lmdb::Lmdb(const Place &place, const Workload &workload, Role role, Locks locks)
    : file_(place.file(locks == Locks::own ? "lmdb-own" : "lmdb")),
      role_(role),
      mutex_(locks == Locks::own ? nullptr : map_mutex(file_ + ".mutex", role)) {
  const MutexIfAny guard(mutex_);
  demand(mdb_env_create(&env_), "environment");
  demand(mdb_env_set_mapsize(env_, (std::size_t{64} << 20) + std::size_t{256} * workload.nh_room()), "size");
  const unsigned unlocked = mutex_ != nullptr ? MDB_NOLOCK : 0;
  demand(
      mdb_env_open(env_, file_.c_str(),
                   MDB_NOSUBDIR | MDB_WRITEMAP | MDB_NOSYNC | MDB_NOMETASYNC | MDB_NORDAHEAD | MDB_NOMEMINIT | unlocked,
                   0600),
      "open");
  MDB_txn *txn;
  demand(mdb_txn_begin(env_, nullptr, 0, &txn), "begin");
  demand(mdb_dbi_open(txn, nullptr, 0, &table_), "table");
  demand(mdb_txn_commit(txn), "commit");
  demand(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_), "read transaction");
  demand(mdb_cursor_open(reader_, table_, &reading_), "cursor");
  mdb_txn_reset(reader_);
}

Lmdb::~Lmdb() {
  mdb_cursor_close(reading_);
  mdb_txn_abort(reader_);
  mdb_env_close(env_);
  if (mutex_ != nullptr) {
    munmap(mutex_, sizeof *mutex_);
  }
  if (role_ == Role::creator) {
    unlink(file_.c_str());
    unlink((file_ + (mutex_ != nullptr ? ".mutex" : "-lock")).c_str());
  }
}

template <typename Body>
auto Lmdb::read(const Key &key, Body body) {
  const MutexIfAny guard(mutex_);
  mdb_txn_renew(reader_);
  StoredKey wanted = stored(key);
  MDB_val name = as_value(wanted);
  MDB_val value;
  const bool there = mdb_get(reader_, table_, &name, &value) == 0;
  const auto result = body(there, there ? record_in(value) : Record{});
  mdb_txn_reset(reader_);
  return result;
}

Found Lmdb::find(const Key &key) {
  return read(key, [&](bool there, const Record &record) {
    return there ? Found{true, true, record.nh, record.tun} : miss(key);
  });
}

// Whether the tunnel is there without the NH.
Found Lmdb::miss(const Key &key) {
  StoredKey wanted = stored(key);
  MDB_val name = as_value(wanted);
  MDB_val value;
  mdb_cursor_renew(reader_, reading_);
  const bool after = mdb_cursor_get(reading_, &name, &value, MDB_SET_RANGE) == 0;
  if (after && same_tunnel(name, wanted)) {
    return {false, true, 0, record_in(value).tun};
  }
  if (mdb_cursor_get(reading_, &name, &value, after ? MDB_PREV : MDB_LAST) == 0 && same_tunnel(name, wanted)) {
    return {false, true, 0, record_in(value).tun};
  }
  return {};
}

Found Lmdb::share(const Key &key) {
  const MutexIfAny guard(mutex_);
  Record record{};
  const bool there =
      change(env_, table_, [&](MDB_txn *txn, MDB_dbi table) { return count_users(txn, table, key, 1, false, record); });
  return there ? Found{true, true, record.nh, record.tun} : Found{};
}

bool Lmdb::attach(const Encap &encap, std::uint32_t users) {
  const MutexIfAny guard(mutex_);
  return change(env_, table_, [&](MDB_txn *txn, MDB_dbi table) {
    StoredKey wanted = stored(encap.key);
    Record record{encap.nh, users, seed_of(encap.nh), 0, encap.tun};
    MDB_val name = as_value(wanted);
    MDB_val value = as_value(record);
    return mdb_put(txn, table, &name, &value, MDB_NOOVERWRITE) == 0;
  });
}

bool Lmdb::release(const Encap &encap) {
  const MutexIfAny guard(mutex_);
  Record record{};
  return change(env_, table_,
                [&](MDB_txn *txn, MDB_dbi table) { return count_users(txn, table, encap.key, -1, false, record); });
}

bool Lmdb::detach(const Encap &encap) {
  const MutexIfAny guard(mutex_);
  return change(env_, table_, [&](MDB_txn *txn, MDB_dbi table) {
    StoredKey wanted = stored(encap.key);
    MDB_val name = as_value(wanted);
    return mdb_del(txn, table, &name, nullptr) == 0;
  });
}

bool Lmdb::read_back(const Encap &encap, Data &data) {
  return read(encap.key, [&](bool there, const Record &record) {
    data = {record.seed_nh, record.failover_nh, record.tun};
    return there;
  });
}

std::uint64_t Lmdb::bytes() const {
  MDB_envinfo info;
  MDB_stat stat;
  mdb_env_info(env_, &info);
  mdb_env_stat(env_, &stat);
  return (info.me_last_pgno + 1) * stat.ms_psize;
}

}  // namespace encap_bench
