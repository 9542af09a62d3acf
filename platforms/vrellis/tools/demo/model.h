// What the database must hold, worked out from the routes alone with plain containers.
#ifndef ENCAP_DEMO_MODEL_H
#define ENCAP_DEMO_MODEL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

#include "plan.h"

namespace demo {

class Model {
 public:
  using Users = std::array<std::uint32_t, kWorkers>;  // of one NH, by worker

  // What leaves the hardware with a user.
  struct Gone {
    bool nh;
    bool tunnel;  // the last NH of a tunnel; of the null tunnel: of all its NHs, whatever their interfaces
    bool operator==(const Gone &) const = default;
  };

  void enter(std::uint32_t worker, const Key &key);
  Gone withdraw(std::uint32_t worker, const Key &key);

  const std::map<Key, Users> &nhs() const { return nhs_; }
  std::uint32_t references() const;
  std::uint32_t references(std::uint32_t worker) const;
  std::size_t used_by_both() const;
  std::size_t labelled_tunnels() const { return nhs_on_.size() - nhs_on_.count(kNullTunnel); }
  std::uint32_t nhs_on_null_tunnel() const;
  std::size_t tunnel_keys() const;  // with an NH under them; of the null tunnel one for each interface

 private:
  static constexpr Tunnel kNullTunnel{};
  static Tunnel counted_tunnel(const Key &key) { return on_null_tunnel(key) ? kNullTunnel : tunnel_of(key); }

  std::map<Key, Users> nhs_;
  std::map<Tunnel, std::uint32_t> nhs_on_;  // NHs by tunnel
};

}  // namespace demo

#endif
