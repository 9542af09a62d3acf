#include "answers.h"

namespace crash {
namespace {

using enum DeathState;
constexpr AnswerRow kRows[] = {
    {kTunnelWithoutIndex, "find K", "no NH on tunnel 0"},
    {kTunnelWithoutIndex, "find K after the repair", "N on another tunnel"},
    {kTunnelWithoutIndex, "find K after the repair", "another NH on another tunnel"},
    {kTunnelWithoutIndex, "find K after the repair", "no NH on another tunnel"},
    {kTunnelWithoutIndex, "find K beside the new NH", "no NH on tunnel 0"},
    {kTunnelWithoutIndex, "find and share K", "no NH on tunnel 0"},
    {kTunnelWithoutIndex, "find another label on T", "no NH on tunnel 0"},
    {kTunnelWithoutIndex, "find the NH given back", "N on tunnel 0"},
    {kTunnelWithoutIndex, "find the NH given back", "another NH on tunnel 0"},
    {kTunnelWithoutIndex, "find the new NH", "N on tunnel 0"},
    {kTunnelWithoutIndex, "find the new NH", "another NH on tunnel 0"},
    {kTunnelWithoutIndex, "find the new NH after the repair", "N on another tunnel"},
    {kTunnelWithoutIndex, "find the new NH after the repair", "another NH on another tunnel"},
    {kTunnelWithoutIndex, "read the new NH", "wrong labels on tunnel 0"},
    {kTunnelWithoutIndex, "read the new NH after the repair", "K's labels on another tunnel"},
    {kTunnelWithoutIndex, "read the new NH after the repair", "its labels on another tunnel"},
    {kTunnelSlotEmpty, "find K after the repair", "another NH on T"},
    {kTunnelSlotEmpty, "find K beside the new NH", "no NH on T"},
    {kTunnelSlotInPart, "detach the new NH", "22"},
    {kTunnelSlotInPart, "read the new NH", "wrong labels on T"},
    {kNhWithoutIndex, "find K", "NH 0 on T"},
    {kNhWithoutIndex, "find K beside the new NH", "NH 0 on T"},
    {kNhWithoutIndex, "find and share K", "22, NH 0 on T"},
    {kNhWithoutIndex, "find the NH given back", "no NH on T"},
    {kNhSlotEmpty, "find K beside the new NH", "N on T"},
    {kNhSlotEmpty, "find and share K", "22, N on T"},
    {kNhSlotEmpty, "find the NH given back", "no NH on T"},
    {kNhSlotInPart, "detach N", "0"},
    {kNhSlotInPart, "detach N", "0, T goes"},
    {kNhSlotInPart, "detach N", "22"},
    {kNhSlotInPart, "detach N after the repair", "0"},
    {kNhSlotInPart, "detach N after the repair", "0, T goes"},
    {kNhSlotInPart, "find K after the repair", "N on T"},
    {kNhSlotInPart, "find K after the repair", "no tunnel"},
    {kNhSlotInPart, "find the NH given back", "no NH on T"},
    {kNhSlotInPart, "read N", "K's labels on T"},
    {kNhSlotInPart, "release N", "0, the NH goes"},
    {kNhSlotInPart, "release N", "0, the NH goes, T goes"},
    {kNhSlotInPart, "release N", "22, the NH goes"},
    {kNothingCounted, "detach N", "0"},
    {kNothingCounted, "detach N", "0, T goes"},
    {kNothingCounted, "detach N", "22"},
    {kNothingCounted, "detach N after the repair", "0"},
    {kNothingCounted, "detach N after the repair", "0, T goes"},
    {kNothingCounted, "find K after the repair", "N on T"},
    {kNothingCounted, "find K after the repair", "no tunnel"},
    {kNothingCounted, "find the NH given back", "no NH on T"},
    {kNothingCounted, "release N", "0, the NH goes"},
    {kNothingCounted, "release N", "0, the NH goes, T goes"},
    {kNothingCounted, "release N", "22, the NH goes"},
    {kTunnelNotCounted, "detach N", "0, T goes"},
    {kTunnelNotCounted, "detach N", "22"},
    {kTunnelNotCounted, "find K after the repair", "N on T"},
    {kTunnelNotCounted, "find the NH given back", "no NH on T"},
    {kTunnelNotCounted, "release N", "0, the NH goes, T goes"},
    {kTunnelNotCounted, "release N", "22, the NH goes"},
    {kNhCountZero, "detach N", "0"},
    {kNhCountZero, "detach N", "0, T goes"},
    {kNhCountZero, "detach N after the repair", "0"},
    {kNhCountZero, "detach N after the repair", "0, T goes"},
    {kNhCountZero, "release N", "0, the NH goes"},
    {kNhCountZero, "release N", "0, the NH goes, T goes"},
    {kNhGone, "detach N", "0"},
    {kNhGone, "detach N", "0, T goes"},
    {kNhGone, "detach N", "22"},
    {kNhGone, "detach N after the repair", "22"},
    {kNhGone, "find K after the repair", "no NH on T"},
    {kNhGone, "find K after the repair", "no tunnel"},
    {kNhGone, "read N", "K's labels on T"},
    {kNhGone, "read N", "wrong labels on T"},
    {kNhGone, "release N", "0"},
    {kNhGone, "release N", "0, T goes"},
    {kNhGone, "release N", "22"},
};

}  // namespace

const char *text_of(DeathState state) {
  static constexpr const char *kTexts[] = {
#define CRASH_DEATH_STATE(name, text) text,
      CRASH_DEATH_STATES(CRASH_DEATH_STATE)
#undef CRASH_DEATH_STATE
  };
  return kTexts[static_cast<std::size_t>(state)];
}

std::span<const AnswerRow> answer_rows() {
  return kRows;
}

std::string text_of(const AnswerRow &row) {
  return std::string(text_of(row.state)) + " | " + std::string(row.operation) + " | " + std::string(row.answer);
}

std::string answers_page() {
  std::string page = "| State | Call | Answer |\n|---|---|---|\n";
  const AnswerRow *above = nullptr;
  for (const AnswerRow &row : kRows) {
    const bool same = above != nullptr && above->state == row.state;
    page += same ? "| | " : "| " + std::string(text_of(row.state)) + " | ";
    page += std::string(same && above->operation == row.operation ? "" : row.operation) + " | " +
            std::string(row.answer) + " |\n";
    above = &row;
  }
  return page;
}

}  // namespace crash
