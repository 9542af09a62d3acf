#include "routes.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace encapd {
namespace {

constexpr std::uint32_t kMostTold = 100;  // refused paths that are named for each reason on one connection

bool is_refused(PathKind kind) {
  return kind != PathKind::kEncapsulation && kind != PathKind::kPlain;
}

}  // namespace

void Routes::take(const Message &message) {
  ++counters_.messages;
  switch (message.type) {
    case Message::Type::kRoute:
      return take_route(message);
    case Message::Type::kNexthop:
      return take_object(message);
    case Message::Type::kOther:
      ++counters_.other_messages;
      return;
    case Message::Type::kMalformed:
      ++counters_.malformed_messages;
      return;
  }
}

void Routes::clear() {
  routes_ = {};
  by_key_ = {};
  objects_ = {};
  by_id_ = {};
  by_hops_ = {};
  refused_ = {};
  told_ = {};
}

void Routes::take_route(const Message &message) {
  const std::uint32_t known = by_key_.find(hash_words(&message.route, 7), [&](std::uint32_t number) {
    return std::memcmp(&routes_[number].key, &message.route, sizeof message.route) == 0;
  });
  const Source source = message.removed ? Source::nothing() : source_of(message);
  const Source before = known != kNone ? routes_[known].source : Source::nothing();
  const auto hash_of = [&](std::uint32_t number) { return hash_of_route(number); };
  if (source == before) {
    return;
  }
  use(source, 1, message.route);
  use(before, -1, message.route);
  if (source == Source::nothing()) {
    by_key_.remove(known, hash_of);
    routes_.give_back(known);
  } else if (known != kNone) {
    routes_[known].source = source;
  } else {
    const std::uint32_t number = routes_.take();
    routes_[number] = {message.route, source};
    by_key_.add(number, hash_of);
  }
  drop_unused(before);
}

Routes::Source Routes::source_of(const Message &message) {
  if (message.id != 0) {
    return Source::object(object_with_id(message.id));
  }
  if (message.paths.size() == 1 && message.paths[0].kind == PathKind::kEncapsulation) {
    return Source::encapsulation(holder_.number_of(message.paths[0].key));
  }
  std::vector<Hop> hops = hops_of(message.paths);
  return hops.empty() ? Source::nothing() : Source::object(object_with_hops(std::move(hops)));
}

// Without the plain ones, which are counted.
std::vector<Routes::Hop> Routes::hops_of(const std::vector<Path> &paths) {
  std::vector<Hop> hops;
  for (const Path &path : paths) {
    const std::uint32_t kind = static_cast<std::uint32_t>(path.kind);
    if (path.kind == PathKind::kPlain) {
      ++counters_.paths[kind];
    } else if (path.kind == PathKind::kEncapsulation) {
      hops.push_back({kind, holder_.number_of(path.key)});
    } else {
      hops.push_back({kind, 0});
    }
  }
  return hops;
}

std::uint32_t Routes::object_with_id(std::uint32_t id) {
  const std::uint32_t known =
      by_id_.find(hash_words(&id, 1), [&](std::uint32_t number) { return objects_[number].id == id; });
  if (known != kNone) {
    return known;
  }
  const std::uint32_t number = objects_.take();
  objects_[number].id = id;
  by_id_.add(number, [&](std::uint32_t each) { return hash_of_id(each); });
  return number;
}

std::uint32_t Routes::object_with_hops(std::vector<Hop> hops) {
  const std::uint32_t known = by_hops_.find(hash_words(hops.data(), 2 * hops.size()),
                                            [&](std::uint32_t number) { return objects_[number].hops == hops; });
  if (known != kNone) {
    return known;
  }
  const std::uint32_t number = objects_.take();
  objects_[number].hops = std::move(hops);
  name_hops(objects_[number].hops, 1);
  by_hops_.add(number, [&](std::uint32_t each) { return hash_of_hops(each); });
  return number;
}

// The encapsulations of an object's paths are kept while it has them, also without a route.
void Routes::name_hops(const std::vector<Hop> &hops, int change) {
  for (const Hop &hop : hops) {
    if (!is_refused(static_cast<PathKind>(hop.kind))) {
      holder_.name(hop.number, change);
    }
  }
}

