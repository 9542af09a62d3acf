// The tree service: order, balance and linkage of a large random tree, refusals, and a tree in a real window.
#include <random>

#include "avl_tree_check.h"
#include "shmwin_fixture.h"

namespace avl_tests {
namespace {

// A tree of keys below `limit`, each with its node. Operations pass the root field, or a copy of it if there is a root.
class Tree {
 public:
  explicit Tree(std::size_t limit) : nodes_(limit) {
    for (std::size_t key = 0; key < limit; ++key) {
      nodes_[key].key = key;
    }
  }
  explicit Tree(const Keys &order) : Tree(2 * order.size() + 2) {
    for (const std::uint64_t key : order) {
      insert(key);
    }
  }

  bool insert(std::uint64_t key, bool by_copy = false) { return call(avl_insert, key, by_copy); }
  bool remove(std::uint64_t key, bool by_copy = false) { return call(avl_delete, key, by_copy); }

  Node &node(std::uint64_t key) { return nodes_[key]; }
  void *&root() { return root_; }
  View view() const { return view_of(&root_); }

  void expect_keys(const Keys &keys) const {
    ASSERT_EQ(view().fault, "");
    ASSERT_EQ(view().keys, keys);
  }

 private:
  // Compares *flag with what happened to the root.
  bool call(decltype(avl_insert) *operation, std::uint64_t key, bool by_copy) {
    void *const before = root_;
    void *copy = root_;
    const bool copied = by_copy && root_ != nullptr;
    int flag = 0;
    const void *result = operation(copied ? &copy : &root_, &nodes_[key], &flag, compare_keys);
    EXPECT_TRUE(result == nullptr || result == &nodes_[key]);
    EXPECT_EQ(flag, root_ != before ? 1 : 0);
    EXPECT_EQ(copy, copied ? root_ : before);
    return result != nullptr;
  }

  std::vector<Node> nodes_;
  void *root_ = nullptr;
};

bool is_unlinked(const Node &node) {
  return node.link.child[0] == 0 && node.link.child[1] == 0 && node.link.up == 0;
}

// Deep trees, whose removals rotate on several levels. avl_undo_test tries every shape of the small ones.
TEST(Avl, RandomOperationsAgreeWithASet) {
  constexpr std::size_t kKeys = 400;
  std::mt19937_64 random(20240607);
  Tree tree(kKeys);
  std::set<std::uint64_t> model;
  for (int step = 0; step < 100'000; ++step) {
    const std::uint64_t key = random() % kKeys;
    const bool known = model.contains(key);
    const bool by_copy = random() % 2 != 0;
    ASSERT_EQ(find(tree.root(), key), known ? &tree.node(key) : nullptr);
    const bool growing = step / 2000 % 2 == 0;  // the tree gets nearly full and nearly empty in turn
    if (random() % 64 != 0 ? growing : !growing) {
      ASSERT_EQ(tree.insert(key, by_copy), !known);
      model.insert(key);
    } else {
      ASSERT_EQ(tree.remove(key, by_copy), known);
      ASSERT_TRUE(is_unlinked(tree.node(key)));
      model.erase(key);
    }
    if (step % 16 == 0 || model.size() < 4) {
      ASSERT_NO_FATAL_FAILURE(tree.expect_keys({model.begin(), model.end()}));
    }
  }
}

TEST(Avl, RefusalsChangeNothing) {
  Tree tree({8, 4, 12, 2, 6, 10, 14});
  Tree other({2, 4, 6});
  Node twin;
  twin.key = 6;
  int flag = 0;
  const std::string shape = tree.view().shape;
  void *inner = &tree.node(4);
  void *empty = nullptr;

  EXPECT_EQ(avl_insert(&tree.root(), &twin, &flag, compare_keys), nullptr) << "a second node of one key";
  EXPECT_TRUE(is_unlinked(twin));
  EXPECT_EQ(avl_insert(&inner, &tree.node(3), &flag, compare_keys), nullptr) << "a copy that is not the root's";
  const struct {
    void **root;
    Node *node;
    const char *what;
  } removals[] = {
      {&tree.root(), &twin, "a node in no tree, of a known key"}, {&tree.root(), &other.node(4), "another tree's root"},
      {&tree.root(), &other.node(2), "another tree's leaf"},      {&tree.root(), nullptr, "no node"},
      {&inner, &tree.node(2), "a copy that is not the root's"},   {&empty, &tree.node(8), "an empty tree"}};
  for (const auto &each : removals) {
    EXPECT_EQ(avl_delete(each.root, each.node, &flag, compare_keys), nullptr) << each.what;
  }
  EXPECT_EQ(flag, 0);
  tree.expect_keys({2, 4, 6, 8, 10, 12, 14});
  EXPECT_EQ(tree.view().shape, shape);
  EXPECT_EQ(other.view().fault, "");
  EXPECT_EQ(find(nullptr, 1), nullptr) << "an empty tree";
}

using AvlInWindow = window_tests::WindowTest;

// The window service and the tree service agree on the place of the log.
TEST_F(AvlInWindow, AChangeLeftOpenInTheWindowsLogIsTakenBack) {
  ASSERT_EQ(open(config()), 0) << error_.text;
  auto **const field = static_cast<void **>(shmwin_user_area(window_tests::kId));
  Node *nodes[2];
  int flag = 0;
  for (const std::uint64_t key : {0U, 1U}) {
    void *block = nullptr;
    ASSERT_EQ(shmwin_malloc(window_tests::kId, 40, &block), 0);
    nodes[key] = new (block) Node{{}, key};
    ASSERT_EQ(avl_insert(field, block, &flag, compare_keys), block);
  }
  auto &header = window_tests::header_of(window_tests::kId);
  auto *const log = reinterpret_cast<Word *>(header.tree_area);
  ASSERT_EQ(log[0], 0U);
  ASSERT_EQ(log[1], vrellis::avl::address_of(field));
  log[0] = 1;  // the first of the words that the second insertion changed
  EXPECT_EQ(find(*field, 1), nullptr);
  EXPECT_EQ(find(*field, 0), nodes[0]);
  EXPECT_EQ(log[0], 0U);
}

}  // namespace
}  // namespace avl_tests
