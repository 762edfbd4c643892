// Rule normalisation and rule-set grouping.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "nuvclfy_priv.h"  // the grouping table
#include "nuvcsock_test.h"
#include "testsupport.h"

using clfytest::net16;
using clfytest::parse;

namespace {

struct Entry {
  std::uint32_t op;
  std::uint16_t v1, v2;
  bool operator==(const Entry &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Entry &e) { return os << "{" << e.op << "," << e.v1 << "," << e.v2 << "}"; }

std::vector<Entry> entries(const nuv_clfy_valuelist &list) {
  std::vector<Entry> out;
  for (std::uint32_t i = 0; i < list.count; ++i)
    out.push_back({list.entries[i].op, list.entries[i].value1, list.entries[i].value2});
  return out;
}

// A rule whose source ports are `list` (host order), normalised.
std::vector<Entry> optimised_ports(std::initializer_list<Entry> list) {
  clfytest::Rule rule(nuv_clfy_alloc());
  for (const Entry &e : list) nuv_clfy_add_ip_sport(rule.get(), e.op, net16(e.v1), net16(e.v2));
  nuv_clfy_optim(rule.get());
  return entries(rule->sports);
}

constexpr std::uint32_t EQ = NUV_CLFY_OP_EQ, NE = NUV_CLFY_OP_NE, LT = NUV_CLFY_OP_LT, LE = NUV_CLFY_OP_LE,
                        GT = NUV_CLFY_OP_GT, GE = NUV_CLFY_OP_GE, RANGE = NUV_CLFY_OP_RANGE, ANY = NUV_CLFY_OP_ANY;

}  // namespace

// ---- Range normalisation ----

TEST(ClfyOptimRange, SingleValueRangeBecomesEqual) {
  EXPECT_EQ(optimised_ports({{RANGE, 10, 10}}), (std::vector<Entry>{{EQ, 10, 0}}));
}

TEST(ClfyOptimRange, RangeFromZeroBecomesLessOrEqual) {
  EXPECT_EQ(optimised_ports({{RANGE, 0, 100}}), (std::vector<Entry>{{LE, 100, 0}}));
}

TEST(ClfyOptimRange, RangeToTopBecomesGreaterOrEqual) {
  EXPECT_EQ(optimised_ports({{RANGE, 100, 65535}}), (std::vector<Entry>{{GE, 100, 0}}));
}

TEST(ClfyOptimRange, FullRangeAndZeroRangeAlwaysHold) {
  EXPECT_EQ(optimised_ports({{RANGE, 0, 65535}}), (std::vector<Entry>{{ANY, 0, 0}}));
  EXPECT_EQ(optimised_ports({{RANGE, 0, 0}}), (std::vector<Entry>{{ANY, 0, 0}}));
}

TEST(ClfyOptimRange, ReversedRangeIsSwapped) {
  EXPECT_EQ(optimised_ports({{RANGE, 20, 10}}), (std::vector<Entry>{{RANGE, 10, 20}}));
}

TEST(ClfyOptimRange, ReversedRangeToZeroBecomesEqual) {
  // "20-0": no upper bound written, so it is the single value 20.
  EXPECT_EQ(optimised_ports({{RANGE, 20, 0}}), (std::vector<Entry>{{EQ, 20, 0}}));
}

TEST(ClfyOptimRange, ReversedRangeEndingAtTopBecomesGreaterOrEqual) {
  EXPECT_EQ(optimised_ports({{RANGE, 65535, 100}}), (std::vector<Entry>{{GE, 100, 0}}));
}

TEST(ClfyOptimRange, OtherOperatorsLoseTheirSecondValue) {
  EXPECT_EQ(optimised_ports({{NE, 5, 99}}), (std::vector<Entry>{{NE, 5, 0}}));
}

TEST(ClfyOptimRange, RuleTextRangesAreNormalised) {
  auto rule = parse("udp.dport 0-100");
  ASSERT_TRUE(rule);
  EXPECT_EQ(entries(rule->dports), (std::vector<Entry>{{LE, 100, 0}}));
}

TEST(ClfyOptimRange, IpLenRangeIsNormalisedAndAlwaysTrueKeepsItsBit) {
  auto rule = parse("ip.len 0-65535");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_len.op, ANY);
  EXPECT_TRUE(rule->flags & NUV_CLFY_F_IP_LEN);
  auto single = parse("ip.len 1500-1500");
  EXPECT_EQ(single->ip_len.op, EQ);
  EXPECT_EQ(single->ip_len.value1, 1500);
}

