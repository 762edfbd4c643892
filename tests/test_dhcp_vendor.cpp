// Vendor sub-option lookups in options 43, 124 and 125: blocks and
// sub-option areas, hostile lengths, allocation failures, and real captured
// DHCP messages.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "dhcp_testmemops.h"
#include "nuvcsock_test.h"
#include "nuvdhcp.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;
using testsupport::DhcpTestMemops;
using testsupport::hex_bytes;

// An option value in a heap buffer of exactly its length plus the one byte
// after it that the area parser may look at (a NUL, as in parsed values),
// so that AddressSanitizer reports any read further out.
struct Value {
  explicit Value(const Bytes &bytes) : buf(bytes) { buf.push_back(0); }
  unsigned char *ptr() { return buf.data(); }
  std::uint32_t len() const { return static_cast<std::uint32_t>(buf.size() - 1); }
  Bytes buf;
};

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Bytes suboption(std::uint8_t code, const std::string &value) {
  Bytes out{code, static_cast<std::uint8_t>(value.size())};
  for (auto c : value) out.push_back(static_cast<std::uint8_t>(c));
  return out;
}

// One vendor block: enterprise number, data length, data.
Bytes block(std::uint32_t enterprise, const Bytes &data) {
  Bytes out{static_cast<std::uint8_t>(enterprise >> 24), static_cast<std::uint8_t>(enterprise >> 16),
            static_cast<std::uint8_t>(enterprise >> 8), static_cast<std::uint8_t>(enterprise),
            static_cast<std::uint8_t>(data.size())};
  for (auto c : data) out.push_back(c);
  return out;
}

// The result of one lookup, with the handed-over block released again.
struct Found {
  std::uint32_t len = 0;
  bool pointer_replaced = false;
  std::string value;         // the len bytes of the found block
  bool nul_after = false;    // the block holds a NUL after them
};

Found find_125(DhcpTestMemops &memops, const Bytes &bytes, std::uint32_t enterprise, std::uint8_t sub) {
  Value value(bytes);
  unsigned char *p = value.ptr();
  Found f;
  f.len = dhcp_find_125_option(memops.ops(), &p, value.len(), enterprise, sub);
  f.pointer_replaced = p != value.ptr();
  if (f.pointer_replaced) {
    EXPECT_TRUE(memops.is_live(p)) << "the found value is not a block of the caller's allocator";
    f.value.assign(reinterpret_cast<const char *>(p), f.len);
    f.nul_after = p[f.len] == 0;
    memops.ops()->free(p);
  }
  return f;
}

Found find_43(DhcpTestMemops &memops, const Bytes &bytes, std::uint8_t sub) {
  Value value(bytes);
  unsigned char *p = value.ptr();
  Found f;
  f.len = dhcp_find_43_option(memops.ops(), &p, value.len(), sub);
  f.pointer_replaced = p != value.ptr();
  if (f.pointer_replaced) {
    EXPECT_TRUE(memops.is_live(p));
    f.value.assign(reinterpret_cast<const char *>(p), f.len);
    f.nul_after = p[f.len] == 0;
    memops.ops()->free(p);
  }
  return f;
}

constexpr std::uint32_t kCableLabs = 4491;
constexpr std::uint32_t kBroadbandForum = 3561;

}  // namespace

// ---- option 124 / 125 ----

TEST(Find125, SuboptionOfSecondBlockIsFound) {
  DhcpTestMemops memops;
  const Bytes value = concat({block(kCableLabs, suboption(2, "cl")), block(kBroadbandForum, suboption(2, "SN42"))});
  Found f = find_125(memops, value, kBroadbandForum, 2);
  EXPECT_EQ(f.len, 4u);
  EXPECT_EQ(f.value, "SN42");
}

TEST(Find125, FoundValueIsANewBlockEndingInNul) {
  DhcpTestMemops memops;
  Found f = find_125(memops, block(kBroadbandForum, suboption(1, "00D09E")), kBroadbandForum, 1);
  EXPECT_TRUE(f.pointer_replaced);
  EXPECT_EQ(f.value, "00D09E");
  EXPECT_TRUE(f.nul_after);
}

