// IPv6 forward rule blocks, IPv6 port ranges and PCP handling values.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "nuvcsock_test.h"
#include "nuvrules.h"
#include "testsupport.h"

using testsupport::NoLeakGuard;

namespace {

constexpr bool kIs32BitTarget = sizeof(void *) == 4;
constexpr std::size_t kEntrySize = sizeof(ip6_portrange);

class ExactText {
 public:
  explicit ExactText(const std::string &text) : size_(text.size() + 1), data_(new char[size_]) {
    std::memcpy(data_.get(), text.c_str(), size_);
  }
  const char *c_str() const { return data_.get(); }
  std::size_t size() const { return size_; }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> data_;
};

// Caller memory for a block of `entries` entries, aligned for the records,
// of exactly the size the block is given.
class BlockBuffer {
 public:
  explicit BlockBuffer(std::size_t bytes) : bytes_(bytes), words_(new std::uint64_t[(bytes + 7) / 8]) {
    std::memset(words_.get(), 0xA5, bytes_);
  }
  static BlockBuffer for_entries(std::size_t entries) { return BlockBuffer(48 + entries * kEntrySize); }
  void *data() { return words_.get(); }
  std::size_t size() const { return bytes_; }

 private:
  std::size_t bytes_;
  std::unique_ptr<std::uint64_t[]> words_;
};

struct Block {
  explicit Block(std::size_t entries = 64) : buffer(BlockBuffer::for_entries(entries)) {
    rule = ip6_forwardrule_init(buffer.data(), buffer.size());
  }
  int add(const std::string &line) {
    ExactText exact(line);
    return ip6_forwardrule_parse(rule, exact.c_str());
  }
  BlockBuffer buffer;
  ip6_forwardrule *rule;
};

struct Entry {
  int proto, lo, hi;
  bool operator==(const Entry &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Entry &e) {
  return os << "{" << e.proto << " " << e.lo << "-" << e.hi << "}";
}

std::vector<Entry> entries_of(const ip6_forwardrule *rule) {
  std::vector<Entry> out;
  for (std::size_t i = 0; i < rule->count; ++i)
    out.push_back({rule->entries[i].proto, rule->entries[i].port_lo, rule->entries[i].port_hi});
  return out;
}

bool bit_set(const ip6_forwardrule *rule, unsigned proto) { return (rule->proto_bits[proto / 32] >> (proto % 32)) & 1u; }

int parse_range(const ExactText &text, ip6_portrange *range) { return ip6_portrange_parse(text.c_str(), range); }

ip6_portrange dirty_range() {
  ip6_portrange r;
  std::memset(&r, 0xA5, sizeof r);
  return r;
}

}  // namespace

// ---- Block set-up ----

TEST(Ip6ForwardRuleInit, BelowTheHeaderSizeGivesNull) {
  BlockBuffer buffer(47);
  EXPECT_EQ(ip6_forwardrule_init(buffer.data(), 47), nullptr);
  EXPECT_EQ(ip6_forwardrule_init(nullptr, 4096), nullptr);
}

TEST(Ip6ForwardRuleInit, CapacityIsWhatFitsAfterTheHeader) {
  BlockBuffer buffer(108);
  ip6_forwardrule *rule = ip6_forwardrule_init(buffer.data(), 108);
  ASSERT_EQ(rule, buffer.data());
  EXPECT_EQ(rule->capacity, (108 - 48) / kEntrySize);
  if (kIs32BitTarget) {
    EXPECT_EQ(rule->capacity, 3);
  }
  EXPECT_EQ(rule->size, 108u);
  EXPECT_EQ(rule->count, 0);
}

TEST(Ip6ForwardRuleInit, HeaderOnlyBlockHoldsNoEntry) {
  BlockBuffer buffer(48);
  ip6_forwardrule *rule = ip6_forwardrule_init(buffer.data(), 48);
  ASSERT_NE(rule, nullptr);
  EXPECT_EQ(rule->capacity, 0);
  ExactText line("tcp 80");
  EXPECT_EQ(ip6_forwardrule_parse(rule, line.c_str()), IP6_FORWARDRULE_E_FULL);
}

TEST(Ip6ForwardRuleInit, ClearsTheWholeBuffer) {
  BlockBuffer buffer(48 + 2 * kEntrySize + 5);
  ip6_forwardrule *rule = ip6_forwardrule_init(buffer.data(), buffer.size());
  ASSERT_NE(rule, nullptr);
  const unsigned char *bytes = static_cast<const unsigned char *>(buffer.data());
  for (std::size_t i = 4; i < buffer.size(); ++i) {
    if (i == 46 || i == 47) continue;  // capacity
    EXPECT_EQ(bytes[i], 0) << "byte " << i;
  }
  EXPECT_EQ(rule->capacity, 2);
  EXPECT_EQ(rule->all_protocols, 0u);
  EXPECT_EQ(rule->ping, 0u);
}

TEST(Ip6ForwardRuleInit, CapacityIsCappedAtTheLargestCount) {
  std::size_t bytes = 48 + 70000 * kEntrySize;
  BlockBuffer buffer(bytes);
  ip6_forwardrule *rule = ip6_forwardrule_init(buffer.data(), bytes);
  ASSERT_NE(rule, nullptr);
  EXPECT_EQ(rule->capacity, 65535);
}

// ---- Adding lines ----

TEST(Ip6ForwardRuleParse, LinesAreSortedByProtocolAndPortsOnFinish) {
  Block b;
  EXPECT_EQ(b.add("tcp 443,80"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("udp 53"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("tcp 1000-2000"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("gre"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 443, 443}, {6, 80, 80}, {17, 53, 53}, {6, 1000, 2000}}));
  EXPECT_EQ(ip6_forwardrule_finish(b.rule), 48 + 4 * kEntrySize);
  EXPECT_EQ(b.rule->size, 48 + 4 * kEntrySize);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 80, 80}, {6, 443, 443}, {6, 1000, 2000}, {17, 53, 53}}));
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "TCP 80,443,1000-2000 UDP 53 GRE");
}

