// Rule comparison under a mask of presence bits.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "nikerkiog.h"
#include "clfy_rule_builder.h"
#include "testsupport.h"

namespace {

using Rule = testsupport::ClfyRule;

constexpr uint32_t kAll = 0xffffffffu;

int cmp(const Rule &a, const Rule &b, uint32_t mask) { return nuv_clfy_cmp(a, b, mask); }

class ClfyCmp : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

const uint8_t kMacA[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t kMacB[6] = {0x00, 0x11, 0x22, 0x99, 0x44, 0x55};  // same OUI, other host part
const uint8_t kMacC[6] = {0x00, 0x11, 0x23, 0x33, 0x44, 0x55};  // other OUI

}  // namespace

// ---- Mask and presence ----

TEST_F(ClfyCmp, MaskZeroMakesAnyTwoRulesEqual) {
  Rule a, b;
  a.dev("eth0").proto(6).dport(NUV_CLFY_OP_EQ, 80).packetmatch("x");
  b.dev("eth1").proto(17).saddr4("10.0.0.1", "255.255.255.255").packetmatch("x");
  EXPECT_EQ(cmp(a, b, 0), 0);
}

TEST_F(ClfyCmp, RulesWithoutConditionsAreEqualUnderEveryMask) {
  Rule a, b;
  EXPECT_EQ(cmp(a, b, kAll), 0);
}

TEST_F(ClfyCmp, ConditionOnlyInTheFirstRuleSortsItFirst) {
  Rule a, b;
  a.dev("eth0");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_DEV), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_DEV), 1);
}

TEST_F(ClfyCmp, ConditionOutsideTheMaskIsNotCompared) {
  Rule a, b;
  a.dev("eth0").proto(6);
  b.dev("eth1").proto(6);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_PROTO), 0);
  EXPECT_LT(cmp(a, b, NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_DEV), 0);
}

TEST_F(ClfyCmp, EarlierConditionDecidesBeforeLaterOnes) {
  Rule a, b;
  a.dev("eth1").proto(6);
  b.dev("eth0").proto(17);
  EXPECT_GT(cmp(a, b, kAll), 0);  // by dev, though the protocol would say otherwise
}

TEST_F(ClfyCmp, BrdevTcpFlagsAndIcmpTypeAreNeverCompared) {
  Rule a, b;
  a.brdev("br0").tcp_flags(0x002, 0x0fff).icmp_type(128);
  b.brdev("br1").tcp_flags(0x010, 0x0ff0).icmp_type(129);
  Rule c;  // has none of them
  for (uint32_t mask : {kAll, NUV_CLFY_F_BRDEV, NUV_CLFY_F_TCP_FLAGS, NUV_CLFY_F_ICMP_TYPE,
                        NUV_CLFY_GROUP_IP, NUV_CLFY_GROUP_TRANSPORT}) {
    EXPECT_EQ(cmp(a, b, mask), 0) << std::hex << mask;
    EXPECT_EQ(cmp(a, c, mask), 0) << std::hex << mask;
  }
}

TEST_F(ClfyCmp, RandomRulesDifferingOnlyInUncomparedConditionsAreEqualUnderAnyMask) {
  std::mt19937 random(99);
  for (int round = 0; round < 2000; ++round) {
    Rule a, b;
    a.brdev(random() % 2 ? "br0" : "br1").tcp_flags(static_cast<uint16_t>(random() & 0xfff), 0xfff);
    b.icmp_type(static_cast<uint8_t>(random()));
    const uint32_t mask = static_cast<uint32_t>(random());
    ASSERT_EQ(cmp(a, b, mask), 0) << std::hex << mask;
  }
}

// ---- Interface, class map, Ethernet type ----

TEST_F(ClfyCmp, DevNamesCompareAsStrings) {
  Rule a, b, c;
  a.dev("eth0");
  b.dev("eth1");
  c.dev("eth0");
  EXPECT_LT(cmp(a, b, NUV_CLFY_F_DEV), 0);
  EXPECT_GT(cmp(b, a, NUV_CLFY_F_DEV), 0);
  EXPECT_EQ(cmp(a, c, NUV_CLFY_F_DEV), 0);
}

