// What clients keep in the window: who they are, what each holds, and which indexes are free. For the client library
// and the inspector.
//
// The root lies in the window's user area behind the database's header. Everything else lies in pages and nodes of the
// window's allocator. All of it is guarded by the database lock, and every word is changed inside a change of the
// window (avl/avl_change.h), so that a death leaves each call done or not begun.
//
//   ClientRoot (user area) --> ClientRecord[64] (one page) --> Ledger (one page each) --> segments, directories, spills
//                          --> queue pages of returned indexes
//
// Invariants, whenever the lock is free and no change is open:
//   C1  The references that the ledgers name on an NH are at most its count; the rest belongs to processes that use the
//       database's operations directly.
//   C2  A holding with a count stands in one ledger once, in the bucket that its hash selects or in that bucket's
//       spills; `used` entries of a bucket are in use, without a gap; only the first spill of a bucket is not full.
//   C3  A ledger's totals are the sums over its entries.
//   C4  An index in a queue is no index of an NH or tunnel that a client entered.
#ifndef VRELLIS_CLIENT_LAYOUT_H
#define VRELLIS_CLIENT_LAYOUT_H

#include <bit>
#include <cstddef>
#include <cstdint>

#include "encap_client.h"

namespace clients {

inline constexpr std::size_t kPage = 4096;

// Indexes of one kind. Those from `fresh` to below `end` were never given out. Those that were given back wait in a
// first-in first-out list of pages. 48 bytes.
struct IndexQueue {
  std::uint32_t fresh;
  std::uint32_t end;
  std::uint64_t oldest;  // address of the page that the next index is taken from; 0 = none waits
  std::uint64_t newest;  // address of the page that the next index is put to
  std::uint32_t take;    // place in `oldest`
  std::uint32_t put;     // place in `newest`
  std::uint32_t waiting;
  std::uint32_t spare[3];
};
static_assert(sizeof(IndexQueue) == 48);

struct QueuePage {
  std::uint64_t next;  // address; 0 in the newest
  std::uint32_t index[(kPage - 8) / 4];
};
static_assert(sizeof(QueuePage) == kPage);

inline constexpr std::size_t kRootOffset = 256;                  // in the window's user area
inline constexpr std::uint64_t kRootMagic = 0x31746e65696c430a;  // "\nClient1"

struct ClientRoot {
  std::uint64_t magic;    //  0  kRootMagic; 0 = no client ever opened this database
  std::uint64_t clients;  //  8  address of ClientRecord[ENCAP_CLIENT_MAX]
  IndexQueue nhs;         // 16
  IndexQueue tunnels;     // 64
};
static_assert(sizeof(ClientRoot) == 112);
static_assert(kRootOffset >= sizeof(egress_encap_db_t) && kRootOffset + sizeof(ClientRoot) <= SHMWIN_USER_AREA_BYTES);

// One name. 64 bytes.
struct ClientRecord {
  char name[ENCAP_CLIENT_NAME_BYTES];  // all 0 = free
  std::uint64_t process;               // 32  entry of the process as in the window's table; 0 = closed
  std::uint64_t ledger;                // 40  address
  std::uint64_t since;                 // 48  opened, closed, or first seen dead; nanoseconds since 1970
  std::uint32_t seen_dead;             // 56  1 = `since` is when the death of `process` was first noticed
  std::uint32_t spare;                 // 60
};
static_assert(sizeof(ClientRecord) == 64 && sizeof(ClientRecord) * ENCAP_CLIENT_MAX == kPage);

/*
 * References of one client on one NH. 12 bytes.
 *
 *      31         24 23                          0
 *   8 |    epoch    |            fresh            |  marks
 *
 * Of `held` references `fresh` are fresh when `epoch` is the ledger's; otherwise all are stale.
 */
struct Holding {
  std::uint32_t nh;
  std::uint32_t held;  // 0 = not in use
  std::uint32_t marks;
};
static_assert(sizeof(Holding) == 12);

inline constexpr std::uint32_t kMostHeld = 0xffffff;
inline constexpr std::uint32_t kEpochs = 256;

constexpr std::uint32_t marks_of(std::uint32_t epoch, std::uint32_t fresh) {
  return epoch << 24 | fresh;
}
constexpr std::uint32_t fresh_of(const Holding &holding, std::uint32_t epoch) {
  return holding.marks >> 24 == epoch ? holding.marks & kMostHeld : 0;
}

inline constexpr std::uint32_t kBucketHoldings = 20;
inline constexpr std::uint32_t kSpillHoldings = 4;

// 256 bytes.
struct Bucket {
  std::uint64_t spill;  // address of a Spill; 0 = none
  std::uint32_t used;
  std::uint32_t spare;
  Holding holding[kBucketHoldings];
};
static_assert(sizeof(Bucket) == 256);

// What a bucket has no room for, in a node of the window's allocator. 56 bytes.
struct Spill {
  std::uint64_t next;
  Holding holding[kSpillHoldings];
};
static_assert(sizeof(Spill) == 56);

inline constexpr std::uint32_t kInlineBuckets = 8;
inline constexpr std::uint32_t kSegmentBuckets = kPage / sizeof(Bucket);
inline constexpr std::uint32_t kDirectorySegments = kPage / 8;
inline constexpr std::uint32_t kDirectories = 192;

enum Count : std::uint32_t { kEntered, kRenewed, kReleased, kRefreshes, kRefused, kCounts };

/*
 * What one client holds: a hash table that grows and shrinks by one bucket at a time (linear hashing), so that each
 * call moves a bounded number of words. One page.
 */
struct Ledger {
  std::uint32_t epoch;                    //    0  below kEpochs; a refresh begins the next one
  std::uint32_t buckets;                  //    4
  std::uint64_t nhs;                      //    8  holdings in use
  std::uint64_t held;                     //   16  references
  std::uint64_t fresh;                    //   24  of these: fresh
  std::uint64_t calls[16];                //   32  by Count
  std::uint8_t spare[352];                //  160
  std::uint64_t directory[kDirectories];  //  512  addresses of pages of segment addresses
  Bucket first[kInlineBuckets];           // 2048
};
static_assert(offsetof(Ledger, directory) == 512 && offsetof(Ledger, first) == 2048 && sizeof(Ledger) == kPage);

inline constexpr std::uint32_t kMostBuckets = kInlineBuckets + kDirectories * kDirectorySegments * kSegmentBuckets;

// A bucket more when the buckets hold so many on average, one less below that: 256 bytes for 11 holdings and more are
// below 24 bytes for each.
inline constexpr std::uint32_t kGrowAbove = 14;
inline constexpr std::uint32_t kShrinkBelow = 11;

// The buckets are numbered by the low bits. Only the high bits of the product are spread evenly for indexes that follow
// one another, so its high byte becomes the low one.
constexpr std::uint32_t hash_of(std::uint32_t nh) {
  return __builtin_bswap32(static_cast<std::uint32_t>(nh * std::uint64_t{0x9e3779b97f4a7c15} >> 32));
}

// The bucket of a hash among so many buckets.
constexpr std::uint32_t bucket_number(std::uint32_t hash, std::uint32_t buckets) {
  const std::uint32_t power = std::bit_floor(buckets);
  const std::uint32_t number = hash & (2 * power - 1);
  return number < buckets ? number : number - power;
}

}  // namespace clients

#endif