// One more route, or one fewer, names the source.
void Routes::use(Source source, int change, const RouteKey &cause) {
  if (source == Source::nothing()) {
    return;
  }
  if (!source.is_object()) {
    return holder_.want(source.number(), change, cause);
  }
  Object &object = objects_[source.number()];
  object.routes += static_cast<std::uint32_t>(change);
  object.cause = cause;
  use_hops(object.hops, change, cause);
  for (const std::uint32_t member : object.members) {
    use_hops(objects_[member].hops, change, cause);
  }
}

void Routes::use_hops(const std::vector<Hop> &hops, std::int64_t change, const RouteKey &cause) {
  for (const Hop &hop : hops) {
    if (change != 0 && is_refused(static_cast<PathKind>(hop.kind))) {
      refuse(hop.kind, change, cause);
    } else if (change != 0) {
      holder_.want(hop.number, change, cause);
    }
  }
}

void Routes::refuse(std::uint32_t kind, std::int64_t change, const RouteKey &cause) {
  refused_[kind] += static_cast<std::uint64_t>(change);
  if (change < 0) {
    return;
  }
  counters_.paths[kind] += static_cast<std::uint64_t>(change);
  if (++told_[kind] <= kMostTold) {
    log(Level::kWarning, "a path of {} is not entered: {}{}", text_of(cause), kPathKindSentences[kind],
        told_[kind] == kMostTold ? "; more of this kind on this connection are only counted" : "");
  }
}

void Routes::take_object(const Message &message) {
  const std::uint32_t number = object_with_id(message.id);
  objects_[number].is_known = !message.removed;
  std::vector<std::uint32_t> members;
  if (!message.removed) {
    for (const std::uint32_t id : message.members) {
      members.push_back(object_with_id(id));
    }
  }
  change_object(number, message.removed ? std::vector<Hop>{} : hops_of(message.paths), std::move(members));
  drop_unused(number);
}

// How many paths each hop of the object gives to routes, by the object itself and by groups that it is a member of.
std::uint64_t Routes::paths_of(const Object &object, RouteKey &cause) const {
  std::uint64_t paths = object.routes;
  cause = object.cause;
  for (const std::uint32_t group : object.groups) {
    paths += objects_[group].routes;
    if (object.routes == 0 && objects_[group].routes != 0) {
      cause = objects_[group].cause;
    }
  }
  return paths;
}

void Routes::change_object(std::uint32_t number, std::vector<Hop> hops, std::vector<std::uint32_t> members) {
  Object &object = objects_[number];
  RouteKey cause{};
  const auto paths = static_cast<std::int64_t>(paths_of(object, cause));
  name_hops(hops, 1);
  if (hops != object.hops) {
    use_hops(hops, paths, cause);
    use_hops(object.hops, -paths, cause);
  }
  name_hops(object.hops, -1);
  object.hops = std::move(hops);
  for (const std::uint32_t member : members) {
    objects_[member].groups.push_back(number);
  }
  members.swap(object.members);
  for (const std::uint32_t member : object.members) {
    use_hops(objects_[member].hops, object.routes, object.cause);
  }
  for (const std::uint32_t member : members) {
    use_hops(objects_[member].hops, -std::int64_t{object.routes}, object.cause);
    std::vector<std::uint32_t> &groups = objects_[member].groups;
    groups.erase(std::find(groups.begin(), groups.end(), number));
    if (member != number) {
      drop_unused(member);
    }
  }
}

void Routes::drop_unused(Source source) {
  if (source.is_object()) {
    drop_unused(source.number());
  }
}

void Routes::drop_unused(std::uint32_t number) {
  Object &object = objects_[number];
  if (object.is_known || object.routes != 0 || !object.groups.empty()) {
    return;
  }
  if (object.id != 0) {
    by_id_.remove(number, [&](std::uint32_t each) { return hash_of_id(each); });
  } else {
    name_hops(object.hops, -1);
    by_hops_.remove(number, [&](std::uint32_t each) { return hash_of_hops(each); });
  }
  object = Object{};
  objects_.give_back(number);
}

}  // namespace encapd
