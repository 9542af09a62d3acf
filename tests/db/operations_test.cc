// Every operation in every state of the database that it tells apart, on every road: with each of its calls failing.
#include "doubles/fixture.h"

namespace encap_test {
namespace {

constexpr std::uint32_t kNh = DbTest::kNh, kTunnel = DbTest::kTunnel, kKept = 0xEEEEEEEE;

// ------------------------------------------------------------------------------------------------------------- states

const Key kOther = full_key().raw(0, 0x100000);  // another NH of the same tunnel

void encap_is_there(DbTest &db) {
  EXPECT_EQ(db.enter(full_key(), kNh, kTunnel), 0);
}
void tunnel_is_there(DbTest &db) {
  EXPECT_EQ(db.enter(kOther, 100, kTunnel), 0);
}
void two_nhs(DbTest &db) {
  encap_is_there(db);
  tunnel_is_there(db);
}
void three_users(DbTest &db) {
  encap_is_there(db);
  db.set_count(kNh, 3);
}
void no_users(DbTest &db) {
  encap_is_there(db);
  db.set_count(kNh, 0);
}
void on_null_tunnel(DbTest &db) {
  EXPECT_EQ(db.enter(full_key(), kNh, DbTest::kNull), 0);
}
void two_null_tunnels(DbTest &db) {
  on_null_tunnel(db);
  EXPECT_EQ(db.enter(full_key().out_of(0x40), 106, DbTest::kNull), 0);
}
void two_nhs_on_null_tunnel(DbTest &db) {
  on_null_tunnel(db);
  EXPECT_EQ(db.enter(kOther, 100, DbTest::kNull), 0);
}
void tunnel_uncounted(DbTest &db) {
  encap_is_there(db);
  db.tunnel_slot(kTunnel).ref_count = db.model.tunnel(kTunnel).count = 0;
}
void tunnel_slot_not_valid(DbTest &db) {
  encap_is_there(db);
  db.tunnel_slot(kTunnel).valid = 0;
  db.model.tunnel(kTunnel).valid = 0;
}
void slot_not_valid(DbTest &db) {
  encap_is_there(db);
  db.nh_slot(kNh).valid = 0;
  db.model.nh(kNh).valid = 0;
}
void counted_to_the_end(DbTest &db) {
  encap_is_there(db);
  db.set_count(kNh, 0xffffffff);
  db.tunnel_slot(kTunnel).ref_count = db.model.tunnel(kTunnel).count = 0xffffffff;
}
// The NH's node is missing, and its tunnel's tree is empty.
void node_is_missing(DbTest &db) {
  encap_is_there(db);
  auto *tunnel = static_cast<mpls_tunnel_entry_t *>(db.db().tun_root);
  arena().give(tunnel->nh_root);
  tunnel->nh_root = nullptr;
  db.model.tunnels.begin()->second.nhs.clear();
}
// The read-back zeroes its key, so an NH entered under spare bits is not found again, or its tunnel.
void entered_under_spare_bits(DbTest &db) {
  EXPECT_EQ(db.enter(full_key().raw(0, 1u << 31), kNh, kTunnel), 0);
}
void tunnel_under_spare_bits(DbTest &db) {
  EXPECT_EQ(db.enter(full_key().raw(2, 1u << 31), kNh, kTunnel), 0);
}

// Another process takes the valid bit away in the middle of the operation: when that point is passed.
template <std::uint32_t Point>
void loses_its_slot(DbTest &db) {
  at_point()[Point] = [&db] { db.nh_slot(kNh).valid = 0; };
  db.story.at_point[Point] = [&db] { db.model.nh(kNh).valid = 0; };
}
void loses_its_tunnel_slot(DbTest &db) {
  at_point()[18] = [&db] { db.tunnel_slot(kTunnel).valid = 0; };
  db.story.at_point[18] = [&db] { db.model.tunnel(kTunnel).valid = 0; };
}
template <void (*State)(DbTest &), void (*Loss)(DbTest &)>
void then(DbTest &db) {
  State(db);
  Loss(db);
}

// --------------------------------------------------------------------------------------------------------- operations

Operation look(Verb verb) {
  return entry(verb, record(kKept, kKept, true, true));
}
Operation insert(std::uint32_t nh, std::uint32_t tunnel, bool tunnel_found = false, bool nh_found = false) {
  return entry(Verb::kInsert, record(nh, tunnel, tunnel_found, nh_found));
}
Operation attach(std::uint32_t count, bool found = false, std::uint32_t nh = kNh) {
  return entry(Verb::kAttach, record(nh, kTunnel, found, found), full_key(), count);
}
Operation on(Verb verb, std::uint32_t nh = kNh, std::uint32_t count = 9) {
  return crash::on_nh(verb, nh, count);
}

const Scenario kInserts[] = {
    {"new tunnel", nullptr, insert(kNh, kTunnel)},
    {"known tunnel", tunnel_is_there, insert(kNh, kTunnel, true)},
    {"attach", nullptr, attach(5)},
    {"NH said to be found without its tunnel", nullptr, insert(kNh, kTunnel, false, true)},
    {"known tunnel that is not there", nullptr, insert(kNh, kTunnel, true)},
    {"null tunnel", nullptr, insert(kNh, DbTest::kNull)},
    {"all is there", encap_is_there, insert(kNh, kTunnel, true, true)},
    {"all is there, indexes of no matter", nullptr, insert(99, 999, true, true)},
    {"second tunnel of a key", encap_is_there, insert(106, 8)},
    {"second NH of a key", encap_is_there, insert(106, kTunnel, true)},
    {"tunnel slot of the record, not of the entry", tunnel_is_there, insert(kNh, 8, true)},
    {"slot lost, new tunnel", loses_its_slot<22>, insert(kNh, kTunnel)},
    {"slot lost, known tunnel", then<tunnel_is_there, loses_its_slot<22>>, insert(kNh, kTunnel, true)},
    {"tunnel slot lost, new tunnel", loses_its_tunnel_slot, insert(kNh, kTunnel)},
    {"tunnel slot lost, known tunnel", then<tunnel_is_there, loses_its_tunnel_slot>, insert(kNh, kTunnel, true)},
    {"tunnel counted once too often", counted_to_the_end, entry(Verb::kInsert, record(106, kTunnel, true), kOther)},
    {"attach what is there", encap_is_there, attach(0, true)},
    {"attach what is said to be there", nullptr, attach(5, true)},
    {"attach an index out of range", nullptr, attach(5, false, 108)},
};

// For every other operation.
const std::pair<const char *, void (*)(DbTest &)> kStates[] = {
    {"the only NH of a tunnel", encap_is_there},
    {"one NH of two", two_nhs},
    {"another NH on the tunnel", tunnel_is_there},
    {"three users", three_users},
    {"no users", no_users},
    {"counts at their end", counted_to_the_end},
    {"null tunnel", on_null_tunnel},
    {"an entry of the null tunnel", two_null_tunnels},
    {"one NH of two on the null tunnel", two_nhs_on_null_tunnel},
    {"tunnel that counts nothing", tunnel_uncounted},
    {"tunnel not valid", tunnel_slot_not_valid},
    {"slot not valid", slot_not_valid},
    {"empty database", nullptr},
    {"slot lost after its read-back", then<encap_is_there, loses_its_slot<25>>},
    {"node missing in an empty tree", node_is_missing},
    {"node not found", entered_under_spare_bits},
    {"tunnel not found", tunnel_under_spare_bits},
};
constexpr Verb kOnIndexes[] = {Verb::kShare,     Verb::kSet,    Verb::kDetach, Verb::kRelease,
                               Verb::kCanDelete, Verb::kUpdate, Verb::kRead};

using OperationsTest = DbTest;

TEST_F(OperationsTest, EachInEveryStateOnEveryRoad) {
  for (const Scenario &scenario : kInserts) {
    walk(*this, scenario);
  }
  for (const auto &[name, given] : kStates) {
    walk(*this, {name, given, look(Verb::kFind)});
    walk(*this, {name, given, look(Verb::kFindShare)});
    for (const Verb verb : kOnIndexes) {
      walk(*this, {name, given, on(verb)});
    }
  }
  EXPECT_EQ(failures_not_walked(), "");
  EXPECT_EQ(hash_of_journals(), 615053415993163234u)
      << "what the operations tell and call has changed, in the model as well";
}

TEST_F(OperationsTest, IndexesOutOfRange) {
  tunnel_is_there(*this);
  for (const std::uint32_t nh : {99u, 108u, 0u, 0xffffffffu}) {
    for (const Verb verb : kOnIndexes) {
      EXPECT_EQ(make(on(verb, nh)).status, verb == Verb::kCanDelete ? 0 : 22);
    }
  }
  for (const bool known : {false, true}) {
    for (const std::uint32_t tunnel : {4u, 9u, 65536u + kTunnel, 0xffffffffu}) {
      EXPECT_EQ(make(insert(kNh, tunnel, known)).status, 22);
      EXPECT_EQ(make(insert(108, tunnel, known)).status, 22) << "the order of the two checks differs";
    }
    EXPECT_EQ(make(insert(99, kTunnel, known)).status, 22);
  }
}

TEST_F(OperationsTest, BordersOfTheRangesAreIn) {
  EXPECT_EQ(enter(full_key(), 100, 5), 0);
  EXPECT_EQ(enter(full_key().out_of(0x40), 107, 8), 0);
}

TEST_F(OperationsTest, NullRecords) {
  EXPECT_EQ(vrl_insert_egress_encap(nullptr, full_key()), 22);
  expect_journal("");
  EXPECT_EQ(vrl_egress_encap_nh_insert_attach(nullptr, 5, full_key()), 22);
  expect_journal("81");
  expect_database();
}

}  // namespace
}  // namespace encap_test
