// The two operations that release: one takes a reference of an NH, the other removes an NH at once.
//
// They share all steps from the search for the tunnel on, and differ in their points and in the name that their
// messages carry. No failure undoes the steps before it.
#include <cerrno>

#include "../diag/error_messages.h"
#include "../diag/points.h"
#include "key_index.h"
#include "lock.h"
#include "slots.h"
#include "values.h"

namespace encap {
namespace {

// Working state of one call.
struct Removal {
  std::uint32_t nh_index;
  egress_encap_key_t key{};  // zeroed in full: the trees compare its spare bits too
  egress_encap_aux_data_t aux{};
  int tun_to_del_from_prm = 0;  // the tunnel's last reference went
  int tun_to_del_from_edb = 0;  // the tunnel's entry is to leave the tree
  int rc_nh = 0;
  int rc_tun = 0;
  int rc = 0;
};

struct Detach {
  static constexpr char name[] = "vrl_egress_encap_nh_detach";
  static constexpr Point out_of_range = Point::detach_out_of_range;
  static constexpr Point lock_failed = Point::detach_lock_failed;
  static constexpr Point not_valid = Point::detach_not_valid;
  static constexpr Point tunnel_not_found = Point::detach_tunnel_not_found;
  static constexpr Point nh_removal_failed = Point::detach_nh_removal_failed;
  static constexpr Point nh_removed = Point::detach_nh_removed;
  static constexpr Point tunnel_removal_failed = Point::detach_tunnel_removal_failed;
  static constexpr Point returns = Point::detach_return;
  static constexpr Point unlock_failed = Point::detach_unlock_failed;
  static constexpr Point failed = Point::detach_failed;
  static int &nh_removal_code(Removal &removal) { return removal.rc_nh; }
};

struct Delete {
  static constexpr char name[] = "vrl_delete_and_free_egress_encap_with_nh_key";
  static constexpr Point out_of_range = Point::delete_out_of_range;
  static constexpr Point lock_failed = Point::delete_lock_failed;
  static constexpr Point not_valid = Point::delete_not_valid;
  static constexpr Point tunnel_not_found = Point::delete_tunnel_not_found;
  static constexpr Point nh_removal_failed = Point::delete_nh_removal_failed;
  static constexpr Point nh_removed = Point::delete_nh_removed;
  static constexpr Point tunnel_removal_failed = Point::delete_tunnel_removal_failed;
  static constexpr Point returns = Point::delete_return;
  static constexpr Point unlock_failed = Point::delete_unlock_failed;
  static constexpr Point failed = Point::delete_failed;
  static int &nh_removal_code(Removal &removal) { return removal.rc; }
};

template <typename Operation>
void raise(const oxa_msg_rec_t &message, const Removal &removal) {
  raise_key_message(message, Operation::name, removal.key, removal.nh_index, removal.aux);
}

// Takes the NH's reference from its tunnel. A refusal is raised and becomes part of the result, and the NH is removed
// all the same.
template <typename Operation>
void release_tunnel(Removal &removal) REQUIRES_DATABASE_LOCK {
  removal.rc_tun = vrl_mem_decrement_egr_tunnel_ref_count(removal.aux.egr_tun, &removal.tun_to_del_from_prm);
  if (removal.rc_tun != 0) {
    raise<Operation>(oxa_msg_rec_mpls_encap_db_tun_refcount_error, removal);
  }
}

// Takes the NH out of its tunnel's tree and clears its slot. `root` is a copy of the tunnel's root, which is written
// back after the removal. An NH that is missing from the tree is raised and is no failure. Returns false when the tree
// refuses.
template <typename Operation>
bool remove_nh(Removal &removal, mpls_tunnel_entry_t *tunnel, void **root, uint32_t *nh_to_del) REQUIRES_DATABASE_LOCK {
  mpls_nh_entry_t *nh;
  vrl_find_mpls_nh_entry(nh_key(removal.key), *root, &nh);
  if (nh == nullptr) {
    raise<Operation>(oxa_msg_rec_mpls_encap_db_nh_notfound_error, removal);
    return true;
  }
  const int removed = vrl_delete_mpls_nh_entry(nh_key(removal.key), nh, root);
  if (removed != 0) {
    emit<Operation::nh_removal_failed>(nh_fields(removal.key), removal.nh_index, removal.aux.egr_tun, removed);
    Operation::nh_removal_code(removal) = removed;
    return false;
  }
  vrl_mem_clear_egr_nh_data(removal.nh_index);
  tunnel->nh_root = *root;
  if (nh_to_del != nullptr) {
    *nh_to_del = 1;
  }
  // All tunnel nodes of index 0 count in one slot, so such a node leaves the tree with its own last NH, although that
  // slot may count NHs of other nodes.
  if (*root == nullptr && removal.aux.egr_tun == 0) {
    removal.tun_to_del_from_edb = 1;
  }
  emit<Operation::nh_removed>(removal.aux.egr_tun, removal.tun_to_del_from_edb, removal.tun_to_del_from_prm);
  return true;
}

// Takes the tunnel out of the tunnel tree and clears its slot. Returns false when the tree refuses.
template <typename Operation>
bool remove_tunnel(Removal &removal, mpls_tunnel_entry_t *tunnel) REQUIRES_DATABASE_LOCK {
  removal.rc = vrl_delete_mpls_tunnel_entry(tunnel_key(removal.key), tunnel);
  if (removal.rc != 0) {
    emit<Operation::tunnel_removal_failed>(removal.aux.egr_tun, tunnel_fields(tunnel_key(removal.key)), removal.rc);
    return false;
  }
  vrl_mem_clear_egr_tun_data(removal.aux.egr_tun);
  return true;
}

// From the tunnel look-up to the out-parameters. `nh_to_del` may be NULL: an out-parameter of one operation only.
template <typename Operation>
void remove_from_trees(Removal &removal, uint32_t *egr_tun, uint32_t *tun_to_del_from_prm,
                       uint32_t *nh_to_del) REQUIRES_DATABASE_LOCK {
  const egress_encap_aux_data_t &aux = removal.aux;
  removal.tun_to_del_from_edb = removal.tun_to_del_from_prm;
  mpls_tunnel_entry_t *tunnel;
  vrl_find_mpls_tunnel_entry(tunnel_key(removal.key), &tunnel);
  if (tunnel == nullptr) {
    emit<Operation::tunnel_not_found>(key_fields(removal.key), removal.nh_index, aux.egr_tun, aux.seed_nh,
                                      aux.is_protected_te_nh);
    raise<Operation>(oxa_msg_rec_mpls_encap_db_tun_notfound_error, removal);
    removal.rc = EINVAL;
    return;
  }
  void *root = tunnel->nh_root;
  if (!remove_nh<Operation>(removal, tunnel, &root, nh_to_del)) {
    return;
  }
  const bool tunnel_goes = removal.tun_to_del_from_edb == 1 && root == nullptr;
  if (tunnel_goes && !remove_tunnel<Operation>(removal, tunnel)) {
    return;
  }
  *egr_tun = aux.egr_tun;
  *tun_to_del_from_prm = static_cast<uint32_t>(removal.tun_to_del_from_prm);
  emit<Operation::returns>(0);
}

// Reads the NH's key and data from its slot. Returns false when the slot is not valid, and reports it.
template <typename Operation>
bool read_nh(Removal &removal) REQUIRES_DATABASE_LOCK {
  removal.rc = vrl_mem_get_key_from_egr_nh(removal.nh_index, &removal.aux, &removal.key);
  if (removal.rc != 0) {
    emit<Operation::not_valid>(removal.nh_index);
    return false;
  }
  return true;
}

void detach_under_lock(Removal &removal, uint32_t *egr_tun, uint32_t *tun_to_del_from_prm,
                       uint32_t *nh_ref_count) REQUIRES_DATABASE_LOCK {
  if (!read_nh<Detach>(removal)) {
    return;
  }
  const egress_encap_aux_data_t &aux = removal.aux;
  *nh_ref_count = nh_slot(removal.nh_index).ref_count;
  emit<Point::detach_key>(key_fields(removal.key), removal.nh_index, aux.egr_tun, aux.seed_nh, aux.is_protected_te_nh);
  release_tunnel<Detach>(removal);
  remove_from_trees<Detach>(removal, egr_tun, tun_to_del_from_prm, nullptr);
}

[[gnu::always_inline]] inline void delete_under_lock(Removal &removal, uint32_t *egr_tun, uint32_t *nh_to_del,
                                                     uint32_t *tun_to_del_from_prm) REQUIRES_DATABASE_LOCK {
  if (!read_nh<Delete>(removal)) {
    return;
  }
  const egress_encap_aux_data_t &aux = removal.aux;
  int last_reference = 0;
  removal.rc_nh = vrl_mem_decrement_egr_nh_ref_count(removal.nh_index, &last_reference);
  if (removal.rc_nh != 0) {
    raise<Delete>(oxa_msg_rec_mpls_encap_db_nh_refcount_error, removal);
    last_reference = 0;
    removal.rc_nh = EINVAL;
  }
  emit<Point::delete_key>(key_fields(removal.key), removal.nh_index, aux.egr_tun, last_reference, aux.seed_nh,
                          aux.is_protected_te_nh);
  if (last_reference == 0) {
    // The NH keeps its tunnel, so neither flag of the tunnel can be set.
    emit<Point::delete_still_used>(key_fields(removal.key), removal.nh_index, aux.egr_tun, last_reference,
                                   removal.tun_to_del_from_edb, aux.seed_nh, aux.is_protected_te_nh);
    return;
  }
  release_tunnel<Delete>(removal);
  remove_from_trees<Delete>(removal, egr_tun, tun_to_del_from_prm, nh_to_del);
}

// Returns the operation's result: 22 when any of the three codes is set.
template <typename Operation>
int conclude(const Removal &removal) {
  if (removal.rc_nh == 0 && removal.rc_tun == 0 && removal.rc == 0) {
    return 0;
  }
  emit<Operation::failed>(removal.rc_nh, removal.rc_tun, removal.rc);
  return EINVAL;
}

template <typename Operation>
int refuse_range(Removal &removal) {
  emit<Operation::out_of_range>(removal.nh_index);
  removal.rc = EINVAL;
  return conclude<Operation>(removal);
}

}  // namespace
}  // namespace encap

