// Rounds of Google Benchmark runs: in each, every registered benchmark runs once, contestants of one operation one
// after the other, so that a slow moment of the machine meets them all.
#ifndef ENCAP_BENCH_ROUNDS_H
#define ENCAP_BENCH_ROUNDS_H

#include <benchmark/benchmark.h>

#include <string>

namespace encap_bench {

// The programs' arguments: SIZE ROUNDS RESULTS DIRECTORY, then Google Benchmark's own.
struct Arguments {
  Arguments(int argc, char **argv);
  std::string size;
  int rounds;
  std::string results;    // file to append samples to
  std::string directory;  // on the shared-memory file system
};

// The round that is running, from 0.
int current_round();

// The name under which a benchmark is registered: its kind, operation and contestant.
std::string benchmark_name(const std::string &kind, const std::string &what, const std::string &who);

// Runs all registered benchmarks, round by round; appends a sample for each, and one for each of its counters, whose
// names are kinds. Returns: the program's exit status, 1 when a benchmark reported an error.
int run_rounds(const Arguments &arguments);

}  // namespace encap_bench

#endif
