// The chart: one panel an operation and size, a bar a contestant, each panel on its own scale.
#include <algorithm>
#include <cmath>
#include <vector>

#include "report/report.h"

namespace encap_bench {
namespace {

constexpr int kPanelWidth = 400;
constexpr int kPanelHeight = 150;
constexpr int kTop = 28;
constexpr int kBarHeight = 14;
constexpr int kBarStep = 18;
constexpr int kLabelWidth = 170;
constexpr int kLongestBar = kPanelWidth - kLabelWidth - 70;

constexpr const char *kOperations[] = {"find, hit", "find and share", "NH deleted, inserted"};
constexpr const char *kColumns[] = {kOurs, kBound, kMap, kFixedMap, kHash, kLmdb};
constexpr const char *kLabels[] = {"encap_db", "bound", "map", "map, pooled, fixed", "unordered_map", "LMDB"};

std::string text_at(int x, int y, const std::string &text, const std::string &more = "") {
  return "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\"" + more + ">" + text + "</text>\n";
}

std::string bar_at(int x, int y, int width, bool ours) {
  return "<rect x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" width=\"" + std::to_string(width) +
         "\" height=\"" + std::to_string(kBarHeight) + "\" fill=\"" + (ours ? "#0b6e4f" : "#9aa5b1") + "\"/>\n";
}

std::string panel(const Results &results, const char *operation, const char *size, int left, int top) {
  double longest = 0;
  for (const char *who : kColumns) {
    longest = std::fmax(longest, results.median({"ns", size, operation, who}));
  }
  std::string svg = text_at(left, top + 16, std::string(operation) + ", " + size + " (ns)", " font-weight=\"bold\"");
  int y = top + kTop;
  for (std::size_t i = 0; i < std::size(kColumns); ++i) {
    const double value = results.median({"ns", size, operation, kColumns[i]});
    if (std::isnan(value)) {
      continue;
    }
    const int width = std::max(1, static_cast<int>(value / longest * kLongestBar));
    svg += text_at(left + kLabelWidth - 6, y + 11, kLabels[i], " text-anchor=\"end\"");
    svg += bar_at(left + kLabelWidth, y, width, i == 0);
    svg += text_at(left + kLabelWidth + width + 4, y + 11, number(value, 0));
    y += kBarStep;
  }
  return svg;
}

}  // namespace

std::string chart_svg(const Results &results) {
  const int width = kPanelWidth * static_cast<int>(kSizes.size());
  const int height = kPanelHeight * static_cast<int>(std::size(kOperations));
  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(width) + "\" height=\"" +
                    std::to_string(height) +
                    "\" font-family=\"sans-serif\" font-size=\"12\" fill=\"#1f2933\">\n"
                    "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
  for (std::size_t row = 0; row < std::size(kOperations); ++row) {
    for (std::size_t column = 0; column < kSizes.size(); ++column) {
      svg += panel(results, kOperations[row], kSizes[column], static_cast<int>(column) * kPanelWidth + 8,
                   static_cast<int>(row) * kPanelHeight + 4);
    }
  }
  return svg + "</svg>\n";
}

}  // namespace encap_bench
