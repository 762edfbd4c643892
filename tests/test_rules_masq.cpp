// Masquerade forward rules: parsing and printing of the plain and the
// extended form, result codes, the scratch copy, and round trips.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "nuvcsock_test.h"
#include "nuvrules.h"
#include "testsupport.h"

using testsupport::NoLeakGuard;

namespace {

// A NUL-terminated copy of a text in a heap block of exactly its size, so
// that AddressSanitizer reports any read past the terminating NUL.
class ExactText {
 public:
  explicit ExactText(const std::string &text) : size_(text.size() + 1), data_(new char[size_]) {
    std::memcpy(data_.get(), text.c_str(), size_);
  }
  const char *c_str() const { return data_.get(); }
  std::size_t size() const { return size_; }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> data_;
};

std::uint32_t addr_of(const char *dotted) {
  in_addr a{};
  EXPECT_EQ(inet_pton(AF_INET, dotted, &a), 1) << dotted;
  return a.s_addr;
}

std::uint16_t net_port(std::uint16_t port) { return htons(port); }

int parse(const std::string &text, ipmasqfwrule *rule) {
  ExactText exact(text);
  return ipmasqfwrule_parse(rule, exact.c_str());
}

// Extended parse into a record; the text must outlive the comment pointer,
// so callers keep the ExactText.
int parse_ex(const ExactText &text, ipmasqfwruleex *rule) { return ipmasqfwruleex_parse(rule, text.c_str()); }

// Record filled with a pattern, to see what parsing overwrites.
ipmasqfwrule dirty_rule() {
  ipmasqfwrule r;
  std::memset(&r, 0xA5, sizeof r);
  return r;
}

ipmasqfwruleex dirty_rule_ex() {
  ipmasqfwruleex r;
  std::memset(&r, 0xA5, sizeof r);
  return r;
}

bool rule_is_clear(const ipmasqfwrule &r) {
  return r.proto == 0 && r.addr1 == 0 && r.addr2 == 0 && r.port1 == 0 && r.port2 == 0 && r.number == 0 &&
         r.flags == 0 && r.count == 0;
}

std::string round_trip(const std::string &text) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse(text, &r), IPMASQFWRULE_E_OK) << text;
  return ipmasqfwrule_string(&r);
}

}  // namespace

// ---- Typical rules ----

TEST(MasqRuleParse, TcpForwardWithTwoPorts) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 0.0.0.0:80 192.168.1.20:8080 0", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.proto, 6);
  EXPECT_EQ(r.addr1, addr_of("0.0.0.0"));
  EXPECT_EQ(r.port1, net_port(80));
  EXPECT_EQ(r.addr2, addr_of("192.168.1.20"));
  EXPECT_EQ(r.port2, net_port(8080));
  EXPECT_EQ(r.number, 0);
  EXPECT_EQ(r.flags, 0u);
  EXPECT_EQ(r.count, 0);
}

TEST(MasqRuleFormat, TcpForwardPrintsBackTheSameText) {
  EXPECT_EQ(round_trip("tcp 0.0.0.0:80 192.168.1.20:8080 0"), "tcp 0.0.0.0:80 192.168.1.20:8080 0");
}

TEST(MasqRuleParse, PortCountAndOutFlag) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("udp 0.0.0.0:5000+10 192.168.1.20:5000 0 out", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.proto, 17);
  EXPECT_EQ(r.port1, net_port(5000));
  EXPECT_EQ(r.count, 10);  // host order on every target
  EXPECT_EQ(r.port2, net_port(5000));
  EXPECT_EQ(r.flags, IPMASQFWRULE_FLAG_OUT);
}

TEST(MasqRuleFormat, PortCountIsPrinted) {
  EXPECT_EQ(round_trip("udp 0.0.0.0:5000+10 192.168.1.20:5000 0 out"),
            "udp 0.0.0.0:5000+10 192.168.1.20:5000 0 out");
}

TEST(MasqRuleFormat, CountOfOneIsNotPrinted) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("udp 0.0.0.0:5000+1 192.168.1.20:5000 0", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.count, 1);
  EXPECT_STREQ(ipmasqfwrule_string(&r), "udp 0.0.0.0:5000 192.168.1.20:5000 0");
}

