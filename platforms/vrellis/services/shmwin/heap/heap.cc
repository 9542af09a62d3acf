// The heap inside a window: nodes packed into pages, everything else in runs of whole pages. Each function says by
// which store it takes or gives; what a death leaves elsewhere is described in shmwin/layout.h, H1 to H5.
#include "shmwin/heap/heap.h"

#include <algorithm>
#include <bit>

#include "between_services.h"
#include "shmwin/heap/node_class.h"

namespace vrellis {

constinit Heap heaps[SHMWIN_MAX_WINDOWS];

namespace {

void *address_of(const Heap &heap, std::uint32_t page, std::uint64_t offset) {
  return reinterpret_cast<void *>(heap.first + page * kPageBytes + offset);
}

// Before the store that takes pages and after the one that gives them: a death leaves the count too high at worst.
void count_pages(Heap &heap, std::uint64_t more, std::uint64_t fewer) {
  WindowHeader &header = *heap.header;
  const std::uint64_t used = load_word(header.pages_used) + more - fewer;
  store_word(header.pages_used, used);
  if (more != 0 && used > load_word(header.high_water)) {
    store_word(header.high_water, std::min<std::uint64_t>(used, heap.pages));
  }
}

// ------------------------------------------------------------------------------------------------------------- nodes

constexpr Place kNowhere{PageSet::kNone, 0};

// The free slot nearest to `slot` in its word, else the lowest of the other word. Requires room.
std::uint32_t nearest_slot(const PageDescriptor &page, int cls, std::uint32_t slot) {
  std::uint32_t word = slot / 64;
  std::uint64_t open = open_nodes(page, cls, word);
  if (open == 0) {
    word ^= 1;
    open = open_nodes(page, cls, word);
    return 64 * word + static_cast<std::uint32_t>(std::countr_zero(open));
  }
  const std::uint64_t above = open & ~std::uint64_t{0} << slot % 64;
  const int bit = above != 0 ? std::countr_zero(above) : 63 - std::countl_zero(open);
  return 64 * word + static_cast<std::uint32_t>(bit);
}

// A place beside `node`, if that lies in a page of this class with room.
Place place_near(const Heap &heap, int cls, const void *node) {
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(node) - heap.first;
  if (offset / kPageBytes >= heap.pages) {
    return kNowhere;
  }
  const auto page = static_cast<std::uint32_t>(offset / kPageBytes);
  if (!has_room(heap.page[page], cls)) {
    return kNowhere;
  }
  const std::uint32_t slot = slot_at(cls, static_cast<std::uint32_t>(offset % kPageBytes));
  return {page, nearest_slot(heap.page[page], cls, std::min(slot, kClass[cls].per_page() - 1))};
}

std::uint32_t lowest_with_room(Heap &heap, int cls) {
  while (true) {
    const std::uint32_t page = heap.room[cls].first();
    if (page == PageSet::kNone || has_room(heap.page[page], cls)) {
      return page;
    }
    heap.room[cls].erase(page);
  }
}

std::uint32_t lowest_free(Heap &heap) {
  while (true) {
    const std::uint32_t page = heap.free.first();
    if (page == PageSet::kNone || is_free(heap, page)) {
      return page;
    }
    heap.free.erase(page);
  }
}

// Gives the lowest free page to a class. It stays free, and in the free set, until a node of it is taken.
std::uint32_t new_node_page(Heap &heap, int cls) {
  const std::uint32_t index = lowest_free(heap);
  if (index == PageSet::kNone) {
    return index;
  }
  PageDescriptor &page = heap.page[index];
  const PageKind before = page_kind(load_word(page.state));
  heap.room[cls].insert(index);
  store_word(page.used[0], 0);
  store_word(page.used[1], 0);
  store_word(page.state, page_state(kClass[cls].kind));
  if (before == kClass[1 - cls].kind) {
    heap.room[1 - cls].erase(index);
  }
  return index;
}

// Groups to a page, and the nodes that each has room for: 15 would fill a page with seven.
constexpr std::uint32_t kGroups = 7;
constexpr std::uint32_t kGroupNodes = kClass[0].per_page() / kGroups;

// Whether a page may be opened for groups before the other pages are full.
bool can_spare_page(const Heap &heap) {
  const std::uint64_t kept = load_word(heap.header->kept_pages);
  return kept != 0 && kept < heap.pages && load_word(heap.header->pages_used) < heap.pages - kept;
}

// A place for the first 40-byte node of a group, with room around it; kNowhere when no page is to spare.
Place place_group(Heap &heap) {
  if (heap.groups % kGroups == 0 || !has_room(heap.page[heap.group_page], 0)) {
    heap.groups = 0;
    heap.group_page = can_spare_page(heap) ? new_node_page(heap, 0) : PageSet::kNone;
    if (heap.group_page == PageSet::kNone) {
      return kNowhere;
    }
  }
  const std::uint32_t slot = heap.groups * kGroupNodes;
  ++heap.groups;
  return {heap.group_page, nearest_slot(heap.page[heap.group_page], 0, slot)};
}

// Where the node is wanted, as far as that is known and has room.
Place place_wanted(Heap &heap, int cls) {
  if (cls == 0 && heap.group_begins) {
    return place_group(heap);
  }
  const Place near = place_near(heap, cls, search_ends.last);
  return near.page != PageSet::kNone ? near : place_near(heap, cls, search_ends.previous);
}

Place find_place(Heap &heap, int cls) {
  const Place wanted = place_wanted(heap, cls);
  heap.group_begins = cls == 1;
  if (wanted.page != PageSet::kNone) {
    return wanted;
  }
  std::uint32_t page = heap.recent[cls];
  if (page >= heap.pages || !has_room(heap.page[page], cls)) {
    page = lowest_with_room(heap, cls);
  }
  if (page == PageSet::kNone) {
    page = new_node_page(heap, cls);
  }
  heap.recent[cls] = page;
  return page == PageSet::kNone ? kNowhere : Place{page, nearest_slot(heap.page[page], cls, 0)};
}

}  // namespace

void *take_node(Heap &heap, int cls) {
  const Place place = find_place(heap, cls);
  if (place.page == PageSet::kNone) {
    return nullptr;
  }
  PageDescriptor &page = heap.page[place.page];
  const bool first = !in_use(page);
  if (first) {
    count_pages(heap, 1, 0);
  }
  std::uint64_t &word = page.used[place.slot / 64];
  store_word(word, load_word(word) | std::uint64_t{1} << place.slot % 64);  // taken (H1)
  if (first) {
    heap.free.erase(place.page);
  } else if (is_full(page, cls)) {
    heap.room[cls].erase(place.page);
  }
  return address_of(heap, place.page, std::uint64_t{place.slot} * kClass[cls].bytes);
}

void give_node(Heap &heap, int cls, Place place) {
  PageDescriptor &page = heap.page[place.page];
  std::uint64_t &word = page.used[place.slot / 64];
  const std::uint64_t left = load_word(word) & ~(std::uint64_t{1} << place.slot % 64);
  const bool last = (left | load_word(page.used[1 - place.slot / 64])) == 0;
  if (is_full(page, cls)) {
    heap.room[cls].insert(place.page);
  }
  if (last) {
    heap.free.insert(place.page);
  }
  store_word(word, left);  // given (H1)
  if (last) {
    count_pages(heap, 0, 1);
  }
}

// -------------------------------------------------------------------------------------------------------------- runs

namespace {

// The lowest `length` free pages in a row.
std::uint32_t find_run(Heap &heap, std::uint32_t length) {
  std::uint32_t begin = 0;
  std::uint32_t found = 0;
  for (std::uint32_t page = heap.free.next(0); page != PageSet::kNone; page = heap.free.next(page + 1)) {
    if (!is_free(heap, page)) {
      heap.free.erase(page);
      continue;
    }
    if (page != begin + found) {
      begin = page;
      found = 0;
    }
    if (++found == length) {
      return begin;
    }
  }
  return PageSet::kNone;
}

}  // namespace

void *take_run(Heap &heap, std::uint64_t bytes) {
  const std::uint64_t length = bytes == 0 ? 1 : (bytes - 1) / kPageBytes + 1;
  if (length > heap.pages) {
    return nullptr;
  }
  const auto pages = static_cast<std::uint32_t>(length);
  const std::uint32_t head = find_run(heap, pages);
  if (head == PageSet::kNone) {
    return nullptr;
  }
  for (std::uint32_t page = head + 1; page < head + pages; ++page) {
    store_word(heap.page[page].state, page_state(kRunTail, head));
  }
  count_pages(heap, pages, 0);
  store_word(heap.page[head].state, page_state(kRunHead, pages));  // taken (H2)
  for (std::uint32_t page = head; page < head + pages; ++page) {
    heap.free.erase(page);
    for (PageSet &room : heap.room) {
      if (room.has(page)) {
        room.erase(page);
      }
    }
  }
  return address_of(heap, head, 0);
}

void give_run(Heap &heap, std::uint32_t head, std::uint32_t pages) {
  for (std::uint32_t page = head; page < head + pages; ++page) {
    heap.free.insert(page);
  }
  store_word(heap.page[head].state, page_state(kFree));  // given (H2)
  count_pages(heap, 0, pages);
}

// ------------------------------------------------------------------------------------------------------------- views

void heap_format(Heap &heap) {
  store_word(heap.header->heap_pages, heap.pages);
  heap.free.fill();
}

}  // namespace vrellis