TEST(Find125, TemporaryStoreIsOneBlockOfStoreSize) {
  DhcpTestMemops memops;
  find_125(memops, block(kBroadbandForum, suboption(1, "x")), kBroadbandForum, 1);
  ASSERT_GE(memops.requested().size(), 1u);
  EXPECT_EQ(memops.requested()[0], sizeof(dhcp_options));
  if (sizeof(void *) == 4) {
    EXPECT_EQ(memops.requested()[0], 2048u);
  }
}

TEST(Find125, EmptyValueFindsNothing) {
  DhcpTestMemops memops;
  Found f = find_125(memops, {}, kBroadbandForum, 1);
  EXPECT_EQ(f.len, 0u);
  EXPECT_FALSE(f.pointer_replaced);
  EXPECT_EQ(memops.attempts(), 0);
}

TEST(Find125, ValueShorterThanABlockHeaderFindsNothing) {
  DhcpTestMemops memops;
  Found f = find_125(memops, hex_bytes("00 00 0d"), kBroadbandForum, 1);
  EXPECT_EQ(f.len, 0u);
  EXPECT_FALSE(f.pointer_replaced);
}

TEST(Find125, FirstBlockRunningPastTheValueFindsNothing) {
  DhcpTestMemops memops;
  Bytes value = block(kBroadbandForum, suboption(1, "abc"));
  value.pop_back();  // the block claims one byte more than there is
  Found f = find_125(memops, value, kBroadbandForum, 1);
  EXPECT_EQ(f.len, 0u);
  EXPECT_EQ(memops.attempts(), 0) << "no block should have been searched";
}

TEST(Find125, LaterBlockRunningPastTheValueEndsTheSearch) {
  DhcpTestMemops memops;
  Bytes second = block(kBroadbandForum, suboption(1, "abc"));
  second.pop_back();
  const Bytes value = concat({block(kCableLabs, suboption(1, "x")), second});
  Found f = find_125(memops, value, kBroadbandForum, 1);
  EXPECT_EQ(f.len, 0u);
  EXPECT_FALSE(f.pointer_replaced);
}

TEST(Find125, TrailingBytesShorterThanAHeaderEndTheSearch) {
  DhcpTestMemops memops;
  const Bytes value = concat({block(kCableLabs, suboption(1, "x")), hex_bytes("00 00 0d")});
  EXPECT_EQ(find_125(memops, value, kBroadbandForum, 1).len, 0u);
}

TEST(Find125, RepeatedSuboptionInOneBlockIsJoined) {
  DhcpTestMemops memops;
  Found f = find_125(memops, block(kBroadbandForum, concat({suboption(1, "ab"), suboption(1, "cd")})),
                     kBroadbandForum, 1);
  EXPECT_EQ(f.len, 4u);
  EXPECT_EQ(f.value, "abcd");
}

TEST(Find125, SameSuboptionInTwoBlocksOfOneEnterpriseIsNotJoined) {
  DhcpTestMemops memops;
  const Bytes value = concat({block(kBroadbandForum, suboption(1, "first")), block(kBroadbandForum, suboption(1, "second"))});
  EXPECT_EQ(find_125(memops, value, kBroadbandForum, 1).value, "first");
}

TEST(Find125, BlockOfTheEnterpriseWithoutTheSuboptionIsPassed) {
  DhcpTestMemops memops;
  const Bytes value = concat({block(kBroadbandForum, suboption(3, "class")), block(kBroadbandForum, suboption(1, "oui"))});
  EXPECT_EQ(find_125(memops, value, kBroadbandForum, 1).value, "oui");
}

TEST(Find125, OtherEnterpriseIsNotSearched) {
  DhcpTestMemops memops;
  Found f = find_125(memops, block(kCableLabs, suboption(1, "x")), kBroadbandForum, 1);
  EXPECT_EQ(f.len, 0u);
  EXPECT_EQ(memops.attempts(), 0);
}

TEST(Find125, SuboptionCodesZeroAndEndAreNeverFound) {
  DhcpTestMemops memops;
  // pad, a sub-option 1, then an end mark followed by bytes that look like a sub-option
  const Bytes data = hex_bytes("00 01 01 41 ff 01 42");
  EXPECT_EQ(find_125(memops, block(kBroadbandForum, data), kBroadbandForum, 0).len, 0u);
  EXPECT_EQ(find_125(memops, block(kBroadbandForum, data), kBroadbandForum, 255).len, 0u);
  EXPECT_EQ(find_125(memops, block(kBroadbandForum, data), kBroadbandForum, 1).value, "A");
}

