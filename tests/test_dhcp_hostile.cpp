// DHCP messages built to hurt a parser: options shorter than their type,
// length bytes running past their area, overload pointing at empty or
// overloaded fields, concatenations longer than an option or the buffer,
// empty relay and vendor sub-options, pad and end at every position, and
// messages of exactly 240 and 239 bytes.  Each gives its documented result;
// every buffer is exactly as long as the data the functions may read, so the
// sanitizers see any read beyond it.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dhcp_testmemops.h"
#include "nuvdhcp.h"
#include "nuvdhcpcfg.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;
using testsupport::DhcpTestMemops;

using Store = testsupport::DhcpStore;

// 236 zero header bytes (with `file` and `sname` filled from the given
// bytes), the cookie, then the options.
Bytes message(const Bytes &options, const Bytes &file = {}, const Bytes &sname = {}) {
  Bytes m(236, 0);
  std::copy(file.begin(), file.end(), m.begin() + 108);
  std::copy(sname.begin(), sname.end(), m.begin() + 44);
  for (std::uint8_t b : {0x63, 0x82, 0x53, 0x63}) m.push_back(b);
  m.insert(m.end(), options.begin(), options.end());
  return m;
}

// Parses `msg` (msglen = its size) from a heap block of exactly msglen + 1
// bytes: the byte after the options field may be looked at, no other.
int parse(Store &store, const Bytes &msg, std::uint8_t after = 0xEE) {
  std::unique_ptr<std::uint8_t[]> buf(new std::uint8_t[msg.size() + 1]);
  if (!msg.empty()) std::memcpy(buf.get(), msg.data(), msg.size());
  buf[msg.size()] = after;
  return dhcp_parse_options(store.ops, buf.get(), static_cast<std::int32_t>(msg.size()), store.slots);
}

// A match of option `code` against `pattern`, evaluated on `msg` and its store.
int option_matches(const DhcpTestMemops &mem, const Bytes &msg, const Store &store, std::uint8_t code,
                   const char *pattern) {
  dhcp_match m{};
  m.code = code;
  m.pattern = pattern;
  return dhcp_packet_matches(mem.ops(), msg.data(), store.slots, &m);
}

Bytes filled(std::size_t n, std::uint8_t byte) { return Bytes(n, byte); }

}  // namespace

// ---- options shorter than their fixed-size type ----

TEST(DhcpHostileShortOption, AddressOptionOfThreeBytesIsStoredAsGivenAndNeverMatches) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  const Bytes msg = message({50, 3, 192, 168, 1, 255});
  ASSERT_EQ(parse(store, msg), 0);
  EXPECT_EQ(store.slots[50].len, 3u);
  EXPECT_EQ(option_matches(mem, msg, store, 50, "*"), 0);
  EXPECT_EQ(option_matches(mem, msg, store, 50, "192.168.1*"), 0);
}

TEST(DhcpHostileShortOption, ServerIdentifierOfZeroBytesNeverMatches) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  const Bytes msg = message({54, 0, 255});
  ASSERT_EQ(parse(store, msg), 0);
  ASSERT_NE(store.slots[54].data, nullptr);
  EXPECT_EQ(store.slots[54].len, 0u);
  EXPECT_EQ(option_matches(mem, msg, store, 54, "*"), 0);
}

TEST(DhcpHostileShortOption, ClientIdentifierShorterThanSevenBytesNeverMatches) {
  // Hardware type 1 but only two address bytes: there is no MAC address to
  // write, and nothing beyond the value is read.
  DhcpTestMemops mem;
  Store store(mem.ops());
  const Bytes msg = message({61, 3, 1, 0x00, 0x11, 255});
  ASSERT_EQ(parse(store, msg), 0);
  EXPECT_EQ(option_matches(mem, msg, store, 61, "00:11*"), 0);
  EXPECT_EQ(option_matches(mem, msg, store, 61, "*"), 0);
}

