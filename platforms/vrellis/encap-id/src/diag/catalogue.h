/* The catalogue of the database library's debug points; see ed_catalogue.h. */
#ifndef MPLS_EGRESS_ENCAP_DB_CATALOGUE_H
#define MPLS_EGRESS_ENCAP_DB_CATALOGUE_H

#include "ed_catalogue.h"

#ifdef __cplusplus
extern "C" {
#endif

extern const ed_catalogue_t encap_catalogue;

#ifdef __cplusplus
}
#endif

#endif
