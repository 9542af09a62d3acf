// The debug facility: registration, listing, formatting, printing and the slow rule; queries have a test of their own.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "ed_fixture.h"

namespace {

TEST_F(Ed, RegistrationGivesTagAndHandlesOnceAndPointsAreListedWithWhatTheCatalogueKnows) {
  Component &other = *new Component("libother");
  ed_init(&other.record);
  const uint64_t tag = other.record.trace_tag;
  EXPECT_GE(ports.record.trace_tag, 1u);
  EXPECT_EQ(tag, ports.record.trace_tag + 1u);
  for (uint64_t i = 0; i < 4; ++i) {
    EXPECT_EQ(other.record.trace_handle[i], i < 3 ? tag << 8 | (i + 1) : 0);
  }
  const ed_component_t before = ports.record;
  ed_init(&ports.record);  // once more: nothing changes, and each point is listed once
  EXPECT_EQ(std::memcmp(&before, &ports.record, sizeof before), 0);

  ASSERT_EQ(ed_query("component libports id 1 +s", nullptr), 0);
  static std::vector<ed_point_t> seen;
  const auto keep = [](void *, const ed_point_t *point) {
    if (point->component == std::string("libports")) {
      seen.push_back(*point);
    }
  };
  ed_for_each_point(keep, nullptr);
  ASSERT_EQ(seen.size(), 5u);
  const ed_point_t &point = seen[3];  // the chain falls: ids 4, 3, 2, 1
  EXPECT_EQ((std::array{point.id, point.line, point.num_values}), (std::array{1u, 110u, 1u}));
  EXPECT_EQ(point.flags, kTraced | ED_SITE_SLOW);
  EXPECT_EQ((Strings{point.category, point.function, point.text}), (Strings{"error", "port_open", kRows[1].format}));
}

TEST_F(Ed, AFullTableRefusesTheNextComponentWithASentence) {
  const auto fill = [] {
    ed_set_sink(nullptr, nullptr);
    for (int i = 0; i < ED_MAX_COMPONENTS; ++i) {
      ed_init(&(new Component("libone_of_many"))->record);
    }
    Component &last = *new Component("libtoo_many");
    ed_init(&last.record);
    std::_Exit(last.record.trace_tag == 0 && ed_query("component libtoo_many +p", nullptr) == EINVAL ? 0 : 1);
  };
  EXPECT_EXIT(fill(), testing::ExitedWithCode(0), "no room to register libtoo_many");
}

TEST_F(Ed, WithoutACatalogueOrWithAnothersPointsGoByLine) {
  Component &bare = *new Component("libbare");
  ed_init(&bare.record);
  ed_query_error_t error;
  EXPECT_EQ(ed_query("component libbare func port_open +p", &error), EINVAL);
  ASSERT_EQ(ed_query("component libbare line 110 +p", &error), 0) << error.text;
  EXPECT_EQ(bare.letters(), (Strings{"t", "pt", "", "t", "t"}));

  static ed_catalogue_row_t rows[5];
  std::copy(std::begin(kRows), std::end(kRows), rows);
  rows[2].num_values = 2;
  static ed_catalogue_t wrong = bare.catalogue;
  wrong.row = rows;
  print(3, {}, kDropped, bare);
  for (const ed_catalogue_t *catalogue : {&wrong, &bare.catalogue}) {
    ed_add_catalogue(catalogue);
    print(3, {}, kDropped, bare);
  }
  const std::string text = "port_close out of range; dropped";
  const std::string by_line = "libbare error line 200: " + text;
  EXPECT_EQ(taken_lines(), (Strings{by_line, by_line, "libbare error id 3: " + text}));
}

// A text that has too little room is cut, and no byte behind its room is written.
void expect_in_any_room(decltype(ed_format_stored) *format, const char *stored, const std::vector<uint64_t> &values,
                        const std::string &text) {
  for (size_t room = 0; room < text.size() + 2; ++room) {
    std::string out(text.size() + 4, '~');
    EXPECT_EQ(format(out.data(), room, stored, values.data(), static_cast<unsigned>(values.size())), text.size());
    const std::string seen = room == 0 ? "" : text.substr(0, room - 1) + '\0';
    EXPECT_EQ(out, seen + std::string(out.size() - seen.size(), '~'));
  }
}

TEST(EdFormat, HonoursItsConversionsCopiesAllElseAndFillsNoMoreThanItsRoom) {
  const struct {
    const char *stored;
    std::vector<uint64_t> values;
    const char *as_stored;
    const char *joined = as_stored;
  } cases[] = {
      {R"("rc %d")", {0xffffffffu}, R"("rc -1")", "rc -1"},
      {R"("a %d, " "b %i")", {0x80000000u, 7}, R"("a -2147483648, " "b 7")", "a -2147483648, b 7"},
      {R"("%u %x %X")", {~0u, 0xabcdefu, 0xabcdefu}, R"("4294967295 abcdef ABCDEF")", "4294967295 abcdef ABCDEF"},
      {"%08x|%8d|%-3d|%05d|%99u", {0xbeef, 42, 1}, "0000beef|      42|%-3d|00001|%99u"},
      {"%05d", {0xfffffff9u}, "-0007"},
      {"%5d", {0xfffffff9u}, "   -7"},
      {"%ld %lu %llx", {~0ull, ~0ull, 1ull << 40}, "-1 18446744073709551615 10000000000"},
      {"%lld", {1ull << 63}, "-9223372036854775808"},
      {"%x", {0x123456789abcdefull}, "89abcdef"},  // a value is a 32-bit pattern
      {"100%% %d %d", {1}, "100% 1 %d"},
      {"%s %n %p %c %f %", {1, 2, 3}, "%s %n %p %c %f %"},
      {"%lll %5", {1}, "%lll %5"},
      {"%l%d %000000001d %100d", {1, 2}, "%l1 %000000001d %100d"},
      {R"("say \"%d\" \\ " "" "end")", {5}, R"("say \"5\" \\ " "" "end")", R"(say "5" \ end)"},
      {R"("no end)", {}, R"("no end)", "no end"},
      {"", {}, ""},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.stored);
    expect_in_any_room(ed_format_stored, each.stored, each.values, each.as_stored);
    expect_in_any_room(ed_format_joined, each.stored, each.values, each.joined);
  }
}

