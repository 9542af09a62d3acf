#include "model.h"

#include <algorithm>
#include <numeric>
#include <set>

namespace demo {
namespace {

std::uint32_t total(const Model::Users &users) {
  return std::accumulate(users.begin(), users.end(), 0u);
}

}  // namespace

void Model::enter(std::uint32_t worker, const Key &key) {
  Users &users = nhs_[key];
  nhs_on_[counted_tunnel(key)] += total(users) == 0;
  ++users[worker];
}

Model::Gone Model::withdraw(std::uint32_t worker, const Key &key) {
  const auto nh = nhs_.find(key);
  --nh->second[worker];
  if (total(nh->second) > 0) {
    return {false, false};
  }
  nhs_.erase(nh);
  const auto tunnel = nhs_on_.find(counted_tunnel(key));
  if (--tunnel->second > 0) {
    return {true, false};
  }
  nhs_on_.erase(tunnel);
  return {true, true};
}

std::uint32_t Model::references() const {
  std::uint32_t sum = 0;
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    sum += references(worker);
  }
  return sum;
}

std::uint32_t Model::references(std::uint32_t worker) const {
  std::uint32_t sum = 0;
  for (const auto &[key, users] : nhs_) {
    sum += users[worker];
  }
  return sum;
}

std::size_t Model::used_by_both() const {
  return static_cast<std::size_t>(std::ranges::count_if(
      nhs_, [](const auto &nh) { return std::ranges::all_of(nh.second, [](std::uint32_t n) { return n > 0; }); }));
}

std::uint32_t Model::nhs_on_null_tunnel() const {
  const auto found = nhs_on_.find(kNullTunnel);
  return found == nhs_on_.end() ? 0 : found->second;
}

std::size_t Model::tunnel_keys() const {
  std::set<Tunnel> keys;
  for (const auto &[key, users] : nhs_) {
    keys.insert(tunnel_of(key));
  }
  return keys.size();
}

}  // namespace demo
