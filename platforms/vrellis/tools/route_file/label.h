// Which labels may stand in the stack of an encapsulation: one rule for listings and for what a router sends.
#ifndef VRELLIS_ROUTE_FILE_LABEL_H
#define VRELLIS_ROUTE_FILE_LABEL_H

#include <cstdint>

namespace route_file {

inline constexpr unsigned kMaxLabels = 3;
inline constexpr std::uint32_t kMaxLabel = (1u << 20) - 1;
inline constexpr std::uint32_t kImplicitNull = 3;

// Returns: why a label may not stand at its place in a stack; nullptr when it may.
inline const char *reserved_label_fault(std::uint32_t label, bool above_bottom) {
  if (label == kImplicitNull) {
    return "label 3 is the implicit null, which never stands in a stack";
  }
  if (label == 0 && above_bottom) {
    return "label 0 is the explicit null, which stands at the bottom of a stack only";
  }
  return nullptr;
}

}  // namespace route_file

#endif
