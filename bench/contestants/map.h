// boost::interprocess::map on two levels, as the database itself is built.
#ifndef ENCAP_BENCH_MAP_H
#define ENCAP_BENCH_MAP_H

#include <boost/interprocess/containers/map.hpp>

#include "contestants/boost.h"

namespace encap_bench {

// Tunnels, each with the map of its NHs; an NH map's size is the tunnel's reference count.
template <typename Build>
class MapStore {
 public:
  static constexpr const char *kName = "map";

  MapStore(SegmentManager<Build> *manager, const Workload &)
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

using DocumentedMap = BoostContestant<MapStore, Documented>;
using FixedMap = BoostContestant<MapStore, PooledFixed>;

}  // namespace encap_bench

#endif
