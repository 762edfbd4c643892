// DHCP match expressions: parsing "dhcpoption" and "dhcpheader" rule texts,
// header field names, and matching option values and header fields of a
// DHCP message against wildcard patterns.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "dhcp_testmemops.h"
#include "nuvcsock_test.h"
#include "nuvdhcp.h"
#include "nuvdhcp_match_priv.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;
using testsupport::DhcpTestMemops;
using testsupport::hex_bytes;
using testsupport::NoLeakGuard;

// ---- parser helpers ----

struct OptionParse {
  int rc;
  dhcp_match match;
  std::string pattern;  // the rc characters at match.pattern
  std::string rest;     // the text from *endp on
};

OptionParse parse_option(const std::string &text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  OptionParse r{};
  char *end = nullptr;
  r.rc = parse_dhcpoptionmatch(buf.data(), &end, &r.match);
  if (r.rc >= 0) {
    r.pattern.assign(r.match.pattern, static_cast<std::size_t>(r.rc));
    r.rest = end;
    EXPECT_EQ(end, r.match.pattern + r.rc) << "the end pointer follows the pattern";
  }
  r.match.pattern = nullptr;  // points into buf
  return r;
}

struct HeaderParse {
  int rc;
  dhcp_match match;
  std::string pattern;
  std::string rest;
  std::string text_after;  // the whole text buffer afterwards, NULs shown as '|'
};

HeaderParse parse_header(const std::string &text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  HeaderParse r{};
  char *end = nullptr;
  r.rc = parse_dhcpheadermatch(buf.data(), &end, &r.match);
  if (r.rc >= 0) {
    r.pattern.assign(r.match.pattern, static_cast<std::size_t>(r.rc));
    r.rest = end;
    EXPECT_EQ(end, r.match.pattern + r.rc);
  }
  for (std::size_t i = 0; i + 1 < buf.size(); ++i) r.text_after.push_back(buf[i] ? buf[i] : '|');
  r.match.pattern = nullptr;
  return r;
}

// ---- message helpers ----

// A DHCP message: the fixed header, the magic cookie, the given options and
// an end mark.  Field setters write in network byte order.
struct Message {
  Message() : bytes(236, 0) {}
  Message &options(const Bytes &opts) {
    opts_ = opts;
    return *this;
  }
  Message &put(std::size_t offset, const Bytes &b) {
    std::copy(b.begin(), b.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return *this;
  }
  Message &put_text(std::size_t offset, const std::string &s) {
    std::copy(s.begin(), s.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return *this;
  }
  // Header, cookie, options, end mark, and one readable byte after the message.
  Bytes wire() const {
    Bytes m = bytes;
    for (std::uint8_t b : {0x63, 0x82, 0x53, 0x63}) m.push_back(b);
    m.insert(m.end(), opts_.begin(), opts_.end());
    m.push_back(255);
    m.push_back(0);
    return m;
  }
  Bytes bytes;

 private:
  Bytes opts_;
};

Bytes opt(std::uint8_t code, const Bytes &value) {
  Bytes out{code, static_cast<std::uint8_t>(value.size())};
  for (auto c : value) out.push_back(static_cast<std::uint8_t>(c));
  return out;
}

Bytes opt_text(std::uint8_t code, const std::string &value) { return opt(code, Bytes(value.begin(), value.end())); }

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Bytes vendor_block(std::uint32_t enterprise, const Bytes &data) {
  Bytes out{static_cast<std::uint8_t>(enterprise >> 24), static_cast<std::uint8_t>(enterprise >> 16),
            static_cast<std::uint8_t>(enterprise >> 8), static_cast<std::uint8_t>(enterprise),
            static_cast<std::uint8_t>(data.size())};
  for (auto c : data) out.push_back(c);
  return out;
}

// A message parsed into a store; the store is released at scope end.
struct Parsed {
  Parsed(DhcpTestMemops &memops, const Message &m) : ops(memops.ops()), wire(m.wire()) {
    EXPECT_EQ(dhcp_parse_options(ops, wire.data(), static_cast<std::int32_t>(wire.size() - 1), store), 0);
  }
  ~Parsed() { dhcp_free_options(ops, store); }
  int matches(std::uint8_t code, const char *pattern, std::uint32_t enterprise = 0, std::uint8_t sub = 0) const {
    dhcp_match m{code, sub, enterprise, pattern};
    return dhcp_packet_matches(ops, wire.data(), store, &m);
  }
  int header_matches(std::uint8_t field, const char *pattern) const { return matches(0, pattern, 0, field); }
  const dhcp_memops *ops;
  Bytes wire;
  dhcp_options store;
};

// Evaluates a rule text the way the classifier does: parse, copy the pattern
// into a NUL-terminated string, evaluate.
int rule_matches(const Parsed &p, const std::string &keyword, const std::string &rest) {
  std::vector<char> buf(rest.begin(), rest.end());
  buf.push_back('\0');
  dhcp_match m{};
  char *end = nullptr;
  const int rc = keyword == "dhcpoption" ? parse_dhcpoptionmatch(buf.data(), &end, &m)
                                         : parse_dhcpheadermatch(buf.data(), &end, &m);
  EXPECT_GE(rc, 0) << keyword << " " << rest;
  if (rc < 0) return -1;
  const std::string pattern(m.pattern, static_cast<std::size_t>(rc));
  m.pattern = pattern.c_str();
  return dhcp_packet_matches(p.ops, p.wire.data(), p.store, &m);
}

constexpr std::uint32_t kBroadbandForum = 3561;

}  // namespace

// ---- parse_dhcpoptionmatch ----

TEST(ParseDhcpOptionMatch, CodeAndPattern) {
  OptionParse r = parse_option("60 MSFT*");
  EXPECT_EQ(r.rc, 5);
  EXPECT_EQ(r.match.code, 60);
  EXPECT_EQ(r.match.sub, 0);
  EXPECT_EQ(r.match.enterprise, 0u);
  EXPECT_EQ(r.pattern, "MSFT*");
  EXPECT_EQ(r.rest, "");
}

TEST(ParseDhcpOptionMatch, SpacesAroundAreSkippedAndThePatternEndsAtASpace) {
  OptionParse r = parse_option("   60    abc* clients");
  EXPECT_EQ(r.rc, 4);
  EXPECT_EQ(r.pattern, "abc*");
  EXPECT_EQ(r.rest, " clients");
}

TEST(ParseDhcpOptionMatch, VendorFormWithHexadecimalEnterprise) {
  OptionParse r = parse_option("125/0xde9/1 foo*");
  EXPECT_EQ(r.rc, 4);
  EXPECT_EQ(r.match.code, 125);
  EXPECT_EQ(r.match.enterprise, 3561u);
  EXPECT_EQ(r.match.sub, 1);
  EXPECT_EQ(r.pattern, "foo*");
}

TEST(ParseDhcpOptionMatch, VendorFormWithDecimalAndOctalNumbers) {
  OptionParse r = parse_option("124/3561/010 x");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.match.code, 124);
  EXPECT_EQ(r.match.enterprise, 3561u);
  EXPECT_EQ(r.match.sub, 8);
  EXPECT_EQ(parse_option("125/017/2 x").match.enterprise, 15u);
}

