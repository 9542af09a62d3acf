// Windows between processes: kept apart and let go, whichever process dies; and those that are refused, each with a
// status and one sentence, and with nothing lost.
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>

#include "process/process.h"
#include "shmwin_fixture.h"

namespace window_tests {
namespace {

TEST_F(WindowTest, SeveralWindowsEachKeepTheirOwnModeAndBlocks) {
  const mode_t umask_before = umask(0077);
  void *block[SHMWIN_MAX_WINDOWS];
  for (std::uint32_t id = 0; id < SHMWIN_MAX_WINDOWS; ++id) {
    const std::string name = std::to_string(id);
    shmwin_config_t made = config(id, name.c_str());
    made.mode = id == 0 ? 0 : 0664;
    ASSERT_EQ(open(made), 0) << error_.text;
    ASSERT_EQ(shmwin_malloc(id, 56, &block[id]), 0);
    const auto mode = std::filesystem::status(path(made.name)).permissions();
    EXPECT_EQ(mode, std::filesystem::perms(id == 0 ? 0600 : 0664));
  }
  umask(umask_before);
  expect_refusal(open(config(8, "8")), EMFILE, {"8 windows"});
  ASSERT_EQ(shmwin_detach(5), 0);
  expect_refusal(open(config(4, "another")), 17, {"id 4 is taken"});
  const std::uint64_t bad_before = stat_of(6).bad_releases;
  shmwin_free(block[6]);
  shmwin_free(block[5]);
  EXPECT_EQ(stat_of(6).nodes56, 0u);
  EXPECT_EQ(stat_of(6).bad_releases, bad_before + 1) << "the block of the window that is gone";
  EXPECT_EQ(stat_of(7).nodes56, 1u);
  shmwin_stat_t stat;
  EXPECT_EQ(shmwin_stat(5, &stat), 2);
  EXPECT_EQ(shmwin_malloc(5, 56, &block[5]), 22);
  EXPECT_EQ(shmwin_detach(5), 2);
  EXPECT_EQ(shmwin_user_area(5), nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(shmwin_user_area(4)) % 64, 0u);
}

TEST_F(WindowTest, ZombiesAndHelperProgramsDoNotHoldAWindowButForkedChildrenDo) {
  ASSERT_EQ(open(config()), 0);
  const pid_t child = spawn_waiting([] {});  // it has entered itself in the table
  const pid_t zombie = spawn([] { return 0; });
  const pid_t helper = spawn([] { return execl("/bin/sleep", "sleep", "100", nullptr); });
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &ended, WEXITED | WNOWAIT), 0);
  vrellis::ProcessStat stat{};
  while (vrellis::read_process_stat(helper, &stat) && std::strcmp(stat.comm, "sleep") != 0) {
    usleep(1000);
  }
  EXPECT_EQ(attached(header_of(kId)), 4u);
  EXPECT_EQ(open_anew(config()), 0);
  EXPECT_EQ(attached(header_of(kId)), 3u) << "the next process takes out those that have it no more";
  EXPECT_EQ(open_anew(config(), true), 16) << "nor does a new window go over it";
  ASSERT_EQ(shmwin_detach(kId), 0);
  expect_refusal(unlink(0), 16, {"attached by process", std::to_string(child).c_str()});
  kill_hard(child);
  EXPECT_EQ(unlink(0), 0) << error_.text;
}

TEST_F(WindowTest, AClaimDiesWithItsHolderAndNotWithItsChildren) {
  const shmwin_config_t made = config();
  const pid_t holder = spawn_waiting([&] {
    shmwin_claim_t *claim = nullptr;
    int present = 0;
    shmwin_claim(&made, &claim, &present, &error_);
    spawn_waiting([] {});  // has the open file, too
  });
  const auto begin = std::chrono::steady_clock::now();
  spawn([holder] { return usleep(50000), kill(holder, SIGKILL); });
  EXPECT_EQ(open(made), 0) << error_.text;
  EXPECT_TRUE(created_);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50)) << "the claim was not waited for";
}

TEST_F(WindowTest, AProcessThatKeepsTheFileLockedIsNamed) {
  ASSERT_EQ(open(config()), 0);
  ASSERT_EQ(shmwin_detach(kId), 0);
  const pid_t reader = spawn([&] {  // the right to read is enough for a lock
    struct flock lock = {F_RDLCK, SEEK_SET, 0, 0, 0};
    fcntl(::open(path().c_str(), O_RDONLY), F_SETLK, &lock);
    return raise(SIGSTOP);
  });
  ASSERT_EQ(waitpid(reader, nullptr, WUNTRACED), reader);
  expect_refusal(open(config()), ETIMEDOUT,
                 {"window 'window'", std::to_string(reader).c_str(), "(shmwin_test)", "stopped"});
  kill_hard(reader);
  EXPECT_EQ(open(config()), 0) << error_.text;
}

