// Fetches what a look in a tree will read next. Any address will do: it is prefetched and not followed.
#ifndef VRELLIS_CLIENT_PREFETCH_H
#define VRELLIS_CLIENT_PREFETCH_H

#include <cstdint>

#include "window.h"

namespace clients {

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

}  // namespace clients

#endif
