// The six error messages: inconsistencies of the database, rate-limited by the error-message facility.
//
// Raising one never changes the outcome of an operation. `function` is the raising operation's name.
#ifndef MPLS_EGRESS_ENCAP_DB_ERROR_MESSAGES_H
#define MPLS_EGRESS_ENCAP_DB_ERROR_MESSAGES_H

#include <cstdint>

#include "mpls_egress_encap_db.h"
#include "oxa_errmsg.h"

namespace encap {

// NH_NOTVALID_ERROR: the slot of `nh_index` is not in use, with `ref_count` in it.
void raise_nh_not_valid(const char *function, std::uint32_t nh_index, std::uint32_t ref_count);

// TUN_NOTVALID_ERROR: the slot of `tunnel_if`, element `slot` of the array, is not in use.
void raise_tunnel_not_valid(const char *function, std::uint32_t tunnel_if, std::uint32_t slot, std::uint32_t ref_count);

// One of the four messages that carry a key: what an operation read from the NH's slot and its tunnel's.
void raise_key_message(const oxa_msg_rec_t &record, const char *function, const egress_encap_key_t &key,
                       std::uint32_t nh_index, const egress_encap_aux_data_t &aux);

}  // namespace encap

#endif
