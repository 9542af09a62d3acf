// The storage format: golden bytes of each record, as C11 and as C++ see it, and of slots that operations fill.
#include "layout_records.h"
#include "support/fixture.h"

extern "C" void layout_fill_c(layout_records_t *records);

namespace encap_test {
namespace {

template <typename Record>
std::string bytes_of(const Record &record) {
  const auto *at = static_cast<const std::uint8_t *>(static_cast<const void *>(&record));
  return hex(Bytes(at, at + sizeof record));
}

std::string zeros(std::size_t words) {
  std::string text;
  for (std::size_t i = 0; i < words; ++i) {
    text += " 00000000";
  }
  return text;
}

void expect_golden(const layout_records_t &r) {
  const std::string link = zeros(6).substr(1) + " ";
  EXPECT_EQ(bytes_of(r.nh_key), "cdab0100 0100a101");
  EXPECT_EQ(bytes_of(r.tunnel_key), "ffff1f00 00001000 23010080");
  EXPECT_EQ(bytes_of(r.key), "cdab0100 01004100 ffff1f00 00001000 23010080");
  EXPECT_EQ(bytes_of(r.info), "01000000 02000000 03000000 04000000 bc2a0000");
  EXPECT_EQ(bytes_of(r.aux), "01000000 02000000 01000000 bc0a0000 05000000");
  EXPECT_EQ(bytes_of(r.data), "01000000 02000000 bc1a0000");
  EXPECT_EQ(bytes_of(r.nh_slot), "01000000 cdab0100 01000101 02000000 03000000 04000000 3412bc2a");
  EXPECT_EQ(bytes_of(r.tunnel_slot), "01000000 ffff1f00 00001000 01000000");
  EXPECT_EQ(bytes_of(r.nh_node), link + "cdab0100 0100a101 05010000 00000000");
  EXPECT_EQ(bytes_of(r.tunnel_node), link + "ffff1f00 00001000 23010080 00000000 00000000 00000000 34120000 00000000");
  EXPECT_EQ(bytes_of(r.header), "00000000 00000000 09000000 00000000" + zeros(4) +
                                    " 01000000 02000000 03000000 04000000" + zeros(33) + " 00000005 06000000 00000000");
}

using LayoutTest = DbTest;

TEST_F(LayoutTest, RecordsInCAndInCpp) {
  layout_records_t in_c, in_cpp;
  layout_fill_c(&in_c);
  layout_fill(&in_cpp);
  EXPECT_EQ(std::memcmp(&in_c, &in_cpp, sizeof in_c), 0);
  expect_golden(in_c);
  expect_golden(in_cpp);
}

// Single fields of the slots, each alone with all its bits set.
TEST_F(LayoutTest, FieldsOfTheSlotsOneByOne) {
  struct Case {
    Key key;
    std::uint32_t tunnel;
    egr_nh_data_t data;
    const char *nh;
    const char *tunnel_slot;
  };
  const std::string tail = " 00000000 00000000 00000000 ";
  for (const Case &c : std::initializer_list<Case>{
           {label(0x1fffff),
            5,
            {},
            "01000000 ffff1f00 00000000 00000000 00000000 00000000 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key().raw(1, 0x1fffff),
            5,
            {},
            "01000000 00000000 ffff1f00 00000000 00000000 00000000 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key().raw(1, 1u << 21),
            5,
            {},
            "01000000 00000000 00002000 00000000 00000000 00000000 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key().raw(1, 3u << 22),
            5,
            {},
            "01000000 00000000 0000c000 00000000 00000000 00000000 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key().raw(1, 1u << 24),
            5,
            {},
            "01000000 00000000 00000001 00000000 00000000 00000000 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key().over(0x1fffff, 0),
            5,
            {},
            "01000000 00000000 00000000 00000000 00000000 00000000 05000020",
            "01000000 ffff1f00 00000000 01000000"},
           {Key().over(0, 0x1fffff),
            5,
            {},
            "01000000 00000000 00000000 00000000 00000000 00000000 05000020",
            "01000000 00000000 ffff1f00 01000000"},
           {Key().out_of(0xffffffff),
            8,
            {},
            "01000000 00000000 00000000 00000000 ffffffff 00000000 08000020",
            "01000000 00000000 00000000 01000000"},
           {Key().raw(0, 0x7ffu << 21).raw(1, 0x7fu << 25).raw(2, 0x7ffu << 21).raw(3, 0x7ffu << 21),
            5,
            {},
            "01000000 00000000 00000000 00000000 00000000 00000000 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key(),
            5,
            {0xffffffff, 0, 0, 0, 0},
            "01000000 00000000 00000000 ffffffff 00000000 00000000 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key(),
            5,
            {0, 0xffffffff, 0, 0, 0},
            "01000000 00000000 00000000 00000000 00000000 ffffffff 05000020",
            "01000000 00000000 00000000 01000000"},
           {Key(),
            5,
            {0, 0, 0xfff, 0, 0},
            "01000000 00000000 00000000 00000000 00000000 00000000 0500ff2f",
            "01000000 00000000 00000000 01000000"},
           {Key(),
            0,
            {0, 0, 0, 1, 0},
            "01000000 00000000 00000000 00000000 00000000 00000000 00000030",
            "01000000 00000000 00000000 01000000"}}) {
    open();
    egress_encap_info_t info{};
    info.egr_nh = kNh;
    info.egr_tun = c.tunnel;
    info.seed_nh = c.data.seed_nh;
    info.failover_nh = c.data.failover_nh;
    info.failover_id = static_cast<std::uint16_t>(c.data.failover_id & 0xfff);
    info.is_protected_te_nh = c.data.is_protected_te_nh & 1;
    EXPECT_EQ(vrl_insert_egress_encap(&info, c.key), 0);
    expect_nh(kNh).bytes(c.nh);
    expect_tunnel(c.tunnel).bytes(c.tunnel_slot);
    model.insert(info, c.key);
    expect_database();
  }
}

// Filling writes each field into its own bits: what stands in the spare ones stays, counts begin anew.
TEST_F(LayoutTest, FillingAgainKeepsSpareBits) {
  enter(full_key()).at(kNh).on(kTunnel);
  enter(label(16).out_of(1)).at(106).on(kNull);
  for (const std::uint32_t tunnel : {std::uint32_t{kTunnel}, std::uint32_t{kNull}}) {
    auto &slot = tunnel_slot(tunnel);
    std::memset(&slot, 0xff, sizeof slot);
    slot.ref_count = 3;
    std::memset(&nh_slot(kNh), 0xff, sizeof(egr_nh_info_t));
    egress_encap_info_t info = record(kNh, tunnel);
    EXPECT_EQ(vrl_insert_egress_encap(&info, label(17).over(1, 2).out_of(tunnel)), 0);
    expect_tunnel(tunnel).bytes((tunnel ? "01000000" : "04000000") + std::string(" 0100e0ff 0200e0ff ffffffff"));
    expect_nh(kNh).bytes("01000000 1100e0ff 000000fe f0ffffff 0" + std::to_string(tunnel) + "000000 21436587 0" +
                         std::to_string(tunnel) + "00bcfa");
  }
}

TEST_F(LayoutTest, NodesHoldTheirKeysAsSupplied) {
  const Key key = full_key().raw(0, 1u << 31).raw(1, 1u << 25).raw(2, 1u << 21).raw(3, 1u << 30);
  EXPECT_EQ(enter(key).at(kNh).on(kTunnel), 0);
  const auto *tunnel = static_cast<const mpls_tunnel_entry_t *>(db().tun_root);
  const auto *nh = static_cast<const mpls_nh_entry_t *>(tunnel->nh_root);
  EXPECT_EQ(bytes_of(*tunnel).substr(54, 35), "45232100 dcfe0040 23010080 00000000");
  EXPECT_EQ(bytes_of(*tunnel).substr(108), "07000000 00000000");
  EXPECT_EQ(bytes_of(*nh).substr(54), "cdab0180 f0f0a103 69000000 00000000");
}

// --------------------------------------------------------------------------------------------------------- key order

// The order that the library hands to the tree service.
TEST_F(LayoutTest, KeysAreOrderedByTheirBytes) {
  enter(full_key()).at(kNh).on(kTunnel);
  EXPECT_EQ(vrl_find_and_share_egress_nh(kNh), 0);
  journal().take();
  struct Order {
    Compare compare;
    std::size_t bytes;
    const char *null_stream;
  };
  for (const Order &order : {Order{tunnel_order(), 12, "0"}, Order{nh_order(), 8, "1"}}) {
    alignas(8) std::uint8_t a[56] = {};
    alignas(8) std::uint8_t b[56] = {};
    EXPECT_EQ(order.compare(a, b), 1);
    a[23] = 1;
    a[24 + order.bytes] = 1;  // outside the key
    EXPECT_EQ(order.compare(a, b), 1);
    for (std::size_t i = 0; i < order.bytes; ++i) {
      a[24 + i] = 0x7f;
      b[24 + i] = 0x80;
      if (i + 1 < order.bytes) {
        a[24 + i + 1] = 0xff;  // later bytes do not matter
      }
      EXPECT_EQ(order.compare(a, b), 0) << i;
      EXPECT_EQ(order.compare(b, a), 2) << i;
      b[24 + i] = a[24 + i];
      if (i + 1 < order.bytes) {
        a[24 + i + 1] = 0;
      }
    }
    expect_journal("");
    EXPECT_EQ(order.compare(nullptr, a), 1);
    EXPECT_EQ(order.compare(a, nullptr), 1);
    EXPECT_EQ(order.compare(nullptr, nullptr), 1);
    const std::string once = order.null_stream;
    expect_journal(once + " " + once + " " + once);
  }
}

}  // namespace
}  // namespace encap_test
