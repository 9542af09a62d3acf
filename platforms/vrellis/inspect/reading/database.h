// What a window holds, decoded: processes, lock, heap, header, trees and slots of its database.
//
// Decoding takes time in proportion to the window and never fails: what cannot be made out is left empty, and check.h
// says why. Everything refers to the view, which must live as long.
#ifndef ENCAP_INSPECT_DATABASE_H
#define ENCAP_INSPECT_DATABASE_H

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "mpls_egress_encap_db.h"
#include "process/process.h"
#include "view.h"

namespace encap_inspect {

using vrellis::Liveness;  // of a process: whether it still has the window attached

// What the window records of itself.
struct WindowIdentity {
  bool is_window = false;  // magic, version and completeness are right: the rest means something
  std::uint32_t version = 0;
  std::uint32_t shm_id = 0;
  std::uint64_t size = 0;
  Address address = 0;
  std::uint64_t pid_namespace = 0;
  std::uint64_t created = 0;  // nanoseconds since 1970
  std::uint64_t deaths = 0;   // processes that were taken out of the table because they had ended
};

struct AttachedProcess {
  pid_t pid = 0;
  std::uint64_t start_ticks = 0;  // its start, in clock ticks since boot
  Liveness liveness = Liveness::kUnknown;
};

// The database's mutex, read and never touched.
struct LockState {
  bool recognised = false;  // it is a robust, recursive, process-shared mutex: the rest means something
  bool held = false;        // locked, or left locked by a thread that died
  bool owner_died = false;  // the kernel has marked it so: the next to lock it takes it over
  bool waiters = false;     // a thread waits, or did
  pid_t owner_tid = 0;      // 0 in a held one: a thread that died while it took the lock over
  pid_t owner_pid = 0;      // 0: not known
  std::uint32_t depth = 0;  // how often its holder has locked it
  Liveness owner = Liveness::kUnknown;

  // Its holder ended without the kernel's mark: no thread ever gets it. So is that of a window copied while locked.
  bool lost() const { return held && !owner_died && owner == Liveness::kDead; }
};

// Of the window's heap, counted page by page.
struct HeapUse {
  std::uint64_t pages = 0, free_pages = 0, node_pages = 0, array_pages = 0;
  std::uint64_t nodes40 = 0, nodes56 = 0, arrays = 0;              // blocks in use
  std::uint64_t pages_used = 0, high_water = 0, bad_releases = 0;  // as recorded
  std::uint64_t overhead = 0;                                      // bytes of header and bookkeeping
};

struct NhNode {
  Address address;
  mpls_nh_key_t key;
  std::uint32_t nh_index;
  std::uint32_t tunnel;  // number of its tunnel node in Database::tunnels
};

struct TunnelNode {
  Address address;
  mpls_tunnel_key_t key;
  std::uint32_t egr_tun;
  Address nh_root;
  std::uint32_t first_nh;  // its NHs are nhs[first_nh .. first_nh + nh_count), in key order
  std::uint32_t nh_count;
};

inline constexpr std::uint32_t kNoNode = UINT32_MAX;   // in place of the number of a node
inline constexpr std::uint32_t kNoIndex = UINT32_MAX;  // in place of a global index

struct Database {
  WindowIdentity window;
  std::vector<AttachedProcess> processes;
  LockState lock;
  HeapUse heap;
  std::uint64_t undo_count = 0;  // words in the undo log: not 0 = a change of a tree was under way; before settling

  // The database's header, as recorded. All that follows is empty unless usable.
  bool initialised = false;  // the window holds a database
  bool usable = false;       // its header is sound: ranges and arrays lie where they can
  std::uint32_t shm_id = 0;
  std::uint32_t nh_start = 0, nh_end = 0, tun_start = 0, tun_end = 0;
  Address tun_root = 0, nh_array = 0, tun_array = 0;

  std::vector<TunnelNode> tunnels;  // of the tunnel tree, in key order
  std::vector<NhNode> nhs;          // tunnel by tunnel, in key order

  // NH slot -> number in `nhs` of the node that agrees with it in index, key, interface and tunnel; kNoNode.
  std::vector<std::uint32_t> node_of_slot;
  // Tunnel slot -> number in `tunnels` of the first node of its index; kNoNode. The null tunnel's is last.
  std::vector<std::uint32_t> tunnel_of_slot;

  std::uint32_t nh_slots() const { return usable ? nh_end - nh_start : 0; }
  std::uint32_t tunnel_slots() const { return usable ? tun_end - tun_start + 1 : 0; }  // with the null tunnel's

  bool nh_in_range(std::uint32_t index) const { return usable && index >= nh_start && index < nh_end; }
  bool tunnel_in_range(std::uint32_t index) const {
    return usable && (index == 0 || (index >= tun_start && index < tun_end));
  }
  // Requires the index to be in range.
  std::uint32_t tunnel_slot_number(std::uint32_t index) const { return (index == 0 ? tun_end : index) - tun_start; }

  // By index; nullptr when out of range.
  const egr_nh_info_t *nh_slot(std::uint32_t index) const;
  const egr_tun_info_t *tunnel_slot(std::uint32_t index) const;

  const View *view = nullptr;
};

// Decodes what `view` shows. A change of a tree that was cut off is not rolled back here: see View::settled().
Database decode(const View &view);

}  // namespace encap_inspect

#endif
