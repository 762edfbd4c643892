// Diagnostic parsing of the firewall rule texts: result code names and
// texts, where a refused line goes wrong, and agreement with the plain parsers.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "rc_seeded.h"
#include "testsupport.h"

namespace {

// A diagnosis pre-filled with garbage, so that every field must be written.
nuvrules_diag garbage_diag() {
  nuvrules_diag diag;
  std::memset(&diag, 0x5a, sizeof diag);
  return diag;
}

struct AccessDiag {
  int rc;
  ipaccess_rule rule;
  nuvrules_diag diag;
};

AccessDiag access(const std::string &text) {
  AccessDiag d;
  d.diag = garbage_diag();
  d.rc = ipaccess_parse_with_diag(&d.rule, text.c_str(), &d.diag);
  return d;
}

struct MasqDiag {
  int rc;
  ipmasqfwruleex rule;
  nuvrules_diag diag;
};

MasqDiag masq(const std::string &text) {
  MasqDiag d;
  d.diag = garbage_diag();
  d.rc = ipmasqfwrule_parse_with_diag(&d.rule.rule, text.c_str(), &d.diag);
  return d;
}

MasqDiag masq_ex(const std::string &text) {
  MasqDiag d;
  d.diag = garbage_diag();
  d.rc = ipmasqfwruleex_parse_with_diag(&d.rule, text.c_str(), &d.diag);
  return d;
}

// A forward rule block in caller memory with room for `entries` entries.
struct Block {
  explicit Block(std::size_t entries = 16) : bytes(IP6_FORWARDRULE_HEADER_SIZE + entries * sizeof(ip6_portrange)) {
    rule = ip6_forwardrule_init(bytes.data(), bytes.size());
  }
  std::vector<unsigned char> bytes;
  ip6_forwardrule *rule;
};

struct ForwardDiag {
  int rc;
  nuvrules_diag diag;
};

ForwardDiag forward(Block &block, const std::string &line) {
  ForwardDiag d;
  d.diag = garbage_diag();
  d.rc = ip6_forwardrule_parse_with_diag(block.rule, line.c_str(), &d.diag);
  return d;
}

ForwardDiag forward(const std::string &line) {
  Block block;
  return forward(block, line);
}

void expect_place(const nuvrules_diag &diag, int code, std::uint32_t offset, std::uint32_t length) {
  EXPECT_EQ(diag.code, code);
  EXPECT_EQ(diag.offset, offset);
  EXPECT_EQ(diag.length, length);
}

}  // namespace

// ---- Access rules: names and texts ----

TEST(AccessCodes, NamesKeepTheParsersValues) {
  EXPECT_EQ(IPACCESS_E_OK, 0);
  EXPECT_EQ(IPACCESS_E_TOO_LONG, -1);
  EXPECT_EQ(IPACCESS_E_MISSING_WORD, -2);
  EXPECT_EQ(IPACCESS_E_UNKNOWN_POLICY, -3);
  EXPECT_EQ(IPACCESS_E_UNKNOWN_PROTOCOL, -4);
  EXPECT_EQ(IPACCESS_E_BAD_SRC_HOST, -5);
  EXPECT_EQ(IPACCESS_E_BAD_SRC_ADDR, -6);
  EXPECT_EQ(IPACCESS_E_BAD_SRC_MASK, -7);
  EXPECT_EQ(IPACCESS_E_BAD_SRC_PORT, -8);
  EXPECT_EQ(IPACCESS_E_BAD_SRC_UPPER_PORT, -9);
  EXPECT_EQ(IPACCESS_E_BAD_DST_HOST, -10);
  EXPECT_EQ(IPACCESS_E_BAD_DST_ADDR, -11);
  EXPECT_EQ(IPACCESS_E_BAD_DST_MASK, -12);
  EXPECT_EQ(IPACCESS_E_BAD_DST_PORT, -13);
  EXPECT_EQ(IPACCESS_E_BAD_DST_UPPER_PORT, -14);
  EXPECT_EQ(IPACCESS_E_CONNECTION_WITHOUT_FLAG, -15);
  EXPECT_EQ(IPACCESS_E_UNKNOWN_CONNECTION_FLAG, -16);
  EXPECT_EQ(IPACCESS_E_UNKNOWN_TRAILING_WORD, -17);
}