TEST(MasqRuleFormat, CountIsNotPrintedWithoutAPort) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("udp 1.2.3.4:0+5 5.6.7.8 0", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.port1, 0);
  EXPECT_EQ(r.count, 5);
  EXPECT_STREQ(ipmasqfwrule_string(&r), "udp 1.2.3.4 5.6.7.8 0");
}

// ---- Commented-out rules ----

TEST(MasqRuleParse, PlainParserReportsCommentedOutRule) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("# tcp 0.0.0.0:22 192.168.1.2:22 0", &r), IPMASQFWRULE_E_COMMENTED_OUT);
  EXPECT_TRUE(rule_is_clear(r));
}

TEST(MasqRuleParse, ExtendedParserReadsCommentedOutRuleAsDisabled) {
  ExactText text("# tcp 0.0.0.0:22 192.168.1.2:22 0");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.enabled, 0);
  EXPECT_EQ(r.rule.proto, 6);
  EXPECT_EQ(r.rule.port1, net_port(22));
  EXPECT_EQ(r.rule.addr2, addr_of("192.168.1.2"));
  EXPECT_STREQ(r.comment, "");
  EXPECT_STREQ(ipmasqfwruleex_string(&r), "# tcp 0.0.0.0:22 192.168.1.2:22 0");
}

TEST(MasqRuleParse, HashGluedToTheProtocolIsNotTheDisabledMarker) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("#tcp 0.0.0.0:22 192.168.1.2:22 0", &r), IPMASQFWRULE_E_UNKNOWN_PROTOCOL);
}

TEST(MasqRuleParse, DisabledMarkerAloneIsMissingTheProtocol) {
  ExactText text("#");
  ipmasqfwruleex r = dirty_rule_ex();
  EXPECT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_MISSING_WORD);
  EXPECT_EQ(r.enabled, 0);
}

TEST(MasqRuleParse, DisabledMarkerIsNotTakenAsComment) {
  ExactText text("# tcp 1.2.3.4 5.6.7.8 0 note");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_STREQ(r.comment, "");
}

// ---- Extended words ----

TEST(MasqRuleParse, ScopeMarkAndCommentAfterBlanks) {
  ExactText text("tcp 0.0.0.0:22 192.168.1.2:22 0 internet mark 7 #   ssh");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.enabled, 1);
  EXPECT_EQ(r.scope, IPMASQFWRULE_SCOPE_INTERNET);
  EXPECT_EQ(r.mark, 7ul);
  EXPECT_STREQ(r.comment, "ssh");
  EXPECT_EQ(r.comment, text.c_str() + std::strlen(text.c_str()) - 3) << "points into the caller's text";
  EXPECT_STREQ(ipmasqfwruleex_string(&r), "tcp 0.0.0.0:22 192.168.1.2:22 0 internet mark 7 # ssh");
}

TEST(MasqRuleParse, LocalScope) {
  ExactText text("udp 1.2.3.4:53 10.0.0.1:53 4 local");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.rule.number, 4);
  EXPECT_EQ(r.scope, IPMASQFWRULE_SCOPE_LOCAL);
  EXPECT_EQ(r.mark, 0ul);
}

TEST(MasqRuleParse, ExtendedFieldsStartAtTheirDefaults) {
  ExactText text("tcp 1.2.3.4 5.6.7.8");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.enabled, 1);
  EXPECT_NE(r.comment, nullptr);
  EXPECT_STREQ(r.comment, "");
  EXPECT_EQ(r.scope, 0);
  EXPECT_EQ(r.mark, 0ul);
}

TEST(MasqRuleParse, PlainParserReadsOverScopeAndMark) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4:80 5.6.7.8:80 3 out internet mark 9 # web", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.number, 3);
  EXPECT_EQ(r.flags, IPMASQFWRULE_FLAG_OUT);
  EXPECT_STREQ(ipmasqfwrule_string(&r), "tcp 1.2.3.4:80 5.6.7.8:80 3 out");
}

TEST(MasqRuleParse, MarkBeyond32BitsReadsAsAllOnesOnEveryHost) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 mark 4294967296");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.mark, 0xfffffffful);
}

