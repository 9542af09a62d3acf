// What no death leaves: bytes overwritten. Each fault is named and mended.
#include <algorithm>
#include <functional>

#include "avl/link.h"
#include "inspect_fixture.h"

namespace inspect_tests {
namespace {

using vrellis::avl::Link;

struct Damage {
  const char *kind;
  std::function<void()> make;
  const char *says = "";  // part of the sentence
};

class DamageTest : public InspectTest {
 protected:
  void SetUp() override {
    InspectTest::SetUp();
    fill(3, 9);
    pristine_.assign(window_, window_ + bytes_);
    fresh_ = entered_;
  }

  void restore() {
    std::memcpy(window_, pristine_.data(), bytes_);
    entered_ = fresh_;
  }

  // The slots of all entries, and those of the tunnels, are what they were before the damage.
  void expect_slots_untouched() {
    const auto was = [&](const void *slot) {
      return pristine_.data() + (static_cast<const std::uint8_t *>(slot) - window_);
    };
    for (const auto &[index, entry] : entered_) {
      EXPECT_EQ(std::memcmp(&nh(index), was(&nh(index)), sizeof(egr_nh_info_t)), 0) << "NH " << index;
    }
    if (entered_.size() == fresh_.size()) {
      EXPECT_EQ(std::memcmp(db().tun_info_array, was(db().tun_info_array), 16 * (ranges_.tun_size + 1)), 0);
    }
  }

  static Link *link(void *node) { return static_cast<Link *>(node); }
  // The right child of the root is a tunnel with labels.
  mpls_tunnel_entry_t *tunnel_node() { return reinterpret_cast<mpls_tunnel_entry_t *>(link(db().tun_root)->child[1]); }

  vrellis::PageDescriptor &page_of(const void *node) {
    const vrellis::WindowShape shape = vrellis::shape_of_size(bytes_);
    const auto offset = static_cast<std::uint64_t>(static_cast<const std::uint8_t *>(node) - window_) - shape.heap;
    return reinterpret_cast<vrellis::PageDescriptor *>(window_ + shape.descriptors)[offset / vrellis::kPageBytes];
  }

  std::vector<Damage> of_trees_and_slots() {
    mpls_tunnel_entry_t *const top = tunnel_node();
    auto *const nh_top = static_cast<mpls_nh_entry_t *>(top->nh_root);
    const std::uint32_t index = nh_top->nh_index;
    return {
        {"pointer-outside", [=] { link(top)->child[0] = 0x10; }},
        {"pointer-outside", [=] { link(nh_top)->child[1] += 8; }},
        {"pointer-outside", [=, this] { db().tun_root = window_; }},
        {"tree-cycle", [=] { link(nh_top)->child[1] = reinterpret_cast<Address>(nh_top); }},
        {"tree-balance", [=] { link(nh_top)->up ^= 1; }},
        {"tree-parent", [=] { link(reinterpret_cast<void *>(link(nh_top)->child[0]))->up += 64; }},
        {"tree-order", [=] { std::swap(link(nh_top)->child[0], link(nh_top)->child[1]); }},
        {"root-field", [=] { link(nh_top)->up += 64; }},
        {"tree-lost", [=] { top->nh_root = nullptr; }},
        {"tree-lost", [=, this] { db().tun_root = nullptr; }},
        {"slot-node-mismatch", [=, this] { nh(index).ifh ^= 0x40; }},
        {"slot-node-mismatch", [=, this] { nh(index).out_label1 ^= 1; }},
        {"duplicate-index",
         [=, this] {
           auto *other = reinterpret_cast<mpls_nh_entry_t *>(link(nh_top)->child[0]);
           entered_.erase(other->nh_index);
           std::memset(&nh(other->nh_index), 0, sizeof(egr_nh_info_t));
           other->nh_index = index;
         }},
        {"node-without-slot",
         [=, this] {
           std::memset(&nh(index), 0, sizeof(egr_nh_info_t));
           entered_.erase(index);
         }},
        {"slot-half-filled",
         [=, this] {
           nh(index).valid = 0;
           entered_.erase(index);
         }},
        {"slot-residue", [=, this] { nh(160).seed_nh = 1; }},
        {"slot-without-node", [=, this] { nh(160).valid = 1; }},
        {"tunnel-slot-residue", [=, this] { tunnel(15).out_label2 = 1; }},
        {"tunnel-slot-without-node", [=, this] { tunnel(15).valid = 1; }},
        {"tunnel-index-mismatch", [=] { top->egr_tun ^= 1; }},
        {"tunnel-without-slot", [=, this] { tunnel(top->egr_tun).valid = 0; }},
        {"tunnel-slot-mismatch", [=, this] { tunnel(top->egr_tun).out_label2 ^= 5; }},
        {"tunnel-count", [=, this] { tunnel(top->egr_tun).ref_count += 5; }},
        {"null-tunnel-count", [=, this] { tunnel(0).ref_count -= 5; }},
        {"node-residue", [=] { nh_top->spare = 1; }},
        {"node-residue", [=] { top->zero[2] = 1; }},
    };
  }

