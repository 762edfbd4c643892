// Rule text parser: keywords, values, separators and refusals.
#include <gtest/gtest.h>

#include <string>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using clfytest::parse;
using clfytest::parse_result;

namespace {

using clfytest::net16;

void expect_entry(const nuv_clfy_valuelist &list, std::uint32_t i, std::uint32_t op, std::uint16_t v1,
                  std::uint16_t v2 = 0) {
  ASSERT_LT(i, list.count);
  EXPECT_EQ(list.entries[i].op, op) << "entry " << i;
  EXPECT_EQ(list.entries[i].value1, v1) << "entry " << i;
  EXPECT_EQ(list.entries[i].value2, v2) << "entry " << i;
}

class ClfyParse : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

// ---- Whole lines ----

TEST_F(ClfyParse, EmptyLineMatchesEverything) {
  auto rule = parse("");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, 0u);
}

TEST_F(ClfyParse, LineOfSpacesMatchesEverything) {
  auto rule = parse("     ");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, 0u);
}

TEST_F(ClfyParse, AnyAloneHasNoConditions) {
  auto rule = parse("any");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, 0u);
  EXPECT_EQ(rule->ip_proto, 255);
}

TEST_F(ClfyParse, AnyBeforeDevIsTheSameAsDevAlone) {
  auto with_any = parse("any dev eth0");
  auto without = parse("dev eth0");
  ASSERT_TRUE(with_any && without);
  EXPECT_EQ(with_any->flags, without->flags);
  EXPECT_STREQ(with_any->dev, "eth0");
  EXPECT_EQ(nuv_clfy_cmp(with_any.get(), without.get(), 0xffffffffu), 0);
}

TEST_F(ClfyParse, LineOf255CharactersIsParsed) {
  std::string line = "dev eth0";
  line.append(255 - line.size(), ' ');
  ASSERT_EQ(line.size(), 255u);
  EXPECT_EQ(parse_result(line), NUV_CLFY_E_OK);
}

