// Classifier rules: creation, destruction, the add functions and linking
// rules into rule sets.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "clfy_rule_ptr.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using testsupport::ClfyRulePtr;
using testsupport::NoLeakGuard;

namespace {

struct ValueEntry {
  uint32_t op;
  uint16_t value1;
  uint16_t value2;
  bool operator==(const ValueEntry &) const = default;
};

std::vector<ValueEntry> entries_of(const nuv_clfy_valuelist &list) {
  std::vector<ValueEntry> out;
  for (uint32_t i = 0; i < list.count; ++i) out.push_back({list.entries[i].op, list.entries[i].value1, list.entries[i].value2});
  return out;
}

// Tables created as a side effect of DHCP conditions are process-wide.
class ClfyRule : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

// ---- Creation ----

TEST_F(ClfyRule, NewRuleHasNoConditionsAndAnyProtocol) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  ASSERT_NE(rule.get(), nullptr);
  EXPECT_EQ(rule->flags, 0u);
  EXPECT_EQ(rule->ip_proto, 255);
}

TEST_F(ClfyRule, NewRuleIsZeroExceptIdAndProtocol) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  ASSERT_NE(rule.get(), nullptr);
  nuv_clfy expected;
  std::memset(&expected, 0, sizeof expected);
  expected.id = rule->id;
  expected.ip_proto = 255;
  EXPECT_EQ(std::memcmp(rule.get(), &expected, sizeof expected), 0);
}

TEST_F(ClfyRule, EachNewRuleTakesTheNextId) {
  ClfyRulePtr first(nuv_clfy_alloc());
  ClfyRulePtr second(nuv_clfy_alloc());
  ClfyRulePtr third(nuv_clfy_alloc());
  EXPECT_EQ(second->id, first->id + 1);
  EXPECT_EQ(third->id, second->id + 1);
}

TEST_F(ClfyRule, FailedCreationReturnsNullAndUsesNoId) {
  NoLeakGuard guard;
  ClfyRulePtr before(nuv_clfy_alloc());
  nuvcsock_fail_nth_allocation(1);
  ClfyRulePtr failed(nuv_clfy_alloc());
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(failed.get(), nullptr);
  ClfyRulePtr after(nuv_clfy_alloc());
  EXPECT_EQ(after->id, before->id + 1);
}

TEST_F(ClfyRule, CreationFailsOnlyAtItsOneAllocation) {
  for (long n = 1;; ++n) {
    NoLeakGuard guard;
    nuvcsock_fail_nth_allocation(n);
    ClfyRulePtr rule(nuv_clfy_alloc());
    nuvcsock_fail_nth_allocation(0);
    if (rule) {
      EXPECT_EQ(n, 2);
      break;
    }
    ASSERT_LT(n, 10);
  }
}

// ---- Value lists ----

TEST_F(ClfyRule, PortValuesArriveInNetworkOrderAndAreStoredInHostOrder) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_RANGE, htons(1000), htons(2000));
  ASSERT_EQ(rule->dports.count, 1u);
  EXPECT_EQ(rule->dports.entries[0].op, NUV_CLFY_OP_RANGE);
  EXPECT_EQ(rule->dports.entries[0].value1, 1000);
  EXPECT_EQ(rule->dports.entries[0].value2, 2000);
}

TEST_F(ClfyRule, AddingASourcePortSetsOnlyTheSourcePortBit) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_ip_sport(rule.get(), NUV_CLFY_OP_EQ, htons(53), 0);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_SPORTS);
}

TEST_F(ClfyRule, AddingADestinationPortSetsOnlyTheDestinationPortBit) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_EQ, htons(53), 0);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_DPORTS);
}

TEST_F(ClfyRule, AddingAVlanIdSetsOnlyTheVlanIdBit) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_vlanid(rule.get(), NUV_CLFY_OP_EQ, htons(100), 0);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_VLAN_ID);
  ASSERT_EQ(rule->vlan_ids.count, 1u);
  EXPECT_EQ(rule->vlan_ids.entries[0].value1, 100);
}

