// A plain model of the database: what the slots and the trees hold, and what each operation does to them, calls,
// reports and answers. It knows bytes, not records: every slot is compared as an image built from shifts.
#ifndef ENCAP_TESTS_MODEL_H
#define ENCAP_TESTS_MODEL_H

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "model/model_steps.h"
#include "mpls_egress_encap_db.h"

namespace encap_test {

using Bytes = std::vector<std::uint8_t>;
std::string hex(const Bytes &bytes);

template <typename Record>
Bytes bytes_of(const Record &record) {
  const auto *bytes = static_cast<const std::uint8_t *>(static_cast<const void *>(&record));
  return {bytes, bytes + sizeof record};
}

NhKey nh_key(const egress_encap_key_t &key);
TunnelKey tunnel_key(const egress_encap_key_t &key);

struct NhSlot {
  std::uint32_t count = 0, label1 = 0, word1 = 0;  // word1: the key's second word without its spare bits
  std::uint32_t seed = 0, ifh = 0, failover_nh = 0, tunnel = 0, failover_id = 0, is_protected = 0, valid = 0;
  Bytes image() const;
};

struct TunnelSlot {
  std::uint32_t count = 0, label2 = 0, label3 = 0, valid = 0;
  Bytes image() const;
};

struct Tunnel {
  std::uint32_t index = 0;
  std::map<NhKey, std::uint32_t> nhs;
  bool operator==(const Tunnel &) const = default;
};

// Results of an operation; an out-parameter that it leaves alone keeps its preset.
struct Outs {
  std::uint32_t first = 0xEEEEEEEE, second = 0xEEEEEEEE, third = 0xEEEEEEEE;
  bool operator==(const Outs &) const = default;
};

class Model : public Steps {
 public:
  Model() = default;
  Model(std::uint32_t nh_start, std::uint32_t nh_size, std::uint32_t tun_start, std::uint32_t tun_size);

  int find(egress_encap_info_t &info, const egress_encap_key_t &key, bool share);
  int share(std::uint32_t nh);
  int insert(const egress_encap_info_t &info, const egress_encap_key_t &key);
  int attach(const egress_encap_info_t &info, std::uint32_t count, const egress_encap_key_t &key);
  int set(std::uint32_t nh, std::uint32_t count);
  int detach(std::uint32_t nh, Outs &outs);   // egr_tun, tun_to_del_from_prm, nh_ref_count
  int release(std::uint32_t nh, Outs &outs);  // egr_tun, nh_to_del, tun_to_del_from_prm
  int can_delete(std::uint32_t nh);
  int update(std::uint32_t nh, const egr_nh_data_t &data);
  int read(std::uint32_t nh, egress_encap_aux_data_t &aux, egress_encap_key_t &key);

  // Node and filled slot, not yet counted.
  void add_tunnel(std::uint32_t tunnel, const egress_encap_key_t &key);
  void add_nh(const egress_encap_info_t &info, const egress_encap_key_t &key);

  NhSlot &nh(std::uint32_t index) { return nhs_.at(index - nh_start); }
  const NhSlot &nh(std::uint32_t index) const { return nhs_.at(index - nh_start); }
  std::uint32_t tunnel_slot(std::uint32_t tunnel) const { return (tunnel == 0 ? tun_end : tunnel) - tun_start; }
  TunnelSlot &tunnel(std::uint32_t index) { return tunnel_slots_.at(tunnel_slot(index)); }
  const TunnelSlot &tunnel(std::uint32_t index) const { return tunnel_slots_.at(tunnel_slot(index)); }
  std::uint32_t free_nh() const;  // the first; nh_end: none
  std::uint32_t free_tunnel() const;
  bool has_nh(std::uint32_t index) const { return index >= nh_start && index < nh_end; }
  bool has_tunnel(std::uint32_t index) const { return index == 0 || (index >= tun_start && index < tun_end); }

  std::uint32_t nh_start = 0, nh_end = 0, tun_start = 0, tun_end = 0;
  std::map<TunnelKey, Tunnel> tunnels;
  const std::vector<NhSlot> &nh_slots() const { return nhs_; }
  const std::vector<TunnelSlot> &tunnel_slots() const { return tunnel_slots_; }

 private:
  struct Codes {
    int nh = 0, tun = 0, rc = 0;
  };
  struct Way;  // detach or release
  void know_key(const egress_encap_key_t &key);
  int count_nh_up(std::uint32_t nh);
  int read_back(std::uint32_t nh, egress_encap_aux_data_t &aux, egress_encap_key_t &key);
  template <typename Body>
  int locked_on(std::uint32_t nh, std::uint32_t points, Body body);
  int insert_locked(const egress_encap_info_t &info, const egress_encap_key_t &key, bool known);
  int give_up(const Way &way, std::uint32_t nh, Outs &outs);
  void give_up_locked(const Way &way, std::uint32_t nh, Codes &codes, Outs &outs);
  void remove(const Way &way, std::uint32_t nh, const egress_encap_key_t &key, std::uint32_t prm, Codes &codes,
              Outs &outs);

  std::vector<NhSlot> nhs_;
  std::vector<TunnelSlot> tunnel_slots_;
};

// Compares every view of the database at `header` with the model and with each other: the header's fixed fields, all
// bytes of both slot arrays, order, keys and contents of the trees. Returns what differs, or "".
std::string differences(const egress_encap_db_t &header, const Model &model);

// What the trees of the database at `header` say that its slots and counts are; users and auxiliary data as the slots
// have them.
Model model_of(const egress_encap_db_t &header);
// Checks trees, slots and counts of a database against each other (invariants I2 to I4 of the header). Returns "" or
// what does not hold.
std::string inconsistency(const egress_encap_db_t &header);

std::vector<void *> walk_avl(void *root);  // the nodes of a tree in its order

}  // namespace encap_test

#endif