TEST(AccessCodes, EveryCodeHasItsText) {
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_OK), "parsed");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_TOO_LONG), "rule text longer than 1023 characters (or no scratch memory)");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_MISSING_WORD), "a required word is missing");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_UNKNOWN_POLICY), "unknown policy");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_UNKNOWN_PROTOCOL), "unknown protocol");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_SRC_HOST), "bad source address after \"host\"");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_SRC_ADDR), "bad source address");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_SRC_MASK), "bad source mask");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_SRC_PORT), "bad source port");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_SRC_UPPER_PORT), "bad upper bound of the source port range");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_DST_HOST), "bad destination address after \"host\"");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_DST_ADDR), "bad destination address");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_DST_MASK), "bad destination mask");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_DST_PORT), "bad destination port");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_BAD_DST_UPPER_PORT), "bad upper bound of the destination port range");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_CONNECTION_WITHOUT_FLAG), "\"connection\" without a connection flag");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_UNKNOWN_CONNECTION_FLAG), "unknown connection flag");
  EXPECT_STREQ(ipaccess_strerror(IPACCESS_E_UNKNOWN_TRAILING_WORD), "unknown logging level or trailing word");
}

TEST(AccessCodes, UnknownCodesHaveTheFixedText) {
  for (int code : {1, -18, 1000, -1000}) EXPECT_STREQ(ipaccess_strerror(code), "unknown result code") << code;
}

// ---- Access rules: where a line goes wrong ----

TEST(AccessDiagnosis, AcceptedLineIsParsedAtOffsetZero) {
  const AccessDiag d = access("permit tcp any any eq 80");
  EXPECT_EQ(d.rc, IPACCESS_E_OK);
  expect_place(d.diag, IPACCESS_E_OK, 0, 0);
  EXPECT_STREQ(d.diag.reason, "parsed");
  EXPECT_EQ(d.rule.dst_port, 80);
}

TEST(AccessDiagnosis, BadMaskWordIsReported) {
  const AccessDiag d = access("permit tcp 10.0.0.0 255.0.x.0 any");
  EXPECT_EQ(d.rc, IPACCESS_E_BAD_SRC_MASK);
  expect_place(d.diag, IPACCESS_E_BAD_SRC_MASK, 20, 9);
  EXPECT_STREQ(d.diag.reason, "bad source mask");
}

TEST(AccessDiagnosis, UnknownPolicyIsTheFirstWord) {
  expect_place(access("Permit tcp any any").diag, IPACCESS_E_UNKNOWN_POLICY, 0, 6);
}

TEST(AccessDiagnosis, UnknownProtocolIsTheSecondWord) {
  expect_place(access("permit  tcpx any any").diag, IPACCESS_E_UNKNOWN_PROTOCOL, 8, 4);
}

TEST(AccessDiagnosis, WordsSeparatedByTabsAreFound) {
  expect_place(access("permit\ttcp\tany\t\tANY").diag, IPACCESS_E_BAD_DST_ADDR, 16, 3);
}

TEST(AccessDiagnosis, MissingDestinationIsTheEndOfTheLine) {
  const AccessDiag d = access("permit tcp any");
  expect_place(d.diag, IPACCESS_E_MISSING_WORD, 14, 0);
  EXPECT_STREQ(d.diag.reason, "a required word is missing");
}

TEST(AccessDiagnosis, BadPortIsReported) {
  expect_place(access("permit udp any eq 0 any").diag, IPACCESS_E_BAD_SRC_PORT, 18, 1);
  expect_place(access("permit udp any any range 10 70000").diag, IPACCESS_E_BAD_DST_UPPER_PORT, 28, 5);
}

TEST(AccessDiagnosis, ConnectionWithoutFlagIsTheEndOfTheLine) {
  expect_place(access("permit tcp any any connection").diag, IPACCESS_E_CONNECTION_WITHOUT_FLAG, 29, 0);
}

TEST(AccessDiagnosis, UnknownConnectionFlagIsReported) {
  expect_place(access("permit tcp any any connection bogus").diag, IPACCESS_E_UNKNOWN_CONNECTION_FLAG, 30, 5);
}

TEST(AccessDiagnosis, UnknownTrailingWordIsReported) {
  expect_place(access("permit tcp any any foo").diag, IPACCESS_E_UNKNOWN_TRAILING_WORD, 19, 3);
  expect_place(access("permit tcp any any log loud").diag, IPACCESS_E_UNKNOWN_TRAILING_WORD, 23, 4);
}

TEST(AccessDiagnosis, OverlongTextIsReportedFromItsLimit) {
  std::string text = "permit tcp any any";
  text.append(1100 - text.size(), ' ');
  const AccessDiag d = access(text);
  EXPECT_EQ(d.rc, IPACCESS_E_TOO_LONG);
  expect_place(d.diag, IPACCESS_E_TOO_LONG, 1023, 77);
}

TEST(AccessDiagnosis, NoScratchMemoryIsReportedAtTheStartAndLeaksNothing) {
  testsupport::NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  const AccessDiag d = access("permit tcp any any");
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(d.rc, IPACCESS_E_TOO_LONG);
  expect_place(d.diag, IPACCESS_E_TOO_LONG, 0, 0);
}

