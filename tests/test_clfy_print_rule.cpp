// Rule text that reads back: nuv_clfy_print_rule writes what the parser
// reads as the same rule, whatever the parser accepted.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "rc_seeded.h"
#include "testsupport.h"

using clfytest::parse;

namespace {

std::string printed(const nuv_clfy *rule) {
  char buf[512];
  return nuv_clfy_print_rule(rule, buf, sizeof buf) >= 0 ? std::string(buf) : std::string("<none>");
}

bool same_text(const char *a, const char *b) { return std::strcmp(a ? a : "", b ? b : "") == 0; }

// Every field a rule's matching depends on, including those nuv_clfy_cmp
// leaves out (brdev, tcp.flags, icmp.type, IPv6 prefix lengths, patterns).
bool same_rule(const nuv_clfy *a, const nuv_clfy *b) {
  if (a->flags != b->flags) return false;
  if (nuv_clfy_cmp(a, b, ~NUV_CLFY_F_PACKETMATCH) != 0) return false;
  if ((a->flags & NUV_CLFY_F_BRDEV) && std::strcmp(a->brdev, b->brdev) != 0) return false;
  if ((a->flags & NUV_CLFY_F_TCP_FLAGS) && (a->tcp_flags != b->tcp_flags || a->tcp_flags_mask != b->tcp_flags_mask))
    return false;
  if ((a->flags & NUV_CLFY_F_ICMP_TYPE) && a->icmp_type != b->icmp_type) return false;
  if ((a->flags & NUV_CLFY_F_IP_SADDR) && a->ip_saddr_family == 6 && a->ip_saddr_prefixlen != b->ip_saddr_prefixlen)
    return false;
  if ((a->flags & NUV_CLFY_F_IP_DADDR) && a->ip_daddr_family == 6 && a->ip_daddr_prefixlen != b->ip_daddr_prefixlen)
    return false;
  if (a->ip_proto != b->ip_proto || a->eth_proto != b->eth_proto) return false;
  return same_text(a->packetmatch, b->packetmatch);
}

const char *const kPieces[] = {
    "dev eth0", "dev lan1", "brdev br0", "localmark voice,video", "localmark 12", "eth.proto 0x0806",
    "eth.source 00:11:22:33:44:55", "eth.sourceoui 00:1a:2b", "eth.dest ff:ff:ff:ff:ff:ff", "eth.destoui 01:00:5e",
    "vlan.id 7", "vlan.id 100-200", "vlan.id !=5", "vlan.id 0-65535", "vlan.prio 3", "ethsrctab lan.tab",
    "ip.version 4", "ip.version 6", "ip.proto tcp", "ip.proto udp", "ip.proto P47", "ip.proto icmpv6",
    "ip.proto P63", "ip.proto P255", "ip.tos 0xb8", "ip.tos 0x28/0xe0", "ip.saddr 10.0.0.0/8",
    "ip.saddr 10.1.2.3 255.0.255.0", "ip.daddr 192.168.1.77/24", "ip.daddr 2001:db8::/32",
    "ip.saddr fe80::1/64", "ip.saddr ::ffff:192.0.2.1/128", "ipdsttab dst.tab", "ip.len >= 1400",
    "ip.len 0-0", "ip.len < 60", "udp.sport 1000-2000", "udp.dport 53", "udp.dport 53,67", "tcp.sport 80",
    "tcp.dport 80,443,>=8000", "tcp.dport <=1023", "tcp.flags 0x002/0x012", "tcp.flags 0x10", "icmp.type 134",
    "icmp.type 0", "dhcpoption 60 dhcpcd-* dhcp.clients", "dhcpheader chaddr 00:0C:29:* dhcp.vmware",
    "dhcpoption 125/3561/1 x* dhcp.vendor", "any", "ethport 1"};

const char *const kLast[] = {"", "packetmatch *INVITE*", "packetmatch a,b", "packetmatch ?x*"};

// Lines that were printed and read back, so the property cannot pass idle.
int g_compared = 0;

void expect_reads_back(const std::string &line) {
  auto original = parse(line);
  if (!original) return;  // word soup the parser refuses
  char buf[512];
  const int length = nuv_clfy_print_rule(original.get(), buf, sizeof buf);
  // Only two lists with several entries each, or a list and a pattern with
  // a comma, cannot share a line.
  if (length < 0) {
    const int lists = (original->vlan_ids.count > 1) + (original->sports.count > 1) + (original->dports.count > 1);
    const bool comma = original->packetmatch && std::strchr(original->packetmatch, ',');
    RC_ASSERT(lists > 1 || comma);
    return;
  }
  RC_ASSERT(static_cast<std::size_t>(length) == std::strlen(buf));
  auto reread = parse(buf);
  RC_ASSERT(reread != nullptr);
  RC_ASSERT(same_rule(original.get(), reread.get()));
  ++g_compared;
}

}  // namespace

