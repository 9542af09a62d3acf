// The words of a listing: destinations, labels, attributes. For the reader of route files alone.
#ifndef VRELLIS_ROUTE_FILE_ATTRIBUTES_H
#define VRELLIS_ROUTE_FILE_ATTRIBUTES_H

#include <string_view>

#include "route_file.h"

namespace route_file {

std::string quoted(std::string_view word);  // for a sentence; a long word is cut
std::vector<std::string_view> words_of(std::string_view line);
bool is_route_type(std::string_view word);  // a word that may stand before the destination
bool is_destination(std::string_view word);

// The words of one route, next hop or next-hop object behind its name, consumed from the front.
class Attributes {
 public:
  explicit Attributes(std::vector<std::string_view> words) : words_(std::move(words)) {}

  bool has_mpls() const;
  std::string_view value_of(std::string_view name) const;  // the word behind `name`; empty when there is none
  std::string read(Hop &hop);                              // empty, or the reason why these are no labelled next hop

 private:
  std::string_view next();
  std::string read_one(std::string_view name, Hop &hop);

  std::vector<std::string_view> words_;
  std::size_t at_ = 0;
};

}  // namespace route_file

#endif
