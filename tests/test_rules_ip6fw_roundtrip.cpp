// IPv6 forward rules and port ranges at scale: a router's rule file read and
// printed back, random port ranges and blocks against references written
// here, the IANA registry, and hostile lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "nuvcsock_test.h"
#include "nuvrules.h"
#include "testsupport.h"

using testsupport::NoLeakGuard;

namespace {

constexpr std::size_t kEntrySize = sizeof(ip6_portrange);

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

// Block memory aligned for the entries, of exactly the given size.
class Block {
 public:
  explicit Block(std::size_t entries = 64)
      : bytes_(48 + entries * kEntrySize), words_(new std::uint64_t[(bytes_ + 7) / 8]) {
    rule_ = ip6_forwardrule_init(words_.get(), bytes_);
  }
  ip6_forwardrule *rule() { return rule_; }
  int add(const std::string &line) {
    ExactText exact(line);
    return ip6_forwardrule_parse(rule_, exact.c_str());
  }

 private:
  std::size_t bytes_;
  std::unique_ptr<std::uint64_t[]> words_;
  ip6_forwardrule *rule_;
};

// The protocols that carry ports.
const std::set<int> kPortProtocols = {6, 17, 33, 132, 136};

struct RegistryRow {
  int number;
  std::string keyword;
};

// Rows 0..139 of the IANA registry that have a keyword.
std::vector<RegistryRow> registry_rows() {
  std::vector<RegistryRow> rows;
  for (const auto &[number, keyword] : testsupport::iana_protocol_keywords())
    if (number <= 139 && !keyword.empty()) rows.push_back({number, keyword});
  return rows;
}

// Protocol names as the port range and forward rule texts print them, for
// the numbers whose name reads back as the same number: the registry keyword
// (without blanks), "ICMPv6" for 58, "IP" for 255 and "P<n>" above 139.
std::map<int, std::string> readable_names() {
  std::map<int, std::string> names;
  for (const RegistryRow &row : registry_rows())
    if (row.number != 4 && row.keyword.find(' ') == std::string::npos) names[row.number] = row.keyword;
  names[58] = "ICMPv6";
  for (int n = 140; n <= 254; ++n) names[n] = "P" + std::to_string(n);
  names[255] = "IP";
  return names;
}

const std::map<int, std::string> &names() {
  static const std::map<int, std::string> table = readable_names();
  return table;
}

std::string ports_text(int lo, int hi) {
  return lo == hi ? std::to_string(lo) : std::to_string(lo) + "-" + std::to_string(hi);
}

// ---- The rule file ----

struct FileLine {
  int number;
  std::string text;
};

std::vector<FileLine> read_lines(const std::string &path) {
  std::ifstream in(path);
  EXPECT_TRUE(in.good()) << path;
  std::vector<FileLine> lines;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.empty() || line[0] == ';') continue;
    lines.push_back({number, line});
  }
  return lines;
}

bool starts_with(const std::string &s, const char *prefix) { return s.rfind(prefix, 0) == 0; }

// ---- Random port ranges ----

class RandomRanges {
 public:
  explicit RandomRanges(std::uint32_t seed) : rng_(seed) {
    for (const auto &entry : names()) protocols_.push_back(entry.first);
  }

  // Fills `r`; its comment points into `comment`, which the caller keeps.
  void next(ip6_portrange *r, std::string *comment, bool *has_comment) {
    std::memset(r, 0, sizeof *r);
    r->enabled = coin() ? 1 : 0;
    // Port protocols often, so that ports are well covered.
    r->proto = static_cast<std::uint8_t>(coin() ? *std::next(kPortProtocols.begin(), pick(5))
                                                : protocols_[pick(protocols_.size())]);
    if (kPortProtocols.count(r->proto)) {
      r->port_lo = static_cast<std::uint16_t>(pick(65536));
      r->port_hi = coin() ? r->port_lo : static_cast<std::uint16_t>(pick(65536));
    }
    r->scope = static_cast<std::int32_t>(pick(3));
    r->mark = coin() ? 0u : static_cast<std::uint32_t>(rng_());
    *has_comment = coin();
    *comment = *has_comment ? comment_text() : std::string();
    r->comment = *has_comment ? comment->c_str() : nullptr;
  }

