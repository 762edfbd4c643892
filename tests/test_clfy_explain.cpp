// Explanations of misses: which condition failed first, in rule-text words,
// with the packet's value and the rule's.
#include <gtest/gtest.h>

#include <string>

#include "clfy_testing.h"
#include "nikerkiog.h"

using clfytest::Bytes;
using clfytest::Packet;
using clfytest::parse;

namespace {

const std::uint8_t kSrc4[4] = {192, 168, 1, 77};
const std::uint8_t kDst4[4] = {10, 0, 0, 1};
const std::uint8_t kSrc6[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x55};
const std::uint8_t kDst6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
const std::uint8_t kMacA[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::uint8_t kMacB[6] = {0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb};

void tcp4(Packet &p, std::uint16_t sport, std::uint16_t dport, std::uint16_t flags = 0x10) {
  p.set_ip(clfytest::ipv4_packet(6, kSrc4, kDst4, clfytest::tcp_header(sport, dport, flags)), 0x0800);
  p.set_eth(kMacB, kMacA);
}

void udp4(Packet &p, std::uint16_t sport, std::uint16_t dport) {
  p.set_ip(clfytest::ipv4_packet(17, kSrc4, kDst4, clfytest::udp_header(sport, dport)), 0x0800);
  p.set_eth(kMacB, kMacA);
}

struct Explained {
  int result;
  nuv_clfy_explanation why;
};

Explained explain(const nuv_clfy *rule, const Packet &p, std::uint32_t mark = 0) {
  Explained e{};
  e.result = nuv_clfy_explain(rule, &p.desc, mark, &e.why);
  return e;
}

class ClfyExplain : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

TEST_F(ClfyExplain, MatchLeavesKeywordAndTextEmpty) {
  auto rule = parse("tcp.dport 80");
  Packet p;
  tcp4(p, 1234, 80);
  const Explained e = explain(rule.get(), p);
  EXPECT_EQ(e.result, 1);
  EXPECT_EQ(e.why.matched, 1);
  EXPECT_STREQ(e.why.keyword, "");
  EXPECT_STREQ(e.why.text, "");
}

TEST_F(ClfyExplain, MatchCountsNoHit) {
  auto rule = parse("tcp.dport 80");
  Packet p;
  tcp4(p, 1234, 80);
  EXPECT_EQ(explain(rule.get(), p).result, 1);
  EXPECT_EQ(rule->hits, 0u);
}

TEST_F(ClfyExplain, DestinationPortMiss) {
  auto rule = parse("tcp.dport 80");
  Packet p;
  tcp4(p, 1234, 443);
  const Explained e = explain(rule.get(), p);
  EXPECT_EQ(e.result, 0);
  EXPECT_EQ(e.why.matched, 0);
  EXPECT_STREQ(e.why.keyword, "tcp.dport");
  EXPECT_STREQ(e.why.text, "tcp.dport: packet has 443, rule wants 80");
}

TEST_F(ClfyExplain, UdpSourcePortListMiss) {
  auto rule = parse("udp.sport 53,67-68,>= 5000");
  Packet p;
  udp4(p, 1000, 53);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "udp.sport");
  EXPECT_STREQ(e.why.text, "udp.sport: packet has 1000, rule wants 53,67-68,>= 5000");
}

TEST_F(ClfyExplain, ProtocolIsBlamedBeforeThePort) {
  auto rule = parse("tcp.dport 80");
  Packet p;
  udp4(p, 1234, 80);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "ip.proto");
  EXPECT_STREQ(e.why.text, "ip.proto: packet has 17, rule wants 6");
}

TEST_F(ClfyExplain, SourcePrefixMiss) {
  auto rule = parse("ip.saddr 10.0.0.0/8");
  Packet p;
  tcp4(p, 1, 2);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "ip.saddr");
  EXPECT_STREQ(e.why.text, "ip.saddr: packet has 192.168.1.77, rule wants 10.0.0.0/8");
}

