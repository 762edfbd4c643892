// Access rules: printing records as rule lines.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <map>
#include <random>
#include <string>

#include "nuvproto.h"
#include "nuvrules.h"
#include "test_rules_access_support.h"
#include "testsupport.h"

using access_test::Rule;
using access_test::to_record;

namespace {

std::string plain(const Rule &r) {
  ipaccess_rule rec = to_record(r);
  return ipaccess_string(&rec);
}

std::string with_flags(const Rule &r) {
  ipaccess_rule rec = to_record(r);
  return ipaccess_string_use_flags(&rec);
}

std::string lower(std::string s) {
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The protocol word of a printed rule (its second word).
std::string protocol_word(std::uint8_t proto) {
  std::string text = plain(Rule{.proto = proto});
  std::size_t first = text.find(' ');
  std::size_t any = text.rfind(" any any");
  return text.substr(first + 1, any - first - 1);
}

}  // namespace

// ---- whole lines ----

TEST(AccessFormat, AllZeroRecordPrintsHopoptWithoutFlags) { EXPECT_EQ(plain(Rule{}), "disabled hopopt any any"); }

TEST(AccessFormat, AllZeroRecordPrintsIpWithFlags) { EXPECT_EQ(with_flags(Rule{}), "disabled ip any any"); }

TEST(AccessFormat, ExampleRuleWithMaskPortTcpFlagAndLogging) {
  EXPECT_EQ(plain(Rule{.policy = 1,
                       .proto = 6,
                       .dst_addr = 0x0A000000,
                       .dst_mask = 0xFF000000,
                       .dst_op = 1,
                       .dst_port = 80,
                       .tcpflag = 2,
                       .logging = 1}),
            "permit tcp any 10.0.0.0 255.0.0.0 eq 80 established log short");
}

TEST(AccessFormat, AddressesAreHostOrderMostSignificantByteFirst) {
  EXPECT_EQ(plain(Rule{.policy = 2, .proto = 17, .src_addr = 0x0A010203, .src_mask = 0xFFFFFF00}),
            "deny udp 10.1.2.3 255.255.255.0 any");
}

TEST(AccessFormat, AllOnesMaskPrintsHost) {
  EXPECT_EQ(plain(Rule{.policy = 3, .proto = 6, .dst_addr = 0xC0A80101, .dst_mask = 0xFFFFFFFF}),
            "reject tcp any host 192.168.1.1");
}

TEST(AccessFormat, ZeroMaskPrintsAnyWhateverTheAddress) {
  EXPECT_EQ(plain(Rule{.policy = 1, .proto = 6, .src_addr = 0x0A000001, .dst_addr = 0xFFFFFFFF}),
            "permit tcp any any");
}

TEST(AccessFormat, AnyProtocolPrintsIpInBothVariants) {
  EXPECT_EQ(plain(Rule{.proto = 255}), "disabled ip any any");
  EXPECT_EQ(with_flags(Rule{.proto = 255, .used = 0x01}), "disabled ip any any");
}

TEST(AccessFormat, IcmpForIpv6PrintsIcmpv6) { EXPECT_EQ(protocol_word(58), "icmpv6"); }

TEST(AccessFormat, NumericProtocolPrintsLowerCaseP) {
  EXPECT_EQ(protocol_word(140), "p140");
  EXPECT_EQ(protocol_word(254), "p254");
}

TEST(AccessFormat, ProtocolNameWithBlankKeepsIt) { EXPECT_EQ(protocol_word(135), "mobility header"); }

TEST(AccessFormat, ProtocolNamesAreTheRegistryKeywordsInLowerCase) {
  auto keywords = testsupport::iana_protocol_keywords();
  ASSERT_GE(keywords.size(), 140u);
  for (int n = 0; n < 140; ++n) {
    std::string expected = lower(keywords.at(n));
    if (n == 4) expected = "ip";
    if (n == 58) expected = "icmpv6";
    if (expected.empty()) expected = "any";  // registry rows without a keyword
    EXPECT_EQ(protocol_word(static_cast<std::uint8_t>(n)), expected) << n;
  }
}

TEST(AccessFormat, SourceRange) {
  EXPECT_EQ(plain(Rule{.policy = 1, .proto = 17, .src_op = 7, .src_port = 1000, .src_port2 = 2000}),
            "permit udp any range 1000 2000 any");
}

TEST(AccessFormat, DestinationLessOrEqual) {
  EXPECT_EQ(plain(Rule{.policy = 1, .proto = 6, .dst_op = 4, .dst_port = 1023}), "permit tcp any any le 1023");
}

TEST(AccessFormat, EveryOperatorWord) {
  const char *words[] = {"eq", "ne", "lt", "le", "gt", "ge"};
  for (std::int32_t op = 1; op <= 6; ++op) {
    EXPECT_EQ(plain(Rule{.policy = 1, .proto = 6, .src_op = op, .src_port = 7, .src_port2 = 9}),
              std::string("permit tcp any ") + words[op - 1] + " 7 any");
  }
}

TEST(AccessFormat, RangePrintsTheUpperBoundAsItIs) {
  EXPECT_EQ(plain(Rule{.policy = 1, .proto = 6, .dst_op = 7, .dst_port = 65535, .dst_port2 = 0}),
            "permit tcp any any range 65535 0");
}

TEST(AccessFormat, OperatorNoneIsNotPrintedWithoutFlags) {
  EXPECT_EQ(plain(Rule{.policy = 1, .proto = 6, .src_port = 80, .dst_port = 81, .used = 0x30}),
            "permit tcp any any");
}

TEST(AccessFormat, TrailingWordsInTheirOrder) {
  EXPECT_EQ(plain(Rule{.policy = 2, .proto = 6, .tcpflag = 1, .connflag = 4, .logging = 3}),
            "deny tcp any any connect connection incoming-related log alert");
}

TEST(AccessFormat, ZeroFlagsPrintNothing) {
  std::string text = plain(Rule{.policy = 2, .proto = 6});
  EXPECT_EQ(text, "deny tcp any any");
  EXPECT_EQ(text.find("none"), std::string::npos);
  EXPECT_EQ(text.find("normal"), std::string::npos);
}

TEST(AccessFormat, IllegalValuesPrintTheirIllegalTexts) {
  EXPECT_EQ(plain(Rule{.policy = 4, .proto = 6, .src_op = 8, .src_port = 80, .tcpflag = 3, .connflag = 6,
                       .logging = 4}),
            "illegal-policy tcp any illegal-operator 80 any illegal-tcpflag connection illegal-connection-flag "
            "log illegal-logging");
  EXPECT_EQ(plain(Rule{.policy = -1, .proto = 17, .dst_op = -3, .dst_port = 5}),
            "illegal-policy udp any any illegal-operator 5");
}

TEST(AccessFormat, LongestLine) {
  EXPECT_EQ(plain(Rule{.policy = 3,
                       .proto = 17,
                       .src_addr = 0xFFFFFFFF,
                       .src_mask = 0xFFFFFFFE,
                       .src_op = 7,
                       .src_port = 65535,
                       .src_port2 = 65535,
                       .dst_addr = 0xFFFFFFFF,
                       .dst_mask = 0xFFFFFFFE,
                       .dst_op = 7,
                       .dst_port = 65535,
                       .dst_port2 = 65535,
                       .tcpflag = 2,
                       .connflag = 4,
                       .logging = 3}),
            "reject udp 255.255.255.255 255.255.255.254 range 65535 65535 255.255.255.255 255.255.255.254 "
            "range 65535 65535 established connection incoming-related log alert");
}

// ---- the use-flags variant ----

TEST(AccessFormatFlags, ClearProtocolBitPrintsIp) {
  EXPECT_EQ(with_flags(Rule{.policy = 1, .proto = 6}), "permit ip any any");
  EXPECT_EQ(with_flags(Rule{.policy = 1, .proto = 6, .used = 0x01}), "permit tcp any any");
}

TEST(AccessFormatFlags, ClearAddressBitsPrintAny) {
  Rule r{.policy = 1, .proto = 6, .src_addr = 0x0A000000, .src_mask = 0xFF000000, .dst_addr = 0x01020304,
         .dst_mask = 0xFFFFFFFF, .used = 0x01};
  EXPECT_EQ(with_flags(r), "permit tcp any any");
  r.used = 0x07;
  EXPECT_EQ(with_flags(r), "permit tcp 10.0.0.0 255.0.0.0 host 1.2.3.4");
}

TEST(AccessFormatFlags, SetAddressBitWithZeroMaskStillPrintsAny) {
  EXPECT_EQ(with_flags(Rule{.policy = 1, .proto = 6, .src_addr = 0x0A000000, .used = 0x07}), "permit tcp any any");
}

TEST(AccessFormatFlags, SetPortBitPrintsOperatorNone) {
  EXPECT_EQ(with_flags(Rule{.policy = 1, .proto = 6, .src_port = 80, .dst_port = 443, .used = 0x31}),
            "permit tcp any none 80 any none 443");
}

TEST(AccessFormatFlags, ClearPortBitStillPrintsANonZeroOperator) {
  EXPECT_EQ(with_flags(Rule{.policy = 1, .proto = 17, .dst_op = 1, .dst_port = 53, .used = 0x01}),
            "permit udp any any eq 53");
}

TEST(AccessFormatFlags, TrailingWordsIgnoreTheBits) {
  EXPECT_EQ(with_flags(Rule{.policy = 2, .proto = 17, .tcpflag = 2, .connflag = 1, .logging = 2, .used = 0x01}),
            "deny udp any any established connection outgoing log long");
}

// ---- buffers ----

TEST(AccessFormatBuffer, BothVariantsShareOneStaticBuffer) {
  ipaccess_rule a = to_record(Rule{.policy = 1, .proto = 6});
  ipaccess_rule b = to_record(Rule{.policy = 2, .proto = 17});
  const char *first = ipaccess_string(&a);
  const char *second = ipaccess_string_use_flags(&b);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "deny ip any any");
}

