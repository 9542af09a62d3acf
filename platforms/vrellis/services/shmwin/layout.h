// The window's layout, as it lies in the file and in every process that maps it. For the window service alone.
//
//          0 +-----------------------------+
//            | WindowHeader                |  identity, user area, table of processes, tree service's area
//      20480 +-----------------------------+
//            | page sets                   |  hints: pages with room for 40-byte nodes, for 56-byte nodes, free pages
//            +-----------------------------+  64-byte aligned
//            | PageDescriptor [heap_pages] |
//            +-----------------------------+  page aligned
//            | heap pages                  |
//       size +-----------------------------+
//
// What lies where follows from the size alone: an attached process computes it and believes no offset it reads.
//
// Invariants of the heap, at every instruction:
//   H1  A node is in use exactly when its bit in `used` of a page in a node state is set. Setting or clearing that bit
//       is the one store that takes or gives it.
//   H2  A run is in use exactly when its head's state says so. Storing that state is the one store that takes or gives
//       it. A tail belongs to the run of the head that it names, if that run covers it; else its page is free.
//   H3  A page is free when it is in state kFree, in a node state with no bit set, or a tail whose head does not cover
//       it.
//   H4  The page sets hold every page that belongs in them, and perhaps more: a page enters its set before the store
//       that makes it eligible and leaves it after the store that ends that. A search removes each page that it finds
//       in a set where the page does not belong.
//   H5  A member of a page set has its bit set in every level.
#ifndef VRELLIS_SHMWIN_LAYOUT_H
#define VRELLIS_SHMWIN_LAYOUT_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "between_services.h"
#include "shmwin.h"
#include "shmwin/store.h"

namespace vrellis {

inline constexpr std::uint64_t kWindowMagic = 0x314e49574c52560a;     // "\nVRLWIN1"
inline constexpr std::uint64_t kWindowComplete = 0x6574656c706d6f43;  // "Complete"
inline constexpr std::uint32_t kLayoutVersion = 2;
inline constexpr std::uint32_t kWordBits = 8 * sizeof(void *);
inline constexpr std::uint64_t kPageBytes = 4096;
inline constexpr std::size_t kMaxProcesses = 256;

// 20480 bytes. "fixed": written by format, before `complete`.
struct WindowHeader {
  // Identity: these 64 bytes keep their meaning in every layout version.
  std::uint64_t magic;          //     0  fixed
  std::uint32_t version;        //     8  fixed
  std::uint32_t word_bits;      //    12  fixed
  std::uint32_t mutex_bytes;    //    16  sizeof(pthread_mutex_t) of the creator; fixed
  std::uint32_t shm_id;         //    20  fixed
  std::uint64_t size;           //    24  bytes of the window and of its file; fixed
  std::uint64_t address;        //    32  fixed
  std::uint64_t pid_namespace;  //    40  inode of the creator's PID namespace; fixed
  std::uint64_t created;        //    48  nanoseconds since 1970; fixed
  std::uint64_t complete;       //    56  kWindowComplete, stored last by format; 0 before

  std::uint64_t heap_pages;  //    64  fixed
  std::uint64_t pages_used;  //    72  pages in use, under the user's lock; a death may leave it too high, never too low
  std::uint64_t high_water;  //    80  highest pages_used, under the user's lock
  std::uint64_t bad_releases;             //    88  under the user's lock
  std::uint64_t kept_pages;               //    96  pages that groups of nodes leave unused; 0: no groups; fixed
  std::uint64_t deaths;                   //   104  processes swept out of the table; raised without a lock
  std::uint64_t spare[2];                 //   112  0
  std::uint64_t versions[kVersionWords];  //   128  the tree service's, under the user's lock; readers take no lock
  std::uint64_t spare_words[72];          //   448  0

