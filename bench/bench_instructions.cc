// Runs one operation of the database a thousand times at size S, for callgrind to count. bench/instructions starts it.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "contestants/db.h"
#include "measuring/operations.h"

namespace encap_bench {
namespace {

constexpr std::size_t kCounted = 1000;
constexpr std::size_t kFirst = 2000;  // positions before it are for warming up: first calls, the thread's trace ring

// Where a process under valgrind has room.
constexpr std::uint64_t kAddress = 0x1500000000;

// Its instructions are taken off the count by name.
template <typename Op>
[[gnu::noinline]] bool repeat(EncapDb &db, const Workload &workload, std::size_t begin, std::size_t end) {
  bool right = true;
  for (std::size_t i = begin; i < end; ++i) {
    right = Op::run(db, workload, i) && right;
  }
  return right;
}

template <typename Op>
bool count(EncapDb &db, const Workload &workload) {
  bool right = repeat<Op>(db, workload, 0, kFirst);
  CALLGRIND_TOGGLE_COLLECT;
  right = repeat<Op>(db, workload, kFirst, kFirst + kCounted) && right;
  CALLGRIND_TOGGLE_COLLECT;
  return right;
}

struct Counted {
  const char *name;
  bool (*count)(EncapDb &, const Workload &);
};

constexpr Counted kOperations[] = {{"find-hit", count<FindHit>},
                                   {"find-and-share", count<FindAndShare>},
                                   {"delete-insert", count<DeleteInsert>},
                                   {"lone-tunnel", count<LoneTunnel>},
                                   {"read-back", count<ReadBack>}};

int run(const char *name, const char *directory) {
  for (const Counted &operation : kOperations) {
    if (std::strcmp(operation.name, name) == 0) {
      const Workload workload(shape_of("S"));
      EncapDb db(Place{directory}, workload, Role::creator, kAddress);
      const bool right = fill(db, workload) && operation.count(db, workload);
      return right ? 0 : 1;
    }
  }
  return 2;
}

}  // namespace
}  // namespace encap_bench

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s OPERATION DIRECTORY\n", argv[0]);
    return 2;
  }
  return encap_bench::run(argv[1], argv[2]);
}
