// Questions and updates to single NHs.
#include "support/fixture.h"

namespace encap_test {
namespace {

constexpr const char *kNotValid = "NH_NOTVALID_ERROR(vrl_can_delete_egr_nh_data_from_encap_db,count=0)";

egr_nh_data_t data(std::uint32_t unit) {
  egr_nh_data_t record{0x11111111, 0x22222222, 0, 0, 0};
  std::memcpy(reinterpret_cast<std::uint8_t *>(&record) + 8, &unit, sizeof unit);
  return record;
}

class DataTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    enter(full_key()).at(kNh).on(kTunnel);
  }
};

TEST_F(DataTest, CanDelete) {
  for (const std::uint32_t count : {0u, 1u, 2u, 0xffffffffu}) {
    set_count(kNh, count);
    EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(kNh), count == 1);
    expect_journal(count == 1 ? "34" : "");
  }
  for (const std::uint32_t nh : {99u, 108u, 0u, 0xffffffffu}) {
    EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(nh), 0);
    expect_journal("32", {{"nh", nh}});
  }
  EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(106), 0);
  expect_journal(std::string("33(count=0) ") + kNotValid, {{"nh", 106}});
  expect_database();
}

TEST_F(DataTest, UpdateWritesItsFourFieldsAndNothingElse) {
  nh_slot(kNh).spare = 3;  // bits that nothing may touch
  EXPECT_EQ(vrl_update_egr_nh_data_in_encap_db(kNh, data(0xffffffff)), 0);
  expect_journal("70(seed=0x11111111,prot=1,fid=4095,fnh=0x22222222)");
  expect_nh(kNh).bytes("01000000 cdab0100 f0f0a101 11111111 23010080 22222222 0700ffff");
  EXPECT_EQ(vrl_update_egr_nh_data_in_encap_db(kNh, data(0xffffe555)), 0);
  expect_journal("70(seed=0x11111111,prot=0,fid=0x555,fnh=0x22222222)");
  expect_nh(kNh).bytes("01000000 cdab0100 f0f0a101 11111111 23010080 22222222 070055e5");
  nh_slot(kNh).spare = 0;
  model.update(kNh, data(0x555));
  expect_database();
}

TEST_F(DataTest, UpdateRefuses) {
  for (const std::uint32_t nh : {99u, 108u, 0u, 0xffffffffu}) {
    EXPECT_EQ(vrl_update_egr_nh_data_in_encap_db(nh, data(0)), 22);
    expect_journal("69", {{"nh", nh}});
  }
  nh_slot(106).ref_count = 4;
  EXPECT_EQ(vrl_update_egr_nh_data_in_encap_db(106, data(0)), 22);
  expect_journal("71(count=4) NH_NOTVALID_ERROR(vrl_update_egr_nh_data_in_encap_db,count=4)", {{"nh", 106}});
  model.nh(106).count = 4;
  expect_database();
}

// Reads into records of all ones or all zeros; true when they came back as the model says.
bool read_as_modelled(DbTest &db, std::uint32_t nh, int expected_status, int fill) {
  egress_encap_aux_data_t aux, expected_aux;
  egress_encap_key_t key, expected_key;
  for (auto *record : {&aux, &expected_aux}) {
    std::memset(record, fill, sizeof *record);
  }
  for (auto *record : {&key, &expected_key}) {
    std::memset(record, fill, sizeof *record);
  }
  EXPECT_EQ(vrl_get_encap_key_and_aux_data_from_nh(nh, &aux, &key), expected_status);
  if (expected_status != 11) {
    db.model.read(nh, expected_aux, expected_key);
  }
  return std::memcmp(&aux, &expected_aux, sizeof aux) == 0 && std::memcmp(&key, &expected_key, sizeof key) == 0;
}

TEST_F(DataTest, ReadBack) {
  const auto there = [](DbTest &db) { db.enter(full_key()).at(kNh).on(kTunnel); };
  run(*this, {"read",
              there,
              [](DbTest &) {
                egress_encap_aux_data_t aux{};
                egress_encap_key_t key{};
                return vrl_get_encap_key_and_aux_data_from_nh(kNh, &aux, &key);
              },
              "trylock=0 25 unlock=0",
              nullptr,
              {},
              {{"trylock1=11", "73(rc=11)", 11}, {"unlock1=1", "75(rc=1)", 1}}});
  for (const int fill : {0, 0xff, 0xA5}) {  // the fields come back, spare bits stay
    EXPECT_TRUE(read_as_modelled(*this, kNh, 0, fill)) << fill;
    faults().order("unlock1=1");
    EXPECT_TRUE(read_as_modelled(*this, kNh, 1, fill)) << fill;
    faults().order("trylock1=11");
    EXPECT_TRUE(read_as_modelled(*this, kNh, 11, fill)) << fill;
    faults().clear();
    EXPECT_TRUE(read_as_modelled(*this, 106, 22, fill)) << fill;
    EXPECT_TRUE(read_as_modelled(*this, 108, 22, fill)) << fill;
  }
}

TEST_F(DataTest, ReadRefuses) {
  egress_encap_aux_data_t aux{};
  egress_encap_key_t key{};
  for (const std::uint32_t nh : {99u, 108u, 0u, 0xffffffffu}) {
    EXPECT_EQ(vrl_get_encap_key_and_aux_data_from_nh(nh, &aux, &key), 22);
    expect_journal("72", {{"nh", nh}});
  }
  for (const int unlock : {0, 1}) {  // the unlock's result is not examined
    faults().order(unlock ? "unlock1=1" : "");
    EXPECT_EQ(vrl_get_encap_key_and_aux_data_from_nh(106, &aux, &key), 22);
    expect_journal("trylock=0 24 74 unlock=" + std::to_string(unlock), {{"nh", 106}});
  }
}

TEST_F(DataTest, ReadOfTheNullTunnelTakesItsLabelsFromTheNullSlot) {
  enter(label(17).over(300, 400).out_of(0x40)).at(106).on(kNull);
  enter(label(18).over(500, 600).out_of(0x41)).at(107).on(kNull);  // the shared slot now holds these labels
  EXPECT_TRUE(read_as_modelled(*this, 106, 0, 0));
  journal().take();
  egress_encap_aux_data_t aux{};
  egress_encap_key_t key{};
  EXPECT_EQ(vrl_get_encap_key_and_aux_data_from_nh(106, &aux, &key), 0);
  EXPECT_EQ(key.out_label2, 500u);
  expect_journal("trylock=0 25 unlock=0", {{"nh", 106},
                                           {"tun", 0},
                                           {"slot", kNullSlot},
                                           {"l1", 17},
                                           {"l2", 500},
                                           {"l3", 600},
                                           {"te", 0},
                                           {"fo", 0},
                                           {"l2vpn", 0},
                                           {"proto", 0},
                                           {"ifh", 0x40}});
}

}  // namespace
}  // namespace encap_test
