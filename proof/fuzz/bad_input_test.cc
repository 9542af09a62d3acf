// What comes from outside: each gets a status and one clear sentence, and loses nothing of the database that is there.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <functional>

#include "check/check.h"
#include "ltrace/file.h"
#include "ltrace/reader.h"
#include "model/operations.h"
#include "repair/repair.h"
#include "support/window.h"

namespace crash {
namespace {

constexpr uid_t kNobody = 65534;

class BadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(open(), 0) << error_.text;
    ASSERT_EQ(on_database(entering(model_, key_of(16, 200, 1), kNhStart, kTunStart)).status, 0);
    encap_db_close();
  }
  void TearDown() override { encap_db_close(); }

  int open() { return encap_db_open(&config_, nullptr, &error_); }

  static int in_child(const std::function<int()> &body) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  bool refused(int expected, std::initializer_list<const char *> parts) {
    const int status = open();
    bool good = status == expected && std::strchr(error_.text, '\n') == nullptr;
    for (const char *part : parts) {
      good = good && std::strstr(error_.text, part) != nullptr;
    }
    if (!good) {
      std::fprintf(stderr, "status %d: %s\n", status, error_.text);
    }
    return good;
  }

  void expect_nothing_lost() {
    ASSERT_EQ(open(), 0) << error_.text;
    EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(kNhStart), 1);
  }

  std::string path() const { return directory_.path() + "/window"; }

  Directory directory_;
  encap_db_config_t config_ = config_in(directory_);
  encap_test::Model model_{kNhStart, kNhSize, kTunStart, kTunSize};
  shmwin_error_t error_{};
};

TEST_F(BadInputTest, AnotherUsersWindowNamesBothUsers) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "becoming another user takes root";
  }
  EXPECT_EQ(in_child([this] {
              const bool other = setresgid(kNobody, kNobody, kNobody) == 0 && setresuid(kNobody, kNobody, kNobody) == 0;
              return other && refused(EACCES, {"'window'", "user 0", "0600", "user 65534"}) ? 0 : 1;
            }),
            0);
  expect_nothing_lost();
}

TEST_F(BadInputTest, AFileSystemWithoutRoomIsRefusedAndNothingStays) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "mounting a small file system takes root";
  }
  const int ended = in_child([this] {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", directory_.path().c_str(), "tmpfs", 0, "size=48k") != 0) {
      return 77;
    }
    return refused(ENOSPC, {"65536"}) && access(path().c_str(), F_OK) != 0 ? 0 : 1;
  });
  if (ended == 77) {
    GTEST_SKIP() << "no mounting here";
  }
  EXPECT_EQ(ended, 0);
  expect_nothing_lost();
}

// A window whose identity or whose database's header is damaged is refused, or the damage has no effect.
TEST_F(BadInputTest, ADamagedHeaderNeverHarmsWhoOpensIt) {
  std::ifstream file(path(), std::ios::binary);
  const std::string sound{std::istreambuf_iterator<char>(file), {}};
  for (std::size_t offset = 0; offset < 1024 + 48; offset += offset == 88 ? 936 : 8) {
    for (const char value : {'\x00', '\x01', '\x7f', '\xff'}) {
      std::string damaged = sound;
      std::memset(damaged.data() + offset, value, 8);
      std::ofstream(path(), std::ios::binary) << damaged;
      const int ended = in_child([this] { return open() == 0 ? 0 : error_.text[0] != '\0' ? 1 : 2; });
      EXPECT_TRUE(ended == 0 || ended == 1) << "offset " << offset << " value " << int{value} << " ended " << ended;
    }
  }
  std::ofstream(path(), std::ios::binary) << sound;
  expect_nothing_lost();
}

// ----------------------------------------------------------------------------------------- inputs that once went wrong

// A ring that claims to have been written up to the end of all numbers: the reader's next block wrapped round to 0.
TEST(TraceFinding, ARingWrittenToTheEndOfAllNumbersEnds) {
  const Directory directory("/tmp");
  const std::string path = directory.path() + "/trace";
  std::vector<char> bytes(vrellis::kRingHeaderBytes + vrellis::kMinRingKib * 1024);
  auto &header = *reinterpret_cast<vrellis::FileHeader *>(bytes.data());
  header.magic = vrellis::kTraceMagic;
  header.version = vrellis::kTraceVersion;
  header.header_bytes = vrellis::kRingHeaderBytes;
  header.block_words = vrellis::kBlockWords;
  header.ring_words = vrellis::kMinRingKib * 1024 / 8;
  header.num_rings = 1;
  header.ring[0].head = UINT64_MAX;
  header.ring[0].epoch = 2;
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  std::string error;
  std::vector<std::unique_ptr<vrellis::TraceFile>> files;
  files.push_back(vrellis::TraceFile::open(path, error));
  ASSERT_NE(files.front(), nullptr) << error;
  alarm(10);
  EXPECT_TRUE(vrellis::merge_traces(files).events.empty());
  alarm(0);
}

// Between taking a dead holder's mutex over and making it consistent, its owner field names no thread; a process that
// dies just there leaves it so.
TEST(LockFinding, ADeathWhileTheLockIsTakenOverIsNoDamage) {
  const Directory directory;
  const Window window(directory, config_in(directory));
  auto &mutex = egress_encap_db->lock.mutex.__data;
  mutex.__lock = 0x40000000;  // the kernel's mark: its owner died
  mutex.__owner = INT_MAX;
  const auto report = encap_inspect::check(encap_inspect::View::over(window.bytes(), window.size()));
  EXPECT_EQ(report.count_of(encap_inspect::FindingKind::kLockDamaged), 0u);
  EXPECT_EQ(report.count_of(encap_inspect::FindingKind::kLockDeadOwner), 1u);
  const encap_inspect::RepairResult repaired = encap_inspect::repair(kWindowId);
  EXPECT_EQ(repaired.status, 0) << repaired.error;
  EXPECT_TRUE(repaired.after.sound());
}

}  // namespace
}  // namespace crash
