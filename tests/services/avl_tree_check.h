// What the tests of the tree service share: a node, its order, and a checker of all invariants of a tree.
#ifndef TESTS_SERVICES_AVL_TREE_CHECK_H
#define TESTS_SERVICES_AVL_TREE_CHECK_H

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "avl.h"
#include "avl/link.h"

namespace avl_tests {

using vrellis::avl::Link;
using vrellis::avl::Word;

struct Node {
  Link link{};
  std::uint64_t key = 0;
};

using Keys = std::vector<std::uint64_t>;

extern "C" inline int compare_keys(const void *a, const void *b) {
  const std::uint64_t left = static_cast<const Node *>(a)->key;
  const std::uint64_t right = static_cast<const Node *>(b)->key;
  return left < right ? 0 : left == right ? 1 : 2;
}

inline Node probe_for(std::uint64_t key) {
  Node probe;
  probe.link = {{~Word{0}, ~Word{0}}, ~Word{0}};  // the service must not read a probe's linkage
  probe.key = key;
  return probe;
}

inline Node *find(void *root, std::uint64_t key) {
  const Node probe = probe_for(key);
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
  const Word lean = after == before       ? vrellis::avl::kLevel
                    : after == before + 1 ? vrellis::avl::leaning(1)
                    : before == after + 1 ? vrellis::avl::leaning(0)
                                          : ~Word{0};
  if (lean_of(link) != lean) {
    complain("wrong balance");
  }
  return 1 + std::max(before, after);
}

inline View view_of(void *const *field) {
  View view;
  look(static_cast<const Link *>(*field), vrellis::avl::address_of(field) | vrellis::avl::kRoot, view);
  return view;
}

// One order of insertion for each shape that AVL trees of 1 to `most` keys can have; the keys are 2, 4, 6, ...
inline std::vector<Keys> orders_of_all_shapes(std::size_t most) {
  std::vector<Keys> orders;
  std::set<std::string> seen;
  for (std::size_t size = 1; size <= most; ++size) {
    Keys order(size);
    std::generate(order.begin(), order.end(), [key = std::uint64_t{0}]() mutable { return key += 2; });
    do {
      std::vector<Node> nodes(size);
      void *root = nullptr;
      int flag = 0;
      for (std::size_t i = 0; i < size; ++i) {
        nodes[i].key = order[i];
        avl_insert(&root, &nodes[i], &flag, compare_keys);
      }
      if (seen.insert(view_of(&root).shape).second) {
        orders.push_back(order);
      }
    } while (std::next_permutation(order.begin(), order.end()));
  }
  return orders;
}

}  // namespace avl_tests

#endif
