// The error-message facility: its line, its rate limit and its sinks.
#include "oxa_errmsg.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_line_prefix.h"
#include "rate_limit.h"

namespace {

struct Shown {
  int severity;
  std::string text;  // without the time
};

std::mutex shown_mutex;
std::vector<Shown> shown;

void keep(void *, int severity, const char *line, size_t length) {
  EXPECT_EQ(line[length], '\n');
  const std::lock_guard lock(shown_mutex);
  shown.push_back({severity, without_prefix({line, length})});
}

class OxaErrmsg : public testing::Test {
 protected:
  void SetUp() override {
    shown.clear();
    oxa_set_sink(keep, nullptr);
  }
  void TearDown() override { oxa_set_sink(oxa_sink_off, nullptr); }

  int raise(int nh_index) { return oxa_errmsg(&record, OXA_SEVERITY_ERROR, "vrl_share", nh_index); }
  oxa_limit_counts_t counts() {
    oxa_limit_counts_t result;
    oxa_limit_read(&limit, &result);
    return result;
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

TEST_F(OxaErrmsg, ALineCarriesGroupFacilitySeverityNameAndText) {
  errno = ERANGE;
  EXPECT_EQ(raise(-7), 0);
  EXPECT_EQ(errno, ERANGE);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0].severity, 2);
  EXPECT_EQ(shown[0].text, "PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: vrl_share: nh_idx -7");
}

TEST_F(OxaErrmsg, BadRecordsAndTextsDoNoHarm) {
  EXPECT_EQ(oxa_errmsg(nullptr, 2), EINVAL);
  EXPECT_TRUE(shown.empty());

  const oxa_msg_rec_t empty = {};
  EXPECT_EQ(oxa_errmsg(&empty, 2), 0);
  EXPECT_EQ(shown.at(0).text, "?-?-2-?: ?");

  record.limit = nullptr;
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(oxa_errmsg(&record, 2, "two\nlines\t\x7f", i), 0);
  EXPECT_EQ(shown.at(100).text, "PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: two lines  : nh_idx 99");

  const std::string name(5000, 'n');
  record.name = name.c_str();
  EXPECT_EQ(raise(1), 0);
  EXPECT_LT(shown.back().text.size(), 1024u);
}

TEST_F(OxaErrmsg, ABurstIsShownAndTheNextWindowTellsWhatWasHeldBack) {
  for (int i = 0; i < 13; ++i)
    EXPECT_EQ(raise(i), i < 10 ? 0 : 1);
  EXPECT_EQ(shown.size(), 10u);
  EXPECT_EQ(counts().pending, 3u);

  end_window();
  EXPECT_EQ(oxa_errmsg(&record, 2, std::string(3000, 'x').c_str(), 1), 0);
  const std::string &line = shown.back().text;
  EXPECT_TRUE(line.ends_with("xxx... (3 suppressed)")) << line;
  EXPECT_EQ(raise(2), 0);
  EXPECT_EQ(shown.back().text.find("suppressed"), std::string::npos) << "told once";
  EXPECT_EQ(counts().shown, 12u);
  EXPECT_EQ(counts().suppressed, 3u);
  EXPECT_EQ(counts().pending, 0u);
}

TEST_F(OxaErrmsg, TheBurstIsTheOwnersToSet) {
  limit.burst = 0;
  EXPECT_EQ(raise(1), 1);
  limit.burst = 1;
  EXPECT_EQ(raise(2), 0);
  EXPECT_EQ(raise(3), 1);
  EXPECT_EQ(shown.size(), 1u);
  EXPECT_EQ(counts().burst, 1u);
  EXPECT_EQ(counts().suppressed, 2u);
}

TEST_F(OxaErrmsg, TheLimitObjectIsLaidOutAsDrawn) {
  const uint64_t start = 0x123456789a;
  for (int i = 0; i < 12; ++i)
    vrellis::admit(limit, 10, start, OXA_WINDOW_MS);
  const unsigned char expected[32] = {10, 0, 0, 0, 2, 0, 0, 0, 10, 0, 0, 0x9a, 0x78, 0x56, 0x34, 0x12,
                                      10, 0, 0, 0, 0, 0, 0, 0, 2,  0, 0, 0,    0,    0,    0,    0};
  EXPECT_EQ(std::memcmp(&limit, expected, sizeof expected), 0);
}

TEST_F(OxaErrmsg, AWindowLastsFiveSecondsFromItsFirstMessage) {
  const auto admitted = [&](uint64_t now) { return vrellis::admit(limit, 2, now, OXA_WINDOW_MS).shown; };
  EXPECT_TRUE(admitted(100000));
  EXPECT_TRUE(admitted(104999));
  EXPECT_FALSE(admitted(104999));
  EXPECT_FALSE(admitted(99990)) << "a thread whose clock lags opens no window";
  EXPECT_TRUE(admitted(105000));
  EXPECT_TRUE(admitted(109999));
  EXPECT_FALSE(admitted(109999));
  const vrellis::Admission next = vrellis::admit(limit, 2, 200000, OXA_WINDOW_MS);
  EXPECT_TRUE(next.shown);
  EXPECT_EQ(next.held_back, 1u);  // two before were told at 105000
}

TEST_F(OxaErrmsg, EachMessageOfManyThreadsIsCountedOnce) {
  constexpr int kThreads = 4, kEach = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([this] {
      for (int i = 0; i < kEach; ++i)
        raise(i);
    });
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(counts().shown, shown.size());
  EXPECT_EQ(counts().shown + counts().suppressed, uint64_t{kThreads} * kEach);
  EXPECT_GE(counts().shown, 10u);

  end_window();
  end_window();
  const uint32_t pending = counts().pending;
  EXPECT_EQ(raise(0), 0);
  EXPECT_NE(shown.back().text.find("(" + std::to_string(pending) + " suppressed)"), std::string::npos);
}

// The environment is read once in a process, so each of its values has a child of its own.
TEST_F(OxaErrmsg, TheEnvironmentChoosesTheSinkAtFirstUse) {
  const auto raise_with = [this](const char *value) {
    if (value == nullptr)
      unsetenv("OXA_ERRMSG");
    else
      setenv("OXA_ERRMSG", value, 1);
    oxa_set_sink(nullptr, nullptr);
    std::_Exit(raise(5));
  };
  const char *line = "^20.*PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: vrl_share: nh_idx 5\n$";
  EXPECT_EXIT(raise_with(nullptr), testing::ExitedWithCode(0), line);
  EXPECT_EXIT(raise_with("stderr"), testing::ExitedWithCode(0), line);
  EXPECT_EXIT(raise_with("off"), testing::ExitedWithCode(0), "^$");
  EXPECT_EXIT(raise_with("printer"), testing::ExitedWithCode(0), "OXA_ERRMSG is none of .*\n.*nh_idx 5\n$");
  EXPECT_EXIT(raise_with("syslog"), testing::ExitedWithCode(0), "^syslog 3: [0-9]+/[0-9]+ PLATFORM-.*nh_idx 5\n$");
}

}  // namespace

// Takes the place of the C library's.
extern "C" __attribute__((visibility("default"))) void syslog(int priority, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::fprintf(stderr, "syslog %d: ", priority);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
  va_end(arguments);
}
