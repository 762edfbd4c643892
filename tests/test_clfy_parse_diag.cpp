// Diagnostic rule parsing: where and why a classifier rule line is refused,
// the texts of the result codes, and agreement with the plain parser.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "rc_seeded.h"
#include "testsupport.h"

namespace {

// The diagnostic call on `text`; a rule it returns is freed.
struct Diagnosed {
  int rc;
  nuv_clfy_diag diag;
};

Diagnosed diagnose(const std::string &text) {
  Diagnosed d{};
  std::memset(&d.diag, 0x5a, sizeof d.diag);  // every field must be written
  nuv_clfy *rule = nullptr;
  d.rc = nuv_clfy_parse_with_diag(text.c_str(), &rule, &d.diag);
  if (d.rc == 0) nuv_clfy_free(rule);
  return d;
}

class ClfyParseDiag : public ::testing::Test {
 protected:
  void TearDown() override {
    nuvcsock_fail_nth_allocation(0);
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

// ---- Code names and texts ----

TEST(ClfyCodes, NamesKeepTheHandlersValues) {
  EXPECT_EQ(NUV_CLFY_E_OK, 0);
  EXPECT_EQ(NUV_CLFY_E_REFUSED, -1);
  EXPECT_EQ(NUV_CLFY_E_DHCP_NO_PATTERN, -1);
  EXPECT_EQ(NUV_CLFY_E_DHCP_BAD_CODE, -2);
  EXPECT_EQ(NUV_CLFY_E_DHCP_NOT_VENDOR, -3);
  EXPECT_EQ(NUV_CLFY_E_DHCP_ENTERPRISE, -4);
  EXPECT_EQ(NUV_CLFY_E_DHCP_SECOND_SLASH, -5);
  EXPECT_EQ(NUV_CLFY_E_DHCP_SUB_CODE, -6);
  EXPECT_EQ(NUV_CLFY_E_MISSING_TABLE, -9);
  EXPECT_EQ(NUV_CLFY_E_DHCP_NOT_STORED, -10);
  EXPECT_EQ(NUV_CLFY_E_UNKNOWN_KEYWORD, -11);
  EXPECT_EQ(NUV_CLFY_E_LINE_TOO_LONG, -12);
  EXPECT_EQ(NUV_CLFY_E_NO_MEMORY, -13);
}

TEST(ClfyCodes, EveryCodeHasItsText) {
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_OK), "parsed");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_REFUSED), "value missing or not accepted");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_DHCP_BAD_CODE), "bad DHCP option code or unknown header field");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_DHCP_NOT_VENDOR), "only options 124 and 125 take /enterprise/sub");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_DHCP_ENTERPRISE), "bad enterprise number");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_DHCP_SECOND_SLASH), "missing \"/\" before the sub-option code");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_DHCP_SUB_CODE), "bad sub-option code");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_MISSING_TABLE), "table name missing");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_DHCP_NOT_STORED), "DHCP condition could not be stored");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_UNKNOWN_KEYWORD), "unknown keyword");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_LINE_TOO_LONG), "line longer than 255 characters");
  EXPECT_STREQ(nuv_clfy_strerror(NUV_CLFY_E_NO_MEMORY), "out of memory");
}

TEST(ClfyCodes, UnknownCodesHaveTheFixedText) {
  for (int code : {-7, -8, -14, 1, 1000, -1000}) EXPECT_STREQ(nuv_clfy_strerror(code), "unknown result code") << code;
}

TEST(DhcpMatchCodes, NamesKeepTheParsersValues) {
  EXPECT_EQ(DHCP_MATCH_E_OK, 0);
  EXPECT_EQ(DHCP_MATCH_E_NO_PATTERN, -1);
  EXPECT_EQ(DHCP_MATCH_E_BAD_CODE, -2);
  EXPECT_EQ(DHCP_MATCH_E_UNKNOWN_FIELD, -2);
  EXPECT_EQ(DHCP_MATCH_E_NOT_VENDOR, -3);
  EXPECT_EQ(DHCP_MATCH_E_ENTERPRISE, -4);
  EXPECT_EQ(DHCP_MATCH_E_SECOND_SLASH, -5);
  EXPECT_EQ(DHCP_MATCH_E_SUB_CODE, -6);
}

