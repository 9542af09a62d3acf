// Windows between processes: made once, mapped at one address, kept apart and let go, whoever dies; and what is
// refused, each time with a status and one sentence, and with nothing lost.
#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>

#include "process/process.h"
#include "shmwin_fixture.h"

namespace window_tests {
namespace {

TEST_F(WindowTest, AnotherProcessReadsAddressesAsTheyWereWritten) {
  ASSERT_EQ(open(config()), 0) << error_.text;
  EXPECT_TRUE(created_);
  auto **const area = static_cast<char **>(shmwin_user_area(kId));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(area) % 64, 0u);
  void *block = nullptr;
  ASSERT_EQ(shmwin_malloc(kId, 40, &block), 0);
  std::strcpy(*area = static_cast<char *>(block), "across");
  EXPECT_EQ(in_child([&] {
              shmwin_detach(kId);
              const bool attached_again = open(config()) == 0 && !created_ && shmwin_user_area(kId) == area;
              const bool same = attached_again && std::strcmp(*area, "across") == 0;
              shmwin_free(*area);
              return same ? 0 : 1;
            }),
            0);
  shmwin_stat_t stat;
  ASSERT_EQ(shmwin_stat(kId, &stat), 0);
  EXPECT_EQ(stat.size, kBytes);
  EXPECT_EQ(stat.nodes40, 0u);
  EXPECT_EQ(std::filesystem::file_size(path()), kBytes);
  EXPECT_EQ(shmwin_detach(kId), 0);
  EXPECT_EQ(shmwin_detach(kId), 2);
  EXPECT_EQ(shmwin_user_area(kId), nullptr);
}

TEST_F(WindowTest, OfManyAtOnceOneCreates) {
  const auto count = test_support::at_once(16, [this](unsigned) { return open(config()) != 0 ? 2 : created_ ? 1 : 0; });
  EXPECT_EQ(count, (std::array{15u, 1u, 0u}));
}

TEST_F(WindowTest, ACreatorThatDiesHalfWayLeavesNothingInTheWay) {
  const shmwin_config_t made = config();
  const std::function<void(shmwin_claim_t *)> last_steps[] = {
      [](shmwin_claim_t *) {}, [this](shmwin_claim_t *) { std::filesystem::resize_file(path(), kBytes); },
      [&](shmwin_claim_t *claim) {
        EXPECT_EQ(shmwin_format(claim, &made, &error_), 0);
        header_of(kId).complete = 0;
      }};
  for (const auto &step : last_steps) {
    EXPECT_EQ(in_child([&] {
                shmwin_claim_t *claim = nullptr;
                int present = 0;
                if (shmwin_claim(&made, &claim, &present, &error_) == 0 && present == 0) {
                  step(claim);
                  raise(SIGKILL);
                }
                return 1;
              }),
              -SIGKILL);
  }
  ASSERT_EQ(open(made), 0) << error_.text;
  EXPECT_TRUE(created_);
  EXPECT_EQ(attached(header_of(kId)), 1u);
}

TEST_F(WindowTest, TheModeIsTheCreatorsWhateverTheUmask) {
  const mode_t before = umask(0077);
  shmwin_config_t made = config();
  made.mode = 0664;
  ASSERT_EQ(open(made), 0);
  ASSERT_EQ(open(config(4, "private")), 0);
  umask(before);
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(path()).permissions(), perms{0664});
  EXPECT_EQ(std::filesystem::status(path("private")).permissions(), perms{0600});
}

TEST_F(WindowTest, SeveralWindowsEachKeepTheirOwn) {
  void *block[SHMWIN_MAX_WINDOWS];
  for (std::uint32_t id = 0; id < SHMWIN_MAX_WINDOWS; ++id) {
    ASSERT_EQ(open(config(id, std::to_string(id).c_str())), 0) << error_.text;
    ASSERT_EQ(shmwin_malloc(id, 56, &block[id]), 0);
  }
  expect_refusal(open(config(8, "8")), EMFILE, {"8 windows"});
  ASSERT_EQ(shmwin_detach(5), 0);
  expect_refusal(open(config(4, "another")), 17, {"id 4 is taken"});
  shmwin_stat_t stat;
  ASSERT_EQ(shmwin_stat(6, &stat), 0);
  const std::uint64_t bad_before = stat.bad_releases;
  shmwin_free(block[6]);
  shmwin_free(block[5]);
  ASSERT_EQ(shmwin_stat(6, &stat), 0);
  EXPECT_EQ(stat.nodes56, 0u);
  EXPECT_EQ(stat.bad_releases, bad_before + 1) << "the block of the window that is gone";
  ASSERT_EQ(shmwin_stat(7, &stat), 0);
  EXPECT_EQ(stat.nodes56, 1u);
  EXPECT_EQ(shmwin_stat(5, &stat), 2);
  EXPECT_EQ(shmwin_malloc(5, 56, &block[5]), 22);
}

