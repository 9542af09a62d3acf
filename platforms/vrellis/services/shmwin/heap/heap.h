// The allocator inside a window. For the window service alone.
//
// A node is placed in the page where one of the calling thread's last two searches ended (between_services.h), on the
// nearest free place, if that page has nodes of its size and room; else in the page that this process last took one
// from; else in the lowest page with room. So a node lies near the neighbours that a search for it passes last.
//
// A 40-byte node taken next after a 56-byte one begins a family: the owner of the window entered a parent and its first
// child, and more children will follow in any order among other families'. Such a node gets room around it, kFamilies
// to a page, in pages that nothing else needs: not in those that the 56-byte nodes still to come may need (nodes56 in
// the header). When those run out, nodes go wherever there is room: no node is ever refused for it, and a node costs
// 40.5 or 56.5 bytes, its share of the page and of the descriptor.
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
  std::uint32_t family_page = PageSet::kNone;                  // where the next family begins
  PageSet room[2];                                             // pages in a node state with a node to give, by class
  PageSet free;                                                // pages that are free (H3)
  std::uint32_t recent[2] = {PageSet::kNone, PageSet::kNone};  // page of the last node taken, by class: a guess
  std::uint32_t families = 0;                                  // how many have begun in family_page
  bool family_begins = false;                                  // the last node taken was one of 56 bytes
};

extern Heap heaps[SHMWIN_MAX_WINDOWS];

// The heap of the window mapped at `header`, of the shape that its size gives. Nothing in the window is read.
Heap heap_at(WindowHeader *header, const WindowShape &shape);

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
