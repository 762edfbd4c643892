// Address and mask text conversion: IPv6 / IPv4 / MAC printers and parsers,
// mask arithmetic and the shared address text ring.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <string>

#include "nuvaddr.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

namespace {

using Ip6 = std::array<std::uint8_t, 16>;

// Builds an address from its eight 16-bit words.
Ip6 words(std::array<std::uint16_t, 8> w) {
  Ip6 a{};
  for (int i = 0; i < 8; ++i) {
    a[2 * i] = static_cast<std::uint8_t>(w[i] >> 8);
    a[2 * i + 1] = static_cast<std::uint8_t>(w[i]);
  }
  return a;
}

std::string print6(const Ip6 &a) { return ip6addr2str(reinterpret_cast<const in6_addr *>(a.data())); }

// Parses into a buffer pre-filled with 0xaa so that "untouched" is visible.
struct Parsed6 {
  int rc;
  Ip6 addr;
};
Parsed6 parse6(const char *text) {
  Parsed6 p;
  p.addr.fill(0xaa);
  p.rc = str2in6_addr(text, reinterpret_cast<in6_addr *>(p.addr.data()));
  return p;
}

Ip6 filled(std::uint8_t v) {
  Ip6 a;
  a.fill(v);
  return a;
}

// IPv4 address value in network byte order from its four bytes.
std::uint32_t net4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  const std::uint8_t bytes[4] = {a, b, c, d};
  std::uint32_t v;
  std::memcpy(&v, bytes, 4);
  return v;
}

}  // namespace

// ---- str2in6_addr ----------------------------------------------------------

TEST(Ip6AddrParse, DoubleColonAloneIsAllZeros) {
  auto p = parse6("::");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, Ip6{});
}

TEST(Ip6AddrParse, FullFormWithMixedCase) {
  auto p = parse6("2001:DB8:aBcD:0:1:ffff:12:3");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({0x2001, 0x0db8, 0xabcd, 0, 1, 0xffff, 0x12, 3}));
}

TEST(Ip6AddrParse, NullTextFails) { EXPECT_EQ(str2in6_addr(nullptr, nullptr), -1); }

TEST(Ip6AddrParse, EmptyTextFails) { EXPECT_EQ(parse6("").rc, -1); }

TEST(Ip6AddrParse, TripleColonFails) { EXPECT_EQ(parse6(":::").rc, -1); }

TEST(Ip6AddrParse, SecondDoubleColonFails) { EXPECT_EQ(parse6("1::2::3").rc, -1); }

TEST(Ip6AddrParse, LoneLeadingColonFails) { EXPECT_EQ(parse6(":1").rc, -1); }

TEST(Ip6AddrParse, NineGroupsFail) { EXPECT_EQ(parse6("1:2:3:4:5:6:7:8:9").rc, -1); }

TEST(Ip6AddrParse, FiveDigitGroupFails) { EXPECT_EQ(parse6("12345::").rc, -1); }

TEST(Ip6AddrParse, FourDigitGroupWithLeadingZerosIsAccepted) {
  auto p = parse6("0001::00ff");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({1, 0, 0, 0, 0, 0, 0, 0xff}));
}

TEST(Ip6AddrParse, TrailingColonAfterEightGroupsIsAccepted) {
  auto p = parse6("1:2:3:4:5:6:7:8:");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(Ip6AddrParse, TrailingColonAfterTailIsAccepted) {
  auto p = parse6("::1:");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST(Ip6AddrParse, DoubleColonStandingForNoGroupIsAccepted) {
  auto p = parse6("1:2:3:4::5:6:7:8");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(Ip6AddrParse, DoubleColonAtEndAfterEightGroupsIsAccepted) {
  auto p = parse6("1:2:3:4:5:6:7:8::");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(Ip6AddrParse, TailGroupsGoToTheLastWords) {
  auto p = parse6("1:2::7:8");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({1, 2, 0, 0, 0, 0, 7, 8}));
}

TEST(Ip6AddrParse, SevenGroupsWithoutDoubleColonFail) { EXPECT_EQ(parse6("1:2:3:4:5:6:7").rc, -1); }

TEST(Ip6AddrParse, TooFewGroupsZeroTheOutput) {
  auto p = parse6("1:2:3");
  EXPECT_EQ(p.rc, -1);
  EXPECT_EQ(p.addr, Ip6{});
}

TEST(Ip6AddrParse, TooManyGroupsAroundDoubleColonFailAfterZeroing) {
  auto p = parse6("1:2:3:4:5::6:7:8:9");
  EXPECT_EQ(p.rc, -1);
  EXPECT_EQ(p.addr, Ip6{});
}

TEST(Ip6AddrParse, BadCharacterLeavesOutputUntouched) {
  auto p = parse6("1:2:3:4:5:6:7:g");
  EXPECT_EQ(p.rc, -1);
  EXPECT_EQ(p.addr, filled(0xaa));
}

TEST(Ip6AddrParse, SpaceIsABadCharacter) { EXPECT_EQ(parse6("fe80::1 dev").rc, -1); }

TEST(Ip6AddrParse, BareIpv4TextFails) { EXPECT_EQ(parse6("1.2.3.4").rc, -1); }

TEST(Ip6AddrParse, CompatibleDottedQuad) {
  auto p = parse6("::1.2.3.4");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({0, 0, 0, 0, 0, 0, 0x0102, 0x0304}));
}

TEST(Ip6AddrParse, MappedDottedQuad) {
  auto p = parse6("::ffff:1.2.3.4");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({0, 0, 0, 0, 0, 0xffff, 0x0102, 0x0304}));
}

TEST(Ip6AddrParse, SixGroupsThenDottedQuad) {
  auto p = parse6("1:2:3:4:5:6:1.2.3.4");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({1, 2, 3, 4, 5, 6, 0x0102, 0x0304}));
}

