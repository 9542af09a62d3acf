#include "window/window.h"

#include <fmt/format.h>

#include <array>

#include "output/failure.h"

namespace encapctl {
namespace {

using namespace encap_inspect;

std::optional<View> open_view(const SourceOptions &options, std::chrono::milliseconds patience, std::string &error) {
  return options.file ? View::open_file(options.file->c_str(), &error)
                      : View::open_patiently(options.directory.c_str(), options.name.c_str(), patience, &error);
}

// The first thing that makes the database unreadable, as a sentence.
std::string fault_sentence(const Window &window, const Report &report) {
  for (const Finding &finding : report.findings) {
    if (severity_of(finding.kind) != Severity::kNote) {
      return fmt::format("{}: {}", window.label, finding.text);
    }
  }
  return fmt::format("{} holds no database", window.label);
}

}  // namespace

std::unique_ptr<Window> copy_window(const SourceOptions &options, std::chrono::milliseconds patience) {
  std::string error;
  std::optional<View> view = open_view(options, patience, error);
  if (!view) {
    throw Failure(error);
  }
  auto window = std::make_unique<Window>(
      Window{std::move(*view), {}, fmt::format("{} '{}'", options.file ? "snapshot" : "window", options.path())});
  window->db = decode(window->view);
  return window;
}

std::unique_ptr<Window> look_at(const SourceOptions &options) {
  std::unique_ptr<Window> window = copy_window(options, std::chrono::milliseconds(0));
  if (!window->still()) {
    warn("the database would not hold still while it was read: what follows is of different moments");
  }
  return window;
}

std::unique_ptr<Window> read_database(const SourceOptions &options) {
  std::unique_ptr<Window> window = look_at(options);
  if (window->db.undo_count != 0 && window->still()) {
    window->view = window->view.settled(nullptr);
    window->db = decode(window->view);
  }
  const Report report = check(window->view);
  if (!window->db.usable) {
    throw Failure(fault_sentence(*window, report));
  }
  if (window->still() && report.faults() != 0) {
    warn(
        fmt::format("{} is not sound: encapctl check tells of {}", window->label, counted(report.faults(), "finding")));
  }
  window->clients = clients_of(window->view);
  return window;
}

std::string_view stillness_name(const Window &window) {
  constexpr std::array<std::string_view, 3> kNames = {"still", "held", "moving"};
  return kNames[static_cast<std::size_t>(window.view.stillness())];
}

std::string_view lock_word(const LockState &lock) {
  if (!lock.recognised) {
    return "damaged";
  }
  return !lock.held ? "free" : lock.lost() ? "lost" : lock.owner_died ? "held by the dead" : "held";
}

NhView nh_at(const Database &db, std::uint32_t index) {
  const std::uint32_t node = db.node_of_slot[index - db.nh_start];
  return {index, db.nh_slot(index), node == kNoNode ? nullptr : &db.nhs[node]};
}

TunnelView tunnel_at(const Database &db, std::uint32_t number) {
  const TunnelNode &node = db.tunnels[number];
  return {&node, db.tunnel_slot(node.egr_tun)};
}

std::string stack_text(const mpls_tunnel_key_t &tunnel) {
  if (tunnel.out_label3 != 0) {
    return fmt::format("{}/{}", std::uint32_t{tunnel.out_label3}, std::uint32_t{tunnel.out_label2});
  }
  return tunnel.out_label2 != 0 ? fmt::format("{}", std::uint32_t{tunnel.out_label2}) : "-";
}

std::array<std::uint32_t, 3> labels_of(const Database &db, const NhView &nh) {
  const std::uint32_t label1 = nh.slot->out_label1;
  if (nh.node != nullptr) {
    const mpls_tunnel_key_t &key = db.tunnels[nh.node->tunnel].key;
    return {label1, key.out_label2, key.out_label3};
  }
  const egr_tun_info_t *const slot = db.tunnel_slot(nh.slot->egr_tun);
  return slot == nullptr ? std::array<std::uint32_t, 3>{label1, 0, 0}
                         : std::array<std::uint32_t, 3>{label1, slot->out_label2, slot->out_label3};
}

std::string stack_text(const Database &db, const NhView &nh) {
  const std::array<std::uint32_t, 3> label = labels_of(db, nh);
  std::string text = label[2] != 0 ? fmt::format("{}/", label[2]) : "";
  text += label[1] != 0 ? fmt::format("{}/", label[1]) : "";
  return text + fmt::format("{}", label[0]);
}

std::string holders_text(const Window &window, const NhView &nh) {
  std::string text;
  std::uint64_t held = 0;
  for (const Holder &holder : holders_of(window.view, window.clients, nh.index)) {
    held += holder.held;
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", printable(holder.name), holder.held);
    text += holder.stale != 0 ? fmt::format(" ({} stale)", holder.stale) : "";
  }
  if (nh.slot->ref_count > held) {
    text += fmt::format("{}no client {}", text.empty() ? "" : ", ", nh.slot->ref_count - held);
  }
  return text.empty() ? "-" : text;
}

Json nh_json(const Window &window, const NhView &nh) {
  const egr_nh_info_t &slot = *nh.slot;
  const std::array<std::uint32_t, 3> label = labels_of(window.db, nh);
  Json holders = Json::array();
  for (const Holder &holder : holders_of(window.view, window.clients, nh.index)) {
    holders.push_back({{"name", holder.name}, {"held", holder.held}, {"stale", holder.stale}});
  }
  return {{"nh", nh.index},
          {"valid", slot.valid != 0},
          {"in_tree", nh.node != nullptr},
          {"tunnel", slot.egr_tun},
          {"ref_count", slot.ref_count},
          {"ifh", slot.ifh},
          {"label1", label[0]},
          {"label2", label[1]},
          {"label3", label[2]},
          {"te_label", std::uint32_t{slot.te_local_label}},
          {"protocol", std::uint32_t{slot.protocol}},
          {"failover", slot.is_failover_nh != 0},
          {"l2vpn_pref_path", slot.is_l2vpn_pref_path != 0},
          {"seed_nh", slot.seed_nh},
          {"failover_nh", slot.failover_nh},
          {"failover_id", std::uint32_t{slot.failover_id}},
          {"protected_te", slot.is_protected_te_nh != 0},
          {"holders", holders}};
}

Json tunnel_json(const TunnelView &tunnel) {
  const mpls_tunnel_key_t &key = tunnel.node->key;
  Json fields = {{"tunnel", tunnel.node->egr_tun},
                 {"ifh", key.ifh},
                 {"label2", std::uint32_t{key.out_label2}},
                 {"label3", std::uint32_t{key.out_label3}},
                 {"nhs", tunnel.node->nh_count},
                 {"valid", nullptr},
                 {"ref_count", nullptr}};
  if (tunnel.slot != nullptr) {
    fields["valid"] = tunnel.slot->valid != 0;
    fields["ref_count"] = tunnel.slot->ref_count;
  }
  return fields;
}

}  // namespace encapctl
