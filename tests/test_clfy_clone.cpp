// Rule copies: the full clone and the clone restricted to a mask.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "clfy_rule_builder.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using Rule = testsupport::ClfyRule;
using testsupport::NoLeakGuard;

namespace {

struct Entry {
  uint32_t op;
  uint16_t value1;
  uint16_t value2;
  bool operator==(const Entry &) const = default;
};

std::vector<Entry> entries_of(const nuv_clfy_valuelist &list) {
  std::vector<Entry> out;
  for (uint32_t i = 0; i < list.count; ++i) out.push_back({list.entries[i].op, list.entries[i].value1, list.entries[i].value2});
  return out;
}

int released = 0;
void count_release(nuv_clfy *) { ++released; }

// One action with a release callback, registered once for the program.
int release_action() {
  static const int index = nuv_clfy_register_action("count", nullptr, count_release);
  return index;
}

// A rule with every owned part and every scalar field set.
void fill_everything(Rule &rule, nuv_clfy_set *owner) {
  rule.dev("eth0").brdev("br0").localmark(3).eth_proto(0x0800).ethsrctab("macs");
  const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  rule.eth_source(mac).eth_dest(mac).vlan(NUV_CLFY_OP_RANGE, 10, 20).vlan_prio(5).ip_version(4);
  rule.tos(0xb8, 0xfc).len(NUV_CLFY_OP_LE, 1500).saddr4("10.0.0.0", "255.0.0.0").daddr4("192.0.2.1", "255.255.255.255");
  rule.ipdsttab("dsts").sport(NUV_CLFY_OP_GE, 1024).dport(NUV_CLFY_OP_EQ, 68).tcp_flags(0x012, 0x0fff).icmp_type(135);
  rule.dhcp(125, 3561, 1, "abc*", "lan.boxes").packetmatch("*GET*");
  rule->dev_ifindex = 3;
  rule->brdev_ifindex = 7;
  rule->hits = 42;
  rule->owner = owner;
  rule->action = release_action();
  std::memcpy(rule->action_data, "0123456789abcdef", 16);
  rule->result = 9;
}

class ClfyClone : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

// ---- Full clone ----

TEST_F(ClfyClone, CloneOfARuleWithADhcpConditionHasOneMoreDestinationPort) {
  Rule rule;
  rule.dport(NUV_CLFY_OP_EQ, 68);
  ASSERT_EQ(nuv_clfy_add_dhcppacketmatch(rule.get(), 60, 0, 0, "MSFT*", "clients"), 0);
  // The rule now holds 68 and the 67 of its condition.
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(entries_of(copy->dports), (std::vector<Entry>{{NUV_CLFY_OP_EQ, 68, 0}, {NUV_CLFY_OP_EQ, 67, 0}, {NUV_CLFY_OP_EQ, 67, 0}}));
}

TEST_F(ClfyClone, CloneOfOnePortAndADhcpConditionHasTwoPortsAFreshIdAndNoLinks) {
  Rule rule;
  rule.dhcp(60, 0, 0, "MSFT*", "clients");
  ASSERT_EQ(rule->dports.count, 1u);
  nuv_clfy sibling{}, child{};
  rule->next = &sibling;
  rule->children = &child;
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->dports.count, 2u);
  EXPECT_GT(copy->id, rule->id);
  EXPECT_EQ(copy->next, nullptr);
  EXPECT_EQ(copy->children, nullptr);
  rule->next = nullptr;
  rule->children = nullptr;
}

TEST_F(ClfyClone, CloneTakesTheNextId) {
  Rule rule;
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  Rule after;
  EXPECT_EQ(after->id, copy->id + 1);
}

