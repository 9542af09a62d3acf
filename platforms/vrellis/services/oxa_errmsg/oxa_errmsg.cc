#include "oxa_errmsg.h"

#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "oxa_errmsg/log_line.h"
#include "oxa_errmsg/outlet.h"
#include "oxa_errmsg/rate_limit.h"

namespace {

using namespace vrellis;

struct NamedSink {
  std::string_view name;  // in OXA_ERRMSG
  oxa_sink_fn sink;
};
constexpr std::array<NamedSink, 3> kNamedSinks = {{
    {"stderr", oxa_sink_stderr},
    {"syslog", oxa_sink_syslog},
    {"off", oxa_sink_off},
}};

constinit SinkCell<oxa_sink_fn> chosen_sink;
constinit std::atomic<oxa_sink_fn> environment_sink{nullptr};  // nullptr until OXA_ERRMSG was read

oxa_sink_fn read_environment() {
  const char *wanted = secure_getenv("OXA_ERRMSG");
  if (wanted == nullptr) {
    return oxa_sink_stderr;
  }
  for (const NamedSink &known : kNamedSinks) {
    if (known.name == wanted) {
      return known.sink;
    }
  }
  LogLine line;
  line.text("OXA_ERRMSG is '")
      .text(wanted)
      .text("', which is none of stderr, syslog and off: error messages go to stderr");
  write_to_stderr(line.finish());
  return oxa_sink_stderr;
}

SinkCell<oxa_sink_fn>::Sink current_sink() {
  const auto chosen = chosen_sink.get();
  if (chosen.function != nullptr) {
    return chosen;
  }
  oxa_sink_fn fallback = environment_sink.load(std::memory_order_relaxed);
  if (fallback == nullptr) {
    fallback = read_environment();
    environment_sink.store(fallback, std::memory_order_relaxed);
  }
  return {fallback, nullptr};
}

void append_message(LogLine &line, const oxa_msg_rec_t &record, va_list arguments) {
  const char *format = record.format == nullptr ? "?" : record.format;
  const auto room = line.room();
  // A format is constant text that its component was built with: no input reaches it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int wanted = std::vsnprintf(room.data(), room.size(), format, arguments);
#pragma GCC diagnostic pop
  line.used(wanted < 0 ? 0 : static_cast<size_t>(wanted));
}

void show(const oxa_msg_rec_t &record, int severity, uint32_t held_back, va_list arguments) {
  LogLine line;
  line.text(record.group).text("-").text(record.facility).text("-");
  line.number(static_cast<uint32_t>(severity)).text("-").text(record.name).text(": ");
  append_message(line, record, arguments);
  if (held_back != 0) {
    line.text(" (").number(held_back).text(" suppressed)");
  }
  const std::string_view whole = line.finish();
  const auto sink = current_sink();
  sink.function(sink.context, severity, whole.data(), whole.size());
}

}  // namespace

int oxa_errmsg(const oxa_msg_rec_t *record, int severity, ...) {
  if (record == nullptr) {
    return EINVAL;
  }
  const int errno_before = errno;
  Admission admission{true, 0};
  if (record->limit != nullptr) {
    admission =
        admit(*record->limit, __atomic_load_n(&record->limit->burst, __ATOMIC_RELAXED), coarse_now_ms(), OXA_WINDOW_MS);
  }
  if (admission.shown) {
    va_list arguments;
    va_start(arguments, severity);
    show(*record, severity, admission.held_back, arguments);
    va_end(arguments);
  }
  errno = errno_before;
  return admission.shown ? 0 : 1;
}

void oxa_set_sink(oxa_sink_fn sink, void *context) {
  chosen_sink.set(sink, context);
}

void oxa_sink_stderr(void *, int, const char *line, size_t length) {
  write_to_stderr({line, length});
}

void oxa_sink_syslog(void *, int severity, const char *line, size_t length) {
  std::string_view rest(line, length);
  const size_t time_end = rest.find(' ', rest.find(' ') + 1);
  if (time_end != rest.npos) {  // the log daemon has a date and a time of its own
    rest.remove_prefix(time_end + 1);
  }
  const int priority = severity < OXA_SEVERITY_ERROR    ? LOG_CRIT
                       : severity == OXA_SEVERITY_ERROR ? LOG_ERR
                                                        : LOG_WARNING;
  send_to_syslog(priority, rest);
}

void oxa_sink_off(void *, int, const char *, size_t) {}

void oxa_limit_read(const oxa_msg_limit_t *limit, oxa_limit_counts_t *counts) {
  const auto &state = reinterpret_cast<const RateLimitState &>(*limit);
  counts->shown = __atomic_load_n(&state.shown, __ATOMIC_RELAXED);
  counts->suppressed = __atomic_load_n(&state.suppressed, __ATOMIC_RELAXED);
  counts->pending = __atomic_load_n(&state.pending, __ATOMIC_RELAXED);
  counts->burst = __atomic_load_n(&state.burst, __ATOMIC_RELAXED);
}