TEST_F(ClfyRule, ThreeSourcePortsKeepTheirOrder) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_ip_sport(rule.get(), NUV_CLFY_OP_GE, htons(8000), 0);
  nuv_clfy_add_ip_sport(rule.get(), NUV_CLFY_OP_EQ, htons(80), 0);
  nuv_clfy_add_ip_sport(rule.get(), NUV_CLFY_OP_NE, htons(443), 0);
  EXPECT_EQ(entries_of(rule->sports),
            (std::vector<ValueEntry>{{NUV_CLFY_OP_GE, 8000, 0}, {NUV_CLFY_OP_EQ, 80, 0}, {NUV_CLFY_OP_NE, 443, 0}}));
}

TEST_F(ClfyRule, OperatorCodesAreStoredAsGiven) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  for (uint32_t op = 0; op <= 9; ++op) nuv_clfy_add_vlanid(rule.get(), op, htons(static_cast<uint16_t>(op)), 0);
  ASSERT_EQ(rule->vlan_ids.count, 10u);
  for (uint32_t op = 0; op <= 9; ++op) EXPECT_EQ(rule->vlan_ids.entries[op].op, op);
}

TEST_F(ClfyRule, FailedFirstAdditionLeavesTheRuleWithoutTheCondition) {
  NoLeakGuard guard;
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuvcsock_fail_nth_allocation(1);
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_EQ, htons(80), 0);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(rule->dports.count, 0u);
  EXPECT_EQ(rule->dports.entries, nullptr);
  EXPECT_EQ(rule->flags, 0u);
}

TEST_F(ClfyRule, FailedLaterAdditionKeepsTheEarlierEntries) {
  NoLeakGuard guard;
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_vlanid(rule.get(), NUV_CLFY_OP_EQ, htons(10), 0);
  nuv_clfy_add_vlanid(rule.get(), NUV_CLFY_OP_EQ, htons(20), 0);
  const nuv_clfy_value *entries = rule->vlan_ids.entries;
  nuvcsock_fail_nth_allocation(1);
  nuv_clfy_add_vlanid(rule.get(), NUV_CLFY_OP_EQ, htons(30), 0);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(rule->vlan_ids.entries, entries);
  EXPECT_EQ(entries_of(rule->vlan_ids), (std::vector<ValueEntry>{{NUV_CLFY_OP_EQ, 10, 0}, {NUV_CLFY_OP_EQ, 20, 0}}));
  EXPECT_EQ(rule->flags, NUV_CLFY_F_VLAN_ID);
}

TEST_F(ClfyRule, EachListAdditionFailsSilentlyUntilItsAllocationSucceeds) {
  using Add = void (*)(nuv_clfy *, uint32_t, uint16_t, uint16_t);
  const std::pair<Add, nuv_clfy_valuelist nuv_clfy::*> adds[] = {{nuv_clfy_add_vlanid, &nuv_clfy::vlan_ids},
                                                                 {nuv_clfy_add_ip_sport, &nuv_clfy::sports},
                                                                 {nuv_clfy_add_ip_dport, &nuv_clfy::dports}};
  for (const auto &[add, list] : adds) {
    NoLeakGuard guard;
    ClfyRulePtr rule(nuv_clfy_alloc());
    add(rule.get(), NUV_CLFY_OP_EQ, htons(1), 0);
    for (long n = 1;; ++n) {
      nuvcsock_fail_nth_allocation(n);
      add(rule.get(), NUV_CLFY_OP_EQ, htons(2), 0);
      nuvcsock_fail_nth_allocation(0);
      if ((rule.get()->*list).count == 2) {
        EXPECT_EQ(n, 2);
        break;
      }
      EXPECT_EQ(entries_of(rule.get()->*list), (std::vector<ValueEntry>{{NUV_CLFY_OP_EQ, 1, 0}}));
      ASSERT_LT(n, 10);
    }
  }
}

