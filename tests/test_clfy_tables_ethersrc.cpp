// Ethernet source tables: named, shared, growable sets of MAC addresses.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using testsupport::NoLeakGuard;

namespace {

using Mac = std::array<uint8_t, 6>;

Mac mac_of(uint8_t last) { return Mac{0x00, 0x11, 0x22, 0x33, 0x44, last}; }

// The used and unused slots of a table, as addresses.
std::vector<Mac> slots_of(const ethersrctab *table, uint32_t slots) {
  std::vector<Mac> out;
  for (uint32_t i = 0; i < slots; ++i) {
    Mac m;
    std::memcpy(m.data(), table->entries + 6 * i, 6);
    out.push_back(m);
  }
  return out;
}

std::vector<Mac> used_of(const ethersrctab *table) { return slots_of(table, table->count); }

bool unused_slots_zero(const ethersrctab *table) {
  for (uint32_t i = table->count * 6; i < table->capacity * 6; ++i)
    if (table->entries[i]) return false;
  return true;
}

class EtherSrcTab : public ::testing::Test {
 protected:
  void TearDown() override { nuv_clfy_ethersrctab_freeall(); }
};

}  // namespace

// ---- Creation and lookup ----

TEST_F(EtherSrcTab, UnknownNameIsNotFound) { EXPECT_EQ(nuv_clfy_ethersrctab_find("nothing"), nullptr); }

TEST_F(EtherSrcTab, NewTableHasFourEmptySlotsAndItsName) {
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("clients");
  ASSERT_NE(table, nullptr);
  EXPECT_STREQ(table->name, "clients");
  EXPECT_EQ(table->count, 0u);
  EXPECT_EQ(table->capacity, 4u);
  EXPECT_EQ(table->reserved, 0u);
  EXPECT_EQ(table->next, nullptr);
  ASSERT_NE(table->entries, nullptr);
  EXPECT_EQ(slots_of(table, 4), std::vector<Mac>(4, Mac{}));
}

TEST_F(EtherSrcTab, NameFieldIsZeroBehindTheName) {
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("ab");
  for (size_t i = 2; i < sizeof table->name; ++i) EXPECT_EQ(table->name[i], 0) << i;
}

TEST_F(EtherSrcTab, FindOrCreateReturnsTheExistingTable) {
  ethersrctab *first = nuv_clfy_ethersrctab_find_or_create("clients");
  EXPECT_EQ(nuv_clfy_ethersrctab_find_or_create("clients"), first);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("clients"), first);
}

TEST_F(EtherSrcTab, TablesAreListedInOrderOfCreation) {
  ethersrctab *a = nuv_clfy_ethersrctab_find_or_create("a");
  ethersrctab *b = nuv_clfy_ethersrctab_find_or_create("b");
  ethersrctab *c = nuv_clfy_ethersrctab_find_or_create("c");
  EXPECT_EQ(a->next, b);
  EXPECT_EQ(b->next, c);
  EXPECT_EQ(c->next, nullptr);
}

TEST_F(EtherSrcTab, NamesCompareCaseSensitively) {
  nuv_clfy_ethersrctab_find_or_create("Clients");
  EXPECT_EQ(nuv_clfy_ethersrctab_find("clients"), nullptr);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("Client"), nullptr);
}

TEST_F(EtherSrcTab, FifteenCharacterNameIsKeptWhole) {
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("fifteen-chars-x");
  EXPECT_STREQ(table->name, "fifteen-chars-x");
  EXPECT_EQ(nuv_clfy_ethersrctab_find("fifteen-chars-x"), table);
}

TEST_F(EtherSrcTab, LongNameIsStoredTruncatedToFifteenCharacters) {
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("a-very-long-table-name");
  ASSERT_NE(table, nullptr);
  EXPECT_STREQ(table->name, "a-very-long-tab");
  EXPECT_EQ(nuv_clfy_ethersrctab_find("a-very-long-tab"), table);
}

TEST_F(EtherSrcTab, LongNameIsNeverFoundAndCreatesAFurtherTableEachTime) {
  ethersrctab *first = nuv_clfy_ethersrctab_find_or_create("a-very-long-table-name");
  EXPECT_EQ(nuv_clfy_ethersrctab_find("a-very-long-table-name"), nullptr);
  ethersrctab *second = nuv_clfy_ethersrctab_find_or_create("a-very-long-table-name");
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(first->next, second);
  // Lookups by the stored name find the first of the two.
  EXPECT_EQ(nuv_clfy_ethersrctab_find("a-very-long-tab"), first);
}

