// A window's place in a process. For the window service alone.
#ifndef VRELLIS_SHMWIN_MAPPING_H
#define VRELLIS_SHMWIN_MAPPING_H

#include <cstdint>

#include "shmwin.h"

namespace vrellis {

// Maps the file at `address` and nowhere else. Returns: 0, 17 (EEXIST) when something lies there, another errno value.
int map_file(int fd, std::uint64_t address, std::uint64_t size);

// Maps at the configured address, or at the first default one that is free, from the id's own on.
// Out: *address. Returns: as map_file(), with `error` filled.
int map_new(int fd, const shmwin_config_t &config, std::uint64_t size, std::uint64_t *address, shmwin_error_t *error);

// Fills `error` with why map_file() gave `status`. Returns: `status`.
int refuse_mapping(const char *window, int status, std::uint64_t address, std::uint64_t size, shmwin_error_t *error);

}  // namespace vrellis

#endif