TEST(ParseDhcpOptionMatch, LargestEnterpriseNumber) {
  EXPECT_EQ(parse_option("125/4294967295/1 x").match.enterprise, 4294967295u);
}

TEST(ParseDhcpOptionMatch, CodeInHexadecimal) {
  OptionParse r = parse_option("0x3c MSFT");
  EXPECT_EQ(r.match.code, 60);
  EXPECT_EQ(r.pattern, "MSFT");
}

TEST(ParseDhcpOptionMatch, PatternMayFollowTheNumberWithoutASpace) {
  OptionParse r = parse_option("12abc");
  EXPECT_EQ(r.rc, 3);
  EXPECT_EQ(r.match.code, 12);
  EXPECT_EQ(r.pattern, "abc");
}

TEST(ParseDhcpOptionMatch, NothingAfterTheCodeGivesAnEmptyPattern) {
  OptionParse r = parse_option("12");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.match.code, 12);
  EXPECT_EQ(r.rest, "");
  EXPECT_EQ(parse_option("12   ").rc, 0);
}

TEST(ParseDhcpOptionMatch, CodeIsTruncatedToEightBits) {
  EXPECT_EQ(parse_option("316 x").match.code, 60);  // 316 - 256
}

TEST(ParseDhcpOptionMatch, RecordIsClearedFirst) {
  std::string text = "12 x";
  dhcp_match m{9, 9, 99, "old"};
  char *end = nullptr;
  ASSERT_EQ(parse_dhcpoptionmatch(text.data(), &end, &m), 1);
  EXPECT_EQ(m.sub, 0);
  EXPECT_EQ(m.enterprise, 0u);
}

TEST(ParseDhcpOptionMatch, BadOrZeroCodeIsMinus2) {
  EXPECT_EQ(parse_option("abc").rc, DHCP_MATCH_E_BAD_CODE);
  EXPECT_EQ(parse_option("").rc, DHCP_MATCH_E_BAD_CODE);
  EXPECT_EQ(parse_option("   ").rc, DHCP_MATCH_E_BAD_CODE);
  EXPECT_EQ(parse_option("0 x").rc, DHCP_MATCH_E_BAD_CODE);
  EXPECT_EQ(parse_option("256 x").rc, DHCP_MATCH_E_BAD_CODE);  // truncates to 0
}

TEST(ParseDhcpOptionMatch, SlashAfterANonVendorCodeIsMinus3) {
  EXPECT_EQ(parse_option("60/1/1 x").rc, DHCP_MATCH_E_NOT_VENDOR);
  EXPECT_EQ(parse_option("43/1/1 x").rc, DHCP_MATCH_E_NOT_VENDOR);
}

TEST(ParseDhcpOptionMatch, BadEnterpriseNumberIsMinus4) {
  EXPECT_EQ(parse_option("125/x/1 a").rc, DHCP_MATCH_E_ENTERPRISE);
  EXPECT_EQ(parse_option("125//1 a").rc, DHCP_MATCH_E_ENTERPRISE);
}

TEST(ParseDhcpOptionMatch, EnterpriseNumberZeroIsAccepted) {
  OptionParse r = parse_option("125/0/1 a");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.match.enterprise, 0u);
}

TEST(ParseDhcpOptionMatch, MissingSecondSlashIsMinus5) {
  EXPECT_EQ(parse_option("125/3561 a").rc, DHCP_MATCH_E_SECOND_SLASH);
  EXPECT_EQ(parse_option("125/3561").rc, DHCP_MATCH_E_SECOND_SLASH);
  EXPECT_EQ(parse_option("125/3561:1 a").rc, DHCP_MATCH_E_SECOND_SLASH);
}

TEST(ParseDhcpOptionMatch, BadSubOptionCodeIsMinus6) {
  EXPECT_EQ(parse_option("125/3561/x a").rc, DHCP_MATCH_E_SUB_CODE);
  EXPECT_EQ(parse_option("125/3561/").rc, DHCP_MATCH_E_SUB_CODE);
}

TEST(ParseDhcpOptionMatch, SubOptionCodeZeroIsAccepted) {
  OptionParse r = parse_option("125/3561/0 a");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.match.sub, 0);
}

TEST(ParseDhcpOptionMatch, ErrorLeavesTheEndPointerAlone) {
  std::string text = "60/1/1 x";
  dhcp_match m{};
  char *end = nullptr;
  EXPECT_EQ(parse_dhcpoptionmatch(text.data(), &end, &m), DHCP_MATCH_E_NOT_VENDOR);
  EXPECT_EQ(end, nullptr);
}

// ---- parse_dhcpheadermatch ----

