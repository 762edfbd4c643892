// Construction of the option part of outgoing DHCP messages: space, order,
// fragmenting, overload into `file` and `sname`, and allocation failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "dhcp_cfgbuild.h"
#include "dhcp_testmemops.h"
#include "nuvcsock_test.h"
#include "nuvdhcp.h"
#include "nuvdhcpcfg.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;
using testsupport::DhcpConfigBuilder;
using testsupport::DhcpTestMemops;
using testsupport::hex_bytes;

constexpr std::size_t kMsgSize = 240 + 4096;
constexpr std::uint8_t kUntouched = 0xCC;

// A peer store built by hand, released at scope end.
struct PeerStore {
  explicit PeerStore(const dhcp_memops *ops) : ops(ops) { std::memset(slots, 0, sizeof slots); }
  ~PeerStore() { dhcp_free_options(ops, slots); }
  void set(int code, const Bytes &value) { ASSERT_EQ(dhcp_set_option(ops, slots, code, static_cast<uint32_t>(value.size()), value.data()), 0); }
  void max_size(unsigned size) { set(57, {static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)}); }
  const dhcp_memops *ops;
  dhcp_options slots;
};

struct Built {
  int length;
  Bytes msg;
  Bytes options() const { return Bytes(msg.begin() + 240, msg.begin() + std::max(length, 240)); }
  Bytes file() const { return Bytes(msg.begin() + 108, msg.begin() + 236); }
  Bytes sname() const { return Bytes(msg.begin() + 44, msg.begin() + 108); }
};

Built build(const dhcp_memops *ops, DhcpConfigBuilder &cfg, const dhcp_option *store, int overload, int textnul = 0,
            int short_area = 0) {
  Built b{0, Bytes(kMsgSize, kUntouched)};
  b.length = dhcp_cons_options(ops, store, b.msg.data(), cfg.head(), overload, textnul, short_area);
  return b;
}

Bytes text_bytes(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
// `n` letters cycling from `first`, so that repeated bytes stand out.
std::string letters(std::size_t n, char first = 'A') {
  std::string s;
  for (std::size_t i = 0; i < n; ++i) s += static_cast<char>(first + i % 26);
  return s;
}
Bytes option_bytes(std::uint8_t code, const std::string &value) {
  return cat({{code, static_cast<std::uint8_t>(value.size())}, text_bytes(value)});
}

// Adds X-format text options 64 and 66 that take exactly `total` buffer
// bytes (the second at least one value byte), for filling the space.
void fill(DhcpConfigBuilder &cfg, int total) {
  int n = 0;
  auto used = [](int len) { return len + 2 * ((len + 254) / 255); };
  while (used(n + 1) <= total - 3) ++n;
  cfg.add_string(64, std::string(static_cast<std::size_t>(n), 'f'));
  cfg.add_string(66, std::string(static_cast<std::size_t>(total - used(n) - 2), 'g'));
}

bool present_in_options(const Built &b, std::uint8_t code) {
  Bytes o = b.options();
  for (std::size_t i = 0; i + 1 < o.size() && o[i] != 255;) {
    if (o[i] == 0) { ++i; continue; }
    if (o[i] == code) return true;
    i += 2 + o[i + 1];
  }
  return false;
}

}  // namespace

// ---- placing without overload ----

TEST(DhcpConsOptions, WritesCookieOptionsAndEndMark) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_u8(53, 2);
  cfg.add_addr(54, 0xC0A80101);
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.length, 240 + 9 + 1);
  EXPECT_EQ(Bytes(b.msg.begin() + 236, b.msg.begin() + 250), hex_bytes("63 82 53 63 35 01 02 36 04 c0 a8 01 01 ff"));
  EXPECT_EQ(b.msg[250], kUntouched);
}

TEST(DhcpConsOptions, HeaderFileAndSnameAreLeftAloneWithoutOverload) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_u8(53, 2);
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME);
  EXPECT_TRUE(std::all_of(b.msg.begin(), b.msg.begin() + 236, [](std::uint8_t x) { return x == kUntouched; }));
}

TEST(DhcpConsOptions, EmptyConfigurationGivesCookieAndEndMarkOnly) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.length, 241);
  EXPECT_EQ(b.msg[240], 255);
}

TEST(DhcpConsOptions, ThreeHundredBytesFitWholeWithEndMark) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(64, letters(253));
  cfg.add_string(66, letters(43, 'a'));
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE);
  EXPECT_EQ(b.length, 240 + 300 + 1);
  EXPECT_EQ(b.options(), cat({option_bytes(64, letters(253)), option_bytes(66, letters(43, 'a')), {255}}));
}

