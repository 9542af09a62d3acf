// What a repair makes of deaths, where crash_steps does not come: with no index free, and as its options want it.
#include "avl.h"
#include "inspect_fixture.h"
#include "repair/mend.h"

namespace inspect_tests {
namespace {

class SurvivorsTest : public InspectTest {
 protected:
  static bool has_tunnel(const egress_encap_key_t &full) {
    egress_encap_info_t info{};
    vrl_find_egress_encap(&info, full);
    return info.tun_found != 0;
  }

  mpls_tunnel_entry_t *link_tunnel(const egress_encap_key_t &full) {
    int flag = 0;
    void *node = nullptr;
    EXPECT_EQ(shmwin_malloc(kId, sizeof(mpls_tunnel_entry_t), &node), 0);
    std::memset(node, 0, sizeof(mpls_tunnel_entry_t));
    std::memcpy(&static_cast<mpls_tunnel_entry_t *>(node)->key, reinterpret_cast<const char *>(&full) + 8, 12);
    return static_cast<mpls_tunnel_entry_t *>(avl_insert(&db().tun_root, node, &flag, kCompareTunnels));
  }
};

TEST_F(SurvivorsTest, FileAnNhOnATunnelForWhichNoIndexIsFree) {
  open({100, 64, 6, 1});  // the one index is in use
  fill(0, 1);
  ASSERT_EQ(enter(110, 6, 16), 0);
  const egress_encap_key_t full = key(9, 16);
  link_tunnel(full);
  egress_encap_info_t info{};
  vrl_find_egress_encap(&info, full);
  info.egr_nh = 150;
  EXPECT_EQ(vrl_insert_egress_encap(&info, full), 0);
  EXPECT_TRUE(kinds(look()).contains("tunnel-without-index")) << text(look());
  expect_mended();
  EXPECT_FALSE(has_tunnel(full));
}

TEST_F(SurvivorsTest, FindATunnelWithoutNhsWhichStaysWhenToldSo) {
  fill(1, 4);
  const egress_encap_key_t full = key(9, 44);
  link_tunnel(full)->egr_tun = 9;
  tunnel(9).out_label2 = full.out_label2;
  tunnel(9).out_label3 = full.out_label3;
  tunnel(9).valid = 1;
  EXPECT_EQ(kinds(look()), std::set<std::string>{"tunnel-without-nh"});
  EXPECT_TRUE(repair(kId, {.keep_empty_tunnels = true}).changes.empty());
  EXPECT_TRUE(has_tunnel(full));
  expect_mended();
  EXPECT_FALSE(has_tunnel(full));
}

// A removal was cut off after it had counted its tunnel down. The others give their NHs back, and the last of them is
// told to take the tunnel out of the hardware.
TEST_F(SurvivorsTest, GiveATunnelBackBesideACutOffRemoval) {
  constexpr std::uint32_t kLeft = 105, kLast = 108;  // of tunnel 6
  fill(1, 4);
  --tunnel(6).ref_count;
  for (std::uint32_t index = kLeft + 1; index <= kLast; ++index) {
    EXPECT_EQ(take_out(index), index == kLast) << "NH " << index;
  }
  EXPECT_EQ(kinds(look()), std::set<std::string>{"tunnel-in-doubt"});
  const RepairResult kept = rehearse(View::copy_of(window_, bytes_));  // its users may live
  ASSERT_EQ(kept.changes.size(), 1U);
  EXPECT_NE(kept.changes[0].text.find("hardware"), std::string::npos);
  entered_.erase(kLeft);
  expect_mended({.drop_given_back = true});
  EXPECT_FALSE(has_tunnel(key(6, 16)));
}

TEST_F(SurvivorsTest, WhatCallersMayChooseIsANoteAtMost) {
  fill(3, 9);
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
