// What the services know of the windows that this process has mapped. For the services alone.
#ifndef VRELLIS_SHMWIN_ATTACHED_H
#define VRELLIS_SHMWIN_ATTACHED_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "shmwin.h"

namespace vrellis {

// The tree service's area in each window's header: its undo log. Zeroed at format, otherwise the tree service's.
inline constexpr std::size_t kTreeAreaBytes = 12288;

struct WindowHeader;

// One attached window. Written by attach and detach only, which no other thread of the process may run beside a use.
struct WindowMap {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;  // one past the window; begin == end: slot not in use
  std::uint32_t shm_id = 0;
  WindowHeader *header = nullptr;
  void *tree_area = nullptr;
};

// Slots 0..SHMWIN_MAX_WINDOWS-1; a process commonly has one window, in slot 0.
extern WindowMap window_maps[SHMWIN_MAX_WINDOWS];

inline bool covers(const WindowMap &map, std::uintptr_t address) {
  return address - map.begin < map.end - map.begin;
}

// The attached window that `address` lies in, or nullptr. Slot 0 is the fast path.
inline const WindowMap *window_of(const void *address) {
  const auto word = reinterpret_cast<std::uintptr_t>(address);
  for (const WindowMap &map : window_maps) {
    if (covers(map, word)) {
      return &map;
    }
  }
  return nullptr;
}

}  // namespace vrellis

#endif
