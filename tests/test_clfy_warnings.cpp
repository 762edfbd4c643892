// What the parser changes silently, said as warnings; rules that an earlier
// rule shadows; the nearest keyword; the keyword help.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"

using clfytest::parse;

namespace {

struct Parsed {
  int rc = -1;
  std::vector<nuv_clfy_warning> warnings;
};

Parsed warnings_of(const std::string &line) {
  Parsed p;
  nuv_clfy *rule = nullptr;
  nuv_clfy_diag diag;
  nuv_clfy_warning found[NUV_CLFY_MAX_WARNINGS];
  std::uint32_t count = 99;
  p.rc = nuv_clfy_parse_with_warnings(line.c_str(), &rule, &diag, found, &count);
  p.warnings.assign(found, found + count);
  if (p.rc == 0) nuv_clfy_free(rule);
  return p;
}

// The one warning of a line.
nuv_clfy_warning only(const std::string &line) {
  Parsed p = warnings_of(line);
  EXPECT_EQ(p.rc, 0) << line;
  EXPECT_EQ(p.warnings.size(), 1u) << line;
  return p.warnings.empty() ? nuv_clfy_warning{} : p.warnings.front();
}

std::string where(const std::string &line, const nuv_clfy_warning &w) { return line.substr(w.offset, w.length); }

}  // namespace

TEST(ClfyWarnings, CleanRulesHaveNone) {
  for (const char *line : {"tcp.dport 80", "udp.dport 53,67 ip.daddr 10.0.0.0/8", "icmp.type 134 ip.version 6",
                           "ip.proto udp udp.dport 53", "vlan.id 4095 vlan.prio 7", "any"})
    EXPECT_TRUE(warnings_of(line).warnings.empty()) << line;
}

TEST(ClfyWarnings, PortBeyond16BitsGivesTheValueUsed) {
  const std::string line = "tcp.dport 99999";
  auto w = only(line);
  EXPECT_EQ(w.kind, NUV_CLFY_W_RANGE);
  EXPECT_EQ(w.is_error, 0);
  EXPECT_EQ(where(line, w), "99999");
  EXPECT_STREQ(w.text, "tcp.dport: 99999 is beyond 65535: 34463 is used");
  EXPECT_STREQ(only("tcp.dport 65536").text, "tcp.dport: 65536 is beyond 65535: 0 is used");
  EXPECT_STREQ(only("tcp.dport 80-70000").text, "tcp.dport: 70000 is beyond 65535: 4464 is used");
}

TEST(ClfyWarnings, ByteFieldsBeyond8BitsGiveTheValueUsed) {
  EXPECT_STREQ(only("icmp.type 300 ip.version 6").text, "icmp.type: 300 is beyond 255: 44 is used");
  EXPECT_STREQ(only("ip.tos 0x1ff").text, "ip.tos: 0x1ff is beyond 255: 255 is used");
  EXPECT_STREQ(only("tcp.flags 0x1002").text, "tcp.flags: 0x1002 is beyond 4095: 2 is used");
}

TEST(ClfyWarnings, VlanFieldsBeyondTheirBitsAreKeptAndSaid) {
  EXPECT_STREQ(only("vlan.id 5000").text, "vlan.id: 5000 is beyond 4095, the largest the field holds");
  EXPECT_STREQ(only("vlan.prio 9").text, "vlan.prio: 9 is beyond 7, the largest the field holds");
}

TEST(ClfyWarnings, PrefixLengthsBeyondTheAddress) {
  const std::string line = "ip.daddr 10.0.0.0/33";
  auto w = only(line);
  EXPECT_EQ(w.kind, NUV_CLFY_W_PREFIX);
  EXPECT_STREQ(w.text, "ip.daddr: prefix length /33 is beyond /32: /32 is used");
  EXPECT_STREQ(only("ip.saddr 2001:db8::/300").text, "ip.saddr: prefix length /300 is beyond /128: /44 is used");
}