TEST(MasqRuleParse, NegativeMarkWrapsAt32Bits) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 mark -1");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.mark, 0xfffffffful);
}

TEST(MasqRuleParse, MarkIsDecimal) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 mark 0x10");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.mark, 0ul);
}

TEST(MasqRuleParse, MarkWithoutDigitsIsZero) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 mark none");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.mark, 0ul);
}

TEST(MasqRuleParse, MarkMayFollowTheEndpointsDirectly) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 mark 12");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.rule.number, 0);
  EXPECT_EQ(r.mark, 12ul);
}

TEST(MasqRuleParse, WordsAreTakenOnlyInTheirOrder) {
  // "out" after the scope word is no longer looked for.
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 internet out");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.scope, IPMASQFWRULE_SCOPE_INTERNET);
  EXPECT_EQ(r.rule.flags, 0u);
}

TEST(MasqRuleParse, KeywordsAreCaseSensitive) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 OUT Local MARK 5");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.rule.flags, 0u);
  EXPECT_EQ(r.scope, 0);
  EXPECT_EQ(r.mark, 0ul);
}

TEST(MasqRuleParse, UnknownTrailingWordsAreIgnored) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 1.2.3.4 5.6.7.8 0 whatever else follows", &r), IPMASQFWRULE_E_OK);
}

TEST(MasqRuleParse, CommentStartsAtTheFirstHashInsideAWord) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 note#two # three");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_STREQ(r.comment, "two # three");
}

TEST(MasqRuleParse, CommentKeepsLeadingTabs) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 #\t x");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_STREQ(r.comment, "\t x");
}

TEST(MasqRuleParse, WordWithoutHashGivesNoComment) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 remark");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_STREQ(r.comment, "");
}

TEST(MasqRuleParse, HashAtTheEndGivesAnEmptyCommentInTheText) {
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 #");
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.comment, text.c_str() + text.size() - 1);
  EXPECT_STREQ(ipmasqfwruleex_string(&r), "tcp 1.2.3.4 5.6.7.8 0");
}

TEST(MasqRuleParse, CommentMayLieBeyondTheWordsThatAreRead) {
  std::string line = "tcp 1.2.3.4 5.6.7.8 0 x";
  for (int i = 0; i < 30; ++i) line += " w" + std::to_string(i);
  line += " # far away";
  ExactText text(line);
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_STREQ(r.comment, "far away");
}

TEST(MasqRuleParse, TabsSeparateWords) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("\ttcp\t1.2.3.4:80 \t 5.6.7.8:81\t2\tout", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.port2, net_port(81));
  EXPECT_EQ(r.number, 2);
  EXPECT_EQ(r.flags, IPMASQFWRULE_FLAG_OUT);
}

// ---- Protocol ----

TEST(MasqRuleParse, IpInAnyCaseIsAnyProtocol) {
  for (const char *word : {"ip", "IP", "Ip", "iP"}) {
    ipmasqfwrule r = dirty_rule();
    ASSERT_EQ(parse(std::string(word) + " 1.2.3.4 5.6.7.8", &r), IPMASQFWRULE_E_OK) << word;
    EXPECT_EQ(r.proto, 255) << word;
  }
}

TEST(MasqRuleParse, ProtocolNamesIgnoreCaseAndNumbersNeedP) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("GRE 1.2.3.4 5.6.7.8", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.proto, 47);
  ASSERT_EQ(parse("P200 1.2.3.4 5.6.7.8", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.proto, 200);
  EXPECT_EQ(parse("6 1.2.3.4 5.6.7.8", &r), IPMASQFWRULE_E_UNKNOWN_PROTOCOL);
}

TEST(MasqRuleFormat, AnyProtocolPrintsAsIp) {
  ipmasqfwrule r{};
  r.proto = 255;
  EXPECT_STREQ(ipmasqfwrule_string(&r), "ip 0.0.0.0 0.0.0.0 0");
}

