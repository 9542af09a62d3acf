// Threads of one process make all kinds of operations on the real services at once, while another thread lists and
// switches points and reads who waits: what ThreadSanitizer is to look at.
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "ed.h"
#include "oxa_errmsg.h"
#include "ptd.h"
#include "storm/storm.h"
#include "support/window.h"

namespace crash {
namespace {

constexpr std::uint64_t kOperations = 80'000;

std::atomic<unsigned> messages, printed;

// Each owner has NHs and keys of its own, on tunnels of its own and on a node of the null tunnel.
void expect_completed(const Ledger &ledger) {
  EXPECT_EQ(encap_test::inconsistency(*egress_encap_db), "");
  for (std::uint32_t owner = 0; owner < kOwners; ++owner) {
    EXPECT_STREQ(ledger.herd.thread[owner].failure, "");
    EXPECT_EQ(ledger.owner[owner].unsure, 0U);
    EXPECT_EQ(storm_difference(ledger, owner), "");
    for (std::uint32_t nh = 0; nh < kNhsEach; ++nh) {
      if (ledger.owner[owner].entry[nh].count != 0) {
        EXPECT_EQ(on_database(on_nh(Verb::kDetach, storm_nh(owner, nh))).status, 0);
      }
    }
  }
  shmwin_stat_t usage{};
  EXPECT_EQ(shmwin_stat(kWindowId, &usage), 0);
  EXPECT_EQ(usage.nodes40 + usage.nodes56 + usage.bad_releases, 0U);
}

TEST(ThreadsTest, AllOperationsAtOnce) {
  const Directory directory;
  setenv("LTRACE_DIR", directory.path().c_str(), 1);
  const Window window(directory, storm_config(directory));
  oxa_set_sink([](void *, int, const char *, std::size_t) { ++messages; }, nullptr);
  const auto ledger = std::make_unique<Ledger>();
  std::vector<std::thread> threads;
  for (std::uint32_t owner = 0; owner < kOwners; ++owner) {
    threads.emplace_back([&ledger, owner] { storm_work(*ledger, owner, owner); });
  }
  const auto sum = [&] {
    std::uint64_t operations = 0;
    for (const ThreadState &thread : ledger->herd.thread) {
      operations += thread.operations;
    }
    return operations;
  };
  while (sum() < kOperations) {
    ed_set_sink([](void *, const char *, std::size_t) { ++printed; }, nullptr);
    ptd_wait_t waits[kOwners];
    EXPECT_LE(ptd_waits(waits, kOwners), static_cast<int>(kOwners) + 2);
    ed_query_error_t error;
    EXPECT_EQ(ed_query("func vrl_* +ps; func vrl_* -p; line 500-700 -s", &error), 0) << error.text;
    ed_for_each_point([](void *, const ed_point_t *) {}, nullptr);
    std::this_thread::yield();
  }
  ledger->herd.stop = true;
  for (std::thread &thread : threads) {
    thread.join();
  }
  expect_completed(*ledger);
  EXPECT_GE(messages, OXA_DEFAULT_BURST);
  EXPECT_GE(printed, 1U);
}

}  // namespace
}  // namespace crash
