// boost::interprocess::map: two levels, as the database itself, and one level with the full key.
#ifndef ENCAP_BENCH_CONTESTANT_MAP_H
#define ENCAP_BENCH_CONTESTANT_MAP_H

#include <boost/interprocess/containers/map.hpp>

#include "contestant_boost.h"

namespace encap_bench {

// Tunnels, each with the map of its NHs; an NH map's size is the tunnel's reference count.
template <typename Build>
class TwoLevelStore {
 public:
  static constexpr const char *kName = "map, two-level";

  TwoLevelStore(SegmentManager<Build> *manager, const Workload &)
      : nh_allocator_(manager), tunnels_(TunnelLess{}, TunnelAllocator(manager)) {}

  Found look(const Key &key, NhRecord *&record) {
    record = nullptr;
    const auto tunnel = tunnels_.find(tunnel_part(key));
    if (tunnel == tunnels_.end()) {
      return {};
    }
    const auto nh = tunnel->second.nhs.find(nh_part(key));
    if (nh == tunnel->second.nhs.end()) {
      return {false, true, 0, tunnel->second.tun};
    }
    record = &nh->second;
    return {true, true, nh->second.nh, tunnel->second.tun};
  }

  bool enter(const Encap &encap, std::uint32_t users) {
    const auto tunnel = tunnels_.try_emplace(tunnel_part(encap.key), encap.tun, nh_allocator_).first;
    return tunnel->second.nhs.emplace(nh_part(encap.key), record_of(encap, users)).second;
  }

  bool leave(const Encap &encap, bool at_once) {
    const auto tunnel = tunnels_.find(tunnel_part(encap.key));
    if (tunnel == tunnels_.end()) {
      return false;
    }
    auto &nhs = tunnel->second.nhs;
    const auto nh = nhs.find(nh_part(encap.key));
    if (nh == nhs.end()) {
      return false;
    }
    if (at_once || --nh->second.users == 0) {
      nhs.erase(nh);
      if (nhs.empty()) {
        tunnels_.erase(tunnel);
      }
    }
    return true;
  }

 private:
  using NhAllocator = typename Build::template Allocator<std::pair<const mpls_nh_key_t, NhRecord>>;
  using NhMap = ipc::map<mpls_nh_key_t, NhRecord, NhLess, NhAllocator>;
  struct Tunnel {
    Tunnel(std::uint32_t index, const NhAllocator &allocator) : tun(index), nhs(NhLess{}, allocator) {}
    std::uint32_t tun;
    NhMap nhs;
  };
  using TunnelAllocator = typename Build::template Allocator<std::pair<const mpls_tunnel_key_t, Tunnel>>;

  NhAllocator nh_allocator_;
  ipc::map<mpls_tunnel_key_t, Tunnel, TunnelLess, TunnelAllocator> tunnels_;
};

// The tunnel first, so that a tunnel's NHs stand together: its neighbours tell whether the tunnel is there.
template <typename Build>
class FlatMapStore {
 public:
  static constexpr const char *kName = "map, flat";

  FlatMapStore(SegmentManager<Build> *manager, const Workload &) : nhs_(KeyLess{}, Allocator(manager)) {}

  Found look(const Key &key, NhRecord *&record) {
    record = nullptr;
    auto at = nhs_.lower_bound(key);
    if (at != nhs_.end() && !KeyLess{}(key, at->first)) {
      record = &at->second;
      return {true, true, at->second.nh, at->second.tun};
    }
    if (at != nhs_.end() && same_tunnel(at->first, key)) {
      return {false, true, 0, at->second.tun};
    }
    if (at != nhs_.begin() && same_tunnel((--at)->first, key)) {
      return {false, true, 0, at->second.tun};
    }
    return {};
  }

  bool enter(const Encap &encap, std::uint32_t users) {
    return nhs_.emplace(encap.key, record_of(encap, users)).second;
  }

  bool leave(const Encap &encap, bool at_once) {
    const auto nh = nhs_.find(encap.key);
    if (nh == nhs_.end()) {
      return false;
    }
    if (at_once || --nh->second.users == 0) {
      nhs_.erase(nh);
    }
    return true;
  }

 private:
  struct KeyLess {
    bool operator()(const Key &a, const Key &b) const {
      const mpls_tunnel_key_t tunnel_a = tunnel_part(a);
      const mpls_tunnel_key_t tunnel_b = tunnel_part(b);
      const std::uint64_t labels_a = two_words(&tunnel_a);
      const std::uint64_t labels_b = two_words(&tunnel_b);
      if (labels_a != labels_b) {
        return labels_a < labels_b;
      }
      return a.ifh != b.ifh ? a.ifh < b.ifh : two_words(&a) < two_words(&b);
    }
  };
  static bool same_tunnel(const Key &a, const Key &b) {
    const mpls_tunnel_key_t tunnel_a = tunnel_part(a);
    const mpls_tunnel_key_t tunnel_b = tunnel_part(b);
    return std::memcmp(&tunnel_a, &tunnel_b, sizeof tunnel_a) == 0;
  }
  using Allocator = typename Build::template Allocator<std::pair<const Key, NhRecord>>;

  ipc::map<Key, NhRecord, KeyLess, Allocator> nhs_;
};

using TwoLevelMap = BoostContestant<TwoLevelStore, Documented>;
using PooledTwoLevelMap = BoostContestant<TwoLevelStore, Pooled>;
using FixedTwoLevelMap = BoostContestant<TwoLevelStore, PooledFixed>;
using FlatMap = BoostContestant<FlatMapStore, Documented>;

}  // namespace encap_bench

#endif
