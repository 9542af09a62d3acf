// All or nothing: what a death after any one store leaves behind, and what the next call makes of it.
//
// The service is compiled in here, with a store() that shows each store. The windows are this test's own.
#define VRELLIS_AVL_STORE_H

#include <cstdint>

namespace vrellis::avl {

using Word [[gnu::may_alias]] = std::uint64_t;

void (*after_store)() = [] {};

inline void store(Word *word, Word value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
  after_store();
}

}  // namespace vrellis::avl

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <array>
#include <cstring>
#include <deque>
#include <utility>

#include "avl.cc"          // NOLINT(bugprone-suspicious-include)
#include "avl_balance.cc"  // NOLINT(bugprone-suspicious-include)
#include "avl_tree_check.h"
#include "avl_undo.cc"  // NOLINT(bugprone-suspicious-include)

// The copy of the tree service here finds its thread's place in the trace here, too.
constinit thread_local vrellis::ThreadTrace vrellis::thread_trace;

constinit vrellis::WindowMap vrellis::window_maps[SHMWIN_MAX_WINDOWS] = {};

namespace avl_tests {
namespace {

using vrellis::avl::UndoLog;

// One node for each key; the log last, so that a snapshot can leave its unused rest out.
struct Window {
  void *root;
  void *other_root;
  Node nodes[44];
  alignas(8) std::byte tree_area[vrellis::kTreeAreaBytes];