TEST(ClfyOptimRange, IpLenSecondValueClearedForOtherOperators) {
  clfytest::Rule rule(nuv_clfy_alloc());
  rule->flags = NUV_CLFY_F_IP_LEN;
  rule->ip_len = {LT, 100, 200};
  nuv_clfy_optim(rule.get());
  EXPECT_EQ(rule->ip_len.value2, 0);
}

// ---- Superfluous entries ----

TEST(ClfyOptimList, IdenticalEntriesKeepOne) {
  EXPECT_EQ(optimised_ports({{EQ, 80, 0}, {EQ, 80, 0}}), (std::vector<Entry>{{EQ, 80, 0}}));
}

TEST(ClfyOptimList, OfIdenticalEntriesTheLastSurvives) {
  // Only observable by position: 80 (first), 443, 80 (last) keeps 443, 80.
  EXPECT_EQ(optimised_ports({{EQ, 80, 0}, {EQ, 443, 0}, {EQ, 80, 0}}),
            (std::vector<Entry>{{EQ, 443, 0}, {EQ, 80, 0}}));
}

TEST(ClfyOptimList, TighterLowerBoundSurvives) {
  // >= 5 and >= 10: the looser >= 5 goes, although it covers >= 10.
  EXPECT_EQ(optimised_ports({{GE, 5, 0}, {GE, 10, 0}}), (std::vector<Entry>{{GE, 10, 0}}));
  EXPECT_EQ(optimised_ports({{GT, 10, 0}, {GT, 5, 0}}), (std::vector<Entry>{{GT, 10, 0}}));
}

TEST(ClfyOptimList, TighterUpperBoundSurvives) {
  EXPECT_EQ(optimised_ports({{LE, 100, 0}, {LE, 10, 0}}), (std::vector<Entry>{{LE, 10, 0}}));
  EXPECT_EQ(optimised_ports({{LT, 10, 0}, {LT, 100, 0}}), (std::vector<Entry>{{LT, 10, 0}}));
}

TEST(ClfyOptimList, ValueInsideRangeGoes) {
  EXPECT_EQ(optimised_ports({{RANGE, 100, 200}, {EQ, 150, 0}}), (std::vector<Entry>{{RANGE, 100, 200}}));
  EXPECT_EQ(optimised_ports({{EQ, 100, 0}, {RANGE, 100, 200}}), (std::vector<Entry>{{RANGE, 100, 200}}));
  EXPECT_EQ(optimised_ports({{EQ, 99, 0}, {RANGE, 100, 200}}),
            (std::vector<Entry>{{EQ, 99, 0}, {RANGE, 100, 200}}));
}

TEST(ClfyOptimList, RangeInsideRangeGoes) {
  EXPECT_EQ(optimised_ports({{RANGE, 120, 130}, {RANGE, 100, 200}}), (std::vector<Entry>{{RANGE, 100, 200}}));
  EXPECT_EQ(optimised_ports({{RANGE, 90, 130}, {RANGE, 100, 200}}),
            (std::vector<Entry>{{RANGE, 90, 130}, {RANGE, 100, 200}}));
}

TEST(ClfyOptimList, ValuesAndRangesUnderOneSidedBounds) {
  EXPECT_EQ(optimised_ports({{EQ, 8080, 0}, {GE, 8000, 0}}), (std::vector<Entry>{{GE, 8000, 0}}));
  EXPECT_EQ(optimised_ports({{EQ, 8000, 0}, {GT, 8000, 0}}), (std::vector<Entry>{{EQ, 8000, 0}, {GT, 8000, 0}}));
  EXPECT_EQ(optimised_ports({{RANGE, 10, 20}, {LE, 20, 0}}), (std::vector<Entry>{{LE, 20, 0}}));
  EXPECT_EQ(optimised_ports({{RANGE, 10, 20}, {LT, 20, 0}}), (std::vector<Entry>{{RANGE, 10, 20}, {LT, 20, 0}}));
  EXPECT_EQ(optimised_ports({{RANGE, 10, 20}, {GE, 10, 0}}), (std::vector<Entry>{{GE, 10, 0}}));
}

