#include "ledger.h"

namespace clients {
namespace {

// The word that holds the address of the segment of bucket `number`, which is no inline one; nullptr when its
// directory is not there.
std::uint64_t *segment_word(Ledger &ledger, std::uint32_t number) {
  const std::uint32_t segment = (number - kInlineBuckets) / kSegmentBuckets;
  auto *const directory = at<Page>(ledger.directory[segment / kDirectorySegments]);
  return directory != nullptr ? &directory->word[segment % kDirectorySegments] : nullptr;
}

bool is_first_of_segment(std::uint32_t number) {
  return number >= kInlineBuckets && (number - kInlineBuckets) % kSegmentBuckets == 0;
}

bool is_first_of_directory(std::uint32_t number) {
  return number >= kInlineBuckets && (number - kInlineBuckets) % (kSegmentBuckets * kDirectorySegments) == 0;
}

bool add_segment(Ledger &ledger, std::uint32_t number) {
  if (is_first_of_directory(number)) {
    auto *const directory = take<Page>();
    if (directory == nullptr) {
      return false;
    }
    const std::uint32_t segment = (number - kInlineBuckets) / kSegmentBuckets;
    put(ledger.directory[segment / kDirectorySegments], address_of(directory));
  }
  auto *const segment = take<Page>();
  if (segment == nullptr) {
    return false;
  }
  std::uint64_t *const word = segment_word(ledger, number);
  if (word == nullptr) {
    return false;
  }
  put(*word, address_of(segment));
  return true;
}

void drop_segment(Ledger &ledger, std::uint32_t number) {
  std::uint64_t *const word = segment_word(ledger, number);
  shmwin_free(at<Page>(*word));
  put(*word, std::uint64_t{0});
  if (is_first_of_directory(number)) {
    std::uint64_t &directory = ledger.directory[(number - kInlineBuckets) / (kSegmentBuckets * kDirectorySegments)];
    shmwin_free(at<Page>(directory));
    put(directory, std::uint64_t{0});
  }
}

// The bucket that gives half of its holdings to bucket `number` when that comes to be.
std::uint32_t partner_of(std::uint32_t number) {
  return number - std::bit_floor(number);
}

// What a damaged ledger gives for every bucket that it leads to nowhere. Nothing is written there.
constinit Bucket no_bucket{};

bool is_sound_bucket(const Bucket &bucket) {
  const auto *const spill = at<Spill>(bucket.spill);
  return &bucket != &no_bucket && bucket.used <= kBucketHoldings &&
         (bucket.spill == 0 || (spill != nullptr && used_of(*spill) != 0));
}

bool is_sound_size(const Ledger &ledger) {
  return ledger.buckets >= kInlineBuckets && ledger.buckets <= kMostBuckets;
}

bool grow(Ledger &ledger) {
  const std::uint32_t number = ledger.buckets;
  if (number == kMostBuckets || (is_first_of_segment(number) && !add_segment(ledger, number)) ||
      !is_sound_bucket(bucket_at(ledger, number)) || !is_sound_bucket(bucket_at(ledger, partner_of(number)))) {
    return false;
  }
  put(ledger.buckets, number + 1);
  return move(bucket_at(ledger, partner_of(number)), bucket_at(ledger, number), number, number + 1);
}

bool shrink(Ledger &ledger) {
  const std::uint32_t number = ledger.buckets - 1;
  Bucket &last = bucket_at(ledger, number);
  Bucket &partner = bucket_at(ledger, partner_of(number));
  if (!is_sound_bucket(last) || !is_sound_bucket(partner) || !move(last, partner, partner_of(number), number)) {
    return false;
  }
  put(ledger.buckets, number);
  if (is_first_of_segment(number)) {
    drop_segment(ledger, number);
  }
  return true;
}

}  // namespace

Bucket &bucket_at(Ledger &ledger, std::uint32_t number) {
  if (number < kInlineBuckets) {
    return ledger.first[number];
  }
  const std::uint64_t *const word = number < kMostBuckets ? segment_word(ledger, number) : nullptr;
  auto *const segment = word != nullptr ? at<Page>(*word) : nullptr;
  return segment != nullptr ? reinterpret_cast<Bucket *>(segment)[(number - kInlineBuckets) % kSegmentBuckets]
                            : no_bucket;
}

Bucket &bucket_of(Ledger &ledger, std::uint32_t nh) {
  return is_sound_size(ledger) ? bucket_at(ledger, bucket_number(hash_of(nh), ledger.buckets)) : no_bucket;
}

bool Place::is_sound() const {
  return is_sound_bucket(*bucket);
}

Place place_of(Ledger &ledger, std::uint32_t nh) {
  Bucket &bucket = bucket_of(ledger, nh);
  return {&bucket, find_in(bucket, nh)};
}

std::uint32_t add_reference(Ledger &ledger, const Place &place, std::uint32_t nh) {
  Holding *const holding = place.holding;
  if (holding == nullptr && !append(*place.bucket, {nh, 1, marks_of(ledger.epoch, 1)})) {
    return 0;
  }
  if (holding != nullptr) {
    note(holding->held, holding->marks);
    ++holding->held;
    holding->marks = marks_of(ledger.epoch, fresh_of(*holding, ledger.epoch) + 1);
  }
  note(ledger.nhs, ledger.held, ledger.fresh);
  ledger.nhs += holding == nullptr ? 1 : 0;
  ++ledger.held;
  ++ledger.fresh;
  return holding == nullptr ? 1 : holding->held;
}

std::uint32_t drop_reference(Ledger &ledger, const Place &place, First first) {
  Holding *const holding = place.holding;
  const std::uint32_t held = holding->held - 1;
  const std::uint32_t fresh = fresh_of(*holding, ledger.epoch);
  const bool drops_fresh = fresh != 0 && (first == First::kFresh || fresh == holding->held);
  note(ledger.nhs, ledger.held, ledger.fresh);
  ledger.nhs -= held == 0 ? 1 : 0;
  --ledger.held;
  ledger.fresh -= drops_fresh ? 1 : 0;
  if (held == 0) {
    remove(*place.bucket, holding);
    return 0;
  }
  note(holding->held, holding->marks);
  holding->held = held;
  holding->marks = drops_fresh ? marks_of(ledger.epoch, fresh - 1) : holding->marks;
  return held;
}

void renew_reference(Ledger &ledger, Holding &holding) {
  put(holding.marks, marks_of(ledger.epoch, fresh_of(holding, ledger.epoch) + 1));
  put(ledger.fresh, ledger.fresh + 1);
}

void resize(Ledger &ledger, bool grows) {
  if (!is_sound_size(ledger)) {
    return;
  }
  begin_change();
  if (grows ? grow(ledger) : shrink(ledger)) {
    avl_change_commit();
  } else {
    avl_change_abort();
  }
}

void forget_old_epochs(Ledger &ledger) {
  for (std::uint32_t number = 0; number < buckets_of(ledger); ++number) {
    each_in(bucket_at(ledger, number), [&](Holding &holding) {
      if (holding.marks >> 24 != ledger.epoch) {
        __atomic_store_n(&holding.marks, marks_of(ledger.epoch, 0), __ATOMIC_RELEASE);
      }
    });
  }
}

}  // namespace clients
