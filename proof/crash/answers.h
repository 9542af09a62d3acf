// What operations answer between a death and its repair, where that differs from the answers before and after the
// interrupted operation. This is the one table: crash_steps accepts no other answer, and docs/crash-promise.md shows
// it.
#ifndef ENCAP_PROOF_CRASH_ANSWERS_H
#define ENCAP_PROOF_CRASH_ANSWERS_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

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

struct AnswerRow {
  DeathState state;
  std::string_view operation, answer;

  // Compilers write the fields of a record in an order of their own: not every build passes through these states.
  bool rests_on_the_compiler() const {
    return state == DeathState::kTunnelSlotInPart || state == DeathState::kNhSlotInPart ||
           (state == DeathState::kNhGone && operation == "read N");
  }
  bool operator==(const AnswerRow &) const = default;
};
std::span<const AnswerRow> answer_rows();
std::string text_of(const AnswerRow &row);
std::string answers_page();  // the table as the page has it

}  // namespace crash

#endif
