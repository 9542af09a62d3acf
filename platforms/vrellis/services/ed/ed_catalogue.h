/*
 * Catalogue of a component's debug points: what its descriptors do not carry, for selecting points by function and for
 * rendering trace records as text.
 */
#ifndef VRELLIS_ED_CATALOGUE_H
#define VRELLIS_ED_CATALOGUE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ed_catalogue_row {
  uint32_t id;          /* trace-point id: the row's position in the catalogue */
  uint32_t line;        /* the point's own line; rises with the id */
  uint32_t num_values;  /* 0 to 15; the conversions in `format` */
  uint8_t category;     /* index into ed_catalogue_t.category */
  uint8_t traced;       /* 1 when it has a trace point */
  const char *function; /* the function that emits it */
  const char *format;   /* stored form: each string piece in double quotes, one blank between pieces */
} ed_catalogue_row_t;

typedef struct ed_catalogue {
  const char *component; /* the name its registration record carries */
  uint32_t num_categories;
  const char *const *category;
  uint32_t num_rows;
  const ed_catalogue_row_t *row;
} ed_catalogue_t;

/*
 * Tells the facility of a component's catalogue, which must outlive the process; best before the component registers,
 * so that ED_DEBUG can name its functions. Without one its points go by component, category, line and id only, since
 * a descriptor does not carry its text. At most 32; more are ignored, and so is one whose rows do not match the chain
 * in their number and numbers of values.
 */
__attribute__((visibility("default"))) void ed_add_catalogue(const ed_catalogue_t *catalogue);

#ifdef __cplusplus
}
#endif

#endif
