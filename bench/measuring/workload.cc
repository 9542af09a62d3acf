#include "measuring/workload.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>

namespace encap_bench {
namespace {

constexpr std::uint32_t kMaxTunnels = 65535;
constexpr std::uint32_t kFirstLabel = 16;  // those below are reserved
constexpr std::uint32_t kLastLabel = (1U << 20) - 1;
constexpr std::uint32_t kInterfaces = 64;
constexpr std::uint32_t kFirstInterface = 0x00800100;
constexpr std::size_t kLoneKeys = 4096;

// An order of use that is shorter is no longer random: the processor learns it by heart.
constexpr std::size_t kFewestPositions = 1 << 17;

// std::shuffle and the distributions differ between libraries; the keys must not.
class Dice {
 public:
  std::uint32_t below(std::uint32_t bound) {
    return static_cast<std::uint32_t>((std::uint64_t{engine_()} * bound) >> 32);
  }
  std::uint32_t label() { return kFirstLabel + below(kLastLabel - kFirstLabel + 1); }

  template <typename T>
  void shuffle(std::vector<T> &items) {
    for (std::size_t i = items.size(); i > 1; --i) {
      std::swap(items[i - 1], items[below(static_cast<std::uint32_t>(i))]);
    }
  }

  // The items in a random order, and once more in another, until there are enough.
  template <typename T>
  std::vector<T> orders_of(std::vector<T> items) {
    std::vector<T> orders;
    while (orders.size() < kFewestPositions) {
      shuffle(items);
      orders.insert(orders.end(), items.begin(), items.end());
    }
    return orders;
  }

 private:
  std::mt19937 engine_{20011};
};

// Stacks of two and three labels over a few dozen interfaces.
void draw_tunnel(Dice &dice, Key &key) {
  key.out_label2 = dice.label() & 0x1fffff;
  key.out_label3 = (dice.below(2) == 0 ? 0 : dice.label()) & 0x1fffff;
  key.ifh = kFirstInterface + dice.below(kInterfaces);
}

void draw_nh(Dice &dice, Key &key) {
  key.out_label1 = dice.label() & 0x1fffff;
  key.te_local_label = (dice.below(4) == 0 ? dice.label() : 0) & 0x1fffff;
  key.is_failover_nh = dice.below(8) == 0 ? 1 : 0;
  key.protocol = dice.below(4) & 3;
}

struct KeyLess {
  bool operator()(const Key &a, const Key &b) const { return std::memcmp(&a, &b, sizeof a) < 0; }
};

// One key for each of `count` different tunnels, its NH fields 0.
std::vector<Key> draw_tunnels(Dice &dice, std::size_t count) {
  std::set<Key, KeyLess> seen;
  std::vector<Key> keys;
  while (keys.size() < count) {
    Key key{};
    draw_tunnel(dice, key);
    if (seen.insert(key).second) {
      keys.push_back(key);
    }
  }
  return keys;
}

// `count` different NH keys on the tunnel of `tunnel`.
std::vector<Key> draw_nhs(Dice &dice, const Key &tunnel, std::size_t count) {
  std::set<Key, KeyLess> seen;
  std::vector<Key> keys;
  while (keys.size() < count) {
    Key key = tunnel;
    draw_nh(dice, key);
    if (seen.insert(key).second) {
      keys.push_back(key);
    }
  }
  return keys;
}

}  // namespace

Shape shape_of(const std::string &name) {
  for (const Shape &known : {Shape{"S", 64, 8}, Shape{"M", 4096, 8}, Shape{"L", kMaxTunnels, 15}}) {
    if (known.name == name) {
      return known;
    }
  }
  Shape shape{name, 0, 0};
  if (std::sscanf(name.c_str(), "%ux%u", &shape.tunnels, &shape.nhs) != 2 || shape.tunnels < 2 ||
      shape.tunnels > kMaxTunnels || shape.nhs < 1 || shape.nhs > 100) {
    std::fprintf(stderr, "size '%s' is none of S, M, L, TUNNELSxNHS\n", name.c_str());
    std::exit(2);
  }
  return shape;
}

Workload::Workload(const Shape &wanted) : shape(wanted), tunnel_room(std::min(wanted.tunnels + 1, kMaxTunnels)) {
  Dice dice;
  const std::uint32_t filled = tunnel_room - 1;
  const std::vector<Key> tunnels = draw_tunnels(dice, filled + kLoneKeys);
  for (std::uint32_t t = 0; t < filled; ++t) {
    const std::vector<Key> keys = draw_nhs(dice, tunnels[t], shape.nhs + 1);
    for (std::uint32_t n = 0; n < shape.nhs; ++n) {
      entered.push_back({keys[n], 0, kFirstIndex + t});
    }
    missing_nh.push_back(keys[shape.nhs]);
  }
  dice.shuffle(entered);
  std::uint32_t next = kFirstIndex;
  for (Encap &encap : entered) {
    encap.nh = next++;
  }
  used = dice.orders_of(entered);
  missing_nh = dice.orders_of(missing_nh);
  for (std::size_t i = filled; i < tunnels.size(); ++i) {
    Key key = tunnels[i];
    draw_nh(dice, key);
    missing_tunnel.push_back(key);
    lone.push_back({key, next, kFirstIndex + filled});
  }
  missing_tunnel = dice.orders_of(missing_tunnel);
  lone = dice.orders_of(lone);
}

}  // namespace encap_bench