TEST(ClfyOptimList, NotEqualDropsNothing) {
  EXPECT_EQ(optimised_ports({{NE, 5, 0}, {EQ, 6, 0}}), (std::vector<Entry>{{NE, 5, 0}, {EQ, 6, 0}}));
}

TEST(ClfyOptimList, EntryIsNeverDroppedBecauseOfADroppedOne) {
  // 150 goes because of the range; the range stays, 150 cannot take it along.
  EXPECT_EQ(optimised_ports({{RANGE, 100, 200}, {RANGE, 100, 200}, {EQ, 150, 0}}),
            (std::vector<Entry>{{RANGE, 100, 200}}));
}

TEST(ClfyOptimList, CompactionFailureLeavesTheListAsItWas) {
  clfytest::Rule rule(nuv_clfy_alloc());
  nuv_clfy_add_ip_sport(rule.get(), EQ, net16(80), 0);
  nuv_clfy_add_ip_sport(rule.get(), EQ, net16(80), 0);
  nuv_clfy_add_ip_sport(rule.get(), RANGE, net16(20), net16(10));
  {
    testsupport::NoLeakGuard guard;
    nuvcsock_fail_nth_allocation(1);
    nuv_clfy_optim(rule.get());
  }
  // Ranges are still normalised in place; the superfluous 80 stays.
  EXPECT_EQ(entries(rule->sports), (std::vector<Entry>{{EQ, 80, 0}, {EQ, 80, 0}, {RANGE, 10, 20}}));
}

TEST(ClfyOptimList, EveryListIsOptimised) {
  // One list per line: a list takes every later comma of the line.
  auto vlan = parse("vlan.id 5,5");
  auto sports = parse("tcp.sport 7,7");
  auto dports = parse("tcp.dport 9,9");
  ASSERT_TRUE(vlan && sports && dports);
  EXPECT_EQ(vlan->vlan_ids.count, 1u);
  EXPECT_EQ(sports->sports.count, 1u);
  EXPECT_EQ(dports->dports.count, 1u);
}

// ---- Addresses and Ethernet type ----

TEST(ClfyOptimRule, Ipv4AddressIsReducedByItsMask) {
  auto rule = parse("ip.saddr 10.1.2.3 255.255.0.0");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ip_saddr.v4.addr, clfytest::ipv4(10, 1, 0, 0));
  EXPECT_TRUE(rule->flags & NUV_CLFY_F_IP_SADDR);
}

TEST(ClfyOptimRule, ZeroMaskDropsTheConditionButKeepsTheFamily) {
  auto rule = parse("ip.saddr 10.1.2.3 0.0.0.0");
  ASSERT_TRUE(rule);
  EXPECT_FALSE(rule->flags & NUV_CLFY_F_IP_SADDR);
  EXPECT_EQ(rule->ip_saddr.v4.addr, 0u);
  // With no IP condition left, the Ethernet type is not derived.
  EXPECT_FALSE(rule->flags & NUV_CLFY_F_ETH_PROTO);
  auto with_proto = parse("ip.daddr 10.1.2.3/0 ip.proto udp");
  ASSERT_TRUE(with_proto);
  EXPECT_FALSE(with_proto->flags & NUV_CLFY_F_IP_DADDR);
  EXPECT_TRUE(with_proto->flags & NUV_CLFY_F_ETH_PROTO);
  EXPECT_EQ(with_proto->eth_proto, net16(0x0800));
}

TEST(ClfyOptimRule, ClearedSourceStillDecidesIpv4) {
  clfytest::Rule rule(nuv_clfy_alloc());
  rule->flags = NUV_CLFY_F_IP_SADDR | NUV_CLFY_F_IP_VERSION;
  rule->ip_saddr_family = 4;
  rule->ip_saddr.v4 = {clfytest::ipv4(10, 1, 2, 3), 0};
  nuv_clfy_optim(rule.get());
  EXPECT_EQ(rule->flags, NUV_CLFY_F_IP_VERSION | NUV_CLFY_F_ETH_PROTO);
  EXPECT_EQ(rule->eth_proto, net16(0x0800));
}

TEST(ClfyOptimRule, Ipv6DestinationGivesIpv6EthernetType) {
  auto rule = parse("ip.daddr 2001:db8::/32");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->eth_proto, net16(0x86dd));
  EXPECT_TRUE(rule->flags & NUV_CLFY_F_ETH_PROTO);
}

