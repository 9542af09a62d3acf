// Which NH and which tunnel a trace record is about, as the table of points tells.
#ifndef ENCAPCTL_SUBJECTS_H
#define ENCAPCTL_SUBJECTS_H

#include <cstdint>
#include <optional>

#include "ltrace/reader.h"

namespace encapctl {

struct Subjects {
  std::optional<std::uint32_t> nh;
  std::optional<std::uint32_t> tunnel;
};

// `row` is the record's row in the catalogue, or nullptr.
Subjects subjects_of(const vrellis::TraceRecord &event, const ed_catalogue_row_t *row);

}  // namespace encapctl

#endif