TEST_F(ClfyCmp, ClassMapsCompareByteByByte) {
  Rule a, b, c;
  a.localmark(5);
  b.localmark(4);
  c.localmark(5);
  EXPECT_LT(cmp(a, b, NUV_CLFY_F_LOCALMARK), 0);  // a's map has 0 where b's has 1 (byte 4)
  EXPECT_EQ(cmp(a, c, NUV_CLFY_F_LOCALMARK), 0);
}

TEST_F(ClfyCmp, EthernetTypesGiveTheirDifferenceInHostOrder) {
  Rule a, b;
  a.eth_proto(0x0800);
  b.eth_proto(0x86dd);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_ETH_PROTO), 0x0800 - 0x86dd);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_ETH_PROTO), 0x86dd - 0x0800);
}

// ---- Link layer ----

TEST_F(ClfyCmp, LinkLayerConditionsNeedALinkLayerBitInTheMask) {
  Rule a, b;
  a.ethsrctab("t1").eth_source(kMacA).vlan(NUV_CLFY_OP_EQ, 1).vlan_prio(3);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_DEV | NUV_CLFY_F_IP_PROTO), 0);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_VLAN_PRIO), -1);
}

TEST_F(ClfyCmp, SameEthernetSourceTableIsEqualAndDifferentTablesAreOrdered) {
  Rule a, b, c;
  a.ethsrctab("t1");
  b.ethsrctab("t1");
  c.ethsrctab("t2");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_ETHSRCTAB), 0);
  const int ac = cmp(a, c, NUV_CLFY_F_ETHSRCTAB);
  EXPECT_NE(ac, 0);
  EXPECT_EQ(cmp(c, a, NUV_CLFY_F_ETHSRCTAB) < 0, ac > 0);
}

TEST_F(ClfyCmp, FullSourceAddressesCompareAllSixBytes) {
  Rule a, b;
  a.eth_source(kMacA);
  b.eth_source(kMacB);
  EXPECT_LT(cmp(a, b, NUV_CLFY_F_ETH_SOURCE), 0);
  EXPECT_GT(cmp(b, a, NUV_CLFY_F_ETH_SOURCE), 0);
}

TEST_F(ClfyCmp, SourceOuiComparesTheFirstThreeBytesOnly) {
  Rule a, b, c;
  a.eth_sourceoui({0x00, 0x11, 0x22});
  std::memcpy(a->eth_source, kMacA, 6);  // bytes behind the OUI differ ...
  b.eth_sourceoui({0x00, 0x11, 0x22});
  std::memcpy(b->eth_source, kMacB, 6);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_ETH_SOURCEOUI), 0);  // ... and do not count
  c.eth_sourceoui({0x00, 0x11, 0x23});
  EXPECT_LT(cmp(a, c, NUV_CLFY_F_ETH_SOURCEOUI), 0);
}

TEST_F(ClfyCmp, FullAddressBitInTheMaskTakesPrecedenceOverTheOuiBit) {
  Rule a, b;
  a.eth_sourceoui({0x00, 0x11, 0x22});
  b.eth_sourceoui({0x00, 0x11, 0x22});
  // Neither has a full address, so under both bits only that absence is compared.
  std::memcpy(b->eth_source, kMacB, 6);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_ETH_SOURCE | NUV_CLFY_F_ETH_SOURCEOUI), 0);
  Rule c;
  c.eth_source(kMacC);
  EXPECT_EQ(cmp(a, c, NUV_CLFY_F_ETH_SOURCE | NUV_CLFY_F_ETH_SOURCEOUI), 1);
  EXPECT_EQ(cmp(a, c, NUV_CLFY_F_ETH_SOURCEOUI), -1);
}

TEST_F(ClfyCmp, DestinationAddressesCompareLikeSourceAddresses) {
  Rule a, b, c, d;
  a.eth_dest(kMacA);
  b.eth_dest(kMacB);
  EXPECT_LT(cmp(a, b, NUV_CLFY_F_ETH_DEST), 0);
  c.eth_destoui({0x00, 0x11, 0x22});
  std::memcpy(c->eth_dest, kMacA, 6);
  d.eth_destoui({0x00, 0x11, 0x22});
  std::memcpy(d->eth_dest, kMacB, 6);
  EXPECT_EQ(cmp(c, d, NUV_CLFY_F_ETH_DESTOUI), 0);
  // Under the full-address bit alone neither rule has that condition.
  EXPECT_EQ(cmp(c, d, NUV_CLFY_F_ETH_DEST), 0);
}

