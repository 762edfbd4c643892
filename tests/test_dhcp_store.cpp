// The DHCP option store: editing slots, parsing option areas and whole
// messages, and every allocation failure on the way.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
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

using Store = testsupport::DhcpStore;

// An option area copied into a buffer of exactly its length plus the one
// byte after it that the parser may look at (`after`).
Bytes area_with_trailer(const Bytes &area, std::uint8_t after) {
  Bytes b = area;
  b.push_back(after);
  return b;
}

int parse_area(Store &store, const Bytes &area, std::uint8_t after = 0xEE) {
  Bytes buf = area_with_trailer(area, after);
  return dhcp_parse_option_buffer(store.ops, buf.data(), static_cast<int32_t>(area.size()), store.slots);
}

// A DHCP message: 236 header bytes (zero), cookie, options; `file` and
// `sname` filled from the given bytes (the rest stays zero).
Bytes message(const Bytes &options, const Bytes &file = {}, const Bytes &sname = {}) {
  Bytes m(236, 0);
  std::copy(file.begin(), file.end(), m.begin() + 108);
  std::copy(sname.begin(), sname.end(), m.begin() + 44);
  for (std::uint8_t b : {0x63, 0x82, 0x53, 0x63}) m.push_back(b);
  m.insert(m.end(), options.begin(), options.end());
  return m;
}

int parse_message(Store &store, const Bytes &msg) {
  Bytes buf = msg;
  buf.push_back(0xEE);  // the byte after the options field may be looked at
  return dhcp_parse_options(store.ops, buf.data(), static_cast<int32_t>(msg.size()), store.slots);
}

}  // namespace

// ---- dhcp_set_option / dhcp_free_option / dhcp_free_options ----

TEST(DhcpSetOption, CopiesTheValueWithExactLengthAndNoTerminator) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  const char value[] = "router";
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 12, 6, value), 0);
  EXPECT_EQ(store.slots[12].len, 6u);
  EXPECT_EQ(store.value(12), "router");
  EXPECT_NE(store.slots[12].data, reinterpret_cast<const unsigned char *>(value));
  ASSERT_EQ(mem.requested().size(), 1u);
  EXPECT_EQ(mem.requested()[0], 6u);
}

TEST(DhcpSetOption, CodeZeroIsRefused) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 0, 1, "x"), -1);
  EXPECT_EQ(store.present(), 0);
  EXPECT_EQ(mem.attempts(), 0);
}

TEST(DhcpSetOption, Code256IsRefused) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 256, 1, "x"), -1);
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, -1, 1, "x"), -1);
  EXPECT_EQ(store.present(), 0);
  EXPECT_EQ(mem.attempts(), 0);
}

TEST(DhcpSetOption, Code255IsAccepted) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 255, 1, "x"), 0);
  EXPECT_EQ(store.value(255), "x");
}

TEST(DhcpSetOption, ReplacingReleasesThePreviousValue) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 3, "old"), 0);
  const unsigned char *old = store.slots[15].data;
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 5, "newer"), 0);
  EXPECT_FALSE(mem.is_live(old));
  EXPECT_EQ(store.value(15), "newer");
  EXPECT_EQ(mem.live(), 1);
}

TEST(DhcpSetOption, FailedAllocationLeavesTheSlotAbsentWithItsOldLength) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 3, "old"), 0);
  unsigned char *old = store.slots[15].data;
  mem.fail_nth(1);
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 5, "newer"), -1);
  EXPECT_EQ(store.slots[15].data, nullptr);
  EXPECT_EQ(store.slots[15].len, 3u);
  mem.ops()->free(old);
}

TEST(DhcpSetOption, FailedAllocationLeavesThePreviousBlockToTheCaller) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 3, "old"), 0);
  unsigned char *old = store.slots[15].data;  // read before the call: now the caller's
  mem.fail_nth(1);
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 5, "newer"), -1);
  EXPECT_TRUE(mem.is_live(old));
  EXPECT_EQ(std::memcmp(old, "old", 3), 0);
  mem.ops()->free(old);
  EXPECT_EQ(mem.live(), 0);
}

TEST(DhcpSetOption, NewValueMayBeTakenFromTheOldOne) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 7, "example"), 0);
  // The last three bytes of the old value become the new value; the old
  // block is read before it is released.
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 15, 3, store.slots[15].data + 4), 0);
  ASSERT_EQ(store.slots[15].len, 3u);
  EXPECT_EQ(std::memcmp(store.slots[15].data, "ple", 3), 0);
  EXPECT_EQ(mem.live(), 1);
}

