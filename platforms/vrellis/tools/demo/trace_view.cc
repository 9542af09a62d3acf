#include "trace_view.h"

#include <time.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "diag/catalogue.h"
#include "ltrace/reader.h"

namespace demo {
namespace {

constexpr std::size_t kColumns = 100;

std::unique_ptr<vrellis::TraceFile> trace_of(pid_t pid) {
  for (const vrellis::TraceListing &listing : vrellis::list_traces(vrellis::default_trace_directory())) {
    if (listing.pid == static_cast<std::uint32_t>(pid)) {
      std::string error;
      return vrellis::TraceFile::open(listing.path, error);
    }
  }
  return nullptr;
}

std::optional<ptd_wait_t> wait_of(pid_t pid) {
  const std::unique_ptr<vrellis::TraceFile> trace = trace_of(pid);
  for (const ptd_wait_t &wait : trace == nullptr ? std::vector<ptd_wait_t>{} : trace->waits()) {
    if (wait.mutex != 0) {
      return wait;
    }
  }
  return std::nullopt;
}

// Breaks a long line at blanks, what follows set in.
void print_wrapped(std::string_view text, Report &report) {
  constexpr std::string_view kIndent = "      ";
  std::string_view indent = "";
  while (!text.empty()) {
    const std::size_t room = kColumns - 4 - indent.size();
    const std::size_t blank = text.size() > room ? text.rfind(' ', room) : text.size();
    const std::size_t end = blank == std::string_view::npos || blank == 0 ? text.size() : blank;
    report.line("{}{}", indent, text.substr(0, end));
    text.remove_prefix(std::min(text.find_first_not_of(' ', end), text.size()));
    indent = kIndent;
  }
}

}  // namespace

std::optional<ptd_wait_t> await_wait(pid_t pid, int seconds) {
  constexpr int kTriesPerSecond = 1000;
  for (int tries = 0; tries < seconds * kTriesPerSecond; ++tries) {
    if (const std::optional<ptd_wait_t> wait = wait_of(pid)) {
      return wait;
    }
    const timespec pause{0, 1'000'000'000 / kTriesPerSecond};
    nanosleep(&pause, nullptr);
  }
  return std::nullopt;
}

std::size_t print_last_records(pid_t pid, std::size_t count, Report &report) {
  std::vector<std::unique_ptr<vrellis::TraceFile>> files;
  files.push_back(trace_of(pid));
  if (files.back() == nullptr) {
    return 0;
  }
  const ed_catalogue_t *const catalogues[] = {&encap_catalogue};
  const vrellis::TraceMerge trace = vrellis::merge_traces(files);
  const std::size_t first = trace.events.size() > count ? trace.events.size() - count : 0;
  for (std::size_t event = first; event < trace.events.size(); ++event) {
    std::string text = vrellis::render_event(trace.events[event], catalogues);
    text.resize(text.find_last_not_of(' ') + 1);
    print_wrapped(text, report);
  }
  return trace.events.size() - first;
}

}  // namespace demo
