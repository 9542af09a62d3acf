#include "model/model.h"

namespace encap_test {
namespace {

constexpr const char *kNhNotValid = "NH_NOTVALID_ERROR", *kTunNotValid = "TUN_NOTVALID_ERROR";

}  // namespace

int Model::count_nh_up(std::uint32_t index) {
  return count_up(nh(index), 18, kNhNotValid, "vrl_mem_increment_egr_nh_ref_count");
}

// The beginning that operations on an index share: its range, then the lock. `points`: out of range, lock failed.
template <typename Body>
int Model::locked_on(std::uint32_t index, std::uint32_t points, Body body) {
  know({{"nh", index}});
  if (!has_nh(index)) {
    return point(points);
  }
  const int code = lock(points + 1);
  return code != 0 ? code : body();
}

// ----------------------------------------------------------------------------------------------------------- look-ups

int Model::find(egress_encap_info_t &info, const egress_encap_key_t &key, bool share) {
  know_key(key);
  if (share) {
    point(35);
  }
  info.tun_found = 0;
  info.nh_found = 0;
  if (const int code = lock(share ? 36 : 41)) {
    return code;
  }
  int rc = 0;
  if (const Tunnel *tunnel = find_node(tunnels, "tun_root", tunnel_key(key), 2)) {
    info.tun_found = 1;
    info.egr_tun = tunnel->index;
    point(share ? 37 : 42, {{"tun", tunnel->index}});
    if (const std::uint32_t *nh = find_node(tunnel->nhs, "nh_root", nh_key(key), 3)) {
      info.nh_found = 1;
      info.egr_nh = *nh;
      point(share ? 38 : 43, {{"nh", *nh}});
      rc = share ? count_nh_up(*nh) : 0;
    }
  }
  const int unlocked = unlock(rc != 0 ? kSilent : share ? 39 : 44);
  if (rc != 0 || (unlocked != 0 && !share)) {
    return rc != 0 ? rc : unlocked;
  }
  know({{"nhf", info.nh_found}, {"tunf", info.tun_found}});
  point(share ? 40 : 45, {{"nh", info.egr_nh}, {"tun", info.egr_tun}});
  return 0;
}

int Model::share(std::uint32_t index) {
  return locked_on(index, 46, [&] {
    const int rc = count_nh_up(index);
    const int unlocked = unlock(rc != 0 ? kSilent : 48);
    if (rc == 0 && unlocked == 0) {
      point(49);
    }
    return rc != 0 ? rc : unlocked;
  });
}

int Model::set(std::uint32_t index, std::uint32_t count) {
  return locked_on(index, 76, [&] {
    NhSlot &slot = nh(index);
    int rc = 0;
    point(slot.valid ? 78 : 79, {{"old", slot.count}, {"count", count}});
    if (slot.valid) {
      slot.count = count;
    } else {
      know({{"count", slot.count}});
      rc = raise(kNhNotValid, "vrl_find_and_set_egress_nh_ref");
    }
    const int unlocked = unlock(80);
    return unlocked != 0 ? unlocked : rc;
  });
}

int Model::read(std::uint32_t index, egress_encap_aux_data_t &aux, egress_encap_key_t &key) {
  return locked_on(index, 72, [&] {
    if (read_back(index, aux, key) != 0) {
      point(74);
      unlock(kSilent);
      return EINVAL;
    }
    return unlock(75);
  });
}

int Model::can_delete(std::uint32_t index) {
  know({{"nh", index}});
  if (!has_nh(index)) {
    point(32);
  } else if (nh(index).valid == 0) {
    not_valid(nh(index), 33, kNhNotValid, "vrl_can_delete_egr_nh_data_from_encap_db");
  } else if (nh(index).count == 1) {
    point(34);
    return 1;
  }
  return 0;
}

int Model::update(std::uint32_t index, const egr_nh_data_t &data) {
  know({{"nh", index}});
  if (!has_nh(index)) {
    return point(69);
  }
  NhSlot &slot = nh(index);
  if (slot.valid == 0) {
    return not_valid(slot, 71, kNhNotValid, "vrl_update_egr_nh_data_in_encap_db");
  }
  slot.seed = data.seed_nh;
  slot.failover_nh = data.failover_nh;
  slot.failover_id = data.failover_id;
  slot.is_protected = data.is_protected_te_nh;
  know({{"seed", slot.seed}, {"prot", slot.is_protected}});
  point(70, {{"fid", slot.failover_id}, {"fnh", slot.failover_nh}});
  return 0;
}

// ------------------------------------------------------------------------------------------------------------ inserts

int Model::insert(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  const bool known = info.tun_found != 0;
  know_key(key);
  know({{"nh", info.egr_nh}, {"tun", info.egr_tun}, {"fid", info.failover_id}, {"fnh", info.failover_nh}});
  point(50, {{"tunf", info.tun_found}, {"nhf", info.nh_found}, {"prot", info.is_protected_te_nh}});
  if (known && info.nh_found) {
    return 0;
  }
  const auto tunnel_refused = [&] { return !has_tunnel(info.egr_tun) && point(51) != 0; };
  const auto nh_refused = [&] { return !has_nh(info.egr_nh) && point(known ? 58 : 52) != 0; };
  if (known ? nh_refused() || tunnel_refused() : tunnel_refused() || nh_refused()) {
    return EINVAL;
  }
  if (const int code = lock(known ? 59 : 53)) {
    return code;
  }
  const int rc = insert_locked(info, key, known);
  if (rc == 0) {
    unlock(67);
    point(68);
  }
  return rc;
}

// Releases the lock itself when something fails: where, decides who reports an unlock that fails too.
int Model::insert_locked(const egress_encap_info_t &info, const egress_encap_key_t &key, bool known) {
  const auto refuse = [&](std::uint32_t when_known, std::uint32_t when_new) {
    unlock(known ? when_known : when_new);
    return EINVAL;
  };
  const TunnelKey on = tunnel_key(key);
  if (known && find_node(tunnels, "tun_root", on, 2) == nullptr) {
    refuse(60, 0);
    return point(61);
  }
  if (!known) {
    if (new_node("56", "tun_root", on, tunnels.contains(on), 4) != 0) {
      return refuse(0, 54);
    }
    add_tunnel(info.egr_tun, key);
  }
  const int rc = new_node("40", "nh_root", nh_key(key), tunnels.at(on).nhs.contains(nh_key(key)), 8);
  if (known) {
    point(rc != 0 ? 62 : 64, {{"rc", rc}});
  }
  if (rc != 0) {
    return refuse(63, 55);
  }
  add_nh(info, key);
  if (count_nh_up(info.egr_nh) != 0) {
    return refuse(65, 56);
  }
  know({{"slot", tunnel_slot(info.egr_tun)}});
  const int counted = count_up(tunnel(info.egr_tun), 20, kTunNotValid, "vrl_mem_increment_egr_tun_ref_count");
  return counted != 0 ? refuse(66, 57) : 0;
}

int Model::attach(const egress_encap_info_t &info, std::uint32_t count, const egress_encap_key_t &key) {
  if (const int inserted = insert(info, key)) {
    point(82, {{"rc", inserted}, {"nh", info.egr_nh}});
    return inserted;
  }
  const int counted = set(info.egr_nh, count);
  point(counted != 0 ? 83 : 84, {{"count", count}, {"rc", counted}});
  return counted;
}

// ----------------------------------------------------------------------------------------------------------- releases

// Points are as far from `first` in both ways, but for that of the key.
struct Model::Way {
  const char *name;
  std::uint32_t first, key;
  bool detaches;
};

int Model::detach(std::uint32_t index, Outs &outs) {
  outs = has_nh(index) ? Outs{0, 0, 0} : outs;
  return give_up({"vrl_egress_encap_nh_detach", 85, 89, true}, index, outs);
}

int Model::release(std::uint32_t index, Outs &outs) {
  return give_up({"vrl_delete_and_free_egress_encap_with_nh_key", 97, 100, false}, index, outs);
}

int Model::give_up(const Way &way, std::uint32_t index, Outs &outs) {
  Codes codes;
  const int begun = locked_on(index, way.first, [&] {
    give_up_locked(way, index, codes, outs);
    unlock(way.first + 10);
    return 0;
  });
  if (begun != 0 && has_nh(index)) {
    return begun;  // the lock's code
  }
  codes.rc = begun != 0 ? begun : codes.rc;
  const bool well = codes.nh == 0 && codes.tun == 0 && codes.rc == 0;
  return well ? 0 : point(way.first + 11, {{"rc_nh", codes.nh}, {"rc_tun", codes.tun}, {"rc", codes.rc}});
}

void Model::give_up_locked(const Way &way, std::uint32_t index, Codes &codes, Outs &outs) {
  egress_encap_aux_data_t aux{};
  egress_encap_key_t key{};
  if (read_back(index, aux, key) != 0) {
    codes.rc = point(way.first + 2);
    return;
  }
  std::uint32_t last = way.detaches, prm = 0;
  if (way.detaches) {
    outs.third = nh(index).count;
  } else {
    codes.nh = count_down(nh(index), last, 26, kNhNotValid, "vrl_mem_decrement_egr_nh_ref_count");
    if (codes.nh != 0) {
      raise("NH_REFCOUNT_ERROR", way.name);
    }
  }
  point(way.key, {{"del", last}});
  if (last == 0) {
    point(101, {{"edb", 0}});
    return;
  }
  codes.tun = count_down(tunnel(aux.egr_tun), prm, 29, kTunNotValid, "vrl_mem_decrement_egr_tunnel_ref_count");
  if (codes.tun != 0) {
    raise("TUN_REFCOUNT_ERROR", way.name);
  }
  remove(way, index, key, prm, codes, outs);
}

// From the tunnel look-up to the out-parameters: the same in both ways.
void Model::remove(const Way &way, std::uint32_t index, const egress_encap_key_t &key, std::uint32_t prm, Codes &codes,
                   Outs &outs) {
  const std::uint32_t on = nh(index).tunnel;
  Tunnel *tunnel = find_node(tunnels, "tun_root", tunnel_key(key), 2);
  if (tunnel == nullptr) {
    codes.rc = point(way.first + 5);
    raise("TUN_NOTFOUND_ERROR", way.name);
    return;
  }
  std::uint32_t edb = prm;
  if (find_node(tunnel->nhs, "nh_root", nh_key(key), 3) == nullptr) {
    raise("NH_NOTFOUND_ERROR", way.name);
  } else if (delete_node("copy", nh_key(key), 15)) {
    tunnel->nhs.erase(nh_key(key));
    nh(index) = {};
    outs.second = way.detaches ? outs.second : 1;
    edb = tunnel->nhs.empty() && on == 0 ? 1 : edb;
    point(way.first + 7, {{"edb", edb}, {"prm", prm}});
  } else {
    (way.detaches ? codes.nh : codes.rc) = point(way.first + 6, {{"rc", EINVAL}});
    return;
  }
  if (edb != 0 && tunnel->nhs.empty()) {
    if (!delete_node("tun_root", tunnel_key(key), 12)) {
      codes.rc = point(way.first + 8, {{"rc", EINVAL}});
      return;
    }
    tunnels.erase(tunnel_key(key));
    if (on != 0) {
      this->tunnel(on) = {};
    }
  }
  outs.first = on;
  (way.detaches ? outs.second : outs.third) = prm;
  point(way.first + 9);
}

}  // namespace encap_test
