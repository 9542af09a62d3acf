#include "ranges.h"

#include <string>

#include "reading/database.h"

namespace encap_inspect {

void trust(const Owner &owner, encap_db_config_t *config) {
  config->named = (owner.user ? SHMWIN_NAMED_USER : 0U) | (owner.group ? SHMWIN_NAMED_GROUP : 0U);
  config->user = owner.user.value_or(0);
  config->group = owner.group.value_or(0);
  config->mode = owner.group ? 0660 : 0600;
}

encap_db_config_t config_of(const char *directory, const char *name, const Ranges &said, const Owner &owner) {
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
  trust(owner, &config);
  config.shm_id = said.shm_id.value_or(exists ? there.window.shm_id : 1);
  config.nh_start = said.nh_start.value_or(exists ? there.nh_start : 1000);
  config.nh_size = said.nh_size.value_or(exists ? there.nh_end - there.nh_start : 65536);
  config.tun_start = said.tun_start.value_or(exists ? there.tun_start : 1);
  config.tun_size = said.tun_size.value_or(exists ? there.tun_end - there.tun_start : 16384);
  return config;
}

}  // namespace encap_inspect