// ---- Class map ----

TEST_F(ClfyRule, ClassMapIsCopiedAndSetsTheBit) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  uint8_t map[128] = {};
  map[0] = 1;
  map[127] = 1;
  ASSERT_EQ(nuv_clfy_add_localmark(rule.get(), map), 0);
  ASSERT_NE(rule->localmark, nullptr);
  EXPECT_NE(rule->localmark, map);
  EXPECT_EQ(std::memcmp(rule->localmark, map, sizeof map), 0);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_LOCALMARK);
}

TEST_F(ClfyRule, SecondClassMapReusesTheRulesMap) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  uint8_t first[128] = {};
  first[5] = 1;
  uint8_t second[128] = {};
  second[6] = 1;
  ASSERT_EQ(nuv_clfy_add_localmark(rule.get(), first), 0);
  const uint8_t *own = rule->localmark;
  const long allocations = nuvcsock_allocations();
  ASSERT_EQ(nuv_clfy_add_localmark(rule.get(), second), 0);
  EXPECT_EQ(nuvcsock_allocations(), allocations);
  EXPECT_EQ(rule->localmark, own);
  EXPECT_EQ(std::memcmp(rule->localmark, second, sizeof second), 0);
}

TEST_F(ClfyRule, ClassMapThatCannotBeAllocatedFailsAndLeavesTheRuleUnchanged) {
  NoLeakGuard guard;
  ClfyRulePtr rule(nuv_clfy_alloc());
  uint8_t map[128] = {};
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(nuv_clfy_add_localmark(rule.get(), map), -1);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(rule->localmark, nullptr);
  EXPECT_EQ(rule->flags, 0u);
}

// ---- DHCP condition ----

TEST_F(ClfyRule, DhcpConditionMakesTheRuleUdpToPort67) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  ASSERT_EQ(nuv_clfy_add_dhcppacketmatch(rule.get(), 60, 0, 0, "MSFT*", "clients"), 0);
  EXPECT_EQ(rule->ip_proto, 17);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_DPORTS | NUV_CLFY_F_DHCP);
  EXPECT_EQ(entries_of(rule->dports), (std::vector<ValueEntry>{{NUV_CLFY_OP_EQ, 67, 0}}));
}

TEST_F(ClfyRule, DhcpConditionAppendsPort67AfterExistingPorts) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_EQ, htons(68), 0);
  ASSERT_EQ(nuv_clfy_add_dhcppacketmatch(rule.get(), 60, 0, 0, "x", "clients"), 0);
  EXPECT_EQ(entries_of(rule->dports), (std::vector<ValueEntry>{{NUV_CLFY_OP_EQ, 68, 0}, {NUV_CLFY_OP_EQ, 67, 0}}));
}

TEST_F(ClfyRule, DhcpConditionHoldsItsFieldsAndAnOwnCopyOfThePattern) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  char pattern[] = "abc*";
  ASSERT_EQ(nuv_clfy_add_dhcppacketmatch(rule.get(), 125, 3561, 1, pattern, "lan.boxes"), 0);
  ASSERT_NE(rule->dhcp, nullptr);
  EXPECT_EQ(rule->dhcp->code, 125);
  EXPECT_EQ(rule->dhcp->enterprise, 3561u);
  EXPECT_EQ(rule->dhcp->sub, 1);
  ASSERT_NE(rule->dhcp->pattern, nullptr);
  EXPECT_NE(rule->dhcp->pattern, pattern);
  EXPECT_STREQ(rule->dhcp->pattern, "abc*");
  EXPECT_EQ(rule->dhcp->ethsrctab, nuv_clfy_ethersrctab_find("lan.boxes"));
  EXPECT_NE(rule->dhcp->ethsrctab, nullptr);
}

TEST_F(ClfyRule, DhcpConditionUsesAnExistingTable) {
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("known");
  ClfyRulePtr rule(nuv_clfy_alloc());
  ASSERT_EQ(nuv_clfy_add_dhcppacketmatch(rule.get(), 0, 0, 11, "00:11:*", "known"), 0);
  EXPECT_EQ(rule->dhcp->ethsrctab, table);
}

