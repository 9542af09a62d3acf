#include "doubles/fixture.h"

#include <cstring>

namespace encap_test {
Key Key::raw(std::size_t word, std::uint32_t bits) const {
  Key key = *this;
  auto *at = static_cast<std::uint8_t *>(static_cast<void *>(static_cast<egress_encap_key_t *>(&key))) + 4 * word;
  std::uint32_t value;
  std::memcpy(&value, at, 4);
  value |= bits;
  std::memcpy(at, &value, 4);
  return key;
}

Key full_key() {
  return label(0x1abcd).raw(1, 0x1f0f0u | 1u << 21 | 2u << 22 | 1u << 24).over(0x12345, 0x0fedc).out_of(0x80000123);
}

egress_encap_info_t record(std::uint32_t nh, std::uint32_t tunnel, bool tunnel_found, bool nh_found) {
  egress_encap_info_t info{};
  info.egr_nh = nh;
  info.egr_tun = tunnel;
  info.seed_nh = 0xfffffff0;
  info.failover_nh = 0x87654321;
  info.failover_id = 0xabc;
  info.is_protected_te_nh = 1;
  info.tun_found = tunnel_found;
  info.nh_found = nh_found;
  info.spare = 1;
  return info;
}

Operation entry(Verb verb, const egress_encap_info_t &info, const Key &key, std::uint32_t count) {
  Operation operation;
  operation.verb = verb;
  operation.info = info;
  operation.key = key;
  operation.count = count;
  return operation;
}

void DbTest::open(std::uint32_t nh_start, std::uint32_t nh_size, std::uint32_t tun_start, std::uint32_t tun_size) {
  arena().reset();
  order("");
  at_point().clear();
  story.at_point.clear();
  db().is_initialized = 0;
  watch(&db().lock.mutex);
  set_reports(reports);
  ASSERT_EQ(mpls_egress_encap_db_init(kWindow, nh_size, tun_size, nh_start, tun_start, &db()), 0);
  model = Model(nh_start, nh_size, tun_start, tun_size);
  model.listen(&story);
  values = {{"nh", kNh}, {"count", 2}};
  journal().take();
}

void DbTest::TearDown() {
  faults().clear();
  set_reports(Reports::records);
  EXPECT_EQ(held(), 0) << "the lock is still held";
}

void DbTest::order(const std::string &text) {
  faults().order(text);
  story.orders.order(text);
}

Answer DbTest::make(const Operation &operation) {
  story.reports = reports;
  const Answer should = on_model(model, operation);
  const Answer is = on_database(operation);
  order("");
  wrote = journal().take();
  EXPECT_TRUE(is == should) << text_of(operation) << "\n  answers   " << text_of(is) << "\n  should be "
                            << text_of(should);
  EXPECT_EQ(wrote, story.take()) << text_of(operation);
  expect_database();
  return is;
}

int DbTest::enter(const Key &key, std::uint32_t nh, std::uint32_t tunnel) {
  const Answer found = make(entry(Verb::kFind, record(nh, tunnel), key));
  return make(entry(Verb::kInsert, found.info, key)).status;
}

void DbTest::expect_database() {
  EXPECT_EQ(differences(db(), model), "");
  EXPECT_TRUE(arena().gaps_intact()) << "written outside a block";
  EXPECT_EQ(db().spare, 0xA5A5A5A5u);
  EXPECT_EQ(db().spare_end, 0xA5A5A5A5u);
  EXPECT_EQ(db().is_initialized, 0u);
  std::size_t blocks = 2;  // the slot arrays
  for (const auto &[key, tunnel] : model.tunnels) {
    blocks += 1 + tunnel.nhs.size();
  }
  EXPECT_EQ(arena().blocks().size(), blocks) << "blocks in the window";
  EXPECT_EQ(held(), 0) << "the lock is still held";
}

void DbTest::expect_journal(const std::string &stream) {
  EXPECT_EQ(journal().take(), expand(stream, values, reports)) << "stream: " << stream;
}

}  // namespace encap_test