 private:
  std::size_t pick(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_); }
  bool coin() { return pick(2) == 0; }
  std::string comment_text() {
    static const char kChars[] = "abcXYZ019 #\t.,:+-_";
    std::string s(pick(40), 'a');
    for (char &c : s) c = kChars[pick(sizeof kChars - 1)];
    // The parser skips blanks after "#", so a comment cannot begin with one.
    if (!s.empty() && s[0] == ' ') s[0] = '_';
    return s;
  }

  std::mt19937 rng_;
  std::vector<int> protocols_;
};

std::string reference_range_text(const ip6_portrange &r) {
  std::string text = r.enabled ? "" : "# ";
  text += names().at(r.proto);
  if (kPortProtocols.count(r.proto)) text += " " + ports_text(r.port_lo, r.port_hi);
  if (r.scope == 1) text += " local";
  if (r.scope == 2) text += " internet";
  if (r.mark) text += " mark " + std::to_string(r.mark);
  if (r.comment) text += std::string(" # ") + r.comment;
  return text;
}

// ---- Random forward rules ----

struct RefEntry {
  int proto, lo, hi;
  bool operator<(const RefEntry &o) const { return std::tie(proto, lo, hi) < std::tie(o.proto, o.lo, o.hi); }
  bool operator==(const RefEntry &o) const { return std::tie(proto, lo, hi) == std::tie(o.proto, o.lo, o.hi); }
};

// A block's expected text from its sorted entries and its port-less protocols.
std::string reference_block_text(const std::vector<RefEntry> &sorted, const std::set<int> &portless) {
  std::string text;
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    if (i == 0)
      text += names().at(sorted[i].proto) + " ";
    else if (sorted[i].proto != sorted[i - 1].proto)
      text += " " + names().at(sorted[i].proto) + " ";
    else
      text += ",";
    text += ports_text(sorted[i].lo, sorted[i].hi);
  }
  for (int proto : portless)
    if (proto != 255) text += " " + names().at(proto);
  return text;
}

// Splits a printed block text back into lines: a protocol name, and after a
// port protocol its port list ("3PC" is a name that begins with a digit).
std::vector<std::string> lines_of_block_text(const std::string &text) {
  std::istringstream words(text);
  std::vector<std::string> lines;
  std::string word;
  bool after_port_protocol = false;
  while (words >> word) {
    if (after_port_protocol && std::isdigit(static_cast<unsigned char>(word[0]))) {
      lines.back() += " " + word;
      after_port_protocol = false;
      continue;
    }
    lines.push_back(word);
    after_port_protocol = false;
    for (int proto : kPortProtocols)
      if (word == names().at(proto)) after_port_protocol = true;
  }
  return lines;
}

}  // namespace

TEST(Ip6ForwardRuleFile, RouterRulesPrintAsWrittenByHand) {
  NoLeakGuard guard;
  std::vector<FileLine> lines = read_lines(testsupport::source_path("tests/data/ip6-forward-rules.txt"));
  std::unique_ptr<Block> block;
  std::string name;
  int blocks = 0;
  int rules = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string &line = lines[i].text;
    const bool failure_follows = i + 1 < lines.size() && starts_with(lines[i + 1].text, "! ");
    if (starts_with(line, "[")) {
      block = std::make_unique<Block>();
      name = line;
      ++blocks;
    } else if (line == "ping") {
      block->rule()->ping = 1;
    } else if (line == "all") {
      block->rule()->all_protocols = 1;
    } else if (starts_with(line, "< ")) {
      ASSERT_TRUE(block) << "line " << lines[i].number;
      int rc = block->add(line.substr(2));
      int expected = failure_follows ? std::stoi(lines[i + 1].text.substr(2)) : 0;
      EXPECT_EQ(rc, expected) << name << " line " << lines[i].number << ": " << line;
      ++rules;
    } else if (starts_with(line, "= ")) {
      ASSERT_TRUE(block);
      ip6_forwardrule *rule = block->rule();
      EXPECT_EQ(ip6_forwardrule_finish(rule), 48 + rule->count * kEntrySize);
      EXPECT_EQ(std::string(ip6_forwardrule2str(rule)), line.substr(2)) << name << " line " << lines[i].number;
    }
  }
  EXPECT_GE(blocks, 8);
  EXPECT_GE(rules, 30);
}

