// Route files: what `ip` prints of routes and of next-hop objects, read for the routes with MPLS encapsulations.
//
//   10.1.0.0/24  encap mpls  100/200/16001 via 192.0.2.1 dev eth1 proto bgp metric 20       ip route, ip -6 route
//   10.2.0.0/24 proto bgp metric 20
//   	nexthop  encap mpls  24001/16001 via 192.0.2.1 dev eth1 weight 1
//   	nexthop  encap mpls  24002/16001 via inet6 fe80::1 dev eth2 weight 1
//   1000 as to 200/16001 via inet 192.0.2.1 dev eth1 proto static                           ip -f mpls route
//   id 41  encap mpls  200/16001 via 192.0.2.1 dev eth1 scope link                          ip nexthop
//   id 42 group 41/43,2
//   10.3.0.0/24 nhid 42 proto static
//
// The labels of a stack are written from the top. The one-line form (`ip -o`) and JSON (`ip -j`) are read as well, also
// one behind the other in one file. Blank lines and lines that begin with '#' are skipped. A route that names a
// next-hop object and no next hop of its own takes the object's, wherever in the file the object is listed.
#ifndef VRELLIS_ROUTE_FILE_H
#define VRELLIS_ROUTE_FILE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "label.h"
#include "mpls_egress_encap_db.h"

namespace route_file {

inline constexpr std::uint32_t kFirstIfh = 0x01000000;

// One labelled next hop of a route: one user of an encapsulation.
struct Hop {
  std::uint32_t route = 0;                        // which labelled route it belongs to, from 0
  std::string prefix;                             // the route's destination, as written
  std::string via;                                // gateway; empty: none
  std::string dev;                                // interface name
  std::uint32_t ifh = 0;                          // its handle
  std::array<std::uint32_t, kMaxLabels> label{};  // from the bottom: out_label1, 2, 3; 0 above the top
  std::size_t depth = 0;                          // labels in the stack, 1 to 3
};

// Why a line was refused.
struct Fault {
  std::string where;  // "line 12"; of JSON, "route 12"
  std::string reason;
};

inline constexpr std::size_t kMaxLineBytes = std::size_t{1} << 20;
inline constexpr std::size_t kMaxHops = 4'000'000;
inline constexpr std::size_t kMaxFaults = 1000;  // that are kept

// All that a file holds. Interface handles count up from kFirstIfh in the order in which the interfaces first appear
// under an accepted hop, so that every process that reads the same file agrees on them.
struct RouteFile {
  std::vector<Hop> hops;                // in the order of the file; those of objects listed later come last
  std::vector<std::string> interfaces;  // by handle
  std::vector<Fault> faults;            // why lines were refused; what stands on other lines is not lost
  std::uint64_t refused = 0;            // refused lines, also those whose fault was not kept
  std::uint32_t labelled_routes = 0;    // routes with a labelled next hop
  std::uint32_t plain_routes = 0;       // routes without, skipped
};

RouteFile read_routes(std::istream &in);

// The key under which the database knows the hop's encapsulation.
egress_encap_key_t key_of(const Hop &hop);

// A single label needs no labelled tunnel.
inline bool on_null_tunnel(const Hop &hop) {
  return hop.depth == 1;
}

// "100/200/16001": the stack as written, from the top.
std::string stack_text(const Hop &hop);

// "line 12: label 1048576 is past 20 bits"
std::string sentence(const Fault &fault);

}  // namespace route_file

#endif
