#include "output.h"

#include <fmt/chrono.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace encapctl {
namespace {

constexpr std::array<std::string_view, 5> kCodes = {"", "\033[1m", "\033[32m", "\033[31m", "\033[2m"};

std::size_t terminal_columns() {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? std::max<std::size_t>(size.ws_col, 40) : 80;
}

}  // namespace

Output::Output(const OutputOptions &options) : json_(options.json) {
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  const char *const refused = std::getenv("NO_COLOR");
  color_ = terminal && !options.no_color && !options.json && (refused == nullptr || *refused == '\0');
  columns_ = terminal ? terminal_columns() : SIZE_MAX;
}

void Output::object(std::string_view kind, const Json &fields) const {
  Json whole = {{"schema", "encapctl/1"}, {"kind", kind}};
  whole.update(fields);
  line("{}", whole.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string Output::styled(Style style, std::string_view text) const {
  if (!color_ || style == Style::plain) {
    return std::string(text);
  }
  return fmt::format("{}{}\033[0m", kCodes[static_cast<std::size_t>(style)], text);
}

void print_fact(const Output &out, std::string_view name, std::string_view value) {
  out.line("{} {}", out.styled(Style::faint, fmt::format("{:<12}", name)), value);
}

void Table::row(std::vector<std::string> cells, Style style) {
  cells.resize(columns_.size());
  rows_.push_back({std::move(cells), style});
}

std::string Table::text_of(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths) const {
  std::string text;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const bool left = columns_[i].align == Align::left;
    text += i == 0 ? "" : "  ";
    text += left ? fmt::format("{:<{}}", cells[i], widths[i]) : fmt::format("{:>{}}", cells[i], widths[i]);
  }
  text.resize(text.find_last_not_of(' ') + 1);
  return text;
}

void Table::print(const Output &out) const {
  std::vector<std::string> titles;
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    titles.emplace_back(columns_[i].title);
    widths.push_back(titles.back().size());
    for (const Row &row : rows_) {
      widths.back() = std::max(widths.back(), row.cells[i].size());
    }
  }
  out.line("{}", out.styled(Style::strong, text_of(titles, widths)));
  for (const Row &row : rows_) {
    std::string text = text_of(row.cells, widths);
    if (text.size() > out.columns()) {
      text.resize(out.columns() - 1);
      text += '>';
    }
    out.line("{}", out.styled(row.style, text));
  }
}

std::string counted(std::uint64_t number, std::string_view what) {
  return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

std::string bytes_text(std::uint64_t bytes) {
  constexpr std::array<std::string_view, 4> kUnits = {"B", "KiB", "MiB", "GiB"};
  auto amount = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; amount >= 1024 && unit + 1 < kUnits.size(); ++unit) {
    amount /= 1024;
  }
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", amount, kUnits[unit]);
}

std::string duration_text(std::uint64_t ns) {
  struct Unit {
    double ns;
    std::string_view name;
  };
  constexpr std::array<Unit, 5> kUnits = {{{60e9, "min"}, {1e9, "s"}, {1e6, "ms"}, {1e3, "us"}, {1, "ns"}}};
  const auto amount = static_cast<double>(ns);
  const auto fits = [&](const Unit &unit) { return amount >= unit.ns; };
  const auto unit = std::find_if(kUnits.begin(), kUnits.end() - 1, fits);
  return fmt::format("{:.3g} {}", amount / unit->ns, unit->name);
}

std::string percent_text(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? "-" : fmt::format("{:.1f} %", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string time_text(std::int64_t realtime_ns) {
  const std::time_t seconds = realtime_ns / 1'000'000'000;
  return fmt::format("{:%F %T}.{:03}", fmt::localtime(seconds), realtime_ns / 1'000'000 % 1000);
}

void warn(std::string_view sentence) {
  std::fflush(stdout);
  fmt::print(stderr, "encapctl: {}\n", sentence);
}

}  // namespace encapctl
