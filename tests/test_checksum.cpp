// Internet checksums: worked examples, the corner cases of each protocol, and
// property tests against a plain 16-bit word reference written here.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "nuvcksum.h"
#include "nuvcksum_priv.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using testsupport::hex_bytes;

// ---- plain reference -------------------------------------------------------

// Big-endian 16-bit words added one by one; an odd last byte is a high byte.
std::uint32_t ref_sum(const std::uint8_t *p, std::size_t n, std::uint32_t s = 0) {
  for (std::size_t i = 0; i + 1 < n; i += 2) s += static_cast<std::uint32_t>(p[i] << 8 | p[i + 1]);
  if (n % 2) s += static_cast<std::uint32_t>(p[n - 1]) << 8;
  return s;
}

std::uint32_t ref_fold(std::uint32_t s) {
  while (s >> 16) s = (s & 0xffff) + (s >> 16);
  return s;
}

std::uint16_t ref_checksum(std::uint32_t s) { return static_cast<std::uint16_t>(~ref_fold(s) & 0xffff); }

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
void put16(std::uint8_t *p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}

std::size_t ihl(const Bytes &ip) { return static_cast<std::size_t>(ip[0] & 0x0f) * 4; }

// Reference IPv4 transport sum over `len` bytes after the header, with
// pseudo-header when asked.
std::uint32_t ref_ip4_transport_sum(const Bytes &ip, std::size_t len, bool pseudo) {
  std::uint32_t s = ref_sum(ip.data() + ihl(ip), len);
  if (pseudo) s = ref_sum(ip.data() + 12, 8, s) + ip[9] + static_cast<std::uint32_t>(len);
  return s;
}

// ---- packet builders -------------------------------------------------------

std::mt19937 &rng() {
  static std::mt19937 r(20240611u);
  return r;
}

std::uint8_t random_byte() { return static_cast<std::uint8_t>(rng()() & 0xff); }

void fill_random(std::uint8_t *p, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) p[i] = random_byte();
}

// An IPv4 packet of exactly header + payload bytes with random contents.
Bytes make_ipv4(std::uint8_t protocol, std::size_t header_words, std::size_t payload) {
  Bytes ip(header_words * 4 + payload);
  fill_random(ip.data(), ip.size());
  ip[0] = static_cast<std::uint8_t>(0x40 | header_words);
  put16(ip.data() + 2, static_cast<std::uint16_t>(ip.size()));
  ip[9] = protocol;
  if (protocol == 17 && payload >= 8) put16(ip.data() + ihl(ip) + 4, static_cast<std::uint16_t>(payload));
  return ip;
}

// An IPv6 packet: 40-byte header, the given extension headers (next header,
// length byte and the size the length byte implies, filled at random), then
// an upper-layer part of `upper` random bytes.
struct Ext {
  std::uint8_t type;
  std::uint8_t length_byte;
};
std::size_t ext_size(const Ext &e) { return e.type == 51 ? (e.length_byte + 2u) * 4u : (e.length_byte + 1u) * 8u; }

Bytes make_ipv6(const std::vector<Ext> &exts, std::uint8_t upper_protocol, std::size_t upper) {
  std::size_t total = 40 + upper;
  for (const Ext &e : exts) total += ext_size(e);
  Bytes ip(total);
  fill_random(ip.data(), ip.size());
  ip[0] = 0x60;
  put16(ip.data() + 4, static_cast<std::uint16_t>(total - 40));
  std::size_t at = 40;
  std::uint8_t *next_field = &ip[6];
  for (const Ext &e : exts) {
    *next_field = e.type;
    next_field = &ip[at];
    ip[at + 1] = e.length_byte;
    at += ext_size(e);
  }
  *next_field = upper_protocol;
  return ip;
}

std::uint16_t ref_ip6_checksum(const Bytes &ip, std::size_t upper_offset, std::uint8_t protocol) {
  const std::size_t len = ip.size() - upper_offset;
  std::uint32_t s = ref_sum(ip.data() + 8, 32);
  s += static_cast<std::uint32_t>(len >> 16) + static_cast<std::uint32_t>(len & 0xffff) + protocol;
  s = ref_sum(ip.data() + upper_offset, len, s);
  return ref_checksum(s);
}

}  // namespace

