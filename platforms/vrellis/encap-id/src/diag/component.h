// Registration of the library with the debug facility.
#ifndef MPLS_EGRESS_ENCAP_DB_COMPONENT_H
#define MPLS_EGRESS_ENCAP_DB_COMPONENT_H

namespace encap {

// Registers the library's debug points, once per process however often it is called.
// Requires: runs before the process's other threads use the library (the once-only flag is a plain word).
void mpls_egress_encap_dbg_init();

}  // namespace encap

#endif
