// Trace records as a file for the Perfetto viewer: Chrome's trace-event JSON, operations as slices per thread, their
// records as instants in them.
#ifndef ENCAPCTL_PERFETTO_H
#define ENCAPCTL_PERFETTO_H

#include <span>
#include <string>

#include "ltrace/reader.h"

namespace encapctl {

// Writes `events`, which are in the order of their times. Throws Failure when the file cannot be written.
void write_perfetto(const std::string &path, std::span<const vrellis::TraceRecord> events);

}  // namespace encapctl

#endif
