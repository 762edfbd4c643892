// Rule text formatter: listing lines and condition texts.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "clfy_testing.h"
#include "nikerkiog.h"

using clfytest::parse;
using clfytest::text_of;

namespace {

class ClfyFormat : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

clfytest::Rule bare_rule() { return clfytest::Rule(nuv_clfy_alloc()); }

}  // namespace

TEST_F(ClfyFormat, RuleWithoutConditionsAtDepthZero) {
  auto rule = bare_rule();
  rule->result = 7;
  EXPECT_EQ(text_of(rule.get(), 0), "  0: => 7");
}

TEST_F(ClfyFormat, RuleWithoutConditionsAtNegativeDepthIsEmpty) {
  auto rule = bare_rule();
  rule->result = 7;
  EXPECT_EQ(text_of(rule.get(), -1), "");
}

TEST_F(ClfyFormat, DepthTwoIndentsSixSpaces) {
  auto rule = parse("dev eth0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get(), 2), "  2:       dev eth0 => 0");
}

TEST_F(ClfyFormat, DeepLevelsAreCutAtTheBuffer) {
  auto rule = bare_rule();
  EXPECT_EQ(text_of(rule.get(), 1234), std::string("1234:") + std::string(3 * 1234, ' ').substr(0, 1018));
}

TEST_F(ClfyFormat, TcpPortList) {
  auto rule = parse("tcp.dport 80,443");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ip.proto 6 tcp.dport 80,443");
}

TEST_F(ClfyFormat, UdpPortRange) {
  auto rule = parse("udp.sport 1000-2000");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ip.proto 17 udp.sport 1000-2000");
}

TEST_F(ClfyFormat, EveryOperatorForm) {
  // Built entry by entry: the parser's normalisation would drop covered ones.
  auto rule = bare_rule();
  rule->ip_proto = 17;
  for (std::uint32_t op = 1; op <= 6; ++op)
    nuv_clfy_add_ip_dport(rule.get(), op, clfytest::net16(static_cast<std::uint16_t>(op)), 0);
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_RANGE, clfytest::net16(7), clfytest::net16(9));
  EXPECT_EQ(text_of(rule.get()), " udp.dport 1,!= 2,< 3,<= 4,> 5,>= 6,7-9");
}

TEST_F(ClfyFormat, UnknownOperatorPrintsBothValues) {
  auto rule = bare_rule();
  nuv_clfy_add_ip_sport(rule.get(), 0, clfytest::net16(1), clfytest::net16(2));
  nuv_clfy_add_ip_sport(rule.get(), 9, clfytest::net16(3), clfytest::net16(4));
  rule->ip_proto = 6;
  EXPECT_EQ(text_of(rule.get()), " tcp.sport op? 1 2,op? 3 4");
}

TEST_F(ClfyFormat, PortsUnderAnotherProtocolPrintAWordlessKeyword) {
  auto rule = bare_rule();
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_EQ, clfytest::net16(53), 0);
  rule->ip_proto = 1;
  EXPECT_EQ(text_of(rule.get()), " .dport 53");
}

TEST_F(ClfyFormat, Ipv4AddressWithDottedMask) {
  auto rule = parse("ip.saddr 10.0.0.0/8");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " eth.proto 0x0800 ip.saddr 10.0.0.0 255.0.0.0");
}

TEST_F(ClfyFormat, ProtocolPrintsAsNumber) {
  auto rule = parse("ip.proto tcp");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ip.proto 6");
}

TEST_F(ClfyFormat, Ipv6AddressWithLength) {
  auto rule = parse("ip.daddr 2001:db8::/32");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " eth.proto 0x86dd ip.daddr 2001:db8::/32");
}

TEST_F(ClfyFormat, AddressOfUnknownFamilyPrintsNothing) {
  auto rule = bare_rule();
  rule->flags = NUV_CLFY_F_IP_SADDR;
  rule->ip_saddr_family = 5;
  EXPECT_EQ(text_of(rule.get()), "");
}

TEST_F(ClfyFormat, FullSourceAddressWinsOverOui) {
  auto rule = parse("eth.sourceoui 00:11:22 eth.source 00:11:22:33:44:55");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " eth.source 00:11:22:33:44:55");
}

TEST_F(ClfyFormat, OuiForms) {
  auto rule = parse("eth.sourceoui 00:1A:2b eth.destoui 01:00:5e");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " eth.sourceoui 00:1a:2b eth.destoui 01:00:5e");
}

TEST_F(ClfyFormat, LinkLayerConditionsInOrder) {
  auto rule = parse("vlan.prio 3 vlan.id 10,20 eth.dest ff:ff:ff:ff:ff:ff eth.proto 0x8863 dev eth1 brdev br0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()),
            " dev eth1 brdev br0 eth.proto 0x8863 eth.dest ff:ff:ff:ff:ff:ff vlan.id 10,20 vlan.prio 3");
}

TEST_F(ClfyFormat, LocalmarkPrintsClassNames) {
  auto rule = parse("localmark voice,12");
  ASSERT_TRUE(rule);
  char expected[128];
  unsigned char map[128] = {};
  map[tcclass_name2value("voice")] = 1;
  map[12] = 1;
  tcclassset_value2str(map, expected, sizeof expected);
  EXPECT_EQ(text_of(rule.get()), std::string(" localmark ") + expected);
}

