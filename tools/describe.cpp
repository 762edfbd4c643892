#include "describe.h"

#include <fmt/format.h>

#include <cstring>

#include "nuvcksum.h"
#include "nuvpkt.h"

namespace tool {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kIpv4MinHeader = 20;
constexpr std::size_t kIpv6Header = 40;

enum : std::uint8_t {
  kProtoIcmp = 1, kProtoIgmp = 2, kProtoTcp = 6, kProtoUdp = 17, kProtoEsp = 50,
  kProtoAh = 51, kProtoIcmpv6 = 58, kProtoIpcomp = 108,
};

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

// Bytes of the upper-layer header that the one-line description reads
// (TCP flags sit in byte 13, the AH sequence number ends at byte 12, ...).
std::size_t upper_bytes_described(std::uint8_t proto) {
  switch (proto) {
    case kProtoTcp: return 14;
    case kProtoUdp: return 4;
    case kProtoEsp: return 8;
    case kProtoAh: return 12;
    case kProtoIpcomp: return 4;
    case kProtoIcmp: return 8;
    case kProtoIgmp: return 8;
    case kProtoIcmpv6: return 2;
    default: return 0;
  }
}

std::string truncated(const char *what, std::size_t need, std::size_t have) {
  return fmt::format("truncated: {} needs {} bytes, {} captured", what, need, have);
}

// --- IPv4 -------------------------------------------------------------------

struct Ipv4Layout {
  std::size_t header;   // header length in bytes
  std::size_t total;    // total length field
  std::uint8_t proto;
  bool fragment;        // offset non-zero or more fragments follow
  bool later_fragment;  // offset non-zero: no upper-layer header here
};

Ipv4Layout ipv4_layout(Bytes ip) {
  Ipv4Layout l;
  l.header = std::size_t{ip[0] & 0x0Fu} * 4;
  l.total = be16(&ip[2]);
  l.proto = ip[9];
  std::uint16_t frag = be16(&ip[6]);
  l.later_fragment = (frag & 0x1FFF) != 0;
  l.fragment = l.later_fragment || (frag & 0x2000);
  return l;
}

// Verdict of a transport checksum over the IPv4 packet, or why there is none.
std::string ipv4_transport_verdict(Bytes ip, const Ipv4Layout &l) {
  if (l.fragment) return "fragment";
  if (l.total < l.header || l.total > ip.size()) return "truncated";
  std::size_t transport = l.total - l.header;
  const std::uint8_t *p = ip.data();
  switch (l.proto) {
    case kProtoTcp:
      if (transport < 20) return "truncated";
      return tcp_checksum_ok(p) ? "ok" : "bad";
    case kProtoUdp: {
      if (transport < 8) return "truncated";
      std::size_t udp_length = be16(&ip[l.header + 4]);
      if (udp_length < 8 || udp_length > ip.size() - l.header) return "truncated";
      // Over IPv4 a zero checksum field means the sender computed none.
      if (be16(&ip[l.header + 6]) == 0) return "none";
      return udp_checksum_ok(p) ? "ok" : "bad";
    }
    case kProtoIcmp:
      if (transport < 4) return "truncated";
      return icmp_checksum_ok(p) ? "ok" : "bad";
    default:
      return {};
  }
}

const char *transport_name(std::uint8_t proto) {
  switch (proto) {
    case kProtoTcp: return "tcp";
    case kProtoUdp: return "udp";
    case kProtoIcmp: return "icmp";
    case kProtoIcmpv6: return "icmpv6";
    default: return nullptr;
  }
}

void describe_ipv4(Bytes ip, FrameReport &r) {
  if (ip.size() < kIpv4MinHeader) {
    r.problem = truncated("IPv4 header", kIpv4MinHeader, ip.size());
    return;
  }
  Ipv4Layout l = ipv4_layout(ip);
  if (l.header < kIpv4MinHeader) {
    r.problem = fmt::format("bad IPv4 header length {}", l.header);
    return;
  }
  std::size_t need = l.header + (l.later_fragment ? 0 : upper_bytes_described(l.proto));
  if (ip.size() < need) {
    r.problem = truncated("IPv4 packet description", need, ip.size());
    return;
  }
  r.description = iph2str(ip.data());
  r.checksums.emplace_back("ip", ip_checksum_ok(ip.data()) ? "ok" : "bad");
  if (const char *name = transport_name(l.proto); name && l.proto != kProtoIcmpv6)
    r.checksums.emplace_back(name, ipv4_transport_verdict(ip, l));
}

// --- IPv6 -------------------------------------------------------------------

bool is_walked_extension(std::uint8_t next) {
  switch (next) {
    case 0: case 43: case 44: case 51: case 60: return true;
    default: return false;
  }
}

// Where the upper-layer header of a complete IPv6 packet starts, walking the
// extension headers; 0 when the chain does not end in a well-formed
// upper-layer header inside the payload.
struct Ipv6Upper {
  std::size_t offset = 0;
  std::uint8_t proto = 0;
  bool fragment = false;
  std::size_t final_destination = 0;  // offset of a routing header's last address, 0 if none
};

constexpr std::uint8_t kRoutingHeader = 43;

// Offset of the final destination in a routing header that still has
// segments left (types 0 and 2 list addresses after 8 bytes), else 0.
std::size_t final_destination_offset(Bytes packet, std::size_t at, std::size_t len) {
  std::uint8_t type = packet[at + 2];
  std::uint8_t segments_left = packet[at + 3];
  std::size_t addresses = (len - 8) / 16;
  if (segments_left == 0 || (type != 0 && type != 2) || addresses == 0) return 0;
  return at + 8 + (addresses - 1) * 16;
}

Ipv6Upper ipv6_upper(Bytes packet) {
  Ipv6Upper u;
  std::uint8_t next = packet[6];
  std::size_t at = kIpv6Header;
  while (is_walked_extension(next)) {
    if (packet.size() - at < 8) return {};
    std::size_t len = next == 51 ? (std::size_t{packet[at + 1]} + 2) * 4 : (std::size_t{packet[at + 1]} + 1) * 8;
    if (next == 44 && (be16(&packet[at + 2]) & 0xFFF9) != 0) u.fragment = true;
    if (len > packet.size() - at) return {};
    if (next == kRoutingHeader) u.final_destination = final_destination_offset(packet, at, len);
    next = packet[at];
    at += len;
  }
  u.offset = at;
  u.proto = next;
  return u;
}

// Recomputes the upper-layer checksum on a copy and compares it with the packet's.
std::string ipv6_transport_verdict(Bytes packet, const Ipv6Upper &u) {
  if (u.offset == 0) return "truncated";
  if (u.fragment) return "fragment";
  std::size_t field;
  switch (u.proto) {
    case kProtoTcp: field = 16; break;
    case kProtoUdp: field = 6; break;
    case kProtoIcmpv6: field = 2; break;
    default: return {};
  }
  if (packet.size() - u.offset < field + 2) return "truncated";
  std::vector<std::uint8_t> copy(packet.begin(), packet.end());
  // The pseudo-header names the final destination; the library sums the
  // header's destination, so a routed packet gets its final one in the copy.
  if (u.final_destination) std::memcpy(&copy[24], &packet[u.final_destination], 16);
  switch (u.proto) {
    case kProtoTcp: set_tcpv6_checksum(copy.data()); break;
    case kProtoUdp: set_udpv6_checksum(copy.data()); break;
    default: set_icmpv6_checksum(copy.data()); break;
  }
  return std::memcmp(&copy[u.offset + field], &packet[u.offset + field], 2) == 0 ? "ok" : "bad";
}

// Adds the upper-layer checksum verdict of a complete IPv6 packet, named
// after its transport ("l4" when the chain does not say).
void add_ipv6_transport_verdict(Bytes ip, FrameReport &r) {
  std::size_t total = kIpv6Header + be16(&ip[4]);
  Ipv6Upper u;
  std::string verdict = "truncated";
  if (total <= ip.size()) {
    u = ipv6_upper(ip.first(total));
    verdict = ipv6_transport_verdict(ip.first(total), u);
  }
  if (verdict.empty()) return;
  const char *name = transport_name(u.proto);
  r.checksums.emplace_back(name ? name : "l4", verdict);
}

void describe_ipv6(Bytes ip, FrameReport &r) {
  if (ip.size() < kIpv6Header) {
    r.problem = truncated("IPv6 header", kIpv6Header, ip.size());
    return;
  }
  std::size_t need = kIpv6Header + upper_bytes_described(ip[6]);
  if (ip.size() < need) {
    r.problem = truncated("IPv6 packet description", need, ip.size());
    return;
  }
  r.description = ip6h2str(ip.data());
  add_ipv6_transport_verdict(ip, r);
}

}  // namespace