// ---- worked examples -------------------------------------------------------

// The numerical example of RFC 1071: 00 01 f2 03 f4 f5 f6 f7 sums to 2ddf0,
// folded ddf2, checksum 220d.
TEST(ChecksumCore, Rfc1071ExampleSum) {
  const Bytes data = hex_bytes("00 01 f2 03 f4 f5 f6 f7");
  EXPECT_EQ(dp::be_sum16(data.data(), data.size()), 0xddf2u);
}

// Summed with bytes swapped the same example gives f2dd (RFC 1071, byte order independence).
TEST(ChecksumCore, Rfc1071SwappedExampleSum) {
  const Bytes data = hex_bytes("01 00 03 f2 f5 f4 f7 f6");
  EXPECT_EQ(dp::be_sum16(data.data(), data.size()), 0xf2ddu);
}

TEST(ChecksumCore, Rfc1071ExampleThroughRunUpdate) {
  // Starting from a checksum of all ones (empty data) and adding the run.
  const Bytes data = hex_bytes("00 01 f2 03 f4 f5 f6 f7");
  EXPECT_EQ(ntohs(update_checksum(htons(0xffff), 0, nullptr, 0, data.data(), static_cast<std::uint16_t>(data.size()))),
            0x220d);
}

TEST(ChecksumCore, ZeroBytesSumToZero) {
  const Bytes zeros(37, 0);
  EXPECT_EQ(dp::be_sum16(zeros.data(), zeros.size()), 0u);
  EXPECT_EQ(dp::be_sum16(zeros.data(), 0), 0u);
}

TEST(ChecksumCore, MultipleOfFfffFoldsToFfff) {
  const Bytes data = hex_bytes("ff ff 00 00 ff ff");
  EXPECT_EQ(dp::be_sum16(data.data(), data.size()), 0xffffu);
  const Bytes two = hex_bytes("80 00 7f ff");
  EXPECT_EQ(dp::be_sum16(two.data(), two.size()), 0xffffu);
}

TEST(ChecksumCore, OddLastByteIsAHighByte) {
  const Bytes data = hex_bytes("12 34 56");
  EXPECT_EQ(dp::be_sum16(data.data(), data.size()), 0x1234u + 0x5600u);
}

// RFC 1624, section 4: other header words sum to cd7a, m = 5555 changes to
// m' = 3285; HC = dd2f and the recomputed HC' is 0000.
TEST(ChecksumUpdate, Rfc1624ExampleU16) {
  EXPECT_EQ(ntohs(update_checksum_u16(htons(0xdd2f), htons(0x5555), htons(0x3285))), 0x0000);
}

TEST(ChecksumUpdate, Rfc1624ExampleU32) {
  EXPECT_EQ(ntohs(update_checksum_u32(htons(0xdd2f), htonl(0x00005555), htonl(0x00003285))), 0x0000);
}

TEST(ChecksumUpdate, Rfc1624ExampleRun) {
  const Bytes m = hex_bytes("55 55");
  const Bytes m2 = hex_bytes("32 85");
  EXPECT_EQ(ntohs(update_checksum(htons(0xdd2f), 0, m.data(), 2, m2.data(), 2)), 0x0000);
}

// The IPv4 header found in many textbooks: 4500 0073 0000 4000 4011 [b861]
// c0a8 0001 c0a8 00c7.
TEST(IpChecksum, TextbookHeader) {
  Bytes ip = hex_bytes("45 00 00 73 00 00 40 00 40 11 00 00 c0 a8 00 01 c0 a8 00 c7");
  set_ip_checksum(ip.data());
  EXPECT_EQ(be16(&ip[10]), 0xb861);
  EXPECT_EQ(ip_checksum_ok(ip.data()), 1);
}