TEST_F(ClfyCmp, VlanListsAreTestedForIdentityOnly) {
  Rule a, b, c;
  a.vlan(NUV_CLFY_OP_EQ, 10).vlan(NUV_CLFY_OP_RANGE, 20, 30);
  b.vlan(NUV_CLFY_OP_EQ, 10).vlan(NUV_CLFY_OP_RANGE, 20, 30);
  c.vlan(NUV_CLFY_OP_EQ, 11).vlan(NUV_CLFY_OP_RANGE, 20, 30);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_VLAN_ID), 0);
  EXPECT_EQ(cmp(a, c, NUV_CLFY_F_VLAN_ID), -1);
  EXPECT_EQ(cmp(c, a, NUV_CLFY_F_VLAN_ID), -1);  // never 1
}

TEST_F(ClfyCmp, VlanPriorityGivesTheDifference) {
  Rule a, b;
  a.vlan_prio(2);
  b.vlan_prio(7);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_VLAN_PRIO), -5);
}

TEST_F(ClfyCmp, MaskOfOnlyLinkLayerBitsStopsAfterTheLinkLayer) {
  Rule a, b;
  a.eth_source(kMacA).proto(6).saddr4("10.0.0.1", "255.255.255.255").dport(NUV_CLFY_OP_EQ, 80).packetmatch("x");
  b.eth_source(kMacA).proto(17).daddr6("2001:db8::1", 128).packetmatch("x");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_GROUP_LINK), 0);
}

// ---- IP ----

TEST_F(ClfyCmp, IpVersionGivesTheDifference) {
  Rule a, b;
  a.ip_version(4);
  b.ip_version(6);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_VERSION), -2);
}

TEST_F(ClfyCmp, AnyProtocolSortsBeforeASpecificOne) {
  Rule a, b;
  a.proto(255);
  b.proto(6);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_PROTO), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_IP_PROTO), 1);
}

TEST_F(ClfyCmp, SpecificProtocolsGiveTheirDifference) {
  Rule a, b, c;
  a.proto(6);
  b.proto(17);
  c.proto(6);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_PROTO), -11);
  EXPECT_EQ(cmp(a, c, NUV_CLFY_F_IP_PROTO), 0);
}

TEST_F(ClfyCmp, TosValuesEqualAfterMaskingAreEqual) {
  Rule a, b;
  a.tos(0xb9, 0xfc);
  b.tos(0xb8, 0xfc);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_TOS), 0);
}

TEST_F(ClfyCmp, TosWithTheSmallerMaskSortsFirst) {
  Rule a, b;
  a.tos(0x10, 0xf0);
  b.tos(0x20, 0xfc);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_TOS), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_IP_TOS), 1);
}

TEST_F(ClfyCmp, TosUnderEqualMasksOrdersByMaskedValue) {
  Rule a, b;
  a.tos(0x20, 0xfc);
  b.tos(0x10, 0xfc);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_TOS), 1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_IP_TOS), -1);
}

TEST_F(ClfyCmp, LengthOperatorsThatDifferGiveTheSecondMinusTheFirst) {
  Rule a, b;
  a.len(NUV_CLFY_OP_LT, 100);
  b.len(NUV_CLFY_OP_GT, 100);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_LEN), 2);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_IP_LEN), -2);
}

TEST_F(ClfyCmp, LengthsWithEqualOperatorsGiveTheFirstValuesDifference) {
  Rule a, b;
  a.len(NUV_CLFY_OP_GE, 100);
  b.len(NUV_CLFY_OP_GE, 1500);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_LEN), -1400);
}

TEST_F(ClfyCmp, LengthRangesWithEqualStartsGiveTheEndsDifference) {
  Rule a, b;
  a.len(NUV_CLFY_OP_RANGE, 100, 300);
  b.len(NUV_CLFY_OP_RANGE, 100, 200);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_LEN), 100);
}

