// What operations answer between a death and its repair, where that differs from the answers before and after the
// interrupted operation. The one table of them stands in docs/crash-promise.md: crash_steps accepts no other answer.
#ifndef ENCAP_PROOF_CRASH_ANSWERS_H
#define ENCAP_PROOF_CRASH_ANSWERS_H

#include <cstdint>
#include <set>
#include <string>

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

}  // namespace crash

#endif
