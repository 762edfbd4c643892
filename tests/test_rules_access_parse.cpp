// Access rules: the enumeration words and the rule line parser.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "nuvcsock_test.h"
#include "nuvrules.h"
#include "test_rules_access_support.h"
#include "testsupport.h"

using access_test::expect_record;
using access_test::parse;
using access_test::Rule;

namespace {

struct WordCase {
  const char *word;
  std::int32_t value;
};

using ParseFn = int (*)(std::int32_t *, const char *);
using StringFn = const char *(*)(std::int32_t);

struct Enumeration {
  const char *name;
  ParseFn parse;
  StringFn string;
  std::vector<WordCase> words;
  const char *illegal;
};

std::vector<Enumeration> enumerations() {
  return {
      {"policy", ipaccesspolicy_parse, ipaccesspolicy_string,
       {{"disabled", 0}, {"permit", 1}, {"deny", 2}, {"reject", 3}}, "illegal-policy"},
      {"operator", ipaccessoperator_parse, ipaccessoperator_string,
       {{"none", 0}, {"eq", 1}, {"ne", 2}, {"lt", 3}, {"le", 4}, {"gt", 5}, {"ge", 6}, {"range", 7}},
       "illegal-operator"},
      {"tcpflag", ipaccesstcpflag_parse, ipaccesstcpflag_string,
       {{"none", 0}, {"connect", 1}, {"established", 2}}, "illegal-tcpflag"},
      {"connection", ipaccessconnectionflag_parse, ipaccessconnectionflag_string,
       {{"normal", 0},
        {"outgoing", 1},
        {"outgoing-related", 2},
        {"incoming", 3},
        {"incoming-related", 4},
        {"exists", 5}},
       "illegal-connection-flag"},
      {"logging", ipaccesslogging_parse, ipaccesslogging_string,
       {{"none", 0}, {"short", 1}, {"long", 2}, {"alert", 3}}, "illegal-logging"},
  };
}

std::string rule_with_length(const std::string &head, const std::string &tail, std::size_t length) {
  return head + std::string(length - head.size() - tail.size(), ' ') + tail;
}

}  // namespace

// ---- enumerations ----

TEST(AccessEnumWords, EveryWordParsesToItsValue) {
  for (const auto &e : enumerations()) {
    for (const auto &w : e.words) {
      std::int32_t value = -99;
      EXPECT_EQ(e.parse(&value, w.word), 0) << e.name << " " << w.word;
      EXPECT_EQ(value, w.value) << e.name << " " << w.word;
    }
  }
}

TEST(AccessEnumWords, EveryValuePrintsItsWord) {
  for (const auto &e : enumerations()) {
    for (const auto &w : e.words) EXPECT_STREQ(e.string(w.value), w.word) << e.name;
  }
}

TEST(AccessEnumWords, ValuesOutsideTheTablePrintTheIllegalText) {
  for (const auto &e : enumerations()) {
    auto count = static_cast<std::int32_t>(e.words.size());
    EXPECT_STREQ(e.string(count), e.illegal) << e.name;
    EXPECT_STREQ(e.string(-1), e.illegal) << e.name;
    EXPECT_STREQ(e.string(INT32_MAX), e.illegal) << e.name;
    EXPECT_STREQ(e.string(INT32_MIN), e.illegal) << e.name;
  }
}

TEST(AccessEnumWords, UnknownWordFailsAndLeavesTheTargetAlone) {
  const char *bad[] = {"", "x", "illegal-policy", "Permit", "PERMIT", "permitx", "permi", "eq ", " eq", "Eq"};
  for (const auto &e : enumerations()) {
    for (const char *word : bad) {
      std::int32_t value = 77;
      EXPECT_EQ(e.parse(&value, word), -1) << e.name << " '" << word << "'";
      EXPECT_EQ(value, 77) << e.name << " '" << word << "'";
    }
  }
}

