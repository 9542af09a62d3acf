// What a process that goes on after a death may call before any repair: each trial is one such caller's calls.
#ifndef ENCAP_PROOF_CRASH_TRIALS_H
#define ENCAP_PROOF_CRASH_TRIALS_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "crash/aftermath.h"

namespace crash {

// In all texts K is the key of the interrupted operation, N its NH index and T its tunnel index.
// name, text
#define CRASH_DEATH_STATES(X)                                                              \
  X(kWhole, "the operation has not begun, or is complete")                                 \
  X(kTunnelWithoutIndex, "tunnel node linked, index not yet filled")                       \
  X(kTunnelSlotEmpty, "tunnel node linked, slot not valid")                                \
  X(kTunnelSlotInPart, "tunnel slot valid, labels not yet filled")                         \
  X(kTunnelWithoutNh, "tunnel without NHs")                                                \
  X(kNhWithoutIndex, "NH node linked, index not yet filled")                               \
  X(kNhSlotEmpty, "NH node linked, slot not valid")                                        \
  X(kNhSlotInPart, "NH slot valid, not all fields written")                                \
  X(kNothingCounted, "NH node and slot agree, count 0, tunnel counts one too few")         \
  X(kTunnelNotCounted, "NH node and slot agree, NH is counted, tunnel counts one too few") \
  X(kNhCountZero, "NH node and slot agree, count 0")                                       \
  X(kNhGone, "NH node gone, slot still valid")                                             \
  X(kTunnelGone, "tunnel node gone, slot still valid")

enum class DeathState : std::uint8_t {
#define CRASH_DEATH_STATE(name, text) name,
  CRASH_DEATH_STATES(CRASH_DEATH_STATE)
#undef CRASH_DEATH_STATE
};
const char *text_of(DeathState state);

// The rows of the page's table, as "state | call | answer".
const std::set<std::string> &answer_rows();

// Compilers write the fields of a record in an order of their own: not every build passes through these states.
bool rests_on_the_compiler(const std::string &row);

// What a death left of the interrupted operation, read from the trees and slots once the services have recovered.
struct Facts {
  DeathState state = DeathState::kWhole;
  bool nh_seems_free = false;      // to a caller that looks at slots, or to one that looks at nodes
  bool tunnel_seems_free = false;  // the same of the tunnel's index
};
Facts facts_of(const Expectation &expected);

struct Call {
  std::string name;
  Operation operation;
  Answer is;
};

// A caller that keeps the rules. It knows nothing of the death.
class Survivor {
 public:
  Survivor(const Expectation &of, const Facts &left) : expected(of), facts(left) {}

  Answer call(std::string name, const Operation &operation);
  Answer find(const std::string &name, const egress_encap_key_t &key, Verb verb = Verb::kFind);
  Answer on_nh(Verb verb, const std::string &name, std::uint32_t nh, std::uint32_t count = 0);

  const Operation &interrupted() const { return expected.interrupted().front(); }

  const Expectation &expected;
  const Facts facts;
  std::vector<Call> calls;
  std::vector<Operation> entered;  // and not given back
};

using Trial = std::function<void(Survivor &)>;  // makes no call if this caller would not call here
const std::vector<Trial> &trials();

// The keys that trials enter beside the interrupted one.
std::vector<egress_encap_key_t> keys_of_trials(const Expectation &expected);

}  // namespace crash

#endif