TEST(ClfyOptimRule, Ipv4WinsOverIpv6WhenBothFamiliesAppear) {
  auto rule = parse("ip.saddr 2001:db8::/32 ip.daddr 10.0.0.1");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->eth_proto, net16(0x0800));
}

TEST(ClfyOptimRule, DerivedTypeOverwritesAWrittenOne) {
  auto rule = parse("eth.proto 0x8100 ip.daddr 10.0.0.1");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->eth_proto, net16(0x0800));
}

TEST(ClfyOptimRule, IcmpTypeAloneDerivesNothing) {
  clfytest::Rule rule(nuv_clfy_alloc());
  rule->flags = NUV_CLFY_F_ICMP_TYPE;
  rule->ip_daddr_family = 6;
  nuv_clfy_optim(rule.get());
  EXPECT_EQ(rule->flags, NUV_CLFY_F_ICMP_TYPE);
}

TEST(ClfyOptimRule, NoFamilyNoType) {
  auto rule = parse("ip.proto tcp");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_IP_PROTO);
}

// ---- Set grouping ----

namespace {

struct SetOptim : public ::testing::Test {
  clfytest::Set src;
  clfytest::Set dst;
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

std::vector<std::string> listing(nuv_clfy_set *set) {
  std::vector<std::string> lines;
  nuv_clfy_set_walk(
      set,
      [](nuv_clfy *rule, int depth, void *arg) {
        static_cast<std::vector<std::string> *>(arg)->push_back(clfytest::text_of(rule, depth));
        return 0;
      },
      &lines);
  return lines;
}

}  // namespace

TEST_F(SetOptim, EmptySourceLeavesDestinationUntouched) {
  nuv_clfy *marker = reinterpret_cast<nuv_clfy *>(0x10);
  dst.set.head = marker;
  EXPECT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(dst.set.head, marker);
  dst.set.head = nullptr;
}

TEST_F(SetOptim, SingleRuleIsClonedWithoutParent) {
  nuv_clfy *rule = src.add("dev eth0 tcp.dport 80", 5);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  ASSERT_NE(dst.set.head, nullptr);
  EXPECT_NE(dst.set.head, rule);
  EXPECT_NE(dst.set.head->id, rule->id);
  EXPECT_EQ(dst.set.head->next, nullptr);
  EXPECT_EQ(dst.set.head->children, nullptr);
  EXPECT_EQ(dst.set.head->owner, &dst.set);
  EXPECT_EQ(clfytest::text_of(dst.set.head, 0), clfytest::text_of(rule, 0));
}

TEST_F(SetOptim, RunSharingDevAndProtocolGoesUnderParents) {
  // All four share the interface (the longest run), so they go under a dev
  // parent first; below it the three TCP rules share their protocol.
  src.add("dev eth0 tcp.dport 80", 1);
  src.add("dev eth0 tcp.dport 443", 2);
  src.add("dev eth0 tcp.dport 22", 3);
  src.add("dev eth0 udp.dport 53", 4);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&dst.set), (std::vector<std::string>{
                                   "  0: dev eth0 => 1",
                                   "  1:    ip.proto 6 => 1",
                                   "  2:       tcp.dport 80 => 1",
                                   "  2:       tcp.dport 443 => 2",
                                   "  2:       tcp.dport 22 => 3",
                                   "  1:    ip.proto 17 udp.dport 53 => 4",
                               }));
}

TEST_F(SetOptim, ProtocolRunFollowedByAnotherProtocol) {
  src.add("ip.proto tcp tcp.dport 80", 1);
  src.add("ip.proto tcp tcp.dport 443", 2);
  src.add("ip.proto tcp tcp.dport 22", 3);
  src.add("ip.proto udp udp.dport 53", 4);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&dst.set), (std::vector<std::string>{
                                   "  0: ip.proto 6 => 1",
                                   "  1:    tcp.dport 80 => 1",
                                   "  1:    tcp.dport 443 => 2",
                                   "  1:    tcp.dport 22 => 3",
                                   "  0: ip.proto 17 udp.dport 53 => 4",
                               }));
}