TEST(IpChecksum, SetIgnoresOldFieldValue) {
  Bytes ip = hex_bytes("45 00 00 73 00 00 40 00 40 11 12 34 c0 a8 00 01 c0 a8 00 c7");
  set_ip_checksum(ip.data());
  EXPECT_EQ(be16(&ip[10]), 0xb861);
}

TEST(IpChecksum, CorruptedHeaderFails) {
  Bytes ip = hex_bytes("45 00 00 73 00 00 40 00 40 11 b8 61 c0 a8 00 01 c0 a8 00 c8");
  EXPECT_EQ(ip_checksum_ok(ip.data()), 0);
}

TEST(IpChecksum, HeaderLengthWithOptionsIsSummed) {
  Bytes ip = make_ipv4(6, 15, 0);  // 60-byte header
  set_ip_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[10]);
  ip[10] = ip[11] = 0;
  EXPECT_EQ(stored, ref_checksum(ref_sum(ip.data(), 60)));
}

// ---- IPv4 transport checksums: corner cases ---------------------------------

TEST(UdpChecksum, ComputedZeroIsStoredAsFfff) {
  Bytes ip = make_ipv4(17, 5, 12);
  std::uint8_t *udp = ip.data() + 20;
  put16(udp + 6, 0);
  put16(udp + 8, 0);
  // Make the data word the complement of everything else: the sum is ffff.
  put16(udp + 8, static_cast<std::uint16_t>(~ref_fold(ref_ip4_transport_sum(ip, 12, true))));
  ASSERT_EQ(ref_fold(ref_ip4_transport_sum(ip, 12, true)), 0xffffu);
  set_udp_checksum(ip.data());
  EXPECT_EQ(be16(udp + 6), 0xffff);
  EXPECT_EQ(udp_checksum_ok(ip.data()), 1);
}

TEST(UdpChecksum, ZeroFieldFailsVerification) {
  Bytes ip = make_ipv4(17, 5, 20);
  std::uint8_t *udp = ip.data() + 20;
  put16(udp + 6, 0);
  if (ref_fold(ref_ip4_transport_sum(ip, 20, true)) == 0xffff) udp[10] ^= 1;
  EXPECT_EQ(udp_checksum_ok(ip.data()), 0);
}

TEST(UdpChecksum, ZeroFieldPassesWhenDataSumsToFfff) {
  Bytes ip = make_ipv4(17, 5, 12);
  std::uint8_t *udp = ip.data() + 20;
  put16(udp + 6, 0);
  put16(udp + 8, 0);
  put16(udp + 8, static_cast<std::uint16_t>(~ref_fold(ref_ip4_transport_sum(ip, 12, true))));
  EXPECT_EQ(udp_checksum_ok(ip.data()), 1);
}

TEST(UdpChecksum, PaddingBeyondUdpLengthIsLeftOut) {
  Bytes ip = make_ipv4(17, 5, 30);
  std::uint8_t *udp = ip.data() + 20;
  put16(udp + 4, 21);  // 9 bytes of padding after the datagram
  set_udp_checksum(ip.data());
  const std::uint16_t with_padding = be16(udp + 6);
  put16(udp + 6, 0);
  EXPECT_EQ(with_padding, ref_checksum(ref_ip4_transport_sum(ip, 21, true)));
  put16(udp + 6, with_padding);
  ip[20 + 25] ^= 0x5a;  // inside the padding
  EXPECT_EQ(udp_checksum_ok(ip.data()), 1);
  ip[20 + 20] ^= 0x5a;  // the last datagram byte
  EXPECT_EQ(udp_checksum_ok(ip.data()), 0);
}

TEST(UdpChecksum, OddLengthLastByteIsHighByte) {
  Bytes ip = make_ipv4(17, 5, 9);
  std::uint8_t *udp = ip.data() + 20;
  udp[8] = 0x01;
  set_udp_checksum(ip.data());
  const std::uint16_t stored = be16(udp + 6);
  put16(udp + 6, 0);
  std::uint32_t s = ref_sum(udp, 8) + 0x0100 + ref_sum(ip.data() + 12, 8) + 17 + 9;
  EXPECT_EQ(stored, ref_checksum(s) == 0 ? 0xffff : ref_checksum(s));
}

