// Every call of a client, in every shape that it can take.
#ifndef ENCAP_PROOF_CLIENTS_SCENARIOS_H
#define ENCAP_PROOF_CLIENTS_SCENARIOS_H

#include <functional>
#include <string>
#include <vector>

#include "encap_client.h"
#include "model/operations.h"

namespace client_proof {

// The clients of the driver. The call that is cut off is `a`'s.
struct Cast {
  encap_client_t *a = nullptr;
  encap_client_t *b = nullptr;
};

struct Scenario {
  std::string name;
  std::function<void(Cast &)> given;
  std::function<int(Cast &, void (*)(const encap_left_t *, void *), void *)> call;  // `gone` for calls of many steps
  int status = 0;                                                                   // what the call returns
  std::uint32_t pages = 48;                                                         // of the window
  bool cast = true;            // whether `a` and `b` are opened before `given`
  bool names = true;           // whether the names taken are compared: a reclaim takes the other's meanwhile
  std::uint32_t other_nh = 0;  // an NH on which a process without a client has one reference; 0 = none
};

inline egress_encap_key_t key(std::uint32_t label1, std::uint32_t label2 = 0, std::uint32_t ifh = 7) {
  return crash::key_of(label1, label2, ifh);
}
int open_as(const encap_db_config_t &config, const char *name, encap_client_t **client);

// Of the window that the scenario under way plays in.
extern encap_db_config_t current_config;

const std::vector<Scenario> &scenarios();

}  // namespace client_proof

#endif
