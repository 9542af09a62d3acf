#include "attributes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace route_file {
namespace {

using std::string_view;

// Words that may stand before the destination.
constexpr string_view kRouteTypes[] = {"unicast", "local",       "broadcast", "multicast", "anycast",
                                       "throw",   "unreachable", "prohibit",  "blackhole", "nat"};

// Attributes that are read over: with one value, and alone. ("ttl-propogate" is how some versions print it.)
constexpr string_view kValued[] = {
    "advmss",   "age",        "congctl",       "cwnd",         "error",    "expires",  "fastopen_no_cookie",
    "features", "from",       "hoplimit",      "iif",          "initcwnd", "mark",     "initrwnd",
    "metric",   "mtu",        "nhid",          "pref",         "proto",    "quickack", "realm",
    "realms",   "reordering", "rto_min",       "rtt",          "rttvar",   "scope",    "src",
    "table",    "ssthresh",   "tos",           "ttl",          "uid",      "used",     "users",
    "weight",   "window",     "ttl-propagate", "ttl-propogate"};
constexpr string_view kFlags[] = {"dead",           "linkdown", "notify",     "offload",
                                  "offload_failed", "onlink",   "rt_offload", "rt_offload_failed",
                                  "rt_trap",        "trap",     "pervasive",  "unresolved"};

bool is_one_of(string_view word, const auto &list) {
  return std::ranges::find(list, word) != std::end(list);
}

std::optional<std::uint32_t> number_of(string_view word) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (end != word.data() + word.size() || word.empty() || error == std::errc::invalid_argument) {
    return std::nullopt;
  }
  return error == std::errc{} ? value : UINT32_MAX;
}

// Bits of an address of the family in `word`; 0 when it is none.
std::uint32_t address_bits(string_view word) {
  const std::string text(word);
  in6_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) == 1) {
    return 32;
  }
  return inet_pton(AF_INET6, text.c_str(), &address) == 1 ? 128 : 0;
}

// Empty when `word` is a label that may stand `above_bottom` in a stack, else the reason.
std::string label_fault(string_view word, bool above_bottom) {
  const std::optional<std::uint32_t> label = number_of(word);
  if (!label) {
    return word.empty() ? "a label is missing between slashes" : "label " + quoted(word) + " is no number";
  }
  if (*label > kMaxLabel) {
    return "label " + std::string(word.substr(0, 20)) + " is past 20 bits";
  }
  const char *const fault = reserved_label_fault(*label, above_bottom);
  return fault != nullptr ? fault : "";
}

// Fills the labels of `hop` from "top/.../bottom". Empty, or the reason.
std::string read_stack(string_view text, Hop &hop) {
  const std::size_t count = static_cast<std::size_t>(std::ranges::count(text, '/')) + 1;
  if (count > kMaxLabels) {
    return "a stack of " + std::to_string(count) + " labels is past the three that an encapsulation has";
  }
  hop.depth = count;
  for (std::size_t level = count; level-- > 0;) {
    const std::size_t slash = std::min(text.find('/'), text.size());
    const string_view word = text.substr(0, slash);
    if (std::string reason = label_fault(word, level > 0); !reason.empty()) {
      return reason;
    }
    hop.label[level] = *number_of(word);
    text.remove_prefix(std::min(slash + 1, text.size()));
  }
  return {};
}

}  // namespace

std::string quoted(string_view word) {
  constexpr std::size_t kShown = 60;
  return "'" + std::string(word.substr(0, kShown)) + (word.size() > kShown ? "...'" : "'");
}

std::vector<string_view> words_of(string_view line) {
  constexpr string_view kBlanks = " \t\r\v\f";
  std::vector<string_view> words;
  for (std::size_t at = line.find_first_not_of(kBlanks); at != string_view::npos;) {
    const std::size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
    words.push_back(line.substr(at, end - at));
    at = line.find_first_not_of(kBlanks, end);
  }
  return words;
}

bool is_destination(string_view word) {
  if (word == "default" || number_of(word).value_or(UINT32_MAX) <= kMaxLabel) {
    return true;  // a number alone is the incoming label of an MPLS route
  }
  const std::size_t slash = word.find('/');
  const std::uint32_t bits = address_bits(word.substr(0, slash));
  if (slash == string_view::npos || bits == 0) {
    return bits != 0;
  }
  return number_of(word.substr(slash + 1)).value_or(UINT32_MAX) <= bits;
}

bool is_route_type(string_view word) {
  return is_one_of(word, kRouteTypes);
}

bool Attributes::has_mpls() const {
  return value_of("encap") == "mpls" || value_of("as") == "to";
}

string_view Attributes::value_of(string_view name) const {
  const auto at = std::ranges::find(words_, name);
  return at != words_.end() && at + 1 != words_.end() ? at[1] : string_view{};
}

std::string Attributes::read(Hop &hop) {
  while (at_ < words_.size()) {
    if (std::string reason = read_one(words_[at_++], hop); !reason.empty()) {
      return reason;
    }
  }
  return hop.dev.empty() ? "a labelled next hop needs an interface: 'dev' is missing" : "";
}

string_view Attributes::next() {
  return at_ < words_.size() ? words_[at_++] : string_view{};
}

std::string Attributes::read_one(string_view name, Hop &hop) {
  if (is_one_of(name, kFlags)) {
    return {};
  }
  string_view value = next();
  const bool family = name == "via" && (value == "inet" || value == "inet6");
  if (family || (value == "lock" && is_one_of(name, kValued))) {
    value = next();
  }
  if (name == "encap" || name == "as") {
    const string_view stack = next();
    return stack.empty() ? "no labels behind '" + std::string(name) + " " + std::string(value) + "'"
                         : read_stack(stack, hop);
  }
  if (name != "via" && name != "dev" && !is_one_of(name, kValued)) {
    return quoted(name) + " is no attribute of a route";
  }
  if (value.empty()) {
    return "no value behind " + quoted(name);
  }
  if (name == "via" && address_bits(value) == 0) {
    return "gateway " + quoted(value) + " is no address";
  }
  if (name == "via" || name == "dev") {
    (name == "via" ? hop.via : hop.dev) = value;
  }
  return {};
}

}  // namespace route_file
