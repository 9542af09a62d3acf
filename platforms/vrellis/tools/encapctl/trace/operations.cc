// Not every operation records its entry and its return. Where an operation begins or ends is told by a table: by
// records that only ever come first or last, and by records that come first unless certain others stand right before
// them.
#include "trace/operations.h"

#include <algorithm>
#include <array>

#include "diag/points.h"
#include "trace/traces.h"

namespace encapctl {
namespace {

using encap::Point;

constexpr Point kNone = Point::detach_reserved;  // emitted nowhere

// What a record means for the operations of its thread.
struct Boundary {
  Point point;
  bool begins;  // an operation, unless it stands right after one of `inside`
  bool ends;    // the operation it belongs to
  std::array<Point, 5> inside{kNone, kNone, kNone, kNone, kNone};
  std::string_view alone = {};  // the operation, when no record of its own follows
};

constexpr Boundary kBoundaries[] = {
    {Point::share_entry, true, false},
    {Point::share_return, false, true},
    {Point::tunnel_find_result,
     true,
     false,
     {Point::share_entry, Point::insert_entry, Point::tunnel_count_down, Point::tunnel_count_down_at_zero,
      Point::tunnel_count_down_not_valid},
     "vrl_find_egress_encap"},
    {Point::find_lock_failed, true, true},
    {Point::find_return, false, true},
    {Point::nh_count_up,
     true,
     false,
     {Point::share_nh_found, Point::nh_slot_set, kNone, kNone, kNone},
     "vrl_find_and_share_egress_nh"},
    {Point::nh_count_up_not_valid,
     true,
     true,
     {Point::share_nh_found, Point::nh_slot_set, kNone, kNone, kNone},
     "vrl_find_and_share_egress_nh"},
    {Point::share_nh_out_of_range, true, true},
    {Point::share_nh_lock_failed, true, true},
    {Point::share_nh_unlock_failed, false, true},
    {Point::share_nh_return, false, true},
    {Point::insert_entry, true, false},
    {Point::tunnel_count_up, false, true},  // the insert alone counts a tunnel up, and does so last
    {Point::tunnel_count_up_not_valid, false, true},
    {Point::update_out_of_range, true, true},
    {Point::update_done, true, true},
    {Point::update_not_valid, true, true},
    {Point::can_delete_out_of_range, true, true},
    {Point::can_delete_not_valid, true, true},
    {Point::can_delete_yes, true, true},
    {Point::read_out_of_range, true, true},
    {Point::read_lock_failed, true, true},
    {Point::nh_read_back, true, false, {kNone, kNone, kNone, kNone, kNone}, "vrl_get_encap_key_and_aux_data_from_nh"},
    {Point::nh_read_back_not_valid, true, false},
    {Point::read_not_valid, false, true},
    {Point::set_out_of_range, true, true},
    {Point::set_lock_failed, true, true},
    {Point::set_done, true, true},
    {Point::set_not_valid, true, true},
    {Point::attach_null_record, true, true},
    {Point::detach_out_of_range, true, false},
    {Point::detach_lock_failed, true, true},
    {Point::detach_failed, false, true},
    {Point::delete_out_of_range, true, false},
    {Point::delete_lock_failed, true, true},
    {Point::delete_failed, false, true},
    {Point::init_entry, true, false},
    {Point::init_done, false, true},
};

// Steps of operations, by the beginning of their names: a record of theirs does not tell whose step it is.
constexpr std::string_view kSteps[] = {"vrl_mem_",
                                       "vrl_mpls_",
                                       "vrl_find_mpls_",
                                       "vrl_insert_mpls_",
                                       "vrl_delete_mpls_",
                                       "mpls_egress_encap_init_",
                                       "mpls_egress_encap_dbg_init"};

constexpr std::string_view kAttach = "vrl_egress_encap_nh_insert_attach";
constexpr std::string_view kInsert = "vrl_insert_egress_encap";

bool is_step(std::string_view function) {
  return std::any_of(std::begin(kSteps), std::end(kSteps), [&](auto step) { return function.starts_with(step); });
}

constexpr Boundary kOrdinary{kNone, false, false};

const Boundary &boundary_of(std::uint32_t id) {
  const auto row = std::find_if(std::begin(kBoundaries), std::end(kBoundaries),
                                [&](const Boundary &each) { return static_cast<std::uint32_t>(each.point) == id; });
  return row != std::end(kBoundaries) ? *row : kOrdinary;
}

class Grouping {
 public:
  void add(std::size_t at, const vrellis::TraceRecord &event) {
    const ed_catalogue_row_t *const row = row_of(event);
    const std::string_view function = row != nullptr ? row->function : "?";
    if (function == kAttach && event.id != static_cast<std::uint32_t>(Point::attach_null_record)) {
      add_attach(at);
    } else {
      add_ordinary(at, event.id, function);
    }
    last_id_ = event.id;
  }

  std::vector<Operation> take() {
    std::stable_sort(found_.begin(), found_.end(), [](const Operation &a, const Operation &b) {
      return a.first != b.first ? a.first < b.first : a.end > b.end;
    });
    return std::move(found_);
  }

 private:
  void add_ordinary(std::size_t at, std::uint32_t id, std::string_view function) {
    const Boundary &boundary = boundary_of(id);
    const bool step = is_step(function);
    const bool other = open_ && named_ && !step && found_.back().function != function;
    if (!open_ || other || (boundary.begins && !continues(boundary))) {
      found_.push_back({at, at, boundary.alone.empty() ? function : boundary.alone});
      named_ = false;
    }
    open_ = !boundary.ends;
    found_.back().end = at + 1;
    if (!step && !named_) {
      found_.back().function = function;
      named_ = true;
    }
  }

  bool continues(const Boundary &boundary) const {
    return std::any_of(boundary.inside.begin(), boundary.inside.end(),
                       [&](Point point) { return point != kNone && static_cast<std::uint32_t>(point) == last_id_; });
  }

  // The attach records its outcome alone, after the operations that it called: it reaches back to its insert.
  void add_attach(std::size_t at) {
    std::size_t first = at;
    for (std::size_t back = found_.size(); back-- > 0 && found_.size() - back <= 2;) {
      if (found_[back].function == kInsert) {
        first = found_[back].first;
        break;
      }
    }
    found_.push_back({first, at + 1, kAttach});
    open_ = false;
  }

  std::vector<Operation> found_;
  std::uint32_t last_id_ = UINT32_MAX;
  bool open_ = false;   // the last of found_ may go on
  bool named_ = false;  // its function is known from a record of its own
};

}  // namespace

std::vector<Operation> operations_of(std::span<const vrellis::TraceRecord> events) {
  Grouping grouping;
  for (std::size_t at = 0; at < events.size(); ++at) {
    grouping.add(at, events[at]);
  }
  return grouping.take();
}

}  // namespace encapctl
