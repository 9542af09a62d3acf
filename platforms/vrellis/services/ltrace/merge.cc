// Trace records of several rings and files as one story: clocks, points, order, text.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <tuple>

#include "ed.h"
#include "ltrace/file.h"
#include "ltrace/proc.h"
#include "ltrace/reader.h"

namespace vrellis {
namespace {

bool same_clock(const FileHeader &a, const FileHeader &b) {
  return a.tick_kind == b.tick_kind && std::memcmp(a.boot_id, b.boot_id, sizeof a.boot_id) == 0;
}

bool is_our_clock(const FileHeader &header) {
  char boot[sizeof header.boot_id] = {};
  read_boot_id(boot);
  return header.tick_kind == kTickKind && std::memcmp(header.boot_id, boot, sizeof boot) == 0;
}

long double difference(std::uint64_t a, std::uint64_t b) {
  return static_cast<long double>(a) - static_cast<long double>(b);
}

bool earlier(const ClockPoint &a, const ClockPoint &b) {
  return a.ticks < b.ticks;
}

}  // namespace

TickClock::TickClock(std::span<const TraceFile *const> files) {
  if (files.empty()) {
    return;
  }
  ClockPoint first = files[0]->header().created;
  ClockPoint last = is_our_clock(files[0]->header()) ? read_clocks() : first;
  for (const TraceFile *file : files) {
    first = std::min(first, file->header().created, earlier);
    for (const RingEntry &ring : file->header().ring) {
      last = std::max(last, ring.clocks, earlier);
    }
  }
  const long double ticks = difference(last.ticks, first.ticks);
  const long double ns = difference(last.monotonic_ns, first.monotonic_ns);
  const long double rate = ticks > 0 ? ns / ticks : 1;
  ns_per_tick_ = rate > 0.01L && rate < 100 ? rate : 1;  // otherwise the clocks in the file are damaged
  ticks_ = last.ticks;
  realtime_ = last.realtime_ns;
}

std::int64_t TickClock::realtime_ns(std::uint64_t ticks) const {
  constexpr auto kMost = static_cast<long double>(std::numeric_limits<std::int64_t>::max()) / 2;
  const long double ns = static_cast<long double>(realtime_) + difference(ticks, ticks_) * ns_per_tick_;
  return static_cast<std::int64_t>(std::clamp(ns, 0.0L, kMost));
}

std::uint64_t TickClock::ticks_in(std::uint64_t ns) const {
  return static_cast<std::uint64_t>(static_cast<long double>(ns) / ns_per_tick_);
}

std::vector<TraceRecord> join_records(std::span<const TraceRecord> records, std::uint64_t &orphans) {
  constexpr unsigned kFullRecord = 7;
  std::vector<TraceRecord> points;
  std::uint32_t expected = 0;  // number that would go on with the last point; 0: it is complete
  orphans = 0;
  for (const TraceRecord &record : records) {
    if (record.number == 0) {
      points.push_back(record);
      expected = record.num_values == kFullRecord ? 1 : 0;
      continue;
    }
    TraceRecord *point = points.empty() ? nullptr : &points.back();
    const bool fits = point != nullptr && record.number == expected && record.id == point->id &&
                      record.tag == point->tag && point->num_values + record.num_values <= kMaxEventValues;
    if (!fits) {
      ++orphans;
      expected = 0;
      continue;
    }
    std::copy_n(record.value.begin(), record.num_values, point->value.begin() + point->num_values);
    point->num_values += record.num_values;
    expected = record.num_values == kFullRecord ? expected + 1 : 0;
  }
  return points;
}

namespace {

// How many bytes of each ring are read, so that all rings together stay within kMostMergedBytes.
std::uint64_t share_of_ring(std::span<const std::unique_ptr<TraceFile>> files) {
  std::uint64_t bytes = 0;
  std::uint64_t used = 0;
  for (const auto &file : files) {
    for (std::uint32_t ring = 0; ring < file->num_rings(); ++ring) {
      if (file->is_used(ring)) {  // asked once, since a live process may take the ring meanwhile
        ++used;
        bytes += std::uint64_t{file->header().ring_words} * sizeof(std::uint64_t);
      }
    }
  }
  return used == 0 || bytes <= kMostMergedBytes ? ~std::uint64_t{0} : kMostMergedBytes / used;
}

}  // namespace

TraceMerge merge_traces(std::span<const std::unique_ptr<TraceFile>> files) {
  TraceMerge merge;
  std::vector<std::vector<TraceRecord>> points;  // of each ring
  std::size_t total = 0;
  const std::uint64_t share = share_of_ring(files);
  for (const auto &file : files) {
    std::vector<const TraceFile *> same_boot;
    for (const auto &other : files) {
      if (same_clock(file->header(), other->header())) {
        same_boot.push_back(other.get());
      }
    }
    const TickClock clock(same_boot);
    for (std::uint32_t ring = 0; ring < file->num_rings(); ++ring) {
      RingReport report;
      std::uint64_t orphans = 0;
      points.push_back(join_records(file->records(ring, clock, report, share), orphans));
      total += points.back().size();
      report.overwritten_records += orphans;
      if (report.records != 0 || report.overwritten_words != 0 || report.damaged_blocks != 0) {
        merge.rings.push_back(report);
      }
    }
  }
  merge.events.reserve(total);
  for (std::vector<TraceRecord> &one : points) {
    merge.events.insert(merge.events.end(), one.begin(), one.end());
    one = {};
  }
  std::stable_sort(merge.events.begin(), merge.events.end(),
                   [](const TraceRecord &a, const TraceRecord &b) { return a.time_ns < b.time_ns; });
  return merge;
}

std::string default_trace_directory() {
  const char *named = std::getenv("LTRACE_DIR");
  return named != nullptr && *named != '\0' ? named : "/dev/shm/vrellis-trace-" + std::to_string(geteuid());
}

std::vector<TraceListing> list_traces(const std::string &directory) {
  std::vector<TraceListing> out;
  DIR *listing = opendir(directory.c_str());
  while (const dirent *entry = listing != nullptr ? readdir(listing) : nullptr) {
    TraceListing trace;
    if (parse_trace_name(entry->d_name, trace.pid, trace.start_time)) {
      trace.path = directory + "/" + entry->d_name;
      trace.alive =
          liveness_of({static_cast<pid_t>(trace.pid), trace.start_time, own_pid_namespace()}) == Liveness::kAlive;
      out.push_back(trace);
    }
  }
  if (listing != nullptr) {
    closedir(listing);
  }
  std::sort(out.begin(), out.end(), [](const TraceListing &a, const TraceListing &b) {
    return std::tie(a.pid, a.start_time, a.path) < std::tie(b.pid, b.start_time, b.path);
  });
  return out;
}

namespace {

const ed_catalogue_t *find_catalogue(const TraceRecord &event, std::span<const ed_catalogue_t *const> catalogues) {
  const std::string component = event.file->component(event.tag);
  if (component.empty() && catalogues.size() == 1) {
    return catalogues[0];  // written before its component registered: whose else should it be
  }
  for (const ed_catalogue_t *catalogue : catalogues) {
    // The file keeps as much of a name as it has room for.
    if (!component.empty() && std::strncmp(catalogue->component, component.c_str(), kNameBytes - 1) == 0) {
      return catalogue;
    }
  }
  return nullptr;
}

std::string local_time(std::int64_t time_ns) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const time_t seconds = time_ns / kSecond;
  struct tm parts = {};
  char text[48];
  char fraction[16];
  localtime_r(&seconds, &parts);
  std::strftime(text, sizeof text, "%F %T", &parts);
  std::snprintf(fraction, sizeof fraction, ".%09d", static_cast<int>(time_ns % kSecond));
  return std::string(text) + fraction;
}

std::string message_of(const TraceRecord &event, const ed_catalogue_row_t &row) {
  char text[512];
  ed_format_joined(text, sizeof text, row.format, event.value.data(), std::min(event.num_values, row.num_values));
  const bool named = std::strncmp(text, row.function, std::strlen(row.function)) == 0;
  return named ? text : std::string(row.function) + ": " + text;
}

std::string raw_text(const TraceRecord &event) {
  const std::string component = event.file->component(event.tag);
  std::string text = component.empty() ? "component " + std::to_string(event.tag) : component;
  text += " point " + std::to_string(event.id) + ":";
  for (unsigned i = 0; i < event.num_values; ++i) {
    char value[24];
    std::snprintf(value, sizeof value, " 0x%" PRIx64, event.value[i]);
    text += value;
  }
  return text;
}

}  // namespace

const ed_catalogue_row_t *find_row(const TraceRecord &event, std::span<const ed_catalogue_t *const> catalogues) {
  const ed_catalogue_t *catalogue = find_catalogue(event, catalogues);
  return catalogue != nullptr && event.id < catalogue->num_rows ? &catalogue->row[event.id] : nullptr;
}

std::string render_event(const TraceRecord &event, std::span<const ed_catalogue_t *const> catalogues) {
  const ed_catalogue_row_t *row = find_row(event, catalogues);
  return local_time(event.time_ns) + (event.exact ? "  " : "~ ") + std::to_string(event.file->pid()) + "/" +
         std::to_string(event.tid) + " " + (row != nullptr ? message_of(event, *row) : raw_text(event));
}

}  // namespace vrellis