// Addresses and port numbers go through the shared result ring: the widest
// rule takes eight of its nine buffers, so a text taken just before survives
// the call and is overwritten by the next take.
TEST(AccessFormatBuffer, WidestRuleTakesEightRingBuffers) {
  ipaccess_rule rec = to_record(Rule{.policy = 1,
                                     .proto = 6,
                                     .src_addr = 0x0A000000,
                                     .src_mask = 0xFF000000,
                                     .src_op = 7,
                                     .src_port = 1,
                                     .src_port2 = 2,
                                     .dst_addr = 0x0B000000,
                                     .dst_mask = 0xFF000000,
                                     .dst_op = 7,
                                     .dst_port = 3,
                                     .dst_port2 = 4});
  const char *earlier = ipproto2str(200);
  ASSERT_STREQ(earlier, "P200");
  EXPECT_STREQ(ipaccess_string(&rec), "permit tcp 10.0.0.0 255.0.0.0 range 1 2 11.0.0.0 255.0.0.0 range 3 4");
  EXPECT_STREQ(earlier, "P200");
  ipproto2str(201);
  EXPECT_STREQ(earlier, "P201");
}

TEST(AccessFormatBuffer, NeverEndsInABlank) {
  std::mt19937 rng(77);
  std::uniform_int_distribution<std::uint32_t> any32;
  for (int i = 0; i < 3000; ++i) {
    Rule r{.policy = static_cast<std::int32_t>(rng() % 6) - 1,
           .proto = static_cast<std::uint8_t>(rng()),
           .src_addr = any32(rng),
           .src_mask = rng() % 3 == 0 ? 0 : any32(rng),
           .src_op = static_cast<std::int32_t>(rng() % 10) - 1,
           .src_port = static_cast<std::uint16_t>(rng()),
           .src_port2 = static_cast<std::uint16_t>(rng()),
           .dst_addr = any32(rng),
           .dst_mask = rng() % 3 == 0 ? 0 : any32(rng),
           .dst_op = static_cast<std::int32_t>(rng() % 10) - 1,
           .dst_port = static_cast<std::uint16_t>(rng()),
           .dst_port2 = static_cast<std::uint16_t>(rng()),
           .tcpflag = static_cast<std::int32_t>(rng() % 5) - 1,
           .connflag = static_cast<std::int32_t>(rng() % 8) - 1,
           .logging = static_cast<std::int32_t>(rng() % 6) - 1,
           .used = static_cast<std::uint32_t>(rng() & 0x7F)};
    for (const std::string &text : {plain(r), with_flags(r)}) {
      ASSERT_FALSE(text.empty());
      EXPECT_NE(text.back(), ' ') << text;
      EXPECT_EQ(text.find("  "), std::string::npos) << text;
    }
  }
}
