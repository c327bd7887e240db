#include "hosts/linux/NetlinkMessages.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <string>
#include <utility>

namespace Hosts::Linux {

namespace {

// What an attribute must look like: a libmnl type, and for fixed-size payloads their exact size
// (0: any size the libmnl type allows).
struct Rule {
  mnl_attr_data_type type = MNL_TYPE_UNSPEC;
  uint16_t size = 0;
};
constexpr Rule kU8{MNL_TYPE_U8, 1};
constexpr Rule kU16{MNL_TYPE_U16, 2};
constexpr Rule kU32{MNL_TYPE_U32, 4};
constexpr Rule kIpv4{MNL_TYPE_BINARY, 4};
constexpr Rule kBinary{MNL_TYPE_BINARY, 0};
constexpr Rule kString{MNL_TYPE_NUL_STRING, 0};
constexpr Rule kFlag{MNL_TYPE_FLAG, 0};
constexpr Rule kNested{MNL_TYPE_NESTED, 0};

// The attributes of one block, by type; only those with a rule are kept, each validated.
template <size_t Max>
class Attrs {
 public:
  using Rules = std::array<Rule, Max + 1>;

  // Walks the attributes in [payload, payload + len): each must lie inside the block and pass
  // its rule; an unknown type is skipped. Throws NetlinkError naming `what` otherwise.
  Attrs(const void* payload, size_t len, const Rules& rules, const char* what) {
    auto* attr = static_cast<const nlattr*>(payload);
    int remaining = static_cast<int>(len);
    while (mnl_attr_ok(attr, remaining)) {
      const uint16_t type = mnl_attr_get_type(attr);
      if (type <= Max && rules[type].type != MNL_TYPE_UNSPEC) {
        check(attr, rules[type], what);
        attrs_[type] = attr;
      }
      remaining -= static_cast<int>(MNL_ALIGN(attr->nla_len));
      attr = mnl_attr_next(attr);
    }
    if (remaining > 0) {
      throw NetlinkError(std::string(what) + ": truncated attribute (" + std::to_string(remaining) +
                         " bytes left over)");
    }
  }

  const nlattr* operator[](size_t type) const { return attrs_[type]; }
  uint32_t u32(size_t type, uint32_t absent = 0) const {
    return attrs_[type] ? mnl_attr_get_u32(attrs_[type]) : absent;
  }
  uint16_t u16(size_t type) const { return attrs_[type] ? mnl_attr_get_u16(attrs_[type]) : 0; }
  uint8_t u8(size_t type) const { return attrs_[type] ? mnl_attr_get_u8(attrs_[type]) : 0; }
  // An IPv4 address (validated as 4 bytes) in host order.
  uint32_t ipv4(size_t type) const {
    if (!attrs_[type]) return 0;
    uint32_t net;
    std::memcpy(&net, mnl_attr_get_payload(attrs_[type]), sizeof net);
    return ntohl(net);
  }

 private:
  static void check(const nlattr* attr, const Rule& rule, const char* what) {
    const uint16_t size = mnl_attr_get_payload_len(attr);
    if (mnl_attr_validate(attr, rule.type) < 0 || (rule.size != 0 && size != rule.size)) {
      throw NetlinkError(std::string(what) + ": attribute " +
                         std::to_string(mnl_attr_get_type(attr)) + " has a bad payload of " +
                         std::to_string(size) + " bytes");
    }
  }

  std::array<const nlattr*, Max + 1> attrs_{};
};

template <class Header>
const Header& fixedHeader(const nlmsghdr* nlh, const char* what) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(Header)) {
    throw NetlinkError(std::string(what) + ": message of " + std::to_string(nlh->nlmsg_len) +
                       " bytes is shorter than its header");
  }
  return *static_cast<const Header*>(mnl_nlmsg_get_payload(nlh));
}

template <class Header>
size_t attrsLen(const nlmsghdr* nlh) {
  return mnl_nlmsg_get_payload_len(nlh) - MNL_ALIGN(sizeof(Header));
}