TEST_F(ClfyParse, LineOf256CharactersIsRefused) {
  std::string line = "dev eth0";
  line.append(256 - line.size(), ' ');
  EXPECT_EQ(parse_result(line), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, VeryLongLineIsRefused) {
  testsupport::NoLeakGuard guard;
  EXPECT_EQ(parse_result(std::string(100000, 'a')), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, UnknownKeywordIsRefused) { EXPECT_EQ(parse_result("dev eth0 ip.bogus 5"), NUV_CLFY_E_REFUSED); }

TEST_F(ClfyParse, WordDifferingFromAKeywordOnlyInsideIsRefused) {
  // Same length, first and last characters as ip.saddr and udp.sport.
  EXPECT_EQ(parse_result("ip.sxddr 10.0.0.1"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("udp.xport 53"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, KeywordCutShortOrLengthenedIsRefused) {
  EXPECT_EQ(parse_result("tcp.dpor 80"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("tcp.dportt 80"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("ip.saddrs 10.0.0.1"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, UpperCaseKeywordIsRefused) {
  EXPECT_EQ(parse_result("DEV eth0"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("Ip.proto tcp"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, LineStartingWithDigitIsRefused) { EXPECT_EQ(parse_result("80"), NUV_CLFY_E_REFUSED); }

TEST_F(ClfyParse, TabIsNoSeparator) {
  // The keyword ends at the tab, but the value runs to the next space.
  auto tabbed = parse("dev\teth0");
  ASSERT_TRUE(tabbed);
  EXPECT_STREQ(tabbed->dev, "\teth0");
  EXPECT_EQ(parse_result("\tdev eth0"), NUV_CLFY_E_REFUSED);
  auto named = parse("dev eth0\tx");
  ASSERT_TRUE(named);
  EXPECT_STREQ(named->dev, "eth0\tx");
}

TEST_F(ClfyParse, KeywordNeedsNoBlankBehindAStoppingValue) {
  // ip.version stops behind the digit; the next keyword follows directly.
  auto rule = parse("ip.version 4ip.proto udp");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_version, 4);
  EXPECT_EQ(rule->ip_proto, 17);
}

TEST_F(ClfyParse, EveryRuleGetsAFreshId) {
  auto a = parse("any");
  auto b = parse("any");
  ASSERT_TRUE(a && b);
  EXPECT_EQ(b->id, a->id + 1);
}

TEST_F(ClfyParse, RefusedRuleLeavesResultUntouched) {
  nuv_clfy *sentinel = reinterpret_cast<nuv_clfy *>(0x1234);
  nuv_clfy *result = sentinel;
  EXPECT_EQ(nuv_clfy_parse("dev eth0 nonsense", &result), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(result, sentinel);
}

TEST_F(ClfyParse, RefusedRuleLeaksNothing) {
  testsupport::NoLeakGuard guard;
  EXPECT_EQ(parse_result("dev eth0 localmark voice tcp.dport 80,443 packetmatch x* ip.version 5"), NUV_CLFY_E_REFUSED);
}

// ---- The keyword table ----

TEST_F(ClfyParse, KeywordTableListsEveryKeywordOnceInOrder) {
  const char *expected[] = {"dev",        "brdev",     "ethport",    "localmark",   "eth.proto",  "eth.source",
                            "eth.sourceoui", "eth.dest", "eth.destoui", "vlan.id",   "vlan.prio",  "ethsrctab",
                            "ip.version", "ip.proto",  "ip.protocol", "ip.tos",      "ip.saddr",   "ip.source",
                            "ip.daddr",   "ipdsttab",  "ip.dest",     "ip.len",      "udp.source", "udp.sport",
                            "udp.dest",   "udp.dport", "tcp.source",  "tcp.sport",   "tcp.dest",   "tcp.dport",
                            "tcp.flags",  "icmp.type", "dhcpoption",  "dhcpheader",  "packetmatch", "any"};
  std::size_t n = 0;
  for (const nuv_clfy_keyword *row = parsetab; row->keyword; ++row, ++n) {
    ASSERT_LT(n, std::size(expected));
    EXPECT_STREQ(row->keyword, expected[n]);
    EXPECT_NE(row->handler, nullptr);
  }
  EXPECT_EQ(n, std::size(expected));
}

TEST_F(ClfyParse, HandlerCanBeCalledThroughTheTable) {
  auto rule = parse("any");
  ASSERT_TRUE(rule);
  char value[] = " eth3 rest";
  char *end = value;
  const nuv_clfy_keyword *dev = &parsetab[0];
  ASSERT_STREQ(dev->keyword, "dev");
  EXPECT_EQ(dev->handler(value, &end, rule.get()), NUV_CLFY_E_OK);
  EXPECT_STREQ(rule->dev, "eth3");
  EXPECT_STREQ(end, "rest");
}

// ---- Interfaces ----

TEST_F(ClfyParse, DevStoresNameAndUnresolvedIndex) {
  auto rule = parse("dev = eth0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_DEV);
  EXPECT_STREQ(rule->dev, "eth0");
  EXPECT_EQ(rule->dev_ifindex, -1);
}

TEST_F(ClfyParse, DevNameIsCutAt16Characters) {
  auto rule = parse("dev abcdefghijklmnopqrstuvwxyz");
  ASSERT_TRUE(rule);
  EXPECT_STREQ(rule->dev, "abcdefghijklmnop");
}

TEST_F(ClfyParse, BrdevStoresNameAndUnresolvedIndex) {
  auto rule = parse("brdev==br0 dev lan1");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_BRDEV | NUV_CLFY_F_DEV);
  EXPECT_STREQ(rule->brdev, "br0");
  EXPECT_EQ(rule->brdev_ifindex, -1);
  EXPECT_STREQ(rule->dev, "lan1");
}

TEST_F(ClfyParse, EthportIsAcceptedAndIgnored) {
  auto rule = parse("ethport = 3 dev eth0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_DEV);
}

// ---- Local mark ----

TEST_F(ClfyParse, LocalmarkSetsOneMapByteEachClass) {
  auto rule = parse("localmark voice,video,12");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_LOCALMARK);
  ASSERT_NE(rule->localmark, nullptr);
  int set = 0;
  for (int i = 0; i < 128; ++i) set += rule->localmark[i] != 0;
  EXPECT_EQ(set, 3);
  EXPECT_EQ(rule->localmark[tcclass_name2value("voice")], 1);
  EXPECT_EQ(rule->localmark[tcclass_name2value("video")], 1);
  EXPECT_EQ(rule->localmark[12], 1);
}

TEST_F(ClfyParse, LocalmarkUnknownNameSelectsWhatThePlatformAnswers) {
  // The platform answers -1 for an unknown name; its low 7 bits select class 127.
  ASSERT_EQ(tcclass_name2value("nosuchclass"), -1);
  auto rule = parse("localmark nosuchclass");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->localmark[127], 1);
}

TEST_F(ClfyParse, LocalmarkMapAllocationFailureRefusesRule) {
  testsupport::NoLeakGuard guard;
  // Allocation 1 is the rule, allocation 2 the class map.
  nuvcsock_fail_nth_allocation(2);
  EXPECT_EQ(parse_result("localmark voice"), NUV_CLFY_E_REFUSED);
}

// ---- Link layer ----

TEST_F(ClfyParse, EthProtoIsStoredInNetworkOrder) {
  auto rule = parse("eth.proto 0x0806");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_ETH_PROTO);
  EXPECT_EQ(rule->eth_proto, net16(0x0806));
}

TEST_F(ClfyParse, EthSourceWithAndWithoutColonsIsEqual) {
  auto colons = parse("eth.source 00:11:22:33:44:55");
  auto bare = parse("eth.source 001122334455");
  ASSERT_TRUE(colons && bare);
  const std::uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  EXPECT_EQ(std::memcmp(colons->eth_source, mac, 6), 0);
  EXPECT_EQ(std::memcmp(bare->eth_source, mac, 6), 0);
  EXPECT_EQ(colons->flags, NUV_CLFY_F_ETH_SOURCE);
  EXPECT_EQ(nuv_clfy_cmp(colons.get(), bare.get(), 0xffffffffu), 0);
}

TEST_F(ClfyParse, EthSourceOuiKeepsThreeBytes) {
  auto rule = parse("eth.sourceoui = 00:1a:2b");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_ETH_SOURCEOUI);
  const std::uint8_t oui[3] = {0x00, 0x1a, 0x2b};
  EXPECT_EQ(std::memcmp(rule->eth_source, oui, 3), 0);
}

TEST_F(ClfyParse, EthDestAndDestOui) {
  auto dest = parse("eth.dest ff:ff:ff:ff:ff:ff");
  auto oui = parse("eth.destoui 01:00:5e");
  ASSERT_TRUE(dest && oui);
  EXPECT_EQ(dest->flags, NUV_CLFY_F_ETH_DEST);
  EXPECT_EQ(dest->eth_dest[5], 0xff);
  EXPECT_EQ(oui->flags, NUV_CLFY_F_ETH_DESTOUI);
  EXPECT_EQ(oui->eth_dest[0], 0x01);
  EXPECT_EQ(oui->eth_dest[2], 0x5e);
}

TEST_F(ClfyParse, MalformedMacIsRefused) { EXPECT_EQ(parse_result("eth.source 0:11:22:33:44:55"), NUV_CLFY_E_REFUSED); }

TEST_F(ClfyParse, VlanIdListWithOperators) {
  auto rule = parse("vlan.id 10,<5,100-200");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_VLAN_ID);
  ASSERT_EQ(rule->vlan_ids.count, 3u);
  expect_entry(rule->vlan_ids, 0, NUV_CLFY_OP_EQ, 10);
  expect_entry(rule->vlan_ids, 1, NUV_CLFY_OP_LT, 5);
  expect_entry(rule->vlan_ids, 2, NUV_CLFY_OP_RANGE, 100, 200);
}

TEST_F(ClfyParse, VlanPrioTakesAnyByte) {
  auto rule = parse("vlan.prio 9");  // no range check
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_VLAN_PRIO);
  EXPECT_EQ(rule->vlan_prio, 9);
}

TEST_F(ClfyParse, EthsrctabFindsOrCreatesTheTable) {
  auto rule = parse("ethsrctab known.hosts dev eth0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_ETHSRCTAB | NUV_CLFY_F_DEV);
  EXPECT_EQ(rule->ethsrctab, nuv_clfy_ethersrctab_find("known.hosts"));
  auto again = parse("ethsrctab known.hosts");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->ethsrctab, rule->ethsrctab);
}

TEST_F(ClfyParse, EthsrctabCreationFailureRefusesRule) {
  nuvcsock_fail_nth_allocation(2);
  EXPECT_EQ(parse_result("ethsrctab t1"), NUV_CLFY_E_REFUSED);
  nuvcsock_fail_nth_allocation(0);
}

// ---- IP ----

TEST_F(ClfyParse, IpVersion5IsRefused) { EXPECT_EQ(parse_result("ip.version 5"), NUV_CLFY_E_REFUSED); }

TEST_F(ClfyParse, IpVersionWithEqualsIsAccepted) {
  auto six = parse("ip.version=6");
  auto four = parse("ip.version == 4");
  ASSERT_TRUE(six && four);
  EXPECT_EQ(six->ip_version, 6);
  EXPECT_EQ(four->ip_version, 4);
  // The IP version alone says nothing about the address family.
  EXPECT_EQ(six->flags, NUV_CLFY_F_IP_VERSION);
}

TEST_F(ClfyParse, IpProtoByName) {
  auto rule = parse("ip.proto tcp");
  auto alias = parse("ip.protocol UDP");
  ASSERT_TRUE(rule && alias);
  EXPECT_EQ(rule->ip_proto, 6);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_IP_PROTO);
  EXPECT_EQ(alias->ip_proto, 17);
}

TEST_F(ClfyParse, IpProtoBareNumberIsRefused) {
  // Protocol numbers are written "P6"; a bare number is no protocol name.
  EXPECT_EQ(parse_result("ip.proto 6"), NUV_CLFY_E_REFUSED);
  auto rule = parse("ip.proto P6");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_proto, 6);
}

TEST_F(ClfyParse, IpProtoTakesOneNameAndContinuesBehindTheComma) {
  auto rule = parse("ip.proto tcp,dev eth0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_proto, 6);
  EXPECT_STREQ(rule->dev, "eth0");
  // The second protocol is read as a keyword, and "udp" is none.
  EXPECT_EQ(parse_result("ip.proto tcp,udp"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, IpTosDefaultMask) {
  auto rule = parse("ip.tos 0x28");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_IP_TOS);
  EXPECT_EQ(rule->ip_tos, 0x28);
  EXPECT_EQ(rule->ip_tos_mask, 0xfc);
}

TEST_F(ClfyParse, IpTosMaskWithSlashOrBlank) {
  auto slash = parse("ip.tos 0x20/0xe0");
  auto blank = parse("ip.tos 0x20 0xe0");
  ASSERT_TRUE(slash && blank);
  EXPECT_EQ(slash->ip_tos_mask, 0xe0);
  EXPECT_EQ(blank->ip_tos_mask, 0xe0);
  EXPECT_EQ(blank->ip_tos, 0x20);
}

TEST_F(ClfyParse, IpSaddrWithPrefixLengthKeepsAddressBitsUntilOptimised) {
  // The parser stores 10.0.0.1 with mask /24; the final normalisation reduces
  // the address by its mask.
  auto rule = parse("ip.saddr 10.0.0.1/24");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_saddr_family, 4);
  EXPECT_EQ(rule->ip_saddr.v4.mask, clfytest::ipv4(255, 255, 255, 0));
  EXPECT_EQ(rule->ip_saddr.v4.addr, clfytest::ipv4(10, 0, 0, 0));
  EXPECT_TRUE(rule->flags & NUV_CLFY_F_IP_SADDR);
}

TEST_F(ClfyParse, IpSaddrHandlerStoresHostBits) {
  // Called directly, the handler shows the unreduced address 10.0.0.1.
  auto rule = parse("any");
  ASSERT_TRUE(rule);
  const nuv_clfy_keyword *row = parsetab;
  while (std::strcmp(row->keyword, "ip.saddr") != 0) ++row;
  char value[] = " 10.0.0.1/24";
  char *end = value;
  ASSERT_EQ(row->handler(value, &end, rule.get()), NUV_CLFY_E_OK);
  EXPECT_EQ(rule->ip_saddr.v4.addr, clfytest::ipv4(10, 0, 0, 1));
  EXPECT_EQ(rule->ip_saddr.v4.mask, clfytest::ipv4(255, 255, 255, 0));
}

TEST_F(ClfyParse, IpSaddrWithDottedMask) {
  auto rule = parse("ip.source 10.0.0.0 255.0.0.0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_saddr.v4.mask, clfytest::ipv4(255, 0, 0, 0));
  EXPECT_EQ(rule->ip_saddr.v4.addr, clfytest::ipv4(10, 0, 0, 0));
}

TEST_F(ClfyParse, IpSaddrWithoutMaskIsAHost) {
  auto rule = parse("ip.saddr = 192.168.1.7");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_saddr.v4.mask, 0xffffffffu);
  EXPECT_EQ(rule->ip_saddr.v4.addr, clfytest::ipv4(192, 168, 1, 7));
}

TEST_F(ClfyParse, Ipv6DaddrAtEndOfLineIsAHost) {
  auto rule = parse("ip.daddr fe80::1");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_daddr_family, 6);
  EXPECT_EQ(rule->ip_daddr_prefixlen, 128);
  EXPECT_EQ(rule->ip_daddr.v6[0], 0xfe);
  EXPECT_EQ(rule->ip_daddr.v6[1], 0x80);
  EXPECT_EQ(rule->ip_daddr.v6[15], 0x01);
}

TEST_F(ClfyParse, Ipv6DaddrWithoutLengthFollowedByConditionsIsRefused) {
  // Without "/" the whole rest of the line is read as the address.
  EXPECT_EQ(parse_result("ip.daddr fe80::1 dev eth0"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, Ipv6DaddrWithLengthFollowedByConditions) {
  auto rule = parse("ip.dest fe80::/64 dev eth0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_daddr_family, 6);
  EXPECT_EQ(rule->ip_daddr_prefixlen, 64);
  EXPECT_STREQ(rule->dev, "eth0");
}

TEST_F(ClfyParse, Ipv6AddressTakesALaterSlashAsItsLength) {
  // The "/" of the tos mask is the first one on the line: the address text
  // becomes "fe80::1 ip.tos 0x20", which is no address.
  EXPECT_EQ(parse_result("ip.saddr fe80::1 ip.tos 0x20/0xe0"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, SignedOrSpacedDottedAddressIsRefused) {
  EXPECT_EQ(parse_result("ip.saddr +10.0.0.1"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("ip.saddr -10.0.0.1"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("ip.saddr 10. 0.0.1"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, ThreePartDottedAddressIsRefused) {
  EXPECT_EQ(parse_result("ip.saddr 10.0.0"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("ip.saddr 10.0.0/8"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, MalformedAddressesAreRefused) {
  EXPECT_EQ(parse_result("ip.saddr 10.0.0.256"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("ip.saddr fe80::zz"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("ip.daddr"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, IpdsttabFindsOrCreatesTheTable) {
  auto rule = parse("ipdsttab servers");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_IPDSTTAB);
  EXPECT_EQ(rule->ipdsttab, nuv_clfy_ipdsttab_find("servers"));
}

TEST_F(ClfyParse, IpdsttabCreationFailureRefusesRule) {
  nuvcsock_fail_nth_allocation(2);
  EXPECT_EQ(parse_result("ipdsttab t2"), NUV_CLFY_E_REFUSED);
  nuvcsock_fail_nth_allocation(0);
}

TEST_F(ClfyParse, IpLenSingleComparisonInHostOrder) {
  auto rule = parse("ip.len >= 1000");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_IP_LEN);
  EXPECT_EQ(rule->ip_len.op, NUV_CLFY_OP_GE);
  EXPECT_EQ(rule->ip_len.value1, 1000);
}

TEST_F(ClfyParse, IpLenRange) {
  auto rule = parse("ip.len 64-128");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_len.op, NUV_CLFY_OP_RANGE);
  EXPECT_EQ(rule->ip_len.value1, 64);
  EXPECT_EQ(rule->ip_len.value2, 128);
}

TEST_F(ClfyParse, IpLenTakesNoList) { EXPECT_EQ(parse_result("ip.len 10,20"), NUV_CLFY_E_REFUSED); }

// ---- Operators ----

TEST_F(ClfyParse, EveryOperatorText) {
  struct Case {
    const char *text;
    std::uint32_t op;
  } cases[] = {{"=1", NUV_CLFY_OP_EQ}, {"== 1", NUV_CLFY_OP_EQ}, {"1", NUV_CLFY_OP_EQ}, {"!=1", NUV_CLFY_OP_NE},
               {"<> 1", NUV_CLFY_OP_NE}, {"<1", NUV_CLFY_OP_LT},  {"<=1", NUV_CLFY_OP_LE}, {">1", NUV_CLFY_OP_GT},
               {">= 1", NUV_CLFY_OP_GE}};
  for (const Case &c : cases) {
    auto rule = parse(std::string("udp.sport ") + c.text);
    ASSERT_TRUE(rule) << c.text;
    ASSERT_EQ(rule->sports.count, 1u) << c.text;
    EXPECT_EQ(rule->sports.entries[0].op, c.op) << c.text;
    EXPECT_EQ(rule->sports.entries[0].value1, 1) << c.text;
  }
}

TEST_F(ClfyParse, RangeWithBlanksAroundTheHyphen) {
  auto rule = parse("tcp.sport 1000 - 2000");
  ASSERT_TRUE(rule);
  expect_entry(rule->sports, 0, NUV_CLFY_OP_RANGE, 1000, 2000);
}

TEST_F(ClfyParse, UnknownOperatorIsRefused) {
  EXPECT_EQ(parse_result("tcp.dport ~80"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("tcp.dport"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("tcp.dport >"), NUV_CLFY_E_REFUSED);
}

// ---- Ports ----

TEST_F(ClfyParse, TcpDportListOfFourEntries) {
  auto rule = parse("tcp.dport 80,443,>=8000,1000-2000");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_proto, 6);
  EXPECT_EQ(rule->flags & (NUV_CLFY_F_DPORTS | NUV_CLFY_F_IP_PROTO), NUV_CLFY_F_DPORTS | NUV_CLFY_F_IP_PROTO);
  ASSERT_EQ(rule->dports.count, 4u);
  expect_entry(rule->dports, 0, NUV_CLFY_OP_EQ, 80);
  expect_entry(rule->dports, 1, NUV_CLFY_OP_EQ, 443);
  expect_entry(rule->dports, 2, NUV_CLFY_OP_GE, 8000);
  expect_entry(rule->dports, 3, NUV_CLFY_OP_RANGE, 1000, 2000);
}

TEST_F(ClfyParse, LaterPortKeywordDecidesTheProtocol) {
  auto rule = parse("udp.dport 53 tcp.flags 2");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_proto, 6);
}

TEST_F(ClfyParse, EveryPortKeywordSetsItsProtocolAndList) {
  struct Case {
    const char *keyword;
    std::uint8_t proto;
    bool source;
  } cases[] = {{"udp.source", 17, true}, {"udp.sport", 17, true}, {"udp.dest", 17, false}, {"udp.dport", 17, false},
               {"tcp.source", 6, true},  {"tcp.sport", 6, true},  {"tcp.dest", 6, false},  {"tcp.dport", 6, false}};
  for (const Case &c : cases) {
    auto rule = parse(std::string(c.keyword) + " 7");
    ASSERT_TRUE(rule) << c.keyword;
    EXPECT_EQ(rule->ip_proto, c.proto) << c.keyword;
    const nuv_clfy_valuelist &list = c.source ? rule->sports : rule->dports;
    EXPECT_EQ(list.count, 1u) << c.keyword;
    EXPECT_TRUE(rule->flags & (c.source ? NUV_CLFY_F_SPORTS : NUV_CLFY_F_DPORTS)) << c.keyword;
  }
}

TEST_F(ClfyParse, CommaOfALaterKeywordSplitsThePortList) {
  // The list is split at every comma of the rest of the line, so the first
  // piece is "80 localmark voice" and the rule is refused.
  EXPECT_EQ(parse_result("tcp.dport 80 localmark voice,video"), NUV_CLFY_E_REFUSED);
  // Written the other way round it is fine.
  auto rule = parse("localmark voice,video tcp.dport 80");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->dports.count, 1u);
}

TEST_F(ClfyParse, BlanksAroundListCommas) {
  auto rule = parse("udp.dport 53 , 67");
  ASSERT_TRUE(rule);
  ASSERT_EQ(rule->dports.count, 2u);
  expect_entry(rule->dports, 1, NUV_CLFY_OP_EQ, 67);
}

TEST_F(ClfyParse, EmptyListElementIsRefused) { EXPECT_EQ(parse_result("udp.dport 53,,67"), NUV_CLFY_E_REFUSED); }

TEST_F(ClfyParse, TcpFlagsWithMask) {
  auto rule = parse("tcp.flags 0x12/0x17");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_proto, 6);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_TCP_FLAGS | NUV_CLFY_F_IP_PROTO);
  EXPECT_EQ(rule->tcp_flags, net16(0x012));
  EXPECT_EQ(rule->tcp_flags_mask, net16(0x017));
}

TEST_F(ClfyParse, TcpFlagsDefaultMaskAndDataOffsetCleared) {
  auto rule = parse("tcp.flags = 0xf002");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->tcp_flags, net16(0x002));
  EXPECT_EQ(rule->tcp_flags_mask, net16(0x0fff));
  auto masked = parse("tcp.flags 2 0xff12");
  ASSERT_TRUE(masked);
  EXPECT_EQ(masked->tcp_flags_mask, net16(0x0f12));
}

TEST_F(ClfyParse, IcmpType) {
  auto rule = parse("icmp.type = 135");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_ICMP_TYPE);
  EXPECT_EQ(rule->icmp_type, 135);
  EXPECT_EQ(parse_result("icmp.type x"), NUV_CLFY_E_REFUSED);
}

// ---- DHCP conditions ----

TEST_F(ClfyParse, DhcpOptionConditionWithTable) {
  auto rule = parse("dhcpoption 60 MSFT* clients");
  ASSERT_TRUE(rule);
  ASSERT_NE(rule->dhcp, nullptr);
  EXPECT_EQ(rule->dhcp->code, 60);
  EXPECT_STREQ(rule->dhcp->pattern, "MSFT*");
  EXPECT_EQ(rule->dhcp->ethsrctab, nuv_clfy_ethersrctab_find("clients"));
  EXPECT_EQ(rule->ip_proto, 17);
  EXPECT_TRUE(rule->flags & NUV_CLFY_F_DHCP);
  ASSERT_EQ(rule->dports.count, 1u);
  expect_entry(rule->dports, 0, NUV_CLFY_OP_EQ, 67);
}

TEST_F(ClfyParse, DhcpVendorOptionCondition) {
  auto rule = parse("dhcpoption 125/3561/1 abc* lan.boxes dev eth1");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->dhcp->code, 125);
  EXPECT_EQ(rule->dhcp->enterprise, 3561u);
  EXPECT_EQ(rule->dhcp->sub, 1);
  EXPECT_STREQ(rule->dhcp->pattern, "abc*");
  EXPECT_STREQ(rule->dhcp->ethsrctab->name, "lan.boxes");
  EXPECT_STREQ(rule->dev, "eth1");
}

TEST_F(ClfyParse, DhcpHeaderCondition) {
  auto rule = parse("dhcpheader chaddr 00:11:* known");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->dhcp->code, 0);
  EXPECT_EQ(rule->dhcp->sub, DHCP_HFIELD_CHADDR);
  EXPECT_STREQ(rule->dhcp->pattern, "00:11:*");
}

TEST_F(ClfyParse, DhcpConditionWithoutTableIsRefused) {
  testsupport::NoLeakGuard guard;
  EXPECT_EQ(parse_result("dhcpoption 60 MSFT*"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("dhcpoption 60 MSFT* 42"), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, DhcpMatchErrorsAreRefused) {
  EXPECT_EQ(parse_result("dhcpoption 0 x t"), NUV_CLFY_E_REFUSED);         // code 0
  EXPECT_EQ(parse_result("dhcpoption 60/1/1 x t"), NUV_CLFY_E_REFUSED);    // slash after another code
  EXPECT_EQ(parse_result("dhcpoption 125/x/1 y t"), NUV_CLFY_E_REFUSED);   // bad enterprise
  EXPECT_EQ(parse_result("dhcpoption 125/9 y t"), NUV_CLFY_E_REFUSED);     // missing second slash
  EXPECT_EQ(parse_result("dhcpoption 125/9/x y t"), NUV_CLFY_E_REFUSED);   // bad sub-option
  EXPECT_EQ(parse_result("dhcpheader bogus x t"), NUV_CLFY_E_REFUSED);     // unknown field
  EXPECT_EQ(parse_result("dhcpheader op"), NUV_CLFY_E_REFUSED);            // nothing after the field
}

TEST_F(ClfyParse, DhcpConditionStorageFailureRefusesRule) {
  // Allocation 1 is the rule; the DHCP condition's record, pattern and table
  // follow.  Each failure refuses the rule and leaves nothing behind.
  for (long n = 2; n <= 4; ++n) {
    testsupport::NoLeakGuard guard;
    ASSERT_NE(nuv_clfy_ethersrctab_find_or_create("pre.made"), nullptr);
    const long live = testsupport::live_blocks().slab;
    nuvcsock_fail_nth_allocation(n);
    EXPECT_EQ(parse_result("dhcpoption 60 MSFT* pre.made"), NUV_CLFY_E_REFUSED) << n;
    nuvcsock_fail_nth_allocation(0);
    EXPECT_EQ(testsupport::live_blocks().slab, live) << n;
    nuv_clfy_ethersrctab_freeall();
  }
}

// ---- packetmatch ----

TEST_F(ClfyParse, PacketmatchAloneStoresItsWord) {
  auto rule = parse("packetmatch GET*");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_PACKETMATCH);
  EXPECT_STREQ(rule->packetmatch, "GET*");
}

TEST_F(ClfyParse, PacketmatchTakesTheRestOfTheLineAndTheConditionsApplyToo) {
  auto rule = parse("packetmatch GET* dev eth0");
  ASSERT_TRUE(rule);
  EXPECT_STREQ(rule->packetmatch, "GET* dev eth0");
  EXPECT_TRUE(rule->flags & NUV_CLFY_F_DEV);
  EXPECT_STREQ(rule->dev, "eth0");
}

TEST_F(ClfyParse, PacketmatchFollowedByUnknownWordIsRefused) {
  EXPECT_EQ(parse_result("packetmatch GET* please"), NUV_CLFY_E_REFUSED);
}

// ---- Normalisation at the end of parsing ----

TEST_F(ClfyParse, ParsedRuleIsNormalised) {
  auto rule = parse("tcp.dport 10-10 ip.saddr 10.1.2.3 255.255.0.0");
  ASSERT_TRUE(rule);
  expect_entry(rule->dports, 0, NUV_CLFY_OP_EQ, 10);
  EXPECT_EQ(rule->ip_saddr.v4.addr, clfytest::ipv4(10, 1, 0, 0));
  EXPECT_EQ(rule->eth_proto, net16(0x0800));
  EXPECT_TRUE(rule->flags & NUV_CLFY_F_ETH_PROTO);
}

// ---- Allocation failures ----

TEST_F(ClfyParse, EveryAllocationFailureOfALongRuleIsRefusedCleanly) {
  const char *line =
      "dev eth0 localmark voice,video ethsrctab lan.hosts ipdsttab lan.servers udp.sport 1000-2000,3000 "
      "vlan.id 10 udp.dport 53 dhcpoption 60 MSFT* lan.clients tcp.flags 2 packetmatch *abc*";
  // Tables are created on first use and stay; have them exist already so the
  // failure points are the rule's own.
  ASSERT_NE(nuv_clfy_ethersrctab_find_or_create("lan.hosts"), nullptr);
  ASSERT_NE(nuv_clfy_ipdsttab_find_or_create("lan.servers"), nullptr);
  ASSERT_NE(nuv_clfy_ethersrctab_find_or_create("lan.clients"), nullptr);
  const long before = nuvcsock_allocations();
  {
    auto rule = parse(line);
    ASSERT_TRUE(rule);
  }
  const long allocations = nuvcsock_allocations() - before;
  ASSERT_GE(allocations, 10);
  int refused = 0;
  for (long n = 1; n <= allocations; ++n) {
    testsupport::NoLeakGuard guard;
    nuvcsock_fail_nth_allocation(n);
    nuv_clfy *rule = nullptr;
    const int rc = nuv_clfy_parse(line, &rule);
    nuvcsock_fail_nth_allocation(0);
    if (rc == 0) {
      // Failed value-list additions and pattern copies are silent: the rule
      // comes back without that entry.
      nuv_clfy_free(rule);
    } else {
      ++refused;
      EXPECT_EQ(rc, NUV_CLFY_E_REFUSED) << n;
      EXPECT_EQ(rule, nullptr) << n;
    }
  }
  EXPECT_GT(refused, 0);
}

TEST_F(ClfyParse, RuleAllocationFailureIsRefused) {
  testsupport::NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(parse_result("dev eth0"), NUV_CLFY_E_REFUSED);
}

// ---- Handler results before the parser collapses them to -1 ----

namespace {

int run_handler(const char *keyword, const char *value, nuv_clfy *rule, char **end_out = nullptr) {
  const nuv_clfy_keyword *row = parsetab;
  while (row->keyword && std::strcmp(row->keyword, keyword) != 0) ++row;
  EXPECT_NE(row->keyword, nullptr) << keyword;
  if (!row->keyword) return 0;
  static char text[256];
  std::snprintf(text, sizeof text, "%s", value);
  char *end = text;
  const int rc = row->handler(text, &end, rule);
  if (end_out) *end_out = end;
  return rc;
}

}  // namespace

TEST_F(ClfyParse, DhcpHandlerCodeForMissingTableIsMissingTable) {
  auto rule = parse("any");
  EXPECT_EQ(run_handler("dhcpoption", " 60 MSFT*", rule.get()), NUV_CLFY_E_MISSING_TABLE);
  EXPECT_EQ(run_handler("dhcpheader", " op 01 7", rule.get()), NUV_CLFY_E_MISSING_TABLE);
}

TEST_F(ClfyParse, DhcpHandlerCodeForUnstorableConditionIsNotStored) {
  testsupport::NoLeakGuard guard;
  auto rule = clfytest::Rule(nuv_clfy_alloc());
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(run_handler("dhcpoption", " 60 MSFT* some.table", rule.get()), NUV_CLFY_E_DHCP_NOT_STORED);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(rule->dhcp, nullptr);
  rule.reset();
  nuv_clfy_ethersrctab_freeall();
}

TEST_F(ClfyParse, DhcpHandlerPassesTheMatchParsersCodesOn) {
  auto rule = parse("any");
  EXPECT_EQ(run_handler("dhcpoption", " 0 x t", rule.get()), NUV_CLFY_E_DHCP_BAD_CODE);
  EXPECT_EQ(run_handler("dhcpoption", " 60/1/1 x t", rule.get()), NUV_CLFY_E_DHCP_NOT_VENDOR);
  EXPECT_EQ(run_handler("dhcpoption", " 125/x/1 x t", rule.get()), NUV_CLFY_E_DHCP_ENTERPRISE);
  EXPECT_EQ(run_handler("dhcpoption", " 125/9 x t", rule.get()), NUV_CLFY_E_DHCP_SECOND_SLASH);
  EXPECT_EQ(run_handler("dhcpoption", " 125/9/x x t", rule.get()), NUV_CLFY_E_DHCP_SUB_CODE);
  EXPECT_EQ(run_handler("dhcpheader", " op", rule.get()), NUV_CLFY_E_DHCP_NO_PATTERN);
  EXPECT_EQ(run_handler("dhcpheader", " bogus x t", rule.get()), NUV_CLFY_E_DHCP_BAD_CODE);
}

TEST_F(ClfyParse, DhcpHandlerEndsBehindTheTableNameAndRestoresTheText) {
  auto rule = parse("any");
  char *end = nullptr;
  ASSERT_EQ(run_handler("dhcpoption", " 60 MSFT* lan.pcs dev eth0", rule.get(), &end), NUV_CLFY_E_OK);
  EXPECT_STREQ(end, " dev eth0");
  EXPECT_STREQ(end - std::strlen("MSFT* lan.pcs"), "MSFT* lan.pcs dev eth0");
}

TEST_F(ClfyParse, PacketmatchHandlerEndsAfterTheFirstWord) {
  auto rule = parse("any");
  char *end = nullptr;
  ASSERT_EQ(run_handler("packetmatch", "  a*b c d", rule.get(), &end), NUV_CLFY_E_OK);
  EXPECT_STREQ(end, " c d");
  EXPECT_STREQ(rule->packetmatch, "a*b c d");
}

TEST_F(ClfyParse, IpProtoHandlerEndsBehindTheCommaOrAtTheEnd) {
  auto rule = parse("any");
  char *end = nullptr;
  ASSERT_EQ(run_handler("ip.proto", " tcp,udp", rule.get(), &end), NUV_CLFY_E_OK);
  EXPECT_STREQ(end, "udp");
  ASSERT_EQ(run_handler("ip.proto", " udp", rule.get(), &end), NUV_CLFY_E_OK);
  EXPECT_STREQ(end, "");
  EXPECT_EQ(rule->ip_proto, 17);
  EXPECT_EQ(run_handler("ip.proto", " nosuchproto", rule.get()), NUV_CLFY_E_REFUSED);
}

TEST_F(ClfyParse, KeywordsWithoutEqualsTakeTheSignAsTheirValue) {
  // Table names and patterns are read as written: "=" is the name, and the
  // word after it is then no keyword.
  EXPECT_EQ(parse_result("ethsrctab = lan"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("ipdsttab = lan"), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(parse_result("packetmatch = x"), NUV_CLFY_E_REFUSED);
  auto pattern = parse("packetmatch =x");
  ASSERT_TRUE(pattern);
  EXPECT_STREQ(pattern->packetmatch, "=x");
  // For the value lists and ip.len "=" is the equality operator.
  auto vlan = parse("vlan.id = 5");
  ASSERT_TRUE(vlan);
  EXPECT_EQ(vlan->vlan_ids.entries[0].op, NUV_CLFY_OP_EQ);
  auto len = parse("ip.len == 60");
  ASSERT_TRUE(len);
  EXPECT_EQ(len->ip_len.op, NUV_CLFY_OP_EQ);
}
