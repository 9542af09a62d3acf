// What every contestant is given: the same keys, entered in the same random order, used in another random order.
#ifndef ENCAP_BENCH_WORKLOAD_H
#define ENCAP_BENCH_WORKLOAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mpls_egress_encap_db.h"

namespace encap_bench {

using Key = egress_encap_key_t;

// One encapsulation and the indexes that its user chose for it.
struct Encap {
  Key key;
  std::uint32_t nh;
  std::uint32_t tun;
};

struct Shape {
  std::string name;
  std::uint32_t tunnels;
  std::uint32_t nhs;  // on each tunnel
};

// "S", "M", "L", or any other as "512x8". Stops the program when it is none.
Shape shape_of(const std::string &name);

inline constexpr std::uint32_t kFirstIndex = 1;  // of the NHs and of the tunnels

class Workload {
 public:
  explicit Workload(const Shape &shape);

  Shape shape;

  // Room for one tunnel more than is filled, which comes and goes; tunnel indexes end at 65535, so at size L the
  // filled ones are 65,534.
  std::uint32_t tunnel_room;
  std::uint32_t nh_room() const { return tunnel_room * shape.nhs; }

  std::vector<Encap> entered;       // in the order in which they are entered
  std::vector<Encap> used;          // the same in random order, time and again: how the operations use them
  std::vector<Key> missing_nh;      // an NH that its tunnel does not have
  std::vector<Key> missing_tunnel;  // a tunnel that is not there
  std::vector<Encap> lone;          // a tunnel that is not there, with the indexes for it and its only NH
};

// Splits a key the way the trees do.
inline mpls_nh_key_t nh_part(const Key &key) {
  mpls_nh_key_t part;
  __builtin_memcpy(&part, &key, sizeof part);
  return part;
}
inline mpls_tunnel_key_t tunnel_part(const Key &key) {
  mpls_tunnel_key_t part;
  __builtin_memcpy(&part, reinterpret_cast<const char *>(&key) + sizeof(mpls_nh_key_t), sizeof part);
  return part;
}

}  // namespace encap_bench

#endif
