// The kernel image of a compiled set, read back slot by slot: the layout the
// kernel program walks, in this host's byte order (these tests run on the
// 32-bit little-endian and the big-endian targets too).
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "clfy_rule_ptr.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

namespace {

// A set of parsed rules (results 1, 2, ...), compiled, and its image.
class Imaged {
 public:
  explicit Imaged(const std::vector<std::string> &texts) {
    nuv_clfy *last = nullptr;
    std::uint16_t result = 0;
    for (const auto &text : texts) {
      testsupport::ClfyRulePtr rule = testsupport::parse_clfy_rule(text.c_str());
      EXPECT_TRUE(rule) << text;
      if (!rule) continue;
      rule->result = ++result;
      last = nuv_clfy_add_tail_after(&set_, last, rule.release());
    }
    build();
  }
  Imaged(const Imaged &) = delete;
  Imaged &operator=(const Imaged &) = delete;
  ~Imaged() {
    nuv_clfy_kernel_image_free(image_);
    nuv_clfy_compiled_free(compiled_);
    nuv_clfy_del_and_free_all(&set_);
  }
  const nuv_clfy_kernel_image &image() const { return *image_; }
  nuv_clfy_set &set() { return set_; }

  template <class T>
  T slot(std::uint32_t index) const {
    T out;
    static_assert(sizeof(T) <= NUV_KCLFY_SLOT_BYTES);
    std::memcpy(&out, image_->slots + std::size_t{index} * NUV_KCLFY_SLOT_BYTES, sizeof out);
    return out;
  }
  nuv_kclfy_header header() const { return slot<nuv_kclfy_header>(0); }
  // Rule r's slot k (0: ranges, 1: tests, 2: link, 3: more).
  template <class T>
  T rule_slot(std::uint32_t r, std::uint32_t k) const {
    return slot<T>(header().rule_base + 4 * r + k);
  }
  // The intervals of the list at `first`, as (low, high) pairs.
  std::vector<std::pair<unsigned, unsigned>> intervals(std::uint32_t first) const {
    auto word = [&](std::uint32_t w) {
      std::uint32_t v;
      std::memcpy(&v, image_->slots + (std::size_t{first} + w / 8) * NUV_KCLFY_SLOT_BYTES + 4 * (w % 8), 4);
      return v;
    };
    std::vector<std::pair<unsigned, unsigned>> out;
    for (std::uint32_t i = 0; i < word(0); ++i) out.emplace_back(word(i + 1) & 0xffff, word(i + 1) >> 16);
    return out;
  }