TEST(Ip6PortRangeFile, RouterRangesPrintAsWrittenByHand) {
  NoLeakGuard guard;
  std::vector<FileLine> lines = read_lines(testsupport::source_path("tests/data/ip6-forward-rules.txt"));
  int ranges = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (!starts_with(lines[i].text, "R< ")) continue;
    ++ranges;
    ExactText text(lines[i].text.substr(3));
    ip6_portrange r;
    int rc = ip6_portrange_parse(text.c_str(), &r);
    ASSERT_LT(i + 1, lines.size());
    const std::string &next = lines[i + 1].text;
    if (starts_with(next, "R! ")) {
      EXPECT_EQ(rc, std::stoi(next.substr(3))) << "line " << lines[i].number;
      continue;
    }
    ASSERT_EQ(rc, 0) << "line " << lines[i].number;
    ASSERT_TRUE(starts_with(next, "R> ")) << "line " << lines[i + 1].number;
    EXPECT_EQ(std::string(ip6_portrange2str(&r)), next.substr(3)) << "line " << lines[i].number;
    if (i + 2 < lines.size() && starts_with(lines[i + 2].text, "S> ")) {
      EXPECT_EQ(std::string(ip6_portrange2simplestr(&r)), lines[i + 2].text.substr(3)) << "line " << lines[i].number;
    }
  }
  EXPECT_GE(ranges, 15);
}

TEST(Ip6PortRangeProperty, RangesPrintAsTheReferenceAndReadBack) {
  RandomRanges random(11);
  for (int i = 0; i < 5000; ++i) {
    ip6_portrange r;
    std::string comment;
    bool has_comment = false;
    random.next(&r, &comment, &has_comment);
    std::string text = ip6_portrange2str(&r);
    ASSERT_EQ(text, reference_range_text(r));
    ExactText exact(text);
    ip6_portrange back;
    std::memset(&back, 0x5A, sizeof back);
    ASSERT_EQ(ip6_portrange_parse(exact.c_str(), &back), IP6_PORTRANGE_E_OK) << text;
    EXPECT_EQ(back.enabled, r.enabled) << text;
    EXPECT_EQ(back.proto, r.proto) << text;
    EXPECT_EQ(back.port_lo, r.port_lo) << text;
    EXPECT_EQ(back.port_hi, r.port_hi) << text;
    EXPECT_EQ(back.scope, r.scope) << text;
    EXPECT_EQ(back.mark, r.mark) << text;
    ASSERT_EQ(back.comment != nullptr, has_comment) << text;
    if (has_comment) {
      EXPECT_EQ(std::string(back.comment), comment) << text;
    }
    EXPECT_EQ(std::string(ip6_portrange2simplestr(&back)),
              names().at(r.proto) + (kPortProtocols.count(r.proto) ? " " + ports_text(r.port_lo, r.port_hi) : ""));
    if (HasFailure()) break;
  }
}

TEST(Ip6ForwardRuleProperty, BlocksSortAndPrintAsTheReference) {
  std::mt19937 rng(12);
  std::vector<int> protocols;
  for (const auto &entry : names()) protocols.push_back(entry.first);
  const std::vector<int> port_protocols(kPortProtocols.begin(), kPortProtocols.end());
  for (int round = 0; round < 2000; ++round) {
    Block block(64);
    std::vector<RefEntry> expected;
    std::set<int> portless;
    int lines = 1 + static_cast<int>(rng() % 6);
    for (int l = 0; l < lines; ++l) {
      if (rng() % 3 == 0) {
        int proto = protocols[rng() % protocols.size()];
        if (kPortProtocols.count(proto)) continue;
        portless.insert(proto);
        ASSERT_EQ(block.add(names().at(proto)), IP6_FORWARDRULE_E_OK);
        continue;
      }
      int proto = port_protocols[rng() % port_protocols.size()];
      std::string line = names().at(proto) + " ";
      int items = 1 + static_cast<int>(rng() % 3);
      for (int k = 0; k < items; ++k) {
        int a = 1 + static_cast<int>(rng() % 65535);
        int b = rng() % 2 ? a : 1 + static_cast<int>(rng() % 65535);
        line += (k ? "," : "") + (a == b ? std::to_string(a) : std::to_string(a) + "-" + std::to_string(b));
        expected.push_back({proto, std::min(a, b), std::max(a, b)});
      }
      ASSERT_EQ(block.add(line), IP6_FORWARDRULE_E_OK) << line;
    }
    std::sort(expected.begin(), expected.end());
    ip6_forwardrule *rule = block.rule();
    ASSERT_EQ(ip6_forwardrule_finish(rule), 48 + expected.size() * kEntrySize);
    std::vector<RefEntry> got;
    for (std::size_t i = 0; i < rule->count; ++i)
      got.push_back({rule->entries[i].proto, rule->entries[i].port_lo, rule->entries[i].port_hi});
    ASSERT_TRUE(got == expected) << "round " << round;
    std::string reference = reference_block_text(expected, portless);
    if (reference.size() > 255) reference.resize(255);
    std::string text = ip6_forwardrule2str(rule);
    ASSERT_EQ(text, reference) << "round " << round;

    // A text that was not cut reads back, protocol by protocol, to itself.
    if (text.size() >= 255) continue;
    Block again(64);
    for (const std::string &line : lines_of_block_text(text)) ASSERT_EQ(again.add(line), IP6_FORWARDRULE_E_OK) << line;
    ip6_forwardrule_finish(again.rule());
    ASSERT_EQ(std::string(ip6_forwardrule2str(again.rule())), text);
  }
}