TEST_F(EtherSrcTab, CreateWithoutLinkingIsNotFound) {
  NoLeakGuard guard;
  ethersrctab *table = _nuv_clfy_ethersrctab_create("loose");
  ASSERT_NE(table, nullptr);
  EXPECT_STREQ(table->name, "loose");
  EXPECT_EQ(table->capacity, 4u);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("loose"), nullptr);
  const Mac m = mac_of(1);
  EXPECT_EQ(_nuv_clfy_ethersrctab_add(table, m.data()), 0);
  EXPECT_EQ(nuv_clfy_ethersrctab_is_in(table, m.data()), 1);
  _nuv_clfy_ethersrctab_free(table);
}

TEST_F(EtherSrcTab, FreeAllLeavesNoTable) {
  NoLeakGuard guard;
  for (const char *name : {"a", "b", "c"}) {
    const Mac m = mac_of(7);
    nuv_clfy_ethersrctab_add(name, m.data());
  }
  nuv_clfy_ethersrctab_freeall();
  for (const char *name : {"a", "b", "c", ""}) EXPECT_EQ(nuv_clfy_ethersrctab_find(name), nullptr) << name;
}

TEST_F(EtherSrcTab, TablesCanBeCreatedAgainAfterFreeAll) {
  nuv_clfy_ethersrctab_find_or_create("a");
  nuv_clfy_ethersrctab_freeall();
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("a");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->count, 0u);
}

// ---- Adding ----

TEST_F(EtherSrcTab, AddCreatesTheTableOnFirstUse) {
  const Mac m = mac_of(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_add("new", m.data()), 0);
  ethersrctab *table = nuv_clfy_ethersrctab_find("new");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(used_of(table), std::vector<Mac>{m});
}

TEST_F(EtherSrcTab, AddingTheSameAddressTwiceKeepsOneEntry) {
  const Mac m = mac_of(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_add("t", m.data()), 0);
  EXPECT_EQ(nuv_clfy_ethersrctab_add("t", m.data()), 0);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("t")->count, 1u);
}

TEST_F(EtherSrcTab, FifthAddressGrowsTheTableToEightSlotsInOrder) {
  std::vector<Mac> added;
  for (uint8_t i = 1; i <= 5; ++i) {
    added.push_back(mac_of(i));
    ASSERT_EQ(nuv_clfy_ethersrctab_add("t", added.back().data()), 0);
  }
  ethersrctab *table = nuv_clfy_ethersrctab_find("t");
  EXPECT_EQ(table->capacity, 8u);
  EXPECT_EQ(used_of(table), added);
  EXPECT_TRUE(unused_slots_zero(table));
}

TEST_F(EtherSrcTab, TableGrowsInStepsOfFour) {
  std::vector<uint32_t> capacities;
  for (uint8_t i = 1; i <= 13; ++i) {
    const Mac m = mac_of(i);
    nuv_clfy_ethersrctab_add("t", m.data());
    capacities.push_back(nuv_clfy_ethersrctab_find("t")->capacity);
  }
  EXPECT_EQ(capacities, (std::vector<uint32_t>{4, 4, 4, 4, 8, 8, 8, 8, 12, 12, 12, 12, 16}));
}

TEST_F(EtherSrcTab, AddressesDifferingInOneByteAreDistinct) {
  const Mac a{0, 0, 0, 0, 0, 1};
  const Mac b{1, 0, 0, 0, 0, 1};
  nuv_clfy_ethersrctab_add("t", a.data());
  nuv_clfy_ethersrctab_add("t", b.data());
  EXPECT_EQ(nuv_clfy_ethersrctab_find("t")->count, 2u);
}

// ---- Membership ----

TEST_F(EtherSrcTab, EmptyTableHoldsNothing) {
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("t");
  const Mac zero{};
  EXPECT_EQ(nuv_clfy_ethersrctab_is_in(table, zero.data()), 0);
}