FrameReport describe_frame(const Frame &frame) {
  FrameReport r;
  r.number = frame.number;
  r.vlan_ids = frame.vlan_ids;
  r.pppoe = frame.pppoe;
  r.pppoe_session = frame.pppoe_session;
  if (!frame.link_complete) {
    r.problem = "truncated: link-layer header";
  } else if (frame.is_ipv4()) {
    describe_ipv4(frame.network(), r);
  } else if (frame.is_ipv6()) {
    describe_ipv6(frame.network(), r);
  } else if (frame.pppoe) {
    r.problem = fmt::format("not IP (PPP protocol 0x{:04x})", frame.ppp_protocol);
  } else {
    r.problem = fmt::format("not IP (ethertype 0x{:04x})", frame.ethertype);
  }
  return r;
}

std::string format_report(const FrameReport &r) {
  std::string line = fmt::format("{:>5}  {}", r.number, r.description.empty() ? r.problem : r.description);
  if (!r.vlan_ids.empty()) line += fmt::format("  vlan {}", fmt::join(r.vlan_ids, "/"));
  if (r.pppoe) line += fmt::format("  pppoe session 0x{:04x}", r.pppoe_session);
  for (const auto &[layer, verdict] : r.checksums) line += fmt::format("  {}:{}", layer, verdict);
  return line;
}

}  // namespace tool