TEST(AccessDiagnosis, NullDiagnosisIsAllowed) {
  ipaccess_rule rule;
  EXPECT_EQ(ipaccess_parse_with_diag(&rule, "permit tcp any", nullptr), IPACCESS_E_MISSING_WORD);
  EXPECT_EQ(ipaccess_parse_with_diag(&rule, "deny ip any any", nullptr), IPACCESS_E_OK);
  EXPECT_EQ(rule.policy, IPACCESS_POLICY_DENY);
}

// ---- Masquerade rules: names and texts ----

TEST(MasqCodes, NamesKeepTheParsersValues) {
  EXPECT_EQ(IPMASQFWRULE_E_OK, 0);
  EXPECT_EQ(IPMASQFWRULE_E_COMMENTED_OUT, 1);
  EXPECT_EQ(IPMASQFWRULE_E_TOO_LONG, -1);
  EXPECT_EQ(IPMASQFWRULE_E_MISSING_WORD, -2);
  EXPECT_EQ(IPMASQFWRULE_E_UNKNOWN_PROTOCOL, -3);
  EXPECT_EQ(IPMASQFWRULE_E_BAD_ENDPOINT, -4);
  EXPECT_EQ(IPMASQFWRULE_E_MARK_WITHOUT_VALUE, -5);
}

TEST(MasqCodes, EveryCodeHasItsText) {
  EXPECT_STREQ(ipmasqfwrule_strerror(IPMASQFWRULE_E_OK), "parsed");
  EXPECT_STREQ(ipmasqfwrule_strerror(IPMASQFWRULE_E_COMMENTED_OUT), "rule is commented out");
  EXPECT_STREQ(ipmasqfwrule_strerror(IPMASQFWRULE_E_TOO_LONG),
               "rule text longer than 1023 characters (or no scratch memory)");
  EXPECT_STREQ(ipmasqfwrule_strerror(IPMASQFWRULE_E_MISSING_WORD), "protocol or endpoint missing");
  EXPECT_STREQ(ipmasqfwrule_strerror(IPMASQFWRULE_E_UNKNOWN_PROTOCOL), "unknown protocol");
  EXPECT_STREQ(ipmasqfwrule_strerror(IPMASQFWRULE_E_BAD_ENDPOINT), "malformed endpoint (address, port or count)");
  EXPECT_STREQ(ipmasqfwrule_strerror(IPMASQFWRULE_E_MARK_WITHOUT_VALUE), "\"mark\" without a value");
}

TEST(MasqCodes, UnknownCodesHaveTheFixedText) {
  for (int code : {2, -6, 1000, -1000}) EXPECT_STREQ(ipmasqfwrule_strerror(code), "unknown result code") << code;
}

// ---- Masquerade rules: where a line goes wrong ----

TEST(MasqDiagnosis, MarkWithoutValueIsTheEndOfTheLine) {
  const MasqDiag d = masq_ex("tcp 1.2.3.4 5.6.7.8 0 mark");
  EXPECT_EQ(d.rc, IPMASQFWRULE_E_MARK_WITHOUT_VALUE);
  expect_place(d.diag, IPMASQFWRULE_E_MARK_WITHOUT_VALUE, 26, 0);
  EXPECT_STREQ(d.diag.reason, "\"mark\" without a value");
  expect_place(masq("tcp 1.2.3.4 5.6.7.8 0 mark").diag, IPMASQFWRULE_E_MARK_WITHOUT_VALUE, 26, 0);
}

TEST(MasqDiagnosis, MalformedEndpointIsReported) {
  expect_place(masq("tcp 0.0.0.0:70000 1.2.3.4 0").diag, IPMASQFWRULE_E_BAD_ENDPOINT, 4, 13);
  expect_place(masq_ex("udp 1.2.3.4 5.6.7.8:x").diag, IPMASQFWRULE_E_BAD_ENDPOINT, 12, 9);
}

TEST(MasqDiagnosis, MissingEndpointIsTheEndOfTheLine) {
  expect_place(masq("tcp 0.0.0.0:80").diag, IPMASQFWRULE_E_MISSING_WORD, 14, 0);
}

TEST(MasqDiagnosis, ProtocolNumberWithoutPrefixIsAnUnknownProtocol) {
  expect_place(masq("6 1.2.3.4 5.6.7.8").diag, IPMASQFWRULE_E_UNKNOWN_PROTOCOL, 0, 1);
  expect_place(masq_ex("# x 1.2.3.4 5.6.7.8").diag, IPMASQFWRULE_E_UNKNOWN_PROTOCOL, 2, 1);
}

