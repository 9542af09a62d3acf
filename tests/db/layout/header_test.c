/* The public header alone makes a translation unit. */
#include "mpls_egress_encap_db.h"
