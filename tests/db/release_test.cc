// Giving encapsulations up: one reference at a time, or an NH at once.
#include "support/fixture.h"

namespace encap_test {
namespace {

constexpr std::uint32_t kKept = 0xEEEEEEEE;
constexpr Outs kPreset{0, 0, 0}, kCountOnly{0, 0, 3}, kDetached{7, 1, 3};              // of a detach
constexpr Outs kNhOnly{kKept, 1, kKept}, kTunnelOnly{7, kKept, 1}, kDeleted{7, 1, 1};  // of a delete

int detach(DbTest &db) {
  return vrl_egress_encap_nh_detach(DbTest::kNh, &db.outs.first, &db.outs.second, &db.outs.third);
}
int release(DbTest &db) {
  return vrl_delete_and_free_egress_encap_with_nh_key(DbTest::kNh, &db.outs.first, &db.outs.second, &db.outs.third);
}
void one_nh(DbTest &db) {
  EXPECT_EQ(db.enter(full_key()).at(DbTest::kNh).on(DbTest::kTunnel), 0);
}
void one_nh_of_three_users(DbTest &db) {
  one_nh(db);
  db.set_count(DbTest::kNh, 3);
}
void tunnel_count_gone(DbTest &db) {
  db.model.tunnel(DbTest::kTunnel).count = 0;
}
void both_counts_gone(DbTest &db) {
  tunnel_count_gone(db);
  db.model.nh(DbTest::kNh).count = 0;
}
void nh_gone_tunnel_stays(DbTest &db) {
  tunnel_count_gone(db);
  db.model.nh(DbTest::kNh) = {};
  db.model.tunnels.begin()->second.nhs.clear();
}
void all_gone(DbTest &db) {
  Outs outs;
  db.model.detach(DbTest::kNh, outs);
}

// The two ways to give up the last reference of an NH: they share all steps from the tunnel's count on.
struct Way {
  const char *name;
  int (*take)(DbTest &);
  const char *begins;
  const char *removed;  // point of an NH removed
  const char *returns;
  const char *failed;  // point of the final codes
  bool reports_count;

