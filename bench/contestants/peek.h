// Looking into the database without its lock, as a client of it; changes are those of EncapDb, which must be open.
#ifndef ENCAP_BENCH_PEEK_H
#define ENCAP_BENCH_PEEK_H

#include <unistd.h>

#include "contestants/db.h"
#include "encap_client.h"

namespace encap_bench {

class PeekDb {
 public:
  static constexpr const char *kName = "encap_db, peek";

  PeekDb(const Place &place, const Workload &workload, Role /*role*/) {
    const std::string name = "bench" + std::to_string(getpid());
    const encap_client_config_t config{EncapDb::config(place, workload), name.c_str()};
    shmwin_error_t error{};
    if (encap_client_open(&config, &client_, &error) != 0) {
      std::fprintf(stderr, "%s\n", error.text);
      std::exit(1);
    }
  }
  ~PeekDb() { encap_client_leave(client_, nullptr, nullptr); }
  PeekDb(const PeekDb &) = delete;
  PeekDb &operator=(const PeekDb &) = delete;

  Found find(const Key &key) {
    Found found;
    const int status = encap_client_peek(client_, key, &found.nh, &found.tun);
    found.nh_found = status == 0;
    found.tun_found = found.tun != UINT32_MAX;
    return found;
  }

 private:
  encap_client_t *client_ = nullptr;
};

}  // namespace encap_bench

#endif
