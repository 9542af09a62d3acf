// The files of a trace: one for each process, made as the settings say, kept while their processes live, swept later.
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <latch>
#include <set>
#include <thread>

#include "ltrace/file.h"
#include "ltrace_fixture.h"

namespace vrellis {
namespace {

TEST_F(TraceTest, AForkedChildWritesAFileOfItsOwn) {
  expect_in_child([] {
    ltrace_name_component(3, "inherited");
    _ltrace_1(0, trace_header(1, 3), 10);
    expect_in_child([] {
      EXPECT_EQ(ltrace_path(), nullptr);
      _ltrace_1(0, trace_header(1, 3), 20);
      EXPECT_NE(ltrace_path(), nullptr);
    });
    _ltrace_1(0, trace_header(1, 3), 11);
  });
  const auto files = open_all();
  ASSERT_EQ(files.size(), 2U);
  const TraceMerge merge = merge_traces(files);
  ASSERT_EQ(merge.events.size(), 3U);
  std::set<std::pair<bool, std::uint64_t>> seen;  // whether in the first event's file, and what
  for (const TraceRecord &event : merge.events) {
    seen.insert({event.file == merge.events[0].file, event.value[0]});
    EXPECT_EQ(event.file->component(3), "inherited");
  }
  EXPECT_EQ(seen, (decltype(seen){{true, 10}, {false, 20}, {true, 11}}));
}

TEST_F(TraceTest, EachSettingIsFollowedOrToldOfInOneSentence) {
  const struct {
    const char *name, *value, *sentence;
    std::uint32_t rings;
    unsigned ring_kib;
    rlim_t most_kib = 1 << 30;  // RLIMIT_FSIZE
  } cases[] = {
      {"LTRACE", "off", "", 0, 0},
      {"LTRACE", "", "", 64, 64},
      {"LTRACE", "0", "LTRACE is '0', which is neither on nor off", 64, 64},
      {"LTRACE_DIR", "/proc/no-such-directory", "in /proc/no-such-directory: No such file or directory", 0, 0},
      {"LTRACE_RING_KIB", "16", "", 64, 16},
      {"LTRACE_RING_KIB", "24", "LTRACE_RING_KIB is '24', which is no power of two", 64, 64},
      {"LTRACE_RING_KIB", "8k", "LTRACE_RING_KIB is '8k', which is no power of two", 64, 64},
      {"LTRACE_RING_KIB", "8", "", 3, 8, 40},
      {"LTRACE_RING_KIB", "8", ": File too large", 0, 0, 20},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(std::string(each.name) + "=" + each.value);
    setenv(each.name, each.value, 1);
    expect_in_child([&each] {
      testing::internal::CaptureStderr();
      const rlimit limit = {each.most_kib * 1024, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &limit);
      errno = 77;
      write_counted(0, 2);
      EXPECT_EQ(errno, 77);
      EXPECT_EQ(ltrace_path() != nullptr, each.rings != 0);
      const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &none);
      const std::string said = testing::internal::GetCapturedStderr();
      EXPECT_NE(said.find(each.sentence), std::string::npos) << said;
      EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), *each.sentence != '\0' ? 1 : 0) << said;
    });
    unsetenv(each.name);
    setenv("LTRACE_DIR", directory_.c_str(), 1);
    ASSERT_EQ(list_traces(directory_).size(), each.rings != 0 ? 1U : 0U);
    if (each.rings != 0) {
      const auto file = open_one();
      EXPECT_EQ((std::array{file->num_rings(), file->header().ring_words}),
                (std::array{each.rings, each.ring_kib * 128}));
      std::filesystem::remove(file->path());
    }
  }
}

// As the database lock is: what a thread does while it holds it must not wait for the file system.
TEST_F(TraceTest, AThreadThatHoldsARobustMutexMakesNoFileAndTakesAReadyRing) {
  expect_in_child([] {
    pthread_mutex_t mutex;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutex_lock(&mutex);
    write_counted(0, 5);
    EXPECT_EQ(ltrace_path(), nullptr);
    pthread_mutex_unlock(&mutex);
    write_counted(5, 6);  // makes the file, and has one ring ready for the next thread
    EXPECT_NE(ltrace_path(), nullptr);
    std::latch wrote(2);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&] {
        pthread_mutex_lock(&mutex);
        write_counted(10, 20);
        pthread_mutex_unlock(&mutex);
        wrote.arrive_and_wait();
      });
    }
  });
  const auto files = open_all();
  EXPECT_EQ(files.at(0)->records_dropped(), 5U + 10U);
  EXPECT_EQ(merge_traces(files).events.size(), 1U + 10U);
}

TEST_F(TraceTest, TheSweepKeepsTheLivingAndTheDeadThatWroteLast) {
  const pid_t living = spawn_waiting([] { write_counted(0); });
  const pid_t headless = spawn([] {  // its first thread ends, another goes on
    write_counted(0);
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);
    return 0;
  });
  Signal wrote;
  Signal go;
  const pid_t late = spawn([&] {  // the first to come, the last to write
    write_counted(0);
    wrote.give();
    const bool told = go.await();
    write_counted(0, 100);
    return told ? 0 : 1;
  });
  ASSERT_TRUE(wrote.await());
  const auto end_one = [] { expect_in_child([] { write_counted(0); }); };
  for (int i = 0; i < 20; ++i) {
    end_one();
  }
  go.give();
  ASSERT_EQ(test_support::end_of(late), 0);
  end_one();
  end_one();
  std::set<std::uint32_t> pids;
  for (const TraceListing &one : list_traces(directory_)) {
    pids.insert(one.pid);
  }
  EXPECT_EQ(pids.size(), 2U + 16U + 1U);  // the living, the dead as the last process found them, the last process
  for (const pid_t kept : {living, headless, late}) {
    EXPECT_TRUE(pids.contains(static_cast<std::uint32_t>(kept)));
  }
  kill_hard(living);
  kill_hard(headless);
}

}  // namespace
}  // namespace vrellis
