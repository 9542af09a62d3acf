// Reading traces: points joined, processes merged, events as text, damaged files survived.
#include <sys/resource.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>

#include "ed.h"
#include "ltrace/file.h"
#include "ltrace_fixture.h"

namespace vrellis {
namespace {

constexpr ed_catalogue_row_t kRows[] = {
    {0, 10, 1, 0, 1, "find_it", "\"find_it Key: %d, \" \"found\""},
    {1, 20, 15, 0, 1, "show_it", "\"all %d %d %d %d %d %d %d \" \"%d %d %d %d %d %d %d 0x%x\""},
};
constexpr const char *kCategories[] = {"error"};
constexpr ed_catalogue_t kCatalogue = {"a component", 1, kCategories, 2, kRows};
constexpr const ed_catalogue_t *kCatalogues[] = {&kCatalogue};

void write_fifteen(std::uint64_t first) {
  const auto v = [first](std::uint64_t i) { return first + i; };
  _ltrace_7(0, trace_header(1, 2, 0), v(0), v(1), v(2), v(3), v(4), v(5), v(6));
  _ltrace_7(0, trace_header(1, 2, 1), v(7), v(8), v(9), v(10), v(11), v(12), v(13));
  _ltrace_1(0, trace_header(1, 2, 2), v(14));
}

using TraceReaderTest = TraceTest;

TEST_F(TraceReaderTest, AnEventReadsAsText) {
  expect_in_child([] {
    ltrace_name_component(2, "a component");
    _ltrace_1(0, trace_header(0, 2), 4711);
    write_fifteen(1);
    _ltrace_2(0, trace_header(99, 2), 1, 0xabc);
    _ltrace_1(0, trace_header(5, 4), 1);
  });
  const auto files = open_all();
  const auto events = merge_traces(files).events;
  const std::string who = std::to_string(files[0]->pid()) + "/" + std::to_string(files[0]->pid()) + " ";
  const std::string ends[] = {"  " + who + "find_it Key: 4711, found",
                              "~ " + who + "show_it: all 1 2 3 4 5 6 7 8 9 10 11 12 13 14 0xf",
                              "~ " + who + "a component point 99: 0x1 0xabc", " point 5: 0x1"};
  ASSERT_EQ(events.size(), std::size(ends));
  for (std::size_t i = 0; i < events.size(); ++i) {
    const std::string text = render_event(events[i], kCatalogues);
    EXPECT_TRUE(text.starts_with("20") && text.ends_with(ends[i])) << text;
  }
}

TEST(JoinRecords, TakesNothingThatDoesNotBelong) {
  const TraceRecord records[] = {{.id = 1, .number = 1, .num_values = 7}, {.id = 1, .number = 0, .num_values = 7},
                                 {.id = 2, .number = 1, .num_values = 7}, {.id = 1, .number = 1, .num_values = 1},
                                 {.id = 1, .number = 0, .num_values = 6}, {.id = 1, .number = 1, .num_values = 1},
                                 {.id = 3, .number = 0, .num_values = 7}, {.id = 3, .number = 1, .num_values = 7},
                                 {.id = 3, .number = 2, .num_values = 7}};
  std::uint64_t orphans = 0;
  const auto points = join_records(records, orphans);
  ASSERT_EQ(points.size(), 3U);
  EXPECT_EQ((std::array{points[0].num_values, points[1].num_values, points[2].num_values}), (std::array{7U, 6U, 14U}));
  EXPECT_EQ(orphans, 5U);
}

TEST_F(TraceReaderTest, AProcessAndItsForkedChildrenHaveFilesThatAreMergedInTheirOrder) {
  constexpr std::uint64_t kTurns = 20;
  setenv("LTRACE_RING_KIB", "8", 1);
  expect_in_child([] {
    ltrace_name_component(3, "inherited");
    for (std::uint64_t turn = 0; turn < kTurns; ++turn) {
      const auto write = [turn] {
        EXPECT_EQ(ltrace_path() != nullptr, turn % 2 == 0 && turn != 0);
        for (int i = 0; i < 300; ++i) {  // more than a block: each turn has stamps of its own
          _ltrace_1(0, trace_header(1, 3), turn);
        }
      };
      turn % 2 == 0 ? write() : expect_in_child(write);
    }
  });
  const auto files = open_all();
  EXPECT_EQ(files.size(), 1 + kTurns / 2);
  std::vector<std::uint64_t> turns;  // of the events whose time is exact
  for (const TraceRecord &event : merge_traces(files).events) {
    EXPECT_EQ(event.file->component(3), "inherited");
    if (event.exact) {
      turns.push_back(event.value[0]);
    }
  }
  EXPECT_TRUE(std::is_sorted(turns.begin(), turns.end()));
  ASSERT_GE(turns.size(), kTurns);
  EXPECT_EQ(turns.back(), kTurns - 1);
}

class DamagedTrace : public TraceReaderTest {
 protected:
  static constexpr std::uint64_t kPoints = 200;
  static constexpr std::size_t kBytes = kRingHeaderBytes + kMinRingKib * 1024;  // the header and the first ring