TEST(DhcpConsOptions, ThreeHundredTenBytesOverload) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(64, letters(253));
  cfg.add_string(66, letters(53, 'a'));
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE);
  EXPECT_EQ(b.length, 243);
  const Bytes buffer = cat({option_bytes(64, letters(253)), option_bytes(66, letters(53, 'a'))});
  ASSERT_EQ(buffer.size(), 310u);
  EXPECT_EQ(Bytes(b.msg.begin() + 240, b.msg.begin() + 243), hex_bytes("34 01 01"));
  EXPECT_EQ(Bytes(b.msg.begin() + 243, b.msg.begin() + 548), Bytes(buffer.begin(), buffer.begin() + 305));
  // The rest of the options field is not written.
  EXPECT_EQ(Bytes(b.msg.begin() + 548, b.msg.begin() + 552), Bytes(4, kUntouched));
  Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 5), Bytes(buffer.begin() + 305, buffer.end()));
  EXPECT_EQ(file[5], 255);
  EXPECT_TRUE(std::all_of(file.begin() + 6, file.end(), [](std::uint8_t x) { return x == 0; }));
  EXPECT_EQ(b.sname(), Bytes(64, kUntouched));
}

TEST(DhcpConsOptions, StoreCopyFillingTheFieldExactlyGetsNoEndMark) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(60, Bytes(58, 'v'));  // 60 buffer bytes: 64 - 4
  Built b = build(mem.ops(), cfg, peer.slots, 0, 0, 1);
  EXPECT_EQ(b.length, 240 + 60);
  EXPECT_EQ(b.msg[300], kUntouched);
}

TEST(DhcpConsOptions, EndMarkWhenFourBytesWouldRemain) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(60, Bytes(57, 'v'));  // 59 buffer bytes
  Built b = build(mem.ops(), cfg, peer.slots, 0, 0, 1);
  EXPECT_EQ(b.length, 240 + 59 + 1);
  EXPECT_EQ(b.msg[299], 255);
}

// ---- the options space ----

TEST(DhcpConsOptions, ShortAreaIsSixtyFourBytes) {
  DhcpTestMemops mem;
  for (int extra : {0, 1}) {
    DhcpConfigBuilder cfg(mem.ops());
    fill(cfg, 57 + extra);
    Built b = build(mem.ops(), cfg, nullptr, 0, 0, 1);
    EXPECT_EQ(present_in_options(b, 66), extra == 0) << extra;
  }
}

TEST(DhcpConsOptions, DefaultAreaIs312Bytes) {
  DhcpTestMemops mem;
  for (int extra : {0, 1}) {
    DhcpConfigBuilder cfg(mem.ops());
    fill(cfg, 305 + extra);
    Built b = build(mem.ops(), cfg, nullptr, 0);
    EXPECT_EQ(present_in_options(b, 66), extra == 0) << extra;
    if (extra == 0) {
      EXPECT_EQ(b.length, 240 + 305 + 1);
    }
  }
}

struct SpaceCase {
  unsigned max_size;
  int space;
};

class DhcpConsSpace : public ::testing::TestWithParam<SpaceCase> {};

