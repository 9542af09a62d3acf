// The steps in which an operation changes a database, to be taken one by one in the order in which the library takes
// them: a process that dies between two of them leaves what was done so far.
#ifndef STATES_FIXTURE_H
#define STATES_FIXTURE_H

#include <functional>

#include "avl.h"
#include "inspect_fixture.h"
#include "repair/mend.h"

namespace inspect_tests {

using Kinds = std::set<std::string>;

class StatesTest : public InspectTest {
 protected:
  static constexpr std::uint32_t kTunnels[] = {6, 0};  // one with an index of its own, the null tunnel
  static constexpr std::uint32_t kNew = 150, kNewLabel = 44;

  void SetUp() override {
    InspectTest::SetUp();
    start();
  }

  // Three NHs on tunnel 6, four on the null tunnel, all with one user.
  void start() {
    open({});
    fill(1, 4);
  }

  template <typename Entry>
  Entry *allocate() {
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(kId, sizeof(Entry), &block), 0);
    std::memset(block, 0, sizeof(Entry));
    return static_cast<Entry *>(block);
  }

  mpls_tunnel_entry_t *tunnel_node(const egress_encap_key_t &full) {
    mpls_tunnel_entry_t probe{};
    std::memcpy(&probe.key, reinterpret_cast<const char *>(&full) + 8, 12);
    return static_cast<mpls_tunnel_entry_t *>(avl_search(db().tun_root, &probe, kCompareTunnels));
  }

  mpls_nh_entry_t *nh_node(const egress_encap_key_t &full) {
    mpls_nh_entry_t probe{};
    std::memcpy(&probe.key, &full, 8);
    return static_cast<mpls_nh_entry_t *>(avl_search(tunnel_node(full)->nh_root, &probe, kCompareNhs));
  }

  mpls_nh_entry_t *new_nh(const egress_encap_key_t &full) {
    auto *node = allocate<mpls_nh_entry_t>();
    std::memcpy(&node->key, &full, 8);
    return node;
  }

  mpls_tunnel_entry_t *new_tunnel(const egress_encap_key_t &full) {
    auto *node = allocate<mpls_tunnel_entry_t>();
    std::memcpy(&node->key, reinterpret_cast<const char *>(&full) + 8, 12);
    return node;
  }

  mpls_nh_entry_t *link_nh(const egress_encap_key_t &full) {
    int flag = 0;
    return static_cast<mpls_nh_entry_t *>(avl_insert(&tunnel_node(full)->nh_root, new_nh(full), &flag, kCompareNhs));
  }

  mpls_tunnel_entry_t *link_tunnel(const egress_encap_key_t &full) {
    int flag = 0;
    return static_cast<mpls_tunnel_entry_t *>(avl_insert(&db().tun_root, new_tunnel(full), &flag, kCompareTunnels));
  }

  void fill_nh_slot(std::uint32_t index, const egress_encap_key_t &full, std::uint32_t tunnel_index) {
    egr_nh_info_t &slot = nh(index);
    slot.egr_tun = static_cast<std::uint16_t>(tunnel_index);
    slot.out_label1 = full.out_label1;
    slot.protocol = full.protocol;
    slot.ifh = full.ifh;
    slot.valid = 1;
    slot.seed_nh = index + 7;
  }

  void fill_tunnel_slot(std::uint32_t index, const egress_encap_key_t &full) {
    egr_tun_info_t &slot = tunnel(index);
    slot.out_label2 = full.out_label2;
    slot.out_label3 = full.out_label3;
    slot.valid = 1;
  }

  mpls_nh_entry_t *unlink_nh(std::uint32_t index) {
    int flag = 0;
    const egress_encap_key_t full = entered_.at(index).key;
    mpls_tunnel_entry_t *home = tunnel_node(full);
    void *root = home->nh_root;
    void *node = avl_delete(&root, nh_node(full), &flag, kCompareNhs);
    home->nh_root = root;
    return static_cast<mpls_nh_entry_t *>(node);
  }

  std::uint32_t first_on(std::uint32_t tunnel_index) {
    for (const auto &[index, entry] : entered_) {
      if (entry.tunnel == tunnel_index) {
        return index;
      }
    }
    return 0;
  }

  // What an operation does next, and what is found when its process dies then.
  struct Step {
    std::function<void()> work;
    Kinds expected;
    const char *name;
  };

  // The process dies after the first step, after the second, and so on.
  void expect_steps(const std::vector<Step> &steps) {
    for (std::size_t last = 0; last < steps.size(); ++last) {
      SCOPED_TRACE(steps[last].name);
      start();
      for (std::size_t i = 0; i <= last; ++i) {
        steps[i].work();
      }
      EXPECT_EQ(kinds(look()), steps[last].expected) << text(look());
      const std::vector<std::uint8_t> before(window_, window_ + bytes_);
      rehearse_window(config_of("window"));
      EXPECT_EQ(std::memcmp(before.data(), window_, bytes_), 0) << "changed by a rehearsal";
      EXPECT_EQ(repair(kId).status, 0);
      EXPECT_TRUE(look().sound()) << text(look());
      expect_entries();
      enter(kNew + 1, 7, 60);  // and operations go on
      EXPECT_TRUE(look().sound()) << text(look());
    }
    start();
  }

  void stay(std::uint32_t index, std::uint32_t tunnel_index, std::uint32_t count) {
    entered_[index] = {key(tunnel_index, kNewLabel), tunnel_index, count};
  }
};

}  // namespace inspect_tests

#endif
