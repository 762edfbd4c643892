// Packet matching: does one packet satisfy one rule.
//
// The packet's fields are read once into a PacketFacts record, then one
// sequence of condition tests runs against it.  Conditions are tested
// cheapest first (interfaces, mark, link layer, then IP), whole groups are
// skipped by one bit test, and nothing is allocated except while a DHCP
// condition is evaluated.  Every read of packet memory is bounded by the
// descriptor's ip_len: hostile length fields make a condition fail, never a
// read past the packet.
//
// The sequence is written once and used two ways through its policy
// parameter: the plain matcher's policy forgets which condition failed and
// learns DHCP clients; the explaining policy keeps the first failed
// condition and learns nothing.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"
#include "nuvcsock.h"
#include "nuvdhcp.h"
#include "nuvpkt.h"

namespace dp::clfy {
namespace {

using dp::load_be16;

using namespace dp::wire;

// The hot path of a test is inlined into the per-packet loops; conditions
// that are rare or costly stay out of line so that the loops stay small.
#define CLFY_HOT inline
#define CLFY_COLD [[gnu::noinline]]
// Rare conditions are also compiled for size.
#define CLFY_RARE [[gnu::noinline, gnu::cold]]

// ---- Policies ----

// How the sequence reports a miss.  The plain matcher has no finding to fill
// and learns DHCP clients; the explanation keeps the first failed condition
// and learns nothing.  One body of the sequence serves both.
struct Report {
  Finding *finding;
  bool learns() const { return finding == nullptr; }
  bool miss(Cond cond, Why why = Why::kValue, std::uint32_t value = 0, const std::uint8_t *bytes = nullptr) {
    if (finding) *finding = Finding{cond, why, value, bytes};
    return false;
  }
};

CLFY_HOT bool comparison_holds(std::uint32_t op, std::uint16_t value1, std::uint16_t value2, std::uint32_t x) {
  switch (op) {
    case NUV_CLFY_OP_EQ: return x == value1;
    case NUV_CLFY_OP_NE: return x != value1;
    case NUV_CLFY_OP_LT: return x < value1;
    case NUV_CLFY_OP_LE: return x <= value1;
    case NUV_CLFY_OP_GT: return x > value1;
    case NUV_CLFY_OP_GE: return x >= value1;
    case NUV_CLFY_OP_RANGE: return value1 <= x && x <= value2;
    default: return true;  // 0 and unknown codes always hold
  }
}

CLFY_COLD bool any_entry_holds(const nuv_clfy_valuelist &list, std::uint32_t x) {
  for (std::uint32_t i = 0; i < list.count; ++i) {
    const nuv_clfy_value &v = list.entries[i];
    if (comparison_holds(v.op, v.value1, v.value2, x)) return true;
  }
  return false;
}

// A list of one equality, the common case, is one comparison in line.
CLFY_HOT bool list_holds(const nuv_clfy_valuelist &list, std::uint32_t x) {
  if (list.count == 1 && list.entries[0].op == NUV_CLFY_OP_EQ) return x == list.entries[0].value1;
  return any_entry_holds(list, x);
}

// ---- Interfaces, mark, link layer ----

template <class P>
CLFY_HOT bool interfaces_hold(const nuv_clfy &rule, const nuv_clfy_packet &packet, std::uint32_t mark, P &p) {
  const std::uint32_t flags = rule.flags;
  // An interface index the caller never resolved (-1) matches no packet.
  if (flags & NUV_CLFY_F_DEV) {
    if (rule.dev_ifindex < 0) return p.miss(Cond::kDev, Why::kUnresolved, packet.dev_ifindex);
    if (packet.dev_ifindex != std::uint32_t(rule.dev_ifindex)) return p.miss(Cond::kDev, Why::kValue, packet.dev_ifindex);
  }
  if (flags & NUV_CLFY_F_BRDEV) {
    if (rule.brdev_ifindex < 0) return p.miss(Cond::kBrdev, Why::kUnresolved, packet.brdev_ifindex);
    if (packet.brdev_ifindex != std::uint32_t(rule.brdev_ifindex))
      return p.miss(Cond::kBrdev, Why::kValue, packet.brdev_ifindex);
  }
  if (flags & NUV_CLFY_F_LOCALMARK) {
    if (!rule.localmark) return p.miss(Cond::kLocalmark, Why::kNoMap, mark & 0x7fu);
    if (!rule.localmark[mark & 0x7fu]) return p.miss(Cond::kLocalmark, Why::kValue, mark & 0x7fu);
  }
  if ((flags & NUV_CLFY_F_ETH_PROTO) && packet.eth_proto != rule.eth_proto)
    return p.miss(Cond::kEthProto, Why::kValue, net_to_host16(packet.eth_proto));
  return true;
}

template <class P>
bool addresses_hold(const nuv_clfy &rule, const std::uint8_t *eth, P &p) {
  const std::uint8_t *source = eth + kEthernetSourceOffset;
  if (rule.flags & NUV_CLFY_F_ETH_SOURCE) {
    if (std::memcmp(source, rule.eth_source, kEthernetAddressLength) != 0) return p.miss(Cond::kEthSource, Why::kValue, 0, source);
  } else if ((rule.flags & NUV_CLFY_F_ETH_SOURCEOUI) && std::memcmp(source, rule.eth_source, kOuiLength) != 0) {
    return p.miss(Cond::kEthSourceOui, Why::kValue, 0, source);
  }
  if ((rule.flags & NUV_CLFY_F_ETHSRCTAB) && !nuv_clfy_ethersrctab_is_in(rule.ethsrctab, source))
    return p.miss(Cond::kEthSrcTab, Why::kNotInTable, 0, source);
  if (rule.flags & NUV_CLFY_F_ETH_DEST) {
    if (std::memcmp(eth, rule.eth_dest, kEthernetAddressLength) != 0) return p.miss(Cond::kEthDest, Why::kValue, 0, eth);
  } else if ((rule.flags & NUV_CLFY_F_ETH_DESTOUI) && std::memcmp(eth, rule.eth_dest, kOuiLength) != 0) {
    return p.miss(Cond::kEthDestOui, Why::kValue, 0, eth);
  }
  return true;
}

// The first link-address condition of the rule in test order.
Cond first_link_address(std::uint32_t flags) {
  if (flags & NUV_CLFY_F_ETH_SOURCE) return Cond::kEthSource;
  if (flags & NUV_CLFY_F_ETH_SOURCEOUI) return Cond::kEthSourceOui;
  if (flags & NUV_CLFY_F_ETHSRCTAB) return Cond::kEthSrcTab;
  if (flags & NUV_CLFY_F_ETH_DEST) return Cond::kEthDest;
  return Cond::kEthDestOui;
}

template <class P>
CLFY_RARE bool link_layer_holds(const nuv_clfy &rule, const nuv_clfy_packet &packet, P &p) {
  if (rule.flags & kLinkAddressConditions) {
    if (!packet.eth_header) return p.miss(first_link_address(rule.flags), Why::kNoEthernet);
    if (!addresses_hold(rule, packet.eth_header, p)) return false;
  }
  const bool tagged = packet.vlan_tci & NUV_CLFY_VLAN_TAG_PRESENT;
  if (rule.flags & NUV_CLFY_F_VLAN_ID) {
    if (!tagged) return p.miss(Cond::kVlanId, Why::kUntagged);
    if (!list_holds(rule.vlan_ids, packet.vlan_tci & 0x0fffu))
      return p.miss(Cond::kVlanId, Why::kValue, packet.vlan_tci & 0x0fffu);
  }
  if (rule.flags & NUV_CLFY_F_VLAN_PRIO) {
    if (!tagged) return p.miss(Cond::kVlanPrio, Why::kUntagged);
    if ((packet.vlan_tci >> 13) != rule.vlan_prio) return p.miss(Cond::kVlanPrio, Why::kValue, packet.vlan_tci >> 13);
  }
  return true;
}

// ---- Transport layer, shared by both IP versions ----

CLFY_HOT bool transport_has(PacketFacts &f, std::uint32_t bytes) {
  return f.transport <= f.available && f.available - f.transport >= bytes;
}

CLFY_COLD void read_transport(PacketFacts &f);
CLFY_COLD void read_network(PacketFacts &f);

// The transport words, read on the first condition that needs them.
CLFY_HOT void need_transport(PacketFacts &f) {
  if (!(f.read & kReadTransport)) read_transport(f);
}

template <class P>
CLFY_HOT bool ports_hold(const nuv_clfy &rule, PacketFacts &f, P &p) {
  need_transport(f);
  if (rule.flags & NUV_CLFY_F_SPORTS) {
    if (!(f.readable & kHasSport)) return p.miss(Cond::kSports, Why::kShort);
    if (!list_holds(rule.sports, f.sport)) return p.miss(Cond::kSports, Why::kValue, f.sport);
  }
  if (rule.flags & NUV_CLFY_F_DPORTS) {
    if (!(f.readable & kHasDport)) return p.miss(Cond::kDports, Why::kShort);
    if (!list_holds(rule.dports, f.dport)) return p.miss(Cond::kDports, Why::kValue, f.dport);
  }
  return true;
}

template <class P>
CLFY_RARE bool tcp_flags_hold(const nuv_clfy &rule, PacketFacts &f, P &p) {
  if (!(rule.flags & NUV_CLFY_F_TCP_FLAGS)) return true;
  if (rule.ip_proto != kProtoTcp) return p.miss(Cond::kTcpFlags, Why::kRuleNotTcp);
  need_transport(f);
  if (!(f.readable & kHasTcpWord)) return p.miss(Cond::kTcpFlags, Why::kShort);
  if ((f.tcp_word & net_to_host16(rule.tcp_flags_mask)) != net_to_host16(rule.tcp_flags))
    return p.miss(Cond::kTcpFlags, Why::kValue, f.tcp_word & 0x0fffu);
  return true;
}

// The payload after a UDP or TCP header (any other protocol: the whole
// transport part), at most `declared` bytes and never past the packet.
template <class P>
CLFY_RARE bool payload_matches(const nuv_clfy &rule, PacketFacts &f, std::uint8_t proto, std::int64_t declared, P &p) {
  std::uint32_t header = 0;
  if (proto == kProtoUdp) {
    header = kUdpHeaderLength;
  } else if (proto == kProtoTcp) {
    if (!transport_has(f, 13)) return p.miss(Cond::kPacketMatch, Why::kShort);
    header = (f.ip[f.transport + 12] >> 4) * 4u;
  }
  if (!transport_has(f, header)) return p.miss(Cond::kPacketMatch, Why::kShort);
  std::int64_t length = declared - header;
  const std::int64_t room = transport_room(f) - header;
  if (length > room) length = room;
  if (length < 0) return p.miss(Cond::kPacketMatch, Why::kShort);
  if (shcasenmatch(reinterpret_cast<const char *>(f.ip + f.transport + header), static_cast<std::size_t>(length),
                   rule.packetmatch) == 0)
    return p.miss(Cond::kPacketMatch, Why::kNoPayloadMatch);
  return true;
}

// ---- DHCP conditions ----

void *dhcp_scratch_alloc(std::uint32_t size) { return std::malloc(size); }
void dhcp_scratch_free(void *block) { std::free(block); }

// Memory record and option store of DHCP evaluations, reused by every call;
// the store is emptied after each use.
dhcp_memops g_dhcp_memops = {const_cast<char *>("nuv_clfy"), dhcp_scratch_alloc, dhcp_scratch_free};
dhcp_options g_dhcp_store;

constexpr std::uint32_t kDhcpFixedPart = 240;  // BOOTP header and magic cookie
constexpr std::uint32_t kDhcpChaddrOffset = 28;
constexpr std::uint8_t kDhcpOptionMessageType = 53;
constexpr std::uint8_t kDhcpEndOption = 255;

// Verdict on a parsed DHCP message: requests and discoveries that match are
// learned into the rule's table, releases are forgotten and never match.
template <class P>
bool dhcp_message_holds(const nuv_clfy_dhcp &condition, const std::uint8_t *msg, P &p) {
  const dhcp_option &type = g_dhcp_store[kDhcpOptionMessageType];
  const dhcp_match match = match_of(condition);
  if (!type.data) return true;
  switch (type.data[0]) {
    case 1:  // DISCOVER
    case 3:  // REQUEST
      if (!dhcp_packet_matches(&g_dhcp_memops, msg, g_dhcp_store, &match)) return p.miss(Cond::kDhcp, Why::kDhcpNoMatch);
      if (p.learns()) _nuv_clfy_ethersrctab_add(condition.ethsrctab, msg + kDhcpChaddrOffset);
      return true;
    case 7:  // RELEASE
      if (p.learns()) ethersrctab_forget(condition.ethsrctab, msg + kDhcpChaddrOffset);
      return p.miss(Cond::kDhcp, Why::kDhcpRelease);
    default: return p.miss(Cond::kDhcp, Why::kDhcpType, type.data[0]);
  }
}

// The option walk reads the code byte that follows the options area, so the
// message is evaluated from a copy that ends in an end option.
template <class P>
CLFY_RARE bool dhcp_holds(const nuv_clfy &rule, PacketFacts &f, P &p) {
  if (!rule.dhcp) return p.miss(Cond::kDhcp, Why::kNoCondition);
  if (!transport_has(f, kUdpHeaderLength + kDhcpFixedPart)) return p.miss(Cond::kDhcp, Why::kShort);
  const std::uint32_t length = transport_room(f) - kUdpHeaderLength;
  auto *msg = static_cast<std::uint8_t *>(std::malloc(length + 1u));
  if (!msg) return p.miss(Cond::kDhcp, Why::kDhcpUnreadable);
  std::memcpy(msg, f.ip + f.transport + kUdpHeaderLength, length);
  msg[length] = kDhcpEndOption;
  bool holds;
  if (dhcp_parse_options(&g_dhcp_memops, msg, static_cast<int>(length), g_dhcp_store) >= 0)
    holds = dhcp_message_holds(*rule.dhcp, msg, p);
  else
    holds = p.miss(Cond::kDhcp, Why::kDhcpUnreadable);
  dhcp_free_options(&g_dhcp_memops, g_dhcp_store);
  std::free(msg);
  return holds;
}

// ---- Network layer, shared by both IP versions ----

// The version nibble, the type of service (IPv6: traffic class) and the
// ip.len value (IPv6: payload length plus the fixed header).
std::uint8_t tos_of(const PacketFacts &f) {
  const std::uint8_t *ip = f.ip;
  if (f.family == kFamilyIpv4) return ip[1];
  return static_cast<std::uint8_t>((ip[0] << 4) | (ip[1] >> 4));
}

std::uint32_t length_of(const PacketFacts &f) {
  if (f.family == kFamilyIpv4) return load_be16(f.ip + 2);
  return load_be16(f.ip + kIpv6PayloadLengthOffset) + kIpv6HeaderLength;
}

template <class P>
CLFY_HOT bool header_fields_hold(const nuv_clfy &rule, PacketFacts &f, P &p) {
  const std::uint32_t flags = rule.flags;
  const std::uint8_t version = f.ip[0] >> 4;
  if ((flags & NUV_CLFY_F_IP_VERSION) && version != rule.ip_version)
    return p.miss(Cond::kIpVersion, Why::kValue, version);
  if ((flags & NUV_CLFY_F_IP_PROTO) && f.proto != rule.ip_proto) return p.miss(Cond::kIpProto, Why::kValue, f.proto);
  if ((flags & NUV_CLFY_F_IP_TOS) && (tos_of(f) & rule.ip_tos_mask) != rule.ip_tos)
    return p.miss(Cond::kIpTos, Why::kValue, tos_of(f));
  if ((flags & NUV_CLFY_F_IP_LEN) &&
      !comparison_holds(rule.ip_len.op, rule.ip_len.value1, rule.ip_len.value2, length_of(f)))
    return p.miss(Cond::kIpLen, Why::kValue, length_of(f));
  return true;
}

// ---- IPv4 ----

// Presence-bit groups skipped by one test when the rule has none of them.
constexpr std::uint32_t kInterfaceConditions =
    NUV_CLFY_F_DEV | NUV_CLFY_F_BRDEV | NUV_CLFY_F_LOCALMARK | NUV_CLFY_F_ETH_PROTO;
constexpr std::uint32_t kHeaderFieldConditions =
    NUV_CLFY_F_IP_VERSION | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_TOS | NUV_CLFY_F_IP_LEN;
constexpr std::uint32_t kAddressConditions = NUV_CLFY_F_IP_SADDR | NUV_CLFY_F_IP_DADDR | NUV_CLFY_F_IPDSTTAB;
constexpr std::uint32_t kPortConditions = NUV_CLFY_F_SPORTS | NUV_CLFY_F_DPORTS;
constexpr std::uint32_t kRareTransportConditions = NUV_CLFY_F_DHCP | NUV_CLFY_F_TCP_FLAGS | NUV_CLFY_F_PACKETMATCH;

template <class P>
CLFY_HOT bool ipv4_addresses_hold(const nuv_clfy &rule, PacketFacts &f, P &p);
template <class P>
CLFY_HOT bool ipv4_transport_holds(const nuv_clfy &rule, PacketFacts &f, P &p);

bool ipv4_address_holds(const std::uint8_t *stored, const std::uint8_t *packet_addr) {
  return (load_net32(packet_addr) & load_net32(stored + 4)) == load_net32(stored);
}

template <class P>
CLFY_HOT bool ipv4_holds(const nuv_clfy &rule, PacketFacts &f, P &p) {
  const std::uint32_t flags = rule.flags;
  if ((flags & kHeaderFieldConditions) && !header_fields_hold(rule, f, p)) return false;
  if (flags & kAddressConditions) return ipv4_addresses_hold(rule, f, p) && ipv4_transport_holds(rule, f, p);
  return ipv4_transport_holds(rule, f, p);
}

template <class P>
CLFY_HOT bool ipv4_addresses_hold(const nuv_clfy &rule, PacketFacts &f, P &p) {
  const std::uint8_t *ip = f.ip;
  const std::uint32_t flags = rule.flags;
  if (flags & NUV_CLFY_F_IP_SADDR) {
    if (rule.ip_saddr_family != kFamilyIpv4) return p.miss(Cond::kIpSaddr, Why::kFamily, 4, ip + 12);
    if (!ipv4_address_holds(rule.ip_saddr.v6, ip + 12)) return p.miss(Cond::kIpSaddr, Why::kValue, 4, ip + 12);
  }
  if (flags & NUV_CLFY_F_IP_DADDR) {
    if (rule.ip_daddr_family != kFamilyIpv4) return p.miss(Cond::kIpDaddr, Why::kFamily, 4, ip + 16);
    if (!ipv4_address_holds(rule.ip_daddr.v6, ip + 16)) return p.miss(Cond::kIpDaddr, Why::kValue, 4, ip + 16);
  }
  if ((flags & NUV_CLFY_F_IPDSTTAB) && !nuv_clfy_ipdsttab_is_in(rule.ipdsttab, load_net32(ip + 16)))
    return p.miss(Cond::kIpDstTab, Why::kNotInTable, 4, ip + 16);
  return true;
}

template <class P>
CLFY_HOT bool ipv4_transport_holds(const nuv_clfy &rule, PacketFacts &f, P &p) {
  const std::uint32_t flags = rule.flags;
  if (!(flags & NUV_CLFY_GROUP_TRANSPORT)) return true;
  if ((flags & kPortConditions) && !ports_hold(rule, f, p)) return false;
  if (!(flags & kRareTransportConditions)) return true;
  if ((flags & NUV_CLFY_F_DHCP) && !dhcp_holds(rule, f, p)) return false;
  if (!tcp_flags_hold(rule, f, p)) return false;
  if ((flags & NUV_CLFY_F_PACKETMATCH) &&
      !payload_matches(rule, f, rule.ip_proto, static_cast<std::int64_t>(f.available) - f.transport, p))
    return false;
  // The ICMP type is an IPv6-only condition: IPv4 packets pass it untested.
  return true;
}

// ---- IPv6 ----

bool ipv6_prefix_holds(const std::uint8_t *stored, std::uint8_t prefixlen, const std::uint8_t *packet_addr) {
  const unsigned bits = prefixlen > 128 ? 128u : prefixlen;
  const unsigned whole = bits / 8;
  if (std::memcmp(stored, packet_addr, whole) != 0) return false;
  const unsigned rest = bits % 8;
  if (!rest) return true;
  const auto top = static_cast<std::uint8_t>(0xffu << (8 - rest));
  return ((stored[whole] ^ packet_addr[whole]) & top) == 0;
}

// Whether the extension-header walk to the upper-layer header stays inside
// the packet.  It follows the same steps as the walk itself, bounded by the
// readable bytes, so hostile header lengths cannot make it read beyond them.
bool extension_chain_readable(const std::uint8_t *ip, std::uint32_t available) {
  std::uint8_t nh = ip[kIpv6NextHeaderOffset];
  std::uint16_t remaining = load_be16(ip + kIpv6PayloadLengthOffset);
  std::uint32_t pos = kIpv6HeaderLength;
  while (ip6_is_ext_hdr(nh)) {
    if (remaining < 2 || nh == kProtoNoNextHeader || nh == kProtoFragment) return true;
    if (pos + 2 > available) return false;
    const std::uint32_t size = (ip[pos + 1] + 1u) * 8u;
    nh = ip[pos];
    pos += size;
    remaining = static_cast<std::uint16_t>(remaining - size);
  }
  return true;
}

template <class P>
CLFY_RARE bool icmpv6_type_holds(const nuv_clfy &rule, const std::uint8_t *ip, std::uint32_t available, P &p) {
  if (!extension_chain_readable(ip, available)) return p.miss(Cond::kIcmpType, Why::kShort);
  std::uint8_t nh = 0;
  const int offset = ip6_skip_exthdr_from_ipv6hdr(ip, &nh);
  if (offset < 0 || nh != kProtoIcmpv6) return p.miss(Cond::kIcmpType, Why::kNotIcmpv6, nh);
  if (offset == 0) return true;
  if (static_cast<std::uint32_t>(offset) >= available) return p.miss(Cond::kIcmpType, Why::kShort);
  if (ip[offset] != rule.icmp_type) return p.miss(Cond::kIcmpType, Why::kValue, ip[offset]);
  return true;
}

template <class P>
CLFY_RARE bool ipv6_address_holds(Cond cond, const nuv_clfy_ipaddr &stored, std::uint8_t prefixlen, std::uint8_t family,
                        const std::uint8_t *packet_addr, P &p) {
  if (family != kFamilyIpv6) return p.miss(cond, Why::kFamily, 6, packet_addr);
  if (!ipv6_prefix_holds(stored.v6, prefixlen, packet_addr)) return p.miss(cond, Why::kValue, 6, packet_addr);
  return true;
}

template <class P>
CLFY_HOT bool ipv6_holds(const nuv_clfy &rule, PacketFacts &f, P &p) {
  const std::uint8_t *ip = f.ip;
  const std::uint32_t flags = rule.flags;
  // One hop-by-hop header is looked through for the protocol and the ports.
  if (f.proto_key == kProtoUnreadable && (flags & (NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_PACKETMATCH)))
    return p.miss(flags & NUV_CLFY_F_IP_PROTO ? Cond::kIpProto : Cond::kPacketMatch, Why::kShort);
  if ((flags & kHeaderFieldConditions) && !header_fields_hold(rule, f, p)) return false;
  if ((flags & NUV_CLFY_F_IP_SADDR) &&
      !ipv6_address_holds(Cond::kIpSaddr, rule.ip_saddr, rule.ip_saddr_prefixlen, rule.ip_saddr_family, ip + kIpv6SourceOffset, p))
    return false;
  if ((flags & NUV_CLFY_F_IP_DADDR) &&
      !ipv6_address_holds(Cond::kIpDaddr, rule.ip_daddr, rule.ip_daddr_prefixlen, rule.ip_daddr_family, ip + kIpv6DestinationOffset, p))
    return false;
  if ((flags & NUV_CLFY_F_IPDSTTAB) && !nuv_clfy_ip6dsttab_is_in(rule.ipdsttab, ip + kIpv6DestinationOffset))
    return p.miss(Cond::kIpDstTab, Why::kNotInTable, 6, ip + kIpv6DestinationOffset);
  if (flags & NUV_CLFY_GROUP_TRANSPORT) {
    if (!ports_hold(rule, f, p) || !tcp_flags_hold(rule, f, p)) return false;
    // DHCP conditions are IPv4-only and pass untested here.
    if ((flags & NUV_CLFY_F_PACKETMATCH) && !payload_matches(rule, f, f.proto, load_be16(ip + kIpv6PayloadLengthOffset), p)) return false;
  }
  if ((flags & NUV_CLFY_F_ICMP_TYPE) && !icmpv6_type_holds(rule, ip, f.available, p)) return false;
  return true;
}

// A packet too short for its fixed IP header satisfies no IP condition.
template <class P>
CLFY_HOT bool ip_holds(const nuv_clfy &rule, PacketFacts &f, P &p) {
  if (!(f.read & kReadNetwork)) read_network(f);
  if (f.family == kFamilyIpv6) return ipv6_holds(rule, f, p);
  if (f.family == kFamilyIpv4) return ipv4_holds(rule, f, p);
  const nuv_clfy_packet &packet = *f.desc;
  if (!packet.ip_header) return p.miss(Cond::kIp, Why::kNoIpHeader);
  const std::uint16_t eth_proto = net_to_host16(packet.eth_proto);
  if (eth_proto == kEtherTypeIpv6 || eth_proto == kEtherTypeIpv4) return p.miss(Cond::kIp, Why::kIpTooShort, eth_proto);
  return p.miss(Cond::kIp, Why::kNotIp, eth_proto);
}

template <class P>
CLFY_HOT bool rule_holds(const nuv_clfy &rule, PacketFacts &f, std::uint32_t mark, P &p) {
  const std::uint32_t flags = rule.flags;
  if ((flags & kInterfaceConditions) && !interfaces_hold(rule, *f.desc, mark, p)) return false;
  if ((flags & NUV_CLFY_GROUP_LINK) && !link_layer_holds(rule, *f.desc, p)) return false;
  if (flags & NUV_CLFY_GROUP_IP) return ip_holds(rule, f, p);
  // Without IP conditions a rule needs at least one condition it could test;
  // bits that name no condition do not make a rule match.
  if (flags & kConditionsBeforeIp) return true;
  return p.miss(Cond::kNothingTestable);
}

// The same, out of line for the callers off the hot paths.
CLFY_COLD void read_transport(PacketFacts &f) { read_transport_here(f); }

// The same, out of line for the callers off the hot paths.
CLFY_COLD void read_network(PacketFacts &f) { read_network_here(f); }

// The sequence, out of line once for every caller.
CLFY_COLD bool holds(const nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark, Report &report) {
  return rule_holds(rule, facts, mark, report);
}

// ---- The short path of plain rules ----

// Most rules of a router's list test only the receiving device, the
// Ethernet type, the IP version and protocol, the addresses and the ports.
// Such rules take a short path of their own: the same tests as the sequence
// in the same order, without reporting which one failed.  None of these
// conditions has a side effect, so the verdict cannot differ from the
// sequence's, which the explanation still runs.
constexpr std::uint32_t kPlainConditions = NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO | NUV_CLFY_F_IP_VERSION |
                                           NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_SADDR | NUV_CLFY_F_IP_DADDR |
                                           kPortConditions;

// A policy that only says no.
struct Quiet {
  bool miss(Cond, Why = Why::kValue, std::uint32_t = 0, const std::uint8_t * = nullptr) { return false; }
};

CLFY_COLD bool plain_ipv6_addresses_hold(const nuv_clfy &rule, const std::uint8_t *ip) {
  const std::uint32_t flags = rule.flags;
  Quiet quiet;
  if ((flags & NUV_CLFY_F_IP_SADDR) && !ipv6_address_holds(Cond::kIpSaddr, rule.ip_saddr, rule.ip_saddr_prefixlen,
                                                           rule.ip_saddr_family, ip + kIpv6SourceOffset, quiet))
    return false;
  return !(flags & NUV_CLFY_F_IP_DADDR) ||
         ipv6_address_holds(Cond::kIpDaddr, rule.ip_daddr, rule.ip_daddr_prefixlen, rule.ip_daddr_family,
                            ip + kIpv6DestinationOffset, quiet);
}

CLFY_HOT bool plain_ports_hold(const nuv_clfy &rule, PacketFacts &f) {
  if (!(f.read & kReadTransport)) read_transport_here(f);
  const std::uint32_t flags = rule.flags;
  if ((flags & NUV_CLFY_F_SPORTS) && (!(f.readable & kHasSport) || !list_holds(rule.sports, f.sport))) return false;
  return !(flags & NUV_CLFY_F_DPORTS) || ((f.readable & kHasDport) && list_holds(rule.dports, f.dport));
}

// How far a call of the plain tests goes.
enum class Reach : std::uint8_t {
  kAll,           // every condition
  kUpToProtocol,  // up to the protocol: addresses and ports are the caller's
};

// Addresses and ports of a plain rule, once the network layer is read.
CLFY_HOT bool plain_rest_holds(const nuv_clfy &rule, PacketFacts &f) {
  const std::uint32_t flags = rule.flags;
  if (flags & kAddressConditions) {
    Quiet quiet;
    const bool held = f.family == kFamilyIpv4 ? ipv4_addresses_hold(rule, f, quiet) : plain_ipv6_addresses_hold(rule, f.ip);
    if (!held) return false;
  }
  return !(flags & kPortConditions) || plain_ports_hold(rule, f);
}

// `network_read`: the caller has read the network layer already.
template <bool network_read = false, Reach reach = Reach::kAll>
CLFY_HOT bool plain_rule_holds(const nuv_clfy &rule, PacketFacts &f) {
  const std::uint32_t flags = rule.flags;
  if (flags & (NUV_CLFY_F_ETH_PROTO | NUV_CLFY_F_DEV)) {
    if ((flags & NUV_CLFY_F_ETH_PROTO) && f.desc->eth_proto != rule.eth_proto) return false;
    // An interface index the caller never resolved (-1) matches no packet.
    if ((flags & NUV_CLFY_F_DEV) &&
        (rule.dev_ifindex < 0 || f.desc->dev_ifindex != static_cast<std::uint32_t>(rule.dev_ifindex)))
      return false;
  }
  if (!(flags & NUV_CLFY_GROUP_IP)) return true;
  if (!network_read && !(f.read & kReadNetwork)) read_network_here(f);
  if (!f.family) return false;
  if ((flags & NUV_CLFY_F_IP_VERSION) && (f.ip[0] >> 4) != rule.ip_version) return false;
  if ((flags & NUV_CLFY_F_IP_PROTO) && f.proto_key != rule.ip_proto) return false;
  return reach != Reach::kAll || plain_rest_holds(rule, f);
}

// The verdict of a rule that is not plain, through the sequence.
CLFY_HOT bool sequence_holds(const nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark) {
  // The Ethernet type rejects most packets of most rules at the least cost;
  // conditions have no side effects before DHCP, so testing it first here
  // changes no verdict.
  if ((rule.flags & NUV_CLFY_F_ETH_PROTO) && facts.desc->eth_proto != rule.eth_proto) return false;
  Report quiet{nullptr};
  return holds(rule, facts, mark, quiet);
}

// The plain matcher's verdict: a match counts in the rule's hits, except for
// a rule without conditions (which takes the plain path and matches).
template <bool network_read = false>
CLFY_HOT bool applies(nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark) {
  const std::uint32_t flags = rule.flags;
  const bool held = (flags & ~kPlainConditions) ? sequence_holds(rule, facts, mark)
                                                : plain_rule_holds<network_read>(rule, facts);
  if (!held) return false;
  if (flags) ++rule.hits;
  return true;
}

}  // namespace

bool rule_explained(const nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark, Finding &finding) {
  finding = Finding{};
  if (rule.flags == 0) return true;
  Report explaining{&finding};
  return holds(rule, facts, mark, explaining);
}

nuv_clfy *first_applying(nuv_clfy *rule, PacketFacts &facts) {
  for (; rule; rule = rule->next) {
    if (!rule_applies(*rule, facts, 0)) continue;
    if (!rule->children) return rule;
    if (nuv_clfy *found = first_applying(rule->children, facts)) return found;
  }
  return nullptr;
}

// Out of line: one copy of the tests serves the set search and every
// compiled search.
CLFY_COLD bool rule_applies(nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark) {
  // Reading the network layer has no effect but its cost, paid once a packet.
  if (!(facts.read & kReadNetwork)) read_network(facts);
  return applies<true>(rule, facts, mark);
}

}  // namespace dp::clfy

