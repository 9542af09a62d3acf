#include "contestants/db.h"

#include <cstdio>
#include <cstdlib>

#include "contestants/lock.h"
#include "ed.h"
#include "shmwin/layout.h"

namespace encap_bench {
namespace {

constexpr char kWindow[] = "encap_db";
constexpr std::uint32_t kWindowId = 1;

void query(const char *text) {
  ed_query_error_t error;
  if (ed_query(text, &error) != 0) {
    std::fprintf(stderr, "%s\n", error.text);
    std::exit(1);
  }
}

}  // namespace

encap_db_config_t EncapDb::config(const Place &place, const Workload &workload) {
  encap_db_config_t config{};
  config.directory = place.directory.c_str();
  config.name = kWindow;
  config.shm_id = kWindowId;
  config.nh_start = kFirstIndex;
  config.nh_size = workload.nh_room();
  config.tun_start = kFirstIndex;
  config.tun_size = workload.tunnel_room;
  return config;
}

EncapDb::EncapDb(const Place &place, const Workload &workload, Role role, std::uint64_t address)
    : place_(place), role_(role) {
  encap_db_config_t wanted = config(place_, workload);
  wanted.address = address;
  shmwin_error_t error{};
  if (encap_db_open(&wanted, nullptr, &error) != 0) {
    std::fprintf(stderr, "%s\n", error.text);
    std::exit(1);
  }
  void *window = nullptr;
  std::size_t bytes = 0;
  if (!kGroups && shmwin_bounds(kWindowId, &window, &bytes) == 0) {
    static_cast<vrellis::WindowHeader *>(window)->kept_pages = 0;
  }
}

EncapDb::~EncapDb() {
  encap_db_close();
  if (role_ == Role::creator) {
    encap_db_destroy(place_.directory.c_str(), kWindow, 1, nullptr);
  }
}

shmwin_stat_t EncapDb::usage() {
  const Guard guard(&egress_encap_db->lock.mutex);
  shmwin_stat_t stat{};
  shmwin_stat(egress_encap_db->shm_id, &stat);
  return stat;
}

std::uint64_t EncapDb::bytes() {
  const shmwin_stat_t stat = usage();
  return stat.size - stat.free_pages * 4096;
}

void switch_points_off() {
  query("component libmpls_egress_encap_db -pst");
}

void switch_points_back() {
  query("component libmpls_egress_encap_db =_");
}

}  // namespace encap_bench
