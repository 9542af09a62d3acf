// What the demo tells a person, and the count of its expectations.
#ifndef ENCAP_DEMO_REPORT_H
#define ENCAP_DEMO_REPORT_H

#include <fmt/format.h>

#include <cstdint>
#include <string_view>
#include <utility>

namespace demo {

class Report {
 public:
  explicit Report(bool colour) : colour_(colour) {}

  void heading(std::string_view text) {
    gap();
    emphasize("\033[1m", text);
  }

  void gap() { fmt::print("\n"); }

  template <typename... Values>
  void line(fmt::format_string<Values...> format, Values &&...values) {
    fmt::print("  {}\n", fmt::format(format, std::forward<Values>(values)...));
  }

  // Counts one expectation; says what was expected and what was seen when they differ.
  template <typename Value>
  bool expect(std::string_view what, const Value &expected, const Value &seen) {
    if (expected == seen) {
      ++expectations_;
      return true;
    }
    fail(fmt::format("{}: expected {}, seen {}", what, expected, seen));
    return false;
  }
  bool expect_true(std::string_view what, bool seen) { return expect(what, true, seen); }

  void fail(std::string_view text) {
    ++expectations_;
    ++failures_;
    emphasize("\033[1;31m", fmt::format("  FAILED  {}", text));
  }

  std::uint32_t expectations() const { return expectations_; }
  std::uint32_t failures() const { return failures_; }

 private:
  void emphasize(const char *colour, std::string_view text) {
    fmt::print("{}{}{}\n", colour_ ? colour : "", text, colour_ ? "\033[0m" : "");
  }

  const bool colour_;
  std::uint32_t expectations_ = 0;
  std::uint32_t failures_ = 0;
};

}  // namespace demo

#endif