TEST(Ip6ForwardRuleParse, SortingUsesTheHighestPortLast) {
  Block b;
  EXPECT_EQ(b.add("tcp 80-90,80,1"), IP6_FORWARDRULE_E_OK);
  ip6_forwardrule_finish(b.rule);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 1, 1}, {6, 80, 80}, {6, 80, 90}}));
}

TEST(Ip6ForwardRuleParse, PortProtocolWithoutPortsTakesAllPorts) {
  Block b;
  EXPECT_EQ(b.add("tcp"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("udp "), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 0, 65535}, {17, 0, 65535}}));
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "TCP 0-65535 UDP 0-65535");
}

TEST(Ip6ForwardRuleParse, ReversedRangeIsStoredInOrder) {
  Block b;
  EXPECT_EQ(b.add("tcp 90-80"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 80, 90}}));
}

TEST(Ip6ForwardRuleParse, BadSeparatorKeepsTheEntriesBeforeIt) {
  Block b;
  EXPECT_EQ(b.add("tcp 80;443"), -2);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 80, 80}}));
  EXPECT_EQ(b.add("udp 53 54"), IP6_FORWARDRULE_E_BAD_SEPARATOR);
  EXPECT_EQ(b.add("udp 60-70x"), IP6_FORWARDRULE_E_BAD_SEPARATOR);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 80, 80}, {17, 53, 53}, {17, 60, 70}}));
}

TEST(Ip6ForwardRuleParse, UnknownProtocol) {
  Block b;
  EXPECT_EQ(b.add("foo 1"), IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL);
  EXPECT_EQ(b.add("6 80"), IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL);
  EXPECT_EQ(b.add("tcp\t80"), IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL) << "only blanks end the protocol word";
  EXPECT_EQ(b.rule->count, 0);
}

TEST(Ip6ForwardRuleParse, FullBlockRefusesTheNextEntry) {
  BlockBuffer buffer(48 + 3 * kEntrySize);
  ip6_forwardrule *rule = ip6_forwardrule_init(buffer.data(), buffer.size());
  ASSERT_EQ(rule->capacity, 3);
  ExactText first("tcp 1,2,3,4");
  EXPECT_EQ(ip6_forwardrule_parse(rule, first.c_str()), IP6_FORWARDRULE_E_FULL);
  EXPECT_EQ(entries_of(rule), (std::vector<Entry>{{6, 1, 1}, {6, 2, 2}, {6, 3, 3}}));
  ExactText more("udp");
  EXPECT_EQ(ip6_forwardrule_parse(rule, more.c_str()), IP6_FORWARDRULE_E_FULL);
  ExactText portless("gre");
  EXPECT_EQ(ip6_forwardrule_parse(rule, portless.c_str()), IP6_FORWARDRULE_E_OK) << "protocols without ports need no entry";
  EXPECT_EQ(rule->count, 3);
}

