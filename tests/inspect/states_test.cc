// Every state in which a death leaves an operation half done: found by its name, and mended.
//
// Each state is built by taking the operation's steps one by one, in the order in which the library takes them.
#include "avl.h"
#include "inspect_fixture.h"

namespace inspect_tests {
namespace {

extern "C" int compare_nhs(const void *a, const void *b) {
  const int order = std::memcmp(static_cast<const char *>(a) + 24, static_cast<const char *>(b) + 24, 8);
  return order < 0 ? 0 : order == 0 ? 1 : 2;
}

extern "C" int compare_tunnels(const void *a, const void *b) {
  const int order = std::memcmp(static_cast<const char *>(a) + 24, static_cast<const char *>(b) + 24, 12);
  return order < 0 ? 0 : order == 0 ? 1 : 2;
}

using Kinds = std::set<std::string>;

class StatesTest : public InspectTest {
 protected:
  static constexpr std::uint32_t kTunnels[] = {6, 0};  // one with an index of its own, the null tunnel
  static constexpr std::uint32_t kNew = 150, kNewLabel = 44;

  void SetUp() override {
    InspectTest::SetUp();
    start();
  }

  // Three NHs on tunnel 6, four on the null tunnel, all with one user.
  void start() {
    open({});
    fill(1, 4);
  }

  template <typename Entry>
  Entry *allocate() {
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(kId, sizeof(Entry), &block), 0);
    std::memset(block, 0, sizeof(Entry));
    return static_cast<Entry *>(block);
  }

  mpls_tunnel_entry_t *tunnel_node(const egress_encap_key_t &full) {
    mpls_tunnel_entry_t probe{};
    std::memcpy(&probe.key, reinterpret_cast<const char *>(&full) + 8, 12);
    return static_cast<mpls_tunnel_entry_t *>(avl_search(db().tun_root, &probe, compare_tunnels));
  }

  mpls_nh_entry_t *nh_node(const egress_encap_key_t &full) {
    mpls_nh_entry_t probe{};
    std::memcpy(&probe.key, &full, 8);
    return static_cast<mpls_nh_entry_t *>(avl_search(tunnel_node(full)->nh_root, &probe, compare_nhs));
  }

  mpls_nh_entry_t *new_nh(const egress_encap_key_t &full) {
    auto *node = allocate<mpls_nh_entry_t>();
    std::memcpy(&node->key, &full, 8);
    return node;
  }

  mpls_tunnel_entry_t *new_tunnel(const egress_encap_key_t &full) {
    auto *node = allocate<mpls_tunnel_entry_t>();
    std::memcpy(&node->key, reinterpret_cast<const char *>(&full) + 8, 12);
    return node;
  }

  mpls_nh_entry_t *link_nh(const egress_encap_key_t &full) {
    int flag = 0;
    return static_cast<mpls_nh_entry_t *>(avl_insert(&tunnel_node(full)->nh_root, new_nh(full), &flag, compare_nhs));
  }

  mpls_tunnel_entry_t *link_tunnel(const egress_encap_key_t &full) {
    int flag = 0;
    return static_cast<mpls_tunnel_entry_t *>(avl_insert(&db().tun_root, new_tunnel(full), &flag, compare_tunnels));
  }

  void fill_nh_slot(std::uint32_t index, const egress_encap_key_t &full, std::uint32_t tunnel_index) {
    egr_nh_info_t &slot = nh(index);
    slot.egr_tun = static_cast<std::uint16_t>(tunnel_index);
    slot.out_label1 = full.out_label1;
    slot.protocol = full.protocol;
    slot.ifh = full.ifh;
    slot.valid = 1;
    slot.seed_nh = index + 7;
  }

  void fill_tunnel_slot(std::uint32_t index, const egress_encap_key_t &full) {
    egr_tun_info_t &slot = tunnel(index);
    slot.out_label2 = full.out_label2;
    slot.out_label3 = full.out_label3;
    slot.valid = 1;
  }

  mpls_nh_entry_t *unlink_nh(std::uint32_t index) {
    int flag = 0;
    const egress_encap_key_t full = entered_.at(index).key;
    mpls_tunnel_entry_t *home = tunnel_node(full);
    void *root = home->nh_root;
    void *node = avl_delete(&root, nh_node(full), &flag, compare_nhs);
    home->nh_root = root;
    return static_cast<mpls_nh_entry_t *>(node);
  }

