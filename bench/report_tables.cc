// What was measured, as tables.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "report.h"

namespace encap_bench {
namespace {

constexpr const char *kOperations[] = {
    "find, hit",      "find, NH missing",      "find, tunnel missing",
    "find and share", "NH deleted, inserted",  "tunnel with its only NH inserted, deleted",
    "read back",      "NH detached, attached", "mix"};

constexpr const char *kStores[] = {kOurs, kMap, kPooledMap, kFixedMap, kFlatMap, kHash, kLmdb};

// "S / M / L", a cell of most tables.
template <typename Value>
std::string by_size(Value value, int decimals) {
  std::string text;
  for (const char *size : kSizes) {
    text += (text.empty() ? "" : " / ") + number(value(size), decimals);
  }
  return text;
}

template <typename Columns>
std::string head(const std::string &first, const Columns &columns) {
  std::string names = "| " + first + " |";
  std::string rule = "|---|";
  for (const char *column : columns) {
    names += std::string(" ") + column + " |";
    rule += "---:|";
  }
  return names + "\n" + rule + "\n";
}

std::string medians_of(const Results &results) {
  constexpr const char *columns[] = {kOurs, kBound, kMap, kPooledMap, kFixedMap, kFlatMap, kHash, kLmdb};
  std::string text = "### Operations, ns\n\nMedians, S / M / L.\n\n" + head("", columns);
  for (const char *operation : kOperations) {
    text += std::string("| ") + operation + " |";
    for (const char *who : columns) {
      text += " " + by_size([&](const char *size) { return results.median({"ns", size, operation, who}); }, 0) + " |";
    }
    text += "\n";
  }
  return text + "\n";
}

std::string ratios_of(const Results &results) {
  constexpr const char *columns[] = {kBound, kMap, kPooledMap, kFixedMap, kFlatMap, kHash, kLmdb};
  std::string text =
      "### encap_db over each contestant\n\nBelow 1: the database is faster. S / M / L.\n\n" + head("", columns);
  for (const char *operation : kOperations) {
    text += std::string("| ") + operation + " |";
    for (const char *who : columns) {
      const auto ratio = [&](const char *size) {
        return results.ratio({"ns", size, operation, kOurs}, {"ns", size, operation, who});
      };
      text += " " + by_size(ratio, 2) + " |";
    }
    text += "\n";
  }
  return text + "\n";
}

double nodes_of(const std::string &size) {
  unsigned tunnels = 0;
  unsigned nhs = 0;
  if (size == "S" || size == "M" || size == "L") {
    return size == "S" ? 64 * 8 : size == "M" ? 4096 * 8 : 65535 * 15;
  }
  return std::sscanf(size.c_str(), "%ux%u", &tunnels, &nhs) == 2 ? double{1} * tunnels * nhs : 0;
}

}  // namespace

std::string machine_text(const Results &results) {
  return "Processor: " + results.info("processor") + ", " + results.info("processors") +
         " of them online. Compiler: " + results.info("compiler") + ". Build: " + results.info("build") +
         ". Rounds: " + results.info("rounds") +
         ". Longest watch of a mutex (`PTD_SPIN_NS`): " + results.info("watch") + ".\n\n";
}

std::string operations_text(const Results &results) {
  const auto times = [&](const char *what, const char *who) {
    return by_size([&](const char *size) { return results.median({"ns", size, what, who}); }, 0);
  };
  constexpr char kNoPoints[] = "encap_db, points off";
  std::string text = "![Medians](performance.svg)\n\n" + medians_of(results) +
                     "The mutex pair alone: " + times("mutex pair", "mutex pair") + " ns.\n\n" +
                     "What the points and their records cost, ns:\n\n| | as it is | points off | points off / map |\n" +
                     "|---|---:|---:|---:|\n";
  for (const char *what :
       {"find, hit", "find and share", "NH deleted, inserted", "tunnel with its only NH inserted, deleted"}) {
    const auto ratio = [&](const char *size) {
      return results.ratio({"ns", size, what, kNoPoints}, {"ns", size, what, kMap});
    };
    text += std::string("| ") + what + " | " + times(what, kOurs) + " | " + times(what, kNoPoints) + " | " +
            by_size(ratio, 2) + " |\n";
  }
  return text + "\n" + ratios_of(results);
}

std::string processes_text(const Results &results) {
  constexpr const char *columns[] = {kOurs, kMap, kPooledMap, kHash, kLmdb};
  std::string text =
      "### Several processes on one store\n\nMillion operations a second, of all processes together, S / M / L; in "
      "brackets the longest operation of any process, ms.\n\n" +
      head("", columns);
  for (const char *operation : {"find, hit", "NH deleted, inserted", "mix"}) {
    for (const char *processes : {"1", "2", "4"}) {
      const std::string what = std::string(operation) + "/" + processes;
      text += std::string("| ") + operation + ", " + processes + (processes[0] == '1' ? " process |" : " processes |");
      for (const char *who : columns) {
        const auto rate = [&](const char *size) { return results.median({"rate", size, what, who}) / 1e6; };
        const auto wait = [&](const char *size) { return results.median({"wait", size, what, who}) / 1e6; };
        text += " " + by_size(rate, 2) + " (" + by_size(wait, 1) + ") |";
      }
      text += "\n";
    }
  }
  return text + "\n";
}

std::string memory_text(const Results &results) {
  const auto count = [&](const char *what) { return results.median({"count", "L", what, ""}); };
  std::string text = "### Memory at L\n\n| | bytes in use | an encapsulation |\n|---|---:|---:|\n";
  for (const char *who : kStores) {
    const double bytes = results.median({"bytes", "L", "in use", who});
    text += std::string("| ") + who + " | " + number(bytes, 0) + " | " + number(bytes / count("NHs"), 1) + " |\n";
  }
  const double goal = (28 + 40 + 4) * count("NHs") + (16 + 56 + 4) * count("tunnels") + 4096;
  const double ours = results.median({"bytes", "L", "in use", kOurs});
  const double window = count("window");
  return text + "\nGoal: 28 + 40 + 4 bytes an NH, 16 + 56 + 4 a tunnel and a page, " + number(goal, 0) +
         " bytes: " + (ours <= goal ? "met" : "missed") +
         ". The window for 65,535 x 15: " + number(window / (1 << 20), 1) +
         " MiB, goal below 80: " + (window < 80.0 * (1 << 20) ? "met" : "missed") + ".\n\n";
}

std::string growth_text(const Results &results) {
  std::vector<std::string> sizes = results.sizes("ns");
  std::sort(sizes.begin(), sizes.end(),
            [](const std::string &a, const std::string &b) { return nodes_of(a) < nodes_of(b); });
  std::string text =
      "### Growth\n\nA find hit as the database grows. Levels: binary logarithms of the numbers of tunnels and of NHs "
      "on "
      "each, added up.\n\n| size | encapsulations | levels | encap_db, ns | ns a level | bound, ns |\n"
      "|---|---:|---:|---:|---:|---:|\n";
  for (const std::string &size : sizes) {
    const double ours = results.median({"ns", size, "find, hit", kOurs});
    const double levels = std::log2(nodes_of(size));
    text += "| " + size + " | " + number(nodes_of(size), 0) + " | " + number(levels, 1) + " | " + number(ours, 0) +
            " | " + number(ours / levels, 1) + " | " + number(results.median({"ns", size, "find, hit", kBound}), 0) +
            " |\n";
  }
  return text + "\n";
}

std::string instructions_text(const Results &results) {
  constexpr const char *columns[] = {"lock", "searches", "points", "the rest", "all"};
  std::string text = "### Instructions at S\n\nCounted by callgrind, an operation.\n\n" + head("", columns);
  for (const char *operation : {"find-hit", "find-and-share", "delete-insert", "lone-tunnel", "read-back"}) {
    text += std::string("| ") + operation + " |";
    for (const char *part : columns) {
      text += " " + number(results.median({"instr", "S", operation, part}), 0) + " |";
    }
    text += "\n";
  }
  return text + "\n";
}

}  // namespace encap_bench
