// Doubles of the services that are told things: debug facility, light trace, error messages, thread debug.
#include <algorithm>
#include <cstdarg>

#include "diag/catalogue.h"
#include "doubles/journal.h"
#include "doubles/story.h"
#include "ed.h"
#include "ltrace.h"
#include "oxa_errmsg.h"
#include "ptd.h"

namespace encap_test {
namespace {

int slow_answer = 0;

void trace(std::uint64_t handle, std::uint64_t header, std::initializer_list<std::uint64_t> values) {
  const auto id = static_cast<std::uint32_t>(header & 0x7fffff);
  const std::uint64_t record = header >> 28 & 7;
  const bool registered = registration().calls > 0;
  const std::uint64_t category = id < sites().size() ? sites()[id].site->category : 99;
  std::string entry = "trace(" + std::to_string(id) + "." + std::to_string(record) + ")";
  char separator = '=';
  for (const std::uint64_t value : values) {
    entry += separator + std::to_string(value);
    separator = ',';
  }
  const std::uint64_t tag = registered ? std::uint64_t{kTag & 0x1f} << 23 : 0;
  if (header != ((std::uint64_t{7} << 32) | 0x80000000u | record << 28 | tag | id)) {
    entry += "!header" + std::to_string(header);
  }
  if (handle != (registered ? kHandles + category : 0)) {
    entry += "!handle" + std::to_string(handle);
  }
  journal().add(entry);
  journal().saw_point(id);
  if (const auto action = at_point().find(id); action != at_point().end()) {
    action->second();
  }
}

void message(const char *call, ed_site_t *site, ed_component_t *component, const std::uint64_t *values,
             std::uint64_t zeros, std::uint32_t line, const char *format) {
  const auto &all = sites();
  const auto at = std::find_if(all.begin(), all.end(), [site](const Site &each) { return each.site == site; });
  const auto id = static_cast<std::uint32_t>(at - all.begin());
  std::string entry = std::string(call) + "(" + std::to_string(id) + ")";
  for (std::uint32_t i = 0; i < site->num_values; ++i) {
    entry += (i ? "," : "=") + std::to_string(values[i]);
  }
  const bool known = at != all.end() && id != kNeverEmitted;
  entry += known && at->line == line ? "" : "!line" + std::to_string(line);
  entry += known && std::string_view(format) == encap_catalogue.row[id].format ? "" : std::string("!format") + format;
  entry += zeros == 0 ? "" : "!zeros";
  entry += registration().component == nullptr || registration().component == component ? "" : "!component";
  journal().add(entry);
  journal().saw_point(id);
}

}  // namespace

Registration &registration() {
  static Registration the;
  return the;
}

std::map<std::uint32_t, std::function<void()>> &at_point() {
  static std::map<std::uint32_t, std::function<void()>> the;
  return the;
}
void slow_answers(int enabled) {
  slow_answer = enabled;
}

}  // namespace encap_test

using namespace encap_test;

void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, int line) {
  journal().add("waits(" + std::string(mutex == &arena().header()->lock.mutex ? "lock," : "other,") + function + "," +
                std::to_string(line) + ")");
}

void ptd_unset_mutex_block() {
  journal().add("waited");
}

void ed_init(ed_component_t *component) {
  journal().add("ed_init");
  Registration &seen = registration();
  ++seen.calls;
  seen.component = component;
  seen.record = *component;
  component->trace_tag = kTag;
  for (std::uint64_t i = 0; i < ED_MAX_FLAGS; ++i) {
    component->trace_handle[i] = kHandles + i;
  }
}

void ed_print_debug(ed_site_t *site, ed_component_t *component, const std::uint64_t *values, std::uint64_t zero,
                    std::uint32_t line, std::uint64_t zero_too, const char *format, std::uint64_t zero_end) {
  message("print", site, component, values, zero | zero_too | zero_end, line, format);
}

void ed_slow_debugs(ed_site_t *site, ed_component_t *component, int *enabled, const std::uint64_t *values,
                    std::uint64_t zero, std::uint32_t line, std::uint64_t zero_too, const char *format,
                    std::uint64_t zero_end) {
  message(*enabled == 0 ? "slow" : "slow!enabled", site, component, values, zero | zero_too | zero_end, line, format);
  *enabled = slow_answer;
}

#define P(n) std::uint64_t v##n
#define LTRACE(count, parameters, ...)                                                  \
  void _ltrace_##count(std::uint64_t handle, std::uint64_t header, EXPAND parameters) { \
    trace(handle, header, {__VA_ARGS__});                                               \
  }
#define EXPAND(...) __VA_ARGS__
LTRACE(1, (P(1)), v1)
LTRACE(2, (P(1), P(2)), v1, v2)
LTRACE(3, (P(1), P(2), P(3)), v1, v2, v3)
LTRACE(4, (P(1), P(2), P(3), P(4)), v1, v2, v3, v4)
LTRACE(5, (P(1), P(2), P(3), P(4), P(5)), v1, v2, v3, v4, v5)
LTRACE(6, (P(1), P(2), P(3), P(4), P(5), P(6)), v1, v2, v3, v4, v5, v6)
LTRACE(7, (P(1), P(2), P(3), P(4), P(5), P(6), P(7)), v1, v2, v3, v4, v5, v6, v7)

int oxa_errmsg(const oxa_msg_rec_t *record, int severity, ...) {
  std::va_list arguments;
  va_start(arguments, severity);
  std::string entry = std::string(record->name) + "(" + va_arg(arguments, const char *);
  const std::string_view format = record->format;
  for (auto values = std::count(format.begin(), format.end(), '%'); values > 1; --values) {
    entry += "," + std::to_string(va_arg(arguments, std::uint32_t));
  }
  va_end(arguments);
  journal().add(entry + ")" + (severity == 2 ? "" : "!severity"));
  return 0;
}
