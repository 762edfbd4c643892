// IP destination tables: named, shared, growable sets of IPv4 and IPv6
// destinations with one covering test for adding, deleting and lookup.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using testsupport::NoLeakGuard;

namespace {

using Addr6 = std::array<uint8_t, 16>;

// Addresses through libc's converter, in the library's form (network-order bytes).
uint32_t ip4(const char *text) {
  in_addr a{};
  EXPECT_EQ(inet_pton(AF_INET, text, &a), 1) << text;
  return a.s_addr;
}

Addr6 ip6(const char *text) {
  Addr6 a{};
  EXPECT_EQ(inet_pton(AF_INET6, text, a.data()), 1) << text;
  return a;
}

std::string text_of(const ipdsttab_entry &e) {
  char buf[64] = "";
  if (e.family == 4) {
    char mask[32];
    inet_ntop(AF_INET, &e.addr.v4.addr, buf, sizeof buf);
    inet_ntop(AF_INET, &e.addr.v4.mask, mask, sizeof mask);
    return std::string(buf) + " " + mask;
  }
  if (e.family == 6) {
    inet_ntop(AF_INET6, e.addr.v6, buf, sizeof buf);
    return std::string(buf) + "/" + std::to_string(e.prefixlen);
  }
  return "-";
}

std::vector<std::string> slots_of(const ipdsttab *table, uint32_t slots) {
  std::vector<std::string> out;
  for (uint32_t i = 0; i < slots; ++i) out.push_back(text_of(table->entries[i]));
  return out;
}

std::vector<std::string> used_of(const ipdsttab *table) { return slots_of(table, table->count); }

bool slot_zero(const ipdsttab_entry &e) {
  const auto *b = reinterpret_cast<const uint8_t *>(&e);
  for (size_t i = 0; i < sizeof e; ++i)
    if (b[i]) return false;
  return true;
}

bool unused_slots_zero(const ipdsttab *table) {
  for (uint32_t i = table->count; i < table->capacity; ++i)
    if (!slot_zero(table->entries[i])) return false;
  return true;
}

// Puts an entry with any mask or prefix into the next slot of a table, as a
// caller filling the table directly would.
void place4(ipdsttab *table, const char *addr, const char *mask) {
  ASSERT_LT(table->count, table->capacity);
  ipdsttab_entry &e = table->entries[table->count++];
  e.family = 4;
  e.addr.v4.addr = ip4(addr);
  e.addr.v4.mask = ip4(mask);
}

void place6(ipdsttab *table, const char *addr, uint8_t prefixlen) {
  ASSERT_LT(table->count, table->capacity);
  ipdsttab_entry &e = table->entries[table->count++];
  e.family = 6;
  const Addr6 a = ip6(addr);
  std::memcpy(e.addr.v6, a.data(), 16);
  e.prefixlen = prefixlen;
}

class IpDstTab : public ::testing::Test {
 protected:
  void TearDown() override { nuv_clfy_ipdsttab_freeall(); }
};

}  // namespace

// ---- Creation and lookup ----

TEST_F(IpDstTab, UnknownNameIsNotFound) { EXPECT_EQ(nuv_clfy_ipdsttab_find("nothing"), nullptr); }

TEST_F(IpDstTab, NewTableHasFourEmptySlotsAndItsName) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("servers");
  ASSERT_NE(table, nullptr);
  EXPECT_STREQ(table->name, "servers");
  EXPECT_EQ(table->count, 0u);
  EXPECT_EQ(table->capacity, 4u);
  EXPECT_EQ(table->reserved, 0u);
  EXPECT_EQ(table->next, nullptr);
  ASSERT_NE(table->entries, nullptr);
  for (uint32_t i = 0; i < 4; ++i) EXPECT_TRUE(slot_zero(table->entries[i]));
}

TEST_F(IpDstTab, FindOrCreateReturnsTheExistingTable) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("servers");
  EXPECT_EQ(nuv_clfy_ipdsttab_find_or_create("servers"), table);
  EXPECT_EQ(nuv_clfy_ipdsttab_find("servers"), table);
}

