// The error-message facility: its line, its rate limit and its sinks.
#include "oxa_errmsg.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "child.h"
#include "kept_lines.h"
#include "oxa_errmsg/rate_limit.h"

namespace {

constexpr const char *kHead = "PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: ";

class OxaErrmsg : public testing::Test {
 protected:
  void SetUp() override {
    lines.clear();
    oxa_set_sink(
        [](void *, int severity, const char *line, size_t length) {
          EXPECT_EQ(severity, OXA_SEVERITY_ERROR);
          keep_line(nullptr, line, length);
        },
        nullptr);
  }
  void TearDown() override { oxa_set_sink(oxa_sink_off, nullptr); }

  int raise(int nh_index, const char *text = "vrl_share") {
    return oxa_errmsg(&record, OXA_SEVERITY_ERROR, text, nh_index);
  }
  void expect_counts(uint64_t shown, uint64_t suppressed, uint32_t pending) {
    oxa_limit_counts_t counts;
    oxa_limit_read(&limit, &counts);
    EXPECT_EQ((std::array{counts.shown, counts.suppressed}), (std::array{shown, suppressed}));
    EXPECT_EQ((std::array{counts.pending, counts.burst}), (std::array{pending, limit.burst}));
  }
  // Lets the running window end, as five seconds would.
  void end_window() {
    auto &state = reinterpret_cast<vrellis::RateLimitState &>(limit);
    state.window -= uint64_t{OXA_WINDOW_MS} << vrellis::kWindowStartShift;
  }

  oxa_msg_limit_t limit = {OXA_DEFAULT_BURST, {}};
  oxa_msg_rec_t record = {0, "%s: nh_idx %d", &limit, "MPLS_ENCAP_DB", "PLATFORM", "NH_NOTVALID_ERROR", OXA_MSG_CLASS,
                          0, 0x1ac90001};
};

TEST_F(OxaErrmsg, ALineCarriesGroupFacilitySeverityNameAndTextWhateverTheRecordIs) {
  errno = ERANGE;
  EXPECT_EQ(raise(-7), 0);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(taken_lines(), Strings{kHead + std::string("vrl_share: nh_idx -7")});

  const oxa_msg_rec_t empty = {};
  EXPECT_EQ(oxa_errmsg(nullptr, 2), EINVAL);
  EXPECT_EQ(oxa_errmsg(&empty, 2), 0);
  EXPECT_EQ(taken_lines(), Strings{"?-?-2-?: ?"});

  record.limit = nullptr;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(raise(i, "two\nlines\t\x7f"), 0);
  }
  EXPECT_EQ(taken_lines().at(99), kHead + std::string("two lines  : nh_idx 99"));

  const std::string name(5000, 'n');
  record.name = name.c_str();
  EXPECT_EQ(raise(1), 0);
  EXPECT_LT(taken_lines().at(0).size(), 1024u);
}

TEST_F(OxaErrmsg, ABurstIsShownAndTheNextWindowTellsWhatWasHeldBack) {
  for (int i = 0; i < 13; ++i) {
    EXPECT_EQ(raise(i), i < 10 ? 0 : 1);
  }
  EXPECT_EQ(lines.size(), 10u);
  expect_counts(10, 3, 3);

  end_window();
  EXPECT_EQ(raise(1, std::string(3000, 'x').c_str()), 0);
  EXPECT_TRUE(lines.back().ends_with("xxx... (3 suppressed)")) << lines.back();
  EXPECT_EQ(raise(2), 0);
  EXPECT_TRUE(lines.back().ends_with("nh_idx 2")) << "told once";
  expect_counts(12, 3, 0);

  end_window();
  for (const uint32_t burst : {0u, 1u}) {  // the owner changes it, and each window shows that many
    limit.burst = burst;
    EXPECT_EQ(raise(3), burst == 0 ? 1 : 0);
    EXPECT_EQ(raise(4), 1);
  }
  expect_counts(13, 6, 1);
}

TEST_F(OxaErrmsg, AWindowLastsFiveSecondsFromItsFirstMessage) {
  // At 99990 the clock of a thread lags, which opens no window.
  const struct {
    uint64_t now;
    bool shown;
    uint32_t held_back;
  } cases[] = {{100000, true, 0}, {104999, true, 0},  {104999, false, 0},      {99990, false, 0}, {105000, true, 2},
               {109999, true, 0}, {109999, false, 0}, {0x123456789a, true, 1}, {0, true, 0},      {0, false, 0}};
  for (const auto &each : cases) {
    const vrellis::Admission admission = vrellis::admit(limit, 2, each.now, OXA_WINDOW_MS);
    EXPECT_EQ(admission.shown, each.shown) << each.now;
    EXPECT_EQ(admission.held_back, each.held_back) << each.now;
  }
  // As the header draws it: burst, pending, shown in this window, its start, ever shown, ever suppressed.
  const unsigned char expected[32] = {10, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0x9a, 0x78, 0x56, 0x34, 0x12,
                                      6,  0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0,    0,    0,    0,    0};
  EXPECT_EQ(std::memcmp(&limit, expected, sizeof expected), 0);
}

TEST_F(OxaErrmsg, EachMessageOfManyThreadsIsCountedOnce) {
  static constexpr int kThreads = 4, kEach = 20000;
  test_support::in_threads(kThreads, [this] {
    for (int i = 0; i < kEach; ++i) {
      raise(1);
    }
  });
  EXPECT_GE(lines.size(), 10u);
  oxa_limit_counts_t counts;
  oxa_limit_read(&limit, &counts);
  expect_counts(lines.size(), kThreads * kEach - lines.size(), counts.pending);
}

// The environment is read once in a process, so each of its values has a child of its own.
TEST_F(OxaErrmsg, TheEnvironmentChoosesTheSinkAtFirstUse) {
  const std::string line = "20.*PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: vrl_share: nh_idx 5\n";
  const struct {
    const char *value;
    std::string printed;
  } cases[] = {{"OXA_ERRMSG", line},
               {"OXA_ERRMSG=stderr", line},
               {"OXA_ERRMSG=off", ""},
               {"OXA_ERRMSG=printer", "20.*OXA_ERRMSG is .printer., which is none of .*\n" + line}};
  for (const auto &each : cases) {
    const auto raise_with = [&] {
      putenv(const_cast<char *>(each.value));  // without a value it is removed
      oxa_set_sink(nullptr, nullptr);
      std::_Exit(raise(5));
    };
    EXPECT_EXIT(raise_with(), testing::ExitedWithCode(0), "^" + each.printed + "$") << each.value;
  }
}

}  // namespace