  std::uint8_t user_area[SHMWIN_USER_AREA_BYTES];  //  1024  the user's
  std::uint64_t process[kMaxProcesses];            //  2048  who is attached; changed by compare-and-swap alone
  std::uint8_t tree_area[kTreeAreaBytes];          //  4096  the tree service's
};
static_assert(offsetof(WindowHeader, complete) == 56);
static_assert(offsetof(WindowHeader, versions) == kVersionsOffset);
static_assert(offsetof(WindowHeader, user_area) == kUserAreaOffset);
static_assert(offsetof(WindowHeader, process) == 2048);
static_assert(offsetof(WindowHeader, tree_area) == 4096);
static_assert(sizeof(WindowHeader) == 20480);

// What a page is used for: the low byte of its state.
enum PageKind : std::uint8_t { kFree = 0, kNodes40 = 1, kNodes56 = 2, kRunHead = 3, kRunTail = 4 };

/*
 * One page of the heap. 32 bytes. Under the user's lock.
 *
 *       63                            32 31          8 7      0
 *    0 |  run length (head), head (tail)|      0      |  kind  |  state
 *    8 |                   nodes 0-63, 1 = in use              |  used[0]
 *   16 |                   nodes 64-...                        |  used[1]
 *   24 |                        0                              |
 *
 * `used` counts in the node states alone; it is zero in a page that enters one.
 */
struct PageDescriptor {
  std::uint64_t state;
  std::uint64_t used[2];
  std::uint64_t spare;
};
static_assert(sizeof(PageDescriptor) == 32 && offsetof(PageDescriptor, used) == 8);

inline constexpr std::uint64_t page_state(PageKind kind, std::uint64_t argument = 0) {
  return argument << 32 | kind;
}
inline constexpr std::uint32_t page_argument(std::uint64_t state) {
  return static_cast<std::uint32_t>(state >> 32);
}
inline constexpr PageKind page_kind(std::uint64_t state) {
  return static_cast<PageKind>(state & 0xff);
}

// A page set is a tree of words, 64 to one: level 0 has a bit a page, a bit above tells whether a word below is not 0.
inline constexpr int kMaxLevels = 4;
inline constexpr std::uint64_t kMaxPages = (std::uint64_t{1} << 6 * kMaxLevels) - 1;

inline constexpr std::uint64_t words_above(std::uint64_t bits) {
  return (bits + 63) / 64;
}

inline constexpr std::uint64_t page_set_words(std::uint64_t pages) {
  std::uint64_t sum = 0;
  for (std::uint64_t words = words_above(pages);; words = words_above(words)) {
    sum += words;
    if (words <= 1) {
      return sum;
    }
  }
}

// Where everything lies in a window with so many heap pages.
struct WindowShape {
  std::uint64_t pages = 0;
  std::uint64_t set_bytes = 0;    // of each of the three page sets
  std::uint64_t descriptors = 0;  // offset
  std::uint64_t heap = 0;         // offset
  std::uint64_t size = 0;
};

inline constexpr std::uint64_t round_up(std::uint64_t bytes, std::uint64_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

inline constexpr WindowShape shape_of_pages(std::uint64_t pages) {
  WindowShape shape;
  shape.pages = pages;
  shape.set_bytes = 8 * page_set_words(pages);
  shape.descriptors = round_up(sizeof(WindowHeader) + 3 * shape.set_bytes, 64);
  shape.heap = round_up(shape.descriptors + pages * sizeof(PageDescriptor), kPageBytes);
  shape.size = shape.heap + pages * kPageBytes;
  return shape;
}

inline constexpr std::uint64_t kMinWindowBytes = shape_of_pages(1).size;
inline constexpr std::uint64_t kMaxWindowBytes = shape_of_pages(kMaxPages).size;

// Requires kMinWindowBytes <= size <= kMaxWindowBytes.
inline constexpr WindowShape shape_of_size(std::uint64_t size) {
  std::uint64_t fits = 1;
  std::uint64_t beyond = size / kPageBytes;
  while (beyond - fits > 1) {
    const std::uint64_t middle = fits + (beyond - fits) / 2;
    (shape_of_pages(middle).size <= size ? fits : beyond) = middle;
  }
  return shape_of_pages(fits);
}
static_assert(shape_of_size(kMinWindowBytes).pages == 1 && shape_of_size(kMaxWindowBytes).pages == kMaxPages);
static_assert(shape_of_size(shape_of_pages(17512).size).pages == 17512);

}  // namespace vrellis

#endif