TEST_F(ClfyCmp, LengthSecondValueCountsOnlyForRanges) {
  Rule a, b;
  a.len(NUV_CLFY_OP_EQ, 100, 1);
  b.len(NUV_CLFY_OP_EQ, 100, 2);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_LEN), 0);
}

TEST_F(ClfyCmp, AddressesOfDifferentFamiliesGiveMinusOneEitherWay) {
  Rule a, b;
  a.saddr4("10.0.0.1", "255.255.255.255");
  b.saddr6("2001:db8::1", 128);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_SADDR), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_IP_SADDR), -1);
}

TEST_F(ClfyCmp, Ipv4AddressesEqualUnderTheirMasksAreEqual) {
  Rule a, b;
  a.saddr4("10.1.2.3", "255.0.0.0");
  b.saddr4("10.9.9.9", "255.0.0.0");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_SADDR), 0);
}

TEST_F(ClfyCmp, Ipv4AddressWithTheShorterPrefixSortsFirst) {
  // Contiguous masks order the same whatever the byte order of the host.
  Rule a, b;
  a.saddr4("10.0.0.0", "255.0.0.0");
  b.saddr4("192.168.0.0", "255.255.0.0");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_SADDR), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_IP_SADDR), 1);
}

TEST_F(ClfyCmp, Ipv4AddressesUnderEqualMasksOrderAsStoredNumbers) {
  Rule a, b;
  a.daddr4("10.0.0.2", "255.255.255.255");
  b.daddr4("11.0.0.1", "255.255.255.255");
  // The order is that of the 32-bit values as held in memory (network-order
  // bytes read in the host's order).
  uint32_t va, vb;
  std::memcpy(&va, &a->ip_daddr.v4.addr, 4);
  std::memcpy(&vb, &b->ip_daddr.v4.addr, 4);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_DADDR), va < vb ? -1 : 1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_IP_DADDR), vb < va ? -1 : 1);
}

TEST_F(ClfyCmp, Ipv6AddressesWithDifferentPrefixLengthsAreEqual) {
  Rule a, b;
  a.saddr6("2001:db8::", 32);
  b.saddr6("2001:db8::", 64);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_SADDR), 0);
}

TEST_F(ClfyCmp, Ipv6AddressesCompareByteByByte) {
  Rule a, b;
  a.daddr6("2001:db8::1", 128);
  b.daddr6("2001:db8::2", 128);
  EXPECT_LT(cmp(a, b, NUV_CLFY_F_IP_DADDR), 0);
  EXPECT_GT(cmp(b, a, NUV_CLFY_F_IP_DADDR), 0);
}

TEST_F(ClfyCmp, AddressesOfAnUnknownFamilyAreNeverEqual) {
  Rule a, b;
  a->flags |= NUV_CLFY_F_IP_SADDR;
  b->flags |= NUV_CLFY_F_IP_SADDR;
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_SADDR), -1);
}

TEST_F(ClfyCmp, SameDestinationTableIsEqual) {
  Rule a, b, c;
  a.ipdsttab("d1");
  b.ipdsttab("d1");
  c.ipdsttab("d2");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IPDSTTAB), 0);
  EXPECT_NE(cmp(a, c, NUV_CLFY_F_IPDSTTAB), 0);
}

TEST_F(ClfyCmp, MaskWithoutComparedIpBitsStopsBeforeTheIpLayer) {
  Rule a, b;
  a.proto(6).dport(NUV_CLFY_OP_EQ, 80);
  b.proto(17);
  // icmp.type alone is not one of the compared IP conditions.
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_ICMP_TYPE | NUV_CLFY_F_DEV), 0);
}

// ---- Transport ----

TEST_F(ClfyCmp, MaskWithoutTransportBitsStopsBeforeThePorts) {
  Rule a, b;
  a.proto(6).dport(NUV_CLFY_OP_EQ, 80).packetmatch("x");
  b.proto(6).dport(NUV_CLFY_OP_EQ, 81).packetmatch("x");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_VERSION), 0);
}

