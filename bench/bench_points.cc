// Times the points by themselves, compiled as in the library: the five that a find hit passes, whose records carry one
// to six values; with their records written (the default), and with message and trace off. Two searches stand before
// them, as in a find, since the trace takes its time stamp with an operation's first search; their own time is taken
// off.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "avl.h"
#include "diag/component.h"
#include "diag/points.h"
#include "ed.h"
#include "measuring/clock.h"
#include "measuring/rounds.h"

namespace encap_bench {
namespace {

using encap::emit;
using encap::Point;

constexpr std::uint32_t kPasses = 200000;
constexpr double kPointsOfFindHit = 5;

// A tree of one node: its search tells the trace that an operation begins, as those of a find do.
std::uint64_t node[3];
void *tree;

int find_node(const void *, const void *) {
  return 1;
}

void make_tree() {
  int changed = 0;
  avl_insert(&tree, node, &changed, find_node);
}

[[gnu::noinline]] void search_twice(std::uint32_t value) {
  benchmark::DoNotOptimize(value);
  benchmark::DoNotOptimize(avl_search(tree, node, find_node));
  benchmark::DoNotOptimize(avl_search(tree, node, find_node));
}

[[gnu::noinline]] void pass_points_of_find_hit(std::uint32_t value) {
  search_twice(value);
  emit<Point::tunnel_find_result>(value, value, value, true);
  emit<Point::find_tunnel_found>(value);
  emit<Point::nh_find_result>(value, value, 0U, 1U, 0U, true);
  emit<Point::find_nh_found>(value);
  emit<Point::find_return>(0, 1, 1, value, value);
}

double time_of(void (*body)(std::uint32_t)) {
  for (std::uint32_t n = 0; n < kPasses / 10; ++n) {
    body(n);
  }
  const double before = processor_ns();
  for (std::uint32_t n = 0; n < kPasses; ++n) {
    body(n);
  }
  return (processor_ns() - before) / kPasses;
}

void add(const char *what, const char *query) {
  benchmark::RegisterBenchmark(benchmark_name("", what, "").c_str(), [query](benchmark::State &state) {
    if (ed_query(query, nullptr) != 0) {
      state.SkipWithError("the points cannot be switched");
    }
    for (auto _ : state) {
      const double searches = time_of(search_twice);
      const double all = time_of(pass_points_of_find_hit);
      state.counters["ns"] = (all - searches) / kPointsOfFindHit;
    }
  })->Iterations(1);
}

}  // namespace
}  // namespace encap_bench

int main(int argc, char **argv) {
  const encap_bench::Arguments arguments(argc, argv);
  encap::mpls_egress_encap_dbg_init();

  encap_bench::make_tree();
  encap_bench::add("a trace record", "category event =_");
  encap_bench::add("a point, message and trace off", "category event -pst");
  return encap_bench::run_rounds(arguments);
}
