// The tree service: a large random tree, refusals, the hint; and all or nothing, for which the test takes a snapshot
// after each store of a change, as a process that dies there would leave the window, and calls the service on each.
#include <deque>
#include <utility>

#include "avl_fixture.h"

namespace avl_tests {
namespace {

using Snapshot = WindowOf<44>;  // as much of the window as these trees use

class AvlUndo : public AvlTest {
 protected:
  // The even keys are in the trees, the odd ones are not. Half of them go by a copy of the root, as in the database.
  static bool toggle(std::uint64_t key) {
    return change(key % 2 == 0 ? avl_delete : avl_insert, key, &window_->root, key % 4 < 2);
  }

  static Snapshot snapshot() {
    Snapshot state;
    std::memcpy(static_cast<void *>(&state), window_, sizeof state);
    return state;
  }
  static void restore(const Snapshot &state) { std::memcpy(static_cast<void *>(window_), &state, sizeof state); }

  // The window before the first store of `work` and after each store.
  template <typename Work>
  static std::deque<Snapshot> deaths_in(Work work) {
    states_.assign(1, snapshot());
    vrellis::avl::after_store = [] { states_.push_back(snapshot()); };
    work();
    vrellis::avl::after_store = [] {};
    return std::exchange(states_, {});
  }

  static bool holds(const Keys &keys, std::uint64_t key) { return std::binary_search(keys.begin(), keys.end(), key); }

  static std::vector<Keys> orders_of_all_shapes(std::size_t most);
  static void expect_all_or_nothing(const Keys &order, std::uint64_t key);