TEST_F(SetOptim, SourceSetIsUnchanged) {
  src.add("dev eth0 tcp.dport 80", 1);
  src.add("dev eth0 tcp.dport 443", 2);
  const auto before = listing(&src.set);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&src.set), before);
  EXPECT_EQ(src.set.head->owner, &src.set);
}

TEST_F(SetOptim, EveryRuleOfTheTreeIsOwnedByTheDestination) {
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 80", 1);
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 81", 2);
  src.add("dev eth1", 3);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  int count = 0;
  nuv_clfy_set_walk(
      &dst.set,
      [](nuv_clfy *rule, int, void *arg) {
        EXPECT_EQ(rule->owner, static_cast<nuv_clfy_set *>(arg));
        return 0;
      },
      &dst.set);
  nuv_clfy_set_walk(
      &dst.set, [](nuv_clfy *, int, void *n) { return ++*static_cast<int *>(n), 0; }, &count);
  EXPECT_EQ(count, 6);  // dev, protocol and source parents, three rules
}

TEST_F(SetOptim, NestedGroupsFollowTheLongestRuns) {
  // All three share the derived Ethernet type and the protocol (runs of 3,
  // the first mask wins the tie); only two share the source.
  src.add("ip.saddr 10.0.0.0/8 tcp.dport 1", 1);
  src.add("ip.saddr 10.0.0.0/8 tcp.dport 2", 2);
  src.add("ip.saddr 11.0.0.0/8 tcp.dport 3", 3);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&dst.set), (std::vector<std::string>{
                                   "  0: eth.proto 0x0800 => 1",
                                   "  1:    ip.proto 6 => 1",
                                   "  2:       ip.saddr 10.0.0.0 255.0.0.0 => 1",
                                   "  3:          tcp.dport 1 => 1",
                                   "  3:          tcp.dport 2 => 2",
                                   "  2:       ip.saddr 11.0.0.0 255.0.0.0 tcp.dport 3 => 3",
                               }));
}

TEST_F(SetOptim, EqualRunsPreferTheEarlierMask) {
  // dev alone (mask 0) and dev with protocol (mask 1) give runs of two:
  // the parent holds dev and Ethernet type only.
  src.add("dev eth0 udp.dport 1", 1);
  src.add("dev eth0 udp.dport 2", 2);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  const auto lines = listing(&dst.set);
  ASSERT_GE(lines.size(), 1u);
  EXPECT_EQ(lines[0], "  0: dev eth0 => 1");
}

TEST_F(SetOptim, RulesWithoutSharedConditionsStayFlat) {
  src.add("vlan.id 5", 1);
  src.add("vlan.id 6", 2);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&dst.set), (std::vector<std::string>{"  0: vlan.id 5 => 1", "  0: vlan.id 6 => 2"}));
}

TEST_F(SetOptim, DhcpRuleCloneGainsAPortEntry) {
  src.add("dhcpoption 60 MSFT* clients", 1);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(dst.set.head->dports.count, 2u);
  EXPECT_EQ(src.set.head->dports.count, 1u);
}

TEST_F(SetOptim, DestinationReplacesItsListWithoutFreeingIt) {
  auto old_rule = parse("dev old");
  dst.set.head = old_rule.get();
  src.add("dev eth0", 1);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_NE(dst.set.head, old_rule.get());
  EXPECT_STREQ(old_rule->dev, "old");  // still ours, still alive
}

TEST_F(SetOptim, AllocationFailuresGiveMinusOneAndLeakNothing) {
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 80", 1);
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 81,82", 2);
  src.add("dev eth0 ip.saddr 10.0.0.0/8 udp.dport 53", 3);
  src.add("dev eth1 localmark voice vlan.id 7 packetmatch x*", 4);
  src.add("dev eth1 localmark voice vlan.id 8", 5);
  src.add("dev eth1 dhcpoption 60 MSFT* clients", 6);
  const long before = nuvcsock_allocations();
  {
    clfytest::Set probe;
    ASSERT_EQ(nuv_clfy_set_optim(&src.set, &probe.set), 0);
  }
  const long allocations = nuvcsock_allocations() - before;
  ASSERT_GT(allocations, 10);
  const auto source_listing = listing(&src.set);
  int failed = 0;
  for (long n = 1; n <= allocations; ++n) {
    testsupport::NoLeakGuard guard;
    nuv_clfy *marker = reinterpret_cast<nuv_clfy *>(0x20);
    dst.set.head = marker;
    nuvcsock_fail_nth_allocation(n);
    const int rc = nuv_clfy_set_optim(&src.set, &dst.set);
    nuvcsock_fail_nth_allocation(0);
    if (rc == 0) {
      // Only silent failures (value lists, pattern copies) can let it succeed.
      ASSERT_NE(dst.set.head, marker) << n;
      nuv_clfy_del_and_free_all(&dst.set);
    } else {
      ++failed;
      EXPECT_EQ(rc, -1) << n;
      EXPECT_EQ(dst.set.head, marker) << n;
    }
    dst.set.head = nullptr;
  }
  EXPECT_GT(failed, 0);
  EXPECT_EQ(listing(&src.set), source_listing);
}