TEST(Find125, ZeroLengthSuboptionIsNotFound) {
  DhcpTestMemops memops;
  Found f = find_125(memops, block(kBroadbandForum, hex_bytes("04 00")), kBroadbandForum, 4);
  EXPECT_EQ(f.len, 0u);
  EXPECT_FALSE(f.pointer_replaced);
}

TEST(Find125, SuboptionsBeforeATruncatedOneAreStillFound) {
  DhcpTestMemops memops;
  // sub-option 2 claims 9 bytes, only 1 follows
  const Bytes data = hex_bytes("01 02 61 62 02 09 78");
  EXPECT_EQ(find_125(memops, block(kBroadbandForum, data), kBroadbandForum, 1).value, "ab");
  EXPECT_EQ(find_125(memops, block(kBroadbandForum, data), kBroadbandForum, 2).len, 0u);
}

TEST(Find125, SuboptionClaimingBytesOfTheNextBlockIsNotFound) {
  DhcpTestMemops memops;
  // The first block's sub-option 2 says 5 bytes; the block holds 2 of them and
  // the next block's bytes follow.  Only the block's own bytes are read.
  const Bytes value = concat({block(kBroadbandForum, hex_bytes("02 05 41 42")), block(kCableLabs, suboption(9, "zzz"))});
  EXPECT_EQ(find_125(memops, value, kBroadbandForum, 2).len, 0u);
}

TEST(Find125, EnterpriseNumberIsBigEndian) {
  DhcpTestMemops memops;
  const Bytes value = concat({hex_bytes("00 00 0d e9 03"), suboption(1, "x")});
  EXPECT_EQ(find_125(memops, value, 0x0de9, 1).value, "x");
  EXPECT_EQ(find_125(memops, value, 0xe90d0000, 1).len, 0u);
}

TEST(Find125, FailedTemporaryStoreSkipsTheBlock) {
  DhcpTestMemops memops;
  const Bytes value = concat({block(kBroadbandForum, suboption(1, "first")), block(kBroadbandForum, suboption(1, "second"))});
  memops.fail_nth(1);
  EXPECT_EQ(find_125(memops, value, kBroadbandForum, 1).value, "second");
}

TEST(Find125, EachAllocationFailureGivesWhatWasReadBeforeItAndLeaksNothing) {
  const Bytes value = block(kBroadbandForum, concat({suboption(1, "ab"), suboption(1, "cd"), suboption(2, "x")}));
  // Allocations: 1 the temporary store, 2 "ab", 3 "abcd" (joining), 4 "x".
  const struct {
    long failing;
    std::uint32_t len;
    const char *value;
  } cases[] = {
      {1, 0, ""},      // no store: the only block is skipped
      {2, 0, ""},      // parsing stops before sub-option 1 is stored
      {3, 2, "ab"},    // joining fails: the slot keeps its first part
      {4, 4, "abcd"},  // only sub-option 2 is lost
      {5, 4, "abcd"},  // no failure
  };
  for (const auto &c : cases) {
    SCOPED_TRACE("failing allocation " + std::to_string(c.failing));
    DhcpTestMemops memops;
    memops.fail_nth(c.failing);
    Found f = find_125(memops, value, kBroadbandForum, 1);
    EXPECT_EQ(f.len, c.len);
    EXPECT_EQ(f.value, c.value);
    EXPECT_EQ(f.pointer_replaced, c.len != 0);
  }
}

// ---- dhcp_extract_125_string ----

TEST(Extract125String, ReturnsANulTerminatedCopy) {
  DhcpTestMemops memops;
  Value value(concat({block(kCableLabs, suboption(1, "cable")), block(kBroadbandForum, suboption(3, "Router"))}));
  dhcp_option slot{value.len(), value.ptr()};
  char *s = dhcp_extract_125_string(memops.ops(), &slot, kBroadbandForum, 3);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "Router");
  EXPECT_EQ(memops.live(), 1) << "only the string itself stays allocated";
  memops.ops()->free(s);
}

