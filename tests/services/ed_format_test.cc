// The formatting of stored texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ed.h"

namespace {

TEST(EdFormat, HonoursItsConversionsAndCopiesAllElse) {
  const struct {
    const char *stored;
    std::vector<uint64_t> values;
    const char *as_stored;
    const char *joined;
  } cases[] = {
      {R"("rc %d")", {0xffffffffu}, R"("rc -1")", "rc -1"},
      {R"("a %d, " "b %i")", {0x80000000u, 7}, R"("a -2147483648, " "b 7")", "a -2147483648, b 7"},
      {R"("%u %x %X")",
       {0xffffffffu, 0xabcdefu, 0xabcdefu},
       R"("4294967295 abcdef ABCDEF")",
       "4294967295 abcdef ABCDEF"},
      {"%08x|%8d|%-3d|%05d|%99u",
       {0xbeef, 42, 1},
       "0000beef|      42|%-3d|00001|%99u",
       "0000beef|      42|%-3d|00001|%99u"},
      {"%05d", {0xfffffff9u}, "-0007", "-0007"},
      {"%5d", {0xfffffff9u}, "   -7", "   -7"},
      {"%ld %lu %llx %lld",
       {~0ull, ~0ull, 1ull << 40, 1ull << 63},
       "-1 18446744073709551615 10000000000 -9223372036854775808",
       "-1 18446744073709551615 10000000000 -9223372036854775808"},
      {"%x", {0x123456789abcdefull}, "89abcdef", "89abcdef"},  // a value is a 32-bit pattern
      {"100%% %d %d", {1}, "100% 1 %d", "100% 1 %d"},
      {"%s %n %p %c %f %", {1, 2, 3}, "%s %n %p %c %f %", "%s %n %p %c %f %"},
      {"%lll %5", {1}, "%lll %5", "%lll %5"},
      {"%l%d %000000001d %100d", {1, 2}, "%l1 %000000001d %100d", "%l1 %000000001d %100d"},
      {R"("say \"%d\" \\ " "" "end")", {5}, R"("say \"5\" \\ " "" "end")", R"(say "5" \ end)"},
      {R"("no end)", {}, R"("no end)", "no end"},
      {"", {}, "", ""},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.stored);
    char out[200];
    const auto n = static_cast<unsigned>(each.values.size());
    EXPECT_EQ(ed_format_stored(out, sizeof out, each.stored, each.values.data(), n), std::strlen(each.as_stored));
    EXPECT_STREQ(out, each.as_stored);
    EXPECT_EQ(ed_format_joined(out, sizeof out, each.stored, each.values.data(), n), std::strlen(each.joined));
    EXPECT_STREQ(out, each.joined);
  }
}

TEST(EdFormat, FillsNoMoreThanItsRoom) {
  const uint64_t value = 12345;
  for (size_t room = 0; room < 12; ++room) {
    char out[16];
    std::fill(std::begin(out), std::end(out), '~');
    EXPECT_EQ(ed_format_stored(out, room, "rc %d.", &value, 1), 9u);
    if (room != 0) {
      EXPECT_EQ(std::string(out), std::string("rc 12345.").substr(0, room - 1));
    }
    EXPECT_TRUE(std::all_of(out + room, std::end(out), [](char c) { return c == '~'; }));
  }
}

}  // namespace
