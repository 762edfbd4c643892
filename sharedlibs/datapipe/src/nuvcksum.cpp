// Internet checksums of IPv4, TCP, UDP, ICMP and the IPv6 upper layers:
// set, verify and update incrementally.
#include "dp_wire.h"
#include "nuvcksum.h"

#include "dp_bytes.h"
#include "nuvcksum_priv.h"

namespace {

// ---------------------------------------------------------------------------
// Common arithmetic

// Folds a 32-bit sum of 16-bit quantities: once with the carry word, then
// once more with the carry that may produce.
constexpr std::uint32_t fold32(std::uint32_t s) {
  s = (s >> 16) + (s & 0xffffu);
  return s + (s >> 16);
}

constexpr std::uint16_t complement16(std::uint32_t folded) { return static_cast<std::uint16_t>(~folded & 0xffffu); }

constexpr bool sums_to_all_ones(std::uint32_t s) { return (fold32(s) & 0xffffu) == 0xffffu; }

// ---------------------------------------------------------------------------
// IPv4

constexpr std::size_t kIp4ChecksumOffset = 10;
constexpr std::size_t kIp4ProtocolOffset = 9;
constexpr std::size_t kIp4AddressesOffset = 12;
constexpr std::size_t kUdpLengthOffset = 4;

std::size_t ip4_header_length(const std::uint8_t *ip) { return static_cast<std::size_t>(ip[0] & 0x0f) * 4; }

// Total length minus header length; a total below the header length counts
// as an empty payload rather than a negative one.
std::size_t ip4_payload_length(const std::uint8_t *ip) {
  const std::size_t total = dp::load_be16(ip + 2);
  const std::size_t header = ip4_header_length(ip);
  return total > header ? total - header : 0;
}

// How a transport checksum of an IPv4 packet is formed.
struct Ip4Transport {
  std::size_t checksum_offset;  // in the transport header
  bool pseudo_header;
  bool length_from_udp_header;  // else total length minus header length
  bool zero_sent_as_ffff;
};

constexpr Ip4Transport kTcp4{16, true, false, false};
constexpr Ip4Transport kUdp4{6, true, true, true};
constexpr Ip4Transport kIcmp4{2, false, false, false};

std::size_t transport_length(const std::uint8_t *ip, const Ip4Transport &t) {
  if (t.length_from_udp_header) return dp::load_be16(ip + ip4_header_length(ip) + kUdpLengthOffset);
  return ip4_payload_length(ip);
}

// Sum of the transport bytes and (where used) the pseudo-header: source and
// destination address, the IP header's protocol byte and the length.
std::uint32_t transport_sum(const std::uint8_t *ip, const Ip4Transport &t) {
  const std::size_t length = transport_length(ip, t);
  std::uint32_t sum = dp::be_sum16(ip + ip4_header_length(ip), length);
  if (t.pseudo_header) {
    sum += dp::be_sum16(ip + kIp4AddressesOffset, 8);
    sum += ip[kIp4ProtocolOffset];
    sum += static_cast<std::uint32_t>(length);
  }
  return sum;
}

void set_transport_checksum(std::uint8_t *ip, const Ip4Transport &t) {
  std::uint8_t *field = ip + ip4_header_length(ip) + t.checksum_offset;
  dp::store_be16(field, 0);
  std::uint16_t checksum = complement16(fold32(transport_sum(ip, t)));
  if (checksum == 0 && t.zero_sent_as_ffff) checksum = 0xffff;  // 0 would mean "no checksum"
  dp::store_be16(field, checksum);
}

int transport_checksum_ok(const std::uint8_t *ip, const Ip4Transport &t) {
  return sums_to_all_ones(transport_sum(ip, t)) ? 1 : 0;
}

// ---------------------------------------------------------------------------
// IPv6

constexpr std::size_t kIp6AddressesOffset = dp::wire::kIpv6SourceOffset;

// Next-header values walked as extension headers when looking for the
// upper layer: hop-by-hop, routing, fragment, authentication, no next
// header and destination options.
bool walked_as_extension(std::uint8_t next_header) {
  switch (next_header) {
    case dp::wire::kProtoHopByHop:
    case dp::wire::kProtoRouting:
    case dp::wire::kProtoFragment:
    case dp::wire::kProtoAuthentication:
    case dp::wire::kProtoNoNextHeader:
    case dp::wire::kProtoDestinationOptions:
      return true;
    default:
      return false;
  }
}

// Where the upper-layer header starts (relative to the IPv6 header) and how
// many bytes of the payload are left for it.
struct UpperLayer {
  std::int32_t offset;
  std::int32_t length;
};

// A chain that runs out of payload while still announcing extension headers
// is broken: no length is left, and the upper layer is taken to start one
// byte before the IPv6 header.  Writing the checksum then lands inside the
// IPv6 header instead of beyond the packet.
constexpr UpperLayer kBrokenChain{-1, 0};

UpperLayer find_upper_layer(const std::uint8_t *ip6) {
  std::uint8_t next = ip6[dp::wire::kIpv6NextHeaderOffset];
  UpperLayer at{dp::wire::kIpv6HeaderLength, dp::load_be16(ip6 + dp::wire::kIpv6PayloadLengthOffset)};
  while (walked_as_extension(next)) {
    if (at.length < 2) return kBrokenChain;
    const std::uint8_t *ext = ip6 + at.offset;
    const std::int32_t len = dp::wire::ip6_extension_length(next, ext);
    at.length -= len;
    at.offset += len;
    next = ext[0];
  }
  return at;
}

// Pseudo-header: both addresses, the upper-layer length as a 32-bit value,
// three zero bytes and the protocol.
std::uint32_t ip6_pseudo_header_sum(const std::uint8_t *ip6, std::uint32_t length, std::uint8_t protocol) {
  return dp::be_sum16(ip6 + kIp6AddressesOffset, 32) + (length >> 16) + (length & 0xffffu) + protocol;
}

void set_ip6_upper_checksum(std::uint8_t *ip6, std::uint8_t protocol, std::int32_t checksum_offset) {
  const UpperLayer upper = find_upper_layer(ip6);
  std::uint8_t *field = ip6 + (upper.offset + checksum_offset);
  dp::store_be16(field, 0);
  const std::size_t data_length = upper.length > 0 ? static_cast<std::size_t>(upper.length) : 0;
  std::uint32_t sum = ip6_pseudo_header_sum(ip6, static_cast<std::uint32_t>(upper.length), protocol);
  if (data_length) sum += dp::be_sum16(ip6 + upper.offset, data_length);
  dp::store_be16(field, complement16(fold32(sum)));
}

// ---------------------------------------------------------------------------
// Incremental update

// Ones'-complement addition of two 16-bit words: the carry out of the top
// bit comes back in at the bottom.
constexpr std::uint32_t ones_add16(std::uint32_t a, std::uint32_t b) {
  const std::uint32_t s = a + b;
  return (s & 0xffffu) + (s >> 16);
}

// Reduces an exact sum of 16-bit words to one ones'-complement word.
constexpr std::uint32_t reduce16(std::uint32_t s) {
  s = (s & 0xffffu) + (s >> 16);
  return (s & 0xffffu) + (s >> 16);
}

// The common tail of the three updates, all in ones'-complement 16-bit
// words: the complemented checksum is the sum of the covered data; the old
// words leave it by adding their complement, the new words enter it, and
// the complement of the result is the checksum of the changed data.  Every
// step stays within one word, so the result is the one a full
// recomputation gives, whatever the values (RFC 1624, equation 3).
std::uint16_t replace_in_checksum(std::uint16_t old_checksum, std::uint32_t old_sum, std::uint32_t new_sum) {
  std::uint32_t s = ~static_cast<std::uint32_t>(dp::net_to_host16(old_checksum)) & 0xffffu;
  s = ones_add16(s, ~reduce16(old_sum) & 0xffffu);
  s = ones_add16(s, reduce16(new_sum));
  return dp::host_to_net16(complement16(s));
}

// The two 16-bit words of a 32-bit value, summed.
constexpr std::uint32_t word_sum32(std::uint32_t v) { return (v >> 16) + (v & 0xffffu); }

// Exact 32-bit sum of big-endian words (not folded): the update arithmetic
// takes the run sums as they are.
std::uint32_t run_sum(const std::uint8_t *p, std::size_t len) {
  std::uint32_t s = 0;
  std::size_t i = 0;
  for (; i + 1 < len; i += 2) s += dp::load_be16(p + i);
  if (i < len) s += static_cast<std::uint32_t>(p[i]) << 8;
  return s;
}

// A run that begins in the second byte of a word: its first byte is a
// low-order byte, the rest is word-aligned again.
std::uint32_t run_sum_from_odd_start(const std::uint8_t *p, std::size_t len) {
  if (len == 0) return 0;
  return p[0] + run_sum(p + 1, len - 1);
}

}  // namespace