  static inline std::deque<Snapshot> states_;
};

// One order of insertion for each shape that AVL trees of 1 to `most` keys can have; the keys are 2, 4, 6, ...
std::vector<Keys> AvlUndo::orders_of_all_shapes(std::size_t most) {
  std::vector<Keys> orders;
  std::set<std::string> seen;
  for (Keys order; order.size() < most;) {
    order.push_back(2 * order.size() + 2);
    do {
      build(order);
      if (seen.insert(tree().shape).second) {
        orders.push_back(order);
      }
    } while (std::next_permutation(order.begin(), order.end()));
  }
  return orders;
}

void AvlUndo::expect_all_or_nothing(const Keys &order, std::uint64_t key) {
  using namespace vrellis::avl;
  build(order);
  insert(43, &window_->other_root);
  const Keys before = tree().keys;
  const std::deque<Snapshot> deaths = deaths_in([key] { ASSERT_TRUE(toggle(key)); });
  const Keys after = tree().keys;
  std::set<std::uint64_t> expected(before.begin(), before.end());
  ASSERT_TRUE(key % 2 == 0 ? expected.erase(key) == 1 : expected.insert(key).second);
  ASSERT_EQ(after, Keys(expected.begin(), expected.end()));
  bool committed = false;
  for (const Snapshot &death : deaths) {
    restore(death);
    ASSERT_EQ(find(window_->other_root, 43), &window_->node[43]) << "another tree's root, taken for this one's";
    ASSERT_EQ(tree().fault, "");
    restore(death);
    ASSERT_LE(window_->log.count, kWordsOfUnlinking + 2 * kWordsOfLift * greatest_height(order.size() + 1));
    const Node *found = find(window_->root, key);
    const View view = tree();
    ASSERT_EQ(view.fault, "");
    ASSERT_EQ(window_->log.count, 0U);
    ASSERT_EQ(found, holds(view.keys, key) ? &window_->node[key] : nullptr);
    const auto *const end = static_cast<const Node *>(vrellis::search_ends.last);  // found, or the nearest node
    ASSERT_TRUE(end == found || view.keys.empty() || (found == nullptr && end->key + 2 >= key && end->key <= key + 2));
    ASSERT_TRUE(view.keys == after || (view.keys == before && !committed)) << "neither before nor after";
    committed = view.keys == after;
    // Or the next process makes a change first: the same one again, or one of a neighbour.
    for (const std::uint64_t next : {key, key + 1}) {
      restore(death);
      const bool due = next != key ? next % 2 != 0 || holds(view.keys, next) : !committed;
      ASSERT_EQ(toggle(next), due) << "first change after a death: key " << next;
      ASSERT_EQ(tree().fault, "");
      ASSERT_EQ(holds(tree().keys, next), next % 2 != 0);
    }
  }
  ASSERT_TRUE(committed);
}

TEST_F(AvlUndo, ADeathAfterAnyStoreLeavesTheTreeBeforeOrAfterTheChange) {
  std::vector<Keys> orders = orders_of_all_shapes(7);
  orders.emplace_back();
  // The tree of height 6 that has the fewest nodes, level by level, and its mirror image: removals turn on all levels.
  const Keys thinnest =
      orders.emplace_back(Keys{26, 16, 36, 10, 22, 32, 40, 6, 14, 20, 24, 30, 34, 38, 4, 8, 12, 18, 28, 2});
  Keys mirrored(thinnest.size());
  std::transform(thinnest.begin(), thinnest.end(), mirrored.begin(), [](std::uint64_t key) { return 42 - key; });
  orders.push_back(mirrored);
  for (const Keys &order : orders) {
    for (std::uint64_t key = 1; key <= 2 * order.size() + 1; ++key) {
      expect_all_or_nothing(order, key);
      ASSERT_FALSE(HasFatalFailure()) << "key " << key << " of a tree of " << order.size();
    }
  }
}

// A root field outside the window belongs to one process. It is not logged, and the caller has to pass it itself.
TEST_F(AvlUndo, ARootFieldOutsideTheWindowIsItsOwnProcesss) {
  build({});
  void *outside = nullptr;
  for (const std::uint64_t key : {2U, 4U, 6U, 8U}) {
    ASSERT_TRUE(insert(key, &outside));
  }
  int flag = 0;
  for (const Snapshot &state : deaths_in([&] { avl_delete(&outside, &window_->node[4], &flag, compare_keys); })) {
    restore(state);
    for (Word i = 0; i < window_->log.count; ++i) {
      ASSERT_TRUE(covers(vrellis::window_maps[1], window_->log.entries[i].address));
    }
  }
  void *copy = outside;
  EXPECT_EQ(avl_delete(&copy, &window_->node[2], &flag, compare_keys), nullptr);
  EXPECT_FALSE(insert(4, &copy));
  EXPECT_EQ(view_of(&outside).fault, "");
  EXPECT_EQ(view_of(&outside).keys, (Keys{2, 6, 8}));
}

TEST_F(AvlUndo, ADamagedLogIsEmptiedAndNoWordThatItNamesIsWritten) {
  using vrellis::avl::address_of;
  Word bystander = 7;
  const Word wrong[] = {vrellis::window_maps[1].end, address_of(&window_->root) + 4, address_of(&bystander),
                        address_of(window_->log.entries), address_of(window_->process_table)};
  const Word capacity = vrellis::avl::kUndoCapacity;
  for (const Word address : wrong) {
    for (const Word count : {Word{2}, capacity, capacity + 1, ~Word{0}}) {
      build({4, 2, 6});
      const vrellis::avl::UndoLog damaged = {count, wrong[0], {{address, 1}, {address_of(&window_->root), 1}}};
      window_->log = damaged;
      EXPECT_EQ(find(window_->root, 6), &window_->node[6]);
      EXPECT_EQ(window_->log.count, 0U);
      window_->log = damaged;
      EXPECT_EQ(avl_settle(window_), -1);
      EXPECT_EQ(window_->log.count, 0U);
      EXPECT_EQ(tree().keys, (Keys{2, 4, 6}));
      EXPECT_EQ(bystander, 7U);
    }
  }
}

// A chain of parents longer than any tree is high would fill the log, and then overwrite the memory behind it.
TEST_F(AvlUndo, AChangeOfADamagedTreeThatWouldOutgrowTheLogIsTakenBack) {
  build({2});
  Node *const nodes = window_->node;
  constexpr std::size_t kLast = std::size(window_->node) - 2;
  for (std::size_t key = 3; key <= kLast; ++key) {
    vrellis::avl::Link &parent = nodes[key - 1].link;
    parent.child[1] = vrellis::avl::address_of(&nodes[key]);
    nodes[key].link.up = vrellis::avl::address_of(&parent);
  }
  const std::vector<Node> before(nodes, nodes + kLast + 1);
  EXPECT_FALSE(insert(kLast + 1));
  EXPECT_EQ(std::memcmp(before.data(), nodes, before.size() * sizeof(Node)), 0);
  EXPECT_EQ(window_->log.count, 0U);
}

TEST_F(AvlTest, RefusalsChangeNothing) {
  build({8, 4, 12, 2, 6, 10, 14});
  for (const std::uint64_t key : {21U, 20U, 22U}) {
    ASSERT_TRUE(insert(key, &window_->other_root));
  }
  Node *const node = window_->node;
  Node twin;
  twin.key = 6;
  void *inner = &node[4];
  void *empty = nullptr;
  const struct {
    decltype(avl_insert) *operation;
    void **root;
    Node *node;
    const char *what;
  } cases[] = {
      {avl_insert, &window_->root, &twin, "a second node of one key"},
      {avl_insert, &inner, &node[3], "a copy that is not the root's"},
      {avl_delete, &inner, &node[2], "a copy that is not the root's"},
      {avl_delete, &window_->root, &twin, "a node in no tree, of a known key"},
      {avl_delete, &window_->root, &node[21], "another tree's root"},
      {avl_delete, &window_->root, &node[20], "another tree's leaf"},
      {avl_delete, &window_->root, nullptr, "no node"},
      {avl_delete, &empty, &node[8], "an empty tree"},
  };
  const Window before = *window_;
  for (const auto &each : cases) {
    int flag = 0;
    EXPECT_EQ(each.operation(each.root, each.node, &flag, compare_keys), nullptr) << each.what;
    EXPECT_EQ(flag, 0) << each.what;
  }
  EXPECT_EQ(std::memcmp(&before, window_, sizeof before), 0);
  EXPECT_TRUE(is_unlinked(twin));
}

}  // namespace
}  // namespace avl_tests