TEST(DhcpHostileShortOption, VendorBlockShorterThanItsHeaderFindsNothing) {
  // Option 125 of three bytes cannot hold a 5-byte block header.
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({125, 3, 0, 0, 0x0d, 255})), 0);
  unsigned char *val = store.slots[125].data;
  EXPECT_EQ(dhcp_find_125_option(mem.ops(), &val, store.slots[125].len, 3561, 1), 0u);
  EXPECT_EQ(val, store.slots[125].data);
  EXPECT_EQ(dhcp_extract_125_string(mem.ops(), &store.slots[125], 3561, 1), nullptr);
}

TEST(DhcpHostileShortOption, VendorBlockClaimingMoreThanItHoldsFindsNothing) {
  // Enterprise 3561, data length 10, but only 3 data bytes follow.
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({125, 8, 0, 0, 0x0d, 0xe9, 10, 1, 1, 'x', 255})), 0);
  unsigned char *val = store.slots[125].data;
  EXPECT_EQ(dhcp_find_125_option(mem.ops(), &val, store.slots[125].len, 3561, 1), 0u);
  EXPECT_EQ(val, store.slots[125].data);
}

// ---- length bytes running past their area ----

TEST(DhcpHostileLength, PastTheEndOfTheOptionsFieldGivesMinusOneKeepingEarlierOptions) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message({53, 1, 1, 12, 5, 'a', 'b'})), -1);
  EXPECT_EQ(store.value(53), "\x01");
  EXPECT_EQ(store.value(12), "<absent>");
}

TEST(DhcpHostileLength, LengthByteBeyondTheOptionsFieldGivesMinusOne) {
  // The code is the last byte of the field; its length byte lies beyond.
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message({53, 1, 1, 12}), 0), -1);
  EXPECT_EQ(store.value(53), "\x01");
}

TEST(DhcpHostileLength, PastTheEndOfFileGivesMinusOneKeepingTheOptionsField) {
  Bytes file = filled(128, 0);
  file[120] = 12;
  file[121] = 20;  // 20 bytes from 122 would end at 142
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message({52, 1, 1, 53, 1, 3, 255}, file)), -1);
  EXPECT_EQ(store.value(53), "\x03");
  EXPECT_EQ(store.value(12), "<absent>");
}

TEST(DhcpHostileLength, PastTheEndOfSnameGivesMinusOneKeepingFile) {
  Bytes file = {15, 3, 'l', 'a', 'n', 255};
  Bytes sname = filled(64, 0);
  sname[62] = 12;
  sname[63] = 1;  // the value byte would be the first byte of `file`
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message({52, 1, 3, 255}, file, sname)), -1);
  EXPECT_EQ(store.value(15), "lan");
  EXPECT_EQ(store.value(12), "<absent>");
}

TEST(DhcpHostileLength, CodeAsLastByteOfSnameGivesMinusOne) {
  Bytes sname = filled(64, 0);
  sname[63] = 12;
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message({52, 1, 2, 255}, {}, sname)), -1);
}

// ---- overload pointing at empty or overloaded fields ----

TEST(DhcpHostileOverload, FileOfPadBytesOnlyAddsNothing) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({52, 1, 1, 255})), 0);
  EXPECT_EQ(store.present(), 1);
  EXPECT_EQ(store.value(52), "\x01");
}

TEST(DhcpHostileOverload, OverloadWithoutAValueParsesNeitherField) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({52, 0, 255}, {12, 1, 'f', 255}, {12, 1, 's', 255})), 0);
  EXPECT_EQ(store.value(12), "<absent>");
}

TEST(DhcpHostileOverload, ValueWithoutFieldBitsParsesNeitherField) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({52, 1, 4, 255}, {12, 1, 'f', 255}, {12, 1, 's', 255})), 0);
  EXPECT_EQ(store.value(12), "<absent>");
}

TEST(DhcpHostileOverload, FileOverloadingAgainNeitherReparsesFileNorAddsSname) {
  // file holds option 52 with value 3: it extends option 52 to "\x01\x03",
  // whose first byte still says file only; file is not parsed twice.
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({52, 1, 1, 255}, {52, 1, 3, 12, 1, 'f', 255}, {12, 1, 's', 255})), 0);
  EXPECT_EQ(store.value(52), std::string("\x01\x03", 2));
  EXPECT_EQ(store.value(12), "f");
}

