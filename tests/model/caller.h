// A caller of the database that chooses its next operation at random, from few keys and indexes so that they meet.
#ifndef ENCAP_TESTS_CALLER_H
#define ENCAP_TESTS_CALLER_H

#include <random>
#include <string>

#include "model/operations.h"

namespace crash {

class Caller {
 public:
  // `stray`: breaks the rules as well: indexes in use or out of range, wrong flags, spare bits of keys.
  Caller(encap_test::Model model, std::uint64_t seed, bool stray);

  // Makes one more operation on the database and on the model, and compares the answers, every slot, every tree and
  // every count. Returns "" or what is wrong.
  std::string step();

 private:
  Operation next();
  Operation next_entry();
  Operation entry(const egress_encap_key_t &key);
  egress_encap_key_t any_key();
  std::uint32_t any_nh();
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  encap_test::Model model_;
  std::mt19937_64 random_;
  bool stray_;
};

}  // namespace crash

#endif
