#include "layout_records.h"

const layout_records_t *layout_records_of_c(void);
const layout_records_t *layout_records_of_c(void) {
  return &layout_records;
}
