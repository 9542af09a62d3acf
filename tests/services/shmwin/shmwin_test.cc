// Windows between processes: made once, mapped at one address, kept apart and let go, whichever process dies.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>

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
  kill_hard(helper);
  test_support::end_of(zombie);
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
  const pid_t killer = spawn([holder] { return usleep(50000), kill(holder, SIGKILL); });
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
  const pid_t reader = spawn([&] {  // the right to read is enough for a lock
    struct flock lock {};
    lock.l_type = F_RDLCK;
    fcntl(::open(path().c_str(), O_RDONLY), F_SETLK, &lock);
    locked.give();
    return raise(SIGSTOP);
  });
  ASSERT_TRUE(locked.await());
  expect_refusal(open(config()), ETIMEDOUT,
                 {"window 'window'", std::to_string(reader).c_str(), "(shmwin_test)", "stopped"});
  kill_hard(reader);
  EXPECT_EQ(open(config()), 0) << error_.text;
}

}  // namespace
}  // namespace window_tests