TEST(Ip6ForwardRuleParse, PortsAreCutTo16Bits) {
  Block b;
  EXPECT_EQ(b.add("tcp 70000"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("tcp 65535"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 4464, 4464}, {6, 65535, 65535}}));
}

TEST(Ip6ForwardRuleParse, PortThatCutsToZeroIsBad) {
  Block b;
  EXPECT_EQ(b.add("tcp 65536"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.add("tcp 0"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.add("tcp 131072"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.add("tcp 80-0"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.rule->count, 0);
}

TEST(Ip6ForwardRuleParse, NumbersReadLikeA32BitUnsignedLong) {
  Block b;
  EXPECT_EQ(b.add("tcp -1"), IP6_FORWARDRULE_E_OK);          // 0xffffffff
  EXPECT_EQ(b.add("tcp 4294967296"), IP6_FORWARDRULE_E_OK);  // beyond 32 bits: 0xffffffff
  EXPECT_EQ(b.add("tcp 99999999999999999999999"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("tcp -65535"), IP6_FORWARDRULE_E_OK);  // 0xffff0001
  EXPECT_EQ(b.add("tcp +22"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(entries_of(b.rule),
            (std::vector<Entry>{{6, 65535, 65535}, {6, 65535, 65535}, {6, 65535, 65535}, {6, 1, 1}, {6, 22, 22}}));
}

TEST(Ip6ForwardRuleParse, MissingNumbersAreBad) {
  Block b;
  EXPECT_EQ(b.add("tcp 80,"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.add("tcp ,80"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.add("tcp 80-"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.add("tcp http"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 80, 80}}));
}

TEST(Ip6ForwardRuleParse, BlanksAroundDashAndBeforeCommaAreAllowed) {
  Block b;
  EXPECT_EQ(b.add("tcp 80 - 90 ,100 ,  200-300 "), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 80, 90}, {6, 100, 100}, {6, 200, 300}}));
}

TEST(Ip6ForwardRuleParse, LeadingBlanksAreSkipped) {
  Block b;
  EXPECT_EQ(b.add("    udp 123"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{17, 123, 123}}));
}

TEST(Ip6ForwardRuleParse, CommentLinesAreIgnored) {
  Block b;
  EXPECT_EQ(b.add("# tcp 80"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("   #tcp 80"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("#"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.rule->count, 0);
  for (std::uint32_t word : b.rule->proto_bits) EXPECT_EQ(word, 0u);
}

TEST(Ip6ForwardRuleParse, ProtocolsWithoutPortsOnlySetTheirBit) {
  Block b;
  EXPECT_EQ(b.add("icmpv6 128,129 whatever"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("GRE"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.add("P200"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.rule->count, 0);
  EXPECT_EQ(b.rule->proto_bits[1], 1u << (58 - 32) | 1u << (47 - 32));
  EXPECT_EQ(b.rule->proto_bits[6], 1u << (200 - 192));
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), " GRE ICMPv6 P200");
}

TEST(Ip6ForwardRuleParse, AnyProtocolSetsItsBitButIsNeverPrinted) {
  Block b;
  EXPECT_EQ(b.add("ip"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(b.rule->proto_bits[7], 0x80000000u);
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "");
}

TEST(Ip6ForwardRuleParse, EveryPortProtocolTakesPorts) {
  Block b;
  for (const char *line : {"dccp 1", "sctp 2", "udplite 3", "tcp 4", "udp 5"}) EXPECT_EQ(b.add(line), IP6_FORWARDRULE_E_OK) << line;
  ip6_forwardrule_finish(b.rule);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 4, 4}, {17, 5, 5}, {33, 1, 1}, {132, 2, 2}, {136, 3, 3}}));
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "TCP 4 UDP 5 DCCP 1 SCTP 2 UDPLite 3");
}

TEST(Ip6ForwardRuleParse, EntriesCarryOnlyProtocolAndPorts) {
  Block b;
  EXPECT_EQ(b.add("udp 5000-5010 internet mark 3 # game"), IP6_FORWARDRULE_E_BAD_SEPARATOR);
  ASSERT_EQ(b.rule->count, 1);
  const ip6_portrange &e = b.rule->entries[0];
  EXPECT_EQ(e.enabled, 0);
  EXPECT_EQ(e.comment, nullptr);
  EXPECT_EQ(e.scope, 0);
  EXPECT_EQ(e.mark, 0u);
}

TEST(Ip6ForwardRuleParse, LongLinesAreCutAfter1023Characters) {
  // 4 + 203 x 5 = 1019 characters, then "2000" ends at 1023; ",3000" is cut.
  std::string line = "tcp ";
  for (int i = 0; i < 203; ++i) line += "1000,";
  line += "2000,3000";
  ASSERT_EQ(line.size(), 1028u);
  Block b(300);
  EXPECT_EQ(b.add(line), IP6_FORWARDRULE_E_OK);
  ASSERT_EQ(b.rule->count, 204);
  EXPECT_EQ(b.rule->entries[203].port_lo, 2000);

  Block blanks(300);
  EXPECT_EQ(blanks.add("      " + line), IP6_FORWARDRULE_E_OK) << "the count starts after the leading blanks";
  EXPECT_EQ(blanks.rule->count, 204);
}

TEST(Ip6ForwardRuleParse, CutThatEndsOnASeparatorLeavesAMissingNumber) {
  // 8 + 203 x 5 = 1023 characters end with ",", so "2000" is cut.
  std::string line = "tcp 100,";
  for (int i = 0; i < 203; ++i) line += "1000,";
  line += "2000";
  ASSERT_EQ(line.size(), 1027u);
  Block b(300);
  EXPECT_EQ(b.add(line), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(b.rule->count, 204);
}

// ---- Scratch memory ----

TEST(Ip6ForwardRuleScratch, ParsingTakesOneScratchBlockAndReturnsIt) {
  NoLeakGuard guard;
  Block b;
  long before = nuvcsock_allocations();
  EXPECT_EQ(b.add("tcp 80"), IP6_FORWARDRULE_E_OK);
  EXPECT_EQ(nuvcsock_allocations(), before + 1);
}

TEST(Ip6ForwardRuleScratch, WithoutScratchMemoryTheLineFailsAndTheBlockStays) {
  NoLeakGuard guard;
  Block b;
  ASSERT_EQ(b.add("tcp 80"), IP6_FORWARDRULE_E_OK);
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(b.add("udp 53"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{6, 80, 80}}));
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(b.add("gre"), IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_FALSE(bit_set(b.rule, 47));
}

TEST(Ip6ForwardRuleScratch, CommentLinesNeedNoScratchMemory) {
  NoLeakGuard guard;
  Block b;
  nuvcsock_fail_from_allocation(1);
  EXPECT_EQ(b.add("  # only a comment"), IP6_FORWARDRULE_E_OK);
}

TEST(Ip6ForwardRuleScratch, EveryResultCodeReturnsTheScratchBlock) {
  NoLeakGuard guard;
  Block b(2);
  for (const char *line : {"tcp 80", "tcp 0", "tcp 1;", "foo", "tcp 1,2,3", "gre", "tcp"}) b.add(line);
}

// ---- Printing a block ----

TEST(Ip6ForwardRuleString, AllProtocolsFlagPrintsIp) {
  Block b;
  b.add("tcp 80");
  b.rule->all_protocols = 1;
  b.rule->ping = 1;
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "ip");
}

TEST(Ip6ForwardRuleString, PingComesFirst) {
  Block b;
  b.add("tcp 22");
  b.rule->ping = 1;
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "ping TCP 22");
}

TEST(Ip6ForwardRuleString, PortlessProtocolsAloneBeginWithABlank) {
  Block b;
  b.add("gre");
  b.add("esp");
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), " GRE ESP");
  b.rule->ping = 1;
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "ping  GRE ESP");
}

