// What the debug points must be: written down here a second time, so that the library's own table is checked by one
// that it does not share.
#ifndef ENCAP_TESTS_EXPECTED_POINTS_H
#define ENCAP_TESTS_EXPECTED_POINTS_H

#include <cstdint>
#include <string>
#include <vector>

namespace encap_test {

inline constexpr std::uint32_t kPoints = 120;
inline constexpr std::uint32_t kNeverEmitted = 88;

struct ExpectedPoint {
  std::uint32_t id;
  std::uint8_t category;  // 0 error, 1 event, 2 init
  bool traced;
  std::string function;
  std::string message;              // string pieces joined
  std::vector<std::string> values;  // names of the values, in order; a number stands for itself
};

const std::vector<ExpectedPoint> &expected_points();

// The pieces of a stored text (each in double quotes, one blank between pieces) joined; "" when the form is broken.
std::string join_pieces(const std::string &stored);

// Number of conversions in a printf-style format.
std::size_t conversions(const std::string &format);

}  // namespace encap_test

#endif
