// The set search follows the links as they are now: a list changed by hand,
// a set record moved, a rule given another condition are searched as they
// stand, and nothing about a set is kept anywhere else.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using clfytest::Packet;

namespace {

const std::uint8_t kSrc[4] = {192, 168, 1, 2};
const std::uint8_t kDst[4] = {192, 168, 1, 1};

// The result of the rule the set picks for a UDP packet to `dport`, 0 for none.
int picked(clfytest::Set &set, std::uint16_t dport) {
  Packet p;
  p.set_ip(clfytest::ipv4_packet(17, kSrc, kDst, clfytest::udp_header(1000, dport)), 0x0800);
  p.desc.dev_ifindex = 1;
  const nuv_clfy *rule = nuv_clfy_get_clfy_from_set(&set.set, 0, &p.desc);
  return rule ? rule->result : 0;
}

// Rules "udp.dport N" with result N, for N = 1..n: long enough for an array.
std::vector<nuv_clfy *> port_rules(clfytest::Set &set, int n) {
  std::vector<nuv_clfy *> rules;
  for (int port = 1; port <= n; ++port)
    rules.push_back(set.add("udp.dport " + std::to_string(port), static_cast<std::uint16_t>(port)));
  return rules;
}

nuv_clfy *parsed(const std::string &text, std::uint16_t result) {
  nuv_clfy *rule = nullptr;
  EXPECT_EQ(nuv_clfy_parse(text.c_str(), &rule), 0) << text;
  if (rule) rule->result = result;
  return rule;
}

}  // namespace

TEST(ClfySetLinks, LongListFindsTheFirstMatchingRuleAndCountsItsHit) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 40);
  set.add("udp.dport 7", 700);  // shadowed by the rule for port 7
  EXPECT_EQ(picked(set, 7), 7);
  EXPECT_EQ(picked(set, 40), 40);
  EXPECT_EQ(picked(set, 41), 0);
  EXPECT_EQ(rules[6]->hits, 1u);
  EXPECT_EQ(set.set.head->next->next->next->next->next->next->next->hits, 0u);  // the rule for port 8
}

TEST(ClfySetLinks, RuleUnlinkedByHandIsNoLongerFound) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 20);
  rules[3]->next = rules[5];  // port 5 leaves the list
  EXPECT_EQ(picked(set, 5), 0);
  EXPECT_EQ(picked(set, 6), 6);
  EXPECT_EQ(picked(set, 20), 20);
  nuv_clfy_free(rules[4]);
  EXPECT_EQ(picked(set, 5), 0);
  EXPECT_EQ(picked(set, 6), 6);
}

TEST(ClfySetLinks, RuleInsertedByHandIsFoundInItsPlace) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 20);
  nuv_clfy *inserted = parsed("udp.dport 12", 1200);
  inserted->owner = &set.set;
  inserted->next = rules[3];
  rules[2]->next = inserted;  // between the rules for ports 3 and 4
  EXPECT_EQ(picked(set, 12), 1200);
  EXPECT_EQ(picked(set, 4), 4);
  EXPECT_EQ(picked(set, 20), 20);
}

TEST(ClfySetLinks, ListCutShortByHandEndsTheSearch) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 20);
  rules[9]->next = nullptr;
  EXPECT_EQ(picked(set, 10), 10);
  EXPECT_EQ(picked(set, 15), 0);
  rules[9]->next = rules[10];  // linked again, so the set frees them all
  EXPECT_EQ(picked(set, 15), 15);
}

TEST(ClfySetLinks, RuleAppendedByHandIsFound) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 20);
  nuv_clfy *appended = parsed("udp.dport 99", 99);
  appended->owner = &set.set;
  rules.back()->next = appended;
  EXPECT_EQ(picked(set, 99), 99);
}

