// What the services tell each other. Internal: a service that is replaced takes its part of this with it.
//
//   who tells       whom               what
//   windows         trees              which windows this process has mapped, and where each keeps its undo log
//   trees           windows            where the last searches ended, so that a new node is placed near its neighbours
//   trees           windows            whether a change of the whole window is open, so that each word is noted
//   trees, waits    trace              that an operation begins, or that a wait is over: a time stamp is due
//
// Each service includes this header instead of the other service's internal ones, so that includes go one way.
#ifndef VRELLIS_BETWEEN_SERVICES_H
#define VRELLIS_BETWEEN_SERVICES_H

#include <cstddef>
#include <cstdint>

#include "ltrace/thread_ring.h"  // trace_operation_begins(), trace_stamp_next(): they are inlined into each search

namespace vrellis {

inline constexpr std::size_t kMostWindows = 8;       // SHMWIN_MAX_WINDOWS
inline constexpr std::size_t kUserAreaBytes = 1024;  // SHMWIN_USER_AREA_BYTES

// The tree service's area in each window's header: its undo log. Zeroed when the window is formatted; after that only
// the tree service writes to it.
inline constexpr std::size_t kTreeAreaBytes = 16384;

// Its versions, likewise (avl/undo/versions.h): bytes from the window's begin, and how many words. The first eight hold
// the version of trees in the user area, which needs a cache line of its own.
inline constexpr std::size_t kUserAreaOffset = 1024;
inline constexpr std::size_t kVersionsOffset = 128;
inline constexpr std::size_t kOwnVersionWords = 8;
inline constexpr std::size_t kSharedVersions = 32;
inline constexpr std::size_t kVersionWords = kOwnVersionWords + kSharedVersions;
inline constexpr std::size_t kPlacesOfVersion = 64;  // so many neighbouring bytes share a version

struct WindowHeader;

// One attached window. Only attach and detach write it; no other thread of the process may use the window meanwhile.
struct WindowMap {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;  // one past the window; begin == end: this entry is not in use
  std::uint32_t shm_id = 0;
  WindowHeader *header = nullptr;
  void *tree_area = nullptr;  // the last part of the window's header
  void *user_area = nullptr;  // the only other part of the header in which root fields can lie
};

// A process commonly has one window, in entry 0.
extern WindowMap window_maps[kMostWindows];

inline bool covers(const WindowMap &map, std::uintptr_t address) {
  return address - map.begin < map.end - map.begin;
}

// The attached window that `address` lies in, or nullptr.
inline const WindowMap *window_of(const void *address) {
  const auto word = reinterpret_cast<std::uintptr_t>(address);
  for (const WindowMap &map : window_maps) {
    if (covers(map, word)) {
      return &map;
    }
  }
  return nullptr;
}

// Where the calling thread's searches ended: at the node found, or at the node that the searched key would hang under.
// A search of an empty tree changes nothing. The node may have been freed since, so the address is only compared.
struct SearchEnds {
  const void *last = nullptr;
  const void *previous = nullptr;  // of the search before: a caller that searches two trees in turn inserts in either
};

#define SERVICES_TLS __attribute__((tls_model("initial-exec"), visibility("hidden")))
SERVICES_TLS extern constinit thread_local SearchEnds search_ends;

// The change of a whole window that the calling thread has open (avl/avl_change.h).
struct OpenChange {
  const WindowMap *map = nullptr;                 // nullptr: none is open
  void (*before_commit)(bool commits) = nullptr;  // what the allocator has put off until then
  std::uint64_t versions = 0;                     // that are odd until then, by bits (avl/undo/versions.h)
  struct Searched {
    const void *top = nullptr;
    void *end = nullptr;
  } searched[2];  // what avl_change_searched() told of
};
SERVICES_TLS extern constinit thread_local OpenChange open_change;

// Notes a word of the open change's window in the undo log before it changes. Requires an open change.
void note_word(const std::uint64_t *word);

// Takes back what a process that died left open in the window. Does nothing inside a change of this thread.
void roll_window_back(const WindowMap &map);

// Does so if anything is open: the first word of the undo log is its count. Requires the lock of the window's trees.
inline void settle_window(const WindowMap &map) {
  if (*static_cast<const std::uint64_t *>(map.tree_area) != 0) [[unlikely]] {
    roll_window_back(map);
  }
}

}  // namespace vrellis

#endif
