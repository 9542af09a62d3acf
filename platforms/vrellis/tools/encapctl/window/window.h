// The window that a reading verb looks at: a copy taken without a lock, decoded, and what is to be said about it.
#ifndef ENCAPCTL_WINDOW_H
#define ENCAPCTL_WINDOW_H

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "check/check.h"
#include "holders.h"
#include "output/output.h"
#include "ranges.h"
#include "reading/database.h"
#include "reading/view.h"

namespace encapctl {

struct DirectoryOptions {
  std::string directory = "/dev/shm";
};

// Which window.
struct WindowOptions : DirectoryOptions {
  std::string name = "mpls-egress-encap";

  std::string path() const { return directory + "/" + name; }
};

// Which window, for a verb that changes it, and whose window is trusted.
struct OwnedWindowOptions : WindowOptions {
  encap_inspect::Owner owner;
};

// Which window, or which snapshot in its place.
struct SourceOptions : WindowOptions {
  std::optional<std::string> file;

  std::string path() const { return file.value_or(WindowOptions::path()); }
};

struct Window {
  encap_inspect::View view;
  encap_inspect::Database db;
  std::string label;  // "window '/dev/shm/x'", "snapshot 'y'"
  std::vector<encap_inspect::ClientEntry> clients = {};

  // One moment, or near it: what it says can be held against it. The lock may have been held.
  bool still() const { return view.stillness() != encap_inspect::Stillness::kMoving; }
};

// Copies and decodes the window or snapshot. Throws Failure when there is none.
std::unique_ptr<Window> copy_window(const SourceOptions &options, std::chrono::milliseconds patience);

// The same without patience; warns when it would not hold still.
std::unique_ptr<Window> look_at(const SourceOptions &options);

// As look_at(), with a change of a tree that a death cut off rolled back, as the next process will find it. Throws
// Failure when the window holds no database that can be read, and warns of the inconsistencies of one that can.
std::unique_ptr<Window> read_database(const SourceOptions &options);

// "still", "held" or "moving": how far the copy shows one moment.
std::string_view stillness_name(const Window &window);

// "free", "held", "held by the dead" or "damaged".
std::string_view lock_word(const encap_inspect::LockState &lock);

// An NH and its tunnel, from its node and its slot; `slot` is never nullptr, `node` when nothing in the trees agrees
// with the slot.
struct NhView {
  std::uint32_t index = 0;
  const egr_nh_info_t *slot = nullptr;
  const encap_inspect::NhNode *node = nullptr;
};

NhView nh_at(const encap_inspect::Database &db, std::uint32_t index);  // requires the index to be in range

// A tunnel node, with its slot; nullptr when its index leads to none.
struct TunnelView {
  const encap_inspect::TunnelNode *node = nullptr;
  const egr_tun_info_t *slot = nullptr;
};

TunnelView tunnel_at(const encap_inspect::Database &db, std::uint32_t number);  // number in db.tunnels

// Labels 1, 2 and 3 of an NH, from the bottom; the tunnel's come from its node, or else from its slot.
std::array<std::uint32_t, 3> labels_of(const encap_inspect::Database &db, const NhView &nh);

// Labels from the top, as they go on the wire: "100/200/16001".
std::string stack_text(const encap_inspect::Database &db, const NhView &nh);
std::string stack_text(const mpls_tunnel_key_t &tunnel);

// Who holds its references: "fpm 2, lab 1 (1 stale), no client 3".
std::string holders_text(const Window &window, const NhView &nh);

Json nh_json(const Window &window, const NhView &nh);
Json tunnel_json(const TunnelView &tunnel);

}  // namespace encapctl

#endif
