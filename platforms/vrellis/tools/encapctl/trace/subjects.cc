// A message names each of its values in the words before its conversion: "NH index %d", "egr_tun %d". The table tells
// which words name an index; the catalogue then tells, point by point, which value it is.
#include "trace/subjects.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <string_view>

namespace encapctl {
namespace {

enum class Role { none, nh, tunnel, nh_found, tunnel_found };

// What the words before a value end in, whole words, and what the value is then. Longer endings first.
struct Wording {
  std::string_view ending;
  Role role;
};
constexpr Wording kWordings[] = {
    {"egr_nh_found", Role::nh_found},  // the index that follows means something only if it is not 0
    {"egr_nh found", Role::nh_found},
    {"egr_tun_found", Role::tunnel_found},
    {"NH not valid", Role::nh},
    {"Nh found", Role::nh},
    {"tun found", Role::tunnel},
    {"NH index", Role::nh},
    {"NH entry", Role::nh},
    {"nh_index", Role::nh},
    {"egr_nh", Role::nh},
    {"NH", Role::nh},
    {"nh", Role::nh},
    {"tunnel index", Role::tunnel},
    {"tunnel if", Role::tunnel},
    {"tunnel_if", Role::tunnel},
    {"egr_tun", Role::tunnel},
    {"Tunnel", Role::tunnel},
    {"tunnel", Role::tunnel},
};

constexpr std::uint32_t kCountDownOfTunnel = 31;  // the one message that calls a tunnel's index "tun index" alone

constexpr std::uint8_t kNoValue = 255;

// Numbers of the values that are indexes, and of those that tell whether they are.
struct Places {
  std::uint8_t nh = kNoValue;
  std::uint8_t tunnel = kNoValue;
  std::uint8_t nh_found = kNoValue;
  std::uint8_t tunnel_found = kNoValue;

  std::uint8_t &of(Role role) {
    return role == Role::nh ? nh : role == Role::tunnel ? tunnel : role == Role::nh_found ? nh_found : tunnel_found;
  }
};

bool is_word(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool ends_in(std::string_view words, std::string_view ending) {
  return words.ends_with(ending) &&
         (words.size() == ending.size() || !is_word(words[words.size() - ending.size() - 1]));
}

Role role_of(std::string_view words) {
  const std::size_t last = words.find_last_not_of(" :,\"");
  words = words.substr(0, last == words.npos ? 0 : last + 1);
  const auto wording = std::find_if(std::begin(kWordings), std::end(kWordings),
                                    [&](const Wording &each) { return ends_in(words, each.ending); });
  return wording == std::end(kWordings) ? Role::none : wording->role;
}

// Reads the stored text, whose pieces stand in quotes: where one begins, a word does.
Places read_places(const ed_catalogue_row_t &row) {
  Places places;
  std::string_view rest = row.format;
  for (std::uint8_t value = 0; value < row.num_values; ++value) {
    const std::size_t percent = rest.find('%');
    if (percent == rest.npos) {
      break;
    }
    const Role role = role_of(rest.substr(0, percent));
    if (role != Role::none && places.of(role) == kNoValue) {
      places.of(role) = value;
    }
    rest.remove_prefix(std::min(rest.find_first_of("dx", percent), rest.size() - 1) + 1);
  }
  if (row.id == kCountDownOfTunnel) {
    places.tunnel = 0;
  }
  return places;
}

const Places &places_of(const ed_catalogue_row_t &row) {
  static std::map<const ed_catalogue_row_t *, Places> known;
  const auto [place, fresh] = known.try_emplace(&row);
  if (fresh) {
    place->second = read_places(row);
  }
  return place->second;
}

std::optional<std::uint32_t> value_at(const vrellis::TraceRecord &event, std::uint8_t number, std::uint8_t found) {
  const bool given = number < event.num_values && (found >= event.num_values || event.value[found] != 0);
  return given ? std::optional(static_cast<std::uint32_t>(event.value[number])) : std::nullopt;
}

}  // namespace

Subjects subjects_of(const vrellis::TraceRecord &event, const ed_catalogue_row_t *row) {
  if (row == nullptr) {
    return {};
  }
  const Places &places = places_of(*row);
  return {value_at(event, places.nh, places.nh_found), value_at(event, places.tunnel, places.tunnel_found)};
}

}  // namespace encapctl