TEST_F(WindowTest, TheTableHoldsTheLivingOnly) {
  ASSERT_EQ(open(config()), 0);
  const WindowHeader &header = header_of(kId);
  EXPECT_EQ(attached(header), 1u);
  EXPECT_EQ(in_child([&] { return static_cast<int>(attached(header)); }), 2) << "a child of a fork enters itself";
  EXPECT_EQ(attached(header), 2u) << "a process that exits without a word stays until the next one attaches";
  EXPECT_EQ(open_anew(config()), 0);
  EXPECT_EQ(attached(header), 2u);
}

TEST_F(WindowTest, ZombiesAndHelperProgramsDoNotHoldAWindowButForkedChildrenDo) {
  ASSERT_EQ(open(config()), 0);
  const pid_t child = test_support::spawn(pause);
  const pid_t zombie = test_support::spawn([] { return 0; });
  const pid_t helper = test_support::spawn([] { return execl("/bin/sleep", "sleep", "100", nullptr); });
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &ended, WEXITED | WNOWAIT), 0);
  vrellis::ProcessStat stat{};
  while (vrellis::read_process_stat(helper, &stat) && std::strcmp(stat.comm, "sleep") != 0) {
    usleep(1000);
  }
  EXPECT_EQ(attached(header_of(kId)), 4u);
  EXPECT_EQ(open_anew(config()), 0);
  EXPECT_EQ(attached(header_of(kId)), 3u) << "the next process takes out those that have it no more";
  ASSERT_EQ(shmwin_detach(kId), 0);
  expect_refusal(unlink(0), 16, {"attached by process", std::to_string(child).c_str()});
  test_support::kill_hard(child);
  EXPECT_EQ(unlink(0), 0) << error_.text;
  test_support::kill_hard(helper);
  test_support::end_of(zombie);
}

TEST_F(WindowTest, AWindowOfAnotherPidNamespaceIsRemovedByForceAlone) {
  ASSERT_EQ(open(config()), 0);
  header_of(kId).pid_namespace = 42;
  expect_refusal(unlink(0), 16, {"may be attached", std::to_string(getpid()).c_str(), "PID namespace 42"});
  EXPECT_EQ(unlink(1), 0) << error_.text;
}

TEST_F(WindowTest, AClaimDiesWithItsHolderAndNotWithItsChildren) {
  const shmwin_config_t made = config();
  test_support::Signal claimed;
  const pid_t holder = test_support::spawn([&] {
    shmwin_claim_t *claim = nullptr;
    int present = 0;
    shmwin_claim(&made, &claim, &present, &error_);
    const pid_t child = test_support::spawn([&] { return claimed.give(), pause(); });  // has the open file, too
    return child > 0 ? pause() : 1;
  });
  ASSERT_TRUE(claimed.await());
  const auto begin = std::chrono::steady_clock::now();
  const pid_t killer = test_support::spawn([holder] { return usleep(50000), kill(holder, SIGKILL); });
  EXPECT_EQ(open(made), 0) << error_.text;
  EXPECT_TRUE(created_);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50)) << "the claim was not waited for";
  EXPECT_EQ(test_support::end_of(holder), -SIGKILL);
  EXPECT_EQ(test_support::end_of(killer), 0);
}

