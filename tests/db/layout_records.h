/* Every record filled the same way by a C11 and by a C++ translation unit: both must give the same bytes. */
#ifndef ENCAP_TESTS_LAYOUT_RECORDS_H
#define ENCAP_TESTS_LAYOUT_RECORDS_H

#include <string.h>

#include "ed.h"
#include "mpls_egress_encap_db.h"
#include "oxa_errmsg.h"

typedef struct layout_records {
  mpls_nh_key_t nh_key;
  mpls_tunnel_key_t tunnel_key;
  egress_encap_key_t key;
  egress_encap_info_t info;
  egress_encap_aux_data_t aux;
  egr_nh_data_t data;
  egr_nh_info_t nh_slot;
  egr_tun_info_t tunnel_slot;
  mpls_nh_entry_t nh_node;
  mpls_tunnel_entry_t tunnel_node;
  egress_encap_db_t header;
} layout_records_t;

/* Fills the fields that share a word, and one field behind each run of words. */
static inline void layout_fill(layout_records_t *r) {
  memset(r, 0, sizeof *r);
  r->nh_key.out_label1 = 0x1abcd;
  r->nh_key.te_local_label = 0x10001;
  r->nh_key.is_failover_nh = 1;
  r->nh_key.protocol = 2;
  r->nh_key.is_l2vpn_pref_path = 1;
  r->tunnel_key.out_label2 = 0x1fffff;
  r->tunnel_key.out_label3 = 0x100000;
  r->tunnel_key.ifh = 0x80000123;
  r->key.out_label1 = 0x1abcd;
  r->key.te_local_label = 0x10001;
  r->key.protocol = 1;
  r->key.out_label2 = 0x1fffff;
  r->key.out_label3 = 0x100000;
  r->key.ifh = 0x80000123;
  r->info.egr_nh = 1;
  r->info.egr_tun = 2;
  r->info.seed_nh = 3;
  r->info.failover_nh = 4;
  r->info.failover_id = 0xabc;
  r->info.nh_found = 1;
  r->aux.egr_tun = 1;
  r->aux.seed_nh = 2;
  r->aux.is_protected_te_nh = 1;
  r->aux.failover_id = 0xabc;
  r->aux.failover_nh = 5;
  r->data.seed_nh = 1;
  r->data.failover_nh = 2;
  r->data.failover_id = 0xabc;
  r->data.is_protected_te_nh = 1;
  r->nh_slot.ref_count = 1;
  r->nh_slot.out_label1 = 0x1abcd;
  r->nh_slot.te_local_label = 0x10001;
  r->nh_slot.is_l2vpn_pref_path = 1;
  r->nh_slot.seed_nh = 2;
  r->nh_slot.ifh = 3;
  r->nh_slot.failover_nh = 4;
  r->nh_slot.egr_tun = 0x1234;
  r->nh_slot.failover_id = 0xabc;
  r->nh_slot.valid = 1;
  r->tunnel_slot.ref_count = 1;
  r->tunnel_slot.out_label2 = 0x1fffff;
  r->tunnel_slot.out_label3 = 0x100000;
  r->tunnel_slot.valid = 1;
  r->nh_node.key = r->nh_key;
  r->nh_node.nh_index = 0x105;
  r->tunnel_node.key = r->tunnel_key;
  r->tunnel_node.egr_tun = 0x1234;
  r->header.shm_id = 9;
  r->header.nh_start = 1;
  r->header.nh_end = 2;
  r->header.tun_start = 3;
  r->header.tun_end = 4;
  r->header.lock.area[135] = 5;
  r->header.is_initialized = 6;
}

#endif