TEST(UdpChecksum, PseudoHeaderUsesTheHeaderProtocolByte) {
  Bytes ip = make_ipv4(17, 5, 16);
  ip[9] = 99;  // not UDP, yet the sum takes this byte
  set_udp_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[26]);
  put16(&ip[26], 0);
  const std::uint16_t expected = ref_checksum(ref_ip4_transport_sum(ip, 16, true));
  EXPECT_EQ(stored, expected == 0 ? 0xffff : expected);
}

TEST(TcpChecksum, UsesIpTotalLength) {
  Bytes ip = make_ipv4(6, 5, 40);
  set_tcp_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[36]);
  put16(&ip[36], 0);
  EXPECT_EQ(stored, ref_checksum(ref_ip4_transport_sum(ip, 40, true)));
  put16(&ip[36], stored);
  EXPECT_EQ(tcp_checksum_ok(ip.data()), 1);
}

TEST(TcpChecksum, OddSegmentLength) {
  Bytes ip = make_ipv4(6, 6, 21);
  set_tcp_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[24 + 16]);
  put16(&ip[24 + 16], 0);
  EXPECT_EQ(stored, ref_checksum(ref_ip4_transport_sum(ip, 21, true)));
}

TEST(TcpChecksum, FlippedBitFails) {
  Bytes ip = make_ipv4(6, 5, 33);
  set_tcp_checksum(ip.data());
  ip[50] ^= 0x10;
  EXPECT_EQ(tcp_checksum_ok(ip.data()), 0);
}

TEST(TcpChecksum, PseudoHeaderAddressChangeFails) {
  Bytes ip = make_ipv4(6, 5, 20);
  set_tcp_checksum(ip.data());
  ip[15] ^= 1;
  EXPECT_EQ(tcp_checksum_ok(ip.data()), 0);
}

TEST(IcmpChecksum, NoPseudoHeader) {
  Bytes ip = make_ipv4(1, 5, 64);
  set_icmp_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[22]);
  put16(&ip[22], 0);
  EXPECT_EQ(stored, ref_checksum(ref_sum(ip.data() + 20, 64)));
  put16(&ip[22], stored);
  EXPECT_EQ(icmp_checksum_ok(ip.data()), 1);
  ip[12] ^= 0xff;  // addresses are not part of the ICMP sum
  EXPECT_EQ(icmp_checksum_ok(ip.data()), 1);
}

TEST(IcmpChecksum, OddLength) {
  Bytes ip = make_ipv4(1, 5, 9);
  set_icmp_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[22]);
  put16(&ip[22], 0);
  EXPECT_EQ(stored, ref_checksum(ref_sum(ip.data() + 20, 9)));
}

TEST(IcmpChecksum, EchoRequestKnownValue) {
  // ICMP echo request, id 1, seq 1, data "abcd", worked out by hand:
  // 0800 + 0001 + 0001 + 6162 + 6364 = ccc8, complement 3337.
  Bytes ip = hex_bytes(
      "45 00 00 20 00 00 00 00 40 01 00 00 0a 00 00 01 0a 00 00 02"
      "08 00 00 00 00 01 00 01 61 62 63 64");
  set_icmp_checksum(ip.data());
  EXPECT_EQ(be16(&ip[22]), 0x3337);
}

TEST(TcpChecksum, TotalLengthBelowHeaderLengthIsAnEmptySegment) {
  Bytes ip = make_ipv4(6, 10, 18);  // 40-byte header; the buffer holds the TCP checksum field
  put16(&ip[2], 20);
  set_tcp_checksum(ip.data());
  EXPECT_EQ(be16(&ip[56]), ref_checksum(ref_sum(ip.data() + 12, 8) + 6 + 0));
}

// ---- IPv6 upper-layer checksums ---------------------------------------------

