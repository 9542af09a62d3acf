// What a look reads, and a search under the lock: trees and slots, whose words may be damaged. Without the lock they
// may change meanwhile, too.
#ifndef VRELLIS_CLIENT_SEARCH_H
#define VRELLIS_CLIENT_SEARCH_H

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "known.h"
#include "lookup.h"
#include "window.h"

namespace clients {

inline constexpr int kAgain = -1;  // a writer went on during the look

// Any address will do: it is prefetched and not followed.
inline const void *at_any(std::uint64_t address) {
  return reinterpret_cast<const void *>(address);
}

// A node's key ends within 36 bytes of its beginning, and so in one or two cache lines.
[[gnu::always_inline]] inline void prefetch_node(std::uint64_t node) {
  constexpr std::uint64_t kKeyEnd = 32;
  __builtin_prefetch(at_any(node));
  __builtin_prefetch(at_any(node + kKeyEnd));
}

// In a big window a tree is seldom in the caches, but the nodes of an NH tree lie close together.
[[gnu::always_inline]] inline void prefetch_around(std::uint64_t top) {
  constexpr std::uint64_t kBigWindow = std::uint64_t{16} << 20;
  constexpr std::uint64_t kAround = std::uint64_t{5} * 64;  // five cache lines on either side
  if (extent.bytes >= kBigWindow) {
    for (std::uint64_t place = top - kAround; place <= top + kAround; place += 64) {
      __builtin_prefetch(at_any(place));
    }
  }
}

template <typename Node>
inline constexpr bool kIsTunnel = sizeof(Node) == sizeof(mpls_tunnel_entry_t);

inline constexpr unsigned kMostLevels = 48;  // of a tree with 2^32 nodes, and more

// The key of a node, which may be damaged, but lies in the window.
template <typename Node, typename Look>
[[gnu::always_inline]] inline SearchKey key_at(Look &look, std::uint64_t node) {
  const std::uint64_t key = node + offsetof(Node, key);
  return {__builtin_bswap64(look.word(key)), kIsTunnel<Node> ? __builtin_bswap32(look.half(key + 8)) : 0};
}

// Searches the tree below `node`, which may be 0. Out: *found, 0 when the key is not there; *end, the last node that
// was looked at. Returns: 0; EINVAL when the tree is damaged, or has changed meanwhile.
template <typename Node, typename Look>
[[gnu::always_inline]] inline int search(Look &look, std::uint64_t node, const SearchKey &key, std::uint64_t *found,
                                         std::uint64_t *end) {
  *found = 0;
  *end = 0;
  prefetch_around(node);
  for (unsigned levels = 0; node != 0; ++levels) {
    if (levels == kMostLevels || !is_record<Node>(look.window(), node)) {
      return EINVAL;
    }
    *end = node;
    const std::uint64_t before = look.word(node);
    const std::uint64_t behind = look.word(node + 8);
    prefetch_node(before);
    prefetch_node(behind);
    const SearchKey here = key_at<Node>(look, node);
    if (here == key) {
      *found = node;
      return 0;
    }
    const bool after = key > here;
    node = __builtin_expect_with_probability(after, 1, 0.5) ? behind : before;
  }
  return 0;
}

// Finds a tunnel, where it was found last or from the top on. Out and returns: as search().
template <typename Look>
[[gnu::always_inline]] inline int find_tunnel(Look &look, const SearchKey &key, std::uint64_t *found,
                                              std::uint64_t *end) {
  const std::uint64_t known = look.known_tunnel(key);
  if (known != 0 && key_at<mpls_tunnel_entry_t>(look, known) == key) {
    *found = *end = known;
    return 0;
  }
  const int status = search<mpls_tunnel_entry_t>(look, look.root_of_tunnels(), key, found, end);
  look.learn(key, *found);
  return status;
}

template <typename Look, typename Record>
Record copy(Look &look, const Record *record) {
  std::uint32_t words[sizeof(Record) / 4];
  for (std::size_t i = 0; i < sizeof(Record) / 4; ++i) {
    words[i] = look.half(address_of(record) + 4 * i);
  }
  Record made;
  std::memcpy(&made, words, sizeof made);
  return made;
}

inline std::uint64_t tunnel_field() {
  return address_of(&egress_encap_db->tun_root);
}

struct Seen {
  std::uint32_t nh = UINT32_MAX;
  std::uint32_t tunnel = UINT32_MAX;
};

// A process without a client links a node before it fills its index, and unlinks the last NH before its tunnel: an
// encapsulation without its indexes is not there yet.
template <typename Look>
int look_for(Look &look, const egress_encap_key_t &key, Seen &seen) {
  if (!look.watch(tunnel_field())) {
    return kAgain;
  }
  std::uint64_t end = 0;
  std::uint64_t tunnel = 0;
  int status = find_tunnel(look, tunnel_part(key), &tunnel, &end);
  if (status != 0 || tunnel == 0) {
    return status != 0 ? status : ENOENT;
  }
  const std::uint64_t nhs = tunnel + offsetof(mpls_tunnel_entry_t, nh_root);
  if (!look.watch_too(nhs)) {
    return kAgain;
  }
  std::uint64_t nh = 0;
  status = search<mpls_nh_entry_t>(look, look.word(nhs), nh_part(key), &nh, &end);
  if (status != 0) {
    return status;
  }
  const std::uint32_t tunnel_index = look.half(tunnel + offsetof(mpls_tunnel_entry_t, egr_tun)) & 0xffff;
  if ((tunnel_index == 0) != is_on_null_tunnel(key) || !look.window().has_tunnel(tunnel_index)) {
    return ENOENT;
  }
  seen.tunnel = tunnel_index;
  const std::uint32_t nh_index = nh != 0 ? look.half(nh + offsetof(mpls_nh_entry_t, nh_index)) : UINT32_MAX;
  if (nh == 0 || !look.window().has_nh(nh_index)) {
    return ENOENT;
  }
  seen.nh = nh_index;
  return 0;
}

struct Slots {
  egr_nh_info_t nh;
  egr_tun_info_t tunnel;
};

// A damaged address of an array is computed with and not followed.
template <typename Slot>
const Slot *slot_at(std::uint64_t array, std::uint32_t number) {
  return at<Slot>(array + std::uint64_t{number} * sizeof(Slot));
}

inline const egr_tun_info_t *tunnel_slot_at(std::uint32_t tunnel) {
  const std::uint32_t number = (tunnel == 0 ? extent.tunnel_end : tunnel) - extent.tunnel_start;
  return extent.has_tunnel(tunnel) ? slot_at<egr_tun_info_t>(extent.tunnel_slots, number) : nullptr;
}

template <typename Look>
int look_at(Look &look, std::uint32_t nh, Slots &slots) {
  const auto *const nh_record = slot_at<egr_nh_info_t>(extent.nh_slots, nh - extent.nh_start);
  if (nh_record == nullptr) {
    return EINVAL;
  }
  if (!look.watch(address_of(nh_record))) {
    return kAgain;
  }
  slots.nh = copy(look, nh_record);
  if (slots.nh.valid == 0) {
    return ENOENT;
  }
  const auto *const tunnel = tunnel_slot_at(slots.nh.egr_tun);
  if (tunnel == nullptr) {
    return EINVAL;
  }
  slots.tunnel = copy(look, tunnel);
  return 0;
}

}  // namespace clients

#endif