TEST(Ip6AddrParse, DottedQuadAfterFiveGroupsWithoutDoubleColonFails) {
  auto p = parse6("1:2:3:4:5:1.2.3.4");
  EXPECT_EQ(p.rc, -1);
  EXPECT_EQ(p.addr, Ip6{});
}

TEST(Ip6AddrParse, DottedQuadWithSixGroupsAroundDoubleColonIsAccepted) {
  auto p = parse6("1:2:3::4:5:6:1.2.3.4");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({1, 2, 3, 4, 5, 6, 0x0102, 0x0304}));
}

TEST(Ip6AddrParse, DottedQuadWithSevenGroupsFails) { EXPECT_EQ(parse6("1:2:3::4:5:6:7:1.2.3.4").rc, -1); }

TEST(Ip6AddrParse, DottedQuadPartAbove255Fails) {
  auto p = parse6("::1.2.3.256");
  EXPECT_EQ(p.rc, -1);
  EXPECT_EQ(p.addr, Ip6{});
}

TEST(Ip6AddrParse, FiveDottedPartsFail) { EXPECT_EQ(parse6("::1.2.3.4.5").rc, -1); }

TEST(Ip6AddrParse, DottedQuadWithEmptyPartFails) { EXPECT_EQ(parse6("::1..2.3").rc, -1); }

TEST(Ip6AddrParse, DottedQuadWithTrailingDotFails) { EXPECT_EQ(parse6("::1.2.3.").rc, -1); }

TEST(Ip6AddrParse, DottedQuadPartsMayHaveLeadingZeros) {
  auto p = parse6("::ffff:010.001.000.0255");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({0, 0, 0, 0, 0, 0xffff, 0x0a01, 0x00ff}));
}

TEST(Ip6AddrParse, DigitAtEndIsAnOrdinaryHexDigit) {
  auto p = parse6("::5");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, words({0, 0, 0, 0, 0, 0, 0, 5}));
}

TEST(Ip6AddrParse, HexLetterBeforeDotsIsNotADottedQuad) {
  auto p = parse6("::a1.2.3.4");
  EXPECT_EQ(p.rc, -1);
  EXPECT_EQ(p.addr, filled(0xaa));
}

TEST(Ip6AddrParse, UnalignedOutputBuffer) {
  alignas(8) std::uint8_t buf[17] = {};
  EXPECT_EQ(str2in6_addr("::1", reinterpret_cast<in6_addr *>(buf + 1)), 0);
  EXPECT_EQ(buf[16], 1);
  EXPECT_EQ(buf[0], 0);
}

// ---- ip6addr2str ---------------------------------------------------------

TEST(Ip6AddrText, AllZerosIsDoubleColon) { EXPECT_EQ(print6(Ip6{}), "::"); }

TEST(Ip6AddrText, Loopback) { EXPECT_EQ(print6(words({0, 0, 0, 0, 0, 0, 0, 1})), "::1"); }

TEST(Ip6AddrText, TrailingRunEndsInDoubleColon) { EXPECT_EQ(print6(words({1, 0, 0, 0, 0, 0, 0, 0})), "1::"); }

TEST(Ip6AddrText, LoneZeroWordIsCompressed) { EXPECT_EQ(print6(words({1, 0, 2, 3, 4, 5, 6, 7})), "1::2:3:4:5:6:7"); }