TEST(ParseDhcpHeaderMatch, FieldAndPattern) {
  HeaderParse r = parse_header("xid DEADBEEF");
  EXPECT_EQ(r.rc, 8);
  EXPECT_EQ(r.match.code, 0);
  EXPECT_EQ(r.match.sub, DHCP_HFIELD_XID);
  EXPECT_EQ(r.match.enterprise, 0u);
  EXPECT_EQ(r.pattern, "DEADBEEF");
  EXPECT_EQ(r.text_after, "xid DEADBEEF") << "the separator is restored";
}

TEST(ParseDhcpHeaderMatch, FieldNameIgnoresCase) {
  HeaderParse r = parse_header("XID deadbeef");
  EXPECT_EQ(r.rc, 8);
  EXPECT_EQ(r.match.sub, DHCP_HFIELD_XID);
  EXPECT_EQ(parse_header("ChAdDr 00:*").match.sub, DHCP_HFIELD_CHADDR);
}

TEST(ParseDhcpHeaderMatch, EveryFieldNameGivesItsIndex) {
  const char *names[] = {"op",     "htype",  "hlen",   "hops",   "xid",    "secs",  "flags",
                         "ciaddr", "yiaddr", "siaddr", "giaddr", "chaddr", "sname", "file"};
  for (int i = 0; i < 14; ++i) {
    HeaderParse r = parse_header(std::string(names[i]) + " x");
    EXPECT_EQ(r.rc, 1) << names[i];
    EXPECT_EQ(r.match.sub, i) << names[i];
  }
}

TEST(ParseDhcpHeaderMatch, SpacesAreSkippedAndThePatternEndsAtASpace) {
  HeaderParse r = parse_header("  chaddr   00:11:* known");
  EXPECT_EQ(r.rc, 7);
  EXPECT_EQ(r.pattern, "00:11:*");
  EXPECT_EQ(r.rest, " known");
  EXPECT_EQ(r.text_after, "  chaddr   00:11:* known");
}

TEST(ParseDhcpHeaderMatch, NameAtTheEndOfTheTextIsMinus1) {
  EXPECT_EQ(parse_header("op").rc, DHCP_MATCH_E_NO_PATTERN);
  EXPECT_EQ(parse_header("").rc, DHCP_MATCH_E_NO_PATTERN);
  EXPECT_EQ(parse_header("   ").rc, DHCP_MATCH_E_NO_PATTERN);
}

TEST(ParseDhcpHeaderMatch, OnlySpacesAfterTheNameGiveAnEmptyPattern) {
  HeaderParse r = parse_header("op   ");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.match.sub, DHCP_HFIELD_OP);
  EXPECT_EQ(r.rest, "");
}

TEST(ParseDhcpHeaderMatch, UnknownNameIsMinus2AndItsTerminatorStays) {
  HeaderParse r = parse_header("bogus x");
  EXPECT_EQ(r.rc, DHCP_MATCH_E_UNKNOWN_FIELD);
  EXPECT_EQ(r.text_after, "bogus|x");
}

TEST(ParseDhcpHeaderMatch, NamePrefixIsNotAField) {
  EXPECT_EQ(parse_header("ch x").rc, DHCP_MATCH_E_UNKNOWN_FIELD);
  EXPECT_EQ(parse_header("chaddrx x").rc, DHCP_MATCH_E_UNKNOWN_FIELD);
}

TEST(ParseDhcpHeaderMatch, RecordIsClearedFirst) {
  std::string text = "op 01";
  dhcp_match m{9, 9, 99, "old"};
  char *end = nullptr;
  ASSERT_EQ(parse_dhcpheadermatch(text.data(), &end, &m), 2);
  EXPECT_EQ(m.code, 0);
  EXPECT_EQ(m.sub, DHCP_HFIELD_OP);
  EXPECT_EQ(m.enterprise, 0u);
}

// ---- dhcp_hfield2str ----

TEST(DhcpHfield2Str, NamesInIndexOrder) {
  EXPECT_STREQ(dhcp_hfield2str(0), "op");
  EXPECT_STREQ(dhcp_hfield2str(1), "htype");
  EXPECT_STREQ(dhcp_hfield2str(2), "hlen");
  EXPECT_STREQ(dhcp_hfield2str(3), "hops");
  EXPECT_STREQ(dhcp_hfield2str(4), "xid");
  EXPECT_STREQ(dhcp_hfield2str(5), "secs");
  EXPECT_STREQ(dhcp_hfield2str(6), "flags");
  EXPECT_STREQ(dhcp_hfield2str(7), "ciaddr");
  EXPECT_STREQ(dhcp_hfield2str(8), "yiaddr");
  EXPECT_STREQ(dhcp_hfield2str(9), "siaddr");
  EXPECT_STREQ(dhcp_hfield2str(10), "giaddr");
  EXPECT_STREQ(dhcp_hfield2str(11), "chaddr");
  EXPECT_STREQ(dhcp_hfield2str(12), "sname");
  EXPECT_STREQ(dhcp_hfield2str(13), "file");
}

TEST(DhcpHfield2Str, IndexAbove13IsUnknown) {
  EXPECT_STREQ(dhcp_hfield2str(14), "unknown");
  EXPECT_STREQ(dhcp_hfield2str(255), "unknown");
}

TEST(DhcpHfield2Str, PrintedNamesParseBack) {
  for (int i = 0; i < DHCP_HFIELD_COUNT; ++i) {
    EXPECT_EQ(parse_header(std::string(dhcp_hfield2str(static_cast<std::uint8_t>(i))) + " x").match.sub, i);
  }
}

// ---- option matches ----

TEST(DhcpOptionMatch, VendorClassPrefixIsCaseSensitive) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt_text(60, "MSFT 5.0")));
  EXPECT_EQ(rule_matches(p, "dhcpoption", "60 MSFT*"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "60 msft*"), 0);
}

TEST(DhcpOptionMatch, EthernetClientIdentifierIgnoresCase) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(61, hex_bytes("01 00 11 22 aa bb cc"))));
  EXPECT_EQ(rule_matches(p, "dhcpoption", "61 00:11:22:*"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "61 00:11:22:aa:bb:cc"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "61 00:11:22:AA:BB:CC"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "61 00:11:23:*"), 0);
}