TEST(MasqRuleFormat, ProtocolNamesAreLowered) {
  ipmasqfwrule r{};
  r.proto = 58;
  EXPECT_STREQ(ipmasqfwrule_string(&r), "icmpv6 0.0.0.0 0.0.0.0 0");
  r.proto = 41;
  EXPECT_STREQ(ipmasqfwrule_string(&r), "ipv6 0.0.0.0 0.0.0.0 0");
}

TEST(MasqRuleFormat, NumericProtocolPrintsLoweredAndDoesNotReadBack) {
  // Numeric names read back only with an upper-case "P".
  ipmasqfwrule r{};
  r.proto = 200;
  std::string text = ipmasqfwrule_string(&r);
  EXPECT_EQ(text, "p200 0.0.0.0 0.0.0.0 0");
  ipmasqfwrule back = dirty_rule();
  EXPECT_EQ(parse(text, &back), IPMASQFWRULE_E_UNKNOWN_PROTOCOL);
}

TEST(MasqRuleFormat, ProtocolNameWithABlankDoesNotReadBack) {
  ipmasqfwrule r{};
  r.proto = 135;
  std::string text = ipmasqfwrule_string(&r);
  EXPECT_EQ(text, "mobility header 0.0.0.0 0.0.0.0 0");
  ipmasqfwrule back = dirty_rule();
  EXPECT_EQ(parse(text, &back), IPMASQFWRULE_E_UNKNOWN_PROTOCOL) << "\"mobility\" alone is no protocol";
}

// ---- Endpoints ----

TEST(MasqRuleEndpoint, EmptyAddressBeforeTheColonIsZero) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp :80 10.0.0.2:8080", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.addr1, 0u);
  EXPECT_EQ(r.port1, net_port(80));
}

TEST(MasqRuleEndpoint, TrailingDotEndsTheAddressEarly) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 10. 10.1.", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.addr1, addr_of("10.0.0.0"));
  EXPECT_EQ(r.addr2, addr_of("10.1.0.0"));
}

TEST(MasqRuleEndpoint, AddressWithoutAllPartsIsMalformed) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 10 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 10.1 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 1.2.3 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 10.:80 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
}

TEST(MasqRuleEndpoint, PartsOutOfRangeOrWithoutDigitsAreMalformed) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 256.1.1.1 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 1.2.3.4 1.2.3.999", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 1..2.3 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp a.b.c.d 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp -1.2.3.4 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 1.2.3.4 99999999999999999999.1.1.1", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
}

TEST(MasqRuleEndpoint, TextAfterACompleteAddressIsIgnored) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4x:80 5.6.7.8/24", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.addr1, addr_of("1.2.3.4"));
  EXPECT_EQ(r.port1, 0);
  EXPECT_EQ(r.addr2, addr_of("5.6.7.8"));
}

TEST(MasqRuleEndpoint, TextAfterThePortIsIgnored) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4:80x 5.6.7.8:81-90", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.port1, net_port(80));
  EXPECT_EQ(r.port2, net_port(81));
}

TEST(MasqRuleEndpoint, PortZeroIsAcceptedAndNotPrinted) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4:0 5.6.7.8:0", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.port1, 0);
  EXPECT_STREQ(ipmasqfwrule_string(&r), "tcp 1.2.3.4 5.6.7.8 0");
}

TEST(MasqRuleEndpoint, HighestPortIsAccepted) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4:65535+65535 5.6.7.8:65535", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.port1, net_port(65535));
  EXPECT_EQ(r.count, 65535);
}

TEST(MasqRuleEndpoint, BadPortsAreMalformed) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 0.0.0.0:70000 1.2.3.4 0", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 0.0.0.0:65536 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 0.0.0.0: 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 0.0.0.0:-1 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 0.0.0.0:http 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 1.2.3.4 5.6.7.8:65536", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp : 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
}

TEST(MasqRuleEndpoint, BadCountsAreMalformed) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 0.0.0.0:80+ 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 0.0.0.0:80+70000 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(parse("tcp 0.0.0.0:80+-2 1.2.3.4", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
}

TEST(MasqRuleEndpoint, SecondEndpointTakesNoCount) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4:80 5.6.7.8:80+10", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.port2, net_port(80));
  EXPECT_EQ(r.count, 0);
}