TEST_F(ClfyFormat, EthsrctabPrintsItsCurrentAddresses) {
  auto rule = parse("ethsrctab known");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ethsrctab known");
  const std::uint8_t a[6] = {0, 1, 2, 3, 4, 5}, b[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  ASSERT_EQ(nuv_clfy_ethersrctab_add("known", a), 0);
  ASSERT_EQ(nuv_clfy_ethersrctab_add("known", b), 0);
  EXPECT_EQ(text_of(rule.get()), " ethsrctab known 00:01:02:03:04:05 aa:bb:cc:dd:ee:ff");
}

TEST_F(ClfyFormat, IpdsttabPrintsBothFamilies) {
  auto rule = parse("ipdsttab servers");
  ASSERT_TRUE(rule);
  ASSERT_EQ(nuv_clfy_ipdsttab_add4("servers", clfytest::ipv4(192, 0, 2, 1)), 0);
  const std::uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  ASSERT_EQ(nuv_clfy_ipdsttab_add6("servers", v6), 0);
  EXPECT_EQ(text_of(rule.get()), " ipdsttab servers 192.0.2.1 2001:db8::1");
}

TEST_F(ClfyFormat, IpConditionsInOrder) {
  auto rule = parse("ip.len >= 100 ip.tos 0x20/0xe0 ip.proto udp ip.version 4 ip.daddr 192.168.1.1");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()),
            " eth.proto 0x0800 ip.version 4 ip.proto 17 ip.tos 0x20/0xe0 ip.len >= 100 ip.daddr 192.168.1.1 "
            "255.255.255.255");
}

TEST_F(ClfyFormat, TcpFlagsThreeHexDigits) {
  auto rule = parse("tcp.flags 0x12/0x17");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ip.proto 6 tcp.flags 0x012/0x017");
}

TEST_F(ClfyFormat, DhcpOptionCondition) {
  auto rule = parse("dhcpoption 60 MSFT* clients");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ip.proto 17 udp.dport 67 dhcpoption 60 MSFT* clients");
}

TEST_F(ClfyFormat, DhcpVendorConditionPrintsEnterpriseInHex) {
  auto rule = parse("dhcpoption 125/3561/1 abc* lan.boxes");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ip.proto 17 udp.dport 67 dhcpoption 125/0xde9/1 abc* lan.boxes");
}

TEST_F(ClfyFormat, DhcpHeaderCondition) {
  auto rule = parse("dhcpheader CHADDR 00:11:* known");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " ip.proto 17 udp.dport 67 dhcpheader chaddr 00:11:* known");
}

TEST_F(ClfyFormat, PacketmatchLast) {
  auto rule = parse("packetmatch *HTTP/1.?*");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " packetmatch *HTTP/1.?*");
}

TEST_F(ClfyFormat, IcmpTypeAloneSkipsTheIpGroupButPrints) {
  auto rule = parse("icmp.type 128");
  ASSERT_TRUE(rule);
  EXPECT_EQ(text_of(rule.get()), " icmp.type 128");
}

TEST_F(ClfyFormat, ActionNameOnlyForARuleInASet) {
  const int action = nuv_clfy_register_action("fmtqueue", nullptr, nullptr);
  ASSERT_GT(action, 0);
  clfytest::Set set;
  nuv_clfy *rule = set.add("dev eth0", 3);
  ASSERT_NE(rule, nullptr);
  rule->action = action;
  EXPECT_EQ(text_of(rule, 0), "  0: dev eth0 (fmtqueue) => 3");
  auto loose = parse("dev eth0");
  loose->action = action;
  EXPECT_EQ(text_of(loose.get(), 0), "  0: dev eth0 => 0");
  rule->action = 99;
  EXPECT_EQ(text_of(rule, 0), "  0: dev eth0 => 3");
}

TEST_F(ClfyFormat, ResultPrintsUnsigned) {
  auto rule = bare_rule();
  rule->result = 65535;
  EXPECT_EQ(text_of(rule.get(), 0), "  0: => 65535");
}

TEST_F(ClfyFormat, SmallBufferGetsATerminatedPrefix) {
  auto rule = parse("dev eth0 tcp.dport 80,443");
  ASSERT_TRUE(rule);
  const std::string full = text_of(rule.get(), 0);
  for (std::size_t size = 1; size <= full.size() + 1; ++size) {
    std::string buf(size + 8, '#');
    char *out = nuv_clfy_as_string(0, rule.get(), buf.data(), size);
    EXPECT_EQ(out, buf.data());
    EXPECT_EQ(std::string(out), full.substr(0, size - 1)) << size;
    EXPECT_EQ(buf[size], '#') << "wrote past the buffer at size " << size;
  }
}

TEST_F(ClfyFormat, LongValueListIsCutAt127Characters) {
  auto rule = bare_rule();
  rule->ip_proto = 17;
  for (int i = 0; i < 40; ++i) nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_EQ, clfytest::net16(10000), 0);
  std::string list;
  for (int i = 0; i < 40; ++i) list += (i ? ",10000" : "10000");
  EXPECT_EQ(text_of(rule.get()), " udp.dport " + list.substr(0, 127));
}

TEST_F(ClfyFormat, ShowPrintsNothingAndAcceptsAnyRule) {
  auto rule = parse("dev eth0");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  nuv_clfy_show(0, rule.get());
  nuv_clfy_show(-3, rule.get());
  std::fflush(nullptr);
  const std::string out = testing::internal::GetCapturedStdout();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, "");
  EXPECT_EQ(text_of(rule.get(), 0), "  0: dev eth0 => 0");
}
