// The trace from a record's writing to its text: rings, threads, forks, deaths.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <latch>
#include <set>
#include <thread>

#include "ltrace_fixture.h"

namespace vrellis {
namespace {

constexpr std::uint64_t kStray = 0xffff'fff8'0000'0000;  // bits that a header word is to have 0

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Sizes in no order that fits the blocks: what an older lap left lies at ever other places.
std::uint64_t size_class(std::uint64_t count) {
  return (count * 2654435761 >> 13) % 3;
}

// A record that tells a torn or misplaced one: all its values follow from the first.
void write_counted(std::uint64_t count) {
  switch (size_class(count)) {
    case 0:
      return _ltrace_1(0, trace_header(7), count);
    case 1:
      return _ltrace_5(0, trace_header(7), count, ~count, count * 3, count ^ 0xff, count + 5);
    default:
      return _ltrace_7(0, trace_header(7), count, ~count, count * 3, count ^ 0xff, count + 5, 6, 7);
  }
}

void expect_counted(const TraceRecord &record, std::uint64_t count) {
  constexpr unsigned kValues[] = {1, 5, 7};
  ASSERT_EQ(record.value[0], count);
  ASSERT_EQ(record.num_values, kValues[size_class(count)]);
  ASSERT_EQ(record.id, 7U);
  if (record.num_values >= 5) {
    ASSERT_EQ(record.value[1], ~count);
    ASSERT_EQ(record.value[4], count + 5);
  }
}

TEST_F(TraceTest, EachArityComesBackWithItsHeaderItsHandleAndItsTime) {
  const std::int64_t before = now_ns();
  run([] {
    ltrace_name_component(9, "component nine");
    const std::uint64_t h = trace_header(0x7fffff, 9) | kStray;
    errno = 77;
    _ltrace_1(0xfff'ffff'ffff, h, 1);
    EXPECT_EQ(errno, 77);
    _ltrace_2(2, h, 1, 2);
    _ltrace_3(3, h, 1, 2, 3);
    _ltrace_4(4, h, 1, 2, 3, 4);
    _ltrace_5(5, h, 1, 2, 3, 4, 5);
    _ltrace_6(6, h, 1, 2, 3, 4, 5, 6);
    _ltrace_7(7, h, 1, 2, 3, 4, 5, 6, ~0ULL);
  });
  const std::int64_t after = now_ns();
  const auto file = open_one();
  RingReport report;
  const auto records = ring(*file, 0, report);
  ASSERT_EQ(records.size(), 7U);
  EXPECT_EQ(records[0].handle, 0x3ffffffU);
  EXPECT_TRUE(records[0].exact);
  EXPECT_EQ(records[6].value[6], ~0ULL);
  EXPECT_EQ(file->component(9), "component nine");
  EXPECT_EQ(report.tid, file->pid());
  EXPECT_FALSE(file->alive());
  for (unsigned i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].num_values, i + 1);
    EXPECT_EQ(records[i].value[i < 6 ? i : 0], i < 6 ? i + 1 : 1);
    EXPECT_EQ(records[i].id, 0x7fffffU);
    EXPECT_EQ(records[i].tag, 9U);
    EXPECT_GE(records[i].time_ns, before - 1'000'000);
    EXPECT_LE(records[i].time_ns, after + 1'000'000);
  }
}

TEST_F(TraceTest, AWrappedRingKeepsTheNewestAndCountsTheOthersExactly) {
  for (const std::uint64_t total : {100U, 170U, 5'000U, 40'001U}) {
    setenv("LTRACE_RING_KIB", "8", 1);
    run([total] {
      for (std::uint64_t i = 0; i < total; ++i) {
        write_counted(i);
      }
    });
    const auto file = open_one();
    RingReport report;
    const auto records = ring(*file, 0, report);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(report.overwritten_records + records.size(), total);
    EXPECT_EQ(report.overwritten_words % 64, 0U);
    EXPECT_GE(records.size(), std::min<std::uint64_t>(total, 150));
    EXPECT_EQ(report.damaged_blocks, 0U);
    for (std::size_t i = 0; i < records.size(); ++i) {
      expect_counted(records[i], report.overwritten_records + i);
      EXPECT_TRUE(i == 0 || records[i - 1].ticks <= records[i].ticks);
    }
    std::filesystem::remove(file->path());
  }
}

TEST_F(TraceTest, ThreadsHaveRingsThatOutliveThemAndAreReused) {
  constexpr int kThreads = 150;
  run([] {
    for (std::uint64_t i = 0; i < kThreads; ++i) {
      std::thread([i] { write_counted(i); }).join();
    }
  });
  const auto file = open_one();
  std::set<std::uint64_t> seen;
  for (std::uint32_t i = 0; i < file->num_rings(); ++i) {
    RingReport report;
    for (const TraceRecord &record : ring(*file, i, report)) {
      seen.insert(record.value[0]);
    }
    EXPECT_FALSE(report.owned);
  }
  EXPECT_EQ(file->rings_refused(), 0U);
  ASSERT_EQ(seen.size(), 64U);
  EXPECT_EQ(*seen.begin(), kThreads - 64U) << "a ring was reused before older ones";
}

