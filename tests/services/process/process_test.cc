// Whether a process lives and is still the same one: in every state, behind namespaces and behind a /proc that hides.
#include "process/process.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstring>
#include <string>
#include <thread>

#include "child.h"

namespace {

using namespace vrellis;
using test_support::in_child;
using test_support::spawn;

constexpr uid_t kStranger = 65534;

// A child that waits until it is killed.
class Sleeper {
 public:
  Sleeper() { read_process_stat(pid_, &stat_); }
  ~Sleeper() { end(); }
  void end() {
    if (pid_ != 0) {
      test_support::kill_hard(std::exchange(pid_, 0));
    }
  }
  ProcessId id() const { return {pid_, stat_.start, own_pid_namespace()}; }

 private:
  pid_t pid_ = test_support::spawn_waiting([] {});
  ProcessStat stat_{};
};

// Waits until the process is in this state.
bool reaches(pid_t pid, char state) {
  ProcessStat stat{};
  for (int i = 0; i < 10000 && read_process_stat(pid, &stat); ++i) {
    if (stat.state == state) {
      return true;
    }
    usleep(1000);
  }
  return false;
}

// As root in namespaces of its own: runs `body` in a child there. Returns: its status; -1 when that is not permitted.
template <typename Body>
int in_namespaces(int flags, Body body) {
  return in_child([&] {
    const bool private_mounts = unshare(flags) == 0 && ((flags & CLONE_NEWNS) == 0 ||
                                                        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
    return private_mounts ? body() : 255;
  });
}

TEST(Process, TheLineOfAnyNameIsTakenApart) {
  const std::string head = "17 (", tail = ") T 3 17 17 0 -1 0 1 2 3 4 5 6 7 8 20 0 9 0 123456789 4096 100";
  for (const std::string name : {"daemon", "a b) R 1 (", ")", "", "two\nlines", "\x1b[31m\xff"}) {
    ProcessStat stat{};
    ASSERT_TRUE(parse_process_stat((head + name + tail).c_str(), &stat)) << name;
    EXPECT_EQ(stat.comm, name);
    EXPECT_EQ(stat.state, 'T');
    EXPECT_EQ(stat.parent, 3);
    EXPECT_EQ(stat.threads, 9u);
    EXPECT_EQ(stat.start, 123456789u);
  }
  ProcessStat stat{};
  for (const char *const line : {"", "17", "17 (x", "17 )x( R", "17 (x) R 1 2 3"}) {
    EXPECT_FALSE(parse_process_stat(line, &stat)) << line;
  }
}

TEST(Process, EveryStateHasItsAnswer) {
  Sleeper sleeper;
  const ProcessId id = sleeper.id();
  EXPECT_EQ(liveness_of(id), Liveness::kAlive);
  EXPECT_EQ(liveness_of({id.pid, id.start + 100, id.pid_namespace}), Liveness::kDead) << "a later process of the id";
  EXPECT_EQ(liveness_of({id.pid, id.start, id.pid_namespace + 1}), Liveness::kUnknown) << "another PID namespace";
  EXPECT_EQ(liveness_of({id.pid, 0, id.pid_namespace}), Liveness::kUnknown);
  kill(id.pid, SIGSTOP);
  EXPECT_TRUE(reaches(id.pid, 'T'));
  EXPECT_EQ(liveness_of(id), Liveness::kAlive) << "stopped";
  kill(id.pid, SIGKILL);
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(id.pid), &ended, WEXITED | WNOWAIT), 0);  // all of its threads are gone
  EXPECT_EQ(liveness_of(id), Liveness::kDead) << "a zombie";
  EXPECT_EQ(liveness_of_thread(id.pid), Liveness::kDead);
  sleeper.end();
  EXPECT_EQ(liveness_of(id), Liveness::kDead) << "gone";
  EXPECT_EQ(liveness_of_thread(id.pid), Liveness::kDead);
  EXPECT_EQ(liveness_of(own_process()), Liveness::kAlive);
}

