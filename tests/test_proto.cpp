// IP protocol names and numbers, TCP flag texts, and the result-buffer ring
// their numeric texts share with the other printers.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "nuvproto.h"
#include "testsupport.h"

namespace {

// A TCP header of exactly 14 bytes (up to the flag byte), so that a read
// beyond the flags is caught by AddressSanitizer.
std::vector<std::uint8_t> tcp_header_with_flags(std::uint8_t flags) {
  std::vector<std::uint8_t> h(14, 0);
  h[12] = 0x50;
  h[13] = flags;
  return h;
}

std::string flags_text(std::uint8_t flags) {
  auto h = tcp_header_with_flags(flags);
  return tcpflags2str(h.data());
}

std::uint8_t parsed(const char *name) {
  std::uint8_t proto = 0x5A;
  EXPECT_EQ(ipproto_parse(&proto, name), 0) << name;
  return proto;
}

bool parse_fails_untouched(const char *name) {
  std::uint8_t proto = 0x5A;
  return ipproto_parse(&proto, name) == -1 && proto == 0x5A;
}

}  // namespace

// ---- printing ----

TEST(IpProtoName, AnyProtocolPrintsAsIP) { EXPECT_STREQ(ipproto2str(255), "IP"); }
TEST(IpProtoName, IcmpForIpv6PrintsAsICMPv6) { EXPECT_STREQ(ipproto2str(58), "ICMPv6"); }
TEST(IpProtoName, IpInIpPrintsAsIPIP) { EXPECT_STREQ(ipproto2str(94), "IPIP"); }
TEST(IpProtoName, Ipv4EncapsulationRowPrintsAsIP) { EXPECT_STREQ(ipproto2str(4), "IP"); }
TEST(IpProtoName, RowWithoutKeyword61PrintsAsAny) { EXPECT_STREQ(ipproto2str(61), "any"); }
TEST(IpProtoName, RowWithoutKeyword63PrintsAsAny) { EXPECT_STREQ(ipproto2str(63), "any"); }
TEST(IpProtoName, RowWithoutKeyword68PrintsAsAny) { EXPECT_STREQ(ipproto2str(68), "any"); }
TEST(IpProtoName, RowWithoutKeyword99PrintsAsAny) { EXPECT_STREQ(ipproto2str(99), "any"); }
TEST(IpProtoName, RowWithoutKeyword114PrintsAsAny) { EXPECT_STREQ(ipproto2str(114), "any"); }
TEST(IpProtoName, LastNamedRowIsHIP) { EXPECT_STREQ(ipproto2str(139), "HIP"); }
TEST(IpProtoName, FirstUnnamedNumberIsNumeric) { EXPECT_STREQ(ipproto2str(140), "P140"); }
TEST(IpProtoName, UnnamedNumberIsNumeric) { EXPECT_STREQ(ipproto2str(200), "P200"); }
TEST(IpProtoName, LastUnnamedNumberIsNumeric) { EXPECT_STREQ(ipproto2str(254), "P254"); }
TEST(IpProtoName, MobilityHeaderKeepsItsBlank) { EXPECT_STREQ(ipproto2str(135), "Mobility Header"); }
TEST(IpProtoName, ManetIsLowerCase) { EXPECT_STREQ(ipproto2str(138), "manet"); }

TEST(IpProtoName, NamedProtocolsAreConstantTexts) {
  // A named protocol does not take a ring buffer: the same pointer comes back.
  const char *first = ipproto2str(6);
  for (int i = 0; i < 20; ++i) ipproto2str(static_cast<std::uint8_t>(141 + i));
  EXPECT_EQ(ipproto2str(6), first);
  EXPECT_STREQ(first, "TCP");
}

TEST(IpProtoName, NamesOfRows0To139AreTheRegistryKeywords) {
  auto rows = testsupport::iana_protocol_keywords();
  ASSERT_EQ(rows.size(), 150u - 1u) << "registry copy changed shape";
  for (int n = 0; n < 140; ++n) {
    ASSERT_TRUE(rows.count(n)) << n;
    const std::string &keyword = rows[n];
    if (keyword.empty() || n == 4 || n == 58) continue;  // irregular rows, tested on their own
    EXPECT_EQ(ipproto2str(static_cast<std::uint8_t>(n)), keyword) << "protocol " << n;
  }
}

TEST(IpProtoName, RegistryRowsWithoutKeywordAreExactlyTheAnyRows) {
  auto rows = testsupport::iana_protocol_keywords();
  std::vector<int> without_keyword;
  for (int n = 0; n < 140; ++n)
    if (rows[n].empty()) without_keyword.push_back(n);
  EXPECT_EQ(without_keyword, (std::vector<int>{61, 63, 68, 99, 114}));
  for (int n : without_keyword) EXPECT_STREQ(ipproto2str(static_cast<std::uint8_t>(n)), "any") << n;
}