TEST_F(EtherSrcTab, AddedAddressIsInTheTableAndOthersAreNot) {
  const Mac m = mac_of(9);
  nuv_clfy_ethersrctab_add("t", m.data());
  ethersrctab *table = nuv_clfy_ethersrctab_find("t");
  EXPECT_EQ(nuv_clfy_ethersrctab_is_in(table, m.data()), 1);
  const Mac other = mac_of(10);
  EXPECT_EQ(nuv_clfy_ethersrctab_is_in(table, other.data()), 0);
}

TEST_F(EtherSrcTab, NullTableHoldsNothing) {
  const Mac m = mac_of(9);
  EXPECT_EQ(nuv_clfy_ethersrctab_is_in(nullptr, m.data()), 0);
}

// ---- Deleting and resetting ----

TEST_F(EtherSrcTab, DeletingTheFirstOfThreeMovesTheOthersDown) {
  for (uint8_t i = 1; i <= 3; ++i) {
    const Mac m = mac_of(i);
    nuv_clfy_ethersrctab_add("t", m.data());
  }
  const Mac first = mac_of(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_del("t", first.data()), 0);
  ethersrctab *table = nuv_clfy_ethersrctab_find("t");
  EXPECT_EQ(table->count, 2u);
  EXPECT_EQ(slots_of(table, 4), (std::vector<Mac>{mac_of(2), mac_of(3), Mac{}, Mac{}}));
}

TEST_F(EtherSrcTab, DeletingTheLastEntryZeroesItsSlot) {
  for (uint8_t i = 1; i <= 2; ++i) {
    const Mac m = mac_of(i);
    nuv_clfy_ethersrctab_add("t", m.data());
  }
  const Mac last = mac_of(2);
  EXPECT_EQ(nuv_clfy_ethersrctab_del("t", last.data()), 0);
  EXPECT_EQ(slots_of(nuv_clfy_ethersrctab_find("t"), 4), (std::vector<Mac>{mac_of(1), Mac{}, Mac{}, Mac{}}));
}

TEST_F(EtherSrcTab, DeletingFromAnEmptyTableFails) {
  nuv_clfy_ethersrctab_find_or_create("t");
  const Mac m = mac_of(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_del("t", m.data()), -1);
}

TEST_F(EtherSrcTab, DeletingAnAbsentAddressFailsAndKeepsTheTable) {
  const Mac m = mac_of(1);
  nuv_clfy_ethersrctab_add("t", m.data());
  const Mac other = mac_of(2);
  EXPECT_EQ(nuv_clfy_ethersrctab_del("t", other.data()), -1);
  EXPECT_EQ(used_of(nuv_clfy_ethersrctab_find("t")), std::vector<Mac>{m});
}

TEST_F(EtherSrcTab, DeletingFromAnUnknownTableFails) {
  const Mac m = mac_of(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_del("unknown", m.data()), -1);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("unknown"), nullptr);
}

TEST_F(EtherSrcTab, DeletedAddressCanBeAddedAgain) {
  const Mac m = mac_of(1);
  nuv_clfy_ethersrctab_add("t", m.data());
  nuv_clfy_ethersrctab_del("t", m.data());
  EXPECT_EQ(nuv_clfy_ethersrctab_add("t", m.data()), 0);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("t")->count, 1u);
}

TEST_F(EtherSrcTab, ResetEmptiesTheTableAndKeepsItsStorage) {
  for (uint8_t i = 1; i <= 5; ++i) {
    const Mac m = mac_of(i);
    nuv_clfy_ethersrctab_add("t", m.data());
  }
  ethersrctab *table = nuv_clfy_ethersrctab_find("t");
  const uint8_t *entries = table->entries;
  EXPECT_EQ(nuv_clfy_ethersrctab_reset("t"), 0);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("t"), table);
  EXPECT_EQ(table->count, 0u);
  EXPECT_EQ(table->capacity, 8u);
  EXPECT_EQ(table->entries, entries);
  EXPECT_EQ(slots_of(table, 8), std::vector<Mac>(8, Mac{}));
}

TEST_F(EtherSrcTab, ResetOfAnUnknownTableFails) { EXPECT_EQ(nuv_clfy_ethersrctab_reset("unknown"), -1); }

// ---- Exhausted memory ----

