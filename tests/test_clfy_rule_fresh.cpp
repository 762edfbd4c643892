// Process-wide classifier state as a new process sees it: no actions, no
// tables, and rule ids that start at 1.  This program runs nothing before
// these checks.
#include <gtest/gtest.h>

#include <cstdint>

#include "clfy_rule_ptr.h"
#include "nikerkiog.h"

namespace {

// Taken before any test runs, so no other rule can have been created yet.
std::uint32_t first_rule_id = 0;

class FirstRule : public ::testing::Environment {
 public:
  void SetUp() override {
    const testsupport::ClfyRulePtr rule(nuv_clfy_alloc());
    first_rule_id = rule ? rule->id : 0;
  }
};

const auto *const first_rule_environment = ::testing::AddGlobalTestEnvironment(new FirstRule);

}  // namespace

TEST(ClfyFreshProcess, FirstRuleGetsIdOne) { EXPECT_EQ(first_rule_id, 1u); }

TEST(ClfyFreshProcess, FindingAnActionInAnEmptyRegistryGivesZero) {
  EXPECT_EQ(nuv_clfy_find_action("drop"), 0);
  EXPECT_EQ(nuv_clfy_find_action(""), 0);
}

// The registry is empty, so index 1 names nothing: freeing must not look at
// an unregistered entry (the sanitizer builds would report such a read).
TEST(ClfyFreshProcess, RuleWithAnActionIndexBeyondAnEmptyRegistryIsFreed) {
  nuv_clfy_set set{};
  nuv_clfy *rule = nuv_clfy_alloc();
  nuv_clfy_add_head(&set, rule);
  rule->action = 1;
  nuv_clfy_del_and_free_all(&set);
  EXPECT_EQ(set.head, nullptr);
}

TEST(ClfyFreshProcess, NoTablesExist) {
  EXPECT_EQ(nuv_clfy_ethersrctab_find(""), nullptr);
  EXPECT_EQ(nuv_clfy_ipdsttab_find(""), nullptr);
  EXPECT_EQ(nuv_clfy_ethersrctab_reset("any"), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_reset("any"), -1);
}