TEST(IpProtoName, RegistryKeywordOfRow4IsNotUsed) {
  auto rows = testsupport::iana_protocol_keywords();
  EXPECT_EQ(rows[4], "IPv4");
  EXPECT_STREQ(ipproto2str(4), "IP");
}

TEST(IpProtoName, RegistryKeywordOfRow58IsReplacedInPrint) {
  auto rows = testsupport::iana_protocol_keywords();
  EXPECT_EQ(rows[58], "IPv6-ICMP");
  EXPECT_STREQ(ipproto2str(58), "ICMPv6");
}

TEST(IpProtoName, Numbers140To254AreNumericAndNotInRegistryKeywords) {
  for (int n = 140; n < 255; ++n)
    EXPECT_EQ(ipproto2str(static_cast<std::uint8_t>(n)), "P" + std::to_string(n));
}

// ---- parsing ----

TEST(IpProtoParse, IpIsTheAnyProtocol) { EXPECT_EQ(parsed("ip"), 255); }
TEST(IpProtoParse, UpperCaseIpIsTheAnyProtocolNotRow4) { EXPECT_EQ(parsed("IP"), 255); }
TEST(IpProtoParse, Ipv4GivesZero) { EXPECT_EQ(parsed("ipv4"), 0); }
TEST(IpProtoParse, Ipv4IgnoresCase) { EXPECT_EQ(parsed("IPV4"), 0); }
TEST(IpProtoParse, Icmpv6Gives58) { EXPECT_EQ(parsed("icmpv6"), 58); }
TEST(IpProtoParse, IpipGives94) { EXPECT_EQ(parsed("IpIp"), 94); }
TEST(IpProtoParse, AnyGivesTheFirstAnyRow) { EXPECT_EQ(parsed("Any"), 61); }
TEST(IpProtoParse, IcmpGives1) { EXPECT_EQ(parsed("ICMP"), 1); }
TEST(IpProtoParse, TableNameOfIcmpv6Gives58) { EXPECT_EQ(parsed("IPv6-ICMP"), 58); }
TEST(IpProtoParse, NameWithBlankIgnoresCase) { EXPECT_EQ(parsed("mobility header"), 135); }
TEST(IpProtoParse, LowerCaseTcp) { EXPECT_EQ(parsed("tcp"), 6); }
TEST(IpProtoParse, MixedCaseUdp) { EXPECT_EQ(parsed("Udp"), 17); }
TEST(IpProtoParse, HopByHopName) { EXPECT_EQ(parsed("hopopt"), 0); }
TEST(IpProtoParse, NumericHighest) { EXPECT_EQ(parsed("P255"), 255); }
TEST(IpProtoParse, NumericZero) { EXPECT_EQ(parsed("P0"), 0); }
TEST(IpProtoParse, NumericNamedProtocol) { EXPECT_EQ(parsed("P6"), 6); }
TEST(IpProtoParse, PrefixAloneIsZero) { EXPECT_EQ(parsed("P"), 0); }
TEST(IpProtoParse, DigitsAreReadAsFarAsTheyGo) { EXPECT_EQ(parsed("P17x"), 17); }
TEST(IpProtoParse, LowerCasePrefixFails) { EXPECT_TRUE(parse_fails_untouched("p6")); }
TEST(IpProtoParse, PlainNumberFails) { EXPECT_TRUE(parse_fails_untouched("6")); }
TEST(IpProtoParse, NumericAbove255Fails) { EXPECT_TRUE(parse_fails_untouched("P256")); }
TEST(IpProtoParse, Numeric300Fails) { EXPECT_TRUE(parse_fails_untouched("P300")); }
TEST(IpProtoParse, NegativeNumericFails) { EXPECT_TRUE(parse_fails_untouched("P-1")); }
TEST(IpProtoParse, HugeNumericFails) { EXPECT_TRUE(parse_fails_untouched("P99999999999999999999")); }
TEST(IpProtoParse, UnknownNameFails) { EXPECT_TRUE(parse_fails_untouched("tcpx")); }
TEST(IpProtoParse, EmptyNameFails) { EXPECT_TRUE(parse_fails_untouched("")); }

TEST(IpProtoParse, EveryRegistryKeywordParsesToItsNumber) {
  auto rows = testsupport::iana_protocol_keywords();
  for (int n = 0; n < 140; ++n) {
    const std::string &keyword = rows[n];
    if (keyword.empty() || n == 4) continue;  // 4 reads "IP" here, which is the any-protocol
    EXPECT_EQ(parsed(keyword.c_str()), n) << keyword;
  }
}

TEST(IpProtoParse, RegistryKeywordIpv4IsReadAsZeroNotFour) {
  auto rows = testsupport::iana_protocol_keywords();
  EXPECT_EQ(parsed(rows[4].c_str()), 0);
}