TEST(Ip6AddrText, FirstOfTwoEqualRunsIsCompressed) {
  EXPECT_EQ(print6(words({1, 0, 0, 2, 0, 0, 3, 4})), "1::2:0:0:3:4");
}

TEST(Ip6AddrText, LongerLaterRunWins) { EXPECT_EQ(print6(words({1, 0, 2, 0, 0, 0, 3, 4})), "1:0:2::3:4"); }

TEST(Ip6AddrText, NoZeroWordNoCompression) {
  EXPECT_EQ(print6(words({0x2001, 0xdb8, 0xabcd, 0x12, 1, 0xffff, 0x12, 3})), "2001:db8:abcd:12:1:ffff:12:3");
}

TEST(Ip6AddrText, LongestTextFits) {
  EXPECT_EQ(print6(words({0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xfffe})),
            "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe");
}

TEST(Ip6AddrText, Ipv4MappedPrintsAsBareDottedQuad) {
  EXPECT_EQ(print6(words({0, 0, 0, 0, 0, 0xffff, 0x0a01, 0x0203})), "10.1.2.3");
}

TEST(Ip6AddrText, Ipv4MappedZeroAddressPrintsAsBareDottedQuad) {
  EXPECT_EQ(print6(words({0, 0, 0, 0, 0, 0xffff, 0, 0})), "0.0.0.0");
}

TEST(Ip6AddrText, Ipv4CompatiblePrintsInHex) { EXPECT_EQ(print6(words({0, 0, 0, 0, 0, 0, 0x0102, 0x0304})), "::102:304"); }

TEST(Ip6AddrText, FfffAfterShorterRunIsNotMapped) {
  EXPECT_EQ(print6(words({1, 0, 0, 0, 0, 0xffff, 0x0a01, 0x0203})), "1::ffff:a01:203");
}

TEST(Ip6AddrText, UnalignedInput) {
  alignas(8) std::uint8_t buf[17] = {};
  buf[1] = 0xfe;
  buf[2] = 0x80;
  buf[16] = 1;
  EXPECT_STREQ(ip6addr2str(reinterpret_cast<const in6_addr *>(buf + 1)), "fe80::1");
}

// ---- ipaddr2str / ethaddr2str ----------------------------------------------

TEST(Ip4AddrText, FirstByteOfNetworkOrderValuePrintsFirst) {
  EXPECT_STREQ(ipaddr2str(net4(192, 168, 1, 254)), "192.168.1.254");
}

TEST(Ip4AddrText, ExtremeValues) {
  EXPECT_STREQ(ipaddr2str(0), "0.0.0.0");
  EXPECT_STREQ(ipaddr2str(0xffffffffu), "255.255.255.255");
}

TEST(Ip4AddrText, AgreesWithInetNtoa) {
  const std::uint32_t v = net4(10, 200, 3, 45);
  in_addr a;
  a.s_addr = v;
  EXPECT_STREQ(ipaddr2str(v), inet_ntoa(a));
}

TEST(EthAddrText, LowercaseTwoDigitsEach) {
  const std::uint8_t mac[6] = {0x00, 0x1a, 0x2B, 0x0c, 0xff, 0x05};
  EXPECT_STREQ(ethaddr2str(mac), "00:1a:2b:0c:ff:05");
}

// ---- address text ring -----------------------------------------------------

TEST(AddressTextRing, FiveResultsAreKept) {
  const std::uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  const Ip6 six = words({0xfe80, 0, 0, 0, 0, 0, 0, 1});
  const char *r1 = ipaddr2str(net4(1, 1, 1, 1));
  const char *r2 = ethaddr2str(mac);
  const char *r3 = ip6addr2str(reinterpret_cast<const in6_addr *>(six.data()));
  const char *r4 = ipaddr2str(net4(4, 4, 4, 4));
  const char *r5 = ethaddr2str(mac);
  EXPECT_STREQ(r1, "1.1.1.1");
  EXPECT_STREQ(r2, "01:02:03:04:05:06");
  EXPECT_STREQ(r3, "fe80::1");
  EXPECT_STREQ(r4, "4.4.4.4");
  EXPECT_STREQ(r5, "01:02:03:04:05:06");
  const std::set<const char *> distinct = {r1, r2, r3, r4, r5};
  EXPECT_EQ(distinct.size(), 5u);
}