TEST(DhcpOptionMatch, ClientIdentifierOfAnotherHardwareTypeNeverMatches) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(61, hex_bytes("00 00 11 22 33 44 55"))));
  EXPECT_EQ(p.matches(61, "*"), 0);
  EXPECT_EQ(p.matches(61, "00:11:22:*"), 0);
}

TEST(DhcpOptionMatch, ClientIdentifierUsesOnlySixAddressBytes) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(61, hex_bytes("01 00 11 22 33 44 55 66 77"))));
  EXPECT_EQ(p.matches(61, "00:11:22:33:44:55"), 1);
}

TEST(DhcpOptionMatch, ClientIdentifierTooShortForAnAddressNeverMatches) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(61, hex_bytes("01 00 11 22"))));
  EXPECT_EQ(p.matches(61, "*"), 0);
}

TEST(DhcpOptionMatch, RequestedAddressIsMatchedAsDottedText) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(50, hex_bytes("c0 a8 01 04"))));
  EXPECT_EQ(rule_matches(p, "dhcpoption", "50 192.168.*"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "50 192.168.1.4"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "50 10.*"), 0);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "50 192.168.1.40"), 0);
}

TEST(DhcpOptionMatch, EverySingleAddressOptionIsDotted) {
  for (std::uint8_t code : {1, 16, 28, 32, 50, 54}) {
    DhcpTestMemops memops;
    Parsed p(memops, Message().options(opt(code, hex_bytes("0a 00 00 ff"))));
    EXPECT_EQ(p.matches(code, "10.0.0.255"), 1) << int(code);
  }
}

TEST(DhcpOptionMatch, AddressListOptionIsMatchedAsRawText) {
  DhcpTestMemops memops;
  // Option 3 (routers) is a list, not a single address: its bytes are the text.
  Parsed p(memops, Message().options(opt(3, Bytes{'a', 'b', 'c', 'd'})));
  EXPECT_EQ(p.matches(3, "abcd"), 1);
  EXPECT_EQ(p.matches(3, "97.98.99.100"), 0);
}

TEST(DhcpOptionMatch, ShortSingleAddressNeverMatches) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(50, hex_bytes("c0 a8"))));
  EXPECT_EQ(p.matches(50, "*"), 0);
}

TEST(DhcpOptionMatch, AbsentOptionNeverMatches) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt_text(12, "host")));
  EXPECT_EQ(p.matches(60, "*"), 0);
  EXPECT_EQ(p.matches(61, "*"), 0);
  EXPECT_EQ(p.matches(50, "*"), 0);
}

TEST(DhcpOptionMatch, ZeroLengthOptionNeverMatches) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt_text(12, "")));
  ASSERT_NE(p.store[12].data, nullptr);
  EXPECT_EQ(p.matches(12, "*"), 0);
  EXPECT_EQ(p.matches(12, ""), 0);
}

TEST(DhcpOptionMatch, TextEndsAtTheFirstNul) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(12, Bytes{'a', 'b', 0, 'c', 'd'})));
  EXPECT_EQ(p.matches(12, "ab"), 1);
  EXPECT_EQ(p.matches(12, "ab*cd"), 0);
}

TEST(DhcpOptionMatch, OtherOptionsAreCaseSensitive) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt_text(12, "Router")));
  EXPECT_EQ(p.matches(12, "Router"), 1);
  EXPECT_EQ(p.matches(12, "router"), 0);
  EXPECT_EQ(p.matches(12, "R?u*"), 1);
}

TEST(DhcpOptionMatch, JoinedLongOptionIsMatchedUpTo1023Bytes) {
  DhcpTestMemops memops;
  // 5 instances of 250 bytes join to 1250 bytes; 1023 of them are compared.
  Bytes opts;
  for (int i = 0; i < 5; ++i) {
    const Bytes part = opt_text(12, std::string(250, 'a'));
    opts.insert(opts.end(), part.begin(), part.end());
  }
  Parsed p(memops, Message().options(opts));
  ASSERT_EQ(p.store[12].len, 1250u);
  EXPECT_EQ(p.matches(12, std::string(1023, 'a').c_str()), 1);
  EXPECT_EQ(p.matches(12, std::string(1024, 'a').c_str()), 0);
}

TEST(DhcpOptionMatch, ValueWithoutTerminatorFromSetOption) {
  DhcpTestMemops memops;
  Parsed p(memops, Message());
  // dhcp_set_option stores exactly the bytes, without a NUL after them.
  ASSERT_EQ(dhcp_set_option(memops.ops(), p.store, 12, 4, "host"), 0);
  EXPECT_EQ(p.matches(12, "host"), 1);
  EXPECT_EQ(p.matches(12, "hos"), 0);
}

TEST(DhcpOptionMatch, SlotLeftWithoutDataNeverMatches) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt_text(12, "host")));
  // A failed replacement leaves the old length and no data; the earlier
  // block is the caller's to release.
  unsigned char *earlier = p.store[12].data;
  memops.fail_nth(1);
  ASSERT_EQ(dhcp_set_option(memops.ops(), p.store, 12, 3, "abc"), -1);
  ASSERT_EQ(p.store[12].data, nullptr);
  ASSERT_EQ(p.store[12].len, 4u);
  EXPECT_EQ(p.matches(12, "*"), 0);
  memops.ops()->free(earlier);
}

TEST(DhcpOptionMatch, VendorSubOptionIsLookedUp) {
  DhcpTestMemops memops;
  const Bytes v125 = concat({vendor_block(4491, opt_text(1, "cable")), vendor_block(kBroadbandForum, opt_text(1, "foobar"))});
  Parsed p(memops, Message().options(opt(125, v125)));
  EXPECT_EQ(rule_matches(p, "dhcpoption", "125/0xde9/1 foo*"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "125/3561/1 cable"), 0);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "125/4491/1 cable"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "125/3561/2 *"), 0);
  EXPECT_EQ(rule_matches(p, "dhcpoption", "125/9/1 *"), 0);
}

