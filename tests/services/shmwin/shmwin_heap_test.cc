// The allocator inside a window: what it hands out, takes back and refuses, and what a death after any one of its
// stores leaves to the next process.
#include "shmwin_heap_fixture.h"

namespace heap_tests {
namespace {

TEST_F(HeapTest, ANodeLiesWhereTheLastSearchEnded) {
  make(3);
  auto first = take_all(40);
  std::uint8_t *const near = first[250];  // in the last page
  for (const std::size_t i : {3u, 249u, 251u, 290u}) {
    shmwin_free(first[i]);
  }
  search_ends.last = near;
  for (const std::size_t i : {251u, 249u, 290u, 3u}) {
    EXPECT_EQ(take(40), first[i]);
  }
  shmwin_free(first[3]);
  search_ends.last = memory_;
  EXPECT_EQ(take(40), first[3]);
}

// A window whose bookkeeping was written over: nothing may fault, loop, or lie outside the window.
TEST_F(HeapTest, DamagedBookkeepingDoesNoHarm) {
  make(70);
  std::mt19937_64 random = seeded();
  for (int round = 0; round < 300; ++round) {
    auto *const words = reinterpret_cast<std::uint64_t *>(memory_ + sizeof(WindowHeader));
    const std::size_t count = (shape_.heap - sizeof(WindowHeader)) / 8;
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint64_t kind = random() % 8;
      words[i] = round % 3 == 0 ? random() : kind | (random() % 80) << 32;
    }
    for (int step = 0; step < 300; ++step) {
      constexpr std::size_t kSizes[] = {40, 56, 1, 20000};
      void *block = nullptr;
      if (shmwin_malloc(kId, kSizes[random() % 4], &block) == 0) {
        ASSERT_EQ(window_of(block), &window_maps[0]);
        ASSERT_GE(block, memory_ + shape_.heap);
      }
      search_ends.last = memory_ + random() % shape_.size;
      shmwin_free(memory_ + random() % (shape_.size / 8) * 8);
    }
    stat();
  }
}

// The figures that windows are planned with.
TEST_F(HeapTest, ASizeForSomeBlocksHoldsThemAndIsNoLargerThanPlanned) {
  EXPECT_LT(shmwin_size_for(28 * 983025 + 16 * 65536, 2, 983025, 65535), std::uint64_t{80} << 20);
  for (const std::uint64_t arrays : {std::uint64_t{1}, UINT64_MAX}) {
    EXPECT_EQ(shmwin_size_for(UINT64_MAX, arrays, UINT64_MAX, UINT64_MAX), UINT64_MAX);
  }
  for (const std::uint64_t nodes : {1u, 102u, 103u, 5000u}) {
    make(shape_of_size(shmwin_size_for(3 * 4097, 3, nodes, nodes)).pages);
    for (std::uint64_t i = 0; i < 2 * nodes + 3; ++i) {
      ASSERT_NE(take(i < 3 ? 4097 : kNodeSizes[i % 2]), nullptr);
    }
    EXPECT_EQ(stat().high_water, heap().header->pages_used);
  }
}

// Groups take room early that other nodes need late. They may cost no node its place.
TEST_F(HeapTest, GroupsCostNoNodeItsPlace) {
  constexpr std::uint64_t kParents = 730, kChildren = 1020;
  for (const bool in_turn : {true, false}) {
    make(kParents / 73 + kChildren / 102);
    heap().header->kept_pages = kParents / 73;
    std::uint64_t room[] = {kChildren, kParents};
    for (std::uint64_t i = 0; i < kParents + kChildren; ++i) {
      const std::size_t wanted = in_turn ? 1 - i % 2 : i == 0 ? 1 : 0;
      const std::size_t cls = room[wanted] != 0 ? wanted : 1 - wanted;
      ASSERT_NE(take(kNodeSizes[cls]), nullptr) << "node " << i;
      --room[cls];
    }
  }
}

// Random use, in which the next process is played after each store.
class DeathTest : public HeapTest {
 protected:
  using Blocks = std::map<std::uint8_t *, std::size_t>;  // and how long they are

  // One page set of two words: most pages are in use, the rest lies across the words.
  void SetUp() override {
    make(67);
    rest_ = take(60 * kPageBytes) + 60 * kPageBytes;
    self_ = this;
  }