namespace dp::clfy {
namespace {

// One rule through the sequence.
CLFY_COLD int matches_in_sequence(nuv_clfy &rule, const nuv_clfy_packet &packet, std::uint32_t mark) {
  PacketFacts facts;
  read_packet(packet, facts);
  if (!sequence_holds(rule, facts, mark)) return 0;
  ++rule.hits;
  return 1;
}

// Whether the packet has a whole IP header of the rule's version.
CLFY_HOT int version_matches(nuv_clfy &rule, const nuv_clfy_packet &packet) {
  const std::uint32_t header = packet.eth_proto == dp::host_to_net16(kEtherTypeIpv4)   ? kIpv4HeaderLength
                               : packet.eth_proto == dp::host_to_net16(kEtherTypeIpv6) ? kIpv6HeaderLength
                                                                                      : 0;
  if (!header || !packet.ip_header || packet.ip_len < header || (packet.ip_header[0] >> 4) != rule.ip_version)
    return 0;
  ++rule.hits;
  return 1;
}

// One plain rule without addresses and ports.  The packet record never
// leaves the call, so it is kept in registers.
CLFY_HOT int plain_matches(nuv_clfy &rule, const nuv_clfy_packet &packet) {
  PacketFacts facts;
  read_packet(packet, facts);
  if (!plain_rule_holds<false, Reach::kUpToProtocol>(rule, facts)) return 0;
  if (rule.flags) ++rule.hits;
  return 1;
}

// IPv6 addresses and ports out of line, given the network layer: their
// tests need registers that the others then do without setting up.
CLFY_COLD bool plain_rest_holds_out_of_line(const nuv_clfy &rule, const std::uint8_t *ip, std::uint8_t family,
                                            std::uint32_t transport, std::uint32_t available) {
  PacketFacts facts{};
  facts.read = kReadNetwork;
  facts.ip = ip;
  facts.family = family;
  facts.transport = transport;
  facts.available = available;
  // IPv4 addresses were tested in line.
  if (family == kFamilyIpv4) return !(rule.flags & kPortConditions) || plain_ports_hold(rule, facts);
  return plain_rest_holds(rule, facts);
}

// One plain rule with addresses or ports: most packets fail before the
// ports, at the header fields or an IPv4 address.
CLFY_HOT int plain_matches_with_rest(nuv_clfy &rule, const nuv_clfy_packet &packet) {
  PacketFacts facts;
  read_packet(packet, facts);
  if (!plain_rule_holds<false, Reach::kUpToProtocol>(rule, facts)) return 0;
  const std::uint32_t flags = rule.flags;
  if (facts.family == kFamilyIpv4 && (flags & kAddressConditions)) {
    Quiet quiet;
    if (!ipv4_addresses_hold(rule, facts, quiet)) return 0;
  }
  if ((facts.family == kFamilyIpv6 && (flags & kAddressConditions)) || (flags & kPortConditions)) {
    if (!plain_rest_holds_out_of_line(rule, facts.ip, facts.family, facts.transport, facts.available)) return 0;
  }
  ++rule.hits;
  return 1;
}

}  // namespace
}  // namespace dp::clfy

extern "C" int nuv_clfy_matches(nuv_clfy *rule, const nuv_clfy_packet *packet, uint8_t, uint32_t mark) {
  const std::uint32_t flags = rule->flags;
  // A rule per address family is common enough for a test of its own.
  if (flags == NUV_CLFY_F_IP_VERSION) return dp::clfy::version_matches(*rule, *packet);
  if (flags & ~dp::clfy::kPlainConditions) return dp::clfy::matches_in_sequence(*rule, *packet, mark);
  if (flags & (dp::clfy::kAddressConditions | dp::clfy::kPortConditions))
    return dp::clfy::plain_matches_with_rest(*rule, *packet);
  return dp::clfy::plain_matches(*rule, *packet);
}
