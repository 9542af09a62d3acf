// Tests of the database library on the doubles: a fixture that speaks of encapsulations, and streams of what a call
// must do.
#ifndef ENCAP_TESTS_FIXTURE_H
#define ENCAP_TESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/journal.h"
#include "support/model.h"

namespace encap_test {

using Values = std::map<std::string, std::uint32_t>;

// A key, built as one says it: label(16).over(200, 300).out_of(0x1b).
struct Key : egress_encap_key_t {
  Key() : egress_encap_key_t{} {}
  Key over(std::uint32_t label2, std::uint32_t label3) const;
  Key out_of(std::uint32_t ifh_) const;
  Key raw(std::size_t word, std::uint32_t bits) const;  // sets bits of a word, spare ones too
};
Key label(std::uint32_t label1);

// The key that most tests enter: every field set, and so that no field can stand for another.
Key full_key();

/*
 * Expands a stream into the journal it stands for. Its words:
 *   50  50(count=3)            a point with its message (when on) and trace records; values by their names
 *   NH_NOTVALID_ERROR(nh,...)  an error message: the function's name, then the values by their names
 *   $T $N                      the names of the tunnel and of the NH of full_key()
 *   anything else              itself
 * In names with a value, name=value sets it for this word alone.
 */
std::string expand(const std::string &stream, const Values &values, bool messages = true);

class DbTest : public ::testing::Test {
 public:
  static constexpr std::uint32_t kNhStart = 100, kNhSize = 8, kTunStart = 5, kTunSize = 4;
  static constexpr std::uint32_t kNh = 105, kTunnel = 7;
  static constexpr std::uint32_t kNull = 0, kNullSlot = kTunSize;

  void SetUp() override { open(); }
  void TearDown() override;

  // An empty database, messages on or off as `messages` says, journal empty.
  void open(std::uint32_t nh_start = kNhStart, std::uint32_t nh_size = kNhSize, std::uint32_t tun_start = kTunStart,
            std::uint32_t tun_size = kTunSize);

  // enter(key).at(nh).on(tunnel): finds, then inserts what is missing; in the library and in the model.
  class Entry {
   public:
    Entry(DbTest &db, const Key &key) : db_(db), key_(key) {}
    Entry &at(std::uint32_t nh) {
      nh_ = nh;
      return *this;
    }
    int on(std::uint32_t tunnel);

   private:
    DbTest &db_;
    Key key_;
    std::uint32_t nh_ = 0;
  };
  Entry enter(const Key &key) { return {*this, key}; }
  void set_count(std::uint32_t nh, std::uint32_t count);  // in both

  class SlotView {
   public:
    SlotView(Bytes bytes) : bytes_(std::move(bytes)) {}
    void bytes(const std::string &expected) const { EXPECT_EQ(hex(bytes_), expected); }
    void free() const { EXPECT_EQ(bytes_, Bytes(bytes_.size())); }
    void count(std::uint32_t expected) const;

   private:
    Bytes bytes_;
  };
  SlotView expect_nh(std::uint32_t nh);
  SlotView expect_tunnel(std::uint32_t tunnel);

  // Every view of the database agrees with the model, nothing outside its blocks was written, no block was lost.
  void expect_database();
  // What the library did since the last look is exactly `stream`.
  void expect_journal(const std::string &stream, const Values &more = {});
  egr_nh_info_t &nh_slot(std::uint32_t nh) { return db().nh_info_array[nh - kNhStart]; }
  egr_tun_info_t &tunnel_slot(std::uint32_t tunnel) { return db().tun_info_array[model.tunnel_slot(tunnel)]; }
  egress_encap_db_t &db() { return *arena().header(); }

  // An in/out record with the auxiliary data of every NH that tests enter.
  static egress_encap_info_t record(std::uint32_t nh, std::uint32_t tunnel, bool tunnel_found = false,
                                    bool nh_found = false);

  Model model;
  bool messages = true;  // off, points take their shorter road to the same trace records
  Values values;         // of the names in streams
  Outs outs;
};

// One operation: its stream when all goes well, and for each call that may fail the stream's end from there on.
struct Failure {
  const char *faults;  // the first one is where the stream turns off
  const char *tail;
  int status;
  void (*left)(DbTest &) = nullptr;  // what it does to the model; nothing when null
  Outs outs = {};
};

struct Scenario {
  const char *name;
  void (*given)(DbTest &);
  int (*when)(DbTest &);
  const char *stream;
  void (*then)(DbTest &);
  Outs outs;
  std::vector<Failure> failures;
};

// Runs the scenario, then each of its failures, on fresh databases, with messages on and off; demands a failure for
// every call that may fail.
void run(DbTest &db, const Scenario &scenario);

// The first calls of the process, made before any test: what a null header and the first initialisation did.
struct FirstCalls {
  int null_status = 0;
  egress_encap_db_t *database_after_null = nullptr;
  std::string null_journal;
  int status = 0;
  std::string journal;
};
const FirstCalls &first_calls();

}  // namespace encap_test

#endif