TEST(MasqDiagnosis, CommentedOutLineNamesItsHashInThePlainForm) {
  const MasqDiag d = masq("  # tcp 0.0.0.0:22 192.168.1.2:22 0");
  EXPECT_EQ(d.rc, IPMASQFWRULE_E_COMMENTED_OUT);
  expect_place(d.diag, IPMASQFWRULE_E_COMMENTED_OUT, 2, 1);
  EXPECT_STREQ(d.diag.reason, "rule is commented out");
}

TEST(MasqDiagnosis, CommentedOutLineIsParsedInTheExtendedForm) {
  const MasqDiag d = masq_ex("# tcp 0.0.0.0:22 192.168.1.2:22 0");
  EXPECT_EQ(d.rc, IPMASQFWRULE_E_OK);
  expect_place(d.diag, IPMASQFWRULE_E_OK, 0, 0);
  EXPECT_EQ(d.rule.enabled, 0);
}

TEST(MasqDiagnosis, NoScratchMemoryIsReportedAtTheStartAndLeaksNothing) {
  testsupport::NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  const MasqDiag d = masq_ex("tcp 1.2.3.4 5.6.7.8");
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(d.rc, IPMASQFWRULE_E_TOO_LONG);
  expect_place(d.diag, IPMASQFWRULE_E_TOO_LONG, 0, 0);
}

TEST(MasqDiagnosis, OverlongTextIsReportedFromItsLimit) {
  const std::string text(1030, 'x');
  expect_place(masq(text).diag, IPMASQFWRULE_E_TOO_LONG, 1023, 7);
}

// ---- IPv6 forward rules and port ranges: names and texts ----

TEST(ForwardRuleCodes, NamesKeepTheParsersValues) {
  EXPECT_EQ(IP6_FORWARDRULE_E_OK, 0);
  EXPECT_EQ(IP6_FORWARDRULE_E_BAD_PORT, -1);
  EXPECT_EQ(IP6_FORWARDRULE_E_BAD_SEPARATOR, -2);
  EXPECT_EQ(IP6_FORWARDRULE_E_FULL, -3);
  EXPECT_EQ(IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL, -5);
  EXPECT_EQ(IP6_PORTRANGE_E_OK, 0);
  EXPECT_EQ(IP6_PORTRANGE_E_MALFORMED, -2);
}

TEST(ForwardRuleCodes, EveryCodeHasItsText) {
  EXPECT_STREQ(ip6_forwardrule_strerror(IP6_FORWARDRULE_E_OK), "parsed");
  EXPECT_STREQ(ip6_forwardrule_strerror(IP6_FORWARDRULE_E_BAD_PORT), "missing or bad port number (or no scratch memory)");
  EXPECT_STREQ(ip6_forwardrule_strerror(IP6_FORWARDRULE_E_BAD_SEPARATOR),
               "port list item not followed by \",\" or the end");
  EXPECT_STREQ(ip6_forwardrule_strerror(IP6_FORWARDRULE_E_FULL), "forward rule block is full");
  EXPECT_STREQ(ip6_forwardrule_strerror(IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL), "unknown protocol");
  EXPECT_STREQ(ip6_portrange_strerror(IP6_PORTRANGE_E_OK), "parsed");
  EXPECT_STREQ(ip6_portrange_strerror(IP6_PORTRANGE_E_MALFORMED),
               "unknown protocol, word too long, or \"mark\" without a value");
}

TEST(ForwardRuleCodes, UnknownCodesHaveTheFixedText) {
  for (int code : {-4, -6, 1, 1000}) {
    EXPECT_STREQ(ip6_forwardrule_strerror(code), "unknown result code") << code;
    EXPECT_STREQ(ip6_portrange_strerror(code), "unknown result code") << code;
  }
  EXPECT_STREQ(ip6_portrange_strerror(-1), "unknown result code");
}

// ---- IPv6 forward rules: where a line goes wrong ----

TEST(ForwardRuleDiagnosis, BadSeparatorIsTheCharacterAfterTheItem) {
  const ForwardDiag d = forward("tcp 80;443");
  EXPECT_EQ(d.rc, IP6_FORWARDRULE_E_BAD_SEPARATOR);
  expect_place(d.diag, IP6_FORWARDRULE_E_BAD_SEPARATOR, 6, 1);
  EXPECT_STREQ(d.diag.reason, "port list item not followed by \",\" or the end");
}

TEST(ForwardRuleDiagnosis, UnknownProtocolIsTheFirstWordAfterTheBlanks) {
  expect_place(forward("foo 1").diag, IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL, 0, 3);
  expect_place(forward("   6 80").diag, IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL, 3, 1);
}