TEST(Ip6Checksum, UdpWithoutExtensionHeaders) {
  Bytes ip = make_ipv6({}, 17, 27);
  set_udpv6_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[46]);
  put16(&ip[46], 0);
  EXPECT_EQ(stored, ref_ip6_checksum(ip, 40, 17));
}

TEST(Ip6Checksum, UdpComputedZeroIsStoredAsZero) {
  Bytes ip = make_ipv6({}, 17, 12);
  put16(&ip[46], 0);
  put16(&ip[48], 0);
  // Choose the data word so that everything sums to ffff.
  const std::uint16_t rest = ref_ip6_checksum(ip, 40, 17);  // complement of the sum so far
  put16(&ip[48], rest);
  ASSERT_EQ(ref_ip6_checksum(ip, 40, 17), 0);
  set_udpv6_checksum(ip.data());
  EXPECT_EQ(be16(&ip[46]), 0);
}

TEST(Ip6Checksum, FragmentHeaderIsSkippedAndItsLengthSubtracted) {
  Bytes ip = make_ipv6({{44, 0}}, 17, 20);
  set_udpv6_checksum(ip.data());
  const std::size_t udp = 48;
  const std::uint16_t stored = be16(&ip[udp + 6]);
  put16(&ip[udp + 6], 0);
  EXPECT_EQ(stored, ref_ip6_checksum(ip, udp, 17));
}

TEST(Ip6Checksum, AuthenticationHeaderCountsInFourByteUnitsPlusTwo) {
  Bytes ip = make_ipv6({{51, 4}}, 6, 32);  // (4 + 2) * 4 = 24 bytes
  set_tcpv6_checksum(ip.data());
  const std::size_t tcp = 40 + 24;
  const std::uint16_t stored = be16(&ip[tcp + 16]);
  put16(&ip[tcp + 16], 0);
  EXPECT_EQ(stored, ref_ip6_checksum(ip, tcp, 6));
}

TEST(Ip6Checksum, ChainOfAllWalkedHeaders) {
  Bytes ip = make_ipv6({{0, 0}, {43, 2}, {60, 1}, {51, 1}, {44, 0}}, 58, 24);
  set_icmpv6_checksum(ip.data());
  const std::size_t icmp = 40 + 8 + 24 + 16 + 12 + 8;
  const std::uint16_t stored = be16(&ip[icmp + 2]);
  put16(&ip[icmp + 2], 0);
  EXPECT_EQ(stored, ref_ip6_checksum(ip, icmp, 58));
}

TEST(Ip6Checksum, NoNextHeaderIsWalkedAsAnExtensionHeader) {
  Bytes ip = make_ipv6({{59, 0}}, 58, 8);
  set_icmpv6_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[48 + 2]);
  put16(&ip[48 + 2], 0);
  EXPECT_EQ(stored, ref_ip6_checksum(ip, 48, 58));
}

TEST(Ip6Checksum, FinalNextHeaderIsNotComparedWithTheProtocol) {
  Bytes ip = make_ipv6({}, 6, 20);  // announces TCP
  set_udpv6_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[46]);
  put16(&ip[46], 0);
  EXPECT_EQ(stored, ref_ip6_checksum(ip, 40, 17));
}

TEST(Ip6Checksum, IcmpV6) {
  Bytes ip = make_ipv6({}, 58, 33);
  set_icmpv6_checksum(ip.data());
  const std::uint16_t stored = be16(&ip[42]);
  put16(&ip[42], 0);
  EXPECT_EQ(stored, ref_ip6_checksum(ip, 40, 58));
}

namespace {
// A packet whose chain breaks: a hop-by-hop header announcing a fragment
// header, with a payload length that runs out after the first header.
Bytes broken_chain_packet() {
  Bytes ip = make_ipv6({{0, 0}}, 44, 0);
  put16(&ip[4], 9);  // the 8-byte header leaves 1 byte: below 2
  return ip;
}

// Checksum of a broken chain: the pseudo-header alone with length 0, taken
// after the field bytes inside the IPv6 header have been zeroed.
std::uint16_t broken_chain_checksum(Bytes ip, std::size_t field, std::uint8_t protocol) {
  put16(&ip[field], 0);
  return ref_checksum(ref_sum(ip.data() + 8, 32) + protocol);
}
}  // namespace

