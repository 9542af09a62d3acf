// Reads trace files, of live processes and dead ones: for tools and tests.
//
// Nothing in a file is trusted. A damaged file is read with fewer records or refused in one sentence, and memory and
// time have a bound: see kMostMergedBytes. Files are read and never mapped, so that a file that
// shrinks meanwhile does no harm. Not thread-safe: only one thread may use a TraceFile.
#ifndef VRELLIS_LTRACE_READER_H
#define VRELLIS_LTRACE_READER_H

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "ed_catalogue.h"
#include "ptd.h"

namespace vrellis {

class TraceFile;
struct FileHeader;
struct RingEntry;

inline constexpr unsigned kMaxEventValues = 15;

// One record, or after join_records() all records of one point.
struct TraceRecord {
  const TraceFile *file = nullptr;  // whose it is; outlives the record
  std::uint64_t ticks = 0;          // of the file's clock
  std::int64_t time_ns = 0;         // CLOCK_REALTIME
  bool exact = false;               // the time was read with the record; else it is put between those around it
  std::uint32_t tid = 0;
  std::uint32_t tag = 0;
  std::uint32_t id = 0;
  std::uint32_t number = 0;  // within its point
  std::uint32_t handle = 0;  // low 26 bits of the trace handle
  unsigned num_values = 0;
  std::array<std::uint64_t, kMaxEventValues> value{};
};

// What was found in one ring.
struct RingReport {
  std::uint32_t tid = 0;                  // of the thread that wrote into it last
  bool owned = false;                     // a thread has it
  std::uint64_t records = 0;              // read
  std::uint64_t overwritten_records = 0;  // gone, newer ones took their place
  std::uint64_t overwritten_words = 0;
  std::uint64_t left_unread = 0;     // records that are older than the bytes that were asked for
  std::uint64_t damaged_blocks = 0;  // blocks of which some part made no sense
};

// Turns ticks into CLOCK_REALTIME: a line through two points at which all clocks were read.
class TickClock {
 public:
  TickClock() = default;
  // For files of one boot; with their machine still up in that boot, today's clocks are the second point.
  explicit TickClock(std::span<const TraceFile *const> files);
  std::int64_t realtime_ns(std::uint64_t ticks) const;
  std::uint64_t ticks_in(std::uint64_t ns) const;

 private:
  std::uint64_t ticks_ = 0;
  long double ns_per_tick_ = 1;
  std::uint64_t realtime_ = 0;
};

class TraceFile {
 public:
  // Opens a regular file; a symbolic link is not followed. Returns: nullptr with `error` filled when the file cannot be
  // read or is no trace file.
  static std::unique_ptr<TraceFile> open(const std::string &path, std::string &error);
  ~TraceFile();
  TraceFile(const TraceFile &) = delete;
  TraceFile &operator=(const TraceFile &) = delete;

  const std::string &path() const { return path_; }
  // The process that wrote the file, as the file says. Only its owner could write this: a file that claims to be of a
  // process of another user is forged unless its owner is root, so compare uid() with the owner of that process.
  std::uint32_t pid() const;
  uid_t uid() const { return uid_; }  // the owner of the file, not what the file says
  std::string comm() const;
  std::string component(std::uint32_t tag) const;  // empty when it was never named
  bool alive() const;                              // also when that cannot be told: a process of another PID namespace
  std::uint64_t rings_refused() const;
  std::uint64_t records_dropped() const;
  std::uint32_t num_rings() const;

  // The records of ring `ring` (below num_rings()), oldest first, of which those in the newest `most_bytes` of the
  // ring. Empty when the ring was never used, or when its writer overwrites it faster than it can be read. `report`
  // tells what was found.
  std::vector<TraceRecord> records(std::uint32_t ring, const TickClock &clock, RingReport &report,
                                   std::uint64_t most_bytes = ~std::uint64_t{0}) const;
  bool is_used(std::uint32_t ring) const;

  // Threads that wait, or have waited, for a mutex; of a dead process, those it died with.
  std::vector<ptd_wait_t> waits() const;

  // As it was when the file was opened.
  const FileHeader &header() const { return *header_; }

 private:
  TraceFile(std::string path, int fd, uid_t uid);
  struct RingCopy;
  std::uint64_t counter(std::uint64_t offset) const;
  std::uint64_t word_offset(std::uint32_t ring, std::uint64_t position) const;
  RingEntry entry(std::uint32_t ring) const;
  bool copy_ring(std::uint32_t ring, std::uint64_t most_bytes, RingCopy &copy) const;

  std::string path_;
  int fd_;
  uid_t uid_;
  std::unique_ptr<FileHeader> header_;
};

// Puts the records of each point together: those that follow one another in `records`, which are one ring's, under the
// numbers 0, 1, 2. A point whose first record is missing is left out and counted in `orphans`.
std::vector<TraceRecord> join_records(std::span<const TraceRecord> records, std::uint64_t &orphans);

// What merge_traces() found.
struct TraceMerge {
  std::vector<TraceRecord> events;  // joined, by time; those of one ring in the order in which they were written
  std::vector<RingReport> rings;    // those with anything in them; orphans count as overwritten
};

// Merges the records of all rings of all files. Files of one boot are ordered by the machine's own clock, so a change
// of the time of day does not matter. When the used rings hold more than kMostMergedBytes together, each is read for
// its newest part alone, and RingReport.left_unread counts the rest: an event takes up to 12 times its bytes in the
// file.
inline constexpr std::uint64_t kMostMergedBytes = std::uint64_t{32} << 20;
TraceMerge merge_traces(std::span<const std::unique_ptr<TraceFile>> files);

// A trace file as its name tells of it.
struct TraceListing {
  std::string path;
  std::uint32_t pid = 0;
  std::uint64_t start_time = 0;
  bool alive = false;
};

// The trace files in `directory`, by pid and start time. Without one: where a process of ours would put its file.
std::vector<TraceListing> list_traces(const std::string &directory);
std::string default_trace_directory();

// One line for an event, no newline: local time, pid/tid, function, message with its values. A time that is not exact
// has a '~' behind it. Events of components or points that no catalogue knows show component, id and raw values.
std::string render_event(const TraceRecord &event, std::span<const ed_catalogue_t *const> catalogues);

// The row of the event's point, or nullptr.
const ed_catalogue_row_t *find_row(const TraceRecord &event, std::span<const ed_catalogue_t *const> catalogues);

}  // namespace vrellis

#endif