TEST(ClfySetLinks, RulesBroughtAlongByAnAppendedRuleAreFound) {
  // nuv_clfy_add_tail keeps the appended rule's own `next`: the rules
  // behind it join the list too, here more than the array has room for.
  clfytest::Set set;
  port_rules(set, 10);
  nuv_clfy *first = parsed("udp.dport 100", 100);
  nuv_clfy *last = first;
  for (std::uint16_t port = 101; port < 130; ++port) {
    last->next = parsed("udp.dport " + std::to_string(port), port);
    last = last->next;
    last->owner = &set.set;
  }
  nuv_clfy_add_tail(&set.set, first);
  EXPECT_EQ(picked(set, 100), 100);
  EXPECT_EQ(picked(set, 129), 129);
  EXPECT_EQ(picked(set, 10), 10);
  nuv_clfy_add_tail(&set.set, parsed("udp.dport 130", 130));
  EXPECT_EQ(picked(set, 130), 130);
}

TEST(ClfySetLinks, RulesAddedAtTheHeadComeFirst) {
  clfytest::Set set;
  port_rules(set, 20);
  nuv_clfy_add_head(&set.set, parsed("udp.dport 9", 900));
  EXPECT_EQ(picked(set, 9), 900);
  EXPECT_EQ(picked(set, 10), 10);
}

TEST(ClfySetLinks, RuleDeletedThroughTheSetIsNoLongerFound) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 20);
  ASSERT_EQ(nuv_clfy_del_and_free(&set.set, rules[11]), 0);
  EXPECT_EQ(picked(set, 12), 0);
  EXPECT_EQ(picked(set, 13), 13);
  nuv_clfy_add_tail(&set.set, parsed("udp.dport 12", 1200));
  EXPECT_EQ(picked(set, 12), 1200);
}

TEST(ClfySetLinks, ShrinkingBelowEightRulesKeepsTheSearchRight) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 9);
  ASSERT_EQ(nuv_clfy_del_and_free(&set.set, rules[0]), 0);
  ASSERT_EQ(nuv_clfy_del_and_free(&set.set, rules[8]), 0);
  EXPECT_EQ(picked(set, 1), 0);
  EXPECT_EQ(picked(set, 5), 5);
  EXPECT_EQ(picked(set, 9), 0);
}

TEST(ClfySetLinks, SetOfManyRulesLeavesNothingBehindWhenFreed) {
  testsupport::NoLeakGuard guard;
  clfytest::Set set;
  port_rules(set, 300);
  EXPECT_EQ(picked(set, 299), 299);
  nuv_clfy_del_and_free_all(&set.set);
  EXPECT_EQ(picked(set, 299), 0);
}

TEST(ClfySetLinks, SetEmptiedRuleByRuleLeavesNothingBehind) {
  testsupport::NoLeakGuard guard;
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 30);
  for (nuv_clfy *rule : rules) ASSERT_EQ(nuv_clfy_del_and_free(&set.set, rule), 0);
  EXPECT_EQ(set.set.head, nullptr);
}

TEST(ClfySetLinks, SetTornDownRuleByRuleLeavesNothingBehind) {
  testsupport::NoLeakGuard guard;
  clfytest::Set set;
  port_rules(set, 20);
  nuv_clfy *rule = set.set.head;
  set.set.head = nullptr;
  while (rule) {
    nuv_clfy *next = rule->next;
    nuv_clfy_free(rule);
    rule = next;
  }
}

TEST(ClfySetLinks, FreeingARuleOtherThanTheFirstKeepsTheSearchRight) {
  clfytest::Set set;
  std::vector<nuv_clfy *> rules = port_rules(set, 20);
  rules[0]->next = rules[2];  // port 2 leaves the list, then goes
  nuv_clfy_free(rules[1]);
  EXPECT_EQ(picked(set, 2), 0);
  EXPECT_EQ(picked(set, 3), 3);
  nuv_clfy_add_tail(&set.set, parsed("udp.dport 2", 200));
  EXPECT_EQ(picked(set, 2), 200);
}