TEST(Ip6ForwardRuleString, EmptyBlockPrintsNothing) {
  Block b;
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "");
}

TEST(Ip6ForwardRuleString, EntriesPrintInBlockOrderWithoutFinish) {
  Block b;
  b.add("tcp 80");
  b.add("udp 53");
  b.add("tcp 443");
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "TCP 80 UDP 53 TCP 443");
}

TEST(Ip6ForwardRuleString, PortBitsOfPortProtocolsAreNotPrinted) {
  Block b;
  b.rule->proto_bits[0] = 1u << 6;  // TCP, which only ever has entries
  EXPECT_STREQ(ip6_forwardrule2str(b.rule), "");
}

TEST(Ip6ForwardRuleString, ManyNumericNamesDoNotDisturbTheText) {
  Block b;
  std::string expected;
  for (int proto = 140; proto <= 200; ++proto) {
    b.add("P" + std::to_string(proto));
    expected += " P" + std::to_string(proto);
  }
  expected.resize(255);
  EXPECT_EQ(std::string(ip6_forwardrule2str(b.rule)), expected);
}

TEST(Ip6ForwardRuleString, LongTextIsCutTo255Characters) {
  Block b(200);
  std::string line = "udp ";
  std::string expected = "UDP ";
  for (int port = 10000; port < 10150; ++port) {
    line += std::to_string(port) + (port < 10149 ? "," : "");
    expected += std::to_string(port) + (port < 10149 ? "," : "");
  }
  ASSERT_EQ(b.add(line), IP6_FORWARDRULE_E_OK);
  expected.resize(255);
  EXPECT_EQ(std::string(ip6_forwardrule2str(b.rule)), expected);
}

