// The database itself, through its exported operations in a real window, with its default trace. A process has one
// database, so the operations need no object.
#ifndef ENCAP_BENCH_DB_H
#define ENCAP_BENCH_DB_H

#include <cstdlib>

#include "contestants/contestant.h"
#include "encap_db_owner.h"
#include "shmwin.h"

namespace encap_bench {

class EncapDb {
 public:
  // ENCAP_BENCH_NO_GROUPS: the allocator gives the NH nodes of a new tunnel no room to lie together.
  inline static const bool kGroups = std::getenv("ENCAP_BENCH_NO_GROUPS") == nullptr;
  inline static const std::string kName = kGroups ? "encap_db" : "encap_db, no groups";

  // Its directory is that of `place`, which must stay.
  static encap_db_config_t config(const Place &place, const Workload &workload);

  // `address`: where to map the window; 0 = the service's default.
  EncapDb(const Place &place, const Workload &workload, Role role, std::uint64_t address = 0);
  ~EncapDb();
  EncapDb(const EncapDb &) = delete;
  EncapDb &operator=(const EncapDb &) = delete;

  static Found find(const Key &key) {
    egress_encap_info_t info;
    return vrl_find_egress_encap(&info, key) == 0 ? found_in(info) : Found{};
  }

  static Found share(const Key &key) {
    egress_encap_info_t info;
    return vrl_find_and_share_egress_encap(&info, key) == 0 ? found_in(info) : Found{};
  }

  static bool insert(const Encap &encap, bool with_tunnel) {
    egress_encap_info_t info = record_of(encap, with_tunnel);
    return vrl_insert_egress_encap(&info, encap.key) == 0;
  }

  static bool release(const Encap &encap) {
    std::uint32_t tun = 0;
    std::uint32_t nh_goes = 0;
    std::uint32_t tun_goes = 0;
    return vrl_delete_and_free_egress_encap_with_nh_key(encap.nh, &tun, &nh_goes, &tun_goes) == 0;
  }

  static bool attach(const Encap &encap, std::uint32_t users) {
    egress_encap_info_t info = record_of(encap, false);
    return vrl_egress_encap_nh_insert_attach(&info, users, encap.key) == 0;
  }

  static bool detach(const Encap &encap) {
    std::uint32_t tun = 0;
    std::uint32_t tun_goes = 0;
    std::uint32_t users = 0;
    return vrl_egress_encap_nh_detach(encap.nh, &tun, &tun_goes, &users) == 0;
  }

  static bool read_back(const Encap &encap, Data &data) {
    egress_encap_aux_data_t aux{};
    Key key{};
    if (vrl_get_encap_key_and_aux_data_from_nh(encap.nh, &aux, &key) != 0) {
      return false;
    }
    data = {aux.seed_nh, aux.failover_nh, aux.egr_tun};
    return true;
  }

  static std::uint64_t bytes();
  static shmwin_stat_t usage();

 private:
  static Found found_in(const egress_encap_info_t &info) {
    return {info.nh_found != 0, info.tun_found != 0, info.egr_nh, info.egr_tun};
  }

  static egress_encap_info_t record_of(const Encap &encap, bool with_tunnel) {
    egress_encap_info_t info{};
    info.egr_nh = encap.nh;
    info.egr_tun = encap.tun;
    info.seed_nh = seed_of(encap.nh);
    info.tun_found = with_tunnel ? 0 : 1;
    return info;
  }

  Place place_;
  Role role_;
};

// Trace and messages of all its points: off, and back to the stored state.
void switch_points_off();
void switch_points_back();

}  // namespace encap_bench

#endif
