// Masquerade forward rules at scale: a router's rule file read and printed
// back, random records printed by a reference written here and read back,
// and hostile texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
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

class ExactText {
 public:
  explicit ExactText(const std::string &text) : size_(text.size() + 1), data_(new char[size_]) {
    std::memcpy(data_.get(), text.c_str(), size_);
  }
  const char *c_str() const { return data_.get(); }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> data_;
};

// Lower-case protocol names as rule lines print them, from the IANA registry
// keywords: only the numbers whose printed name reads back as the same number
// (a keyword without blanks, not one of the irregular rows).
std::map<int, std::string> readable_protocol_names() {
  std::map<int, std::string> names;
  for (auto [number, keyword] : testsupport::iana_protocol_keywords()) {
    if (number > 139 || keyword.empty() || keyword.find(' ') != std::string::npos) continue;
    if (number == 4) continue;  // prints as "ip", which reads as any protocol
    std::transform(keyword.begin(), keyword.end(), keyword.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    names[number] = keyword;
  }
  names[58] = "icmpv6";
  names[255] = "ip";
  return names;
}

const std::map<int, std::string> &protocol_names() {
  static const std::map<int, std::string> names = readable_protocol_names();
  return names;
}

std::string dotted(std::uint32_t net_addr) {
  unsigned char b[4];
  std::memcpy(b, &net_addr, 4);
  return std::to_string(b[0]) + "." + std::to_string(b[1]) + "." + std::to_string(b[2]) + "." + std::to_string(b[3]);
}

std::uint16_t host_port(std::uint16_t net_port) {
  unsigned char b[2];
  std::memcpy(b, &net_port, 2);
  return static_cast<std::uint16_t>(b[0] << 8 | b[1]);
}

std::uint16_t net_port(std::uint16_t port) {
  unsigned char b[2] = {static_cast<unsigned char>(port >> 8), static_cast<unsigned char>(port)};
  std::uint16_t v;
  std::memcpy(&v, b, 2);
  return v;
}

// The text a masquerade rule is expected to print as, built independently.
std::string reference_text(const ipmasqfwrule &r) {
  std::ostringstream out;
  out << protocol_names().at(r.proto) << ' ' << dotted(r.addr1);
  if (r.port1) {
    out << ':' << host_port(r.port1);
    if (r.count > 1) out << '+' << r.count;
  }
  out << ' ' << dotted(r.addr2);
  if (r.port2) out << ':' << host_port(r.port2);
  out << ' ' << r.number;
  if (r.flags & 1u) out << " out";
  return out.str();
}

std::string reference_text(const ipmasqfwruleex &r) {
  std::string text = (r.enabled ? "" : "# ") + reference_text(r.rule);
  if (r.scope == 1) text += " local";
  if (r.scope == 2) text += " internet";
  if (r.mark) text += " mark " + std::to_string(r.mark);
  if (r.comment && *r.comment) text += std::string(" # ") + r.comment;
  return text;
}

class RandomRules {
 public:
  explicit RandomRules(std::uint32_t seed) : rng_(seed) {
    for (const auto &entry : protocol_names()) protocols_.push_back(entry.first);
  }

  ipmasqfwrule plain() {
    ipmasqfwrule r{};
    r.proto = static_cast<std::uint8_t>(protocols_[pick(protocols_.size())]);
    r.addr1 = word32();
    r.addr2 = word32();
    r.port1 = maybe_port();
    r.port2 = maybe_port();
    // Counts of 0 and 1 print the same; a count shows only with a port.
    if (r.port1 && coin()) r.count = static_cast<std::uint16_t>(2 + pick(65534));
    r.number = static_cast<std::int32_t>(word32());
    r.flags = coin() ? 1u : 0u;
    return r;
  }

  // Fills `r`; its comment points into `comment`, which the caller keeps.
  void extended(ipmasqfwruleex *r, std::string *comment) {
    r->rule = plain();
    r->enabled = coin() ? 1 : 0;
    r->scope = static_cast<std::int32_t>(pick(3));
    r->mark = coin() ? 0ul : static_cast<unsigned long>(word32());
    *comment = coin() ? std::string() : comment_text();
    r->comment = comment->c_str();
  }

 private:
  std::size_t pick(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_); }
  bool coin() { return pick(2) == 0; }
  std::uint32_t word32() { return static_cast<std::uint32_t>(rng_()); }
  std::uint16_t maybe_port() { return coin() ? 0 : net_port(static_cast<std::uint16_t>(pick(65536))); }
  std::string comment_text() {
    static const char kChars[] = "abcXYZ019 #\t.,:+-_";
    std::string s(1 + pick(40), 'a');
    for (char &c : s) c = kChars[pick(sizeof kChars - 1)];
    // The parser skips blanks after "#", so a comment cannot begin with one.
    if (s[0] == ' ') s[0] = '_';
    return s;
  }

  std::mt19937 rng_;
  std::vector<int> protocols_;
};

