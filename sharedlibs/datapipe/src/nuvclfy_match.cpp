// Packet matching: does one packet satisfy one rule.
//
// Conditions are tested cheapest first (interfaces, mark, link layer, then
// IP), whole groups are skipped by one bit test, and nothing is allocated
// except while a DHCP condition is evaluated.  Every read of packet memory
// is bounded by the descriptor's ip_len: hostile length fields make a
// condition fail, never a read past the packet.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_priv.h"
#include "nuvcsock.h"
#include "nuvdhcp.h"
#include "nuvpkt.h"

namespace {

using dp::load_be16;

using namespace dp::wire;

// The ports of a packet with a hop-by-hop header are read behind it,
// taking it to be of the smallest size.
constexpr std::uint32_t kHopByHopLength = 8;

bool comparison_holds(std::uint32_t op, std::uint16_t value1, std::uint16_t value2, std::uint32_t x) {
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

bool list_holds(const nuv_clfy_valuelist &list, std::uint32_t x) {
  for (std::uint32_t i = 0; i < list.count; ++i) {
    const nuv_clfy_value &v = list.entries[i];
    if (comparison_holds(v.op, v.value1, v.value2, x)) return true;
  }
  return false;
}

// ---- Interfaces, mark, link layer ----

bool interfaces_hold(const nuv_clfy &rule, const nuv_clfy_packet &packet, std::uint32_t mark) {
  // An interface index the caller never resolved (-1) matches no packet.
  if ((rule.flags & NUV_CLFY_F_DEV) && (rule.dev_ifindex < 0 || packet.dev_ifindex != std::uint32_t(rule.dev_ifindex)))
    return false;
  if ((rule.flags & NUV_CLFY_F_BRDEV) &&
      (rule.brdev_ifindex < 0 || packet.brdev_ifindex != std::uint32_t(rule.brdev_ifindex)))
    return false;
  if ((rule.flags & NUV_CLFY_F_LOCALMARK) && (!rule.localmark || !rule.localmark[mark & 0x7fu])) return false;
  if ((rule.flags & NUV_CLFY_F_ETH_PROTO) && packet.eth_proto != rule.eth_proto) return false;
  return true;
}

bool addresses_hold(const nuv_clfy &rule, const std::uint8_t *eth) {
  const std::uint8_t *source = eth + kEthernetSourceOffset;
  if (rule.flags & NUV_CLFY_F_ETH_SOURCE) {
    if (std::memcmp(source, rule.eth_source, kEthernetAddressLength) != 0) return false;
  } else if ((rule.flags & NUV_CLFY_F_ETH_SOURCEOUI) && std::memcmp(source, rule.eth_source, kOuiLength) != 0) {
    return false;
  }
  if ((rule.flags & NUV_CLFY_F_ETHSRCTAB) && !nuv_clfy_ethersrctab_is_in(rule.ethsrctab, source)) return false;
  if (rule.flags & NUV_CLFY_F_ETH_DEST) {
    if (std::memcmp(eth, rule.eth_dest, kEthernetAddressLength) != 0) return false;
  } else if ((rule.flags & NUV_CLFY_F_ETH_DESTOUI) && std::memcmp(eth, rule.eth_dest, kOuiLength) != 0) {
    return false;
  }
  return true;
}

bool link_layer_holds(const nuv_clfy &rule, const nuv_clfy_packet &packet) {
  if (rule.flags & dp::clfy::kLinkAddressConditions) {
    if (!packet.eth_header || !addresses_hold(rule, packet.eth_header)) return false;
  }
  const bool tagged = packet.vlan_tci & NUV_CLFY_VLAN_TAG_PRESENT;
  if ((rule.flags & NUV_CLFY_F_VLAN_ID) && (!tagged || !list_holds(rule.vlan_ids, packet.vlan_tci & 0x0fffu)))
    return false;
  if ((rule.flags & NUV_CLFY_F_VLAN_PRIO) && (!tagged || (packet.vlan_tci >> 13) != rule.vlan_prio)) return false;
  return true;
}

// ---- Transport layer, shared by both IP versions ----

// Where the transport header lies in the packet, and how much follows.
struct Transport {
  const std::uint8_t *ip;
  std::uint32_t available;  // bytes readable from ip on
  std::uint32_t offset;     // of the transport header
  bool has(std::uint32_t bytes) const { return offset <= available && available - offset >= bytes; }
  const std::uint8_t *at(std::uint32_t delta) const { return ip + offset + delta; }
};

bool ports_hold(const nuv_clfy &rule, const Transport &t) {
  if ((rule.flags & NUV_CLFY_F_SPORTS) && !(t.has(2) && list_holds(rule.sports, load_be16(t.at(0))))) return false;
  if ((rule.flags & NUV_CLFY_F_DPORTS) && !(t.has(4) && list_holds(rule.dports, load_be16(t.at(2))))) return false;
  return true;
}

bool tcp_flags_hold(const nuv_clfy &rule, const Transport &t) {
  if (!(rule.flags & NUV_CLFY_F_TCP_FLAGS)) return true;
  if (rule.ip_proto != kProtoTcp || !t.has(14)) return false;
  const std::uint16_t word = load_be16(t.at(12));
  return (word & dp::net_to_host16(rule.tcp_flags_mask)) == dp::net_to_host16(rule.tcp_flags);
}

// The payload after a UDP or TCP header (any other protocol: the whole
// transport part), at most `declared` bytes and never past the packet.
bool payload_matches(const nuv_clfy &rule, const Transport &t, std::uint8_t proto, std::int64_t declared) {
  std::uint32_t header = 0;
  if (proto == kProtoUdp) {
    header = kUdpHeaderLength;
  } else if (proto == kProtoTcp) {
    if (!t.has(13)) return false;
    header = (*t.at(12) >> 4) * 4u;
  }
  if (!t.has(header)) return false;
  std::int64_t length = declared - header;
  const std::int64_t room = t.available - t.offset - header;
  if (length > room) length = room;
  if (length < 0) return false;
  return shcasenmatch(reinterpret_cast<const char *>(t.at(header)), static_cast<std::size_t>(length),
                      rule.packetmatch) != 0;
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
bool dhcp_message_holds(nuv_clfy_dhcp &condition, const std::uint8_t *msg) {
  const dhcp_option &type = g_dhcp_store[kDhcpOptionMessageType];
  const dhcp_match match{condition.code, condition.sub, condition.enterprise, condition.pattern};
  if (!type.data) return true;
  switch (type.data[0]) {
    case 1:  // DISCOVER
    case 3:  // REQUEST
      if (!dhcp_packet_matches(&g_dhcp_memops, msg, g_dhcp_store, &match)) return false;
      _nuv_clfy_ethersrctab_add(condition.ethsrctab, msg + kDhcpChaddrOffset);
      return true;
    case 7:  // RELEASE
      dp::clfy::ethersrctab_forget(condition.ethsrctab, msg + kDhcpChaddrOffset);
      return false;
    default: return false;
  }
}

// The option walk reads the code byte that follows the options area, so the
// message is evaluated from a copy that ends in an end option.
bool dhcp_holds(nuv_clfy &rule, const Transport &t) {
  if (!rule.dhcp || !t.has(kUdpHeaderLength + kDhcpFixedPart)) return false;
  const std::uint32_t length = t.available - t.offset - kUdpHeaderLength;
  auto *msg = static_cast<std::uint8_t *>(std::malloc(length + 1u));
  if (!msg) return false;
  std::memcpy(msg, t.at(kUdpHeaderLength), length);
  msg[length] = kDhcpEndOption;
  bool holds = false;
  if (dhcp_parse_options(&g_dhcp_memops, msg, static_cast<int>(length), g_dhcp_store) >= 0)
    holds = dhcp_message_holds(*rule.dhcp, msg);
  dhcp_free_options(&g_dhcp_memops, g_dhcp_store);
  std::free(msg);
  return holds;
}

// ---- IPv4 ----

bool ipv4_address_holds(const std::uint8_t *stored, std::uint8_t family, const std::uint8_t *packet_addr) {
  if (family != kFamilyIpv4) return false;
  return (dp::load_net32(packet_addr) & dp::load_net32(stored + 4)) == dp::load_net32(stored);
}

bool ipv4_holds(nuv_clfy &rule, const nuv_clfy_packet &packet) {
  const std::uint8_t *ip = packet.ip_header;
  const std::uint32_t flags = rule.flags;
  if ((flags & NUV_CLFY_F_IP_VERSION) && (ip[0] >> 4) != rule.ip_version) return false;
  if ((flags & NUV_CLFY_F_IP_PROTO) && ip[9] != rule.ip_proto) return false;
  if ((flags & NUV_CLFY_F_IP_TOS) && (ip[1] & rule.ip_tos_mask) != rule.ip_tos) return false;
  if ((flags & NUV_CLFY_F_IP_LEN) &&
      !comparison_holds(rule.ip_len.op, rule.ip_len.value1, rule.ip_len.value2, load_be16(ip + 2)))
    return false;
  if ((flags & NUV_CLFY_F_IP_SADDR) && !ipv4_address_holds(rule.ip_saddr.v6, rule.ip_saddr_family, ip + 12))
    return false;
  if ((flags & NUV_CLFY_F_IP_DADDR) && !ipv4_address_holds(rule.ip_daddr.v6, rule.ip_daddr_family, ip + 16))
    return false;
  if ((flags & NUV_CLFY_F_IPDSTTAB) && !nuv_clfy_ipdsttab_is_in(rule.ipdsttab, dp::load_net32(ip + 16)))
    return false;
  if (!(flags & NUV_CLFY_GROUP_TRANSPORT)) return true;
  const Transport t{ip, packet.ip_len, (ip[0] & 0x0fu) * 4u};
  if (!ports_hold(rule, t)) return false;
  if ((flags & NUV_CLFY_F_DHCP) && !dhcp_holds(rule, t)) return false;
  if (!tcp_flags_hold(rule, t)) return false;
  if ((flags & NUV_CLFY_F_PACKETMATCH) &&
      !payload_matches(rule, t, rule.ip_proto, static_cast<std::int64_t>(packet.ip_len) - t.offset))
    return false;
  // The ICMP type is an IPv6-only condition: IPv4 packets pass it untested.
  return true;
}

// ---- IPv6 ----

bool ipv6_prefix_holds(const std::uint8_t *stored, std::uint8_t prefixlen, std::uint8_t family,
                       const std::uint8_t *packet_addr) {
  if (family != kFamilyIpv6) return false;
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

bool icmpv6_type_holds(const nuv_clfy &rule, const std::uint8_t *ip, std::uint32_t available) {
  if (!extension_chain_readable(ip, available)) return false;
  std::uint8_t nh = 0;
  const int offset = ip6_skip_exthdr_from_ipv6hdr(ip, &nh);
  if (offset < 0 || nh != kProtoIcmpv6) return false;
  if (offset == 0) return true;
  return static_cast<std::uint32_t>(offset) < available && ip[offset] == rule.icmp_type;
}

bool ipv6_holds(nuv_clfy &rule, const nuv_clfy_packet &packet) {
  const std::uint8_t *ip = packet.ip_header;
  const std::uint32_t flags = rule.flags;
  const std::uint32_t available = packet.ip_len;
  // One hop-by-hop header is looked through for the protocol and the ports.
  const bool hop_by_hop = ip[kIpv6NextHeaderOffset] == kProtoHopByHop;
  if (hop_by_hop && (flags & (NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_PACKETMATCH)) && available <= kIpv6HeaderLength)
    return false;
  const std::uint8_t next_header =
      hop_by_hop ? (available > kIpv6HeaderLength ? ip[kIpv6HeaderLength] : 0) : ip[kIpv6NextHeaderOffset];
  if ((flags & NUV_CLFY_F_IP_VERSION) && (ip[0] >> 4) != rule.ip_version) return false;
  if ((flags & NUV_CLFY_F_IP_PROTO) && next_header != rule.ip_proto) return false;
  const auto traffic_class = static_cast<std::uint8_t>((ip[0] << 4) | (ip[1] >> 4));
  if ((flags & NUV_CLFY_F_IP_TOS) && (traffic_class & rule.ip_tos_mask) != rule.ip_tos) return false;
  const std::uint32_t payload_length = load_be16(ip + kIpv6PayloadLengthOffset);
  if ((flags & NUV_CLFY_F_IP_LEN) &&
      !comparison_holds(rule.ip_len.op, rule.ip_len.value1, rule.ip_len.value2, payload_length + kIpv6HeaderLength))
    return false;
  if ((flags & NUV_CLFY_F_IP_SADDR) &&
      !ipv6_prefix_holds(rule.ip_saddr.v6, rule.ip_saddr_prefixlen, rule.ip_saddr_family, ip + kIpv6SourceOffset))
    return false;
  if ((flags & NUV_CLFY_F_IP_DADDR) &&
      !ipv6_prefix_holds(rule.ip_daddr.v6, rule.ip_daddr_prefixlen, rule.ip_daddr_family, ip + kIpv6DestinationOffset))
    return false;
  if ((flags & NUV_CLFY_F_IPDSTTAB) && !nuv_clfy_ip6dsttab_is_in(rule.ipdsttab, ip + kIpv6DestinationOffset)) return false;
  if (flags & NUV_CLFY_GROUP_TRANSPORT) {
    const Transport t{ip, available, kIpv6HeaderLength + (hop_by_hop ? kHopByHopLength : 0)};
    if (!ports_hold(rule, t) || !tcp_flags_hold(rule, t)) return false;
    // DHCP conditions are IPv4-only and pass untested here.
    if ((flags & NUV_CLFY_F_PACKETMATCH) && !payload_matches(rule, t, next_header, payload_length)) return false;
  }
  if ((flags & NUV_CLFY_F_ICMP_TYPE) && !icmpv6_type_holds(rule, ip, available)) return false;
  return true;
}

// A packet too short for its fixed IP header satisfies no IP condition.
bool ip_holds(nuv_clfy &rule, const nuv_clfy_packet &packet) {
  if (!packet.ip_header) return false;
  const std::uint16_t eth_proto = dp::net_to_host16(packet.eth_proto);
  if (eth_proto == kEtherTypeIpv6) return packet.ip_len >= kIpv6HeaderLength && ipv6_holds(rule, packet);
  if (eth_proto == kEtherTypeIpv4) return packet.ip_len >= kIpv4HeaderLength && ipv4_holds(rule, packet);
  return false;
}

bool rule_holds(nuv_clfy &rule, const nuv_clfy_packet &packet, std::uint32_t mark) {
  if (!interfaces_hold(rule, packet, mark)) return false;
  if ((rule.flags & NUV_CLFY_GROUP_LINK) && !link_layer_holds(rule, packet)) return false;
  if (rule.flags & NUV_CLFY_GROUP_IP) return ip_holds(rule, packet);
  // Without IP conditions a rule needs at least one condition it could test;
  // bits that name no condition do not make a rule match.
  return (rule.flags & dp::clfy::kConditionsBeforeIp) != 0;
}

}  // namespace

extern "C" int nuv_clfy_matches(nuv_clfy *rule, const nuv_clfy_packet *packet, uint8_t, uint32_t mark) {
  if (rule->flags == 0) return 1;
  if (!rule_holds(*rule, *packet, mark)) return 0;
  ++rule->hits;
  return 1;
}
