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
#include "support/operations.h"

namespace encap_test {
namespace {

constexpr std::uint32_t kNhStart = 1000, kNhEach = 24, kTunStart = 10, kTunEach = 6;
constexpr std::uint32_t kMaxProcesses = 4;
constexpr std::uint32_t kNhSize = kNhEach * kMaxProcesses, kTunSize = kTunEach * kMaxProcesses;

using crash::key_of;

// What processes tell each other beside the database: who holds how many references on each NH.
struct Ledger {
  std::uint32_t users[kMaxProcesses][kNhSize];
};

class ProcessesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(directory_.data()), nullptr);
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
  void work(std::uint32_t self, unsigned seed, unsigned operations);
  void expect_ledger_and_empty_it();

  std::string directory_ = "/tmp/encap-processes-XXXXXX";
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
  EXPECT_EQ(crash::on_database(crash::on_nh(crash::Verb::kRelease, nh)).status, 0);
  --ledger_->users[self][nh - kNhStart];
}

// Few enough keys that each process can hold all of them with its own indexes.
void ProcessesTest::work(std::uint32_t self, unsigned seed, unsigned operations) {
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
}

void ProcessesTest::expect_ledger_and_empty_it() {
  open();
  EXPECT_EQ(inconsistency(*egress_encap_db, walk_avl), "");
  for (std::uint32_t i = 0; i < kNhSize; ++i) {
    std::uint32_t users = 0;
    for (const auto &each : ledger_->users) {
      users += each[i];
    }
    EXPECT_EQ(egress_encap_db->nh_info_array[i].ref_count, users) << "NH " << kNhStart + i;
    EXPECT_EQ(egress_encap_db->nh_info_array[i].valid, users != 0) << "NH " << kNhStart + i;
    for (; users != 0; --users) {
      release(0, kNhStart + i);
    }
  }
  EXPECT_EQ(inconsistency(*egress_encap_db, walk_avl), "");
  EXPECT_EQ(egress_encap_db->tun_root, nullptr);
  shmwin_stat_t stat{};
  EXPECT_EQ(shmwin_stat(3, &stat), 0);
  EXPECT_EQ(stat.nodes40 + stat.nodes56 + stat.bad_releases, 0u);
  EXPECT_EQ(encap_db_close(), 0);
}

TEST_F(ProcessesTest, WaiterTakesOverFromAKilledHolder) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const auto tell = [&] { EXPECT_EQ(write(ready[1], "x", 1), 1); };
  const auto wait = [&] {
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
  };
  const pid_t holder = process([&] {
    EXPECT_EQ(enter(0, key_of(16, 200, 1)), kNhStart);
    vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    tell();
    pause();
  });
  wait();
  const pid_t waiter = process([&] {
    tell();
    EXPECT_EQ(enter(1, key_of(16, 200, 1)), kNhStart) << "found, not entered anew";
  });
  wait();
  usleep(50'000);  // the waiter most likely blocks by now; right either way
  EXPECT_EQ(waitpid(waiter, nullptr, WNOHANG), 0) << "did not wait";
  kill(holder, SIGKILL);
  EXPECT_EQ(ended(holder), SIGKILL);
  EXPECT_EQ(ended(waiter), 0);
  expect_ledger_and_empty_it();
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
    children.push_back(process([&] {
      work(self, seed + self, self == 0 ? operations / 3 : operations);
      if (self == 0) {
        EXPECT_EQ(vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex), 0);
        EXPECT_EQ(vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex), 0);
        kill(getpid(), SIGKILL);
      }
    }));
  }
  for (std::uint32_t self = 0; self < kMaxProcesses; ++self) {
    const int status = ended(children[self]);
    EXPECT_EQ(status, self == 0 ? SIGKILL : 0) << self;
  }
  expect_ledger_and_empty_it();
}

}  // namespace
}  // namespace encap_test
