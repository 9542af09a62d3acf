// Threads of one process on the real services, all at once: what ThreadSanitizer is to look at.
#include <thread>
#include <vector>

#include "avl_tree_check.h"
#include "ed.h"
#include "ltrace.h"
#include "oxa_errmsg.h"
#include "shared_mutex.h"
#include "shmwin_fixture.h"

namespace {

using namespace avl_tests;
using test_support::take;

class ThreadsTest : public window_tests::WindowTest {
 protected:
  static constexpr unsigned kThreads = 4;
  static constexpr unsigned kRounds = 1000;

  struct UserArea {
    pthread_mutex_t mutex;
    void *root;
  };

  void SetUp() override {
    WindowTest::SetUp();
    ASSERT_EQ(open(config()), 0) << error_.text;
    area_ = static_cast<UserArea *>(shmwin_user_area(window_tests::kId));
    test_support::make_mutex(&area_->mutex);
  }

  // Enters a key and looks it up; a key that is not to stay is taken out again, in another hold of the lock.
  void enter(std::uint64_t key, bool stays) const {
    int flag = 0;
    EXPECT_EQ(take(&area_->mutex), 0);
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(window_tests::kId, 40, &block), 0);
    auto *const node = new (block) Node{{}, key};
    EXPECT_EQ(avl_insert(&area_->root, node, &flag, compare_keys), node);
    EXPECT_EQ(find(area_->root, key), node);
    EXPECT_EQ(pthread_mutex_unlock(&area_->mutex), 0);
    if (!stays) {
      EXPECT_EQ(take(&area_->mutex), 0);
      EXPECT_EQ(avl_delete(&area_->root, node, &flag, compare_keys), node);
      shmwin_free(node);
      EXPECT_EQ(pthread_mutex_unlock(&area_->mutex), 0);
    }
  }

  UserArea *area_ = nullptr;
};

TEST_F(ThreadsTest, AllServicesAtOnce) {
  static oxa_msg_limit_t limit{OXA_DEFAULT_BURST, {}};
  static constexpr oxa_msg_rec_t kMessage{0, "%s %u", &limit, "TEST", "TEST", "TEST", OXA_MSG_CLASS, 0, 1};
  static std::atomic<unsigned> shown;
  oxa_set_sink([](void *, int, const char *, std::size_t) { ++shown; }, nullptr);
  std::atomic<bool> done = false;
  std::thread onlooker([&] {
    ptd_wait_t waits[kThreads];
    ed_query_error_t error;
    while (!done) {
      EXPECT_LE(ptd_waits(waits, kThreads), static_cast<int>(kThreads) + 1);
      ed_query("-flag slow", &error);
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < kThreads; ++number) {
    threads.emplace_back([this, number] {
      for (unsigned round = 0; round < kRounds; ++round) {
        const unsigned key = round * kThreads + number;
        enter(key, round % 4 == 0);
        _ltrace_2(0, 0x780000001, key, round);
        oxa_errmsg(&kMessage, OXA_SEVERITY_ERROR, "round", round);
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  done = true;
  onlooker.join();
  Keys expected;
  for (unsigned key = 0; key < kThreads * kRounds; ++key) {
    if (key / kThreads % 4 == 0) {
      expected.push_back(key);
    }
  }
  const View view = view_of(&area_->root);
  EXPECT_EQ(view.fault, "");
  EXPECT_EQ(view.keys, expected);
  shmwin_stat_t usage{};
  EXPECT_EQ(shmwin_stat(window_tests::kId, &usage), 0);
  EXPECT_EQ(usage.nodes40, expected.size());
  EXPECT_EQ(usage.bad_releases, 0U);
  EXPECT_GE(shown, OXA_DEFAULT_BURST);
}

}  // namespace