 private:
  void build() {
    EXPECT_EQ(nuv_clfy_set_compile(&set_, &compiled_), NUV_CLFY_COMPILE_OK);
    EXPECT_EQ(nuv_clfy_compiled_kernel_image(compiled_, nullptr, nullptr, &image_), NUV_CLFY_KERNEL_OK);
  }
  nuv_clfy_set set_{};
  nuv_clfy_compiled *compiled_ = nullptr;
  nuv_clfy_kernel_image *image_ = nullptr;
};

using Intervals = std::vector<std::pair<unsigned, unsigned>>;

TEST(ClfyKernelImage, HeaderNamesSectionsInOrderInsideTheImage) {
  Imaged set({"udp.dport 53", "tcp.dport 80", "ip.saddr 10.0.0.0/8", "any"});
  const nuv_kclfy_header h = set.header();
  EXPECT_EQ(h.magic, NUV_KCLFY_MAGIC);
  EXPECT_EQ(h.slot_count, set.image().slot_count);
  EXPECT_EQ(h.rule_count, 4u);
  EXPECT_EQ(set.image().rule_count, 4u);
  EXPECT_EQ(h.list_count, 1u);
  EXPECT_EQ(h.node_base, 2u) << "slot 1 holds the loader's settings";
  EXPECT_LT(h.node_base, h.entry_base);
  EXPECT_LT(h.entry_base, h.list_base);
  EXPECT_LT(h.list_base, h.rule_base);
  EXPECT_LE(h.rule_base + 4 * h.rule_count, h.slot_count);
  const nuv_kclfy_settings settings = set.slot<nuv_kclfy_settings>(1);
  EXPECT_EQ(settings.hits_base, 0u);
  EXPECT_EQ(settings.mark_mask, 0u);
  for (std::uint32_t r = 0; r < 4; ++r) EXPECT_EQ(set.rule_slot<nuv_kclfy_tests>(r, 1).result, r + 1);
}

TEST(ClfyKernelImage, ValueListsBecomeSortedMergedIntervals) {
  Imaged set({"udp.dport 7,1-5,3-9,10", "udp.dport != 80", "udp.dport != 0", "udp.sport != 65535",
              "udp.dport 100,50,75"});
  auto dports = [&](std::uint32_t r) { return set.intervals(set.rule_slot<nuv_kclfy_more>(r, 3).dport_slot); };
  EXPECT_EQ(dports(0), (Intervals{{1, 10}})) << "adjacent and overlapping entries merge";
  EXPECT_EQ(dports(1), (Intervals{{0, 79}, {81, 65535}}));
  EXPECT_EQ(dports(2), (Intervals{{1, 65535}}));
  EXPECT_EQ(set.intervals(set.rule_slot<nuv_kclfy_more>(3, 3).sport_slot), (Intervals{{0, 65534}}));
  EXPECT_EQ(dports(4), (Intervals{{50, 50}, {75, 75}, {100, 100}}));
}

TEST(ClfyKernelImage, ComparisonsThatHoldForNoValueGiveNoInterval) {
  testsupport::ClfyRulePtr rule(nuv_clfy_alloc());
  ASSERT_TRUE(rule);
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_LT, 0, 0);
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_GT, 0xffff, 0);
  nuv_clfy_add_ip_dport(rule.get(), NUV_CLFY_OP_RANGE, htons(9), htons(3));
  nuv_clfy_add_ip_sport(rule.get(), 99, 0, 0);  // an unknown code holds always
  nuv_clfy_set set{};
  nuv_clfy_add_tail(&set, rule.release());
  nuv_clfy_compiled *compiled = nullptr;
  ASSERT_EQ(nuv_clfy_set_compile(&set, &compiled), NUV_CLFY_COMPILE_OK);
  nuv_clfy_kernel_image *image = nullptr;
  ASSERT_EQ(nuv_clfy_compiled_kernel_image(compiled, nullptr, nullptr, &image), NUV_CLFY_KERNEL_OK);
  const auto *h = reinterpret_cast<const nuv_kclfy_header *>(image->slots);
  nuv_kclfy_more more;
  std::memcpy(&more, image->slots + (h->rule_base + 3) * NUV_KCLFY_SLOT_BYTES, sizeof more);
  std::uint32_t count;
  std::memcpy(&count, image->slots + std::size_t{more.dport_slot} * NUV_KCLFY_SLOT_BYTES, 4);
  EXPECT_EQ(count, 0u);
  std::uint32_t sport[2];
  std::memcpy(sport, image->slots + std::size_t{more.sport_slot} * NUV_KCLFY_SLOT_BYTES, 8);
  EXPECT_EQ(sport[0], 1u);
  EXPECT_EQ(sport[1], 0xffff0000u);
  nuv_clfy_kernel_image_free(image);
  nuv_clfy_compiled_free(compiled);
  nuv_clfy_del_and_free_all(&set);
}

