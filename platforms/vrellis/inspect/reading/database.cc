#include "database.h"

#include <utility>

#include "survey.h"

namespace encap_inspect {

Database decode(const View &view) {
  return std::move(survey(view).db);
}

const egr_nh_info_t *Database::nh_slot(std::uint32_t index) const {
  return nh_in_range(index) ? view->record<egr_nh_info_t>(nh_array + sizeof(egr_nh_info_t) * (index - nh_start))
                            : nullptr;
}

const egr_tun_info_t *Database::tunnel_slot(std::uint32_t index) const {
  return tunnel_in_range(index)
             ? view->record<egr_tun_info_t>(tun_array + sizeof(egr_tun_info_t) * tunnel_slot_number(index))
             : nullptr;
}

}  // namespace encap_inspect
