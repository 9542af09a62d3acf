// What the process that comes after a death does, and what must hold when it has done it.
#ifndef ENCAP_PROOF_CRASH_AFTERMATH_H
#define ENCAP_PROOF_CRASH_AFTERMATH_H

#include <set>

#include "check/check.h"
#include "repair/repair.h"
#include "scenarios.h"
#include "support/window.h"
#include "support/write_watch.h"

namespace crash {

// What the interrupted operation may have changed, from the models before and after it.
class Expectation {
 public:
  Expectation(const Scenario &scenario, encap_test::Model before);

  bool touches_nh(std::uint32_t nh) const { return nhs_.contains(nh); }
  bool touches_tunnel(std::uint32_t tunnel) const { return tunnels_.contains(tunnel); }
  std::uint32_t tunnel() const { return *tunnels_.begin(); }  // of the interrupted operation's NH

  // Each NH that the operation leaves alone, by its full key.
  const std::vector<std::pair<egress_encap_key_t, std::uint32_t>> &untouched() const { return untouched_; }

  // Compares the database after a repair with the models. Returns "" or what is wrong.
  std::string difference(const egress_encap_db_t &header) const;

  const encap_test::Model &before() const { return before_; }
  const encap_test::Model &after() const { return after_; }
  const std::vector<Operation> &interrupted() const {
    return interrupted_;
  }  // with its key, also where the call takes an index

 private:
  encap_test::Model before_, after_;
  std::vector<Operation> interrupted_;
  std::set<std::uint32_t> nhs_, tunnels_;
  std::vector<std::pair<egress_encap_key_t, std::uint32_t>> untouched_;
};

/*
 * The next process on the window as it lies there: takes the lock, lets the services recover, finds what was in the
 * database; checks, repairs, checks again; goes on with operations beside a model.
 * `deaths`: how many processes died on the way here. `log` (may be nullptr): receives each change up to the repair's.
 * Returns: "" or what is wrong.
 */
std::string aftermath(const Window &window, const Expectation &expected, unsigned deaths, ChangeLog *log);

// The allocator has refused none. Returns "" or what is wrong.
std::string bad_releases();

}  // namespace crash

#endif
