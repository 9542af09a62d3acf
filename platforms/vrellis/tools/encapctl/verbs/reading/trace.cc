// encapctl trace: what the processes did, from their trace files, merged by time.
#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "trace/perfetto.h"
#include "trace/window_traces.h"
#include "verbs.h"

namespace encapctl {
namespace {

struct TraceVerbOptions {
  std::optional<std::uint32_t> pid;
  RecordFilter filter;
  double since = 0;  // seconds; 0: all
  std::string perfetto;
  bool follow = false;
  std::uint64_t limit = kNoLimit;
  WindowOptions window;
  TraceOptions traces;
  OutputOptions output;
};

constexpr int kFollowPauseMs = 200;

// The files of the process that was named, else of all, else of those that are attached to the database.
TraceFiles open_files(const TraceVerbOptions &options) {
  if (options.pid || options.traces.all) {
    return open_traces(options.traces, [&](const vrellis::TraceListing &listing, uid_t) {
      return !options.pid || *options.pid == listing.pid;
    });
  }
  return traces_of(attached_to(SourceOptions{options.window, {}}), options.traces);
}

void print_event(const Output &out, const vrellis::TraceRecord &event) {
  if (out.json()) {
    out.object("event", event_json(event));
  } else {
    out.line("{}", out.styled(is_error(event) ? Style::bad : Style::plain, event_text(event)));
  }
}

struct Losses {
  std::uint64_t overwritten = 0;
  std::uint64_t left_unread = 0;
  std::uint64_t dropped = 0;
  std::uint64_t damaged = 0;
};

Losses losses_of(const TraceFiles &files, const vrellis::TraceMerge &merge) {
  Losses losses;
  for (const vrellis::RingReport &ring : merge.rings) {
    losses.overwritten += ring.overwritten_records;
    losses.left_unread += ring.left_unread;
    losses.damaged += ring.damaged_blocks;
  }
  for (const auto &file : files) {
    losses.dropped += file->records_dropped();
  }
  return losses;
}

void warn_of(const Losses &losses) {
  if (losses.left_unread != 0) {
    warn(fmt::format("{} older records were left unread: the trace files hold too much", losses.left_unread));
  }
  if (losses.overwritten != 0) {
    warn(fmt::format("{} older records were overwritten by newer ones", losses.overwritten));
  }
  if (losses.dropped != 0) {
    warn(fmt::format("{} records were dropped, as their threads found no ring", losses.dropped));
  }
  if (losses.damaged != 0) {
    warn(fmt::format("{} blocks of the trace files are damaged", losses.damaged));
  }
}

volatile std::sig_atomic_t interrupted = 0;

// Until it is interrupted; the last line is whole then, too.
int follow(const TraceVerbOptions &options) {
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
    flush_out();
    first = false;
    poll(nullptr, 0, kFollowPauseMs);
  }
  return kDone;
}

TraceFiles open_some_files(const TraceVerbOptions &options) {
  TraceFiles files = open_files(options);
  if (files.empty()) {
    throw Failure(options.pid          ? fmt::format("process {} has left no trace file", *options.pid)
                  : options.traces.all ? std::string("there are no trace files to read")
                                       : fmt::format("no process that is attached to '{}' has a trace file; "
                                                     "--all-traces reads those of all processes",
                                                     options.window.path()));
  }
  return files;
}

int run(TraceVerbOptions &options) {
  require_point(options.filter.point);
  if (options.since > 0) {
    options.filter.since_ns = realtime_now() - static_cast<std::int64_t>(options.since * 1e9);
  }
  if (options.follow) {
    return follow(options);
  }
  const TraceFiles files = open_some_files(options);
  vrellis::TraceMerge merge = vrellis::merge_traces(files);
  std::vector<vrellis::TraceRecord> &events = merge.events;
  std::erase_if(events, [&](const auto &event) { return !options.filter.admits(event); });
  const std::size_t matched = events.size();
  events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(std::min(options.limit, matched)));
  const Losses losses = losses_of(files, merge);
  const Output out(options.output);
  if (!options.perfetto.empty()) {
    write_perfetto(options.perfetto, events);
  } else {
    std::for_each(events.begin(), events.end(), [&](const auto &event) { print_event(out, event); });
  }
  if (out.json()) {
    out.object("trace", {{"files", files.size()},
                         {"shown", events.size()},
                         {"matched", matched},
                         {"overwritten", losses.overwritten},
                         {"dropped", losses.dropped},
                         {"damaged_blocks", losses.damaged}});
  } else if (events.size() < matched) {
    warn(fmt::format("{} older records match, too: see --limit", matched - events.size()));
  } else {
    warn_of(losses);
  }
  if (matched == 0) {
    warn(fmt::format("no record in {} matches", counted(files.size(), "trace file")));
  }
  return matched == 0 ? kFindings : kDone;
}

}  // namespace

void add_trace(CLI::App &app, int &status) {
  auto [verb, options] = add_verb<TraceVerbOptions>(
      app, status, run, "trace", "What processes did, alive or dead, from their trace files, merged by time",
      "  encapctl trace --since 5s\n"
      "  encapctl trace --index 4711             the life of one NH\n"
      "  encapctl trace 1234 --point 'vrl_insert_*' --follow\n"
      "  encapctl trace --perfetto trace.json    for the Perfetto viewer\n"
      "Without PID: of the processes that are attached to the window, or were when they died.\n"
      "A '~' behind a time: it was put between two times that were read. Exit status 1: no such record.");
  verb.add_option("pid", options.pid, "Of this process alone, with any database")->type_name("PID");
  verb.add_flag("--follow", options.follow, "Go on with records as they are written, until interrupted");
  verb.add_option("--index", options.filter.nh, "About this NH index")->type_name("N");
  verb.add_option("--tunnel", options.filter.tunnel, "About this tunnel index")->type_name("N");
  verb.add_option("--point", options.filter.point, "Of this trace point, or of the points in this function (* and ?)")
      ->type_name("ID|FUNCTION");
  add_time_option(verb, "--since", options.since, "Not older than this: 500ms, 5s, 2m, 1h");
  CLI::Option *const perfetto =
      verb.add_option("--perfetto", options.perfetto, "Write trace-event JSON for the Perfetto viewer instead")
          ->type_name("FILE");
  perfetto->excludes("--follow");
  add_limit_option(verb, options.limit, "The newest N alone");
}

}  // namespace encapctl
