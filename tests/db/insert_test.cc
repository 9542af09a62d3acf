// Entering encapsulations: the insert's two cases, whole streams on every path.
#include "support/fixture.h"

namespace encap_test {
namespace {

int insert(const egress_encap_info_t &info, const Key &key = full_key()) {
  egress_encap_info_t passed = info;
  const int status = vrl_insert_egress_encap(&passed, key);
  EXPECT_EQ(std::memcmp(&passed, &info, sizeof info), 0) << "the insert only reads its record";
  return status;
}

egress_encap_info_t new_tunnel() {
  return DbTest::record(DbTest::kNh, DbTest::kTunnel);
}
egress_encap_info_t known_tunnel() {
  return DbTest::record(DbTest::kNh, DbTest::kTunnel, true);
}
void tunnel_is_there(DbTest &db) {
  EXPECT_EQ(db.enter(full_key().raw(0, 0x100000)).at(100).on(DbTest::kTunnel), 0);
}

using InsertTest = DbTest;

TEST_F(InsertTest, NewTunnelAndItsFirstNh) {
  const auto only_tunnel = [](DbTest &db) { db.model.add_tunnel(kTunnel, full_key()); };
  const auto all = [](DbTest &db) { db.model.insert(new_tunnel(), full_key()); };
  run(*this, {"new tunnel",
              nullptr,
              [](DbTest &) { return insert(new_tunnel()); },
              "50(tunf=0,nhf=0) trylock=0 4 malloc(9,56)=0 insert(tun_root,$T)=ok 7 23 "
              "8 malloc(9,40)=0 insert(nh_root,$N)=ok 11 22 18(count=1) 20(count=1) unlock=0 68",
              all,
              {},
              {{"trylock1=11", "53(rc=11)", 11},
               {"malloc1=5", "5 unlock=0", 22},
               {"malloc1=NULL", "5 unlock=0", 22},
               {"malloc1=5 unlock1=1", "5 unlock=1 54(rc=1)", 22},
               {"insert1=no", "free($T) 6 unlock=0", 22},
               {"insert1=no unlock1=1", "free($T) 6 unlock=1 54(rc=1)", 22},
               {"malloc2=12", "9 unlock=0", 22, only_tunnel},
               {"malloc2=NULL", "9 unlock=0", 22, only_tunnel},
               {"insert2=no", "free($N) 10 unlock=0", 22, only_tunnel},
               {"insert2=no unlock1=1", "free($N) 10 unlock=1 55(rc=1)", 22, only_tunnel},
               {"unlock1=1", "67(rc=1) 68", 0, all}}});
}

TEST_F(InsertTest, NewNhUnderAKnownTunnel) {
  const auto all = [](DbTest &db) { db.model.insert(known_tunnel(), full_key()); };
  run(*this, {"known tunnel",
              tunnel_is_there,
              [](DbTest &) { return insert(known_tunnel()); },
              "50(tunf=1,nhf=0) trylock=0 search(tun_root,$T)=hit 2(result=1) "
              "8 malloc(9,40)=0 insert(nh_root,$N)=ok 11 64 22 18(count=1) 20(count=2) unlock=0 68",
              all,
              {},
              {{"trylock1=11", "59(rc=11)", 11},
               {"search1=none", "2(result=0) unlock=0 61", 22},
               {"search1=none unlock1=1", "2(result=0) unlock=1 60(rc=1) 61", 22},
               {"malloc1=5", "9 62(rc=12) unlock=0", 22},
               {"malloc1=NULL", "9 62(rc=12) unlock=0", 22},
               {"insert1=no", "free($N) 10 62(rc=22) unlock=0", 22},
               {"insert1=no unlock1=1", "free($N) 10 62(rc=22) unlock=1 63(rc=1)", 22},
               {"unlock1=1", "67(rc=1) 68", 0, all}}});
}

TEST_F(InsertTest, NullTunnelPassesAnyRangeAndCountsInItsOwnSlot) {
  values["tun"] = kNull;
  values["slot"] = kNullSlot;
  EXPECT_EQ(insert(record(kNh, kNull)), 0);
  expect_journal(
      "50(tunf=0,nhf=0) trylock=0 4 malloc(9,56)=0 insert(tun_root,$T)=ok 7 23 "
      "8 malloc(9,40)=0 insert(nh_root,$N)=ok 11 22 18(count=1) 20(count=1) unlock=0 68");
  model.insert(record(kNh, kNull), full_key());
  EXPECT_EQ(enter(full_key().out_of(0x40)).at(106).on(kNull), 0);  // a second tunnel entry, the same slot
  expect_tunnel(kNull).count(2);
  expect_database();
}

TEST_F(InsertTest, RefusesBeforeTheLock) {
  const auto at = [](std::uint32_t nh, std::uint32_t tun) { return Values{{"nh", nh}, {"tun", tun}}; };
  struct Case {
    std::uint32_t nh, tun;
    bool tunnel_found, nh_found;
    const char *stream;
    int status;
  };
  for (const Case &c : std::initializer_list<Case>{
           {105, 7, true, true, "50(tunf=1,nhf=1)", 0},
           {99, 999, true, true, "50(tunf=1,nhf=1)", 0},
           {105, 9, false, false, "50(tunf=0,nhf=0) 51", 22},
           {105, 4, false, true, "50(tunf=0,nhf=1) 51", 22},
           {105, 65536 + 7, false, false, "50(tunf=0,nhf=0) 51", 22},
           {99, 9, false, false, "50(tunf=0,nhf=0) 51", 22},
           {108, 7, false, false, "50(tunf=0,nhf=0) 52", 22},
           {99, 0, false, false, "50(tunf=0,nhf=0) 52", 22},
           {0xffffffff, 8, false, false, "50(tunf=0,nhf=0) 52", 22},
           {108, 9, true, false, "50(tunf=1,nhf=0) 58", 22},
           {99, 7, true, false, "50(tunf=1,nhf=0) 58", 22},
           {105, 9, true, false, "50(tunf=1,nhf=0) 51", 22},
           {105, 4, true, false, "50(tunf=1,nhf=0) 51", 22},
           {105, 0xffffffff, true, false, "50(tunf=1,nhf=0) 51", 22},
       }) {
    EXPECT_EQ(insert(record(c.nh, c.tun, c.tunnel_found, c.nh_found)), c.status);
    expect_journal(c.stream, at(c.nh, c.tun));
    expect_database();
  }
  EXPECT_EQ(vrl_insert_egress_encap(nullptr, full_key()), 22);
  expect_journal("");
}

TEST_F(InsertTest, BordersOfTheRangesAreIn) {
  EXPECT_EQ(enter(full_key()).at(100).on(5), 0);
  EXPECT_EQ(enter(full_key().out_of(0x40)).at(107).on(8), 0);
  EXPECT_EQ(enter(full_key().raw(0, 0x100000)).at(101).on(5), 0);
}

TEST_F(InsertTest, NhFoundWithoutItsTunnelIsANewTunnel) {
  const auto info = record(kNh, kTunnel, false, true);
  EXPECT_EQ(insert(info), 0);
  model.insert(info, full_key());
  expect_database();
}

TEST_F(InsertTest, SecondNodeOfAKeyIsRefused) {
  enter(full_key()).at(kNh).on(kTunnel);
  EXPECT_EQ(insert(record(106, 8)), 22);
  expect_journal("50(tunf=0,nhf=0,nh=106,tun=8) trylock=0 4 malloc(9,56)=0 insert(tun_root,$T)=no free($T) 6 unlock=0");
  expect_database();
  EXPECT_EQ(insert(record(106, kTunnel, true)), 22);
  expect_journal(
      "50(tunf=1,nhf=0,nh=106) trylock=0 search(tun_root,$T)=hit 2(result=1) "
      "8 malloc(9,40)=0 insert(nh_root,$N)=no free($N) 10 62(rc=22) unlock=0");
  expect_database();
}

TEST_F(InsertTest, TunnelLeftByAFailureIsFoundAndUsed) {
  faults().order("malloc2=12");
  EXPECT_EQ(insert(new_tunnel()), 22);
  faults().clear();
  model.add_tunnel(kTunnel, full_key());
  expect_database();
  EXPECT_EQ(enter(full_key()).at(kNh).on(8), 0);  // the index found decides, not the one offered
  expect_tunnel(kTunnel).count(1);
}

TEST_F(InsertTest, SlotsThatLoseTheirValidBitUnderTheLock) {
  struct Case {
    bool tunnel_found;
    const char *unlock;
    std::uint32_t point;  // after its trace record the NH's or the tunnel's slot is no longer valid
    const char *tail;
  };
  const std::string nh_lost = "19(count=0) NH_NOTVALID_ERROR(vrl_mem_increment_egr_nh_ref_count,count=0) ";
  const auto tunnel_lost = [](const char *count) {
    const std::string with = std::string("count=") + count + ")";
    return "21(" + with + " TUN_NOTVALID_ERROR(vrl_mem_increment_egr_tun_ref_count," + with + " ";
  };
  for (const Case &c : std::initializer_list<Case>{{false, "", 22, "unlock=0"},
                                                   {false, "unlock1=1", 22, "unlock=1 56(rc=1)"},
                                                   {false, "", 18, "unlock=0"},
                                                   {false, "unlock1=1", 18, "unlock=1 57(rc=1)"},
                                                   {true, "", 22, "unlock=0"},
                                                   {true, "unlock1=1", 22, "unlock=1 65(rc=1)"},
                                                   {true, "", 18, "unlock=0"},
                                                   {true, "unlock1=1", 18, "unlock=1 66(rc=1)"}}) {
    open();
    if (c.tunnel_found) {
      tunnel_is_there(*this);
    }
    at_point(22, [&] { nh_slot(kNh).valid = c.point == 22 ? 0 : 1; });
    at_point(18, [&] { tunnel_slot(kTunnel).valid = c.point == 18 ? 0 : 1; });
    faults().order(c.unlock);
    EXPECT_EQ(insert(c.tunnel_found ? known_tunnel() : new_tunnel()), 22);
    at_point(22, nullptr);
    at_point(18, nullptr);
    const std::string begin = c.tunnel_found
                                  ? "50(tunf=1,nhf=0) trylock=0 search(tun_root,$T)=hit 2(result=1) "
                                    "8 malloc(9,40)=0 insert(nh_root,$N)=ok 11 64 22 "
                                  : "50(tunf=0,nhf=0) trylock=0 4 malloc(9,56)=0 insert(tun_root,$T)=ok 7 23 "
                                    "8 malloc(9,40)=0 insert(nh_root,$N)=ok 11 22 ";
    expect_journal(begin + (c.point == 22 ? nh_lost : "18(count=1) " + tunnel_lost(c.tunnel_found ? "1" : "0")) +
                   c.tail);
    expect_nh(kNh).count(c.point == 22 ? 0 : 1);
  }
}

TEST_F(InsertTest, TunnelSlotOfTheRecordIsCountedNotThatOfTheEntry) {
  tunnel_is_there(*this);
  EXPECT_EQ(insert(record(kNh, 8, true)), 22);
  expect_journal(
      "50(tunf=1,nhf=0,tun=8) trylock=0 search(tun_root,$T)=hit 2(result=1) 8 malloc(9,40)=0 "
      "insert(nh_root,$N)=ok 11 64 22(tun=8) 18(count=1) 21(tun=8,slot=3,count=0) "
      "TUN_NOTVALID_ERROR(vrl_mem_increment_egr_tun_ref_count,tun=8,slot=3,count=0) unlock=0");
  model.insert(record(kNh, 8, true), full_key());
  expect_database();
}

// A range that passes 16 bits cuts the index on its way into slot and node; what comes back is refused by every road.
TEST_F(InsertTest, TunnelIndexPast16BitsIsCutAndThenRefused) {
  open(kNhStart, kNhSize, 65530, 20);
  values["tun"] = 65540;
  EXPECT_EQ(insert(record(kNh, 65540)), 0);
  expect_journal(
      "50(tunf=0,nhf=0) trylock=0 4 malloc(9,56)=0 insert(tun_root,$T)=ok 7 23 "
      "8 malloc(9,40)=0 insert(nh_root,$N)=ok 11 22 18(count=1) 20(count=1,slot=10) unlock=0 68");
  model.insert(record(kNh, 65540), full_key());
  expect_database();
  egress_encap_aux_data_t aux{};
  egress_encap_key_t key{};
  EXPECT_EQ(vrl_get_encap_key_and_aux_data_from_nh(kNh, &aux, &key), 22);
  expect_journal("trylock=0 24 74 unlock=0");
  EXPECT_EQ(insert(record(106, 4, true)), 22);
  expect_journal("50(tunf=1,nhf=0,nh=106,tun=4) 51(tun=4)");
  EXPECT_EQ(vrl_egress_encap_nh_detach(kNh, &outs.first, &outs.second, &outs.third), 22);
  expect_database();
}

// ------------------------------------------------------------------------------------------------------------- attach

int attach(egress_encap_info_t info, std::uint32_t count) {
  return vrl_egress_encap_nh_insert_attach(&info, count, full_key());
}

TEST_F(InsertTest, AttachInsertsAndSetsTheCount) {
  const auto only_tunnel = [](DbTest &db) { db.model.add_tunnel(kTunnel, full_key()); };
  const auto inserted = [](DbTest &db) { db.model.insert(new_tunnel(), full_key()); };
  const auto all = [](DbTest &db) { db.model.attach(new_tunnel(), 5, full_key()); };
  run(*this, {"attach",
              nullptr,
              [](DbTest &db) {
                db.values["old"] = 1;
                return attach(new_tunnel(), 5);
              },
              "50(tunf=0,nhf=0) trylock=0 4 malloc(9,56)=0 insert(tun_root,$T)=ok 7 23 "
              "8 malloc(9,40)=0 insert(nh_root,$N)=ok 11 22 18(count=1) 20(count=1) unlock=0 68 "
              "trylock=0 78(count=5) unlock=0 84",
              all,
              {},
              {{"trylock1=11", "53(rc=11) 82(rc=11)", 11},
               {"malloc1=12", "5 unlock=0 82(rc=22)", 22},
               {"insert1=no", "free($T) 6 unlock=0 82(rc=22)", 22},
               {"malloc2=12", "9 unlock=0 82(rc=22)", 22, only_tunnel},
               {"insert2=no", "free($N) 10 unlock=0 82(rc=22)", 22, only_tunnel},
               {"unlock1=1", "67(rc=1) 68 trylock=0 78(count=5) unlock=0 84", 0, all},
               {"trylock2=11", "77(rc=11) 83(count=5,rc=11)", 11, inserted},
               {"unlock2=1", "80(rc=1) 83(count=5,rc=1)", 1, all}}});
}

TEST_F(InsertTest, AttachOfWhatIsThereSetsItsCountAlone) {
  enter(full_key()).at(kNh).on(kTunnel);
  EXPECT_EQ(attach(record(kNh, kTunnel, true, true), 0), 0);
  expect_journal("50(tunf=1,nhf=1) trylock=0 78(old=1,count=0) unlock=0 84");
  model.set(kNh, 0);
  expect_database();
}

TEST_F(InsertTest, AttachRefuses) {
  EXPECT_EQ(vrl_egress_encap_nh_insert_attach(nullptr, 5, full_key()), 22);
  expect_journal("81");
  EXPECT_EQ(attach(record(108, kTunnel), 5), 22);
  expect_journal("50(tunf=0,nhf=0) 52 82(rc=22)", {{"nh", 108}});
  EXPECT_EQ(attach(record(kNh, kTunnel, true, true), 5), 22);  // said to be there, and is not
  expect_journal(
      "50(tunf=1,nhf=1) trylock=0 79(old=0,count=5) NH_NOTVALID_ERROR(vrl_find_and_set_egress_nh_ref,count=0) "
      "unlock=0 83(count=5,rc=22)");
  expect_database();
}

TEST_F(InsertTest, SetOfACount) {
  const auto set = [](DbTest &db) { db.model.set(kNh, 9); };
  run(*this, {"set",
              [](DbTest &db) { db.enter(full_key()).at(kNh).on(kTunnel); },
              [](DbTest &) { return vrl_find_and_set_egress_nh_ref(kNh, 9); },
              "trylock=0 78(old=1,count=9) unlock=0",
              set,
              {},
              {{"trylock1=11", "77(rc=11)", 11}, {"unlock1=1", "80(rc=1)", 1, set}}});
  journal().take();
  for (const std::uint32_t nh : {99u, 108u, 0u, 0xffffffffu}) {
    EXPECT_EQ(vrl_find_and_set_egress_nh_ref(nh, 1), 22);
    expect_journal("76", {{"nh", nh}});
  }
  const std::string not_valid =
      "trylock=0 79(old=0,count=3) NH_NOTVALID_ERROR(vrl_find_and_set_egress_nh_ref,count=0) ";
  EXPECT_EQ(vrl_find_and_set_egress_nh_ref(106, 3), 22);
  expect_journal(not_valid + "unlock=0", {{"nh", 106}});
  faults().order("unlock1=1");
  EXPECT_EQ(vrl_find_and_set_egress_nh_ref(106, 3), 1);
  expect_journal(not_valid + "unlock=1 80(rc=1)", {{"nh", 106}});
  expect_database();
}

}  // namespace
}  // namespace encap_test