TEST(DhcpHostileOverload, SnameOverloadingAgainIsNotFollowed) {
  // sname's own option 52 asks for file, but file comes before sname only.
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({52, 1, 2, 255}, {12, 1, 'f', 255}, {52, 1, 1, 12, 1, 's', 255})), 0);
  EXPECT_EQ(store.value(12), "s");
  EXPECT_EQ(store.value(52), std::string("\x02\x01", 2));
}

TEST(DhcpHostileOverload, GarbageInBothFieldsStaysInsideTheMessage) {
  DhcpTestMemops mem;
  for (int fill = 1; fill < 255; fill += 17) {
    Store store(mem.ops());
    const Bytes msg = message({52, 1, 3, 255}, filled(128, static_cast<std::uint8_t>(fill)),
                              filled(64, static_cast<std::uint8_t>(fill)));
    const int rc = parse(store, msg);
    EXPECT_TRUE(rc == 0 || rc == -1) << fill;
  }
}

// ---- concatenations longer than one option or than the buffer ----

TEST(DhcpHostileConcatenation, OptionRepeatedAcrossAllAreasJoinsBeyond255Bytes) {
  Bytes options = {52, 1, 3, 12, 200};
  const Bytes a = filled(200, 'a');
  options.insert(options.end(), a.begin(), a.end());
  options.push_back(255);
  Bytes file = {12, 120};
  const Bytes b = filled(120, 'b');
  file.insert(file.end(), b.begin(), b.end());
  file.push_back(255);
  Bytes sname = {12, 60};
  const Bytes c = filled(60, 'c');
  sname.insert(sname.end(), c.begin(), c.end());
  sname.push_back(255);
  DhcpTestMemops mem;
  Store store(mem.ops());
  const Bytes msg = message(options, file, sname);
  ASSERT_EQ(parse(store, msg), 0);
  EXPECT_EQ(store.slots[12].len, 380u);
  EXPECT_EQ(store.value(12), std::string(200, 'a') + std::string(120, 'b') + std::string(60, 'c'));
  EXPECT_EQ(store.slots[12].data[380], 0);
  EXPECT_EQ(option_matches(mem, msg, store, 12, "a*bc*"), 1);
}

TEST(DhcpHostileConcatenation, TextLongerThanTheMatchScratchIsComparedUpToItsLimit) {
  // 1100 bytes of text: compared as its first 1023 bytes.
  Bytes options;
  for (int i = 0; i < 5; ++i) {
    options.push_back(12);
    options.push_back(220);
    const Bytes part = filled(220, 'x');
    options.insert(options.end(), part.begin(), part.end());
  }
  options.push_back(255);
  DhcpTestMemops mem;
  Store store(mem.ops());
  const Bytes msg = message(options);
  ASSERT_EQ(parse(store, msg), 0);
  EXPECT_EQ(store.slots[12].len, 1100u);
  EXPECT_EQ(option_matches(mem, msg, store, 12, std::string(1023, 'x').c_str()), 1);
  EXPECT_EQ(option_matches(mem, msg, store, 12, std::string(1100, 'x').c_str()), 0);
}

TEST(DhcpHostileConcatenation, VendorOptionJoinedBeyond255BytesFindsItsLastSubOption) {
  // Option 43 in two instances (200 and 164 bytes): sub-options 1..90 of 4
  // bytes (code, 2, two bytes), then sub-option 99 at byte 360.
  Bytes value;
  for (std::uint8_t code = 1; code <= 90; ++code) {
    value.push_back(code);
    value.push_back(2);
    value.push_back('v');
    value.push_back(code);
  }
  value.insert(value.end(), {99, 2, 'o', 'k'});
  Bytes options = {43, 200};
  options.insert(options.end(), value.begin(), value.begin() + 200);
  options.push_back(43);
  options.push_back(static_cast<std::uint8_t>(value.size() - 200));
  options.insert(options.end(), value.begin() + 200, value.end());
  options.push_back(255);
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message(options)), 0);
  ASSERT_EQ(store.slots[43].len, value.size());
  unsigned char *val = store.slots[43].data;
  ASSERT_EQ(dhcp_find_43_option(mem.ops(), &val, store.slots[43].len, 99), 2u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(val), 3), std::string("ok\0", 3));
  mem.ops()->free(val);
}

