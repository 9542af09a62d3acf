// Queries and updates of one NH by its index; the trees are not touched.
#include <cerrno>

#include "../diag/error_messages.h"
#include "../diag/points.h"
#include "lock.h"
#include "slots.h"

using namespace encap;

// Takes no lock: a caller that acts on the answer holds it around both.
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

// Takes no lock: four separate field writes, which a caller that has concurrent writers holds the lock around.
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
  const int locked = vrl_egress_encap_db_lock(database_mutex());
  if (locked != 0) {
    emit<Point::read_lock_failed>(locked);
    return locked;
  }
  if (vrl_mem_get_key_from_egr_nh(nh_index, aux, key) != 0) {
    emit<Point::read_not_valid>(nh_index);
    vrl_egress_encap_db_unlock(database_mutex());  // the refusal is the result, whatever the unlock says
    return EINVAL;
  }
  const int unlocked = vrl_egress_encap_db_unlock(database_mutex());
  if (unlocked != 0) {
    emit<Point::read_unlock_failed>(unlocked);
    return unlocked;
  }
  return 0;
}
