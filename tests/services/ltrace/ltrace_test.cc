// Writing a trace: what readers find in its rings, also of the dead and of those who still write; and its files, which
// are made as the settings say, kept while their processes live, and swept later.
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <numeric>
#include <set>
#include <thread>

#include "avl.h"
#include "ltrace/file.h"
#include "ltrace_fixture.h"

namespace vrellis {
namespace {

std::int64_t now_ns() {
  return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

// All that were written but for those reported as overwritten. Returns: how many were written.
std::uint64_t expect_counted(const std::vector<TraceRecord> &records, const RingReport &report) {
  EXPECT_EQ(report.damaged_blocks, 0U);
  std::uint64_t count = report.overwritten_records;
  for (const TraceRecord &record : records) {
    const bool whole = record.num_values < 5 || (record.value[1] == ~count && record.value[4] == count + 5);
    EXPECT_TRUE(record.value[0] == count && record.num_values == values_of(count) && record.id == 7 && whole) << count;
    ++count;
  }
  return count;
}

// Each operation searches twice, as a find hit of the database does. Its records begin with the time at which it began.
TEST_F(TraceTest, EachArityComesBackAndEachOperationThatSearchesHasATimeOfItsOwnWhereverABlockEnds) {
  static constexpr std::int64_t kPauseNs = 300'000;
  expect_in_child([] {
    constexpr std::uint64_t kStray = 0xffff'fff8'0000'0000;  // bits that a header word is to have 0
    constexpr std::uint64_t kHeader = trace_header(0x7fffff, 9) | kStray;
    ltrace_name_component(9, "component nine");
    std::array<std::uint64_t, 4> node{};
    const auto search = [&node] { avl_search(node.data(), node.data(), [](const void *, const void *) { return 1; }); };
    for (int i = 0; i < 100; ++i) {
      const auto began = static_cast<std::uint64_t>(now_ns());
      errno = 77;
      search();
      _ltrace_1(0xfff'ffff'ffff, kHeader, began);
      _ltrace_2(2, kHeader, began, 2);
      _ltrace_3(3, kHeader, began, 2, 3);
      search();
      _ltrace_4(4, kHeader, began, 2, 3, 4);
      _ltrace_5(5, kHeader, began, 2, 3, 4, 5);
      _ltrace_6(6, kHeader, began, 2, 3, 4, 5, 6);
      _ltrace_7(7, kHeader, began, 2, 3, 4, 5, 6, 7);
      EXPECT_EQ(errno, 77);
      std::this_thread::sleep_for(std::chrono::nanoseconds(kPauseNs));
    }
  });
  const auto file = open_one();
  EXPECT_EQ(file->component(9), "component nine");
  const auto [records, report] = first_ring(*file);
  EXPECT_EQ(report.tid, file->pid());
  ASSERT_EQ(records.size(), 700U);
  EXPECT_TRUE(records[0].exact);
  for (unsigned i = 0; i < records.size(); ++i) {
    const TraceRecord &record = records[i];
    const unsigned arity = i % 7 + 1;
    std::array<std::uint64_t, kMaxEventValues> values{record.value[0]};
    std::iota(values.begin() + 1, values.begin() + arity, 2);
    EXPECT_EQ(record.value, values);
    EXPECT_EQ((std::array{record.num_values, record.id, record.tag, record.handle}),
              (std::array{arity, 0x7fffffU, 9U, arity == 1 ? 0x3ffffffU : arity}));
    EXPECT_GT(record.time_ns, static_cast<std::int64_t>(record.value[0]) - kPauseNs / 2) << "operation " << i / 7;
    EXPECT_LE(record.time_ns, now_ns() + 1'000'000);
  }
}

TEST_F(TraceTest, AWrappedRingKeepsTheNewestAndCountsTheOthersExactly) {
  setenv("LTRACE_RING_KIB", "8", 1);
  for (const std::uint64_t total : {100U, 170U, 5'000U, 40'001U}) {
    const pid_t writer = spawn_waiting([total] { write_counted(0, total); });
    const auto file = open_one();
    kill_hard(writer);
    EXPECT_FALSE(list_traces(directory_)[0].alive);
    const auto [records, report] = first_ring(*file);
    EXPECT_EQ(expect_counted(records, report), total);
    EXPECT_TRUE(report.owned);
    EXPECT_GE(records.size(), std::min<std::uint64_t>(total, 100));
    EXPECT_TRUE(std::is_sorted(records.begin(), records.end(), [](auto &a, auto &b) { return a.ticks < b.ticks; }));
    std::filesystem::remove(file->path());
  }
}

TEST_F(TraceTest, ThreadsHaveRingsThatOutliveThemAndAreReusedAndTooManyLoseRecordsThatAreCounted) {
  constexpr std::uint64_t kLater = 150;
  expect_in_child([] {
    in_threads(70, [] { write_counted(1000, 1010); });
    for (std::uint64_t i = 0; i < kLater; ++i) {
      std::thread([i] { write_counted(i); }).join();
    }
  });
  const auto files = open_all();
  ASSERT_EQ(files.size(), 1U);
  EXPECT_EQ(files[0]->rings_refused(), 6U);
  EXPECT_EQ(files[0]->records_dropped(), 6U * 10);
  std::set<std::uint64_t> seen;
  const TraceMerge merge = merge_traces(files);
  for (const TraceRecord &event : merge.events) {
    seen.insert(event.value[0]);
  }
  EXPECT_TRUE(std::none_of(merge.rings.begin(), merge.rings.end(), [](const auto &ring) { return ring.owned; }));
  EXPECT_EQ(seen.size(), 64U);
  EXPECT_EQ(*seen.begin(), kLater - 64U) << "a ring was reused before older ones";
}

TEST_F(TraceTest, ALiveWriterAtFullSpeedIsReadWithoutATornRecord) {
  Signal wrote;
  const pid_t pid = spawn([&] {
    write_counted(0, 1000);
    wrote.give();
    write_counted(1000, UINT64_MAX);
    return 0;
  });
  ASSERT_TRUE(wrote.await());
  const auto file = open_one();
  std::uint64_t seen = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (std::chrono::steady_clock::now() < end && !HasFailure()) {
    const auto [records, report] = first_ring(*file);
    expect_counted(records, report);
    seen += records.size();
  }
  kill_hard(pid);
  EXPECT_GT(seen, 1000U);
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
      const rlimit limits[] = {{each.most_kib * 1024, RLIM_INFINITY}, {RLIM_INFINITY, RLIM_INFINITY}};
      setrlimit(RLIMIT_FSIZE, &limits[0]);
      errno = 77;
      write_counted(0, 2);
      EXPECT_EQ(errno, 77);
      EXPECT_EQ(ltrace_path() != nullptr, each.rings != 0);
      setrlimit(RLIMIT_FSIZE, &limits[1]);
      const std::string said = testing::internal::GetCapturedStderr();
      EXPECT_NE(said.find(each.sentence), std::string::npos) << said;
      EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), *each.sentence != '\0' ? 1 : 0) << said;
    });
    unsetenv(each.name);
    setenv("LTRACE_DIR", directory_.c_str(), 1);
    ASSERT_EQ(list_traces(directory_).size(), each.rings != 0 ? 1U : 0U);
    for (const auto &file : open_all()) {
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
    make_mutex(&mutex);
    const auto write_with_lock = [&](std::uint64_t from, std::uint64_t to) {
      pthread_mutex_lock(&mutex);
      write_counted(from, to);
      pthread_mutex_unlock(&mutex);
    };
    write_with_lock(0, 5);
    EXPECT_EQ(ltrace_path(), nullptr);
    write_counted(5, 6);  // makes the file, and has one ring ready for the next thread
    EXPECT_NE(ltrace_path(), nullptr);
    in_threads(2, [&] { write_with_lock(10, 20); });
  });
  const auto files = open_all();
  EXPECT_EQ(files.at(0)->records_dropped(), 5U + 10U);
  EXPECT_EQ(merge_traces(files).events.size(), 1U + 10U);
}

TEST_F(TraceTest, TheSweepKeepsTheLivingAndTheDeadThatWroteLast) {
  const pid_t living = spawn_waiting([] { write_counted(0); });
  const pid_t late = spawn([] {  // the first to come, the last to write
    write_counted(0);
    raise(SIGSTOP);
    write_counted(0, 100);
    return 0;
  });
  ASSERT_EQ(waitpid(late, nullptr, WUNTRACED), late);
  const auto end_one = [] { expect_in_child([] { write_counted(0); }); };
  for (int i = 0; i < 20; ++i) {
    end_one();
  }
  kill(late, SIGCONT);
  ASSERT_EQ(end_of(late), 0);
  end_one();
  end_one();
  std::set<std::uint32_t> pids;
  for (const TraceListing &one : list_traces(directory_)) {
    pids.insert(one.pid);
  }
  EXPECT_EQ(pids.size(), 1U + 16U + 1U);  // the living, the dead as the last process found them, the last process
  for (const pid_t kept : {living, late}) {
    EXPECT_TRUE(pids.contains(static_cast<std::uint32_t>(kept)));
  }
}

}  // namespace
}  // namespace vrellis