void expect_same_rule(const ipmasqfwrule &a, const ipmasqfwrule &b, const std::string &text) {
  EXPECT_EQ(a.proto, b.proto) << text;
  EXPECT_EQ(a.addr1, b.addr1) << text;
  EXPECT_EQ(a.addr2, b.addr2) << text;
  EXPECT_EQ(a.port1, b.port1) << text;
  EXPECT_EQ(a.port2, b.port2) << text;
  EXPECT_EQ(a.number, b.number) << text;
  EXPECT_EQ(a.flags, b.flags) << text;
  EXPECT_EQ(a.count, b.count) << text;
}

struct FileCase {
  int line_number;
  std::string input;
  bool expect_failure;
  std::string expected_text;
  int expected_code;
};

std::vector<FileCase> read_rule_file(const std::string &path) {
  std::ifstream in(path);
  EXPECT_TRUE(in.good()) << path;
  std::vector<FileCase> cases;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.rfind("< ", 0) == 0) {
      cases.push_back({number, line.substr(2), false, "", 0});
    } else if (line.rfind("> ", 0) == 0 && !cases.empty()) {
      cases.back().expected_text = line.substr(2);
    } else if (line.rfind("! ", 0) == 0 && !cases.empty()) {
      cases.back().expect_failure = true;
      cases.back().expected_code = std::stoi(line.substr(2));
    }
  }
  return cases;
}

}  // namespace

TEST(MasqRuleFile, RouterRulesPrintBackAsWrittenByHand) {
  NoLeakGuard guard;
  std::vector<FileCase> cases = read_rule_file(testsupport::source_path("tests/data/masq-rules.txt"));
  ASSERT_GE(cases.size(), 30u);
  for (const FileCase &c : cases) {
    ExactText text(c.input);
    ipmasqfwruleex r;
    int rc = ipmasqfwruleex_parse(&r, text.c_str());
    if (c.expect_failure) {
      EXPECT_EQ(rc, c.expected_code) << "line " << c.line_number << ": " << c.input;
      continue;
    }
    ASSERT_EQ(rc, 0) << "line " << c.line_number << ": " << c.input;
    EXPECT_EQ(std::string(ipmasqfwruleex_string(&r)), c.expected_text) << "line " << c.line_number;
  }
}

TEST(MasqRuleFile, PrintedRulesReadBackToTheSameText) {
  std::vector<FileCase> cases = read_rule_file(testsupport::source_path("tests/data/masq-rules.txt"));
  for (const FileCase &c : cases) {
    if (c.expect_failure || c.input.find("p200") != std::string::npos || c.input.find("P200") != std::string::npos)
      continue;
    ExactText printed(c.expected_text);
    ipmasqfwruleex r;
    ASSERT_EQ(ipmasqfwruleex_parse(&r, printed.c_str()), IPMASQFWRULE_E_OK) << c.expected_text;
    EXPECT_EQ(std::string(ipmasqfwruleex_string(&r)), c.expected_text);
  }
}