TEST(Ip6ForwardRuleRegistry, EveryKeywordIsAPortListOrAMarkedProtocol) {
  // Keywords with a blank end at the blank and are not names.
  for (const RegistryRow &row : registry_rows()) {
    if (row.keyword.find(' ') != std::string::npos) continue;
    Block block(4);
    std::string lower = row.keyword;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    ASSERT_EQ(block.add(lower + " 7"), IP6_FORWARDRULE_E_OK) << row.keyword;
    // "IPv4" is read as 0 and nothing else of the registry shares a name.
    const int number = row.number == 4 ? 0 : row.number;
    ip6_forwardrule *rule = block.rule();
    if (kPortProtocols.count(number)) {
      ASSERT_EQ(rule->count, 1) << row.keyword;
      EXPECT_EQ(rule->entries[0].proto, number);
      EXPECT_EQ(rule->entries[0].port_lo, 7);
    } else {
      EXPECT_EQ(rule->count, 0) << row.keyword;
      EXPECT_EQ((rule->proto_bits[number / 32] >> (number % 32)) & 1u, 1u) << row.keyword;
    }
  }
}

TEST(Ip6ForwardRuleProperty, HostileLinesGiveADocumentedCodeAndLeakNothing) {
  NoLeakGuard guard;
  std::mt19937 rng(13);
  const std::vector<std::string> pieces = {"tcp", "udp", "gre", "ip",  "P255", "#",    " ",  "  ", ",",  "-",
                                           "0",   "1",   "65535", "65536", "70000", "-1", "x", "\t", "99999999999"};
  Block block(8);
  for (int i = 0; i < 20000; ++i) {
    std::string line;
    std::size_t n = rng() % 10;
    for (std::size_t k = 0; k < n; ++k) {
      if (rng() % 6 == 0)
        line += static_cast<char>(1 + rng() % 255);
      else
        line += pieces[rng() % pieces.size()];
    }
    if (i % 500 == 0) block = Block(8);
    int rc = block.add(line);
    ASSERT_TRUE(rc == 0 || rc == -1 || rc == -2 || rc == -3 || rc == -5) << rc << " for " << line;
    ASSERT_LE(block.rule()->count, block.rule()->capacity);
    std::string text = ip6_forwardrule2str(block.rule());
    ASSERT_LT(text.size(), 256u);

    ExactText exact(line);
    ip6_portrange r;
    rc = ip6_portrange_parse(exact.c_str(), &r);
    ASSERT_TRUE(rc == 0 || rc == -2) << rc << " for " << line;
    if (rc == 0) {
      std::string printed = ip6_portrange2str(&r);
      ASSERT_LT(printed.size(), 256u);
    }
  }
}

TEST(Ip6ForwardRuleProperty, FailingScratchMemoryAtAnyPointLeaksNothing) {
  NoLeakGuard guard;
  for (long n = 1; n <= 3; ++n) {
    Block block(8);
    nuvcsock_fail_nth_allocation(n);
    int first = block.add("tcp 80");
    int second = block.add("udp 53");
    EXPECT_EQ(first, n == 1 ? -1 : 0);
    EXPECT_EQ(second, n == 2 ? -1 : 0);
    EXPECT_EQ(block.rule()->count, n <= 2 ? 1 : 2);
    nuvcsock_fail_nth_allocation(0);
  }
}