// The peer's maximum message size, less 264 header bytes, within 312..4096.
TEST_P(DhcpConsSpace, PeerMaximumMessageSizeSetsTheSpace) {
  const SpaceCase c = GetParam();
  DhcpTestMemops mem;
  for (int extra : {0, 1}) {
    SCOPED_TRACE(extra);
    DhcpConfigBuilder cfg(mem.ops());
    PeerStore peer(mem.ops());
    peer.max_size(c.max_size);
    cfg.add_u16(57, 1500);  // configured, so the peer's copy stays out
    fill(cfg, c.space - 7 - 4 + extra);
    // short_area has no effect when the peer gave a maximum size.
    Built b = build(mem.ops(), cfg, peer.slots, 0, 0, 1);
    EXPECT_EQ(present_in_options(b, 66), extra == 0);
    if (extra == 0) {
      EXPECT_EQ(b.length, 240 + c.space - 7 + 1);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(MaximumSizes, DhcpConsSpace,
                         ::testing::Values(SpaceCase{576, 312}, SpaceCase{1500, 1236}, SpaceCase{9000, 4096},
                                           SpaceCase{300, 312}, SpaceCase{4360, 4096}, SpaceCase{4359, 4095},
                                           SpaceCase{577, 313}));

TEST(DhcpConsOptions, OneByteMaximumSizeReadsOnIntoTheParsersNul) {
  DhcpTestMemops mem;
  PeerStore peer(mem.ops());
  // As parsed: 57 with the single byte 0x05 (then the NUL): 0x0500 = 1280.
  Bytes area = hex_bytes("39 01 05 ff");
  ASSERT_EQ(dhcp_parse_option_buffer(mem.ops(), area.data(), 3, peer.slots), 0);
  for (int extra : {0, 1}) {
    DhcpConfigBuilder cfg(mem.ops());
    cfg.add_u16(57, 1500);
    fill(cfg, 1280 - 264 - 7 - 4 + extra);
    Built b = build(mem.ops(), cfg, peer.slots, 0);
    EXPECT_EQ(present_in_options(b, 66), extra == 0) << extra;
  }
}

// ---- order ----

TEST(DhcpConsOptions, LeadingCodesComeFirstAnd82Last) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(82)->value.suboptions = cfg.sub_list({{1, "p"}});
  cfg.add_string(56, "m");
  cfg.add_addr(1, 0xFFFFFF00);
  cfg.add_i32(51, 60);
  cfg.add_addr(54, 0x0A000001);
  cfg.add_u8(53, 5);
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.options(), hex_bytes("35 01 05  36 04 0a 00 00 01  33 04 00 00 00 3c  38 01 6d  01 04 ff ff ff 00"
                                   "52 03 01 01 70  ff"));
}

TEST(DhcpConsOptions, DefaultOrderStartsWithRequestedAddressAndPuts12Before7) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_addrs(7, {0x01020304});
  cfg.add_string(12, "h");
  cfg.add_addr(1, 0xFFFFFF00);
  cfg.add(61)->value.bytes = cfg.byte_list({1});
  cfg.add_u8(52, 0);
  cfg.add_addr(50, 0x0A000002);
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.options(), hex_bytes("32 04 0a 00 00 02  34 01 00  3d 01 01  01 04 ff ff ff 00  0c 01 68"
                                   "07 04 01 02 03 04  ff"));
}

TEST(DhcpConsOptions, DefaultOrderPutsLateCodesBeforeTheRest) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(64, "x");
  cfg.add(158)->value.pcp_servers = cfg.pcp_list({{0x01020304}});
  cfg.add(121)->value.routes = cfg.route_list({{0, 0, 0x0A000001}});
  cfg.add(55)->value.bytes = cfg.byte_list({1});
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.options(), hex_bytes("37 01 01  79 05 00 0a 00 00 01  9e 05 04 01 02 03 04  40 01 78  ff"));
}

TEST(DhcpConsOptions, Option77IsNotInTheDefaultOrder) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(77);
  Built b = build(mem.ops(), cfg, nullptr, 0, 1);
  EXPECT_EQ(b.options(), hex_bytes("ff"));
}

TEST(DhcpConsOptions, Option77IsWrittenWhenRequestedAsALoneNul) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(55, {77});
  cfg.add(77);
  cfg.add_u8(55, 0);  // keeps the peer's request list out of the reply
  Built b = build(mem.ops(), cfg, peer.slots, 0, 1);
  EXPECT_EQ(b.options(), hex_bytes("4d 01 00 ff"));
}

TEST(DhcpConsOptions, RequestListSetsTheOrder) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(55, {6, 3, 1});
  cfg.add_addr(1, 0xFFFFFF00);
  cfg.add_addrs(3, {0x0A000001});
  cfg.add_addrs(6, {0x0A000002});
  cfg.add(55)->value.bytes = cfg.byte_list({1});
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("06 04 0a 00 00 02  03 04 0a 00 00 01  01 04 ff ff ff 00 ff"));
}

TEST(DhcpConsOptions, CodeRequestedTwiceIsWrittenOnce) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(55, {3, 3, 1, 3});
  cfg.add_addr(1, 0xFFFFFF00);
  cfg.add_addrs(3, {0x0A000001});
  cfg.add(55);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("03 04 0a 00 00 01  01 04 ff ff ff 00 ff"));
}

TEST(DhcpConsOptions, ConfiguredOptionNotRequestedIsNotWritten) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(55, {1});
  cfg.add_addr(1, 0xFFFFFF00);
  cfg.add_addrs(6, {0x0A000002});
  cfg.add(55);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("01 04 ff ff ff 00 ff"));
}

TEST(DhcpConsOptions, OnlyTheFirst296RequestedCodesCount) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  Bytes request(296, 7);
  request.push_back(1);
  peer.set(55, request);
  cfg.add_addr(1, 0xFFFFFF00);
  cfg.add(55);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("ff"));
}

TEST(DhcpConsOptions, FirstRecordOfACodeWins) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_u8(53, 2);
  cfg.add_u8(53, 5);
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.options(), hex_bytes("35 01 02 ff"));
}