TEST(AccessEnumWords, WordsAreCaseSensitive) {
  std::int32_t value = 9;
  EXPECT_EQ(ipaccesspolicy_parse(&value, "Deny"), -1);
  EXPECT_EQ(ipaccessoperator_parse(&value, "RANGE"), -1);
  EXPECT_EQ(ipaccesstcpflag_parse(&value, "Established"), -1);
  EXPECT_EQ(ipaccessconnectionflag_parse(&value, "Incoming"), -1);
  EXPECT_EQ(ipaccessconnectionflag_parse(&value, "Related"), -1);
  EXPECT_EQ(ipaccesslogging_parse(&value, "Alert"), -1);
  EXPECT_EQ(value, 9);
}

TEST(AccessEnumWords, RelatedIsOutgoingRelated) {
  std::int32_t value = 0;
  EXPECT_EQ(ipaccessconnectionflag_parse(&value, "related"), 0);
  EXPECT_EQ(value, 2);
}

TEST(AccessEnumWords, RelatedIsNeverPrinted) {
  for (std::int32_t v = -2; v < 10; ++v) EXPECT_STRNE(ipaccessconnectionflag_string(v), "related") << v;
  EXPECT_STREQ(ipaccessconnectionflag_string(2), "outgoing-related");
}

TEST(AccessEnumWords, DirectionNames) {
  EXPECT_STREQ(ipaccessdirection_string(1), "INPUT");
  EXPECT_STREQ(ipaccessdirection_string(2), "OUTPUT");
  EXPECT_STREQ(ipaccessdirection_string(0), "NONE");
  EXPECT_STREQ(ipaccessdirection_string(3), "NONE");
  EXPECT_STREQ(ipaccessdirection_string(-1), "NONE");
  EXPECT_STREQ(ipaccessdirection_string(INT32_MAX), "NONE");
}

// ---- record ----

TEST(AccessRuleRecord, FieldsFollowEachOtherInTheirOrder) {
  EXPECT_EQ(offsetof(ipaccess_rule, reserved), 0u);
  EXPECT_EQ(offsetof(ipaccess_rule, policy), 16u);
  EXPECT_EQ(offsetof(ipaccess_rule, proto), 20u);
  EXPECT_EQ(offsetof(ipaccess_rule, src_addr), 24u);
  EXPECT_EQ(offsetof(ipaccess_rule, src_mask), 28u);
  EXPECT_EQ(offsetof(ipaccess_rule, src_op), 32u);
  EXPECT_EQ(offsetof(ipaccess_rule, src_port), 36u);
  EXPECT_EQ(offsetof(ipaccess_rule, src_port2), 38u);
  EXPECT_EQ(offsetof(ipaccess_rule, dst_addr), 40u);
  EXPECT_EQ(offsetof(ipaccess_rule, dst_mask), 44u);
  EXPECT_EQ(offsetof(ipaccess_rule, dst_op), 48u);
  EXPECT_EQ(offsetof(ipaccess_rule, dst_port), 52u);
  EXPECT_EQ(offsetof(ipaccess_rule, dst_port2), 54u);
  EXPECT_EQ(offsetof(ipaccess_rule, tcpflag), 56u);
  EXPECT_EQ(offsetof(ipaccess_rule, connflag), 60u);
  EXPECT_EQ(offsetof(ipaccess_rule, logging), 64u);
  EXPECT_EQ(offsetof(ipaccess_rule, reserved2), 68u);
  EXPECT_EQ(offsetof(ipaccess_rule, used), 72u);
  EXPECT_EQ(sizeof(ipaccess_rule), 76u);
}

// ---- whole lines ----

TEST(AccessParse, MinimalRuleHasNoConditions) {
  auto p = parse("permit tcp any any");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6});
}

TEST(AccessParse, FullRuleWithHostMaskPortsAndFlags) {
  auto p = parse("deny ip host 192.168.1.1 10.0.0.0 255.0.0.0 eq 80 established connection incoming log");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 2,
                             .proto = 255,
                             .src_addr = 0xC0A80101,
                             .src_mask = 0xFFFFFFFF,
                             .dst_addr = 0x0A000000,
                             .dst_mask = 0xFF000000,
                             .dst_op = 1,
                             .dst_port = 80,
                             .tcpflag = 2,
                             .connflag = 3,
                             .logging = 1});
}

