// Looking encapsulations up and sharing NHs.
#include "support/fixture.h"

namespace encap_test {
namespace {

// Calls a lookup with both flags set and indexes preset; outs are the record's egr_nh, egr_tun and 2 * tun_found +
// nh_found.
template <int (*Lookup)(egress_encap_info_t *, egress_encap_key_t)>
int look_up(DbTest &db, const Key &key) {
  egress_encap_info_t info = DbTest::record(0xEEEEEEEE, 0xEEEEEEEE, true, true);
  info.spare = 1;
  const int status = Lookup(&info, key);
  db.outs = {info.egr_nh, info.egr_tun, info.tun_found * 2u + info.nh_found};
  egress_encap_info_t rest = DbTest::record(info.egr_nh, info.egr_tun, info.tun_found, info.nh_found);
  rest.spare = 1;
  EXPECT_EQ(std::memcmp(&info, &rest, sizeof info), 0) << "more was written than flags and indexes";
  return status;
}

int find(DbTest &db) {
  return look_up<vrl_find_egress_encap>(db, full_key());
}
int share(DbTest &db) {
  return look_up<vrl_find_and_share_egress_encap>(db, full_key());
}
void encap_is_there(DbTest &db) {
  db.enter(full_key()).at(DbTest::kNh).on(DbTest::kTunnel);
}

constexpr std::uint32_t kKept = 0xEEEEEEEE;
constexpr Outs kFound{DbTest::kNh, DbTest::kTunnel, 3};
constexpr Outs kTunnelFound{kKept, DbTest::kTunnel, 2};
constexpr Outs kNothing{kKept, kKept, 0};

using LookupTest = DbTest;

TEST_F(LookupTest, Find) {
  run(*this,
      {"find",
       encap_is_there,
       find,
       "trylock=0 search(tun_root,$T)=hit 2(result=1) 42 search(nh_root,$N)=hit 3(result=1) 43 unlock=0 "
       "45(nhf=1,tunf=1)",
       nullptr,
       kFound,
       {{"trylock1=11", "41(rc=11)", 11, nullptr, kNothing},
        {"search1=none", "2(result=0) unlock=0 45(nhf=0,tunf=0,nh=0xEEEEEEEE,tun=0xEEEEEEEE)", 0, nullptr, kNothing},
        {"search2=none", "3(result=0) unlock=0 45(nhf=0,tunf=1,nh=0xEEEEEEEE)", 0, nullptr, kTunnelFound},
        {"unlock1=1", "44(rc=1)", 1, nullptr, kFound}}});
}

TEST_F(LookupTest, FindAndShare) {
  const auto shared = [](DbTest &db) { db.model.share(kNh); };
  run(*this,
      {"find and share",
       encap_is_there,
       share,
       "35 trylock=0 search(tun_root,$T)=hit 2(result=1) 37 search(nh_root,$N)=hit 3(result=1) 38 18(count=2) "
       "unlock=0 40(nhf=1,tunf=1)",
       shared,
       kFound,
       {{"trylock1=11", "36(rc=11)", 11, nullptr, kNothing},
        {"search1=none", "2(result=0) unlock=0 40(nhf=0,tunf=0,nh=0xEEEEEEEE,tun=0xEEEEEEEE)", 0, nullptr, kNothing},
        {"search2=none", "3(result=0) unlock=0 40(nhf=0,tunf=1,nh=0xEEEEEEEE)", 0, nullptr, kTunnelFound},
        {"unlock1=1", "39(rc=1) 40(nhf=1,tunf=1)", 0, shared, kFound}}});
}

TEST_F(LookupTest, ShareByIndex) {
  const auto shared = [](DbTest &db) { db.model.share(kNh); };
  run(*this, {"share",
              encap_is_there,
              [](DbTest &) { return vrl_find_and_share_egress_nh(kNh); },
              "trylock=0 18(count=2) unlock=0 49",
              shared,
              {},
              {{"trylock1=11", "47(rc=11)", 11}, {"unlock1=1", "48(rc=1)", 1, shared}}});
  journal().take();
  for (const std::uint32_t nh : {99u, 108u, 0u, 0xffffffffu}) {
    EXPECT_EQ(vrl_find_and_share_egress_nh(nh), 22);
    expect_journal("46", {{"nh", nh}});
  }
}

TEST_F(LookupTest, SharingASlotThatIsNotValid) {
  encap_is_there(*this);
  nh_slot(kNh).valid = 0;
  model.nh(kNh).valid = 0;
  const std::string refused = "19(count=1) NH_NOTVALID_ERROR(vrl_mem_increment_egr_nh_ref_count,count=1) ";
  const std::string found =
      "35 trylock=0 search(tun_root,$T)=hit 2(result=1) 37 search(nh_root,$N)=hit 3(result=1) 38 ";
  for (const char *unlock : {"unlock=0", "unlock=1"}) {  // the unlock's result is not looked at
    faults().order(std::string(unlock) == "unlock=1" ? "unlock1=1" : "");
    EXPECT_EQ(share(*this), 22);
    EXPECT_TRUE(outs == kFound);
    expect_journal(found + refused + unlock);
    faults().order(std::string(unlock) == "unlock=1" ? "unlock1=1" : "");
    EXPECT_EQ(vrl_find_and_share_egress_nh(kNh), 22);
    expect_journal("trylock=0 " + refused + unlock);
  }
  expect_database();
}

TEST_F(LookupTest, NothingInAnEmptyDatabase) {
  EXPECT_EQ(find(*this), 0);
  EXPECT_TRUE(outs == kNothing);
  expect_journal("trylock=0 search(empty,$T)=none 2(result=0) unlock=0 45(nhf=0,tunf=0,nh=0xEEEEEEEE,tun=0xEEEEEEEE)");
}

TEST_F(LookupTest, AnNhIsFoundUnderItsOwnTunnelAlone) {
  encap_is_there(*this);
  enter(full_key().out_of(0x40).raw(0, 0x100000)).at(106).on(8);
  look_up<vrl_find_and_share_egress_encap>(*this, full_key().out_of(0x40));
  EXPECT_TRUE((outs == Outs{kKept, 8, 2}));
  EXPECT_EQ(enter(full_key().out_of(0x40)).at(107).on(0), 0);  // the same NH key, another NH
  expect_nh(kNh).count(1);
  expect_nh(107).count(1);
  expect_tunnel(8).count(2);
}

TEST_F(LookupTest, SpareBitsMakeAnotherKey) {
  encap_is_there(*this);
  for (const auto &[word, expected] : {std::pair{0, kTunnelFound}, {1, kTunnelFound}, {2, kNothing}, {3, kNothing}}) {
    const auto key = full_key().raw(static_cast<std::size_t>(word), 1u << 31);
    look_up<vrl_find_egress_encap>(*this, key);
    EXPECT_TRUE(outs == expected) << word;
    look_up<vrl_find_and_share_egress_encap>(*this, key);
    EXPECT_TRUE(outs == expected) << word;
  }
  EXPECT_EQ(enter(full_key().raw(0, 1u << 21).raw(1, 1u << 25)).at(106).on(0), 0);
  expect_tunnel(kTunnel).count(2);
  expect_database();
}

TEST_F(LookupTest, CountsWrapAround) {
  encap_is_there(*this);
  set_count(kNh, 0xffffffff);
  EXPECT_EQ(vrl_find_and_share_egress_nh(kNh), 0);
  expect_journal("trylock=0 18(count=0) unlock=0 49");
  model.share(kNh);
  tunnel_slot(kTunnel).ref_count = 0xffffffff;
  model.tunnel(kTunnel).count = 0xffffffff;
  EXPECT_EQ(enter(full_key().raw(0, 0x100000)).at(106).on(0), 0);
  expect_tunnel(kTunnel).count(0);
}

}  // namespace
}  // namespace encap_test
