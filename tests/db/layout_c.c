#include "layout_records.h"

void layout_fill_c(layout_records_t *records);
void layout_fill_c(layout_records_t *records) {
  layout_fill(records);
}
