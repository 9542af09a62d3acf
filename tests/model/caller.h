// A caller of the database that chooses its next operation at random, from few keys and indexes so that they meet.
#ifndef ENCAP_TESTS_CALLER_H
#define ENCAP_TESTS_CALLER_H

#include <functional>
#include <string>

#include "model/operations.h"

namespace crash {

class Caller {
 public:
  // A number below the limit, which is not 0.
  using Below = std::function<std::uint32_t(std::uint32_t limit)>;

  // `stray`: breaks the rules as well: indexes in use or out of range, wrong flags, spare bits of keys.
  Caller(encap_test::Model model, Below below, bool stray);

  // Makes one more operation on the database and on the model, and compares all that it can have changed: the answer,
  // the slots that it names, and what both then find for its key. Returns "" or what is wrong.
  std::string step();

  // Compares every slot, every tree and every count. Returns "" or what is wrong.
  std::string compare_all() const;

  const encap_test::Model &model() const { return model_; }

 private:
  Operation next();
  Operation next_entry();
  Operation entry(const egress_encap_key_t &key);
  egress_encap_key_t any_key();
  std::uint32_t any_nh();
  std::uint32_t free_nh() const;
  std::uint32_t free_tunnel() const;
  std::string compare_slots(const Operation &operation, std::uint32_t tunnel) const;

  encap_test::Model model_;
  Below below_;
  bool stray_;
};

}  // namespace crash

#endif
