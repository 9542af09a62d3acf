// Keeps the client's references in step with what the routes need: one reference for each path of each route.
#ifndef VRELLIS_ENCAPD_HOLDER_H
#define VRELLIS_ENCAPD_HOLDER_H

#include <cstdint>
#include <vector>

#include "encap_client.h"
#include "fpm/netlink.h"
#include "pool.h"
#include "report.h"

namespace encapd {

// Changes of what the routes need are collected, and carried out by apply(): it enters what is missing before it
// releases what is not needed, so an encapsulation that is needed before and after never leaves the database.
//
// Invariants, outside of the calls here:
//   1. `held` of an encapsulation is the number of fresh references that the client's ledger has on it.
//   2. After apply(), held <= wanted; held < wanted only when the database refused the reference. The encapsulation is
//      in `waiting_` then.
class Holder {
 public:
  Holder(encap_client_t *client, Counters &counters, Events &events)
      : client_(client), counters_(counters), events_(events) {}

  // The number of the encapsulation of a key, which is kept as long as it is wanted or named. Apply() drops the others.
  std::uint32_t number_of(const egress_encap_key_t &key);

  // More or fewer paths need the encapsulation. `cause`: the route of which that is so.
  void want(std::uint32_t number, std::int64_t change, const RouteKey &cause);

  // More or fewer nexthop objects name the encapsulation.
  void name(std::uint32_t number, int change);

  // Carries the changes out.
  void apply();

  // Tries again for those that wait, a part of them at a time.
  void retry();

  // The routes are forgotten, and everything that the client holds is stale until it is entered again.
  void begin_refresh();

  // Releases what is still stale.
  void end_refresh();

  // Gives up everything and the client's name. Nothing may be called after it.
  void leave();

  bool is_settled() const { return settled_; }
  std::uint32_t encapsulations() const { return by_key_.size(); }
  std::uint64_t wanted() const { return wanted_; }
  std::uint64_t held() const { return held_; }

 private:
  struct Encapsulation {
    egress_encap_key_t key;
    std::uint32_t nh;       // its index, while held
    std::uint32_t wanted;   // paths of routes
    std::uint32_t held;     // fresh references
    std::uint32_t named;    // paths of nexthop objects
    std::uint32_t refused;  // references that were refused and counted
    RouteKey cause;
    bool is_changed;  // in changed_
    bool waits;       // in waiting_
    bool is_old;      // was held before the last begin_refresh(): its cause is kept until end_refresh()
  };
  struct Departure;

  std::uint32_t find(const egress_encap_key_t &key) const;  // kNone: not known
  void mark(std::uint32_t number);
  bool enter(Encapsulation &encapsulation);    // false: refused
  bool release(Encapsulation &encapsulation);  // false: the database did not do it
  void refuse(Encapsulation &encapsulation, int status);
  void try_waiting(std::size_t most);
  void finish(std::uint32_t number);
  std::uint64_t hash_of(std::uint32_t number) const { return hash_words(&pool_[number].key, 5); }
  void sweep(int (*call)(encap_client_t *, void (*)(const encap_left_t *, void *), void *));

  encap_client_t *client_;
  Counters &counters_;
  Events &events_;
  Pool<Encapsulation> pool_;
  Index by_key_;
  std::vector<std::uint32_t> changed_;
  std::vector<std::uint32_t> waiting_;
  std::uint64_t wanted_ = 0;
  std::uint64_t held_ = 0;
  std::uint32_t told_ = 0;  // bits: reasons of which a message was written since the last one was over
  bool settled_ = true;
  bool room_came_ = false;  // an NH has left since apply() began
};

}  // namespace encapd

#endif
