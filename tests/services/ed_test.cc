// The debug facility: registration, listing, printing and the slow rule; queries and formatting have tests of their
// own.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ed_fixture.h"

namespace {

TEST_F(Ed, RegistrationGivesTagAndHandlesOnce) {
  Component &other = *new Component("libother");
  ed_init(&other.record);
  EXPECT_GE(ports.record.trace_tag, 1u);
  EXPECT_EQ(other.record.trace_tag, ports.record.trace_tag + 1);
  for (uint64_t i = 0; i < 3; ++i)
    EXPECT_EQ(other.record.trace_handle[i], uint64_t{other.record.trace_tag} << 8 | (i + 1));
  EXPECT_EQ(other.record.trace_handle[3], 0u);

  const ed_component_t before = ports.record;
  ed_init(&ports.record);
  EXPECT_EQ(std::memcmp(&before, &ports.record, sizeof before), 0);
  size_t count = 0;
  const auto count_ports = [](void *context, const ed_point_t *point) {
    *static_cast<size_t *>(context) += std::strcmp(point->component, "libports") == 0 ? 1 : 0;
  };
  ed_for_each_point(count_ports, &count);
  EXPECT_EQ(count, 5u);
}

TEST_F(Ed, AFullTableRefusesTheNextComponentWithASentence) {
  const auto fill = [] {
    ed_set_sink(nullptr, nullptr);
    for (int i = 0; i < ED_MAX_COMPONENTS; ++i)
      ed_init(&(new Component("libone_of_many"))->record);
    Component &last = *new Component("libtoo_many");
    ed_init(&last.record);
    std::_Exit(last.record.trace_tag == 0 && ed_query("component libtoo_many +p", nullptr) == EINVAL ? 0 : 1);
  };
  EXPECT_EXIT(fill(), testing::ExitedWithCode(0), "no room to register libtoo_many");
}

TEST_F(Ed, PointsAreListedWithWhatTheCatalogueKnows) {
  ASSERT_EQ(ed_query("component libports id 1 +s", nullptr), 0);
  std::vector<ed_point_t> seen;
  const auto keep = [](void *context, const ed_point_t *point) {
    if (std::strcmp(point->component, "libports") == 0)
      static_cast<std::vector<ed_point_t> *>(context)->push_back(*point);
  };
  ed_for_each_point(keep, &seen);
  ASSERT_EQ(seen.size(), 5u);
  const ed_point_t &point = seen[3];  // the chain falls: ids 4, 3, 2, 1
  EXPECT_EQ(point.id, 1u);
  EXPECT_EQ(point.line, 110u);
  EXPECT_EQ(point.num_values, 1u);
  EXPECT_EQ(point.flags, kTraced | ED_SITE_SLOW);
  EXPECT_STREQ(point.category, "error");
  EXPECT_STREQ(point.function, "port_open");
  EXPECT_STREQ(point.text, kRows[1].format);
}

TEST_F(Ed, WithoutACatalogueOrWithAnothersPointsGoByLine) {
  Component &bare = *new Component("libbare");
  ed_init(&bare.record);
  ed_query_error_t error;
  EXPECT_EQ(ed_query("component libbare func port_open +p", &error), EINVAL);
  ASSERT_EQ(ed_query("component libbare line 110 +p", &error), 0) << error.text;
  EXPECT_EQ(bare.letters(), (Strings{"t", "pt", "", "t", "t"}));
  ed_print_debug(&bare.site[3], &bare.record, nullptr, 0, 200, 0, kRows[3].format, 0);

  static ed_catalogue_row_t rows[5];
  std::copy(std::begin(kRows), std::end(kRows), rows);
  rows[2].num_values = 2;
  static ed_catalogue_t wrong = bare.catalogue;
  wrong.row = rows;
  ed_add_catalogue(&wrong);
  ed_print_debug(&bare.site[3], &bare.record, nullptr, 0, 200, 0, kRows[3].format, 0);
  ed_add_catalogue(&bare.catalogue);
  ed_print_debug(&bare.site[3], &bare.record, nullptr, 0, 200, 0, kRows[3].format, 0);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(without_prefix(lines[0]), "libbare error line 200: \"port_close out of range; dropped\"");
  EXPECT_EQ(without_prefix(lines[1]), "libbare error line 200: \"port_close out of range; dropped\"");
  EXPECT_EQ(without_prefix(lines[2]), "libbare error id 3: \"port_close out of range; dropped\"");
}

TEST_F(Ed, ALineNamesTimeProcessThreadComponentCategoryAndPoint) {
  const auto now = [] {
    const std::time_t seconds = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof text, "%F %T", std::localtime(&seconds));
    return std::string(text);
  };
  const std::string before = now();
  errno = ERANGE;
  print(0, {0x1f, 40000}, kRows[0].format);
  print(1, {0xfffffff4u}, "\"two\nlines %d\x1b\"");
  print(0, {1, 2}, std::string(3000, 'x').c_str());
  EXPECT_EQ(errno, ERANGE);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(without_prefix(lines[0]), R"(libports event id 0: "port_open ifh 0x1f, " "speed 40000")");
  EXPECT_LE(before, lines[0].substr(0, 19));
  EXPECT_GE(now(), lines[0].substr(0, 19));
  EXPECT_NE(lines[0].find(" " + std::to_string(getpid()) + "/" + std::to_string(gettid()) + " "), std::string::npos);
  EXPECT_EQ(without_prefix(lines[1]), "libports error id 1: \"two lines -12 \"");
  EXPECT_GT(lines[2].size(), 900u);
  EXPECT_LT(lines[2].size(), 1024u);
  EXPECT_EQ(lines[2].substr(lines[2].size() - 4), "x...");
}

