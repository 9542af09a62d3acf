// Ledgers that grow and shrink: what a client holds, beside a map, and what its pages cost.
#include <algorithm>
#include <random>

#include "check/check.h"
#include "client_fixture.h"

namespace test_support {
namespace {

class LedgerTest : public ClientTest {
 protected:
  void SetUp() override {
    config_.nh_size = 40'000;
    config_.tun_size = 1000;
  }

  std::uint64_t used_pages() {
    shmwin_stat_t stat{};
    EXPECT_EQ(shmwin_stat(config_.shm_id, &stat), 0);
    return stat.size / 4096 - stat.free_pages;
  }

  // The inspector follows what clients keep, so that it takes none of it for lost, and adds their references up.
  std::string findings() {
    void *begin = nullptr;
    std::size_t bytes = 0;
    shmwin_bounds(config_.shm_id, &begin, &bytes);
    std::string names;
    for (const auto &finding : encap_inspect::check(encap_inspect::View::copy_of(begin, bytes)).findings) {
      names += std::string(name_of(finding.kind)) + ": " + finding.text + "\n";
    }
    return names;
  }
};

TEST_F(LedgerTest, EveryReferenceIsCountedWhileTheTableGrowsAndShrinks) {
  encap_client_t *const a = client("a");
  const std::uint64_t empty = used_pages();
  std::mt19937 engine(20261123);
  const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
  std::map<std::uint32_t, std::uint32_t> model;
  // First mostly entries, then mostly releases.
  for (int step = 0; step < 120'000; ++step) {
    if (step % 40'000 == 0) {
      EXPECT_EQ(findings(), "");
    }
    const bool enters = random() % 100 < (step < 60'000 ? 80 : 20) || model.empty();
    if (enters) {
      const encap_entry_t entry = enter(a, key(random() % 30'000 + 16, random() % 4));
      EXPECT_EQ(entry.held, ++model[entry.nh]);
    } else {
      auto at = model.lower_bound(kNhStart + random() % 30'000);
      at = at == model.end() ? model.begin() : at;
      const encap_left_t left = release(a, at->first);
      ASSERT_EQ(left.held, --at->second);
      ASSERT_EQ(left.nh_left, at->second == 0 ? 1U : 0U);
      if (at->second == 0) {
        model.erase(at);
      }
    }
  }
  Holdings held;
  for (const auto &[nh, count] : model) {
    held[nh] = {count, 0};
  }
  EXPECT_EQ(holdings(a), held);
  const auto twice = std::ranges::find_if(model, [](const auto &known) { return known.second == 2; });
  ASSERT_NE(twice, model.end());
  std::uint32_t &counted = egress_encap_db->nh_info_array[twice->first - kNhStart].ref_count;
  counted = 1;
  EXPECT_EQ(findings(),
            "ledger-count: NH " + std::to_string(twice->first) + " counts 1 references, its clients hold 2\n");
  counted = 2;
  for (const auto &[nh, count] : model) {
    for (std::uint32_t left = count; left != 0; --left) {
      release(a, nh);
    }
  }
  // What is left is the queue of returned indexes.
  EXPECT_LE(used_pages(), empty + 40'000 / 1022 + 3);
}

TEST_F(LedgerTest, AHoldingTakesTwentyFourBytesAtMost) {
  encap_client_t *const a = client("a");
  encap_client_t *const b = client("b");
  for (std::uint32_t i = 0; i < 40'000; ++i) {
    enter(a, key(16 + i % 900, 1 + i / 900));
  }
  const std::uint64_t before = used_pages();
  for (std::uint32_t i = 0; i < 40'000; ++i) {
    enter(b, key(16 + i % 900, 1 + i / 900));
    if (i % 997 == 0) {
      ASSERT_LE((used_pages() - before) * 4096, 24 * i + 65536);
    }
  }
  EXPECT_LE((used_pages() - before) * 4096, 24 * 40'000);
  EXPECT_EQ(leave(b), 0);
  EXPECT_LE(used_pages(), before);
  EXPECT_EQ(holdings(a).size(), 40'000U);
}

}  // namespace
}  // namespace test_support
