// encapctl trace: what the processes did, from their trace files, merged by time.
#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "perfetto.h"
#include "traces.h"
#include "verbs.h"

namespace encapctl {
namespace {

struct TraceOptions {
  std::optional<std::uint32_t> pid;
  RecordFilter filter;
  double since = 0;  // seconds; 0: all
  std::string directory;
  std::string perfetto;
  bool follow = false;
  std::uint64_t limit = kNoLimit;
  OutputOptions output;
};

constexpr int kFollowPauseMs = 200;

TraceFiles open_files(const TraceOptions &options) {
  const std::vector<std::string> directories = trace_directories(options.directory);
  return open_traces(directories,
                     [&](const vrellis::TraceListing &listing) { return !options.pid || *options.pid == listing.pid; });
}

void print_event(const Output &out, const vrellis::TraceRecord &event) {
  if (out.json()) {
    out.object("event", event_json(event));
  } else {
    out.line("{}", out.styled(is_error(event) ? Style::bad : Style::plain, event_text(event)));
  }
}

// Keeps what the filter admits; at most the newest `limit`.
void select(const TraceOptions &options, std::vector<vrellis::TraceRecord> &events) {
  std::erase_if(events, [&](const auto &event) { return !options.filter.admits(event); });
  if (events.size() > options.limit) {
    events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(options.limit));
  }
}

void tell_losses(const TraceFiles &files, const vrellis::TraceMerge &merge) {
  std::uint64_t overwritten = 0;
  std::uint64_t damaged = 0;
  std::uint64_t dropped = 0;
  for (const vrellis::RingReport &ring : merge.rings) {
    overwritten += ring.overwritten_records;
    damaged += ring.damaged_blocks;
  }
  for (const auto &file : files) {
    dropped += file->records_dropped();
  }
  if (overwritten != 0) {
    warn(fmt::format("{} older records were overwritten by newer ones", overwritten));
  }
  if (dropped != 0) {
    warn(fmt::format("{} records were dropped, as their threads found no ring", dropped));
  }
  if (damaged != 0) {
    warn(fmt::format("{} blocks of the trace files are damaged", damaged));
  }
}

volatile std::sig_atomic_t interrupted = 0;

// Until it is interrupted; the last line is whole then, too.
int follow(const TraceOptions &options) {
  for (const int signal : {SIGINT, SIGTERM}) {
    std::signal(signal, [](int) { interrupted = 1; });
  }
  const Output out(options.output);
  TraceTail tail;
  bool first = true;
  while (interrupted == 0) {
    const TraceFiles files = open_files(options);
    std::vector<vrellis::TraceRecord> events = tail.read(files);
    std::erase_if(events, [&](const auto &event) { return !options.filter.admits(event); });
    const std::uint64_t skip = first && events.size() > options.limit ? events.size() - options.limit : 0;
    std::for_each(events.begin() + static_cast<std::ptrdiff_t>(skip), events.end(),
                  [&](const auto &event) { print_event(out, event); });
    std::fflush(stdout);
    first = false;
    poll(nullptr, 0, kFollowPauseMs);
  }
  return kDone;
}

int run(TraceOptions &options) {
  if (options.since > 0) {
    options.filter.since_ns = realtime_now() - static_cast<std::int64_t>(options.since * 1e9);
  }
  if (options.follow) {
    return follow(options);
  }
  const TraceFiles files = open_files(options);
  if (files.empty()) {
    throw Failure(options.pid ? fmt::format("process {} has left no trace file", *options.pid)
                              : std::string("there are no trace files to read"));
  }
  vrellis::TraceMerge merge = vrellis::merge_traces(files);
  select(options, merge.events);
  if (!options.perfetto.empty()) {
    write_perfetto(options.perfetto, merge.events);
  } else {
    const Output out(options.output);
    std::for_each(merge.events.begin(), merge.events.end(), [&](const auto &event) { print_event(out, event); });
  }
  if (merge.events.size() < options.limit) {
    tell_losses(files, merge);
  }
  return merge.events.empty() ? kFindings : kDone;
}

}  // namespace

void add_trace(CLI::App &app, int &status) {
  auto options = std::make_shared<TraceOptions>();
  CLI::App &verb =
      add_verb(app, "trace", "What processes did, alive or dead, from their trace files, merged by time",
               "  encapctl trace --since 5s\n"
               "  encapctl trace --index 4711             the life of one NH\n"
               "  encapctl trace 1234 --point 'vrl_insert_*' --follow\n"
               "  encapctl trace --perfetto trace.json    for the Perfetto viewer\n"
               "A '~' behind a time: put between two times that were read. Exit status 1: no such record.");
  verb.add_option("pid", options->pid, "Of this process alone")->type_name("PID");
  verb.add_flag("--follow", options->follow, "Go on with records as they are written, until interrupted");
  verb.add_option("--index", options->filter.nh, "About this NH index")->type_name("N");
  verb.add_option("--tunnel", options->filter.tunnel, "About this tunnel index")->type_name("N");
  verb.add_option("--point", options->filter.point, "Of this trace point, or of the points in this function (* and ?)")
      ->type_name("ID|FUNCTION");
  const std::map<std::string, double> units = {{"ms", 1e-3}, {"s", 1}, {"m", 60}, {"h", 3600}};
  verb.add_option("--since", options->since, "Not older than this: 500ms, 5s, 2m, 1h")
      ->transform(CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::UNIT_REQUIRED, "TIME"))
      ->option_text("TIME");
  CLI::Option *const perfetto =
      verb.add_option("--perfetto", options->perfetto, "Write trace-event JSON for the Perfetto viewer instead")
          ->type_name("FILE");
  perfetto->excludes("--follow");
  add_limit_option(verb, options->limit, "The newest N alone");
  add_trace_directory_option(verb, options->directory);
  add_output_options(verb, options->output);
  verb.callback([options, &status] { status = run(*options); });
}

}  // namespace encapctl
