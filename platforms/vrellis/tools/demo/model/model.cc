#include "model.h"

#include <algorithm>
#include <map>
#include <set>

#include "shmwin.h"

namespace demo {
namespace {

bool is_labelled(const Model::Key &key) {
  return key[0] != 0 || key[1] != 0;
}

bool same_tunnel(const Model::Key &a, const Model::Key &b) {
  return std::equal(a.begin(), a.begin() + 3, b.begin());
}

}  // namespace

void Model::enter(std::uint32_t worker, const route_file::Hop &hop) {
  ++nhs_[key_of(route_file::key_of(hop))][worker];
}

Model::Gone Model::withdraw(std::uint32_t worker, const Key &key) {
  const auto nh = nhs_.find(key);
  if (nh == nhs_.end()) {
    return {false, false};
  }
  --nh->second[worker];
  if (nh->second[kA] + nh->second[kB] > 0) {
    return {false, false};
  }
  nhs_.erase(nh);
  return {true, is_labelled(key) &&
                    std::ranges::none_of(nhs_, [&](const auto &other) { return same_tunnel(other.first, key); })};
}

std::uint32_t Model::lose(std::uint32_t worker) {
  for (auto &[key, users] : nhs_) {
    users[worker] = 0;
  }
  return static_cast<std::uint32_t>(
      std::erase_if(nhs_, [](const auto &nh) { return nh.second[kA] + nh.second[kB] == 0; }));
}

std::uint32_t Model::held(std::uint32_t worker) const {
  std::uint32_t sum = 0;
  for (const auto &[key, users] : nhs_) {
    sum += users[worker];
  }
  return sum;
}

void Model::compare(encap_client_t *client, Report &report) const {
  const egress_encap_db_t &db = *egress_encap_db;
  const std::uint32_t failures = report.failures();
  std::set<Key> seen;
  std::set<std::uint32_t> tunnels;
  for (std::uint32_t index = db.nh_start; index < db.nh_end; ++index) {
    egress_encap_key_t stored{};
    egress_encap_aux_data_t aux{};
    if (db.nh_info_array[index - db.nh_start].valid != 0 &&
        report.expect("status of a read", 0, vrl_get_encap_key_and_aux_data_from_nh(index, &aux, &stored))) {
      const Key key = key_of(stored);
      const auto expected = nhs_.find(key);
      report.expect(fmt::format("references of NH {}", index),
                    expected == nhs_.end() ? 0 : expected->second[kA] + expected->second[kB],
                    std::uint32_t{db.nh_info_array[index - db.nh_start].ref_count});
      report.expect(fmt::format("NH {} is on a labelled tunnel", index), is_labelled(key), aux.egr_tun != 0);
      report.expect_true(fmt::format("NH {} has a key of its own", index), seen.insert(key).second);
      tunnels.insert(aux.egr_tun);
    }
  }
  report.expect("NHs in the database", nhs_.size(), seen.size());
  encap_client_info_t clients[ENCAP_CLIENT_MAX] = {};
  std::uint32_t count = 0;
  report.expect("status of the list", 0, encap_client_list(client, clients, ENCAP_CLIENT_MAX, &count));
  for (const std::uint32_t worker : {kA, kB}) {
    const auto *const found = std::find_if(
        clients, clients + count, [&](const auto &info) { return info.name == std::string(kClientNames[worker]); });
    report.expect(fmt::format("references that {} holds", kClientNames[worker]), std::uint64_t{held(worker)},
                  found == clients + count ? 0 : found->held);
  }
  shmwin_stat_t usage{};
  report.expect("status of the window's figures", 0, shmwin_stat(db.shm_id, &usage));
  report.expect("blocks of NH nodes", std::uint64_t{nhs_.size()}, usage.nodes40);
  if (report.failures() == failures) {
    report.line("database  {} NHs on {} tunnels; worker-A holds {} references, worker-B {}", seen.size(),
                tunnels.size() - tunnels.count(0), held(kA), held(kB));
    report.line("          every key, count and ledger is what the routes say");
  }
}

}  // namespace demo
