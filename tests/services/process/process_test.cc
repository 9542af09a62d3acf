// Whether a process lives and is still the same one: in every state, behind namespaces and behind a /proc that hides.
#include "process/process.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <fstream>
#include <string>
#include <thread>
#include <tuple>

#include "child.h"

namespace {

using namespace test_support;
using namespace vrellis;

constexpr uid_t kStranger = 65534;

ProcessId id_of(pid_t pid) {
  ProcessStat stat{};
  EXPECT_TRUE(read_process_stat(pid, &stat));
  return {pid, stat.start, own_pid_namespace()};
}

// A child that waits until it is killed, or until this process ends.
ProcessId sleeper() {
  return id_of(spawn_waiting([] {}));
}

// Gives this process mounts of its own, and a /proc with these options.
bool mount_proc(const char *options) {
  return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("proc", "/proc", "proc", 0, options) == 0;
}

class Namespaces : public testing::Test {
 protected:
  void SetUp() override {
    if (in_child([] { return mount_proc("hidepid=2") && unshare(CLONE_NEWPID | CLONE_NEWTIME) == 0 ? 0 : 1; }) != 0) {
      GTEST_SKIP() << "namespaces need root";
    }
  }
};

TEST(Process, TheLineOfAnyNameIsTakenApart) {
  const std::string head = "17 (", tail = ") T 3 17 17 0 -1 0 1 2 3 4 5 6 7 8 20 0 9 0 123456789 4096 100";
  ProcessStat stat{};
  for (const std::string name : {"daemon", "a b) R 1 (", ")", "", "two\nlines", "\x1b[31m\xff"}) {
    ASSERT_TRUE(parse_process_stat((head + name + tail).c_str(), &stat)) << name;
    EXPECT_EQ(stat.comm, name);
    EXPECT_EQ((std::tuple(stat.state, stat.parent, stat.threads, stat.start)), (std::tuple('T', 3, 9u, 123456789u)));
  }
  for (const char *const line : {"", "17", "17 (x", "17 )x( R", "17 (x) R 1 2 3"}) {
    EXPECT_FALSE(parse_process_stat(line, &stat)) << line;
  }
}

TEST(Process, EveryStateHasItsAnswer) {
  const ProcessId id = sleeper();
  EXPECT_EQ(liveness_of(id), Liveness::kAlive);
  EXPECT_EQ(liveness_of({id.pid, id.start + 100, id.pid_namespace}), Liveness::kDead) << "a later process of the id";
  EXPECT_EQ(liveness_of({id.pid, id.start, id.pid_namespace + 1}), Liveness::kUnknown) << "another PID namespace";
  EXPECT_EQ(liveness_of({id.pid, 0, id.pid_namespace}), Liveness::kUnknown);
  kill(id.pid, SIGSTOP);
  ASSERT_EQ(waitpid(id.pid, nullptr, WUNTRACED), id.pid);
  EXPECT_EQ(liveness_of(id), Liveness::kAlive) << "stopped";
  kill(id.pid, SIGKILL);
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(id.pid), &ended, WEXITED | WNOWAIT), 0);  // all of its threads are gone
  EXPECT_EQ(liveness_of(id), Liveness::kDead) << "a zombie";
  EXPECT_EQ(liveness_of_thread(id.pid), Liveness::kDead);
  kill_hard(id.pid);
  EXPECT_EQ(liveness_of(id), Liveness::kDead) << "gone";
  EXPECT_EQ(liveness_of_thread(id.pid), Liveness::kDead);
  EXPECT_EQ(liveness_of(own_process()), Liveness::kAlive);
}

TEST(Process, AProcessOutlivesItsFirstThread) {
  const pid_t pid = spawn([]() -> int {
    std::thread([] { pause(); }).detach();
    return static_cast<int>(syscall(SYS_exit, 0));  // ends this thread alone
  });
  ProcessStat stat{};
  while (read_process_stat(pid, &stat) && stat.state != 'Z') {
    usleep(1000);
  }
  EXPECT_EQ(liveness_of(id_of(pid)), Liveness::kAlive);
  EXPECT_EQ(liveness_of_thread(pid), Liveness::kDead) << "the thread itself";
  kill_hard(pid);
}

TEST_F(Namespaces, WhatProcHidesIsUnknown) {
  const ProcessId id = sleeper();
  const auto expect_with = [&](const char *options, Liveness liveness) {
    expect_in_child([&] {
      ASSERT_TRUE(mount_proc(options) && become(kStranger, kStranger));
      EXPECT_EQ(liveness_of(id), liveness);
      EXPECT_EQ(maps_shared_memory(id.pid, 4096), Mapped::kUnknown) << "another user's process";
    });
  };
  expect_with("hidepid=0", Liveness::kAlive);
  expect_with("hidepid=2", Liveness::kUnknown);
  kill_hard(id.pid);
  expect_with("hidepid=2", Liveness::kDead);
}

TEST_F(Namespaces, AProcOfAnotherNamespaceProvesNothing) {
  const ProcessId id = sleeper();
  expect_in_child([&] {
    ASSERT_EQ(unshare(CLONE_NEWPID), 0);
    expect_in_child([&] {  // its own /proc is still the one of the namespace outside
      EXPECT_EQ(liveness_of({1, 1, own_pid_namespace()}), Liveness::kUnknown);
      EXPECT_EQ(liveness_of_thread(id.pid), Liveness::kDead);
    });
  });
}

TEST_F(Namespaces, StartTimesAgreeAcrossTimeNamespaces) {
  const ProcessId id = sleeper();
  expect_in_child([&] {
    ASSERT_EQ(unshare(CLONE_NEWTIME), 0);
    std::ofstream("/proc/self/timens_offsets") << "boottime 86400 5000000";
    EXPECT_EQ(liveness_of(id), Liveness::kUnknown) << "this process stays where it is, its children do not";
    expect_in_child([&] { EXPECT_EQ(liveness_of(id), Liveness::kAlive); });
  });
}

TEST(Process, SharedMemoryIsSeenUntilAnotherProgramRuns) {
  constexpr std::size_t kBytes = 4096;
  void *const memory = mmap(nullptr, kBytes, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  const auto address = reinterpret_cast<std::uint64_t>(memory);
  static char private_byte;
  const ProcessId id = sleeper();
  EXPECT_EQ(maps_shared_memory(id.pid, address), Mapped::kYes);
  EXPECT_EQ(maps_shared_memory(id.pid, reinterpret_cast<std::uint64_t>(&private_byte)), Mapped::kNo);
  EXPECT_EQ(maps_shared_memory(0x3ffffe, address), Mapped::kUnknown);
  munmap(memory, kBytes);
  EXPECT_EQ(maps_shared_memory(getpid(), address), Mapped::kNo);
}

}  // namespace