using namespace encap;

int vrl_egress_encap_nh_detach(uint32_t nh_index, uint32_t *egr_tun, uint32_t *tun_to_del_from_prm,
                               uint32_t *nh_ref_count) {
  Removal removal{.nh_index = nh_index};
  if (!nh_in_range(nh_index)) {
    return refuse_range<Detach>(removal);
  }
  *egr_tun = 0;
  *tun_to_del_from_prm = 0;
  *nh_ref_count = 0;
  const int locked = take_lock<Detach::lock_failed>();
  if (locked != 0) {
    return locked;
  }
  detach_under_lock(removal, egr_tun, tun_to_del_from_prm, nh_ref_count);
  release_lock<Detach::unlock_failed>();
  return conclude<Detach>(removal);
}

int vrl_delete_and_free_egress_encap_with_nh_key(uint32_t nh_index, uint32_t *egr_tun, uint32_t *nh_to_del,
                                                 uint32_t *tun_to_del_from_prm) {
  Removal removal{.nh_index = nh_index};
  if (!nh_in_range(nh_index)) {
    return refuse_range<Delete>(removal);
  }
  const int locked = take_lock<Delete::lock_failed>();
  if (locked != 0) {
    return locked;
  }
  delete_under_lock(removal, egr_tun, nh_to_del, tun_to_del_from_prm);
  release_lock<Delete::unlock_failed>();
  return conclude<Delete>(removal);
}