TEST(AccessParse, AddressesAreHostOrderIntegers) {
  auto p = parse("permit udp 10.1.2.3 255.255.255.0 host 172.16.254.9");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1,
                             .proto = 17,
                             .src_addr = 0x0A010203,
                             .src_mask = 0xFFFFFF00,
                             .dst_addr = 0xAC10FE09,
                             .dst_mask = 0xFFFFFFFF});
}

TEST(AccessParse, SourceRange) {
  auto p = parse("permit udp any range 1000 2000 any");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 17, .src_op = 7, .src_port = 1000, .src_port2 = 2000});
}

TEST(AccessParse, DestinationRangeIsKeptAsWritten) {
  auto p = parse("permit tcp any any range 2000 1000");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_op = 7, .dst_port = 2000, .dst_port2 = 1000});
}

TEST(AccessParse, EveryOperatorWordTakesOnePort) {
  const std::pair<const char *, std::int32_t> ops[] = {{"eq", 1}, {"ne", 2}, {"lt", 3},
                                                       {"le", 4}, {"gt", 5}, {"ge", 6}};
  for (auto [word, value] : ops) {
    auto p = parse(std::string("permit tcp any ") + word + " 22 any " + word + " 443");
    EXPECT_EQ(p.rc, IPACCESS_E_OK) << word;
    expect_record(p.rule, Rule{.policy = 1,
                               .proto = 6,
                               .src_op = value,
                               .src_port = 22,
                               .dst_op = value,
                               .dst_port = 443});
  }
}

TEST(AccessParse, OperatorNoneAlsoTakesAPort) {
  auto p = parse("permit tcp any none 80 any none 443");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .src_port = 80, .dst_port = 443});
}

TEST(AccessParse, ConnectionWordAloneIsAConnectionFlag) {
  auto p = parse("permit tcp any any outgoing");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .connflag = 1});
}

TEST(AccessParse, RelatedAloneIsOutgoingRelated) {
  auto p = parse("permit tcp any any related");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .connflag = 2});
}

TEST(AccessParse, RelatedAfterConnectionWordIsOutgoingRelated) {
  auto p = parse("permit tcp any any connection related");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .connflag = 2});
}

TEST(AccessParse, EveryConnectionWordAfterConnection) {
  const char *words[] = {"normal", "outgoing", "outgoing-related", "incoming", "incoming-related", "exists"};
  for (std::int32_t i = 0; i < 6; ++i) {
    auto p = parse(std::string("deny udp any any connection ") + words[i]);
    EXPECT_EQ(p.rc, IPACCESS_E_OK) << words[i];
    expect_record(p.rule, Rule{.policy = 2, .proto = 17, .connflag = i});
  }
}

TEST(AccessParse, LogAloneMeansShort) {
  auto p = parse("deny ip any any log");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 2, .proto = 255, .logging = 1});
}

TEST(AccessParse, LogWithLevel) {
  auto p = parse("deny ip any any log alert");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 2, .proto = 255, .logging = 3});
}

TEST(AccessParse, LogNoneMeansNoLogging) {
  auto p = parse("deny ip any any log none");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 2, .proto = 255, .logging = 0});
}

TEST(AccessParse, LoggingWordAloneIsALevel) {
  auto p = parse("reject tcp any any long");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 3, .proto = 6, .logging = 2});
}

TEST(AccessParse, WordsAfterTheLoggingLevelAreIgnored) {
  auto p = parse("deny tcp any any log long whatever comes 1 2 3");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 2, .proto = 6, .logging = 2});
}

TEST(AccessParse, WordsAfterALoneLoggingWordAreIgnored) {
  auto p = parse("deny tcp any any alert established");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 2, .proto = 6, .logging = 3});
}

TEST(AccessParse, TcpFlagAfterDestinationPort) {
  auto p = parse("permit tcp any any eq 22 connect");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_op = 1, .dst_port = 22, .tcpflag = 1});
}

TEST(AccessParse, TcpFlagNoneAfterAPortIsAccepted) {
  auto p = parse("permit tcp any any eq 22 none");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_op = 1, .dst_port = 22});
}