TEST_F(IpDstTab, TablesAreListedInOrderOfCreation) {
  ipdsttab *a = nuv_clfy_ipdsttab_find_or_create("a");
  ipdsttab *b = nuv_clfy_ipdsttab_find_or_create("b");
  EXPECT_EQ(a->next, b);
  EXPECT_EQ(b->next, nullptr);
}

TEST_F(IpDstTab, TablesAreSeparateFromEthernetSourceTables) {
  nuv_clfy_ipdsttab_find_or_create("shared-name");
  EXPECT_EQ(nuv_clfy_ethersrctab_find("shared-name"), nullptr);
}

TEST_F(IpDstTab, NamesCompareCaseSensitively) {
  nuv_clfy_ipdsttab_find_or_create("Servers");
  EXPECT_EQ(nuv_clfy_ipdsttab_find("servers"), nullptr);
}

TEST_F(IpDstTab, LongNameIsStoredTruncatedToFifteenCharacters) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("a-very-long-table-name");
  ASSERT_NE(table, nullptr);
  EXPECT_STREQ(table->name, "a-very-long-tab");
}

TEST_F(IpDstTab, LongNameIsNeverFoundAndCreatesAFurtherTableEachTime) {
  ipdsttab *first = nuv_clfy_ipdsttab_find_or_create("a-very-long-table-name");
  EXPECT_EQ(nuv_clfy_ipdsttab_find("a-very-long-table-name"), nullptr);
  ipdsttab *second = nuv_clfy_ipdsttab_find_or_create("a-very-long-table-name");
  EXPECT_NE(second, first);
  EXPECT_EQ(first->next, second);
  // Adding by the long name goes to yet another new table each time.
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("a-very-long-table-name", ip4("192.0.2.1")), 0);
  EXPECT_EQ(first->count, 0u);
  EXPECT_EQ(second->count, 0u);
  ASSERT_NE(second->next, nullptr);
  EXPECT_EQ(second->next->count, 1u);
}

TEST_F(IpDstTab, FreeAllLeavesNoTable) {
  NoLeakGuard guard;
  nuv_clfy_ipdsttab_add4("a", ip4("192.0.2.1"));
  const Addr6 a6 = ip6("2001:db8::1");
  nuv_clfy_ipdsttab_add6("b", a6.data());
  nuv_clfy_ipdsttab_freeall();
  EXPECT_EQ(nuv_clfy_ipdsttab_find("a"), nullptr);
  EXPECT_EQ(nuv_clfy_ipdsttab_find("b"), nullptr);
}

// ---- Adding ----

TEST_F(IpDstTab, AddingAnIpv4AddressStoresAHostEntry) {
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1")), 0);
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(table->count, 1u);
  const ipdsttab_entry &e = table->entries[0];
  EXPECT_EQ(e.family, 4);
  EXPECT_EQ(e.prefixlen, 0);
  EXPECT_EQ(e.addr.v4.addr, ip4("192.0.2.1"));
  EXPECT_EQ(e.addr.v4.mask, 0xffffffffu);
  for (int i = 8; i < 16; ++i) EXPECT_EQ(e.addr.v6[i], 0) << i;
}

TEST_F(IpDstTab, AddingAnIpv6AddressStoresAHostEntry) {
  const Addr6 a = ip6("2001:db8::1");
  EXPECT_EQ(nuv_clfy_ipdsttab_add6("t", a.data()), 0);
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  ASSERT_EQ(table->count, 1u);
  const ipdsttab_entry &e = table->entries[0];
  EXPECT_EQ(e.family, 6);
  EXPECT_EQ(e.prefixlen, 128);
  EXPECT_EQ(std::memcmp(e.addr.v6, a.data(), 16), 0);
}

TEST_F(IpDstTab, AddingTheSameIpv4AddressTwiceKeepsOneEntry) {
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1")), 0);
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1")), 0);
  EXPECT_EQ(used_of(nuv_clfy_ipdsttab_find("t")), (std::vector<std::string>{"192.0.2.1 255.255.255.255"}));
}

TEST_F(IpDstTab, AddingTheSameIpv6AddressTwiceKeepsOneEntry) {
  const Addr6 a = ip6("2001:db8::1");
  nuv_clfy_ipdsttab_add6("t", a.data());
  nuv_clfy_ipdsttab_add6("t", a.data());
  EXPECT_EQ(nuv_clfy_ipdsttab_find("t")->count, 1u);
}