  std::uint32_t first_on(std::uint32_t tunnel_index) {
    for (const auto &[index, entry] : entered_) {
      if (entry.tunnel == tunnel_index) {
        return index;
      }
    }
    return 0;
  }

  void expect_state(const Kinds &expected, const char *state) {
    SCOPED_TRACE(state);
    EXPECT_EQ(kinds(look()), expected) << text(look());
    const std::vector<std::uint8_t> before(window_, window_ + bytes_);
    EXPECT_FALSE(rehearse_window(config_of("window")).changes.empty());
    EXPECT_EQ(std::memcmp(before.data(), window_, bytes_), 0) << "changed by a rehearsal";
    expect_mended();
    enter(kNew + 1, 7, 60);  // and operations go on
    EXPECT_EQ(text(look()), "");
    start();
  }

  void stay(std::uint32_t index, std::uint32_t tunnel_index, std::uint32_t count) {
    entered_[index] = {key(tunnel_index, kNewLabel), tunnel_index, count};
  }
};

TEST_F(StatesTest, InsertOnAKnownTunnel) {
  for (const std::uint32_t t : kTunnels) {
    const egress_encap_key_t full = key(t, kNewLabel);
    const std::string count = t == 0 ? "null-tunnel-count" : "tunnel-count";
    new_nh(full);
    expect_state({"block-unreachable"}, "node taken");
    link_nh(full);
    expect_state({"node-without-slot"}, "node linked and index not yet filled");
    link_nh(full)->nh_index = kNew;
    expect_state({"node-without-slot"}, "node linked and slot not yet filled");
    link_nh(full)->nh_index = kNew;
    nh(kNew).egr_tun = static_cast<std::uint16_t>(t);
    nh(kNew).out_label1 = full.out_label1;
    expect_state({t == 0 && full.out_label1 == 0 ? "node-without-slot" : "slot-half-filled"}, "slot filled in part");
    link_nh(full)->nh_index = kNew;
    nh(kNew).valid = 1;
    expect_state({"slot-half-filled"}, "slot filled in part, the flag first");
    link_nh(full)->nh_index = kNew;
    fill_nh_slot(kNew, full, t);
    EXPECT_EQ(kinds(look()), (Kinds{count, "nh-count-zero"}));
    EXPECT_EQ(repair(kId).status, 0);
    EXPECT_TRUE(look().sound());
    stay(kNew, t, 0);
    expect_entries();
    entered_.erase(kNew);
    expect_mended({.drop_unreferenced = true});
    start();
    link_nh(full)->nh_index = kNew;
    fill_nh_slot(kNew, full, t);
    nh(kNew).ref_count = 1;
    stay(kNew, t, 1);
    expect_state({count}, "NH counted and tunnel not");
  }
}

TEST_F(StatesTest, InsertWithANewTunnel) {
  const egress_encap_key_t full = key(9, kNewLabel);
  new_tunnel(full);
  expect_state({"block-unreachable"}, "tunnel node taken");
  link_tunnel(full);
  expect_state({"tunnel-without-slot"}, "tunnel node linked and index not yet filled");
  link_tunnel(full)->egr_tun = 9;
  expect_state({"tunnel-without-slot"}, "tunnel node linked and slot not yet filled");
  link_tunnel(full)->egr_tun = 9;
  tunnel(9).out_label2 = full.out_label2;
  expect_state({"tunnel-without-slot"}, "tunnel slot filled in part");
  link_tunnel(full)->egr_tun = 9;
  fill_tunnel_slot(9, full);
  EXPECT_TRUE(look().sound());
  expect_state({"tunnel-without-nh"}, "tunnel slot filled, no NH yet");
  link_tunnel(full)->egr_tun = 9;
  fill_tunnel_slot(9, full);
  link_nh(full);
  expect_state({"node-without-slot", "tunnel-without-nh"}, "NH linked on a new tunnel");
  link_tunnel(full)->egr_tun = 9;
  fill_tunnel_slot(9, full);
  link_nh(full)->nh_index = kNew;
  fill_nh_slot(kNew, full, 9);
  nh(kNew).ref_count = 1;
  stay(kNew, 9, 1);
  expect_state({"tunnel-in-doubt"}, "first NH counted and tunnel not");
  link_tunnel(full)->egr_tun = 9;
  fill_tunnel_slot(9, full);
  link_nh(full)->nh_index = kNew;
  fill_nh_slot(kNew, full, 9);
  expect_state({"tunnel-given-back", "nh-count-zero"}, "first NH filled and not counted");

  // On the null tunnel, whose slot is never cleared.
  egress_encap_key_t null_key = key(0, kNewLabel);
  null_key.ifh = 99;
  link_tunnel(null_key);
  EXPECT_TRUE(look().sound());
  expect_state({"tunnel-without-nh"}, "null tunnel linked");
}

TEST_F(StatesTest, RemovalOfAnNh) {
  for (const std::uint32_t t : kTunnels) {
    const std::string count = t == 0 ? "null-tunnel-count" : "tunnel-count";
    std::uint32_t index = first_on(t);
    --nh(index).ref_count;
    EXPECT_TRUE(look().sound());
    EXPECT_EQ(kinds(look()), Kinds{"nh-count-zero"}) << "count 0 and still linked";
    --tunnel(t).ref_count;
    EXPECT_EQ(kinds(look()), (Kinds{count, "nh-count-zero"})) << "count 0, tunnel counted down";
    entered_.erase(index);
    expect_mended({.drop_unreferenced = true});
    start();
    --tunnel(t).ref_count;
    expect_state({count}, "detach begun: the tunnel counted down");

    --tunnel(t).ref_count;
    unlink_nh(index);
    entered_.erase(index);
    expect_state({"block-unreachable", "slot-without-node"}, "node unlinked");
    --tunnel(t).ref_count;
    shmwin_free(unlink_nh(index));
    entered_.erase(index);
    expect_state({"slot-without-node"}, "node gone and slot not cleared");
    --tunnel(t).ref_count;
    shmwin_free(unlink_nh(index));
    entered_.erase(index);
    std::memset(&nh(index), 0, 16);
    expect_state({"slot-without-node"}, "slot cleared in part");
    --tunnel(t).ref_count;
    shmwin_free(unlink_nh(index));
    entered_.erase(index);
    std::memset(&nh(index).egr_tun, 0, 4);
    expect_state({"slot-residue"}, "slot cleared in part, the flag first");
  }
}

TEST_F(StatesTest, RemovalOfTheTunnel) {
  const auto empty_tunnel = [&] {
    while (const std::uint32_t index = first_on(6)) {
      --tunnel(6).ref_count;
      shmwin_free(unlink_nh(index));
      std::memset(&nh(index), 0, sizeof(egr_nh_info_t));
      entered_.erase(index);
    }
  };
  const auto unlink_tunnel = [&] {
    int flag = 0;
    return avl_delete(&db().tun_root, tunnel_node(key(6, 16)), &flag, compare_tunnels);
  };
  empty_tunnel();
  expect_state({"tunnel-without-nh"}, "last NH gone");
  empty_tunnel();
  unlink_tunnel();
  expect_state({"block-unreachable", "tunnel-slot-without-node"}, "tunnel unlinked");
  empty_tunnel();
  shmwin_free(unlink_tunnel());
  expect_state({"tunnel-slot-without-node"}, "tunnel node gone and slot not cleared");
  empty_tunnel();
  shmwin_free(unlink_tunnel());
  tunnel(6).valid = 0;
  expect_state({"tunnel-slot-residue"}, "tunnel slot cleared in part");
}

TEST_F(StatesTest, AChangeThatWasCutOff) {
  // As the tree service logs it: a word's old value, before the word changes.
  const auto cut_off = [&](std::uint64_t *word) {
    std::uint64_t log[4] = {0, reinterpret_cast<std::uint64_t>(&db().tun_root), reinterpret_cast<std::uint64_t>(word),
                            *word};
    log[0] = 1;
    std::memcpy(window_header().tree_area, log, sizeof log);
    *word ^= 3;
  };
  cut_off(reinterpret_cast<std::uint64_t *>(db().tun_root) + 2);
  expect_state({"undo-log-in-use"}, "a change of a tree under way");
  window_header().pages_used += 3;
  expect_state({"heap-count"}, "pages counted and not taken");
}

TEST_F(StatesTest, EmptyTunnelsStayWhenToldSo) {
  const egress_encap_key_t full = key(9, kNewLabel);
  link_tunnel(full)->egr_tun = 9;
  fill_tunnel_slot(9, full);
  const RepairResult result = repair(kId, {.keep_empty_tunnels = true});
  EXPECT_TRUE(result.changes.empty());
  EXPECT_NE(tunnel_node(full), nullptr);
  expect_mended();
  EXPECT_EQ(tunnel_node(full), nullptr);
}

// What others make of a death before any repair, by calls that are all answered 0.
class SurvivorsTest : public StatesTest {
 protected:
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

