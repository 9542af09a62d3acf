// debug: points of a live process, switched from outside and back.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

// A process that passes points of vrl_find_and_share_egress_nh over and over; its messages come through a pipe.
class EncapctlDebugTest : public EncapctlTest {
 protected:
  void SetUp() override {
    EncapctlTest::SetUp();
    ASSERT_EQ(pipe2(pipe_, O_NONBLOCK | O_CLOEXEC), 0);
    worker_.emplace(fork_child(
        [&](const Ready &ready) {
          open_database();
          ready();
          while (true) {
            vrl_find_and_share_egress_nh(1);  // out of range: point 46
            usleep(1000);
          }
        },
        pipe_[1]));
  }
  void TearDown() override {
    worker_.reset();
    close(pipe_[0]);
    close(pipe_[1]);
    EncapctlTest::TearDown();
  }

  // What the process prints within this time; ends early once it has printed something, if that is waited for.
  std::string printed(int milliseconds, bool until_something) {
    std::string text;
    for (int waited = 0; waited < milliseconds && !(until_something && !text.empty()); waited += 10) {
      char buffer[4096];
      pollfd ready = {pipe_[0], POLLIN, 0};
      poll(&ready, 1, 10);
      for (ssize_t got = read(pipe_[0], buffer, sizeof buffer); got > 0; got = read(pipe_[0], buffer, sizeof buffer)) {
        text.append(buffer, static_cast<std::size_t>(got));
      }
    }
    return text;
  }

  Outcome debug(const std::string &query, const char *form = "--no-color") const {
    return encapctl({"debug", worker_->pid(), query, form});
  }

  std::string flags_of(std::size_t id) const {
    return encapctl({"debug", "list", worker_->pid(), "--json"}).objects().at(id).at("flags");
  }

  int pipe_[2] = {-1, -1};
  std::optional<Child> worker_;
};

TEST_F(EncapctlDebugTest, SwitchesAPointOnAndBack) {
  EXPECT_EQ(printed(50, false), "");
  EXPECT_EQ(flags_of(46), "t");
  const Json switched = debug("func vrl_find_and_share_egress_nh category error +p", "--json").object();
  EXPECT_TRUE(says(switched, {{"selected", 3}, {"changed", {46, 47, 48}}}));
  EXPECT_TRUE(has(printed(60'000, true), "out of range nh 1\n"));
  EXPECT_EQ(flags_of(46), "pt");
  EXPECT_EQ(flags_of(49), "t");
  EXPECT_TRUE(has(debug("=_").out, "120 of 120 points selected, 3 changed"));
  bool quiet = false;  // a message may have been under way
  for (int tries = 0; tries < 100 && !quiet; ++tries) {
    quiet = printed(50, false).empty();
  }
  EXPECT_TRUE(quiet);
  EXPECT_EQ(flags_of(46), "t");
}

TEST_F(EncapctlDebugTest, AMistakeIsShownWithItsPlaceAndNearMatchesAndChangesNothing) {
  const Outcome run = debug("id 46 +p; func vrl_insert_egres_encap +p");
  EXPECT_TRUE(ended(run, 2,
                    "column 16: no function matches 'vrl_insert_egres_encap'; did you mean "
                    "'vrl_insert_egress_encap'"));
  EXPECT_TRUE(has(run.err, "\n                 ^"));
  EXPECT_EQ(flags_of(46), "t");
}

TEST_F(EncapctlDebugTest, ProcessesThatCannotBeSwitchedAreRefusedInASentence) {
  EXPECT_TRUE(ended(encapctl({"debug", "1", "+p"}), 2, "process 1 "));
  EXPECT_TRUE(has(encapctl({"debug", "4194305", "+p"}).err, "there is no process 4194305"));
  EXPECT_TRUE(has(encapctl({"debug"}).err, "needs a process and a query"));
  EXPECT_EQ(encapctl({"debug", "list"}).status, 0);
}

}  // namespace
}  // namespace encapctl_test
