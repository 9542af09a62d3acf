// A window's place in a process. For the window service alone.
#ifndef VRELLIS_SHMWIN_MAPPING_H
#define VRELLIS_SHMWIN_MAPPING_H

#include <cstdint>

#include "shmwin.h"

namespace vrellis {

// What the sizes of files in the file's file system are multiples of: the size of a huge page on hugetlbfs.
std::uint64_t page_bytes_of(int fd);

// Maps the file at `address` and nowhere else, and asks for huge pages for a window of 16 MiB or more. Returns: 0, 17
// (EEXIST) when something lies there, another errno value.
int map_file(int fd, std::uint64_t address, std::uint64_t size);

// Maps at the configured address, or at the first default one that is free, from the id's own on.
// Out: *address. Returns: as map_file(), with `error` filled.
int map_new(int fd, const shmwin_config_t &config, std::uint64_t size, std::uint64_t *address, shmwin_error_t *error);

// Fills `error` with why map_file() gave `status`. Returns: `status`.
int refuse_mapping(const char *window, int status, std::uint64_t address, std::uint64_t size, shmwin_error_t *error);

}  // namespace vrellis

#endif
