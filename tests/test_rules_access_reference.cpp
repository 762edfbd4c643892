// Access rules: the parser against a plain reference reading of the rule
// grammar, over many random lines built from a small vocabulary whose
// meanings (as address, as port, as protocol) are written out here by hand
// or taken from the IANA registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "nuvrules.h"
#include "test_rules_access_support.h"

using access_test::expect_record;
using access_test::parse;
using access_test::Rule;

namespace {

// ---- vocabulary ----

// A numeric word and what it means as an address (host order) and as a port.
struct NumericWord {
  const char *text;
  std::optional<std::uint32_t> address;
  std::optional<std::uint16_t> port;
};

const std::vector<NumericWord> &numeric_words() {
  static const std::vector<NumericWord> words = {
      {"1.2.3.4", 0x01020304, 1},
      {"10.", 0x0A000000, 10},
      {"10.1.", 0x0A010000, 10},
      {"10.1", std::nullopt, 10},
      {"192.168.1.1", 0xC0A80101, 192},
      {"255.255.255.0", 0xFFFFFF00, 255},
      {"255.255.255.255", 0xFFFFFFFF, 255},
      {"255.0.0.0", 0xFF000000, 255},
      {"0.0.0.0", 0, std::nullopt},
      {"256.1.1.1", std::nullopt, 256},
      {"1.2.3.256", std::nullopt, 1},
      {"1.2.3.4x", 0x01020304, 1},
      {"1.2.3.4.5", 0x01020304, 1},
      {"-1.2.3.4", std::nullopt, std::nullopt},
      {"+8.8.8.8", 0x08080808, 8},
      {"1..2.3", std::nullopt, 1},
      {"a.b.c.d", std::nullopt, std::nullopt},
      {"80", std::nullopt, 80},
      {"1", std::nullopt, 1},
      {"443", std::nullopt, 443},
      {"65535", std::nullopt, 65535},
      {"0", std::nullopt, std::nullopt},
      {"65536", std::nullopt, std::nullopt},
      {"99999", std::nullopt, std::nullopt},
      {"22abc", std::nullopt, 22},
  };
  return words;
}

const std::vector<std::string> kPolicyWords = {"disabled", "permit", "deny", "reject"};
const std::vector<std::string> kOperatorWords = {"none", "eq", "ne", "lt", "le", "gt", "ge", "range"};
const std::vector<std::string> kTcpFlagWords = {"none", "connect", "established"};
const std::vector<std::string> kConnectionWords = {"normal",   "outgoing",         "outgoing-related",
                                                   "incoming", "incoming-related", "exists"};
const std::vector<std::string> kLoggingWords = {"none", "short", "long", "alert"};
const std::vector<std::string> kProtocolWords = {"tcp", "TCP", "udp", "icmp", "ip", "IP", "iP", "gre",
                                                 "P47", "P255", "ipv6-icmp", "any", "foo", "6", "p6"};
const std::vector<std::string> kOtherWords = {"any", "host", "connection", "log", "related", "foo", "Permit",
                                              "ANY", "Eq", "Log"};

std::optional<std::int32_t> index_in(const std::vector<std::string> &table, const std::string &word) {
  for (std::size_t i = 0; i < table.size(); ++i)
    if (table[i] == word) return static_cast<std::int32_t>(i);
  return std::nullopt;
}

const NumericWord *numeric(const std::string &word) {
  for (const auto &n : numeric_words())
    if (word == n.text) return &n;
  return nullptr;
}

std::optional<std::uint32_t> address_of(const std::string &word) {
  const NumericWord *n = numeric(word);
  return n ? n->address : std::nullopt;
}

std::optional<std::uint16_t> port_of(const std::string &word) {
  const NumericWord *n = numeric(word);
  return n ? n->port : std::nullopt;
}

std::string lower(std::string s) {
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Protocol words: "ip" is any protocol, a few aliases, then the first IANA
// row whose keyword matches ignoring case (rows without a keyword answer to
// "any"), then "P<number>".
std::optional<std::uint8_t> protocol_of(const std::string &word) {
  static const std::map<int, std::string> keywords = testsupport::iana_protocol_keywords();
  std::string w = lower(word);
  if (w == "ip") return 255;
  if (w == "ipv4") return 0;
  if (w == "icmpv6") return 58;
  if (w == "ipip") return 94;
  for (const auto &[number, keyword] : keywords) {
    if (number > 139) break;
    std::string name = keyword.empty() ? "any" : lower(keyword);
    if (number == 4) name = "ip";
    if (name == w) return static_cast<std::uint8_t>(number);
  }
  if (!word.empty() && word[0] == 'P') {
    unsigned value = static_cast<unsigned>(std::atoi(word.c_str() + 1));
    if (value <= 255) return static_cast<std::uint8_t>(value);
  }
  return std::nullopt;
}

// ---- the reference reading ----

struct Reading {
  int rc = 0;
  Rule rule;
};

class ReferenceParser {
 public:
  explicit ReferenceParser(const std::vector<std::string> &words)
      : words_(words.begin(), words.begin() + static_cast<long>(std::min<std::size_t>(words.size(), 16))) {}

  Reading read() {
    out_.rc = run();
    return out_;
  }

 private:
  struct Codes {
    int host, addr, mask, port, upper;
  };

  bool more() const { return at_ < words_.size(); }
  const std::string &word() const { return words_[at_]; }

  int run() {
    Rule &r = out_.rule;
    if (!more()) return -2;
    auto policy = index_in(kPolicyWords, word());
    if (!policy) return -3;
    r.policy = *policy;
    ++at_;
    if (!more()) return -2;
    auto proto = protocol_of(word());
    if (!proto) return -4;
    r.proto = *proto;
    ++at_;
    if (int rc = endpoint({-5, -6, -7, -8, -9}, true, r.src_addr, r.src_mask, r.src_op, r.src_port, r.src_port2))
      return rc;
    if (int rc = endpoint({-10, -11, -12, -13, -14}, false, r.dst_addr, r.dst_mask, r.dst_op, r.dst_port,
                          r.dst_port2))
      return rc;
    return trailer();
  }

  int endpoint(Codes codes, bool must_follow, std::uint32_t &addr, std::uint32_t &mask, std::int32_t &op,
               std::uint16_t &port, std::uint16_t &port2) {
    if (!more()) return -2;
    if (word() == "any") {
      ++at_;
    } else if (word() == "host") {
      ++at_;
      if (!more()) return -2;
      auto a = address_of(word());
      if (!a) return codes.host;
      addr = *a;
      mask = 0xFFFFFFFF;
      ++at_;
    } else {
      auto a = address_of(word());
      if (!a) return codes.addr;
      addr = *a;
      ++at_;
      if (!more()) return -2;
      auto m = address_of(word());
      if (!m) return codes.mask;
      mask = *m;
      ++at_;
    }
    if (!more()) return must_follow ? -2 : 0;
    auto o = index_in(kOperatorWords, word());
    if (!o) return 0;
    op = *o;
    ++at_;
    if (!more()) return -2;
    auto p = port_of(word());
    if (!p) return codes.port;
    port = *p;
    ++at_;
    if (op != 7) return 0;
    if (!more()) return -2;
    auto q = port_of(word());
    if (!q) return codes.upper;
    port2 = *q;
    ++at_;
    return 0;
  }

  int trailer() {
    Rule &r = out_.rule;
    if (!more()) return 0;
    if (auto t = index_in(kTcpFlagWords, word())) {
      r.tcpflag = *t;
      ++at_;
      if (!more()) return 0;
    }
    if (word() == "connection") {
      ++at_;
      if (!more()) return -15;
      auto c = connection_of(word());
      if (!c) return -16;
      r.connflag = *c;
      ++at_;
      if (!more()) return 0;
    } else if (auto c = connection_of(word())) {
      r.connflag = *c;
      ++at_;
      if (!more()) return 0;
    }
    if (word() == "log") {
      ++at_;
      if (!more()) {
        r.logging = 1;
        return 0;
      }
    }
    auto l = index_in(kLoggingWords, word());
    if (!l) return -17;
    r.logging = *l;
    return 0;
  }

  static std::optional<std::int32_t> connection_of(const std::string &w) {
    if (w == "related") return 2;
    return index_in(kConnectionWords, w);
  }

  std::vector<std::string> words_;
  std::size_t at_ = 0;
  Reading out_;
};

// ---- random lines ----

class LineMaker {
 public:
  explicit LineMaker(std::uint32_t seed) : rng_(seed) {}

  std::vector<std::string> next() {
    std::vector<std::string> w;
    w.push_back(chance(20) ? pick(kOtherWords) : pick(kPolicyWords));
    w.push_back(pick(kProtocolWords));
    endpoint(w);
    endpoint(w);
    if (chance(2)) w.push_back(pick(kTcpFlagWords));
    if (chance(2)) {
      if (chance(2)) w.push_back("connection");
      w.push_back(chance(8) ? "related" : pick(kConnectionWords));
    }
    if (chance(2)) {
      if (chance(2)) w.push_back("log");
      if (chance(3)) w.push_back(pick(kLoggingWords));
    }
    if (chance(3)) mutate(w);
    return w;
  }

  std::string join(const std::vector<std::string> &words) {
    const char *separators[] = {" ", "\t", "  ", " \t "};
    std::string line = chance(4) ? " " : "";
    for (std::size_t i = 0; i < words.size(); ++i) {
      if (i) line += separators[below(4)];
      line += words[i];
    }
    if (chance(4)) line += "\t ";
    return line;
  }

 private:
  std::size_t below(std::size_t n) { return rng_() % n; }
  bool chance(std::size_t one_in) { return below(one_in) == 0; }
  std::string pick(const std::vector<std::string> &table) { return table[below(table.size())]; }
  std::string number() { return numeric_words()[below(numeric_words().size())].text; }

  std::string any_word() {
    switch (below(5)) {
      case 0: return number();
      case 1: return pick(kOtherWords);
      case 2: return pick(kOperatorWords);
      case 3: return pick(kLoggingWords);
      default: return pick(kConnectionWords);
    }
  }

  void endpoint(std::vector<std::string> &w) {
    switch (below(3)) {
      case 0: w.push_back("any"); break;
      case 1: w.push_back("host"); w.push_back(number()); break;
      default: w.push_back(number()); w.push_back(number());
    }
    if (chance(2)) {
      std::string op = pick(kOperatorWords);
      w.push_back(op);
      w.push_back(number());
      if (op == "range") w.push_back(number());
    }
  }

  void mutate(std::vector<std::string> &w) {
    std::size_t at = below(w.size());
    switch (below(4)) {
      case 0: w.erase(w.begin() + static_cast<long>(at)); break;
      case 1: w[at] = any_word(); break;
      case 2: w.insert(w.begin() + static_cast<long>(at), any_word()); break;
      default: w.resize(at);
    }
  }

  std::mt19937 rng_;
};

}  // namespace

TEST(AccessReference, RandomLinesReadAsTheReferenceReadsThem) {
  LineMaker maker(8675309);
  std::map<int, int> seen;
  for (int i = 0; i < 30000; ++i) {
    std::vector<std::string> words = maker.next();
    std::string line = maker.join(words);
    Reading expected = ReferenceParser(words).read();
    auto actual = parse(line);
    SCOPED_TRACE("'" + line + "'");
    ASSERT_EQ(actual.rc, expected.rc);
    expect_record(actual.rule, expected.rule);
    ++seen[expected.rc];
    if (HasFailure()) break;
  }
  // Every result code comes up, so the comparison covers every path.
  for (int rc = 0; rc >= -17; --rc) {
    if (rc == -1) continue;  // only long texts, tested on their own
    EXPECT_GT(seen[rc], 0) << "code " << rc << " never came up";
  }
}
