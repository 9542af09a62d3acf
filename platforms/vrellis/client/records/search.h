// How a look searches a tree of the window, whose words may change meanwhile or be damaged.
#ifndef VRELLIS_CLIENT_SEARCH_H
#define VRELLIS_CLIENT_SEARCH_H

#include <cstdint>
#include <cstring>

#include "window.h"

namespace clients {

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

struct SearchKey {
  std::uint64_t first;
  std::uint32_t last;  // 0 in the key of an NH
};

inline SearchKey first_of(const void *bytes) {
  std::uint64_t first;
  std::memcpy(&first, bytes, sizeof first);
  return {__builtin_bswap64(first), 0};
}

template <typename Node>
inline constexpr bool kIsTunnel = sizeof(Node) == sizeof(mpls_tunnel_entry_t);

inline constexpr unsigned kMostLevels = 48;  // of a tree with 2^32 nodes, and more

// Out: *found, 0 when the key is not there. Returns: 0; EINVAL when the tree is damaged, or has changed meanwhile.
template <typename Node, typename Look>
[[gnu::always_inline]] inline int search(Look &look, std::uint64_t root, const SearchKey &key, std::uint64_t *found) {
  constexpr std::uint64_t kFirst = offsetof(Node, key);
  *found = 0;
  std::uint64_t node = look.word(root);
  prefetch_around(node);
  for (unsigned levels = 0; node != 0; ++levels) {
    if (levels == kMostLevels || !is_record<Node>(look.window(), node)) {
      return EINVAL;
    }
    const std::uint64_t before = look.word(node);
    const std::uint64_t behind = look.word(node + 8);
    prefetch_node(before);
    prefetch_node(behind);
    const std::uint64_t first = __builtin_bswap64(look.word(node + kFirst));
    const std::uint32_t last = kIsTunnel<Node> ? __builtin_bswap32(look.half(node + kFirst + 8)) : 0;
    if (first == key.first && last == key.last) {
      *found = node;
      return 0;
    }
    const bool after = key.first > first || (key.first == first && key.last > last);
    node = __builtin_expect_with_probability(after, 1, 0.5) ? behind : before;
  }
  return 0;
}

}  // namespace clients

#endif