TEST(AddressTextRing, SixthCallOverwritesTheFirst) {
  const std::uint8_t mac[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  const Ip6 six = words({0x2001, 0xdb8, 0, 0, 0, 0, 0, 2});
  const char *first = ip6addr2str(reinterpret_cast<const in6_addr *>(six.data()));
  EXPECT_STREQ(first, "2001:db8::2");
  ipaddr2str(net4(2, 2, 2, 2));
  ethaddr2str(mac);
  ipaddr2str(net4(3, 3, 3, 3));
  ethaddr2str(mac);
  const char *sixth = ipaddr2str(net4(9, 8, 7, 6));
  EXPECT_EQ(sixth, first);
  EXPECT_STREQ(first, "9.8.7.6");
}

// ---- str2ipaddr ----------------------------------------------------------

namespace {
struct Parsed4 {
  int rc;
  std::uint32_t addr;
};
Parsed4 parse4(const char *text) {
  Parsed4 p{0, 0xdeadbeefu};
  p.rc = str2ipaddr(text, &p.addr);
  return p;
}
}  // namespace

TEST(Ip4AddrParse, DottedQuad) {
  auto p = parse4("192.168.0.1");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, net4(192, 168, 0, 1));
}

TEST(Ip4AddrParse, EmptyTextIsZeroAddress) {
  auto p = parse4("");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, 0u);
}

TEST(Ip4AddrParse, PartAbove255Fails) {
  auto p = parse4("256.1.1.1");
  EXPECT_EQ(p.rc, -2);
  EXPECT_EQ(p.addr, 0xdeadbeefu);
}

TEST(Ip4AddrParse, NegativePartFails) { EXPECT_EQ(parse4("-1.1.1.1").rc, -2); }

TEST(Ip4AddrParse, LettersFailAsMissingDigits) { EXPECT_EQ(parse4("a.b.c.d").rc, -1); }

TEST(Ip4AddrParse, EmptyMiddlePartFails) { EXPECT_EQ(parse4("1..2.3").rc, -1); }

TEST(Ip4AddrParse, ShortTextEndingInDotFillsZeros) {
  auto p = parse4("10.1.");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, net4(10, 1, 0, 0));
}

TEST(Ip4AddrParse, ShortTextWithoutFinalDotFails) {
  EXPECT_EQ(parse4("10.1").rc, -2);
  EXPECT_EQ(parse4("10").rc, -2);
}

TEST(Ip4AddrParse, WrongSeparatorFails) { EXPECT_EQ(parse4("10,1.2.3").rc, -2); }

TEST(Ip4AddrParse, CharactersAfterFourthPartAreIgnored) {
  auto p = parse4("1.2.3.4junk");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, net4(1, 2, 3, 4));
}

TEST(Ip4AddrParse, LeadingBlanksAndPlusSignAreAccepted) {
  auto p = parse4(" 1.+2. 3.4");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, net4(1, 2, 3, 4));
}

TEST(Ip4AddrParse, ZeroPartsAreAccepted) {
  auto p = parse4("0.0.0.0");
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.addr, 0u);
}

TEST(Ip4AddrParse, AgreesWithInetAtonOnOrdinaryQuads) {
  for (const char *text : {"1.2.3.4", "255.255.255.255", "10.0.200.7", "127.0.0.1"}) {
    in_addr ref;
    ASSERT_EQ(inet_aton(text, &ref), 1);
    auto p = parse4(text);
    EXPECT_EQ(p.rc, 0) << text;
    EXPECT_EQ(p.addr, ref.s_addr) << text;
  }
}

// ---- is_normalipaddr -----------------------------------------------------

TEST(NormalIpAddr, ClassAUnicast) { EXPECT_EQ(is_normalipaddr(0x0a000001u), 1); }
TEST(NormalIpAddr, ClassABroadcastHostPart) { EXPECT_EQ(is_normalipaddr(0x0affffffu), 0); }
TEST(NormalIpAddr, ClassBUnicastAndBroadcast) {
  EXPECT_EQ(is_normalipaddr(0xac10ff01u), 1);
  EXPECT_EQ(is_normalipaddr(0xac10ffffu), 0);
}
TEST(NormalIpAddr, ClassCUnicastAndBroadcast) {
  EXPECT_EQ(is_normalipaddr(0xc0a801feu), 1);
  EXPECT_EQ(is_normalipaddr(0xc0a801ffu), 0);
}
TEST(NormalIpAddr, ClassBoundaries) {
  EXPECT_EQ(is_normalipaddr(0x7f000001u), 1);  // 127.0.0.1: still class A
  EXPECT_EQ(is_normalipaddr(0x80000001u), 1);
  EXPECT_EQ(is_normalipaddr(0xbfff00ffu), 1);
  EXPECT_EQ(is_normalipaddr(0xdfffff01u), 1);
}
TEST(NormalIpAddr, MulticastAndAboveAreNotNormal) {
  EXPECT_EQ(is_normalipaddr(0xe0000001u), 0);
  EXPECT_EQ(is_normalipaddr(0xf0000001u), 0);
  EXPECT_EQ(is_normalipaddr(0xffffffffu), 0);
}
TEST(NormalIpAddr, AllZeroHostPartIsAccepted) {
  EXPECT_EQ(is_normalipaddr(0u), 1);
  EXPECT_EQ(is_normalipaddr(0xc0a80100u), 1);
}

