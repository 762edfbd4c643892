// Value parsers of rule texts: numbers, IPv4/IPv6 prefixes, MAC addresses,
// quoted strings, hex byte strings and words.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "nuvclfy.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

namespace {

// A writable copy of a text, so parsers that modify it and the end pointers
// they return can be checked as offsets.
struct Text {
  explicit Text(const char *s) : buf(s) {}
  char *data() { return buf.data(); }
  std::ptrdiff_t offset(const char *p) const { return p - buf.data(); }
  std::string buf;
};

std::uint32_t net4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  const std::uint8_t bytes[4] = {a, b, c, d};
  std::uint32_t v;
  std::memcpy(&v, bytes, 4);
  return v;
}

}  // namespace

// ---- numbers -------------------------------------------------------------

TEST(ParseU8, Decimal) {
  Text t("42 rest");
  char *end = nullptr;
  std::uint8_t v = 0;
  EXPECT_EQ(parse_u8(t.data(), &end, &v), 0);
  EXPECT_EQ(v, 42);
  EXPECT_EQ(t.offset(end), 2);
}

TEST(ParseU8, HexAndOctal) {
  char *end;
  std::uint8_t v = 0;
  EXPECT_EQ(parse_u8("0x1f", &end, &v), 0);
  EXPECT_EQ(v, 0x1f);
  EXPECT_EQ(parse_u8("017", &end, &v), 0);
  EXPECT_EQ(v, 15);
}

TEST(ParseU8, ValueIsCutTo8Bits) {
  char *end;
  std::uint8_t v = 0;
  EXPECT_EQ(parse_u8("300", &end, &v), 0);
  EXPECT_EQ(v, 44);
}

TEST(ParseU8, TwoHundredFiftySixGivesZeroAndSucceeds) {
  Text t("256");
  char *end = nullptr;
  std::uint8_t v = 7;
  EXPECT_EQ(parse_u8(t.data(), &end, &v), 0);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(t.offset(end), 3);
}

TEST(ParseU8, LettersFail) {
  char *end = nullptr;
  std::uint8_t v = 7;
  EXPECT_EQ(parse_u8("abc", &end, &v), -1);
  EXPECT_EQ(end, nullptr);
  EXPECT_EQ(v, 7);
}

TEST(ParseU8, EmptyTextFails) {
  char *end = nullptr;
  std::uint8_t v;
  EXPECT_EQ(parse_u8("", &end, &v), -1);
}

TEST(ParseU8, LeadingWhiteSpaceAndSign) {
  Text t(" \t+9x");
  char *end;
  std::uint8_t v = 0;
  EXPECT_EQ(parse_u8(t.data(), &end, &v), 0);
  EXPECT_EQ(v, 9);
  EXPECT_EQ(t.offset(end), 4);
}

TEST(ParseU8, MinusOneGivesAllOnes) {
  char *end;
  std::uint8_t v = 0;
  EXPECT_EQ(parse_u8("-1", &end, &v), 0);
  EXPECT_EQ(v, 0xff);
}

TEST(ParseU8, ExplicitZeroSucceeds) {
  char *end;
  std::uint8_t v = 7;
  EXPECT_EQ(parse_u8("0", &end, &v), 0);
  EXPECT_EQ(v, 0);
}

TEST(ParseU8, HexPrefixWithoutDigitsReadsTheZero) {
  Text t("0xg");
  char *end;
  std::uint8_t v = 7;
  EXPECT_EQ(parse_u8(t.data(), &end, &v), 0);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(t.offset(end), 1);
}

TEST(ParseU8, SignFollowedByBlankIsNoNumber) {
  char *end = nullptr;
  std::uint8_t v;
  EXPECT_EQ(parse_u8("- 5", &end, &v), -1);
  EXPECT_EQ(parse_u8("+-5", &end, &v), -1);
}

TEST(ParseU16, StoredInNetworkOrder) {
  char *end;
  std::uint16_t v = 0;
  EXPECT_EQ(parse_u16("0x1234", &end, &v), 0);
  EXPECT_EQ(v, htons(0x1234));
}

TEST(ParseU16, CutTo16Bits) {
  char *end;
  std::uint16_t v = 0;
  EXPECT_EQ(parse_u16("65537", &end, &v), 0);
  EXPECT_EQ(v, htons(1));
}

