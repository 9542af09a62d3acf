#include "trace/subjects.h"

#include "diag/catalogue.h"

namespace encapctl {
namespace {

// The value of that number, unless the value that tells whether it was found is 0; numbers count from 1.
std::optional<std::uint32_t> value_at(const vrellis::TraceRecord &event, unsigned number, unsigned found) {
  const bool given = number != 0 && number <= event.num_values;
  const bool means_something = found == 0 || found > event.num_values || event.value[found - 1] != 0;
  return given && means_something ? std::optional(static_cast<std::uint32_t>(event.value[number - 1])) : std::nullopt;
}

}  // namespace

Subjects subjects_of(const vrellis::TraceRecord &event, const ed_catalogue_row_t *row) {
  if (row == nullptr) {
    return {};
  }
  const encap_point_subject_t &about = encap_point_subject[row->id];
  return {value_at(event, about.nh, about.nh_found), value_at(event, about.tunnel, about.tunnel_found)};
}

}  // namespace encapctl
