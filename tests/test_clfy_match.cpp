// Packet matching and rule sets on packets built byte by byte.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using clfytest::Bytes;
using clfytest::matches;
using clfytest::Packet;
using clfytest::parse;

namespace {

const std::uint8_t kSrc4[4] = {192, 168, 1, 77};
const std::uint8_t kDst4[4] = {10, 0, 0, 1};
const std::uint8_t kSrc6[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x55};
const std::uint8_t kDst6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
const std::uint8_t kMacA[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::uint8_t kMacB[6] = {0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb};

// Rule with its interface indexes resolved the way a caller would.
clfytest::Rule rule_on(const std::string &text, std::int32_t ifindex = 3) {
  auto rule = parse(text);
  if (rule) {
    if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = ifindex;
    if (rule->flags & NUV_CLFY_F_BRDEV) rule->brdev_ifindex = ifindex;
  }
  return rule;
}

void udp4(Packet &p, std::uint16_t sport, std::uint16_t dport, const Bytes &payload = {}, std::uint8_t tos = 0) {
  p.set_ip(clfytest::ipv4_packet(17, kSrc4, kDst4, clfytest::udp_header(sport, dport, payload), tos), 0x0800);
  p.set_eth(kMacB, kMacA);
  p.desc.dev_ifindex = 3;
  p.desc.brdev_ifindex = 3;
}

void tcp4(Packet &p, std::uint16_t sport, std::uint16_t dport, std::uint16_t flags, const Bytes &payload = {}) {
  p.set_ip(clfytest::ipv4_packet(6, kSrc4, kDst4, clfytest::tcp_header(sport, dport, flags, payload)), 0x0800);
  p.set_eth(kMacB, kMacA);
}

void ip6(Packet &p, std::uint8_t next_header, const Bytes &payload, std::uint8_t tc = 0) {
  p.set_ip(clfytest::ipv6_packet(next_header, kSrc6, kDst6, payload, tc), 0x86dd);
  p.set_eth(kMacB, kMacA);
}

Bytes icmpv6(std::uint8_t type) { return Bytes{type, 0, 0, 0, 0, 0, 0, 0}; }

class ClfyMatch : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

// ---- Rules without conditions, counting ----

TEST_F(ClfyMatch, RuleWithoutConditionsMatchesAndCountsNothing) {
  auto rule = parse("");
  Packet p;
  udp4(p, 1, 2);
  EXPECT_TRUE(matches(rule.get(), p));
  Packet empty;
  EXPECT_TRUE(matches(rule.get(), empty));
  EXPECT_EQ(rule->hits, 0u);
}

TEST_F(ClfyMatch, EveryMatchCounts) {
  auto rule = rule_on("dev eth0");
  Packet p;
  udp4(p, 1, 2);
  EXPECT_TRUE(matches(rule.get(), p));
  EXPECT_TRUE(matches(rule.get(), p));
  p.desc.dev_ifindex = 4;
  EXPECT_FALSE(matches(rule.get(), p));
  EXPECT_EQ(rule->hits, 2u);
}

TEST_F(ClfyMatch, MeaninglessBitsMatchNothing) {
  auto rule = clfytest::Rule(nuv_clfy_alloc());
  rule->flags = 0x2;
  Packet p;
  udp4(p, 1, 2);
  EXPECT_FALSE(matches(rule.get(), p));
}

// ---- Interfaces and mark ----

TEST_F(ClfyMatch, UnresolvedDevMatchesNoPacket) {
  auto rule = parse("dev eth0");
  ASSERT_EQ(rule->dev_ifindex, -1);
  Packet p;
  udp4(p, 1, 2);
  for (std::uint32_t index : {0u, 1u, 3u, 0xffffffffu}) {
    p.desc.dev_ifindex = index;
    EXPECT_FALSE(matches(rule.get(), p)) << index;
  }
}

TEST_F(ClfyMatch, BrdevComparesTheBridgeIndex) {
  auto rule = rule_on("brdev br0", 9);
  Packet p;
  udp4(p, 1, 2);
  p.desc.brdev_ifindex = 9;
  p.desc.dev_ifindex = 1;
  EXPECT_TRUE(matches(rule.get(), p));
  p.desc.brdev_ifindex = 1;
  p.desc.dev_ifindex = 9;
  EXPECT_FALSE(matches(rule.get(), p));
}

TEST_F(ClfyMatch, LocalmarkUsesLowSevenBitsOfTheMark) {
  auto rule = parse("localmark 5");
  Packet p;
  EXPECT_TRUE(matches(rule.get(), p, 5));
  EXPECT_TRUE(matches(rule.get(), p, 128 + 5));
  EXPECT_FALSE(matches(rule.get(), p, 6));
  EXPECT_FALSE(matches(rule.get(), p, 0));
}

TEST_F(ClfyMatch, EthProtoComparesTheDescriptorType) {
  auto rule = parse("eth.proto 0x0806");
  Packet p;
  p.desc.eth_proto = clfytest::net16(0x0806);
  EXPECT_TRUE(matches(rule.get(), p));
  p.desc.eth_proto = clfytest::net16(0x0800);
  EXPECT_FALSE(matches(rule.get(), p));
}

// ---- Link layer ----

TEST_F(ClfyMatch, EthernetAddresses) {
  Packet p;
  udp4(p, 1, 2);  // destination kMacB, source kMacA
  EXPECT_TRUE(matches(rule_on("eth.source 00:11:22:33:44:55").get(), p));
  EXPECT_FALSE(matches(rule_on("eth.source 00:11:22:33:44:56").get(), p));
  EXPECT_TRUE(matches(rule_on("eth.sourceoui 00:11:22").get(), p));
  EXPECT_FALSE(matches(rule_on("eth.sourceoui 00:11:23").get(), p));
  EXPECT_TRUE(matches(rule_on("eth.dest 66:77:88:99:aa:bb").get(), p));
  EXPECT_TRUE(matches(rule_on("eth.destoui 66:77:88").get(), p));
  EXPECT_FALSE(matches(rule_on("eth.destoui 00:11:22").get(), p));
}

TEST_F(ClfyMatch, AddressConditionWithoutEthernetHeaderFails) {
  Packet p;
  udp4(p, 1, 2);
  p.desc.eth_header = nullptr;
  EXPECT_FALSE(matches(rule_on("eth.sourceoui 00:11:22").get(), p));
  EXPECT_FALSE(matches(rule_on("ethsrctab any.table").get(), p));
  // VLAN conditions do not read the header.
  p.desc.vlan_tci = NUV_CLFY_VLAN_TAG_PRESENT | 7;
  EXPECT_TRUE(matches(rule_on("vlan.id 7").get(), p));
}

TEST_F(ClfyMatch, EthsrctabLooksUpTheSourceAddress) {
  auto rule = parse("ethsrctab lan.known");
  Packet p;
  udp4(p, 1, 2);
  EXPECT_FALSE(matches(rule.get(), p));
  ASSERT_EQ(nuv_clfy_ethersrctab_add("lan.known", kMacA), 0);
  EXPECT_TRUE(matches(rule.get(), p));
}

TEST_F(ClfyMatch, VlanIdOnUntaggedPacketFails) {
  auto rule = parse("vlan.id 0-4095");
  Packet p;
  udp4(p, 1, 2);
  p.desc.vlan_tci = 5;  // id bits without the tag bit
  EXPECT_FALSE(matches(rule.get(), p));
  p.desc.vlan_tci = NUV_CLFY_VLAN_TAG_PRESENT | 5;
  EXPECT_TRUE(matches(rule.get(), p));
}

TEST_F(ClfyMatch, VlanIdListUsesTheLowTwelveBits) {
  auto rule = parse("vlan.id 10,100-200");
  Packet p;
  for (std::uint16_t id : {10, 100, 150, 200}) {
    p.desc.vlan_tci = static_cast<std::uint16_t>(0xe000 | NUV_CLFY_VLAN_TAG_PRESENT | id);
    EXPECT_TRUE(matches(rule.get(), p)) << id;
  }
  for (std::uint16_t id : {9, 11, 99, 201}) {
    p.desc.vlan_tci = static_cast<std::uint16_t>(NUV_CLFY_VLAN_TAG_PRESENT | id);
    EXPECT_FALSE(matches(rule.get(), p)) << id;
  }
}

TEST_F(ClfyMatch, VlanPrioUsesTheTopThreeBits) {
  auto rule = parse("vlan.prio 5");
  Packet p;
  p.desc.vlan_tci = static_cast<std::uint16_t>(5u << 13 | NUV_CLFY_VLAN_TAG_PRESENT | 42);
  EXPECT_TRUE(matches(rule.get(), p));
  p.desc.vlan_tci = static_cast<std::uint16_t>(5u << 13 | 42);
  EXPECT_FALSE(matches(rule.get(), p));
  p.desc.vlan_tci = static_cast<std::uint16_t>(4u << 13 | NUV_CLFY_VLAN_TAG_PRESENT);
  EXPECT_FALSE(matches(rule.get(), p));
}

// ---- IP layer ----

TEST_F(ClfyMatch, IpConditionOnNonIpPacketFails) {
  auto rule = parse("ip.version 4");
  Packet p;
  udp4(p, 1, 2);
  p.desc.eth_proto = clfytest::net16(0x0806);
  EXPECT_FALSE(matches(rule.get(), p));
}

TEST_F(ClfyMatch, IpConditionWithoutIpHeaderFails) {
  auto rule = parse("ip.version 4");
  Packet p;
  udp4(p, 1, 2);
  p.desc.ip_header = nullptr;
  EXPECT_FALSE(matches(rule.get(), p));
}

TEST_F(ClfyMatch, Ipv4PrefixMatchesHostInside) {
  auto rule = parse("ip.saddr 192.168.1.0/24");
  Packet p;
  udp4(p, 1, 2);  // from 192.168.1.77
  EXPECT_TRUE(matches(rule.get(), p));
  EXPECT_FALSE(matches(parse("ip.saddr 192.168.2.0/24").get(), p));
  EXPECT_TRUE(matches(parse("ip.daddr 10.0.0.1").get(), p));
  EXPECT_FALSE(matches(parse("ip.daddr 10.0.0.2").get(), p));
}

TEST_F(ClfyMatch, AddressFamiliesDoNotMix) {
  Packet v4;
  udp4(v4, 1, 2);
  Packet v6;
  ip6(v6, 17, clfytest::udp_header(1, 2));
  auto v4_rule = parse("ip.saddr 0.0.0.0/1");
  auto v6_rule = parse("ip.daddr ::/0");
  // The optimiser derives the Ethernet type from the family, which already
  // tells the packets apart ...
  EXPECT_FALSE(matches(v4_rule.get(), v6));
  EXPECT_FALSE(matches(v6_rule.get(), v4));
  // ... and without it the address test itself refuses the other family.
  v4_rule->flags &= ~NUV_CLFY_F_ETH_PROTO;
  v6_rule->flags &= ~NUV_CLFY_F_ETH_PROTO;
  EXPECT_FALSE(matches(v4_rule.get(), v6));
  EXPECT_FALSE(matches(v6_rule.get(), v4));
  EXPECT_TRUE(matches(v6_rule.get(), v6));
}

TEST_F(ClfyMatch, Ipv4HeaderFields) {
  Packet p;
  udp4(p, 1, 2, {}, 0x2b);
  EXPECT_TRUE(matches(parse("ip.version 4").get(), p));
  EXPECT_FALSE(matches(parse("ip.version 6").get(), p));
  EXPECT_TRUE(matches(parse("ip.proto udp").get(), p));
  EXPECT_FALSE(matches(parse("ip.proto tcp").get(), p));
  EXPECT_TRUE(matches(parse("ip.tos 0x28").get(), p));       // 0x2b & 0xfc
  EXPECT_FALSE(matches(parse("ip.tos 0x2b").get(), p));      // never equal after masking
  EXPECT_TRUE(matches(parse("ip.tos 0x2b/0xff").get(), p));
  EXPECT_TRUE(matches(parse("ip.len 28").get(), p));         // 20 + 8
  EXPECT_TRUE(matches(parse("ip.len < 29").get(), p));
  EXPECT_FALSE(matches(parse("ip.len > 28").get(), p));
  EXPECT_TRUE(matches(parse("ip.len 20-30").get(), p));
}

TEST_F(ClfyMatch, IpdsttabLooksUpTheDestination) {
  auto rule = parse("ipdsttab dsts");
  Packet v4;
  udp4(v4, 1, 2);
  Packet v6;
  ip6(v6, 17, clfytest::udp_header(1, 2));
  EXPECT_FALSE(matches(rule.get(), v4));
  ASSERT_EQ(nuv_clfy_ipdsttab_add4("dsts", clfytest::ipv4(10, 0, 0, 1)), 0);
  EXPECT_TRUE(matches(rule.get(), v4));
  EXPECT_FALSE(matches(rule.get(), v6));
  ASSERT_EQ(nuv_clfy_ipdsttab_add6("dsts", kDst6), 0);
  EXPECT_TRUE(matches(rule.get(), v6));
}

// ---- Transport layer ----

TEST_F(ClfyMatch, PortLists) {
  Packet p;
  udp4(p, 5353, 53);
  EXPECT_TRUE(matches(parse("udp.dport 53").get(), p));
  EXPECT_TRUE(matches(parse("udp.dport 1,2,53").get(), p));
  EXPECT_FALSE(matches(parse("udp.dport 54").get(), p));
  EXPECT_TRUE(matches(parse("udp.sport >= 1024").get(), p));
  EXPECT_FALSE(matches(parse("udp.sport < 1024").get(), p));
  EXPECT_TRUE(matches(parse("udp.sport != 53").get(), p));
  // The protocol the port keyword implies is tested as well.
  EXPECT_FALSE(matches(parse("tcp.dport 53").get(), p));
}

TEST_F(ClfyMatch, TransportHeaderFollowsIpOptions) {
  Bytes ip = clfytest::ipv4_packet(17, kSrc4, kDst4, clfytest::udp_header(7, 9));
  // Insert four bytes of options: header length 6 words.
  ip.insert(ip.begin() + 20, {1, 1, 1, 0});
  ip[0] = 0x46;
  clfytest::put16(ip, 2, static_cast<std::uint16_t>(ip.size()));
  Packet p;
  p.set_ip(ip, 0x0800);
  EXPECT_TRUE(matches(parse("udp.dport 9").get(), p));
  EXPECT_FALSE(matches(parse("udp.dport 257").get(), p));  // 0x0101 from the options
}

TEST_F(ClfyMatch, TcpFlagsUnderMask) {
  Packet syn;
  tcp4(syn, 40000, 80, 0x002);
  Packet synack;
  tcp4(synack, 80, 40000, 0x012);
  auto syn_only = parse("tcp.flags 0x002/0x012");
  EXPECT_TRUE(matches(syn_only.get(), syn));
  EXPECT_FALSE(matches(syn_only.get(), synack));
  auto any_syn = parse("tcp.flags 2/2");
  EXPECT_TRUE(matches(any_syn.get(), synack));
}

TEST_F(ClfyMatch, TcpFlagsNeedTheRuleProtocolTcp) {
  auto rule = parse("tcp.flags 2/2");
  rule->ip_proto = 17;
  rule->flags &= ~NUV_CLFY_F_IP_PROTO;
  Packet syn;
  tcp4(syn, 40000, 80, 0x002);
  EXPECT_FALSE(matches(rule.get(), syn));
}

TEST_F(ClfyMatch, PacketmatchOnUdpPayload) {
  Packet p;
  udp4(p, 1, 2, clfytest::text_bytes("Hello World"));
  EXPECT_TRUE(matches(parse("ip.proto udp packetmatch hello*").get(), p));  // case ignored
  EXPECT_FALSE(matches(parse("ip.proto udp packetmatch *planet").get(), p));
}

TEST_F(ClfyMatch, PacketmatchOnTcpPayloadAfterDataOffset) {
  Packet p;
  tcp4(p, 40000, 80, 0x018, clfytest::text_bytes("GET /index.html HTTP/1.1\r\n"));
  EXPECT_TRUE(matches(parse("tcp.dport 80 packetmatch get*").get(), p));
  EXPECT_FALSE(matches(parse("tcp.dport 80 packetmatch index*").get(), p));
}

TEST_F(ClfyMatch, PacketmatchOnOtherProtocolSeesTheWholeTransportPart) {
  Packet p;
  p.set_ip(clfytest::ipv4_packet(47, kSrc4, kDst4, clfytest::text_bytes("GRE-ish")), 0x0800);
  EXPECT_TRUE(matches(parse("packetmatch gre-*").get(), p));
}

TEST_F(ClfyMatch, PacketmatchWithTrailingConditionsHasThemInItsPattern) {
  // "packetmatch hello* udp.dport 2": the stored pattern is the rest of the
  // line, "hello* udp.dport 2", and the port condition applies too.
  Packet p;
  udp4(p, 1, 2, clfytest::text_bytes("hello"));
  EXPECT_FALSE(matches(parse("packetmatch hello* udp.dport 2").get(), p));
  Packet q;
  udp4(q, 1, 2, clfytest::text_bytes("hello udp.dport 2"));
  EXPECT_TRUE(matches(parse("packetmatch hello* udp.dport 2").get(), q));
}

TEST_F(ClfyMatch, IcmpTypeIsIgnoredOnIpv4) {
  Packet p;
  p.set_ip(clfytest::ipv4_packet(1, kSrc4, kDst4, Bytes{8, 0, 0, 0, 0, 0, 0, 0}), 0x0800);
  EXPECT_TRUE(matches(parse("icmp.type 200").get(), p));
  EXPECT_TRUE(matches(parse("icmp.type 8").get(), p));
}

// ---- IPv6 ----

TEST_F(ClfyMatch, Ipv6HeaderFields) {
  Packet p;
  ip6(p, 17, clfytest::udp_header(546, 547), 0xb8);
  EXPECT_TRUE(matches(parse("ip.version 6").get(), p));
  EXPECT_TRUE(matches(parse("ip.proto udp").get(), p));
  EXPECT_TRUE(matches(parse("ip.tos 0xb8").get(), p));
  EXPECT_FALSE(matches(parse("ip.tos 0x00").get(), p));
  EXPECT_TRUE(matches(parse("ip.len 48").get(), p));  // payload 8 + 40
  EXPECT_TRUE(matches(parse("udp.dport 547").get(), p));
  EXPECT_TRUE(matches(parse("udp.sport 546").get(), p));
}

TEST_F(ClfyMatch, Ipv6Prefixes) {
  Packet p;
  ip6(p, 17, clfytest::udp_header(1, 2));
  EXPECT_TRUE(matches(parse("ip.saddr fe80::/10").get(), p));
  EXPECT_TRUE(matches(parse("ip.saddr fe80::/64").get(), p));
  EXPECT_FALSE(matches(parse("ip.saddr fec0::/10").get(), p));
  EXPECT_TRUE(matches(parse("ip.saddr fe80::211:22ff:fe33:4455").get(), p));
  EXPECT_TRUE(matches(parse("ip.daddr 2001:db8::/29").get(), p));
  EXPECT_FALSE(matches(parse("ip.daddr 2001:db0::/29").get(), p));  // differs in bit 29
  EXPECT_TRUE(matches(parse("ip.daddr 2001:db0::/28").get(), p));
  EXPECT_TRUE(matches(parse("ip.daddr ::/0").get(), p));
}

TEST_F(ClfyMatch, Ipv6HopByHopIsLookedThroughForProtocolAndPorts) {
  Bytes hbh{17, 0, 1, 4, 0, 0, 0, 0};  // next header UDP, 8 bytes
  Bytes udp = clfytest::udp_header(1000, 2000);
  hbh.insert(hbh.end(), udp.begin(), udp.end());
  Packet p;
  ip6(p, 0, hbh);
  EXPECT_TRUE(matches(parse("ip.proto udp").get(), p));
  EXPECT_TRUE(matches(parse("udp.dport 2000").get(), p));
  EXPECT_FALSE(matches(parse("ip.proto P0").get(), p));
}

TEST_F(ClfyMatch, Icmpv6Type) {
  Packet p;
  ip6(p, 58, icmpv6(135));
  EXPECT_TRUE(matches(parse("icmp.type 135").get(), p));
  EXPECT_FALSE(matches(parse("icmp.type 136").get(), p));
  Packet udp;
  ip6(udp, 17, clfytest::udp_header(135, 135));
  EXPECT_FALSE(matches(parse("icmp.type 135").get(), udp));
}

TEST_F(ClfyMatch, Icmpv6TypeBehindDestinationOptions) {
  Bytes payload{58, 0, 1, 4, 0, 0, 0, 0};
  Bytes icmp = icmpv6(128);
  payload.insert(payload.end(), icmp.begin(), icmp.end());
  Packet p;
  ip6(p, 60, payload);
  EXPECT_TRUE(matches(parse("icmp.type 128").get(), p));
}

TEST_F(ClfyMatch, DhcpConditionIsNotEvaluatedOnIpv6) {
  auto rule = parse("dhcpoption 60 nothing* vsix.learned");
  Packet p;
  ip6(p, 17, clfytest::udp_header(68, 67));
  EXPECT_TRUE(matches(rule.get(), p));
}

// ---- Hostile packets behind a correct descriptor ----

TEST_F(ClfyMatch, TruncatedTransportHeaderDoesNotMatch) {
  Bytes ip = clfytest::ipv4_packet(17, kSrc4, kDst4, Bytes{0x00, 0x35, 0x00});  // three bytes of UDP
  Packet p;
  p.set_ip(ip, 0x0800);
  EXPECT_TRUE(matches(parse("udp.sport 53").get(), p));
  EXPECT_FALSE(matches(parse("udp.dport 53").get(), p));
  EXPECT_FALSE(matches(parse("tcp.flags 2").get(), p));
  EXPECT_FALSE(matches(parse("ip.proto udp packetmatch *").get(), p));
}

TEST_F(ClfyMatch, PacketShorterThanItsFixedHeaderMatchesNoIpCondition) {
  Bytes v4 = clfytest::ipv4_packet(17, kSrc4, kDst4, {});
  v4.resize(19);
  Packet p;
  p.set_ip(v4, 0x0800);
  EXPECT_FALSE(matches(parse("ip.version 4").get(), p));
  EXPECT_TRUE(matches(parse("eth.proto 0x0800").get(), p));
  Bytes v6 = clfytest::ipv6_packet(17, kSrc6, kDst6, {});
  v6.resize(39);
  Packet q;
  q.set_ip(v6, 0x86dd);
  EXPECT_FALSE(matches(parse("ip.version 6").get(), q));
}

TEST_F(ClfyMatch, VersionIsReadFromAWholeHeaderWhateverTheEthernetType) {
  Bytes v4 = clfytest::ipv4_packet(17, kSrc4, kDst4, {});
  ASSERT_EQ(v4.size(), 20u);
  Packet p;
  p.set_ip(v4, 0x0800);
  auto version4 = parse("ip.version 4");
  EXPECT_TRUE(matches(version4.get(), p));
  EXPECT_EQ(version4->hits, 1u);
  v4[0] = 0x65;  // version nibble 6 under the IPv4 Ethernet type
  Packet q;
  q.set_ip(v4, 0x0800);
  EXPECT_TRUE(matches(parse("ip.version 6").get(), q));
  EXPECT_FALSE(matches(parse("ip.version 4").get(), q));
}

TEST_F(ClfyMatch, HeaderLengthBeyondThePacketDoesNotMatch) {
  Bytes ip = clfytest::ipv4_packet(17, kSrc4, kDst4, clfytest::udp_header(1, 2));
  ip[0] = 0x4f;  // 60-byte header claimed, 28 bytes present
  Packet p;
  p.set_ip(ip, 0x0800);
  EXPECT_FALSE(matches(parse("udp.sport 1").get(), p));
  EXPECT_FALSE(matches(parse("packetmatch *").get(), p));
}

TEST_F(ClfyMatch, TcpDataOffsetBeyondThePacketDoesNotMatch) {
  Bytes ip = clfytest::ipv4_packet(6, kSrc4, kDst4, clfytest::tcp_header(1, 80, 0x018, clfytest::text_bytes("ab")));
  ip[20 + 12] = 0xf0;  // 60-byte TCP header claimed
  Packet p;
  p.set_ip(ip, 0x0800);
  EXPECT_FALSE(matches(parse("tcp.dport 80 packetmatch *").get(), p));
  EXPECT_TRUE(matches(parse("tcp.dport 80").get(), p));
}

TEST_F(ClfyMatch, Ipv6PayloadLengthLyingUpwardsIsCutAtThePacket) {
  Packet p;
  Bytes ip = clfytest::ipv6_packet(17, kSrc6, kDst6, clfytest::udp_header(1, 2, clfytest::text_bytes("abc")));
  clfytest::put16(ip, 4, 4000);
  p.set_ip(ip, 0x86dd);
  EXPECT_TRUE(matches(parse("packetmatch abc").get(), p));
  EXPECT_FALSE(matches(parse("icmp.type 1").get(), p));
}

TEST_F(ClfyMatch, ShortIpv6ExtensionChainsDoNotMatch) {
  // Destination options claiming 2 KiB, in a packet of 48 bytes.
  Bytes ext{60, 255, 0, 0, 0, 0, 0, 0};
  for (std::uint16_t declared : {8, 200, 65535}) {
    Packet p;
    Bytes ip = clfytest::ipv6_packet(60, kSrc6, kDst6, ext);
    clfytest::put16(ip, 4, declared);
    p.set_ip(ip, 0x86dd);
    EXPECT_FALSE(matches(parse("icmp.type 0").get(), p)) << declared;
  }
  // A hop-by-hop header announced but not present.
  Packet bare;
  bare.set_ip(clfytest::ipv6_packet(0, kSrc6, kDst6, {}), 0x86dd);
  EXPECT_FALSE(matches(parse("ip.proto udp").get(), bare));
  EXPECT_FALSE(matches(parse("udp.dport 1").get(), bare));
  EXPECT_FALSE(matches(parse("icmp.type 0").get(), bare));
}

TEST_F(ClfyMatch, ProtocolZeroDoesNotMatchAnUnreadableHopByHopHeader) {
  // The protocol behind a hop-by-hop header that is announced but absent is
  // unknown, not 0.
  Packet bare;
  bare.set_ip(clfytest::ipv6_packet(0, kSrc6, kDst6, {}), 0x86dd);
  EXPECT_FALSE(matches(parse("ip.proto P0").get(), bare));
  EXPECT_TRUE(matches(parse("ip.version 6").get(), bare));
}

// ---- Rule sets ----

TEST_F(ClfyMatch, FirstMatchingRuleOfASetWins) {
  clfytest::Set set;
  set.add("udp.dport 54", 1);
  nuv_clfy *second = set.add("udp.dport 53", 2);
  set.add("ip.proto udp", 3);
  Packet p;
  udp4(p, 1000, 53);
  EXPECT_EQ(nuv_clfy_get_clfy_from_set(&set.set, 0, &p.desc), second);
  Packet other;
  tcp4(other, 1, 2, 0);
  EXPECT_EQ(nuv_clfy_get_clfy_from_set(&set.set, 0, &other.desc), nullptr);
}

TEST_F(ClfyMatch, EmptySetFindsNothing) {
  clfytest::Set set;
  Packet p;
  EXPECT_EQ(nuv_clfy_get_clfy_from_set(&set.set, 0, &p.desc), nullptr);
  EXPECT_EQ(nuv_clfy_set_execute(&set.set, nullptr, &p.desc), 0);
}

TEST_F(ClfyMatch, ParentWithoutMatchingChildContinuesWithItsSibling) {
  clfytest::Set set;
  nuv_clfy *parent = set.add("ip.proto udp", 1);
  nuv_clfy *sibling = set.add("udp.dport 53", 2);
  auto child = parse("udp.sport 9999");
  parent->children = child.release();
  Packet p;
  udp4(p, 1000, 53);
  EXPECT_EQ(nuv_clfy_get_clfy_from_set(&set.set, 0, &p.desc), sibling);
  EXPECT_EQ(parent->hits, 1u);
}

TEST_F(ClfyMatch, MatchingChildOfMatchingParentWins) {
  clfytest::Set set;
  nuv_clfy *parent = set.add("ip.proto udp", 1);
  set.add("", 2);
  auto first = parse("udp.sport 1");
  auto second = parse("udp.sport 1000");
  auto grandchild = parse("udp.dport 53");
  nuv_clfy *second_raw = second.get();
  second->children = grandchild.release();
  first->next = second.release();
  parent->children = first.release();
  Packet p;
  udp4(p, 1000, 53);
  EXPECT_EQ(nuv_clfy_get_clfy_from_set(&set.set, 0, &p.desc), second_raw->children);
}

namespace {

struct ExecuteRecord {
  nuv_clfy *rule = nullptr;
  void *arg = nullptr;
  const std::uint8_t *eth = nullptr;
  std::uint16_t eth_proto = 0;
  const std::uint8_t *ip = nullptr;
};
ExecuteRecord g_record;

int record_execute(nuv_clfy *rule, void *arg, const std::uint8_t *eth, std::uint16_t eth_proto,
                   const std::uint8_t *ip) {
  g_record = {rule, arg, eth, eth_proto, ip};
  return 42;
}

}  // namespace

TEST_F(ClfyMatch, ExecuteCallsTheRulesAction) {
  const int action = nuv_clfy_register_action("matchexec", record_execute, nullptr);
  ASSERT_GT(action, 0);
  clfytest::Set set;
  nuv_clfy *rule = set.add("udp.dport 53", 1);
  rule->action = action;
  Packet p;
  udp4(p, 1, 53);
  int arg = 0;
  g_record = {};
  EXPECT_EQ(nuv_clfy_set_execute(&set.set, &arg, &p.desc), 42);
  EXPECT_EQ(g_record.rule, rule);
  EXPECT_EQ(g_record.arg, &arg);
  EXPECT_EQ(g_record.eth, p.desc.eth_header);
  EXPECT_EQ(g_record.eth_proto, p.desc.eth_proto);
  EXPECT_EQ(g_record.ip, p.desc.ip_header);
}

TEST_F(ClfyMatch, ExecuteWithoutUsableActionGivesZero) {
  const int silent = nuv_clfy_register_action("noexec", nullptr, nullptr);
  clfytest::Set set;
  nuv_clfy *rule = set.add("udp.dport 53", 1);
  Packet p;
  udp4(p, 1, 53);
  rule->action = 0;
  EXPECT_EQ(nuv_clfy_set_execute(&set.set, nullptr, &p.desc), 0);
  rule->action = 24;
  EXPECT_EQ(nuv_clfy_set_execute(&set.set, nullptr, &p.desc), 0);
  rule->action = silent;
  EXPECT_EQ(nuv_clfy_set_execute(&set.set, nullptr, &p.desc), 0);
  // A rule without owner has no action, whatever its index says.
  const int action = nuv_clfy_register_action("matchexec2", record_execute, nullptr);
  rule->action = action;
  rule->owner = nullptr;
  EXPECT_EQ(nuv_clfy_set_execute(&set.set, nullptr, &p.desc), 0);
  rule->owner = &set.set;
  EXPECT_EQ(nuv_clfy_set_execute(&set.set, nullptr, &p.desc), 42);
}

namespace {

struct Visit {
  nuv_clfy *rule;
  int depth;
};

int record_visit(nuv_clfy *rule, int depth, void *arg) {
  auto *visits = static_cast<std::vector<Visit> *>(arg);
  visits->push_back({rule, depth});
  return visits->size() == 3 ? 5 : 0;
}

int count_visit(nuv_clfy *rule, int depth, void *arg) {
  static_cast<std::vector<Visit> *>(arg)->push_back({rule, depth});
  return 0;
}

}  // namespace

TEST_F(ClfyMatch, WalkIsPreOrderWithDepths) {
  clfytest::Set set;
  nuv_clfy *a = set.add("dev a");
  nuv_clfy *b = set.add("dev b");
  auto a1 = parse("dev a1");
  auto a1x = parse("dev a1x");
  auto a2 = parse("dev a2");
  nuv_clfy *a1_raw = a1.get(), *a1x_raw = a1x.get(), *a2_raw = a2.get();
  a1->children = a1x.release();
  a1->next = a2.release();
  a->children = a1.release();
  std::vector<Visit> visits;
  EXPECT_EQ(nuv_clfy_set_walk(&set.set, count_visit, &visits), 0);
  ASSERT_EQ(visits.size(), 5u);
  const Visit expected[] = {{a, 0}, {a1_raw, 1}, {a1x_raw, 2}, {a2_raw, 1}, {b, 0}};
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(visits[i].rule, expected[i].rule) << i;
    EXPECT_EQ(visits[i].depth, expected[i].depth) << i;
  }
}

TEST_F(ClfyMatch, WalkStopsAtNonZeroCallbackResult) {
  clfytest::Set set;
  for (int i = 0; i < 5; ++i) set.add("any");
  std::vector<Visit> visits;
  EXPECT_EQ(nuv_clfy_set_walk(&set.set, record_visit, &visits), 5);
  EXPECT_EQ(visits.size(), 3u);
}

TEST_F(ClfyMatch, WalkOfEmptySetIsZero) {
  clfytest::Set set;
  std::vector<Visit> visits;
  EXPECT_EQ(nuv_clfy_set_walk(&set.set, count_visit, &visits), 0);
  EXPECT_TRUE(visits.empty());
}

TEST_F(ClfyMatch, ShowVisitsEverythingAndGivesZero) {
  clfytest::Set set;
  set.add("dev a");
  set.add("dev b");
  EXPECT_EQ(nuv_clfy_set_show(&set.set), 0);
}

TEST_F(ClfyMatch, DebugFlagReturnsThePreviousValue) {
  const int original = nuv_clfy_set_debugflag(7);
  EXPECT_EQ(nuv_clfy_set_debugflag(3), 7);
  EXPECT_EQ(nuv_clfy_set_debugflag(original), 3);
}

TEST_F(ClfyMatch, MatchingAllocatesNothingWithoutDhcp) {
  auto rule = parse("dev eth0 tcp.dport 80 ip.saddr 192.168.1.0/24 packetmatch *");
  rule->dev_ifindex = 3;
  Packet p;
  tcp4(p, 1, 80, 0x18, clfytest::text_bytes("x"));
  p.desc.dev_ifindex = 3;
  const long before = nuvcsock_allocations();
  EXPECT_TRUE(matches(rule.get(), p));
  EXPECT_EQ(nuvcsock_allocations(), before);
}
