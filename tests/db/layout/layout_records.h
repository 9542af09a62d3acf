/* Every record filled the same way by a C11 and by a C++ translation unit: both must give the same bytes. */
#ifndef ENCAP_TESTS_LAYOUT_RECORDS_H
#define ENCAP_TESTS_LAYOUT_RECORDS_H

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

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
/* The fields that share a word, and one field behind each run of words. */
static const layout_records_t layout_records = {
    .nh_key =
        {.out_label1 = 0x1abcd, .te_local_label = 0x10001, .is_failover_nh = 1, .protocol = 2, .is_l2vpn_pref_path = 1},
    .tunnel_key = {.out_label2 = 0x1fffff, .out_label3 = 0x100000, .ifh = 0x80000123},
    .key = {.out_label1 = 0x1abcd,
            .te_local_label = 0x10001,
            .protocol = 1,
            .out_label2 = 0x1fffff,
            .out_label3 = 0x100000,
            .ifh = 0x80000123},
    .info = {.egr_nh = 1, .egr_tun = 2, .seed_nh = 3, .failover_nh = 4, .failover_id = 0xabc, .nh_found = 1},
    .aux = {.egr_tun = 1, .seed_nh = 2, .is_protected_te_nh = 1, .failover_id = 0xabc, .failover_nh = 5},
    .data = {.seed_nh = 1, .failover_nh = 2, .failover_id = 0xabc, .is_protected_te_nh = 1},
    .nh_slot = {.ref_count = 1,
                .out_label1 = 0x1abcd,
                .te_local_label = 0x10001,
                .is_l2vpn_pref_path = 1,
                .seed_nh = 2,
                .ifh = 3,
                .failover_nh = 4,
                .egr_tun = 0x1234,
                .failover_id = 0xabc,
                .valid = 1},
    .tunnel_slot = {.ref_count = 1, .out_label2 = 0x1fffff, .out_label3 = 0x100000, .valid = 1},
    .nh_node = {.key = {.out_label1 = 0x1abcd, .te_local_label = 0x10001}, .nh_index = 0x105},
    .tunnel_node = {.key = {.out_label2 = 0x1fffff, .out_label3 = 0x100000, .ifh = 0x80000123}, .egr_tun = 0x1234},
    .header = {.shm_id = 9, .nh_start = 1, .nh_end = 2, .tun_start = 3, .tun_end = 4, .is_initialized = 6}};
#pragma GCC diagnostic pop

#endif
