// Writes the measured figures as tables. A cell holds the values of the three sizes.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <initializer_list>

#include "report/report.h"

namespace encap_bench {
namespace {

using Names = std::initializer_list<const char *>;

constexpr char kFind[] = "find, hit";
constexpr char kShare[] = "find and share";
constexpr char kChange[] = "NH deleted, inserted";
constexpr char kLone[] = "tunnel with its only NH inserted, deleted";
constexpr char kNoPoints[] = "encap_db, points off";

constexpr const char *kOperations[] = {kFind, "find, NH missing", "find, tunnel missing",  kShare, kChange,
                                       kLone, "read back",        "NH detached, attached", "mix"};

// "S / M / L", of what `value` gives for each size.
template <typename Value>
std::string by_size(Value value, int decimals) {
  std::string text;
  for (const char *size : kSizes) {
    text += (text.empty() ? "" : " / ") + number(value(size), decimals);
  }
  return text;
}

// One table: a row for each of `rows`, a column for each of `columns`, and in each cell what `cell` gives for the two.
template <typename Rows, typename Columns, typename Cell>
std::string table(const Rows &rows, const Columns &columns, Cell cell) {
  std::string names = "| |";
  std::string rule = "|---|";
  for (const char *column : columns) {
    names += std::string(" ") + column + " |";
    rule += "---:|";
  }
  std::string text = names + "\n" + rule + "\n";
  for (const auto &row : rows) {
    text += "| " + std::string(row) + " |";
    for (const char *column : columns) {
      text += " " + cell(row, column) + " |";
    }
    text += "\n";
  }
  return text + "\n";
}

std::string medians_of(const Results &results, const char *what, const char *who) {
  return by_size([&](const char *size) { return results.median({"ns", size, what, who}); }, 0);
}

// What the database takes, over what the other takes: the median of the ratios of each round.
std::string ratios_of(const Results &results, const char *what, const char *who) {
  const auto ratio = [&](const char *size) {
    return results.ratio({"ns", size, what, kOurs}, {"ns", size, what, who});
  };
  return by_size(ratio, 2);
}

double encapsulations_at(const std::string &size) {
  unsigned tunnels = 0;
  unsigned nhs = 0;
  if (size == "S" || size == "M" || size == "L") {
    return size == "S" ? 64 * 8 : size == "M" ? 4096 * 8 : 65535 * 15;
  }
  return std::sscanf(size.c_str(), "%ux%u", &tunnels, &nhs) == 2 ? double{1} * tunnels * nhs : 0;
}

std::string points_text(const Results &results) {
  std::string text =
      "What the points and their records cost, ns:\n\n| | with records | points off | ratio |\n"
      "|---|---:|---:|---:|\n";
  for (const char *what : {kFind, kShare, kChange, kLone}) {
    text += std::string("| ") + what + " | " + medians_of(results, what, kOurs) + " | " +
            medians_of(results, what, kNoPoints) + " | " + ratios_of(results, what, kNoPoints) + " |\n";
  }
  for (const char *what : {"a trace record", "a point, message and trace off"}) {
    text += std::string("| ") + what + " | " + number(results.median({"ns", "S", what, ""}), 1) + " | | |\n";
  }
  return text + "\n";
}

}  // namespace

std::string machine_text(const Results &results) {
  return "Processor: " + results.info("processor") + ", " + results.info("processors") +
         " of them online. Compiler: " + results.info("compiler") + ". Build: " + results.info("build") +
         ". Rounds: " + results.info("rounds") +
         ". Longest watch of a mutex (`PTD_SPIN_NS`): " + results.info("watch") + ".\n\n";
}

std::string ratios_text(const Results &results) {
  return "### encap_db over each alternative\n\nMedians of the ratios of the rounds of one run, S / M / L. Below 1 the "
         "database is faster.\n\n" +
         table(kOperations, Names{kBound, kMap, kFixedMap, kHash, kLmdb},
               [&](const char *what, const char *who) { return ratios_of(results, what, who); });
}

std::string operations_text(const Results &results) {
  return "![Medians](performance.svg)\n\n### Operations, ns\n\nMedians, S / M / L.\n\n" +
         table(kOperations, Names{kOurs, kBound, kMap, kFixedMap, kHash, kLmdb},
               [&](const char *what, const char *who) { return medians_of(results, what, who); }) +
         "The mutex pair alone: " + medians_of(results, "mutex pair", "mutex pair") + " ns.\n\n" + points_text(results);
}

std::string processes_text(const Results &results) {
  std::vector<std::string> rows;
  for (const char *operation : {kFind, kChange, "mix"}) {
    for (const char *processes : {"1", "2", "4"}) {
      rows.push_back(std::string(operation) + "/" + processes);
    }
  }
  return "### Several processes on one store\n\nThe number behind the operation is that of the processes. Million "
         "operations a second, of all processes together, S / M / L; in brackets the longest operation of any process, "
         "ms.\n\n" +
         table(rows, Names{kOurs, kMap, kHash, kLmdb},
               [&](const std::string &what, const char *who) {
                 const auto of = [&](const char *kind) {
                   return [&, kind](const char *size) { return results.median({kind, size, what, who}) / 1e6; };
                 };
                 return by_size(of("rate"), 2) + " (" + by_size(of("wait"), 1) + ")";
               }) +
         "How long an operation takes among the others, waiting included, at M: half of the operations / 99 % / 99.9 % "
         "/ "
         "all take at most so many microseconds. The reading of the clock is in it.\n\n" +
         table(rows, Names{kOurs, kMap, kHash, kLmdb}, [&](const std::string &what, const char *who) {
           std::string text;
           for (const char *kind : {"p50", "p99", "p99.9", "wait"}) {
             text += (text.empty() ? "" : " / ") + number(results.median({kind, "M", what, who}) / 1e3, 2);
           }
           return text;
         });
}

std::string peek_text(const Results &results) {
  static constexpr char kOne[] = "find, hit/1", kTwo[] = "find, hit/2", kBeside[] = "find, hit, beside a writer";
  struct Row {
    const char *text, *kind, *what, *who;  // over
    const char *other_what, *other_who;    // the rate of these
  };
  constexpr Row kRows[] = {
      {"time of a peek, over that of a find, in one process", "rate", kOne, kOurs, kOne, kPeek},
      {"two processes that peek, over one", "rate", kTwo, kPeek, kOne, kPeek},
      {"peek beside a process that deletes and inserts NHs, over peek alone", "first", kBeside, kPeek, kOne, kPeek},
      {"that process, over itself alone", "last", kBeside, kPeek, "NH deleted, inserted/1", kOurs},
      {"two processes that peek, over two readers of LMDB with its own locks", "rate", kTwo, kPeek, kTwo, kLmdbOwn},
      {"two processes that peek, over two in unordered_map under the mutex", "rate", kTwo, kPeek, kTwo, kHash},
  };
  std::string text =
      "### Looking without the lock\n\nRatios of rates, medians of the rounds of one run, S / M / L.\n\n| | S / M / L "
      "|\n|---|---:|\n";
  for (const Row &row : kRows) {
    const auto ratio = [&](const char *size) {
      return results.ratio({row.kind, size, row.what, row.who}, {"rate", size, row.other_what, row.other_who});
    };
    text += std::string("| ") + row.text + " | " + by_size(ratio, 2) + " |\n";
  }
  return text + "\n";
}

std::string clients_text(const Results &results) {
  constexpr char kClient[] = "client";
  const Names columns = {"operations, ns", "client, ns", "client / operations"};
  const auto single = [&](const char *kind, const char *what, int decimals) {
    return std::string("| ") + what + " | " +
           by_size(
               [&](const char *size) {
                 return results.median({kind, size, what, kClient});
               },
               decimals) +
           " |\n";
  };
  return "### Clients\n\nA client beside the operations that it is made of, in one run and on one database, S / M / "
         "L.\n\n" +
         table(Names{"present key entered, released", "new NH entered, released"}, columns,
               [&](const char *what, const std::string &column) {
                 const auto ratio = [&](const char *size) {
                   return results.ratio({"ns", size, what, kClient}, {"ns", size, what, kOurs});
                 };
                 return column == columns.begin()[2]
                            ? by_size(ratio, 2)
                            : medians_of(results, what, column == columns.begin()[0] ? kOurs : kClient);
               }) +
         "| | S / M / L |\n|---|---:|\n" + single("ms", "open a client that holds all, ms", 1) +
         single("ms", "refresh of all holdings, ms", 1) + single("bytes", "a holding, bytes", 1) +
         single("bytes", "a client of 100 holdings, bytes", 0) + single("bytes", "no client, bytes", 0) + "\n";
}

std::string memory_text(const Results &results) {
  const double encapsulations = results.median({"count", "L", "NHs", ""});
  const Names columns = {"bytes in use", "an encapsulation"};
  return "### Memory at L\n\n" +
         table(Names{kOurs, kMap, kFixedMap, kHash, kLmdb}, columns,
               [&](const char *who, const char *column) {
                 const double bytes = results.median({"bytes", "L", "in use", who});
                 return column == *columns.begin() ? number(bytes, 0) : number(bytes / encapsulations, 1);
               }) +
         "The window for 65,535 x 15: " + number(results.median({"count", "L", "window", ""}) / (1 << 20), 1) +
         " MiB.\n\n";
}

std::string growth_text(const Results &results) {
  std::vector<std::string> sizes = results.sizes("ns");
  std::sort(sizes.begin(), sizes.end(),
            [](const std::string &a, const std::string &b) { return encapsulations_at(a) < encapsulations_at(b); });
  std::string text =
      "### Growth\n\nA find that hits, as the database grows. Levels: the binary logarithm of the number of "
      "encapsulations.\n\n| size | encapsulations | levels | encap_db, ns | ns a level | bound, ns |\n"
      "|---|---:|---:|---:|---:|---:|\n";
  for (const std::string &size : sizes) {
    const double ours = results.median({"ns", size, kFind, kOurs});
    const double levels = std::log2(encapsulations_at(size));
    text += "| " + size + " | " + number(encapsulations_at(size), 0) + " | " + number(levels, 1) + " | " +
            number(ours, 0) + " | " + number(ours / levels, 1) + " | " +
            number(results.median({"ns", size, kFind, kBound}), 0) + " |\n";
  }
  return text + "\nWhere the NH nodes of a new tunnel get no room to lie together, S / M / L: " +
         medians_of(results, kFind, "encap_db, no groups") + " ns.\n\n";
}

std::string instructions_text(const Results &results) {
  return "### Instructions at S\n\nCounted by callgrind, an operation.\n\n" +
         table(Names{"find-hit", "find-and-share", "delete-insert", "lone-tunnel", "read-back"},
               Names{"lock", "searches", "points", "the rest", "all"}, [&](const char *operation, const char *part) {
                 return number(results.median({"instr", "S", operation, part}), 0);
               });
}

}  // namespace encap_bench
