// Sound databases: after all that callers may do, check finds nothing and repair changes nothing.
#include "inspect_fixture.h"

namespace inspect_tests {
namespace {

class SoundTest : public InspectTest {
 protected:
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  void take_out(std::uint32_t index) {
    std::uint32_t tunnel_index = 0, flag = 0, other = 0;
    if (below(2) != 0) {
      EXPECT_EQ(vrl_egress_encap_nh_detach(index, &tunnel_index, &flag, &other), 0);
    } else {
      EXPECT_EQ(vrl_find_and_set_egress_nh_ref(index, 1), 0);
      EXPECT_EQ(vrl_delete_and_free_egress_encap_with_nh_key(index, &tunnel_index, &other, &flag), 0);
    }
    entered_.erase(index);
  }

  void step() {
    const std::uint32_t index = ranges_.nh_start + below(ranges_.nh_size);
    if (!entered_.contains(index)) {
      const std::uint32_t tunnel = below(ranges_.tun_size + 1);
      enter(index, tunnel == 0 ? 0 : ranges_.tun_start + tunnel - 1, 16 + below(20));
    } else if (below(3) == 0) {
      EXPECT_EQ(vrl_find_and_share_egress_nh(index), 0);
      ++entered_[index].count;
    } else {
      take_out(index);
    }
  }

  std::mt19937 random_{20261122};
};

TEST_F(SoundTest, NothingIsFoundWhileCallersWork) {
  // A range that begins at 0 has index 0 twice: as an NH that exists, as a tunnel that is the null one. The array of
  // two NHs is as large as a node, and in a node's block.
  for (const Ranges &ranges : {Ranges{}, Ranges{0, 300, 1, 40}, Ranges{4'000'000'000U, 150, 65'500, 20},
                               Ranges{1, 40, 9, 0}, Ranges{100, 2, 5, 12}}) {
    open(ranges);
    EXPECT_EQ(text(look()), "");
    for (int i = 0; i < 1500; ++i) {
      step();
      if (i % 25 == 0) {
        ASSERT_EQ(text(look()), "") << "operation " << i;
      }
    }
    expect_entries();
    const std::vector<std::uint8_t> before(window_, window_ + bytes_);
    EXPECT_TRUE(expect_mended().changes.empty());
    EXPECT_EQ(std::memcmp(before.data(), window_, bytes_), 0);
  }
}

TEST_F(SoundTest, WhatCallersMayChooseIsANoteAtMost) {
  fill(2, 3);
  ASSERT_EQ(vrl_find_and_set_egress_nh_ref(101, 0), 0);
  ASSERT_EQ(vrl_find_and_set_egress_nh_ref(102, 4'000'000'000U), 0);
  entered_[101].count = 0;
  entered_[102].count = 4'000'000'000U;
  EXPECT_TRUE(look().sound());
  EXPECT_EQ(kinds(look()), std::set<std::string>{"nh-count-zero"});
  EXPECT_TRUE(repair(kId).changes.empty());
  expect_entries();
  entered_.erase(101);
  expect_mended({.drop_unreferenced = true});
}

}  // namespace
}  // namespace inspect_tests