TEST(DhcpMatchCodes, EveryCodeHasItsText) {
  EXPECT_STREQ(dhcp_match_strerror(DHCP_MATCH_E_OK), "parsed");
  EXPECT_STREQ(dhcp_match_strerror(5), "parsed");  // a pattern length
  EXPECT_STREQ(dhcp_match_strerror(DHCP_MATCH_E_NO_PATTERN), "header field name without a pattern");
  EXPECT_STREQ(dhcp_match_strerror(DHCP_MATCH_E_BAD_CODE), "bad DHCP option code or unknown header field");
  EXPECT_STREQ(dhcp_match_strerror(DHCP_MATCH_E_NOT_VENDOR), "only options 124 and 125 take /enterprise/sub");
  EXPECT_STREQ(dhcp_match_strerror(DHCP_MATCH_E_ENTERPRISE), "bad enterprise number");
  EXPECT_STREQ(dhcp_match_strerror(DHCP_MATCH_E_SECOND_SLASH), "missing \"/\" before the sub-option code");
  EXPECT_STREQ(dhcp_match_strerror(DHCP_MATCH_E_SUB_CODE), "bad sub-option code");
  EXPECT_STREQ(dhcp_match_strerror(-7), "unknown result code");
}

// ---- Where and why a line is refused ----

TEST_F(ClfyParseDiag, AcceptedLineLeavesAClearDiagnosis) {
  const Diagnosed d = diagnose("dev eth0 ip.proto P58");
  EXPECT_EQ(d.rc, NUV_CLFY_E_OK);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_OK);
  EXPECT_EQ(d.diag.offset, 0u);
  EXPECT_EQ(d.diag.length, 0u);
  EXPECT_STREQ(d.diag.keyword, "");
  EXPECT_STREQ(d.diag.reason, "");
}

TEST_F(ClfyParseDiag, UnknownKeywordIsReportedAtItsColumn) {
  const Diagnosed d = diagnose("dev eth0 ip.bogus 5");
  EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_UNKNOWN_KEYWORD);
  EXPECT_EQ(d.diag.offset, 9u);
  EXPECT_EQ(d.diag.length, 8u);
  EXPECT_STREQ(d.diag.keyword, "ip.bogus");
  EXPECT_STREQ(d.diag.reason, "unknown keyword");
}

TEST_F(ClfyParseDiag, WordStartingWithADigitIsAnUnknownKeywordWithoutName) {
  const Diagnosed d = diagnose("dev eth0  80 x");
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_UNKNOWN_KEYWORD);
  EXPECT_EQ(d.diag.offset, 10u);
  EXPECT_EQ(d.diag.length, 2u);
  EXPECT_STREQ(d.diag.keyword, "");
}

TEST_F(ClfyParseDiag, UpperCaseKeywordIsUnknown) {
  const Diagnosed d = diagnose("DEV eth0");
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_UNKNOWN_KEYWORD);
  EXPECT_STREQ(d.diag.keyword, "DEV");
  EXPECT_EQ(d.diag.offset, 0u);
}

TEST_F(ClfyParseDiag, LongUnknownKeywordIsCutTo31Characters) {
  const std::string word(40, 'k');
  const Diagnosed d = diagnose("any " + word);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_UNKNOWN_KEYWORD);
  EXPECT_EQ(d.diag.offset, 4u);
  EXPECT_EQ(d.diag.length, 40u);
  EXPECT_EQ(std::string(d.diag.keyword), std::string(31, 'k'));
}

TEST_F(ClfyParseDiag, ProtocolNumberWithoutPrefixIsExplained) {
  const Diagnosed d = diagnose("ip.proto 58");
  EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.offset, 9u);
  EXPECT_EQ(d.diag.length, 2u);
  EXPECT_STREQ(d.diag.keyword, "ip.proto");
  EXPECT_STREQ(d.diag.reason, "protocol number without the P prefix (numbers are written P6, P58, ...)");
}

TEST_F(ClfyParseDiag, ProtocolNumberWithPrefixIsAccepted) {
  EXPECT_EQ(diagnose("ip.proto P58").rc, NUV_CLFY_E_OK);
}

TEST_F(ClfyParseDiag, UnknownProtocolNameIsExplained) {
  const Diagnosed d = diagnose("dev eth0 ip.protocol = tcpx");
  EXPECT_EQ(d.diag.offset, 23u);
  EXPECT_EQ(d.diag.length, 4u);
  EXPECT_STREQ(d.diag.keyword, "ip.protocol");
  EXPECT_STREQ(d.diag.reason, "unknown protocol");
}

TEST_F(ClfyParseDiag, MissingValueIsReportedAtTheEndOfTheLine) {
  const Diagnosed d = diagnose("dev eth0 tcp.dport");
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.offset, 18u);
  EXPECT_EQ(d.diag.length, 0u);
  EXPECT_STREQ(d.diag.keyword, "tcp.dport");
  EXPECT_STREQ(d.diag.reason, "value missing");
}