TEST(DhcpOptionMatch, VendorClassOption124IsLookedUpToo) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(124, vendor_block(kBroadbandForum, opt_text(5, "dslforum")))));
  EXPECT_EQ(p.matches(124, "dsl*", kBroadbandForum, 5), 1);
}

TEST(DhcpOptionMatch, VendorSubOptionIsTextEvenWhenItsCodeIsAnAddressOption) {
  DhcpTestMemops memops;
  // Sub-option 50 holds 4 bytes: compared as raw text, not as an address.
  Parsed p(memops, Message().options(opt(125, vendor_block(kBroadbandForum, opt(50, Bytes{'w', 'x', 'y', 'z'})))));
  EXPECT_EQ(p.matches(125, "wxyz", kBroadbandForum, 50), 1);
  EXPECT_EQ(p.matches(125, "119.120.121.122", kBroadbandForum, 50), 0);
}

TEST(DhcpOptionMatch, VendorBlockRunningPastTheOptionNeverMatches) {
  DhcpTestMemops memops;
  Bytes v125 = vendor_block(kBroadbandForum, opt_text(1, "abc"));
  v125[4] = 40;  // claims more than the option holds
  Parsed p(memops, Message().options(opt(125, v125)));
  EXPECT_EQ(p.matches(125, "*", kBroadbandForum, 1), 0);
}

TEST(DhcpOptionMatch, OptionsInTheFileFieldCount) {
  DhcpTestMemops memops;
  Message m;
  m.options(opt(52, Bytes{1}));
  m.put(108, concat({opt_text(60, "from-file"), Bytes{255}}));
  Parsed p(memops, m);
  EXPECT_EQ(p.matches(60, "from-file"), 1);
}

// ---- header matches ----

TEST(DhcpHeaderMatch, XidAsEightHexDigitsIgnoringCase) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(4, hex_bytes("de ad be ef")));
  EXPECT_EQ(rule_matches(p, "dhcpheader", "xid DEADBEEF"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpheader", "XID deadbeef"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpheader", "xid DEAD*"), 1);
  EXPECT_EQ(rule_matches(p, "dhcpheader", "xid DEADBEE"), 0);
  EXPECT_EQ(rule_matches(p, "dhcpheader", "xid EFBEADDE"), 0) << "message byte order, not host order";
}

TEST(DhcpHeaderMatch, BroadcastFlagReads8000) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(10, hex_bytes("80 00")));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_FLAGS, "8000"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_FLAGS, "8*"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_FLAGS, "0080"), 0);
}

TEST(DhcpHeaderMatch, SingleByteFieldsAreTwoHexDigits) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(0, hex_bytes("01 01 06 0a")));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_OP, "01"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_OP, "1"), 0);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_HTYPE, "01"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_HLEN, "06"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_HOPS, "0a"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_HOPS, "0A"), 1);
}

TEST(DhcpHeaderMatch, SecsIsFourHexDigits) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(8, hex_bytes("01 2c")));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_SECS, "012C"), 1);
}

TEST(DhcpHeaderMatch, AddressFieldsAreDotted) {
  DhcpTestMemops memops;
  Parsed p(memops, Message()
                       .put(12, hex_bytes("c0 a8 01 02"))
                       .put(16, hex_bytes("c0 a8 01 03"))
                       .put(20, hex_bytes("c0 a8 01 01"))
                       .put(24, hex_bytes("0a 00 00 01")));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CIADDR, "192.168.1.2"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_YIADDR, "192.168.1.3"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_SIADDR, "192.168.1.*"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_GIADDR, "10.0.0.1"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_GIADDR, "10.0.0.10"), 0);
}

TEST(DhcpHeaderMatch, ClientHardwareAddressIgnoresCase) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(28, hex_bytes("00 11 22 aa bb cc")));
  EXPECT_EQ(rule_matches(p, "dhcpheader", "chaddr 00:11:*"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, "00:11:22:aa:bb:cc"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, "00:11:22:AA:BB:CC"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, "00:11:22:aa:bb"), 0);
}

TEST(DhcpHeaderMatch, ClientHardwareAddressIgnoresBytesAfterTheSixth) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(28, hex_bytes("00 11 22 33 44 55 66 77")));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, "00:11:22:33:44:55"), 1);
}

TEST(DhcpHeaderMatch, EmptyPatternNeverMatchesAHardwareAddress) {
  DhcpTestMemops memops;
  Parsed p(memops, Message());
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, ""), 0);
}

TEST(DhcpHeaderMatch, ServerNameAndFileIgnoreCase) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put_text(44, "TftpServer").put_text(108, "pxelinux.0"));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_SNAME, "tftp*"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_FILE, "PXELINUX.0"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_FILE, "pxelinux"), 0);
}

TEST(DhcpHeaderMatch, EmptyServerNameMatchesTheEmptyPattern) {
  DhcpTestMemops memops;
  Parsed p(memops, Message());
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_SNAME, ""), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_SNAME, "?*"), 0);
}

TEST(DhcpHeaderMatch, FullFileFieldIsComparedWhole) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put_text(108, std::string(128, 'f')));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_FILE, std::string(128, 'F').c_str()), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_FILE, std::string(129, 'f').c_str()), 0);
}

TEST(DhcpHeaderMatch, FieldIndexAbove13NeverMatches) {
  DhcpTestMemops memops;
  Parsed p(memops, Message());
  EXPECT_EQ(p.header_matches(14, "*"), 0);
  EXPECT_EQ(p.header_matches(255, "*"), 0);
}

TEST(DhcpHeaderMatch, HeaderMatchDoesNotLookAtOptions) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(0, Bytes{2}).options(opt_text(12, "x")));
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_OP, "02"), 1);
  EXPECT_EQ(memops.attempts(), 1) << "only the option parse allocated";
}

// ---- the field matchers themselves ----

