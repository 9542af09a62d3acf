// The tree service: order, balance and linkage of a large random tree, refusals, the hint, roots outside windows.
#include <random>

#include "avl_fixture.h"

namespace avl_tests {
namespace {

bool is_unlinked(const Node &node) {
  return node.link.child[0] == 0 && node.link.child[1] == 0 && node.link.up == 0;
}

// Deep trees, whose removals rotate on several levels. avl_undo_test tries every shape of the small ones.
TEST_F(AvlTest, RandomOperationsAgreeWithASet) {
  std::mt19937_64 random(20240607);
  build({});
  std::set<std::uint64_t> model;
  for (int step = 0; step < 100'000; ++step) {
    const std::uint64_t key = random() % 400;
    const bool known = model.contains(key);
    const bool by_copy = random() % 2 != 0;
    ASSERT_EQ(find(window_->root, key), known ? &window_->node[key] : nullptr);
    const bool growing = step / 2000 % 2 == 0;  // the tree gets nearly full and nearly empty in turn
    if (random() % 64 != 0 ? growing : !growing) {
      ASSERT_EQ(change(avl_insert, key, &window_->root, by_copy), !known);
      model.insert(key);
    } else {
      ASSERT_EQ(change(avl_delete, key, &window_->root, by_copy), known);
      ASSERT_TRUE(is_unlinked(window_->node[key]));
      model.erase(key);
    }
    if (step % 16 == 0 || model.size() < 4) {
      ASSERT_EQ(tree().fault, "");
      ASSERT_EQ(tree().keys, Keys(model.begin(), model.end()));
    }
  }
}

TEST_F(AvlTest, RefusalsChangeNothing) {
  build({8, 4, 12, 2, 6, 10, 14});
  for (const std::uint64_t key : {21U, 20U, 22U}) {
    ASSERT_TRUE(insert(key, &window_->other_root));
  }
  Node twin;
  twin.key = 6;
  int flag = 0;
  const std::string shape = tree().shape;
  Node *const node = window_->node;
  void *inner = &node[4];
  void *empty = nullptr;

  EXPECT_EQ(avl_insert(&window_->root, &twin, &flag, compare_keys), nullptr) << "a second node of one key";
  EXPECT_TRUE(is_unlinked(twin));
  EXPECT_EQ(avl_insert(&inner, &node[3], &flag, compare_keys), nullptr) << "a copy that is not the root's";
  const struct {
    void **root;
    Node *node;
    const char *what;
  } removals[] = {
      {&window_->root, &twin, "a node in no tree, of a known key"}, {&window_->root, &node[21], "another tree's root"},
      {&window_->root, &node[20], "another tree's leaf"},           {&window_->root, nullptr, "no node"},
      {&inner, &node[2], "a copy that is not the root's"},          {&empty, &node[8], "an empty tree"}};
  for (const auto &each : removals) {
    EXPECT_EQ(avl_delete(each.root, each.node, &flag, compare_keys), nullptr) << each.what;
  }
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(tree().fault + view_of(&window_->other_root).fault, "");
  EXPECT_EQ(tree().keys, (Keys{2, 4, 6, 8, 10, 12, 14}));
  EXPECT_EQ(tree().shape, shape);
}

TEST_F(AvlTest, TheHintIsWhereTheLastSearchEnded) {
  build({4, 2, 8, 6});
  void *const root = window_->root;
  for (const auto &[from, key, end] : {std::tuple{root, 8U, 8U}, {root, 5U, 6U}, {nullptr, 5U, 6U}}) {
    find(from, key);
    EXPECT_EQ(vrellis::search_ends.last, &window_->node[end]);
  }
}

}  // namespace
}  // namespace avl_tests