TEST(IpProtoParse, EveryPrintedNameReadsBackExceptTheAmbiguousOnes) {
  for (int n = 0; n < 256; ++n) {
    std::string name = ipproto2str(static_cast<std::uint8_t>(n));
    std::uint8_t back = parsed(name.c_str());
    int expected = n;
    if (n == 4) expected = 255;
    if (n == 63 || n == 68 || n == 99 || n == 114) expected = 61;
    EXPECT_EQ(back, expected) << n << " printed as " << name;
  }
}

TEST(IpProtoParse, RandomCaseChangesOfNamesStillParse) {
  std::mt19937 rng(20261121);
  for (int n = 0; n < 140; ++n) {
    if (n == 4) continue;
    std::string name = ipproto2str(static_cast<std::uint8_t>(n));
    for (char &c : name)
      if (rng() & 1) c = static_cast<char>(std::islower(static_cast<unsigned char>(c)) ? std::toupper(c) : std::tolower(c));
    int expected = n;
    if (n == 63 || n == 68 || n == 99 || n == 114) expected = 61;
    EXPECT_EQ(parsed(name.c_str()), expected) << name;
  }
}

// ---- TCP flags ----

TEST(TcpFlagsText, SynAck) { EXPECT_EQ(flags_text(0x12), "SYN,ACK"); }
TEST(TcpFlagsText, FinPshAckInFixedOrder) { EXPECT_EQ(flags_text(0x19), "ACK,PSH,FIN"); }
TEST(TcpFlagsText, AllFiveFlags) { EXPECT_EQ(flags_text(0x3F), "SYN,ACK,PSH,FIN,RST"); }
TEST(TcpFlagsText, UrgAloneIsEmpty) { EXPECT_EQ(flags_text(0x20), ""); }
TEST(TcpFlagsText, EcnBitsAreNotShown) { EXPECT_EQ(flags_text(0xC0 | 0x04), "RST"); }
TEST(TcpFlagsText, NoFlagsIsEmpty) { EXPECT_EQ(flags_text(0x00), ""); }
TEST(TcpFlagsText, SingleFlagHasNoSeparator) { EXPECT_EQ(flags_text(0x01), "FIN"); }

TEST(TcpFlagsText, EmptyResultStillTakesAndClearsARingBuffer) {
  // Fill all nine buffers with text, then an empty flag set must come back
  // as "" in a buffer of its own.
  auto h = tcp_header_with_flags(0x3F);
  std::vector<const char *> seen;
  for (int i = 0; i < 9; ++i) seen.push_back(tcpflags2str(h.data()));
  auto none = tcp_header_with_flags(0x00);
  const char *empty = tcpflags2str(none.data());
  EXPECT_STREQ(empty, "");
  EXPECT_EQ(empty, seen[0]);
}

TEST(TcpFlagsText, EveryFlagByteAgainstAPlainListing) {
  for (int byte = 0; byte < 256; ++byte) {
    std::string expected;
    auto add = [&](int bit, const char *name) {
      if (!(byte & bit)) return;
      if (!expected.empty()) expected += ",";
      expected += name;
    };
    add(0x02, "SYN");
    add(0x10, "ACK");
    add(0x08, "PSH");
    add(0x01, "FIN");
    add(0x04, "RST");
    EXPECT_EQ(flags_text(static_cast<std::uint8_t>(byte)), expected) << byte;
  }
}

// ---- the result-buffer ring ----

TEST(ResultRing, NineTextsStayValidAndTheTenthReusesTheFirstBuffer) {
  auto syn = tcp_header_with_flags(0x02);
  auto ack = tcp_header_with_flags(0x10);
  std::vector<const char *> texts;
  texts.push_back(ipproto2str(141));                               // 1
  texts.push_back(tcpflags2str(syn.data()));                       // 2
  for (int i = 0; i < 6; ++i) texts.push_back(ipproto2str(static_cast<std::uint8_t>(142 + i)));  // 3..8
  texts.push_back(tcpflags2str(ack.data()));                       // 9
  const std::vector<std::string> expected = {"P141", "SYN",  "P142", "P143", "P144",
                                             "P145", "P146", "P147", "ACK"};
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_STREQ(texts[i], expected[i].c_str()) << i;
  for (std::size_t i = 0; i < texts.size(); ++i)
    for (std::size_t j = i + 1; j < texts.size(); ++j) EXPECT_NE(texts[i], texts[j]);

  const char *tenth = ipproto2str(250);
  EXPECT_EQ(tenth, texts[0]);
  EXPECT_STREQ(texts[0], "P250");
  EXPECT_STREQ(texts[1], "SYN");  // the second is kept until the eleventh
}