extern "C" {

void set_ip_checksum(void *iph) {
  auto *ip = static_cast<std::uint8_t *>(iph);
  dp::store_be16(ip + kIp4ChecksumOffset, 0);
  dp::store_be16(ip + kIp4ChecksumOffset, complement16(dp::be_sum16(ip, ip4_header_length(ip))));
}

int ip_checksum_ok(const void *iph) {
  const auto *ip = static_cast<const std::uint8_t *>(iph);
  return sums_to_all_ones(dp::be_sum16(ip, ip4_header_length(ip))) ? 1 : 0;
}

void set_tcp_checksum(void *iph) { set_transport_checksum(static_cast<std::uint8_t *>(iph), kTcp4); }
int tcp_checksum_ok(const void *iph) { return transport_checksum_ok(static_cast<const std::uint8_t *>(iph), kTcp4); }
void set_udp_checksum(void *iph) { set_transport_checksum(static_cast<std::uint8_t *>(iph), kUdp4); }
int udp_checksum_ok(const void *iph) { return transport_checksum_ok(static_cast<const std::uint8_t *>(iph), kUdp4); }
void set_icmp_checksum(void *iph) { set_transport_checksum(static_cast<std::uint8_t *>(iph), kIcmp4); }
int icmp_checksum_ok(const void *iph) { return transport_checksum_ok(static_cast<const std::uint8_t *>(iph), kIcmp4); }

void set_tcpv6_checksum(void *ip6h) {
  set_ip6_upper_checksum(static_cast<std::uint8_t *>(ip6h), dp::wire::kProtoTcp, 16);
}
void set_udpv6_checksum(void *ip6h) {
  set_ip6_upper_checksum(static_cast<std::uint8_t *>(ip6h), dp::wire::kProtoUdp, 6);
}
void set_icmpv6_checksum(void *ip6h) {
  set_ip6_upper_checksum(static_cast<std::uint8_t *>(ip6h), dp::wire::kProtoIcmpv6, 2);
}

uint16_t update_checksum_u16(uint16_t old_checksum, uint16_t old_value, uint16_t new_value) {
  return replace_in_checksum(old_checksum, dp::net_to_host16(old_value), dp::net_to_host16(new_value));
}

uint16_t update_checksum_u32(uint16_t old_checksum, uint32_t old_value, uint32_t new_value) {
  return replace_in_checksum(old_checksum, word_sum32(dp::net_to_host32(old_value)),
                             word_sum32(dp::net_to_host32(new_value)));
}

uint16_t update_checksum(uint16_t old_checksum, int odd_start, const void *old_bytes, uint16_t old_len,
                         const void *new_bytes, uint16_t new_len) {
  const auto *o = static_cast<const std::uint8_t *>(old_bytes);
  const auto *n = static_cast<const std::uint8_t *>(new_bytes);
  if (odd_start) return replace_in_checksum(old_checksum, run_sum_from_odd_start(o, old_len), run_sum_from_odd_start(n, new_len));
  return replace_in_checksum(old_checksum, run_sum(o, old_len), run_sum(n, new_len));
}

}  // extern "C"