TEST(ClfyWarnings, IcmpTypeInARuleThatIpv4CanMatch) {
  const std::string line = "tcp.dport 80 icmp.type 8";
  Parsed p = warnings_of(line);
  ASSERT_EQ(p.warnings.size(), 1u);
  EXPECT_EQ(p.warnings[0].kind, NUV_CLFY_W_ICMP_IPV4);
  EXPECT_EQ(where(line, p.warnings[0]), "icmp.type");
  // Restricted to IPv6 by version, address or Ethernet type: no warning.
  for (const char *ok : {"icmp.type 8 ip.version 6", "icmp.type 8 ip.saddr fe80::/10", "eth.proto 0x86dd icmp.type 8"})
    EXPECT_TRUE(warnings_of(ok).warnings.empty()) << ok;
}

TEST(ClfyWarnings, PortsOfTwoProtocolsGiveTheProtocolTheRuleEndsWith) {
  auto flags = only("udp.dport 53 tcp.flags 0x02");
  EXPECT_EQ(flags.kind, NUV_CLFY_W_PROTOCOL);
  EXPECT_STREQ(flags.text, "tcp.flags (TCP) after udp.dport (UDP): the rule is TCP, tcp.dport 53");
  EXPECT_STREQ(only("udp.dport 53 tcp.dport 80").text,
               "tcp.dport (TCP) after udp.dport (UDP): the rule is TCP, tcp.dport 53,80");
  EXPECT_STREQ(only("ip.proto udp tcp.dport 22").text, "tcp.dport (TCP) after ip.proto (UDP): the rule is TCP, tcp.dport 22");
  EXPECT_EQ(only("tcp.dport 22 ip.proto gre").kind, NUV_CLFY_W_PROTOCOL);
}

TEST(ClfyWarnings, ConditionsThatNeverHoldTogether) {
  auto v = only("ip.version 4 ip.saddr 2001:db8::/32");
  EXPECT_EQ(v.kind, NUV_CLFY_W_NEVER);
  EXPECT_STREQ(v.text, "never matches: ip.version 4 with an IPv6 address");
  auto a = only("ip.saddr 10.0.0.1 ip.daddr 2001:db8::1/128");
  EXPECT_STREQ(a.text, "never matches: an IPv4 source and an IPv6 destination address in one rule");
}

TEST(ClfyWarnings, LongTableNameIsAnError) {
  const std::string line = "ethsrctab a.very.long.table.name";
  auto w = only(line);
  EXPECT_EQ(w.kind, NUV_CLFY_W_TABLE_NAME);
  EXPECT_EQ(w.is_error, 1);
  EXPECT_EQ(where(line, w), "a.very.long.table.name");
  EXPECT_EQ(only("ipdsttab a.very.long.table.name").is_error, 1);
  EXPECT_EQ(only("dhcpoption 60 x* a.very.long.table.name").is_error, 1);
  EXPECT_TRUE(warnings_of("ethsrctab fifteen.chars.k").warnings.empty());
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

TEST(ClfyWarnings, PacketmatchBeforeOtherWords) {
  const std::string line = "packetmatch *x* udp.dport 5060";
  auto w = only(line);
  EXPECT_EQ(w.kind, NUV_CLFY_W_PACKETMATCH);
  EXPECT_EQ(where(line, w), "packetmatch");
  EXPECT_TRUE(warnings_of("udp.dport 5060 packetmatch *x*").warnings.empty());
}

TEST(ClfyWarnings, RefusedLineHasNoWarningsAndTheSameDiagnosis) {
  nuv_clfy *rule = nullptr;
  nuv_clfy_diag diag, plain;
  nuv_clfy_warning found[NUV_CLFY_MAX_WARNINGS];
  std::uint32_t count = 99;
  EXPECT_EQ(nuv_clfy_parse_with_warnings("tcp.dport 99999 tcp.dprt 1", &rule, &diag, found, &count), -1);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(nuv_clfy_parse_with_diag("tcp.dport 99999 tcp.dprt 1", &rule, &plain), -1);
  EXPECT_EQ(diag.offset, plain.offset);
  EXPECT_EQ(diag.code, plain.code);
  EXPECT_EQ(rule, nullptr);
}

TEST(ClfyWarnings, SameRuleAsThePlainParser) {
  for (const char *line : {"tcp.dport 99999", "udp.dport 53 tcp.dport 80", "ip.daddr 10.0.0.0/33 vlan.id 5000"}) {
    nuv_clfy *warned = nullptr;
    nuv_clfy_warning found[NUV_CLFY_MAX_WARNINGS];
    std::uint32_t count = 0;
    ASSERT_EQ(nuv_clfy_parse_with_warnings(line, &warned, nullptr, found, &count), 0);
    auto plain = parse(line);
    EXPECT_EQ(warned->flags, plain->flags);
    EXPECT_EQ(nuv_clfy_cmp(warned, plain.get(), 0xffffffffu), 0) << line;
    nuv_clfy_free(warned);
  }
}

TEST(ClfyWarnings, ManyWarningsStopAtTheRoom) {
  std::string line = "vlan.id 5000,5001,5002,5003,5004,5005,5006,5007,5008,5009,5010";
  Parsed p = warnings_of(line);
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.warnings.size(), static_cast<std::size_t>(NUV_CLFY_MAX_WARNINGS));
}