  std::vector<Damage> of_the_heap_and_the_log() {
    mpls_tunnel_entry_t *const top = tunnel_node();
    void *const nh_top = top->nh_root;
    return {
        {"block-not-taken", [=, this] { page_of(nh_top).used[0] &= ~std::uint64_t{2}; }},
        {"block-not-taken", [=, this] { page_of(top).state = 0; }},
        {"block-not-taken", [=, this] { page_of(db().nh_info_array).state = 0; }},
        {"heap-page", [=, this] { page_of(nh_top).used[1] |= std::uint64_t{1} << 60; }},
        {"heap-page", [=, this] { page_of(window_ + bytes_ - 1).state = 77; }},
        {"heap-hint", [=, this] { std::memset(window_ + sizeof(vrellis::WindowHeader), 0, 24); }},
        {"block-unreachable", [=, this] { page_of(nh_top).used[1] |= std::uint64_t{1} << 20; }},
        {"heap-count", [=, this] { window_header().pages_used = 0; }},
        {"undo-log-in-use",
         [=, this] {
           std::uint64_t *const word = &link(top)->up;
           const Address log[] = {1, reinterpret_cast<Address>(&db().tun_root), reinterpret_cast<Address>(word), *word};
           std::memcpy(window_header().tree_area, log, sizeof log);
           *word ^= 3;
         }},
        {"undo-log-damaged",
         [=, this] {
           std::memset(window_header().tree_area, 1, 1), std::memset(window_header().tree_area + 16, 9, 8);
         }},
        {"undo-log-damaged", [=, this] { std::memset(window_header().tree_area, 255, 8); }},
    };
  }