TEST(DhcpConsOptions, OptionWithoutMemberIsNeverWritten) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(62)->value.u32 = 0x01020304;
  Built b = build(mem.ops(), cfg, nullptr, 0, 1);
  EXPECT_EQ(b.options(), hex_bytes("ff"));
}

// ---- the peer's options ----

TEST(DhcpConsOptions, UnconfiguredStoreOptionsAreCopiedInCodeOrder) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(82, hex_bytes("01 02 aa bb"));
  peer.set(12, text_bytes("peer"));
  cfg.add_u8(53, 5);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("35 01 05  0c 04 70 65 65 72  52 04 01 02 aa bb  ff"));
}

TEST(DhcpConsOptions, ConfiguredStoreOptionIsNotCopied) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(12, text_bytes("peer"));
  peer.set(55, {53});
  cfg.add_u8(53, 5);
  cfg.add_string(12, "mine");  // configured but not requested: neither copy goes out
  cfg.add(55);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("35 01 05 ff"));
}

TEST(DhcpConsOptions, CopiedStoreOptionCarriesTheLowByteOfItsLength) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(43, Bytes(300, 0x5A));
  Built b = build(mem.ops(), cfg, peer.slots, 0, 0, 0);
  // 302 buffer bytes in a 312-byte field: no overload, no capacity check.
  EXPECT_EQ(b.length, 240 + 302 + 1);
  EXPECT_EQ(b.msg[240], 43);
  EXPECT_EQ(b.msg[241], 300 & 0xFF);
  EXPECT_EQ(Bytes(b.msg.begin() + 242, b.msg.begin() + 542), Bytes(300, 0x5A));
}

TEST(DhcpConsOptions, EmptyStoreSlotIsNotCopied) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  Bytes area = hex_bytes("50 00 ff");  // the area and the byte after it
  ASSERT_EQ(dhcp_parse_option_buffer(mem.ops(), area.data(), 2, peer.slots), 0);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("ff"));
}

// ---- values that do not fit ----

TEST(DhcpConsOptions, OptionThatDoesNotFitIsDroppedAndALaterSmallerOneStillFits) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, letters(50));
  cfg.add_string(14, letters(10));
  cfg.add_string(15, "z");
  Built b = build(mem.ops(), cfg, nullptr, 0, 0, 1);
  EXPECT_EQ(b.options(), cat({option_bytes(12, letters(50)), option_bytes(15, "z"), {255}}));
}

TEST(DhcpConsOptions, OptionLargerThanAllFieldsIsDroppedWhole) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_u8(53, 5);
  cfg.add_string(64, std::string(600, 'x'));
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME);
  EXPECT_EQ(b.options(), hex_bytes("35 01 05 ff"));
}

// ---- text options ----

TEST(DhcpConsOptions, TextNulTerminatesHostName) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, "box");
  Built b = build(mem.ops(), cfg, nullptr, 0, 1);
  EXPECT_EQ(b.options(), hex_bytes("0c 04 62 6f 78 00 ff"));
}

TEST(DhcpConsOptions, WithoutTextNulHostNameHasNoTerminator) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, "box");
  Built b = build(mem.ops(), cfg, nullptr, 0, 0);
  EXPECT_EQ(b.options(), hex_bytes("0c 03 62 6f 78 ff"));
}

TEST(DhcpConsOptions, TextNulLeavesOpaqueStringsAlone) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(67, "pxe");  // boot file name: opaque format
  Built b = build(mem.ops(), cfg, nullptr, 0, 1);
  EXPECT_EQ(b.options(), hex_bytes("43 03 70 78 65 ff"));
}

TEST(DhcpConsOptions, TextNulWritesAMissingStringAsALoneNul) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(15);
  Built b = build(mem.ops(), cfg, nullptr, 0, 1);
  EXPECT_EQ(b.options(), hex_bytes("0f 01 00 ff"));
}

TEST(DhcpConsOptions, MissingStringWithoutTextNulIsSkipped) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(15);
  cfg.add(6);  // address list without elements
  Built b = build(mem.ops(), cfg, nullptr, 0, 0);
  EXPECT_EQ(b.options(), hex_bytes("ff"));
}

TEST(DhcpConsOptions, EmptyStringWritesNothing) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(15, "");
  Built b = build(mem.ops(), cfg, nullptr, 0, 0);
  EXPECT_EQ(b.options(), hex_bytes("ff"));
}

// ---- values by member type ----