TEST_F(ClfyRule, SecondDhcpConditionReplacesTheFirstWithoutFreeingIt) {
  NoLeakGuard guard;
  ClfyRulePtr rule(nuv_clfy_alloc());
  ASSERT_EQ(nuv_clfy_add_dhcppacketmatch(rule.get(), 60, 0, 0, "first", "t"), 0);
  nuv_clfy_dhcp *first = rule->dhcp;
  ASSERT_EQ(nuv_clfy_add_dhcppacketmatch(rule.get(), 61, 0, 0, "second", "t"), 0);
  EXPECT_NE(rule->dhcp, first);
  // The first condition is still allocated (the rule no longer refers to it).
  EXPECT_STREQ(first->pattern, "first");
  EXPECT_EQ(rule->dports.count, 2u);
  slab_cbcontext_free(first->pattern, __FILE__, __LINE__);
  slab_cbcontext_free(first, __FILE__, __LINE__);
  rule.reset();
  nuv_clfy_ethersrctab_freeall();
}

TEST_F(ClfyRule, DhcpConditionFailsAtEveryAllocationAndLeavesTheRuleUnchanged) {
  for (long n = 1; n < 20; ++n) {
    NoLeakGuard guard;
    ClfyRulePtr rule(nuv_clfy_alloc());
    nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_EQ, htons(68), 0);
    const nuv_clfy_value *ports = rule->dports.entries;
    nuvcsock_fail_nth_allocation(n);
    const int result = nuv_clfy_add_dhcppacketmatch(rule.get(), 60, 0, 0, "MSFT*", "clients");
    nuvcsock_fail_nth_allocation(0);
    if (result == 0) {
      EXPECT_GT(n, 3) << "record, pattern, table and port list each allocate";
      EXPECT_EQ(rule->dports.count, 2u);
      rule.reset();
      nuv_clfy_ethersrctab_freeall();
      return;
    }
    SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(rule->dhcp, nullptr);
    EXPECT_EQ(rule->flags, NUV_CLFY_F_DPORTS);
    EXPECT_EQ(rule->ip_proto, 255);
    EXPECT_EQ(rule->dports.entries, ports);
    EXPECT_EQ(rule->dports.count, 1u);
    rule.reset();
    nuv_clfy_ethersrctab_freeall();
  }
  FAIL() << "the DHCP condition never succeeded";
}

// ---- packetmatch ----

TEST_F(ClfyRule, PacketmatchStoresACopyAndSetsTheBit) {
  ClfyRulePtr rule(nuv_clfy_alloc());
  char pattern[] = "*GET /*";
  EXPECT_EQ(nuv_clfy_add_packetmatch(rule.get(), pattern), 0);
  ASSERT_NE(rule->packetmatch, nullptr);
  EXPECT_NE(rule->packetmatch, pattern);
  EXPECT_STREQ(rule->packetmatch, "*GET /*");
  EXPECT_EQ(rule->flags, NUV_CLFY_F_PACKETMATCH);
}

TEST_F(ClfyRule, SecondPacketmatchReplacesAndFreesTheFirst) {
  NoLeakGuard guard;
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuv_clfy_add_packetmatch(rule.get(), "first");
  const long live = nuvcsock_slab_live_blocks();
  nuv_clfy_add_packetmatch(rule.get(), "second");
  EXPECT_EQ(nuvcsock_slab_live_blocks(), live);
  EXPECT_STREQ(rule->packetmatch, "second");
}

TEST_F(ClfyRule, PacketmatchThatCannotBeCopiedLeavesTheBitWithoutPattern) {
  NoLeakGuard guard;
  ClfyRulePtr rule(nuv_clfy_alloc());
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(nuv_clfy_add_packetmatch(rule.get(), "pattern"), 0);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(rule->packetmatch, nullptr);
  EXPECT_EQ(rule->flags, NUV_CLFY_F_PACKETMATCH);
}

