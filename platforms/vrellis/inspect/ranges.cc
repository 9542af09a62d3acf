#include "ranges.h"

#include <string>

#include "database.h"

namespace encap_inspect {

encap_db_config_t config_of(const char *directory, const char *name, const Ranges &said) {
  Database there;
  std::string error;
  const auto view = View::open_live(directory, name, &error);
  if (view) {
    there = decode(*view);
  }
  const bool exists = view && there.usable;
  encap_db_config_t config{};
  config.directory = directory;
  config.name = name;
  config.shm_id = said.shm_id.value_or(exists ? there.window.shm_id : 1);
  config.nh_start = said.nh_start.value_or(exists ? there.nh_start : 1000);
  config.nh_size = said.nh_size.value_or(exists ? there.nh_end - there.nh_start : 65536);
  config.tun_start = said.tun_start.value_or(exists ? there.tun_start : 1);
  config.tun_size = said.tun_size.value_or(exists ? there.tun_end - there.tun_start : 16384);
  return config;
}

}  // namespace encap_inspect