namespace {

// The result of the rule a set chooses for `p`, 0 for none.
int verdict(nuv_clfy_set *set, const clfytest::Packet &p) {
  const nuv_clfy *chosen = nuv_clfy_get_clfy_from_set(set, 0, &p.desc);
  return chosen ? chosen->result : 0;
}

}  // namespace

TEST_F(SetOptim, Ipv4NetworksOfDifferentLengthsKeepTheFirstMatchVerdict) {
  // 10.0.0.0/16 and 10.0.0.0/8 have the same masked address; a parent
  // holding the /16 would hide the /8 rule from 10.5.0.1.
  src.add("ip.saddr 10.0.0.0/16", 1);
  src.add("ip.saddr 10.0.0.0/8", 2);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  const std::uint8_t from[4] = {10, 5, 0, 1}, to[4] = {192, 168, 1, 1};
  clfytest::Packet p;
  p.set_ip(clfytest::ipv4_packet(17, from, to, clfytest::udp_header(9, 2)), 0x0800);
  EXPECT_EQ(verdict(&src.set, p), 2);
  EXPECT_EQ(verdict(&dst.set, p), 2);
  EXPECT_EQ(listing(&dst.set),
            (std::vector<std::string>{"  0: eth.proto 0x0800 => 1", "  1:    ip.saddr 10.0.0.0 255.255.0.0 => 1",
                                      "  1:    ip.saddr 10.0.0.0 255.0.0.0 => 2"}));
}