template <class Header>
const void* attrsOf(const nlmsghdr* nlh) {
  return mnl_nlmsg_get_payload_offset(nlh, sizeof(Header));
}

Netval::EthAddr macOf(const nlattr* attr) {
  const auto* b = static_cast<const uint8_t*>(mnl_attr_get_payload(attr));
  uint64_t value = 0;
  for (int i = 0; i < 6; ++i) value = value << 8 | b[i];
  return Netval::EthAddr(value);
}

bool isMac(const nlattr* attr) { return attr && mnl_attr_get_payload_len(attr) == 6; }

Link parseLink(const nlmsghdr* nlh) {
  constexpr const char* what = "link message";
  const auto& ifi = fixedHeader<ifinfomsg>(nlh, what);
  Attrs<IFLA_MAX>::Rules rules{};
  rules[IFLA_IFNAME] = kString;
  rules[IFLA_ADDRESS] = kBinary;
  rules[IFLA_MASTER] = kU32;
  rules[IFLA_LINK] = kU32;
  rules[IFLA_LINKINFO] = kNested;
  Attrs<IFLA_MAX> tb(attrsOf<ifinfomsg>(nlh), attrsLen<ifinfomsg>(nlh), rules, what);
  if (ifi.ifi_index <= 0) throw NetlinkError("link message without interface index");
  if (!tb[IFLA_IFNAME]) throw NetlinkError("link message without interface name");
  Link link;
  link.ifindex = ifi.ifi_index;
  link.name = mnl_attr_get_str(tb[IFLA_IFNAME]);
  link.flags = ifi.ifi_flags;
  link.up = (ifi.ifi_flags & IFF_UP) != 0;
  link.loopback = (ifi.ifi_flags & IFF_LOOPBACK) != 0;
  if (isMac(tb[IFLA_ADDRESS])) link.mac = macOf(tb[IFLA_ADDRESS]);
  link.master = static_cast<int32_t>(tb.u32(IFLA_MASTER));
  link.lower = static_cast<int32_t>(tb.u32(IFLA_LINK));
  if (const nlattr* info = tb[IFLA_LINKINFO]) {
    Attrs<IFLA_INFO_MAX>::Rules infoRules{};
    infoRules[IFLA_INFO_KIND] = kString;
    infoRules[IFLA_INFO_DATA] = kNested;
    Attrs<IFLA_INFO_MAX> li(mnl_attr_get_payload(info), mnl_attr_get_payload_len(info), infoRules,
                            "link info");
    if (li[IFLA_INFO_KIND]) link.kind = mnl_attr_get_str(li[IFLA_INFO_KIND]);
    if (link.kind == "vlan" && li[IFLA_INFO_DATA]) {
      Attrs<IFLA_VLAN_MAX>::Rules vlanRules{};
      vlanRules[IFLA_VLAN_ID] = kU16;
      Attrs<IFLA_VLAN_MAX> vd(mnl_attr_get_payload(li[IFLA_INFO_DATA]),
                              mnl_attr_get_payload_len(li[IFLA_INFO_DATA]), vlanRules, "vlan info");
      link.vlanId = vd.u16(IFLA_VLAN_ID);
    }
  }
  return link;
}

constexpr const char* kRouteWhat = "route message";

Attrs<RTA_MAX>::Rules routeRules() {
  Attrs<RTA_MAX>::Rules rules{};
  rules[RTA_DST] = kIpv4;
  rules[RTA_GATEWAY] = kIpv4;
  rules[RTA_OIF] = kU32;
  rules[RTA_TABLE] = kU32;
  rules[RTA_PRIORITY] = kU32;
  rules[RTA_NH_ID] = kU32;
  rules[RTA_MULTIPATH] = kBinary;
  rules[RTA_VIA] = kBinary;
  return rules;
}

