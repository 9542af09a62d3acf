// A client's ledger: finds, adds and takes back references. Everything here requires the database lock; what changes
// the ledger requires an open change, too.
#ifndef VRELLIS_CLIENT_LEDGER_H
#define VRELLIS_CLIENT_LEDGER_H

#include <algorithm>

#include "buckets.h"

namespace clients {

// Where the holding on an NH is, or belongs.
struct Place {
  Bucket *bucket;
  Holding *holding;  // nullptr when the client holds nothing on that NH

  // False when the words that lead to the bucket are damaged. A holding comes to a sound place and goes from one alone.
  bool is_sound() const;
};

Bucket &bucket_of(Ledger &ledger, std::uint32_t nh);

Place place_of(Ledger &ledger, std::uint32_t nh);

// Adds one fresh reference on an NH. Returns: the references held now; 0 when the window has no memory, with nothing
// added but perhaps words that abort() takes back.
std::uint32_t add_reference(Ledger &ledger, const Place &place, std::uint32_t nh);

// Which of a holding's references goes first.
enum class First : std::uint8_t { kFresh, kStale };

// Takes one reference back. Returns: the references held now.
std::uint32_t drop_reference(Ledger &ledger, const Place &place, First first);

// Makes a stale reference a fresh one. Requires one.
void renew_reference(Ledger &ledger, Holding &holding);

// Makes the table larger or smaller by a bucket where the number of holdings asks for it, in a change of its own. A
// window without memory leaves it as it is.
void resize(Ledger &ledger, bool grows);
inline void settle_size(Ledger &ledger) {
  const bool grows = ledger.nhs > std::uint64_t{kGrowAbove} * ledger.buckets;
  if (grows || (ledger.nhs < std::uint64_t{kShrinkBelow} * ledger.buckets && ledger.buckets > kInlineBuckets)) {
    resize(ledger, grows);
  }
}

// Stores the present epoch in holdings of earlier ones, whose fresh references count for nothing: epochs come round.
void forget_old_epochs(Ledger &ledger);

inline std::uint64_t stale_of(const Ledger &ledger) {
  return ledger.held - ledger.fresh;
}

inline void count_call(Ledger &ledger, Count kind) {
  ++ledger.calls[kind];  // a figure for people: a death may cost one
}

// Returns: an empty bucket outside the window when the words that lead to this one are damaged.
Bucket &bucket_at(Ledger &ledger, std::uint32_t number);

inline std::uint32_t buckets_of(const Ledger &ledger) {
  return std::min(ledger.buckets, kMostBuckets);
}

}  // namespace clients

#endif