  void give_back(std::uint32_t index, std::uint32_t tunnel_goes) {
    std::uint32_t tunnel_index = 0, goes = 0, count = 0;
    EXPECT_EQ(vrl_egress_encap_nh_detach(index, &tunnel_index, &goes, &count), 0) << "NH " << index;
    EXPECT_EQ(goes, tunnel_goes) << "NH " << index;
    entered_.erase(index);
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
      std::uint32_t tunnel_index = 0, goes = 0, count = 0;
      EXPECT_EQ(vrl_egress_encap_nh_detach(entered_.begin()->first, &tunnel_index, &goes, &count), 0);
      entered_.erase(entered_.begin());
    }
    EXPECT_EQ(text(look()), "");
  }
};

TEST_F(SurvivorsTest, FileNhsOnATunnelWithoutAnIndex) {
  link_tunnel(key(9, 16));  // the dead process had not stored the index yet
  enter_as_found(key(9, 16), kNew, 9);
  enter_as_found(key(9, 17), kNew + 1, 9);
  EXPECT_EQ(expect_named("tunnel-without-index").status, 0);
  EXPECT_NE(tunnel_node(key(9, 16))->egr_tun, 0);
  expect_readable();

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

TEST_F(SurvivorsTest, EnterAnotherLabelAtTheIndexOfANodeWithoutASlot) {
  for (const std::uint32_t other : {6U, 8U}) {
    start();
    link_nh(key(6, kNewLabel))->nh_index = kNew;
    enter_as_found(key(other, kNewLabel + 1), kNew, other);
    EXPECT_EQ(expect_named("duplicate-index").status, 0);
    EXPECT_EQ(nh_node(key(6, kNewLabel)), nullptr);
    expect_readable();
  }
}

TEST_F(SurvivorsTest, UseAnNhWhoseSlotIsFilledInPart) {
  link_nh(key(6, kNewLabel))->nh_index = kNew;
  nh(kNew).valid = 1;
  egress_encap_info_t info{};
  EXPECT_EQ(vrl_find_and_share_egress_encap(&info, key(6, kNewLabel)), 0);
  stay(kNew, 6, 1);
  EXPECT_EQ(expect_named("slot-node-mismatch").status, 0);
  nh(kNew).seed_nh = kNew + 7;
  expect_readable();
}

// A removal was cut off after it had counted its tunnel down. The others give their NHs back, and the last of them is
// told to take the tunnel out of the hardware.
TEST_F(SurvivorsTest, GiveATunnelBackBesideACutOffRemoval) {
  const auto give_others_back = [&] {
    start();
    --tunnel(6).ref_count;
    const std::uint32_t left = first_on(6);
    for (std::uint32_t index = left + 1; index < left + 4; ++index) {
      give_back(index, index == left + 3 ? 1 : 0);
    }
    return left;
  };
  std::uint32_t left = give_others_back();
  nh(left).ref_count = 0;  // it was given back, too
  entered_.erase(left);
  EXPECT_EQ(expect_named("tunnel-given-back").status, 0);
  EXPECT_EQ(tunnel_node(key(6, 16)), nullptr);
  EXPECT_EQ(tunnel(6).valid, 0);
  expect_readable();

  left = give_others_back();
  const RepairResult kept = expect_named("tunnel-in-doubt");  // its users may live
  ASSERT_EQ(kept.changes.size(), 1U);
  EXPECT_NE(kept.changes[0].text.find("hardware"), std::string::npos);
  expect_readable();

  left = give_others_back();
  entered_.erase(left);
  expect_named("tunnel-in-doubt", {.drop_given_back = true});
  EXPECT_EQ(tunnel_node(key(6, 16)), nullptr);
  expect_readable();

  start();  // cut off a step later: the node had left its tree, with its links not yet cleared
  left = first_on(6);
  --tunnel(6).ref_count;
  std::uint64_t links[3];
  std::memcpy(links, nh_node(entered_.at(left).key), sizeof links);
  std::memcpy(unlink_nh(left), links, sizeof links);
  for (std::uint32_t index = left + 1; index < left + 4; ++index) {
    give_back(index, index == left + 3 ? 1 : 0);
  }
  entered_.erase(left);
  EXPECT_EQ(expect_named("slot-without-node").status, 0);
  EXPECT_EQ(tunnel_node(key(6, 16)), nullptr);
  expect_readable();
}

}  // namespace
}  // namespace inspect_tests