TEST(ForwardRuleDiagnosis, BadPortNumberIsReported) {
  expect_place(forward("tcp 80,abc").diag, IP6_FORWARDRULE_E_BAD_PORT, 7, 3);
  expect_place(forward("udp 65536").diag, IP6_FORWARDRULE_E_BAD_PORT, 4, 5);
  expect_place(forward("udp 10 - 0").diag, IP6_FORWARDRULE_E_BAD_PORT, 9, 1);
}

TEST(ForwardRuleDiagnosis, MissingPortNumberIsReportedWithLengthZero) {
  expect_place(forward("tcp 80,").diag, IP6_FORWARDRULE_E_BAD_PORT, 7, 0);
  expect_place(forward("tcp 10-").diag, IP6_FORWARDRULE_E_BAD_PORT, 7, 0);
}

TEST(ForwardRuleDiagnosis, ItemThatDoesNotFitIsReported) {
  Block block(3);
  const ForwardDiag d = forward(block, "tcp 1,2, 3-4 ,5");
  EXPECT_EQ(d.rc, IP6_FORWARDRULE_E_FULL);
  expect_place(d.diag, IP6_FORWARDRULE_E_FULL, 14, 1);
  EXPECT_EQ(block.rule->count, 3);
  const ForwardDiag whole = forward(block, "udp");
  expect_place(whole.diag, IP6_FORWARDRULE_E_FULL, 0, 3);
}

TEST(ForwardRuleDiagnosis, CommentLineIsParsed) {
  Block block;
  const ForwardDiag d = forward(block, "  # tcp 80");
  EXPECT_EQ(d.rc, IP6_FORWARDRULE_E_OK);
  expect_place(d.diag, IP6_FORWARDRULE_E_OK, 0, 0);
  EXPECT_EQ(block.rule->count, 0);
}

TEST(ForwardRuleDiagnosis, NoScratchMemoryIsReportedAtTheStartAndLeaksNothing) {
  testsupport::NoLeakGuard guard;
  Block block;
  nuvcsock_fail_nth_allocation(1);
  const ForwardDiag d = forward(block, "tcp 80");
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(d.rc, IP6_FORWARDRULE_E_BAD_PORT);
  expect_place(d.diag, IP6_FORWARDRULE_E_BAD_PORT, 0, 0);
  EXPECT_EQ(block.rule->count, 0);
}

// ---- The diagnostic calls agree with the plain ones ----

