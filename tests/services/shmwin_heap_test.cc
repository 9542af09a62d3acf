// The allocator inside a window: what it hands out, takes back and refuses.
#include <random>

#include "shmwin_heap_fixture.h"

namespace heap_tests {
namespace {

TEST_F(HeapTest, GivesEveryByteItHasAndTakesItBack) {
  make(130);
  for (const std::size_t size : kNodeSizes) {
    const auto blocks = take_all(size);
    EXPECT_EQ(blocks.size(), 130 * (kPageBytes / size));
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      std::memset(blocks[i], static_cast<int>(i % 251), size);
    }
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      ASSERT_EQ(std::string(reinterpret_cast<char *>(blocks[i]), size), std::string(size, static_cast<char>(i % 251)));
      shmwin_free(blocks[i]);
    }
    EXPECT_EQ(stat().free_pages, 130u);
    EXPECT_EQ(stat().high_water, 130u);
  }
  std::uint8_t *const all = take(130 * kPageBytes);
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(take(40), nullptr);
  shmwin_free(all);
  EXPECT_EQ(heap().header->pages_used, 0u);
  EXPECT_TRUE(messages.empty());
}

TEST_F(HeapTest, SizesThatCanNeverFitAreNoRoom) {
  make(4);
  for (const std::size_t size : {std::size_t{4 * kPageBytes + 1}, SIZE_MAX, SIZE_MAX - 4095, SIZE_MAX / 2}) {
    EXPECT_EQ(take(size), nullptr) << size;
  }
  EXPECT_EQ(stat().free_pages, 4u);
  void *block = memory_;
  EXPECT_EQ(shmwin_malloc(kId + 1, 40, &block), 22);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(stat().arrays, 0u);
  EXPECT_NE(take(0), nullptr);
  EXPECT_EQ(stat().array_bytes, kPageBytes);
}

// Blocks of all kinds at random, filled with a pattern each, against a plain list of what is in use.
TEST_F(HeapTest, RandomUseNeverOverlapsAndLosesNothing) {
  make(300);
  struct Use {
    std::size_t size;
    std::uint8_t pattern;
  };
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::vector<std::pair<std::uint8_t *, Use>> in_use;
  std::uint64_t most = 0;
  for (int step = 0; step < 40000; ++step) {
    const bool grow = random() % 100 < (step / 4000 % 2 != 0 ? 35u : 65u);
    if (grow || in_use.empty()) {
      constexpr std::size_t kSizes[] = {40, 40, 40, 40, 40, 40, 56, 56, 56, 8, 4096, 9000, 50000};
      const Use use{kSizes[random() % std::size(kSizes)], static_cast<std::uint8_t>(random())};
      if (std::uint8_t *const block = take(use.size)) {
        std::memset(block, use.pattern, use.size);
        in_use.emplace_back(block, use);
      }
    } else {
      std::swap(in_use[random() % in_use.size()], in_use.back());
      const auto [block, use] = in_use.back();
      search_ends.last = block;
      for (std::size_t i = 0; i < use.size; ++i) {
        ASSERT_EQ(block[i], use.pattern) << "of " << use.size << " bytes, byte " << i;
      }
      shmwin_free(block);
      in_use.pop_back();
    }
    if (step % 100 == 0) {
      std::map<std::size_t, std::uint64_t> count;
      for (const auto &[block, use] : in_use) {
        ++count[use.size];
      }
      const shmwin_stat_t now = stat();
      ASSERT_EQ(now.nodes40, count[40]);
      ASSERT_EQ(now.nodes56, count[56]);
      ASSERT_EQ(now.arrays, in_use.size() - count[40] - count[56]);
      ASSERT_EQ(now.free_pages + now.node_pages + now.array_bytes / kPageBytes, 300u);
      ASSERT_EQ(heap().header->pages_used, 300 - now.free_pages);
    }
    most = std::max(most, heap().header->pages_used);
  }
  EXPECT_EQ(stat().high_water, most);
  for (const auto &[block, use] : in_use) {
    shmwin_free(block);
  }
  EXPECT_EQ(stat().free_pages, 300u);
  EXPECT_TRUE(messages.empty());
}

TEST_F(HeapTest, APageServesTheOtherSizeOnceItIsEmpty) {
  make(1);
  for (int round = 0; round < 3; ++round) {
    for (const std::size_t size : kNodeSizes) {
      std::uint8_t *const node = take(size);
      ASSERT_NE(node, nullptr);
      EXPECT_EQ(take(96 - size), nullptr);
      EXPECT_EQ(take(1), nullptr);
      shmwin_free(node);
    }
    std::uint8_t *const page = take(1);
    ASSERT_NE(page, nullptr);
    shmwin_free(page);
  }
}

