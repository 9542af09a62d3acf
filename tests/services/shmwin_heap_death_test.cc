// What a death after any one store of the allocator leaves to the next process.
#include <random>

#include "shmwin_heap_fixture.h"

namespace heap_tests {
namespace {

// Plays the next process after each store of a scenario.
class DeathTest : public HeapTest {
 protected:
  static constexpr std::size_t kUnit = 8;

  // One page set of two words: most pages are in use, the rest lies across the words.
  void SetUp() override {
    make(67);
    rest_ = take(60 * kPageBytes) + 60 * kPageBytes;
    self_ = this;
  }

  // Every free place can be had, no block in use is had again; what is given back then can be had once more.
  // `in_flight` is being released: it may be had.
  void next_process(std::size_t size) {
    const std::vector<std::uint8_t> bytes(memory_, memory_ + shape_.heap);
    const Heap own = heap();
    heap() = heap_at(own.header, shape_);
    std::vector<std::uint8_t> taken(7 * kPageBytes / kUnit);
    for (const auto &[block, length] : live_) {
      if (block != in_flight_) {
        mark(taken, block, length);
      }
    }
    std::vector<std::uint8_t *> blocks = take_everything(size);
    for (std::uint8_t *const block : blocks) {
      mark(taken, block, size);
    }
    for (const auto &[block, length] : live_) {
      if (block != in_flight_) {
        blocks.push_back(block);
      }
    }
    std::for_each(blocks.begin(), blocks.end(), shmwin_free);
    take_everything(size);
    std::memcpy(memory_, bytes.data(), bytes.size());
    heap() = own;
  }

  std::vector<std::uint8_t *> take_everything(std::size_t size) {
    std::vector<std::uint8_t *> blocks = take_all(size);
    EXPECT_EQ(stat().free_pages, 0u);
    for (std::uint32_t page = 0; page < heap().pages && size != 1; ++page) {
      EXPECT_FALSE(has_room(heap().page[page], class_of_size(size))) << "page " << page;
    }
    return blocks;
  }

  void mark(std::vector<std::uint8_t> &taken, const std::uint8_t *block, std::size_t length) const {
    ASSERT_GE(block, rest_);
    std::uint8_t *const begin = taken.data() + static_cast<std::size_t>(block - rest_) / kUnit;
    std::uint8_t *const end = begin + (length + kUnit - 1) / kUnit;
    ASSERT_EQ(std::find(begin, end, 1), end) << "handed out twice";
    std::fill(begin, end, 1);
  }

  void die() {
    after_store = [] {};
    EXPECT_GE(heap().header->pages_used + stat().free_pages, heap().pages);
    for (const std::size_t size : {std::size_t{40}, std::size_t{56}, std::size_t{1}}) {
      next_process(size);
    }
    ++deaths_;
    after_store = [] { self_->die(); };
  }

  void step(std::mt19937 &random, bool grow) {
    constexpr std::size_t kSizes[] = {40, 40, 56, 1, 3 * kPageBytes};
    after_store = [] { self_->die(); };
    if (grow || live_.empty()) {
      const std::size_t size = kSizes[random() % std::size(kSizes)];
      if (std::uint8_t *const block = take(size)) {
        live_[block] = size;
      }
    } else {
      const auto victim = std::next(live_.begin(), static_cast<long>(random() % live_.size()));
      in_flight_ = victim->first;
      shmwin_free(in_flight_);
      in_flight_ = nullptr;
      live_.erase(victim);
    }
    after_store = [] {};
  }

  static inline DeathTest *self_ = nullptr;
  std::uint8_t *rest_ = nullptr;  // where the pages begin that are not in use for good
  std::map<std::uint8_t *, std::size_t> live_;
  std::uint8_t *in_flight_ = nullptr;
  std::uint64_t deaths_ = 0;
};

TEST_F(DeathTest, AfterAnyStoreNoRoomIsLostAndNoBlockIsHadTwice) {
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  for (int i = 0; i < 400 && !HasFailure(); ++i) {
    step(random, random() % 100 < (i / 50 % 2 != 0 ? 20u : 80u));
  }
  EXPECT_GT(deaths_, 500u);
}

}  // namespace
}  // namespace heap_tests