TEST_F(EtherSrcTab, TableRecordThatCannotBeAllocatedGivesNullAndLinksNothing) {
  NoLeakGuard guard;
  ethersrctab *before = nuv_clfy_ethersrctab_find_or_create("before");
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_find_or_create("t"), nullptr);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("t"), nullptr);
  EXPECT_EQ(before->next, nullptr);
  nuv_clfy_ethersrctab_freeall();
}

TEST_F(EtherSrcTab, TableWhoseArrayCannotBeAllocatedHasNoSlotsAndGrowsOnFirstAdd) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(2);
  ethersrctab *table = nuv_clfy_ethersrctab_find_or_create("t");
  nuvcsock_fail_nth_allocation(0);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->capacity, 0u);
  EXPECT_EQ(table->entries, nullptr);
  const Mac m = mac_of(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_is_in(table, m.data()), 0);
  EXPECT_EQ(nuv_clfy_ethersrctab_reset("t"), 0);
  EXPECT_EQ(nuv_clfy_ethersrctab_del("t", m.data()), -1);
  EXPECT_EQ(nuv_clfy_ethersrctab_add("t", m.data()), 0);
  EXPECT_EQ(table->capacity, 4u);
  EXPECT_EQ(used_of(table), std::vector<Mac>{m});
  nuv_clfy_ethersrctab_freeall();
}

TEST_F(EtherSrcTab, UnlinkedCreateFailsWhenTheRecordCannotBeAllocated) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(_nuv_clfy_ethersrctab_create("t"), nullptr);
}

TEST_F(EtherSrcTab, AddToANewTableFailsOnlyWhenTheRecordCannotBeAllocated) {
  const Mac m = mac_of(1);
  for (long n = 1; n < 10; ++n) {
    NoLeakGuard guard;
    nuvcsock_fail_nth_allocation(n);
    const int result = nuv_clfy_ethersrctab_add("t", m.data());
    nuvcsock_fail_nth_allocation(0);
    ethersrctab *table = nuv_clfy_ethersrctab_find("t");
    SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
    if (n == 1) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(table, nullptr);
    } else {
      // A lost array only delays the allocation to the add itself.
      EXPECT_EQ(result, 0);
      ASSERT_NE(table, nullptr);
      EXPECT_EQ(used_of(table), std::vector<Mac>{m});
    }
    nuv_clfy_ethersrctab_freeall();
    if (n >= 3) return;
  }
}

TEST_F(EtherSrcTab, AddFailsWhenNeitherCreationNorGrowthGetsAnArray) {
  NoLeakGuard guard;
  const Mac m = mac_of(1);
  nuvcsock_fail_from_allocation(2);
  EXPECT_EQ(nuv_clfy_ethersrctab_add("t", m.data()), -1);
  nuvcsock_fail_nth_allocation(0);
  ethersrctab *table = nuv_clfy_ethersrctab_find("t");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->count, 0u);
  EXPECT_EQ(table->capacity, 0u);
  EXPECT_EQ(table->entries, nullptr);
  nuv_clfy_ethersrctab_freeall();
}

TEST_F(EtherSrcTab, GrowthThatCannotBeAllocatedFailsAndLeavesTheTableAsItWas) {
  NoLeakGuard guard;
  std::vector<Mac> added;
  for (uint8_t i = 1; i <= 4; ++i) {
    added.push_back(mac_of(i));
    nuv_clfy_ethersrctab_add("t", added.back().data());
  }
  ethersrctab *table = nuv_clfy_ethersrctab_find("t");
  const uint8_t *entries = table->entries;
  const Mac fifth = mac_of(5);
  for (long n = 1;; ++n) {
    nuvcsock_fail_nth_allocation(n);
    const int result = nuv_clfy_ethersrctab_add("t", fifth.data());
    nuvcsock_fail_nth_allocation(0);
    if (result == 0) {
      EXPECT_EQ(n, 2) << "growing allocates exactly one array";
      EXPECT_EQ(table->capacity, 8u);
      added.push_back(fifth);
      EXPECT_EQ(used_of(table), added);
      break;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(table->count, 4u);
    EXPECT_EQ(table->capacity, 4u);
    EXPECT_EQ(table->entries, entries);
    EXPECT_EQ(used_of(table), added);
    ASSERT_LT(n, 10);
  }
  nuv_clfy_ethersrctab_freeall();
}

TEST_F(EtherSrcTab, EveryAllocationIsTaggedWithTheClassifierSourcePath) {
  ASSERT_EQ(nuvcsock_slab_live_blocks(), 0);
  for (uint8_t i = 1; i <= 5; ++i) {
    const Mac m = mac_of(i);
    nuv_clfy_ethersrctab_add("t", m.data());
  }
  std::vector<std::string> tags;
  nuvcsock_slab_foreach_live(
      [](const char *file, int line, size_t, void *ctx) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(std::string(file) + (line > 0 ? "" : ":bad line"));
      },
      &tags);
  EXPECT_EQ(tags, std::vector<std::string>(2, "sharedlibs/datapipe/nuvclfy"));
}

