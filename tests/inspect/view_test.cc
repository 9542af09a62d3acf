// Looking at windows from outside: alive, held, dead, moving, copied, cut short.
#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include "inspect_fixture.h"

namespace inspect_tests {
namespace {

class ViewTest : public InspectTest {
 protected:
  void SetUp() override {
    InspectTest::SetUp();
    fill(3, 9);
  }

  View live() {
    std::string error;
    return View::open_live(directory_.c_str(), "window", &error).value();
  }
};

// A copy of a window keeps the lock of a process that has the original, which lives: no thread would ever get it.
TEST_F(ViewTest, TheLostLockOfACopyIsMadeAnew) {
  const pid_t holder = hold_lock();
  encap_db_close();
  const encap_db_config_t copy = config_of("copy");
  std::filesystem::copy_file(path(), directory_ + "/copy");
  std::string error;
  const View seen = *View::open_live(directory_.c_str(), "copy", &error);
  EXPECT_EQ(kinds(check(seen)), std::set<std::string>{"lock-lost"});
  EXPECT_EQ(decode(seen).processes[0].liveness, Liveness::kDead);
  EXPECT_EQ(rehearse_window(copy).changes.size(), 1U);

  const pid_t user = test_support::spawn_waiting([&] {
    shmwin_config_t window{};
    window.directory = directory_.c_str();
    window.name = "copy";
    shmwin_claim_t *claim = nullptr;
    int present = 0;
    shmwin_claim(&window, &claim, &present, nullptr);
    shmwin_attach(claim, kId, nullptr);
    shmwin_release(claim);
  });
  const RepairResult refused = repair_window(copy);
  EXPECT_EQ(refused.status, EBUSY);
  EXPECT_NE(refused.error.find(std::to_string(user)), std::string::npos) << refused.error;
  test_support::kill_hard(user);

  const RepairResult result = repair_window(copy);
  EXPECT_EQ(result.status, 0) << result.error;
  EXPECT_EQ(shmwin_detach(kId), ENOENT);
  ASSERT_EQ(result.changes.size(), 1U);
  EXPECT_EQ(result.changes[0].because, FindingKind::kLockLost);
  EXPECT_EQ(result.before.faults(), 1U);
  ASSERT_EQ(encap_db_open(&copy, nullptr, nullptr), 0);
  expect_entries();
  EXPECT_EQ(enter(150, 7, 60), 0);
  EXPECT_EQ(repair_window(copy).status, 0) << "also while this process has it open";
  db().lock.mutex.__data.__lock = holder;
  EXPECT_EQ(repair(kId).status, EINVAL) << "a lost lock is not waited for";
  db().lock.mutex.__data.__lock = 0;
  encap_db_close();
  test_support::kill_hard(holder);
}

// The writer ends between two operations: what a death within one leaves is for the tests of repair.
TEST_F(ViewTest, ADatabaseAtWorkIsSeenWholeOrSaidToMove) {
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (std::uint32_t i = 0; !stop; ++i) {
      enter(150 + i % 8, 6 + i % 3, 300 + i % 8);
      take_out(150 + i % 8);
      if (i % 64 == 0) {
        usleep(3000);
      }
    }
  });
  unsigned whole = 0;
  for (int i = 0; i < 60 || (whole == 0 && i < 6000); ++i) {
    const View view = live();
    if (view.stillness() == Stillness::kStill) {
      ++whole;
      EXPECT_EQ(text(check(view)), "");
    } else if (view.stillness() == Stillness::kMoving) {
      EXPECT_EQ(text(check(view)), "not looked\n");
    }
  }
  EXPECT_GT(whole, 0U);
  stop = true;
  writer.join();
  expect_mended();
}

TEST_F(ViewTest, FilesCutShortAreToldNotFollowed) {
  const View whole = live();
  const std::string copy = directory_ + "/copy";
  std::ofstream(copy, std::ios::binary)
      .write(reinterpret_cast<const char *>(whole.bytes().data()), static_cast<std::streamsize>(whole.size()));
  std::string error;
  const std::optional<View> snapshot = View::open_file(copy.c_str(), &error);
  ASSERT_TRUE(snapshot) << error;
  EXPECT_TRUE(check(*snapshot).sound());
  EXPECT_EQ(decode(*snapshot).processes[0].liveness, Liveness::kUnknown);
  EXPECT_FALSE(View::open_file(directory_.c_str(), &error));
  EXPECT_NE(error.find("no regular file"), std::string::npos) << error;
  for (std::uint64_t length = whole.size() - 1; length > 0; length = length * 9 / 10) {
    std::filesystem::resize_file(copy, length);
    const std::optional<View> view = View::open_file(copy.c_str(), &error);
    ASSERT_TRUE(view);
    const Report report = check(*view);
    EXPECT_FALSE(report.looked);
    EXPECT_EQ(report.faults(), 1U) << length;
    EXPECT_EQ(kinds(report), std::set<std::string>{length < offsetof(vrellis::WindowHeader, heap_pages) ? "not-a-window"
                                                                                                        : "truncated"});
  }
  std::filesystem::resize_file(path(), bytes_ + vrellis::kPageBytes);
  EXPECT_EQ(kinds(check(live())), std::set<std::string>{"header-identity"}) << "no process can attach a longer file";
  EXPECT_FALSE(check(live()).looked);
}

TEST_F(ViewTest, NothingIsFoundWhileCallersWork) {
  std::mt19937 random(20261122);
  const auto below = [&random](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
  // A range that begins at 0 has index 0 twice: as an NH that exists, as a tunnel that is the null one. The array of
  // two NHs is as large as a node, and in a node's block.
  for (const Ranges &ranges : {Ranges{}, Ranges{0, 300, 1, 40}, Ranges{4'000'000'000U, 150, 65'500, 20},
                               Ranges{1, 40, 9, 0}, Ranges{100, 2, 5, 12}}) {
    open(ranges);
    for (int i = 0; i < 1500; ++i) {
      if (i % 25 == 0) {
        ASSERT_EQ(text(look()), "") << "operation " << i;
      }
      const std::uint32_t index = ranges.nh_start + below(ranges.nh_size);
      if (entered_.contains(index)) {
        take_out(index);
      } else {
        const std::uint32_t number = below(ranges.tun_size + 1);
        enter(index, number == 0 ? 0 : ranges.tun_start + number - 1, 16 + below(20));
      }
    }
    const std::vector<std::uint8_t> before(window_, window_ + bytes_);
    EXPECT_TRUE(expect_mended().changes.empty());
    EXPECT_EQ(std::memcmp(before.data(), window_, bytes_), 0);
  }
}

}  // namespace
}  // namespace inspect_tests