// "none" right after the destination is read as the port operator "none",
// which then wants a port.
TEST(AccessParse, NoneRightAfterDestinationIsAPortOperator) {
  auto p = parse("permit tcp any any none");
  EXPECT_EQ(p.rc, IPACCESS_E_MISSING_WORD);
  auto q = parse("permit tcp any any none 5");
  EXPECT_EQ(q.rc, IPACCESS_E_OK);
  expect_record(q.rule, Rule{.policy = 1, .proto = 6, .dst_port = 5});
}

TEST(AccessParse, TcpFlagAfterTheConnectionPartIsAnError) {
  auto p = parse("permit tcp any any incoming established");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_TRAILING_WORD);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .connflag = 3});
}

TEST(AccessParse, SecondTcpFlagIsAnError) {
  auto p = parse("permit tcp any any established connect");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_TRAILING_WORD);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .tcpflag = 2});
}

TEST(AccessParse, BlanksAndTabsSeparateWords) {
  auto p = parse(" \t permit\t\ttcp  any \t host\t1.2.3.4   eq\t8080 \t ");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1,
                             .proto = 6,
                             .dst_addr = 0x01020304,
                             .dst_mask = 0xFFFFFFFF,
                             .dst_op = 1,
                             .dst_port = 8080});
}

// Only blanks and tabs separate words: a line end belongs to the last word.
TEST(AccessParse, LineEndIsPartOfTheLastWord) {
  auto p = parse("permit tcp any any\n");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_DST_ADDR);
}

TEST(AccessParse, RecordIsClearedBeforeParsing) {
  auto p = parse("permit tcp any any");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  for (std::uint32_t word : p.rule.reserved) EXPECT_EQ(word, 0u);
  EXPECT_EQ(p.rule.reserved2, 0u);
  EXPECT_EQ(p.rule.used, 0u);
}

// ---- protocols ----

TEST(AccessParse, IpInAnyCaseIsAnyProtocol) {
  for (const char *word : {"ip", "IP", "Ip", "iP"}) {
    auto p = parse(std::string("permit ") + word + " any any");
    EXPECT_EQ(p.rc, IPACCESS_E_OK) << word;
    EXPECT_EQ(p.rule.proto, 255) << word;
  }
}

TEST(AccessParse, ProtocolNamesIgnoreCase) {
  const std::pair<const char *, int> names[] = {{"TCP", 6}, {"Udp", 17}, {"icmp", 1}, {"gre", 47},
                                                {"ICMPv6", 58}, {"ipv4", 0}, {"P47", 47}, {"P200", 200}};
  for (auto [word, number] : names) {
    auto p = parse(std::string("permit ") + word + " any any");
    EXPECT_EQ(p.rc, IPACCESS_E_OK) << word;
    EXPECT_EQ(p.rule.proto, number) << word;
  }
}

TEST(AccessParse, UnknownProtocol) {
  for (const char *word : {"foo", "6", "p6", "P256", "tcp/udp"}) {
    auto p = parse(std::string("permit ") + word + " any any");
    EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_PROTOCOL) << word;
    expect_record(p.rule, Rule{.policy = 1});
  }
}

// ---- addresses ----

TEST(AccessAddress, DotAtTheEndLeavesTheRestZero) {
  auto p = parse("permit tcp 10. 255. 10.1. 255.255.");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1,
                             .proto = 6,
                             .src_addr = 0x0A000000,
                             .src_mask = 0xFF000000,
                             .dst_addr = 0x0A010000,
                             .dst_mask = 0xFFFF0000});
}

TEST(AccessAddress, ShortAddressWithoutDotIsRefused) {
  EXPECT_EQ(parse("permit tcp 10.1 255.255.0.0 any").rc, IPACCESS_E_BAD_SRC_ADDR);
  EXPECT_EQ(parse("permit tcp 10 255.0.0.0 any").rc, IPACCESS_E_BAD_SRC_ADDR);
  EXPECT_EQ(parse("permit tcp 10.1.2 255.255.0.0 any").rc, IPACCESS_E_BAD_SRC_ADDR);
}

TEST(AccessAddress, TextAfterTheFourthPartIsIgnored) {
  auto p = parse("permit tcp 1.2.3.4x 255.255.255.255.255 host 5.6.7.8/24");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1,
                             .proto = 6,
                             .src_addr = 0x01020304,
                             .src_mask = 0xFFFFFFFF,
                             .dst_addr = 0x05060708,
                             .dst_mask = 0xFFFFFFFF});
}