// ---- Against a plain model ----

TEST_F(EtherSrcTab, RandomOperationsAgreeWithAPlainModel) {
  // Model: per table the list of addresses in order and the slot count.
  struct Model {
    std::vector<Mac> macs;
    uint32_t capacity = 4;
  };
  std::map<std::string, Model> model;
  std::mt19937 random(20261121);
  const char *names[] = {"a", "b", "c"};
  for (int step = 0; step < 20000; ++step) {
    const std::string name = names[random() % 3];
    const Mac m = mac_of(static_cast<uint8_t>(random() % 24));
    const unsigned what = random() % 100;
    if (what < 60) {
      ASSERT_EQ(nuv_clfy_ethersrctab_add(name.c_str(), m.data()), 0);
      Model &t = model[name];
      if (std::find(t.macs.begin(), t.macs.end(), m) == t.macs.end()) {
        if (t.macs.size() == t.capacity) t.capacity += 4;
        t.macs.push_back(m);
      }
    } else if (what < 98) {
      auto it = model.find(name);
      int expected = -1;
      if (it != model.end()) {
        auto pos = std::find(it->second.macs.begin(), it->second.macs.end(), m);
        if (pos != it->second.macs.end()) {
          it->second.macs.erase(pos);
          expected = 0;
        }
      }
      ASSERT_EQ(nuv_clfy_ethersrctab_del(name.c_str(), m.data()), expected) << "step " << step;
    } else {
      auto it = model.find(name);
      ASSERT_EQ(nuv_clfy_ethersrctab_reset(name.c_str()), it == model.end() ? -1 : 0);
      if (it != model.end()) it->second.macs.clear();
    }
    ethersrctab *table = nuv_clfy_ethersrctab_find(name.c_str());
    auto it = model.find(name);
    ASSERT_EQ(table != nullptr, it != model.end());
    if (!table) continue;
    ASSERT_EQ(used_of(table), it->second.macs) << "step " << step;
    ASSERT_EQ(table->capacity, it->second.capacity);
    ASSERT_TRUE(unused_slots_zero(table));
    const Mac probe = mac_of(static_cast<uint8_t>(random() % 24));
    const bool in_model = std::find(it->second.macs.begin(), it->second.macs.end(), probe) != it->second.macs.end();
    ASSERT_EQ(nuv_clfy_ethersrctab_is_in(table, probe.data()), in_model ? 1 : 0);
  }
}

TEST_F(EtherSrcTab, NullNamesAndAddressesAreRefused) {
  const Mac m = mac_of(1);
  EXPECT_EQ(nuv_clfy_ethersrctab_find(nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_ethersrctab_find_or_create(nullptr), nullptr);
  EXPECT_EQ(_nuv_clfy_ethersrctab_create(nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_ethersrctab_add(nullptr, m.data()), -1);
  EXPECT_EQ(nuv_clfy_ethersrctab_add("t", nullptr), -1);
  EXPECT_EQ(_nuv_clfy_ethersrctab_add(nullptr, m.data()), -1);
  EXPECT_EQ(nuv_clfy_ethersrctab_del(nullptr, m.data()), -1);
  EXPECT_EQ(nuv_clfy_ethersrctab_reset(nullptr), -1);
  EXPECT_EQ(nuv_clfy_ethersrctab_is_in(nuv_clfy_ethersrctab_find("t"), nullptr), 0);
  _nuv_clfy_ethersrctab_free(nullptr);
}
