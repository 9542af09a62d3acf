#include "snapshot.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "database_lock.h"

namespace demo {
namespace {

template <typename Slot>
bool all_zero(const Slot &slot) {
  const Slot zero{};
  return std::memcmp(&slot, &zero, sizeof slot) == 0;
}

void read_nhs(const egress_encap_db_t &db, Snapshot &seen) {
  for (std::uint32_t index = db.nh_start; index < db.nh_end; ++index) {
    const egr_nh_info_t &slot = db.nh_info_array[index - db.nh_start];
    seen.dirty_slots += slot.valid == 0 && !all_zero(slot);
    egress_encap_key_t key{};
    egress_encap_aux_data_t aux{};
    if (slot.valid != 0 && vrl_get_encap_key_and_aux_data_from_nh(index, &aux, &key) == 0) {
      ++seen.valid_nh_slots;
      seen.nhs[key_of(key)] = {index, aux.egr_tun, slot.ref_count};
    }
  }
}

void read_tunnels(const egress_encap_db_t &db, Snapshot &seen) {
  for (std::uint32_t index = db.tun_start; index < db.tun_end; ++index) {
    const egr_tun_info_t &slot = db.tun_info_array[index - db.tun_start];
    seen.dirty_slots += slot.valid == 0 && !all_zero(slot);
    if (slot.valid != 0) {
      seen.tunnels[index] = slot.ref_count;
    }
  }
  seen.null_tunnel = db.tun_info_array[db.tun_end - db.tun_start];
}

std::string text_of(const Key &key) {
  const auto &[ifh, label3, label2, label1] = key;
  const std::string above =
      label3 != 0 ? fmt::format("{}/{}/", label3, label2) : (label2 != 0 ? fmt::format("{}/", label2) : std::string());
  return fmt::format("{}{}", above, label1);
}

void compare_nhs(const Snapshot &seen, const Model &model, Report &report) {
  report.expect("NHs in the database", model.nhs().size(), seen.nhs.size());
  report.expect("valid NH slots", model.nhs().size(), std::size_t{seen.valid_nh_slots});
  for (const auto &[key, users] : model.nhs()) {
    const std::string name = fmt::format("{} on ifh {:#x}", text_of(key), key[0]);
    const auto nh = seen.nhs.find(key);
    if (!report.expect_true("in the database: " + name, nh != seen.nhs.end())) {
      continue;
    }
    report.expect("references of " + name, users[0] + users[1], nh->second.ref_count);
    report.expect("on the null tunnel: " + name, on_null_tunnel(key), nh->second.egr_tun == 0);
  }
}

void compare_tunnels(const Snapshot &seen, const Model &model, Report &report) {
  report.expect("tunnels in the database", model.labelled_tunnels(), seen.tunnels.size());
  report.expect("NHs on the null tunnel", model.nhs_on_null_tunnel(), seen.null_tunnel.ref_count);
  std::map<std::uint32_t, std::uint32_t> nhs_on;
  std::map<std::uint32_t, Tunnel> key_of_index;
  for (const auto &[key, nh] : seen.nhs) {
    if (nh.egr_tun != 0) {
      ++nhs_on[nh.egr_tun];
      const Tunnel &first = key_of_index.try_emplace(nh.egr_tun, tunnel_of(key)).first->second;
      report.expect_true(fmt::format("tunnel {} has one key", nh.egr_tun), first == tunnel_of(key));
    }
  }
  report.expect_true("each tunnel counts the NHs on it", nhs_on == seen.tunnels);
}

}  // namespace

Snapshot take_snapshot() {
  const DatabaseLock lock;
  const egress_encap_db_t &db = *egress_encap_db;
  Snapshot seen;
  read_nhs(db, seen);
  read_tunnels(db, seen);
  seen.tunnel_tree_empty = db.tun_root == nullptr;
  shmwin_stat(db.shm_id, &seen.usage);
  return seen;
}

void compare(const Snapshot &seen, const Model &model, Report &report) {
  const std::uint32_t failures = report.failures();
  compare_nhs(seen, model, report);
  compare_tunnels(seen, model, report);
  report.expect("slots neither valid nor zero", 0u, seen.dirty_slots);
  report.expect("blocks of NH nodes", std::uint64_t{model.nhs().size()}, seen.usage.nodes40);
  report.expect("blocks of tunnel nodes", std::uint64_t{model.tunnel_keys()}, seen.usage.nodes56);
  report.expect("blocks of arrays", std::uint64_t{2}, seen.usage.arrays);
  if (report.failures() == failures) {
    report.line("database  {} NHs, {} of them used by both; {} tunnels, {} NHs on the null tunnel; {} references",
                seen.nhs.size(), model.used_by_both(), seen.tunnels.size(), seen.null_tunnel.ref_count,
                model.references());
    report.line("          every key, index and count is what the routes say");
  }
}

void expect_empty(const Snapshot &seen, bool null_tunnel_was_used, Report &report) {
  egr_tun_info_t null_tunnel{};
  null_tunnel.valid = null_tunnel_was_used;
  report.expect("valid NH slots", 0u, seen.valid_nh_slots);
  report.expect("valid tunnel slots", std::size_t{0}, seen.tunnels.size());
  report.expect("slots neither valid nor zero", 0u, seen.dirty_slots);
  report.expect_true("the null tunnel slot is as its last NH left it",
                     std::memcmp(&seen.null_tunnel, &null_tunnel, sizeof null_tunnel) == 0);
  report.expect_true("the tunnel tree is empty", seen.tunnel_tree_empty);
  report.expect("blocks of NH nodes", std::uint64_t{0}, seen.usage.nodes40);
  report.expect("blocks of tunnel nodes", std::uint64_t{0}, seen.usage.nodes56);
  report.expect("blocks of arrays", std::uint64_t{2}, seen.usage.arrays);
  report.expect("wrong releases", std::uint64_t{0}, seen.usage.bad_releases);
}

void print_table(const Snapshot &seen, const Model &model, const Plan &plan, std::size_t rows, Report &report) {
  std::vector<std::pair<Key, Snapshot::Nh>> nhs(seen.nhs.begin(), seen.nhs.end());
  std::ranges::stable_sort(nhs, std::ranges::greater{}, [](const auto &nh) { return nh.second.ref_count; });
  nhs.resize(std::min(rows, nhs.size()));
  report.gap();
  report.line("{:>6}  {:>6}  {:<22} {:<10} {:>10}  {:>9}  {:>9}", "NH", "tunnel", "labels", "interface", "references",
              "through A", "through B");
  for (const auto &[key, nh] : nhs) {
    const Model::Users users = model.nhs().contains(key) ? model.nhs().at(key) : Model::Users{};
    report.line("{:>6}  {:>6}  {:<22} {:<10} {:>10}  {:>9}  {:>9}", nh.nh_index,
                nh.egr_tun == 0 ? "null" : std::to_string(nh.egr_tun), text_of(key),
                plan.routes.interfaces.at(key[0] - route_file::kFirstIfh), nh.ref_count, users[0], users[1]);
  }
}

}  // namespace demo