TEST(AccessAddress, PartsOutOfRangeOrWithoutDigitsAreRefused) {
  const char *bad[] = {"256.0.0.0", "1.2.3.256", "-1.2.3.4", "1.-2.3.4", "a.b.c.d", "1..2.3", ".1.2.3",
                       "1.2.3.x",   "1x2.3.4", "99999999999999999999.1.1.1", "ANY"};
  for (const char *addr : bad) {
    auto p = parse(std::string("permit tcp ") + addr + " 255.255.255.255 any");
    EXPECT_EQ(p.rc, IPACCESS_E_BAD_SRC_ADDR) << addr;
    expect_record(p.rule, Rule{.policy = 1, .proto = 6});
  }
}

TEST(AccessAddress, ExtremeValues) {
  auto p = parse("permit tcp 0.0.0.0 0.0.0.0 255.255.255.255 255.255.255.254");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1,
                             .proto = 6,
                             .dst_addr = 0xFFFFFFFF,
                             .dst_mask = 0xFFFFFFFE});
}

// Canonical dotted quads agree with the C library's reading of them.
TEST(AccessAddress, DottedQuadsAgreeWithInetPton) {
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int> octet(0, 255);
  for (int i = 0; i < 2000; ++i) {
    char text[32];
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", octet(rng), octet(rng), octet(rng), octet(rng));
    in_addr reference{};
    ASSERT_EQ(inet_pton(AF_INET, text, &reference), 1) << text;
    auto p = parse(std::string("deny ip host ") + text + " any");
    ASSERT_EQ(p.rc, IPACCESS_E_OK) << text;
    EXPECT_EQ(p.rule.src_addr, ntohl(reference.s_addr)) << text;
  }
}

// ---- ports ----

TEST(AccessPort, PortZeroIsRefused) {
  auto p = parse("permit udp any eq 0 any");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_SRC_PORT);
  expect_record(p.rule, Rule{.policy = 1, .proto = 17, .src_op = 1});
}

TEST(AccessPort, BoundsOfThePortRange) {
  auto p = parse("permit udp any eq 1 any eq 65535");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 17, .src_op = 1, .src_port = 1, .dst_op = 1, .dst_port = 65535});
  EXPECT_EQ(parse("permit udp any eq 65536 any").rc, IPACCESS_E_BAD_SRC_PORT);
  EXPECT_EQ(parse("permit udp any eq -1 any").rc, IPACCESS_E_BAD_SRC_PORT);
  EXPECT_EQ(parse("permit udp any eq 99999999999999999999 any").rc, IPACCESS_E_BAD_SRC_PORT);
}

TEST(AccessPort, TextAfterTheDigitsIsIgnored) {
  auto p = parse("permit tcp any any eq 80http");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_op = 1, .dst_port = 80});
}

TEST(AccessPort, PortWithoutDigitsIsRefused) {
  EXPECT_EQ(parse("permit tcp any eq www any").rc, IPACCESS_E_BAD_SRC_PORT);
  EXPECT_EQ(parse("permit tcp any any eq www").rc, IPACCESS_E_BAD_DST_PORT);
}

// ---- every error code, with the record left as read so far ----

TEST(AccessParseErrors, TooLongText) {
  std::string text = rule_with_length("permit tcp any", "any", 1024);
  auto p = parse(text);
  EXPECT_EQ(p.rc, IPACCESS_E_TOO_LONG);
  expect_record(p.rule, Rule{});
}

TEST(AccessParseErrors, TextOf1023CharactersIsParsed) {
  std::string text = rule_with_length("permit tcp any", "host 1.2.3.4", 1023);
  ASSERT_EQ(text.size(), 1023u);
  auto p = parse(text);
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_addr = 0x01020304, .dst_mask = 0xFFFFFFFF});
}

TEST(AccessParseErrors, VeryLongTextIsRefusedWithoutAllocating) {
  std::string text = "permit tcp any any " + std::string(100000, 'x');
  long before = nuvcsock_allocations();
  EXPECT_EQ(parse(text).rc, IPACCESS_E_TOO_LONG);
  EXPECT_EQ(nuvcsock_allocations(), before);
}