namespace {

// Every line the access rule parser, format, optimisation and round-trip
// tests parse.
const char *const kAccessTestLines[] = {
    "permit tcp any any",
    "deny ip host 192.168.1.1 10.0.0.0 255.0.0.0 eq 80 established connection incoming log",
    "permit udp 10.1.2.3 255.255.255.0 host 172.16.254.9",
    "permit udp any range 1000 2000 any",
    "permit tcp any any range 2000 1000",
    "permit tcp any none 80 any none 443",
    "permit tcp any any outgoing",
    "permit tcp any any related",
    "permit tcp any any connection related",
    "deny ip any any log",
    "deny ip any any log alert",
    "deny ip any any log none",
    "reject tcp any any long",
    "deny tcp any any log long whatever comes 1 2 3",
    "deny tcp any any alert established",
    "permit tcp any any eq 22 connect",
    "permit tcp any any eq 22 none",
    "permit tcp any any none",
    "permit tcp any any none 5",
    "permit tcp any any incoming established",
    "permit tcp any any established connect",
    " \t permit\t\ttcp  any \t host\t1.2.3.4   eq\t8080 \t ",
    "permit tcp any any\n",
    "permit tcp 10. 255. 10.1. 255.255.",
    "permit tcp 10.1 255.255.0.0 any",
    "permit tcp 10 255.0.0.0 any",
    "permit tcp 10.1.2 255.255.0.0 any",
    "permit tcp 1.2.3.4x 255.255.255.255.255 host 5.6.7.8/24",
    "permit tcp 0.0.0.0 0.0.0.0 255.255.255.255 255.255.255.254",
    "permit udp any eq 0 any",
    "permit udp any eq 1 any eq 65535",
    "permit udp any eq 65536 any",
    "permit udp any eq -1 any",
    "permit udp any eq 99999999999999999999 any",
    "permit tcp any any eq 80http",
    "permit tcp any eq www any",
    "permit tcp any any eq www",
    "deny udp host 9.8.7.6 range 100",
    "Permit tcp any any",
    "allow tcp any any",
    "deny tcpx any any",
    "permit tcp host 1.2.3.999 any",
    "permit tcp ANY any",
    "permit tcp 10.0.0.0 255.0.0.300 any",
    "permit tcp any gt 70000 any",
    "permit tcp any range 10 0 any",
    "permit tcp any host 1.2",
    "permit tcp host 1.2.3.4 everywhere",
    "permit tcp any 192.168.0.0 255.255.x.0",
    "permit tcp any any le 0",
    "permit tcp any any range 6000 65536",
    "permit tcp any any established connection",
    "permit tcp any any connection established",
    "permit tcp any any foo",
    "permit tcp any any connection exists log verbose",
    "permit tcp host 1.2.3.4 eq 1 host 5.6.7.8 range 3 4 connect connection exists log long",
    "permit tcp host 1.2.3.4 eq 1 host 5.6.7.8 range 3 4 connect connection exists log bogus",
    "permit tcp host 1.2.3.4 range 1 2 host 5.6.7.8 range 3 4 connect connection exists log bogus",
    "permit tcp any any range 0 80"
};

// Every line the masquerade rule tests parse.
const char *const kMasqTestLines[] = {
    "tcp 0.0.0.0:80 192.168.1.20:8080 0",
    "udp 0.0.0.0:5000+10 192.168.1.20:5000 0 out",
    "udp 0.0.0.0:5000+1 192.168.1.20:5000 0",
    "udp 1.2.3.4:0+5 5.6.7.8 0",
    "# tcp 0.0.0.0:22 192.168.1.2:22 0",
    "#tcp 0.0.0.0:22 192.168.1.2:22 0",
    "tcp 1.2.3.4:80 5.6.7.8:80 3 out internet mark 9 # web",
    "tcp 1.2.3.4 5.6.7.8 0 whatever else follows",
    "\ttcp\t1.2.3.4:80 \t 5.6.7.8:81\t2\tout",
    "GRE 1.2.3.4 5.6.7.8",
    "P200 1.2.3.4 5.6.7.8",
    "6 1.2.3.4 5.6.7.8",
    "tcp :80 10.0.0.2:8080",
    "tcp 10. 10.1.",
    "tcp 10 1.2.3.4",
    "tcp 10.1 1.2.3.4",
    "tcp 1.2.3 1.2.3.4",
    "tcp 10.:80 1.2.3.4",
    "tcp 256.1.1.1 1.2.3.4",
    "tcp 1.2.3.4 1.2.3.999",
    "tcp 1..2.3 1.2.3.4",
    "tcp a.b.c.d 1.2.3.4",
    "tcp -1.2.3.4 1.2.3.4",
    "tcp 1.2.3.4 99999999999999999999.1.1.1",
    "tcp 1.2.3.4x:80 5.6.7.8/24",
    "tcp 1.2.3.4:80x 5.6.7.8:81-90",
    "tcp 1.2.3.4:0 5.6.7.8:0",
    "tcp 1.2.3.4:65535+65535 5.6.7.8:65535",
    "tcp 0.0.0.0:70000 1.2.3.4 0",
    "tcp 0.0.0.0:65536 1.2.3.4",
    "tcp 0.0.0.0: 1.2.3.4",
    "tcp 0.0.0.0:-1 1.2.3.4",
    "tcp 0.0.0.0:http 1.2.3.4",
    "tcp 1.2.3.4 5.6.7.8:65536",
    "tcp : 1.2.3.4",
    "tcp 0.0.0.0:80+ 1.2.3.4",
    "tcp 0.0.0.0:80+70000 1.2.3.4",
    "tcp 0.0.0.0:80+-2 1.2.3.4",
    "tcp 1.2.3.4:80 5.6.7.8:80+10",
    "udp 1.2.3.4:99999 5.6.7.8",
    "udp 1.2.3.4:53+2 5.6.7",
    "tcp 1.2.3.4 5.6.7.8 out",
    "tcp 1.2.3.4 5.6.7.8 -12",
    "tcp 1.2.3.4 5.6.7.8 12abc out",
    "tcp 1.2.3.4 5.6.7.8 99999999999",
    "tcp 1.2.3.4 5.6.7.8 -99999999999",
    "tcp 1.2.3.4 5.6.7.8 2147483647",
    "",
    " \t  ",
    "tcp",
    "tcp 0.0.0.0:80",
    "foo 1.2.3.4 5.6.7.8",
    "tcp 1.2.3.4 5.6.7.8 0 mark",
    "tcp 1.2.3.4 5.6.7.8 0",
    "tcp 1.2.3.4:80 5.6.7.8:80 0"
};

// Every line the IPv6 forward rule tests add to a block.
const char *const kForwardTestLines[] = {
    "tcp 443,80",
    "udp 53",
    "tcp 1000-2000",
    "gre",
    "tcp 80-90,80,1",
    "tcp",
    "udp ",
    "tcp 90-80",
    "tcp 80;443",
    "udp 53 54",
    "udp 60-70x",
    "foo 1",
    "6 80",
    "tcp\t80",
    "tcp 70000",
    "tcp 65535",
    "tcp 65536",
    "tcp 0",
    "tcp 131072",
    "tcp 80-0",
    "tcp -1",
    "tcp 4294967296",
    "tcp 99999999999999999999999",
    "tcp -65535",
    "tcp +22",
    "tcp 80,",
    "tcp ,80",
    "tcp 80-",
    "tcp http",
    "tcp 80 - 90 ,100 ,  200-300 ",
    "    udp 123",
    "# tcp 80",
    "   #tcp 80",
    "#",
    "icmpv6 128,129 whatever",
    "GRE",
    "P200",
    "ip",
    "udp 5000-5010 internet mark 3 # game",
    "      ",
    "tcp 80",
    "  # only a comment",
    "tcp 22",
    "esp",
    "tcp 443",
    "P"
};

// Both calls on `text`, into records pre-filled alike.
bool access_agrees(const std::string &text) {
  ipaccess_rule plain, diagnosed;
  std::memset(&plain, 0xA5, sizeof plain);
  std::memset(&diagnosed, 0xA5, sizeof diagnosed);
  nuvrules_diag diag = garbage_diag();
  const int plain_rc = ipaccess_parse(&plain, text.c_str());
  const int rc = ipaccess_parse_with_diag(&diagnosed, text.c_str(), &diag);
  return rc == plain_rc && diag.code == rc && std::memcmp(&plain, &diagnosed, sizeof plain) == 0 &&
         std::strcmp(diag.reason, ipaccess_strerror(rc)) == 0 && diag.offset + diag.length <= text.size();
}

bool masq_agrees(const std::string &text) {
  ipmasqfwrule plain, diagnosed;
  std::memset(&plain, 0xA5, sizeof plain);
  std::memset(&diagnosed, 0xA5, sizeof diagnosed);
  nuvrules_diag diag = garbage_diag();
  const int plain_rc = ipmasqfwrule_parse(&plain, text.c_str());
  const int rc = ipmasqfwrule_parse_with_diag(&diagnosed, text.c_str(), &diag);
  ipmasqfwruleex plain_ex, diagnosed_ex;
  std::memset(&plain_ex, 0xA5, sizeof plain_ex);
  std::memset(&diagnosed_ex, 0xA5, sizeof diagnosed_ex);
  nuvrules_diag diag_ex = garbage_diag();
  const int plain_ex_rc = ipmasqfwruleex_parse(&plain_ex, text.c_str());
  const int ex_rc = ipmasqfwruleex_parse_with_diag(&diagnosed_ex, text.c_str(), &diag_ex);
  const bool same_plain = rc == plain_rc && diag.code == rc && std::memcmp(&plain, &diagnosed, sizeof plain) == 0 &&
                          std::strcmp(diag.reason, ipmasqfwrule_strerror(rc)) == 0;
  const bool same_ex = ex_rc == plain_ex_rc && diag_ex.code == ex_rc &&
                       std::memcmp(&plain_ex, &diagnosed_ex, sizeof plain_ex) == 0 &&
                       std::strcmp(diag_ex.reason, ipmasqfwrule_strerror(ex_rc)) == 0;
  const bool within = diag.offset + diag.length <= text.size() && diag_ex.offset + diag_ex.length <= text.size();
  return same_plain && same_ex && within;
}

// Adds `lines` to two blocks, one per call; same results and same blocks.
bool forward_agrees(const std::vector<std::string> &lines) {
  Block plain(4), diagnosed(4);
  for (const std::string &line : lines) {
    nuvrules_diag diag = garbage_diag();
    const int plain_rc = ip6_forwardrule_parse(plain.rule, line.c_str());
    const int rc = ip6_forwardrule_parse_with_diag(diagnosed.rule, line.c_str(), &diag);
    if (rc != plain_rc || diag.code != rc || std::strcmp(diag.reason, ip6_forwardrule_strerror(rc)) != 0) return false;
    if (diag.offset + diag.length > line.size()) return false;
  }
  return plain.bytes == diagnosed.bytes;
}

std::string join(const std::vector<std::string> &words, const std::vector<std::string> &separators) {
  std::string line;
  for (std::size_t i = 0; i < words.size(); ++i) line += separators[i % separators.size()] + words[i];
  return line;
}

// Random lines from `pieces`, separated by blanks, tabs or nothing.
std::string random_line(const std::vector<std::string> &pieces) {
  const auto words = *rc::gen::container<std::vector<std::string>>(rc::gen::elementOf(pieces));
  const auto separators = *rc::gen::nonEmpty(
      rc::gen::container<std::vector<std::string>>(rc::gen::element<std::string>(" ", " ", "\t", "  ", "")));
  return join(words, separators);
}

const std::vector<std::string> kAccessPieces = {
    "permit", "deny", "reject", "disabled", "Permit", "ip", "IP", "tcp", "udp", "icmp", "P6", "6", "any", "ANY",
    "host", "10.0.0.1", "10.", "10.1", "1.2.3.4x", "255.255.255.0", "255.0.x.0", "eq", "ne", "lt", "gt", "range",
    "none", "80", "0", "65535", "70000", "established", "connect", "connection", "incoming", "related", "exists",
    "log", "short", "long", "alert", "foo", "#"};

const std::vector<std::string> kMasqPieces = {
    "#", "tcp", "udp", "ip", "6", "P200", "0.0.0.0:80", "1.2.3.4", ":22", "10.:80", "1.2.3.4:70000", "5.6.7.8:8080",
    "0.0.0.0:5000+10", "1.2.3.4:80+", "0", "7", "-3", "out", "local", "internet", "mark", "9", "ssh", "#web"};

const std::vector<std::string> kForwardPieces = {"tcp", "udp", "gre", "icmpv6", "6", "foo", "#", "80", "443",
                                                 "0", "65536", "70000", "1000-2000", "90 - 80", ",", ";", "-", "x"};

}  // namespace

