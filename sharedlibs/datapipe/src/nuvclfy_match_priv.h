/* The classifier's packet record and its one test sequence (private).
 *
 * A packet's fields are read once into a PacketFacts record; every rule of
 * a set is then tested against that record.  The same sequence of condition
 * tests serves the plain matcher and the explanation of a miss: the sequence
 * reports the condition that failed to a policy object, which the plain
 * matcher discards and the explanation keeps. */
#ifndef NUVCLFY_MATCH_PRIV_H
#define NUVCLFY_MATCH_PRIV_H

#include <cstddef>
#include <cstdint>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"

namespace dp::clfy {

// What a packet offers the conditions, read once per call and only as far
// as the rules tried need it: the network layer when the first rule with an
// IP condition is tried, the transport words when the first port or flag
// condition is.
struct PacketFacts {
  const nuv_clfy_packet *desc;
  const std::uint8_t *ip;   // the IP header when family is 4 or 6
  std::uint32_t available;  // bytes readable from ip on
  std::uint32_t transport;  // offset of the transport header from ip
  std::uint8_t read;        // kRead* bits: which parts below are filled in
  std::uint8_t family;      // 4 or 6; 0 when no IP condition can hold
  std::uint8_t proto;       // IPv4 protocol; IPv6 next header behind one hop-by-hop header
  std::uint16_t proto_key;  // proto, or kProtoUnreadable behind an IPv6 hop-by-hop header with
                            // nothing readable after the fixed header: one compare tests both
  std::uint8_t readable;    // kHas* bits: which transport words lie inside the packet
  std::uint16_t sport, dport;
  std::uint16_t tcp_word;   // 16-bit word at offset 12 of the transport header
};

inline constexpr std::uint16_t kProtoUnreadable = 0x100;  // equals no protocol number

inline constexpr std::uint8_t kReadNetwork = 1;
inline constexpr std::uint8_t kReadTransport = 2;

inline constexpr std::uint8_t kHasSport = 1;
inline constexpr std::uint8_t kHasDport = 2;
inline constexpr std::uint8_t kHasTcpWord = 4;

// Starts the record of `packet`: nothing of the packet is read yet.
inline void read_packet(const nuv_clfy_packet &packet, PacketFacts &facts) {
  facts.desc = &packet;
  facts.read = 0;
}

// ---- Reading the packet (in line: every search starts with it) ----

// The ports of a packet with a hop-by-hop header are read behind it,
// taking it to be of the smallest size.
inline constexpr std::uint32_t kHopByHopLength = 8;

// Bytes readable from the transport header on (0 when it starts beyond the
// packet).
inline std::uint32_t transport_room(PacketFacts &f) {
  return f.transport <= f.available ? f.available - f.transport : 0;
}

// The transport words that lie inside the packet.
inline void read_transport_here(PacketFacts &f) {
  f.read |= kReadTransport;
  f.readable = 0;
  // A port the packet lacks reads as 0, so that every word has a value.
  f.sport = f.dport = 0;
  const std::uint32_t room = transport_room(f);
  const std::uint8_t *t = f.ip + f.transport;
  if (room >= 2) {
    f.readable |= kHasSport;
    f.sport = dp::load_be16(t);
  }
  if (room >= 4) {
    f.readable |= kHasDport;
    f.dport = dp::load_be16(t + 2);
  }
  if (room >= 14) {
    f.readable |= kHasTcpWord;
    f.tcp_word = dp::load_be16(t + 12);
  }
}

// The network layer, read when the first rule with an IP condition is
// tried: the version to follow and where the transport header starts.
inline void read_network_here(PacketFacts &f) {
  using namespace dp::wire;
  const nuv_clfy_packet &packet = *f.desc;
  const std::uint8_t *ip = packet.ip_header;
  f.read |= kReadNetwork;
  f.family = 0;
  f.ip = ip;
  f.available = packet.ip_len;
  if (!ip) return;
  if (packet.eth_proto == net_to_host16(kEtherTypeIpv4)) {
    if (f.available < kIpv4HeaderLength) return;
    f.family = kFamilyIpv4;
    f.proto = ip[9];
    f.proto_key = f.proto;
    f.transport = (ip[0] & 0x0fu) * 4u;
  } else if (packet.eth_proto == net_to_host16(kEtherTypeIpv6)) {
    if (f.available < kIpv6HeaderLength) return;
    const bool hop_by_hop = ip[kIpv6NextHeaderOffset] == kProtoHopByHop;
    const bool behind = f.available > kIpv6HeaderLength;
    f.family = kFamilyIpv6;
    f.proto = hop_by_hop ? (behind ? ip[kIpv6HeaderLength] : 0) : ip[kIpv6NextHeaderOffset];
    f.proto_key = hop_by_hop && !behind ? kProtoUnreadable : f.proto;
    f.transport = kIpv6HeaderLength + (hop_by_hop ? kHopByHopLength : 0);
  }
}

// The conditions as the sequence names them, in the order it tests them.
enum class Cond : std::uint8_t {
  kNone,
  kDev,
  kBrdev,
  kLocalmark,
  kEthProto,
  kEthSource,
  kEthSourceOui,
  kEthSrcTab,
  kEthDest,
  kEthDestOui,
  kVlanId,
  kVlanPrio,
  kNothingTestable,  // only bits that name no condition
  kIp,               // the packet offers no IP layer to the IP conditions
  kIpVersion,
  kIpProto,
  kIpTos,
  kIpLen,
  kIpSaddr,
  kIpDaddr,
  kIpDstTab,
  kSports,
  kDports,
  kDhcp,
  kTcpFlags,
  kPacketMatch,
  kIcmpType,
};

// Why the packet failed a condition, beyond its value.
enum class Why : std::uint8_t {
  kValue,         // `value` (or `bytes`) is what the packet has
  kUnresolved,    // the rule's interface index was never resolved
  kNoMap,         // the rule has no class map
  kNoEthernet,    // no Ethernet header
  kUntagged,      // no VLAN tag
  kNoIpHeader,    // no IP header
  kNotIp,         // Ethernet type `value` is neither IPv4 nor IPv6
  kShort,         // the packet ends before the bytes the condition reads
  kIpTooShort,    // the packet is shorter than its fixed IP header
  kFamily,        // the packet is of IP version `value`, the rule's address is not
  kNotInTable,    // the address is not in the rule's table
  kRuleNotTcp,    // tcp.flags on a rule whose protocol is not TCP
  kNoPayloadMatch,
  kNotIcmpv6,     // the upper-layer header `value` is not ICMPv6 (or the walk failed)
  kDhcpUnreadable,
  kDhcpType,      // message type `value` neither matches nor is learned
  kDhcpRelease,   // a release: the client is forgotten (when learning), never matched
  kDhcpNoMatch,
  kNoCondition,   // no DHCP condition record
};

// The first failed condition of a miss.
struct Finding {
  Cond cond = Cond::kNone;
  Why why = Why::kValue;
  std::uint32_t value = 0;
  const std::uint8_t *bytes = nullptr;  // an address or MAC of the packet
};

// The same verdict without counting or learning; a miss fills `finding`.
bool rule_explained(const nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark, Finding &finding);

// The first rule of the list `rule` (and its siblings) that applies to the
// packet, searching sub-rules of matching rules (a rule with sub-rules is
// never the result itself); null when none applies.
nuv_clfy *first_applying(nuv_clfy *rule, PacketFacts &facts);

// Whether `rule` applies to the packet, decided by the one test sequence
// (counting the hit and learning DHCP clients as nuv_clfy_matches does).
bool rule_applies(nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark);

}  // namespace dp::clfy

#endif
