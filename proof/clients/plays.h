// Plays the next process in the states that a death in a client's call leaves.
#ifndef ENCAP_PROOF_CLIENTS_PLAYS_H
#define ENCAP_PROOF_CLIENTS_PLAYS_H

#include "picture.h"
#include "scenarios.h"
#include "session.h"
#include "support/stepper.h"

namespace client_proof {

// What a client remembers of the tunnel tree, which has to go back in time together with the window.
struct Memory {
  explicit Memory(const encap_client_t *client);
  void put_back_to(encap_client_t *client) const;

  clients::KnownNode top{};
  std::vector<clients::KnownNode> nodes;
};

// One scenario on a window of its own, at the moment before the call.
struct Stage {
  Stage(const crash::Directory &directory, const Scenario &what);

  void put(const crash::Image &image) const;  // for any process but that of `a`
  void put_start() const;                     // requires that `a` is not closed

  const Scenario &scenario;
  encap_db_config_t config;
  crash::Window window;
  Cast cast;
  crash::Image start;
  Memory memory_of_a, memory_of_b;
};

// What the call goes through, as the next client finds it: before it, after each of its steps, and after it.
struct Steps {
  const Stage &stage;
  std::vector<crash::Image> images;
  std::vector<Picture> pictures;
};
Steps steps_of(const Stage &stage);

// Each play all states and return false after the first one that is wrong, which they tell of.

// The next client finds one of the steps. Out: *seconds, if wanted, the states that a death in its recovery leaves.
bool play_clients(const Steps &steps, const crash::States &states, const char *which, crash::States *seconds);

// A writer is stopped in each state: looks at all keys and NHs without the lock answer together as in one of the steps.
// Requires a cast. Out: *looks, how many.
bool play_looks(const Steps &steps, const crash::States &states, std::uint64_t *looks);

// A process without a client works before the next client comes: what it completes has its whole effect, and no other.
// Out: *works, how often.
bool play_others(const Steps &steps, const crash::States &states, std::uint64_t *works);

// It gives its only reference back: that has its whole effect, or leaves what the check names and a repair mends.
// Requires a scenario with such a reference. Out: works[0], how often the one, works[1], how often the other.
bool play_last_reference(const Steps &steps, const crash::States &states, std::uint64_t *works);

}  // namespace client_proof

#endif