TEST(DhcpSetOption, FailedAllocationOfAnEmptySlotReturnsMinusOne) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  mem.fail_nth(1);
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 1, 4, "\xff\xff\xff\x00"), -1);
  EXPECT_EQ(store.slots[1].data, nullptr);
  EXPECT_EQ(store.slots[1].len, 0u);
  EXPECT_EQ(mem.live(), 0);
}

TEST(DhcpSetOption, ZeroLengthValueIsWhateverAllocZeroGives) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // The test allocator hands out a block for a request of 0 bytes.
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 80, 0, nullptr), 0);
  ASSERT_EQ(mem.requested().size(), 1u);
  EXPECT_EQ(mem.requested()[0], 0u);
  EXPECT_NE(store.slots[80].data, nullptr);
  EXPECT_EQ(store.slots[80].len, 0u);
}

TEST(DhcpSetOption, DoesNotUseThePlatformAllocators) {
  testsupport::NoLeakGuard guard;
  DhcpTestMemops mem;
  Store store(mem.ops());
  const long before = nuvcsock_allocations();
  nuvcsock_fail_from_allocation(1);
  EXPECT_EQ(dhcp_set_option(mem.ops(), store.slots, 12, 2, "ok"), 0);
  EXPECT_EQ(nuvcsock_allocations(), before);
}

TEST(DhcpFreeOption, ReleasesAndEmptiesTheSlot) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 60, 4, "MSFT"), 0);
  EXPECT_EQ(dhcp_free_option(mem.ops(), store.slots, 60), 0);
  EXPECT_EQ(store.slots[60].data, nullptr);
  EXPECT_EQ(store.slots[60].len, 0u);
  EXPECT_EQ(mem.live(), 0);
}

TEST(DhcpFreeOption, EmptySlotGivesZero) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(dhcp_free_option(mem.ops(), store.slots, 60), 0);
}

TEST(DhcpFreeOption, CodesOutsideOneTo255AreRefused) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // Slot 0 holds a value the function must not touch.
  store.slots[0].data = static_cast<unsigned char *>(testsupport::dhcp_test_alloc(1));
  store.slots[0].len = 1;
  EXPECT_EQ(dhcp_free_option(mem.ops(), store.slots, 0), -1);
  EXPECT_NE(store.slots[0].data, nullptr);
  EXPECT_EQ(dhcp_free_option(mem.ops(), store.slots, 256), -1);
}

TEST(DhcpFreeOptions, ClearsAll256SlotsIncludingPadAndEnd) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  for (int code : {0, 1, 128, 255}) {
    store.slots[code].data = static_cast<unsigned char *>(testsupport::dhcp_test_alloc(2));
    store.slots[code].len = 2;
  }
  dhcp_free_options(mem.ops(), store.slots);
  EXPECT_EQ(store.present(), 0);
  for (const dhcp_option &o : store.slots) EXPECT_EQ(o.len, 0u);
  EXPECT_EQ(mem.live(), 0);
}

TEST(DhcpFreeOptions, SlotWithLengthButNoDataIsJustCleared) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  store.slots[7].len = 9;
  dhcp_free_options(mem.ops(), store.slots);
  EXPECT_EQ(store.slots[7].len, 0u);
}

// ---- dhcp_parse_option_buffer ----

TEST(DhcpParseOptionBuffer, OnlyPadBytesUpToTheEndAddNothing) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, Bytes(10, 0)), 0);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpParseOptionBuffer, PadRunFollowedByEndStopsAtTheEnd) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // After the end mark: an option whose length runs far past the area.
  EXPECT_EQ(parse_area(store, hex_bytes("00 00 00 ff 0c 50 61")), 0);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpParseOptionBuffer, EndMarkStopsBeforeLaterOptions) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("35 01 05 ff 0c 02 61 62")), 0);
  EXPECT_EQ(store.value(53), "\x05");
  EXPECT_EQ(store.slots[12].data, nullptr);
}

TEST(DhcpParseOptionBuffer, RepeatedOptionIsConcatenatedAndTerminated) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("0c 02 61 62 0c 02 63 64")), 0);
  EXPECT_EQ(store.slots[12].len, 4u);
  EXPECT_EQ(std::memcmp(store.slots[12].data, "abcd", 5), 0);  // NUL included
  EXPECT_EQ(mem.live(), 1);
}

