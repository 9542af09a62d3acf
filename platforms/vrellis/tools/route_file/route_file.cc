#include "route_file.h"

#include <algorithm>
#include <utility>

#include "attributes.h"
#include "reader.h"

namespace route_file {

using std::string_view;

void Reader::line(string_view text, std::string where) {
  where_ = std::move(where);
  if (text.starts_with('#')) {
    return;
  }
  if (text.size() > kMaxLineBytes) {
    return refuse("it is longer than " + std::to_string(kMaxLineBytes) + " bytes");
  }
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\\'), text.size());
    piece(words_of(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

RouteFile Reader::finish() {
  close_route();
  for (Route &route : std::exchange(deferred_, {})) {
    where_ = route.where;
    if (objects_.contains(route.nhid)) {
      take_object(route);
    } else {
      refuse("next-hop object " + quoted(route.nhid) + " is listed nowhere: `ip nexthop` prints it");
    }
  }
  return std::move(file_);
}

// Words of one route, one next hop or one next-hop object.
void Reader::piece(std::vector<string_view> words) {
  if (words.empty()) {
    return;
  }
  const bool next_hop = words.front() == "nexthop";
  if (next_hop && route_.state == Route::kNone) {
    return refuse("a next hop without a route above it");
  }
  if (!next_hop) {
    close_route();
    if (words.front() == "id" && words.size() > 1) {
      return object(words);
    }
    begin_route(words);
  }
  words.erase(words.begin());
  Attributes attributes(std::move(words));
  // A listing that spells the object's next hops out needs no object.
  route_.nhid = next_hop || !attributes.value_of("dev").empty() ? "" : attributes.value_of("nhid");
  if (!attributes.has_mpls() || route_.state == Route::kNoDestination) {
    return;
  }
  Hop hop;
  const std::string reason = attributes.read(hop);
  if (reason.empty()) {
    return add(std::move(hop), route_);
  }
  route_.state = route_.state == Route::kPlain ? Route::kFaulty : route_.state;
  refuse(reason);
}

void Reader::begin_route(std::vector<string_view> &words) {
  if (is_route_type(words.front()) && words.size() > 1) {
    words.erase(words.begin());
  }
  route_ = {Route::kPlain, where_, std::string(words.front()), {}};
  if (!is_destination(words.front())) {
    route_.state = Route::kNoDestination;
    refuse(quoted(words.front()) + " is no destination: neither an address, a prefix, a label nor 'default'");
  }
}

// "id 41 encap mpls 100 via 192.0.2.1 dev eth1" or "id 42 group 41/43,2".
void Reader::object(const std::vector<string_view> &words) {
  Object &object = objects_[std::string(words[1])] = {};
  Attributes attributes({words.begin() + 2, words.end()});
  string_view group = attributes.value_of("group");
  while (!group.empty()) {
    const string_view member = group.substr(0, group.find('/'));
    object.members.emplace_back(member.substr(0, member.find(',')));
    group.remove_prefix(std::min(member.size() + 1, group.size()));
  }
  if (attributes.has_mpls()) {
    Hop hop;
    const std::string reason = attributes.read(hop);
    if (!reason.empty()) {
      object.faulty = true;
      return refuse(reason);
    }
    object.hop = std::move(hop);
  }
}

// Gives a route the next hops of its object, or of the members of its object.
void Reader::take_object(Route &route) {
  const auto take = [&](const Object &object) {
    if (object.faulty) {
      route.state = route.state == Route::kPlain ? Route::kFaulty : route.state;
    } else if (object.hop) {
      add(*object.hop, route);
    }
  };
  const Object &object = objects_.at(route.nhid);
  take(object);
  for (const std::string &member : object.members) {
    if (const auto found = objects_.find(member); found != objects_.end()) {
      take(found->second);
    }
  }
  file_.plain_routes += route.state == Route::kPlain;
}

void Reader::add(Hop hop, Route &route) {
  if (file_.hops.size() == kMaxHops) {
    return refuse("the listing has more than " + std::to_string(kMaxHops) + " next hops");
  }
  file_.labelled_routes += route.state != Route::kLabelled;
  route.state = Route::kLabelled;
  hop.prefix = route.prefix;
  hop.route = file_.labelled_routes - 1;
  const auto [handle, fresh] =
      handles_.try_emplace(hop.dev, kFirstIfh + static_cast<std::uint32_t>(file_.interfaces.size()));
  if (fresh) {
    file_.interfaces.push_back(hop.dev);
  }
  hop.ifh = handle->second;
  file_.hops.push_back(std::move(hop));
}

void Reader::close_route() {
  if (route_.state == Route::kPlain && !route_.nhid.empty()) {
    objects_.contains(route_.nhid) ? take_object(route_) : deferred_.push_back(route_);
  } else {
    file_.plain_routes += route_.state == Route::kPlain;
  }
  route_.state = Route::kNone;
}

void Reader::refuse(std::string reason) {
  if (++file_.refused <= kMaxFaults) {
    file_.faults.push_back({where_, std::move(reason)});
  }
}

RouteFile read_routes(std::istream &in) {
  Reader reader;
  std::uint64_t lines = 0;
  for (std::string text; in.peek() != std::istream::traits_type::eof();) {
    if (in.peek() == '[') {
      if (!read_json(in, reader)) {
        break;
      }
    } else if (std::getline(in, text)) {
      reader.line(text, "line " + std::to_string(++lines));
    }
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
  return fault.where + ": " + fault.reason;
}

}  // namespace route_file