TEST_F(SetOptim, Ipv6PrefixesOfDifferentLengthsKeepTheFirstMatchVerdict) {
  // 2001:dc0::1 lies outside 2001:db8::/29 and inside 2001:db8::/2.
  src.add("ip.daddr 2001:db8::/29", 1);
  src.add("ip.daddr 2001:db8::/2", 2);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  const std::uint8_t from[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const std::uint8_t to[16] = {0x20, 0x01, 0x0d, 0xc0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  clfytest::Packet p;
  p.set_ip(clfytest::ipv6_packet(17, from, to, clfytest::udp_header(9, 2)), 0x86dd);
  EXPECT_EQ(verdict(&src.set, p), 2);
  EXPECT_EQ(verdict(&dst.set, p), 2);
}

TEST_F(SetOptim, Ipv6PrefixesOfDifferentLengthsGoUnderNoCommonAddressParent) {
  // The two rules share Ethernet type and protocol, not the address.
  src.add("ip.saddr 2001:db8::/32 udp.dport 1", 1);
  src.add("ip.saddr 2001:db8::/64 udp.dport 2", 2);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  const std::uint8_t from[16] = {0x20, 0x01, 0x0d, 0xb8, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const std::uint8_t to[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
  clfytest::Packet p;
  p.set_ip(clfytest::ipv6_packet(17, from, to, clfytest::udp_header(9, 2)), 0x86dd);
  EXPECT_EQ(verdict(&src.set, p), 0);
  EXPECT_EQ(verdict(&dst.set, p), 0);
  EXPECT_EQ(listing(&dst.set), (std::vector<std::string>{"  0: eth.proto 0x86dd => 1", "  1:    ip.proto 17 => 1",
                                                           "  2:       ip.saddr 2001:db8::/32 udp.dport 1 => 1",
                                                           "  2:       ip.saddr 2001:db8::/64 udp.dport 2 => 2"}));
}

TEST_F(SetOptim, IdenticalAddressConditionsStillShareAParent) {
  // Every mask ties at two rules, so the earliest (Ethernet type) makes the
  // first parent; below it the protocol, then the address.
  src.add("ip.saddr 10.0.0.0/8 udp.dport 1", 1);
  src.add("ip.saddr 10.0.0.0/8 udp.dport 2", 2);
  src.add("ip.daddr 2001:db8::/32 udp.dport 3", 3);
  src.add("ip.daddr 2001:db8::/32 udp.dport 4", 4);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&dst.set),
            (std::vector<std::string>{
                "  0: eth.proto 0x0800 => 1", "  1:    ip.proto 17 => 1", "  2:       ip.saddr 10.0.0.0 255.0.0.0 => 1",
                "  3:          udp.dport 1 => 1", "  3:          udp.dport 2 => 2", "  0: eth.proto 0x86dd => 3",
                "  1:    ip.proto 17 => 3", "  2:       ip.daddr 2001:db8::/32 => 3", "  3:          udp.dport 3 => 3",
                "  3:          udp.dport 4 => 4"}));
}

TEST_F(SetOptim, SameDeviceNameResolvedToOtherIndexesIsNoCommonCondition) {
  nuv_clfy *first = src.add("dev eth0 udp.dport 1", 1);
  nuv_clfy *second = src.add("dev eth0 udp.dport 2", 2);
  first->dev_ifindex = 1;
  second->dev_ifindex = 2;
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  clfytest::Packet p;
  const std::uint8_t from[4] = {10, 0, 0, 1}, to[4] = {10, 0, 0, 2};
  p.set_ip(clfytest::ipv4_packet(17, from, to, clfytest::udp_header(9, 2)), 0x0800);
  p.desc.dev_ifindex = 2;
  EXPECT_EQ(verdict(&src.set, p), 2);
  EXPECT_EQ(verdict(&dst.set, p), 2);
}

// ---- The grouping table and the comparison it relies on ----

TEST(ClfyGroupingMasks, SixMasksFromDeviceAndEthernetTypeToBothAddresses) {
  constexpr std::uint32_t kBase = NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO;
  const std::uint32_t expected[] = {kBase,
                                    kBase | NUV_CLFY_F_IP_PROTO,
                                    kBase | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_LEN,
                                    kBase | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_SADDR | NUV_CLFY_F_IP_DADDR,
                                    kBase | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_DADDR,
                                    kBase | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_SADDR};
  ASSERT_EQ(std::size(dp::clfy::kGroupingMasks), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(dp::clfy::kGroupingMasks[i], expected[i]) << i;
}

TEST_F(SetOptim, RunSharingOnlyTheProtocolGroupsUnderTheProtocol) {
  // The run ties between several masks; the earliest, device, Ethernet type
  // and protocol, wins and the parent holds the protocol alone.
  src.add("ip.proto udp udp.dport 1", 1);
  src.add("ip.proto udp udp.dport 2", 2);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&dst.set), (std::vector<std::string>{"  0: ip.proto 17 => 1", "  1:    udp.dport 1 => 1",
                                                           "  1:    udp.dport 2 => 2"}));
}

TEST_F(SetOptim, EqualLengthConditionsGroupUnderTheLengthMask) {
  src.add("ip.len 100 tcp.dport 1", 1);
  src.add("ip.len 100 tcp.dport 2", 2);
  src.add("tcp.dport 3", 3);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  EXPECT_EQ(listing(&dst.set), (std::vector<std::string>{"  0: ip.proto 6 => 1", "  1:    ip.len 100 => 1",
                                                           "  2:       tcp.dport 1 => 1", "  2:       tcp.dport 2 => 2",
                                                           "  1:    tcp.dport 3 => 3"}));
}

TEST(ClfyGroupingCompare, LengthOperatorsCompareWithReversedSign) {
  // Different operators give b's operator minus a's: "<" (3) against ">" (5)
  // is 2, so the rule with "<" sorts after the one with ">".
  auto less = parse("ip.len < 100");
  auto greater = parse("ip.len > 100");
  EXPECT_EQ(nuv_clfy_cmp(less.get(), greater.get(), NUV_CLFY_F_IP_LEN), 2);
  EXPECT_EQ(nuv_clfy_cmp(greater.get(), less.get(), NUV_CLFY_F_IP_LEN), -2);
  // Equal operators compare their values the usual way round.
  auto smaller = parse("ip.len < 50");
  EXPECT_LT(nuv_clfy_cmp(smaller.get(), less.get(), NUV_CLFY_F_IP_LEN), 0);
}

TEST_F(SetOptim, EveryBlockOfTheTreeIsTaggedWithTheClassifierPath) {
  src.add("dev eth0 tcp.dport 80,80,443", 1);
  src.add("dev eth0 tcp.dport 22", 2);
  const long before = testsupport::live_blocks().slab;
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  ASSERT_GT(testsupport::live_blocks().slab, before);
  std::vector<std::string> files;
  nuvcsock_slab_foreach_live(
      [](const char *file, int, std::size_t, void *ctx) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(file ? file : "");
      },
      &files);
  for (const std::string &file : files) EXPECT_EQ(file, "sharedlibs/datapipe/nuvclfy");
}