TEST(DhcpFieldMatcher, HexFieldOfSizeZeroMatches) {
  const std::uint8_t field[1] = {0xab};
  EXPECT_EQ(dp::dhcpmatch::match_hex(field, 0, "nothing"), 0);
}

TEST(DhcpFieldMatcher, StringFieldOfSizeZeroMatches) {
  const std::uint8_t field[1] = {'a'};
  EXPECT_EQ(dp::dhcpmatch::match_string(field, 0, "nothing"), 0);
}

TEST(DhcpFieldMatcher, HexFieldShowsAtMost511Bytes) {
  const std::vector<std::uint8_t> field(600, 0xab);
  std::string hex511;
  for (int i = 0; i < 511; ++i) hex511 += "AB";
  EXPECT_EQ(dp::dhcpmatch::match_hex(field.data(), 600, hex511.c_str()), 0);
  EXPECT_EQ(dp::dhcpmatch::match_hex(field.data(), 600, (hex511 + "AB").c_str()), -1);
}

TEST(DhcpFieldMatcher, HexComparesOnlyTheFieldsDigits) {
  // The matcher is given the field's size; bytes after it are not shown.
  const std::uint8_t bytes[4] = {0x12, 0x34, 0x56, 0x78};
  EXPECT_EQ(dp::dhcpmatch::match_hex(bytes, 2, "1234"), 0);
  EXPECT_EQ(dp::dhcpmatch::match_hex(bytes, 2, "123456"), -1);
}

TEST(DhcpFieldMatcher, StringFieldShowsAtMost1023Bytes) {
  const std::vector<std::uint8_t> field(2000, 'z');
  EXPECT_EQ(dp::dhcpmatch::match_string(field.data(), 2000, std::string(1023, 'z').c_str()), 0);
  EXPECT_EQ(dp::dhcpmatch::match_string(field.data(), 2000, std::string(1024, 'z').c_str()), -1);
}

TEST(DhcpFieldMatcher, HardwareAddressNeedsFieldPatternAndSixBytes) {
  const std::uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
  EXPECT_EQ(dp::dhcpmatch::match_hwaddr(mac, 6, "00:11:22:33:44:55"), 0);
  EXPECT_EQ(dp::dhcpmatch::match_hwaddr(nullptr, 6, "*"), -1);
  EXPECT_EQ(dp::dhcpmatch::match_hwaddr(mac, 6, nullptr), -1);
  EXPECT_EQ(dp::dhcpmatch::match_hwaddr(mac, 5, "*"), -1);
  EXPECT_EQ(dp::dhcpmatch::match_hwaddr(mac, 6, ""), -1);
}

TEST(DhcpFieldMatcher, TableFollowsTheMessageLayout) {
  struct Row {
    const char *name;
    std::uint32_t size, offset;
  };
  const Row expected[] = {{"op", 1, 0},       {"htype", 1, 1},    {"hlen", 1, 2},     {"hops", 1, 3},
                          {"xid", 4, 4},      {"secs", 2, 8},     {"flags", 2, 10},   {"ciaddr", 4, 12},
                          {"yiaddr", 4, 16},  {"siaddr", 4, 20},  {"giaddr", 4, 24},  {"chaddr", 16, 28},
                          {"sname", 64, 44},  {"file", 128, 108}};
  for (int i = 0; i < DHCP_HFIELD_COUNT; ++i) {
    EXPECT_STREQ(dp::dhcpmatch::kHeaderFields[i].name, expected[i].name);
    EXPECT_EQ(dp::dhcpmatch::kHeaderFields[i].size, expected[i].size) << expected[i].name;
    EXPECT_EQ(dp::dhcpmatch::kHeaderFields[i].offset, expected[i].offset) << expected[i].name;
  }
}

// ---- allocation failures ----

TEST(DhcpMatchAllocation, FailedScratchBufferMeansNoMatchForEveryValueKind) {
  DhcpTestMemops memops;
  Parsed p(memops, Message()
                       .put(4, hex_bytes("de ad be ef"))
                       .put_text(44, "srv")
                       .options(concat({opt_text(60, "MSFT"), opt(61, hex_bytes("01 00 11 22 33 44 55")),
                                        opt(50, hex_bytes("c0 a8 01 04"))})));
  struct Case {
    std::uint8_t code, sub;
    const char *pattern;
  };
  const Case cases[] = {{60, 0, "MSFT"},
                        {61, 0, "00:11:22:33:44:55"},
                        {50, 0, "192.168.1.4"},
                        {0, DHCP_HFIELD_XID, "DEADBEEF"},
                        {0, DHCP_HFIELD_SNAME, "srv"}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.pattern);
    ASSERT_EQ(p.matches(c.code, c.pattern, 0, c.sub), 1);
    NoLeakGuard guard;
    nuvcsock_fail_nth_allocation(1);
    EXPECT_EQ(p.matches(c.code, c.pattern, 0, c.sub), 0);
    nuvcsock_fail_nth_allocation(0);
  }
}

TEST(DhcpMatchAllocation, AddressAndHardwareFieldsNeedNoScratch) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().put(12, hex_bytes("0a 00 00 01")).put(28, hex_bytes("00 11 22 33 44 55")));
  NoLeakGuard guard;
  nuvcsock_fail_from_allocation(1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CIADDR, "10.0.0.1"), 1);
  EXPECT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, "00:11:22:33:44:55"), 1);
  nuvcsock_fail_nth_allocation(0);
}

TEST(DhcpMatchAllocation, FailedScratchReleasesTheVendorBlock) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(125, vendor_block(kBroadbandForum, opt_text(1, "foobar")))));
  const long live_before = memops.live();
  NoLeakGuard guard;
  nuvcsock_fail_nth_allocation(1);
  EXPECT_EQ(p.matches(125, "foo*", kBroadbandForum, 1), 0);
  nuvcsock_fail_nth_allocation(0);
  EXPECT_EQ(memops.live(), live_before);
}