TEST_F(ClfyClone, CloneKeepsEveryNonOwnedField) {
  nuv_clfy_set set{};
  Rule rule;
  fill_everything(rule, &set);
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->owner, &set);
  EXPECT_EQ(copy->flags, rule->flags);
  EXPECT_EQ(copy->dev_ifindex, 3);
  EXPECT_STREQ(copy->dev, "eth0");
  EXPECT_EQ(copy->brdev_ifindex, 7);
  EXPECT_STREQ(copy->brdev, "br0");
  EXPECT_EQ(std::memcmp(copy->eth_source, rule->eth_source, 6), 0);
  EXPECT_EQ(std::memcmp(copy->eth_dest, rule->eth_dest, 6), 0);
  EXPECT_EQ(copy->eth_proto, rule->eth_proto);
  EXPECT_EQ(copy->ethsrctab, rule->ethsrctab);
  EXPECT_EQ(copy->vlan_prio, 5);
  EXPECT_EQ(copy->ip_version, 4);
  EXPECT_EQ(copy->ip_proto, 17);
  EXPECT_EQ(copy->ip_tos, 0xb8);
  EXPECT_EQ(copy->ip_tos_mask, 0xfc);
  EXPECT_EQ(std::memcmp(&copy->ip_saddr, &rule->ip_saddr, 16), 0);
  EXPECT_EQ(copy->ip_saddr_family, 4);
  EXPECT_EQ(std::memcmp(&copy->ip_daddr, &rule->ip_daddr, 16), 0);
  EXPECT_EQ(copy->ip_len.op, NUV_CLFY_OP_LE);
  EXPECT_EQ(copy->ip_len.value1, 1500);
  EXPECT_EQ(copy->ipdsttab, rule->ipdsttab);
  EXPECT_EQ(copy->tcp_flags, rule->tcp_flags);
  EXPECT_EQ(copy->tcp_flags_mask, rule->tcp_flags_mask);
  EXPECT_EQ(copy->icmp_type, 135);
  EXPECT_EQ(copy->hits, 42u);
  EXPECT_EQ(copy->action, rule->action);
  EXPECT_EQ(std::memcmp(copy->action_data, "0123456789abcdef", 16), 0);
  EXPECT_EQ(copy->result, 9);
  copy->owner = nullptr;
  rule->owner = nullptr;
}

TEST_F(ClfyClone, CloneHasItsOwnCopyOfEveryOwnedPart) {
  Rule rule;
  fill_everything(rule, nullptr);
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  ASSERT_NE(copy.get(), nullptr);
  ASSERT_NE(copy->localmark, nullptr);
  EXPECT_NE(copy->localmark, rule->localmark);
  EXPECT_EQ(std::memcmp(copy->localmark, rule->localmark, 128), 0);
  EXPECT_NE(copy->vlan_ids.entries, rule->vlan_ids.entries);
  EXPECT_EQ(entries_of(copy->vlan_ids), entries_of(rule->vlan_ids));
  EXPECT_NE(copy->sports.entries, rule->sports.entries);
  EXPECT_EQ(entries_of(copy->sports), entries_of(rule->sports));
  EXPECT_NE(copy->dports.entries, rule->dports.entries);
  ASSERT_NE(copy->dhcp, nullptr);
  EXPECT_NE(copy->dhcp, rule->dhcp);
  EXPECT_NE(copy->dhcp->pattern, rule->dhcp->pattern);
  EXPECT_STREQ(copy->dhcp->pattern, "abc*");
  EXPECT_EQ(copy->dhcp->code, 125);
  EXPECT_EQ(copy->dhcp->enterprise, 3561u);
  EXPECT_EQ(copy->dhcp->sub, 1);
  EXPECT_EQ(copy->dhcp->ethsrctab, rule->dhcp->ethsrctab);
  ASSERT_NE(copy->packetmatch, nullptr);
  EXPECT_NE(copy->packetmatch, rule->packetmatch);
  EXPECT_STREQ(copy->packetmatch, "*GET*");
}

TEST_F(ClfyClone, CloneAgreesWithTheOriginalOnEveryConditionButTheDhcpPorts) {
  Rule rule;
  fill_everything(rule, nullptr);
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  const uint32_t all_but_ports_and_dhcp = 0xffffffffu & ~(NUV_CLFY_F_DPORTS | NUV_CLFY_F_DHCP | NUV_CLFY_F_PACKETMATCH);
  EXPECT_EQ(nuv_clfy_cmp(rule, copy.get(), all_but_ports_and_dhcp), 0);
  EXPECT_EQ(nuv_clfy_cmp(rule, copy.get(), NUV_CLFY_F_DPORTS), -1);
  EXPECT_EQ(nuv_clfy_cmp(rule, copy.get(), NUV_CLFY_F_PACKETMATCH), 1);
}