TEST(Ip6ForwardRuleString, TextsComeFromTheSharedRing) {
  Block b;
  b.add("tcp 80");
  std::set<const char *> buffers;
  for (int i = 0; i < 9; ++i) buffers.insert(ip6_forwardrule2str(b.rule));
  EXPECT_EQ(buffers.size(), 9u);
  EXPECT_EQ(buffers.count(ip6_forwardrule2str(b.rule)), 1u) << "the tenth text reuses the first buffer";
}

TEST(Ip6ForwardRuleFinish, EmptyBlockShrinksToItsHeader) {
  Block b;
  EXPECT_EQ(ip6_forwardrule_finish(b.rule), 48u);
  EXPECT_EQ(b.rule->size, 48u);
}

// ---- Port ranges ----

TEST(Ip6PortRangeParse, DisabledRangeWithScopeMarkAndComment) {
  ExactText text("# udp 5000-5010 internet mark 3 # game");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.enabled, 0);
  EXPECT_EQ(r.proto, 17);
  EXPECT_EQ(r.port_lo, 5000);
  EXPECT_EQ(r.port_hi, 5010);
  EXPECT_EQ(r.scope, IP6_PORTRANGE_SCOPE_INTERNET);
  EXPECT_EQ(r.mark, 3u);
  EXPECT_STREQ(r.comment, "game");
  EXPECT_EQ(r.comment, text.c_str() + text.size() - 5) << "points into the caller's text";
  EXPECT_STREQ(ip6_portrange2str(&r), "# UDP 5000-5010 internet mark 3 # game");
}

TEST(Ip6PortRangeParse, ProtocolWithoutPortsHasZeroBounds) {
  ExactText text("icmpv6 5");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.enabled, 1);
  EXPECT_EQ(r.proto, 58);
  EXPECT_EQ(r.port_lo, 0);
  EXPECT_EQ(r.port_hi, 0);
  EXPECT_EQ(r.comment, nullptr);
  EXPECT_STREQ(ip6_portrange2str(&r), "ICMPv6");
}

TEST(Ip6PortRangeParse, PortProtocolWithoutPortsTakesAllPorts) {
  ExactText text("tcp local");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 0);
  EXPECT_EQ(r.port_hi, 65535);
  EXPECT_EQ(r.scope, IP6_PORTRANGE_SCOPE_LOCAL);
  EXPECT_STREQ(ip6_portrange2str(&r), "TCP 0-65535 local");
}

TEST(Ip6PortRangeParse, SinglePortGivesEqualBounds) {
  ExactText text("tcp 443");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 443);
  EXPECT_EQ(r.port_hi, 443);
  EXPECT_STREQ(ip6_portrange2str(&r), "TCP 443");
}

