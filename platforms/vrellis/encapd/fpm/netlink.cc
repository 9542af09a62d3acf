#include "netlink.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/lwtunnel.h>
#include <linux/mpls_iptunnel.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "label.h"

namespace encapd {

const std::array<const char *, kPathKinds> kPathKindNames{"encapsulation", "plain",     "too_deep", "reserved_label",
                                                          "no_interface",  "malformed", "blackhole"};
const std::array<const char *, kPathKinds> kPathKindSentences{
    "it is an encapsulation",
    "it has no labels",
    "its stack has more than the three labels of an encapsulation",
    "its stack has a reserved label that cannot stand there",
    "it has labels and no interface",
    "its labels make no sense",
    "it drops its packets"};

namespace {

using Content = std::span<const std::uint8_t>;

// The attributes of one level, by type. Types past kMax are not looked at; of two of one type, the last one counts.
template <std::size_t kMax>
class Attributes {
 public:
  explicit Attributes(Content content) {
    mnl_attr_parse_payload(content.data(), content.size(), &Attributes::keep, this);
  }

  bool has(std::size_t type) const { return found_[type] != nullptr; }

  Content content(std::size_t type) const {
    if (!has(type)) {
      return {};
    }
    return {static_cast<const std::uint8_t *>(mnl_attr_get_payload(found_[type])),
            mnl_attr_get_payload_len(found_[type])};
  }

  // Returns: 0 when there is no such attribute, or one of another length.
  template <typename Number>
  Number number(std::size_t type) const {
    Number value = 0;
    const Content bytes = content(type);
    if (bytes.size() == sizeof value) {
      std::memcpy(&value, bytes.data(), sizeof value);
    }
    return value;
  }

 private:
  static int keep(const nlattr *attribute, void *arg) {
    const std::uint16_t type = mnl_attr_get_type(attribute);
    if (type <= kMax) {
      static_cast<Attributes *>(arg)->found_[type] = attribute;
    }
    return MNL_CB_OK;
  }

