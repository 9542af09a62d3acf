// The storage format: golden bytes of each record, as C11 and as C++ see it, and of slots that operations fill.
#include "doubles/fixture.h"
#include "layout_records.h"

extern "C" const layout_records_t *layout_records_of_c(void);

namespace encap_test {
namespace {

template <typename Record>
std::string hex_of(const Record &record) {
  return hex(bytes_of(record));
}

std::string zeros(std::size_t words) {
  return words == 0 ? "" : " 00000000" + zeros(words - 1);
}

void expect_golden(const layout_records_t &r) {
  const std::string link = zeros(6).substr(1) + " ";
  EXPECT_EQ(hex_of(r.nh_key), "cdab0100 0100a101");
  EXPECT_EQ(hex_of(r.tunnel_key), "ffff1f00 00001000 23010080");
  EXPECT_EQ(hex_of(r.key), "cdab0100 01004100 ffff1f00 00001000 23010080");
  EXPECT_EQ(hex_of(r.info), "01000000 02000000 03000000 04000000 bc2a0000");
  EXPECT_EQ(hex_of(r.aux), "01000000 02000000 01000000 bc0a0000 05000000");
  EXPECT_EQ(hex_of(r.data), "01000000 02000000 bc1a0000");
  EXPECT_EQ(hex_of(r.nh_slot), "01000000 cdab0100 01000101 02000000 03000000 04000000 3412bc2a");
  EXPECT_EQ(hex_of(r.tunnel_slot), "01000000 ffff1f00 00001000 01000000");
  EXPECT_EQ(hex_of(r.nh_node), link + "cdab0100 01000100 05010000 00000000");
  EXPECT_EQ(hex_of(r.tunnel_node), link + "ffff1f00 00001000 23010080 00000000 00000000 00000000 34120000 00000000");
  EXPECT_EQ(hex_of(r.header), "00000000 00000000 09000000 00000000" + zeros(4) +
                                  " 01000000 02000000 03000000 04000000" + zeros(34) + " 06000000 00000000");
}

using LayoutTest = DbTest;

TEST_F(LayoutTest, RecordsInCAndInCpp) {
  expect_golden(*layout_records_of_c());
  expect_golden(layout_records);
}

// Each bit of a key and of the auxiliary data alone: where it goes, and that it comes back, is what the model says.
TEST_F(LayoutTest, EachBitAlone) {
  egress_encap_info_t info{};
  info.egr_nh = kNh;
  info.egr_tun = kTunnel;
  const auto comes_back = [&](const Key &key) {
    open();
    EXPECT_EQ(make(entry(Verb::kInsert, info, key)).status, 0);
    make(crash::on_nh(Verb::kRead, kNh));
  };
  for (std::uint32_t bit = 0; bit < 32; ++bit) {
    for (std::size_t word = 0; word < 5; ++word) {
      comes_back(Key().raw(word, 1u << bit));
    }
    for (const std::size_t word : {2u, 3u, 4u}) {  // seed_nh, failover_nh, and the fields that share the last one
      const egress_encap_info_t before = info;
      const std::uint32_t value = word == 4 ? 1u << bit % 13 : 1u << bit;
      std::memcpy(reinterpret_cast<std::uint8_t *>(&info) + 4 * word, &value, sizeof value);
      comes_back(full_key());
      info = before;
    }
  }
}

// Filling writes each field into its own bits: what stands in the spare ones stays, counts begin anew.
TEST_F(LayoutTest, FillingAgainKeepsSpareBits) {
  enter(full_key(), kNh, kTunnel);
  enter(label(16).out_of(1), 106, kNull);
  for (const std::uint32_t tunnel : {std::uint32_t{kTunnel}, std::uint32_t{kNull}}) {
    auto &slot = tunnel_slot(tunnel);
    std::memset(&slot, 0xff, sizeof slot);
    slot.ref_count = 3;
    std::memset(&nh_slot(kNh), 0xff, sizeof(egr_nh_info_t));
    egress_encap_info_t info = record(kNh, tunnel);
    EXPECT_EQ(vrl_insert_egress_encap(&info, label(17).over(1, 2).out_of(tunnel)), 0);
    const std::string index = tunnel != 0 ? "07" : "00";
    EXPECT_EQ(hex_of(tunnel_slot(tunnel)),
              (tunnel != 0 ? "01000000" : "04000000") + std::string(" 0100e0ff 0200e0ff ffffffff"));
    EXPECT_EQ(hex_of(nh_slot(kNh)),
              "01000000 1100e0ff 000000fe f0ffffff " + index + "000000 21436587 " + index + "00bcfa");
  }
}

TEST_F(LayoutTest, UpdateWritesItsFourFieldsAndNothingElse) {
  enter(full_key(), kNh, kTunnel);
  nh_slot(kNh).spare = 3;  // bits that nothing may touch
  egr_nh_data_t data{0x11111111, 0x22222222, 0, 0, 0};
  for (const auto &[unit, last] : {std::pair{0xffffffffu, "0700ffff"}, {0xffffe555u, "070055e5"}}) {
    std::memcpy(reinterpret_cast<std::uint8_t *>(&data) + 8, &unit, sizeof unit);
    EXPECT_EQ(vrl_update_egr_nh_data_in_encap_db(kNh, data), 0);
    EXPECT_EQ(hex_of(nh_slot(kNh)), std::string("01000000 cdab0100 f0f0a101 11111111 23010080 22222222 ") + last);
  }
}

// The fields come back into records of any content, whose spare bits stay; a refusal leaves them alone.
TEST_F(LayoutTest, ReadWritesTheFieldsAlone) {
  enter(full_key(), kNh, kTunnel);
  for (const int fill : {0, 0xff, 0xA5}) {
    for (const auto &[nh, orders] :
         {std::pair{kNh, ""}, {kNh, "unlock1=1"}, {kNh, "trylock1=11"}, {106u, ""}, {108u, ""}}) {
      Answer is, should;
      for (Answer *answer : {&is, &should}) {
        std::memset(&answer->aux, fill, sizeof answer->aux);
        std::memset(&answer->key, fill, sizeof answer->key);
      }
      order(orders);
      is.status = vrl_get_encap_key_and_aux_data_from_nh(nh, &is.aux, &is.key);
      should.status = model.read(nh, should.aux, should.key);
      EXPECT_EQ(is.status, should.status) << nh << ' ' << orders;
      EXPECT_EQ(hex_of(is.aux) + hex_of(is.key), hex_of(should.aux) + hex_of(should.key)) << nh << ' ' << orders;
    }
  }
  story.take();
}

TEST_F(LayoutTest, NodesHoldTheirKeysAsSuppliedAndSlotsTheFields) {
  const Key key = full_key().raw(0, 1u << 31).raw(1, 1u << 25).raw(2, 1u << 21).raw(3, 1u << 30);
  EXPECT_EQ(enter(key, kNh, kTunnel), 0);
  const auto *tunnel = static_cast<const mpls_tunnel_entry_t *>(db().tun_root);
  const auto *nh = static_cast<const mpls_nh_entry_t *>(tunnel->nh_root);
  EXPECT_EQ(hex_of(*tunnel).substr(54, 35), "45232100 dcfe0040 23010080 00000000");
  EXPECT_EQ(hex_of(*tunnel).substr(108), "07000000 00000000");
  EXPECT_EQ(hex_of(nh_slot(kNh)), "01000000 cdab0100 f0f0a101 f0ffffff 23010080 21436587 0700bc3a");
  EXPECT_EQ(hex_of(tunnel_slot(kTunnel)), "01000000 45230100 dcfe0000 01000000");
  EXPECT_EQ(hex_of(*nh).substr(54), "cdab0180 f0f0a103 69000000 00000000");
}

// --------------------------------------------------------------------------------------------------------- key order

// The order that the library hands to the tree service.
TEST_F(LayoutTest, KeysAreOrderedByTheirBytes) {
  enter(full_key(), kNh, kTunnel);
  for (const auto &[compare, bytes, null_stream] :
       {std::tuple{tunnel_order(), 12u, "0 0 0"}, {nh_order(), 8u, "1 1 1"}}) {
    alignas(8) std::uint8_t a[56] = {}, b[56] = {};
    EXPECT_EQ(compare(a, b), 1);
    a[23] = a[24 + bytes] = 1;  // outside the key
    EXPECT_EQ(compare(a, b), 1);
    for (std::size_t at = 24 + bytes; at-- > 24;) {
      a[at] = 0x7f;
      b[at] = 0x80;
      EXPECT_EQ(compare(a, b), 0) << at;
      EXPECT_EQ(compare(b, a), 2) << at;
      a[at] = 0xff;  // for the bytes before: later ones do not matter
    }
    expect_journal("");
    EXPECT_EQ(compare(nullptr, a), 1);
    EXPECT_EQ(compare(a, nullptr), 1);
    EXPECT_EQ(compare(nullptr, nullptr), 1);
    expect_journal(null_stream);
  }
}

}  // namespace
}  // namespace encap_test
