// Versions of trees and of other records in a window, for readers that take no lock.
//
// Word 0 is the version of the trees whose root fields lie in the window's user area (the tunnel tree of a database).
// Every other root field, or other record, shares one of kSharedVersions words, which its address selects by a shift
// and a mask.
//
// Invariants:
//   V1  A word of a tree that readers can reach changes only while the tree's version is odd, and the version becomes
//       odd only when an entry of the undo log is in use. (The first node of a tree comes, and the last one goes, by
//       one store. Outside an open change that store has no entry, and the first node comes without a new version.)
//   V2  The version becomes another even number only after the change is committed, and another odd number when the
//       next change begins. So an odd version beside an empty log belongs to a change that is committed or rolled back.
//   V3  No version ever takes an earlier value again (before 2^64 changes).
//
// A dead process may leave a version odd: the roll-back makes it even, and so does the next change of that tree.
#ifndef VRELLIS_AVL_VERSIONS_H
#define VRELLIS_AVL_VERSIONS_H

#include <bit>
#include <cstddef>

#include "avl/link.h"
#include "between_services.h"

namespace vrellis::avl {

// Returns: the version of a root field, or of another record, in the window that begins at `window`. Word 0 has a cache
// line of its own, since every search begins with it.
inline Word *version_of(Word window, Word place) {
  const Word shared = kOwnVersionWords + place / kPlacesOfVersion % kSharedVersions;
  const bool in_user_area = place - (window + kUserAreaOffset) < kUserAreaBytes;
  return word_at(window + kVersionsOffset + sizeof(Word) * (in_user_area ? 0 : shared));
}

// Remembers a version that stays odd until the open change is committed.
inline void keep_version(const WindowMap &map, const Word *version) {
  open_change.versions |= Word{1} << ((address_of(version) - map.begin - kVersionsOffset) / sizeof(Word));
}

// Requires that an entry of the undo log is in use (V1).
inline void begin_version(Word *version) {
  store(version, (*version + 1) | 1);
}

// Requires: the version is odd. After the commit.
inline void end_version(Word *version) {
  store(version, *version + 1);
}

// Ends the versions of the open change, which `versions` names by bits.
inline void end_versions(const WindowMap &map, Word versions) {
  for (; versions != 0; versions &= versions - 1) {
    end_version(word_at(map.begin + kVersionsOffset + sizeof(Word) * static_cast<Word>(std::countr_zero(versions))));
  }
}

// Makes every version even that a process left odd when it died. Requires an empty log.
inline void settle_versions(const WindowMap &map) {
  for (Word number = 0; number < kVersionWords; ++number) {
    Word *const version = word_at(map.begin + kVersionsOffset + sizeof(Word) * number);
    if ((*version & 1) != 0) {
      end_version(version);
    }
  }
}

}  // namespace vrellis::avl

#endif
