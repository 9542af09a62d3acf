// One reference taken or given back: the one step that all calls of a client are made of. Requires the database lock,
// and that no change is open.
#ifndef VRELLIS_CLIENT_REFERENCES_H
#define VRELLIS_CLIENT_REFERENCES_H

#include "records/known.h"
#include "records/ledger.h"

namespace clients {

// Out: *entry on success. Returns: 0, or the codes of encap_client_enter(), with nothing changed.
int take_reference(const KnownTunnels &known, Ledger &ledger, const egress_encap_key_t &key,
                   const encap_attributes_t &attributes, encap_entry_t *entry);

// Returns: 0, or the codes of encap_client_release(), with nothing changed.
int give_reference_back(const KnownTunnels &known, Ledger &ledger, std::uint32_t nh, First first, encap_left_t *left);

}  // namespace clients

#endif
