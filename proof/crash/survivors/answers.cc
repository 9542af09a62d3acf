// The answers between a death and its repair where they differ from those before and after the interrupted operation.
// The one table of them stands in docs/crash-promise.md: crash_steps accepts no other answer.
#include <fstream>
#include <sstream>

#include "trials.h"

namespace crash {
namespace {

std::set<std::string> rows_of(std::istream &page) {
  std::set<std::string> rows;
  std::string line;
  while (std::getline(page, line) && line != "| State | Call | Answer |") {
  }
  std::getline(page, line);
  std::string cell[3];  // an empty one means what stands above it
  while (std::getline(page, line) && line.starts_with("| ")) {
    std::istringstream texts(line.substr(1));
    std::string text;
    for (std::string &each : cell) {
      std::getline(texts, text, '|');
      const std::size_t begin = text.find_first_not_of(' ');
      each = begin == std::string::npos ? each : text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
    }
    rows.insert(cell[0] + " | " + cell[1] + " | " + cell[2]);
  }
  return rows;
}

}  // namespace

const char *text_of(DeathState state) {
  static constexpr const char *kTexts[] = {
#define CRASH_DEATH_STATE(name, text) text,
      CRASH_DEATH_STATES(CRASH_DEATH_STATE)
#undef CRASH_DEATH_STATE
  };
  return kTexts[static_cast<std::size_t>(state)];
}

const std::set<std::string> &answer_rows() {
  static const std::set<std::string> rows = [] {
    std::ifstream page(ENCAP_PROMISE_PAGE);
    return rows_of(page);
  }();
  return rows;
}

bool rests_on_the_compiler(const std::string &row) {
  return row.starts_with(text_of(DeathState::kTunnelSlotInPart)) ||
         row.starts_with(text_of(DeathState::kNhSlotInPart)) ||
         row.starts_with(std::string(text_of(DeathState::kNhGone)) + " | read N");
}

}  // namespace crash
