// Access rules: parse, print and normalise together, on a router's rule file
// and on thousands of random records.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "nuvcsock_test.h"
#include "nuvrules.h"
#include "test_rules_access_support.h"
#include "testsupport.h"

using access_test::expect_record;
using access_test::from_record;
using access_test::parse;
using access_test::Rule;
using access_test::to_record;

namespace {

std::vector<std::string> lines_of(const std::string &path, bool rules_only) {
  std::istringstream in(testsupport::read_text_file(path));
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) {
    if (rules_only && (line.empty() || line[0] == '#')) continue;
    lines.push_back(line);
  }
  return lines;
}

// ---- random records whose text the parser reads back ----

// Whether the parser reads a protocol's printed name back.  It does not for
// registry keywords with a blank ("mobility header" is two words), nor for
// the numeric names, printed "p140".."p254" while the parser wants a capital
// "P".
bool name_reads_back(int proto) {
  static const std::map<int, std::string> keywords = testsupport::iana_protocol_keywords();
  if (proto == 255) return true;
  if (proto >= 140) return false;
  return keywords.at(proto).find(' ') == std::string::npos;
}

// The number the parser gives for a protocol's printed name: "ip" (row 4)
// is any protocol, and every registry row without a keyword prints "any",
// which names the first of them.
std::uint8_t proto_read_back(std::uint8_t proto) {
  if (proto == 4) return 255;
  if (proto == 63 || proto == 68 || proto == 99 || proto == 114) return 61;
  return proto;
}

struct RandomRules {
  std::mt19937 rng;

  explicit RandomRules(std::uint32_t seed) : rng(seed) {}

  std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(rng() % n); }
  std::uint16_t port() { return static_cast<std::uint16_t>(1 + below(65535)); }

  std::uint8_t proto() {
    const std::uint8_t common[] = {1, 6, 17, 255};
    if (below(2) == 0) return common[below(4)];
    for (;;) {
      auto p = static_cast<std::uint8_t>(below(256));
      if (name_reads_back(p)) return p;
    }
  }

  std::uint32_t mask() {
    switch (below(4)) {
      case 0: return 0;
      case 1: return 0xFFFFFFFF;
      case 2: return below(33) == 0 ? 0xFFFFFFFF : ~(0xFFFFFFFFu >> below(32));
      default: return static_cast<std::uint32_t>(rng());
    }
  }

  // Operator 0..7 with ports 1..65535; the upper bound is random garbage
  // unless the operator is "range".
  void ports(std::int32_t &op, std::uint16_t &low, std::uint16_t &high) {
    op = static_cast<std::int32_t>(below(8));
    low = op == 0 ? static_cast<std::uint16_t>(rng()) : port();
    high = op == 7 ? port() : static_cast<std::uint16_t>(rng());
  }

  Rule next() {
    Rule r;
    r.policy = static_cast<std::int32_t>(below(4));
    r.proto = proto();
    r.src_addr = static_cast<std::uint32_t>(rng());
    r.src_mask = mask();
    ports(r.src_op, r.src_port, r.src_port2);
    r.dst_addr = static_cast<std::uint32_t>(rng());
    r.dst_mask = mask();
    ports(r.dst_op, r.dst_port, r.dst_port2);
    r.tcpflag = static_cast<std::int32_t>(below(3));
    r.connflag = static_cast<std::int32_t>(below(6));
    r.logging = static_cast<std::int32_t>(below(4));
    r.used = static_cast<std::uint32_t>(rng());
    return r;
  }
};

std::size_t address_words(std::uint32_t mask) { return mask == 0 ? 1 : 2; }
std::size_t port_words(std::int32_t op) { return op == 0 ? 0 : op == 7 ? 3 : 2; }

// Words of the line ipaccess_string prints for `r`.
std::size_t printed_words(const Rule &r) {
  return 2 + address_words(r.src_mask) + port_words(r.src_op) + address_words(r.dst_mask) + port_words(r.dst_op) +
         (r.tcpflag ? 1 : 0) + (r.connflag ? 2 : 0) + (r.logging ? 2 : 0);
}

