// The portable platform layer: allocators with accounting and fault
// injection, wildcard matching, DNS readers, traffic classes, schema lookup.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "nuvcsock.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using testsupport::NoLeakGuard;

namespace {

struct TagCollector {
  std::vector<std::string> tags;
  static void visit(const char *file, int line, size_t, void *ctx) {
    static_cast<TagCollector *>(ctx)->tags.push_back(std::string(file) + ":" + std::to_string(line));
  }
};

}  // namespace

TEST(Slab, AllocationIsZeroedAndCountedUntilFreed) {
  long before = nuvcsock_slab_live_blocks();
  auto *p = static_cast<unsigned char *>(slab_dmalloc(40, "here", 7));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(p[i], 0);
  EXPECT_EQ(nuvcsock_slab_live_blocks(), before + 1);
  slab_cbcontext_free(p, "here", 9);
  EXPECT_EQ(nuvcsock_slab_live_blocks(), before);
}

TEST(Slab, LiveBlocksKeepTheirFileAndLineTags) {
  NoLeakGuard guard;
  void *a = slab_dmalloc(8, "sharedlibs/datapipe/nuvclfy", 120);
  char *b = slab_dstrdup("eth0", "sharedlibs/datapipe/nuvclfy", 121);
  TagCollector c;
  nuvcsock_slab_foreach_live(&TagCollector::visit, &c);
  ASSERT_GE(c.tags.size(), 2u);
  EXPECT_EQ(c.tags[c.tags.size() - 2], "sharedlibs/datapipe/nuvclfy:120");
  EXPECT_EQ(c.tags.back(), "sharedlibs/datapipe/nuvclfy:121");
  EXPECT_STREQ(b, "eth0");
  slab_cbcontext_free(a, "x", 1);
  slab_cbcontext_free(b, "x", 2);
}

TEST(Slab, FreeingNullIsHarmless) {
  NoLeakGuard guard;
  slab_cbcontext_free(nullptr, "x", 1);
  EXPECT_EQ(slab_dstrdup(nullptr, "x", 1), nullptr);
}

TEST(FaultInjection, OnlyTheNthAllocationFails) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(2);
  void *first = slab_dmalloc(4, "t", 1);
  void *second = cmemstack_alloc(4);
  void *third = slab_dmalloc(4, "t", 3);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_NE(third, nullptr);
  slab_cbcontext_free(first, "t", 1);
  slab_cbcontext_free(third, "t", 3);
}

TEST(FaultInjection, FailFromMakesEveryLaterAllocationFail) {
  NoLeakGuard guard;
  nuvcsock_fail_from_allocation(1);
  EXPECT_EQ(slab_dmalloc(4, "t", 1), nullptr);
  EXPECT_EQ(slab_dstrdup("x", "t", 1), nullptr);
  EXPECT_EQ(cmemstack_alloc(16), nullptr);
  memblock m{};
  EXPECT_EQ(nuvcsock_memblock_append(&m, "ab", 2), -1);
  EXPECT_EQ(m.data, nullptr);
  nuvcsock_fail_nth_allocation(0);
  void *p = cmemstack_alloc(16);
  EXPECT_NE(p, nullptr);
  cmemstack_free(p);
}

TEST(FaultInjection, AllocationsAreCounted) {
  long before = nuvcsock_allocations();
  void *p = cmemstack_alloc(1);
  cmemstack_free(p);
  EXPECT_EQ(nuvcsock_allocations(), before + 1);
}

TEST(Cmemstack, BlocksAreCountedUntilFreed) {
  long before = nuvcsock_cmemstack_live_blocks();
  void *p = cmemstack_alloc(1024);
  ASSERT_NE(p, nullptr);
  std::memset(p, 0xAB, 1024);
  EXPECT_EQ(nuvcsock_cmemstack_live_blocks(), before + 1);
  cmemstack_free(p);
  cmemstack_free(nullptr);
  EXPECT_EQ(nuvcsock_cmemstack_live_blocks(), before);
}