TEST(DhcpMatchAllocation, EveryFailedVendorAllocationMeansNoMatchAndNoLeak) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(opt(125, vendor_block(kBroadbandForum, opt_text(1, "foobar")))));
  const long live_before = memops.live();
  const long attempts_before = memops.attempts();
  ASSERT_EQ(p.matches(125, "foo*", kBroadbandForum, 1), 1);
  const long needed = memops.attempts() - attempts_before;
  ASSERT_EQ(needed, 2);  // temporary store, sub-option value
  for (long n = 1; n <= needed; ++n) {
    SCOPED_TRACE(n);
    memops.fail_nth(n);
    EXPECT_EQ(p.matches(125, "foo*", kBroadbandForum, 1), 0);
    EXPECT_EQ(memops.live(), live_before);
  }
  memops.fail_nth(0);
}

TEST(DhcpMatchAllocation, MatchingLeavesNothingAllocated) {
  DhcpTestMemops memops;
  Parsed p(memops, Message().options(concat({opt_text(60, "MSFT"), opt(125, vendor_block(kBroadbandForum, opt_text(1, "x")))})));
  const long live_before = memops.live();
  NoLeakGuard guard;
  EXPECT_EQ(p.matches(60, "MSFT"), 1);
  EXPECT_EQ(p.matches(60, "nope"), 0);
  EXPECT_EQ(p.matches(125, "x", kBroadbandForum, 1), 1);
  EXPECT_EQ(p.matches(125, "y", kBroadbandForum, 1), 0);
  EXPECT_EQ(memops.live(), live_before);
}

// ---- against references written here, on random input (fixed seeds) ----

namespace {

std::string hex_upper(const std::uint8_t *p, std::size_t n) {
  std::ostringstream out;
  for (std::size_t i = 0; i < n; ++i) out << std::uppercase << std::hex << std::setw(2) << std::setfill('0') << int(p[i]);
  return out.str();
}

// The pattern with some characters replaced by '?', maybe cut short by '*',
// and letters in random case.
std::string blur(const std::string &text, std::mt19937 &rng, bool change_case) {
  std::uniform_int_distribution<int> chance(0, 9);
  std::string out;
  for (char c : text) {
    if (chance(rng) == 0) {
      out += '?';
    } else if (change_case && chance(rng) < 5) {
      out += static_cast<char>(std::islower(static_cast<unsigned char>(c)) ? std::toupper(c) : std::tolower(c));
    } else {
      out += c;
    }
  }
  if (chance(rng) == 0 && !out.empty()) out = out.substr(0, out.size() / 2) + "*";
  return out;
}

// A different text of the same shape: one hex digit or decimal digit changed.
std::string spoil(std::string text, std::mt19937 &rng) {
  std::vector<std::size_t> digits;
  for (std::size_t i = 0; i < text.size(); ++i)
    if (std::isxdigit(static_cast<unsigned char>(text[i]))) digits.push_back(i);
  const std::size_t at = digits[std::uniform_int_distribution<std::size_t>(0, digits.size() - 1)(rng)];
  text[at] = text[at] == '1' ? '2' : '1';
  return text;
}

}  // namespace

TEST(DhcpHeaderMatch, HexFieldsAgreeWithAPlainHexWriter) {
  std::mt19937 rng(1121);
  std::uniform_int_distribution<int> byte(0, 255);
  const std::uint8_t hex_fields[] = {DHCP_HFIELD_OP,   DHCP_HFIELD_HTYPE, DHCP_HFIELD_HLEN, DHCP_HFIELD_HOPS,
                                     DHCP_HFIELD_XID,  DHCP_HFIELD_SECS,  DHCP_HFIELD_FLAGS};
  const std::size_t offsets[] = {0, 1, 2, 3, 4, 8, 10};
  const std::size_t sizes[] = {1, 1, 1, 1, 4, 2, 2};
  for (int round = 0; round < 300; ++round) {
    Message m;
    for (std::size_t i = 0; i < 12; ++i) m.bytes[i] = static_cast<std::uint8_t>(byte(rng));
    DhcpTestMemops memops;
    Parsed p(memops, m);
    for (std::size_t f = 0; f < 7; ++f) {
      const std::string text = hex_upper(&m.bytes[offsets[f]], sizes[f]);
      const std::string pattern = blur(text, rng, true);
      ASSERT_EQ(p.header_matches(hex_fields[f], pattern.c_str()), 1) << text << " vs " << pattern;
      const std::string other = spoil(text, rng);
      ASSERT_EQ(p.header_matches(hex_fields[f], other.c_str()), 0) << text << " vs " << other;
    }
  }
}

TEST(DhcpHeaderMatch, AddressFieldsAgreeWithInetNtop) {
  std::mt19937 rng(4);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int round = 0; round < 300; ++round) {
    Message m;
    for (std::size_t i = 12; i < 28; ++i) m.bytes[i] = static_cast<std::uint8_t>(byte(rng));
    DhcpTestMemops memops;
    Parsed p(memops, m);
    for (std::uint8_t f = DHCP_HFIELD_CIADDR; f <= DHCP_HFIELD_GIADDR; ++f) {
      char text[INET_ADDRSTRLEN];
      ASSERT_NE(inet_ntop(AF_INET, &m.bytes[12 + 4u * (f - DHCP_HFIELD_CIADDR)], text, sizeof text), nullptr);
      ASSERT_EQ(p.header_matches(f, text), 1) << text;
      ASSERT_EQ(p.header_matches(f, spoil(text, rng).c_str()), 0) << text;
    }
  }
}

TEST(DhcpHeaderMatch, HardwareAddressAgreesWithAPlainFormatter) {
  std::mt19937 rng(6);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int round = 0; round < 300; ++round) {
    Message m;
    for (std::size_t i = 28; i < 44; ++i) m.bytes[i] = static_cast<std::uint8_t>(byte(rng));
    std::string text;
    for (std::size_t i = 28; i < 34; ++i) text += (i > 28 ? ":" : "") + hex_upper(&m.bytes[i], 1);
    DhcpTestMemops memops;
    Parsed p(memops, m);
    const std::string pattern = blur(text, rng, true);
    ASSERT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, pattern.c_str()), 1) << text << " vs " << pattern;
    ASSERT_EQ(p.header_matches(DHCP_HFIELD_CHADDR, spoil(text, rng).c_str()), 0) << text;
  }
}