// What parsing the printed line of `r` must give: the fields the line
// carries, and nothing of the rest.
Rule read_back(const Rule &r) {
  Rule e;
  e.policy = r.policy;
  e.proto = proto_read_back(r.proto);
  if (r.src_mask != 0) {
    e.src_addr = r.src_addr;
    e.src_mask = r.src_mask;
  }
  if (r.src_op != 0) {
    e.src_op = r.src_op;
    e.src_port = r.src_port;
    e.src_port2 = r.src_op == 7 ? r.src_port2 : 0;
  }
  if (r.dst_mask != 0) {
    e.dst_addr = r.dst_addr;
    e.dst_mask = r.dst_mask;
  }
  if (r.dst_op != 0) {
    e.dst_op = r.dst_op;
    e.dst_port = r.dst_port;
    e.dst_port2 = r.dst_op == 7 ? r.dst_port2 : 0;
  }
  e.tcpflag = r.tcpflag;
  e.connflag = r.connflag;
  // Only sixteen words are read: on a line of seventeen the level after
  // "log" is lost and the rule logs "short".
  e.logging = printed_words(r) > 16 ? 1 : r.logging;
  return e;
}

std::string canonical_text(const ipaccess_rule &rec) {
  ipaccess_rule copy = rec;
  ipaccess_optim_rulestruct(&copy);
  return ipaccess_string_use_flags(&copy);
}

}  // namespace

// ---- a router's rule file ----

TEST(AccessRuleFile, EveryRuleParses) {
  for (const std::string &line : lines_of(testsupport::source_path("tests/data/access-rules.txt"), true))
    EXPECT_EQ(parse(line).rc, IPACCESS_E_OK) << line;
}

TEST(AccessRuleFile, RulesPrintBackAsWritten) {
  auto rules = lines_of(testsupport::source_path("tests/data/access-rules.txt"), true);
  auto expected = lines_of(testsupport::source_path("tests/data/access-rules.printed.txt"), false);
  ASSERT_EQ(rules.size(), expected.size());
  for (std::size_t i = 0; i < rules.size(); ++i) {
    auto p = parse(rules[i]);
    EXPECT_EQ(ipaccess_string(&p.rule), expected[i]) << rules[i];
  }
}

TEST(AccessRuleFile, NormalisedRulesPrintInCanonicalForm) {
  auto rules = lines_of(testsupport::source_path("tests/data/access-rules.txt"), true);
  auto expected = lines_of(testsupport::source_path("tests/data/access-rules.canonical.txt"), false);
  ASSERT_EQ(rules.size(), expected.size());
  for (std::size_t i = 0; i < rules.size(); ++i) {
    auto p = parse(rules[i]);
    EXPECT_EQ(canonical_text(p.rule), expected[i]) << rules[i];
  }
}

TEST(AccessRuleFile, CanonicalFormIsStable) {
  for (const std::string &line : lines_of(testsupport::source_path("tests/data/access-rules.canonical.txt"), false)) {
    auto p = parse(line);
    ASSERT_EQ(p.rc, IPACCESS_E_OK) << line;
    EXPECT_EQ(canonical_text(p.rule), line);
  }
}

// ---- properties over random records ----

TEST(AccessRoundTrip, ParsingThePrintedTextGivesBackWhatItCarries) {
  RandomRules gen(1234567);
  int seventeen_word_lines = 0;
  for (int i = 0; i < 20000; ++i) {
    Rule r = gen.next();
    ipaccess_rule rec = to_record(r);
    std::string text = ipaccess_string(&rec);
    auto p = parse(text);
    ASSERT_EQ(p.rc, IPACCESS_E_OK) << text;
    SCOPED_TRACE(text);
    expect_record(p.rule, read_back(r));
    if (printed_words(r) > 16) ++seventeen_word_lines;
    if (HasFailure()) break;
  }
  // The generator does reach the sixteen-word window.
  EXPECT_GT(seventeen_word_lines, 10);
}

TEST(AccessRoundTrip, NormalisedTextIsAFixpoint) {
  RandomRules gen(7654321);
  for (int i = 0; i < 20000; ++i) {
    Rule r = gen.next();
    ipaccess_rule rec = to_record(r);
    ipaccess_optim_rulestruct(&rec);
    std::string first = ipaccess_string_use_flags(&rec);
    SCOPED_TRACE(first);

    auto once = parse(first);
    ASSERT_EQ(once.rc, IPACCESS_E_OK);
    ipaccess_optim_rulestruct(&once.rule);
    std::string second = ipaccess_string_use_flags(&once.rule);

    auto twice = parse(second);
    ASSERT_EQ(twice.rc, IPACCESS_E_OK);
    ipaccess_optim_rulestruct(&twice.rule);
    EXPECT_EQ(ipaccess_string_use_flags(&twice.rule), second);
    expect_record(twice.rule, from_record(once.rule));

    // The first text survives as it is, except on a seventeen-word line,
    // whose logging level is read as "short".
    std::string expected = first;
    if (r.logging != 0 && printed_words(from_record(rec)) > 16) {
      expected = first.substr(0, first.rfind(' ')) + " short";
    }
    EXPECT_EQ(second, expected);
    if (HasFailure()) break;
  }
}

