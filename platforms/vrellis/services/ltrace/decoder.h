// Takes the blocks of a ring apart into records. For the reader alone.
#ifndef VRELLIS_LTRACE_DECODER_H
#define VRELLIS_LTRACE_DECODER_H

#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "ltrace/file.h"
#include "ltrace/reader.h"

namespace vrellis {

// Takes blocks apart into records, in order; the times of those without a stamp of their own are filled in between.
class Decoder {
 public:
  Decoder(const TraceFile *file, std::uint32_t tid, std::uint64_t burst) : burst_(burst) {
    blank_.file = file;
    blank_.tid = tid;
  }

  // Returns: false when a part of the block made no sense; that part is left out.
  bool add_block(std::span<const std::uint64_t> words) {
    if (words.size() < kBlockHeadWords) {
      return true;  // opened and not begun
    }
    if (words[0] == 0 || (words[0] & kRecordBit) != 0) {
      return false;
    }
    stamp(ticks_of(words[0]));
    std::size_t at = kBlockHeadWords;
    while (at < words.size() && words[at] != 0) {
      if ((words[at] & kRecordBit) == 0) {
        stamp(ticks_of(words[at++]));
        continue;
      }
      const std::size_t count = words[at] >> kCountShift & 7;
      if (count == 0 || count >= words.size() - at) {
        return false;
      }
      add_record(words[at], words.subspan(at + 1, count));
      at += 1 + count;
    }
    return true;
  }

  std::vector<TraceRecord> finish() {
    place(~std::uint64_t{0});
    return std::move(records_);
  }

 private:
  void add_record(std::uint64_t header, std::span<const std::uint64_t> values) {
    TraceRecord record = blank_;
    record.id = header & 0x7fffff;
    record.tag = header >> 23 & 31;
    record.number = header >> 28 & 7;
    record.handle = static_cast<std::uint32_t>(header >> kHandleShift);
    record.exact = records_.size() == stamped_;
    record.ticks = newest_;
    record.num_values = static_cast<unsigned>(values.size());
    std::copy(values.begin(), values.end(), record.value.begin());
    records_.push_back(record);
  }

  // A stamp that repeats the last one, or is older, tells nothing about the records behind it: the clocks of two
  // processors may differ, but the times of one thread never run backwards.
  void stamp(std::uint64_t ticks) {
    if (ticks <= newest_) {
      return;
    }
    place(ticks);
    newest_ = ticks;
    stamped_ = records_.size();
  }

  // Spreads the records since the last stamp over the time to `until`.
  void place(std::uint64_t until) {
    const std::uint64_t count = records_.size() - stamped_;
    for (std::uint64_t i = 1; i < count; ++i) {
      const std::uint64_t step = std::min((until - newest_) / count, burst_);
      records_[stamped_ + i].ticks = newest_ + i * step;
    }
  }

  TraceRecord blank_;
  std::uint64_t burst_;
  std::uint64_t newest_ = 0;
  std::size_t stamped_ = 0;
  std::vector<TraceRecord> records_;
};

}  // namespace vrellis

#endif