TEST(ParseDhcpOptionMatch, AgreesWithAPlainReaderOnRandomTexts) {
  std::mt19937 rng(125);
  std::uniform_int_distribution<int> code(1, 255), spaces(0, 3), base(0, 2), len(1, 6), ch('!', '~'), sub(0, 255);
  std::uniform_int_distribution<std::uint32_t> ent;
  auto number = [&](std::uint32_t v, int b) {
    std::ostringstream out;
    if (b == 1) out << "0x" << std::hex << v;
    else if (b == 2) out << "0" << std::oct << v;
    else out << v;
    return out.str();
  };
  for (int round = 0; round < 2000; ++round) {
    const auto c = static_cast<std::uint8_t>(code(rng));
    const bool vendor = (c == 124 || c == 125) || round % 7 == 0;
    const std::uint8_t vc = vendor ? static_cast<std::uint8_t>(124 + round % 2) : c;
    const std::uint32_t e = vendor ? ent(rng) : 0;
    const auto s = vendor ? static_cast<std::uint8_t>(sub(rng)) : std::uint8_t{0};
    std::string pattern;
    for (int i = len(rng); i > 0; --i) pattern += static_cast<char>(ch(rng));
    if (pattern.size() && (pattern[0] == '/' || std::isalnum(static_cast<unsigned char>(pattern[0])))) pattern[0] = '*';
    std::string text = std::string(spaces(rng), ' ') + number(vc, base(rng));
    if (vendor) text += "/" + number(e, base(rng)) + "/" + number(s, base(rng));
    text += std::string(1 + spaces(rng), ' ') + pattern + " table";
    OptionParse r = parse_option(text);
    ASSERT_EQ(r.rc, static_cast<int>(pattern.size())) << text;
    EXPECT_EQ(r.match.code, vc) << text;
    EXPECT_EQ(r.match.enterprise, e) << text;
    EXPECT_EQ(r.match.sub, s) << text;
    EXPECT_EQ(r.pattern, pattern) << text;
    EXPECT_EQ(r.rest, " table") << text;
  }
}

// ---- the text writers, against the C library's printf ----

TEST(DhcpFieldText, DottedTextEqualsPrintfForEveryByte) {
  for (int b = 0; b < 256; ++b) {
    const std::uint8_t bytes[4] = {static_cast<std::uint8_t>(b), static_cast<std::uint8_t>(255 - b), 0,
                                   static_cast<std::uint8_t>(b / 2)};
    char expected[32], got[32];
    std::snprintf(expected, sizeof expected, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
    dp::dhcpmatch::write_dotted_text(got, bytes);
    ASSERT_STREQ(got, expected);
  }
}

TEST(DhcpFieldText, HardwareAddressTextEqualsPrintfForEveryByte) {
  for (int b = 0; b < 256; ++b) {
    const std::uint8_t bytes[6] = {static_cast<std::uint8_t>(b), static_cast<std::uint8_t>(255 - b), 0, 0xff,
                                   static_cast<std::uint8_t>(b * 7), static_cast<std::uint8_t>(b / 3)};
    char expected[32], got[32];
    std::snprintf(expected, sizeof expected, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    dp::dhcpmatch::write_hwaddr_text(got, bytes);
    ASSERT_STREQ(got, expected);
  }
}

namespace {

// The text an option value is compared as, written plainly: "XX:XX:.." for an
// Ethernet client identifier, dotted decimal for single-address options,
// else the bytes up to the first NUL (at most 1023); nothing when the value
// cannot be written in its form.
std::optional<std::string> reference_option_text(std::uint8_t code, const Bytes &v) {
  char buf[64];
  if (code == 61) {
    if (v.size() < 7 || v[0] != 1) return std::nullopt;
    std::snprintf(buf, sizeof buf, "%02X:%02X:%02X:%02X:%02X:%02X", v[1], v[2], v[3], v[4], v[5], v[6]);
    return std::string(buf);
  }
  if (code == 1 || code == 16 || code == 28 || code == 32 || code == 50 || code == 54) {
    if (v.size() < 4) return std::nullopt;
    std::snprintf(buf, sizeof buf, "%d.%d.%d.%d", v[0], v[1], v[2], v[3]);
    return std::string(buf);
  }
  if (v.empty()) return std::nullopt;
  std::string s(v.begin(), v.end());
  return s.substr(0, s.find('\0')).substr(0, 1023);
}

std::string escaped(const std::string &text) {
  std::string out;
  for (char c : text) {
    if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

TEST(DhcpOptionMatch, AgreesWithAPlainTextWriterOnRandomValues) {
  std::mt19937 rng(61);
  const std::uint8_t codes[] = {1, 3, 12, 16, 28, 32, 43, 50, 54, 55, 60, 61, 77, 82, 254};
  std::uniform_int_distribution<int> pick(0, sizeof codes - 1), len(0, 12), byte(0, 255), low(0, 3);
  for (int round = 0; round < 3000; ++round) {
    const std::uint8_t code = codes[pick(rng)];
    Bytes value;
    for (int i = len(rng); i > 0; --i) value.push_back(static_cast<std::uint8_t>(low(rng) == 0 ? low(rng) : byte(rng)));
    DhcpTestMemops memops;
    Parsed p(memops, Message().options(opt(code, value)));
    const auto text = reference_option_text(code, value);
    const std::string hex = testsupport::to_hex(value.data(), value.size());
    if (!text) {
      ASSERT_EQ(p.matches(code, "*"), 0) << int(code) << ": " << hex;
      continue;
    }
    ASSERT_EQ(p.matches(code, escaped(*text).c_str()), 1) << int(code) << ": " << hex;
    ASSERT_EQ(p.matches(code, (escaped(*text) + "?").c_str()), 0) << int(code) << ": " << hex;
  }
}