TEST_F(ClfyParseDiag, MissingProtocolIsAMissingValue) {
  const Diagnosed d = diagnose("ip.proto ");
  EXPECT_EQ(d.diag.offset, 9u);
  EXPECT_STREQ(d.diag.reason, "value missing");
}

TEST_F(ClfyParseDiag, IpVersionOutOfRangeIsExplained) {
  const Diagnosed d = diagnose("ip.version 5");
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.offset, 11u);
  EXPECT_EQ(d.diag.length, 1u);
  EXPECT_STREQ(d.diag.reason, "IP version must be 4 or 6");
}

TEST_F(ClfyParseDiag, NonNumberIsExplained) {
  const Diagnosed d = diagnose("icmp.type x");
  EXPECT_EQ(d.diag.offset, 10u);
  EXPECT_EQ(d.diag.length, 1u);
  EXPECT_STREQ(d.diag.keyword, "icmp.type");
  EXPECT_STREQ(d.diag.reason, "not a number");
}

TEST_F(ClfyParseDiag, BadListElementIsReportedAlone) {
  const Diagnosed d = diagnose("udp.dport 53,abc,67");
  EXPECT_EQ(d.diag.offset, 13u);
  EXPECT_EQ(d.diag.length, 3u);
  EXPECT_STREQ(d.diag.keyword, "udp.dport");
  EXPECT_STREQ(d.diag.reason, "unknown comparison operator");
}

TEST_F(ClfyParseDiag, EmptyListElementIsAMissingValue) {
  const Diagnosed d = diagnose("udp.dport 53,,67");
  EXPECT_EQ(d.diag.offset, 13u);
  EXPECT_EQ(d.diag.length, 0u);
  EXPECT_STREQ(d.diag.reason, "value missing");
}

TEST_F(ClfyParseDiag, CommaOfALaterValueIsExplainedAtTheWordsBeforeIt) {
  const Diagnosed d = diagnose("tcp.dport 80 localmark voice,video");
  EXPECT_EQ(d.diag.offset, 13u);
  EXPECT_EQ(d.diag.length, 9u);
  EXPECT_STREQ(d.diag.keyword, "tcp.dport");
  EXPECT_STREQ(d.diag.reason, "unexpected word inside a comma list (a later comma of the line splits it)");
}

TEST_F(ClfyParseDiag, RangeWithoutUpperBoundIsExplained) {
  const Diagnosed d = diagnose("ip.len 10- x");
  EXPECT_EQ(d.diag.offset, 11u);
  EXPECT_STREQ(d.diag.keyword, "ip.len");
  EXPECT_STREQ(d.diag.reason, "not a number");
}

TEST_F(ClfyParseDiag, BadMacIsExplained) {
  const Diagnosed d = diagnose("eth.source 0:11:22:33:44:55");
  EXPECT_EQ(d.diag.offset, 11u);
  EXPECT_EQ(d.diag.length, 16u);
  EXPECT_STREQ(d.diag.reason, "not a MAC address");
}

TEST_F(ClfyParseDiag, BadMaskIsExplained) {
  const Diagnosed d = diagnose("ip.tos 0x20/zz");
  EXPECT_EQ(d.diag.offset, 12u);
  EXPECT_EQ(d.diag.length, 2u);
  EXPECT_STREQ(d.diag.reason, "mask not a number");
}

TEST_F(ClfyParseDiag, BadAddressIsReportedWithItsWholePrefix) {
  const Diagnosed d = diagnose("ip.saddr fe80::zz/64");
  EXPECT_EQ(d.diag.offset, 9u);
  EXPECT_EQ(d.diag.length, 11u);
  EXPECT_STREQ(d.diag.reason, "not an IPv4 or IPv6 address or prefix");
  const Diagnosed v4 = diagnose("ip.daddr 10.0.0.256");
  EXPECT_EQ(v4.diag.offset, 9u);
  EXPECT_STREQ(v4.diag.reason, "not an IPv4 or IPv6 address or prefix");
}

TEST_F(ClfyParseDiag, DhcpConditionWithoutTableNamesTheEndOfTheLine) {
  const Diagnosed d = diagnose("dhcpoption 60 MSFT*");
  EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_MISSING_TABLE);
  EXPECT_EQ(d.diag.offset, 19u);
  EXPECT_EQ(d.diag.length, 0u);
  EXPECT_STREQ(d.diag.keyword, "dhcpoption");
  EXPECT_STREQ(d.diag.reason, "table name missing");
}