  // Every free place can be had, no block in use is had again; what is given back then can be had once more.
  void next_process(std::size_t size) {
    const std::vector<std::uint8_t> bytes(memory_, memory_ + shape_.heap);
    const Heap own = std::exchange(heap(), heap_at(heap().header, shape_));
    search_ends = {};
    Blocks all = live_;
    for (std::uint8_t *const block : take_everything(size)) {
      add(all, block, size);
    }
    for (const auto &[block, length] : all) {
      shmwin_free(block);
    }
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

  void add(Blocks &blocks, std::uint8_t *block, std::size_t size) const {
    const auto [at, is_new] = blocks.emplace(block, size);
    ASSERT_TRUE(is_new && block >= rest_) << "handed out twice";
    ASSERT_TRUE(at == blocks.begin() || std::prev(at)->first + std::prev(at)->second <= block) << "overlaps";
    ASSERT_TRUE(std::next(at) == blocks.end() || block + size <= std::next(at)->first) << "overlaps";
  }

  static void die() {
    after_store = [] {};
    EXPECT_GE(heap().header->pages_used + stat().free_pages, heap().pages) << "groups would take too many pages";
    for (const std::size_t size : {std::size_t{40}, std::size_t{56}, std::size_t{1}}) {
      self_->next_process(size);
    }
    ++self_->deaths_;
    after_store = die;
  }

  // Takes or gives a block, and compares what the window tells with what is in use.
  void step(std::uint64_t random, bool grow) {
    constexpr std::size_t kSizes[] = {40, 40, 40, 40, 40, 56, 56, 56, 56, 1, 3 * kPageBytes};
    if (grow || live_.empty()) {
      const std::size_t size = kSizes[random % std::size(kSizes)];
      if (std::uint8_t *const block = take(size)) {
        add(live_, block, size);
      }
    } else {
      const auto victim = std::next(live_.begin(), static_cast<long>(random % live_.size()));
      search_ends.last = victim->first;
      shmwin_free(live_.extract(victim).key());  // from now on it may be had
    }
    std::map<std::size_t, std::uint64_t> count;
    for (const auto &[block, size] : live_) {
      ++count[size];
    }
    const shmwin_stat_t now = stat();
    const std::array seen = {now.nodes40, now.nodes56, now.arrays - 1, heap().pages - now.free_pages, now.high_water};
    most_ = std::max(most_, heap().header->pages_used);
    EXPECT_EQ(seen,
              (std::array{count[40], count[56], count[1] + count[3 * kPageBytes], heap().header->pages_used, most_}));
  }

  // A release of anything but a block in use is counted, told of, and changes nothing.
  void release_wrongly(std::uint8_t *address) {
    const std::uint64_t before = stat().bad_releases;
    const std::vector<std::uint8_t> bytes(memory_ + sizeof(WindowHeader), memory_ + shape_.heap);
    shmwin_free(address);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), memory_ + sizeof(WindowHeader)));
    EXPECT_EQ(stat().bad_releases, before + 1);
    EXPECT_EQ(std::exchange(messages, {}), std::vector<std::string>{"shmwin_bad_release"});
  }

  static inline DeathTest *self_ = nullptr;
  std::uint8_t *rest_ = nullptr;  // where the pages begin that are not in use for good
  Blocks live_;
  std::uint64_t deaths_ = 0;
  std::uint64_t most_ = 0;  // pages in use at a time
};

TEST_F(DeathTest, AfterAnyStoreNoRoomIsLostAndNoBlockIsHadTwice) {
  std::mt19937_64 random = seeded();
  std::uint8_t *const run = rest_ - 60 * kPageBytes;
  for (int i = 0; i < 2 * 102; ++i) {
    live_[take(40)] = 40;
  }
  for (int i = 0; i < 20'000 && !HasFailure(); ++i) {
    const int phase = i / 400;  // deaths beside full pages, the pages get empty, deaths there; then use alone
    after_store = phase == 0 || phase == 2 ? die : [] {};
    step(random(), random() % 100 < (phase == 1 ? 5u : i / 50 % 2 != 0 ? 20u : 80u));
    after_store = [] {};
    std::uint8_t *const address = i % 2 != 0 ? rest_ + random() % (7 * kPageBytes) : memory_ + random() % shape_.size;
    if (address != run && !live_.contains(address)) {
      release_wrongly(address);
    }
  }
  EXPECT_GT(deaths_, 500u);
  static std::uint8_t elsewhere[64];
  release_wrongly(elsewhere);
  shmwin_free(nullptr);
  for (const auto &[block, size] : live_) {
    shmwin_free(block);
  }
  shmwin_free(run);
  for (const std::size_t size : kNodeSizes) {  // now every byte is to be had, as nodes and in one piece
    const auto blocks = take_all(size);
    EXPECT_EQ(blocks.size(), 67 * (kPageBytes / size));
    std::for_each(blocks.begin(), blocks.end(), shmwin_free);
  }
  for (const std::size_t size : {67 * kPageBytes + 1, SIZE_MAX, SIZE_MAX - 4095, SIZE_MAX / 2}) {
    EXPECT_EQ(take(size), nullptr) << size;
  }
  EXPECT_NE(take(66 * kPageBytes), nullptr);
  EXPECT_NE(take(0), nullptr);
  EXPECT_EQ(stat().array_bytes, 67 * kPageBytes);
  EXPECT_EQ(take(40), nullptr);
  void *block = memory_;
  EXPECT_EQ(shmwin_malloc(kId + 1, 40, &block), 22);
  EXPECT_EQ(block, nullptr);
  EXPECT_TRUE(messages.empty());
}

}  // namespace
}  // namespace heap_tests