TEST_F(ClfyExplain, NonContiguousMaskIsShownDotted) {
  auto rule = parse("ip.daddr 10.0.0.2 255.0.0.255");
  Packet p;
  tcp4(p, 1, 2);
  EXPECT_STREQ(explain(rule.get(), p).why.text, "ip.daddr: packet has 10.0.0.1, rule wants 10.0.0.2/255.0.0.255");
}

TEST_F(ClfyExplain, Ipv6PrefixMiss) {
  auto rule = parse("ip.daddr 2001:db9::/32");
  Packet p;
  p.set_ip(clfytest::ipv6_packet(17, kSrc6, kDst6, clfytest::udp_header(1, 2)), 0x86dd);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "ip.daddr");
  EXPECT_STREQ(e.why.text, "ip.daddr: packet has 2001:db8::1, rule wants IPv6 2001:db9::/32");
}

TEST_F(ClfyExplain, Ipv4RuleOnIpv6PacketFailsAtTheEthernetType) {
  auto rule = parse("ip.saddr 10.0.0.0/8");
  Packet p;
  p.set_ip(clfytest::ipv6_packet(17, kSrc6, kDst6, clfytest::udp_header(1, 2)), 0x86dd);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "eth.proto");
  EXPECT_STREQ(e.why.text, "eth.proto: packet has 0x86dd, rule wants 0x0800");
}

TEST_F(ClfyExplain, AddressFamilyMissWithoutEthernetType) {
  auto rule = parse("ip.saddr 10.0.0.0/8");
  rule->flags &= ~NUV_CLFY_F_ETH_PROTO;
  Packet p;
  p.set_ip(clfytest::ipv6_packet(17, kSrc6, kDst6, clfytest::udp_header(1, 2)), 0x86dd);
  EXPECT_STREQ(explain(rule.get(), p).why.text,
               "ip.saddr: packet is IPv6 (fe80::211:22ff:fe33:4455), rule wants 10.0.0.0/8");
}

TEST_F(ClfyExplain, DeviceMiss) {
  auto rule = parse("dev eth0");
  rule->dev_ifindex = 3;
  Packet p;
  tcp4(p, 1, 2);
  p.desc.dev_ifindex = 5;
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "dev");
  EXPECT_STREQ(e.why.text, "dev: packet has interface index 5, rule wants eth0 (index 3)");
}

TEST_F(ClfyExplain, UnresolvedDevice) {
  auto rule = parse("dev eth0");
  Packet p;
  tcp4(p, 1, 2);
  EXPECT_STREQ(explain(rule.get(), p).why.text, "dev: rule's interface eth0 (index -1) is not resolved");
}

TEST_F(ClfyExplain, VlanOnUntaggedPacket) {
  auto rule = parse("vlan.id 100");
  Packet p;
  tcp4(p, 1, 2);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "vlan.id");
  EXPECT_STREQ(e.why.text, "vlan.id: packet has no VLAN tag, rule wants 100");
}

TEST_F(ClfyExplain, VlanIdMiss) {
  auto rule = parse("vlan.id 100");
  Packet p;
  tcp4(p, 1, 2);
  p.desc.vlan_tci = NUV_CLFY_VLAN_TAG_PRESENT | 200;
  EXPECT_STREQ(explain(rule.get(), p).why.text, "vlan.id: packet has 200, rule wants 100");
}

TEST_F(ClfyExplain, TcpFlagsMiss) {
  auto rule = parse("tcp.flags 0x002/0x012");
  Packet p;
  tcp4(p, 1, 2, 0x012);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "tcp.flags");
  EXPECT_STREQ(e.why.text, "tcp.flags: packet has 0x012, rule wants 0x002/0x012");
}

TEST_F(ClfyExplain, EthernetSourceWithoutEthernetHeader) {
  auto rule = parse("eth.source 00:11:22:33:44:55");
  Packet p;
  p.set_ip(clfytest::ipv4_packet(6, kSrc4, kDst4, clfytest::tcp_header(1, 2, 0)), 0x0800);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "eth.source");
  EXPECT_STREQ(e.why.text, "eth.source: packet has no Ethernet header");
}

