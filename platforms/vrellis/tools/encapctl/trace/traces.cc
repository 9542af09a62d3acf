#include "trace/traces.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <glob.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <ctime>

#include "diag/catalogue.h"
#include "ed.h"
#include "ltrace/file.h"
#include "output/failure.h"
#include "trace/subjects.h"

namespace encapctl {
namespace {

using vrellis::TraceFile;
using vrellis::TraceListing;
using vrellis::TraceRecord;

constexpr const ed_catalogue_t *kCatalogues[] = {&encap_catalogue};

std::optional<std::uint32_t> as_number(const std::string &text) {
  std::uint32_t number = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  return problem == std::errc{} && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

bool is_point(const ed_catalogue_row_t &row, const std::string &wanted) {
  const std::optional<std::uint32_t> id = as_number(wanted);
  return id ? row.id == *id : fnmatch(wanted.c_str(), row.function, 0) == 0;
}

std::string message_of(const TraceRecord &event, const ed_catalogue_row_t &row) {
  char text[512];
  ed_format_joined(text, sizeof text, row.format, event.value.data(), std::min(event.num_values, row.num_values));
  return text;
}

// How many of the last records are of a point that its thread may still be writing.
std::size_t unfinished(std::span<const TraceRecord> records) {
  if (records.empty()) {
    return 0;
  }
  const ed_catalogue_row_t *const row = row_of(records.back());
  const std::size_t written = records.back().number * std::size_t{7} + records.back().num_values;
  return row != nullptr && written < row->num_values ? records.back().number + std::size_t{1} : 0;
}

std::vector<std::string> directories_of(const TraceDirectory &named) {
  if (!named.directory.empty()) {
    return {named.directory};
  }
  std::vector<std::string> found;
  glob_t matches{};
  if (glob("/dev/shm/vrellis-trace-*", 0, nullptr, &matches) == 0) {
    found.assign(matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
  }
  globfree(&matches);
  return found;
}

}  // namespace

TraceFiles open_traces(const TraceDirectory &directory, const Wanted &wanted) {
  TraceFiles files;
  for (const std::string &each : directories_of(directory)) {
    for (const TraceListing &listing : vrellis::list_traces(each)) {
      struct stat status {};
      if (lstat(listing.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || !wanted(listing, status.st_uid)) {
        continue;
      }
      std::string error;
      std::unique_ptr<TraceFile> file = TraceFile::open(listing.path, error);
      if (file == nullptr) {
        warn(printable(error));
      } else if (file->pid() != listing.pid || file->header().start_time != listing.start_time) {
        warn(fmt::format("{} is the trace file of another process than its name tells", printable(listing.path)));
      } else {
        files.push_back(std::move(file));
      }
    }
  }
  return files;
}

bool RecordFilter::admits(const TraceRecord &event) const {
  if (event.time_ns < since_ns) {
    return false;
  }
  const ed_catalogue_row_t *const row = row_of(event);
  const Subjects subjects = subjects_of(event, row);
  return (!nh || subjects.nh == nh) && (!tunnel || subjects.tunnel == tunnel) &&
         (point.empty() || (row != nullptr && is_point(*row, point)));
}

void require_point(const std::string &point) {
  const std::span<const ed_catalogue_row_t> rows(encap_catalogue.row, encap_catalogue.num_rows);
  if (!point.empty() && std::none_of(rows.begin(), rows.end(), [&](const auto &row) { return is_point(row, point); })) {
    throw Failure(fmt::format("no trace point is called '{}': see encapctl debug list", point));
  }
}

std::string event_text(const TraceRecord &event) {
  std::string text = vrellis::render_event(event, kCatalogues);
  text.resize(text.find_last_not_of(' ') + 1);
  return text;
}

Json event_json(const TraceRecord &event) {
  const ed_catalogue_row_t *const row = row_of(event);
  const Subjects subjects = subjects_of(event, row);
  Json fields = {{"time_ns", event.time_ns},
                 {"exact", event.exact},
                 {"pid", event.file->pid()},
                 {"tid", event.tid},
                 {"comm", event.file->comm()},
                 {"component", event.file->component(event.tag)},
                 {"id", event.id},
                 {"category", nullptr},
                 {"function", nullptr},
                 {"message", nullptr},
                 {"nh", nullptr},
                 {"tunnel", nullptr},
                 {"values", Json(std::vector(event.value.begin(), event.value.begin() + event.num_values))}};
  if (row != nullptr) {
    fields["category"] = encap_catalogue.category[row->category];
    fields["function"] = row->function;
    fields["message"] = message_of(event, *row);
  }
  if (subjects.nh) {
    fields["nh"] = *subjects.nh;
  }
  if (subjects.tunnel) {
    fields["tunnel"] = *subjects.tunnel;
  }
  return fields;
}

const ed_catalogue_row_t *row_of(const TraceRecord &event) {
  return vrellis::find_row(event, kCatalogues);
}

bool is_error(const TraceRecord &event) {
  const ed_catalogue_row_t *const row = row_of(event);
  return row != nullptr && row->category == 0;
}

std::int64_t realtime_now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::vector<TraceRecord> TraceTail::read_ring(const TraceFile &file, std::uint32_t ring,
                                              const vrellis::TickClock &clock) {
  vrellis::RingReport report;
  const std::vector<TraceRecord> records = file.records(ring, clock, report);
  Place &place = place_[{file.path(), ring}];
  const std::uint64_t written = report.overwritten_records + records.size();
  if (place.tid != report.tid || written < place.records) {
    place = {report.tid, 0};  // another thread has taken the ring
  }
  const std::uint64_t skip = std::max(place.records, report.overwritten_records) - report.overwritten_records;
  std::span<const TraceRecord> fresh(records);
  fresh = fresh.subspan(std::min<std::size_t>(skip, records.size()));
  fresh = fresh.first(fresh.size() - std::min(unfinished(fresh), fresh.size()));
  place.records = report.overwritten_records + skip + fresh.size();
  std::uint64_t orphans = 0;
  return vrellis::join_records(fresh, orphans);
}

std::vector<TraceRecord> TraceTail::read(const TraceFiles &files) {
  std::vector<const TraceFile *> all;
  for (const auto &file : files) {
    all.push_back(file.get());
  }
  std::vector<TraceRecord> events;
  const vrellis::TickClock clock(all);
  for (const TraceFile *file : all) {
    for (std::uint32_t ring = 0; ring < file->num_rings(); ++ring) {
      const std::vector<TraceRecord> fresh = read_ring(*file, ring, clock);
      events.insert(events.end(), fresh.begin(), fresh.end());
    }
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const TraceRecord &a, const TraceRecord &b) { return a.time_ns < b.time_ns; });
  return events;
}

}  // namespace encapctl
