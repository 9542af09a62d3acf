// A window's file: its lock and what it holds. For the window service alone.
#ifndef VRELLIS_SHMWIN_FILE_H
#define VRELLIS_SHMWIN_FILE_H

#include <sys/types.h>

#include <climits>
#include <cstdint>

#include "shmwin/layout.h"
#include "shmwin/refuse.h"

// A window's file, open and locked.
struct shmwin_claimed_file {
  int fd;
  char name[NAME_MAX + 1];
  char path[PATH_MAX];
};

namespace vrellis {

// The mode of a window's file.
inline mode_t mode_of(const shmwin_config_t &config) {
  return config.mode != 0 ? config.mode : 0600;
}

// Refuses what the system refused: "cannot <action> '<subject>': <text of status>".
int refuse_system(shmwin_error_t *error, int status, const char *action, const char *subject);

// What a window's file holds, as far as its first page tells.
struct FileContent {
  std::uint64_t bytes = 0;  // of the file
  WindowHeader header{};    // its first page; zero past the end of the file
};

// Returns: 0, or an errno value with `error` filled.
int read_content(const shmwin_claim_t &claim, FileContent *content, shmwin_error_t *error);

// True if the file holds nothing to keep: it is empty, or its creator died before it completed the window.
bool is_absent(const FileContent &content);

// Tests everything that must agree before the window may be mapped. Returns: 0, or the codes of shmwin_attach().
int preflight(const FileContent &content, const char *name, std::uint32_t shm_id, shmwin_error_t *error);

}  // namespace vrellis

#endif