TEST(DhcpParseOptionBuffer, ParsedValueIsAllocatedWithOneExtraByte) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("0f 03 6c 61 6e")), 0);
  ASSERT_EQ(mem.requested().size(), 1u);
  EXPECT_EQ(mem.requested()[0], 4u);
  EXPECT_STREQ(reinterpret_cast<const char *>(store.slots[15].data), "lan");
}

TEST(DhcpParseOptionBuffer, ZeroLengthOptionIsPresentWithOnlyTheNul) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("50 00")), 0);
  ASSERT_NE(store.slots[80].data, nullptr);
  EXPECT_EQ(store.slots[80].len, 0u);
  EXPECT_EQ(store.slots[80].data[0], 0);
}

TEST(DhcpParseOptionBuffer, LengthPastTheEndGivesMinusOneKeepingEarlierOptions) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("35 01 03 0c 05 61 62")), -1);
  EXPECT_EQ(store.value(53), "\x03");
  EXPECT_EQ(store.slots[12].data, nullptr);
}

TEST(DhcpParseOptionBuffer, OptionEndingExactlyAtTheAreaEndIsAccepted) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("0c 02 61 62")), 0);
  EXPECT_EQ(store.value(12), "ab");
}

TEST(DhcpParseOptionBuffer, CodeByteAsLastAreaByteGivesMinusOne) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // The length byte lies in the byte after the area; even a length of 0
  // would end past the area.
  EXPECT_EQ(parse_area(store, hex_bytes("0c"), 0x00), -1);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpParseOptionBuffer, EndMarkInTheByteAfterTheAreaEndsIt) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("0c 01 61"), 0xff), 0);
  EXPECT_EQ(store.value(12), "a");
}

TEST(DhcpParseOptionBuffer, PadAsLastAreaByteEndsTheArea) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("0c 01 61 00"), 0x0c), 0);
  EXPECT_EQ(store.value(12), "a");
}

TEST(DhcpParseOptionBuffer, EmptyAreaGivesZero) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, Bytes{}, 0x0c), 0);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpParseOptionBuffer, NegativeLengthGivesZero) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes buf = hex_bytes("0c 01 61");
  EXPECT_EQ(dhcp_parse_option_buffer(mem.ops(), buf.data(), -5, store.slots), 0);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpParseOptionBuffer, SecondAreaExtendsOptionsOfTheFirst) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_area(store, hex_bytes("0c 02 61 62")), 0);
  EXPECT_EQ(parse_area(store, hex_bytes("0c 01 63")), 0);
  EXPECT_EQ(store.value(12), "abc");
  EXPECT_EQ(store.slots[12].data[3], 0);
}

TEST(DhcpParseOptionBuffer, ValueSetWithoutTerminatorIsExtendedByParsing) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(dhcp_set_option(mem.ops(), store.slots, 12, 2, "ab"), 0);
  EXPECT_EQ(parse_area(store, hex_bytes("0c 01 63")), 0);
  EXPECT_EQ(store.value(12), "abc");
  EXPECT_EQ(store.slots[12].data[3], 0);
  EXPECT_EQ(mem.live(), 1);
}

TEST(DhcpParseOptionBuffer, AllocationFailureOnNewOptionGivesMinusOne) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  mem.fail_nth(2);
  EXPECT_EQ(parse_area(store, hex_bytes("35 01 01 0c 02 61 62 0f 01 78")), -1);
  EXPECT_EQ(store.value(53), "\x01");
  EXPECT_EQ(store.slots[12].data, nullptr);
  EXPECT_EQ(store.slots[15].data, nullptr);
}

TEST(DhcpParseOptionBuffer, AllocationFailureWhileExtendingKeepsTheOldValue) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  mem.fail_nth(2);
  EXPECT_EQ(parse_area(store, hex_bytes("0c 02 61 62 0c 02 63 64")), -1);
  EXPECT_EQ(store.value(12), "ab");
  EXPECT_EQ(store.slots[12].data[2], 0);
  EXPECT_EQ(mem.live(), 1);
}