TEST(Extract125String, EmptySlotGivesNull) {
  DhcpTestMemops memops;
  dhcp_option slot{0, nullptr};
  EXPECT_EQ(dhcp_extract_125_string(memops.ops(), &slot, kBroadbandForum, 3), nullptr);
}

TEST(Extract125String, SlotWithoutDataGivesNull) {
  DhcpTestMemops memops;
  // What a failed dhcp_set_option leaves: the old length, no data.
  dhcp_option slot{12, nullptr};
  EXPECT_EQ(dhcp_extract_125_string(memops.ops(), &slot, kBroadbandForum, 3), nullptr);
}

TEST(Extract125String, MissingSuboptionGivesNull) {
  DhcpTestMemops memops;
  Value value(block(kBroadbandForum, suboption(3, "Router")));
  dhcp_option slot{value.len(), value.ptr()};
  EXPECT_EQ(dhcp_extract_125_string(memops.ops(), &slot, kBroadbandForum, 4), nullptr);
}

TEST(Extract125String, ValueWithNulKeepsAllItsBytes) {
  DhcpTestMemops memops;
  Value value(block(kBroadbandForum, hex_bytes("05 03 61 00 62")));
  dhcp_option slot{value.len(), value.ptr()};
  char *s = dhcp_extract_125_string(memops.ops(), &slot, kBroadbandForum, 5);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(std::string(s, 4), std::string("a\0b\0", 4));
  memops.ops()->free(s);
}

TEST(Extract125String, FailedStringAllocationGivesNullAndLeaksNothing) {
  DhcpTestMemops memops;
  Value value(block(kBroadbandForum, suboption(3, "Router")));
  dhcp_option slot{value.len(), value.ptr()};
  memops.fail_nth(3);  // store, the sub-option's block, then the string
  EXPECT_EQ(dhcp_extract_125_string(memops.ops(), &slot, kBroadbandForum, 3), nullptr);
  EXPECT_EQ(memops.attempts(), 3);
  EXPECT_EQ(memops.live(), 0);
}

TEST(Extract125String, EveryAllocationFailureGivesNullOrTheString) {
  for (long n = 1; n <= 4; ++n) {
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    DhcpTestMemops memops;
    Value value(block(kBroadbandForum, suboption(3, "Router")));
    dhcp_option slot{value.len(), value.ptr()};
    memops.fail_nth(n);
    char *s = dhcp_extract_125_string(memops.ops(), &slot, kBroadbandForum, 3);
    if (n <= 3) {
      EXPECT_EQ(s, nullptr);
    } else {
      ASSERT_NE(s, nullptr);
      EXPECT_STREQ(s, "Router");
    }
    if (s) memops.ops()->free(s);
  }
}

// ---- option 43 ----

TEST(Find43, FindsASuboption) {
  DhcpTestMemops memops;
  Found f = find_43(memops, concat({suboption(1, "abcd"), suboption(2, "ef")}), 2);
  EXPECT_EQ(f.len, 2u);
  EXPECT_EQ(f.value, "ef");
  EXPECT_TRUE(f.nul_after);
}

TEST(Find43, RepeatedSuboptionIsJoined) {
  DhcpTestMemops memops;
  EXPECT_EQ(find_43(memops, concat({suboption(1, "ab"), suboption(2, "x"), suboption(1, "cd")}), 1).value, "abcd");
}

TEST(Find43, EmptyValueFindsNothing) {
  DhcpTestMemops memops;
  EXPECT_EQ(find_43(memops, {}, 1).len, 0u);
  EXPECT_EQ(memops.attempts(), 0);
}

TEST(Find43, MissingSuboptionFindsNothing) {
  DhcpTestMemops memops;
  Found f = find_43(memops, suboption(1, "ab"), 3);
  EXPECT_EQ(f.len, 0u);
  EXPECT_FALSE(f.pointer_replaced);
}

TEST(Find43, SuboptionRunningPastTheEndIsNotFoundButEarlierOnesAre) {
  DhcpTestMemops memops;
  const Bytes value = hex_bytes("01 01 61 02 40 62 63");
  EXPECT_EQ(find_43(memops, value, 1).value, "a");
  EXPECT_EQ(find_43(memops, value, 2).len, 0u);
}

