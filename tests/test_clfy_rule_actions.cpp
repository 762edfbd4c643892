// The action registry: at most 23 actions, 1-based indexes, 11-character
// names, and the release callback called when a rule of a set is freed.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "nikerkiog.h"
#include "testsupport.h"

namespace {

std::vector<uint32_t> released_ids;
std::string released_pattern;
void record_release(nuv_clfy *rule) {
  released_ids.push_back(rule->id);
  released_pattern = rule->packetmatch ? rule->packetmatch : "";
}

int execute_one(nuv_clfy *, void *, const uint8_t *, uint16_t, const uint8_t *) { return 1; }

// The registry is filled once for the whole program, in this order; the
// results of the registrations are kept for the tests.
struct Registration {
  const char *name;
  nuv_clfy_execute_fn execute;
  nuv_clfy_release_fn release;
};

const Registration kRegistrations[23] = {
    {"drop", execute_one, nullptr},
    {"accept", nullptr, nullptr},
    {"release", nullptr, record_release},
    {"queuemarker1", nullptr, nullptr},  // 12 characters: stored as "queuemarker"
    {"drop", nullptr, nullptr},          // a duplicate name
    {"a06", nullptr, nullptr},
    {"a07", nullptr, nullptr},
    {"a08", nullptr, nullptr},
    {"a09", nullptr, nullptr},
    {"a10", nullptr, nullptr},
    {"a11", nullptr, nullptr},
    {"a12", nullptr, nullptr},
    {"a13", nullptr, nullptr},
    {"a14", nullptr, nullptr},
    {"a15", nullptr, nullptr},
    {"a16", nullptr, nullptr},
    {"a17", nullptr, nullptr},
    {"a18", nullptr, nullptr},
    {"a19", nullptr, nullptr},
    {"a20", nullptr, nullptr},
    {"a21", nullptr, nullptr},
    {"a22", nullptr, nullptr},
    {"last", nullptr, record_release},
};

std::vector<int> registration_results;
int extra_registration_result = 0;

class FilledRegistry : public ::testing::Environment {
 public:
  void SetUp() override {
    for (const Registration &r : kRegistrations)
      registration_results.push_back(nuv_clfy_register_action(r.name, r.execute, r.release));
    extra_registration_result = nuv_clfy_register_action("overflow", execute_one, record_release);
  }
};

const auto *const registry_environment = ::testing::AddGlobalTestEnvironment(new FilledRegistry);

constexpr int kReleaseAction = 3;
constexpr int kLastAction = 23;

nuv_clfy_set empty_set() {
  nuv_clfy_set set;
  std::memset(&set, 0, sizeof set);
  return set;
}

}  // namespace

TEST(ClfyActions, RegistrationReturnsTheNewCountAsIndex) {
  std::vector<int> expected;
  for (int i = 1; i <= 23; ++i) expected.push_back(i);
  EXPECT_EQ(registration_results, expected);
}

TEST(ClfyActions, TwentyFourthRegistrationFails) { EXPECT_EQ(extra_registration_result, -1); }

TEST(ClfyActions, FailedRegistrationKeepsTheTwentyThreeEntries) {
  EXPECT_EQ(nuv_clfy_find_action("overflow"), 0);
  EXPECT_EQ(nuv_clfy_find_action("a22"), 22);
  EXPECT_EQ(nuv_clfy_find_action("last"), 23);
  EXPECT_EQ(nuv_clfy_register_action("again", nullptr, nullptr), -1);
}

TEST(ClfyActions, FindReturnsTheOneBasedIndex) {
  EXPECT_EQ(nuv_clfy_find_action("accept"), 2);
  EXPECT_EQ(nuv_clfy_find_action("a10"), 10);
}

TEST(ClfyActions, DuplicateNamesAreAcceptedAndTheFirstIsFound) {
  EXPECT_EQ(registration_results[4], 5);
  EXPECT_EQ(nuv_clfy_find_action("drop"), 1);
}

TEST(ClfyActions, UnknownNameIsNotFound) {
  EXPECT_EQ(nuv_clfy_find_action("reject"), 0);
  EXPECT_EQ(nuv_clfy_find_action(""), 0);
  EXPECT_EQ(nuv_clfy_find_action("Drop"), 0);  // names compare exactly
}

TEST(ClfyActions, LongNameIsStoredAsItsFirstElevenCharacters) {
  EXPECT_EQ(nuv_clfy_find_action("queuemarker"), 4);
}

TEST(ClfyActions, LongNameIsNotFoundByItsFullText) {
  // Twelve characters are compared: the stored name ends with its NUL there.
  EXPECT_EQ(nuv_clfy_find_action("queuemarker1"), 0);
  EXPECT_EQ(nuv_clfy_find_action("queuemarker1-and-more"), 0);
}

TEST(ClfyActions, PrefixOfANameIsNotFound) { EXPECT_EQ(nuv_clfy_find_action("acc"), 0); }