TEST(RuleDiagnosisAgreement, AccessParsersAgreeOnEveryTestLine) {
  for (const char *line : kAccessTestLines) EXPECT_TRUE(access_agrees(line)) << line;
}

TEST(RuleDiagnosisAgreement, MasqueradeParsersAgreeOnEveryTestLine) {
  for (const char *line : kMasqTestLines) EXPECT_TRUE(masq_agrees(line)) << line;
}

TEST(RuleDiagnosisAgreement, ForwardRuleParsersAgreeOnEveryTestLine) {
  const std::vector<std::string> all(std::begin(kForwardTestLines), std::end(kForwardTestLines));
  for (const std::string &line : all) EXPECT_TRUE(forward_agrees({line})) << line;
  EXPECT_TRUE(forward_agrees(all)) << "all lines into one block";
}

TEST(RuleDiagnosisAgreement, AccessParsersAgreeOnRandomLines) {
  testsupport::check_seeded("diagnostic and plain access parse agree", 31337, 2000,
                            [] { RC_ASSERT(access_agrees(random_line(kAccessPieces))); });
}

TEST(RuleDiagnosisAgreement, MasqueradeParsersAgreeOnRandomLines) {
  testsupport::check_seeded("diagnostic and plain masquerade parse agree", 4242, 2000,
                            [] { RC_ASSERT(masq_agrees(random_line(kMasqPieces))); });
}