// ---- Destruction ----

TEST_F(ClfyRule, FreeingARuleReleasesEverythingItOwns) {
  NoLeakGuard guard;
  nuv_clfy *rule = nuv_clfy_alloc();
  uint8_t map[128] = {1};
  nuv_clfy_add_localmark(rule, map);
  nuv_clfy_add_vlanid(rule, NUV_CLFY_OP_EQ, htons(1), 0);
  nuv_clfy_add_ip_sport(rule, NUV_CLFY_OP_EQ, htons(2), 0);
  nuv_clfy_add_ip_dport(rule, NUV_CLFY_OP_EQ, htons(3), 0);
  nuv_clfy_add_dhcppacketmatch(rule, 60, 0, 0, "p", "t");
  nuv_clfy_add_packetmatch(rule, "q");
  nuv_clfy_free(rule);
  nuv_clfy_ethersrctab_freeall();
}

TEST_F(ClfyRule, FreeingARuleKeepsItsSharedTables) {
  nuv_clfy *rule = nuv_clfy_alloc();
  rule->ethsrctab = nuv_clfy_ethersrctab_find_or_create("shared");
  rule->flags |= NUV_CLFY_F_ETHSRCTAB;
  rule->ipdsttab = nuv_clfy_ipdsttab_find_or_create("shared");
  rule->flags |= NUV_CLFY_F_IPDSTTAB;
  nuv_clfy_add_dhcppacketmatch(rule, 60, 0, 0, "p", "learned");
  nuv_clfy_free(rule);
  EXPECT_NE(nuv_clfy_ethersrctab_find("shared"), nullptr);
  EXPECT_NE(nuv_clfy_ethersrctab_find("learned"), nullptr);
  EXPECT_NE(nuv_clfy_ipdsttab_find("shared"), nullptr);
}

TEST_F(ClfyRule, FreeingARuleLeavesItsChildrenAlone) {
  NoLeakGuard guard;
  ClfyRulePtr child(nuv_clfy_alloc());
  ClfyRulePtr sibling(nuv_clfy_alloc());
  nuv_clfy *parent = nuv_clfy_alloc();
  parent->children = child.get();
  parent->next = sibling.get();
  nuv_clfy_free(parent);
  EXPECT_EQ(child->flags, 0u);  // still a live rule (ASan would catch a freed one)
}

TEST_F(ClfyRule, FreeingNullDoesNothing) { nuv_clfy_free(nullptr); }

// ---- Rule sets ----

namespace {

std::vector<uint32_t> ids_of(const nuv_clfy_set &set) {
  std::vector<uint32_t> ids;
  for (const nuv_clfy *r = set.head; r; r = r->next) ids.push_back(r->id);
  return ids;
}

nuv_clfy_set empty_set() {
  nuv_clfy_set set;
  std::memset(&set, 0, sizeof set);
  return set;
}

}  // namespace