TEST(ParseU16, LettersFail) {
  char *end;
  std::uint16_t v;
  EXPECT_EQ(parse_u16("x", &end, &v), -1);
}

TEST(ParseUshort, HostOrder) {
  char *end;
  std::uint16_t v = 0;
  EXPECT_EQ(parse_ushort("8080", &end, &v), 0);
  EXPECT_EQ(v, 8080);
  EXPECT_EQ(parse_ushort("70000", &end, &v), 0);
  EXPECT_EQ(v, 70000 - 65536);
}

TEST(ParseUshort, LettersFail) {
  char *end;
  std::uint16_t v;
  EXPECT_EQ(parse_ushort("port", &end, &v), -1);
}

TEST(ParseUlong, FullThirtyTwoBits) {
  char *end;
  std::uint32_t v = 0;
  EXPECT_EQ(parse_ulong("4294967295", &end, &v), 0);
  EXPECT_EQ(v, 0xffffffffu);
  EXPECT_EQ(parse_ulong("0xdeadbeef", &end, &v), 0);
  EXPECT_EQ(v, 0xdeadbeefu);
}

TEST(ParseUlong, BeyondThirtyTwoBitsSaturates) {
  char *end;
  std::uint32_t v = 0;
  EXPECT_EQ(parse_ulong("4294967296", &end, &v), 0);
  EXPECT_EQ(v, 0xffffffffu);
  EXPECT_EQ(parse_ulong("-4294967296", &end, &v), 0);
  EXPECT_EQ(v, 0xffffffffu);
}

TEST(ParseUlong, NegativeIsThirtyTwoBitNegation) {
  char *end;
  std::uint32_t v = 0;
  EXPECT_EQ(parse_ulong("-2", &end, &v), 0);
  EXPECT_EQ(v, 0xfffffffeu);
}

TEST(ParseUlong, AgreesWithStrtoulWithinRange) {
  for (const char *text : {"0", "1", "077", "0x7fffffff", " 123abc", "4294967295", "+17", "-0", "0x", "09"}) {
    char *ref_end;
    const unsigned long ref = std::strtoul(text, &ref_end, 0);
    char *end = nullptr;
    std::uint32_t v = 12345;
    const int rc = parse_ulong(text, &end, &v);
    if (ref == 0 && ref_end == text) {
      EXPECT_EQ(rc, -1) << text;
    } else {
      EXPECT_EQ(rc, 0) << text;
      EXPECT_EQ(v, static_cast<std::uint32_t>(ref)) << text;
      EXPECT_EQ(end, ref_end) << text;
    }
  }
}

TEST(ParseUlong, LettersFail) {
  char *end;
  std::uint32_t v;
  EXPECT_EQ(parse_ulong("mark", &end, &v), -1);
}

// ---- parse_ipaddr ----------------------------------------------------------

TEST(ParseIpaddr, HostOrderResultAndEnd) {
  Text t("192.168.1.2/24");
  char *end;
  std::uint32_t v = 0;
  EXPECT_EQ(parse_ipaddr(t.data(), &end, &v), NUV_VALUE_OK);
  EXPECT_EQ(v, 0xc0a80102u);
  EXPECT_EQ(t.offset(end), 11);
}

TEST(ParseIpaddr, ThreePartsFailWithMinusThree) {
  char *end;
  std::uint32_t v;
  EXPECT_EQ(parse_ipaddr("1.2.3", &end, &v), NUV_VALUE_E_NO_DOT);
}

TEST(ParseIpaddr, PartAbove255FailsWithMinusTwo) {
  char *end;
  std::uint32_t v;
  EXPECT_EQ(parse_ipaddr("1.2.3.256", &end, &v), NUV_VALUE_E_PART_TOO_BIG);
  EXPECT_EQ(parse_ipaddr("1.99999999999.3.4", &end, &v), NUV_VALUE_E_PART_TOO_BIG);
}

TEST(ParseIpaddr, LeadingSpaceFailsWithMinusOne) {
  char *end;
  std::uint32_t v;
  EXPECT_EQ(parse_ipaddr(" 1.2.3.4", &end, &v), NUV_VALUE_E_REFUSED);
}

TEST(ParseIpaddr, PartWithoutDigitFailsWithMinusOne) {
  char *end;
  std::uint32_t v;
  EXPECT_EQ(parse_ipaddr("1.2..4", &end, &v), NUV_VALUE_E_REFUSED);
  EXPECT_EQ(parse_ipaddr("1.2.3.", &end, &v), NUV_VALUE_E_REFUSED);
}