// The length check reads at most 1024 characters: a text with no NUL among
// them is refused without reading further (AddressSanitizer would notice).
TEST(AccessParseErrors, LengthCheckReadsAtMost1024Characters) {
  std::unique_ptr<char[]> unterminated(new char[1024]);
  std::memset(unterminated.get(), 'a', 1024);
  ipaccess_rule rule;
  EXPECT_EQ(ipaccess_parse(&rule, unterminated.get()), IPACCESS_E_TOO_LONG);
}

TEST(AccessParseErrors, MissingWords) {
  const char *lines[] = {"", "   \t ", "permit", "permit tcp", "permit tcp any", "permit tcp host",
                         "permit tcp host 1.2.3.4", "permit tcp 1.2.3.4", "permit tcp 1.2.3.4 255.0.0.0",
                         "permit tcp any eq", "permit tcp any eq 80", "permit tcp any range 1",
                         "permit tcp any range 1 2", "permit tcp any host", "permit tcp any 1.2.3.4",
                         "permit tcp any any eq", "permit tcp any any range 5"};
  for (const char *line : lines) EXPECT_EQ(parse(line).rc, IPACCESS_E_MISSING_WORD) << "'" << line << "'";
}

TEST(AccessParseErrors, MissingWordKeepsWhatWasRead) {
  auto p = parse("deny udp host 9.8.7.6 range 100");
  EXPECT_EQ(p.rc, IPACCESS_E_MISSING_WORD);
  expect_record(p.rule, Rule{.policy = 2,
                             .proto = 17,
                             .src_addr = 0x09080706,
                             .src_mask = 0xFFFFFFFF,
                             .src_op = 7,
                             .src_port = 100});
}

TEST(AccessParseErrors, UnknownPolicy) {
  auto p = parse("Permit tcp any any");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_POLICY);
  expect_record(p.rule, Rule{});
  EXPECT_EQ(parse("allow tcp any any").rc, IPACCESS_E_UNKNOWN_POLICY);
}

TEST(AccessParseErrors, UnknownProtocol) {
  auto p = parse("deny tcpx any any");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_PROTOCOL);
  expect_record(p.rule, Rule{.policy = 2});
}

TEST(AccessParseErrors, BadSourceHostAddress) {
  auto p = parse("permit tcp host 1.2.3.999 any");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_SRC_HOST);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6});
}

TEST(AccessParseErrors, BadSourceAddress) {
  auto p = parse("permit tcp ANY any");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_SRC_ADDR);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6});
}

TEST(AccessParseErrors, BadSourceMask) {
  auto p = parse("permit tcp 10.0.0.0 255.0.0.300 any");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_SRC_MASK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .src_addr = 0x0A000000});
}

TEST(AccessParseErrors, BadSourcePort) {
  auto p = parse("permit tcp any gt 70000 any");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_SRC_PORT);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .src_op = 5});
}

TEST(AccessParseErrors, BadSourceUpperBound) {
  auto p = parse("permit tcp any range 10 0 any");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_SRC_UPPER_PORT);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .src_op = 7, .src_port = 10});
}

TEST(AccessParseErrors, BadDestinationHostAddress) {
  auto p = parse("permit tcp any host 1.2");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_DST_HOST);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6});
}

TEST(AccessParseErrors, BadDestinationAddress) {
  auto p = parse("permit tcp host 1.2.3.4 everywhere");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_DST_ADDR);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .src_addr = 0x01020304, .src_mask = 0xFFFFFFFF});
}

TEST(AccessParseErrors, BadDestinationMask) {
  auto p = parse("permit tcp any 192.168.0.0 255.255.x.0");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_DST_MASK);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_addr = 0xC0A80000});
}

TEST(AccessParseErrors, BadDestinationPort) {
  auto p = parse("permit tcp any any le 0");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_DST_PORT);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_op = 4});
}

TEST(AccessParseErrors, BadDestinationUpperBound) {
  auto p = parse("permit tcp any any range 6000 65536");
  EXPECT_EQ(p.rc, IPACCESS_E_BAD_DST_UPPER_PORT);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .dst_op = 7, .dst_port = 6000});
}