namespace {

int g_in_place_releases = 0;
int copies = 0;
void count_in_place_release(nuv_clfy *) { ++g_in_place_releases; }

int in_place_action() {
  static const int index = nuv_clfy_register_action("inplace", nullptr, count_in_place_release);
  return index;
}

bool owned_by(nuv_clfy *rule, int, void *set) { return rule->owner != set; }

}  // namespace

TEST_F(SetOptim, InPlaceReplacesTheListByTheTreeOwnedByTheSet) {
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 80", 1);
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 81", 2);
  src.add("dev eth1 udp.dport 53", 3);
  ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
  const auto expected = listing(&dst.set);
  ASSERT_EQ(nuv_clfy_set_optim_in_place(&src.set), 0);
  EXPECT_EQ(listing(&src.set), expected);
  EXPECT_EQ(nuv_clfy_set_walk(&src.set, [](nuv_clfy *r, int d, void *s) { return owned_by(r, d, s) ? 1 : 0; },
                              &src.set),
            0);
}

TEST_F(SetOptim, InPlaceFreesTheOldRulesWithoutReleasingTheirActionData) {
  const int action = in_place_action();
  ASSERT_GT(action, 0);
  testsupport::NoLeakGuard guard;
  {
    clfytest::Set set;
    set.add("ip.saddr 10.0.0.0/8 tcp.dport 80", 1)->action = action;
    set.add("ip.saddr 10.0.0.0/8 tcp.dport 81", 2)->action = action;
    g_in_place_releases = 0;
    ASSERT_EQ(nuv_clfy_set_optim_in_place(&set.set), 0);
    // The copies carry the action data on: nothing is released yet.
    EXPECT_EQ(g_in_place_releases, 0);
    copies = 0;
    nuv_clfy_set_walk(&set.set, [](nuv_clfy *rule, int, void *action) {
      copies += rule->action == *static_cast<int *>(action);
      return 0;
    }, const_cast<int *>(&action));
    EXPECT_GE(copies, 2);
  }
  // Freeing the set releases each copy that carries the action once.
  EXPECT_EQ(g_in_place_releases, copies);
}

TEST_F(SetOptim, InPlaceOnAnEmptySetOrNoSet) {
  EXPECT_EQ(nuv_clfy_set_optim_in_place(&src.set), 0);
  EXPECT_EQ(src.set.head, nullptr);
  EXPECT_EQ(nuv_clfy_set_optim_in_place(nullptr), -1);
}

TEST_F(SetOptim, InPlaceAllocationFailureLeavesTheSetAsItWas) {
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 80", 1);
  src.add("dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 81,82", 2);
  src.add("dev eth1 udp.dport 53", 3);
  const auto before = listing(&src.set);
  nuv_clfy *head = src.set.head;
  int failed = 0;
  for (long n = 1;; ++n) {
    const testsupport::LiveBlocks live = testsupport::live_blocks();
    nuvcsock_fail_nth_allocation(n);
    const int rc = nuv_clfy_set_optim_in_place(&src.set);
    nuvcsock_fail_nth_allocation(0);
    if (rc == 0) break;  // the set holds the tree now
    ++failed;
    ASSERT_EQ(rc, -1);
    ASSERT_EQ(src.set.head, head) << n;
    ASSERT_EQ(listing(&src.set), before) << n;
    ASSERT_EQ(testsupport::live_blocks(), live) << "allocation " << n << ": something stayed allocated";
  }
  EXPECT_GT(failed, 5);
}