TEST_F(ClfyParseDiag, DhcpConditionWithANumberForTableNamesTheNumber) {
  const Diagnosed d = diagnose("dhcpoption 60 MSFT* 42");
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_MISSING_TABLE);
  EXPECT_EQ(d.diag.offset, 20u);
  EXPECT_EQ(d.diag.length, 2u);
}

TEST_F(ClfyParseDiag, DhcpMatchParserCodesArePassedOnWithTheirTexts) {
  struct Case {
    const char *line;
    int code;
    std::uint32_t length;
  };
  const Case cases[] = {
      {"dhcpoption 0 x t", NUV_CLFY_E_DHCP_BAD_CODE, 1},
      {"dhcpoption 60/1/1 x t", NUV_CLFY_E_DHCP_NOT_VENDOR, 6},
      {"dhcpoption 125/x/1 y t", NUV_CLFY_E_DHCP_ENTERPRISE, 7},
      {"dhcpoption 125/9 y t", NUV_CLFY_E_DHCP_SECOND_SLASH, 5},
      {"dhcpoption 125/9/x y t", NUV_CLFY_E_DHCP_SUB_CODE, 7},
      {"dhcpheader bogus x t", NUV_CLFY_E_DHCP_BAD_CODE, 5},
      {"dhcpheader op", NUV_CLFY_E_DHCP_NO_PATTERN, 2},
  };
  for (const Case &c : cases) {
    const Diagnosed d = diagnose(c.line);
    EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED) << c.line;
    EXPECT_EQ(d.diag.code, c.code) << c.line;
    EXPECT_EQ(d.diag.offset, 11u) << c.line;
    EXPECT_EQ(d.diag.length, c.length) << c.line;
    EXPECT_STREQ(d.diag.reason, dhcp_match_strerror(c.code)) << c.line;
  }
}

TEST_F(ClfyParseDiag, DhcpOptionWithoutValueIsAMissingValue) {
  const Diagnosed d = diagnose("dhcpoption");
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_DHCP_BAD_CODE);
  EXPECT_EQ(d.diag.offset, 10u);
  EXPECT_STREQ(d.diag.reason, "value missing");
}

TEST_F(ClfyParseDiag, OverlongLineIsReportedFromItsLimit) {
  std::string line = "dev eth0";
  line.append(300 - line.size(), ' ');
  const Diagnosed d = diagnose(line);
  EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_LINE_TOO_LONG);
  EXPECT_EQ(d.diag.offset, 255u);
  EXPECT_EQ(d.diag.length, 45u);
  EXPECT_STREQ(d.diag.keyword, "");
  EXPECT_STREQ(d.diag.reason, "line longer than 255 characters");
}

TEST_F(ClfyParseDiag, NullDiagnosisIsAllowed) {
  nuv_clfy *rule = nullptr;
  EXPECT_EQ(nuv_clfy_parse_with_diag("ip.proto 58", &rule, nullptr), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(rule, nullptr);
  ASSERT_EQ(nuv_clfy_parse_with_diag("ip.proto P58", &rule, nullptr), NUV_CLFY_E_OK);
  EXPECT_EQ(rule->ip_proto, 58);
  nuv_clfy_free(rule);
}

TEST_F(ClfyParseDiag, RefusedLineLeavesTheResultUntouched) {
  nuv_clfy *sentinel = reinterpret_cast<nuv_clfy *>(0x10);
  nuv_clfy *rule = sentinel;
  nuv_clfy_diag diag;
  EXPECT_EQ(nuv_clfy_parse_with_diag("ip.version 7", &rule, &diag), NUV_CLFY_E_REFUSED);
  EXPECT_EQ(rule, sentinel);
}

// ---- Allocation failures ----

TEST_F(ClfyParseDiag, RuleAllocationFailureIsOutOfMemory) {
  testsupport::NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  const Diagnosed d = diagnose("dev eth0");
  EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_NO_MEMORY);
  EXPECT_STREQ(d.diag.reason, "out of memory");
}

TEST_F(ClfyParseDiag, ClassMapAllocationFailureIsOutOfMemoryAtTheClasses) {
  testsupport::NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(2);  // the rule, then its class map
  const Diagnosed d = diagnose("dev eth0 localmark voice,video");
  EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.offset, 19u);
  EXPECT_STREQ(d.diag.keyword, "localmark");
  EXPECT_STREQ(d.diag.reason, "out of memory");
}