// The hops of RTA_MULTIPATH: a sequence of rtnexthop, each followed by its own attributes.
void parseMultipath(const nlattr* attr, std::vector<RouteNexthop>& hops) {
  const auto* p = static_cast<const char*>(mnl_attr_get_payload(attr));
  size_t remaining = mnl_attr_get_payload_len(attr);
  static const auto rules = routeRules();
  while (remaining >= sizeof(rtnexthop)) {
    rtnexthop rtnh;
    std::memcpy(&rtnh, p, sizeof rtnh);
    if (rtnh.rtnh_len < sizeof(rtnexthop) || rtnh.rtnh_len > remaining) {
      throw NetlinkError("route message: multipath entry of " + std::to_string(rtnh.rtnh_len) +
                         " bytes in " + std::to_string(remaining));
    }
    Attrs<RTA_MAX> tb(p + RTNH_ALIGN(sizeof(rtnexthop)),
                      rtnh.rtnh_len - RTNH_ALIGN(sizeof(rtnexthop)), rules, kRouteWhat);
    // A hop whose gateway is of another family (RTA_VIA) is not one of ours to resolve.
    if (!tb[RTA_VIA]) hops.push_back({tb.ipv4(RTA_GATEWAY), rtnh.rtnh_ifindex});
    const size_t step = RTNH_ALIGN(rtnh.rtnh_len);
    if (step >= remaining) return;
    p += step;
    remaining -= step;
  }
  if (remaining != 0) throw NetlinkError("route message: truncated multipath entry");
}

std::optional<Route> parseRoute(const nlmsghdr* nlh) {
  const auto& rtm = fixedHeader<rtmsg>(nlh, kRouteWhat);
  if (rtm.rtm_family != AF_INET) return std::nullopt;
  if (rtm.rtm_dst_len > 32) throw NetlinkError("route message: prefix length over 32");
  static const auto rules = routeRules();
  Attrs<RTA_MAX> tb(attrsOf<rtmsg>(nlh), attrsLen<rtmsg>(nlh), rules, kRouteWhat);
  Route route;
  route.table = tb.u32(RTA_TABLE, rtm.rtm_table);
  route.dst = tb.ipv4(RTA_DST);
  route.dstLen = rtm.rtm_dst_len;
  route.tos = rtm.rtm_tos;
  route.type = rtm.rtm_type;
  route.protocol = rtm.rtm_protocol;
  route.scope = rtm.rtm_scope;
  route.priority = tb.u32(RTA_PRIORITY);
  route.nhId = tb.u32(RTA_NH_ID);
  if (tb[RTA_MULTIPATH]) {
    parseMultipath(tb[RTA_MULTIPATH], route.hops);
  } else if (tb[RTA_OIF] || tb[RTA_GATEWAY]) {
    if (!tb[RTA_VIA]) {
      route.hops.push_back({tb.ipv4(RTA_GATEWAY), static_cast<int32_t>(tb.u32(RTA_OIF))});
    }
  }
  return route;
}

std::optional<Fact> parseNeighbour(const nlmsghdr* nlh) {
  constexpr const char* what = "neighbour message";
  const auto& ndm = fixedHeader<ndmsg>(nlh, what);
  if (ndm.ndm_family != AF_INET && ndm.ndm_family != AF_BRIDGE) return std::nullopt;
  Attrs<NDA_MAX>::Rules rules{};
  rules[NDA_DST] = kBinary;
  rules[NDA_LLADDR] = kBinary;
  rules[NDA_PROTOCOL] = kU8;
  rules[NDA_FLAGS_EXT] = kU32;
  rules[NDA_MASTER] = kU32;
  rules[NDA_VLAN] = kU16;
  Attrs<NDA_MAX> tb(attrsOf<ndmsg>(nlh), attrsLen<ndmsg>(nlh), rules, what);
  if (ndm.ndm_ifindex <= 0) throw NetlinkError("neighbour message without interface index");
  if (ndm.ndm_family == AF_BRIDGE) {
    if (!isMac(tb[NDA_LLADDR])) throw NetlinkError("fdb message without a 6-byte address");
    FdbEntry fdb;
    fdb.port = ndm.ndm_ifindex;
    fdb.bridge = static_cast<int32_t>(tb.u32(NDA_MASTER));
    fdb.mac = macOf(tb[NDA_LLADDR]);
    fdb.vlan = tb.u16(NDA_VLAN);
    fdb.state = ndm.ndm_state;
    fdb.flags = ndm.ndm_flags;
    return fdb;
  }
  if (!tb[NDA_DST] || mnl_attr_get_payload_len(tb[NDA_DST]) != 4) {
    throw NetlinkError("neighbour message without a 4-byte destination");
  }
  Neighbour n;
  n.ifindex = ndm.ndm_ifindex;
  n.dst = tb.ipv4(NDA_DST);
  n.state = ndm.ndm_state;
  n.flags = ndm.ndm_flags;
  n.extFlags = tb.u32(NDA_FLAGS_EXT);
  n.protocol = tb.u8(NDA_PROTOCOL);
  if (isMac(tb[NDA_LLADDR])) n.lladdr = macOf(tb[NDA_LLADDR]);
  return n;
}

