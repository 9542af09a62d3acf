/*
 * What the debug facility's registry and its printing side know of each other. Internal.
 */
#ifndef VRELLIS_ED_REGISTRY_H
#define VRELLIS_ED_REGISTRY_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <optional>

#include "ed.h"
#include "oxa_errmsg/log_line.h"

namespace vrellis {

inline const char *or_nothing(const char *text) {
  return text == nullptr ? "" : text;
}

// What changes in a registered point is read and written by relaxed atomics: the points read it without a lock.
inline uint16_t flags_of(ed_site_t &site) {
  return std::atomic_ref(site.flags).load(std::memory_order_relaxed);
}
inline uint32_t line_word_of(ed_site_t &site) {
  return std::atomic_ref(site.line).load(std::memory_order_relaxed);
}

inline const char *category_name(const ed_component_t &component, uint8_t category) {
  const bool known = category < std::min<uint32_t>(component.num_flags, ED_MAX_FLAGS);
  return known ? or_nothing(component.flag[category].name) : "";
}

// The id of the point that stands on a line, by the component's catalogue. No lock.
std::optional<uint32_t> point_id(const ed_component_t &component, uint32_t own_line);

// Finishes a line and hands it to the sink. No lock.
void put_line(LogLine &line);

}  // namespace vrellis

#endif
