// Damaged windows: every reading verb ends, without a signal, and says so.
#include <algorithm>
#include <random>

#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

constexpr const char *kReadingVerbs[] = {"status --json", "show nhs", "show tunnels --json",
                                         "summary",       "check",    "find label1=16001"};

class EncapctlDamageTest : public EncapctlTest {
 protected:
  void SetUp() override {
    EncapctlTest::SetUp();
    make_database();
    sound_ = bytes();
  }

  // Runs the reading verbs on a window of these bytes.
  void expect_survived(const std::vector<char> &damaged, const std::string &what) const {
    put_bytes(damaged);
    for (const char *verb : kReadingVerbs) {
      const Outcome run = on_window(verb);
      EXPECT_LE(run.status, 2) << what << ", " << verb << ": " << run.err;
      EXPECT_FALSE(run.out.empty() && run.err.empty()) << what << ", " << verb << " says nothing";
    }
  }

  std::vector<char> sound_;
};

TEST_F(EncapctlDamageTest, TruncatedAndForeignFiles) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{100}, std::size_t{4096}, std::size_t{20000}, sound_.size() - 1}) {
    expect_survived({sound_.begin(), sound_.begin() + static_cast<std::ptrdiff_t>(size)},
                    std::to_string(size) + " bytes");
  }
  expect_survived(std::vector<char>(sound_.size(), 'x'), "a foreign file");
  EXPECT_EQ(on_window("summary").status, 2);
}

TEST_F(EncapctlDamageTest, RandomBytes) {
  const std::uint32_t seed = std::random_device{}();
  std::mt19937 random(seed);
  for (int round = 0; round < 8; ++round) {
    std::vector<char> damaged = sound_;
    // The bytes in use, which are few of the window's, are as likely to be hit as the others together. A window with
    // few changes is one that its header does not refuse.
    for (int i = 0; i < 2 << round; ++i) {
      std::size_t at = random() % damaged.size();
      for (int tries = 0; i % 2 == 0 && tries < 1000 && damaged[at] == 0; ++tries) {
        at = random() % damaged.size();
      }
      damaged[std::max<std::size_t>(at, 64)] = static_cast<char>(random());
    }
    expect_survived(damaged, "seed " + std::to_string(seed));
  }
}

TEST_F(EncapctlDamageTest, CheckNamesAFaultAndRepairMendsIt) {
  EXPECT_EQ(on_window("check").status, 0);
  open_database();
  egress_encap_db->tun_info_array[101 - kTunStart].ref_count = 9;
  close_database();
  const Outcome found = on_window("check --json");
  EXPECT_EQ(found.status, 1);
  ASSERT_EQ(found.objects().size(), 2u) << found.out;
  EXPECT_TRUE(says(found.objects()[0], {{"name", "tunnel-count"}, {"tunnel", 101}}));
  EXPECT_EQ(found.objects()[1].at("sound"), false);
  EXPECT_TRUE(has(on_window("summary").err, "1 finding")) << "the other verbs go on, and tell";

  const Outcome dry = on_window("repair --dry-run --json");
  EXPECT_EQ(dry.status, 1);
  EXPECT_EQ(dry.objects().back().at("changes"), 1);
  EXPECT_EQ(on_window("check").status, 1) << "a dry run changes nothing";
  EXPECT_TRUE(ended(on_window("repair"), 0, "1 change; 1 finding before, 0 after"));
  EXPECT_EQ(on_window("check").status, 0);
  EXPECT_EQ(on_window("check --name none").status, 2);
}

}  // namespace
}  // namespace encapctl_test
