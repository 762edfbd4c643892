/* Numbers of the protocols the data path reads and writes: IP protocol
 * numbers, Ethernet types, address families, header lengths and field
 * offsets (private). */
#ifndef DP_WIRE_H
#define DP_WIRE_H

#include <cstdint>

namespace dp::wire {

// ---- IP protocol numbers (IPv6 next-header values are the same numbers) ----

inline constexpr std::uint8_t kProtoHopByHop = 0;
inline constexpr std::uint8_t kProtoIcmp = 1;
inline constexpr std::uint8_t kProtoIgmp = 2;
inline constexpr std::uint8_t kProtoTcp = 6;
inline constexpr std::uint8_t kProtoUdp = 17;
inline constexpr std::uint8_t kProtoDccp = 33;
inline constexpr std::uint8_t kProtoRouting = 43;
inline constexpr std::uint8_t kProtoFragment = 44;
inline constexpr std::uint8_t kProtoEsp = 50;
inline constexpr std::uint8_t kProtoAuthentication = 51;
inline constexpr std::uint8_t kProtoIcmpv6 = 58;
inline constexpr std::uint8_t kProtoNoNextHeader = 59;
inline constexpr std::uint8_t kProtoDestinationOptions = 60;
inline constexpr std::uint8_t kProtoIpComp = 108;
inline constexpr std::uint8_t kProtoSctp = 132;
inline constexpr std::uint8_t kProtoUdpLite = 136;

// ---- Ethernet ----

// Ethernet types, host order.
inline constexpr std::uint16_t kEtherTypeIpv4 = 0x0800;
inline constexpr std::uint16_t kEtherTypeIpv6 = 0x86dd;

// Bytes of an Ethernet (MAC) address, and of its OUI part.
inline constexpr std::uint32_t kEthernetAddressLength = 6;
inline constexpr std::uint32_t kOuiLength = 3;
// The source address follows the destination address in the header.
inline constexpr std::uint32_t kEthernetSourceOffset = kEthernetAddressLength;

// ---- IP ----

// Address families, written as the IP version number.
inline constexpr std::uint8_t kFamilyIpv4 = 4;
inline constexpr std::uint8_t kFamilyIpv6 = 6;

// IPv4 header without options.
inline constexpr std::uint32_t kIpv4HeaderLength = 20;

// The fixed IPv6 header and the places of its fields.
inline constexpr std::uint32_t kIpv6HeaderLength = 40;
inline constexpr std::uint32_t kIpv6PayloadLengthOffset = 4;
inline constexpr std::uint32_t kIpv6NextHeaderOffset = 6;
inline constexpr std::uint32_t kIpv6SourceOffset = 8;
inline constexpr std::uint32_t kIpv6DestinationOffset = 24;

// Size in bytes of the IPv6 extension header at `ext` whose type is
// `next_header`: the authentication header counts its length in 4-byte units
// minus two, all others in 8-byte units minus one.  Reads ext[1].
constexpr int ip6_extension_length(std::uint8_t next_header, const std::uint8_t *ext) {
  if (next_header == kProtoAuthentication) return (ext[1] + 2) * 4;
  return (ext[1] + 1) * 8;
}

// ---- Transport ----

inline constexpr std::uint32_t kUdpHeaderLength = 8;

}  // namespace dp::wire

#endif