TEST_F(ClfyCmp, PortListsAreTestedForIdentityOnly) {
  Rule a, b, c;
  a.sport(NUV_CLFY_OP_EQ, 80).dport(NUV_CLFY_OP_RANGE, 1, 2);
  b.sport(NUV_CLFY_OP_EQ, 80).dport(NUV_CLFY_OP_RANGE, 1, 2);
  c.sport(NUV_CLFY_OP_EQ, 81).dport(NUV_CLFY_OP_RANGE, 1, 3);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_SPORTS | NUV_CLFY_F_DPORTS), 0);
  EXPECT_EQ(cmp(a, c, NUV_CLFY_F_SPORTS), -1);
  EXPECT_EQ(cmp(c, a, NUV_CLFY_F_SPORTS), -1);
  EXPECT_EQ(cmp(c, a, NUV_CLFY_F_DPORTS), -1);
}

TEST_F(ClfyCmp, PortListsInADifferentOrderDiffer) {
  Rule a, b;
  a.dport(NUV_CLFY_OP_EQ, 80).dport(NUV_CLFY_OP_EQ, 443);
  b.dport(NUV_CLFY_OP_EQ, 443).dport(NUV_CLFY_OP_EQ, 80);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_DPORTS), -1);
}

TEST_F(ClfyCmp, PortListsOfDifferentLengthsDiffer) {
  Rule a, b;
  a.dport(NUV_CLFY_OP_EQ, 80);
  b.dport(NUV_CLFY_OP_EQ, 80).dport(NUV_CLFY_OP_EQ, 80);
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_DPORTS), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_DPORTS), -1);
}

TEST_F(ClfyCmp, EqualDhcpConditionsAreEqual) {
  Rule a, b;
  a.dhcp(60, 0, 0, "MSFT*", "clients");
  b.dhcp(60, 0, 0, "MSFT*", "clients");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_DHCP), 0);
}

TEST_F(ClfyCmp, DhcpConditionsOrderByCodeThenEnterpriseThenSubCode) {
  Rule a, b, c, d;
  a.dhcp(60, 0, 0, "x", "t");
  b.dhcp(61, 0, 0, "x", "t");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_DHCP), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_DHCP), 1);
  c.dhcp(125, 0xffffffffu, 1, "x", "t");
  d.dhcp(125, 1, 9, "x", "t");
  EXPECT_EQ(cmp(c, d, NUV_CLFY_F_DHCP), 1);  // enterprise numbers are unsigned
  Rule e, f;
  e.dhcp(125, 3561, 1, "x", "t");
  f.dhcp(125, 3561, 2, "x", "t");
  EXPECT_EQ(cmp(e, f, NUV_CLFY_F_DHCP), -1);
}

TEST_F(ClfyCmp, DhcpConditionsWithDifferentTablesDiffer) {
  Rule a, b;
  a.dhcp(60, 0, 0, "x", "t1");
  b.dhcp(60, 0, 0, "x", "t2");
  EXPECT_NE(cmp(a, b, NUV_CLFY_F_DHCP), 0);
}

TEST_F(ClfyCmp, DhcpPatternsCompareAsStrings) {
  Rule a, b;
  a.dhcp(60, 0, 0, "abc", "t");
  b.dhcp(60, 0, 0, "abd", "t");
  EXPECT_LT(cmp(a, b, NUV_CLFY_F_DHCP), 0);
  EXPECT_GT(cmp(b, a, NUV_CLFY_F_DHCP), 0);
}

TEST_F(ClfyCmp, DhcpConditionsAlsoNeedIdenticalDestinationPorts) {
  Rule a, b;
  a.dport(NUV_CLFY_OP_EQ, 68).dhcp(60, 0, 0, "x", "t");
  b.dhcp(60, 0, 0, "x", "t");
  // The destination port bit is not in the mask, yet the port lists differ.
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_DHCP), -1);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_DHCP), -1);
}

TEST_F(ClfyCmp, EqualPacketmatchPatternsGiveOne) {
  Rule a, b;
  a.packetmatch("*GET*");
  b.packetmatch("*GET*");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_PACKETMATCH), 1);
}

TEST_F(ClfyCmp, DifferentPacketmatchPatternsGiveZero) {
  Rule a, b;
  a.packetmatch("*GET*");
  b.packetmatch("*PUT*");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_PACKETMATCH), 0);
}