TEST_F(IpDstTab, FifthEntryGrowsTheTableToEightSlotsInOrder) {
  const Addr6 a6 = ip6("2001:db8::1");
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1"));
  nuv_clfy_ipdsttab_add6("t", a6.data());
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.2"));
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.3"));
  nuv_clfy_ipdsttab_add4("t", ip4("10.0.0.1"));
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  EXPECT_EQ(table->capacity, 8u);
  EXPECT_EQ(used_of(table), (std::vector<std::string>{"192.0.2.1 255.255.255.255", "2001:db8::1/128",
                                                      "192.0.2.2 255.255.255.255", "192.0.2.3 255.255.255.255",
                                                      "10.0.0.1 255.255.255.255"}));
  EXPECT_TRUE(unused_slots_zero(table));
}

TEST_F(IpDstTab, TableGrowsInStepsOfFour) {
  std::vector<uint32_t> capacities;
  for (uint32_t i = 1; i <= 9; ++i) {
    nuv_clfy_ipdsttab_add4("t", htonl(0x0a000000u + i));
    capacities.push_back(nuv_clfy_ipdsttab_find("t")->capacity);
  }
  EXPECT_EQ(capacities, (std::vector<uint32_t>{4, 4, 4, 4, 8, 8, 8, 8, 12}));
}

TEST_F(IpDstTab, AddressCoveredByAWiderEntryIsNotAddedAgain) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  place4(table, "10.0.0.0", "255.0.0.0");
  place6(table, "2001:db8::", 32);
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("t", ip4("10.20.30.40")), 0);
  const Addr6 a = ip6("2001:db8:1::5");
  EXPECT_EQ(nuv_clfy_ipdsttab_add6("t", a.data()), 0);
  EXPECT_EQ(table->count, 2u);
}

TEST_F(IpDstTab, Ipv4AndIpv6EntriesNeverCoverEachOther) {
  // ::c000:201 has the bytes of 192.0.2.1 in its last four bytes, and an
  // IPv6 entry that starts with those bytes must not cover the IPv4 address.
  const Addr6 a = ip6("c000:201::");
  nuv_clfy_ipdsttab_add6("t", a.data());
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1")), 0);
  EXPECT_EQ(nuv_clfy_ipdsttab_find("t")->count, 2u);
}

// ---- Membership ----

TEST_F(IpDstTab, MixedTableAnswersForEachFamilySeparately) {
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1"));
  const Addr6 a6 = ip6("2001:db8::1");
  nuv_clfy_ipdsttab_add6("t", a6.data());
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("192.0.2.1")), 1);
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, a6.data()), 1);
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("192.0.2.2")), 0);
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("0.0.0.0")), 0);
  const Addr6 other = ip6("2001:db8::2");
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, other.data()), 0);
  const Addr6 mapped = ip6("::ffff:192.0.2.1");
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, mapped.data()), 0);
}

TEST_F(IpDstTab, EmptyOrNullTableHoldsNothing) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  const Addr6 zero{};
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, 0), 0);
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, zero.data()), 0);
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(nullptr, 0), 0);
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(nullptr, zero.data()), 0);
}

TEST_F(IpDstTab, Ipv4EntryCoversTheAddressesOfItsMask) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  place4(table, "198.51.100.0", "255.255.255.0");
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("198.51.100.77")), 1);
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("198.51.101.77")), 0);
}

TEST_F(IpDstTab, Ipv4EntryAddressIsNotMaskedAgain) {
  // Host bits in the entry's own address make it cover nothing at all.
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  place4(table, "10.0.0.1", "255.0.0.0");
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("10.0.0.1")), 0);
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("10.0.0.0")), 0);
}

TEST_F(IpDstTab, Ipv6EntryWithAPartialBytePrefixTestsItsTopBits) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  place6(table, "2001:db8:0:10::", 60);
  const Addr6 inside = ip6("2001:db8:0:1f::1");
  const Addr6 outside = ip6("2001:db8:0:20::1");
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, inside.data()), 1);
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, outside.data()), 0);
}

TEST_F(IpDstTab, Ipv6EntryWithPrefixZeroCoversEveryIpv6AddressButNoIpv4) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  place6(table, "ffff::", 0);
  const Addr6 any = ip6("2001:db8::99");
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, any.data()), 1);
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("192.0.2.1")), 0);
}

