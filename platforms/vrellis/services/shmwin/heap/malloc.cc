// The allocator's face: blocks taken and given back by address, every wrong release caught, and what a window holds.
#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>

#include "oxa_errmsg.h"
#include "shmwin/heap/heap.h"
#include "shmwin/heap/node_class.h"

namespace vrellis {
namespace {

constinit oxa_msg_limit_t bad_release_limit{OXA_DEFAULT_BURST, {}};
constinit const oxa_msg_rec_t bad_release_record{0,
                                                 "shmwin_free refused %p: it lies %s",
                                                 &bad_release_limit,
                                                 "SHMWIN",
                                                 "services",
                                                 "shmwin_bad_release",
                                                 OXA_MSG_CLASS,
                                                 0,
                                                 0x1ac80000};

// Releases of addresses outside every window: this process's own count.
constinit std::atomic<std::uint64_t> stray_releases{0};

void refuse_release(const void *block, const char *where) {
  oxa_errmsg(&bad_release_record, OXA_SEVERITY_ERROR, block, where);
}

// Gives the block at `offset` of a page back. Returns: nullptr, or what is wrong with it.
const char *give_block(Heap &heap, std::uint32_t index, std::uint32_t offset) {
  const PageDescriptor &page = heap.page[index];
  const std::uint64_t state = load_word(page.state);
  const int cls = class_of_kind(page_kind(state));
  if (cls >= 0) {
    const std::uint32_t slot = slot_at(cls, offset);
    if (slot * kClass[cls].bytes != offset || slot >= kClass[cls].per_page()) {
      return "inside a node's storage, not at its start";
    }
    if ((load_word(page.used[slot / 64]) & std::uint64_t{1} << slot % 64) == 0) {
      return "in a node that is not in use";
    }
    give_node(heap, cls, {index, slot});
    return nullptr;
  }
  if (is_free(heap, index)) {
    return "in a free page";
  }
  if (page_kind(state) == kRunTail || (page_kind(state) == kRunHead && offset != 0)) {
    return "inside a run of pages, not at its start";
  }
  const std::uint32_t length = run_length(heap, index);
  if (length == 0) {
    return "in a page whose bookkeeping is damaged";
  }
  give_run(heap, index, length);
  return nullptr;
}

const char *give_address(Heap &heap, std::uintptr_t address) {
  if (address < heap.first || (address - heap.first) / kPageBytes >= heap.pages) {
    return "in the window's bookkeeping";
  }
  const std::uintptr_t offset = address - heap.first;
  return give_block(heap, static_cast<std::uint32_t>(offset / kPageBytes),
                    static_cast<std::uint32_t>(offset % kPageBytes));
}

// Blocks that are given back while a change of the whole window is open: it gives them when it commits.
struct PutOff {
  static constexpr std::size_t kMost = 64;
  void *block[kMost];
  std::size_t count;
};
SERVICES_TLS constinit thread_local PutOff put_off{};

void release(const WindowMap &map, void *block) {
  Heap &heap = heaps[&map - window_maps];
  const char *const wrong = give_address(heap, reinterpret_cast<std::uintptr_t>(block));
  if (wrong != nullptr) {
    store_word(heap.header->bad_releases, load_word(heap.header->bad_releases) + 1);
    refuse_release(block, wrong);
  }
}

void give_what_was_put_off(bool commits) {
  for (std::size_t i = 0; commits && i < put_off.count; ++i) {
    release(*open_change.map, put_off.block[i]);
  }
  put_off.count = 0;
}

Heap *heap_of(std::uint32_t shm_id) {
  for (std::size_t i = 0; i < SHMWIN_MAX_WINDOWS; ++i) {
    if (window_maps[i].shm_id == shm_id && window_maps[i].begin != window_maps[i].end) {
      return &heaps[i];
    }
  }
  return nullptr;
}

void count_page(const Heap &heap, std::uint32_t index, shmwin_stat_t *stat) {
  const PageDescriptor &page = heap.page[index];
  const PageKind kind = page_kind(load_word(page.state));
  const int cls = class_of_kind(kind);
  if (is_free(heap, index)) {
    ++stat->free_pages;
  } else if (cls >= 0) {
    const int nodes = std::popcount(load_word(page.used[0]) & kClass[cls].all[0]) +
                      std::popcount(load_word(page.used[1]) & kClass[cls].all[1]);
    (cls == 0 ? stat->nodes40 : stat->nodes56) += static_cast<std::uint64_t>(nodes);
    ++stat->node_pages;
  } else if (kind == kRunHead) {
    ++stat->arrays;
    stat->array_bytes += run_length(heap, index) * kPageBytes;
  }
}

}  // namespace
}  // namespace vrellis

using namespace vrellis;

int shmwin_malloc(uint32_t shm_id, size_t size, void **block) {
  *block = nullptr;
  Heap *const heap = heap_of(shm_id);
  if (heap == nullptr) {
    return EINVAL;
  }
  settle_window(window_maps[heap - heaps]);
  const int cls = class_of_size(size);
  *block = cls >= 0 ? take_node(*heap, cls) : take_run(*heap, size);
  return *block != nullptr ? 0 : ENOMEM;
}

void shmwin_free(void *block) {
  if (block == nullptr) {
    return;
  }
  const WindowMap *const map = window_of(block);
  if (map == nullptr) {
    stray_releases.fetch_add(1, std::memory_order_relaxed);
    refuse_release(block, "outside every attached window");
    return;
  }
  if (open_change.map == map && put_off.count < PutOff::kMost) {
    put_off.block[put_off.count++] = block;
    open_change.before_commit = give_what_was_put_off;
    return;
  }
  settle_window(*map);
  release(*map, block);
}

int shmwin_stat(uint32_t shm_id, shmwin_stat_t *stat) {
  const Heap *const heap = heap_of(shm_id);
  if (heap == nullptr) {
    return ENOENT;
  }
  const WindowMap &map = window_maps[heap - heaps];
  *stat = shmwin_stat_t{};
  stat->size = map.end - map.begin;
  stat->address = map.begin;
  stat->overhead = stat->size - heap->pages * kPageBytes;
  stat->high_water = load_word(heap->header->high_water);
  stat->bad_releases = load_word(heap->header->bad_releases) + stray_releases.load(std::memory_order_relaxed);
  for (std::uint32_t page = 0; page < heap->pages; ++page) {
    count_page(*heap, page, stat);
  }
  return 0;
}

uint64_t shmwin_size_for(uint64_t array_bytes, uint64_t arrays, uint64_t nodes40, uint64_t nodes56) {
  // Each array may end in a page that it fills in part. Each term is below 2^58 but the second, which is bounded first.
  if (arrays > kMaxPages) {
    return UINT64_MAX;
  }
  const std::uint64_t pages = array_bytes / kPageBytes + arrays + nodes40 / kClass[0].per_page() +
                              (nodes40 % kClass[0].per_page() != 0) + nodes56 / kClass[1].per_page() +
                              (nodes56 % kClass[1].per_page() != 0);
  return pages > kMaxPages ? UINT64_MAX : shape_of_pages(std::max<std::uint64_t>(pages, 1)).size;
}