// ---- hostile input ----

// Random cuts and byte changes of good rule lines: any result code of the
// parser, no crash, no read past the text, no leak.
TEST(AccessHostileInput, DamagedLinesGiveAResultCodeAndNothingElse) {
  auto rules = lines_of(testsupport::source_path("tests/data/access-rules.txt"), true);
  std::mt19937 rng(31337);
  for (int i = 0; i < 20000; ++i) {
    std::string line = rules[rng() % rules.size()];
    switch (rng() % 3) {
      case 0: line.resize(rng() % (line.size() + 1)); break;
      case 1: line[rng() % line.size()] = static_cast<char>(1 + rng() % 255); break;
      default: line.insert(rng() % line.size(), std::string(1 + rng() % 4, static_cast<char>(rng())));
    }
    std::string text(line.c_str());  // up to an inserted NUL
    auto p = parse(text);
    EXPECT_LE(p.rc, IPACCESS_E_OK) << text;
    EXPECT_GE(p.rc, IPACCESS_E_UNKNOWN_TRAILING_WORD) << text;
  }
}

TEST(AccessHostileInput, EveryPrefixOfAFullRuleIsMissingAWordOrComplete) {
  const std::string full =
      "deny tcp 10.0.0.0 255.0.0.0 range 1 2 host 1.2.3.4 range 3 4 established connection incoming log long";
  // Cuts at word ends: the rule is complete once the destination is read.
  const std::pair<std::size_t, int> cuts[] = {
      {0, -2}, {4, -2}, {8, -2}, {17, -2}, {27, -2}, {33, -2}, {35, -2}, {37, -2}, {42, -2},
      {50, 0}, {56, -2}, {58, -2}, {60, 0}, {72, 0}, {83, -15}, {92, 0}, {96, 0}, {101, 0}};
  for (auto [length, rc] : cuts) {
    std::string prefix = full.substr(0, length);
    EXPECT_EQ(parse(prefix).rc, rc) << "'" << prefix << "'";
  }
}

TEST(AccessHostileInput, AllocationFailureAtEveryParseOfTheRuleFile) {
  for (const std::string &line : lines_of(testsupport::source_path("tests/data/access-rules.txt"), true)) {
    testsupport::NoLeakGuard guard;
    ipaccess_rule rule;
    std::memset(&rule, 0xEE, sizeof rule);
    nuvcsock_fail_nth_allocation(1);
    EXPECT_EQ(ipaccess_parse(&rule, line.c_str()), IPACCESS_E_TOO_LONG) << line;
    expect_record(rule, Rule{});
  }
}

// ---- protocol names that do not survive the round trip ----

TEST(AccessRoundTripProtocols, NumericNameIsPrintedInLowerCaseAndRefused) {
  ipaccess_rule rec = to_record(Rule{.policy = 1, .proto = 200});
  std::string text = ipaccess_string(&rec);
  EXPECT_EQ(text, "permit p200 any any");
  EXPECT_EQ(parse(text).rc, IPACCESS_E_UNKNOWN_PROTOCOL);
}

TEST(AccessRoundTripProtocols, NameWithABlankSplitsIntoTwoWords) {
  ipaccess_rule rec = to_record(Rule{.policy = 1, .proto = 135});
  std::string text = ipaccess_string(&rec);
  EXPECT_EQ(text, "permit mobility header any any");
  EXPECT_EQ(parse(text).rc, IPACCESS_E_UNKNOWN_PROTOCOL);  // "mobility" alone names no protocol
}

TEST(AccessRoundTripProtocols, EncapsulatedIpv4ReadsBackAsAnyProtocol) {
  ipaccess_rule rec = to_record(Rule{.policy = 2, .proto = 4});
  std::string text = ipaccess_string(&rec);
  EXPECT_EQ(text, "deny ip any any");
  auto p = parse(text);
  EXPECT_EQ(p.rc, IPACCESS_E_OK);
  EXPECT_EQ(p.rule.proto, 255);
}

TEST(AccessRoundTripProtocols, RowsWithoutKeywordReadBackAsTheFirstOfThem) {
  for (std::uint8_t proto : {61, 63, 68, 99, 114}) {
    ipaccess_rule rec = to_record(Rule{.policy = 2, .proto = proto});
    auto p = parse(ipaccess_string(&rec));
    EXPECT_EQ(p.rc, IPACCESS_E_OK);
    EXPECT_EQ(p.rule.proto, 61) << int{proto};
  }
}
