// What others make of a death before any repair: named, and mended.
#include "avl.h"
#include "inspect_fixture.h"
#include "repair/mend.h"

namespace inspect_tests {
namespace {

// By calls that are all answered 0.
class SurvivorsTest : public InspectTest {
 protected:
  static constexpr std::uint32_t kNew = 150, kNewLabel = 44;

  void SetUp() override {
    InspectTest::SetUp();
    start();
  }

  // Four NHs on tunnel 6, four on the null tunnel, all with one user.
  void start() {
    open({});
    fill(1, 4);
  }

  mpls_tunnel_entry_t *tunnel_node(const egress_encap_key_t &full) {
    mpls_tunnel_entry_t probe{};
    std::memcpy(&probe.key, reinterpret_cast<const char *>(&full) + 8, 12);
    return static_cast<mpls_tunnel_entry_t *>(avl_search(db().tun_root, &probe, kCompareTunnels));
  }

  mpls_tunnel_entry_t *link_tunnel(const egress_encap_key_t &full) {
    int flag = 0;
    void *node = nullptr;
    EXPECT_EQ(shmwin_malloc(kId, sizeof(mpls_tunnel_entry_t), &node), 0);
    std::memset(node, 0, sizeof(mpls_tunnel_entry_t));
    std::memcpy(&static_cast<mpls_tunnel_entry_t *>(node)->key, reinterpret_cast<const char *>(&full) + 8, 12);
    return static_cast<mpls_tunnel_entry_t *>(avl_insert(&db().tun_root, node, &flag, kCompareTunnels));
  }

  // Enters a key as a caller does that believes what it finds; `tunnel_index` is for a tunnel that is not there.
  void enter_as_found(const egress_encap_key_t &full, std::uint32_t nh_index, std::uint32_t tunnel_index) {
    egress_encap_info_t info{};
    EXPECT_EQ(vrl_find_egress_encap(&info, full), 0);
    info.egr_nh = nh_index;
    info.egr_tun = info.tun_found != 0 ? info.egr_tun : tunnel_index;
    info.seed_nh = nh_index + 7;
    EXPECT_EQ(vrl_insert_egress_encap(&info, full), 0);
    entered_[nh_index] = {full, info.egr_tun, 1};
  }

  // A state of deaths alone: none of its findings says that something else wrote into the window.
  RepairResult expect_named(const std::string &name, const RepairOptions &options = {}) {
    const Report report = look();
    EXPECT_TRUE(kinds(report).contains(name)) << text(report);
    EXPECT_FALSE(report.sound());
    for (const Finding &finding : report.findings) {
      EXPECT_NE(severity_of(finding.kind), Severity::kDamage) << finding.text;
    }
    return repair(kId, options);
  }

  // After a repair that moved tunnels: each NH is read back as it was entered, on the tunnel that a look-up finds.
  void expect_readable() {
    EXPECT_EQ(text(look()), "");
    for (auto &[index, entry] : entered_) {
      egress_encap_info_t info{};
      vrl_find_egress_encap(&info, entry.key);
      entry.tunnel = info.egr_tun;
      egress_encap_aux_data_t aux{};
      egress_encap_key_t read{};
      EXPECT_EQ(vrl_get_encap_key_and_aux_data_from_nh(index, &aux, &read), 0);
      EXPECT_EQ(std::memcmp(&read, &entry.key, sizeof read), 0) << "NH " << index;
      EXPECT_EQ(aux.egr_tun, entry.tunnel);
    }
    expect_entries();
    while (!entered_.empty()) {
      take_out(entered_.begin()->first);
    }
    EXPECT_EQ(text(look()), "");
  }
};

TEST_F(SurvivorsTest, FileAnNhOnATunnelForWhichNoIndexIsFree) {
  open({100, 64, 6, 1});  // the one index is in use
  fill(0, 1);
  ASSERT_EQ(enter(110, 6, 16), 0);
  link_tunnel(key(9, 16));
  enter_as_found(key(9, 16), kNew, 9);
  entered_.erase(kNew);
  EXPECT_EQ(expect_named("tunnel-without-index").status, 0);
  EXPECT_EQ(tunnel_node(key(9, 16)), nullptr);
  expect_readable();
}

TEST_F(SurvivorsTest, EnterTwoTunnelsAtOneIndex) {
  link_tunnel(key(9, 16))->egr_tun = 9;  // its slot was not filled yet, so that index 9 seems free
  enter_as_found(key(10, 16), kNew, 9);
  enter_as_found(key(9, 16), kNew + 1, 9);
  EXPECT_EQ(expect_named("tunnel-without-index").status, 0);
  expect_readable();

  start();  // labelled tunnels on index 0, as no caller should enter them
  enter_as_found(key(9, 16), kNew, 0);
  enter_as_found(key(10, 16), kNew + 1, 0);
  EXPECT_EQ(expect_named("tunnel-without-index").status, 0);
  expect_readable();
}

TEST_F(SurvivorsTest, FindATunnelWithoutNhsWhichStaysWhenToldSo) {
  const egress_encap_key_t full = key(9, kNewLabel);
  link_tunnel(full)->egr_tun = 9;
  tunnel(9).out_label2 = full.out_label2;
  tunnel(9).out_label3 = full.out_label3;
  tunnel(9).valid = 1;
  EXPECT_EQ(kinds(look()), std::set<std::string>{"tunnel-without-nh"});
  EXPECT_TRUE(repair(kId, {.keep_empty_tunnels = true}).changes.empty());
  EXPECT_NE(tunnel_node(full), nullptr);
  expect_mended();
  EXPECT_EQ(tunnel_node(full), nullptr);
}

// A removal was cut off after it had counted its tunnel down. The others give their NHs back, and the last of them is
// told to take the tunnel out of the hardware.
TEST_F(SurvivorsTest, GiveATunnelBackBesideACutOffRemoval) {
  constexpr std::uint32_t kLeft = 105, kLast = 108;  // of tunnel 6
  const auto give_others_back = [&] {
    start();
    --tunnel(6).ref_count;
    for (std::uint32_t index = kLeft + 1; index <= kLast; ++index) {
      EXPECT_EQ(take_out(index), index == kLast) << "NH " << index;
    }
  };
  give_others_back();
  const RepairResult kept = expect_named("tunnel-in-doubt");  // its users may live
  ASSERT_EQ(kept.changes.size(), 1U);
  EXPECT_NE(kept.changes[0].text.find("hardware"), std::string::npos);
  expect_readable();

  give_others_back();
  entered_.erase(kLeft);
  expect_named("tunnel-in-doubt", {.drop_given_back = true});
  EXPECT_EQ(tunnel_node(key(6, 16)), nullptr);
  expect_readable();
}

}  // namespace
}  // namespace inspect_tests
