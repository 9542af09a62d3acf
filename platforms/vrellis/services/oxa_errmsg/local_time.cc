#include "oxa_errmsg/local_time.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace vrellis {
namespace {

constexpr time_t kDay = 86400;
constexpr time_t kStep = 7 * kDay;  // no zone keeps an offset for a shorter time
constexpr int kSteps = 20 * 52;

// The offset from UTC that holds from `from` on, until the next entry's.
struct Offset {
  time_t from;
  time_t seconds;
};
std::array<Offset, 64> offsets{};
size_t num_offsets = 0;

time_t offset_at(time_t seconds) {
  tm local{};
  return localtime_r(&seconds, &local) != nullptr ? local.tm_gmtoff : 0;
}

// The first second after `before`, and not after `after`, at which the offset of `after` holds.
time_t find_change(time_t before, time_t after) {
  const time_t wanted = offset_at(after);
  while (after - before > 1) {
    const time_t middle = before + (after - before) / 2;
    (offset_at(middle) == wanted ? after : before) = middle;
  }
  return after;
}

[[gnu::constructor]] void read_offsets() {
  time_t at = time(nullptr) - kStep;
  offsets[num_offsets++] = {at, offset_at(at)};
  for (int step = 0; step < kSteps && num_offsets < offsets.size(); ++step, at += kStep) {
    const time_t seconds = offset_at(at + kStep);
    if (seconds != offsets[num_offsets - 1].seconds) {
      offsets[num_offsets++] = {find_change(at, at + kStep), seconds};
    }
  }
}

}  // namespace

LocalTime local_time(time_t seconds) {
  size_t entry = num_offsets;
  while (entry > 1 && offsets[entry - 1].from > seconds) {
    --entry;
  }
  const time_t local = seconds + (entry != 0 ? offsets[entry - 1].seconds : 0);
  const time_t second_of_day = (local % kDay + kDay) % kDay;
  // The Gregorian calendar in eras of 400 years, each year beginning in March so that a leap day is its last.
  const int64_t days = (local - second_of_day) / kDay + 719468;  // since 1 March of the year 0
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto day_of_era = static_cast<unsigned>(days - era * 146097);
  const unsigned year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const unsigned day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const unsigned march_month = (5 * day_of_year + 2) / 153;  // 0 is March
  const unsigned month = march_month < 10 ? march_month + 3 : march_month - 9;
  const auto of_day = static_cast<unsigned>(second_of_day);
  return {static_cast<unsigned>(era * 400) + year_of_era + (month <= 2 ? 1 : 0),
          month,
          day_of_year - (153 * march_month + 2) / 5 + 1,
          of_day / 3600,
          of_day / 60 % 60,
          of_day % 60};
}

}  // namespace vrellis