TEST_F(ClfyParseDiag, DhcpStorageFailureIsReportedAtTheTable) {
  ASSERT_NE(nuv_clfy_ethersrctab_find_or_create("pre.made"), nullptr);
  testsupport::NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(2);  // the rule, then the DHCP condition
  const Diagnosed d = diagnose("dhcpoption 60 MSFT* pre.made");
  EXPECT_EQ(d.rc, NUV_CLFY_E_REFUSED);
  EXPECT_EQ(d.diag.code, NUV_CLFY_E_DHCP_NOT_STORED);
  EXPECT_EQ(d.diag.offset, 20u);
  EXPECT_EQ(d.diag.length, 8u);
  EXPECT_STREQ(d.diag.reason, "out of memory");
}

TEST_F(ClfyParseDiag, EveryAllocationFailureGivesThePlainResultAndLeaksNothing) {
  const char *line =
      "dev eth0 localmark voice,video ethsrctab lan.hosts ipdsttab lan.servers udp.sport 1000-2000,3000 "
      "vlan.id 10 udp.dport 53 dhcpoption 60 MSFT* lan.clients tcp.flags 2 packetmatch *abc*";
  ASSERT_NE(nuv_clfy_ethersrctab_find_or_create("lan.hosts"), nullptr);
  ASSERT_NE(nuv_clfy_ipdsttab_find_or_create("lan.servers"), nullptr);
  ASSERT_NE(nuv_clfy_ethersrctab_find_or_create("lan.clients"), nullptr);
  const long before = nuvcsock_allocations();
  clfytest::parse(line);
  const long allocations = nuvcsock_allocations() - before;
  ASSERT_GE(allocations, 10);
  for (long n = 1; n <= allocations; ++n) {
    int plain_rc;
    {
      testsupport::NoLeakGuard guard;
      nuvcsock_fail_nth_allocation(n);
      plain_rc = clfytest::parse_result(line);
    }
    testsupport::NoLeakGuard guard;
    nuvcsock_fail_nth_allocation(n);
    nuv_clfy *rule = nullptr;
    nuv_clfy_diag diag;
    const int rc = nuv_clfy_parse_with_diag(line, &rule, &diag);
    nuvcsock_fail_nth_allocation(0);
    EXPECT_EQ(rc, plain_rc) << n;
    if (rc == 0) {
      EXPECT_EQ(diag.code, NUV_CLFY_E_OK) << n;
      nuv_clfy_free(rule);
    } else {
      EXPECT_EQ(rule, nullptr) << n;
      EXPECT_NE(diag.code, NUV_CLFY_E_OK) << n;
      // The tables exist already: every refusal here is for want of memory.
      EXPECT_STREQ(diag.reason, "out of memory") << n;
    }
  }
}

// ---- The diagnostic call agrees with the plain one ----