TEST(DhcpConsOptions, ScalarMemberTypesAreBigEndian) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(55, {2, 13, 19, 23, 28});
  cfg.add_i32(2, -3600);
  cfg.add_u16(13, 0x1234);
  cfg.add_i32(19, 1);  // a boolean goes out in all its 32 bits
  cfg.add_u8(23, 64);
  cfg.add_addr(28, 0xC0A801FF);
  cfg.add(55);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.options(), hex_bytes("02 04 ff ff f1 f0  0d 02 12 34  13 04 00 00 00 01  17 01 40  1c 04 c0 a8 01 ff  ff"));
}

TEST(DhcpConsOptions, StructuredValues) {
  struct Case {
    int code;
    Bytes expected;
  };
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(21)->value.ipnets = cfg.net_list({{0x0A000000, 0xFF000000}, {0xC0A80000, 0xFFFF0000}});
  cfg.add(25)->value.words = cfg.word_list({576, 1500});
  cfg.add(33)->value.ipnets = cfg.net_list({{0xC0A80200, 0xC0A80101}});
  cfg.add(43)->value.suboptions = cfg.sub_list({{1, "ab"}, {2, "", false}, {3, "xyz"}, {4, ""}});
  cfg.add(55)->value.bytes = cfg.byte_list({1, 3, 6, 15});
  cfg.add(61)->value.bytes = cfg.byte_list({1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
  cfg.add(121)->value.routes = cfg.route_list({{0x0A0B0C0D, 8, 0x0A000001},
                                               {0xAC10FFFF, 12, 0xC0A80001},
                                               {0xC0A801FF, 24, 0xC0A80101},
                                               {0, 0, 0xC0A80001},
                                               {0xC0A80181, 25, 0xC0A80101},
                                               {0xC0A80109, 32, 0xC0A80101}});
  cfg.add(249)->value.routes = cfg.route_list({{0xC0A80000, 16, 0xC0A80001}});
  cfg.add(124)->value.vendors = cfg.vendor_list({{3561, {{1, "a"}}}});
  cfg.add(125)->value.vendors = cfg.vendor_list({{4491, {{1, "cfg"}, {2, "xy"}}}, {3561, {}}});
  cfg.add(158)->value.pcp_servers = cfg.pcp_list({{0x0A000001, 0x0A000002}, {0x0A000003}});
  dhcpoptions_record *sixrd = cfg.add(212);
  sixrd->value.sixrd.ipv4masklen = 8;
  sixrd->value.sixrd.prefixlen = 32;
  std::memcpy(sixrd->value.sixrd.prefix, "\x20\x01\x0d\xb8", 4);
  sixrd->value.sixrd.borderrouter = cfg.addr_list({0xC0000201});
  const std::vector<Case> cases = {
      {21, hex_bytes("0a 00 00 00 ff 00 00 00 c0 a8 00 00 ff ff 00 00")},
      {25, hex_bytes("02 40 05 dc")},
      {33, hex_bytes("c0 a8 02 00 c0 a8 01 01")},
      {43, hex_bytes("01 02 61 62 03 03 78 79 7a 04 00")},
      {55, hex_bytes("01 03 06 0f")},
      {61, hex_bytes("01 00 11 22 33 44 55")},
      {121, hex_bytes("08 0a 0a 00 00 01  0c ac 10 c0 a8 00 01  18 c0 a8 01 c0 a8 01 01  00 c0 a8 00 01"
                      "19 c0 a8 01 80 c0 a8 01 01  20 c0 a8 01 09 c0 a8 01 01")},
      {249, hex_bytes("10 c0 a8 c0 a8 00 01")},
      {124, hex_bytes("00 00 0d e9 03 01 01 61")},
      {125, hex_bytes("00 00 11 8b 09 01 03 63 66 67 02 02 78 79  00 00 0d e9 00")},
      {158, hex_bytes("08 0a 00 00 01 0a 00 00 02 04 0a 00 00 03")},
      {212, hex_bytes("08 20 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 00 c0 00 02 01")},
  };
  PeerStore peer(mem.ops());
  Bytes request;
  for (const Case &c : cases) request.push_back(static_cast<std::uint8_t>(c.code));
  peer.set(55, request);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  Bytes expected;
  for (const Case &c : cases) expected = cat({expected, {static_cast<std::uint8_t>(c.code), static_cast<std::uint8_t>(c.expected.size())}, c.expected});
  expected.push_back(255);
  EXPECT_EQ(b.options(), expected);
}

TEST(DhcpConsOptions, PcpGroupWithoutAddressesIsCountedButNotWritten) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add(158)->value.pcp_servers = cfg.pcp_list({{0x0A000001}, {}, {0x0A000002}});
  Built b = build(mem.ops(), cfg, nullptr, 0);
  // Eleven bytes counted, ten written: the last is what the working buffer
  // held there, zero in a fresh buffer.
  EXPECT_EQ(b.options(), hex_bytes("9e 0b 04 0a 00 00 01 04 0a 00 00 02 00 ff"));
}

TEST(DhcpConsOptions, PcpGroupWithoutAddressesKeepsStaleBufferBytes) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(55, {60, 158});
  // Option 60 gets two fragments written from offset 0 before its third
  // does not fit; it is taken back and 158 is written over the same bytes.
  cfg.add_string(60, letters(600, 'a'));
  cfg.add(158)->value.pcp_servers = cfg.pcp_list({{0x0A000001}, {}});
  cfg.add(55);
  Built b = build(mem.ops(), cfg, peer.slots, DHCP_OVERLOAD_FILE);
  // The sixth value byte is the sixth value byte of option 60: 'f'.
  EXPECT_EQ(b.options(), hex_bytes("9e 06 04 0a 00 00 01 66 ff"));
}

