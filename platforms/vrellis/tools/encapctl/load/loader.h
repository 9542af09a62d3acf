// Enters the next hops of a listing into this process's database.
#ifndef ENCAPCTL_LOADER_H
#define ENCAPCTL_LOADER_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "encap_client.h"
#include "mpls_egress_encap_db.h"
#include "route_file.h"

namespace encapctl {

// What became of the next hops.
struct Loaded {
  std::uint64_t next_hops = 0;
  std::uint64_t new_nhs = 0;
  std::uint64_t shared = 0;
  std::uint64_t new_tunnels = 0;
  std::uint64_t refused = 0;
  std::uint64_t renewed = 0;                      // of a client: references that it had before
  std::uint64_t given_back = 0;                   // of a client: references that the listing no longer names
  std::map<std::string, std::uint64_t> refusals;  // how many, by their reason
};

// Gives out free indexes, the lowest first, each search going on where the last one ended. Requires the lock.
template <typename Slot>
class FreeIndexes {
 public:
  FreeIndexes(const Slot *slots, std::uint32_t start, std::uint32_t end, std::uint32_t first)
      : slots_(slots), start_(start), end_(end), next_(first) {}

  std::optional<std::uint32_t> take() {
    for (; next_ < end_; ++next_) {
      if (slots_[next_ - start_].valid == 0) {
        return next_++;
      }
    }
    return std::nullopt;
  }

 private:
  const Slot *slots_;
  std::uint32_t start_;
  std::uint32_t end_;
  std::uint32_t next_;
};

// Enters the next hops as a client, whose references they renew; what none names is given back. Throws Failure.
Loaded load_as(encap_client_t *client, const std::vector<route_file::Hop> &hops);

class Loader {
 public:
  // Requires an open database. Finds and shares the next hop's NH, or enters a new one at a free index, in one hold of
  // the lock. Throws Failure when the lock cannot be taken.
  void enter(const route_file::Hop &hop);

  const Loaded &loaded() const { return loaded_; }

 private:
  std::string insert(const route_file::Hop &hop, const egress_encap_key_t &key, egress_encap_info_t &info);

  const egress_encap_db_t &db_ = *egress_encap_db;
  FreeIndexes<egr_nh_info_t> nhs_{db_.nh_info_array, db_.nh_start, db_.nh_end, db_.nh_start};
  // Index 0 is the null tunnel's, also where the range begins with it.
  FreeIndexes<egr_tun_info_t> tunnels_{db_.tun_info_array, db_.tun_start, db_.tun_end,
                                       db_.tun_start == 0 ? 1 : db_.tun_start};
  Loaded loaded_;
};

}  // namespace encapctl

#endif
