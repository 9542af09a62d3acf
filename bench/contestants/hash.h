// boost::unordered_map in a managed segment, flat: one table of NHs with the full key. A second table keeps the
// tunnels, which a miss, an insert and a release need and a hit does not.
#ifndef ENCAP_BENCH_HASH_H
#define ENCAP_BENCH_HASH_H

#include <boost/unordered_map.hpp>

#include "contestants/boost.h"

namespace encap_bench {

template <typename Build>
class HashStore {
 public:
  static constexpr const char *kName = "unordered_map";

  // reserve(): no rehash ever falls into a measurement.
  HashStore(SegmentManager<Build> *manager, const Workload &workload)
      : nhs_(0, KeyHash{}, KeyEqual{}, NhAllocator(manager)),
        tunnels_(0, TunnelHash{}, TunnelEqual{}, TunnelAllocator(manager)) {
    nhs_.reserve(workload.nh_room());
    tunnels_.reserve(workload.tunnel_room);
  }

  Found look(const Key &key, NhRecord *&record) {
    const auto nh = nhs_.find(key);
    if (nh != nhs_.end()) {
      record = &nh->second;
      return {true, true, nh->second.nh, nh->second.tun};
    }
    record = nullptr;
    const auto tunnel = tunnels_.find(tunnel_part(key));
    return tunnel == tunnels_.end() ? Found{} : Found{false, true, 0, tunnel->second.tun};
  }

  bool enter(const Encap &encap, std::uint32_t users) {
    if (!nhs_.emplace(encap.key, record_of(encap, users)).second) {
      return false;
    }
    ++tunnels_.try_emplace(tunnel_part(encap.key), Tunnel{encap.tun, 0}).first->second.nhs;
    return true;
  }

  bool leave(const Encap &encap, bool at_once) {
    const auto nh = nhs_.find(encap.key);
    if (nh == nhs_.end()) {
      return false;
    }
    if (at_once || --nh->second.users == 0) {
      nhs_.erase(nh);
      const auto tunnel = tunnels_.find(tunnel_part(encap.key));
      if (--tunnel->second.nhs == 0) {
        tunnels_.erase(tunnel);
      }
    }
    return true;
  }

 private:
  struct Tunnel {
    std::uint32_t tun;
    std::uint32_t nhs;
  };

  // One multiplication a word, folded: every bit of the key reaches the bits that choose the bucket.
  __extension__ using Product = unsigned __int128;
  static std::uint64_t mix(std::uint64_t word, std::uint64_t seed) {
    const Product product = static_cast<Product>(word ^ seed) * 0x9e3779b97f4a7c15U;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
  }
  struct TunnelHash {
    std::size_t operator()(const mpls_tunnel_key_t &key) const { return mix(two_words(&key), mix(key.ifh, 1)); }
  };
  struct KeyHash {
    std::size_t operator()(const Key &key) const { return mix(two_words(&key), TunnelHash{}(tunnel_part(key))); }
  };
  struct TunnelEqual {
    bool operator()(const mpls_tunnel_key_t &a, const mpls_tunnel_key_t &b) const {
      return two_words(&a) == two_words(&b) && a.ifh == b.ifh;
    }
  };
  struct KeyEqual {
    bool operator()(const Key &a, const Key &b) const {
      return two_words(&a) == two_words(&b) && TunnelEqual{}(tunnel_part(a), tunnel_part(b));
    }
  };
  using NhAllocator = typename Build::template Allocator<std::pair<const Key, NhRecord>>;
  using TunnelAllocator = typename Build::template Allocator<std::pair<const mpls_tunnel_key_t, Tunnel>>;

  boost::unordered_map<Key, NhRecord, KeyHash, KeyEqual, NhAllocator> nhs_;
  boost::unordered_map<mpls_tunnel_key_t, Tunnel, TunnelHash, TunnelEqual, TunnelAllocator> tunnels_;
};

using FlatHash = BoostContestant<HashStore, Pooled>;

}  // namespace encap_bench

#endif
