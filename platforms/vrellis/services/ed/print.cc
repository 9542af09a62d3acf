#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <optional>
#include <string_view>

#include "ed.h"
#include "ed/registry.h"
#include "oxa_errmsg/log_line.h"
#include "oxa_errmsg/outlet.h"
#include "oxa_errmsg/rate_limit.h"

namespace {

using namespace vrellis;

constexpr size_t kSlowPoints = 256;
constexpr unsigned kMaxValues = 15;

// State of the slow rule for one point, claimed by the first pass and never given back.
struct SlowPoint {
  std::atomic<const ed_site_t *> site{nullptr};
  oxa_msg_limit_t limit{};
};

constinit std::array<SlowPoint, kSlowPoints> slow_points{};
constinit SinkCell<ed_sink_fn> sink;

void print(const ed_site_t &site, const ed_component_t &component, const uint64_t *values, uint32_t own_line,
           const char *format, uint32_t held_back) {
  const int errno_before = errno;
  LogLine line;
  line.text(component.name).text(" ").text(category_name(component, site.category)).text(" ");
  const std::optional<uint32_t> id = point_id(component, own_line);
  line.text(id ? "id " : "line ").number(id.value_or(own_line)).text(": ");
  const unsigned num_values = values == nullptr ? 0 : std::min(site.num_values, kMaxValues);
  const auto room = line.room();
  line.used(ed_format_joined(room.data(), room.size(), or_nothing(format), values, num_values));
  if (held_back != 0) {
    line.text(" (").number(held_back).text(" suppressed)");
  }
  put_line(line);
  errno = errno_before;
}

// The point's state under the slow rule: its own, or that of its first place when all are taken.
oxa_msg_limit_t &slow_limit_of(const ed_site_t *site) {
  const size_t first = reinterpret_cast<uintptr_t>(site) / sizeof(ed_site_t) % kSlowPoints;
  for (size_t i = 0; i < kSlowPoints; ++i) {
    SlowPoint &slow = slow_points[(first + i) % kSlowPoints];
    const ed_site_t *owner = slow.site.load(std::memory_order_relaxed);
    if (owner == nullptr && slow.site.compare_exchange_strong(owner, site, std::memory_order_relaxed)) {
      return slow.limit;
    }
    if (owner == site) {
      return slow.limit;
    }
  }
  return slow_points[first].limit;
}

// The line filter, as the points themselves apply it to messages that are on.
bool passes_line_filter(uint16_t flags, uint32_t line_word, uint32_t own_line) {
  const bool filter = (flags & ED_SITE_LINE_FILTER) != 0;
  if (!filter && line_word >> ED_FILTER_SET_SHIFT == 0) {
    return true;
  }
  const bool enabled = !filter || (line_word & ED_LINE_MASK) == own_line;
  return enabled != ((flags & ED_SITE_INVERT) != 0);
}

}  // namespace

void vrellis::put_line(LogLine &line) {
  const std::string_view whole = line.finish();
  const auto to = sink.get();
  if (to.function != nullptr) {
    to.function(to.context, whole.data(), whole.size());
  } else {
    write_to_stderr(whole);
  }
}

void ed_set_sink(ed_sink_fn function, void *context) {
  sink.set(function, context);
}

void ed_print_debug(ed_site_t *site, ed_component_t *component, const uint64_t *values, uint64_t, uint32_t line,
                    uint64_t, const char *format, uint64_t) {
  print(*site, *component, values, line, format, 0);
}

void ed_slow_debugs(ed_site_t *site, ed_component_t *component, int *enabled, const uint64_t *values, uint64_t,
                    uint32_t line, uint64_t, const char *format, uint64_t) {
  const uint16_t flags = flags_of(*site);
  if (!passes_line_filter(flags, line_word_of(*site), line)) {
    return;
  }
  const Admission admission = admit(slow_limit_of(site), ED_SLOW_BURST, coarse_now_ms(), ED_SLOW_WINDOW_MS);
  if (!admission.shown) {
    return;
  }
  *enabled = 1;
  if ((flags & (ED_SITE_QUIET | ED_SITE_TRACE_IF_ON)) == 0) {
    print(*site, *component, values, line, format, admission.held_back);
  }
}
