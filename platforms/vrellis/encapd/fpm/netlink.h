// Reads a netlink message of a router into plain values. The bytes are not trusted: every length is checked.
#ifndef VRELLIS_ENCAPD_NETLINK_H
#define VRELLIS_ENCAPD_NETLINK_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "mpls_egress_encap_db.h"

struct nlmsghdr;

namespace encapd {

// What names a route. Every byte is a field, so that keys are compared as bytes. 28 bytes.
struct RouteKey {
  std::array<std::uint8_t, 16> address;  // from the front; of an LSP: the incoming label, 4 bytes in host order
  std::uint32_t table;
  std::uint32_t priority;
  std::uint8_t family;  // AF_INET, AF_INET6, AF_MPLS; 0: no route
  std::uint8_t bits;    // of the prefix
  std::uint8_t tos;
  std::uint8_t spare;
};
static_assert(sizeof(RouteKey) == 28);

// "10.1.0.0/24", "2001:db8::/32", "1000" for an LSP.
std::string text_of(const RouteKey &key);

// What a path is. All but the first two are refusals, counted by reason.
enum class PathKind : std::uint8_t {
  kEncapsulation,
  kPlain,  // without labels, or an LSP that takes its label off
  kTooDeep,
  kReservedLabel,
  kNoInterface,
  kMalformed,
  kBlackhole,
};
inline constexpr std::size_t kPathKinds = 7;
extern const std::array<const char *, kPathKinds> kPathKindNames;      // for counters
extern const std::array<const char *, kPathKinds> kPathKindSentences;  // for messages

struct Path {
  PathKind kind;
  egress_encap_key_t key;  // of an encapsulation
};

struct Message {
  enum class Type : std::uint8_t { kRoute, kNexthop, kOther, kMalformed };
  Type type;
  bool removed;                        // a withdrawal
  RouteKey route;                      // of a route
  std::uint32_t id;                    // of a nexthop object; of a route: the object that has its paths, or 0
  std::vector<Path> paths;             // of a route without an object, or of an object
  std::vector<std::uint32_t> members;  // of a group: the objects' ids
};

// Requires: `header` lies in a buffer of at least header->nlmsg_len bytes, aligned to 4. `message` is overwritten.
void read_message(const nlmsghdr *header, Message &message);

}  // namespace encapd

#endif