TEST(Ip6PortRangeParse, BoundsAreNotReordered) {
  ExactText text("tcp 90-80");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 90);
  EXPECT_EQ(r.port_hi, 80);
  EXPECT_STREQ(ip6_portrange2str(&r), "TCP 90-80");
}

TEST(Ip6PortRangeParse, BlanksAroundTheDash) {
  ExactText text("  tcp   80  -  90   mark 1");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 80);
  EXPECT_EQ(r.port_hi, 90);
  EXPECT_EQ(r.mark, 1u);
}

TEST(Ip6PortRangeParse, BadUpperBoundIsPassedOver) {
  ExactText text("tcp 80-x local");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 80);
  EXPECT_EQ(r.port_hi, 80);
  EXPECT_EQ(r.scope, 0) << "the word after the dash is the one looked at";
}

TEST(Ip6PortRangeParse, PortsReadLikeTheValueParser) {
  // Base prefixes and the 16-bit cut of the number reader.
  ExactText hex("tcp 0x50-010");
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(hex, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 80);
  EXPECT_EQ(r.port_hi, 8);
  ExactText big("udp 70000");
  ASSERT_EQ(parse_range(big, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 4464);
  ExactText zero("udp 0");
  ASSERT_EQ(parse_range(zero, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.port_lo, 0);
  EXPECT_EQ(r.port_hi, 0);
}

TEST(Ip6PortRangeParse, ScopeOnlyInTheFirstWord) {
  ip6_portrange r = dirty_range();
  ExactText second("udp 53 foo local");
  ASSERT_EQ(parse_range(second, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.scope, 0);
  ExactText both("udp 53 internet local");
  ASSERT_EQ(parse_range(both, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.scope, IP6_PORTRANGE_SCOPE_INTERNET);
}

TEST(Ip6PortRangeParse, MarkInTheFirstOrSecondWord) {
  ip6_portrange r = dirty_range();
  ExactText first("udp 53 mark 9");
  ASSERT_EQ(parse_range(first, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.mark, 9u);
  ExactText second("udp 53 foo mark 10");
  ASSERT_EQ(parse_range(second, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.mark, 10u);
  ExactText third("udp 53 foo bar mark 11 # x");
  ASSERT_EQ(parse_range(third, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.mark, 0u) << "a third word is not read";
  EXPECT_STREQ(r.comment, "x");
}

TEST(Ip6PortRangeParse, MarkReadsLikeTheValueParser) {
  ip6_portrange r = dirty_range();
  ExactText hex("udp 53 local mark 0x10");
  ASSERT_EQ(parse_range(hex, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.mark, 16u);
  ExactText big("udp 53 local mark 4294967295");
  ASSERT_EQ(parse_range(big, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.mark, 4294967295u);
}

TEST(Ip6PortRangeParse, MarkWithoutValueFails) {
  ip6_portrange r = dirty_range();
  ExactText missing("udp 53 mark");
  EXPECT_EQ(parse_range(missing, &r), IP6_PORTRANGE_E_MALFORMED);
  ExactText word("udp 53 local mark high");
  EXPECT_EQ(parse_range(word, &r), IP6_PORTRANGE_E_MALFORMED);
  EXPECT_EQ(r.scope, IP6_PORTRANGE_SCOPE_LOCAL);
}

TEST(Ip6PortRangeParse, CommentAfterBlanksAndNoWordsBeforeIt) {
  ip6_portrange r = dirty_range();
  ExactText text("udp 53 #   dns\tresolver");
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_STREQ(r.comment, "dns\tresolver");
  ExactText empty("udp 53 #");
  ASSERT_EQ(parse_range(empty, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.comment, empty.c_str() + empty.size() - 1);
  EXPECT_STREQ(ip6_portrange2str(&r), "UDP 53 # ");
}

TEST(Ip6PortRangeParse, CommentKeepsLeadingTabs) {
  ip6_portrange r = dirty_range();
  ExactText text("udp 53 #\tdns");
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_STREQ(r.comment, "\tdns");
}

TEST(Ip6PortRangeParse, HashInsideAReadWordStartsNoComment) {
  // The word "local#lan" is read whole and passed over; the comment is only
  // looked for in what follows the words read.
  ip6_portrange r = dirty_range();
  ExactText text("udp 53 local#lan");
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.scope, 0);
  EXPECT_EQ(r.comment, nullptr);
  ExactText third("udp 53 a b c#d");
  ASSERT_EQ(parse_range(third, &r), IP6_PORTRANGE_E_OK);
  EXPECT_STREQ(r.comment, "d") << "a third word is not read, so its hash counts";
}

TEST(Ip6PortRangeParse, HashWithoutBlankStillDisables) {
  ip6_portrange r = dirty_range();
  ExactText text("   #udp 53");
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.enabled, 0);
  EXPECT_EQ(r.proto, 17);
  EXPECT_EQ(r.comment, nullptr);
}

TEST(Ip6PortRangeParse, KeywordsAreExactLowerCase) {
  ip6_portrange r = dirty_range();
  ExactText text("udp 53 LOCAL Mark 5");
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.scope, 0);
  EXPECT_EQ(r.mark, 0u);
}

TEST(Ip6PortRangeParse, ProtocolNamesIgnoreCase) {
  ip6_portrange r = dirty_range();
  ExactText text("Udp 53");
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.proto, 17);
  ExactText numeric("P136 9");
  ASSERT_EQ(parse_range(numeric, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.proto, 136);
  EXPECT_STREQ(ip6_portrange2str(&r), "UDPLite 9");
}

TEST(Ip6PortRangeParse, UnknownProtocolFails) {
  ip6_portrange r = dirty_range();
  ExactText text("foo 53");
  EXPECT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_MALFORMED);
  EXPECT_EQ(r.scope, 0) << "scope and mark are cleared first";
  EXPECT_EQ(r.mark, 0u);
  EXPECT_EQ(r.enabled, 1);
  ExactText tab("udp\t53");
  EXPECT_EQ(parse_range(tab, &r), IP6_PORTRANGE_E_MALFORMED) << "tabs do not end a word";
}

TEST(Ip6PortRangeParse, EmptyTextFails) {
  ip6_portrange r = dirty_range();
  ExactText empty("");
  EXPECT_EQ(parse_range(empty, &r), IP6_PORTRANGE_E_MALFORMED);
  ExactText hash("  # ");
  EXPECT_EQ(parse_range(hash, &r), IP6_PORTRANGE_E_MALFORMED);
  EXPECT_EQ(r.enabled, 0);
}

TEST(Ip6PortRangeParse, WordsOf32CharactersOrMoreFail) {
  ip6_portrange r = dirty_range();
  std::string w31(31, 'w');
  std::string w32(32, 'w');
  ExactText ok("udp 53 " + w31 + " mark 4");
  ASSERT_EQ(parse_range(ok, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.mark, 4u);
  ExactText first("udp 53 " + w32);
  EXPECT_EQ(parse_range(first, &r), IP6_PORTRANGE_E_MALFORMED);
  ExactText second("udp 53 local " + w32);
  EXPECT_EQ(parse_range(second, &r), IP6_PORTRANGE_E_MALFORMED);
  ExactText proto(w32 + " 53");
  EXPECT_EQ(parse_range(proto, &r), IP6_PORTRANGE_E_MALFORMED);
  ExactText after_comment("udp 53 # " + w32);
  EXPECT_EQ(parse_range(after_comment, &r), IP6_PORTRANGE_E_OK) << "words after the comment mark are not read";
}

TEST(Ip6PortRangeParse, NeedsNoScratchMemory) {
  NoLeakGuard guard;
  nuvcsock_fail_from_allocation(1);
  ip6_portrange r = dirty_range();
  ExactText text("udp 53 local mark 1 # x");
  EXPECT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
}

// ---- Printing port ranges ----

TEST(Ip6PortRangeString, AllFieldsInOrder) {
  ip6_portrange r{};
  r.enabled = 1;
  r.proto = 6;
  r.port_lo = 8000;
  r.port_hi = 8080;
  r.scope = IP6_PORTRANGE_SCOPE_LOCAL;
  r.mark = 4294967295u;
  r.comment = "proxy";
  EXPECT_STREQ(ip6_portrange2str(&r), "TCP 8000-8080 local mark 4294967295 # proxy");
  EXPECT_STREQ(ip6_portrange2simplestr(&r), "TCP 8000-8080");
}

TEST(Ip6PortRangeString, PortlessProtocolPrintsNoPorts) {
  ip6_portrange r{};
  r.enabled = 1;
  r.proto = 47;
  r.port_lo = 1;
  r.port_hi = 2;
  EXPECT_STREQ(ip6_portrange2str(&r), "GRE");
  EXPECT_STREQ(ip6_portrange2simplestr(&r), "GRE");
}

TEST(Ip6PortRangeString, SimpleTextLeavesOutEverythingElse) {
  ip6_portrange r{};
  r.enabled = 0;
  r.proto = 17;
  r.port_lo = 53;
  r.port_hi = 53;
  r.scope = 2;
  r.mark = 5;
  r.comment = "dns";
  EXPECT_STREQ(ip6_portrange2simplestr(&r), "UDP 53");
  EXPECT_STREQ(ip6_portrange2str(&r), "# UDP 53 internet mark 5 # dns");
}

TEST(Ip6PortRangeString, UnknownScopePrintsNothing) {
  ip6_portrange r{};
  r.enabled = 1;
  r.proto = 255;
  r.scope = 9;
  EXPECT_STREQ(ip6_portrange2str(&r), "IP");
}

TEST(Ip6PortRangeString, LongCommentIsCut) {
  std::string comment(400, 'c');
  ip6_portrange r{};
  r.enabled = 1;
  r.proto = 17;
  r.port_lo = r.port_hi = 1;
  r.comment = comment.c_str();
  std::string text = ip6_portrange2str(&r);
  EXPECT_EQ(text.size(), 255u);
  EXPECT_EQ(text.substr(0, 10), "UDP 1 # cc");
}

// ---- PCP handling ----

TEST(PcpHandling, WordsParseToTheirValues) {
  std::int32_t v = -7;
  EXPECT_EQ(pcphandling_parse("ignore", &v), 0);
  EXPECT_EQ(v, PCPHANDLING_IGNORE);
  EXPECT_EQ(pcphandling_parse("local", &v), 0);
  EXPECT_EQ(v, PCPHANDLING_LOCAL);
  EXPECT_EQ(pcphandling_parse("internet", &v), 0);
  EXPECT_EQ(v, PCPHANDLING_INTERNET);
}

TEST(PcpHandling, OtherWordsFailAndLeaveTheValue) {
  std::int32_t v = -7;
  for (const char *word : {"Local", "", "local ", "inter", "internets", "2"}) {
    EXPECT_EQ(pcphandling_parse(word, &v), -1) << word;
    EXPECT_EQ(v, -7);
  }
  EXPECT_EQ(pcphandling_parse(nullptr, &v), -1);
}

TEST(PcpHandling, ValuesPrintAsTheirWords) {
  EXPECT_STREQ(pcphandling2str(0), "ignore");
  EXPECT_STREQ(pcphandling2str(1), "local");
  EXPECT_STREQ(pcphandling2str(2), "internet");
}

TEST(PcpHandling, OtherValuesPrintAsIllegal) {
  EXPECT_STREQ(pcphandling2str(7), "<ill. pcphandling>");
  EXPECT_STREQ(pcphandling2str(3), "<ill. pcphandling>");
  EXPECT_STREQ(pcphandling2str(-1), "<ill. pcphandling>");
}

// ---- Very long lines ----

TEST(Ip6ForwardRuleParse, VeryLongLineIsReadOnlyUpToTheCut) {
  NoLeakGuard guard;
  std::string line = "udp 53";
  line += std::string(100000, ' ');
  line += ",54";
  Block b;
  EXPECT_EQ(b.add(line), IP6_FORWARDRULE_E_OK) << "the blanks before the cut end the list";
  EXPECT_EQ(entries_of(b.rule), (std::vector<Entry>{{17, 53, 53}}));
}

TEST(Ip6PortRangeParse, VeryLongLineFindsItsComment) {
  std::string line = "udp 53 local" + std::string(100000, ' ') + "# far";
  ExactText text(line);
  ip6_portrange r = dirty_range();
  ASSERT_EQ(parse_range(text, &r), IP6_PORTRANGE_E_OK);
  EXPECT_EQ(r.scope, IP6_PORTRANGE_SCOPE_LOCAL);
  EXPECT_STREQ(r.comment, "far");
}