TEST(DhcpParseOptionBuffer, EveryAllocationFailureLeavesNoLeakAfterFreeOptions) {
  const Bytes area = hex_bytes("35 01 01 0c 02 61 62 3d 07 01 00 11 22 33 44 55 0c 02 63 64 37 03 01 03 06");
  for (long n = 1; n <= 5; ++n) {
    SCOPED_TRACE(n);
    DhcpTestMemops mem;
    Store store(mem.ops());
    mem.fail_nth(n);
    EXPECT_EQ(parse_area(store, area), -1);
    EXPECT_EQ(store.present(), std::min<long>(n - 1, 3));
    dhcp_free_options(mem.ops(), store.slots);
    EXPECT_EQ(mem.live(), 0);
  }
}

TEST(DhcpParseOptionBuffer, StoreNeverPointsIntoTheArea) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes buf = hex_bytes("0c 02 61 62 ff");
  ASSERT_EQ(dhcp_parse_option_buffer(mem.ops(), buf.data(), 4, store.slots), 0);
  buf[2] = 'z';
  EXPECT_EQ(store.value(12), "ab");
  EXPECT_TRUE(mem.is_live(store.slots[12].data));
}

// A plain reading of an option area, written from the wire format alone,
// for comparison on random areas.
struct ReferenceResult {
  int rc;
  std::map<int, std::string> values;
};

ReferenceResult reference_parse(const Bytes &area, std::uint8_t after) {
  ReferenceResult r{0, {}};
  auto byte_at = [&](std::size_t i) { return i < area.size() ? area[i] : after; };
  std::size_t pos = 0;
  for (;;) {
    std::uint8_t code = byte_at(pos);
    if (code == 255 || pos >= area.size()) return r;
    if (code == 0) {
      ++pos;
      continue;
    }
    std::size_t len = byte_at(pos + 1);
    if (pos + 2 + len > area.size()) {
      r.rc = -1;
      return r;
    }
    r.values[code].append(reinterpret_cast<const char *>(area.data() + pos + 2), len);
    pos += 2 + len;
  }
}

TEST(DhcpParseOptionBuffer, RandomAreasAgreeWithAPlainReading) {
  std::mt19937 rng(20261121);
  for (int round = 0; round < 3000; ++round) {
    SCOPED_TRACE(round);
    // Mostly small codes and lengths, so that options repeat and fit.
    Bytes area;
    const std::size_t target = rng() % 80;
    while (area.size() < target) {
      const unsigned pick = rng() % 20;
      if (pick == 0) area.push_back(0);
      else if (pick == 1 && rng() % 4 == 0) area.push_back(255);
      else {
        area.push_back(static_cast<std::uint8_t>(1 + rng() % 6));
        const std::uint8_t len = static_cast<std::uint8_t>(rng() % 9);
        area.push_back(len);
        for (unsigned i = 0; i < len; ++i) area.push_back(static_cast<std::uint8_t>(rng()));
      }
    }
    area.resize(target);
    const std::uint8_t after = static_cast<std::uint8_t>(rng() % 3 == 0 ? 255 : rng());
    ReferenceResult expected = reference_parse(area, after);
    DhcpTestMemops mem;
    Store store(mem.ops());
    EXPECT_EQ(parse_area(store, area, after), expected.rc);
    std::map<int, std::string> got;
    for (int code = 0; code < 256; ++code) {
      if (store.slots[code].data) {
        got[code] = store.value(code);
        EXPECT_EQ(store.slots[code].data[store.slots[code].len], 0);
      }
    }
    EXPECT_EQ(got, expected.values);
  }
}

// ---- dhcp_parse_options ----

TEST(DhcpParseOptions, ReadsTheOptionsField) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_message(store, message(hex_bytes("35 01 01 3d 07 01 00 11 22 33 44 55 ff"))), 0);
  EXPECT_EQ(store.value(53), "\x01");
  EXPECT_EQ(store.value(61), std::string("\x01\x00\x11\x22\x33\x44\x55", 7));
  EXPECT_EQ(store.present(), 2);
}

TEST(DhcpParseOptions, WrongMagicCookieGivesMinusOneAndAnEmptyStore) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("35 01 01 ff"));
  msg[239] = 0x64;
  EXPECT_EQ(parse_message(store, msg), -1);
  EXPECT_EQ(store.present(), 0);
  EXPECT_EQ(mem.attempts(), 0);
}

TEST(DhcpParseOptions, EmptiesTheStoreWithoutReleasingIt) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // A slot pointing at something the parser must not release.
  static unsigned char foreign[3] = {1, 2, 3};
  store.slots[99].data = foreign;
  store.slots[99].len = 3;
  EXPECT_EQ(parse_message(store, message(hex_bytes("ff"))), 0);
  EXPECT_EQ(store.slots[99].data, nullptr);
  EXPECT_EQ(store.slots[99].len, 0u);
}

