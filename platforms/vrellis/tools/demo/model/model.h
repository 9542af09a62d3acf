// What the database must hold, worked out from the routes alone with plain containers.
#ifndef ENCAP_DEMO_MODEL_H
#define ENCAP_DEMO_MODEL_H

#include <array>
#include <map>

#include "plan.h"
#include "report.h"

namespace demo {

class Model {
 public:
  using Key = std::array<std::uint32_t, 4>;           // out_label2, out_label3, ifh, out_label1
  using Users = std::array<std::uint32_t, kWorkers>;  // references of each worker on one NH

  // What leaves the hardware with a reference.
  struct Gone {
    bool nh;
    bool tunnel;  // a labelled one: the null tunnel is nothing in the hardware
  };

  static Key key_of(const egress_encap_key_t &key) { return {key.out_label2, key.out_label3, key.ifh, key.out_label1}; }

  void enter(std::uint32_t worker, const route_file::Hop &hop);
  Gone withdraw(std::uint32_t worker, const Key &key);

  // All that a worker holds goes. Returns: the NHs that leave with it.
  std::uint32_t lose(std::uint32_t worker);

  std::uint32_t held(std::uint32_t worker) const;
  const std::map<Key, Users> &nhs() const { return nhs_; }

  // Compares every NH of this process's database with its count, what each client holds, and the window's blocks.
  void compare(encap_client_t *client, Report &report) const;

 private:
  std::map<Key, Users> nhs_;
};

}  // namespace demo

#endif