TEST(ClfyKernelImage, LengthTestsBecomeIntervalsOpenAboveWhereTheyMustBe) {
  Imaged set({"ip.len 60", "ip.len != 60", "ip.len < 60", "ip.len <= 60", "ip.len > 65535", "ip.len >= 60",
              "ip.len 60-70", "ip.len < 0"});
  struct Want {
    std::uint8_t test;
    std::uint16_t lo, hi;
  };
  const Want want[] = {{NUV_KCLFY_LEN_WITHIN, 60, 60}, {NUV_KCLFY_LEN_NOT, 60, 0},    {NUV_KCLFY_LEN_WITHIN, 0, 59},
                       {NUV_KCLFY_LEN_WITHIN, 0, 60},  {NUV_KCLFY_LEN_ABOVE, 65535, 0}, {NUV_KCLFY_LEN_FROM, 60, 0},
                       {NUV_KCLFY_LEN_WITHIN, 60, 70}, {NUV_KCLFY_LEN_NONE, 0, 65535}};
  for (std::uint32_t r = 0; r < set.image().rule_count; ++r) {
    const nuv_kclfy_tests t = set.rule_slot<nuv_kclfy_tests>(r, 1);
    EXPECT_EQ(t.ip_len_test, want[r].test) << "rule " << r;
    EXPECT_EQ(t.ip_len_lo, want[r].lo) << "rule " << r;
    if (want[r].test == NUV_KCLFY_LEN_WITHIN) {
      EXPECT_EQ(t.ip_len_hi, want[r].hi) << "rule " << r;
    }
  }
}

TEST(ClfyKernelImage, IPv6PrefixesCarryTheirMask) {
  Imaged set({"ip.saddr 2001:db8::1/0", "ip.saddr 2001:db8::1/1", "ip.saddr 2001:db8::1/63",
              "ip.saddr 2001:db8::1/127", "ip.saddr 2001:db8::1/128"});
  const unsigned lengths[] = {0, 1, 63, 127, 128};
  for (std::uint32_t r = 0; r < 5; ++r) {
    const std::uint32_t at = set.rule_slot<nuv_kclfy_more>(r, 3).saddr6_slot;
    ASSERT_NE(at, 0u);
    const std::uint8_t *slot = set.image().slots + std::size_t{at} * NUV_KCLFY_SLOT_BYTES;
    EXPECT_EQ(slot[0], 0x20);
    EXPECT_EQ(slot[15], 0x01);
    for (unsigned i = 0; i < 16; ++i) {
      const unsigned here = lengths[r] > 8 * i ? std::min(8u, lengths[r] - 8 * i) : 0;
      const auto mask = static_cast<std::uint8_t>(here ? 0xff << (8 - here) : 0);
      EXPECT_EQ(slot[16 + i], mask) << "/" << lengths[r] << " byte " << i;
    }
  }
}

TEST(ClfyKernelImage, AddressesAndMasksAreInHostOrder) {
  Imaged set({"ip.saddr 10.1.0.7 255.255.0.255 ip.daddr 192.168.1.0/24"});
  const nuv_kclfy_link link = set.rule_slot<nuv_kclfy_link>(0, 2);
  const nuv_kclfy_more more = set.rule_slot<nuv_kclfy_more>(0, 3);
  EXPECT_EQ(link.saddr4, 0x0a010007u);
  EXPECT_EQ(link.smask4, 0xffff00ffu);
  EXPECT_EQ(more.daddr4, 0xc0a80100u);
  EXPECT_EQ(more.dmask4, 0xffffff00u);
  const nuv_kclfy_ranges ranges = set.rule_slot<nuv_kclfy_ranges>(0, 0);
  EXPECT_EQ(ranges.destination_lo, 0xc0a80100u);
  EXPECT_EQ(ranges.destination_hi, 0xc0a801ffu);
  EXPECT_EQ(ranges.covers, 0) << "a mask that is not a prefix is left to the tests";
}

TEST(ClfyKernelImage, RulesOnlyUserspaceDecidesAreAskedAbout) {
  Imaged set({"tcp.dport 80", "dhcpoption 60 android-* image.phones", "packetmatch GET*", "localmark 1",
              "brdev br0 tcp.dport 22"});
  const std::uint8_t kinds[] = {NUV_KCLFY_KIND_DECIDE, NUV_KCLFY_KIND_ASK, NUV_KCLFY_KIND_ASK, NUV_KCLFY_KIND_ASK,
                                NUV_KCLFY_KIND_ASK};
  for (std::uint32_t r = 0; r < 5; ++r) EXPECT_EQ(set.rule_slot<nuv_kclfy_tests>(r, 1).kind, kinds[r]) << r;
  EXPECT_EQ(set.image().ask_rules, 4u);
}

