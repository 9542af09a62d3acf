// What a page descriptor says: node classes, and when a page has room or is free. For the allocator alone.
#ifndef VRELLIS_SHMWIN_HEAP_NODE_CLASS_H
#define VRELLIS_SHMWIN_HEAP_NODE_CLASS_H

#include <cstddef>
#include <cstdint>

#include "shmwin/heap/heap.h"
#include "shmwin/layout.h"

namespace vrellis {

struct NodeClass {
  std::uint32_t bytes;
  PageKind kind;
  std::uint64_t all[2];  // bits of the nodes a page has

  constexpr NodeClass(std::uint32_t size, PageKind k) : bytes(size), kind(k), all{~std::uint64_t{0}, 0} {
    all[1] = (std::uint64_t{1} << (kPageBytes / size - 64)) - 1;
  }
  constexpr std::uint32_t per_page() const { return static_cast<std::uint32_t>(kPageBytes) / bytes; }
};

inline constexpr NodeClass kClass[] = {{40, kNodes40}, {56, kNodes56}};
static_assert(kClass[0].per_page() == 102 && kClass[1].per_page() == 73);

inline constexpr int class_of_size(std::size_t size) {
  return size == 40 ? 0 : size == 56 ? 1 : -1;
}
inline constexpr int class_of_kind(PageKind kind) {
  return kind == kNodes40 ? 0 : kind == kNodes56 ? 1 : -1;
}

// Divisions by a constant each: by a variable they would cost more than the rest of a release.
inline constexpr std::uint32_t slot_at(int cls, std::uint32_t offset) {
  return cls == 0 ? offset / 40 : offset / 56;
}

inline bool in_use(const PageDescriptor &page) {
  return (load_word(page.used[0]) | load_word(page.used[1])) != 0;
}

// The nodes that one word of a page's `used` still has to give.
inline std::uint64_t open_nodes(const PageDescriptor &page, int cls, std::uint32_t word) {
  return ~load_word(page.used[word]) & kClass[cls].all[word];
}

inline bool is_full(const PageDescriptor &page, int cls) {
  return (open_nodes(page, cls, 0) | open_nodes(page, cls, 1)) == 0;
}

inline bool has_room(const PageDescriptor &page, int cls) {
  return page_kind(load_word(page.state)) == kClass[cls].kind && !is_full(page, cls);
}

// Length of the run that `head` begins, 0 for none and for a length that leaves the heap.
inline std::uint32_t run_length(const Heap &heap, std::uint32_t head) {
  const std::uint64_t state = load_word(heap.page[head].state);
  const std::uint32_t length = page_argument(state);
  return page_kind(state) == kRunHead && length <= heap.pages - head ? length : 0;
}

inline bool is_free(const Heap &heap, std::uint32_t index) {
  const PageDescriptor &page = heap.page[index];
  const std::uint64_t state = load_word(page.state);
  switch (page_kind(state)) {
    case kFree:
      return true;
    case kNodes40:
    case kNodes56:
      return !in_use(page);
    case kRunTail: {
      const std::uint32_t head = page_argument(state);
      return head >= index || index - head >= run_length(heap, head);
    }
    default:
      return false;
  }
}

}  // namespace vrellis

#endif
