/*
 * The stored form of a message: adjacent string pieces with their quote characters kept,
 *
 *   "vrl_find_mpls_nh_entry Key: out_label1 %d, " "te_local_label %d"
 *
 * Internal to what reads such texts; header-only but for the formatting itself, which ed.h exports.
 */
#ifndef VRELLIS_ED_FORMAT_H
#define VRELLIS_ED_FORMAT_H

#include <string_view>

#include "ed.h"

namespace vrellis {

// Walks a stored text character by character, either as it stands or joined: between the pieces nothing, within them
// \" for a quote and \\ for a backslash. A text that does not begin with a quote character has no pieces and is taken
// as it stands.
class StoredText {
 public:
  enum class Form { stored, joined };

  StoredText(std::string_view text, Form form) : rest_(text), joins_(form == Form::joined && text.starts_with('"')) {}

  // The next character; false at the end.
  bool next(char &c) {
    if (joins_ && !enter_piece()) {
      return false;
    }
    if (rest_.empty()) {
      return false;
    }
    if (joins_ && (rest_.starts_with("\\\"") || rest_.starts_with("\\\\"))) {
      rest_.remove_prefix(1);
    }
    c = rest_.front();
    rest_.remove_prefix(1);
    return true;
  }

 private:
  // Steps over quote characters and what stands between pieces; false when no further character belongs to one.
  bool enter_piece() {
    while (!rest_.empty() && (!inside_ || rest_.front() == '"')) {
      if (rest_.front() == '"') {
        inside_ = !inside_;
      }
      rest_.remove_prefix(1);
    }
    return !rest_.empty();
  }

  std::string_view rest_;
  bool joins_;
  bool inside_ = false;
};

// True if the joined text contains `wanted`.
inline bool joined_text_contains(std::string_view stored, std::string_view wanted) {
  StoredText start(stored, StoredText::Form::joined);
  char c = 0;
  do {
    StoredText at = start;
    size_t matched = 0;
    while (matched < wanted.size() && at.next(c) && c == wanted[matched]) {
      ++matched;
    }
    if (matched == wanted.size()) {
      return true;
    }
  } while (start.next(c));
  return false;
}

}  // namespace vrellis

#endif