TEST(Find43, CodesZeroAndEndAreNeverFound) {
  DhcpTestMemops memops;
  const Bytes value = hex_bytes("00 00 01 01 61 ff 02 01 62");
  EXPECT_EQ(find_43(memops, value, 0).len, 0u);
  EXPECT_EQ(find_43(memops, value, 255).len, 0u);
  EXPECT_EQ(find_43(memops, value, 1).value, "a");
  EXPECT_EQ(find_43(memops, value, 2).len, 0u) << "nothing after the end mark counts";
}

TEST(Find43, FailedTemporaryStoreFindsNothing) {
  DhcpTestMemops memops;
  memops.fail_nth(1);
  EXPECT_EQ(find_43(memops, suboption(1, "ab"), 1).len, 0u);
  EXPECT_EQ(memops.live(), 0);
}

TEST(Find43, FailedValueAllocationFindsNothingAndLeaksNothing) {
  DhcpTestMemops memops;
  memops.fail_nth(2);
  EXPECT_EQ(find_43(memops, suboption(1, "ab"), 1).len, 0u);
  EXPECT_EQ(memops.live(), 0);
}

// ---- references: a plain lookup written here, on random values ----

namespace {

// Sub-options of one area, joined per code, as an option-area walk reads
// them: pad skipped, end mark stops, a triple running past the end stops.
std::vector<std::optional<std::string>> reference_area(const Bytes &v, std::size_t from, std::size_t to) {
  std::vector<std::optional<std::string>> subs(256);
  std::size_t i = from;
  while (i < to) {
    const std::uint8_t code = v[i];
    if (code == 255) break;
    if (code == 0) {
      ++i;
      continue;
    }
    if (i + 2 > to || i + 2 + v[i + 1] > to) break;
    std::string value(reinterpret_cast<const char *>(&v[i + 2]), v[i + 1]);
    subs[code] = subs[code].value_or("") + value;
    i += 2 + v[i + 1];
  }
  return subs;
}

std::optional<std::string> reference_125(const Bytes &v, std::uint32_t enterprise, std::uint8_t sub) {
  std::size_t pos = 0;
  while (v.size() - pos >= 5) {
    const std::uint32_t e = std::uint32_t{v[pos]} << 24 | std::uint32_t{v[pos + 1]} << 16 |
                            std::uint32_t{v[pos + 2]} << 8 | v[pos + 3];
    const std::size_t n = v[pos + 4];
    if (pos + 5 + n > v.size()) return std::nullopt;
    if (e == enterprise) {
      auto subs = reference_area(v, pos + 5, pos + 5 + n);
      if (subs[sub] && !subs[sub]->empty()) return subs[sub];
    }
    pos += 5 + n;
  }
  return std::nullopt;
}

Bytes random_area(std::mt19937 &rng, std::size_t max_len) {
  std::uniform_int_distribution<int> count(0, 5), code(0, 6), len(0, 6), byte(0, 255), chance(0, 9);
  Bytes out;
  for (int i = count(rng); i > 0; --i) {
    const auto c = static_cast<std::uint8_t>(chance(rng) == 0 ? 255 : code(rng));
    out.push_back(c);
    if (c == 0 || c == 255) continue;
    const auto l = static_cast<std::uint8_t>(len(rng) + (chance(rng) == 0 ? 3 : 0));  // sometimes lies
    out.push_back(l);
    for (int k = 0; k < l && out.size() < max_len + 4; ++k) out.push_back(static_cast<std::uint8_t>(byte(rng)));
  }
  if (out.size() > max_len) out.resize(max_len);
  return out;
}

Bytes random_vendor_value(std::mt19937 &rng) {
  std::uniform_int_distribution<int> blocks(0, 4), ent(0, 2), chance(0, 9);
  const std::uint32_t enterprises[] = {kBroadbandForum, kCableLabs, 0};
  Bytes out;
  for (int i = blocks(rng); i > 0; --i) {
    Bytes b = block(enterprises[ent(rng)], random_area(rng, 40));
    if (chance(rng) == 0) b[4] = static_cast<std::uint8_t>(b[4] + 2);  // block claims too much
    out.insert(out.end(), b.begin(), b.end());
  }
  if (chance(rng) == 0 && !out.empty()) out.resize(out.size() - 1);
  return out;
}

}  // namespace