TEST(RuleDiagnosisAgreement, ForwardRuleParsersAgreeOnRandomLines) {
  testsupport::check_seeded("diagnostic and plain forward rule parse agree", 777, 1000, [] {
    const auto lines = *rc::gen::container<std::vector<std::string>>(
        rc::gen::exec([] { return random_line(kForwardPieces); }));
    RC_ASSERT(forward_agrees(lines));
  });
}

TEST(RuleDiagnosisAgreement, AllocationFailureGivesThePlainResultAndLeaksNothing) {
  // Each parser takes exactly one scratch block; failing it is the only
  // allocation failure there is.
  testsupport::NoLeakGuard guard;
  ipaccess_rule access_rule;
  ipmasqfwruleex masq_rule;
  Block plain, diagnosed;
  nuvrules_diag diag = garbage_diag();
  nuvcsock_fail_nth_allocation(1);
  const int access_plain = ipaccess_parse(&access_rule, "permit tcp any any");
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(ipaccess_parse_with_diag(&access_rule, "permit tcp any any", &diag), access_plain);
  nuvcsock_fail_nth_allocation(1);
  const int masq_plain = ipmasqfwruleex_parse(&masq_rule, "tcp 1.2.3.4 5.6.7.8");
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(ipmasqfwruleex_parse_with_diag(&masq_rule, "tcp 1.2.3.4 5.6.7.8", &diag), masq_plain);
  nuvcsock_fail_nth_allocation(1);
  const int forward_plain = ip6_forwardrule_parse(plain.rule, "tcp 80");
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(ip6_forwardrule_parse_with_diag(diagnosed.rule, "tcp 80", &diag), forward_plain);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(access_plain, IPACCESS_E_TOO_LONG);
  EXPECT_EQ(masq_plain, IPMASQFWRULE_E_TOO_LONG);
  EXPECT_EQ(forward_plain, IP6_FORWARDRULE_E_BAD_PORT);
  EXPECT_EQ(plain.bytes, diagnosed.bytes);
}