TEST(Ip6Checksum, BrokenChainWritesUdpChecksumIntoByte5) {
  Bytes ip = broken_chain_packet();
  const Bytes before = ip;
  set_udpv6_checksum(ip.data());
  EXPECT_EQ(be16(&ip[5]), broken_chain_checksum(before, 5, 17));
  EXPECT_TRUE(std::equal(ip.begin() + 7, ip.end(), before.begin() + 7));
}

TEST(Ip6Checksum, BrokenChainWritesTcpChecksumIntoByte15) {
  Bytes ip = broken_chain_packet();
  const Bytes before = ip;
  set_tcpv6_checksum(ip.data());
  EXPECT_EQ(be16(&ip[15]), broken_chain_checksum(before, 15, 6));
  EXPECT_TRUE(std::equal(ip.begin(), ip.begin() + 15, before.begin()));
}

TEST(Ip6Checksum, BrokenChainWritesIcmpV6ChecksumIntoByte1) {
  Bytes ip = broken_chain_packet();
  const Bytes before = ip;
  set_icmpv6_checksum(ip.data());
  EXPECT_EQ(be16(&ip[1]), broken_chain_checksum(before, 1, 58));
  EXPECT_TRUE(std::equal(ip.begin() + 3, ip.end(), before.begin() + 3));
}

TEST(Ip6Checksum, ZeroPayloadWithExtensionHeaderIsBroken) {
  Bytes ip = make_ipv6({}, 0, 0);  // hop-by-hop announced, no payload at all
  const Bytes before = ip;
  set_udpv6_checksum(ip.data());
  EXPECT_EQ(be16(&ip[5]), broken_chain_checksum(before, 5, 17));
}

// ---- incremental update: corner cases ---------------------------------------

TEST(ChecksumUpdate, OddStartRunsOfLengthOneExchangeLowOrderBytes) {
  const std::uint8_t old_byte = 0x12, new_byte = 0xab;
  const std::uint16_t k = htons(0x4c21);
  EXPECT_EQ(update_checksum(k, 1, &old_byte, 1, &new_byte, 1), update_checksum_u16(k, htons(0x0012), htons(0x00ab)));
  EXPECT_EQ(ntohs(update_checksum(k, 1, &old_byte, 1, &new_byte, 1)),
            ref_checksum(ref_fold(static_cast<std::uint16_t>(~0x4c21)) + 0xffff - 0x12 + 0xab));
}

TEST(ChecksumUpdate, EvenStartRunOfLengthOneExchangesHighOrderBytes) {
  const std::uint8_t old_byte = 0x12, new_byte = 0xab;
  const std::uint16_t k = htons(0x4c21);
  EXPECT_EQ(update_checksum(k, 0, &old_byte, 1, &new_byte, 1), update_checksum_u16(k, htons(0x1200), htons(0xab00)));
}

TEST(ChecksumUpdate, RunsOfDifferentLengths) {
  // Growing "12 34" to "12 34 56 78" adds the word 5678 and nothing else.
  const Bytes old_run = hex_bytes("12 34");
  const Bytes new_run = hex_bytes("12 34 56 78");
  const std::uint16_t k = htons(0x9abc);
  EXPECT_EQ(update_checksum(k, 0, old_run.data(), 2, new_run.data(), 4), update_checksum_u16(k, 0, htons(0x5678)));
  EXPECT_EQ(ntohs(update_checksum(k, 0, old_run.data(), 2, new_run.data(), 4)),
            ref_checksum(static_cast<std::uint16_t>(~0x9abc) + 0x5678));
}

TEST(ChecksumUpdate, UnchangedValueKeepsChecksum) {
  EXPECT_EQ(ntohs(update_checksum_u16(htons(0x1234), htons(0x5678), htons(0x5678))), 0x1234);
  EXPECT_EQ(ntohs(update_checksum_u32(htons(0x1234), htonl(0x0a000001), htonl(0x0a000001))), 0x1234);
}