TEST(ParseIpaddr, WrongSeparatorFailsWithMinusThree) {
  char *end;
  std::uint32_t v;
  EXPECT_EQ(parse_ipaddr("1,2.3.4", &end, &v), NUV_VALUE_E_NO_DOT);
}

TEST(ParseIpaddr, LeadingZerosAreDecimal) {
  char *end;
  std::uint32_t v = 0;
  EXPECT_EQ(parse_ipaddr("010.001.0.00255", &end, &v), NUV_VALUE_OK);
  EXPECT_EQ(v, 0x0a0100ffu);
}

// ---- parse_prefix ----------------------------------------------------------

namespace {
struct Prefix4 {
  int rc;
  std::uint32_t addr, mask;
  std::ptrdiff_t end;
};
Prefix4 prefix4(const char *s) {
  Text t(s);
  char *end = nullptr;
  Prefix4 r{0, 0xdeadbeefu, 0xdeadbeefu, -1};
  r.rc = parse_prefix(t.data(), &end, &r.addr, &r.mask);
  if (end) r.end = t.offset(end);
  return r;
}
}  // namespace

TEST(ParsePrefix, SlashLengthKeepsHostBits) {
  auto r = prefix4("10.0.0.1/24");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.addr, net4(10, 0, 0, 1));
  EXPECT_EQ(r.mask, net4(255, 255, 255, 0));
  EXPECT_EQ(r.end, 11);
}

TEST(ParsePrefix, DottedMaskAfterSpace) {
  auto r = prefix4("10.0.0.0 255.0.0.0 dev");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.addr, net4(10, 0, 0, 0));
  EXPECT_EQ(r.mask, net4(255, 0, 0, 0));
  EXPECT_EQ(r.end, 18);
}

TEST(ParsePrefix, NoMaskGivesAllOnes) {
  auto r = prefix4("1.2.3.4 dev");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.mask, 0xffffffffu);
  EXPECT_EQ(r.end, 8);
}

TEST(ParsePrefix, EqualsSignsAndSpacesAreSkipped) {
  for (const char *s : {"= 1.2.3.4", "==1.2.3.4", "  ==  1.2.3.4"}) {
    auto r = prefix4(s);
    EXPECT_EQ(r.rc, 0) << s;
    EXPECT_EQ(r.addr, net4(1, 2, 3, 4)) << s;
  }
}

TEST(ParsePrefix, SpaceBeforeSlash) {
  auto r = prefix4("1.2.3.4 /16");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.mask, net4(255, 255, 0, 0));
}

TEST(ParsePrefix, LengthZeroGivesZeroMask) {
  auto r = prefix4("1.2.3.4/0");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.mask, 0u);
}

TEST(ParsePrefix, LengthAbove32GivesAllOnes) {
  auto r = prefix4("1.2.3.4/33");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.mask, 0xffffffffu);
}

TEST(ParsePrefix, LengthIsCutTo8Bits) {
  auto r = prefix4("1.2.3.4/264");  // 264 & 0xff == 8
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.mask, net4(255, 0, 0, 0));
}

TEST(ParsePrefix, BadAddressFails) { EXPECT_EQ(prefix4("1.2.3").rc, -1); }

TEST(ParsePrefix, SlashWithoutLengthFails) { EXPECT_EQ(prefix4("1.2.3.4/x").rc, -1); }

TEST(ParsePrefix, BadDottedMaskFails) { EXPECT_EQ(prefix4("1.2.3.4 255.255").rc, -1); }

// ---- parse_prefix6 ---------------------------------------------------------

namespace {
std::array<std::uint8_t, 16> in6(const char *text) {
  std::array<std::uint8_t, 16> a{};
  EXPECT_EQ(inet_pton(AF_INET6, text, a.data()), 1) << text;
  return a;
}
}  // namespace

TEST(ParsePrefix6, SlashLengthAndSlashIsOverwritten) {
  Text t("fe80::/64 dev eth0");
  char *end = nullptr;
  std::array<std::uint8_t, 16> a{};
  std::uint8_t len = 128;
  EXPECT_EQ(parse_prefix6(t.data(), &end, a.data(), &len), 0);
  EXPECT_EQ(a, in6("fe80::"));
  EXPECT_EQ(len, 64);
  EXPECT_EQ(t.offset(end), 9);
  EXPECT_EQ(t.buf[6], '\0');
}

