// Configurations of databases of a test's own.
#ifndef TESTS_SUPPORT_DATABASE_H
#define TESTS_SUPPORT_DATABASE_H

#include "directory.h"
#include "encap_db_owner.h"

namespace test_support {

struct Indexes {
  std::uint32_t start, size;
};

// Refers to `directory` and `name`.
inline encap_db_config_t database_in(const std::string &directory, const char *name, std::uint32_t shm_id, Indexes nhs,
                                     Indexes tunnels) {
  encap_db_config_t config{};
  config.directory = directory.c_str();
  config.name = name;
  config.shm_id = shm_id;
  config.nh_start = nhs.start;
  config.nh_size = nhs.size;
  config.tun_start = tunnels.start;
  config.tun_size = tunnels.size;
  return config;
}

}  // namespace test_support

#endif
