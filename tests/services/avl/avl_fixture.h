// The tree service compiled into a test, with a store() of the test, on trees in a window in plain memory; and a
// checker of all invariants of a tree. For one source of a test program.
#ifndef TESTS_SERVICES_AVL_FIXTURE_H
#define TESTS_SERVICES_AVL_FIXTURE_H

#define VRELLIS_AVL_STORE_H

#include <cstdint>

namespace vrellis::avl {

using Word [[gnu::may_alias]] = std::uint64_t;

inline void (*after_store)() = [] {};

inline void store(Word *word, Word value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
  after_store();
}

}  // namespace vrellis::avl

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "avl/avl.cc"        // NOLINT(bugprone-suspicious-include)
#include "avl/balance.cc"    // NOLINT(bugprone-suspicious-include)
#include "avl/undo/undo.cc"  // NOLINT(bugprone-suspicious-include)

// The service in the test refers to these two, which are internal to the library.
constinit thread_local vrellis::ThreadTrace vrellis::thread_trace;
constinit vrellis::WindowMap vrellis::window_maps[kMostWindows] = {};

namespace avl_tests {

using vrellis::avl::Link;
using vrellis::avl::Word;

struct Node {
  Link link{};
  std::uint64_t key = 0;
};

inline bool is_unlinked(const Node &node) {
  return node.link.child[0] == 0 && node.link.child[1] == 0 && node.link.up == 0;
}

using Keys = std::vector<std::uint64_t>;

extern "C" inline int compare_keys(const void *a, const void *b) {
  const std::uint64_t left = static_cast<const Node *>(a)->key;
  const std::uint64_t right = static_cast<const Node *>(b)->key;
  return left < right ? 0 : left == right ? 1 : 2;
}

inline Node *find(void *root, std::uint64_t key) {
  Node probe;
  probe.link = {{~Word{0}, ~Word{0}}, ~Word{0}};  // the service must not read a probe's linkage
  probe.key = key;
  return static_cast<Node *>(avl_search(root, &probe, compare_keys));
}

// A tree as seen from its root field. It is sound when `fault` is empty.
struct View {
  std::string fault;
  Keys keys;          // in the tree's order
  std::string shape;  // the same for trees that differ in keys only
};

inline int look(const Link *link, Word up, View &view) {
  if (link == nullptr) {
    view.shape += '.';
    return 0;
  }
  const auto *node = reinterpret_cast<const Node *>(link);
  const auto complain = [&](const char *what) { view.fault += what + (" at key " + std::to_string(node->key)) + "; "; };
  if ((link->up & vrellis::avl::kPlace) != up) {
    complain("wrong parent, root bit or root field");
  }
  view.shape += '(';
  const int before = look(child_of(link, 0), address_of(link), view);
  if (!view.keys.empty() && view.keys.back() >= node->key) {
    complain("out of order");
  }
  view.keys.push_back(node->key);
  const int after = look(child_of(link, 1), address_of(link), view);
  view.shape += ')';
  const Word lean = after == before ? vrellis::avl::kLevel : vrellis::avl::leaning(after > before ? 1 : 0);
  if (lean_of(link) != lean || after > before + 1 || before > after + 1) {
    complain("wrong balance");
  }
  return 1 + std::max(before, after);
}

inline View view_of(void *const *field) {
  View view;
  look(static_cast<const Link *>(*field), vrellis::avl::address_of(field) | vrellis::avl::kRoot, view);
  return view;
}

// A window, with one node for each key.
template <std::size_t Nodes>
struct WindowOf {
  void *root;  // the user area of the window's header
  void *other_root;
  std::byte rest_of_user_area[vrellis::kUserAreaBytes - 16];
  Word process_table[4];
  vrellis::avl::UndoLog log;
  Node node[Nodes];
};
using Window = WindowOf<800>;

class AvlTest : public testing::Test {
 protected:
  void SetUp() override {
    vrellis::WindowMap &map = vrellis::window_maps[1];  // entry 0 stays empty, so that the service has to search
    map.begin = reinterpret_cast<std::uintptr_t>(window_);
    map.end = map.begin + sizeof(Window);
    map.tree_area = &window_->log;
    map.user_area = window_;
  }
  void TearDown() override {
    vrellis::avl::after_store = [] {};
    vrellis::window_maps[1] = {};
  }

  static void build(const Keys &order) {
    std::memset(static_cast<void *>(window_), 0, sizeof(Window));
    for (std::size_t key = 0; key < std::size(window_->node); ++key) {
      window_->node[key].key = key;
    }
    for (const std::uint64_t key : order) {
      insert(key);
    }
  }

  static bool insert(std::uint64_t key, void **field = &window_->root) { return change(avl_insert, key, field, false); }

  // With the root field, or with a copy of it. The root's change is told in both.
  static bool change(decltype(avl_insert) *operation, std::uint64_t key, void **field, bool by_copy) {
    void *const before = *field;
    void *copy = before;
    const bool copied = by_copy && before != nullptr;
    const bool settled = window_->log.count == 0;  // else the root of a change that is taken back can move as well
    int flag = 0;
    const void *result = operation(copied ? &copy : field, &window_->node[key], &flag, compare_keys);
    EXPECT_TRUE(result == nullptr || result == &window_->node[key]);
    EXPECT_TRUE(!settled || flag == (*field != before ? 1 : 0));
    EXPECT_EQ(copy, copied ? *field : before);
    EXPECT_TRUE(operation != avl_delete || result == nullptr || is_unlinked(window_->node[key]));
    return result != nullptr;
  }

  static View tree() { return view_of(&window_->root); }

  static inline Window memory_;
  static constexpr Window *window_ = &memory_;
};

}  // namespace avl_tests

#endif
