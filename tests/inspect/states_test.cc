// Every state in which a death leaves an operation half done: found by its name, and mended.
#include "states_fixture.h"

namespace inspect_tests {
namespace {

TEST_F(StatesTest, InsertOnAKnownTunnel) {
  for (const std::uint32_t t : kTunnels) {
    const egress_encap_key_t full = key(t, kNewLabel);
    const std::string count = t == 0 ? "null-tunnel-count" : "tunnel-count";
    mpls_nh_entry_t *node = nullptr;
    const Step link{[&] { node = link_nh(full); }, {"node-without-slot"}, "node linked and index not yet filled"};
    const Step index{[&] { node->nh_index = kNew; }, {"node-without-slot"}, "node linked and slot not yet filled"};
    const auto fill_first = [&] {
      nh(kNew).egr_tun = static_cast<std::uint16_t>(t);
      nh(kNew).out_label1 = full.out_label1;
    };
    expect_steps({{[&] { new_nh(full); }, {"block-unreachable"}, "node taken"}});
    expect_steps({link, index, {fill_first, {"slot-half-filled"}, "slot filled in part"}});
    expect_steps({link, index, {[&] { nh(kNew).valid = 1; }, {"slot-half-filled"}, "the flag is filled first"}});
    const Step fill{[&] {
                      fill_nh_slot(kNew, full, t);
                      stay(kNew, t, 0);
                    },
                    {count, "nh-count-zero"},
                    "slot filled"};
    const Step counted{[&] {
                         nh(kNew).ref_count = 1;
                         stay(kNew, t, 1);
                       },
                       {count},
                       "NH counted and tunnel not"};
    expect_steps({link, index, fill, counted});
  }
}

TEST_F(StatesTest, InsertWithANewTunnel) {
  const egress_encap_key_t full = key(9, kNewLabel);
  mpls_tunnel_entry_t *tunnel_node = nullptr;
  mpls_nh_entry_t *node = nullptr;
  expect_steps({{[&] { new_tunnel(full); }, {"block-unreachable"}, "tunnel node taken"}});
  expect_steps({
      {[&] { tunnel_node = link_tunnel(full); }, {"tunnel-without-slot"}, "tunnel linked and index not yet filled"},
      {[&] { tunnel_node->egr_tun = 9; }, {"tunnel-without-slot"}, "tunnel linked and slot not yet filled"},
      {[&] { tunnel(9).out_label2 = full.out_label2; }, {"tunnel-without-slot"}, "tunnel slot filled in part"},
      {[&] { fill_tunnel_slot(9, full); }, {"tunnel-without-nh"}, "tunnel slot filled, no NH yet"},
      {[&] { node = link_nh(full); }, {"node-without-slot", "tunnel-without-nh"}, "NH linked on a new tunnel"},
      {[&] { node->nh_index = kNew; }, {"node-without-slot", "tunnel-without-nh"}, "its index filled"},
      {[&] { fill_nh_slot(kNew, full, 9); }, {"tunnel-given-back", "nh-count-zero"}, "first NH filled, not counted"},
      {[&] {
         nh(kNew).ref_count = 1;
         stay(kNew, 9, 1);
       },
       {"tunnel-in-doubt"},
       "first NH counted and tunnel not"},
  });
  egress_encap_key_t null_key = key(0, kNewLabel);  // its slot is never cleared
  null_key.ifh = 99;
  expect_steps({{[&] { link_tunnel(null_key); }, {"tunnel-without-nh"}, "null tunnel linked"}});
}

TEST_F(StatesTest, RemovalOfAnNh) {
  for (const std::uint32_t t : kTunnels) {
    const std::string count = t == 0 ? "null-tunnel-count" : "tunnel-count";
    const std::uint32_t index = first_on(t);
    mpls_nh_entry_t *node = nullptr;
    const Step lower{[&] { --tunnel(t).ref_count; }, {count}, "detach begun: the tunnel counted down"};
    const Step take{[&] {
                      node = unlink_nh(index);
                      entered_.erase(index);
                    },
                    {"block-unreachable", "slot-without-node"},
                    "node unlinked"};
    const Step free{[&] { shmwin_free(node); }, {"slot-without-node"}, "node gone and slot not cleared"};
    const auto clear = [&](std::size_t from, std::size_t bytes) {
      return [&, from, bytes] { std::memset(reinterpret_cast<char *>(&nh(index)) + from, 0, bytes); };
    };
    expect_steps({lower, take, free, {clear(0, 16), {"slot-without-node"}, "slot cleared in part"}});
    expect_steps({lower,
                  take,
                  free,
                  {clear(offsetof(egr_nh_info_t, egr_tun), 4), {"slot-residue"}, "the flag is cleared first"}});
    expect_steps({{[&] {
                     --nh(index).ref_count;
                     entered_[index].count = 0;
                   },
                   {"nh-count-zero"},
                   "NH counted down"},
                  {lower.work, {count, "nh-count-zero"}, "count 0, tunnel counted down"}});
    start();
    nh(index).ref_count = 0;
    --tunnel(t).ref_count;
    entered_.erase(index);
    expect_mended({.drop_unreferenced = true});
    start();
  }
}

TEST_F(StatesTest, RemovalOfTheTunnel) {
  mpls_tunnel_entry_t *node = nullptr;
  const auto take_nhs_out = [&] {
    while (const std::uint32_t index = first_on(6)) {
      --tunnel(6).ref_count;
      shmwin_free(unlink_nh(index));
      std::memset(&nh(index), 0, sizeof(egr_nh_info_t));
      entered_.erase(index);
    }
  };
  const auto unlink = [&] {
    int flag = 0;
    void *const found = avl_delete(&db().tun_root, tunnel_node(key(6, 16)), &flag, kCompareTunnels);
    node = static_cast<mpls_tunnel_entry_t *>(found);
  };
  expect_steps({{take_nhs_out, {"tunnel-without-nh"}, "last NH gone"},
                {unlink, {"block-unreachable", "tunnel-slot-without-node"}, "tunnel unlinked"},
                {[&] { shmwin_free(node); }, {"tunnel-slot-without-node"}, "tunnel node gone and slot not cleared"},
                {[&] { tunnel(6).valid = 0; }, {"tunnel-slot-residue"}, "tunnel slot cleared in part"}});
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
  expect_steps({{[&] { cut_off(reinterpret_cast<std::uint64_t *>(db().tun_root) + 2); },
                 {"undo-log-in-use"},
                 "a change of a tree under way"}});
  expect_steps({{[&] { window_header().pages_used += 3; }, {"heap-count"}, "pages counted and not taken"}});
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

}  // namespace
}  // namespace inspect_tests
