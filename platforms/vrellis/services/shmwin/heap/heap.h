// The allocator inside a window. For the window service alone.
//
// A node is placed in the page where one of the calling thread's last two searches ended (between_services.h), on the
// nearest free place, if that page has nodes of its size and room; else in the page that this process last took one
// from; else in the lowest page with room. So a node lies near the neighbours that a search for it passes last.
//
// A 40-byte node taken next after a 56-byte one begins a group: its user made a parent and the first of its children,
// and more of them follow later, between those of other parents. The node gets room around it, kGroups to a page. Pages
// are opened for groups only while more than `kept_pages` of the header are unused, and other nodes fill the room of
// groups when no other page has any. So groups cost no block its place, if `kept_pages` are enough for all 56-byte
// nodes.
#ifndef VRELLIS_SHMWIN_HEAP_HEAP_H
#define VRELLIS_SHMWIN_HEAP_HEAP_H

#include <cstdint>

#include "shmwin/heap/page_set.h"
#include "shmwin/layout.h"

namespace vrellis {

// Where this process finds the heap of an attached window. Beside window_maps, slot by slot.
struct Heap {
  WindowHeader *header = nullptr;
  PageDescriptor *page = nullptr;
  std::uintptr_t first = 0;  // address of heap page 0
  std::uint32_t pages = 0;
  std::uint32_t groups = 0;                                    // how many have begun in group_page
  bool group_begins = false;                                   // the last node taken was one of 56 bytes
  std::uint32_t group_page = PageSet::kNone;                   // where the next group begins
  PageSet room[2];                                             // pages in a node state with a node to give, by class
  PageSet free;                                                // pages that are free (H3)
  std::uint32_t recent[2] = {PageSet::kNone, PageSet::kNone};  // page of the last node taken, by class: a guess
};

extern Heap heaps[SHMWIN_MAX_WINDOWS];

// The heap of the window mapped at `header`, of the shape that its size gives. Nothing in the window is read.
inline Heap heap_at(WindowHeader *header, const WindowShape &shape) {
  const auto begin = reinterpret_cast<std::uintptr_t>(header);
  const auto set = [&](std::uint64_t number) {
    return PageSet(reinterpret_cast<std::uint64_t *>(begin + sizeof(WindowHeader) + number * shape.set_bytes),
                   shape.pages);
  };
  Heap heap;
  heap.header = header;
  heap.page = reinterpret_cast<PageDescriptor *>(begin + shape.descriptors);
  heap.first = begin + shape.heap;
  heap.pages = static_cast<std::uint32_t>(shape.pages);
  heap.room[0] = set(0);
  heap.room[1] = set(1);
  heap.free = set(2);
  return heap;
}

// Makes the heap of a zeroed window an empty one.
void heap_format(Heap &heap);

// A node's place: heap page and slot within it.
struct Place {
  std::uint32_t page;
  std::uint32_t slot;
};

// Takes a node of a class (0: 40 bytes, 1: 56), or a run of pages for `bytes` bytes. Returns: nullptr when there is no
// room.
void *take_node(Heap &heap, int cls);
void *take_run(Heap &heap, std::uint64_t bytes);

// Requires a node in use at `place`; a run of `pages` in use at `head`, within the heap.
void give_node(Heap &heap, int cls, Place place);
void give_run(Heap &heap, std::uint32_t head, std::uint32_t pages);

}  // namespace vrellis

#endif