TEST_F(ClfyExplain, EthernetDestinationMiss) {
  auto rule = parse("eth.dest 00:11:22:33:44:55");
  Packet p;
  tcp4(p, 1, 2);
  EXPECT_STREQ(explain(rule.get(), p).why.text,
               "eth.dest: packet has 66:77:88:99:aa:bb, rule wants 00:11:22:33:44:55");
}

TEST_F(ClfyExplain, NonIpPacket) {
  auto rule = parse("tcp.dport 80");
  Packet p;
  p.set_ip(Bytes(28, 0), 0x0806);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "ip.proto");
  EXPECT_STREQ(e.why.text, "ip.proto: packet's Ethernet type 0x0806 is neither IPv4 nor IPv6");
}

TEST_F(ClfyExplain, PacketShorterThanItsIpHeader) {
  auto rule = parse("ip.version 4");
  Packet p;
  p.set_ip(Bytes{0x45, 0, 0, 20}, 0x0800);
  EXPECT_STREQ(explain(rule.get(), p).why.text, "ip.version: packet too short for its IP header");
}

TEST_F(ClfyExplain, TruncatedTransportHeader) {
  auto rule = parse("tcp.dport 80");
  Packet p;
  Bytes bytes = clfytest::ipv4_packet(6, kSrc4, kDst4, clfytest::tcp_header(1, 80, 0));
  bytes.resize(23);
  p.set_ip(bytes, 0x0800);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "tcp.dport");
  EXPECT_STREQ(e.why.text, "tcp.dport: packet ends before the bytes this condition reads");
}

TEST_F(ClfyExplain, IcmpTypeMiss) {
  auto rule = parse("icmp.type 134");
  Packet p;
  p.set_ip(clfytest::ipv6_packet(58, kSrc6, kDst6, Bytes{135, 0, 0, 0, 0, 0, 0, 0}), 0x86dd);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "icmp.type");
  EXPECT_STREQ(e.why.text, "icmp.type: packet has 135, rule wants 134");
}

TEST_F(ClfyExplain, PayloadPatternMiss) {
  auto rule = parse("udp.dport 53 packetmatch *hello*");
  Packet p;
  p.set_ip(clfytest::ipv4_packet(17, kSrc4, kDst4, clfytest::udp_header(1, 53, clfytest::text_bytes("bye"))),
           0x0800);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "packetmatch");
  EXPECT_STREQ(e.why.text, "packetmatch: payload does not match \"*hello*\"");
}

TEST_F(ClfyExplain, SourceTableMiss) {
  auto rule = parse("ethsrctab lan.known");
  Packet p;
  tcp4(p, 1, 2);
  const Explained e = explain(rule.get(), p);
  EXPECT_STREQ(e.why.keyword, "ethsrctab");
  EXPECT_STREQ(e.why.text, "ethsrctab: packet has 00:11:22:33:44:55, not in the rule's table");
}

TEST_F(ClfyExplain, RuleWithOnlyMeaninglessBitsBlamesNoKeyword) {
  auto rule = parse("any");
  rule->flags = 0x00000002u;
  Packet p;
  tcp4(p, 1, 2);
  const Explained e = explain(rule.get(), p);
  EXPECT_EQ(e.result, 0);
  EXPECT_STREQ(e.why.keyword, "");
  EXPECT_STREQ(e.why.text, "rule has no condition a packet could meet");
}

TEST_F(ClfyExplain, FirstFailedConditionIsNamed) {
  // Both the protocol and the address fail: the protocol is tested first.
  auto rule = parse("ip.saddr 10.0.0.0/8 udp.dport 53");
  Packet p;
  tcp4(p, 1, 53);
  EXPECT_STREQ(explain(rule.get(), p).why.keyword, "ip.proto");
}