TEST(ClfyKernelImage, PresenceBitsThatNameNoConditionMatchNothing) {
  Imaged set({"any", "tcp.dport 80"});
  // A bit no condition has, as a caller may set by hand.
  set.set().head->flags = 0x2;
  nuv_clfy_compiled *compiled = nullptr;
  ASSERT_EQ(nuv_clfy_set_compile(&set.set(), &compiled), NUV_CLFY_COMPILE_OK);
  nuv_clfy_kernel_image *image = nullptr;
  ASSERT_EQ(nuv_clfy_compiled_kernel_image(compiled, nullptr, nullptr, &image), NUV_CLFY_KERNEL_OK);
  const auto *h = reinterpret_cast<const nuv_kclfy_header *>(image->slots);
  nuv_kclfy_tests t;
  std::memcpy(&t, image->slots + std::size_t{h->rule_base + 1} * NUV_KCLFY_SLOT_BYTES, sizeof t);
  EXPECT_EQ(t.kind, NUV_KCLFY_KIND_NEVER);
  EXPECT_EQ(t.counts, 1);
  nuv_clfy_kernel_image_free(image);
  nuv_clfy_compiled_free(compiled);
}

struct TableIds {
  std::vector<std::pair<std::uint32_t, const void *>> asked;
  static std::uint32_t pick(void *context, std::uint32_t kind, const void *table) {
    auto *self = static_cast<TableIds *>(context);
    self->asked.emplace_back(kind, table);
    return 100 + static_cast<std::uint32_t>(self->asked.size());
  }
};

TEST(ClfyKernelImage, TablesGetTheCallersIdsOncePerTable) {
  Imaged set({"ipdsttab image.a", "ethsrctab image.b", "ipdsttab image.a tcp.dport 80", "udp.dport 53"});
  nuv_clfy_compiled *compiled = nullptr;
  ASSERT_EQ(nuv_clfy_set_compile(&set.set(), &compiled), NUV_CLFY_COMPILE_OK);
  TableIds ids;
  nuv_clfy_kernel_image *image = nullptr;
  ASSERT_EQ(nuv_clfy_compiled_kernel_image(compiled, TableIds::pick, &ids, &image), NUV_CLFY_KERNEL_OK);
  ASSERT_EQ(ids.asked.size(), 2u);
  EXPECT_EQ(ids.asked[0].first, NUV_KCLFY_TABLE_IPDST);
  EXPECT_EQ(ids.asked[0].second, nuv_clfy_ipdsttab_find("image.a"));
  EXPECT_EQ(ids.asked[1].first, NUV_KCLFY_TABLE_ETHERSRC);
  ASSERT_EQ(image->table_count, 2u);
  EXPECT_EQ(image->tables[0].id, 101u);
  EXPECT_EQ(image->tables[1].id, 102u);
  const auto *h = reinterpret_cast<const nuv_kclfy_header *>(image->slots);
  auto link = [&](std::uint32_t r) {
    nuv_kclfy_link l;
    std::memcpy(&l, image->slots + std::size_t{h->rule_base + 4 * r + 2} * NUV_KCLFY_SLOT_BYTES, sizeof l);
    return l;
  };
  EXPECT_EQ(link(0).ipdsttab, 101u);
  EXPECT_EQ(link(1).ethsrctab, 102u);
  EXPECT_EQ(link(2).ipdsttab, 101u);
  EXPECT_EQ(link(3).ipdsttab, 0u);
  nuv_clfy_kernel_image_free(image);
  nuv_clfy_compiled_free(compiled);
  EXPECT_EQ(set.image().tables[0].id, 1u) << "without a callback, ids count from 1";
}

