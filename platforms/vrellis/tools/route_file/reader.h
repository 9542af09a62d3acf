// How a listing is read, line by line. For the reader of route files alone.
#ifndef VRELLIS_ROUTE_FILE_READER_H
#define VRELLIS_ROUTE_FILE_READER_H

#include <map>
#include <optional>
#include <string_view>

#include "route_file.h"

namespace route_file {

class Reader {
 public:
  void line(std::string_view text, std::string where);  // with what follows a '\', as `ip -o` prints it
  void refuse(std::string reason);                      // names the last line
  RouteFile finish();

 private:
  // kFaulty: its labelled next hops were refused so far, more may follow. kNoDestination: its next hops are dropped
  // with it, without a sentence each.
  struct Route {
    enum State { kNone, kPlain, kLabelled, kFaulty, kNoDestination } state = kNone;
    std::string where;
    std::string prefix;
    std::string nhid;  // of the object that has its next hops; empty: they stand with the route
  };

  // A next-hop object: a labelled next hop, a plain one (neither hop nor members), or a group of others.
  struct Object {
    std::optional<Hop> hop;
    std::vector<std::string> members;
    bool faulty = false;
  };

  void piece(std::vector<std::string_view> words);
  void begin_route(std::vector<std::string_view> &words);
  void object(const std::vector<std::string_view> &words);
  void take_object(Route &route);
  void add(Hop hop, Route &route);
  void close_route();

  RouteFile file_;
  std::string where_;
  Route route_;
  std::map<std::string, Object> objects_;         // by id
  std::vector<Route> deferred_;                   // routes whose object was not listed before them
  std::map<std::string, std::uint32_t> handles_;  // by interface
};

// Reads one JSON array, as `ip -j` prints it. Returns: false, with a refusal, when it is none.
bool read_json(std::istream &in, Reader &reader);

}  // namespace route_file

#endif
