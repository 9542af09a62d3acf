// A client's ledger: finds, adds and takes back references. Everything here requires the database lock; what changes
// the ledger requires an open change, too.
#ifndef VRELLIS_CLIENT_LEDGER_H
#define VRELLIS_CLIENT_LEDGER_H

#include <algorithm>

#include "buckets.h"

namespace clients {

// False when the words that lead to the bucket of an NH are damaged. What changes references requires that they are
// not.
bool is_sound(Ledger &ledger, std::uint32_t nh);

// Starts to fetch what find_holding() will read.
void fetch_holding(Ledger &ledger, std::uint32_t nh);

// Returns: nullptr when the client holds nothing on that NH.
Holding *find_holding(Ledger &ledger, std::uint32_t nh);

// Adds one fresh reference. Returns: the references held now; 0 when the window has no memory, with nothing added but
// perhaps words that abort() takes back.
std::uint32_t add_reference(Ledger &ledger, Holding *holding, std::uint32_t nh);

// Which of a holding's references goes first.
enum class First : std::uint8_t { kFresh, kStale };

// Takes one reference back. Returns: the references held now.
std::uint32_t drop_reference(Ledger &ledger, Holding *holding, First first);

// Makes a stale reference a fresh one. Requires one.
void renew_reference(Ledger &ledger, Holding &holding);

// Whether the table is to be resized by a bucket, and doing so in a change of its own. A window without memory leaves
// it as it is.
void settle_size(Ledger &ledger);

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