TEST_F(ClfyClone, CloneOfARuleWithoutDhcpComparesEqualUnderEveryMaskButPacketmatch) {
  Rule rule;
  rule.dev("eth1").proto(6).dport(NUV_CLFY_OP_EQ, 80).dport(NUV_CLFY_OP_EQ, 443).vlan(NUV_CLFY_OP_EQ, 7);
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  for (uint32_t bit = 1; bit; bit <<= 1) {
    if (bit == NUV_CLFY_F_PACKETMATCH) continue;
    EXPECT_EQ(nuv_clfy_cmp(rule, copy.get(), bit), 0) << std::hex << bit;
  }
  EXPECT_EQ(nuv_clfy_cmp(rule, copy.get(), 0xffffffffu & ~NUV_CLFY_F_PACKETMATCH), 0);
}

TEST_F(ClfyClone, CloneOfAnEmptyRuleIsEmpty) {
  Rule rule;
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->flags, 0u);
  EXPECT_EQ(copy->ip_proto, 255);
  EXPECT_EQ(copy->localmark, nullptr);
  EXPECT_EQ(copy->vlan_ids.entries, nullptr);
  EXPECT_EQ(copy->dhcp, nullptr);
  EXPECT_EQ(copy->packetmatch, nullptr);
}

TEST_F(ClfyClone, PatternThatCannotBeCopiedLeavesTheCloneWithoutIt) {
  NoLeakGuard guard;
  {
    Rule rule;
    rule.proto(6).dport(NUV_CLFY_OP_EQ, 80).packetmatch("*GET*");
    // Allocations: record, destination ports, pattern.
    nuvcsock_fail_nth_allocation(3);
    testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
    nuvcsock_fail_nth_allocation(0);
    ASSERT_NE(copy.get(), nullptr);
    EXPECT_EQ(copy->packetmatch, nullptr);
    EXPECT_TRUE(copy->flags & NUV_CLFY_F_PACKETMATCH);
    EXPECT_EQ(copy->dports.count, 1u);
  }
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

TEST_F(ClfyClone, CloneFailsAtEveryAllocationWithNullNothingLeakedAndNoIdUsed) {
  nuv_clfy_set set{};
  Rule rule;
  fill_everything(rule, &set);  // in a set, with an action that has a release callback
  released = 0;
  // Allocations of a full clone: record, map, VLAN list, source ports,
  // destination ports, DHCP record, DHCP pattern, port 67 entry, pattern.
  long n = 1;
  for (;; ++n) {
    NoLeakGuard guard;
    Rule before;
    const uint32_t previous_id = before->id;
    nuvcsock_fail_nth_allocation(n);
    testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
    nuvcsock_fail_nth_allocation(0);
    if (copy.get()) {
      EXPECT_EQ(copy->id, previous_id + 1);
      copy->owner = nullptr;
      break;
    }
    Rule after;
    EXPECT_EQ(after->id, previous_id + 1) << "allocation " << n;
    ASSERT_LT(n, 30);
  }
  EXPECT_EQ(n, 9) << "the pattern copy (9th allocation) fails silently, so the clone succeeds";
  EXPECT_EQ(released, 0) << "a failed clone is discarded without its action's release";
  rule->owner = nullptr;
}

TEST_F(ClfyClone, CloneOfNullIsNull) {
  EXPECT_EQ(nuv_clfy_clone(nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_checkflag_clone(nullptr, 0xffffffffu), nullptr);
}

// ---- Clone restricted to a mask ----

TEST_F(ClfyClone, RestrictedCloneKeepsOnlyTheMaskedPresenceBits) {
  Rule rule;
  rule.dev("eth0").proto(6).saddr4("10.0.0.0", "255.0.0.0").sport(NUV_CLFY_OP_EQ, 1);
  testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, NUV_CLFY_F_DEV | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_ETH_PROTO));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->flags, NUV_CLFY_F_DEV | NUV_CLFY_F_IP_PROTO);
}

TEST_F(ClfyClone, RestrictedCloneCopiesScalarFieldsWhateverTheMask) {
  Rule rule;
  rule.dev("eth0").proto(6).saddr4("10.0.0.0", "255.0.0.0").tos(0x20, 0xfc).icmp_type(3);
  testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, 0));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->flags, 0u);
  EXPECT_STREQ(copy->dev, "eth0");
  EXPECT_EQ(copy->ip_proto, 6);
  EXPECT_EQ(copy->ip_saddr_family, 4);
  EXPECT_EQ(std::memcmp(&copy->ip_saddr, &rule->ip_saddr, 16), 0);
  EXPECT_EQ(copy->ip_tos, 0x20);
  EXPECT_EQ(copy->icmp_type, 3);
  EXPECT_NE(copy->id, rule->id);
}

