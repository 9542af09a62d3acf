// The trace files that a verb looks at, and which of their records it tells of.
#ifndef ENCAPCTL_TRACES_H
#define ENCAPCTL_TRACES_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ltrace/reader.h"
#include "output/output.h"

namespace encapctl {

using TraceFiles = std::vector<std::unique_ptr<vrellis::TraceFile>>;

// Where trace files are looked for; an empty name stands for the directories of all users under /dev/shm.
struct TraceDirectory {
  std::string directory;
};

// And of which processes: by default of those that are attached to the database.
struct TraceOptions : TraceDirectory {
  bool all = false;
};

// Opens the trace files that `wanted`, given a listing and the owner of the file, admits, by pid. Symbolic links and
// files of another kind are passed over; regular files that cannot be read as traces are left out, with a warning.
using Wanted = std::function<bool(const vrellis::TraceListing &listing, uid_t owner)>;
TraceFiles open_traces(const TraceDirectory &directory, const Wanted &wanted);

// Which records; what is not set holds for all.
struct RecordFilter {
  std::optional<std::uint32_t> nh;
  std::optional<std::uint32_t> tunnel;
  std::string point;          // id, or function, * and ? standing for any characters; empty: all
  std::int64_t since_ns = 0;  // CLOCK_REALTIME

  bool admits(const vrellis::TraceRecord &event) const;
};

// Throws Failure when `point` of a filter names no point of the catalogue.
void require_point(const std::string &point);

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