// A set of lists nested `depth` deep (the top-level list is the first).
nuv_clfy_set nested(int depth) {
  nuv_clfy_set set{};
  nuv_clfy *parent = nullptr;
  for (int level = 0; level < depth; ++level) {
    testsupport::ClfyRulePtr rule = testsupport::parse_clfy_rule("udp.dport 1-100");
    nuv_clfy *raw = rule.release();
    if (parent)
      parent->children = raw;
    else
      nuv_clfy_add_tail(&set, raw);
    parent = raw;
  }
  return set;
}

void free_nested(nuv_clfy_set &set) {
  nuv_clfy *rule = set.head;
  while (rule) {
    nuv_clfy *child = rule->children;
    rule->children = nullptr;
    nuv_clfy_free(rule);
    rule = child;
  }
  set.head = nullptr;
}

TEST(ClfyKernelImage, ListsNestedDeeperThanTheKernelFollowsHaveNoImage) {
  for (int depth : {static_cast<int>(NUV_KCLFY_MAX_NESTING), static_cast<int>(NUV_KCLFY_MAX_NESTING) + 1}) {
    nuv_clfy_set set = nested(depth);
    nuv_clfy_compiled *compiled = nullptr;
    ASSERT_EQ(nuv_clfy_set_compile(&set, &compiled), NUV_CLFY_COMPILE_OK);
    nuv_clfy_kernel_image *image = nullptr;
    const int rc = nuv_clfy_compiled_kernel_image(compiled, nullptr, nullptr, &image);
    if (depth <= static_cast<int>(NUV_KCLFY_MAX_NESTING)) {
      EXPECT_EQ(rc, NUV_CLFY_KERNEL_OK) << depth;
      EXPECT_NE(image, nullptr);
    } else {
      EXPECT_EQ(rc, NUV_CLFY_KERNEL_E_TOO_BIG) << depth;
      EXPECT_EQ(image, nullptr);
    }
    nuv_clfy_kernel_image_free(image);
    nuv_clfy_compiled_free(compiled);
    free_nested(set);
  }
}

TEST(ClfyKernelImage, NullArgumentsAreRefused) {
  nuv_clfy_kernel_image *image = nullptr;
  EXPECT_EQ(nuv_clfy_compiled_kernel_image(nullptr, nullptr, nullptr, &image), NUV_CLFY_KERNEL_E_INVALID);
  Imaged set({"udp.dport 53"});
  nuv_clfy_compiled *compiled = nullptr;
  ASSERT_EQ(nuv_clfy_set_compile(&set.set(), &compiled), NUV_CLFY_COMPILE_OK);
  EXPECT_EQ(nuv_clfy_compiled_kernel_image(compiled, nullptr, nullptr, nullptr), NUV_CLFY_KERNEL_E_INVALID);
  nuv_clfy_compiled_free(compiled);
  nuv_clfy_kernel_image_free(nullptr);
}

TEST(ClfyKernelImage, EachRefusedAllocationGivesNoMemoryAndLeavesNothing) {
  Imaged set({"udp.dport 53,80", "ip.saddr 2001:db8::/32", "ipdsttab image.c", "vlan.id 5,7", "tcp.dport != 22"});
  nuv_clfy_compiled *compiled = nullptr;
  ASSERT_EQ(nuv_clfy_set_compile(&set.set(), &compiled), NUV_CLFY_COMPILE_OK);
  int failures = 0;
  for (long n = 1;; ++n) {
    testsupport::NoLeakGuard guard;
    nuv_clfy_kernel_image *image = nullptr;
    nuvcsock_fail_nth_allocation(n);
    const int rc = nuv_clfy_compiled_kernel_image(compiled, nullptr, nullptr, &image);
    nuvcsock_fail_nth_allocation(0);
    if (rc == NUV_CLFY_KERNEL_OK) {
      ASSERT_NE(image, nullptr);
      nuv_clfy_kernel_image_free(image);
      break;
    }
    ASSERT_EQ(rc, NUV_CLFY_KERNEL_E_NO_MEMORY) << "allocation " << n;
    ASSERT_EQ(image, nullptr);
    ++failures;
  }
  EXPECT_GE(failures, 4);
  nuv_clfy_compiled_free(compiled);
}

}  // namespace