TEST_F(ClfyClone, RestrictedCloneLeavesOwnedPartsOutsideTheMaskEmpty) {
  Rule rule;
  fill_everything(rule, nullptr);
  testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, NUV_CLFY_F_DEV | NUV_CLFY_F_IP_PROTO));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->localmark, nullptr);
  EXPECT_EQ(copy->vlan_ids.entries, nullptr);
  EXPECT_EQ(copy->vlan_ids.count, 0u);
  EXPECT_EQ(copy->sports.entries, nullptr);
  EXPECT_EQ(copy->sports.count, 0u);
  EXPECT_EQ(copy->dports.entries, nullptr);
  EXPECT_EQ(copy->dports.count, 0u);
  EXPECT_EQ(copy->dhcp, nullptr);
  EXPECT_EQ(copy->packetmatch, nullptr);
}

TEST_F(ClfyClone, RestrictedCloneCopiesEachOwnedPartWhoseBitIsInTheMask) {
  Rule rule;
  fill_everything(rule, nullptr);
  const std::pair<uint32_t, const char *> parts[] = {
      {NUV_CLFY_F_LOCALMARK, "localmark"}, {NUV_CLFY_F_VLAN_ID, "vlan"},  {NUV_CLFY_F_SPORTS, "sports"},
      {NUV_CLFY_F_DPORTS, "dports"},       {NUV_CLFY_F_DHCP, "dhcp"},     {NUV_CLFY_F_PACKETMATCH, "packetmatch"}};
  for (const auto &[bit, name] : parts) {
    SCOPED_TRACE(name);
    testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, bit));
    ASSERT_NE(copy.get(), nullptr);
    EXPECT_EQ(copy->localmark != nullptr, bit == NUV_CLFY_F_LOCALMARK);
    EXPECT_EQ(copy->vlan_ids.count != 0, bit == NUV_CLFY_F_VLAN_ID);
    EXPECT_EQ(copy->sports.count != 0, bit == NUV_CLFY_F_SPORTS);
    EXPECT_EQ(copy->dhcp != nullptr, bit == NUV_CLFY_F_DHCP);
    EXPECT_EQ(copy->packetmatch != nullptr, bit == NUV_CLFY_F_PACKETMATCH);
    // Destination ports come with the DHCP condition too.
    EXPECT_EQ(copy->dports.count != 0, bit == NUV_CLFY_F_DPORTS || bit == NUV_CLFY_F_DHCP);
  }
}

TEST_F(ClfyClone, RestrictedCloneWithTheDhcpBitSetsTheProtocolAndPortBitsAgain) {
  Rule rule;
  rule.dport(NUV_CLFY_OP_EQ, 68).dhcp(60, 0, 0, "MSFT*", "clients");
  testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, NUV_CLFY_F_DHCP));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->flags, NUV_CLFY_F_DHCP | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_DPORTS);
  EXPECT_EQ(copy->ip_proto, 17);
  // Only the condition's own entry: the original port list was not copied.
  EXPECT_EQ(entries_of(copy->dports), (std::vector<Entry>{{NUV_CLFY_OP_EQ, 67, 0}}));
}

TEST_F(ClfyClone, RestrictedCloneWithDhcpAndPortBitsAppendsPort67ToTheCopiedPorts) {
  Rule rule;
  rule.dport(NUV_CLFY_OP_EQ, 68).dhcp(60, 0, 0, "MSFT*", "clients");
  testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, NUV_CLFY_F_DHCP | NUV_CLFY_F_DPORTS));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(entries_of(copy->dports), (std::vector<Entry>{{NUV_CLFY_OP_EQ, 68, 0}, {NUV_CLFY_OP_EQ, 67, 0}, {NUV_CLFY_OP_EQ, 67, 0}}));
}

