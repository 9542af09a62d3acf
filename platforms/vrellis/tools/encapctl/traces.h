// The trace files that a verb looks at, and which of their records it tells of.
#ifndef ENCAPCTL_TRACES_H
#define ENCAPCTL_TRACES_H

#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ltrace/reader.h"
#include "output.h"

namespace encapctl {

using TraceFiles = std::vector<std::unique_ptr<vrellis::TraceFile>>;

// The directories to look in: `named`, or when that is empty those of all users under /dev/shm.
std::vector<std::string> trace_directories(const std::string &named);

// Opens the trace files in `directories` that `wanted` admits, by pid. Files that are none are left out, and warned of.
template <typename Wanted>
TraceFiles open_traces(std::span<const std::string> directories, Wanted wanted);
TraceFiles open_trace_listings(std::span<const vrellis::TraceListing> listings);

template <typename Wanted>
TraceFiles open_traces(std::span<const std::string> directories, Wanted wanted) {
  std::vector<vrellis::TraceListing> listings;
  for (const std::string &directory : directories) {
    for (vrellis::TraceListing &listing : vrellis::list_traces(directory)) {
      if (wanted(listing)) {
        listings.push_back(std::move(listing));
      }
    }
  }
  return open_trace_listings(listings);
}

// Which records; what is not set holds for all.
struct RecordFilter {
  std::optional<std::uint32_t> nh;
  std::optional<std::uint32_t> tunnel;
  std::string point;          // id, or function, * and ? standing for any characters; empty: all
  std::int64_t since_ns = 0;  // CLOCK_REALTIME

  bool admits(const vrellis::TraceRecord &event) const;
};

// One line of a record, as text; and as JSON.
std::string event_text(const vrellis::TraceRecord &event);
Json event_json(const vrellis::TraceRecord &event);

// The record's row in the catalogue, or nullptr; whether its point is of category error.
const ed_catalogue_row_t *row_of(const vrellis::TraceRecord &event);
bool is_error(const vrellis::TraceRecord &event);

std::int64_t realtime_now();

// Reads trace files again and again, each record once: what `trace --follow` goes on with.
class TraceTail {
 public:
  // The records that were written since the last call, joined, by time. They refer to `files`.
  std::vector<vrellis::TraceRecord> read(const TraceFiles &files);

 private:
  std::vector<vrellis::TraceRecord> read_ring(const vrellis::TraceFile &file, std::uint32_t ring,
                                              const vrellis::TickClock &clock);

  struct Place {
    std::uint32_t tid = 0;
    std::uint64_t records = 0;  // of the ring, counted from its claim, that were told of
  };
  std::map<std::pair<std::string, std::uint32_t>, Place> place_;  // by path and ring
};

}  // namespace encapctl

#endif
