// Random operations against the model. ENCAP_SEED replays a run, ENCAP_OPERATIONS makes it longer.
#include <cstdlib>
#include <iostream>
#include <random>

#include "support/fixture.h"

namespace encap_test {
namespace {

class RandomTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    set_messages(false);
  }
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
  // Few keys, so that they meet; stray ones now and then differ in a spare bit alone.
  Key key(bool stray) {
    Key key = label(16 + below(4)).raw(1, below(2) << 21).out_of(1 + below(3));
    if (below(2)) {
      key = key.over(200 + below(2), 0);
    }
    return !stray || below(40) ? key : key.raw(below(4), 1u << 31);
  }
  std::uint32_t any_nh() { return kNhStart - 1 + below(kNhSize + 2); }
  std::uint32_t any_tunnel() { return below(4) ? kTunStart - 1 + below(kTunSize + 2) : kNull; }

  // An index that nobody uses, as well-behaved callers choose them; `stray` ones do not look.
  std::uint32_t free_nh() {
    for (std::uint32_t nh = kNhStart; nh < kNhStart + kNhSize; ++nh) {
      if (!model.nh(nh).valid) {
        return nh;
      }
    }
    return kNhStart + kNhSize;
  }
  std::uint32_t free_tunnel(const Key &key) {
    if (key.out_label2 == 0) {
      return kNull;
    }
    for (std::uint32_t tunnel = kTunStart; tunnel < kTunStart + kTunSize; ++tunnel) {
      if (!model.tunnel(tunnel).valid) {
        return tunnel;
      }
    }
    return kTunStart + kTunSize;
  }

  void enter_some(bool stray);
  void step(bool stray);
  void go(bool stray, unsigned operations);

  std::mt19937 random_;
};

void RandomTest::enter_some(bool stray) {
  const Key wanted = key(stray);
  egress_encap_info_t info = record(stray ? any_nh() : free_nh(), stray ? any_tunnel() : free_tunnel(wanted));
  egress_encap_info_t expected = info;
  const bool share = below(2);
  const int status = share ? vrl_find_and_share_egress_encap(&info, wanted) : vrl_find_egress_encap(&info, wanted);
  EXPECT_EQ(status, model.find(expected, wanted, share));
  EXPECT_EQ(std::memcmp(&info, &expected, sizeof info), 0);
  if (stray && below(8) == 0) {
    info.tun_found = info.tun_found ^ 1u;
  }
  expected = info;
  const std::uint32_t count = below(4);
  if (below(3)) {
    EXPECT_EQ(vrl_insert_egress_encap(&info, wanted), model.insert(expected, wanted));
  } else {
    EXPECT_EQ(vrl_egress_encap_nh_insert_attach(&info, count, wanted), model.attach(expected, count, wanted));
  }
}

void RandomTest::step(bool stray) {
  const std::uint32_t nh = any_nh();
  Outs is, expected;
  const egr_nh_data_t data{below(9), below(9), below(4096) & 0xfff, below(2) & 1, 0};
  switch (below(8)) {
    case 0:
      EXPECT_EQ(vrl_egress_encap_nh_detach(nh, &is.first, &is.second, &is.third), model.detach(nh, expected));
      break;
    case 1:
    case 2:
      EXPECT_EQ(vrl_delete_and_free_egress_encap_with_nh_key(nh, &is.first, &is.second, &is.third),
                model.release(nh, expected));
      break;
    case 3:
      EXPECT_EQ(vrl_find_and_share_egress_nh(nh), model.share(nh));
      EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(nh), model.can_delete(nh));
      break;
    case 4:
      EXPECT_EQ(vrl_update_egr_nh_data_in_encap_db(nh, data), model.update(nh, data));
      break;
    case 5: {
      egress_encap_aux_data_t aux{}, expected_aux{};
      egress_encap_key_t read{}, expected_key{};
      EXPECT_EQ(vrl_get_encap_key_and_aux_data_from_nh(nh, &aux, &read), model.read(nh, expected_aux, expected_key));
      EXPECT_EQ(std::memcmp(&aux, &expected_aux, sizeof aux), 0);
      EXPECT_EQ(std::memcmp(&read, &expected_key, sizeof read), 0);
      break;
    }
    default:
      enter_some(stray);
  }
  EXPECT_TRUE(is == expected) << is.first << ' ' << is.second << ' ' << is.third;
}

void RandomTest::go(bool stray, unsigned operations) {
  const char *chosen = std::getenv("ENCAP_SEED");
  const char *length = std::getenv("ENCAP_OPERATIONS");
  const auto seed = static_cast<unsigned>(chosen ? std::strtoul(chosen, nullptr, 0) : std::random_device{}());
  operations = length ? static_cast<unsigned>(std::strtoul(length, nullptr, 0)) : operations;
  std::cout << "ENCAP_SEED=" << seed << " ENCAP_OPERATIONS=" << operations << std::endl;
  random_.seed(seed);
  for (unsigned i = 0; i < operations && !HasFailure(); ++i) {
    if (i % 500 == 0) {
      open();
      set_messages(false);
    }
    step(stray);
    expect_database();
    if (!stray) {
      EXPECT_EQ(inconsistency(db(), walk_list), "");
    }
    if (HasFailure()) {
      std::cout << "at operation " << i << "\n" << journal().take();
    }
    journal().take();
  }
}

TEST_F(RandomTest, CallersThatKeepTheRules) {
  go(false, 4000);
}

// Indexes in use, flags that are wrong: the database follows the model all the same.
TEST_F(RandomTest, CallersThatDoNot) {
  go(true, 4000);
}

}  // namespace
}  // namespace encap_test
