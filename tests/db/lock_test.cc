// The lock: recursion, waits, dead holders, locks beyond repair.
#include <csignal>
#include <thread>

#include "child.h"
#include "doubles/fixture.h"

namespace encap_test {
namespace {

constexpr const char *kWait = "waits(lock,vrl_egress_encap_db_lock,43)";

class LockTest : public DbTest {
 protected:
  pthread_mutex_t *mutex() { return &db().lock.mutex; }
  int lock() { return vrl_egress_encap_db_lock(mutex()); }
  int unlock() { return pthread_mutex_unlock(mutex()); }
};

TEST_F(LockTest, IsRecursive) {
  enter(full_key(), kNh, kTunnel);
  EXPECT_EQ(lock(), 0);
  EXPECT_EQ(lock(), 0);
  EXPECT_EQ(vrl_find_and_share_egress_nh(kNh), 0);
  EXPECT_EQ(held(), 2);
  std::thread([&] {
    faults().order("lock1=35");  // this thread finds it taken, and does not wait for it
    EXPECT_EQ(lock(), 35);
  }).join();
  EXPECT_EQ(unlock(), 0);
  EXPECT_EQ(unlock(), 0);
  expect_journal(std::string("trylock=0 trylock=0 trylock=0 18 unlock=0 49 trylock=16 ") + kWait +
                 " lock=35 waited unlock=0 unlock=0");
  std::thread([&] {
    EXPECT_EQ(lock(), 0) << "released as often as taken";
    EXPECT_EQ(unlock(), 0);
  }).join();
}

TEST_F(LockTest, KilledHolderPassesTheLockOnHoweverOftenItHeldIt) {
  enter(full_key(), kNh, kTunnel);
  for (const int holds : {1, 2}) {
    set_count(kNh, 1);
    const auto die = [&] {
      for (int i = 0; i < holds; ++i) {
        lock();
      }
      return raise(SIGKILL);
    };
    ASSERT_EQ(test_support::in_child(die), -SIGKILL);
    EXPECT_EQ(vrl_find_and_share_egress_nh(kNh), 0);
    expect_journal("trylock=130 consistent=0 18 unlock=0 49");
    model.share(kNh);
    story.take();
    std::thread([&] { EXPECT_EQ(lock() + unlock(), 0) << "still held"; }).join();
    expect_journal("trylock=0 unlock=0");
  }
}

TEST_F(LockTest, StopsTheProcessWhenTheLockIsBeyondRepair) {
  const std::string at = "platforms/vrellis/encap-id/src/mpls_egress_encap_db:";
  const std::string function = ": vrl_egress_encap_db_lock: Assertion `";
  for (const char *first : {"trylock1=", "trylock1=16 lock1="}) {
    const std::string orders = first;
    const auto lock_with = [&](const std::string &faults_text) {
      faults().order(faults_text);
      lock();
    };
    EXPECT_EXIT(lock_with(orders + "130 consistent1=22"), ::testing::KilledBySignal(SIGABRT),
                at + "48" + function + "rc == 0' failed");
    EXPECT_EXIT(lock_with(orders + "131"), ::testing::KilledBySignal(SIGABRT), at + "51" + function + "0' failed");
  }
}

TEST_F(LockTest, MonitorHookDoesNothing) {
  eencap_mutex_monitor_server_fn();
  expect_journal("");
  expect_database();
}

}  // namespace
}  // namespace encap_test
