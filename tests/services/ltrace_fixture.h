// Processes that trace, each a child of the test with a directory and settings of its own.
#ifndef VRELLIS_TESTS_LTRACE_FIXTURE_H
#define VRELLIS_TESTS_LTRACE_FIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ltrace.h"
#include "ltrace_reader.h"
#include "ptd.h"

namespace vrellis {

constexpr std::uint64_t trace_header(std::uint32_t id, std::uint32_t tag = 0, std::uint64_t number = 0) {
  return std::uint64_t{7} << 32 | 0x80000000U | number << 28 | tag << 23 | id;
}

class TraceTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/dev/shm/ltrace-test-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    directory_ = name;
    setenv("LTRACE_DIR", name, 1);
    for (const char *setting : {"LTRACE", "LTRACE_RING_KIB", "PTD_SPIN_NS"}) {
      unsetenv(setting);
    }
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  // A test that fails half-way leaves no process behind.
  static void die_with_parent() { prctl(PR_SET_PDEATHSIG, SIGKILL); }

  // Runs `body` in a process of its own, which tells that it is through with it; then it ends, or stays until killed.
  template <typename Body>
  static pid_t start(Body body, bool stays) {
    int told[2];
    EXPECT_EQ(pipe(told), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      die_with_parent();
      close(told[0]);
      body();
      EXPECT_EQ(write(told[1], "!", 1), 1);
      while (stays) {
        pause();
      }
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    close(told[1]);
    char byte = 0;
    EXPECT_EQ(read(told[0], &byte, 1), 1);
    close(told[0]);
    return pid;
  }
  template <typename Body>
  static void run(Body body) {
    int status = 0;
    waitpid(start(body, false), &status, 0);
    EXPECT_EQ(status, 0);
  }
  static void kill_hard(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }

  std::vector<std::unique_ptr<TraceFile>> open_all() const {
    std::vector<std::unique_ptr<TraceFile>> files;
    for (const TraceListing &listing : list_traces(directory_)) {
      std::string error;
      files.push_back(TraceFile::open(listing.path, error));
      EXPECT_EQ(error, "");
    }
    return files;
  }

  // The only file there is.
  std::unique_ptr<TraceFile> open_one() const {
    auto files = open_all();
    EXPECT_EQ(files.size(), 1U);
    return files.empty() ? nullptr : std::move(files[0]);
  }

  static std::vector<TraceRecord> ring(const TraceFile &file, std::uint32_t number, RingReport &report) {
    const TraceFile *only = &file;
    return file.records(number, TickClock({&only, 1}), report);
  }

  std::string directory_;
};

}  // namespace vrellis

#endif
