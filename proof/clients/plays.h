// Plays the next process in the states that a death in a client's call leaves.
#ifndef ENCAP_PROOF_CLIENTS_PLAYS_H
#define ENCAP_PROOF_CLIENTS_PLAYS_H

#include <algorithm>

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

// The next call of any client. After a death in that call another name has to come, since this process lives.
int next_call(const Stage &stage, const char *name = "next");
Picture drawn_for(const Stage &stage);

template <typename Thing>
bool is_one_of(const std::vector<Thing> &things, const Thing &thing) {
  return std::find(things.begin(), things.end(), thing) != things.end();
}

// Calls wrong_in(state) for each state until it returns what is wrong there, and prints that beside `what`. Returns:
// true if nothing is wrong.
bool play(const Stage &stage, const crash::States &states, const std::string &what,
          const std::function<std::string(const crash::Image &)> &wrong_in);

// The next client finds one of the steps. Out: *seconds, if wanted, the states that a death in its recovery leaves.
bool play_clients(const Steps &steps, const crash::States &states, crash::States *seconds);

// A process without a client works before the next client comes: what it completes has its whole effect, and no other.
// If the only reference on an NH is its own, giving that back may leave what the check names and a repair mends.
bool play_others(const Steps &steps, const crash::States &states);

// A writer is stopped in each state: looks at all keys and NHs without the lock answer together as in one of the steps.
bool play_looks(const Steps &steps, const crash::States &states);

}  // namespace client_proof

#endif
