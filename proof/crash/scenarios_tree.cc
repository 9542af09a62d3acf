// Scenarios of the trees: every kind of turn, and every way in which a node leaves, in both trees.
#include "scenarios.h"

namespace crash {
namespace {

struct Shape {
  const char *name;
  std::vector<std::uint32_t> keys;  // entered in this order
  Verb verb;
  std::uint32_t key;
};

const Shape kShapes[] = {
    {"the first node", {}, Verb::kInsert, 1},
    {"no turn", {2, 1}, Verb::kInsert, 3},
    {"single turn at the root, right", {3, 2}, Verb::kInsert, 1},
    {"single turn at the root, left", {1, 2}, Verb::kInsert, 3},
    {"double turn at the root, left-right", {3, 1}, Verb::kInsert, 2},
    {"double turn at the root, right-left", {1, 3}, Verb::kInsert, 2},
    {"single turn below the root, right", {8, 4, 12, 2}, Verb::kInsert, 1},
    {"single turn below the root, left", {8, 4, 12, 14}, Verb::kInsert, 15},
    {"double turn below the root, left-right", {8, 4, 12, 2}, Verb::kInsert, 3},
    {"double turn below the root, right-left", {8, 4, 12, 14}, Verb::kInsert, 13},
    {"single turn with subtrees, right", {8, 4, 12, 2, 6}, Verb::kInsert, 1},
    {"single turn with subtrees, left", {8, 4, 12, 10, 14}, Verb::kInsert, 15},
    {"double turn with subtrees, left-right, inner left", {8, 4, 12, 2, 6}, Verb::kInsert, 5},
    {"double turn with subtrees, left-right, inner right", {8, 4, 12, 2, 6}, Verb::kInsert, 7},
    {"double turn with subtrees, right-left, inner left", {8, 4, 12, 10, 14}, Verb::kInsert, 9},
    {"double turn with subtrees, right-left, inner right", {8, 4, 12, 10, 14}, Verb::kInsert, 11},
    {"the last node", {1}, Verb::kDetach, 1},
    {"a leaf", {2, 1, 3}, Verb::kDetach, 1},
    {"a node with one child", {2, 1, 3, 4}, Verb::kDetach, 3},
    {"a root with one child", {1, 2}, Verb::kDetach, 1},
    {"a root whose neighbour is its child", {2, 1, 3}, Verb::kDetach, 2},
    {"a root whose neighbour is deep, left", {8, 4, 12, 2, 6, 10, 14, 5}, Verb::kDetach, 8},
    {"a root whose neighbour is deep, right", {8, 4, 12, 2, 6, 10, 14, 11}, Verb::kDetach, 8},
    {"a node below the root whose neighbour is deep", {16, 8, 20, 4, 12, 24, 10}, Verb::kDetach, 8},
    {"single turn from a level child, left", {2, 1, 4, 3, 5}, Verb::kDetach, 1},
    {"single turn from a level child, right", {4, 2, 5, 1, 3}, Verb::kDetach, 5},
    {"single turn, left", {2, 1, 3, 4}, Verb::kDetach, 1},
    {"single turn, right", {3, 2, 4, 1}, Verb::kDetach, 4},
    {"double turn, right-left", {2, 1, 4, 3}, Verb::kDetach, 1},
    {"double turn, left-right", {3, 1, 4, 2}, Verb::kDetach, 4},
    {"turns on two levels", {8, 5, 11, 3, 7, 10, 12, 2, 4, 6, 9, 1}, Verb::kDetach, 12},
    {"turns on two levels after a swap", {8, 5, 11, 3, 7, 10, 12, 2, 4, 6, 9, 1}, Verb::kDetach, 11},
};

// In an NH tree the keys are labels of the NHs of one tunnel; in the tunnel tree of tunnels with one NH each.
Scenario in_tree(const Shape &shape, bool of_tunnels) {
  constexpr std::uint32_t kLabel = 16, kTunnel = 200;
  Story story(std::string(of_tunnels ? "tunnel tree, " : "NH tree, ") +
              (shape.verb == Verb::kInsert ? "insert: " : "delete: ") + shape.name);
  const auto label1 = [&](std::uint32_t key) { return of_tunnels ? kLabel : kLabel + key; };
  const auto label2 = [&](std::uint32_t key) { return of_tunnels ? kTunnel + key : kTunnel; };
  for (const std::uint32_t key : shape.keys) {
    story.enter(label1(key), label2(key));
  }
  if (shape.verb == Verb::kInsert) {
    return story.dies_in(story.entry(label1(shape.key), label2(shape.key)));
  }
  return story.dies_in(on_nh(shape.verb, story.nh_of(label1(shape.key), label2(shape.key))));
}

}  // namespace

std::vector<Scenario> tree_scenarios() {
  std::vector<Scenario> all;
  for (const bool of_tunnels : {false, true}) {
    for (const Shape &shape : kShapes) {
      all.push_back(in_tree(shape, of_tunnels));
    }
  }
  return all;
}

}  // namespace crash