TEST_F(IpDstTab, Ipv6EntryWithAnOversizedPrefixComparesTheWholeAddress) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  place6(table, "2001:db8::1", 200);
  const Addr6 same = ip6("2001:db8::1");
  const Addr6 other = ip6("2001:db8::2");
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, same.data()), 1);
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, other.data()), 0);
}

TEST_F(IpDstTab, Ipv6CoveringAgreesWithABitByBitPrefixComparison) {
  // Reference: the first p bits of both addresses are equal.
  auto reference = [](const Addr6 &entry, const Addr6 &addr, unsigned p) {
    for (unsigned bit = 0; bit < p; ++bit) {
      const unsigned shift = 7 - bit % 8;
      if (((entry[bit / 8] >> shift) & 1) != ((addr[bit / 8] >> shift) & 1)) return false;
    }
    return true;
  };
  std::mt19937 random(4711);
  for (int round = 0; round < 5000; ++round) {
    Addr6 entry;
    for (auto &b : entry) b = static_cast<uint8_t>(random());
    Addr6 addr = entry;
    // Flip one bit somewhere, or none.
    const unsigned flip = random() % 136;
    if (flip < 128) addr[flip / 8] ^= static_cast<uint8_t>(0x80 >> (flip % 8));
    const auto prefix = static_cast<uint8_t>(random() % 129);
    ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
    table->count = 0;
    std::memset(table->entries, 0, table->capacity * sizeof(ipdsttab_entry));
    ipdsttab_entry &e = table->entries[table->count++];
    e.family = 6;
    std::memcpy(e.addr.v6, entry.data(), 16);
    e.prefixlen = prefix;
    ASSERT_EQ(nuv_clfy_ip6dsttab_is_in(table, addr.data()), reference(entry, addr, prefix) ? 1 : 0)
        << "prefix " << int(prefix) << " flipped bit " << flip;
  }
}

// ---- Deleting and resetting ----

TEST_F(IpDstTab, DeletingAnIpv6AddressFromAnIpv4OnlyTableFails) {
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1"));
  const Addr6 a = ip6("2001:db8::1");
  EXPECT_EQ(nuv_clfy_ipdsttab_del6("t", a.data()), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_find("t")->count, 1u);
}

TEST_F(IpDstTab, DeletingTheFirstEntryMovesTheOthersDown) {
  const Addr6 a6 = ip6("2001:db8::1");
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1"));
  nuv_clfy_ipdsttab_add6("t", a6.data());
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.3"));
  EXPECT_EQ(nuv_clfy_ipdsttab_del4("t", ip4("192.0.2.1")), 0);
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  EXPECT_EQ(used_of(table), (std::vector<std::string>{"2001:db8::1/128", "192.0.2.3 255.255.255.255"}));
  EXPECT_TRUE(unused_slots_zero(table));
}

TEST_F(IpDstTab, DeletingAnIpv6AddressRemovesOnlyThatEntry) {
  const Addr6 a = ip6("2001:db8::1");
  const Addr6 b = ip6("2001:db8::2");
  nuv_clfy_ipdsttab_add6("t", a.data());
  nuv_clfy_ipdsttab_add6("t", b.data());
  EXPECT_EQ(nuv_clfy_ipdsttab_del6("t", a.data()), 0);
  EXPECT_EQ(used_of(nuv_clfy_ipdsttab_find("t")), (std::vector<std::string>{"2001:db8::2/128"}));
}

TEST_F(IpDstTab, DeleteRemovesOneCoveringEntryPerCall) {
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  place4(table, "10.0.0.0", "255.0.0.0");
  place4(table, "10.1.0.0", "255.255.0.0");
  EXPECT_EQ(nuv_clfy_ipdsttab_del4("t", ip4("10.1.2.3")), 0);
  EXPECT_EQ(used_of(table), (std::vector<std::string>{"10.1.0.0 255.255.0.0"}));
  EXPECT_EQ(nuv_clfy_ipdsttab_del4("t", ip4("10.1.2.3")), 0);
  EXPECT_EQ(table->count, 0u);
  EXPECT_EQ(nuv_clfy_ipdsttab_del4("t", ip4("10.1.2.3")), -1);
}

