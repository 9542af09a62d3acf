/* The catalogue of the database library's debug points; see ed_catalogue.h. */
#ifndef MPLS_EGRESS_ENCAP_DB_CATALOGUE_H
#define MPLS_EGRESS_ENCAP_DB_CATALOGUE_H

#include "ed_catalogue.h"

#ifdef __cplusplus
extern "C" {
#endif

extern const ed_catalogue_t encap_catalogue;

/*
 * What a point is about: the numbers of the values that are an NH index and a tunnel index, counted from 1; 0: none is.
 * Where *_found is not 0, the index means something only in a record whose value of that number is not 0.
 */
typedef struct encap_point_subject {
  unsigned char nh;
  unsigned char tunnel;
  unsigned char nh_found;
  unsigned char tunnel_found;
} encap_point_subject_t;

extern const encap_point_subject_t encap_point_subject[]; /* by trace-point id */

#ifdef __cplusplus
}
#endif

#endif