constexpr uid_t kUser = 4711;
constexpr uid_t kStranger = 65534;

// What a process of this user gets when it opens a window whose file belongs to others, if the system lets it.
class OwnedWindowTest : public WindowTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "files of other users need root";
    }
    chmod(directory_.c_str(), 01777);
  }

  // Returns: the status, or 254 if the sentence lacks one of the parts.
  int open_as(uid_t user, gid_t group, const shmwin_config_t &made, std::initializer_list<const char *> parts = {}) {
    return in_child([&] {
      const int status = become(user, group) ? reopen(made) : 255;
      expect_refusal(status, status, parts);
      return HasFailure() ? 254 : status;
    });
  }
};

TEST_F(OwnedWindowTest, AFileOfAStrangerIsNotUsed) {
  EXPECT_EQ(open_as(kStranger, kStranger, config()), 0);
  expect_refusal(open(config()), EPERM, {"'window'", "belongs to user 65534", "own user 0"});
  EXPECT_EQ(unlink(0), 0) << error_.text;
  ASSERT_EQ(open(config()), 0) << "the caller's own";
  EXPECT_EQ(open_as(kStranger, kStranger, config(), {"'window'", "user 0", "0600", "user 65534"}), EACCES);
  ASSERT_EQ(shmwin_detach(kId), 0);
  for (const mode_t mode : {0602u, 0620u, 0666u}) {
    ASSERT_EQ(chmod(path().c_str(), mode), 0);
    expect_refusal(open(config()), EPERM, {"mode 06", "may write"});
  }
  shmwin_config_t shared = config();
  shared.mode = 0660;
  ASSERT_EQ(chmod(path().c_str(), 0660), 0);
  EXPECT_EQ(open(shared), 0) << error_.text;
  shared.mode = 0666;
  expect_refusal(open(shared), 22, {"0666", "all users"});
}

TEST_F(OwnedWindowTest, NamedUsersAndGroupsShareAWindow) {
  shmwin_config_t made = config();
  made.mode = 0660;
  made.named = SHMWIN_NAMED_GROUP;
  made.group = kUser;
  ASSERT_EQ(open(made), 0) << error_.text;
  struct stat file {};
  ASSERT_EQ(stat(path().c_str(), &file), 0);
  EXPECT_EQ(file.st_gid, kUser);
  EXPECT_EQ(open_as(kStranger, kUser, made), 0) << "a member of the group opens root's file";
  EXPECT_EQ(open_as(kStranger, kStranger, made), EACCES);
  remove_window();

  EXPECT_EQ(open_as(kStranger, kUser, made), 0) << "a member creates";
  EXPECT_EQ(open_as(kUser, kUser, made), 0) << "another member attaches";
  EXPECT_EQ(open(made), 0) << error_.text;
  remove_window();

  made.named = SHMWIN_NAMED_USER;
  made.user = kUser;
  EXPECT_EQ(open_as(kStranger, kUser, made), EPERM) << "a user that cannot give the file to the named one";
  EXPECT_FALSE(exists());
  EXPECT_EQ(open_as(kUser, kUser, made), 0);
  EXPECT_EQ(open(made), 0) << error_.text;
}

TEST_F(OwnedWindowTest, AFileSystemWithoutRoomIsRefusedAndNothingStays) {
  const int ended = in_child([this] {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", directory_.c_str(), "tmpfs", 0, "size=48k") != 0) {
      return 77;
    }
    expect_refusal(open(config()), ENOSPC, {"262144"});
    return HasFailure() || exists() ? 1 : 0;
  });
  if (ended == 77) {
    GTEST_SKIP() << "no mounting here";
  }
  EXPECT_EQ(ended, 0);
}

