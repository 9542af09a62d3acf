// Finds every inconsistency of a database, by name.
//
// Nothing but the bytes of the view is looked at, each pointer and index is tested before use, and no walk takes more
// steps than the window has blocks: a damaged window is reported, never followed.
#ifndef ENCAP_INSPECT_CHECK_H
#define ENCAP_INSPECT_CHECK_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "reading/database.h"
#include "reading/finding_kind.h"

namespace encap_inspect {

struct Finding {
  FindingKind kind;
  std::uint32_t nh_index = kNoIndex;  // global numbers; kNoIndex: none concerned
  std::uint32_t tunnel = kNoIndex;
  Address address = 0;  // of the node, block or word concerned; 0: none
  std::string text;     // one clear sentence, no newline
};

struct Report {
  static constexpr std::size_t kKeptOfAKind = 1000;  // a damaged array can give millions

  Stillness stillness = Stillness::kStill;  // of the view; nothing is found in one of different moments
  bool looked = false;  // false: the header allows no look at the database, or the view is of different moments
  std::vector<Finding> findings;  // faults in the order of kinds, notes last; at most kKeptOfAKind each
  std::array<std::uint64_t, kFindingKinds> count{};  // all that were found, kept or not

  std::uint64_t count_of(FindingKind kind) const { return count[static_cast<std::size_t>(kind)]; }
  std::uint64_t faults() const;  // findings that are no notes
  std::uint64_t of(Severity severity) const;
  bool sound() const { return looked && faults() == 0; }
};

// Checks the database as the next process will find it: after rolling back, in a copy, what an undo log holds. The
// header is held against what shmwin_attach() asks of it.
Report check(const View &view);

}  // namespace encap_inspect

#endif
