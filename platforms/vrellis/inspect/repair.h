// Mends what check.h finds in a live window, under the database lock, while others run.
//
// An NH whose node and slot agree stays as it is, whatever its count: its tunnel's count follows. An NH of which only
// one of the two is left goes. A tunnel with NHs stays and its slot is made right; one without goes. What nothing
// reaches is freed. Each step leaves a window that the next repair mends, should this one die after it.
#ifndef ENCAP_INSPECT_REPAIR_H
#define ENCAP_INSPECT_REPAIR_H

#include <cstdint>
#include <string>
#include <vector>

#include "check.h"

namespace encap_inspect {

struct RepairOptions {
  bool dry_run = false;             // look and tell, change nothing; takes the lock all the same
  bool keep_empty_tunnels = false;  // leave tunnels without NHs (an insert that failed leaves one) where they are
  bool drop_unreferenced = false;   // take NHs of count 0 out as well: nobody uses them, or an attach said so
  bool drop_given_back = false;     // take the last NH of a tunnel that counts none out even if it has users
};

// One thing changed, or that would be.
struct Change {
  FindingKind because;
  std::uint32_t nh_index = kNoIndex;
  std::uint32_t tunnel = kNoIndex;
  Address address = 0;
  std::string text;  // one sentence, no newline, in the past tense: "took NH 4711 out of ..."; the same in a dry run
};

struct RepairResult {
  int status = 0;     // 0; 2 (ENOENT) window not attached; 22 nothing can be done (see `error`); the lock's code;
                      // 5 (EIO) `after` has faults left, as nodes to be made anew for which the window has no room
  std::string error;  // one sentence unless status is 0
  std::vector<Change> changes;
  Report before;  // under the lock, after the services rolled back what they had to (a dry run: would have to)
  Report after;   // of the mended database; the same as `before` in a dry run
};

// Requires window `shm_id` attached in this process, read-write, at its address. Takes and releases the lock.
RepairResult repair(std::uint32_t shm_id, const RepairOptions &options = {});

/*
 * Attaches the live window `name` in `directory` (nullptr: /dev/shm) read-write, whatever its id; shmwin_detach()
 * undoes it. Never creates a file.
 * Returns: 0 with *shm_id; the codes of shmwin_attach() with `error` filled; 2 when there is no such file.
 */
int attach_for_repair(const char *directory, const char *name, std::uint32_t *shm_id, std::string *error);

}  // namespace encap_inspect

#endif