TEST(Memblock, AppendGrowsAndFreeEmpties) {
  NoLeakGuard guard;
  memblock m{};
  ASSERT_EQ(nuvcsock_memblock_append(&m, "abc", 3), 0);
  std::string big(100, 'x');
  ASSERT_EQ(nuvcsock_memblock_append(&m, big.data(), big.size()), 0);
  EXPECT_EQ(m.len, 103u);
  EXPECT_EQ(std::memcmp(m.data, "abcxx", 5), 0);
  memblock_free(&m);
  EXPECT_EQ(m.data, nullptr);
  EXPECT_EQ(m.len, 0u);
  memblock_free(nullptr);
}

TEST(Wildcards, ShmatchIsCaseSensitive) {
  EXPECT_TRUE(shmatch("MSFT 5.0", "MSFT*"));
  EXPECT_FALSE(shmatch("msft 5.0", "MSFT*"));
  EXPECT_TRUE(shmatch("192.168.1.7", "192.168.1.?"));
  EXPECT_FALSE(shmatch("192.168.1.17", "192.168.1.?"));
  EXPECT_TRUE(shmatch("a", "[abc]"));
  EXPECT_FALSE(shmatch(nullptr, "*"));
  EXPECT_FALSE(shmatch("x", nullptr));
}

TEST(Wildcards, ShcasematchIgnoresCase) {
  EXPECT_TRUE(shcasematch("00:1a:2B:3c:4D:5e", "00:1A:2B:*"));
  EXPECT_FALSE(shcasematch("00:1b:2B", "00:1A:*"));
}

TEST(Wildcards, ShcasenmatchLooksOnlyAtTheFirstLengthCharacters) {
  const char payload[] = {'G', 'E', 'T', ' ', '/', 'x', '\0', 'Z'};
  EXPECT_TRUE(shcasenmatch(payload, 3, "get"));
  EXPECT_FALSE(shcasenmatch(payload, 4, "get"));
  EXPECT_TRUE(shcasenmatch(payload, 8, "get /x"));  // the NUL ends the text
  std::string long_text(3000, 'a');
  EXPECT_TRUE(shcasenmatch(long_text.data(), long_text.size(), "A*A"));
}

TEST(Wildcards, ShcasenmatchReadsNothingAfterTheTextEnds) {
  std::vector<char> text = {'a', 'b', '\0'};  // exact size: reading on would be caught
  EXPECT_TRUE(shcasenmatch(text.data(), 100, "AB"));
}

TEST(DnsReaders, GetUintReadsBigEndianAndAdvances) {
  const unsigned char b[] = {0x12, 0x34, 0x56, 0x78};
  uint16_t v16 = 0;
  uint32_t v32 = 0;
  EXPECT_EQ(dnsutil_getuint16(&v16, b), b + 2);
  EXPECT_EQ(v16, 0x1234);
  EXPECT_EQ(dnsutil_getuint32(&v32, b), b + 4);
  EXPECT_EQ(v32, 0x12345678u);
  EXPECT_EQ(dnsutil_getuint16(&v16, nullptr), nullptr);
  EXPECT_EQ(dnsutil_getuint32(nullptr, b), nullptr);
}

TEST(DnsReaders, SkipNameEndsAfterTheRootLabel) {
  const unsigned char m[] = {3, 'w', 'w', 'w', 7, 'e', 'x', 'a', 'm', 'p', 'l', 'e', 3, 'c', 'o', 'm', 0, 0xAA};
  EXPECT_EQ(dnsutil_skipdnsname(m, m, m + sizeof m), m + 17);
}

TEST(DnsReaders, SkipNameStopsAfterTheFirstPointer) {
  // name at 0: "a.b", then at 5 "c" + pointer to 0
  const unsigned char m[] = {1, 'a', 1, 'b', 0, 1, 'c', 0xC0, 0x00, 0xEE};
  EXPECT_EQ(dnsutil_skipdnsname(m, m + 5, m + sizeof m), m + 9);
}