TEST(ClfyActions, NullNameIsNeitherRegisteredNorFound) {
  EXPECT_EQ(nuv_clfy_register_action(nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(nuv_clfy_find_action(nullptr), 0);
}

TEST(ClfyActions, FreeingARuleOfASetCallsItsActionsRelease) {
  released_ids.clear();
  nuv_clfy_set set = empty_set();
  nuv_clfy *rule = nuv_clfy_alloc();
  nuv_clfy_add_head(&set, rule);
  rule->action = kReleaseAction;
  const uint32_t id = rule->id;
  set.head = nullptr;  // unlinked by hand: nuv_clfy_free does not look at the set
  nuv_clfy_free(rule);
  EXPECT_EQ(released_ids, (std::vector<uint32_t>{id}));
}

TEST(ClfyActions, FreeingAFreeStandingRuleNeverCallsRelease) {
  released_ids.clear();
  nuv_clfy *rule = nuv_clfy_alloc();
  rule->action = kReleaseAction;
  nuv_clfy_free(rule);
  EXPECT_TRUE(released_ids.empty());
}

TEST(ClfyActions, RuleWithoutActionCallsNoRelease) {
  released_ids.clear();
  nuv_clfy_set set = empty_set();
  nuv_clfy_add_head(&set, nuv_clfy_alloc());
  nuv_clfy_del_and_free_all(&set);
  EXPECT_TRUE(released_ids.empty());
}

TEST(ClfyActions, ActionIndexOutsideTheRegistryCallsNoRelease) {
  released_ids.clear();
  nuv_clfy_set set = empty_set();
  nuv_clfy *beyond = nuv_clfy_alloc();
  beyond->action = 24;
  nuv_clfy_add_head(&set, beyond);
  nuv_clfy *negative = nuv_clfy_alloc();
  negative->action = -1;
  nuv_clfy_add_head(&set, negative);
  nuv_clfy_del_and_free_all(&set);
  EXPECT_TRUE(released_ids.empty());
}

TEST(ClfyActions, ActionWithoutReleaseCallbackIsSkipped) {
  released_ids.clear();
  nuv_clfy_set set = empty_set();
  nuv_clfy *rule = nuv_clfy_alloc();
  rule->action = 1;
  nuv_clfy_add_head(&set, rule);
  nuv_clfy_del_and_free_all(&set);
  EXPECT_TRUE(released_ids.empty());
}

TEST(ClfyActions, ReleaseSeesTheRuleBeforeItsPartsAreFreed) {
  nuv_clfy_set set = empty_set();
  nuv_clfy *rule = nuv_clfy_alloc();
  nuv_clfy_add_packetmatch(rule, "still here");
  rule->action = nuv_clfy_find_action("last");
  ASSERT_EQ(rule->action, kLastAction);
  nuv_clfy_add_head(&set, rule);
  released_ids.clear();
  released_pattern.clear();
  nuv_clfy_del_and_free_all(&set);
  ASSERT_EQ(released_ids.size(), 1u);
  EXPECT_EQ(released_pattern, "still here");
}

TEST(ClfyActions, DeletingASubtreeReleasesChildrenBeforeTheirParentSiblingsInOrder) {
  // parent -> [c1 -> [g1, g2], c2]; every rule owned by the set with the
  // releasing action, so the release calls show the order of freeing.
  released_ids.clear();
  testsupport::NoLeakGuard guard;
  nuv_clfy_set set = empty_set();
  nuv_clfy *parent = nuv_clfy_alloc();
  nuv_clfy *c1 = nuv_clfy_alloc();
  nuv_clfy *c2 = nuv_clfy_alloc();
  nuv_clfy *g1 = nuv_clfy_alloc();
  nuv_clfy *g2 = nuv_clfy_alloc();
  for (nuv_clfy *r : {parent, c1, c2, g1, g2}) {
    r->owner = &set;
    r->action = kReleaseAction;
  }
  parent->children = c1;
  c1->next = c2;
  c1->children = g1;
  g1->next = g2;
  nuv_clfy_add_tail(&set, parent);
  const std::vector<uint32_t> expected{g1->id, g2->id, c1->id, c2->id, parent->id};
  EXPECT_EQ(nuv_clfy_del_and_free(&set, parent), 0);
  EXPECT_EQ(released_ids, expected);
}

TEST(ClfyActions, DeleteAllReleasesRulesFromTheHeadOnward) {
  released_ids.clear();
  nuv_clfy_set set = empty_set();
  std::vector<uint32_t> expected;
  for (int i = 0; i < 3; ++i) {
    nuv_clfy *rule = nuv_clfy_alloc();
    rule->action = kReleaseAction;
    nuv_clfy_add_tail(&set, rule);
    expected.push_back(rule->id);
  }
  nuv_clfy_del_and_free_all(&set);
  EXPECT_EQ(released_ids, expected);
}
