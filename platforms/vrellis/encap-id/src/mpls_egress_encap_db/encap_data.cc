// Queries and updates of one NH by its index. None of them searches or changes a tree.
#include <cerrno>

#include "../diag/error_messages.h"
#include "../diag/points.h"
#include "lock.h"
#include "slots.h"

using namespace encap;

// This operation takes no lock: a caller that acts on the answer holds the lock around the call and the action.
TAKES_NO_DATABASE_LOCK
int vrl_can_delete_egr_nh_data_from_encap_db(uint32_t nh_index) {
  if (!nh_in_range(nh_index)) {
    emit<Point::can_delete_out_of_range>(nh_index);
    return 0;
  }
  const egr_nh_info_t &slot = nh_slot(nh_index);
  if (slot.valid == 0) {
    emit<Point::can_delete_not_valid>(nh_index, slot.ref_count);
    raise_nh_not_valid("vrl_can_delete_egr_nh_data_from_encap_db", nh_index, slot.ref_count);
    return 0;
  }
  if (slot.ref_count != 1) {
    return 0;
  }
  emit<Point::can_delete_yes>(nh_index);
  return 1;
}

// This operation takes no lock: it writes four fields one after the other. A caller with concurrent writers or readers
// holds the lock around the call.
TAKES_NO_DATABASE_LOCK
int vrl_update_egr_nh_data_in_encap_db(uint32_t nh_index, egr_nh_data_t data) {
  if (!nh_in_range(nh_index)) {
    emit<Point::update_out_of_range>(nh_index);
    return EINVAL;
  }
  egr_nh_info_t &slot = nh_slot(nh_index);
  if (slot.valid == 0) {
    emit<Point::update_not_valid>(nh_index, slot.ref_count);
    raise_nh_not_valid("vrl_update_egr_nh_data_in_encap_db", nh_index, slot.ref_count);
    return EINVAL;
  }
  slot.seed_nh = data.seed_nh;
  slot.is_protected_te_nh = data.is_protected_te_nh;
  slot.failover_id = data.failover_id;
  slot.failover_nh = data.failover_nh;
  emit<Point::update_done>(nh_index, slot.seed_nh, slot.is_protected_te_nh, slot.failover_id, slot.failover_nh);
  return 0;
}

int vrl_get_encap_key_and_aux_data_from_nh(uint32_t nh_index, egress_encap_aux_data_t *aux, egress_encap_key_t *key) {
  if (!nh_in_range(nh_index)) {
    emit<Point::read_out_of_range>(nh_index);
    return EINVAL;
  }
  const int locked = take_lock<Point::read_lock_failed>();
  if (locked != 0) {
    return locked;
  }
  if (vrl_mem_get_key_from_egr_nh(nh_index, aux, key) != 0) {
    emit<Point::read_not_valid>(nh_index);
    release_lock();  // the refusal is the result; the status of the unlock is not
    return EINVAL;
  }
  return release_lock<Point::read_unlock_failed>();
}
