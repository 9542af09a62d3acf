// A bucket of a client's ledger: some holdings in its own record, more in a chain of spills. Everything here requires
// the database lock; what changes a bucket requires an open change, too.
#ifndef VRELLIS_CLIENT_BUCKETS_H
#define VRELLIS_CLIENT_BUCKETS_H

#include <algorithm>

#include "layout.h"
#include "window.h"

namespace clients {

// Starts to fetch the lines of a bucket: a large ledger is in no cache.
void fetch(const Bucket &bucket);

// Returns: nullptr when the bucket has no holding of that NH.
Holding *find_in(Bucket &bucket, std::uint32_t nh);

// How many places of a bucket's first spill are in use: they are so without a gap.
std::uint32_t used_of(const Spill &spill);

// Returns: false when the window has no memory.
bool append(Bucket &bucket, const Holding &holding);

// Takes a holding out; the bucket's last one fills the gap.
void remove(Bucket &bucket, Holding *holding);

// Moves the holdings that belong to bucket `number` among `buckets` from another bucket there. Returns: false when they
// are too many, or the window has no memory.
bool move(Bucket &from, Bucket &to, std::uint32_t number, std::uint32_t buckets);

// More are in no bucket, but in a damaged one, where they may form a ring.
inline constexpr std::uint32_t kMostSpills = 1U << 20;

// Calls visit(holding) for each holding of a bucket.
template <typename Visit>
void each_in(Bucket &bucket, Visit visit) {
  for (std::uint32_t i = 0; i < std::min(bucket.used, kBucketHoldings); ++i) {
    visit(bucket.holding[i]);
  }
  auto *spill = at<Spill>(bucket.spill);
  for (std::uint32_t i = 0; spill != nullptr && i < kMostSpills; ++i, spill = at<Spill>(spill->next)) {
    for (Holding &holding : spill->holding) {
      if (holding.held != 0) {
        visit(holding);
      }
    }
  }
}

}  // namespace clients

#endif
