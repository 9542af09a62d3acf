// What a router sends: netlink messages built of labels, prefixes and ids, in frames.
#ifndef TESTS_ENCAPD_ROUTER_H
#define TESTS_ENCAPD_ROUTER_H

#include <arpa/inet.h>
#include <linux/lwtunnel.h>
#include <linux/mpls_iptunnel.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace router {

using Buffer = std::vector<std::uint8_t>;
using Labels = std::vector<std::uint32_t>;  // from the top

inline Buffer operator+(Buffer front, const Buffer &back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

template <typename Value>
Buffer bytes_of(const Value &value) {
  const auto *const at = reinterpret_cast<const std::uint8_t *>(&value);
  return {at, at + sizeof value};
}

inline Buffer attribute(int type, const Buffer &content) {
  const nlattr header{static_cast<std::uint16_t>(sizeof header + content.size()), static_cast<std::uint16_t>(type)};
  Buffer bytes = bytes_of(header) + content;
  bytes.resize((bytes.size() + 3) / 4 * 4);
  return bytes;
}

inline Buffer number(int type, std::uint32_t value) {
  return attribute(type, bytes_of(value));
}

inline Buffer message(int type, const Buffer &content) {
  const nlmsghdr header{static_cast<std::uint32_t>(sizeof header + content.size()), static_cast<std::uint16_t>(type), 0,
                        0, 0};
  return bytes_of(header) + content;
}

inline Buffer frame(std::initializer_list<Buffer> messages) {
  Buffer content;
  for (const Buffer &each : messages) {
    content.resize((content.size() + 3) / 4 * 4);
    content = content + each;
  }
  const auto length = static_cast<std::uint16_t>(content.size() + 4);
  return Buffer{1, 1, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length & 0xff)} + content;
}

inline Buffer stack(const Labels &labels) {
  Buffer bytes;
  for (std::size_t i = 0; i < labels.size(); ++i) {
    bytes = bytes + bytes_of(htonl(labels[i] << 12 | (i + 1 == labels.size() ? 0x100U : 0U)));
  }
  return bytes;
}

// One of 65536 prefixes.
inline std::string prefix_number(std::uint32_t number) {
  return "10." + std::to_string(number >> 8) + "." + std::to_string(number & 255) + ".0/24";
}

// A path: labels (none: a plain one) and an interface.
struct Path {
  Labels labels;
  std::uint32_t interface = 6;
  bool operator==(const Path &) const = default;
};

inline Buffer labels_of(const Path &path, int family, int type, int nest) {
  if (path.labels.empty()) {
    return {};
  }
  if (family == AF_MPLS) {
    return attribute(RTA_NEWDST, stack(path.labels));
  }
  const std::uint16_t mpls = LWTUNNEL_ENCAP_MPLS;
  return attribute(type, bytes_of(mpls)) + attribute(nest, attribute(MPLS_IPTUNNEL_DST, stack(path.labels)));
}

// "10.1.0.0/24", "2001:db8::/32", or the label of an LSP.
struct Prefix {
  int family;
  std::uint8_t bits;
  Buffer address;

  explicit Prefix(const std::string &text)
      : family(text.find(':') != std::string::npos   ? AF_INET6
               : text.find('.') != std::string::npos ? AF_INET
                                                     : AF_MPLS),
        bits(20) {
    const std::size_t slash = text.find('/');
    if (family == AF_MPLS) {
      address = stack({static_cast<std::uint32_t>(std::stoul(text))});
      return;
    }
    address.resize(family == AF_INET ? 4 : 16);
    inet_pton(family, text.substr(0, slash).c_str(), address.data());
    bits = static_cast<std::uint8_t>(std::stoul(text.substr(slash + 1)));
  }
};

inline Buffer route_message(int type, const std::string &destination, const Buffer &paths,
                            std::uint8_t kind = RTN_UNICAST) {
  const Prefix prefix(destination);
  rtmsg header{};
  header.rtm_family = static_cast<std::uint8_t>(prefix.family);
  header.rtm_dst_len = prefix.bits;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_type = kind;
  return message(type, bytes_of(header) + attribute(RTA_DST, prefix.address) +
                           (prefix.family == AF_MPLS ? Buffer{} : number(RTA_PRIORITY, 20)) + paths);
}

// A route with its paths inline.
inline Buffer route(const std::string &prefix, const std::vector<Path> &paths) {
  const int family = Prefix(prefix).family;
  Buffer hops;
  for (const Path &path : paths) {
    const Buffer labels = labels_of(path, family, RTA_ENCAP_TYPE, RTA_ENCAP);
    if (paths.size() == 1) {
      return route_message(RTM_NEWROUTE, prefix, labels + number(RTA_OIF, path.interface));
    }
    const rtnexthop hop{static_cast<std::uint16_t>(sizeof hop + labels.size()), 0, 0, static_cast<int>(path.interface)};
    hops = hops + bytes_of(hop) + labels;
  }
  return route_message(RTM_NEWROUTE, prefix, attribute(RTA_MULTIPATH, hops));
}

// A route that names a nexthop object.
inline Buffer named(const std::string &prefix, std::uint32_t id) {
  return route_message(RTM_NEWROUTE, prefix, number(RTA_NH_ID, id));
}

inline Buffer withdrawal(const std::string &prefix) {
  return route_message(RTM_DELROUTE, prefix, {});
}

inline Buffer object(std::uint32_t id, const Path &path) {
  const nhmsg header{};
  return message(RTM_NEWNEXTHOP, bytes_of(header) + number(NHA_ID, id) + number(NHA_OIF, path.interface) +
                                     labels_of(path, AF_INET, NHA_ENCAP_TYPE, NHA_ENCAP));
}

inline Buffer group(std::uint32_t id, const std::vector<std::uint32_t> &members) {
  const nhmsg header{};
  Buffer content;
  for (const std::uint32_t member : members) {
    content = content + bytes_of(nexthop_grp{member, 0, 0, 0});
  }
  return message(RTM_NEWNEXTHOP, bytes_of(header) + number(NHA_ID, id) + attribute(NHA_GROUP, content));
}

inline Buffer no_object(std::uint32_t id) {
  const nhmsg header{};
  return message(RTM_DELNEXTHOP, bytes_of(header) + number(NHA_ID, id));
}

}  // namespace router

#endif