Nexthop parseNexthop(const nlmsghdr* nlh) {
  constexpr const char* what = "nexthop message";
  const auto& nhm = fixedHeader<nhmsg>(nlh, what);
  Attrs<NHA_MAX>::Rules rules{};
  rules[NHA_ID] = kU32;
  rules[NHA_GROUP] = kBinary;
  rules[NHA_GROUP_TYPE] = kU16;
  rules[NHA_BLACKHOLE] = kFlag;
  rules[NHA_OIF] = kU32;
  rules[NHA_GATEWAY] = kBinary;
  rules[NHA_FDB] = kFlag;
  Attrs<NHA_MAX> tb(attrsOf<nhmsg>(nlh), attrsLen<nhmsg>(nlh), rules, what);
  if (!tb[NHA_ID] || tb.u32(NHA_ID) == 0) throw NetlinkError("nexthop message without id");
  Nexthop nh;
  nh.id = tb.u32(NHA_ID);
  nh.family = nhm.nh_family;
  nh.protocol = nhm.nh_protocol;
  nh.flags = nhm.nh_flags;
  nh.blackhole = tb[NHA_BLACKHOLE] != nullptr;
  nh.fdb = tb[NHA_FDB] != nullptr;
  nh.oif = static_cast<int32_t>(tb.u32(NHA_OIF));
  if (const nlattr* gw = tb[NHA_GATEWAY]) {
    const uint16_t size = mnl_attr_get_payload_len(gw);
    if (size == 4 && nhm.nh_family == AF_INET) {
      nh.gateway = tb.ipv4(NHA_GATEWAY);
    } else if (size == 16 && nhm.nh_family == AF_INET6) {
      nh.ipv6Gateway = true;
    } else {
      throw NetlinkError("nexthop message: gateway of " + std::to_string(size) +
                         " bytes for family " + std::to_string(nhm.nh_family));
    }
  }
  if (const nlattr* group = tb[NHA_GROUP]) {
    const uint16_t size = mnl_attr_get_payload_len(group);
    if (size == 0 || size % sizeof(nexthop_grp) != 0) {
      throw NetlinkError("nexthop message: group of " + std::to_string(size) + " bytes");
    }
    const auto* p = static_cast<const char*>(mnl_attr_get_payload(group));
    for (size_t off = 0; off < size; off += sizeof(nexthop_grp)) {
      nexthop_grp g;
      std::memcpy(&g, p + off, sizeof g);
      nh.group.push_back({g.id, static_cast<uint16_t>(g.weight + 1)});
    }
  }
  return nh;
}

}  // namespace

std::string neighbourStateText(uint16_t state) {
  static constexpr std::pair<uint16_t, const char*> kNames[] = {
      {NUD_INCOMPLETE, "INCOMPLETE"}, {NUD_REACHABLE, "REACHABLE"}, {NUD_STALE, "STALE"},
      {NUD_DELAY, "DELAY"},           {NUD_PROBE, "PROBE"},         {NUD_FAILED, "FAILED"},
      {NUD_NOARP, "NOARP"},           {NUD_PERMANENT, "PERMANENT"},
  };
  std::string text;
  for (const auto& [bit, name] : kNames) {
    if ((state & bit) != 0) text += (text.empty() ? "" : "|") + std::string(name);
  }
  return text.empty() ? "NONE" : text;
}

