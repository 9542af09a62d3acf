#include "buckets.h"

namespace clients {
namespace {

// A resize that would move more holdings than this is left undone. A bucket about to be split holds 28 on average, so
// that only a hash of very ill luck comes so far, and then the table stays correct with longer chains.
constexpr std::uint32_t kMostMoved = 64;

void store(Holding &place, const Holding &holding) {
  note_record(place);
  place = holding;
}

}  // namespace

void fetch(const Bucket &bucket) {
  constexpr std::size_t kLine = 64;
  for (std::size_t line = 0; line < sizeof bucket; line += kLine) {
    __builtin_prefetch(reinterpret_cast<const char *>(&bucket) + line);
  }
}

Holding *find_in(Bucket &bucket, std::uint32_t nh) {
  __builtin_prefetch(at<Spill>(bucket.spill));                                   // in case that the bucket has it not
  for (std::uint32_t i = std::min(bucket.used, kBucketHoldings); i != 0; --i) {  // the last ones are the newest
    if (bucket.holding[i - 1].nh == nh) {
      return &bucket.holding[i - 1];
    }
  }
  auto *spill = at<Spill>(bucket.spill);
  for (std::uint32_t i = 0; spill != nullptr && i < kMostSpills; ++i, spill = at<Spill>(spill->next)) {
    for (Holding &holding : spill->holding) {
      if (holding.nh == nh && holding.held != 0) {
        return &holding;
      }
    }
  }
  return nullptr;
}

std::uint32_t used_of(const Spill &spill) {
  std::uint32_t used = 0;
  while (used < kSpillHoldings && spill.holding[used].held != 0) {
    ++used;
  }
  return used;
}

bool append(Bucket &bucket, const Holding &holding) {
  if (bucket.used < kBucketHoldings) {
    Holding &place = bucket.holding[bucket.used];
    note(bucket.used, place.nh, place.held, place.marks);
    place = holding;
    ++bucket.used;
    return true;
  }
  auto *spill = at<Spill>(bucket.spill);
  std::uint32_t used = spill != nullptr ? used_of(*spill) : kSpillHoldings;
  if (used == kSpillHoldings) {
    auto *const more = take<Spill>();
    if (more == nullptr) {
      return false;
    }
    more->next = bucket.spill;
    put(bucket.spill, address_of(more));
    spill = more;
    used = 0;
  }
  store(spill->holding[used], holding);
  return true;
}

void remove(Bucket &bucket, Holding *holding) {
  auto *const spill = at<Spill>(bucket.spill);
  if (spill == nullptr) {
    Holding &last = bucket.holding[bucket.used - 1];
    if (holding != &last) {
      store(*holding, last);
    }
    put(bucket.used, bucket.used - 1);
    return;
  }
  const std::uint32_t used = used_of(*spill);
  Holding &last = spill->holding[used - 1];
  if (holding != &last) {
    store(*holding, last);
  }
  if (used > 1) {
    put(last.held, 0U);
  } else {
    put(bucket.spill, spill->next);
    shmwin_free(spill);
  }
}

bool move(Bucket &from, Bucket &to, std::uint32_t number, std::uint32_t buckets) {
  Holding moved[kMostMoved];
  std::uint32_t count = 0;
  each_in(from, [&](const Holding &holding) {
    if (bucket_number(hash_of(holding.nh), buckets) == number) {
      if (count < kMostMoved) {
        moved[count] = holding;
      }
      ++count;
    }
  });
  if (count > kMostMoved) {
    return false;
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!append(to, moved[i])) {
      return false;
    }
    remove(from, find_in(from, moved[i].nh));
  }
  return true;
}

}  // namespace clients