TEST_F(IpDstTab, DeletingFromAnEmptyOrUnknownTableFails) {
  nuv_clfy_ipdsttab_find_or_create("t");
  EXPECT_EQ(nuv_clfy_ipdsttab_del4("t", ip4("192.0.2.1")), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_del4("unknown", ip4("192.0.2.1")), -1);
  const Addr6 a = ip6("2001:db8::1");
  EXPECT_EQ(nuv_clfy_ipdsttab_del6("unknown", a.data()), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_find("unknown"), nullptr);
}

TEST_F(IpDstTab, DeletingAnUncoveredAddressFails) {
  nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1"));
  EXPECT_EQ(nuv_clfy_ipdsttab_del4("t", ip4("192.0.2.2")), -1);
}

TEST_F(IpDstTab, ResetEmptiesTheTableAndKeepsItsStorage) {
  for (uint32_t i = 1; i <= 5; ++i) nuv_clfy_ipdsttab_add4("t", htonl(0x0a000000u + i));
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  const ipdsttab_entry *entries = table->entries;
  EXPECT_EQ(nuv_clfy_ipdsttab_reset("t"), 0);
  EXPECT_EQ(table->count, 0u);
  EXPECT_EQ(table->capacity, 8u);
  EXPECT_EQ(table->entries, entries);
  EXPECT_TRUE(unused_slots_zero(table));
}

TEST_F(IpDstTab, ResetOfAnUnknownTableFails) { EXPECT_EQ(nuv_clfy_ipdsttab_reset("unknown"), -1); }

// ---- Exhausted memory ----

TEST_F(IpDstTab, TableRecordThatCannotBeAllocatedGivesNull) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(nuv_clfy_ipdsttab_find_or_create("t"), nullptr);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(nuv_clfy_ipdsttab_find("t"), nullptr);
}

TEST_F(IpDstTab, AddFailsWhenTheTableCannotBeCreated) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1")), -1);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(nuv_clfy_ipdsttab_find("t"), nullptr);
}

TEST_F(IpDstTab, TableWhoseArrayCannotBeAllocatedHasNoSlotsAndGrowsOnFirstAdd) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(2);
  ipdsttab *table = nuv_clfy_ipdsttab_find_or_create("t");
  nuvcsock_fail_nth_allocation(0);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->capacity, 0u);
  EXPECT_EQ(table->entries, nullptr);
  EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, ip4("192.0.2.1")), 0);
  EXPECT_EQ(nuv_clfy_ipdsttab_reset("t"), 0);
  EXPECT_EQ(nuv_clfy_ipdsttab_add4("t", ip4("192.0.2.1")), 0);
  EXPECT_EQ(table->capacity, 4u);
  EXPECT_EQ(used_of(table), (std::vector<std::string>{"192.0.2.1 255.255.255.255"}));
  nuv_clfy_ipdsttab_freeall();
}

TEST_F(IpDstTab, AddFailsWhenNeitherCreationNorGrowthGetsAnArray) {
  NoLeakGuard guard;
  const Addr6 a = ip6("2001:db8::1");
  nuvcsock_fail_from_allocation(2);
  EXPECT_EQ(nuv_clfy_ipdsttab_add6("t", a.data()), -1);
  nuvcsock_fail_nth_allocation(0);
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->count, 0u);
  EXPECT_EQ(table->entries, nullptr);
  nuv_clfy_ipdsttab_freeall();
}