bool Neighbour::hasMac() const {
  constexpr uint16_t kUsable =
      NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT | NUD_NOARP;
  return lladdr.has_value() && !lladdr->isZero() && (state & kUsable) != 0;
}

std::optional<Message> parseMessage(const nlmsghdr* nlh) {
  Message m;
  m.type = nlh->nlmsg_type;
  switch (nlh->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK: {
      // Bridge port details come as link messages of family AF_BRIDGE: not the interface.
      if (fixedHeader<ifinfomsg>(nlh, "link message").ifi_family != AF_UNSPEC) return std::nullopt;
      m.del = nlh->nlmsg_type == RTM_DELLINK;
      m.fact = parseLink(nlh);
      return m;
    }
    case RTM_NEWROUTE:
    case RTM_DELROUTE: {
      auto route = parseRoute(nlh);
      if (!route) return std::nullopt;
      m.del = nlh->nlmsg_type == RTM_DELROUTE;
      m.fact = std::move(*route);
      return m;
    }
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH: {
      auto fact = parseNeighbour(nlh);
      if (!fact) return std::nullopt;
      m.del = nlh->nlmsg_type == RTM_DELNEIGH;
      m.fact = std::move(*fact);
      return m;
    }
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      m.del = nlh->nlmsg_type == RTM_DELNEXTHOP;
      m.fact = parseNexthop(nlh);
      return m;
    default:
      return std::nullopt;
  }
}

void forEachMessage(const void* buf, size_t len, const std::function<void(const nlmsghdr*)>& fn) {
  // Checked here rather than with mnl_nlmsg_ok, which compares the length as a signed int and so
  // takes a length of 0xffffffff for one that fits.
  const auto* at = static_cast<const char*>(buf);
  size_t remaining = len;
  while (remaining >= sizeof(nlmsghdr)) {
    const auto* nlh = reinterpret_cast<const nlmsghdr*>(at);
    if (nlh->nlmsg_len < sizeof(nlmsghdr) || nlh->nlmsg_len > remaining) break;
    fn(nlh);
    const size_t step = NLMSG_ALIGN(static_cast<size_t>(nlh->nlmsg_len));
    if (step >= remaining) return;
    at += step;
    remaining -= step;
  }
  if (remaining > 0) {
    throw NetlinkError("truncated netlink message (" + std::to_string(remaining) +
                       " bytes left over)");
  }
}

int errorCode(const nlmsghdr* nlh) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nlmsgerr)) {
    throw NetlinkError("netlink error message shorter than its header");
  }
  return static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh))->error;
}

Request::Request(uint16_t type, uint16_t flags, uint32_t seq) {
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = type;
  nlh->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
  nlh->nlmsg_seq = seq;
}

uint32_t Request::seq() const { return header()->nlmsg_seq; }

size_t Request::size() const { return header()->nlmsg_len; }

Request dumpRequest(uint16_t type, uint8_t family, uint32_t seq) {
  Request r(type, NLM_F_DUMP, seq);
  // Every dump request's header starts with the family byte; the largest fixed header is
  // rtmsg/ifinfomsg, whose zeroes ask for everything.
  size_t headerSize = type == RTM_GETLINK      ? sizeof(ifinfomsg)
                      : type == RTM_GETNEIGH   ? sizeof(ndmsg)
                      : type == RTM_GETNEXTHOP ? sizeof(nhmsg)
                                               : sizeof(rtmsg);
  auto* family0 = static_cast<uint8_t*>(mnl_nlmsg_put_extra_header(r.header(), headerSize));
  *family0 = family;
  return r;
}