  Outs outs(std::uint32_t tunnel, std::uint32_t prm) const {
    return reports_count ? Outs{tunnel, prm, 1} : Outs{tunnel, 1, prm};
  }
};

const Way kWays[] = {
    {"vrl_egress_encap_nh_detach", detach, "trylock=0 25 89 ", "92", "94 unlock=0 ", "96", true},
    {"vrl_delete_and_free_egress_encap_with_nh_key", release, "trylock=0 25 28(count=0,del=1) 100(del=1) ", "104",
     "106 unlock=0 ", "108", false},
};
const std::string kTakesNhOut =
    "search(tun_root,$T)=hit 2(result=1) search(nh_root,$N)=hit 3(result=1) 15 delete(copy,$N)=ok free($N) 17 ";

using ReleaseTest = DbTest;

TEST_F(ReleaseTest, DetachOfTheLastNhOfATunnel) {
  run(*this,
      {"detach",
       one_nh_of_three_users,
       detach,
       "trylock=0 25 89 31(count=0,del=1) search(tun_root,$T)=hit 2(result=1) search(nh_root,$N)=hit 3(result=1) "
       "15 delete(copy,$N)=ok free($N) 17 92(edb=1,prm=1) 12 delete(tun_root,$T)=ok free($T) 14 94 unlock=0",
       all_gone,
       kDetached,
       {{"trylock1=11", "86(rc=11)", 11, nullptr, kPreset},
        {"search1=none",
         "2(result=0) 90 TUN_NOTFOUND_ERROR(vrl_egress_encap_nh_detach) unlock=0 "
         "96(rc_nh=0,rc_tun=0,rc=22)",
         22, tunnel_count_gone, kCountOnly},
        {"search1=none unlock1=1",
         "2(result=0) 90 TUN_NOTFOUND_ERROR(vrl_egress_encap_nh_detach) unlock=1 95(rc=1) "
         "96(rc_nh=0,rc_tun=0,rc=22)",
         22, tunnel_count_gone, kCountOnly},
        {"search2=none", "3(result=0) NH_NOTFOUND_ERROR(vrl_egress_encap_nh_detach) 94 unlock=0", 0, tunnel_count_gone,
         kDetached},
        {"delete1=no", "16 91(rc=22) unlock=0 96(rc_nh=22,rc_tun=0,rc=0)", 22, tunnel_count_gone, kCountOnly},
        {"delete2=no", "13 93(rc=22) unlock=0 96(rc_nh=0,rc_tun=0,rc=22)", 22, nh_gone_tunnel_stays, kCountOnly},
        {"unlock1=1", "95(rc=1)", 0, all_gone, kDetached}}});
}

TEST_F(ReleaseTest, DeleteOfTheLastReference) {
  run(*this,
      {"delete",
       one_nh,
       release,
       "trylock=0 25 28(count=0,del=1) 100(del=1) 31(count=0,del=1) search(tun_root,$T)=hit 2(result=1) "
       "search(nh_root,$N)=hit 3(result=1) 15 delete(copy,$N)=ok free($N) 17 104(edb=1,prm=1) "
       "12 delete(tun_root,$T)=ok free($T) 14 106 unlock=0",
       all_gone,
       kDeleted,
       {{"trylock1=11", "98(rc=11)", 11},
        {"search1=none",
         "2(result=0) 102 TUN_NOTFOUND_ERROR(vrl_delete_and_free_egress_encap_with_nh_key) unlock=0 "
         "108(rc_nh=0,rc_tun=0,rc=22)",
         22, both_counts_gone},
        {"search2=none", "3(result=0) NH_NOTFOUND_ERROR(vrl_delete_and_free_egress_encap_with_nh_key) 106 unlock=0", 0,
         both_counts_gone, kTunnelOnly},
        {"delete1=no", "16 103(rc=22) unlock=0 108(rc_nh=0,rc_tun=0,rc=22)", 22, both_counts_gone},
        {"delete2=no", "13 105(rc=22) unlock=0 108(rc_nh=0,rc_tun=0,rc=22)", 22, nh_gone_tunnel_stays, kNhOnly},
        {"delete2=no unlock1=1", "13 105(rc=22) unlock=1 107(rc=1) 108(rc_nh=0,rc_tun=0,rc=22)", 22,
         nh_gone_tunnel_stays, kNhOnly},
        {"unlock1=1", "107(rc=1)", 0, all_gone, kDeleted}}});
}

TEST_F(ReleaseTest, ReferencesRemain) {
  run(*this, {"count down",
              one_nh_of_three_users,
              release,
              "trylock=0 25 28(count=2,del=0) 100(del=0) 101(del=0,edb=0) unlock=0",
              [](DbTest &db) { --db.model.nh(kNh).count; },
              {},
              {{"trylock1=11", "98(rc=11)", 11},
               {"unlock1=1", "107(rc=1)", 0, [](DbTest &db) { --db.model.nh(kNh).count; }}}});
}

TEST_F(ReleaseTest, OtherNhsKeepTheirTunnel) {
  for (const Way &way : kWays) {
    for (const std::uint32_t other : {0x1abccu, 0x1abceu}) {  // the other NH before and after it in the tree
      open();
      one_nh(*this);
      enter(full_key().raw(0, other ^ 0x1abcd).raw(0, 0x100000)).at(100).on(kTunnel);
      EXPECT_EQ(way.take(*this), 0);
      EXPECT_TRUE(outs == way.outs(7, 0));
      expect_journal(way.begins + ("31(count=1,del=0) " + kTakesNhOut) + way.removed + "(edb=0,prm=0) " + way.returns);
      all_gone(*this);
      expect_database();
    }
  }
}

// An NH removal moves the root of the tunnel's tree: the tunnel's own root field must follow.
TEST_F(ReleaseTest, RootOfTheNhTreeIsWrittenBack) {
  for (std::uint32_t nh = 100; nh < 106; ++nh) {
    enter(label(nh).over(1, 2).out_of(3)).at(nh).on(kTunnel);
  }
  for (std::uint32_t nh = 100; nh < 106; ++nh) {  // each time the first node of the double's list
    outs = {};
    EXPECT_EQ(vrl_egress_encap_nh_detach(nh, &outs.first, &outs.second, &outs.third), 0);
    EXPECT_TRUE((outs == Outs{7, nh == 105, 1}));
    Outs modelled;
    model.detach(nh, modelled);
    expect_database();
  }
  EXPECT_EQ(db().tun_root, nullptr);
}

TEST_F(ReleaseTest, EntriesOfTheNullTunnelGoWithTheirOwnLastNh) {
  for (const Way &way : kWays) {
    open();
    enter(label(16).out_of(0x40)).at(kNh).on(kNull);
    enter(label(16).out_of(0x41)).at(106).on(kNull);
    EXPECT_EQ(way.take(*this), 0);
    const Values of_null = {{"tun", 0}, {"slot", kNullSlot}, {"l1", 16},   {"l2", 0},    {"l3", 0},
                            {"te", 0},  {"fo", 0},           {"l2vpn", 0}, {"proto", 0}, {"ifh", 0x40}};
    const std::string trees =
        "31(count=1,del=0) search(tun_root,T:0/0/64)=hit 2(result=1) "
        "search(nh_root,N:16/0)=hit 3(result=1) 15 delete(copy,N:16/0)=ok free(N:16/0) 17 ";
    const std::string tunnel = "12 delete(tun_root,T:0/0/64)=ok free(T:0/0/64) 14 ";
    expect_journal(way.begins + trees + way.removed + "(edb=1,prm=0) " + tunnel + way.returns, of_null);
    EXPECT_TRUE(outs == way.outs(0, 0));
    all_gone(*this);
    expect_database();
    EXPECT_EQ(vrl_egress_encap_nh_detach(106, &outs.first, &outs.second, &outs.third), 0);
    EXPECT_TRUE((outs == Outs{0, 1, 1}));
    expect_tunnel(kNull).bytes("00000000 00000000 00000000 01000000");  // never cleared
  }
}

TEST_F(ReleaseTest, EntriesOfTheNullTunnelStayForTheirOtherNhs) {
  for (const Way &way : kWays) {
    open();
    EXPECT_EQ(enter(full_key()).at(kNh).on(kNull), 0);
    EXPECT_EQ(enter(full_key().raw(0, 0x100000)).at(106).on(kNull), 0);
    EXPECT_EQ(way.take(*this), 0);
    EXPECT_TRUE(outs == way.outs(0, 0));
    expect_journal(way.begins + ("31(count=1,del=0) " + kTakesNhOut) + way.removed + "(edb=0,prm=0) " + way.returns,
                   {{"tun", 0}, {"slot", kNullSlot}});
    all_gone(*this);
    expect_database();
  }
}

TEST_F(ReleaseTest, TunnelThatCannotBeCounted) {
  for (const Way &way : kWays) {
    for (const bool valid : {true, false}) {
      open();
      one_nh(*this);
      const std::uint32_t count = valid ? 0 : 1;
      tunnel_slot(kTunnel).ref_count = count;
      tunnel_slot(kTunnel).valid = valid;
      EXPECT_EQ(way.take(*this), 22);
      const std::string refused =
          valid ? "29(count=0) " : "30(count=1) TUN_NOTVALID_ERROR(vrl_mem_decrement_egr_tunnel_ref_count,count=1) ";
      expect_journal(way.begins + refused + "TUN_REFCOUNT_ERROR(" + way.name + ") " + kTakesNhOut + way.removed +
                     "(edb=0,prm=0) " + way.returns + way.failed + "(rc_nh=0,rc_tun=22,rc=0)");
      EXPECT_TRUE(outs == way.outs(7, 0));
      nh_gone_tunnel_stays(*this);
      model.tunnel(kTunnel).count = count;
      model.tunnel(kTunnel).valid = valid;
      expect_database();
    }
  }
}

TEST_F(ReleaseTest, CountZero) {
  one_nh(*this);
  set_count(kNh, 0);
  EXPECT_EQ(release(*this), 22);
  EXPECT_TRUE(outs == Outs{});
  expect_journal(
      "trylock=0 25 26(count=0) NH_REFCOUNT_ERROR(vrl_delete_and_free_egress_encap_with_nh_key) 100(del=0) "
      "101(del=0,edb=0) unlock=0 108(rc_nh=22,rc_tun=0,rc=0)");
  expect_database();
  EXPECT_EQ(detach(*this), 0);  // a detach takes no notice of the count
  EXPECT_TRUE((outs == Outs{7, 1, 0}));
  all_gone(*this);
  expect_database();
}

TEST_F(ReleaseTest, SlotThatLosesItsValidBitUnderTheLock) {
  one_nh(*this);
  at_point(25, [&] { nh_slot(kNh).valid = 0; });
  EXPECT_EQ(release(*this), 22);
  at_point(25, nullptr);
  expect_journal(
      "trylock=0 25 27(count=1) NH_NOTVALID_ERROR(vrl_mem_decrement_egr_nh_ref_count,count=1) "
      "NH_REFCOUNT_ERROR(vrl_delete_and_free_egress_encap_with_nh_key) 100(del=0) 101(del=0,edb=0) "
      "unlock=0 108(rc_nh=22,rc_tun=0,rc=0)");
  model.nh(kNh).valid = 0;
  expect_database();
}

// The NH's node is missing and its tunnel's tree is empty: the tunnel goes all the same.
TEST_F(ReleaseTest, EmptyTreeWithAValidSlot) {
  for (const Way &way : kWays) {
    open();
    one_nh(*this);
    auto *tunnel = static_cast<mpls_tunnel_entry_t *>(db().tun_root);
    arena().give(tunnel->nh_root);
    tunnel->nh_root = nullptr;
    EXPECT_EQ(way.take(*this), 0);
    expect_journal(std::string(way.begins) +
                   "31(count=0,del=1) search(tun_root,$T)=hit 2(result=1) search(empty,$N)=none 3(result=0) "
                   "NH_NOTFOUND_ERROR(" +
                   way.name + ") 12 delete(tun_root,$T)=ok free($T) 14 " + way.returns);
    EXPECT_TRUE((outs == (way.reports_count ? Outs{7, 1, 1} : kTunnelOnly)));
    model.tunnels.clear();
    model.tunnel(kTunnel) = {};
    model.nh(kNh).count = way.reports_count ? 1 : 0;
    expect_database();
  }
}

// The read-back zeroes its key, so an NH entered under spare bits is not found again.
TEST_F(ReleaseTest, SpareBitsOfAKeyAreNotInItsSlot) {
  EXPECT_EQ(enter(full_key().raw(0, 1u << 31)).at(kNh).on(kTunnel), 0);
  EXPECT_EQ(detach(*this), 0);
  EXPECT_TRUE((outs == Outs{7, 1, 1}));
  expect_journal(
      "trylock=0 25 89 31(count=0,del=1) search(tun_root,$T)=hit 2(result=1) search(nh_root,$N)=none "
      "3(result=0) NH_NOTFOUND_ERROR(vrl_egress_encap_nh_detach) 94 unlock=0");
  tunnel_count_gone(*this);
  expect_database();
}

TEST_F(ReleaseTest, RefusesIndexesAndFreeSlots) {
  for (const std::uint32_t nh : {99u, 108u, 0u, 0xffffffffu}) {
    EXPECT_EQ(vrl_egress_encap_nh_detach(nh, &outs.first, &outs.second, &outs.third), 22);
    expect_journal("85 96(rc_nh=0,rc_tun=0,rc=22)", {{"nh", nh}});
    EXPECT_EQ(vrl_delete_and_free_egress_encap_with_nh_key(nh, &outs.first, &outs.second, &outs.third), 22);
    expect_journal("97 108(rc_nh=0,rc_tun=0,rc=22)", {{"nh", nh}});
    EXPECT_TRUE(outs == Outs{});
  }
  for (const int unlock : {0, 1}) {
    const std::string released = "unlock=" + std::to_string(unlock) + " ";
    faults().order(unlock ? "unlock1=1" : "");
    EXPECT_EQ(release(*this), 22);
    EXPECT_TRUE(outs == Outs{});
    expect_journal("trylock=0 24 99 " + released + (unlock ? "107(rc=1) " : "") + "108(rc_nh=0,rc_tun=0,rc=22)");
    faults().order(unlock ? "unlock1=1" : "");
    EXPECT_EQ(detach(*this), 22);
    EXPECT_TRUE((outs == Outs{0, 0, 0}));
    expect_journal("trylock=0 24 87 " + released + (unlock ? "95(rc=1) " : "") + "96(rc_nh=0,rc_tun=0,rc=22)");
    outs = {};
  }
  expect_database();
}

}  // namespace
}  // namespace encap_test
