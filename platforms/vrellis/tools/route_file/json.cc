// `ip -j` prints each route or next-hop object as a JSON object. It is read into the line that `ip` would print of it,
// event by event: an object may have the key "dst" twice, for its destination and for its labels.
#include <nlohmann/json.hpp>

#include "reader.h"

namespace route_file {
namespace {

using Json = nlohmann::json;

// What is known of one route, next hop or next-hop object.
struct Entry {
  std::string id;
  std::string destination;
  bool mpls = false;
  std::string labels;
  std::string group;
  std::string rest;

  std::string text(const std::string &name) const {
    return name + (mpls ? " encap mpls " + labels : "") + (group.empty() ? "" : " group " + group) + rest;
  }
};

class Listing : public nlohmann::json_sax<Json> {
 public:
  explicit Listing(Reader &reader) : reader_(reader) {}

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(std::int64_t) override { return true; }
  bool number_float(double, const std::string &) override { return true; }
  bool binary(Json::binary_t &) override { return true; }
  bool number_unsigned(std::uint64_t number) override { return value(std::to_string(number)); }
  bool string(std::string &text) override { return value(text); }
  bool key(std::string &name) override {
    key_ = name;
    return true;
  }
  bool start_array(std::size_t) override { return open(); }
  bool start_object(std::size_t) override {
    if (path_.size() == 1) {
      route_ = {};
      line_.clear();
    } else if (in_next_hops() && path_.size() == 3) {
      next_hop_ = {};
    }
    return open();
  }
  bool end_array() override {
    path_.pop_back();
    return true;
  }
  bool end_object() override {
    path_.pop_back();
    if (in_next_hops() && path_.size() == 3) {
      line_ += "\\" + next_hop_.text("nexthop");
    } else if (path_.size() == 1) {
      const std::string name = route_.id.empty() ? route_.destination : "id " + route_.id;
      reader_.line(route_.text(name) + line_, "route " + std::to_string(++routes_));
    }
    return true;
  }
  bool parse_error(std::size_t position, const std::string &, const Json::exception &) override {
    return fail("it is cut off or no JSON at byte " + std::to_string(position));
  }

 private:
  static constexpr std::size_t kMaxDepth = 16;

  bool in_next_hops() const { return path_.size() >= 3 && path_[2] == "nexthops"; }

  bool open() {
    path_.push_back(std::move(key_));
    key_.clear();
    return path_.size() <= kMaxDepth || fail("it nests deeper than `ip -j` does");
  }

  bool fail(std::string reason) {
    reader_.line("", "JSON");
    reader_.refuse(std::move(reason));
    return false;
  }

  bool value(const std::string &text) {
    Entry &entry = in_next_hops() ? next_hop_ : route_;
    const std::string &within = path_.back();
    if (path_.size() >= 3 && path_[2] == "group") {
      entry.group += key_ == "id" ? (entry.group.empty() ? "" : "/") + text : "";
    } else if (key_ == "dst" && path_.size() == 2 && entry.id.empty() && entry.destination.empty()) {
      entry.destination = text;
    } else if (key_ == "encap" || key_ == "encap_type") {
      entry.mpls = text == "mpls";
    } else if (key_ == "dst" || key_ == "to") {
      entry.mpls = entry.mpls || key_ == "to";
      entry.labels = text;
    } else if (key_ == "gateway" || key_ == "via" || (within == "via" && key_ == "host")) {
      entry.rest += " via " + text;
    } else if (key_ == "dev" || key_ == "nhid") {
      entry.rest += " " + key_ + " " + text;
    } else if (key_ == "id" && path_.size() == 2) {
      entry.id = text;
    }
    return true;
  }

  Reader &reader_;
  std::vector<std::string> path_;  // the keys of the open arrays and objects, empty where they have none
  std::string key_;
  Entry route_;
  Entry next_hop_;
  std::string line_;  // the next hops of the route
  std::uint64_t routes_ = 0;
};

}  // namespace

bool read_json(std::istream &in, Reader &reader) {
  Listing listing(reader);
  return Json::sax_parse(in, &listing, nlohmann::detail::input_format_t::json, false);
}

}  // namespace route_file
