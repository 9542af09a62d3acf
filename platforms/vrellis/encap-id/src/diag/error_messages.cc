#include "error_messages.h"

#define KEY_FORMAT                                                                              \
  "%s: label1 %d label2 %d label3 %d te_local_label %d is_failover_nh %d protocol %d IFH 0x%x " \
  "nh_idx %d tun_idx %d seed_nh %d"

// MESSAGE(number, symbol, name, format): the whole catalogue, numbered from 0x1ac90000 in this order.
#define FOR_EACH_MESSAGE(MESSAGE)                                                             \
  MESSAGE(0, nh_notfound_error, "NH_NOTFOUND_ERROR", KEY_FORMAT)                              \
  MESSAGE(1, nh_notvalid_error, "NH_NOTVALID_ERROR", "%s: nh_idx %d ref_count %d")            \
  MESSAGE(2, nh_refcount_error, "NH_REFCOUNT_ERROR", KEY_FORMAT)                              \
  MESSAGE(3, tun_notfound_error, "TUN_NOTFOUND_ERROR", KEY_FORMAT)                            \
  MESSAGE(4, tun_notvalid_error, "TUN_NOTVALID_ERROR", "%s: tun_if %d tun_idx %d ref_cnt %d") \
  MESSAGE(5, tun_refcount_error, "TUN_REFCOUNT_ERROR", KEY_FORMAT)

#define DEFINE_MESSAGE(number, symbol, name, format)                                                         \
  constinit oxa_msg_limit_t oxa_msg_limit_mpls_encap_db_##symbol = {OXA_DEFAULT_BURST, {}};                  \
  constinit const oxa_msg_rec_t oxa_msg_rec_mpls_encap_db_##symbol = {0,                                     \
                                                                      format,                                \
                                                                      &oxa_msg_limit_mpls_encap_db_##symbol, \
                                                                      "MPLS_ENCAP_DB",                       \
                                                                      "PLATFORM",                            \
                                                                      name,                                  \
                                                                      OXA_MSG_CLASS,                         \
                                                                      0,                                     \
                                                                      0x1ac90000U + (number)};

FOR_EACH_MESSAGE(DEFINE_MESSAGE)

namespace encap {

void raise_nh_not_valid(const char *function, std::uint32_t nh_index, std::uint32_t ref_count) {
  oxa_errmsg(&oxa_msg_rec_mpls_encap_db_nh_notvalid_error, OXA_SEVERITY_ERROR, function, nh_index, ref_count);
}

void raise_tunnel_not_valid(const char *function, std::uint32_t tunnel_if, std::uint32_t slot,
                            std::uint32_t ref_count) {
  oxa_errmsg(&oxa_msg_rec_mpls_encap_db_tun_notvalid_error, OXA_SEVERITY_ERROR, function, tunnel_if, slot, ref_count);
}

void raise_key_message(const oxa_msg_rec_t &record, const char *function, const egress_encap_key_t &key,
                       std::uint32_t nh_index, const egress_encap_aux_data_t &aux) {
  oxa_errmsg(&record, OXA_SEVERITY_ERROR, function, std::uint32_t{key.out_label1}, std::uint32_t{key.out_label2},
             std::uint32_t{key.out_label3}, std::uint32_t{key.te_local_label}, std::uint32_t{key.is_failover_nh},
             std::uint32_t{key.protocol}, key.ifh, nh_index, aux.egr_tun, aux.seed_nh);
}

}  // namespace encap