TEST(DhcpConsOptions, LongValueIsSplitRepeatingItsFirstBytes) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(64, letters(300));
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.options(), cat({option_bytes(64, letters(255)), option_bytes(64, letters(45)), {255}}));
}

TEST(DhcpConsOptions, TextNulEndsTheLastFragment) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, letters(260));
  Built b = build(mem.ops(), cfg, nullptr, 0, 1);
  std::string tail = letters(6);
  tail[5] = '\0';
  EXPECT_EQ(b.options(), cat({option_bytes(12, letters(255)), option_bytes(12, tail), {255}}));
}

// ---- overload ----

TEST(DhcpConsOptions, FragmentIsSplitSevenBytesBeyondTheFieldEndAndRepeatsItsStart) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, letters(253, 'a'));  // buffer 0..255
  cfg.add_string(14, letters(43, 'a'));   // 255..300
  cfg.add_string(15, letters(30));        // 300..312 and 312..334
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE);
  EXPECT_EQ(b.length, 243);
  EXPECT_EQ(Bytes(b.msg.begin() + 240, b.msg.begin() + 243), hex_bytes("34 01 01"));
  // The options field takes buffer bytes 0..305: the first fragment of 15
  // is cut after three value bytes.
  EXPECT_EQ(Bytes(b.msg.begin() + 543, b.msg.begin() + 548), text_bytes("\x0f\x0a" "ABC"));
  Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 29), cat({text_bytes("DEFGHIJ"), option_bytes(15, letters(20))}));
  EXPECT_EQ(file[29], 255);
  EXPECT_TRUE(std::all_of(file.begin() + 30, file.end(), [](std::uint8_t x) { return x == 0; }));
}

TEST(DhcpConsOptions, OverloadValueIsThreeBeyond434BufferBytesEvenIfSnameIsNotAllowed) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(43, Bytes(200, 0x42));  // copied without capacity check
  fill(cfg, 305);
  Built b = build(mem.ops(), cfg, peer.slots, DHCP_OVERLOAD_FILE);
  EXPECT_EQ(b.length, 243);
  EXPECT_EQ(Bytes(b.msg.begin() + 240, b.msg.begin() + 243), hex_bytes("34 01 03"));
  // file holds buffer bytes 305..433: the start of the copied option 43.
  const Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 3), hex_bytes("2b c8 42"));
  EXPECT_EQ(b.sname(), Bytes(64, kUntouched));
}

TEST(DhcpConsOptions, OverloadWithNoFieldAllowedStillMarksOverloadAndCuts) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(43, Bytes(20, 0x42));
  fill(cfg, 305);
  Built b = build(mem.ops(), cfg, peer.slots, 0);
  EXPECT_EQ(b.length, 243);
  EXPECT_EQ(Bytes(b.msg.begin() + 240, b.msg.begin() + 243), hex_bytes("34 01 01"));
  EXPECT_EQ(b.file(), Bytes(128, kUntouched));
  EXPECT_EQ(b.sname(), Bytes(64, kUntouched));
}