TEST_F(HeapTest, ANodeLiesWhereTheLastSearchEnded) {
  make(3);
  auto first = take_all(40);
  std::uint8_t *const near = first[250];  // in the last page
  for (const std::size_t i : {3u, 249u, 251u, 290u}) {
    shmwin_free(first[i]);
  }
  search_ends.last = near;
  EXPECT_EQ(take(40), first[251]);
  EXPECT_EQ(take(40), first[249]);
  EXPECT_EQ(take(40), first[290]);
  EXPECT_EQ(take(40), first[3]);
  shmwin_free(first[3]);
  search_ends.last = memory_;
  EXPECT_EQ(take(40), first[3]);
}

TEST_F(HeapTest, WrongReleasesChangeNothingAndAreCounted) {
  make(16);
  std::uint8_t *const node40 = take(40);
  std::uint8_t *const node56 = take(56);
  std::uint8_t *const run = take(3 * kPageBytes);
  std::uint8_t *const gone = take(40);
  shmwin_free(gone);
  static std::uint8_t elsewhere[64];
  std::uint8_t *const wrong[] = {elsewhere,
                                 memory_,
                                 memory_ + shape_.descriptors,
                                 gone,
                                 node40 + 8,
                                 node40 + 102 * 40,
                                 node56 + 40,
                                 node56 + 73 * 56,
                                 run + 8,
                                 run + kPageBytes,
                                 run + 2 * kPageBytes,
                                 run + 3 * kPageBytes,
                                 memory_ + shape_.size - 8};
  const shmwin_stat_t before = stat();
  const std::vector<std::uint8_t> bytes(memory_ + 4096, memory_ + shape_.heap);
  for (std::uint8_t *const address : wrong) {
    shmwin_free(address);
  }
  shmwin_free(nullptr);
  EXPECT_EQ(stat().bad_releases, before.bad_releases + std::size(wrong));
  EXPECT_EQ(messages, std::vector<std::string>(std::size(wrong), "shmwin_bad_release"));
  EXPECT_EQ(bytes, std::vector<std::uint8_t>(memory_ + 4096, memory_ + shape_.heap));
  shmwin_free(run);
  shmwin_free(run);
  EXPECT_EQ(stat().bad_releases, before.bad_releases + std::size(wrong) + 1);
}

// A window whose bookkeeping was written over: nothing may fault, loop, or lie outside the window.
TEST_F(HeapTest, DamagedBookkeepingDoesNoHarm) {
  const unsigned seed = std::random_device{}();
  std::mt19937_64 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  make(70);
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
TEST(SizeFor, AMillionEncapsulationsTakeLessThanEightyMebibytes) {
  const std::uint64_t arrays = 28 * 983025 + 16 * 65536;
  const std::uint64_t size = shmwin_size_for(arrays, 2, 983025, 65535);
  EXPECT_LT(size, std::uint64_t{80} << 20);
  const double node40 = static_cast<double>(kPageBytes + sizeof(PageDescriptor)) / 102;
  const double node56 = static_cast<double>(kPageBytes + sizeof(PageDescriptor)) / 73;
  EXPECT_LE(node40, 44);
  EXPECT_LE(node56, 60);
  std::printf("65,535 tunnels x 15 NHs: %.1f MiB, %.1f bytes an NH node, %.1f a tunnel node\n",
              static_cast<double>(size) / (1 << 20), node40, node56);
  EXPECT_EQ(shmwin_size_for(UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX), UINT64_MAX);
  EXPECT_EQ(shmwin_size_for(UINT64_MAX, 1, UINT64_MAX, UINT64_MAX), UINT64_MAX);
}

TEST_F(HeapTest, ASizeForSomeBlocksHoldsThem) {
  for (const std::uint64_t nodes : {1u, 102u, 103u, 5000u}) {
    make(shape_of_size(shmwin_size_for(3 * 4097, 3, nodes, nodes)).pages);
    for (int i = 0; i < 3; ++i) {
      EXPECT_NE(take(4097), nullptr);
    }
    for (std::uint64_t i = 0; i < 2 * nodes; ++i) {
      ASSERT_NE(take(kNodeSizes[i % 2]), nullptr);
    }
    TearDown();
    memory_ = nullptr;
  }
}

}  // namespace
}  // namespace heap_tests
