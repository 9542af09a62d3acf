#include "route_file.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
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

std::string quoted(string_view word) {
  return "'" + std::string(word) + "'";
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

bool is_destination(string_view word) {
  if (word == "default") {
    return true;
  }
  const std::size_t slash = word.find('/');
  const std::uint32_t bits = address_bits(word.substr(0, slash));
  if (slash == string_view::npos || bits == 0) {
    return bits != 0;
  }
  return number_of(word.substr(slash + 1)).value_or(UINT32_MAX) <= bits;
}

// Empty when `word` is a label that may stand `above_bottom` in a stack, else the reason.
std::string label_fault(string_view word, bool above_bottom) {
  const std::optional<std::uint32_t> label = number_of(word);
  if (!label) {
    return word.empty() ? "a label is missing between slashes" : "label " + quoted(word) + " is no number";
  }
  if (*label > kMaxLabel) {
    return "label " + std::string(word) + " is past 20 bits";
  }
  if (*label == 3) {
    return "label 3 is the implicit null, which never stands in a stack";
  }
  if (*label == 0 && above_bottom) {
    return "label 0 is the explicit null, which stands at the bottom of a stack only";
  }
  return {};
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

// The words of one route or next hop behind its destination, consumed from the front.
class Attributes {
 public:
  explicit Attributes(std::vector<string_view> words) : words_(std::move(words)) {}

  bool has_mpls() const {
    const auto encap = std::ranges::find(words_, "encap");
    return encap != words_.end() && encap + 1 != words_.end() && encap[1] == "mpls";
  }

  // Empty, or the reason why these are no labelled next hop.
  std::string read(Hop &hop) {
    while (at_ < words_.size()) {
      if (std::string reason = read_one(words_[at_++], hop); !reason.empty()) {
        return reason;
      }
    }
    return hop.dev.empty() ? "a labelled next hop needs an interface: 'dev' is missing" : "";
  }

 private:
  string_view next() { return at_ < words_.size() ? words_[at_++] : string_view{}; }

  std::string read_one(string_view name, Hop &hop) {
    if (is_one_of(name, kFlags)) {
      return {};
    }
    string_view value = next();
    const bool family = name == "via" && (value == "inet" || value == "inet6");
    if (family || (value == "lock" && is_one_of(name, kValued))) {
      value = next();
    }
    if (name == "encap") {
      const string_view stack = next();
      return stack.empty() ? "no labels behind 'encap mpls'" : read_stack(stack, hop);
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

  std::vector<string_view> words_;
  std::size_t at_ = 0;
};

class Reader {
 public:
  void line(string_view text) {
    ++line_;
    if (text.starts_with('#')) {
      return;
    }
    while (!text.empty()) {
      const std::size_t end = std::min(text.find('\\'), text.size());
      piece(words_of(text.substr(0, end)));
      text.remove_prefix(std::min(end + 1, text.size()));
    }
  }

  RouteFile finish() {
    close_route();
    return std::move(file_);
  }

 private:
  // kFaulty: its labelled next hops were refused so far, more may follow. kNoDestination: its next hops go with it,
  // without a sentence each.
  enum class Route { kNone, kPlain, kLabelled, kFaulty, kNoDestination };

  void piece(std::vector<string_view> words) {
    if (words.empty()) {
      return;
    }
    const bool next_hop = words.front() == "nexthop";
    if (next_hop && route_ == Route::kNone) {
      return refuse("a next hop without a route above it");
    }
    if (!next_hop) {
      close_route();
      route_ = Route::kPlain;
      if (is_one_of(words.front(), kRouteTypes) && words.size() > 1) {
        words.erase(words.begin());
      }
      if (!is_destination(words.front())) {
        route_ = Route::kNoDestination;
        return refuse(quoted(words.front()) + " is no destination: neither an address, a prefix nor 'default'");
      }
      prefix_ = words.front();
    }
    words.erase(words.begin());
    attributes(Attributes(std::move(words)));
  }

  void attributes(Attributes words) {
    if (!words.has_mpls() || route_ == Route::kNoDestination) {
      return;
    }
    Hop hop;
    hop.line = line_;
    hop.prefix = prefix_;
    const std::string reason = words.read(hop);
    if (!reason.empty()) {
      route_ = route_ == Route::kPlain ? Route::kFaulty : route_;
      return refuse(reason);
    }
    file_.labelled_routes += route_ != Route::kLabelled;
    route_ = Route::kLabelled;
    hop.route = file_.labelled_routes - 1;
    hop.ifh = handle_of(hop.dev);
    file_.hops.push_back(std::move(hop));
  }

  std::uint32_t handle_of(const std::string &name) {
    const auto found = std::ranges::find(file_.interfaces, name);
    const auto position = static_cast<std::uint32_t>(found - file_.interfaces.begin());
    if (found == file_.interfaces.end()) {
      file_.interfaces.push_back(name);
    }
    return kFirstIfh + position;
  }

  void close_route() {
    file_.plain_routes += route_ == Route::kPlain;
    route_ = Route::kNone;
  }

  void refuse(std::string reason) { file_.faults.push_back({line_, std::move(reason)}); }

  RouteFile file_;
  std::string prefix_;
  Route route_ = Route::kNone;
  std::uint32_t line_ = 0;
};

}  // namespace

RouteFile read_routes(std::istream &in) {
  Reader reader;
  for (std::string text; std::getline(in, text);) {
    reader.line(text);
  }
  return reader.finish();
}

egress_encap_key_t key_of(const Hop &hop) {
  egress_encap_key_t key{};
  key.out_label1 = hop.label[0] & 0x1fffff;
  key.out_label2 = hop.label[1] & 0x1fffff;
  key.out_label3 = hop.label[2] & 0x1fffff;
  key.ifh = hop.ifh;
  return key;
}

std::string stack_text(const Hop &hop) {
  std::string text;
  for (std::size_t level = hop.depth; level-- > 0;) {
    text += std::to_string(hop.label[level]) + (level > 0 ? "/" : "");
  }
  return text;
}

std::string sentence(const Fault &fault) {
  return "line " + std::to_string(fault.line) + ": " + fault.reason;
}

}  // namespace route_file
