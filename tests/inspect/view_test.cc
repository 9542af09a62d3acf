// Looking at windows from outside: alive, held, dead, moving, copied, cut short.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <functional>

#include "inspect_fixture.h"

namespace inspect_tests {
namespace {

class ViewTest : public InspectTest {
 protected:
  void SetUp() override {
    InspectTest::SetUp();
    fill(3, 9);
  }

  // A process that uses the window, until it is killed. Returns once it has said that it is at work.
  pid_t start(const std::function<void()> &work) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      vrl_egress_encap_db_lock(&db().lock.mutex);
      char byte = 0;
      if (write(ends[1], &byte, 1) != 1) {
        _exit(1);
      }
      work();
      _exit(0);
    }
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    close(ends[0]);
    close(ends[1]);
    return child;
  }

  static void end(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }

  View live(unsigned readings = View::kReadings) {
    std::string error;
    std::optional<View> view = View::open_live(directory_.c_str(), "window", &error, readings);
    EXPECT_TRUE(view) << error;
    return *view;
  }
};

TEST_F(ViewTest, ALiveWindowIsCopiedAtOneMoment) {
  const View view = live();
  EXPECT_EQ(view.stillness(), Stillness::kStill);
  EXPECT_EQ(view.size(), bytes_);
  EXPECT_EQ(view.base(), reinterpret_cast<Address>(window_));
  EXPECT_TRUE(check(view).sound());
  const Database seen = decode(view);
  EXPECT_FALSE(seen.lock.held);
  ASSERT_EQ(seen.processes.size(), 1U);
  EXPECT_EQ(seen.processes[0].liveness, Liveness::kAlive);
}

TEST_F(ViewTest, ASnapshotReadsAsTheWindowDid) {
  const std::string copy = directory_ + "/copy";
  const View view = live();
  std::ofstream(copy, std::ios::binary)
      .write(reinterpret_cast<const char *>(view.bytes().data()), static_cast<std::streamsize>(view.size()));
  std::string error;
  const std::optional<View> snapshot = View::open_file(copy.c_str(), &error);
  ASSERT_TRUE(snapshot) << error;
  EXPECT_TRUE(check(*snapshot).sound());
  EXPECT_EQ(decode(*snapshot).nhs.size(), entered_.size());
  EXPECT_EQ(decode(*snapshot).processes[0].liveness, Liveness::kUnknown);
}

TEST_F(ViewTest, WhoHoldsTheLockIsTold) {
  const pid_t child = start([] { pause(); });
  const View held = live(3);
  EXPECT_EQ(held.stillness(), Stillness::kHeld);
  Database seen = decode(held);
  EXPECT_TRUE(seen.lock.held);
  EXPECT_EQ(seen.lock.owner_tid, child);
  EXPECT_EQ(seen.lock.owner_pid, child);
  EXPECT_EQ(seen.lock.owner, Liveness::kAlive);
  EXPECT_TRUE(check(held).sound());
  end(child);

  const View dead = live();
  EXPECT_EQ(dead.stillness(), Stillness::kStill);
  seen = decode(dead);
  EXPECT_TRUE(seen.lock.owner_died);
  EXPECT_EQ(seen.lock.owner_tid, child);
  EXPECT_EQ(kinds(check(dead)), std::set<std::string>{"lock-dead-owner"});
  const RepairResult result = expect_mended();
  ASSERT_EQ(result.changes.size(), 1U);
  EXPECT_EQ(result.changes[0].because, FindingKind::kLockDeadOwner);
}

// A lock word of a thread that is not there and was never marked: nobody would ever get the lock.
TEST_F(ViewTest, ALostLockIsNotWaitedFor) {
  const pid_t child = start([] { _exit(0); });
  waitpid(child, nullptr, 0);
  db().lock.mutex.__data.__lock = child;
  EXPECT_EQ(kinds(check(live())), std::set<std::string>{"lock-lost"});
  EXPECT_EQ(repair(kId).status, EINVAL);
  db().lock.mutex.__data.__lock = 0;
}

TEST_F(ViewTest, ADatabaseAtWorkIsSeenWholeOrSaidToMove) {
  const pid_t child = start([&] {
    pthread_mutex_unlock(&db().lock.mutex);
    for (std::uint32_t i = 0;; ++i) {
      std::uint32_t a = 0, b = 0, c = 0;
      enter(150 + i % 8, 6 + i % 3, 300 + i % 8);
      vrl_egress_encap_nh_detach(150 + i % 8, &a, &b, &c);
      if (i % 64 == 0) {
        usleep(3000);
      }
    }
  });
  unsigned whole = 0;
  for (int i = 0; i < 60; ++i) {
    const View view = live();
    if (view.stillness() == Stillness::kStill) {
      ++whole;
      EXPECT_EQ(text(check(view)), "");
    } else {
      check(view);
    }
  }
  EXPECT_GT(whole, 0U);
  end(child);
  expect_mended();
}

TEST_F(ViewTest, FilesCutShortAreToldNotFollowed) {
  const View whole = live();
  const std::string copy = directory_ + "/copy";
  std::ofstream(copy, std::ios::binary)
      .write(reinterpret_cast<const char *>(whole.bytes().data()), static_cast<std::streamsize>(whole.size()));
  for (std::uint64_t length = whole.size() - 1; length > 0; length = length * 9 / 10) {
    std::filesystem::resize_file(copy, length);
    std::string error;
    const std::optional<View> view = View::open_file(copy.c_str(), &error);
    ASSERT_TRUE(view);
    const Report report = check(*view);
    EXPECT_FALSE(report.looked);
    EXPECT_EQ(report.faults(), 1U) << length;
    EXPECT_EQ(kinds(report),
              std::set<std::string>{length < sizeof(vrellis::WindowHeader) ? "not-a-window" : "truncated"});
  }
}

TEST_F(ViewTest, WhatIsNoWindowIsRefusedInASentence) {
  std::string error;
  EXPECT_FALSE(View::open_live(directory_.c_str(), "none", &error));
  EXPECT_NE(error.find("No such file"), std::string::npos) << error;
  EXPECT_FALSE(View::open_file(directory_.c_str(), &error));
  EXPECT_NE(error.find("no regular file"), std::string::npos) << error;
  std::uint32_t id = 0;
  EXPECT_EQ(attach_for_repair(directory_.c_str(), "none", &id, &error), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(directory_ + "/none"));
  std::ofstream(directory_ + "/text")
      << "no window, and no header's length of bytes either, but enough to be read as one";
  EXPECT_EQ(attach_for_repair(directory_.c_str(), "text", &id, &error), EINVAL);
  EXPECT_EQ(repair(30).status, ENOENT);
}

TEST_F(ViewTest, AnotherProcessRepairsWithoutKnowingTheRanges) {
  --tunnel(6).ref_count;
  encap_db_close();
  std::uint32_t id = 0;
  std::string error;
  ASSERT_EQ(attach_for_repair(directory_.c_str(), "window", &id, &error), 0) << error;
  EXPECT_EQ(id, kId);
  const RepairResult result = repair(id);
  EXPECT_EQ(result.status, 0) << result.error;
  ASSERT_EQ(result.changes.size(), 1U);
  EXPECT_EQ(result.changes[0].text, "set the count of tunnel 6 from 8 to 9");
  EXPECT_EQ(shmwin_detach(id), 0);
}

}  // namespace
}  // namespace inspect_tests