TEST(MasqRuleProperty, PlainRulesPrintAsTheReferenceAndReadBack) {
  RandomRules random(1);
  for (int i = 0; i < 5000; ++i) {
    ipmasqfwrule r = random.plain();
    std::string text = ipmasqfwrule_string(&r);
    ASSERT_EQ(text, reference_text(r));
    ExactText exact(text);
    ipmasqfwrule back;
    std::memset(&back, 0x5A, sizeof back);
    ASSERT_EQ(ipmasqfwrule_parse(&back, exact.c_str()), IPMASQFWRULE_E_OK) << text;
    expect_same_rule(back, r, text);
    if (HasFailure()) break;
  }
}

TEST(MasqRuleProperty, ExtendedRulesPrintAsTheReferenceAndReadBack) {
  RandomRules random(2);
  for (int i = 0; i < 5000; ++i) {
    ipmasqfwruleex r{};
    std::string comment;
    random.extended(&r, &comment);
    std::string text = ipmasqfwruleex_string(&r);
    ASSERT_EQ(text, reference_text(r));
    ExactText exact(text);
    ipmasqfwruleex back;
    std::memset(&back, 0x5A, sizeof back);
    ASSERT_EQ(ipmasqfwruleex_parse(&back, exact.c_str()), IPMASQFWRULE_E_OK) << text;
    expect_same_rule(back.rule, r.rule, text);
    EXPECT_EQ(back.enabled, r.enabled) << text;
    EXPECT_EQ(back.scope, r.scope) << text;
    EXPECT_EQ(back.mark, r.mark) << text;
    EXPECT_EQ(std::string(back.comment), comment) << text;
    if (HasFailure()) break;
  }
}

TEST(MasqRuleProperty, HostileTextsGiveADocumentedCodeAndLeakNothing) {
  NoLeakGuard guard;
  std::mt19937 rng(3);
  const std::vector<std::string> words = {"#",     "tcp",  "udp", "ip",       "P999", "1.2.3.4", ":80",
                                          "10.",   "1.2.3.4:65535+7", "5.6.7.8:", "0", "-5", "out",
                                          "local", "internet", "mark", "7",  "x#y",  "\t", "  ", ":",
                                          "+",     "..",   "256.0.0.1", ""};
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    std::size_t n = rng() % 12;
    for (std::size_t k = 0; k < n; ++k) {
      if (rng() % 5 == 0) {
        text += static_cast<char>(1 + rng() % 255);
      } else {
        text += words[rng() % words.size()];
        text += ' ';
      }
    }
    ExactText exact(text);
    ipmasqfwrule r;
    int rc = ipmasqfwrule_parse(&r, exact.c_str());
    ASSERT_TRUE(rc >= -5 && rc <= 1) << rc;
    ipmasqfwruleex ex;
    rc = ipmasqfwruleex_parse(&ex, exact.c_str());
    ASSERT_TRUE(rc >= -5 && rc <= 0) << rc;
    if (rc == 0) {
      ASSERT_NE(ex.comment, nullptr);
      if (*ex.comment) {
        EXPECT_GE(ex.comment, exact.c_str());
        EXPECT_LE(ex.comment, exact.c_str() + text.size());
      }
      std::string printed = ipmasqfwruleex_string(&ex);
      EXPECT_LT(printed.size(), 1024u);
    }
  }
}

TEST(MasqRuleProperty, FailingScratchMemoryAtAnyPointLeaksNothing) {
  NoLeakGuard guard;
  for (long n = 1; n <= 3; ++n) {
    nuvcsock_fail_nth_allocation(n);
    ipmasqfwrule r;
    ipmasqfwruleex ex;
    int plain = ipmasqfwrule_parse(&r, "tcp 1.2.3.4:80 5.6.7.8:80 0");
    int extended = ipmasqfwruleex_parse(&ex, "tcp 1.2.3.4:80 5.6.7.8:80 0");
    EXPECT_EQ(plain, n == 1 ? -1 : 0);
    EXPECT_EQ(extended, n == 2 ? -1 : 0);
    nuvcsock_fail_nth_allocation(0);
  }
}