TEST_F(WindowTest, WhatDoesNotAgreeIsRefusedInOneSentence) {
  const struct {
    std::function<void(WindowHeader &)> change;
    int status;
    std::initializer_list<const char *> parts;
  } cases[] = {
      {[](auto &header) { header.magic = 0x1234; }, 22, {"no window", "0x1234"}},
      {[](auto &header) { header.version = 1; }, 22, {"layout version 1", "reads version 2"}},
      {[](auto &header) { header.word_bits = 32; }, 22, {"32", "64"}},
      {[](auto &header) { header.mutex_bytes = 24; }, 22, {"24", "40"}},
      {[](auto &header) { header.size += 4096; }, 22, {"266240", "262144"}},
      {[](auto &header) { header.complete = 5; }, 22, {"not complete", "0x5"}},
      {[](auto &header) { header.heap_pages = 1u << 30; }, 22, {"damaged", "1073741824"}},
      {[](auto &header) { header.address += 1; }, 22, {"damaged"}},
      {[](auto &header) { header.address = 0; }, 22, {"damaged"}},
      {[](auto &header) { header.address = ~std::uint64_t{4095}; }, 22, {"damaged"}},
      {[](auto &header) { header.pid_namespace = 42; }, 18, {"PID namespace 42", "runs in"}},
      {[](auto &header) { header.shm_id = 9; }, 22, {"id 9", "id 3"}},
      {[](auto &header) { std::fill_n(header.process, std::size(header.process), header.process[0]); }, 11, {"256"}},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(open(config()), 0) << error_.text;
    c.change(header_of(kId));
    expect_in_child([&] {
      expect_refusal(reopen(config()), c.status, c.parts);
      EXPECT_FALSE(created_) << "taken for absent";
    });
    ASSERT_EQ(shmwin_detach(kId), 0);
    ASSERT_EQ(unlink(1), 0) << error_.text;
  }
}

TEST_F(WindowTest, ForeignAndTruncatedFilesAreLeftAlone) {
  std::ofstream(path()) << "letters to a friend";
  expect_refusal(open(config()), 22, {"window", "no window"});
  expect_refusal(open(config(), true), 22, {"no window"});
  expect_refusal(unlink(0), 22, {"no window"});
  EXPECT_EQ(std::filesystem::file_size(path()), 19u);
  std::filesystem::remove(path());

  ASSERT_EQ(open(config()), 0);
  ASSERT_EQ(shmwin_detach(kId), 0);
  for (const std::uint64_t size : {262143U, 20000U, 100U}) {
    std::filesystem::resize_file(path(), size);
    expect_refusal(open(config()), 22, {"262144", std::to_string(size).c_str()});
    EXPECT_EQ(std::filesystem::file_size(path()), size);
  }

  ASSERT_EQ(symlink("window", path("link").c_str()), 0);
  expect_refusal(open(config(kId, "link")), 22, {"no regular file"});
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  expect_refusal(open(config(kId, "pipe")), 22, {"no regular file"});
}

TEST_F(WindowTest, WhatCanNeverWorkIsRefused) {
  const shmwin_config_t good = config();
  const auto expect_never = [&](auto shmwin_config_t::*field, auto values, int status, const char *part) {
    for (const auto value : values) {
      shmwin_config_t made = good;
      made.*field = value;
      expect_refusal(open(made), status, {part});
    }
  };
  constexpr std::uint64_t kFar = std::uint64_t{1} << 47;
  expect_never(&shmwin_config_t::name, std::array<const char *, 4>{"", "a/b", "..", nullptr}, 22,
               "cannot name a window");
  expect_never(&shmwin_config_t::size, std::array<std::uint64_t, 4>{0, 4096, kFar << 13, UINT64_MAX}, 22,
               "cannot have");
  expect_never(&shmwin_config_t::address, std::array<std::uint64_t, 3>{4097, kFar, ~4095ull}, 22, "cannot be mapped");
  expect_never(&shmwin_config_t::directory, std::array{"/nowhere"}, 2, "/nowhere/window");
  expect_refusal(unlink(0), 2, {"window"});
  expect_in_child([&] {
    const rlimit limit{8192, 8192};
    setrlimit(RLIMIT_FSIZE, &limit);
    expect_refusal(open(good), EFBIG, {"8192"});
  });
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_F(WindowTest, ATakenAddressNamesWhatLiesThere) {
  ASSERT_EQ(open(config()), 0);
  const std::uint64_t address = header_of(kId).address;
  shmwin_config_t second = config(4, "second");
  second.address = address;
  expect_refusal(open(second), 17, {"second", "/window"});
  EXPECT_FALSE(exists("second"));
  ASSERT_EQ(shmwin_detach(kId), 0);

  void *const taken = mmap(reinterpret_cast<void *>(address), 4096, PROT_READ,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  ASSERT_NE(taken, MAP_FAILED);
  expect_refusal(open(config()), 17, {"memory of no file"});
  EXPECT_TRUE(exists()) << "a refused attach loses nothing";
  ASSERT_EQ(open(config(kId, "elsewhere")), 0) << error_.text;
  EXPECT_NE(header_of(kId).address, address);
  munmap(taken, 4096);
}

}  // namespace
}  // namespace window_tests