TEST_F(IpDstTab, GrowthThatCannotBeAllocatedFailsAndLeavesTheTableAsItWas) {
  NoLeakGuard guard;
  for (uint32_t i = 1; i <= 4; ++i) nuv_clfy_ipdsttab_add4("t", htonl(0x0a000000u + i));
  ipdsttab *table = nuv_clfy_ipdsttab_find("t");
  const std::vector<std::string> before = used_of(table);
  const ipdsttab_entry *entries = table->entries;
  const Addr6 fifth = ip6("2001:db8::5");
  for (long n = 1;; ++n) {
    nuvcsock_fail_nth_allocation(n);
    const int result = nuv_clfy_ipdsttab_add6("t", fifth.data());
    nuvcsock_fail_nth_allocation(0);
    if (result == 0) {
      EXPECT_EQ(n, 2) << "growing allocates exactly one array";
      EXPECT_EQ(table->capacity, 8u);
      EXPECT_EQ(table->count, 5u);
      EXPECT_EQ(used_of(table).back(), "2001:db8::5/128");
      break;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(table->capacity, 4u);
    EXPECT_EQ(table->entries, entries);
    EXPECT_EQ(used_of(table), before);
    ASSERT_LT(n, 10);
  }
  nuv_clfy_ipdsttab_freeall();
}

TEST_F(IpDstTab, EveryAllocationIsTaggedWithTheClassifierSourcePath) {
  ASSERT_EQ(nuvcsock_slab_live_blocks(), 0);
  for (uint32_t i = 1; i <= 5; ++i) nuv_clfy_ipdsttab_add4("t", htonl(0x0a000000u + i));
  std::vector<std::string> tags;
  nuvcsock_slab_foreach_live(
      [](const char *file, int line, size_t, void *ctx) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(std::string(file) + (line > 0 ? "" : ":bad line"));
      },
      &tags);
  EXPECT_EQ(tags, std::vector<std::string>(2, "sharedlibs/datapipe/nuvclfy"));
}

// ---- Against a plain model ----

TEST_F(IpDstTab, RandomHostOperationsAgreeWithAPlainModel) {
  // Model: the host entries in order, as text, and the slot count.
  std::vector<std::string> model;
  uint32_t capacity = 4;
  bool exists = false;
  std::mt19937 random(11235);
  char text[64];
  for (int step = 0; step < 20000; ++step) {
    const bool v6 = random() % 2;
    const unsigned host = random() % 12;
    std::string entry;
    uint32_t a4 = 0;
    Addr6 a6{};
    if (v6) {
      snprintf(text, sizeof text, "2001:db8::%x", host + 1);
      a6 = ip6(text);
      entry = std::string(text) + "/128";
    } else {
      snprintf(text, sizeof text, "192.0.2.%u", host);
      a4 = ip4(text);
      entry = std::string(text) + " 255.255.255.255";
    }
    const auto pos = std::find(model.begin(), model.end(), entry);
    const unsigned what = random() % 100;
    if (what < 55) {
      ASSERT_EQ(v6 ? nuv_clfy_ipdsttab_add6("t", a6.data()) : nuv_clfy_ipdsttab_add4("t", a4), 0);
      exists = true;
      if (pos == model.end()) {
        if (model.size() == capacity) capacity += 4;
        model.push_back(entry);
      }
    } else if (what < 97) {
      const int expected = pos == model.end() ? -1 : 0;
      ASSERT_EQ(v6 ? nuv_clfy_ipdsttab_del6("t", a6.data()) : nuv_clfy_ipdsttab_del4("t", a4), expected);
      if (pos != model.end()) model.erase(pos);
    } else {
      ASSERT_EQ(nuv_clfy_ipdsttab_reset("t"), exists ? 0 : -1);
      model.clear();
    }
    ipdsttab *table = nuv_clfy_ipdsttab_find("t");
    ASSERT_EQ(table != nullptr, exists);
    if (!table) continue;
    ASSERT_EQ(used_of(table), model) << "step " << step;
    ASSERT_EQ(table->capacity, capacity);
    ASSERT_TRUE(unused_slots_zero(table));
    const bool in_model = std::find(model.begin(), model.end(), entry) != model.end();
    ASSERT_EQ(v6 ? nuv_clfy_ip6dsttab_is_in(table, a6.data()) : nuv_clfy_ipdsttab_is_in(table, a4), in_model ? 1 : 0);
  }
}

TEST_F(IpDstTab, NullNamesAndAddressesAreRefused) {
  const Addr6 a = ip6("2001:db8::1");
  EXPECT_EQ(nuv_clfy_ipdsttab_find(nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_ipdsttab_find_or_create(nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_ipdsttab_add4(nullptr, ip4("192.0.2.1")), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_add6(nullptr, a.data()), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_add6("t", nullptr), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_del4(nullptr, ip4("192.0.2.1")), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_del6("t", nullptr), -1);
  EXPECT_EQ(nuv_clfy_ipdsttab_reset(nullptr), -1);
  EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(nuv_clfy_ipdsttab_find("t"), nullptr), 0);
}