TEST(Process, AProcessOutlivesItsFirstThread) {
  const pid_t pid = spawn([]() -> int {
    std::thread([] { pause(); }).detach();
    return static_cast<int>(syscall(SYS_exit, 0));  // ends this thread alone
  });
  EXPECT_TRUE(reaches(pid, 'Z'));
  ProcessStat stat{};
  EXPECT_TRUE(read_process_stat(pid, &stat));
  EXPECT_EQ(liveness_of({pid, stat.start, own_pid_namespace()}), Liveness::kAlive);
  EXPECT_EQ(liveness_of_thread(pid), Liveness::kDead) << "the thread itself";
  test_support::kill_hard(pid);
}

TEST(Process, WhatProcHidesIsUnknown) {
  Sleeper sleeper;
  const ProcessId id = sleeper.id();
  const auto mounted = [&](const char *options, auto answer) {
    return in_namespaces(CLONE_NEWNS, [&] {
      const bool done = mount("proc", "/proc", "proc", 0, options) == 0 && test_support::become(kStranger, kStranger);
      return done ? static_cast<int>(answer()) : 255;
    });
  };
  const int hidden = mounted("hidepid=2", [&] { return liveness_of(id); });
  if (hidden == 255) {
    GTEST_SKIP() << "mounting a /proc that hides needs root";
  }
  EXPECT_EQ(static_cast<Liveness>(hidden), Liveness::kUnknown);
  EXPECT_EQ(static_cast<Mapped>(mounted("hidepid=0", [&] { return maps_shared_memory(id.pid, 4096); })),
            Mapped::kUnknown)
      << "another user's process";
  sleeper.end();
  EXPECT_EQ(static_cast<Liveness>(mounted("hidepid=2", [&] { return liveness_of(id); })), Liveness::kDead);
}

TEST(Process, AProcOfAnotherNamespaceProvesNothing) {
  Sleeper sleeper;
  const pid_t pid = sleeper.id().pid;
  const int seen = in_namespaces(CLONE_NEWPID, [&] {
    return in_child([&] {  // its own /proc is still the one of the namespace outside
      const ProcessId there{1, 1, own_pid_namespace()};
      return liveness_of(there) == Liveness::kUnknown && liveness_of_thread(pid) == Liveness::kDead ? 0 : 1;
    });
  });
  if (seen == 255) {
    GTEST_SKIP() << "a PID namespace needs root";
  }
  EXPECT_EQ(seen, 0);
}

TEST(Process, StartTimesAgreeAcrossTimeNamespaces) {
  Sleeper sleeper;
  const ProcessId id = sleeper.id();
  const int seen = in_namespaces(CLONE_NEWTIME, [&] {
    const int fd = open("/proc/self/timens_offsets", O_WRONLY);
    constexpr char kOffset[] = "boottime 86400 5000000";
    if (write(fd, kOffset, sizeof kOffset - 1) < 0 || liveness_of(id) != Liveness::kUnknown) {
      return 99;  // this process stays where it is, its children do not
    }
    return in_child([&] { return static_cast<int>(liveness_of(id)); });
  });
  if (seen == 255) {
    GTEST_SKIP() << "a time namespace needs root";
  }
  EXPECT_EQ(static_cast<Liveness>(seen), Liveness::kAlive);
}

TEST(Process, SharedMemoryIsSeenUntilAnotherProgramRuns) {
  constexpr std::size_t kBytes = 4096;
  void *const memory = mmap(nullptr, kBytes, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  const auto address = reinterpret_cast<std::uint64_t>(memory);
  static char stack_word;
  Sleeper sleeper;
  EXPECT_EQ(maps_shared_memory(sleeper.id().pid, address), Mapped::kYes);
  EXPECT_EQ(maps_shared_memory(sleeper.id().pid, reinterpret_cast<std::uint64_t>(&stack_word)), Mapped::kNo);
  EXPECT_EQ(maps_shared_memory(0x3ffffe, address), Mapped::kUnknown);
  munmap(memory, kBytes);
  EXPECT_EQ(maps_shared_memory(getpid(), address), Mapped::kNo);
}

}  // namespace