TEST_F(ClfyClone, RestrictedCloneFailsAtEveryAllocationWithNullAndNothingLeaked) {
  Rule rule;
  fill_everything(rule, nullptr);
  const uint32_t mask = NUV_CLFY_F_LOCALMARK | NUV_CLFY_F_SPORTS | NUV_CLFY_F_DHCP;
  // Allocations: record, map, source ports, DHCP record, DHCP pattern, port 67 entry.
  long n = 1;
  for (;; ++n) {
    NoLeakGuard guard;
    nuvcsock_fail_nth_allocation(n);
    testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, mask));
    nuvcsock_fail_nth_allocation(0);
    if (copy.get()) {
      EXPECT_EQ(copy->flags, (rule->flags & mask) | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_DPORTS);
      break;
    }
    ASSERT_LT(n, 30);
  }
  EXPECT_EQ(n, 7);
}

TEST_F(ClfyClone, CloneLearnsIntoTheSameTableAsTheOriginal) {
  // The learning table is looked up again by its name.
  Rule rule;
  rule.dhcp(60, 0, 0, "x", "learn");
  ethersrctab *original = nuv_clfy_ethersrctab_find("learn");
  ASSERT_NE(original, nullptr);
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  ASSERT_NE(copy.get(), nullptr);
  EXPECT_EQ(copy->dhcp->ethsrctab, original);
}

TEST_F(ClfyClone, EveryCloneAllocationIsTaggedWithTheClassifierSourcePath) {
  Rule rule;
  fill_everything(rule, nullptr);
  const long before = nuvcsock_slab_live_blocks();
  testsupport::ClfyRulePtr copy(nuv_clfy_clone(rule));
  testsupport::ClfyRulePtr part(nuv_clfy_checkflag_clone(rule, 0xffffffffu));
  std::vector<std::string> tags;
  nuvcsock_slab_foreach_live(
      [](const char *file, int line, size_t, void *ctx) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(std::string(file) + (line > 0 ? "" : ":bad line"));
      },
      &tags);
  EXPECT_EQ(static_cast<long>(tags.size()), nuvcsock_slab_live_blocks());
  EXPECT_GT(nuvcsock_slab_live_blocks(), before);
  for (const std::string &tag : tags) EXPECT_EQ(tag, "sharedlibs/datapipe/nuvclfy");
}

// ---- Random rules ----

TEST_F(ClfyClone, RandomRestrictedClonesKeepTheMaskedConditionsAndShareNoMemory) {
  std::mt19937 random(2718);
  for (int round = 0; round < 5000; ++round) {
    Rule rule;
    testsupport::randomise_rule(rule, random);
    const uint32_t mask = random() % 4 == 0 ? 0xffffffffu : static_cast<uint32_t>(random());
    testsupport::ClfyRulePtr copy(nuv_clfy_checkflag_clone(rule, mask));
    ASSERT_NE(copy.get(), nullptr);
    const bool dhcp_copied = rule->dhcp && (mask & NUV_CLFY_F_DHCP);
    const uint32_t dhcp_bits = dhcp_copied ? NUV_CLFY_F_DHCP | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_DPORTS : 0;
    ASSERT_EQ(copy->flags, (rule->flags & mask) | dhcp_bits) << "round " << round;
    // The kept conditions agree (ports and DHCP aside, which gain port 67;
    // packetmatch answers 1 for equal patterns).
    const uint32_t comparable = mask & ~(NUV_CLFY_F_DPORTS | NUV_CLFY_F_DHCP | NUV_CLFY_F_PACKETMATCH);
    ASSERT_EQ(nuv_clfy_cmp(copy.get(), rule, comparable & copy->flags), 0) << "round " << round;
    if (!dhcp_copied && (mask & NUV_CLFY_F_DPORTS)) {
      ASSERT_EQ(nuv_clfy_cmp(copy.get(), rule, NUV_CLFY_F_DPORTS), 0);
    }
    if (dhcp_copied) {
      ASSERT_EQ(copy->dports.count, ((mask & NUV_CLFY_F_DPORTS) ? rule->dports.count : 0) + 1);
    }
    ASSERT_TRUE(!copy->localmark || copy->localmark != rule->localmark);
    ASSERT_TRUE(!copy->vlan_ids.entries || copy->vlan_ids.entries != rule->vlan_ids.entries);
    ASSERT_TRUE(!copy->sports.entries || copy->sports.entries != rule->sports.entries);
    ASSERT_TRUE(!copy->dports.entries || copy->dports.entries != rule->dports.entries);
    ASSERT_TRUE(!copy->packetmatch || copy->packetmatch != rule->packetmatch);
  }
}