namespace {

// Every line the classifier's parser, format, comparison, cloning,
// optimisation and matching tests parse.
const char *const kParserTestLines[] = {
    "",
    "     ",
    "any",
    "any dev eth0",
    "dev eth0",
    "dev eth0 ip.bogus 5",
    "DEV eth0",
    "Ip.proto tcp",
    "80",
    "dev\teth0",
    "\tdev eth0",
    "dev eth0\tx",
    "ip.version 4ip.proto udp",
    "dev eth0 nonsense",
    "dev eth0 localmark voice tcp.dport 80,443 packetmatch x* ip.version 5",
    "dev = eth0",
    "dev abcdefghijklmnopqrstuvwxyz",
    "brdev==br0 dev lan1",
    "ethport = 3 dev eth0",
    "localmark voice,video,12",
    "localmark nosuchclass",
    "localmark voice",
    "eth.proto 0x0806",
    "eth.source 00:11:22:33:44:55",
    "eth.source 001122334455",
    "eth.sourceoui = 00:1a:2b",
    "eth.dest ff:ff:ff:ff:ff:ff",
    "eth.destoui 01:00:5e",
    "eth.source 0:11:22:33:44:55",
    "vlan.id 10,<5,100-200",
    "vlan.prio 9",
    "ethsrctab known.hosts dev eth0",
    "ethsrctab known.hosts",
    "ethsrctab t1",
    "ip.version 5",
    "ip.version=6",
    "ip.version == 4",
    "ip.proto tcp",
    "ip.protocol UDP",
    "ip.proto 6",
    "ip.proto P6",
    "ip.proto tcp,dev eth0",
    "ip.proto tcp,udp",
    "ip.tos 0x28",
    "ip.tos 0x20/0xe0",
    "ip.tos 0x20 0xe0",
    "ip.saddr 10.0.0.1/24",
    "ip.source 10.0.0.0 255.0.0.0",
    "ip.saddr = 192.168.1.7",
    "ip.daddr fe80::1",
    "ip.daddr fe80::1 dev eth0",
    "ip.dest fe80::/64 dev eth0",
    "ip.saddr fe80::1 ip.tos 0x20/0xe0",
    "ip.saddr 10.0.0.256",
    "ip.saddr fe80::zz",
    "ip.daddr",
    "ipdsttab servers",
    "ipdsttab t2",
    "ip.len >= 1000",
    "ip.len 64-128",
    "ip.len 10,20",
    "tcp.sport 1000 - 2000",
    "tcp.dport ~80",
    "tcp.dport",
    "tcp.dport >",
    "tcp.dport 80,443,>=8000,1000-2000",
    "udp.dport 53 tcp.flags 2",
    "tcp.dport 80 localmark voice,video",
    "localmark voice,video tcp.dport 80",
    "udp.dport 53 , 67",
    "udp.dport 53,,67",
    "tcp.flags 0x12/0x17",
    "tcp.flags = 0xf002",
    "tcp.flags 2 0xff12",
    "icmp.type = 135",
    "icmp.type x",
    "dhcpoption 60 MSFT* clients",
    "dhcpoption 125/3561/1 abc* lan.boxes dev eth1",
    "dhcpheader chaddr 00:11:* known",
    "dhcpoption 60 MSFT*",
    "dhcpoption 60 MSFT* 42",
    "dhcpoption 0 x t",
    "dhcpoption 60/1/1 x t",
    "dhcpoption 125/x/1 y t",
    "dhcpoption 125/9 y t",
    "dhcpoption 125/9/x y t",
    "dhcpheader bogus x t",
    "dhcpheader op",
    "dhcpoption 60 MSFT* pre.made",
    "packetmatch GET*",
    "packetmatch GET* dev eth0",
    "packetmatch GET* please",
    "tcp.dport 10-10 ip.saddr 10.1.2.3 255.255.0.0",
    "ethsrctab = lan",
    "ipdsttab = lan",
    "packetmatch = x",
    "packetmatch =x",
    "vlan.id = 5",
    "ip.len == 60",
    "tcp.dport 80,443",
    "udp.sport 1000-2000",
    "ip.saddr 10.0.0.0/8",
    "ip.daddr 2001:db8::/32",
    "eth.sourceoui 00:11:22 eth.source 00:11:22:33:44:55",
    "eth.sourceoui 00:1A:2b eth.destoui 01:00:5e",
    "vlan.prio 3 vlan.id 10,20 eth.dest ff:ff:ff:ff:ff:ff eth.proto 0x8863 dev eth1 brdev br0",
    "localmark voice,12",
    "ethsrctab known",
    "known",
    "ip.len >= 100 ip.tos 0x20/0xe0 ip.proto udp ip.version 4 ip.daddr 192.168.1.1",
    "dhcpoption 125/3561/1 abc* lan.boxes",
    "dhcpheader CHADDR 00:11:* known",
    "packetmatch *HTTP/1.?*",
    "icmp.type 128",
    "dev eth0 tcp.dport 80,443",
    "eth.proto 0x",
    "ethsrctab empty.sources",
    "vlan.prio ",
    "ip.version ",
    "ip.tos 0x",
    "ip.len ",
    "ip.saddr ",
    "ip.daddr ",
    "ipdsttab empty.dests",
    "icmp.type ",
    "vlan.id ",
    "tcp.dport 80",
    "ethsrctab rt.known",
    "rt.known",
    "ipdsttab rt.dests",
    "vlan.id 0-65535",
    "ip.len 0-0",
    "dhcpoption 60 MSFT* rt.clients",
    " udp.dport 67 dhcpoption 60 MSFT* rt.clients",
    "icmp.type 128 packetmatch *x*",
    "packetmatch *abc*",
    "packetmatch *abd*",
    "ip.saddr ::ffff:192.0.2.1/128",
    "udp.dport 0-100",
    "ip.len 0-65535",
    "ip.len 1500-1500",
    "vlan.id 5,5",
    "tcp.sport 7,7",
    "tcp.dport 9,9",
    "ip.saddr 10.1.2.3 255.255.0.0",
    "ip.saddr 10.1.2.3 0.0.0.0",
    "ip.daddr 10.1.2.3/0 ip.proto udp",
    "ip.saddr 2001:db8::/32 ip.daddr 10.0.0.1",
    "eth.proto 0x8100 ip.daddr 10.0.0.1",
    "dev eth0 tcp.dport 80",
    "dev eth0 tcp.dport 443",
    "dev eth0 tcp.dport 22",
    "dev eth0 udp.dport 53",
    "ip.proto tcp tcp.dport 80",
    "ip.proto tcp tcp.dport 443",
    "ip.proto tcp tcp.dport 22",
    "ip.proto udp udp.dport 53",
    "dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 80",
    "dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 81",
    "dev eth1",
    "ip.saddr 10.0.0.0/8 tcp.dport 1",
    "ip.saddr 10.0.0.0/8 tcp.dport 2",
    "ip.saddr 11.0.0.0/8 tcp.dport 3",
    "dev eth0 udp.dport 1",
    "dev eth0 udp.dport 2",
    "vlan.id 5",
    "vlan.id 6",
    "dev old",
    "dev eth0 ip.saddr 10.0.0.0/8 tcp.dport 81,82",
    "dev eth0 ip.saddr 10.0.0.0/8 udp.dport 53",
    "dev eth1 localmark voice vlan.id 7 packetmatch x*",
    "dev eth1 localmark voice vlan.id 8",
    "dev eth1 dhcpoption 60 MSFT* clients",
    "ip.saddr 2001:db8::/32 udp.dport 1",
    "ip.saddr 2001:db8::/64 udp.dport 2",
    "ip.proto udp udp.dport 1",
    "ip.proto udp udp.dport 2",
    "ip.len 100 tcp.dport 1",
    "ip.len 100 tcp.dport 2",
    "tcp.dport 3",
    "ip.len < 100",
    "ip.len > 100",
    "ip.len < 50",
    "dev eth0 tcp.dport 80,80,443",
    "localmark 5",
    "ethsrctab lan.known",
    "lan.known",
    "vlan.id 0-4095",
    "vlan.id 10,100-200",
    "vlan.prio 5",
    "ip.version 4",
    "ip.saddr 192.168.1.0/24",
    "ip.saddr 192.168.2.0/24",
    "ip.daddr 10.0.0.1",
    "ip.daddr 10.0.0.2",
    "ip.saddr 0.0.0.0/1",
    "ip.daddr ::/0",
    "ip.version 6",
    "ip.proto udp",
    "ip.tos 0x2b",
    "ip.tos 0x2b/0xff",
    "ip.len 28",
    "ip.len < 29",
    "ip.len > 28",
    "ip.len 20-30",
    "ipdsttab dsts",
    "udp.dport 53",
    "udp.dport 1,2,53",
    "udp.dport 54",
    "udp.sport >= 1024",
    "udp.sport < 1024",
    "udp.sport != 53",
    "tcp.dport 53",
    "udp.dport 9",
    "udp.dport 257",
    "tcp.flags 0x002/0x012",
    "tcp.flags 2/2",
    "ip.proto udp packetmatch hello*",
    "ip.proto udp packetmatch *planet",
    "tcp.dport 80 packetmatch get*",
    "tcp.dport 80 packetmatch index*",
    "packetmatch gre-*",
    "packetmatch hello* udp.dport 2",
    "icmp.type 200",
    "icmp.type 8",
    "ip.tos 0xb8",
    "ip.tos 0x00",
    "ip.len 48",
    "udp.dport 547",
    "udp.sport 546",
    "ip.saddr fe80::/10",
    "ip.saddr fe80::/64",
    "ip.saddr fec0::/10",
    "ip.saddr fe80::211:22ff:fe33:4455",
    "ip.daddr 2001:db8::/29",
    "ip.daddr 2001:db0::/29",
    "ip.daddr 2001:db0::/28",
    "udp.dport 2000",
    "ip.proto P0",
    "icmp.type 135",
    "icmp.type 136",
    "dhcpoption 60 nothing* vsix.learned",
    "udp.sport 53",
    "tcp.flags 2",
    "ip.proto udp packetmatch *",
    "eth.proto 0x0800",
    "udp.sport 1",
    "packetmatch *",
    "tcp.dport 80 packetmatch *",
    "packetmatch abc",
    "icmp.type 1",
    "icmp.type 0",
    "udp.dport 1",
    "udp.sport 9999",
    "udp.sport 1000",
    "dev a",
    "dev b",
    "dev a1",
    "dev a1x",
    "dev a2",
    "dev eth0 tcp.dport 80 ip.saddr 192.168.1.0/24 packetmatch *"
};

// Whether two parsed rules are the same: nuv_clfy_cmp on every condition
// (packetmatch aside: equal patterns compare as 1 there, so they are
// compared as texts), and the same printed form, which also shows the
// conditions nuv_clfy_cmp leaves out.
bool same_rule(const nuv_clfy *a, const nuv_clfy *b) {
  const bool same_pattern = (!a->packetmatch && !b->packetmatch) ||
                            (a->packetmatch && b->packetmatch && std::strcmp(a->packetmatch, b->packetmatch) == 0);
  return a->flags == b->flags && same_pattern && nuv_clfy_cmp(a, b, ~NUV_CLFY_F_PACKETMATCH) == 0 &&
         clfytest::text_of(a) == clfytest::text_of(b);
}

// Same result; on success the same rule; on failure a diagnosis that names a
// code and a reason and lies within the line.
void expect_agreement(const std::string &line) {
  nuv_clfy *plain = nullptr;
  const int plain_rc = nuv_clfy_parse(line.c_str(), &plain);
  nuv_clfy *diagnosed = nullptr;
  nuv_clfy_diag diag;
  const int rc = nuv_clfy_parse_with_diag(line.c_str(), &diagnosed, &diag);
  EXPECT_EQ(rc, plain_rc) << line;
  if (rc == 0 && plain_rc == 0) {
    EXPECT_TRUE(same_rule(plain, diagnosed)) << line;
    EXPECT_EQ(diag.code, NUV_CLFY_E_OK) << line;
  } else if (rc != 0) {
    EXPECT_NE(diag.code, NUV_CLFY_E_OK) << line;
    EXPECT_NE(std::strlen(diag.reason), 0u) << line;
    EXPECT_LE(static_cast<std::size_t>(diag.offset) + diag.length, line.size()) << line;
  }
  if (plain_rc == 0) nuv_clfy_free(plain);
  if (rc == 0) nuv_clfy_free(diagnosed);
}

const char *const kPieces[] = {
    "dev",        "brdev",      "ethport",     "localmark",  "eth.proto",   "eth.source", "eth.sourceoui",
    "eth.dest",   "eth.destoui", "vlan.id",    "vlan.prio",  "ethsrctab",   "ip.version", "ip.proto",
    "ip.protocol", "ip.tos",    "ip.saddr",    "ip.source",  "ip.daddr",    "ipdsttab",   "ip.dest",
    "ip.len",     "udp.sport",  "udp.dport",   "tcp.sport",  "tcp.dport",   "tcp.flags",  "icmp.type",
    "dhcpoption", "dhcpheader", "packetmatch", "any",        "ip.bogus",    "DEV",        "=",
    "==",         "!=",         "<",           ">=",         "-",           ",",          "/",
    "80",         "58",         "P58",         "4",          "6",           "5",          "65535",
    "99999",      "0x28",       "0xe0",        "10.0.0.1",   "10.0.0.0/8",  "255.255.0.0", "10.0.0.256",
    "fe80::/64",  "fe80::1",    "00:11:22:33:44:55", "00:1a:2b", "0:1",   "tcp",        "udp",
    "icmpv6",     "voice,video", "60",         "125/3561/1", "60/1/1",    "chaddr",     "bogus",
    "lan.tab",    "MSFT*",      "80,443",      "1000-2000",  "53,,67",    "eth0",       "x"};

}  // namespace