TEST(ClfySetLinks, OptimisedChildUnlinkedAndFreedByHandIsNoLongerFound) {
  testsupport::NoLeakGuard guard;
  clfytest::Set linear;
  port_rules(linear, 12);
  clfytest::Set tree;
  ASSERT_EQ(nuv_clfy_set_optim(&linear.set, &tree.set), 0);
  nuv_clfy *parent = tree.set.head;
  ASSERT_NE(parent, nullptr);
  ASSERT_NE(parent->children, nullptr);
  // The fifth child (port 5) leaves the tree and is freed.
  nuv_clfy *fourth = parent->children->next->next->next;
  nuv_clfy *fifth = fourth->next;
  ASSERT_EQ(fifth->result, 5);
  fourth->next = fifth->next;
  nuv_clfy_free(fifth);
  EXPECT_EQ(picked(tree, 5), 0);
  EXPECT_EQ(picked(tree, 6), 6);
  EXPECT_EQ(picked(tree, 12), 12);
}

TEST(ClfySetLinks, ConditionAddedToAnOptimisedChildIsSearched) {
  clfytest::Set linear;
  port_rules(linear, 12);
  clfytest::Set tree;
  ASSERT_EQ(nuv_clfy_set_optim(&linear.set, &tree.set), 0);
  nuv_clfy *third = tree.set.head->children->next->next;
  ASSERT_EQ(third->result, 3);
  nuv_clfy_add_ip_dport(third, NUV_CLFY_OP_EQ, clfytest::net16(99), 0);
  EXPECT_EQ(picked(tree, 99), 3);
  EXPECT_EQ(picked(tree, 3), 3);
}

TEST(ClfySetLinks, SetRecordsMovedAndFreedThroughTheirNewPlaceLeaveNothingBehind) {
  testsupport::NoLeakGuard guard;
  for (int round = 0; round < 1000; ++round) {
    nuv_clfy_set first{};
    for (int port = 1; port <= 12; ++port)
      nuv_clfy_add_tail(&first, parsed("udp.dport " + std::to_string(port), static_cast<std::uint16_t>(port)));
    nuv_clfy_set moved;
    std::memcpy(&moved, &first, sizeof moved);
    std::memset(&first, 0, sizeof first);
    nuv_clfy_del_and_free_all(&moved);
    ASSERT_EQ(moved.head, nullptr);
  }
}

TEST(ClfySetLinks, LongListIsBuiltInOneStepPerRuleWithTheLastRuleKnown) {
  clfytest::Set set;
  nuv_clfy *last = nullptr;
  for (int port = 1; port <= 20; ++port)
    last = nuv_clfy_add_tail_after(&set.set, last, parsed("udp.dport " + std::to_string(port), static_cast<std::uint16_t>(port)));
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->result, 20);
  EXPECT_EQ(last->next, nullptr);
  EXPECT_EQ(last->owner, &set.set);
  EXPECT_EQ(picked(set, 1), 1);
  EXPECT_EQ(picked(set, 20), 20);
}

TEST(ClfySetLinks, StaleLastRuleStillAppendsAtTheEnd) {
  clfytest::Set set;
  nuv_clfy *first = nuv_clfy_add_tail_after(&set.set, nullptr, parsed("udp.dport 1", 1));
  nuv_clfy_add_tail_after(&set.set, first, parsed("udp.dport 2", 2));
  // `first` is no longer the last rule: the rule still goes to the end.
  nuv_clfy *third = nuv_clfy_add_tail_after(&set.set, first, parsed("udp.dport 3", 3));
  EXPECT_EQ(set.set.head->next->next, third);
  EXPECT_EQ(third->next, nullptr);
}

TEST(ClfySetLinks, AppendingWithoutSetOrRuleChangesNothing) {
  clfytest::Set set;
  EXPECT_EQ(nuv_clfy_add_tail_after(nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_add_tail_after(&set.set, nullptr, nullptr), nullptr);
  EXPECT_EQ(set.set.head, nullptr);
}
