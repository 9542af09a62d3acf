#include "output/output.h"

#include <fmt/chrono.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace encapctl {
namespace {

// The codes of the styles, and last the code that ends each.
constexpr std::array<std::string_view, 6> kCodes = {"", "\033[1m", "\033[32m", "\033[31m", "\033[2m", "\033[0m"};

std::size_t terminal_columns() {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? std::max<std::size_t>(size.ws_col, 40) : 80;
}

// The length of the colour code at the start of `text`, 0 when there is none.
std::size_t code_length(std::string_view text) {
  const auto code = std::find_if(kCodes.begin() + 1, kCodes.end(), [&](auto each) { return text.starts_with(each); });
  return code != kCodes.end() ? code->size() : 0;
}

// `kept` are the characters below the blank that stay as they are. With `color`, so do our own colour codes.
std::string escaped(std::string_view text, std::string_view kept, bool color) {
  std::string out;
  while (!text.empty()) {
    const std::size_t code = color ? code_length(text) : 0;
    const char c = text.front();
    const bool plain = (c >= ' ' && c <= '~') || kept.find(c) != kept.npos;
    out += code != 0 ? std::string(text.substr(0, code))
           : plain   ? std::string(1, c)
                     : fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    text.remove_prefix(std::max<std::size_t>(code, 1));
  }
  return out;
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
  write_out(whole.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n");
}

void Output::print_line(const std::string &text) const {
  write_out(escaped(text, "", color_) + "\n");
}

std::string Output::styled(Style style, std::string_view text) const {
  if (!color_ || style == Style::plain) {
    return std::string(text);
  }
  return fmt::format("{}{}{}", kCodes[static_cast<std::size_t>(style)], text, kCodes.back());
}

void Output::fact(std::string_view name, std::string_view value) const {
  line("{} {}", styled(Style::faint, fmt::format("{:<12}", name)), value);
}

void Table::row(std::vector<std::string> cells, Style style) {
  cells.resize(columns_.size());
  std::transform(cells.begin(), cells.end(), cells.begin(), printable);
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
  const auto print_row = [&](const std::vector<std::string> &cells, Style style) {
    std::string text = text_of(cells, widths);
    if (text.size() > out.columns()) {
      text.resize(out.columns() - 1);
      text += '>';
    }
    out.line("{}", out.styled(style, text));
  };
  print_row(titles, Style::strong);
  for (const Row &row : rows_) {
    print_row(row.cells, row.style);
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

std::string printable(std::string_view text) {
  return escaped(text, "", false);
}

void write_out(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw OutputLost{errno};
  }
}

void flush_out() {
  if (std::fflush(stdout) != 0) {
    throw OutputLost{errno};
  }
}

void warn(std::string_view sentence) {
  std::fflush(stdout);
  std::fputs(escaped(fmt::format("encapctl: {}\n", sentence), "\n", false).c_str(), stderr);
}

}  // namespace encapctl
