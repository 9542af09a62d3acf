#include "trace/perfetto.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "output/failure.h"
#include "trace/operations.h"
#include "trace/traces.h"

namespace encapctl {
namespace {

using vrellis::TraceRecord;

// One JSON array, an event a line.
class EventFile {
 public:
  explicit EventFile(const std::string &path) : path_(path), file_(std::fopen(path.c_str(), "we"), &std::fclose) {
    if (file_ == nullptr) {
      throw Failure(fmt::format("cannot write '{}': {}", path, std::strerror(errno)));
    }
    fmt::print(file_.get(), "{{\"displayTimeUnit\":\"ns\",\"traceEvents\":[");
  }

  void add(const Json &event) {
    fmt::print(file_.get(), "{}{}", first_ ? "\n" : ",\n", event.dump(-1, ' ', false, Json::error_handler_t::replace));
    first_ = false;
  }

  void finish(std::int64_t base_ns) {
    fmt::print(file_.get(), "\n],\"otherData\":{{\"time_of_0_ns\":{}}}}}\n", base_ns);
    if (std::fflush(file_.get()) != 0 || std::ferror(file_.get()) != 0) {
      throw Failure(fmt::format("cannot write '{}': {}", path_, std::strerror(errno)));
    }
  }

 private:
  std::string path_;
  std::unique_ptr<std::FILE, int (*)(std::FILE *)> file_;
  bool first_ = true;
};

// Microseconds since the first record, exact to the nanosecond.
double microseconds(std::int64_t time_ns, std::int64_t base_ns) {
  return static_cast<double>(time_ns - base_ns) / 1000;
}

void add_thread(EventFile &file, std::span<const TraceRecord> events, std::int64_t base_ns) {
  const std::uint32_t pid = events[0].file->pid();
  for (const Operation &operation : operations_of(events)) {
    const TraceRecord &first = events[operation.first];
    const TraceRecord &last = events[operation.end - 1];
    file.add({{"name", operation.function},
              {"cat", "operation"},
              {"ph", "X"},
              {"ts", microseconds(first.time_ns, base_ns)},
              {"dur", microseconds(last.time_ns, first.time_ns)},
              {"pid", pid},
              {"tid", first.tid},
              {"args", {{"records", operation.end - operation.first}}}});
  }
  for (const TraceRecord &event : events) {
    const Json fields = event_json(event);
    file.add({{"name", fields["function"].is_null() ? Json("?") : fields["function"]},
              {"cat", fields["category"].is_null() ? Json("?") : fields["category"]},
              {"ph", "i"},
              {"s", "t"},
              {"ts", microseconds(event.time_ns, base_ns)},
              {"pid", pid},
              {"tid", event.tid},
              {"args", {{"id", event.id}, {"message", fields["message"]}, {"nh", fields["nh"]}}}});
  }
}

}  // namespace

void write_perfetto(const std::string &path, std::span<const TraceRecord> events) {
  EventFile file(path);
  const std::int64_t base_ns = events.empty() ? 0 : events[0].time_ns;
  std::map<std::pair<std::string, std::uint32_t>, std::vector<TraceRecord>> threads;  // by trace file and thread
  std::set<std::uint32_t> named;
  for (const TraceRecord &event : events) {
    threads[{event.file->path(), event.tid}].push_back(event);
    if (named.insert(event.file->pid()).second) {
      file.add({{"name", "process_name"},
                {"ph", "M"},
                {"pid", event.file->pid()},
                {"args", {{"name", event.file->comm() + (event.file->alive() ? "" : " (dead)")}}}});
    }
  }
  for (const auto &[thread, records] : threads) {
    add_thread(file, records, base_ns);
  }
  file.finish(base_ns);
}

}  // namespace encapctl
