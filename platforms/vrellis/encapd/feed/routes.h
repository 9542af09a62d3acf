// The routes of a router and its nexthop objects, and which encapsulations they need.
//
// A route names its paths in one of two ways: by the number of one encapsulation, or by an object that has paths. An
// object is a nexthop object of the router, which has an id, or an anonymous one: the paths of routes that bring their
// own, shared by all routes with the same ones. Routes without labels and without an object are not kept.
#ifndef VRELLIS_ENCAPD_ROUTES_H
#define VRELLIS_ENCAPD_ROUTES_H

#include <cstdint>
#include <vector>

#include "fpm/netlink.h"
#include "holder.h"
#include "pool.h"
#include "report.h"

namespace encapd {

class Routes {
 public:
  Routes(Holder &holder, Counters &counters) : holder_(holder), counters_(counters) {}

  // Takes what a message says. The holder carries it out at its next apply().
  void take(const Message &message);

  // Forgets everything; the holder must do so, too (Holder::begin_refresh()).
  void clear();

  std::uint32_t routes() const { return by_key_.size(); }
  std::uint32_t objects() const { return by_id_.size(); }
  std::uint64_t refused(PathKind kind) const { return refused_[static_cast<std::size_t>(kind)]; }  // paths now

 private:
  // What a route names: nothing, an encapsulation or an object.
  class Source {
   public:
    static Source nothing() { return Source(kNone); }
    static Source encapsulation(std::uint32_t number) { return Source(number); }
    static Source object(std::uint32_t number) { return Source(number | kObject); }
    bool operator==(const Source &) const = default;
    bool is_object() const { return word_ != kNone && (word_ & kObject) != 0; }
    std::uint32_t number() const { return word_ & ~kObject; }
    Source() = default;

   private:
    static constexpr std::uint32_t kObject = 1U << 31;
    explicit Source(std::uint32_t word) : word_(word) {}
    std::uint32_t word_ = kNone;
  };

  struct Route {
    RouteKey key;
    Source source;
  };
  static_assert(sizeof(Route) == 32);

  // A path of an object: an encapsulation, or what cannot be one.
  struct Hop {
    std::uint32_t kind;    // a PathKind
    std::uint32_t number;  // of the encapsulation, or 0
    bool operator==(const Hop &) const = default;
  };

  struct Object {
    std::uint32_t id = 0;                // 0: anonymous
    std::uint32_t routes = 0;            // that name it
    bool is_known = false;               // the router has sent it and not taken it back
    std::vector<Hop> hops;               // its own paths
    std::vector<std::uint32_t> members;  // of a group: the numbers of its objects
    std::vector<std::uint32_t> groups;   // that it is a member of, once for each time
    RouteKey cause{};                    // the last route that named it
  };

  void take_route(const Message &message);
  void take_object(const Message &message);
  void change_object(std::uint32_t number, std::vector<Hop> hops, std::vector<std::uint32_t> members);
  Source source_of(const Message &message);
  std::vector<Hop> hops_of(const std::vector<Path> &paths);
  std::uint32_t object_with_id(std::uint32_t id);
  std::uint32_t object_with_hops(std::vector<Hop> hops);
  void use(Source source, int change, const RouteKey &cause);
  void name_hops(const std::vector<Hop> &hops, int change);
  void refuse(std::uint32_t kind, std::int64_t change, const RouteKey &cause);
  void use_hops(const std::vector<Hop> &hops, std::int64_t change, const RouteKey &cause);
  void drop_unused(std::uint32_t number);
  void drop_unused(Source source);
  std::uint64_t paths_of(const Object &object, RouteKey &cause) const;
  std::uint64_t hash_of_route(std::uint32_t number) const { return hash_words(&routes_[number].key, 7); }
  std::uint64_t hash_of_id(std::uint32_t number) const { return hash_words(&objects_[number].id, 1); }
  std::uint64_t hash_of_hops(std::uint32_t number) const {
    return hash_words(objects_[number].hops.data(), 2 * objects_[number].hops.size());
  }

  Holder &holder_;
  Counters &counters_;
  Pool<Route> routes_;
  Index by_key_;
  Pool<Object> objects_;
  Index by_id_;
  Index by_hops_;  // the anonymous ones
  std::array<std::uint64_t, kPathKinds> refused_{};
  std::array<std::uint32_t, kPathKinds> told_{};  // messages about refused paths since clear(), by kind
};

}  // namespace encapd

#endif