  std::array<const nlattr *, kMax + 1> found_{};
};

using RouteAttributes = Attributes<RTA_MAX>;

// Copies the fixed header of a message. Returns: the attributes behind it; false when the message is too short.
template <typename Header>
bool split(const nlmsghdr *message, Header &header, Content &rest) {
  static_assert(sizeof header % 4 == 0 && sizeof(nlmsghdr) % 4 == 0, "nothing lies between them and what follows");
  const std::size_t length = message->nlmsg_len - sizeof(nlmsghdr);
  if (length < sizeof header) {
    return false;
  }
  const auto *const payload = static_cast<const std::uint8_t *>(mnl_nlmsg_get_payload(message));
  std::memcpy(&header, payload, sizeof header);
  rest = Content(payload + sizeof header, length - sizeof header);
  return true;
}

// A label stack on the wire, from the top: 20 bits label, 3 bits class, 1 bit bottom of stack, 8 bits time to live.
// Returns: the kind of a path with these labels, and fills in the key's labels.
PathKind read_stack(Content stack, egress_encap_key_t &key) {
  const std::size_t depth = stack.size() / 4;
  if (stack.size() % 4 != 0 || depth == 0) {
    return PathKind::kMalformed;
  }
  std::array<std::uint32_t, route_file::kMaxLabels> labels{};  // from the bottom
  bool reserved = false;
  for (std::size_t i = 0; i < depth; ++i) {
    std::uint32_t entry = 0;
    std::memcpy(&entry, &stack[i * 4], sizeof entry);
    entry = ntohl(entry);
    const std::size_t above_bottom = depth - 1 - i;
    if ((entry >> 8 & 1) != (above_bottom == 0 ? 1U : 0U)) {
      return PathKind::kMalformed;
    }
    reserved = reserved || route_file::reserved_label_fault(entry >> 12, above_bottom > 0) != nullptr;
    if (above_bottom < labels.size()) {
      labels[above_bottom] = entry >> 12;
    }
  }
  key.out_label1 = labels[0] & 0x1fffff;
  key.out_label2 = labels[1] & 0x1fffff;
  key.out_label3 = labels[2] & 0x1fffff;
  return depth > labels.size() ? PathKind::kTooDeep : reserved ? PathKind::kReservedLabel : PathKind::kEncapsulation;
}

Path make_path(Content stack, std::uint32_t interface) {
  Path path{};
  path.kind = read_stack(stack, path.key);
  path.key.ifh = interface;
  if (path.kind == PathKind::kEncapsulation && interface == 0) {
    path.kind = PathKind::kNoInterface;
  }
  return path;
}

// A path whose labels, when it has any, stand in an attribute that holds others.
template <typename All>
Path tunnelled(const All &attributes, std::size_t type, std::size_t nest, std::uint32_t interface) {
  if (attributes.template number<std::uint16_t>(type) != LWTUNNEL_ENCAP_MPLS) {
    return {PathKind::kPlain, {}};
  }
  const Attributes<MPLS_IPTUNNEL_MAX> nested(attributes.content(nest));
  return make_path(nested.content(MPLS_IPTUNNEL_DST), interface);
}

// One path of a route, of the attributes of the route or of one of its next hops.
Path route_path(const RouteAttributes &attributes, std::uint8_t family, std::uint32_t interface) {
  if (family != AF_MPLS) {
    return tunnelled(attributes, RTA_ENCAP_TYPE, RTA_ENCAP, interface);
  }
  const Content stack = attributes.content(RTA_NEWDST);
  if (!attributes.has(RTA_NEWDST)) {
    return {PathKind::kPlain, {}};
  }
  const Path path = make_path(stack, interface);
  const bool takes_off =
      path.kind == PathKind::kReservedLabel && stack.size() == 4 && path.key.out_label1 == route_file::kImplicitNull;
  return takes_off ? Path{PathKind::kPlain, {}} : path;
}

// Returns: false when a next hop's length is wrong.
bool read_multipath(Content content, std::uint8_t family, std::vector<Path> &paths) {
  while (content.size() >= sizeof(rtnexthop)) {
    rtnexthop hop{};
    std::memcpy(&hop, content.data(), sizeof hop);
    if (hop.rtnh_len < sizeof hop || hop.rtnh_len > content.size()) {
      return false;
    }
    const RouteAttributes attributes(content.first(hop.rtnh_len).subspan(sizeof hop));
    paths.push_back(route_path(attributes, family, static_cast<std::uint32_t>(hop.rtnh_ifindex)));
    content = content.subspan(std::min((hop.rtnh_len + std::size_t{3}) & ~std::size_t{3}, content.size()));
  }
  return content.empty();
}

// Returns: false when the destination makes no sense.
bool read_destination(const rtmsg &header, const RouteAttributes &attributes, RouteKey &key) {
  const Content destination = attributes.content(RTA_DST);
  const std::size_t bytes = header.rtm_family == AF_INET6 ? 16 : 4;
  const unsigned bits = header.rtm_family == AF_MPLS ? 20 : static_cast<unsigned>(bytes) * 8;
  const bool is_default = !attributes.has(RTA_DST) && header.rtm_family != AF_MPLS && header.rtm_dst_len == 0;
  if (header.rtm_dst_len > bits || (!is_default && destination.size() != bytes)) {
    return false;
  }
  key.family = header.rtm_family;
  key.bits = header.rtm_dst_len;
  key.tos = header.rtm_tos;
  key.table = attributes.has(RTA_TABLE) ? attributes.number<std::uint32_t>(RTA_TABLE) : header.rtm_table;
  key.priority = attributes.number<std::uint32_t>(RTA_PRIORITY);
  if (header.rtm_family == AF_MPLS) {
    std::uint32_t entry = 0;
    std::memcpy(&entry, destination.data(), sizeof entry);
    entry = ntohl(entry) >> 12;
    std::memcpy(key.address.data(), &entry, sizeof entry);
  } else if (!is_default) {
    std::memcpy(key.address.data(), destination.data(), bytes);
  }
  return true;
}

Message::Type read_route(const nlmsghdr *message, Message &out) {
  rtmsg header{};
  Content rest;
  if (!split(message, header, rest)) {
    return Message::Type::kMalformed;
  }
  if (header.rtm_family != AF_INET && header.rtm_family != AF_INET6 && header.rtm_family != AF_MPLS) {
    return Message::Type::kOther;
  }
  const RouteAttributes attributes(rest);
  if (!read_destination(header, attributes, out.route)) {
    return Message::Type::kMalformed;
  }
  if (out.removed) {
    return Message::Type::kRoute;
  }
  out.id = attributes.number<std::uint32_t>(RTA_NH_ID);
  if (out.id != 0) {
    return Message::Type::kRoute;
  }
  if (header.rtm_type != RTN_UNICAST) {
    out.paths.push_back({PathKind::kBlackhole, {}});
  } else if (!attributes.has(RTA_MULTIPATH)) {
    out.paths.push_back(route_path(attributes, header.rtm_family, attributes.number<std::uint32_t>(RTA_OIF)));
  } else if (!read_multipath(attributes.content(RTA_MULTIPATH), header.rtm_family, out.paths)) {
    return Message::Type::kMalformed;
  }
  return Message::Type::kRoute;
}

Message::Type read_nexthop(const nlmsghdr *message, Message &out) {
  nhmsg header{};
  Content rest;
  if (!split(message, header, rest)) {
    return Message::Type::kMalformed;
  }
  const Attributes<NHA_MAX> attributes(rest);
  out.id = attributes.number<std::uint32_t>(NHA_ID);
  const Content group = attributes.content(NHA_GROUP);
  if (out.id == 0 || group.size() % sizeof(nexthop_grp) != 0) {
    return Message::Type::kMalformed;
  }
  for (std::size_t at = 0; at < group.size(); at += sizeof(nexthop_grp)) {
    nexthop_grp member{};
    std::memcpy(&member, &group[at], sizeof member);
    out.members.push_back(member.id);
  }
  if (attributes.has(NHA_BLACKHOLE)) {
    out.paths.push_back({PathKind::kBlackhole, {}});
  } else if (!attributes.has(NHA_GROUP)) {
    out.paths.push_back(
        tunnelled(attributes, NHA_ENCAP_TYPE, NHA_ENCAP, attributes.template number<std::uint32_t>(NHA_OIF)));
  }
  return Message::Type::kNexthop;
}

}  // namespace

std::string text_of(const RouteKey &key) {
  if (key.family == AF_MPLS) {
    std::uint32_t label = 0;
    std::memcpy(&label, key.address.data(), sizeof label);
    return std::to_string(label);
  }
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(key.family, key.address.data(), text, sizeof text);
  return std::string(text) + "/" + std::to_string(key.bits);
}

void read_message(const nlmsghdr *header, Message &message) {
  message.type = Message::Type::kOther;
  message.route = {};
  message.id = 0;
  message.paths.clear();
  message.members.clear();
  message.removed = header->nlmsg_type == RTM_DELROUTE || header->nlmsg_type == RTM_DELNEXTHOP;
  if (header->nlmsg_type == RTM_NEWROUTE || header->nlmsg_type == RTM_DELROUTE) {
    message.type = read_route(header, message);
  } else if (header->nlmsg_type == RTM_NEWNEXTHOP || header->nlmsg_type == RTM_DELNEXTHOP) {
    message.type = read_nexthop(header, message);
  }
}

}  // namespace encapd