// ---- Shadowing ----

namespace {

int covers(const char *earlier, const char *later) {
  auto e = parse(earlier), l = parse(later);
  EXPECT_TRUE(e && l) << earlier << " / " << later;
  return e && l ? nuv_clfy_covers(e.get(), l.get()) : -1;
}

}  // namespace

TEST(ClfyCovers, RuleWithFewerConditionsCoversOneWithMore) {
  EXPECT_EQ(covers("udp.dport 53", "udp.dport 53 ip.daddr 10.0.0.1"), 1);
  EXPECT_EQ(covers("udp.dport 53 ip.daddr 10.0.0.1", "udp.dport 53"), 0);
  EXPECT_EQ(covers("any", "tcp.dport 80"), 1);
  EXPECT_EQ(covers("udp.dport 53", "udp.dport 53"), 1);
}

TEST(ClfyCovers, ListsAndRangesByContainment) {
  EXPECT_EQ(covers("tcp.dport 1-1023", "tcp.dport 22,80,443-445"), 1);
  EXPECT_EQ(covers("tcp.dport 1-1023", "tcp.dport 22,1024"), 0);
  EXPECT_EQ(covers("tcp.dport >=1024", "tcp.dport 8080-8090"), 1);
  EXPECT_EQ(covers("tcp.dport !=22", "tcp.dport 80"), 1);
  EXPECT_EQ(covers("tcp.dport !=22", "tcp.dport 20-30"), 0);
  EXPECT_EQ(covers("tcp.dport 1-100,101-200", "tcp.dport 50-150"), 1);
  EXPECT_EQ(covers("vlan.id 1-100", "vlan.id 7"), 1);
  EXPECT_EQ(covers("ip.len >= 100", "ip.len 200-300"), 1);
  EXPECT_EQ(covers("ip.len < 100", "ip.len 50-150"), 0);
}

TEST(ClfyCovers, ProtocolsMustAgree) {
  EXPECT_EQ(covers("udp.dport 53", "tcp.dport 53"), 0);
  EXPECT_EQ(covers("ip.proto tcp", "tcp.dport 80"), 1);
  EXPECT_EQ(covers("tcp.dport 80", "ip.proto tcp"), 0);
}

