// Printed rules read back: where the printed form is rule text, parsing it
// gives the same rule; the kinds of rule whose listing is not rule text are
// listed one by one.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "clfy_testing.h"
#include "nikerkiog.h"

using clfytest::parse;
using clfytest::parse_result;
using clfytest::text_of;

namespace {

using clfytest::chance;
using clfytest::pick;
using clfytest::pick_from;
using clfytest::Rng;

std::string number(Rng &rng) { return std::to_string(1 + pick(rng, 4000)); }

std::string comparison(Rng &rng) {
  const char *const ops[] = {"", "=", "!=", "<", "<=", ">", ">="};
  if (chance(rng, 20)) return number(rng) + "-" + number(rng);
  return std::string(pick_from(rng, ops)) + number(rng);
}

std::string hex_byte(Rng &rng) {
  char text[3];
  std::snprintf(text, sizeof text, "%02x", pick(rng, 256));
  return text;
}

std::string mac(Rng &rng, int bytes) {
  std::string text = hex_byte(rng);
  for (int i = 1; i < bytes; ++i) text += ":" + hex_byte(rng);
  return text;
}

std::string ipv4_prefix(Rng &rng) {
  std::string text = std::to_string(pick(rng, 224)) + "." + std::to_string(pick(rng, 256)) + "." +
                     std::to_string(pick(rng, 256)) + "." + std::to_string(pick(rng, 256));
  return text + "/" + std::to_string(1 + pick(rng, 32));
}

std::string ipv6_prefix(Rng &rng) {
  const char *const prefixes[] = {"2001:db8::", "2001:db8:1:2::", "fe80::", "fd00:1234::"};
  return std::string(pick_from(rng, prefixes)) + std::to_string(1 + pick(rng, 9)) + "/" +
         std::to_string(pick(rng, 129));
}

// Rule texts made of every condition whose listing is rule text again:
// everything except protocols (printed as numbers), table contents, DHCP
// conditions and patterns followed by further conditions.
std::string printable_rule(Rng &rng) {
  std::string line;
  auto add = [&line](const std::string &piece) { line += piece + " "; };
  const char *const devs[] = {"eth0", "lan1", "wlan0.5", "br-lan"};
  const char *const classes[] = {"voice", "video", "bulk", "12", "127"};
  if (chance(rng, 40)) add(std::string("dev ") + pick_from(rng, devs));
  if (chance(rng, 20)) add(std::string("brdev ") + pick_from(rng, devs));
  if (chance(rng, 20)) add(std::string("localmark ") + pick_from(rng, classes) + "," + pick_from(rng, classes));
  if (chance(rng, 15)) add("eth.proto 0x" + hex_byte(rng) + hex_byte(rng));
  if (chance(rng, 25)) add(chance(rng, 50) ? "eth.source " + mac(rng, 6) : "eth.sourceoui " + mac(rng, 3));
  if (chance(rng, 25)) add(chance(rng, 50) ? "eth.dest " + mac(rng, 6) : "eth.destoui " + mac(rng, 3));
  if (chance(rng, 15)) add("ethsrctab empty.sources");
  if (chance(rng, 15)) add("vlan.prio " + std::to_string(pick(rng, 8)));
  if (chance(rng, 20)) add("ip.version " + std::string(chance(rng, 50) ? "4" : "6"));
  if (chance(rng, 15)) add("ip.tos 0x" + hex_byte(rng) + "/0x" + hex_byte(rng));
  if (chance(rng, 20)) add("ip.len " + comparison(rng));
  const bool v6 = chance(rng, 40);
  if (chance(rng, 35)) add("ip.saddr " + (v6 ? ipv6_prefix(rng) : ipv4_prefix(rng)));
  if (chance(rng, 35)) add("ip.daddr " + (v6 ? ipv6_prefix(rng) : ipv4_prefix(rng)));
  if (chance(rng, 15)) add("ipdsttab empty.dests");
  if (chance(rng, 15)) add("icmp.type " + std::to_string(pick(rng, 256)));
  // The one comma list of the line, printed after everything above.
  if (chance(rng, 30)) {
    std::string list = comparison(rng);
    for (int n = pick(rng, 3); n > 0; --n) list += "," + comparison(rng);
    add("vlan.id " + list);
  }
  return line;
}

// Masks under which the two rules are compared: everything, and each bit.
std::vector<std::uint32_t> masks() {
  std::vector<std::uint32_t> out{0xffffffffu};
  for (int bit = 0; bit < 32; ++bit) out.push_back(1u << bit);
  return out;
}

}  // namespace