// A new 32-bit value whose high half is ffff: ffff ffff adds nothing in
// ones' complement, so the checksum stays what a full recomputation gives.
TEST(ChecksumUpdate, U32NewValueOfAllOnesKeepsTheRecomputedChecksum) {
  EXPECT_EQ(ntohs(update_checksum_u32(htons(0x1234), htonl(0), htonl(0xffffffffu))), 0x1234);
}

// Old value ffffff00 (words ffff + ff00 = ff00 in ones' complement) out of
// K = 1234: edcb - ff00 = edcb + 00ff = eeca, complement 1135.
TEST(ChecksumUpdate, U32OldValueWithAllOnesHighHalfGivesTheRecomputedChecksum) {
  EXPECT_EQ(ntohs(update_checksum_u32(htons(0x1234), htonl(0xffffff00u), htonl(0))), 0x1135);
}

// Address translation of a DHCP broadcast: the header below has source
// 255.255.255.255 and checksum 9bd4; with source 88.14.38.159 its checksum
// is 1d27: the other words sum to 642b - (ffff + ffff) + (580e + 269f),
// which is e2d8 in ones' complement.
TEST(ChecksumUpdate, BroadcastSourceRewrittenByTranslationGivesTheRecomputedChecksum) {
  // 4500 0148 ddd1 0000 4011 [9bd4] ffff ffff ffff ffff
  Bytes ip = hex_bytes("45 00 01 48 dd d1 00 00 40 11 9b d4 ff ff ff ff ff ff ff ff");
  ASSERT_EQ(ip_checksum_ok(ip.data()), 1);
  std::uint32_t old_addr, new_addr;
  std::memcpy(&old_addr, &ip[12], 4);
  const std::uint8_t translated[4] = {88, 14, 38, 159};
  std::memcpy(&new_addr, translated, 4);
  const std::uint16_t k = update_checksum_u32(htons(0x9bd4), old_addr, new_addr);
  EXPECT_EQ(ntohs(k), 0x1d27);
  std::memcpy(&ip[12], translated, 4);
  std::memcpy(&ip[10], &k, 2);
  EXPECT_EQ(ip_checksum_ok(ip.data()), 1);
}

// The same rewrite through the 16-bit and the run update, word by word.
TEST(ChecksumUpdate, BroadcastSourceRewrittenWordByWordGivesTheRecomputedChecksum) {
  std::uint16_t k = update_checksum_u16(htons(0x9bd4), htons(0xffff), htons(0x580e));
  k = update_checksum_u16(k, htons(0xffff), htons(0x269f));
  EXPECT_EQ(ntohs(k), 0x1d27);
  const Bytes old_run = hex_bytes("ff ff ff ff");
  const Bytes new_run = hex_bytes("58 0e 26 9f");
  EXPECT_EQ(ntohs(update_checksum(htons(0x9bd4), 0, old_run.data(), 4, new_run.data(), 4)), 0x1d27);
}

// ---- no allocation -------------------------------------------------------

TEST(ChecksumMemory, ChecksumsNeverAllocate) {
  testsupport::NoLeakGuard guard;
  const long before = nuvcsock_allocations();
  nuvcsock_fail_from_allocation(1);  // any allocation attempt would fail
  Bytes ip4 = make_ipv4(17, 5, 30);
  set_ip_checksum(ip4.data());
  set_udp_checksum(ip4.data());
  EXPECT_EQ(ip_checksum_ok(ip4.data()), 1);
  EXPECT_EQ(udp_checksum_ok(ip4.data()), 1);
  Bytes ip6 = make_ipv6({{44, 0}}, 6, 40);
  set_tcpv6_checksum(ip6.data());
  EXPECT_EQ(update_checksum_u16(htons(0x1234), htons(1), htons(1)), htons(0x1234));
  EXPECT_EQ(nuvcsock_allocations(), before);
}
