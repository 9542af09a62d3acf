// The ranges with which a tool opens a database that may exist already.
#ifndef ENCAP_INSPECT_RANGES_H
#define ENCAP_INSPECT_RANGES_H

#include <cstdint>
#include <optional>

#include "encap_db_owner.h"

namespace encap_inspect {

// What a command line says of them.
struct Ranges {
  std::optional<std::uint32_t> shm_id, nh_start, nh_size, tun_start, tun_size;
};

// Whose file of a window is trusted besides the caller's own and root's.
struct Owner {
  std::optional<std::uint32_t> user, group;
};

// Names them in a configuration. A new window is given to them, and the members of a group may write to it.
void trust(const Owner &owner, encap_db_config_t *config);

// What was not said is as the database has it that exists, or else a default: id 1, 65536 NHs from 1000, 16384 tunnels
// from 1. The texts are kept as pointers.
encap_db_config_t config_of(const char *directory, const char *name, const Ranges &said, const Owner &owner);

}  // namespace encap_inspect

#endif
