// The database on the real services: several processes in one window, some of which are killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <random>

#include "encap_db_owner.h"
#include "support/model.h"

namespace encap_test {
namespace {

constexpr std::uint32_t kNhStart = 1000, kNhEach = 24, kTunStart = 10, kTunEach = 6;
constexpr std::uint32_t kMaxProcesses = 4;
constexpr std::uint32_t kNhSize = kNhEach * kMaxProcesses, kTunSize = kTunEach * kMaxProcesses;

egress_encap_key_t key_of(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh) {
  egress_encap_key_t key{};
  key.out_label1 = label1 & 0x1fffff;
  key.out_label2 = label2 & 0x1fffff;
  key.ifh = ifh;
  return key;
}

// What processes tell each other beside the database: who holds how many references on each NH.
struct Ledger {
  std::uint32_t users[kMaxProcesses][kNhSize];
};

class ProcessesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char directory[] = "/tmp/encap-processes-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    directory_ = directory;
    setenv("LTRACE_DIR", (directory_ + "/trace").c_str(), 1);
    ledger_ =
        static_cast<Ledger *>(mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  }
  void TearDown() override {
    munmap(ledger_, sizeof(Ledger));
    std::filesystem::remove_all(directory_);
  }

  void open() {
    encap_db_config_t config{};
    config.directory = directory_.c_str();
    config.name = "window";
    config.shm_id = 3;
    config.nh_start = kNhStart;
    config.nh_size = kNhSize;
    config.tun_start = kTunStart;
    config.tun_size = kTunSize;
    shmwin_error_t error{};
    ASSERT_EQ(encap_db_open(&config, nullptr, &error), 0) << error.text;
  }

  // Runs `work` in a process of its own, which opens the database itself; its failures become its exit status.
  pid_t process(const std::function<void()> &work) {
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      open();
      work();
      std::cout.flush();
      std::_Exit(HasFailure() ? 1 : 0);
    }
    return child;
  }
  static int ended(pid_t child) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
  }

  // One caller as daemons are written: finds and shares, or chooses from its own indexes and inserts.
  std::uint32_t enter(std::uint32_t self, const egress_encap_key_t &key);
  void release(std::uint32_t self, std::uint32_t nh);
  void work(std::uint32_t self, unsigned seed, unsigned operations, bool dies);
  void expect_ledger();
  void empty_it();

  std::string directory_;
  Ledger *ledger_ = nullptr;
};

std::uint32_t ProcessesTest::enter(std::uint32_t self, const egress_encap_key_t &key) {
  egress_encap_db_t &db = *egress_encap_db;
  egress_encap_info_t info{};
  EXPECT_EQ(vrl_egress_encap_db_lock(&db.lock.mutex), 0);
  EXPECT_EQ(vrl_find_and_share_egress_encap(&info, key), 0);
  if (!info.nh_found) {
    for (info.egr_nh = kNhStart + self * kNhEach; db.nh_info_array[info.egr_nh - kNhStart].valid;) {
      ++info.egr_nh;
    }
    if (!info.tun_found && key.out_label2 != 0) {
      for (info.egr_tun = kTunStart + self * kTunEach; db.tun_info_array[info.egr_tun - kTunStart].valid;) {
        ++info.egr_tun;
      }
    }
    EXPECT_EQ(vrl_insert_egress_encap(&info, key), 0);
  }
  ++ledger_->users[self][info.egr_nh - kNhStart];
  EXPECT_EQ(pthread_mutex_unlock(&db.lock.mutex), 0);
  return info.egr_nh;
}

void ProcessesTest::release(std::uint32_t self, std::uint32_t nh) {
  std::uint32_t tunnel = 0, nh_gone = 0, tunnel_gone = 0;
  EXPECT_EQ(vrl_delete_and_free_egress_encap_with_nh_key(nh, &tunnel, &nh_gone, &tunnel_gone), 0);
  --ledger_->users[self][nh - kNhStart];
}

// Few enough keys that each process can hold all of them with its own indexes.
void ProcessesTest::work(std::uint32_t self, unsigned seed, unsigned operations, bool dies) {
  std::mt19937 random(seed);
  const auto below = [&](unsigned limit) { return static_cast<std::uint32_t>(random() % limit); };
  auto &mine = ledger_->users[self];
  for (unsigned i = 0; i < operations && !HasFailure(); ++i) {
    const std::uint32_t nh = kNhStart + below(kNhSize);
    if (mine[nh - kNhStart] != 0) {
      release(self, nh);
    } else if (below(3) == 0) {
      enter(self, key_of(100 + below(4), below(3), 1 + below(2)));
    }
  }
  if (dies) {
    EXPECT_EQ(vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex), 0);
    EXPECT_EQ(vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex), 0);
    kill(getpid(), SIGKILL);
  }
}

void ProcessesTest::expect_ledger() {
  EXPECT_EQ(inconsistency(*egress_encap_db, walk_avl), "");
  for (std::uint32_t i = 0; i < kNhSize; ++i) {
    std::uint32_t users = 0;
    for (const auto &each : ledger_->users) {
      users += each[i];
    }
    EXPECT_EQ(egress_encap_db->nh_info_array[i].ref_count, users) << "NH " << kNhStart + i;
    EXPECT_EQ(egress_encap_db->nh_info_array[i].valid, users != 0) << "NH " << kNhStart + i;
  }
}