TEST(DhcpParseOptions, MessageShorterThanTheOptionsFieldIsRefused) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message({});
  msg.resize(239);
  EXPECT_EQ(dhcp_parse_options(mem.ops(), msg.data(), 239, store.slots), -1);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpParseOptions, MessageEndingAfterTheCookieHasNoOptions) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_message(store, message({})), 0);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpParseOptions, TruncatedOptionsFieldGivesMinusOne) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_message(store, message(hex_bytes("35 01 01 0c 08 61"))), -1);
  EXPECT_EQ(store.value(53), "\x01");
}

TEST(DhcpParseOptions, OverloadThreeParsesFileThenSname) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("34 01 03 0c 01 61 ff"), hex_bytes("0c 01 62 ff"), hex_bytes("0c 01 63 ff"));
  EXPECT_EQ(parse_message(store, msg), 0);
  EXPECT_EQ(store.value(12), "abc");
  EXPECT_EQ(store.value(52), "\x03");
}

TEST(DhcpParseOptions, OverloadTwoParsesOnlySname) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("34 01 02 0c 01 61 ff"), hex_bytes("0c 01 62 0f 01 66 ff"), hex_bytes("0c 01 63 ff"));
  EXPECT_EQ(parse_message(store, msg), 0);
  EXPECT_EQ(store.value(12), "ac");
  EXPECT_EQ(store.slots[15].data, nullptr);
}

TEST(DhcpParseOptions, OverloadOneParsesOnlyFile) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("34 01 01 ff"), hex_bytes("43 04 62 6f 6f 74 ff"), hex_bytes("42 01 63 ff"));
  EXPECT_EQ(parse_message(store, msg), 0);
  EXPECT_EQ(store.value(67), "boot");
  EXPECT_EQ(store.slots[66].data, nullptr);
}

TEST(DhcpParseOptions, WithoutOverloadFileAndSnameAreIgnored) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("35 01 02 ff"), hex_bytes("0c 01 62 ff"), hex_bytes("0c 01 63 ff"));
  EXPECT_EQ(parse_message(store, msg), 0);
  EXPECT_EQ(store.slots[12].data, nullptr);
}

TEST(DhcpParseOptions, OverloadFoundInFileExtendsTheOptionButNotTheDecision) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // Main area asks for `file` only; `file` adds a 52 of value 2, appended
  // after the first byte, so `sname` stays unread.
  Bytes msg = message(hex_bytes("34 01 01 ff"), hex_bytes("34 01 02 ff"), hex_bytes("0c 01 63 ff"));
  EXPECT_EQ(parse_message(store, msg), 0);
  EXPECT_EQ(store.value(52), "\x01\x02");
  EXPECT_EQ(store.slots[12].data, nullptr);
}

TEST(DhcpParseOptions, OverloadWithoutEndMarkReadsTheWholeFileField) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // 128 bytes of `file`: one option of 126 bytes; the byte after `file`
  // is the first cookie byte, which is not an end mark.
  Bytes file = {0x43, 126};
  file.resize(128, 'f');
  Bytes msg = message(hex_bytes("34 01 01 ff"), file);
  EXPECT_EQ(parse_message(store, msg), 0);
  EXPECT_EQ(store.slots[67].len, 126u);
}

TEST(DhcpParseOptions, TruncatedOptionInFileGivesMinusOne) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes file = {0x43, 127};
  file.resize(128, 'f');
  EXPECT_EQ(parse_message(store, message(hex_bytes("34 01 03 ff"), file, hex_bytes("0c 01 63 ff"))), -1);
  EXPECT_EQ(store.slots[67].data, nullptr);
  EXPECT_EQ(store.slots[12].data, nullptr);
}

TEST(DhcpParseOptions, TruncatedOptionInSnameGivesMinusOne) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes sname = {0x42, 63};
  sname.resize(64, 's');
  EXPECT_EQ(parse_message(store, message(hex_bytes("34 01 03 ff"), hex_bytes("0c 01 62 ff"), sname)), -1);
  EXPECT_EQ(store.value(12), "b");
  EXPECT_EQ(store.slots[66].data, nullptr);
}

