// What the doubles of the services and of the POSIX calls share: one ordered journal of calls, the faults that a test
// orders, and the memory that the allocator double gives out.
//
// A journal entry is one word: the call, its arguments that matter, its result; "!..." at its end names what was wrong
// with the rest of the arguments, so that a stream that compares equal was right in all of them.
#ifndef ENCAP_TESTS_JOURNAL_H
#define ENCAP_TESTS_JOURNAL_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ed.h"
#include "mpls_egress_encap_db.h"

namespace encap_test {

inline constexpr std::uint32_t kWindow = 9;                 // id of the doubles' window
inline constexpr std::uint32_t kTag = 0x35;                 // trace tag that the double of ed_init() hands out
inline constexpr std::uint64_t kHandles = 0x7000000001000;  // first trace handle it hands out
inline constexpr int kNull = -1;                            // an ordered fault: no block, no node, refused

// Calls in order, as words.
class Journal {
 public:
  void add(const std::string &entry);
  std::string take();  // all entries, one a line; the journal is empty afterwards
  const std::set<std::uint32_t> &points_seen() const { return points_; }
  void saw_point(std::uint32_t id);

 private:
  std::mutex mutex_;
  std::vector<std::string> entries_;
  std::set<std::uint32_t> points_;  // over the life of the process
};
Journal &journal();

// Orders such as "trylock1=11 malloc2=NULL insert1=no": the n-th call of its kind from now has this result.
class Faults {
 public:
  void order(const std::string &text);
  void clear();
  std::optional<int> due(const std::string &kind);  // called once by each call of the kind

 private:
  std::mutex mutex_;
  std::map<std::string, int> calls_;
  std::map<std::string, int> orders_;  // "trylock1" -> 11
};
Faults &faults();

// The word of a call, with the result in the words of its kind: "malloc(9,40)=0", "search(tun_root,T:1/2/3)=hit".
std::string entry_of(const std::string &kind, const std::string &arguments, int result);

// The window of the doubles: shared with forked children, filled with 0xA5, with a gap after each block.
class Arena {
 public:
  static constexpr std::size_t kBytes = std::size_t{1} << 21;
  void reset();
  void *take(std::size_t bytes);
  bool give(void *block);  // false: no such block
  const std::map<std::uint8_t *, std::size_t> &blocks() const { return blocks_; }
  bool gaps_intact() const;           // false when a byte outside the blocks was written
  egress_encap_db_t *header() const;  // at the start of the window
  bool covers(const void *address) const;

 private:
  std::uint8_t *base_ = nullptr;
  std::size_t used_ = 0;
  std::map<std::uint8_t *, std::size_t> blocks_;
};
Arena &arena();

// The doubles of the lock's calls watch one mutex; those of the attribute calls answer while armed.
void watch(pthread_mutex_t *mutex);
void arm_attributes(bool on);
int held();  // how often the watched mutex is held through watched calls

// What the double of ed_init() was given: each call's record as it stood then.
struct Registration {
  int calls = 0;
  ed_component_t *component = nullptr;
  ed_component_t record{};
};
Registration &registration();

// The library's points by id, found by walking the exported chain; their lines as they were at the start.
struct Site {
  ed_site_t *site;
  std::uint32_t line;
};
const std::vector<Site> &sites();

// What points write: their trace records, as stored; messages as well; nothing, since they are to trace only when on.
enum class Reports { records, messages, none };
void set_reports(Reports reports);  // of every point, else in its stored state

// What runs when a trace record of a point is written: what another process does to the window at this moment.
std::map<std::uint32_t, std::function<void()>> &at_point();

// What the double of ed_slow_debugs() leaves in the enable flag.
void slow_answers(int enabled);

// Key order that the tree double was given last for trees of tunnels (12 bytes) and NHs (8 bytes).
using Compare = int (*)(const void *, const void *);
Compare tunnel_order();
Compare nh_order();

}  // namespace encap_test

#endif