TEST(MasqRuleEndpoint, FaultyFirstEndpointLeavesTheProtocolOnly) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("udp 1.2.3.4:99999 5.6.7.8", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(r.proto, 17);
  r.proto = 0;
  EXPECT_TRUE(rule_is_clear(r));
}

TEST(MasqRuleEndpoint, FaultySecondEndpointKeepsTheFirst) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("udp 1.2.3.4:53+2 5.6.7", &r), IPMASQFWRULE_E_BAD_ENDPOINT);
  EXPECT_EQ(r.addr1, addr_of("1.2.3.4"));
  EXPECT_EQ(r.port1, net_port(53));
  EXPECT_EQ(r.count, 2);
  EXPECT_EQ(r.addr2, 0u);
  EXPECT_EQ(r.port2, 0);
}

// ---- The number ----

TEST(MasqRuleNumber, WordWithoutANumberIsExaminedAsTheNextWord) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4 5.6.7.8 out", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.number, 0);
  EXPECT_EQ(r.flags, IPMASQFWRULE_FLAG_OUT);
}

TEST(MasqRuleNumber, NegativeNumbersAreKeptAndPrinted) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4 5.6.7.8 -12", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.number, -12);
  EXPECT_STREQ(ipmasqfwrule_string(&r), "tcp 1.2.3.4 5.6.7.8 -12");
}

TEST(MasqRuleNumber, DigitsAtTheStartOfAWordAreTheNumber) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4 5.6.7.8 12abc out", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.number, 12);
  EXPECT_EQ(r.flags, IPMASQFWRULE_FLAG_OUT);
}

TEST(MasqRuleNumber, NumbersBeyond32BitsAreClamped) {
  ipmasqfwrule r = dirty_rule();
  ASSERT_EQ(parse("tcp 1.2.3.4 5.6.7.8 99999999999", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.number, INT32_MAX);
  ASSERT_EQ(parse("tcp 1.2.3.4 5.6.7.8 -99999999999", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.number, INT32_MIN);
  ASSERT_EQ(parse("tcp 1.2.3.4 5.6.7.8 2147483647", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.number, INT32_MAX);
}

// ---- Missing words, length, mark ----

TEST(MasqRuleParse, EmptyOrBlankTextMissesTheProtocol) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("", &r), IPMASQFWRULE_E_MISSING_WORD);
  EXPECT_TRUE(rule_is_clear(r));
  EXPECT_EQ(parse(" \t  ", &r), IPMASQFWRULE_E_MISSING_WORD);
}

TEST(MasqRuleParse, MissingEndpointsAreReported) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp", &r), IPMASQFWRULE_E_MISSING_WORD);
  EXPECT_EQ(parse("tcp 0.0.0.0:80", &r), IPMASQFWRULE_E_MISSING_WORD);
  EXPECT_EQ(r.port1, net_port(80)) << "what was read before the missing word stays";
}

TEST(MasqRuleParse, UnknownProtocol) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("foo 1.2.3.4 5.6.7.8", &r), IPMASQFWRULE_E_UNKNOWN_PROTOCOL);
  EXPECT_TRUE(rule_is_clear(r));
}

TEST(MasqRuleParse, MarkWithoutValue) {
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 1.2.3.4 5.6.7.8 0 mark", &r), IPMASQFWRULE_E_MARK_WITHOUT_VALUE);
  ExactText text("tcp 1.2.3.4 5.6.7.8 0 local mark");
  ipmasqfwruleex ex = dirty_rule_ex();
  EXPECT_EQ(parse_ex(text, &ex), IPMASQFWRULE_E_MARK_WITHOUT_VALUE);
  EXPECT_EQ(ex.scope, IPMASQFWRULE_SCOPE_LOCAL);
}

TEST(MasqRuleParse, TextOf1023CharactersIsRead) {
  std::string line = "tcp 1.2.3.4:80 5.6.7.8:80 0 x";
  line.resize(1023, ' ');
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse(line, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.port1, net_port(80));
}

