// Threads of one process make all kinds of operations on the real services at once, while another thread lists and
// switches points and reads who waits: what ThreadSanitizer is to look at.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "ed.h"
#include "encap_db_owner.h"
#include "model/operations.h"
#include "oxa_errmsg.h"
#include "ptd.h"

namespace encap_test {
namespace {

using crash::Answer;
using crash::Operation;
using crash::Verb;

constexpr std::uint32_t kThreads = 4, kNhsEach = 6, kNhStart = 1000, kTunStart = 10;
constexpr unsigned kOperations = 20000;  // of each thread

class ThreadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(directory_.data()), nullptr);
    setenv("LTRACE_DIR", directory_.c_str(), 1);
    encap_db_config_t config{};
    config.directory = directory_.c_str();
    config.name = "window";
    config.shm_id = kWindow;
    config.nh_start = kNhStart;
    config.nh_size = kThreads * kNhsEach;
    config.tun_start = kTunStart;
    config.tun_size = kThreads * 2;
    shmwin_error_t error{};
    ASSERT_EQ(encap_db_open(&config, nullptr, &error), 0) << error.text;
    oxa_set_sink([](void *, int, const char *, std::size_t) { ++messages_; }, nullptr);
    ed_set_sink([](void *, const char *, std::size_t) { ++printed_; }, nullptr);
  }
  void TearDown() override {
    encap_db_close();
    std::filesystem::remove_all(directory_);
  }

  static constexpr std::uint32_t kWindow = 3;
  static inline std::atomic<unsigned> messages_, printed_;
  std::string directory_ = "/dev/shm/encap-threads-XXXXXX";
};

// What the call answers when there are `users` of its NH, and how many there are afterwards.
std::pair<int, std::uint32_t> outcome(const Operation &call, std::uint32_t users) {
  const bool there = users != 0;
  switch (call.verb) {
    case Verb::kFind:
      return {0, users};
    case Verb::kFindShare:
      return {0, there ? users + 1 : 0};
    case Verb::kInsert:
      return {0, there ? users : 1};
    case Verb::kAttach:
      return {0, call.count};
    case Verb::kCanDelete:
      return {users == 1 ? 1 : 0, users};
    case Verb::kShare:
      return there ? std::pair{0, users + 1} : std::pair{EINVAL, 0U};
    case Verb::kSet:
      return there ? std::pair{0, call.count} : std::pair{EINVAL, 0U};
    case Verb::kDetach:
      return {there ? 0 : EINVAL, 0};
    case Verb::kRelease:
      return there ? std::pair{0, users - 1} : std::pair{EINVAL, 0U};
    case Verb::kUpdate:
    case Verb::kRead:
      return {there ? 0 : EINVAL, users};
  }
  return {-1, 0};
}

// Each thread has NHs and keys of its own, on two tunnels of its own and on a node of the null tunnel.
void work(std::uint32_t self) {
  std::mt19937 random(self);
  const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
  pthread_mutex_t *const lock = &egress_encap_db->lock.mutex;
  std::uint32_t users[kNhsEach] = {};
  for (unsigned i = 0; i < kOperations + kNhsEach && !testing::Test::HasFailure(); ++i) {
    const bool last = i >= kOperations;  // each NH is taken out at the end
    const std::uint32_t nh = last ? i - kOperations : below(kNhsEach);
    const Verb verb = last ? Verb::kDetach : static_cast<Verb>(below(crash::kVerbs));
    Operation call = crash::on_nh(verb, kNhStart + self * kNhsEach + nh, 1 + below(3));
    call.key = crash::key_of(16 + nh, nh % 3 == 0 ? 0 : 200 + nh % 3, 1 + self);
    if (verb == Verb::kInsert || verb == Verb::kAttach) {
      Operation look;
      look.key = call.key;
      call.info = crash::on_database(look).info;
      call.info.egr_nh = call.nh;
      call.info.egr_tun = nh % 3 == 0 ? 0 : kTunStart + self * 2 + nh % 3 - 1;
    }
    // These two take no lock of their own: a caller whose threads change the NH does.
    const bool locks = verb == Verb::kCanDelete || verb == Verb::kUpdate;
    EXPECT_EQ(locks ? vrl_egress_encap_db_lock(lock) : 0, 0);
    const Answer is = crash::on_database(call);
    EXPECT_EQ(locks ? pthread_mutex_unlock(lock) : 0, 0);
    const bool was_there = users[nh] != 0;
    const auto [status, now] = outcome(call, users[nh]);
    EXPECT_EQ(is.status, status) << text_of(call);
    if (verb == Verb::kFind || verb == Verb::kFindShare) {
      EXPECT_TRUE(is.info.nh_found == was_there && (!was_there || is.info.egr_nh == call.nh)) << text_of(is);
    }
    users[nh] = now;
  }
}

TEST_F(ThreadsTest, AllOperationsAtOnce) {
  std::atomic<bool> done = false;
  std::thread onlooker([&] {
    while (!done) {
      ptd_wait_t waits[kThreads];
      EXPECT_LE(ptd_waits(waits, kThreads), static_cast<int>(kThreads) + 2);
      ed_query_error_t error;
      EXPECT_EQ(ed_query("func vrl_* +ps; func vrl_* -p; line 500-700 -s", &error), 0) << error.text;
      ed_for_each_point([](void *, const ed_point_t *) {}, nullptr);
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (std::uint32_t self = 0; self < kThreads; ++self) {
    threads.emplace_back(work, self);
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  done = true;
  onlooker.join();
  EXPECT_EQ(inconsistency(*egress_encap_db, walk_avl), "");
  EXPECT_EQ(egress_encap_db->tun_root, nullptr);
  shmwin_stat_t usage{};
  EXPECT_EQ(shmwin_stat(kWindow, &usage), 0);
  EXPECT_EQ(usage.nodes40 + usage.nodes56 + usage.bad_releases, 0U);
  EXPECT_GE(messages_, OXA_DEFAULT_BURST);
  EXPECT_GE(printed_, 1U);
}

}  // namespace
}  // namespace encap_test