TEST(Find125, AgreesWithAPlainLookupOnRandomValues) {
  std::mt19937 rng(20261121);
  const std::uint32_t enterprises[] = {kBroadbandForum, kCableLabs, 0};
  for (int round = 0; round < 2000; ++round) {
    const Bytes value = random_vendor_value(rng);
    const std::uint32_t e = enterprises[round % 3];
    const auto sub = static_cast<std::uint8_t>(round % 8);
    DhcpTestMemops memops;
    Found f = find_125(memops, value, e, sub);
    const auto expected = reference_125(value, e, sub);
    ASSERT_EQ(f.len != 0, expected.has_value()) << testsupport::to_hex(value.data(), value.size()) << " sub " << int(sub);
    if (expected) {
      ASSERT_EQ(f.value, *expected);
    }
  }
}

TEST(Find43, AgreesWithAPlainLookupOnRandomValues) {
  std::mt19937 rng(43);
  for (int round = 0; round < 2000; ++round) {
    const Bytes value = random_area(rng, 60);
    const auto sub = static_cast<std::uint8_t>(round % 8);
    DhcpTestMemops memops;
    Found f = find_43(memops, value, sub);
    const auto subs = reference_area(value, 0, value.size());
    const bool expected = sub != 0 && subs[sub] && !subs[sub]->empty();
    ASSERT_EQ(f.len != 0, expected) << testsupport::to_hex(value.data(), value.size()) << " sub " << int(sub);
    if (expected) {
      ASSERT_EQ(f.value, *subs[sub]);
    }
  }
}

// ---- captured DHCP messages ----

namespace {

// The DHCP message of a captured frame (UDP payload), copied into a buffer
// of its length plus one readable byte.
struct CapturedMessage {
  Bytes bytes;  // message + 1 trailing byte
  std::int32_t len() const { return static_cast<std::int32_t>(bytes.size() - 1); }
};

CapturedMessage captured_message(const std::string &capture, std::size_t frame) {
  const auto cap = testsupport::read_pcap(testsupport::data_path("captures/" + capture));
  CapturedMessage m;
  if (frame == 0 || frame > cap.packets.size()) {
    ADD_FAILURE() << capture << " has no frame " << frame;
    return m;
  }
  const auto &pkt = cap.packets[frame - 1];
  const auto net = testsupport::find_network_layer(cap, pkt);
  EXPECT_TRUE(net.found);
  const std::size_t ihl = (pkt.data[net.offset] & 0x0f) * 4u;
  const std::size_t start = net.offset + ihl + 8;  // after the UDP header
  m.bytes.assign(pkt.data.begin() + static_cast<std::ptrdiff_t>(start), pkt.data.end());
  m.bytes.push_back(0);
  return m;
}

}  // namespace

// Option 77 of dhcp-rfc3004.pcap frame 1, read as a vendor sub-option area:
// tshark decodes it as user class instances 07 "subopt1", 11 "subopt2-123456789",
// 0a "subopt3-12".  Read as code/length/value triples its first triple
// (code 7, length 0x73) runs past the value, so nothing is found.
TEST(Find43, RealValueWhoseFirstTripleRunsPastTheEndFindsNothing) {
  CapturedMessage m = captured_message("dhcp-rfc3004.pcap", 1);
  DhcpTestMemops memops;
  dhcp_options store;
  ASSERT_EQ(dhcp_parse_options(memops.ops(), m.bytes.data(), m.len(), store), 0);
  ASSERT_NE(store[77].data, nullptr);
  ASSERT_EQ(store[77].len, 37u);  // tshark: Length: 37
  for (int sub = 0; sub < 256; ++sub) {
    unsigned char *p = store[77].data;
    EXPECT_EQ(dhcp_find_43_option(memops.ops(), &p, store[77].len, static_cast<std::uint8_t>(sub)), 0u) << sub;
    EXPECT_EQ(p, store[77].data);
  }
  dhcp_free_options(memops.ops(), store);
}