TEST(ParsePrefix6, WithoutSlashKeepsPresetLength) {
  Text t("= 2001:db8::1");
  char *end = nullptr;
  std::array<std::uint8_t, 16> a{};
  std::uint8_t len = 128;
  EXPECT_EQ(parse_prefix6(t.data(), &end, a.data(), &len), 0);
  EXPECT_EQ(a, in6("2001:db8::1"));
  EXPECT_EQ(len, 128);
  EXPECT_EQ(t.offset(end), 13);
}

TEST(ParsePrefix6, AddressFollowedByMoreWordsFails) {
  Text t("fe80::1 dev eth0");
  char *end = nullptr;
  std::array<std::uint8_t, 16> a{};
  std::uint8_t len = 128;
  EXPECT_EQ(parse_prefix6(t.data(), &end, a.data(), &len), -1);
}

TEST(ParsePrefix6, LaterSlashOnTheLineIsTakenAsLengthSeparator) {
  Text t("fe80::1 ip.saddr 10.0.0.0/8");
  char *end = nullptr;
  std::array<std::uint8_t, 16> a{};
  std::uint8_t len = 128;
  EXPECT_EQ(parse_prefix6(t.data(), &end, a.data(), &len), -1);
  EXPECT_EQ(t.buf[t.buf.find("10.0.0.0") + 8], '\0');
}

TEST(ParsePrefix6, BadLengthFails) {
  Text t("fe80::/x");
  char *end = nullptr;
  std::array<std::uint8_t, 16> a{};
  std::uint8_t len = 128;
  EXPECT_EQ(parse_prefix6(t.data(), &end, a.data(), &len), -1);
  EXPECT_EQ(end, nullptr);
}

TEST(ParsePrefix6, BadAddressFails) {
  Text t("fe80:::1/64");
  char *end = nullptr;
  std::array<std::uint8_t, 16> a{};
  std::uint8_t len = 128;
  EXPECT_EQ(parse_prefix6(t.data(), &end, a.data(), &len), -1);
}

TEST(ParsePrefix6, IPv4TextIsNotAnIpv6Prefix) {
  Text t("10.0.0.1");
  char *end = nullptr;
  std::array<std::uint8_t, 16> a{};
  std::uint8_t len = 128;
  EXPECT_EQ(parse_prefix6(t.data(), &end, a.data(), &len), -1);
}

// ---- parse_mac / parse_oui -------------------------------------------------

namespace {
struct Mac {
  int rc;
  std::array<std::uint8_t, 6> bytes;
  std::ptrdiff_t end;
};
Mac mac(const char *s) {
  Text t(s);
  char *end = nullptr;
  Mac m{0, {0xee, 0xee, 0xee, 0xee, 0xee, 0xee}, -1};
  m.rc = parse_mac(t.data(), &end, m.bytes.data());
  if (end) m.end = t.offset(end);
  return m;
}
}  // namespace