  void SetUp() override {
    TraceReaderTest::SetUp();
    setenv("LTRACE_RING_KIB", "8", 1);
    expect_in_child([] {
      ltrace_name_component(2, "a component");
      pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
      ptd_set_mutex_block(&mutex, "somewhere", 1);
      for (std::uint64_t i = 0; i < kPoints; ++i) {
        write_fifteen(i * 100);
      }
    });
    good_.resize(kBytes);
    ASSERT_TRUE(std::ifstream(list_traces(directory_)[0].path, std::ios::binary).read(good_.data(), kBytes));
  }
  // Reads a file of these bytes in every way there is. Returns: whether it was taken for a trace file.
  bool survives(const std::string &bytes) const {
    const std::string path = directory_ + "/damaged";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    std::string error;
    std::vector<std::unique_ptr<TraceFile>> files;
    files.push_back(TraceFile::open(path, error));
    if (files[0] == nullptr) {
      EXPECT_NE(error.find(path), std::string::npos);
      return false;
    }
    const TraceMerge merge = merge_traces(files);
    EXPECT_LE(merge.events.size(), 64U * 8192);
    for (std::size_t i = 0; i < merge.events.size(); i += 7) {
      EXPECT_FALSE(render_event(merge.events[i], kCatalogues).empty());
    }
    files[0]->waits();
    files[0]->alive();
    EXPECT_LE(files[0]->comm().size(), 16U);
    return true;
  }

  std::string good_;
};

TEST_F(DamagedTrace, IsSoundAtFirstNoValueOfJoinedPointsIsLostAndAHeadlessOneCountsAsOverwritten) {
  const TraceMerge merge = merge_traces(open_all());
  ASSERT_EQ(merge.rings.size(), 1U);
  ASSERT_FALSE(merge.events.empty());
  EXPECT_EQ(merge.rings[0].overwritten_records + 3 * merge.events.size(), 3 * kPoints);
  std::uint64_t first = (kPoints - merge.events.size()) * 100;
  for (const TraceRecord &event : merge.events) {
    std::array<std::uint64_t, 15> all;
    std::iota(all.begin(), all.end(), first);
    ASSERT_TRUE(std::equal(all.begin(), all.end(), event.value.begin(), event.value.begin() + event.num_values));
    first += 100;
  }
}

TEST_F(DamagedTrace, EachFieldOfTheHeaderMayBeWrongAndTheFileMayEndAnywhere) {
  EXPECT_TRUE(survives(good_));
  for (std::size_t offset = 0; offset < offsetof(FileHeader, ring) + sizeof(RingEntry); ++offset) {
    if (offset == offsetof(FileHeader, component)) {
      offset = offsetof(FileHeader, ring);  // names are checked for nothing but unprintable characters
    }
    for (const char wrong : {'\0', '\x7f', '\xff'}) {
      std::string bytes = good_;
      bytes[offset] = wrong;
      const bool read = survives(bytes);
      const bool decisive = offset < offsetof(FileHeader, pid) && bytes != good_;
      const bool another_valid_value = offset >= offsetof(FileHeader, ring_words);
      EXPECT_TRUE(read ? !decisive || another_valid_value : decisive) << offset;
    }
  }
  std::string bytes = good_;  // a ring that claims to be written to the end of all numbers must not be read for ever
  std::memset(bytes.data() + offsetof(FileHeader, ring) + offsetof(RingEntry, head), 0xff, sizeof(std::uint64_t));
  EXPECT_TRUE(survives(bytes));
  for (std::size_t length = 0; length < kBytes; length += length < kRingHeaderBytes ? 509 : 61) {
    EXPECT_EQ(survives(good_.substr(0, length)), length >= sizeof(FileHeader)) << length;
  }
}

// The largest file that a header can describe, each block full of the smallest records.
TEST_F(DamagedTrace, AForgedFileOfAGigabyteIsReadWithinItsBounds) {
  constexpr std::int64_t kRingBytes = kMaxRingKib * 1024, kShare = kMostMergedBytes / kMaxRings;  // of each ring
  FileHeader header;
  std::memcpy(static_cast<void *>(&header), good_.data(), sizeof header);
  header.ring_words = kRingBytes / sizeof(std::uint64_t);
  for (RingEntry &ring : header.ring) {
    ring.head = header.ring_words;
    ring.epoch = 2;
  }
  std::vector<std::uint64_t> words(kShare / sizeof(std::uint64_t));
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::uint64_t in_block = i % kBlockWords;
    const bool is_header = in_block >= 2 && in_block % 2 == 0;
    words[i] = in_block < 2 ? in_block * 1000 + 1
               : is_header  ? trace_header(7) | std::uint64_t{1} << kCountShift
                            : in_block;
  }
  const std::string path = directory_ + "/1-1.ltrace", link = directory_ + "/2-2.ltrace";
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char *>(&header), sizeof header);
  for (std::int64_t ring = 1; ring <= kMaxRings; ++ring) {
    out.seekp(kRingHeaderBytes + ring * kRingBytes - kShare);
    out.write(reinterpret_cast<const char *>(words.data()), kShare);
  }
  out.close();
  expect_in_child([&] {
#if !defined(ENCAP_SANITIZED)  // address space is no measure of memory there
    const rlimit most = {1 << 30, 1 << 30};
    setrlimit(RLIMIT_AS, &most);
#endif
    const auto files = open_all();
    EXPECT_EQ(files[0]->uid(), geteuid());
    const TraceMerge merge = merge_traces(files);
    EXPECT_LE(merge.events.size(), kMostMergedBytes / 16);
    EXPECT_GT(merge.events.size(), 1'000'000U);
    EXPECT_GT(merge.rings[0].left_unread, 0U);
  });
  std::filesystem::create_symlink(path, link);
  for (const std::string &refused : {directory_, std::string("/dev/null"), link}) {
    std::string error;
    EXPECT_EQ(TraceFile::open(refused, error), nullptr);
    EXPECT_TRUE(error.ends_with(refused == link ? "is a symbolic link" : "is no regular file")) << error;
  }
}

}  // namespace
}  // namespace vrellis