TEST_F(Ed, NeverMoreThanTheFifteenValuesThatThereAre) {
  ed_site_t wild = ports.site[0];
  wild.num_values = 4000000000u;
  const uint64_t values[15] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  ed_print_debug(&wild, &ports.record, values, 0, 100, 0, "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", 0);
  EXPECT_EQ(without_prefix(lines.at(0)), "libports event id 0: 123456789101112131415%d");
}

TEST_F(Ed, WithoutASinkWholeLinesGoToStandardError) {
  constexpr int kThreads = 4, kEach = 200;
  ed_set_sink(nullptr, nullptr);
  testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([this] {
      for (int i = 0; i < kEach; ++i)
        print(3, {}, kRows[3].format);
    });
  for (std::thread &thread : threads)
    thread.join();
  std::istringstream output(testing::internal::GetCapturedStderr());
  int count = 0;
  for (std::string line; std::getline(output, line); ++count)
    EXPECT_EQ(without_prefix(line), "libports error id 3: \"port_close out of range; dropped\"");
  EXPECT_EQ(count, kThreads * kEach);
}

TEST_F(Ed, TheSlowRuleShowsABurstAndCountsTheRest) {
  ASSERT_EQ(ed_query("component libports +s", nullptr), 0);
  const auto start = std::chrono::steady_clock::now();
  int shown = 0, held = 0;
  for (int i = 0; i < 25; ++i)
    ++(pass_slowly(1) != 0 ? shown : held);
  const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(shown, 10);
  EXPECT_LE(shown, 10 * (2 + static_cast<int>(seconds)));
  if (seconds < 0.5) {
    EXPECT_GT(held, 0);
  }
  EXPECT_EQ(lines.size(), static_cast<size_t>(shown));
  EXPECT_EQ(pass_slowly(2), 1) << "each point has its own burst";

  lines.clear();
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(pass_slowly(1), 1);
  if (held != 0 && seconds < 0.5) {
    EXPECT_EQ(without_prefix(lines.at(0)),
              "libports error id 1: \"port_open no memory\" \": rc 7\" (" + std::to_string(held) + " suppressed)");
  }
}

TEST_F(Ed, TheSlowRuleObeysQuietTraceAndLineFilter) {
  ed_site_t &site = ports.site[4];
  const struct {
    uint16_t flags;
    uint32_t line_word;
    int enabled;
    size_t printed;
  } cases[] = {
      {ED_SITE_SLOW, 210, 1, 1},
      {ED_SITE_SLOW | ED_SITE_QUIET, 210, 1, 0},
      {ED_SITE_SLOW | ED_SITE_TRACE_IF_ON, 210, 1, 0},
      {ED_SITE_SLOW | ED_SITE_LINE_FILTER, 210, 1, 1},
      {ED_SITE_SLOW | ED_SITE_LINE_FILTER, 211, 0, 0},
      {ED_SITE_SLOW | ED_SITE_LINE_FILTER | ED_SITE_INVERT, 211, 1, 1},
      {ED_SITE_SLOW | ED_SITE_INVERT, 210, 1, 1},
      {ED_SITE_SLOW | ED_SITE_INVERT, 1u << ED_FILTER_SET_SHIFT | 210, 0, 0},
  };
  for (const auto &each : cases) {
    lines.clear();
    site.flags = static_cast<uint16_t>(kTraced | each.flags);
    site.line = each.line_word;
    EXPECT_EQ(pass_slowly(4), each.enabled) << std::hex << each.flags;
    EXPECT_EQ(lines.size(), each.printed) << std::hex << each.flags;
  }
}

TEST_F(Ed, QueriesListingsSinksAndPointsMeetInManyThreads) {
  std::atomic<bool> stop{false};
  std::atomic<int> printed{0};
  const auto count = [](void *context, const char *, size_t) { ++*static_cast<std::atomic<int> *>(context); };
  ed_set_sink(count, &printed);
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i)
      EXPECT_EQ(ed_query(i % 2 == 0 ? "component libports func port_* +ps" : "component libports =_", nullptr), 0);
  });
  threads.emplace_back([&] {
    while (!stop) {
      ed_for_each_point([](void *, const ed_point_t *) {}, nullptr);
      ed_set_sink(count, &printed);
    }
  });
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        print(3, {}, kRows[3].format);
        pass_slowly(0);
      }
    });
  threads[3].join();
  threads[2].join();
  stop = true;
  threads[0].join();
  threads[1].join();
  EXPECT_GE(printed, 4000);
}

}  // namespace
