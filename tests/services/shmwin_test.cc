// Windows between processes: made once, mapped at one address, kept apart and let go, whoever dies.
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <vector>

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
              const bool attached_again = open(config()) == 0 && !created_;
              auto **const there = static_cast<char **>(shmwin_user_area(kId));
              const bool same = attached_again && there == area && std::strcmp(*there, "across") == 0;
              shmwin_free(*there);
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
  constexpr int kProcesses = 16;
  int start[2];
  ASSERT_EQ(pipe(start), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      close(start[1]);
      char byte;
      [[maybe_unused]] const ssize_t at_end = read(start[0], &byte, 1);
      const int status = open(config());
      _exit(status != 0 ? 2 : created_ ? 1 : 0);
    }
    children.push_back(child);
  }
  close(start[0]);
  close(start[1]);
  int count[3] = {};
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    ++count[WIFEXITED(status) ? std::min(WEXITSTATUS(status), 2) : 2];
  }
  EXPECT_EQ(count[1], 1);
  EXPECT_EQ(count[0], kProcesses - 1);
}

TEST_F(WindowTest, ACreatorThatDiesHalfWayLeavesNothingInTheWay) {
  const auto die_after = [this](auto &&step) {
    const int ended = in_child([&] {
      const shmwin_config_t made = config();
      shmwin_claim_t *claim = nullptr;
      int present = 0;
      if (shmwin_claim(&made, &claim, &present, &error_) != 0 || present != 0) {
        return 1;
      }
      step(claim, made);
      raise(SIGKILL);
      return 2;
    });
    ASSERT_EQ(ended, -SIGKILL);
  };
  const auto after_open = [](shmwin_claim_t *, const shmwin_config_t &) {};
  const auto after_reserving = [this](shmwin_claim_t *, const shmwin_config_t &) {
    std::filesystem::resize_file(path(), kBytes);
  };
  const auto before_the_last_word = [this](shmwin_claim_t *claim, const shmwin_config_t &made) {
    if (shmwin_format(claim, &made, &error_) == 0) {
      damage([](WindowHeader &header) { header.complete = 0; });
    }
  };
  die_after(after_open);
  die_after(after_reserving);
  die_after(before_the_last_word);
  ASSERT_EQ(open(config()), 0) << error_.text;
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
  struct stat status;
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0664u);
  ASSERT_EQ(stat(path("private").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
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
  void *none = nullptr;
  EXPECT_EQ(shmwin_malloc(5, 56, &none), 22);
}

TEST_F(WindowTest, TheTableHoldsTheLivingOnly) {
  ASSERT_EQ(open(config()), 0);
  const WindowHeader &header = header_of(kId);
  EXPECT_EQ(attached(header), 1u);
  EXPECT_EQ(in_child([&] { return static_cast<int>(attached(header)); }), 2) << "a child of a fork enters itself";
  EXPECT_EQ(attached(header), 2u) << "a process that exits without a word stays until the next one attaches";
  EXPECT_EQ(in_child([&] {
              shmwin_detach(kId);
              return open(config()) == 0 ? static_cast<int>(attached(header)) : 99;
            }),
            2);
}

TEST_F(WindowTest, AClaimDiesWithItsHolder) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    const shmwin_config_t made = config();
    shmwin_claim_t *claim = nullptr;
    int present = 0;
    shmwin_claim(&made, &claim, &present, &error_);
    [[maybe_unused]] const ssize_t told = write(ready[1], "r", 1);
    pause();
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const pid_t killer = fork();
  if (killer == 0) {
    usleep(50000);
    kill(holder, SIGKILL);
    _exit(0);
  }
  EXPECT_EQ(open(config()), 0) << error_.text;
  EXPECT_TRUE(created_);
  int status = 0;
  EXPECT_EQ(waitpid(holder, &status, 0), holder);
  EXPECT_TRUE(WIFSIGNALED(status)) << "the claim was waited for";
  waitpid(killer, &status, 0);
  close(ready[0]);
  close(ready[1]);
}

}  // namespace
}  // namespace window_tests