void ProcessesTest::empty_it() {
  for (std::uint32_t self = 0; self < kMaxProcesses; ++self) {
    for (std::uint32_t i = 0; i < kNhSize; ++i) {
      while (ledger_->users[self][i] != 0) {
        release(self, kNhStart + i);
      }
    }
  }
  expect_ledger();
  EXPECT_EQ(egress_encap_db->tun_root, nullptr);
  shmwin_stat_t stat{};
  EXPECT_EQ(shmwin_stat(3, &stat), 0);
  EXPECT_EQ(stat.nodes40, 0u);
  EXPECT_EQ(stat.nodes56, 0u);
  EXPECT_EQ(stat.bad_releases, 0u);
  EXPECT_EQ(encap_db_close(), 0);
}

TEST_F(ProcessesTest, OneSharesWhatAnotherEntered) {
  ASSERT_EQ(ended(process([&] { EXPECT_EQ(enter(0, key_of(16, 200, 1)), kNhStart); })), 0);
  ASSERT_EQ(ended(process([&] { EXPECT_EQ(enter(1, key_of(16, 200, 1)), kNhStart) << "found, not entered anew"; })), 0);
  ASSERT_EQ(ended(process([&] { EXPECT_EQ(enter(1, key_of(17, 200, 1)), kNhStart + kNhEach); })), 0);
  open();
  EXPECT_EQ(egress_encap_db->nh_info_array[0].ref_count, 2u);
  EXPECT_EQ(egress_encap_db->tun_info_array[0].ref_count, 2u);
  expect_ledger();
  empty_it();
}

TEST_F(ProcessesTest, WaiterTakesOverFromAKilledHolder) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t holder = process([&] {
    enter(0, key_of(16, 200, 1));
    vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    EXPECT_EQ(write(ready[1], "x", 1), 1);
    for (;;) {
      pause();
    }
  });
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const pid_t waiter = process([&] {
    EXPECT_EQ(write(ready[1], "x", 1), 1);
    EXPECT_EQ(enter(1, key_of(16, 200, 1)), kNhStart);
  });
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  usleep(50'000);  // the waiter most likely blocks by now; right either way
  EXPECT_EQ(waitpid(waiter, nullptr, WNOHANG), 0) << "did not wait";
  kill(holder, SIGKILL);
  EXPECT_TRUE(WIFSIGNALED(ended(holder)));
  EXPECT_EQ(ended(waiter), 0);
  close(ready[0]);
  close(ready[1]);
  open();
  expect_ledger();
  empty_it();
}

// Each process works in the window at once; one dies holding the lock twice. References add up in the end.
TEST_F(ProcessesTest, ManyWorkAtOnceAndOneDies) {
  const char *chosen = std::getenv("ENCAP_SEED");
  const char *length = std::getenv("ENCAP_OPERATIONS");
  const auto seed = static_cast<unsigned>(chosen ? std::strtoul(chosen, nullptr, 0) : std::random_device{}());
  const auto operations = static_cast<unsigned>(length ? std::strtoul(length, nullptr, 0) : 20000);
  std::cout << "ENCAP_SEED=" << seed << " ENCAP_OPERATIONS=" << operations << std::endl;
  std::vector<pid_t> children;
  for (std::uint32_t self = 0; self < kMaxProcesses; ++self) {
    const bool dies = self == 0;
    children.push_back(process([&] { work(self, seed + self, dies ? operations / 3 : operations, dies); }));
  }
  for (std::uint32_t self = 0; self < kMaxProcesses; ++self) {
    const int status = ended(children[self]);
    EXPECT_TRUE(self == 0 ? WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL : status == 0) << self << ' ' << status;
  }
  open();
  expect_ledger();
  empty_it();
}

// Killed anywhere, inside operations too: what the victim left is not repaired, yet others go on with their own.
TEST_F(ProcessesTest, KillsAnywhereLeaveALockAndTreesThatWork) {
  open();
  for (unsigned round = 0; round < 20; ++round) {
    const pid_t victim = fork();
    if (victim == 0) {
      for (std::uint32_t i = 0;; ++i) {  // its own keys, its own indexes
        release(0, enter(0, key_of(1000 + round, 300 + round, 9)));
      }
    }
    std::mt19937 random(round);
    usleep(static_cast<useconds_t>(1000 + random() % 3000));
    kill(victim, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(ended(victim)));
    const std::uint32_t nh = enter(1, key_of(16 + round, 200, 1));
    EXPECT_EQ(egress_encap_db->nh_info_array[nh - kNhStart].ref_count, 1u);
    std::vector<void *> tunnels = walk_avl(egress_encap_db->tun_root);
    EXPECT_LE(tunnels.size(), 2u + round);
  }
  for (std::uint32_t nh = kNhStart + kNhEach; nh < kNhStart + kNhEach + 20; ++nh) {
    release(1, nh);
  }
  EXPECT_EQ(encap_db_close(), 0);
}

}  // namespace
}  // namespace encap_test