// ---- masks ---------------------------------------------------------------

TEST(PrefixLenToMask, ZeroGivesZero) { EXPECT_EQ(dphelper_prefixlen2mask(0), 0u); }
TEST(PrefixLenToMask, TwentyFour) { EXPECT_EQ(dphelper_prefixlen2mask(24), net4(255, 255, 255, 0)); }
TEST(PrefixLenToMask, OddLengths) {
  EXPECT_EQ(dphelper_prefixlen2mask(1), net4(128, 0, 0, 0));
  EXPECT_EQ(dphelper_prefixlen2mask(17), net4(255, 255, 128, 0));
  EXPECT_EQ(dphelper_prefixlen2mask(32), 0xffffffffu);
}
TEST(PrefixLenToMask, AboveThirtyTwoGivesAllOnes) {
  EXPECT_EQ(dphelper_prefixlen2mask(33), 0xffffffffu);
  EXPECT_EQ(dphelper_prefixlen2mask(255), 0xffffffffu);
}
TEST(PrefixLenToMask, AgreesWithShiftReferenceForAllLengths) {
  for (unsigned n = 1; n <= 32; ++n) {
    const std::uint32_t host = n == 32 ? 0xffffffffu : ~(0xffffffffu >> n);
    EXPECT_EQ(dphelper_prefixlen2mask(static_cast<std::uint8_t>(n)), htonl(host)) << n;
  }
}

TEST(MaskToPrefixLen, ZeroGivesZero) { EXPECT_EQ(dphelper_mask2prefixlen(0), 0); }
TEST(MaskToPrefixLen, AllOnesGives32) { EXPECT_EQ(dphelper_mask2prefixlen(0xffffffffu), 32); }
TEST(MaskToPrefixLen, ContiguousMasks) {
  EXPECT_EQ(dphelper_mask2prefixlen(net4(255, 255, 255, 0)), 24);
  EXPECT_EQ(dphelper_mask2prefixlen(net4(255, 255, 240, 0)), 20);
  EXPECT_EQ(dphelper_mask2prefixlen(net4(128, 0, 0, 0)), 1);
}
TEST(MaskToPrefixLen, NonContiguousMaskCountsFromLowestSetBit) {
  EXPECT_EQ(dphelper_mask2prefixlen(net4(255, 0, 255, 0)), 24);
  EXPECT_EQ(dphelper_mask2prefixlen(net4(0, 0, 0, 1)), 32);
}

TEST(AddrCidrToNetwork, KeepsPrefixBits) {
  EXPECT_EQ(dphelper_addrcidr2network(net4(192, 168, 77, 9), 20), net4(192, 168, 64, 0));
}
TEST(AddrCidrToNetwork, ZeroLengthGivesZero) { EXPECT_EQ(dphelper_addrcidr2network(net4(1, 2, 3, 4), 0), 0u); }
TEST(AddrCidrToNetwork, LengthAbove32KeepsAddress) {
  EXPECT_EQ(dphelper_addrcidr2network(net4(1, 2, 3, 4), 40), net4(1, 2, 3, 4));
}
TEST(AddrMaskToNetwork, AndsAddressWithMask) {
  EXPECT_EQ(dphelper_addrmask2network(net4(10, 20, 30, 40), net4(255, 0, 255, 0)), net4(10, 0, 30, 0));
}

// ---- no allocation -------------------------------------------------------

TEST(AddressTextMemory, ConversionsNeverAllocate) {
  testsupport::NoLeakGuard guard;
  const long before = nuvcsock_allocations();
  nuvcsock_fail_from_allocation(1);  // any allocation attempt would fail
  Ip6 a{};
  std::uint32_t v4 = 0;
  const std::uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(str2in6_addr("2001:db8::1", reinterpret_cast<in6_addr *>(a.data())), 0);
  EXPECT_STREQ(ip6addr2str(reinterpret_cast<const in6_addr *>(a.data())), "2001:db8::1");
  EXPECT_EQ(str2ipaddr("10.0.0.1", &v4), 0);
  EXPECT_STREQ(ipaddr2str(v4), "10.0.0.1");
  EXPECT_STREQ(ethaddr2str(mac), "01:02:03:04:05:06");
  EXPECT_EQ(nuvcsock_allocations(), before);
}