TEST(DnsReaders, SkipNameRejectsAPointerLoop) {
  const unsigned char self[] = {0xC0, 0x00};
  EXPECT_EQ(dnsutil_skipdnsname(self, self, self + 2), nullptr);
  const unsigned char pair[] = {1, 'a', 0xC0, 0x04, 1, 'b', 0xC0, 0x00};
  EXPECT_EQ(dnsutil_skipdnsname(pair, pair + 4, pair + sizeof pair), nullptr);
}

TEST(DnsReaders, SkipNameNeverReadsAtOrBeyondEnd) {
  const unsigned char m[] = {3, 'w', 'w', 'w', 0};
  for (size_t len = 0; len < sizeof m; ++len) {
    testsupport::Bytes copy(m, m + len);  // exact-size copy so ASan sees overreads
    EXPECT_EQ(dnsutil_skipdnsname(copy.data(), copy.data(), copy.data() + len), nullptr) << len;
  }
  const unsigned char ptr[] = {0xC0};
  EXPECT_EQ(dnsutil_skipdnsname(ptr, ptr, ptr + 1), nullptr);
}

TEST(DnsReaders, SkipNameRejectsReservedLabelTypesAndOverlongNames) {
  const unsigned char reserved[] = {0x40, 'a', 0};
  EXPECT_EQ(dnsutil_skipdnsname(reserved, reserved, reserved + 3), nullptr);
  std::vector<unsigned char> longname;
  for (int i = 0; i < 5; ++i) {
    longname.push_back(63);
    longname.insert(longname.end(), 63, 'x');
  }
  longname.push_back(0);
  EXPECT_EQ(dnsutil_skipdnsname(longname.data(), longname.data(), longname.data() + longname.size()), nullptr);
}

TEST(TrafficClasses, NamesAndNumbersMapToValues) {
  EXPECT_EQ(tcclass_name2value("voice"), 5);
  EXPECT_EQ(tcclass_name2value("VIDEO"), 4);
  EXPECT_EQ(tcclass_name2value("42"), 42);
  EXPECT_EQ(tcclass_name2value("128"), -1);
  EXPECT_EQ(tcclass_name2value("nosuchclass"), -1);
}

TEST(TrafficClasses, SetPrintsNamesAndNumbersInValueOrder) {
  unsigned char map[128] = {};
  map[5] = 1;
  map[0] = 1;
  map[42] = 1;
  char buf[128];
  EXPECT_STREQ(tcclassset_value2str(map, buf, sizeof buf), "default,voice,42");
  unsigned char none[128] = {};
  EXPECT_STREQ(tcclassset_value2str(none, buf, sizeof buf), "");
  char tiny[6];
  EXPECT_STREQ(tcclassset_value2str(map, tiny, sizeof tiny), "defau");
}

namespace {
struct Rec {
  void *next;
  int32_t optionnr;
  int32_t value;
};
const config_member kMembers[] = {
    {"next", 1, nullptr, offsetof(Rec, next), sizeof(void *), CONFIG_MEMBER_HEADER, 0, nullptr},
    {"optionnr", 2, nullptr, offsetof(Rec, optionnr), 4, CONFIG_MEMBER_HEADER, 0, nullptr},
    {"mtu", 14, nullptr, offsetof(Rec, value), 2, 0, 26, nullptr},
    {"ttl", 13, nullptr, offsetof(Rec, value), 1, 0, 23, nullptr},
    {nullptr, 0, nullptr, 0, 0, 0, 0, nullptr},
};
const config_type kType = {"rec", 0, kMembers, &kMembers[1], sizeof(Rec), 10};
}  // namespace

TEST(ConfigSchema, MemberByMagicFindsTheSelectedMember) {
  Rec r{nullptr, 23, 0};
  const config_member *m = config_memberbymagic(&kType, &r);
  ASSERT_NE(m, nullptr);
  EXPECT_STREQ(m->name, "ttl");
  r.optionnr = 62;
  EXPECT_EQ(config_memberbymagic(&kType, &r), nullptr);
  r.optionnr = 0;  // the header members never answer
  EXPECT_EQ(config_memberbymagic(&kType, &r), nullptr);
  EXPECT_EQ(config_memberbymagic(nullptr, &r), nullptr);
}