TEST(DhcpParseOptions, ZeroLengthOverloadOptionParsesNeitherField) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("34 00 ff"), hex_bytes("0c 01 62 ff"), hex_bytes("0c 01 63 ff"));
  EXPECT_EQ(parse_message(store, msg), 0);
  EXPECT_EQ(store.slots[12].data, nullptr);
}

TEST(DhcpParseOptions, EveryAllocationFailureGivesMinusOneAndNoLeak) {
  Bytes msg = message(hex_bytes("34 01 03 35 01 05 0c 01 61 ff"), hex_bytes("0c 01 62 0f 01 66 ff"),
                      hex_bytes("0c 01 63 42 01 73 ff"));
  long total;
  {
    DhcpTestMemops mem;
    Store store(mem.ops());
    ASSERT_EQ(parse_message(store, msg), 0);
    total = mem.attempts();
  }
  EXPECT_EQ(total, 7);
  for (long n = 1; n <= total; ++n) {
    SCOPED_TRACE(n);
    DhcpTestMemops mem;
    Store store(mem.ops());
    mem.fail_nth(n);
    EXPECT_EQ(parse_message(store, msg), -1);
    dhcp_free_options(mem.ops(), store.slots);
    EXPECT_EQ(mem.live(), 0);
  }
}

TEST(DhcpParseOptions, AllocationFailureInFileKeepsTheMainAreaOptions) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("34 01 01 0c 01 61 ff"), hex_bytes("0c 01 62 ff"));
  mem.fail_nth(3);
  EXPECT_EQ(parse_message(store, msg), -1);
  EXPECT_EQ(store.value(12), "a");
  EXPECT_EQ(store.value(52), "\x01");
}

TEST(DhcpParseOptions, DoesNotUseThePlatformAllocators) {
  testsupport::NoLeakGuard guard;
  DhcpTestMemops mem;
  Store store(mem.ops());
  nuvcsock_fail_from_allocation(1);
  const long before = nuvcsock_allocations();
  EXPECT_EQ(parse_message(store, message(hex_bytes("0c 01 61 ff"))), 0);
  EXPECT_EQ(nuvcsock_allocations(), before);
  EXPECT_EQ(store.value(12), "a");
}

TEST(DhcpParseOptions, GarbageInOverloadedFieldsNeverReadsOutsideTheMessage) {
  std::mt19937 rng(4711);
  for (int round = 0; round < 2000; ++round) {
    SCOPED_TRACE(round);
    Bytes file(128), sname(64), opts(rng() % 40);
    for (auto &b : file) b = static_cast<std::uint8_t>(rng());
    for (auto &b : sname) b = static_cast<std::uint8_t>(rng());
    for (auto &b : opts) b = static_cast<std::uint8_t>(rng());
    Bytes options = {0x34, 0x01, static_cast<std::uint8_t>(rng() % 4)};
    options.insert(options.end(), opts.begin(), opts.end());
    // An exact-size copy: the message and the one byte after it, nothing more.
    Bytes msg = message(options, file, sname);
    DhcpTestMemops mem;
    Store store(mem.ops());
    const int rc = parse_message(store, msg);
    EXPECT_TRUE(rc == 0 || rc == -1);
    for (int code : {0, 255}) EXPECT_EQ(store.slots[code].data, nullptr);
  }
}

TEST(DhcpParseOptions, StoreNeverPointsIntoTheMessage) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message(hex_bytes("34 01 03 0c 01 61 ff"), hex_bytes("0f 01 62 ff"), hex_bytes("11 01 63 ff"));
  msg.push_back(0);
  ASSERT_EQ(dhcp_parse_options(mem.ops(), msg.data(), static_cast<int32_t>(msg.size() - 1), store.slots), 0);
  for (int code : {12, 15, 17, 52}) {
    ASSERT_NE(store.slots[code].data, nullptr) << code;
    EXPECT_TRUE(mem.is_live(store.slots[code].data)) << code;
  }
  std::fill(msg.begin(), msg.end(), 0);
  EXPECT_EQ(store.value(12), "a");
  EXPECT_EQ(store.value(15), "b");
  EXPECT_EQ(store.value(17), "c");
}

TEST(DhcpParseOptions, CodesZeroAnd255AreNeverFilled) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse_message(store, message(hex_bytes("00 00 0c 01 61 00 ff"))), 0);
  EXPECT_EQ(store.slots[0].data, nullptr);
  EXPECT_EQ(store.slots[255].data, nullptr);
}