TEST(DhcpHostileConcatenation, PeerOptionLongerThanTheWorkingBufferIsLeftOut) {
  // A peer's option of 5000 bytes does not fit the 4096-byte working
  // buffer: it is not copied, and the options field holds only the end mark.
  DhcpTestMemops mem;
  Store peer(mem.ops());
  const Bytes big = filled(5000, 'p');
  ASSERT_EQ(dhcp_set_option(mem.ops(), peer.slots, 77, 5000, big.data()), 0);
  std::unique_ptr<std::uint8_t[]> msg(new std::uint8_t[240 + 312]());
  dhcpoptions_record *none = nullptr;
  EXPECT_EQ(dhcp_cons_options(mem.ops(), peer.slots, msg.get(), &none, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME, 0, 0),
            241);
  EXPECT_EQ(msg[240], 255);
}

TEST(DhcpHostileConcatenation, PeerOptionsFillingTheWorkingBufferStayInsideTheMessage) {
  // Peer options of 250 bytes each (codes 100..119, 5040 bytes in all):
  // copied as far as the working buffer holds them, then distributed over
  // the options field, file and sname of a 240 + 312-byte message.
  DhcpTestMemops mem;
  Store peer(mem.ops());
  const Bytes part = filled(250, 'q');
  for (int code = 100; code < 120; ++code) ASSERT_EQ(dhcp_set_option(mem.ops(), peer.slots, code, 250, part.data()), 0);
  std::unique_ptr<std::uint8_t[]> msg(new std::uint8_t[240 + 312]());
  dhcpoptions_record *none = nullptr;
  EXPECT_EQ(dhcp_cons_options(mem.ops(), peer.slots, msg.get(), &none, DHCP_OVERLOAD_FILE | DHCP_OVERLOAD_SNAME, 0, 0),
            243);
  EXPECT_EQ(msg[240], 52);
  EXPECT_EQ(msg[242], 3);
}

// ---- empty relay agent option and vendor sub-options ----

TEST(DhcpHostileEmpty, ZeroLengthRelayAgentOptionIsPresentAndNeverMatches) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  const Bytes msg = message({82, 0, 255});
  ASSERT_EQ(parse(store, msg), 0);
  ASSERT_NE(store.slots[82].data, nullptr);
  EXPECT_EQ(store.slots[82].len, 0u);
  EXPECT_EQ(store.slots[82].data[0], 0);
  EXPECT_EQ(option_matches(mem, msg, store, 82, "*"), 0);
  EXPECT_EQ(option_matches(mem, msg, store, 82, ""), 0);
}

TEST(DhcpHostileEmpty, ZeroLengthVendorSubOptionIsNotFound) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  ASSERT_EQ(parse(store, message({43, 4, 1, 0, 2, 0, 255})), 0);
  for (std::uint8_t sub : {1, 2}) {
    unsigned char *val = store.slots[43].data;
    EXPECT_EQ(dhcp_find_43_option(mem.ops(), &val, store.slots[43].len, sub), 0u) << int(sub);
    EXPECT_EQ(val, store.slots[43].data);
  }
}

TEST(DhcpHostileEmpty, ZeroLengthSubOptionInAVendorBlockIsNotFound) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  // Enterprise 3561, data length 2: sub-option 1 of length 0.
  ASSERT_EQ(parse(store, message({125, 7, 0, 0, 0x0d, 0xe9, 2, 1, 0, 255})), 0);
  unsigned char *val = store.slots[125].data;
  EXPECT_EQ(dhcp_find_125_option(mem.ops(), &val, store.slots[125].len, 3561, 1), 0u);
  EXPECT_EQ(val, store.slots[125].data);
  EXPECT_EQ(dhcp_extract_125_string(mem.ops(), &store.slots[125], 3561, 1), nullptr);
}