TEST_F(ClfyParseDiag, AgreesWithThePlainParserOnEveryParserTestLine) {
  for (const char *line : kParserTestLines) expect_agreement(line);
}

TEST_F(ClfyParseDiag, AgreesWithThePlainParserOnRandomLines) {
  testsupport::check_seeded("diagnostic and plain classifier parse agree", 20261123, 3000, [] {
    const std::vector<std::string> pieces(std::begin(kPieces), std::end(kPieces));
    const auto words = *rc::gen::container<std::vector<std::string>>(rc::gen::elementOf(pieces));
    const auto separators = *rc::gen::container<std::vector<std::string>>(
        words.size(), rc::gen::element<std::string>(" ", " ", "", "  "));
    std::string line;
    for (std::size_t i = 0; i < words.size(); ++i) line += separators[i] + words[i];
    nuv_clfy *plain = nullptr;
    const int plain_rc = nuv_clfy_parse(line.c_str(), &plain);
    nuv_clfy *diagnosed = nullptr;
    nuv_clfy_diag diag;
    const int rc = nuv_clfy_parse_with_diag(line.c_str(), &diagnosed, &diag);
    const bool same = rc != 0 || plain_rc != 0 || same_rule(plain, diagnosed);
    if (plain_rc == 0) nuv_clfy_free(plain);
    if (rc == 0) nuv_clfy_free(diagnosed);
    RC_ASSERT(rc == plain_rc);
    RC_ASSERT(same);
    RC_ASSERT((rc == 0) == (diag.code == NUV_CLFY_E_OK));
    RC_ASSERT(static_cast<std::size_t>(diag.offset) + diag.length <= line.size());
  });
}
