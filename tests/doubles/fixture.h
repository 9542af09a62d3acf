// Tests of the database library on the doubles: a fixture that speaks of encapsulations and makes each call on the
// library and on the model.
#ifndef ENCAP_TESTS_FIXTURE_H
#define ENCAP_TESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "doubles/journal.h"
#include "doubles/story.h"
#include "model/model.h"
#include "model/operations.h"

namespace encap_test {

using crash::Answer;
using crash::Operation;
using crash::Verb;

// A key, built as one says it: label(16).over(200, 300).out_of(0x1b).
struct Key : egress_encap_key_t {
  Key() : egress_encap_key_t{} {}
  Key over(std::uint32_t label2, std::uint32_t label3) const { return raw(2, label2).raw(3, label3); }
  Key out_of(std::uint32_t ifh_) const { return raw(4, ifh_); }
  Key raw(std::size_t word, std::uint32_t bits) const;  // sets bits of a word, spare ones too
};
inline Key label(std::uint32_t label1) {
  return Key().raw(0, label1);
}

// The key that most tests enter: every field set, and so that no field can stand for another.
Key full_key();

class DbTest : public ::testing::Test {
 public:
  static constexpr std::uint32_t kNhStart = 100, kNhSize = 8, kTunStart = 5, kTunSize = 4;
  static constexpr std::uint32_t kNh = 105, kTunnel = 7;
  static constexpr std::uint32_t kNull = 0;

  void SetUp() override { open(); }
  void TearDown() override;

  // An empty database, points as `reports` says, journal empty, nothing ordered.
  void open(std::uint32_t nh_start = kNhStart, std::uint32_t nh_size = kNhSize, std::uint32_t tun_start = kTunStart,
            std::uint32_t tun_size = kTunSize);

  // Fails the calls that follow as ordered, in the library and in the model.
  void order(const std::string &text);
  // Makes the call in the library and in the model: answer, journal and database must be the same.
  Answer make(const Operation &operation);

  // Finds, then inserts what is missing. Returns the insert's status.
  int enter(const Key &key, std::uint32_t nh, std::uint32_t tunnel);
  void set_count(std::uint32_t nh, std::uint32_t count) { make(crash::on_nh(Verb::kSet, nh, count)); }

  // Every view of the database agrees with the model, nothing outside its blocks was written, no block was lost.
  void expect_database();
  // What the library did since the last look is exactly `stream`.
  void expect_journal(const std::string &stream);
  egr_nh_info_t &nh_slot(std::uint32_t nh) { return db().nh_info_array[nh - kNhStart]; }
  egr_tun_info_t &tunnel_slot(std::uint32_t tunnel) { return db().tun_info_array[model.tunnel_slot(tunnel)]; }
  egress_encap_db_t &db() { return *arena().header(); }

  Model model;
  Story story;  // what the model tells
  Reports reports = Reports::messages;
  Values values;      // of the names in streams
  std::string wrote;  // the journal of the last call made
};

// An in/out record with the auxiliary data of every NH that tests enter.
egress_encap_info_t record(std::uint32_t nh, std::uint32_t tunnel, bool tunnel_found = false, bool nh_found = false);

// Look-ups and inserts of full_key(), if not another.
Operation entry(Verb verb, const egress_encap_info_t &info, const Key &key = full_key(), std::uint32_t count = 0);

// A call of the library in a state of the database.
struct Scenario {
  const char *name;
  void (*given)(DbTest &);
  Operation when;
};

// Walks every road through the scenario, with each kind of reports of the points: each call that may fail fails, alone
// and together with each choice of those that follow it, and so also from then on; each road on a fresh database.
void walk(DbTest &db, const Scenario &scenario);
// Of what the calls wrote, with messages, when nothing failed.
std::uint64_t hash_of_journals();
// The ways in which a call may fail that no walk of this process has come to.
std::string failures_not_walked();

}  // namespace encap_test

#endif