namespace {

Request neighbourRequest(uint16_t type, uint16_t flags, int32_t ifindex, uint32_t dst,
                         uint32_t seq) {
  Request r(type, static_cast<uint16_t>(NLM_F_ACK | flags), seq);
  auto* ndm = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(r.header(), sizeof(ndmsg)));
  ndm->ndm_family = AF_INET;
  ndm->ndm_ifindex = ifindex;
  const uint32_t net = htonl(dst);
  mnl_attr_put(r.header(), NDA_DST, sizeof net, &net);
  return r;
}

}  // namespace

Request managedNeighbourAdd(int32_t ifindex, uint32_t dst, uint32_t seq) {
  Request r = neighbourRequest(RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_REPLACE, ifindex, dst, seq);
  // A managed entry starts without a state; the kernel resolves it and keeps it reachable.
  static_cast<ndmsg*>(mnl_nlmsg_get_payload(r.header()))->ndm_state = NUD_NONE;
  mnl_attr_put_u32(r.header(), NDA_FLAGS_EXT, NTF_EXT_MANAGED);
  mnl_attr_put_u8(r.header(), NDA_PROTOCOL, kOwnProtocol);
  return r;
}

Request neighbourDel(int32_t ifindex, uint32_t dst, uint32_t seq) {
  return neighbourRequest(RTM_DELNEIGH, 0, ifindex, dst, seq);
}

Request nexthopAdd(uint32_t id, int32_t ifindex, uint32_t gateway, uint32_t seq) {
  Request r(RTM_NEWNEXTHOP, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE, seq);
  auto* nhm = static_cast<nhmsg*>(mnl_nlmsg_put_extra_header(r.header(), sizeof(nhmsg)));
  nhm->nh_family = AF_INET;
  nhm->nh_protocol = kOwnProtocol;
  mnl_attr_put_u32(r.header(), NHA_ID, id);
  mnl_attr_put_u32(r.header(), NHA_OIF, static_cast<uint32_t>(ifindex));
  const uint32_t net = htonl(gateway);
  mnl_attr_put(r.header(), NHA_GATEWAY, sizeof net, &net);
  return r;
}

Request nexthopDel(uint32_t id, uint32_t seq) {
  Request r(RTM_DELNEXTHOP, NLM_F_ACK, seq);
  auto* nhm = static_cast<nhmsg*>(mnl_nlmsg_put_extra_header(r.header(), sizeof(nhmsg)));
  nhm->nh_family = AF_UNSPEC;
  mnl_attr_put_u32(r.header(), NHA_ID, id);
  return r;
}

std::string ipv4Text(uint32_t hostOrder) {
  return std::to_string(hostOrder >> 24) + '.' + std::to_string(hostOrder >> 16 & 0xff) + '.' +
         std::to_string(hostOrder >> 8 & 0xff) + '.' + std::to_string(hostOrder & 0xff);
}

std::string messageTypeName(uint16_t type) {
  struct Name {
    uint16_t type;
    const char* name;
  };
  static constexpr Name kNames[] = {
      {RTM_NEWLINK, "RTM_NEWLINK"},       {RTM_DELLINK, "RTM_DELLINK"},
      {RTM_GETLINK, "RTM_GETLINK"},       {RTM_NEWROUTE, "RTM_NEWROUTE"},
      {RTM_DELROUTE, "RTM_DELROUTE"},     {RTM_GETROUTE, "RTM_GETROUTE"},
      {RTM_NEWNEIGH, "RTM_NEWNEIGH"},     {RTM_DELNEIGH, "RTM_DELNEIGH"},
      {RTM_GETNEIGH, "RTM_GETNEIGH"},     {RTM_NEWNEXTHOP, "RTM_NEWNEXTHOP"},
      {RTM_DELNEXTHOP, "RTM_DELNEXTHOP"}, {RTM_GETNEXTHOP, "RTM_GETNEXTHOP"},
      {NLMSG_ERROR, "NLMSG_ERROR"},       {NLMSG_DONE, "NLMSG_DONE"},
  };
  for (const Name& n : kNames) {
    if (n.type == type) return n.name;
  }
  return "message type " + std::to_string(type);
}

}  // namespace Hosts::Linux