TEST(DhcpConsOptions, SnameTakesTheRestAndItsEndMarkGoesIntoFile) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  // Buffer: 12 @0..255, 14 @255..300, 15 @300..312, 17 @312..440, 18 @440..450.
  cfg.add_string(12, letters(253, 'a'));
  cfg.add_string(14, letters(43, 'a'));
  cfg.add_string(15, letters(10, 'a'));
  cfg.add_string(17, letters(126));
  cfg.add_string(18, "abcdefgh");
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME);
  const Bytes buffer = cat({option_bytes(12, letters(253, 'a')), option_bytes(14, letters(43, 'a')),
                            option_bytes(15, letters(10, 'a')), option_bytes(17, letters(126)),
                            option_bytes(18, "abcdefgh")});
  ASSERT_EQ(buffer.size(), 450u);
  EXPECT_EQ(b.length, 243);
  EXPECT_EQ(Bytes(b.msg.begin() + 240, b.msg.begin() + 243), hex_bytes("34 01 03"));
  Bytes sname = b.sname();
  EXPECT_EQ(Bytes(sname.begin(), sname.begin() + 17), Bytes(buffer.begin() + 433, buffer.end()));
  EXPECT_EQ(Bytes(sname.begin() + 17, sname.end()), Bytes(47, kUntouched));
  // `file` got buffer bytes 305..433, then the end mark of `sname` at
  // offset 17 and zeros up to offset 64.
  Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 17), Bytes(buffer.begin() + 305, buffer.begin() + 322));
  EXPECT_EQ(file[17], 255);
  EXPECT_EQ(Bytes(file.begin() + 18, file.begin() + 64), Bytes(46, 0));
  EXPECT_EQ(Bytes(file.begin() + 64, file.end()), Bytes(buffer.begin() + 369, buffer.begin() + 433));
}

TEST(DhcpConsOptions, WhenFileTakesTheRestSnameGetsTheSameBytes) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, letters(253, 'a'));
  cfg.add_string(14, letters(43, 'a'));
  cfg.add_string(15, letters(10, 'a'));  // 300..312
  cfg.add_string(17, "0123456789");      // 312..324
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME);
  EXPECT_EQ(b.length, 243);
  EXPECT_EQ(Bytes(b.msg.begin() + 240, b.msg.begin() + 243), hex_bytes("34 01 01"));
  const Bytes rest = cat({text_bytes("defghij"), option_bytes(17, "0123456789")});
  ASSERT_EQ(rest.size(), 19u);
  Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 19), rest);
  EXPECT_EQ(file[19], 255);
  EXPECT_TRUE(std::all_of(file.begin() + 20, file.end(), [](std::uint8_t x) { return x == 0; }));
  Bytes sname = b.sname();
  EXPECT_EQ(Bytes(sname.begin(), sname.begin() + 19), rest);
  EXPECT_EQ(Bytes(sname.begin() + 19, sname.end()), Bytes(45, kUntouched));
}

TEST(DhcpConsOptions, FragmentStartingTwoBytesBeforeTheSplitPointIsEmpty) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, letters(253, 'a'));
  cfg.add_string(14, letters(43, 'a'));
  cfg.add_string(15, letters(8, 'a'));  // 300..310
  cfg.add_string(17, "0123456789");     // 310..312 empty, 312..324
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE);
  EXPECT_EQ(b.length, 243);
  const Bytes rest = cat({text_bytes("defgh"), {17, 0}, option_bytes(17, "0123456789")});
  Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 19), rest);
  EXPECT_EQ(file[19], 255);
}

TEST(DhcpConsOptions, FragmentStartingOneByteBeforeTheSplitPointIsNotSplit) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, letters(253, 'a'));
  cfg.add_string(14, letters(43, 'a'));
  cfg.add_string(15, letters(9, 'a'));  // 300..311
  cfg.add_string(17, "0123456789");     // 311..323, whole
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_FILE);
  EXPECT_EQ(b.length, 243);
  const Bytes rest = cat({text_bytes("defghi"), option_bytes(17, "0123456789")});
  Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 18), rest);
  EXPECT_EQ(file[18], 255);
}

TEST(DhcpConsOptions, SnameOnlyOverloadMarksFileAndPutsTheEndMarkIntoFile) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_string(12, letters(253, 'a'));
  cfg.add_string(14, letters(43, 'a'));
  cfg.add_string(15, letters(10, 'a'));  // 300..312
  cfg.add_string(17, "0123456789");      // 312..324
  Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_SNAME);
  EXPECT_EQ(b.length, 243);
  // The overload value names `file` although only `sname` was filled.
  EXPECT_EQ(Bytes(b.msg.begin() + 240, b.msg.begin() + 243), hex_bytes("34 01 01"));
  const Bytes rest = cat({text_bytes("defghij"), option_bytes(17, "0123456789")});
  Bytes sname = b.sname();
  EXPECT_EQ(Bytes(sname.begin(), sname.begin() + 19), rest);
  EXPECT_EQ(Bytes(sname.begin() + 19, sname.end()), Bytes(45, kUntouched));
  Bytes file = b.file();
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 19), Bytes(19, kUntouched));
  EXPECT_EQ(file[19], 255);
  EXPECT_EQ(Bytes(file.begin() + 20, file.begin() + 64), Bytes(44, 0));
  EXPECT_EQ(Bytes(file.begin() + 64, file.end()), Bytes(64, kUntouched));
}

