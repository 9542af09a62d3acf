#include "load/loader.h"

#include <fmt/format.h>

#include <cstring>

#include "load/as_client.h"
#include "output/failure.h"
#include "output/progress.h"

namespace encapctl {
namespace {

// The database lock, held over several operations: no other process enters the same key or takes the index meanwhile.
class LockHold {
 public:
  LockHold() : status_(vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex)) {
    if (status_ != 0) {
      throw Failure(fmt::format("the database's lock cannot be taken: {}", std::strerror(status_)));
    }
  }
  ~LockHold() { pthread_mutex_unlock(&egress_encap_db->lock.mutex); }
  LockHold(const LockHold &) = delete;
  LockHold &operator=(const LockHold &) = delete;

 private:
  int status_;
};

}  // namespace

Loaded load_as(encap_client_t *client, const std::vector<route_file::Hop> &hops) {
  Loaded loaded;
  require_ok(encap_client_refresh_begin(client), "the refresh cannot begin");
  Progress progress("entering routes", hops.size());
  for (const route_file::Hop &hop : hops) {
    ++loaded.next_hops;
    encap_entry_t entry{};
    const int status = encap_client_enter(client, route_file::key_of(hop), nullptr, &entry);
    if (status != 0) {
      ++loaded.refused;
      ++loaded.refusals[fmt::format("the database answered {} ({})", status, std::strerror(status))];
    } else {
      loaded.renewed += entry.renewed;
      loaded.new_nhs += entry.nh_created;
      loaded.new_tunnels += entry.tunnel_created;
      loaded.shared += entry.renewed == 0 && entry.nh_created == 0 ? 1 : 0;
    }
    progress.advance();
  }
  Swept swept;
  require_ok(encap_client_refresh_end(client, Swept::add, &swept), "stale references cannot be given back");
  loaded.given_back = swept.references;
  return loaded;
}

void Loader::enter(const route_file::Hop &hop) {
  const LockHold hold;
  ++loaded_.next_hops;
  const egress_encap_key_t key = route_file::key_of(hop);
  egress_encap_info_t info{};
  const int found = vrl_find_and_share_egress_encap(&info, key);
  if (found == 0 && info.nh_found != 0) {
    ++loaded_.shared;
    return;
  }
  const std::string reason = found == 0 ? insert(hop, key, info) : fmt::format("the search answered {}", found);
  if (!reason.empty()) {
    ++loaded_.refused;
    ++loaded_.refusals[reason];
  }
}

// Returns: an empty text, or why the next hop was not entered.
std::string Loader::insert(const route_file::Hop &hop, const egress_encap_key_t &key, egress_encap_info_t &info) {
  const bool new_tunnel = info.tun_found == 0;
  const bool needs_index = new_tunnel && !route_file::on_null_tunnel(hop);
  const std::optional<std::uint32_t> tunnel = needs_index ? tunnels_.take() : std::optional<std::uint32_t>(0);
  if (!tunnel) {
    return fmt::format("no tunnel index from {} to {} is free", db_.tun_start, std::int64_t{db_.tun_end} - 1);
  }
  // The NH index comes after the tunnel's: without one nothing more is entered, so that no tunnel index is lost.
  const std::optional<std::uint32_t> nh = nhs_.take();
  if (!nh) {
    return fmt::format("no NH index from {} to {} is free", db_.nh_start, std::int64_t{db_.nh_end} - 1);
  }
  info.egr_nh = *nh;
  info.egr_tun = new_tunnel ? *tunnel : info.egr_tun;
  const int status = vrl_insert_egress_encap(&info, key);
  if (status != 0) {
    return fmt::format("the insert answered {}: the window is full, or damaged (see encapctl check)", status);
  }
  ++loaded_.new_nhs;
  loaded_.new_tunnels += new_tunnel ? 1 : 0;
  return {};
}

}  // namespace encapctl