TEST_F(ClfyRule, AddHeadPutsTheRuleFirstAndReturnsTheSet) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *a = nuv_clfy_alloc();
  nuv_clfy *b = nuv_clfy_alloc();
  EXPECT_EQ(nuv_clfy_add_head(&set, a), &set);
  EXPECT_EQ(nuv_clfy_add_head(&set, b), &set);
  EXPECT_EQ(ids_of(set), (std::vector<uint32_t>{b->id, a->id}));
  EXPECT_EQ(a->owner, &set);
  EXPECT_EQ(b->owner, &set);
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, AddTailAppendsBehindTheLastRule) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *a = nuv_clfy_alloc();
  nuv_clfy *b = nuv_clfy_alloc();
  nuv_clfy *c = nuv_clfy_alloc();
  nuv_clfy_add_tail(&set, a);
  EXPECT_EQ(set.head, a);
  nuv_clfy_add_tail(&set, b);
  nuv_clfy_add_tail(&set, c);
  EXPECT_EQ(ids_of(set), (std::vector<uint32_t>{a->id, b->id, c->id}));
  EXPECT_EQ(c->owner, &set);
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, AddTailKeepsTheRulesOwnNextLink) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *a = nuv_clfy_alloc();
  nuv_clfy *b = nuv_clfy_alloc();
  a->next = b;  // a chain handed over as a whole
  nuv_clfy_add_tail(&set, a);
  EXPECT_EQ(ids_of(set), (std::vector<uint32_t>{a->id, b->id}));
  EXPECT_EQ(b->owner, nullptr);
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, AddingLeavesTheCallersWordsAlone) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  set.caller_words[0] = 0xdeadbeef;
  set.caller_words[3] = 7;
  nuv_clfy_add_tail(&set, nuv_clfy_alloc());
  nuv_clfy_add_head(&set, nuv_clfy_alloc());
  nuv_clfy_del_and_free_all(&set);
  EXPECT_EQ(set.caller_words[0], 0xdeadbeefu);
  EXPECT_EQ(set.caller_words[1], 0u);
  EXPECT_EQ(set.caller_words[3], 7u);
}

TEST_F(ClfyRule, DeleteByIdUsesOnlyTheIdOfTheGivenRecord) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *a = nuv_clfy_alloc();
  nuv_clfy *b = nuv_clfy_alloc();
  nuv_clfy *c = nuv_clfy_alloc();
  nuv_clfy_add_tail(&set, a);
  nuv_clfy_add_tail(&set, b);
  nuv_clfy_add_tail(&set, c);
  const uint32_t a_id = a->id;
  const uint32_t c_id = c->id;
  nuv_clfy stand_in;
  std::memset(&stand_in, 0, sizeof stand_in);
  stand_in.id = b->id;
  EXPECT_EQ(nuv_clfy_del_and_free(&set, &stand_in), 0);
  EXPECT_EQ(ids_of(set), (std::vector<uint32_t>{a_id, c_id}));
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, DeleteOfTheHeadMovesTheHead) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *a = nuv_clfy_alloc();
  nuv_clfy *b = nuv_clfy_alloc();
  nuv_clfy_add_tail(&set, a);
  nuv_clfy_add_tail(&set, b);
  EXPECT_EQ(nuv_clfy_del_and_free(&set, a), 0);
  EXPECT_EQ(set.head, b);
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, DeleteFromAnEmptySetFails) {
  nuv_clfy_set set = empty_set();
  ClfyRulePtr rule(nuv_clfy_alloc());
  EXPECT_EQ(nuv_clfy_del_and_free(&set, rule.get()), -1);
}

TEST_F(ClfyRule, DeleteOfAnUnknownIdFailsAndKeepsTheSet) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *a = nuv_clfy_alloc();
  nuv_clfy_add_tail(&set, a);
  ClfyRulePtr stranger(nuv_clfy_alloc());
  EXPECT_EQ(nuv_clfy_del_and_free(&set, stranger.get()), -1);
  EXPECT_EQ(ids_of(set), (std::vector<uint32_t>{a->id}));
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, DeleteLooksOnlyAtTopLevelRules) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *parent = nuv_clfy_alloc();
  nuv_clfy *child = nuv_clfy_alloc();
  parent->children = child;
  nuv_clfy_add_tail(&set, parent);
  EXPECT_EQ(nuv_clfy_del_and_free(&set, child), -1);
  EXPECT_EQ(set.head, parent);
  EXPECT_EQ(parent->children, child);
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, DeleteFreesTheWholeSubtree) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *parent = nuv_clfy_alloc();
  nuv_clfy *child1 = nuv_clfy_alloc();
  nuv_clfy *child2 = nuv_clfy_alloc();
  nuv_clfy *grandchild = nuv_clfy_alloc();
  nuv_clfy_add_packetmatch(grandchild, "deep");
  parent->children = child1;
  child1->next = child2;
  child1->children = grandchild;
  nuv_clfy *other = nuv_clfy_alloc();
  nuv_clfy_add_tail(&set, parent);
  nuv_clfy_add_tail(&set, other);
  const long live = nuvcsock_slab_live_blocks();
  EXPECT_EQ(nuv_clfy_del_and_free(&set, parent), 0);
  EXPECT_EQ(nuvcsock_slab_live_blocks(), live - 5);
  EXPECT_EQ(set.head, other);
  nuv_clfy_del_and_free_all(&set);
}