TEST(MasqRuleParse, TextOf1024CharactersIsTooLong) {
  std::string line = "tcp 1.2.3.4:80 5.6.7.8:80 0 x";
  line.resize(1024, ' ');
  NoLeakGuard guard;
  long before = nuvcsock_allocations();
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse(line, &r), IPMASQFWRULE_E_TOO_LONG);
  EXPECT_TRUE(rule_is_clear(r));
  EXPECT_EQ(nuvcsock_allocations(), before) << "a text that is too long needs no scratch copy";
}

TEST(MasqRuleParse, VeryLongTextIsTooLong) {
  ExactText text(std::string(100000, 'a'));
  ipmasqfwruleex r = dirty_rule_ex();
  EXPECT_EQ(ipmasqfwruleex_parse(&r, text.c_str()), IPMASQFWRULE_E_TOO_LONG);
  EXPECT_EQ(r.enabled, 1);
  EXPECT_STREQ(r.comment, "");
}

// ---- Scratch memory ----

TEST(MasqRuleScratch, ParsingTakesOneScratchBlockAndReturnsIt) {
  NoLeakGuard guard;
  long before = nuvcsock_allocations();
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 1.2.3.4 5.6.7.8 0", &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(nuvcsock_allocations(), before + 1);
}

TEST(MasqRuleScratch, PlainParserWithoutScratchMemoryFails) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  ipmasqfwrule r = dirty_rule();
  EXPECT_EQ(parse("tcp 1.2.3.4:80 5.6.7.8:80 0", &r), IPMASQFWRULE_E_TOO_LONG);
  EXPECT_TRUE(rule_is_clear(r));
}

TEST(MasqRuleScratch, ExtendedParserWithoutScratchMemoryFails) {
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  ExactText text("# tcp 1.2.3.4:80 5.6.7.8:80 0 local mark 3 # x");
  ipmasqfwruleex r = dirty_rule_ex();
  EXPECT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_TOO_LONG);
  EXPECT_TRUE(rule_is_clear(r.rule));
  EXPECT_EQ(r.enabled, 1);
  EXPECT_STREQ(r.comment, "");
  EXPECT_EQ(r.scope, 0);
  EXPECT_EQ(r.mark, 0ul);
}

TEST(MasqRuleScratch, EveryResultCodeReturnsTheScratchBlock) {
  NoLeakGuard guard;
  const char *lines[] = {"tcp 1.2.3.4 5.6.7.8 0", "# tcp 1.2.3.4 5.6.7.8", "", "foo a b",
                         "tcp 1.2.3.4:99999 5.6.7.8", "tcp 1.2.3.4 5.6.7.8 0 mark"};
  for (const char *line : lines) {
    ipmasqfwrule r;
    ipmasqfwruleex ex;
    ipmasqfwrule_parse(&r, line);
    ipmasqfwruleex_parse(&ex, line);
  }
  EXPECT_EQ(nuvcsock_cmemstack_live_blocks(), 0);
}

// ---- Printing ----

TEST(MasqRuleFormat, BothFormsShareOneBuffer) {
  ipmasqfwrule plain{};
  plain.proto = 6;
  ipmasqfwruleex ex{};
  ex.rule.proto = 17;
  ex.enabled = 1;
  const char *first = ipmasqfwrule_string(&plain);
  const char *second = ipmasqfwruleex_string(&ex);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "udp 0.0.0.0 0.0.0.0 0");
}

TEST(MasqRuleFormat, OnlyTheOutBitOfTheFlagsIsPrinted) {
  ipmasqfwrule r{};
  r.proto = 6;
  r.flags = 0xfffffffe;
  EXPECT_STREQ(ipmasqfwrule_string(&r), "tcp 0.0.0.0 0.0.0.0 0");
}

TEST(MasqRuleFormat, ExtendedFieldsArePrintedInOrder) {
  ipmasqfwruleex r{};
  r.rule.proto = 6;
  r.rule.addr1 = addr_of("192.0.2.1");
  r.rule.port1 = net_port(443);
  r.rule.addr2 = addr_of("10.0.0.5");
  r.rule.port2 = net_port(8443);
  r.rule.number = 2;
  r.rule.flags = IPMASQFWRULE_FLAG_OUT;
  r.enabled = 0;
  r.scope = IPMASQFWRULE_SCOPE_LOCAL;
  r.mark = 4000000000ul;
  r.comment = "web";
  EXPECT_STREQ(ipmasqfwruleex_string(&r), "# tcp 192.0.2.1:443 10.0.0.5:8443 2 out local mark 4000000000 # web");
}