TEST_F(WindowTest, AProcessThatKeepsTheFileLockedIsNamed) {
  ASSERT_EQ(open(config()), 0);
  ASSERT_EQ(shmwin_detach(kId), 0);
  test_support::Signal locked;
  const pid_t reader = test_support::spawn([&] {  // the right to read is enough for a lock
    struct flock lock {};
    lock.l_type = F_RDLCK;
    fcntl(::open(path().c_str(), O_RDONLY), F_SETLK, &lock);
    locked.give();
    return raise(SIGSTOP);
  });
  ASSERT_TRUE(locked.await());
  expect_refusal(open(config()), ETIMEDOUT,
                 {"window 'window'", std::to_string(reader).c_str(), "(shmwin_test)", "stopped"});
  test_support::kill_hard(reader);
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
    WindowTest::SetUp();
    chmod(directory_.c_str(), 01777);
  }

  int open_as(uid_t user, gid_t group, const shmwin_config_t &made) {
    return in_child([&] {
      const bool changed =
          setgroups(0, nullptr) == 0 && setresgid(group, group, group) == 0 && setresuid(user, user, user) == 0;
      shmwin_detach(made.shm_id);
      return changed ? open(made) : 255;
    });
  }
};

TEST_F(OwnedWindowTest, AFileOfAStrangerIsNotUsed) {
  EXPECT_EQ(open_as(kStranger, kStranger, config()), 0);
  expect_refusal(open(config()), EPERM, {"'window'", "belongs to user 65534", "own user 0"});
  EXPECT_EQ(unlink(0), 0) << error_.text;
  ASSERT_EQ(open(config()), 0) << "the caller's own";
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
  ASSERT_EQ(shmwin_detach(kId), 0);
  ASSERT_EQ(unlink(0), 0) << error_.text;

  EXPECT_EQ(open_as(kStranger, kUser, made), 0) << "a member creates";
  EXPECT_EQ(open_as(kUser, kUser, made), 0) << "another member attaches";
  EXPECT_EQ(open(made), 0) << error_.text;
  ASSERT_EQ(shmwin_detach(kId), 0);
  ASSERT_EQ(unlink(0), 0) << error_.text;

  made.named = SHMWIN_NAMED_USER;
  made.user = kUser;
  EXPECT_EQ(open_as(kStranger, kUser, made), EPERM) << "a user that cannot give the file to the named one";
  EXPECT_FALSE(exists());
  EXPECT_EQ(open_as(kUser, kUser, made), 0);
  EXPECT_EQ(open(made), 0) << error_.text;
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
  };
  for (const auto &c : cases) {
    ASSERT_EQ(open(config()), 0) << error_.text;
    c.change(header_of(kId));
    ASSERT_EQ(shmwin_detach(kId), 0);
    expect_refusal(open(config()), c.status, c.parts);
    EXPECT_FALSE(created_) << "taken for absent";
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
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_F(WindowTest, AFileSizeLimitIsAnErrorAtCreation) {
  EXPECT_EQ(in_child([this] {
              const rlimit limit{8192, 8192};
              setrlimit(RLIMIT_FSIZE, &limit);
              return open(config()) == EFBIG && std::strstr(error_.text, "8192") != nullptr && !exists() ? 0 : 1;
            }),
            0);
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

TEST_F(WindowTest, AFullTableRefusesTheNext) {
  ASSERT_EQ(open(config()), 0);
  auto &table = header_of(kId).process;
  std::fill(std::begin(table), std::end(table), table[0]);
  EXPECT_EQ(in_child([this] {
              const bool left = shmwin_detach(kId) == 0;
              return left && open(config()) == 11 && std::strstr(error_.text, "256") != nullptr ? 0 : 1;
            }),
            0);
}

TEST_F(WindowTest, AWindowInUseIsRemovedByForceAlone) {
  ASSERT_EQ(open(config()), 0);
  expect_refusal(unlink(0), 16, {std::to_string(getpid()).c_str()});
  EXPECT_EQ(open_anew(config(), true), 16);
  ASSERT_EQ(unlink(1), 0);
  void *block = nullptr;
  EXPECT_EQ(shmwin_malloc(kId, 40, &block), 0) << "who has it keeps it";
  EXPECT_EQ(shmwin_detach(kId), 0);

  ASSERT_EQ(open_anew(config()), 0);
  EXPECT_EQ(unlink(0), 0) << error_.text;
  EXPECT_FALSE(exists());
}

}  // namespace
}  // namespace window_tests