  UndoLog &log() { return *reinterpret_cast<UndoLog *>(tree_area); }
};

constexpr std::size_t kSnapshotBytes = offsetof(Window, tree_area) + 16 + 128 * sizeof(vrellis::avl::UndoEntry);
using Snapshot = std::array<std::byte, kSnapshotBytes>;

class AvlUndo : public testing::Test {
 protected:
  void SetUp() override {
    void *memory = mmap(nullptr, sizeof(Window), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    window_ = static_cast<Window *>(memory);
    vrellis::WindowMap &map = vrellis::window_maps[1];  // slot 0 stays empty: the search for the slot is real
    map.begin = reinterpret_cast<std::uintptr_t>(memory);
    map.end = map.begin + sizeof(Window);
    map.tree_area = window_->tree_area;
  }

  void TearDown() override {
    vrellis::avl::after_store = [] {};
    vrellis::window_maps[1] = {};
    munmap(window_, sizeof(Window));
  }

  static void build(const Keys &order) {
    std::memset(static_cast<void *>(window_), 0, sizeof(Window));
    for (std::size_t key = 0; key < std::size(window_->nodes); ++key) {
      window_->nodes[key].key = key;
    }
    for (const std::uint64_t key : order) {
      insert(key);
    }
  }

  static bool insert(std::uint64_t key) {
    int flag = 0;
    return avl_insert(&window_->root, &window_->nodes[key], &flag, compare_keys) != nullptr;
  }

  // As the database does it: with a copy of the root.
  static bool remove(std::uint64_t key) {
    void *copy = window_->root;
    int flag = 0;
    const bool done = avl_delete(&copy, &window_->nodes[key], &flag, compare_keys) != nullptr;
    EXPECT_EQ(copy, window_->root);
    return done;
  }

  // The even keys are in the trees, the odd ones are not.
  static bool toggle(std::uint64_t key) { return key % 2 == 0 ? remove(key) : insert(key); }

  static Snapshot snapshot() {
    Snapshot state;
    std::memcpy(state.data(), window_, kSnapshotBytes);
    return state;
  }

  static void restore(const Snapshot &state) {
    std::memcpy(static_cast<void *>(window_), state.data(), kSnapshotBytes);
  }

  // What a death would leave behind: before the first store of `work`, and after each.
  template <typename Work>
  static std::deque<Snapshot> deaths_in(Work work) {
    states_.assign(1, snapshot());
    vrellis::avl::after_store = [] { states_.push_back(snapshot()); };
    work();
    vrellis::avl::after_store = [] {};
    return std::exchange(states_, {});
  }

  // Byte by byte, but for the linkage of a node that is in no tree.
  static bool same_trees(Snapshot a, Snapshot b, const Keys &keys) {
    for (std::size_t key = 0; key < std::size(window_->nodes); ++key) {
      if (!holds(keys, key)) {
        const std::size_t linkage = offsetof(Window, nodes) + key * sizeof(Node);
        std::memset(&a[linkage], 0, sizeof(vrellis::avl::Link));
        std::memset(&b[linkage], 0, sizeof(vrellis::avl::Link));
      }
    }
    return std::memcmp(a.data(), b.data(), offsetof(Window, tree_area)) == 0;
  }

  static bool holds(const Keys &keys, std::uint64_t key) {
    return std::find(keys.begin(), keys.end(), key) != keys.end();
  }

  // The next process looks for `key`; its answer must be that of the tree it leaves, which is one of the two.
  static void search_and_check(std::uint64_t key, const Snapshot &before, const Snapshot &after, bool bytewise) {
    const Node *found = find(window_->root, key);
    const View view = view_of(&window_->root);
    ASSERT_EQ(view.fault, "");
    ASSERT_EQ(window_->log().count, 0U);
    ASSERT_EQ(found, holds(view.keys, key) ? &window_->nodes[key] : nullptr);
    if (bytewise) {
      ASSERT_TRUE(same_trees(snapshot(), before, view.keys) || same_trees(snapshot(), after, view.keys));
    }
  }

  static void expect_all_or_nothing(const Keys &order, std::uint64_t key);

  static inline Window *window_;
  static inline std::deque<Snapshot> states_;
};

constexpr Word longest_change(std::size_t nodes) {
  using namespace vrellis::avl;
  return kWordsOfUnlinking + 2 * kWordsOfLift * greatest_height(nodes + 1);
}

void AvlUndo::expect_all_or_nothing(const Keys &order, std::uint64_t key) {
  build(order);
  const View before = view_of(&window_->root);
  const std::deque<Snapshot> deaths = deaths_in([key] { ASSERT_TRUE(toggle(key)); });
  const View after = view_of(&window_->root);
  ASSERT_EQ(after.fault, "");
  const bool bytewise = !before.keys.empty() && !after.keys.empty();  // else one store does it, without the log
  bool committed = false;
  for (const Snapshot &death : deaths) {
    restore(death);
    ASSERT_LE(window_->log().count, longest_change(order.size()));
    const auto search = [&] { search_and_check(key, deaths.front(), deaths.back(), bytewise); };
    const std::deque<Snapshot> second_deaths = deaths_in(search);
    const Keys keys = view_of(&window_->root).keys;
    ASSERT_TRUE(keys == after.keys || (keys == before.keys && !committed)) << "neither before nor after";
    committed = keys == after.keys;
    for (const Snapshot &second : second_deaths) {
      restore(second);
      search();
      ASSERT_EQ(view_of(&window_->root).keys, keys);
    }
    // Whatever the next process does first instead: the same change, or one to a neighbour.
    for (const std::uint64_t next : {key, key + 1}) {
      restore(death);
      const bool due = next != key ? next % 2 != 0 || holds(keys, next) : !committed;
      ASSERT_EQ(toggle(next), due) << "first change after a death: key " << next;
      const View view = view_of(&window_->root);
      ASSERT_EQ(view.fault, "");
      ASSERT_EQ(holds(view.keys, next), next % 2 != 0);
    }
    if (testing::Test::HasFatalFailure()) {
      return;
    }
  }
  ASSERT_TRUE(committed);
}

// The thinnest AVL tree of a height, `heavy` its deeper side, in an order of insertion without rotations.
Keys thinnest_tree(int height, bool heavy) {
  struct Part {
    std::uint64_t first;
    int height;
  };
  const auto size = [](auto &self, int h) -> std::uint64_t {
    return h < 1 ? 0 : 1 + self(self, h - 1) + self(self, h - 2);
  };
  Keys order;
  std::deque<Part> level{{1, height}};
  for (; !level.empty(); level.pop_front()) {
    const auto [first, high] = level.front();
    if (high >= 1) {
      const int left = heavy ? high - 2 : high - 1;
      const std::uint64_t middle = first + size(size, left);
      order.push_back(2 * middle);
      level.push_back({first, left});
      level.push_back({middle + 1, heavy ? high - 1 : high - 2});
    }
  }
  return order;
}

TEST_F(AvlUndo, ADeathAfterAnyStoreLeavesTheTreeBeforeOrAfterTheChange) {
  std::vector<Keys> orders = orders_of_all_shapes(7);
  orders.emplace_back();
  for (const bool heavy : {false, true}) {
    orders.push_back(thinnest_tree(5, heavy));
    orders.push_back(thinnest_tree(6, heavy));
  }
  for (const Keys &order : orders) {
    for (std::uint64_t key = 1; key <= 2 * order.size() + 1; ++key) {
      expect_all_or_nothing(order, key);
      ASSERT_FALSE(HasFatalFailure()) << "key " << key << " of a tree of " << order.size();
    }
  }
}

TEST_F(AvlUndo, AnotherTreesRootIsNotMistakenForTheOneTakenBack) {
  build({4, 2, 6});
  void *&second = window_->other_root;
  int flag = 0;
  ASSERT_TRUE(avl_insert(&second, &window_->nodes[20], &flag, compare_keys));
  for (const Snapshot &death : deaths_in([] { remove(2), remove(4); })) {
    restore(death);
    ASSERT_EQ(find(second, 20), &window_->nodes[20]);
    ASSERT_EQ(view_of(&second).fault + view_of(&window_->root).fault, "");
    ASSERT_EQ(window_->log().count, 0U);
  }
}

TEST_F(AvlUndo, OnlyWordsOfTheWindowAreLogged) {
  build({});
  void *outside = nullptr;  // a root field in plain memory
  int flag = 0;
  for (const std::uint64_t key : {2U, 4U, 6U, 8U}) {
    ASSERT_TRUE(avl_insert(&outside, &window_->nodes[key], &flag, compare_keys));
  }
  for (const Snapshot &state : deaths_in([&] { avl_delete(&outside, &window_->nodes[4], &flag, compare_keys); })) {
    restore(state);
    for (Word i = 0; i < window_->log().count; ++i) {
      ASSERT_TRUE(covers(vrellis::window_maps[1], window_->log().entries[i].address));
    }
  }
  EXPECT_EQ(view_of(&outside).fault, "");
  EXPECT_EQ(view_of(&outside).keys, (Keys{2, 6, 8}));
}

// A root field recorded outside the window is another process's stack, unless it is the one that the caller gives.
TEST_F(AvlUndo, ARootFieldOutOfReachIsRefused) {
  build({});
  void *outside = nullptr;
  int flag = 0;
  ASSERT_TRUE(avl_insert(&outside, &window_->nodes[2], &flag, compare_keys));
  void *copy = outside;
  EXPECT_EQ(avl_delete(&copy, &window_->nodes[2], &flag, compare_keys), nullptr);
  EXPECT_EQ(avl_insert(&copy, &window_->nodes[4], &flag, compare_keys), nullptr);
  EXPECT_EQ(view_of(&outside).keys, (Keys{2}));
}

TEST_F(AvlUndo, ADamagedLogIsDroppedWithoutTouchingWhatIsNotItsOwn) {
  const Word beyond = vrellis::window_maps[1].end;
  Word bystander = 7;
  for (const Word count :
       {Word{3}, Word{vrellis::avl::kUndoCapacity}, Word{vrellis::avl::kUndoCapacity + 1}, ~Word{0}}) {
    build({4, 2, 6});
    UndoLog &log = window_->log();
    log = {count, beyond, {{beyond, 1}, {vrellis::avl::address_of(&window_->root) + 1, 1}}};
    log.entries[2] = {vrellis::avl::address_of(&bystander), 1};
    EXPECT_EQ(find(window_->root, 6), &window_->nodes[6]);
    EXPECT_EQ(log.count, 0U);
    EXPECT_EQ(view_of(&window_->root).keys, (Keys{2, 4, 6}));
    EXPECT_EQ(bystander, 7U);
  }
}

TEST_F(AvlUndo, TheHintIsWhereTheLastSearchEnded) {
  build({4, 2, 8, 6});
  find(window_->root, 8);
  EXPECT_EQ(vrellis::search_ends.last, &window_->nodes[8]);
  find(window_->root, 5);
  EXPECT_EQ(vrellis::search_ends.last, &window_->nodes[6]);
  find(nullptr, 5);
  EXPECT_EQ(vrellis::search_ends.last, &window_->nodes[6]);
}

}  // namespace
}  // namespace avl_tests
