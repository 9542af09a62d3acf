// The allocator compiled into a test, with a store_word() that shows each store, on windows in plain memory. For one
// source of a test program.
#ifndef SHMWIN_HEAP_FIXTURE_H
#define SHMWIN_HEAP_FIXTURE_H

#define VRELLIS_SHMWIN_STORE_H

#include <atomic>
#include <cstdint>

namespace vrellis {

inline void (*after_store)() = [] {};

inline std::uint64_t load_word(const std::uint64_t &word) {
  return word;
}
inline void store_word(std::uint64_t &word, std::uint64_t value) {
  word = value;
  after_store();
}

}  // namespace vrellis

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "between_services.h"
#include "shmwin/heap/heap.cc"    // NOLINT(bugprone-suspicious-include)
#include "shmwin/heap/malloc.cc"  // NOLINT(bugprone-suspicious-include)

constinit vrellis::WindowMap vrellis::window_maps[kMostWindows] = {};
constinit thread_local vrellis::SearchEnds vrellis::search_ends;

static std::vector<std::string> messages;

int oxa_errmsg(const oxa_msg_rec_t *record, int, ...) {
  messages.emplace_back(record->name);
  return 0;
}

namespace heap_tests {

using namespace vrellis;

inline constexpr std::uint32_t kId = 7;
inline constexpr std::size_t kNodeSizes[] = {40, 56};

class HeapTest : public ::testing::Test {
 protected:
  // A failure tells the seed.
  static std::mt19937_64 seeded() {
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    return std::mt19937_64(seed);
  }

  void make(std::uint64_t pages) {
    shape_ = shape_of_pages(pages);
    std::free(memory_);
    memory_ = static_cast<std::uint8_t *>(std::aligned_alloc(kPageBytes, shape_.size));
    std::memset(memory_, 0, shape_.heap);
    auto *const header = reinterpret_cast<WindowHeader *>(memory_);
    heap() = heap_at(header, shape_);
    heap_format(heap());
    const auto begin = reinterpret_cast<std::uintptr_t>(memory_);
    window_maps[0] = {begin, begin + shape_.size, kId, header, header->tree_area};
    messages.clear();
    search_ends = {};
  }

  void TearDown() override {
    after_store = [] {};
    window_maps[0] = WindowMap{};
    std::free(memory_);
  }

  static Heap &heap() { return heaps[0]; }

  static std::uint8_t *take(std::size_t size) {
    void *block = nullptr;
    const int status = shmwin_malloc(kId, size, &block);
    EXPECT_EQ(status, block != nullptr ? 0 : 12);
    return static_cast<std::uint8_t *>(block);
  }

  std::vector<std::uint8_t *> take_all(std::size_t size) {
    std::vector<std::uint8_t *> blocks;
    while (std::uint8_t *const block = blocks.size() <= shape_.pages * 102 ? take(size) : nullptr) {
      blocks.push_back(block);
    }
    EXPECT_LE(blocks.size(), shape_.pages * 102) << "more than the window has room for";
    return blocks;
  }

  static shmwin_stat_t stat() {
    shmwin_stat_t now;
    EXPECT_EQ(shmwin_stat(kId, &now), 0);
    return now;
  }

  WindowShape shape_;
  std::uint8_t *memory_ = nullptr;
};

}  // namespace heap_tests

#endif
