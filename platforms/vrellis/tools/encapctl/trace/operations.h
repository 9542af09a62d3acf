// The operations of the library that a thread ran, made out from its trace records.
#ifndef ENCAPCTL_OPERATIONS_H
#define ENCAPCTL_OPERATIONS_H

#include <span>
#include <string_view>
#include <vector>

#include "ltrace/reader.h"

namespace encapctl {

// A run of records [first, end) of one thread: an operation from its first record to its last. Two operations of a
// thread lie one after the other, or one within the other (the insert within the attach).
struct Operation {
  std::size_t first;
  std::size_t end;
  std::string_view function;
};

// `events` are one thread's, oldest first. Every record lies in an operation; enclosing operations come before those
// within them.
std::vector<Operation> operations_of(std::span<const vrellis::TraceRecord> events);

}  // namespace encapctl

#endif