TEST(ClfyRoundTrip, PrintedRuleTextParsesToAnEqualRule) {
  Rng rng(4711);
  int compared = 0;
  for (int round = 0; round < 5000; ++round) {
    const std::string line = printable_rule(rng);
    auto original = parse(line);
    ASSERT_TRUE(original) << line;
    const std::string printed = text_of(original.get());
    auto reread = parse(printed);
    ASSERT_TRUE(reread) << line << "\n printed as" << printed;
    for (std::uint32_t mask : masks())
      ASSERT_EQ(nuv_clfy_cmp(original.get(), reread.get(), mask), 0)
          << line << "\n printed as" << printed << "\n mask " << std::hex << mask;
    // brdev and icmp.type are not compared; the texts show them.
    ASSERT_EQ(text_of(reread.get()), printed) << line;
    EXPECT_EQ(reread->flags, original->flags) << line;
    ++compared;
  }
  EXPECT_EQ(compared, 5000);
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

// ---- Listings that are not rule text ----

TEST(ClfyRoundTripRefused, ProtocolPrintsAsABareNumber) {
  // Protocol numbers are read as "P6"; the listing writes "ip.proto 6" so
  // the list is readable next to packet dumps.
  auto rule = parse("ip.proto tcp");
  EXPECT_EQ(text_of(rule.get()), " ip.proto 6");
  EXPECT_EQ(parse_result(text_of(rule.get())), -1);
}

TEST(ClfyRoundTripRefused, EveryPortRuleCarriesItsProtocolNumber) {
  auto rule = parse("tcp.dport 80");
  EXPECT_EQ(text_of(rule.get()), " ip.proto 6 tcp.dport 80");
  EXPECT_EQ(parse_result(text_of(rule.get())), -1);
}

TEST(ClfyRoundTripRefused, TableContentsFollowTheTableName) {
  auto rule = parse("ethsrctab rt.known");
  const std::uint8_t mac[6] = {0, 1, 2, 3, 4, 5};
  ASSERT_EQ(nuv_clfy_ethersrctab_add("rt.known", mac), 0);
  EXPECT_EQ(text_of(rule.get()), " ethsrctab rt.known 00:01:02:03:04:05");
  // The address is read where a keyword should stand.
  EXPECT_EQ(parse_result(text_of(rule.get())), -1);
  auto dst = parse("ipdsttab rt.dests");
  ASSERT_EQ(nuv_clfy_ipdsttab_add4("rt.dests", clfytest::ipv4(192, 0, 2, 1)), 0);
  EXPECT_EQ(parse_result(text_of(dst.get())), -1);
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

TEST(ClfyRoundTripRefused, AlwaysTrueEntryPrintsAsUnknownOperator) {
  // 0-65535 is normalised to "always", which has no rule text.
  auto rule = parse("vlan.id 0-65535");
  EXPECT_EQ(text_of(rule.get()), " vlan.id op? 0 0");
  EXPECT_EQ(parse_result(text_of(rule.get())), -1);
  auto len = parse("ip.len 0-0");
  EXPECT_EQ(text_of(len.get()), " ip.len op? 0 0");
  EXPECT_EQ(parse_result(text_of(len.get())), -1);
}

TEST(ClfyRoundTripRefused, DhcpConditionPrintsWithItsImpliedPortAndProtocol) {
  auto rule = parse("dhcpoption 60 MSFT* rt.clients");
  EXPECT_EQ(text_of(rule.get()), " ip.proto 17 udp.dport 67 dhcpoption 60 MSFT* rt.clients");
  EXPECT_EQ(parse_result(text_of(rule.get())), -1);
  // Without the protocol word it reads back, with the port 67 entry twice
  // before normalisation keeps one.
  auto reread = parse(" udp.dport 67 dhcpoption 60 MSFT* rt.clients");
  ASSERT_TRUE(reread);
  EXPECT_EQ(reread->dports.count, 1u);
  nuv_clfy_ethersrctab_freeall();
}

TEST(ClfyRoundTripRefused, PatternFollowedByIcmpTypeTakesItIntoThePattern) {
  auto rule = parse("icmp.type 128 packetmatch *x*");
  const std::string printed = text_of(rule.get());
  EXPECT_EQ(printed, " packetmatch *x* icmp.type 128");
  auto reread = parse(printed);
  ASSERT_TRUE(reread);
  EXPECT_STREQ(reread->packetmatch, "*x* icmp.type 128");
  EXPECT_STREQ(rule->packetmatch, "*x*");
}

TEST(ClfyRoundTripRefused, PatternComparisonIsInverted) {
  // Equal patterns compare as 1 and different ones as 0, so a faithful round
  // trip of a pattern reads as "different" under its bit.
  auto rule = parse("packetmatch *abc*");
  auto reread = parse(text_of(rule.get()));
  ASSERT_TRUE(reread);
  EXPECT_STREQ(reread->packetmatch, rule->packetmatch);
  EXPECT_EQ(nuv_clfy_cmp(rule.get(), reread.get(), NUV_CLFY_F_PACKETMATCH), 1);
  auto other = parse("packetmatch *abd*");
  EXPECT_EQ(nuv_clfy_cmp(rule.get(), other.get(), NUV_CLFY_F_PACKETMATCH), 0);
}

TEST(ClfyRoundTripRefused, Ipv4MappedAddressReadsBackAsIpv4) {
  auto rule = parse("ip.saddr ::ffff:192.0.2.1/128");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_saddr_family, 6);
  const std::string printed = text_of(rule.get());
  EXPECT_EQ(printed, " eth.proto 0x86dd ip.saddr 192.0.2.1/128");
  auto reread = parse(printed);
  ASSERT_TRUE(reread);
  EXPECT_EQ(reread->ip_saddr_family, 4);
  EXPECT_NE(nuv_clfy_cmp(rule.get(), reread.get(), NUV_CLFY_F_IP_SADDR), 0);
}

TEST(ClfyRoundTripRefused, PortsUnderAnotherProtocolHaveNoKeyword) {
  clfytest::Rule rule(nuv_clfy_alloc());
  rule->ip_proto = 47;
  nuv_clfy_add_ip_sport(rule.get(), NUV_CLFY_OP_EQ, clfytest::net16(5), 0);
  EXPECT_EQ(text_of(rule.get()), " .sport 5");
  EXPECT_EQ(parse_result(text_of(rule.get())), -1);
}

TEST(ClfyRoundTripRefused, ListingPrefixAndResultAreNoRuleText) {
  auto rule = parse("dev eth0");
  EXPECT_EQ(parse_result(text_of(rule.get(), 0)), -1);
}