  std::vector<std::uint8_t> pristine_;
  std::map<std::uint32_t, Entered> fresh_;
};

TEST_F(DamageTest, EachIsNamedAndMendedAndNothingElseIsTouched) {
  std::vector<Damage> damages = of_trees_and_slots();
  std::ranges::move(of_the_heap_and_the_log(), std::back_inserter(damages));
  for (const Damage &damage : damages) {
    restore();
    damage.make();
    SCOPED_TRACE(std::string(damage.kind) + "\n" + text(look()));
    EXPECT_TRUE(kinds(look()).contains(damage.kind));
    EXPECT_FALSE(look().sound());
    EXPECT_FALSE(expect_mended().changes.empty());
    expect_slots_untouched();
  }
}

TEST_F(DamageTest, AHeaderThatCannotBeBelievedStopsEverything) {
  const Damage damages[] = {
      {"not-a-window", [&] { window_header().magic ^= 1; }},
      {"not-a-window", [&] { window_header().complete = 0; }},
      {"layout-version", [&] { window_header().version = 9; }, "layout version 9, this library reads version 2"},
      {"header-identity", [&] { window_header().word_bits = 32; }, "a word size in bits of 32, this process has 64"},
      {"header-identity", [&] { window_header().mutex_bytes += 8; }},
      {"truncated", [&] { window_header().size += 4096; }},
      {"header-identity", [&] { window_header().heap_pages += 1; }},
      {"header-identity", [&] { window_header().address += 1; }},
      {"header-identity", [&] { db().shm_id += 1; }},
      {"not-initialised", [&] { db().is_initialized = 0; }},
      {"header-range", [&] { db().nh_end = db().nh_start - 1; }},
      {"header-array", [&] { db().nh_info_array = nullptr; }},
      {"header-array", [&] { db().tun_end = 0xffff0000; }},
  };
  for (const Damage &damage : damages) {
    restore();
    damage.make();
    const Report report = look();
    EXPECT_EQ(kinds(report), std::set<std::string>{damage.kind});
    EXPECT_NE(text(report).find(damage.says), std::string::npos) << text(report);
    EXPECT_FALSE(report.looked);
    EXPECT_EQ(repair(kId).status, EINVAL);
    EXPECT_FALSE(repair(kId).error.empty());
    EXPECT_EQ(rehearse(View::copy_of(window_, bytes_)).status, EINVAL);
  }
  restore();
  ++window_header().pid_namespace;  // the database can be looked at, and no process of this namespace can use it
  EXPECT_EQ(kinds(check(View::over(window_, bytes_))), std::set<std::string>{"other-namespace"});
  EXPECT_EQ(repair(kId).status, EINVAL);
  EXPECT_TRUE(look().sound()) << "a copy of a window is of no namespace";
  const Damage others[] = {
      // Each is sound in itself, and what the services make would lie in another window.
      {"", [&] { db().shm_id = window_header().shm_id = 0; }},
      {"", [&] { window_header().address += 1 << 20; }},
  };
  for (const Damage &damage : others) {
    restore();
    db().tun_root = nullptr;
    damage.make();
    EXPECT_EQ(repair(kId).status, EINVAL);
  }
  restore();
  db().lock.area[16] ^= 1;  // the mutex's kind
  EXPECT_EQ(kinds(look()), std::set<std::string>{"lock-damaged"});
  EXPECT_EQ(repair(kId).status, EINVAL);
  restore();
}

// What is to be made anew in a full window waits for what the same repair frees, and is told once.
TEST_F(DamageTest, AFullWindowIsMended) {
  void *block = nullptr;
  for (const std::size_t size : {vrellis::kPageBytes, sizeof(mpls_nh_entry_t), sizeof(mpls_tunnel_entry_t)}) {
    while (shmwin_malloc(kId, size, &block) == 0) {
    }
  }
  db().tun_root = nullptr;
  const RepairResult result = expect_mended();
  const auto lost = [](const Change &change) { return change.because == FindingKind::kTreeLost; };
  EXPECT_EQ(std::count_if(result.changes.begin(), result.changes.end(), lost),
            static_cast<std::ptrdiff_t>(entered_.size()));
  restore();
}

// Two NHs' array is as large as a node and lies in a node's block.
TEST_F(DamageTest, AnArrayAmongTheNodesIsMendedLikeANode) {
  open({100, 2, 5, 12});
  ASSERT_EQ(enter(100, 6, 16), 0);
  const auto array = reinterpret_cast<std::uintptr_t>(db().nh_info_array);
  vrellis::PageDescriptor &page = page_of(db().nh_info_array);
  ASSERT_EQ(vrellis::page_kind(page.state), vrellis::kNodes56);
  page.used[0] &= ~(std::uint64_t{1} << array % vrellis::kPageBytes / 56);
  EXPECT_EQ(kinds(look()), std::set<std::string>{"block-not-taken"});
  expect_mended();
  page.state = 0;
  EXPECT_TRUE(kinds(look()).contains("block-not-taken"));
  expect_mended();
  db().tun_root = db().nh_info_array;
  EXPECT_TRUE(kinds(look()).contains("tree-cycle"));
  expect_mended();
  db().nh_info_array = reinterpret_cast<egr_nh_info_t *>(array + 8);
  EXPECT_EQ(kinds(look()), std::set<std::string>{"header-array"});
  db().nh_info_array = reinterpret_cast<egr_nh_info_t *>(array);
}

}  // namespace
}  // namespace inspect_tests