TEST(MasqRuleFormat, UnknownScopeEmptyOrNullCommentAndZeroMarkPrintNothing) {
  ipmasqfwruleex r{};
  r.rule.proto = 6;
  r.enabled = 1;
  r.scope = 3;
  r.comment = "";
  EXPECT_STREQ(ipmasqfwruleex_string(&r), "tcp 0.0.0.0 0.0.0.0 0");
  r.comment = nullptr;
  EXPECT_STREQ(ipmasqfwruleex_string(&r), "tcp 0.0.0.0 0.0.0.0 0");
}

TEST(MasqRuleFormat, AnyNonZeroEnabledPrintsAsEnabled) {
  ipmasqfwruleex r{};
  r.rule.proto = 6;
  r.enabled = 7;
  EXPECT_STREQ(ipmasqfwruleex_string(&r), "tcp 0.0.0.0 0.0.0.0 0");
}

TEST(MasqRuleFormat, LongCommentIsCutToTheBuffer) {
  std::string comment(3000, 'c');
  ipmasqfwruleex r{};
  r.rule.proto = 6;
  r.enabled = 1;
  r.comment = comment.c_str();
  std::string text = ipmasqfwruleex_string(&r);
  ASSERT_EQ(text.size(), 1023u);
  EXPECT_EQ(text.substr(0, 26), "tcp 0.0.0.0 0.0.0.0 0 # cc");
}

TEST(MasqRuleFormat, AddressesPrintInNetworkOrder) {
  ipmasqfwrule r{};
  r.proto = 17;
  const std::uint8_t a[4] = {203, 0, 113, 9};
  std::memcpy(&r.addr1, a, 4);
  r.port1 = net_port(1194);
  EXPECT_STREQ(ipmasqfwrule_string(&r), "udp 203.0.113.9:1194 0.0.0.0 0");
}

// ---- Against libc ----

TEST(MasqRuleEndpoint, AddressesAndPortsAgreeWithInetPtonAndHtons) {
  std::mt19937 rng(20261121);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<int> port(0, 65535);
  for (int i = 0; i < 2000; ++i) {
    std::ostringstream a1, a2;
    a1 << byte(rng) << '.' << byte(rng) << '.' << byte(rng) << '.' << byte(rng);
    a2 << byte(rng) << '.' << byte(rng) << '.' << byte(rng) << '.' << byte(rng);
    int p1 = port(rng), p2 = port(rng);
    std::string line = "udp " + a1.str() + ":" + std::to_string(p1) + " " + a2.str() + ":" + std::to_string(p2);
    ipmasqfwrule r = dirty_rule();
    ASSERT_EQ(parse(line, &r), IPMASQFWRULE_E_OK) << line;
    EXPECT_EQ(r.addr1, addr_of(a1.str().c_str())) << line;
    EXPECT_EQ(r.addr2, addr_of(a2.str().c_str())) << line;
    EXPECT_EQ(r.port1, htons(static_cast<std::uint16_t>(p1))) << line;
    EXPECT_EQ(r.port2, htons(static_cast<std::uint16_t>(p2))) << line;
  }
}

TEST(MasqRuleParse, ManyWordsAreReadWithoutHarm) {
  std::string line = "tcp 1.2.3.4:80 5.6.7.8:80 9 out local mark 2";
  for (int i = 0; i < 60; ++i) line += " word" + std::to_string(i);
  ExactText text(line);
  ipmasqfwruleex r = dirty_rule_ex();
  ASSERT_EQ(parse_ex(text, &r), IPMASQFWRULE_E_OK);
  EXPECT_EQ(r.rule.number, 9);
  EXPECT_EQ(r.rule.flags, IPMASQFWRULE_FLAG_OUT);
  EXPECT_EQ(r.scope, IPMASQFWRULE_SCOPE_LOCAL);
  EXPECT_EQ(r.mark, 2ul);
  EXPECT_STREQ(r.comment, "");
}