TEST(DhcpConsOptions, SnameOnlyCapacityIsSixtyFourBytesBeyondTheField) {
  DhcpTestMemops mem;
  for (int extra : {0, 1}) {
    SCOPED_TRACE(extra);
    DhcpConfigBuilder cfg(mem.ops());
    fill(cfg, 305);
    // 305..312 (5 value bytes), then 312..369+extra.
    cfg.add_string(67, letters(60 + static_cast<std::size_t>(extra)));
    Built b = build(mem.ops(), cfg, nullptr, DHCP_OVERLOAD_SNAME);
    if (extra == 0) {
      EXPECT_EQ(b.length, 243);
      EXPECT_EQ(b.sname()[0], 67);
    } else {
      EXPECT_EQ(b.length, 240 + 305 + 1);
    }
  }
}

TEST(DhcpConsOptions, SnameIsLeftAsItIsWhenMoreThan64BytesRemain) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.set(43, Bytes(250, 0x42));
  fill(cfg, 305);
  Built b = build(mem.ops(), cfg, peer.slots, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME);
  EXPECT_EQ(b.length, 243);
  EXPECT_EQ(b.sname(), Bytes(64, kUntouched));
}

TEST(DhcpConsOptions, CapacityCountsSnameOnlyWhenAllowed) {
  DhcpTestMemops mem;
  for (int overload : {DHCP_OVERLOAD_FILE, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME}) {
    SCOPED_TRACE(overload);
    DhcpConfigBuilder cfg(mem.ops());
    fill(cfg, 305);
    cfg.add_string(67, letters(140));  // 305..451 in three fragments: fits only with sname
    Built b = build(mem.ops(), cfg, nullptr, overload);
    if (overload == DHCP_OVERLOAD_FILE) {
      EXPECT_EQ(b.length, 240 + 305 + 1);
    } else {
      EXPECT_EQ(b.length, 243);
      EXPECT_EQ(b.file()[0], 67);
      EXPECT_EQ(b.file()[1], 5);
    }
  }
}

TEST(DhcpConsOptions, OptionsNeverRunPastTheWorkingBuffer) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  PeerStore peer(mem.ops());
  peer.max_size(9000);  // space 4096: with both fields the capacity exceeds the 4096-byte buffer
  cfg.add_u16(57, 1500);
  fill(cfg, 4089 - 4);
  cfg.add_string(67, letters(100));  // 5 bytes up to 4096, then 95 more: beyond the buffer
  Built b = build(mem.ops(), cfg, peer.slots, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME);
  // Option 67 is taken back whole; the 4089 bytes before it fit the field.
  EXPECT_EQ(b.length, 240 + 4089 + 1);
  EXPECT_EQ(b.msg[240 + 4089], 255);
  EXPECT_EQ(b.file(), Bytes(128, kUntouched));
}

// ---- working storage ----

TEST(DhcpConsOptions, TakesA4096ByteBufferAndA300BytePriorityList) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  const long before = mem.attempts();
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(mem.attempts() - before, 2);
  EXPECT_EQ(mem.requested()[static_cast<std::size_t>(before)], 4096u);
  EXPECT_EQ(mem.requested()[static_cast<std::size_t>(before) + 1], 300u);
  EXPECT_EQ(mem.live(), 0);
}

TEST(DhcpConsOptions, FailingBufferAllocationGivesZeroAndLeavesTheMessage) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_u8(53, 5);
  const long live = mem.live();
  mem.fail_nth(1);
  Built b = build(mem.ops(), cfg, nullptr, 3);
  EXPECT_EQ(b.length, 0);
  EXPECT_EQ(b.msg, Bytes(kMsgSize, kUntouched));
  EXPECT_EQ(mem.live(), live);
}

TEST(DhcpConsOptions, FailingPriorityListAllocationReleasesTheBuffer) {
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_u8(53, 5);
  const long live = mem.live();
  mem.fail_nth(2);
  Built b = build(mem.ops(), cfg, nullptr, 3);
  EXPECT_EQ(b.length, 0);
  EXPECT_EQ(b.msg, Bytes(kMsgSize, kUntouched));
  EXPECT_EQ(mem.live(), live);
}

TEST(DhcpConsOptions, DoesNotUseThePlatformAllocators) {
  testsupport::NoLeakGuard guard;
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  cfg.add_u8(53, 5);
  nuvcsock_fail_from_allocation(1);
  const long before = nuvcsock_allocations();
  Built b = build(mem.ops(), cfg, nullptr, 0);
  EXPECT_EQ(b.length, 244);
  EXPECT_EQ(nuvcsock_allocations(), before);
}