TEST(ClfyCovers, PrefixesByContainment) {
  EXPECT_EQ(covers("ip.saddr 10.0.0.0/8", "ip.saddr 10.1.0.0/16"), 1);
  EXPECT_EQ(covers("ip.saddr 10.1.0.0/16", "ip.saddr 10.0.0.0/8"), 0);
  EXPECT_EQ(covers("ip.saddr 10.0.0.0/8", "ip.saddr 11.0.0.0/16"), 0);
  EXPECT_EQ(covers("ip.daddr 2001:db8::/32", "ip.daddr 2001:db8:1::/48"), 1);
  EXPECT_EQ(covers("ip.daddr 2001:db8:1::/48", "ip.daddr 2001:db8::/32"), 0);
  EXPECT_EQ(covers("ip.daddr 10.0.0.0/8", "ip.daddr 2001:db8::/32"), 0);
}

TEST(ClfyCovers, MasksAndLinkLayer) {
  EXPECT_EQ(covers("tcp.flags 0x002/0x002", "tcp.flags 0x002/0x012"), 1);
  EXPECT_EQ(covers("tcp.flags 0x002/0x012", "tcp.flags 0x002/0x002"), 0);
  EXPECT_EQ(covers("ip.tos 0x20/0xe0", "ip.tos 0x28/0xfc"), 1);
  EXPECT_EQ(covers("eth.sourceoui 00:11:22", "eth.source 00:11:22:33:44:55"), 1);
  EXPECT_EQ(covers("eth.source 00:11:22:33:44:55", "eth.sourceoui 00:11:22"), 0);
  EXPECT_EQ(covers("dev eth0", "dev eth0 udp.dport 53"), 1);
  EXPECT_EQ(covers("dev eth0", "dev eth1 udp.dport 53"), 0);
  EXPECT_EQ(covers("icmp.type 134 ip.version 6", "icmp.type 134 ip.version 6 ip.saddr fe80::/10"), 1);
  EXPECT_EQ(covers("icmp.type 134", "icmp.type 135"), 0);
}

TEST(ClfyCovers, StatefulConditionsAreNeverTakenAsCovering) {
  EXPECT_EQ(covers("packetmatch *x*", "packetmatch *x* udp.dport 5"), 0);
  EXPECT_EQ(covers("ethsrctab cov.tab", "ethsrctab cov.tab tcp.dport 80"), 0);
  EXPECT_EQ(covers("dhcpoption 60 x* cov.dhcp", "dhcpoption 60 x* cov.dhcp"), 0);
  // A later rule with such a condition can still be covered.
  EXPECT_EQ(covers("tcp.dport 80", "tcp.dport 80 packetmatch *GET*"), 1);
  nuv_clfy_ethersrctab_freeall();
}

// ---- Keyword help ----

TEST(ClfyKeywordHelp, OneRowPerKeywordInTableOrderWithAnExampleThatParses) {
  std::size_t row = 0;
  for (; parsetab[row].keyword; ++row) {
    const nuv_clfy_keyword_help *help = nuv_clfy_keyword_help_at(row);
    ASSERT_NE(help, nullptr) << row;
    EXPECT_STREQ(help->keyword, parsetab[row].keyword);
    EXPECT_GT(std::strlen(help->syntax), 0u);
    EXPECT_NE(std::string(help->example).find(help->keyword), std::string::npos) << help->keyword;
    EXPECT_TRUE(parse(help->example)) << help->example;
  }
  EXPECT_EQ(nuv_clfy_keyword_help_at(row), nullptr);
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

TEST(ClfyNearestKeyword, MisspellingsFindTheirKeyword) {
  EXPECT_STREQ(nuv_clfy_nearest_keyword("tcp.dprt", 8), "tcp.dport");
  EXPECT_STREQ(nuv_clfy_nearest_keyword("ip.saddrx", 9), "ip.saddr");
  EXPECT_STREQ(nuv_clfy_nearest_keyword("vlan.idd", 8), "vlan.id");
  EXPECT_EQ(nuv_clfy_nearest_keyword("completely.different", 20), nullptr);
  EXPECT_EQ(nuv_clfy_nearest_keyword("", 0), nullptr);
  // Only `length` bytes count.
  EXPECT_STREQ(nuv_clfy_nearest_keyword("tcp.dprt 80", 8), "tcp.dport");
}