TEST_F(ClfyCmp, PacketmatchMissingInEitherRuleGivesZero) {
  Rule a, b;
  a.packetmatch("*GET*");
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_PACKETMATCH), 0);
  EXPECT_EQ(cmp(b, a, NUV_CLFY_F_PACKETMATCH), 0);
}

TEST_F(ClfyCmp, PacketmatchIgnoresThePresenceBits) {
  Rule a, b;
  a.packetmatch("same");
  b.packetmatch("same");
  b->flags &= ~NUV_CLFY_F_PACKETMATCH;
  EXPECT_EQ(cmp(a, b, NUV_CLFY_F_PACKETMATCH), 1);
}

// ---- Against a plain reference ----

namespace {

// A straightforward rendering of the comparison order, for random rules.
// Table rows are only compared by sign, since their magnitude is free.
struct RefResult {
  int value;
  bool sign_only;
};

RefResult reference_cmp(const nuv_clfy *a, const nuv_clfy *b, uint32_t mask) {
  auto presence = [&](uint32_t bit, int *out) -> int {  // 1: decided, 0: go on, 2: compare values
    const bool x = a->flags & bit, y = b->flags & bit;
    if (x && !y) return *out = -1, 1;
    if (y && !x) return *out = 1, 1;
    return (x && y) ? 2 : 0;
  };
  auto lists_same = [](const nuv_clfy_valuelist &x, const nuv_clfy_valuelist &y) {
    if (x.count != y.count) return false;
    for (uint32_t i = 0; i < x.count; ++i) {
      if (x.entries[i].op != y.entries[i].op || x.entries[i].value1 != y.entries[i].value1) return false;
      if (x.entries[i].op == 7 && x.entries[i].value2 != y.entries[i].value2) return false;
    }
    return true;
  };
  auto masked = [](uint32_t va, uint32_t ma, uint32_t vb, uint32_t mb) {
    if ((va & ma) == (vb & mb)) return 0;
    if (ma != mb) return ma < mb ? -1 : 1;
    return (va & ma) < (vb & mb) ? -1 : 1;
  };
  auto ptr = [](const void *x, const void *y) {
    return x == y ? 0 : (reinterpret_cast<uintptr_t>(x) < reinterpret_cast<uintptr_t>(y) ? -1 : 1);
  };
  auto addr = [&](uint8_t fa, const nuv_clfy_ipaddr &x, uint8_t fb, const nuv_clfy_ipaddr &y) {
    if (fa != fb) return -1;
    if (fa == 4) {
      uint32_t xa, xm, ya, ym;
      std::memcpy(&xa, x.v6, 4);
      std::memcpy(&xm, x.v6 + 4, 4);
      std::memcpy(&ya, y.v6, 4);
      std::memcpy(&ym, y.v6 + 4, 4);
      return masked(xa, xm, ya, ym);
    }
    if (fa == 6) return std::memcmp(x.v6, y.v6, 16);
    return -1;
  };
  int out = 0;
  int p;
#define ROW(bit, expr, sign)                   \
  if (mask & (bit)) {                          \
    p = presence(bit, &out);                   \
    if (p == 1) return {out, false};           \
    if (p == 2) {                              \
      const int r = (expr);                    \
      if (r) return {r, sign};                 \
    }                                          \
  }
  ROW(0x1u, std::strcmp(a->dev, b->dev), true)
  ROW(0x10u, std::memcmp(a->localmark, b->localmark, 128), true)
  ROW(0x20u, int(ntohs(a->eth_proto)) - int(ntohs(b->eth_proto)), false)
  if (mask & 0xff00u) {
    ROW(0x4000u, ptr(a->ethsrctab, b->ethsrctab), true)
    if (mask & 0x100u) {
      ROW(0x100u, std::memcmp(a->eth_source, b->eth_source, 6), true)
    } else {
      ROW(0x400u, std::memcmp(a->eth_source, b->eth_source, 3), true)
    }
    if (mask & 0x200u) {
      ROW(0x200u, std::memcmp(a->eth_dest, b->eth_dest, 6), true)
    } else {
      ROW(0x800u, std::memcmp(a->eth_dest, b->eth_dest, 3), true)
    }
    ROW(0x1000u, lists_same(a->vlan_ids, b->vlan_ids) ? 0 : -1, false)
    ROW(0x2000u, int(a->vlan_prio) - int(b->vlan_prio), false)
  }
  if (!(mask & 0x1bff0000u)) return {0, false};
  ROW(0x10000u, int(a->ip_version) - int(b->ip_version), false)
  ROW(0x20000u,
      a->ip_proto == b->ip_proto ? 0 : a->ip_proto == 255 ? -1 : b->ip_proto == 255 ? 1 : int(a->ip_proto) - int(b->ip_proto),
      false)
  ROW(0x40000u, masked(a->ip_tos, a->ip_tos_mask, b->ip_tos, b->ip_tos_mask), false)
  ROW(0x1000000u,
      a->ip_len.op != b->ip_len.op ? int(b->ip_len.op) - int(a->ip_len.op)
      : a->ip_len.value1 != b->ip_len.value1 ? int(a->ip_len.value1) - int(b->ip_len.value1)
      : a->ip_len.op == 7 ? int(a->ip_len.value2) - int(b->ip_len.value2)
                          : 0,
      false)
  ROW(0x80000u, addr(a->ip_saddr_family, a->ip_saddr, b->ip_saddr_family, b->ip_saddr), true)
  ROW(0x100000u, addr(a->ip_daddr_family, a->ip_daddr, b->ip_daddr_family, b->ip_daddr), true)
  ROW(0x10000000u, ptr(a->ipdsttab, b->ipdsttab), true)
  if (!(mask & 0x0ae00000u)) return {0, false};
  ROW(0x200000u, lists_same(a->sports, b->sports) ? 0 : -1, false)
  ROW(0x400000u, lists_same(a->dports, b->dports) ? 0 : -1, false)
  if (mask & 0x800000u) {
    p = presence(0x800000u, &out);
    if (p == 1) return {out, false};
    if (p == 2) {
      const nuv_clfy_dhcp &x = *a->dhcp, &y = *b->dhcp;
      if (x.code != y.code) return {x.code < y.code ? -1 : 1, false};
      if (x.enterprise != y.enterprise) return {x.enterprise < y.enterprise ? -1 : 1, false};
      if (x.sub != y.sub) return {x.sub < y.sub ? -1 : 1, false};
      if (x.ethsrctab != y.ethsrctab) return {ptr(x.ethsrctab, y.ethsrctab), true};
      if (int r = std::strcmp(x.pattern, y.pattern)) return {r, true};
      if (!lists_same(a->dports, b->dports)) return {-1, false};
    }
  }
#undef ROW
  if (!(mask & 0x2000000u)) return {0, false};
  if (!a->packetmatch || !b->packetmatch) return {0, false};
  return {std::strcmp(a->packetmatch, b->packetmatch) == 0 ? 1 : 0, false};
}

int sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

TEST_F(ClfyCmp, RandomRulesCompareLikeAPlainReference) {
  std::mt19937 random(314159);
  const uint32_t interesting[] = {0xffffffffu, 0x00000021u, 0x00020021u, 0x01020021u, 0x001a0021u,
                                  0x00120021u, 0x000a0021u, 0x0000ff00u, 0x00800000u, 0x02000000u};
  for (int round = 0; round < 20000; ++round) {
    Rule a, b;
    testsupport::randomise_rule(a, random);
    if (random() % 4 == 0) {
      // Same conditions in b, so that deeper rows get compared.
      b.owned = testsupport::clone_clfy_rule(a);
      if (random() % 2) testsupport::randomise_rule(b, random);
    } else {
      testsupport::randomise_rule(b, random);
    }
    const uint32_t mask = random() % 2 ? interesting[random() % 10] : static_cast<uint32_t>(random());
    const RefResult expected = reference_cmp(a, b, mask);
    const int got = nuv_clfy_cmp(a, b, mask);
    if (expected.sign_only) {
      ASSERT_EQ(sign(got), sign(expected.value)) << "round " << round << " mask " << std::hex << mask;
    } else {
      ASSERT_EQ(got, expected.value) << "round " << round << " mask " << std::hex << mask;
    }
  }
}
