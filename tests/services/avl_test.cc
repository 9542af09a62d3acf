// The tree service: order, balance and linkage of every small tree, of a large random one, and in a real window.
#include "avl.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <thread>

#include "avl_tree_check.h"
#include "shmwin.h"

namespace avl_tests {
namespace {

// A tree of keys below `limit`, each with its node.
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

  // Both tell by *flag whether the root changed; so does the root itself.
  bool insert(std::uint64_t key, void **field = nullptr) { return call(avl_insert, key, field); }
  bool remove(std::uint64_t key, void **field = nullptr) { return call(avl_delete, key, field); }

  Node &node(std::uint64_t key) { return nodes_[key]; }
  void *&root() { return root_; }
  View view() const { return view_of(&root_); }

 private:
  using Operation = void *(void **, void *, int *, avl_compare_fn);

  bool call(Operation *operation, std::uint64_t key, void **field) {
    const void *before = root_;
    int flag = 0;
    const void *result = operation(field != nullptr ? field : &root_, &nodes_[key], &flag, compare_keys);
    EXPECT_TRUE(result == nullptr || result == &nodes_[key]);
    EXPECT_EQ(flag, root_ != before ? 1 : 0);
    return result != nullptr;
  }

  std::vector<Node> nodes_;
  void *root_ = nullptr;
};

bool is_unlinked(const Node &node) {
  return node.link.child[0] == 0 && node.link.child[1] == 0 && node.link.up == 0;
}

Keys ascending(Keys keys) {
  std::sort(keys.begin(), keys.end());
  return keys;
}

TEST(Avl, EveryOrderOfInsertionGivesASoundTree) {
  Keys order(8);
  std::iota(order.begin(), order.end(), 0);
  do {
    Tree tree(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
      ASSERT_TRUE(tree.insert(order[i]));
      const View view = tree.view();
      ASSERT_EQ(view.fault, "");
      ASSERT_EQ(view.keys, ascending(Keys(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(i) + 1)));
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Avl, EveryOrderOfRemovalFromEveryShapeLeavesASoundTree) {
  for (const Keys &order : orders_of_all_shapes(6)) {
    Keys removal = ascending(order);
    do {
      Tree tree(order);
      for (std::size_t i = 0; i < removal.size(); ++i) {
        ASSERT_TRUE(tree.remove(removal[i]));
        ASSERT_TRUE(is_unlinked(tree.node(removal[i])));
        const View view = tree.view();
        ASSERT_EQ(view.fault, "");
        ASSERT_EQ(view.keys, ascending(Keys(removal.begin() + static_cast<std::ptrdiff_t>(i) + 1, removal.end())));
      }
      ASSERT_EQ(tree.root(), nullptr);
    } while (std::next_permutation(removal.begin(), removal.end()));
  }
}

// The shapes that a removal turns on several levels are deeper than the exhaustive cases reach.
TEST(Avl, RandomOperationsAgreeWithAMap) {
  constexpr std::uint64_t kSeed = 20240607;
  constexpr std::size_t kKeys = 400;
  SCOPED_TRACE(kSeed);
  std::mt19937_64 random(kSeed);
  Tree tree(kKeys);
  std::map<std::uint64_t, Node *> model;
  for (int step = 0; step < 100'000; ++step) {
    const std::uint64_t key = random() % kKeys;
    const auto known = model.find(key);
    Node *expected = known != model.end() ? known->second : nullptr;
    ASSERT_EQ(find(tree.root(), key), expected);
    const bool growing = step / 1000 % 2 == 0;  // sways between nearly full and nearly empty
    if (random() % 4 != 0 ? growing : !growing) {
      ASSERT_EQ(tree.insert(key), expected == nullptr);
      model[key] = &tree.node(key);
    } else {
      ASSERT_EQ(tree.remove(key), expected != nullptr);
      model.erase(key);
    }
    if (step % 16 == 0) {
      const View view = tree.view();
      ASSERT_EQ(view.fault, "");
      ASSERT_TRUE(std::equal(view.keys.begin(), view.keys.end(), model.begin(), model.end(),
                             [](std::uint64_t seen, const auto &entry) { return seen == entry.first; }));
    }
  }
}

TEST(Avl, ACopyOfTheRootServesAsWellAsTheRootField) {
  for (const Keys &order : orders_of_all_shapes(7)) {
    for (std::uint64_t key = 1; key <= 2 * order.size() + 1; ++key) {
      Tree by_field(order);
      Tree by_copy(order);
      void *copy = by_copy.root();
      const bool present = key % 2 == 0;
      ASSERT_TRUE(present ? by_field.remove(key) : by_field.insert(key));
      ASSERT_TRUE(present ? by_copy.remove(key, &copy) : by_copy.insert(key, &copy));
      ASSERT_EQ(copy, by_copy.root());
      ASSERT_EQ(by_copy.view().fault, "");
      ASSERT_EQ(by_copy.view().keys, by_field.view().keys);
      ASSERT_EQ(by_copy.view().shape, by_field.view().shape);
    }
  }
}

TEST(Avl, RefusalsChangeNothing) {
  Tree tree({8, 4, 12, 2, 6, 10, 14});
  Tree other({2, 4, 6});
  Node twin;
  twin.key = 6;
  int flag = 0;
  const View before = tree.view();

  EXPECT_EQ(avl_insert(&tree.root(), &twin, &flag, compare_keys), nullptr) << "a second node of one key";
  EXPECT_TRUE(is_unlinked(twin));
  EXPECT_EQ(avl_delete(&tree.root(), &twin, &flag, compare_keys), nullptr) << "a node in no tree, of a known key";
  EXPECT_EQ(avl_delete(&tree.root(), &other.node(4), &flag, compare_keys), nullptr) << "another tree's root";
  EXPECT_EQ(avl_delete(&tree.root(), &other.node(2), &flag, compare_keys), nullptr) << "another tree's leaf";
  EXPECT_EQ(avl_delete(&tree.root(), nullptr, &flag, compare_keys), nullptr);
  void *inner = &tree.node(4);
  EXPECT_EQ(avl_delete(&inner, &tree.node(2), &flag, compare_keys), nullptr) << "a copy that is not the root's";
  EXPECT_EQ(avl_insert(&inner, &tree.node(3), &flag, compare_keys), nullptr);
  void *empty = nullptr;
  EXPECT_EQ(avl_delete(&empty, &tree.node(8), &flag, compare_keys), nullptr) << "a copy of an empty tree's root";

  EXPECT_EQ(flag, 0);
  EXPECT_EQ(tree.view().fault, "");
  EXPECT_EQ(tree.view().keys, before.keys);
  EXPECT_EQ(tree.view().shape, before.shape);
  EXPECT_EQ(other.view().fault, "");
  EXPECT_EQ(find(nullptr, 1), nullptr) << "an empty tree";
}

// A window of its own directory, with a node for each key; the root field lies in the user's area.
class AvlInWindow : public testing::Test {
 protected:
  static constexpr std::uint32_t kId = 7;
  static constexpr std::uint64_t kKeys = 500;

  void SetUp() override {
    ASSERT_NE(mkdtemp(directory_), nullptr);
    shmwin_config_t config{};
    config.directory = directory_;
    config.name = "trees";
    config.shm_id = kId;
    config.size = shmwin_size_for(0, 0, kKeys, 0);
    shmwin_claim_t *claim = nullptr;
    shmwin_error_t error{};
    int present = 0;
    ASSERT_EQ(shmwin_claim(&config, &claim, &present, &error), 0) << error.text;
    ASSERT_EQ(shmwin_format(claim, &config, &error), 0) << error.text;
    shmwin_release(claim);
    field_ = static_cast<void **>(shmwin_user_area(kId));
    for (std::uint64_t key = 0; key < kKeys; ++key) {
      void *block = nullptr;
      ASSERT_EQ(shmwin_malloc(kId, 40, &block), 0);
      nodes_.push_back(new (block) Node{{}, key});
    }
  }

  void TearDown() override {
    shmwin_detach(kId);
    shmwin_error_t error{};
    shmwin_unlink(directory_, "trees", 1, &error);
    rmdir(directory_);
  }

  void toggle(std::uint64_t key) {
    int flag = 0;
    void *copy = *field_;
    if (find(*field_, key) == nullptr) {
      nodes_[key]->link = {};
      avl_insert(field_, nodes_[key], &flag, compare_keys);
    } else {
      avl_delete(&copy, nodes_[key], &flag, compare_keys);
    }
  }

  char directory_[32] = "/dev/shm/avl_test.XXXXXX";
  void **field_ = nullptr;
  std::vector<Node *> nodes_;
};

TEST_F(AvlInWindow, KillsAtRandomMomentsLeaveASoundTree) {
  std::mt19937_64 random(1);
  for (std::uint64_t key = 0; key < 40; ++key) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    while (child == 0) {
      toggle(random() % kKeys);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 2000));
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const bool found = find(*field_, key) != nullptr;
    const View view = view_of(field_);
    ASSERT_EQ(view.fault, "");
    ASSERT_EQ(found, std::binary_search(view.keys.begin(), view.keys.end(), key));
  }
}

}  // namespace
}  // namespace avl_tests