TEST(AccessParseErrors, ConnectionAsLastWord) {
  auto p = parse("permit tcp any any established connection");
  EXPECT_EQ(p.rc, IPACCESS_E_CONNECTION_WITHOUT_FLAG);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .tcpflag = 2});
}

TEST(AccessParseErrors, UnknownWordAfterConnection) {
  auto p = parse("permit tcp any any connection established");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_CONNECTION_FLAG);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6});
}

TEST(AccessParseErrors, UnknownTrailingWord) {
  auto p = parse("permit tcp any any foo");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_TRAILING_WORD);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6});
}

TEST(AccessParseErrors, UnknownLoggingLevel) {
  auto p = parse("permit tcp any any connection exists log verbose");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_TRAILING_WORD);
  expect_record(p.rule, Rule{.policy = 1, .proto = 6, .connflag = 5});
}

// ---- the sixteen-word window ----

TEST(AccessWordLimit, SixteenWordsAreRead) {
  // 16 words: the level word of "log long" is the 16th.
  auto p = parse("permit tcp host 1.2.3.4 eq 1 host 5.6.7.8 range 3 4 connect connection exists log long");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  EXPECT_EQ(p.rule.logging, 2);
}

TEST(AccessWordLimit, LevelAsSeventeenthWordIsDroppedAndTheRuleLogsShort) {
  auto p = parse(
      "permit tcp 1.2.3.0 255.255.255.0 range 1 2 5.6.7.0 255.255.255.0 range 3 4 established connection "
      "incoming log alert");
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  expect_record(p.rule, Rule{.policy = 1,
                             .proto = 6,
                             .src_addr = 0x01020300,
                             .src_mask = 0xFFFFFF00,
                             .src_op = 7,
                             .src_port = 1,
                             .src_port2 = 2,
                             .dst_addr = 0x05060700,
                             .dst_mask = 0xFFFFFF00,
                             .dst_op = 7,
                             .dst_port = 3,
                             .dst_port2 = 4,
                             .tcpflag = 2,
                             .connflag = 3,
                             .logging = 1});
}

TEST(AccessWordLimit, UnknownSeventeenthWordIsNotSeen) {
  auto p = parse("permit tcp host 1.2.3.4 eq 1 host 5.6.7.8 range 3 4 connect connection exists log bogus");
  EXPECT_EQ(p.rc, IPACCESS_E_UNKNOWN_TRAILING_WORD);
  auto q = parse("permit tcp host 1.2.3.4 range 1 2 host 5.6.7.8 range 3 4 connect connection exists log bogus");
  EXPECT_EQ(q.rc, IPACCESS_E_OK);
  EXPECT_EQ(q.rule.logging, 1);
}

// ---- scratch memory ----

TEST(AccessParseMemory, NoScratchMemoryGivesMinusOneAndAClearedRecord) {
  testsupport::NoLeakGuard guard;
  ipaccess_rule rule;
  std::memset(&rule, 0x5A, sizeof rule);
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(ipaccess_parse(&rule, "permit tcp any any"), IPACCESS_E_TOO_LONG);
  expect_record(rule, Rule{});
}

TEST(AccessParseMemory, ParsingWorksAgainAfterAFailedAllocation) {
  testsupport::NoLeakGuard guard;
  ipaccess_rule rule;
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(ipaccess_parse(&rule, "permit tcp any any"), IPACCESS_E_TOO_LONG);
  EXPECT_EQ(ipaccess_parse(&rule, "permit tcp any any"), IPACCESS_E_OK);
  EXPECT_EQ(rule.policy, 1);
}

TEST(AccessParseMemory, OneScratchBlockPerParseReleasedOnEveryPath) {
  const char *lines[] = {"permit tcp any any", "permit", "Permit tcp any any", "permit tcp any any foo",
                         "permit tcp any any connection"};
  for (const char *line : lines) {
    testsupport::NoLeakGuard guard;
    long before = nuvcsock_allocations();
    ipaccess_rule rule;
    ipaccess_parse(&rule, line);
    EXPECT_EQ(nuvcsock_allocations() - before, 1) << line;
  }
}