TEST_F(ClfyRule, DeleteAllEmptiesTheSet) {
  NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  for (int i = 0; i < 5; ++i) {
    nuv_clfy *rule = nuv_clfy_alloc();
    rule->children = nuv_clfy_alloc();
    nuv_clfy_add_tail(&set, rule);
  }
  nuv_clfy_del_and_free_all(&set);
  EXPECT_EQ(set.head, nullptr);
}

TEST_F(ClfyRule, DeleteAllOnAnEmptySetDoesNothing) {
  nuv_clfy_set set = empty_set();
  nuv_clfy_del_and_free_all(&set);
  EXPECT_EQ(set.head, nullptr);
}

// ---- Allocation tags ----

namespace {

struct TagCount {
  long total = 0;
  std::vector<std::string> others;
};

void count_tag(const char *file, int line, size_t, void *ctx) {
  auto *tags = static_cast<TagCount *>(ctx);
  ++tags->total;
  if (!file || std::string(file) != "sharedlibs/datapipe/nuvclfy" || line <= 0)
    tags->others.push_back(std::string(file ? file : "(null)") + ":" + std::to_string(line));
}

}  // namespace

TEST_F(ClfyRule, EveryAllocationIsTaggedWithTheClassifierSourcePath) {
  ASSERT_EQ(nuvcsock_slab_live_blocks(), 0) << "this test needs a clean start";
  ClfyRulePtr owned(nuv_clfy_alloc());
  nuv_clfy *rule = owned.get();
  uint8_t map[128] = {1};
  nuv_clfy_add_localmark(rule, map);
  nuv_clfy_add_vlanid(rule, NUV_CLFY_OP_EQ, htons(1), 0);
  nuv_clfy_add_ip_sport(rule, NUV_CLFY_OP_EQ, htons(2), 0);
  nuv_clfy_add_dhcppacketmatch(rule, 60, 0, 0, "p", "learned");
  nuv_clfy_add_packetmatch(rule, "q");
  nuv_clfy_ethersrctab_add("macs", reinterpret_cast<const uint8_t *>("\x00\x11\x22\x33\x44\x55"));
  nuv_clfy_ipdsttab_add4("dst", htonl(0xc0000201));
  ClfyRulePtr copy(nuv_clfy_clone(rule));
  ClfyRulePtr part(nuv_clfy_checkflag_clone(rule, 0xffffffffu));
  TagCount tags;
  nuvcsock_slab_foreach_live(count_tag, &tags);
  EXPECT_GE(tags.total, 30);
  EXPECT_TRUE(tags.others.empty()) << tags.others.front();
}

TEST_F(ClfyRule, NullArgumentsAreIgnored) {
  nuv_clfy_add_vlanid(nullptr, 1, 0, 0);
  nuv_clfy_add_ip_sport(nullptr, 1, 0, 0);
  nuv_clfy_add_ip_dport(nullptr, 1, 0, 0);
  EXPECT_EQ(nuv_clfy_add_localmark(nullptr, nullptr), -1);
  EXPECT_EQ(nuv_clfy_add_dhcppacketmatch(nullptr, 1, 0, 0, "a", "b"), -1);
  EXPECT_EQ(nuv_clfy_add_packetmatch(nullptr, "a"), -1);
  EXPECT_EQ(nuv_clfy_add_head(nullptr, nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_del_and_free(nullptr, nullptr), -1);
  nuv_clfy_del_and_free_all(nullptr);
}
