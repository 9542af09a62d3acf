// The database that the clients of this process work in, and the lock around each of their steps.
#include "session.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "avl.h"
#include "mpls_egress_encap_db.h"
#include "records/window.h"

namespace clients {
namespace {

// What this process has open. Guarded by `mutex`, which is taken before the database lock.
struct Opened {
  pthread_mutex_t mutex;
  std::uint32_t clients;
  bool owns_database;  // a client opened the database, so the last one closes it
};
constinit Opened opened{PTHREAD_MUTEX_INITIALIZER, 0, false};
constinit std::atomic<std::uint32_t> forks{0};

// A child has its parent's memory but none of its clients.
void forget_clients() {
  forks.fetch_add(1, std::memory_order_relaxed);
  opened = {PTHREAD_MUTEX_INITIALIZER, 0, false};
}

void watch_forks() {
  static bool watched = false;
  if (!watched) {
    watched = pthread_atfork(nullptr, nullptr, forget_clients) == 0;
  }
}

// With room for the ledgers, where the database is to be made with its default size.
encap_db_config_t with_room(const encap_db_config_t &config) {
  encap_db_config_t sized = config;
  if (sized.size == 0) {
    constexpr std::uint64_t kBytesOfHolding = 24;
    const std::uint64_t indexes = std::uint64_t{config.nh_size} + config.tun_size;
    const std::uint64_t least = encap_db_default_size(&config);
    sized.size = least == 0 ? 0
                            : least + kPage * (ENCAP_CLIENT_MAX + 4) + kBytesOfHolding * config.nh_size +
                                  (sizeof(std::uint32_t) + 1) * indexes;
  }
  return sized;
}

}  // namespace

int open_database(const encap_db_config_t &config, shmwin_error_t *error) {
  pthread_mutex_lock(&opened.mutex);
  watch_forks();
  int status = encap_db_matches(&config, error);
  if (status == ENOENT) {
    const encap_db_config_t sized = with_room(config);
    status = encap_db_open(&sized, nullptr, error);
    opened.owns_database = status == 0;
  }
  if (status == 0) {
    shmwin_stat_t stat{};
    shmwin_stat(config.shm_id, &stat);
    const egress_encap_db_t &db = *egress_encap_db;
    extent = {stat.address + stat.overhead,
              stat.size - stat.overhead,
              stat.address,
              address_of(db.nh_info_array),
              address_of(db.tun_info_array),
              db.nh_start,
              db.nh_end,
              db.tun_start,
              db.tun_end};
    ++opened.clients;
  }
  pthread_mutex_unlock(&opened.mutex);
  return status;
}

void close_database() {
  pthread_mutex_lock(&opened.mutex);
  --opened.clients;
  if (opened.clients == 0 && opened.owns_database) {
    opened.owns_database = false;
    encap_db_close();
  }
  pthread_mutex_unlock(&opened.mutex);
}

ClientRoot &client_root() {
  return *reinterpret_cast<ClientRoot *>(reinterpret_cast<char *>(egress_encap_db) + kRootOffset);
}

std::uint32_t generation() {
  return forks.load(std::memory_order_relaxed);
}

int enter_database(const encap_client_t &client) {
  if (__builtin_expect(client.generation != generation(), 0)) {
    return EPERM;
  }
  const int status = vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
  if (status == 0 && undo_log().count != 0) {
    avl_settle(egress_encap_db);
  }
  return status;
}

void leave_database() {
  pthread_mutex_unlock(&egress_encap_db->lock.mutex);
}

}  // namespace clients
