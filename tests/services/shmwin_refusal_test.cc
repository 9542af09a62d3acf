// What the window service refuses: each time with a status and one sentence, and with nothing lost.
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>

#include "shmwin_fixture.h"

namespace window_tests {
namespace {

TEST_F(WindowTest, WhatDoesNotAgreeIsRefusedInOneSentence) {
  struct Case {
    std::function<void(WindowHeader &)> change;
    int status;
    std::initializer_list<const char *> parts;
  };
  const Case cases[] = {
      {[](auto &header) { header.magic = 0x1234; }, 22, {"no window", "0x1234"}},
      {[](auto &header) { header.version = 2; }, 22, {"layout version 2", "reads version 1"}},
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
  for (const Case &c : cases) {
    ASSERT_EQ(open(config()), 0) << error_.text;
    ASSERT_EQ(shmwin_detach(kId), 0);
    damage(c.change);
    expect_refusal(open(config()), c.status, c.parts);
    EXPECT_FALSE(created_) << "taken for absent";
    ASSERT_EQ(shmwin_unlink(directory_.c_str(), "window", 1, &error_), 0) << error_.text;
  }
}

TEST_F(WindowTest, ForeignAndTruncatedFilesAreLeftAlone) {
  std::ofstream(path()) << "letters to a friend";
  expect_refusal(open(config()), 22, {"window", "no window"});
  expect_refusal(format_over(config()), 22, {"no window"});
  expect_refusal(shmwin_unlink(directory_.c_str(), "window", 0, &error_), 22, {"no window"});
  EXPECT_EQ(std::filesystem::file_size(path()), 19u);
  std::filesystem::remove(path());

  ASSERT_EQ(open(config()), 0);
  ASSERT_EQ(shmwin_detach(kId), 0);
  std::filesystem::resize_file(path(), 100);
  expect_refusal(open(config()), 22, {"262144", "100"});

  ASSERT_EQ(symlink("window", path("link").c_str()), 0);
  expect_refusal(open(config(kId, "link")), ELOOP, {"cannot open"});
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  expect_refusal(open(config(kId, "pipe")), 22, {"no regular file"});
}

TEST_F(WindowTest, WhatCanNeverWorkIsRefused) {
  for (const char *const name : {"", "a/b", "..", static_cast<const char *>(nullptr)}) {
    expect_refusal(open(config(kId, name)), 22, {"cannot name a window"});
  }
  shmwin_config_t made = config();
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{4096}, std::uint64_t{1} << 60, UINT64_MAX}) {
    made.size = size;
    expect_refusal(open(made), 22, {"cannot have"});
  }
  made = config();
  for (const std::uint64_t address : {std::uint64_t{4097}, std::uint64_t{1} << 47, ~std::uint64_t{4095}}) {
    made.address = address;
    expect_refusal(open(made), 22, {"cannot be mapped"});
  }
  made = config();
  made.directory = "/nowhere";
  expect_refusal(open(made), 2, {"/nowhere/window"});
  expect_refusal(shmwin_unlink(directory_.c_str(), "window", 0, &error_), 2, {"window"});
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_F(WindowTest, AFullFileSystemIsAnErrorAtCreation) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "mounting a small file system takes root";
  }
  const int ended = in_child([this] {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", directory_.c_str(), "tmpfs", 0, "size=128k") != 0) {
      return 77;
    }
    const int status = open(config());
    const bool refused = status == 28 && std::strstr(error_.text, "262144") != nullptr && !exists();
    return refused && shmwin_user_area(kId) == nullptr ? 0 : 1;
  });
  if (ended == 77) {
    GTEST_SKIP() << "no mounting here";
  }
  EXPECT_EQ(ended, 0);
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
  auto &table = const_cast<WindowHeader &>(header_of(kId)).process;
  std::fill(std::begin(table), std::end(table), table[0]);
  EXPECT_EQ(in_child([this] {
              const int status = shmwin_detach(kId);
              return status == 0 && open(config()) == 11 && std::strstr(error_.text, "256") != nullptr ? 0 : 1;
            }),
            0);
}

TEST_F(WindowTest, AWindowInUseIsRemovedByForceAlone) {
  ASSERT_EQ(open(config()), 0);
  expect_refusal(shmwin_unlink(directory_.c_str(), "window", 0, &error_), 16, {std::to_string(getpid()).c_str()});
  EXPECT_EQ(in_child([this] {
              shmwin_detach(kId);
              return format_over(config());
            }),
            16);
  ASSERT_EQ(shmwin_unlink(directory_.c_str(), "window", 1, &error_), 0);
  void *block = nullptr;
  EXPECT_EQ(shmwin_malloc(kId, 40, &block), 0) << "who has it keeps it";
  EXPECT_EQ(shmwin_detach(kId), 0);

  ASSERT_EQ(in_child([this] { return open(config()); }), 0);
  EXPECT_EQ(shmwin_unlink(directory_.c_str(), "window", 0, &error_), 0) << error_.text;
  EXPECT_FALSE(exists());
}

}  // namespace
}  // namespace window_tests