TEST(DhcpHostileEmpty, ZeroLengthRelayAgentOptionFailsAParsedMatchExpression) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  const Bytes msg = message({82, 0, 255});
  ASSERT_EQ(parse(store, msg), 0);
  char text[] = "82 *";
  char *end = nullptr;
  dhcp_match m{};
  ASSERT_EQ(parse_dhcpoptionmatch(text, &end, &m), 1);
  const std::string pattern(m.pattern, 1);
  m.pattern = pattern.c_str();
  EXPECT_EQ(dhcp_packet_matches(mem.ops(), msg.data(), store.slots, &m), 0);
}

// ---- pad and end at every position ----

namespace {

// Options 53 (1 byte), 12 ("abc") and 51 (4 bytes), then end.
const Bytes kThreeOptions = {53, 1, 1, 12, 3, 'a', 'b', 'c', 51, 4, 0, 0, 0x0e, 0x10, 255};
// Where each option's code byte stands, and how many options lie before it.
const std::size_t kCodePositions[] = {0, 3, 8};

}  // namespace

TEST(DhcpHostilePadEnd, EndAtACodePositionKeepsExactlyTheOptionsBeforeIt) {
  DhcpTestMemops mem;
  for (std::size_t i = 0; i < std::size(kCodePositions); ++i) {
    Bytes options = kThreeOptions;
    options[kCodePositions[i]] = 255;
    Store store(mem.ops());
    ASSERT_EQ(parse(store, message(options)), 0) << i;
    EXPECT_EQ(store.present(), static_cast<int>(i)) << i;
  }
}

TEST(DhcpHostilePadEnd, PadOrEndAnywhereGivesZeroOrMinusOneInsideTheMessage) {
  DhcpTestMemops mem;
  for (std::uint8_t marker : {0, 255}) {
    for (std::size_t at = 0; at < kThreeOptions.size(); ++at) {
      Bytes options = kThreeOptions;
      options[at] = marker;
      for (std::size_t cut = at + 1; cut <= options.size(); ++cut) {
        Store store(mem.ops());
        const Bytes msg = message(Bytes(options.begin(), options.begin() + static_cast<long>(cut)));
        const int rc = parse(store, msg);
        EXPECT_TRUE(rc == 0 || rc == -1) << int(marker) << " at " << at << " cut " << cut;
        if (marker == 255 && (at == 0 || at == 3 || at == 8)) {
          EXPECT_EQ(rc, 0) << at;
        }
      }
    }
  }
}

TEST(DhcpHostilePadEnd, PadInPlaceOfALengthByteShiftsTheReading) {
  // "53 0 1 12 ..." reads option 53 with no value, then option 1 of length
  // 12 ("\x03abc" and the rest), which runs past the field: -1.
  Bytes options = kThreeOptions;
  options[1] = 0;
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message(options)), -1);
  ASSERT_NE(store.slots[53].data, nullptr);
  EXPECT_EQ(store.slots[53].len, 0u);
}

TEST(DhcpHostilePadEnd, AllPadOptionsFieldGivesAnEmptyStore) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message(filled(60, 0))), 0);
  EXPECT_EQ(store.present(), 0);
}

// ---- messages of exactly 240 and 239 bytes ----

TEST(DhcpHostileSize, MessageOf240BytesHasNoOptions) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message({}), 12), 0);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpHostileSize, MessageOf240BytesWithEndMarkBehindItHasNoOptions) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  EXPECT_EQ(parse(store, message({}), 255), 0);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpHostileSize, MessageOf239BytesIsRefusedWithAnEmptyStore) {
  DhcpTestMemops mem;
  Store store(mem.ops());
  Bytes msg = message({});
  msg.pop_back();
  EXPECT_EQ(parse(store, msg, 0x63), -1);
  EXPECT_EQ(store.present(), 0);
}

TEST(DhcpHostileSize, EveryMessageShorterThan240BytesIsRefused) {
  DhcpTestMemops mem;
  const Bytes full = message({53, 1, 1, 255});
  for (std::size_t n = 0; n < 240; n += 7) {
    Store store(mem.ops());
    EXPECT_EQ(parse(store, Bytes(full.begin(), full.begin() + static_cast<long>(n))), -1) << n;
    EXPECT_EQ(store.present(), 0) << n;
  }
}
