// What a process remembers of the tunnel tree while the tree keeps its version (services/avl/undo/versions.h): the
// address of its top node, and of the tunnels that were found last. So a tunnel that is known is found by one
// comparison, and a look leaves the cache line alone in which the lock and the root field lie.
//
// It lies in the memory of the process. Any thread may read and write it.
#ifndef VRELLIS_CLIENT_KNOWN_H
#define VRELLIS_CLIENT_KNOWN_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "mpls_egress_encap_db.h"
#include "window.h"

namespace clients {

// A key as numbers that order like its bytes in memory, as the trees do.
struct SearchKey {
  std::uint64_t first;
  std::uint32_t last;  // 0 in the key of an NH

  bool operator==(const SearchKey &other) const { return first == other.first && last == other.last; }
  bool operator>(const SearchKey &other) const {
    return first > other.first || (first == other.first && last > other.last);
  }
};

inline std::uint64_t number_of(const char *bytes) {
  std::uint64_t number;
  std::memcpy(&number, bytes, sizeof number);
  return __builtin_bswap64(number);
}

// The two parts of a full key.
inline SearchKey nh_part(const egress_encap_key_t &key) {
  return {number_of(reinterpret_cast<const char *>(&key)), 0};
}
inline SearchKey tunnel_part(const egress_encap_key_t &key) {
  return {number_of(reinterpret_cast<const char *>(&key) + sizeof(mpls_nh_key_t)), __builtin_bswap32(key.ifh)};
}

// The address of a node of the tree at one version. 16 bytes.
class KnownNode {
 public:
  // Returns: 0 when it is not known.
  std::uint64_t at(std::uint64_t version) const {
    if (__atomic_load_n(&version_, __ATOMIC_ACQUIRE) != version) {
      return 0;
    }
    const std::uint64_t node = __atomic_load_n(&node_, __ATOMIC_ACQUIRE);
    return __atomic_load_n(&version_, __ATOMIC_RELAXED) == version ? node : 0;
  }

  // Requires an even version. The version of an empty tree stays as it is when the first node comes.
  void remember(std::uint64_t version, std::uint64_t node) {
    if (node != 0 && __atomic_exchange_n(&version_, kBusy, __ATOMIC_ACQ_REL) != kBusy) {
      __atomic_store_n(&node_, node, __ATOMIC_RELEASE);
      __atomic_store_n(&version_, version, __ATOMIC_RELEASE);
    }
  }

 private:
  static constexpr std::uint64_t kBusy = 1;  // another thread writes it

  std::uint64_t version_;
  std::uint64_t node_;
};

// Tunnels by the hash of their keys; the last one found has the place of its hash. A node may be that of another key.
struct KnownTunnels {
  KnownNode top;
  KnownNode *nodes;
  unsigned shift;

  // With two places for each tunnel index, but at most 1 MiB. Returns: false when the process has no memory.
  bool make() {
    constexpr std::uint32_t kMostPlaces = 1U << 16;
    const std::uint32_t tunnels = extent.tunnel_end - extent.tunnel_start;
    const std::uint32_t made = std::min(std::bit_ceil(2 * tunnels + 1), kMostPlaces);
    shift = 64U - static_cast<unsigned>(std::countr_zero(made));
    nodes = static_cast<KnownNode *>(std::calloc(made, sizeof(KnownNode)));
    return nodes != nullptr;
  }
  std::size_t places() const { return std::size_t{1} << (64U - shift); }

  KnownNode &of(const SearchKey &key) const {
    constexpr std::uint64_t kGolden = 0x9e3779b97f4a7c15;
    return nodes[((key.first ^ key.last * kGolden) * kGolden) >> shift];
  }
};

}  // namespace clients

#endif