TEST(ClfyPrintRule, RandomRulesReadBackAsTheSameRule) {
  testsupport::check_seeded("printed rule text reads back", 20261124, 3000, [] {
    const std::vector<std::string> pieces(std::begin(kPieces), std::end(kPieces));
    const auto words = *rc::gen::container<std::vector<std::string>>(rc::gen::elementOf(pieces));
    std::string line;
    for (const auto &w : words) line += w + " ";
    line += *rc::gen::elementOf(std::vector<std::string>(std::begin(kLast), std::end(kLast)));
    if (line.size() > 255) line.resize(0);
    expect_reads_back(line);
  });
  EXPECT_GT(g_compared, 1000);
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

TEST(ClfyPrintRule, ProtocolIsWrittenWithItsPrefix) {
  auto rule = parse("ip.proto tcp");
  EXPECT_EQ(printed(rule.get()), "ip.proto P6");
}

TEST(ClfyPrintRule, PortKeywordsSayTheirProtocolThemselves) {
  EXPECT_EQ(printed(parse("tcp.dport 80").get()), "tcp.dport 80");
  EXPECT_EQ(printed(parse("ip.proto udp udp.sport 53").get()), "udp.sport 53");
  // A protocol other than the ports' is written after them, so it stays.
  EXPECT_EQ(printed(parse("tcp.dport 80 ip.proto P47").get()), "tcp.dport 80 ip.proto P47");
}

TEST(ClfyPrintRule, TheOneListWithSeveralEntriesComesFirstOfTheLists) {
  // Every list looks for commas in the whole rest of its line.
  EXPECT_EQ(printed(parse("tcp.dport 80,443 vlan.id 7").get()), "tcp.dport 80,443 vlan.id 7");
  EXPECT_EQ(printed(parse("vlan.id 7,8 tcp.dport 80 packetmatch *x*").get()),
            "vlan.id 7,8 tcp.dport 80 packetmatch *x*");
}

TEST(ClfyPrintRule, TwoListsWithSeveralEntriesCannotBeSaidOnOneLine) {
  // The parser splits a list at every comma of the rest of the line.
  auto rule = parse("udp.dport 53,67");
  ASSERT_TRUE(rule);
  nuv_clfy_add_vlanid(rule.get(), NUV_CLFY_OP_EQ, clfytest::net16(1), 0);
  nuv_clfy_add_vlanid(rule.get(), NUV_CLFY_OP_EQ, clfytest::net16(2), 0);
  char buf[128];
  EXPECT_EQ(nuv_clfy_print_rule(rule.get(), buf, sizeof buf), -1);
}

TEST(ClfyPrintRule, ContiguousMasksAsLengthsOthersAsDottedMasks) {
  EXPECT_EQ(printed(parse("ip.saddr 192.168.1.77/24").get()), "eth.proto 0x0800 ip.saddr 192.168.1.0/24");
  EXPECT_EQ(printed(parse("ip.daddr 10.1.2.3 255.0.255.0").get()), "eth.proto 0x0800 ip.daddr 10.0.2.0 255.0.255.0");
}

TEST(ClfyPrintRule, MappedIpv6AddressStaysIpv6) {
  EXPECT_EQ(printed(parse("ip.saddr ::ffff:192.0.2.1/128").get()), "eth.proto 0x86dd ip.saddr ::ffff:192.0.2.1/128");
}

TEST(ClfyPrintRule, AlwaysTrueEntriesAreWrittenAsTheFullRange) {
  EXPECT_EQ(printed(parse("vlan.id 0-65535").get()), "vlan.id 0-65535");
  EXPECT_EQ(printed(parse("ip.len 0-0").get()), "ip.len 0-65535");
}

TEST(ClfyPrintRule, NamesThatWouldReadAsSomethingElseCannotBeSaid) {
  char buf[128];
  // "dev" without a name has an empty name; "dev ===x" is the name "=x"
  // (the first "==" is the optional one).
  for (const char *line : {"dev", "dev ===x tcp.dport 80", "brdev", "ip.proto tcp ethsrctab"}) {
    auto rule = parse(line);
    ASSERT_TRUE(rule) << line;
    EXPECT_EQ(nuv_clfy_print_rule(rule.get(), buf, sizeof buf), -1) << line;
  }
  nuv_clfy_ethersrctab_freeall();
}

TEST(ClfyPrintRule, RuleWithoutConditionsIsAny) { EXPECT_EQ(printed(parse("any").get()), "any"); }

TEST(ClfyPrintRule, TooSmallBufferGivesMinusOneAndEmptyText) {
  auto rule = parse("tcp.dport 80");
  char buf[8] = "junk";
  EXPECT_EQ(nuv_clfy_print_rule(rule.get(), buf, sizeof buf), -1);
  EXPECT_STREQ(buf, "");
  char one_short[12];
  EXPECT_EQ(nuv_clfy_print_rule(rule.get(), one_short, sizeof one_short), -1);
  char exact[13];
  EXPECT_EQ(nuv_clfy_print_rule(rule.get(), exact, sizeof exact), 12);
  EXPECT_STREQ(exact, "tcp.dport 80");
}

TEST(ClfyPrintRule, ListingFormatStaysAsItWas) {
  // The listing keeps its bare protocol numbers; only the new printer writes P6.
  auto rule = parse("tcp.dport 80");
  EXPECT_EQ(clfytest::text_of(rule.get()), " ip.proto 6 tcp.dport 80");
}
