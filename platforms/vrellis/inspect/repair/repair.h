// Mends what check.h finds in a live window, under the database lock, while others run.
//
// An NH whose node and slot agree stays as it is; its count is not looked at, and its tunnel's count follows. An NH of
// which only one of the two is left goes. A tunnel with NHs stays and its slot is made right; one without goes. What
// nothing reaches is freed. Each step leaves a window that the next repair mends, should this one die after it, or
// throw std::bad_alloc because this process has no memory: the lock is given back in any case.
#ifndef ENCAP_INSPECT_REPAIR_H
#define ENCAP_INSPECT_REPAIR_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "check/check.h"
#include "encap_db_owner.h"

namespace encap_inspect {

struct RepairOptions {
  bool keep_empty_tunnels = false;  // leave tunnels without NHs (an insert that failed leaves one) where they are
  bool drop_unreferenced = false;   // take NHs of count 0 out as well: they have no users, or an attach said so
  bool drop_given_back = false;     // take the last NH of a tunnel that counts none out even if it has users
  std::chrono::milliseconds patience{5000};  // how long to wait for a process that holds the lock
};

// One thing changed, or that would be.
struct Change {
  FindingKind because;
  std::uint32_t nh_index = kNoIndex;
  std::uint32_t tunnel = kNoIndex;
  Address address = 0;
  std::string text;  // one sentence, no newline, in the past tense: "took NH 4711 out of ..."; the same when rehearsed
};

struct RepairResult {
  int status = 0;  // 0; 2 (ENOENT) no such window; 22 nothing can be done; 110 (ETIMEDOUT) `holder` kept the lock;
                   // 16 (EBUSY) the lock is lost and another process has the window attached; 11 (EAGAIN, of a
                   // rehearsal) the window would not hold still; 5 (EIO) `after` has faults left, as nodes to be made
                   // anew for which the window has no room; another code of an attach or of the lock
  std::string error;  // one sentence unless status is 0
  pid_t holder = 0;   // the process that kept the lock; 0: none did, or it is not known
  std::vector<Change> changes;
  Report before;  // with what the lock and the undo log were like before they were taken and rolled back
  Report after;   // of the mended database; of a rehearsal, the same as `before`
};

// Requires window `shm_id` attached in this process, read-write, at its address. Takes and releases the lock.
RepairResult repair(std::uint32_t shm_id, const RepairOptions &options = {});

// Mends the window that `config` names; the id and the ranges of `config` are not looked at. It is attached for that
// time, unless this process has it attached already; a file is never created. A lock that no thread will ever give back
// is made anew, if no other process has the window attached.
RepairResult repair_window(const encap_db_config_t &config, const RepairOptions &options = {});

// Tells what repair would do, from a view: no lock is taken and nothing in the window changes.
RepairResult rehearse(const View &view, const RepairOptions &options = {});
RepairResult rehearse_window(const encap_db_config_t &config, const RepairOptions &options = {});

}  // namespace encap_inspect

#endif