TEST_F(TraceTest, MoreThreadsThanRingsLoseRecordsAndCountThem) {
  constexpr int kThreads = 70;
  constexpr int kRecords = 10;
  run([] {
    std::latch all_wrote(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&all_wrote] {
        for (int k = 0; k < kRecords; ++k) {
          _ltrace_1(0, trace_header(1), 1);
        }
        all_wrote.arrive_and_wait();
      });
    }
    for (std::thread &thread : threads) {
      thread.join();
    }
  });
  const auto files = open_all();
  ASSERT_EQ(files.size(), 1U);
  EXPECT_EQ(files[0]->rings_refused(), 6U);
  EXPECT_EQ(files[0]->records_dropped(), 6U * kRecords);
  EXPECT_EQ(merge_traces(files).events.size(), 64U * kRecords);
}

TEST_F(TraceTest, AForkedChildWritesAFileOfItsOwn) {
  run([] {
    ltrace_name_component(3, "inherited");
    _ltrace_1(0, trace_header(1, 3), 10);
    run([] {
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
  const auto child = std::find_if(merge.events.begin(), merge.events.end(),
                                  [](const TraceRecord &event) { return event.value[0] == 20; });
  ASSERT_NE(child, merge.events.end());
  for (const TraceRecord &event : merge.events) {
    EXPECT_EQ(event.file == child->file, event.value[0] == 20);
    EXPECT_EQ(event.file->component(3), "inherited");
  }
}

TEST_F(TraceTest, AKilledWriterIsReadToItsLastRecord) {
  const pid_t pid = start(
      [] {
        for (std::uint64_t i = 0; i < 1000; ++i) {
          write_counted(i);
        }
      },
      true);
  EXPECT_TRUE(open_one()->alive());
  kill_hard(pid);
  const auto file = open_one();
  EXPECT_FALSE(file->alive());
  EXPECT_FALSE(list_traces(directory_)[0].alive);
  RingReport report;
  const auto records = ring(*file, 0, report);
  ASSERT_EQ(records.size(), 1000U);
  EXPECT_EQ(records.back().value[0], 999U);
  EXPECT_TRUE(report.owned);
}

TEST_F(TraceTest, ALiveWriterAtFullSpeedIsReadWithoutATornRecord) {
  const pid_t pid = fork();
  if (pid == 0) {
    die_with_parent();
    for (std::uint64_t i = 0;; ++i) {
      write_counted(i);
    }
  }
  while (list_traces(directory_).empty()) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const auto file = open_one();
  std::uint64_t seen = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (std::chrono::steady_clock::now() < end && !HasFailure()) {
    RingReport report;
    const auto records = ring(*file, 0, report);
    EXPECT_EQ(report.damaged_blocks, 0U);
    for (std::size_t i = 0; i < records.size(); ++i) {
      expect_counted(records[i], report.overwritten_records + i);
    }
    seen += records.size();
  }
  kill_hard(pid);
  EXPECT_GT(seen, 1000U);
}

TEST_F(TraceTest, SwitchedOffOrWithoutADirectoryNothingIsWrittenAndNothingBreaks) {
  setenv("LTRACE", "off", 1);
  run([] {
    write_counted(1);
    EXPECT_EQ(ltrace_path(), nullptr);
  });
  EXPECT_TRUE(list_traces(directory_).empty());
  unsetenv("LTRACE");
  setenv("LTRACE_DIR", "/proc/no-such-directory", 1);
  run([] {
    testing::internal::CaptureStderr();
    errno = 77;
    write_counted(1);
    write_counted(2);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(ltrace_path(), nullptr);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("/proc/no-such-directory"), std::string::npos);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
  });
}

TEST_F(TraceTest, TheSweepKeepsTheLivingAndTheDeadThatWroteLast) {
  const pid_t living = start([] { write_counted(0); }, true);
  pid_t late = fork();  // the first to come, the last to write
  if (late == 0) {
    die_with_parent();
    write_counted(0);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    int signal = 0;
    sigwait(&set, &signal);
    for (std::uint64_t i = 0; i < 100; ++i) {
      write_counted(i);
    }
    _exit(0);
  }
  while (list_traces(directory_).size() < 2) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  for (int i = 0; i < 20; ++i) {
    run([] { write_counted(0); });
  }
  kill(late, SIGUSR1);
  int status = 0;
  waitpid(late, &status, 0);
  ASSERT_EQ(status, 0);
  for (int i = 0; i < 2; ++i) {
    run([] { write_counted(0); });
  }
  const auto listing = list_traces(directory_);
  const auto has = [&listing](pid_t pid) {
    return std::any_of(listing.begin(), listing.end(),
                       [pid](const TraceListing &one) { return one.pid == static_cast<std::uint32_t>(pid); });
  };
  EXPECT_EQ(listing.size(), 1U + 16U + 1U);  // the living, the dead as the last process found them, the last process
  EXPECT_TRUE(has(living));
  EXPECT_TRUE(has(late));
  kill_hard(living);
}

}  // namespace
}  // namespace vrellis