TEST(ParseMac, ColonSeparated) {
  auto m = mac("00:11:22:33:44:55 x");
  EXPECT_EQ(m.rc, 0);
  EXPECT_EQ(m.bytes, (std::array<std::uint8_t, 6>{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
  EXPECT_EQ(m.end, 17);
}

TEST(ParseMac, WithoutSeparatorsIsTheSame) {
  auto a = mac("00:11:22:33:44:55");
  auto b = mac("001122334455");
  EXPECT_EQ(b.rc, 0);
  EXPECT_EQ(a.bytes, b.bytes);
  EXPECT_EQ(b.end, 12);
}

TEST(ParseMac, UpperCaseDigits) {
  auto m = mac("AA:bB:Cc:dd:EE:ff");
  EXPECT_EQ(m.rc, 0);
  EXPECT_EQ(m.bytes, (std::array<std::uint8_t, 6>{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}));
}

TEST(ParseMac, OneDigitGroupBorrowsPreviousLowDigit) {
  auto m = mac("00:1:22:33:44:55");
  EXPECT_EQ(m.rc, 0);
  EXPECT_EQ(m.bytes[0], 0x00);
  EXPECT_EQ(m.bytes[1], 0x10);
  auto n = mac("ab:c:d");
  EXPECT_EQ(n.rc, 0);
  EXPECT_EQ(n.bytes[1], 0xcb);
  EXPECT_EQ(n.bytes[2], 0xdb);
}

TEST(ParseMac, OneDigitFirstGroupFails) {
  auto m = mac("1:22:33:44:55:66");
  EXPECT_EQ(m.rc, -1);
  EXPECT_EQ(m.end, -1);
}

TEST(ParseMac, StopsEarlyAtNonHexLeavingTheRest) {
  auto m = mac("00:11:22 dev");
  EXPECT_EQ(m.rc, 0);
  EXPECT_EQ(m.bytes, (std::array<std::uint8_t, 6>{0x00, 0x11, 0x22, 0xee, 0xee, 0xee}));
  EXPECT_EQ(m.end, 8);
}

TEST(ParseMac, EmptyTextSucceedsWithoutWriting) {
  auto m = mac("");
  EXPECT_EQ(m.rc, 0);
  EXPECT_EQ(m.bytes, (std::array<std::uint8_t, 6>{0xee, 0xee, 0xee, 0xee, 0xee, 0xee}));
  EXPECT_EQ(m.end, 0);
}

TEST(ParseMac, OnlyColonIsSkippedAsSeparator) {
  auto m = mac("00-11-22-33-44-55");
  EXPECT_EQ(m.rc, 0);
  EXPECT_EQ(m.bytes[0], 0x00);
  EXPECT_EQ(m.bytes[1], 0xee);
  EXPECT_EQ(m.end, 2);
}

TEST(ParseMac, SeventhGroupIsNotRead) {
  auto m = mac("00:11:22:33:44:55:66");
  EXPECT_EQ(m.rc, 0);
  EXPECT_EQ(m.end, 18);
}

TEST(ParseOui, ThreeGroups) {
  Text t("00:1a:2b:3c");
  char *end = nullptr;
  std::array<std::uint8_t, 4> out{0xee, 0xee, 0xee, 0xee};
  EXPECT_EQ(parse_oui(t.data(), &end, out.data()), 0);
  EXPECT_EQ(out, (std::array<std::uint8_t, 4>{0x00, 0x1a, 0x2b, 0xee}));
  EXPECT_EQ(t.offset(end), 9);
}

TEST(ParseOui, OneDigitFirstGroupFails) {
  char *end;
  std::uint8_t out[3];
  EXPECT_EQ(parse_oui("a:bb:cc", &end, out), -1);
}

// ---- parse_string ----------------------------------------------------------

TEST(ParseString, CopiesBetweenQuotes) {
  Text t("\"hello world\" next");
  char *end = nullptr;
  char buf[32];
  EXPECT_EQ(parse_string(t.data(), &end, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "hello world");
  EXPECT_EQ(t.offset(end), 13);
}

TEST(ParseString, NoEscapeProcessing) {
  char *end;
  char buf[32];
  EXPECT_EQ(parse_string("\"a\\\"b", &end, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "a\\");
}

TEST(ParseString, EmptyString) {
  char *end;
  char buf[1];
  EXPECT_EQ(parse_string("\"\"", &end, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
}

TEST(ParseString, MissingOpeningQuoteFails) {
  char *end;
  char buf[8];
  EXPECT_EQ(parse_string("abc\"", &end, buf, sizeof buf), -1);
}

TEST(ParseString, MissingClosingQuoteFails) {
  char *end;
  char buf[8];
  EXPECT_EQ(parse_string("\"abc", &end, buf, sizeof buf), -1);
}

TEST(ParseString, LengthEqualToSizeFails) {
  char *end;
  char buf[4];
  EXPECT_EQ(parse_string("\"abcd\"", &end, buf, sizeof buf), -1);
  EXPECT_EQ(parse_string("\"abc\"", &end, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "abc");
}

// ---- parse_hex -----------------------------------------------------------

TEST(ParseHex, PairsBecomeBytes) {
  Text t("0aFf10 x");
  char *end = nullptr;
  std::uint8_t buf[8] = {};
  EXPECT_EQ(parse_hex(t.data(), &end, buf, sizeof buf), 3);
  EXPECT_EQ(buf[0], 0x0a);
  EXPECT_EQ(buf[1], 0xff);
  EXPECT_EQ(buf[2], 0x10);
  EXPECT_EQ(t.offset(end), 6);
}

TEST(ParseHex, OddDigitCountFails) {
  char *end;
  std::uint8_t buf[8];
  EXPECT_EQ(parse_hex("abc", &end, buf, sizeof buf), -1);
}

TEST(ParseHex, MoreThanMaxBytesFails) {
  char *end;
  std::uint8_t buf[2];
  EXPECT_EQ(parse_hex("010203", &end, buf, 2), -1);
  EXPECT_EQ(parse_hex("0102", &end, buf, 2), 2);
}

TEST(ParseHex, NoDigitsGivesZeroAndLeavesEnd) {
  char *end = nullptr;
  std::uint8_t buf[2];
  EXPECT_EQ(parse_hex("xyz", &end, buf, sizeof buf), 0);
  EXPECT_EQ(end, nullptr);
}

// ---- parse_nonblank ------------------------------------------------------

TEST(ParseNonblank, WordEndsAtSpaceAndEndSkipsIt) {
  Text t("eth0 next");
  char *end = nullptr;
  char buf[16];
  EXPECT_EQ(parse_nonblank(t.data(), &end, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "eth0");
  EXPECT_EQ(t.offset(end), 5);
}

TEST(ParseNonblank, WordAtEndOfTextStopsAtNul) {
  Text t("eth0");
  char *end = nullptr;
  char buf[16];
  EXPECT_EQ(parse_nonblank(t.data(), &end, buf, sizeof buf), 0);
  EXPECT_EQ(t.offset(end), 4);
}

TEST(ParseNonblank, TabsDoNotEndTheWord) {
  char *end;
  char buf[16];
  EXPECT_EQ(parse_nonblank("a\tb c", &end, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "a\tb");
}

TEST(ParseNonblank, LengthEqualToSizeFails) {
  char *end = nullptr;
  char buf[4];
  EXPECT_EQ(parse_nonblank("abcd", &end, buf, sizeof buf), -1);
  EXPECT_EQ(end, nullptr);
  EXPECT_EQ(parse_nonblank("abc", &end, buf, sizeof buf), 0);
}

TEST(ParseNonblank, LeadingSpaceGivesEmptyWord) {
  Text t(" abc");
  char *end = nullptr;
  char buf[4] = "xyz";
  EXPECT_EQ(parse_nonblank(t.data(), &end, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(t.offset(end), 1);
}

// ---- no allocation -------------------------------------------------------

TEST(ValueParserMemory, ParsersNeverAllocate) {
  testsupport::NoLeakGuard guard;
  const long before = nuvcsock_allocations();
  nuvcsock_fail_from_allocation(1);  // any allocation attempt would fail
  Text t("10.0.0.0/8 fe80::/10 001122334455 \"s\" 0a0b word");
  char *p = t.data();
  std::uint32_t addr, mask;
  std::uint8_t a6[16], len = 128, mac[6], hex[2];
  char buf[8];
  EXPECT_EQ(parse_prefix(p, &p, &addr, &mask), 0);
  EXPECT_EQ(parse_prefix6(p, &p, a6, &len), 0);
  ++p;
  EXPECT_EQ(parse_mac(p, &p, mac), 0);
  ++p;
  EXPECT_EQ(parse_string(p, &p, buf, sizeof buf), 0);
  ++p;
  EXPECT_EQ(parse_hex(p, &p, hex, sizeof hex), 2);
  ++p;
  EXPECT_EQ(parse_nonblank(p, &p, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "word");
  EXPECT_EQ(nuvcsock_allocations(), before);
}

TEST(ValueParserCodes, HaveTheirValuesAndTexts) {
  EXPECT_EQ(NUV_VALUE_OK, 0);
  EXPECT_EQ(NUV_VALUE_E_REFUSED, -1);
  EXPECT_EQ(NUV_VALUE_E_PART_TOO_BIG, -2);
  EXPECT_EQ(NUV_VALUE_E_NO_DOT, -3);
  EXPECT_STREQ(parse_value_strerror(NUV_VALUE_OK), "parsed");
  EXPECT_STREQ(parse_value_strerror(NUV_VALUE_E_REFUSED), "value not in the expected form");
  EXPECT_STREQ(parse_value_strerror(NUV_VALUE_E_PART_TOO_BIG), "address part above 255");
  EXPECT_STREQ(parse_value_strerror(NUV_VALUE_E_NO_DOT), "address part not followed by \".\"");
  EXPECT_STREQ(parse_value_strerror(-4), "unknown result code");
}