TEST_F(Ed, ALineNamesTimeProcessThreadComponentCategoryAndPoint) {
  const std::time_t before = std::time(nullptr);
  errno = ERANGE;
  print(0, {0x1f, 40000}, kRows[0].format);
  print(1, {0xfffffff4u}, "\"two\nlines %d\x1b\"");
  print(0, {1, 2}, std::string(3000, 'x').c_str());
  ports.site[4].num_values = 4000000000u;  // but 15 at most
  print(4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d");
  ports.site[4].num_values = kRows[4].num_values;
  EXPECT_EQ(errno, ERANGE);
  ASSERT_EQ(lines.size(), 4u);
  std::tm time{};
  time.tm_isdst = -1;
  strptime(lines[0].c_str(), "%F %T", &time);
  const std::time_t told = std::mktime(&time);
  EXPECT_TRUE(before <= told && told <= std::time(nullptr)) << lines[0];
  EXPECT_NE(lines[0].find("/" + std::to_string(gettid()) + " "), std::string::npos);
  EXPECT_EQ(without_prefix(lines[0]), "libports event id 0: port_open ifh 0x1f, speed 40000");
  EXPECT_EQ(without_prefix(lines[1]), "libports error id 1: two lines -12 ");
  EXPECT_GT(lines[2].size(), 900u);
  EXPECT_LT(lines[2].size(), 1024u);
  EXPECT_TRUE(lines[2].ends_with("x..."));
  EXPECT_EQ(without_prefix(lines[3]), "libports init id 4: 123456789101112131415%d");
}

TEST_F(Ed, TheSlowRuleShowsABurstAndCountsTheRest) {
  const auto start = std::chrono::steady_clock::now();
  int shown = 0;
  for (int i = 0; i < 25; ++i) {
    shown += pass_slowly(1);
  }
  const bool in_one_window = std::chrono::steady_clock::now() - start < std::chrono::milliseconds(500);
  EXPECT_TRUE(in_one_window ? shown == 10 : shown >= 10) << shown;
  EXPECT_EQ(lines.size(), static_cast<size_t>(shown));
  EXPECT_EQ(pass_slowly(2), 1) << "each point has its own burst";
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(pass_slowly(1), 1);
  EXPECT_EQ(taken_lines().back(), "libports error id 1: port_open no memory: rc 7" +
                                      (shown == 25 ? "" : " (" + std::to_string(25 - shown) + " suppressed)"));
}

TEST_F(Ed, TheSlowRuleObeysQuietTraceAndLineFilter) {
  constexpr uint32_t kFilterSet = 1u << ED_FILTER_SET_SHIFT;
  const struct {
    int flags;
    uint32_t line_word;
    int enabled;
    size_t printed;
  } cases[] = {
      {0, 210, 1, 1},
      {ED_SITE_QUIET, 210, 1, 0},
      {ED_SITE_TRACE_IF_ON, 210, 1, 0},
      {ED_SITE_LINE_FILTER, 210, 1, 1},
      {ED_SITE_LINE_FILTER, 211, 0, 0},
      {ED_SITE_LINE_FILTER | ED_SITE_INVERT, 211, 1, 1},
      {ED_SITE_INVERT, 210, 1, 1},
      {ED_SITE_INVERT, kFilterSet | 210, 0, 0},
  };
  for (const auto &each : cases) {
    ports.site[4].flags = static_cast<uint16_t>(kTraced | ED_SITE_SLOW | each.flags);
    ports.site[4].line = each.line_word;
    EXPECT_EQ(pass_slowly(4), each.enabled) << std::hex << each.flags;
    EXPECT_EQ(taken_lines().size(), each.printed) << std::hex << each.flags;
  }
}

}  // namespace