// None of the captured messages carries option 43, 124 or 125 (tshark lists
// their options as: dhcp-mud 53,61,57,161,60,12,145,55 / 53,54,51,1,3,6,15,101;
// dhcp-option-33 53,54,51,33; dhcp-rfc3004 53,50,55,77 / 53,54,51,1,3,6,15 /
// 53,54,50,55,77; dhcp-rfc5859 53,55 / 53,54,51,1,3,150 / 53,54,50,55), so
// lookups in them find nothing and allocate nothing.
TEST(Extract125String, CapturedMessagesWithoutVendorOptionsGiveNull) {
  const std::pair<const char *, std::size_t> frames[] = {
      {"dhcp-mud.pcap", 1},     {"dhcp-mud.pcap", 2},     {"dhcp-rfc3004.pcap", 1}, {"dhcp-rfc3004.pcap", 2},
      {"dhcp-rfc3004.pcap", 3}, {"dhcp-rfc3004.pcap", 4}, {"dhcp-rfc5859.pcap", 1}, {"dhcp-rfc5859.pcap", 2},
  };
  for (const auto &[capture, frame] : frames) {
    SCOPED_TRACE(std::string(capture) + " frame " + std::to_string(frame));
    CapturedMessage m = captured_message(capture, frame);
    DhcpTestMemops memops;
    dhcp_options store;
    ASSERT_EQ(dhcp_parse_options(memops.ops(), m.bytes.data(), m.len(), store), 0);
    const long before = memops.attempts();
    EXPECT_EQ(dhcp_extract_125_string(memops.ops(), &store[125], kBroadbandForum, 1), nullptr);
    EXPECT_EQ(dhcp_extract_125_string(memops.ops(), &store[124], kBroadbandForum, 1), nullptr);
    unsigned char *p = store[43].data;
    EXPECT_EQ(dhcp_find_43_option(memops.ops(), &p, store[43].len, 1), 0u);
    EXPECT_EQ(memops.attempts(), before);
    dhcp_free_options(memops.ops(), store);
  }
}

// A captured request (dhcp-rfc3004.pcap frame 3) with a vendor option 125
// appended before its end mark, as a TR-111 device sends it: enterprise 3561,
// sub-options 1 manufacturer OUI, 2 serial number, 3 product class.  The
// host_dhcp_match test checks tshark decodes such options the same way.
TEST(Extract125String, VendorOptionAddedToACapturedRequest) {
  CapturedMessage m = captured_message("dhcp-rfc3004.pcap", 3);
  Bytes msg(m.bytes.begin(), m.bytes.end() - 1);
  // The options end with 255 followed by padding; insert before the 255.
  std::size_t end_mark = 240;
  while (end_mark < msg.size() && msg[end_mark] != 255) {
    end_mark += msg[end_mark] == 0 ? 1 : 2u + msg[end_mark + 1];
  }
  ASSERT_LT(end_mark, msg.size());
  const Bytes v125 = block(kBroadbandForum, concat({suboption(1, "00D09E"), suboption(2, "SN123456"), suboption(3, "Route")}));
  Bytes option{125, static_cast<std::uint8_t>(v125.size())};
  option.insert(option.end(), v125.begin(), v125.end());
  msg.insert(msg.begin() + static_cast<std::ptrdiff_t>(end_mark), option.begin(), option.end());
  msg.push_back(0);

  DhcpTestMemops memops;
  dhcp_options store;
  ASSERT_EQ(dhcp_parse_options(memops.ops(), msg.data(), static_cast<std::int32_t>(msg.size() - 1), store), 0);
  const char *expected[] = {nullptr, "00D09E", "SN123456", "Route"};
  for (std::uint8_t sub = 1; sub <= 3; ++sub) {
    char *s = dhcp_extract_125_string(memops.ops(), &store[125], kBroadbandForum, sub);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, expected[sub]);
    memops.ops()->free(s);
  }
  EXPECT_EQ(dhcp_extract_125_string(memops.ops(), &store[125], kCableLabs, 1), nullptr);
  // The captured options are still read as before (tshark: requested address 192.168.1.4).
  ASSERT_EQ(store[50].len, 4u);
  EXPECT_EQ(std::memcmp(store[50].data, "\xc0\xa8\x01\x04", 4), 0);
  dhcp_free_options(memops.ops(), store);
}
