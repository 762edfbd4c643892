// Compiled rule sets against a plain reference written here: walk the links,
// first match wins, nuv_clfy_matches per rule, sub-rules of a matching rule
// searched before its next sibling.  On random rule sets with every kind of
// condition (prefixes of every length, port ranges and lists, duplicates,
// DHCP learning, tables, sub-lists) and random or hostile packets, the
// compiled set picks the same rule, counts the same hits and learns the
// same DHCP clients.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using clfytest::Bytes;
using clfytest::chance;
using clfytest::Packet;
using clfytest::pick;
using clfytest::pick_from;
using clfytest::Rng;

namespace {

// ---- The reference ----

nuv_clfy *reference_first(nuv_clfy *rule, const nuv_clfy_packet &packet, std::uint32_t mark) {
  for (; rule; rule = rule->next) {
    if (!nuv_clfy_matches(rule, &packet, 0, mark)) continue;
    if (!rule->children) return rule;
    if (nuv_clfy *found = reference_first(rule->children, packet, mark)) return found;
  }
  return nullptr;
}

// Place of `wanted` in the pre-order of the tree at `rule`, counting from
// `at`; -1 when absent (null gives -1 too).
int preorder_place(const nuv_clfy *rule, const nuv_clfy *wanted, int &at) {
  for (; rule; rule = rule->next) {
    if (rule == wanted) return at;
    ++at;
    if (int found = preorder_place(rule->children, wanted, at); found >= 0) return found;
  }
  return -1;
}

int place(const nuv_clfy_set &set, const nuv_clfy *rule) {
  int at = 0;
  return rule ? preorder_place(set.head, rule, at) : -1;
}

bool top_level(const nuv_clfy_set &set, const nuv_clfy *rule) {
  for (const nuv_clfy *r = set.head; r; r = r->next)
    if (r == rule) return true;
  return false;
}

void collect_hits(const nuv_clfy *rule, std::vector<std::uint32_t> &hits) {
  for (; rule; rule = rule->next) {
    hits.push_back(rule->hits);
    collect_hits(rule->children, hits);
  }
}

std::vector<std::uint32_t> hits_of(const nuv_clfy_set &set) {
  std::vector<std::uint32_t> hits;
  collect_hits(set.head, hits);
  return hits;
}

std::string source_table(const std::string &name) {
  const ethersrctab *table = nuv_clfy_ethersrctab_find(name.c_str());
  if (!table) return "-";
  return std::string(reinterpret_cast<const char *>(table->entries), 6 * table->count);
}

// Owns a compiled set.
struct Compiled {
  nuv_clfy_compiled *c = nullptr;
  explicit Compiled(const nuv_clfy_set &set) { EXPECT_EQ(nuv_clfy_set_compile(&set, &c), NUV_CLFY_COMPILE_OK); }
  ~Compiled() { nuv_clfy_compiled_free(c); }
  Compiled(const Compiled &) = delete;
  Compiled &operator=(const Compiled &) = delete;
};

// ---- Random rules shaped like a firewall's, and packets drawn from them ----

const std::uint32_t kNetworks[] = {0x0a000000u, 0x0a010000u, 0xc0a80000u, 0xac100000u, 0x08080800u};
const int kPrefixLengths[] = {0, 8, 12, 16, 20, 24, 24, 28, 30, 32, 32};
const char *const kV6Prefixes[] = {"2001:db8::/32", "fe80::/10", "2001:db8::1/127"};
const std::uint8_t kV6Hosts[][16] = {
    {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
    {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3},
};
const std::uint16_t kWellKnown[] = {22, 53, 67, 68, 80, 123, 443, 8080};
const std::uint8_t kMacs[][6] = {{0, 0x11, 0x22, 0x33, 0x44, 0x55}, {0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb}};

// Values a packet inside a rule could have.
struct Sample {
  std::uint32_t src = 0, dst = 0;
  std::uint16_t sport = 0, dport = 0;
  std::uint8_t proto = 6;
};

std::string dotted(std::uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." + std::to_string((a >> 8) & 255) + "." +
         std::to_string(a & 255);
}

// A prefix near one of the networks, and an address inside it.
std::string random_prefix(Rng &rng, std::uint32_t &inside) {
  const int length = chance(rng, 30) ? pick(rng, 33) : pick_from(rng, kPrefixLengths);
  const std::uint32_t mask = length ? ~0u << (32 - length) : 0;
  const std::uint32_t base = pick_from(rng, kNetworks) | static_cast<std::uint32_t>(pick(rng, 4) << 8);
  // Packets at the edges of a prefix find an off-by-one.
  const std::uint32_t host_bits = pick(rng, 3) == 0 ? 0 : (pick(rng, 2) ? ~0u : static_cast<std::uint32_t>(rng()));
  inside = (base & mask) | (host_bits & ~mask);
  return dotted(base & mask) + "/" + std::to_string(length);
}

// A value from lo..hi, often one at an edge.
std::uint16_t port_in(Rng &rng, int lo, int hi) {
  switch (pick(rng, 3)) {
    case 0: return static_cast<std::uint16_t>(lo);
    case 1: return static_cast<std::uint16_t>(hi);
    default: return static_cast<std::uint16_t>(lo + pick(rng, hi - lo + 1));
  }
}

// One port element and a port it accepts.
std::string random_port_element(Rng &rng, std::uint16_t &inside) {
  switch (pick(rng, 7)) {
    case 0: {
      const int lo = pick(rng, 60000);
      const int hi = lo + pick(rng, 5000);
      inside = port_in(rng, lo, hi);
      return std::to_string(lo) + "-" + std::to_string(hi);
    }
    case 1: inside = port_in(rng, 1024, 65535); return "1024-65535";
    case 2: inside = port_in(rng, 1024, 1100); return ">=1024";
    case 3: inside = port_in(rng, 0, 99); return "<100";
    case 4: inside = 1; return "!=" + std::to_string(pick_from(rng, kWellKnown));
    default: inside = pick_from(rng, kWellKnown); return std::to_string(inside);
  }
}

std::string random_ports(Rng &rng, std::uint16_t &inside) {
  std::string list = random_port_element(rng, inside);
  if (chance(rng, 20)) {
    std::uint16_t other;
    list += "," + random_port_element(rng, other);
    if (chance(rng, 50)) inside = other;
  }
  return list;
}

// Conditions beyond addresses, ports and protocol, tested on the candidates.
std::string rare_conditions(Rng &rng, const std::string &tables) {
  std::string line;
  auto add = [&line](const std::string &piece) { line += " " + piece; };
  if (chance(rng, 5)) add("dev eth0");
  if (chance(rng, 4)) add("vlan.id " + std::to_string(1 + pick(rng, 2)));
  if (chance(rng, 4)) add("eth.sourceoui 00:11:22");
  if (chance(rng, 4)) add("ethsrctab " + tables + ".known");
  if (chance(rng, 4)) add("ipdsttab " + tables + ".dst");
  if (chance(rng, 4)) add("ip.len >" + std::to_string(20 + pick(rng, 80)));
  if (chance(rng, 3)) add("ip.tos " + std::to_string(pick(rng, 2) * 0x20));
  if (chance(rng, 3)) add("ip.version " + std::string(chance(rng, 80) ? "4" : "6"));
  if (chance(rng, 3)) add("icmp.type " + std::to_string(128 + pick(rng, 2)));
  return line;
}

// A rule line and a packet inside it.
std::string random_rule(Rng &rng, const std::string &tables, Sample &sample, bool dhcp = true) {
  std::string line;
  auto add = [&line](const std::string &piece) { line += (line.empty() ? "" : " ") + piece; };
  sample = Sample{};
  sample.src = static_cast<std::uint32_t>(rng());
  sample.dst = static_cast<std::uint32_t>(rng());
  sample.sport = static_cast<std::uint16_t>(pick(rng, 65536));
  sample.dport = pick_from(rng, kWellKnown);
  if (chance(rng, 8)) {
    add(std::string("ip.saddr ") + pick_from(rng, kV6Prefixes));
  } else {
    if (chance(rng, 70)) add("ip.saddr " + random_prefix(rng, sample.src));
    if (chance(rng, 70)) add("ip.daddr " + random_prefix(rng, sample.dst));
  }
  switch (pick(rng, 9)) {
    case 0: add("ip.proto tcp"); break;
    case 1: add("ip.proto udp"); sample.proto = 17; break;
    case 2: add("ip.proto icmp"); sample.proto = 1; break;
    case 3: case 4: add("tcp.dport " + random_ports(rng, sample.dport)); break;
    case 5: sample.proto = 17; add("udp.dport " + random_ports(rng, sample.dport)); break;
    case 6: add("tcp.sport " + random_ports(rng, sample.sport)); break;
    case 7:
      if (!dhcp) break;
      sample.proto = 17;
      sample.dport = 67;
      add("dhcpoption 50 192.168.* " + tables + ".known");
      break;
    default: sample.proto = static_cast<std::uint8_t>(pick(rng, 2) ? 6 : 17); break;
  }
  line += rare_conditions(rng, tables);
  if (chance(rng, 3)) add("tcp.flags 2/18");
  if (chance(rng, 3)) add("packetmatch *a*");
  return line.empty() ? "any" : line;
}


void put32(std::uint8_t out[4], std::uint32_t v) {
  out[0] = static_cast<std::uint8_t>(v >> 24), out[1] = static_cast<std::uint8_t>(v >> 16);
  out[2] = static_cast<std::uint8_t>(v >> 8), out[3] = static_cast<std::uint8_t>(v);
}

// A packet from a rule's sample (mostly), with fields moved now and then,
// sometimes IPv6, sometimes lying about its lengths or cut short.
void random_packet(Rng &rng, const std::vector<Sample> &samples, Packet &p) {
  Sample s = samples.empty() || chance(rng, 15) ? Sample{} : samples[static_cast<std::size_t>(pick(rng, static_cast<int>(samples.size())))];
  if (s.src == 0 && s.dst == 0) s.src = static_cast<std::uint32_t>(rng()), s.dst = static_cast<std::uint32_t>(rng());
  // Just outside the rule, or elsewhere.
  if (chance(rng, 5)) s.src ^= 1u << pick(rng, 32);
  if (chance(rng, 5)) s.dst ^= 1u << pick(rng, 32);
  if (chance(rng, 8)) s.src += static_cast<std::uint32_t>(pick(rng, 3) - 1);
  if (chance(rng, 8)) s.dst += static_cast<std::uint32_t>(pick(rng, 3) - 1);
  if (chance(rng, 10)) s.dport = static_cast<std::uint16_t>(s.dport + pick(rng, 3) - 1);
  if (chance(rng, 10)) s.sport = static_cast<std::uint16_t>(s.sport + pick(rng, 3) - 1);
  if (chance(rng, 5)) s.proto = static_cast<std::uint8_t>(pick(rng, 2) ? 6 : 17);
  if (chance(rng, 3)) s.proto = static_cast<std::uint8_t>(pick(rng, 256));
  Bytes transport;
  const Bytes payload = chance(rng, 50) ? clfytest::text_bytes("data") : Bytes{};
  if (s.proto == 6) transport = clfytest::tcp_header(s.sport, s.dport, static_cast<std::uint16_t>(pick(rng, 0x40)), payload);
  else if (s.proto == 17) {
    const std::uint16_t dport = chance(rng, 20) ? 67 : s.dport;
    transport = clfytest::udp_header(s.sport, dport, dport == 67 && chance(rng, 80) ? clfytest::random_dhcp_client_message(rng, kMacs) : payload);
  }
  else transport = Bytes{static_cast<std::uint8_t>(128 + pick(rng, 2)), 0, 0, 0, 0, 0, 0, 0};
  const bool v6 = chance(rng, 15);
  Bytes b;
  if (v6) {
    b = clfytest::ipv6_packet(s.proto == 1 ? 58 : s.proto, pick_from(rng, kV6Hosts), pick_from(rng, kV6Hosts), transport);
  } else {
    std::uint8_t src[4], dst[4];
    put32(src, s.src);
    put32(dst, s.dst);
    b = clfytest::ipv4_packet(s.proto, src, dst, transport, static_cast<std::uint8_t>(pick(rng, 2) * 0x20));
  }
  if (chance(rng, 8) && !v6) b[0] = static_cast<std::uint8_t>(0x40 | pick(rng, 16));
  if (chance(rng, 8)) clfytest::put16(b, v6 ? 4 : 2, static_cast<std::uint16_t>(pick(rng, 70000)));
  if (chance(rng, 12)) b.resize(static_cast<std::size_t>(pick(rng, static_cast<int>(b.size()) + 1)));
  const std::uint16_t ethertype = chance(rng, 3) ? 0x0806 : (v6 ? 0x86dd : 0x0800);
  p.set_ip(b, ethertype);
  if (chance(rng, 3)) p.desc.ip_header = nullptr;
  if (chance(rng, 90)) p.set_eth(pick_from(rng, kMacs), pick_from(rng, kMacs));
  p.desc.dev_ifindex = static_cast<std::uint32_t>(1 + pick(rng, 2));
  p.desc.vlan_tci = chance(rng, 50) ? static_cast<std::uint16_t>(NUV_CLFY_VLAN_TAG_PRESENT | (1 + pick(rng, 2))) : 0;
}

// The same random set twice, each with tables of its own, so that the
// compiled search and the reference learn apart.  Some rules get a class
// map; some are made sub-rules of the rule before them.
struct TwinSets {
  clfytest::Set compiled, reference;
  std::vector<Sample> samples;
};

nuv_clfy *parsed_rule(const std::string &line, std::uint16_t result) {
  nuv_clfy *rule = nullptr;
  EXPECT_EQ(nuv_clfy_parse(line.c_str(), &rule), 0) << line;
  if (!rule) return nullptr;
  rule->result = result;
  if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = 1;
  return rule;
}

void add_to(nuv_clfy_set &set, nuv_clfy *&last_top, nuv_clfy *&last_child, nuv_clfy *rule, bool as_child) {
  if (as_child && last_top) {
    rule->owner = &set;
    if (last_child) last_child->next = rule;
    else last_top->children = rule;
    last_child = rule;
    return;
  }
  last_top = nuv_clfy_add_tail_after(&set, last_top, rule);
  last_child = nullptr;
}

void build_twins(Rng &rng, int n, bool nested, TwinSets &twins, bool dhcp = true) {
  nuv_clfy *tops[2] = {nullptr, nullptr}, *children[2] = {nullptr, nullptr};
  for (int i = 0; i < n; ++i) {
    Rng same = rng;
    Sample sample;
    const std::string mine = random_rule(same, "cs", sample, dhcp);
    const std::string theirs = random_rule(rng, "rs", sample, dhcp);
    twins.samples.push_back(sample);
    nuv_clfy *a = parsed_rule(mine, static_cast<std::uint16_t>(i + 1));
    nuv_clfy *b = parsed_rule(theirs, static_cast<std::uint16_t>(i + 1));
    ASSERT_TRUE(a && b);
    if (chance(rng, 4)) {
      std::uint8_t map[128] = {};
      map[pick(rng, 4)] = 1;
      ASSERT_EQ(nuv_clfy_add_localmark(a, map), 0);
      ASSERT_EQ(nuv_clfy_add_localmark(b, map), 0);
    }
    const bool as_child = nested && chance(rng, 35);
    add_to(twins.compiled.set, tops[0], children[0], a, as_child);
    add_to(twins.reference.set, tops[1], children[1], b, as_child);
  }
  for (const char *table : {"cs.dst", "rs.dst"}) {
    nuv_clfy_ipdsttab_add4(table, clfytest::ipv4(10, 0, 0, 1));
    nuv_clfy_ipdsttab_add4(table, clfytest::ipv4(192, 168, 1, 7));
  }
}

// Rounds of random sets; each set is compiled and searched for `packets`
// packets beside the reference.  Counts matched packets and learning rounds.
struct Seen {
  int matched = 0;
  int learned = 0;
  int nested_results = 0;
};

enum class Shape { kList, kNested, kOptimised };

void agree(Rng &rng, int rounds, int min_rules, int max_rules, int packets, Shape shape, Seen &seen) {
  for (int round = 0; round < rounds; ++round) {
    TwinSets twins;
    build_twins(rng, min_rules + pick(rng, max_rules - min_rules + 1), shape == Shape::kNested, twins);
    if (shape == Shape::kOptimised) {
      ASSERT_EQ(nuv_clfy_set_optim_in_place(&twins.compiled.set), 0);
      ASSERT_EQ(nuv_clfy_set_optim_in_place(&twins.reference.set), 0);
    }
    Compiled compiled(twins.compiled.set);
    ASSERT_NE(compiled.c, nullptr);
    for (int k = 0; k < packets; ++k) {
      Packet p;
      random_packet(rng, twins.samples, p);
      const std::uint32_t mark = static_cast<std::uint32_t>(pick(rng, 6));
      const nuv_clfy *got = nuv_clfy_compiled_get_clfy(compiled.c, mark, &p.desc);
      const nuv_clfy *want = reference_first(twins.reference.set.head, p.desc, mark);
      ASSERT_EQ(place(twins.compiled.set, got), place(twins.reference.set, want)) << "round " << round << " packet " << k;
      ASSERT_EQ(source_table("cs.known"), source_table("rs.known")) << "round " << round << " packet " << k;
      seen.matched += want != nullptr;
      seen.nested_results += want && !top_level(twins.reference.set, want);
    }
    ASSERT_EQ(hits_of(twins.compiled.set), hits_of(twins.reference.set)) << "round " << round;
    seen.learned += source_table("rs.known").size() > 1;
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
}

class ClfyCompiled : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

int g_executed_result;

int record_execute(nuv_clfy *rule, void *arg, const std::uint8_t *, std::uint16_t, const std::uint8_t *) {
  g_executed_result = rule->result;
  return *static_cast<int *>(arg) + rule->result;
}

// A UDP packet from 10.0.0.1 to 192.168.1.7, port 1000 to `dport`.
void udp_packet(Packet &p, std::uint16_t dport) {
  const std::uint8_t src[4] = {10, 0, 0, 1}, dst[4] = {192, 168, 1, 7};
  p.set_ip(clfytest::ipv4_packet(17, src, dst, clfytest::udp_header(1000, dport)), 0x0800);
}

}  // namespace

TEST_F(ClfyCompiled, ShortListsAgreeWithTheReference) {
  Rng rng(4711);
  Seen seen;
  agree(rng, 150, 1, 12, 40, Shape::kList, seen);
  EXPECT_GT(seen.matched, 1500);
  EXPECT_GT(seen.learned, 5);
}

TEST_F(ClfyCompiled, LongListsAgreeWithTheReference) {
  Rng rng(1848);
  Seen seen;
  agree(rng, 25, 100, 400, 150, Shape::kList, seen);
  EXPECT_GT(seen.matched, 1500);
}

TEST_F(ClfyCompiled, HandMadeTreesAgreeWithTheReference) {
  Rng rng(1989);
  Seen seen;
  agree(rng, 60, 5, 120, 60, Shape::kNested, seen);
  EXPECT_GT(seen.matched, 1000);
  EXPECT_GT(seen.nested_results, 25);
}

TEST_F(ClfyCompiled, OptimisedTreesAgreeWithTheReference) {
  Rng rng(2024);
  Seen seen;
  agree(rng, 40, 10, 200, 60, Shape::kOptimised, seen);
  EXPECT_GT(seen.matched, 800);
}

TEST_F(ClfyCompiled, EmptySetFindsNothing) {
  clfytest::Set set;
  Compiled compiled(set.set);
  Packet p;
  udp_packet(p, 53);
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc), nullptr);
  int arg = 0;
  EXPECT_EQ(nuv_clfy_compiled_execute(compiled.c, &arg, &p.desc), 0);
}

TEST_F(ClfyCompiled, ParentWhoseSubRulesAllMissGivesWayToItsNextSibling) {
  clfytest::Set set;
  nuv_clfy *parent = set.add("ip.proto udp", 1);
  nuv_clfy *child = nullptr;
  ASSERT_EQ(nuv_clfy_parse("udp.dport 80", &child), 0);
  child->result = 2;
  child->owner = &set.set;
  parent->children = child;
  set.add("udp.dport 53", 3);
  Compiled compiled(set.set);
  Packet p;
  udp_packet(p, 53);
  const nuv_clfy *rule = nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc);
  ASSERT_NE(rule, nullptr);
  EXPECT_EQ(rule->result, 3);
  EXPECT_EQ(parent->hits, 1u);  // the parent matched and counts, though it is never the result
  EXPECT_EQ(child->hits, 0u);
}

TEST_F(ClfyCompiled, MarkArgumentReachesClassMapConditions) {
  clfytest::Set set;
  nuv_clfy *rule = set.add("udp.dport 53", 7);
  std::uint8_t map[128] = {};
  map[5] = 1;
  ASSERT_EQ(nuv_clfy_add_localmark(rule, map), 0);
  Compiled compiled(set.set);
  Packet p;
  udp_packet(p, 53);
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc), nullptr);
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(compiled.c, 5, &p.desc), rule);
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(compiled.c, 5 + 128, &p.desc), rule);  // only the low 7 bits count
}

TEST_F(ClfyCompiled, ExecuteCallsTheActionOfTheApplyingRule) {
  const int action = nuv_clfy_register_action("compexec", record_execute, nullptr);
  ASSERT_GT(action, 0);
  clfytest::Set set;
  set.add("udp.dport 80", 1)->action = action;
  set.add("udp.dport 53", 9)->action = action;
  set.add("udp.dport 123", 4);  // no action
  Compiled compiled(set.set);
  Packet p;
  udp_packet(p, 53);
  int arg = 100;
  EXPECT_EQ(nuv_clfy_compiled_execute(compiled.c, &arg, &p.desc), 109);
  EXPECT_EQ(g_executed_result, 9);
  Packet q;
  udp_packet(q, 123);
  EXPECT_EQ(nuv_clfy_compiled_execute(compiled.c, &arg, &q.desc), 0);
}

TEST_F(ClfyCompiled, RuleWithoutConditionsEndsEveryLeafAndCountsNoHits) {
  clfytest::Set set;
  for (int port = 1; port <= 40; ++port) set.add("tcp.dport " + std::to_string(port), static_cast<std::uint16_t>(port));
  nuv_clfy *any = nuv_clfy_alloc();
  any->result = 99;
  nuv_clfy_add_tail(&set.set, any);
  set.add("udp.dport 53", 53);  // behind a rule that takes every packet
  Compiled compiled(set.set);
  Packet p;
  udp_packet(p, 53);
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc), any);
  EXPECT_EQ(any->hits, 0u);
  nuv_clfy_compiled_stats stats{};
  ASSERT_EQ(nuv_clfy_compiled_get_stats(compiled.c, &stats), 0);
  EXPECT_EQ(stats.rules, 42u);
  EXPECT_EQ(stats.lists, 1u);
  EXPECT_GT(stats.nodes, 1u);
  EXPECT_GT(stats.bytes, 0u);
}

TEST_F(ClfyCompiled, CompilingNeedsASetAndAPlaceForTheResult) {
  clfytest::Set set;
  nuv_clfy_compiled *c = nullptr;
  EXPECT_EQ(nuv_clfy_set_compile(nullptr, &c), NUV_CLFY_COMPILE_E_INVALID);
  EXPECT_EQ(nuv_clfy_set_compile(&set.set, nullptr), NUV_CLFY_COMPILE_E_INVALID);
  EXPECT_EQ(c, nullptr);
  nuv_clfy_compiled_stats stats;
  EXPECT_EQ(nuv_clfy_compiled_get_stats(nullptr, &stats), -1);
  nuv_clfy_compiled_free(nullptr);
}

TEST_F(ClfyCompiled, NullCompiledSetOrPacketFindsNothing) {
  clfytest::Set set;
  set.add("udp.dport 53", 5);
  Compiled compiled(set.set);
  Packet p;
  udp_packet(p, 53);
  int arg = 0;
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(nullptr, 0, &p.desc), nullptr);
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(compiled.c, 0, nullptr), nullptr);
  EXPECT_EQ(nuv_clfy_compiled_execute(nullptr, &arg, &p.desc), 0);
  EXPECT_EQ(nuv_clfy_compiled_execute(compiled.c, &arg, nullptr), 0);
  EXPECT_EQ(set.set.head->hits, 0u);
}

TEST_F(ClfyCompiled, SetRecordMayMoveAfterCompiling) {
  auto *first = new clfytest::Set;
  first->add("udp.dport 53", 5);
  nuv_clfy_compiled *c = nullptr;
  ASSERT_EQ(nuv_clfy_set_compile(&first->set, &c), NUV_CLFY_COMPILE_OK);
  clfytest::Set moved;
  std::memcpy(&moved.set, &first->set, sizeof moved.set);
  std::memset(&first->set, 0, sizeof first->set);
  delete first;  // the old record is gone; the rules live on in `moved`
  Packet p;
  udp_packet(p, 53);
  const nuv_clfy *rule = nuv_clfy_compiled_get_clfy(c, 0, &p.desc);
  ASSERT_NE(rule, nullptr);
  EXPECT_EQ(rule->result, 5);
  nuv_clfy_compiled_free(c);
}

TEST_F(ClfyCompiled, EachRefusedAllocationGivesNoMemoryAndLeavesNothing) {
  Rng rng(77);
  TwinSets twins;
  build_twins(rng, 300, true, twins);
  int failures = 0;
  for (long n = 1;; ++n) {
    testsupport::NoLeakGuard guard;
    nuv_clfy_compiled *c = nullptr;
    nuvcsock_fail_nth_allocation(n);
    const int rc = nuv_clfy_set_compile(&twins.compiled.set, &c);
    nuvcsock_fail_nth_allocation(0);
    if (rc == NUV_CLFY_COMPILE_OK) {
      ASSERT_NE(c, nullptr);
      nuv_clfy_compiled_free(c);
      break;
    }
    ASSERT_EQ(rc, NUV_CLFY_COMPILE_E_NO_MEMORY) << "allocation " << n;
    ASSERT_EQ(c, nullptr);
    ++failures;
  }
  EXPECT_GT(failures, 10);
}

TEST_F(ClfyCompiled, SearchAllocatesNothing) {
  Rng rng(31337);
  TwinSets twins;
  build_twins(rng, 200, true, twins, false);
  Compiled compiled(twins.compiled.set);
  std::vector<Packet> packets(300);
  for (Packet &p : packets) random_packet(rng, twins.samples, p);
  // Only DHCP conditions allocate (learning a client may grow its table);
  // a set without them never reaches the allocator while searching.
  const long before = nuvcsock_allocations();
  for (const Packet &p : packets) nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc);
  EXPECT_EQ(nuvcsock_allocations(), before);
}

TEST_F(ClfyCompiled, FreedSetCompiledAgainAfterAChangeSeesTheChange) {
  clfytest::Set set;
  set.add("udp.dport 53", 1);
  nuv_clfy *second = set.add("udp.dport 80", 2);
  Packet p;
  udp_packet(p, 99);
  {
    Compiled before(set.set);
    EXPECT_EQ(nuv_clfy_compiled_get_clfy(before.c, 0, &p.desc), nullptr);
  }
  nuv_clfy_add_ip_dport(second, NUV_CLFY_OP_EQ, clfytest::net16(99), 0);
  Compiled after(set.set);
  EXPECT_EQ(nuv_clfy_compiled_get_clfy(after.c, 0, &p.desc), second);
}

namespace {

// A chain of `levels` rules "udp.dport 53", each the only sub-rule of the
// one before; the innermost has result 99.
void nested_chain(clfytest::Set &set, int levels) {
  nuv_clfy *parent = set.add("udp.dport 53", 1);
  for (int level = 1; level < levels; ++level) {
    nuv_clfy *child = nullptr;
    ASSERT_EQ(nuv_clfy_parse("udp.dport 53", &child), 0);
    child->owner = &set.set;
    child->result = level + 1 == levels ? 99 : static_cast<std::uint16_t>(level + 1);
    parent->children = child;
    parent = child;
  }
}

}  // namespace

TEST_F(ClfyCompiled, SubListsNestedThirtyTwoDeepAreSearched) {
  clfytest::Set set;
  nested_chain(set, 32);
  Compiled compiled(set.set);
  ASSERT_NE(compiled.c, nullptr);
  Packet p;
  udp_packet(p, 53);
  const nuv_clfy *rule = nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc);
  ASSERT_NE(rule, nullptr);
  EXPECT_EQ(rule->result, 99);
  EXPECT_EQ(set.set.head->hits, 1u);
}

TEST_F(ClfyCompiled, DeeperNestingIsRefusedAsTooBig) {
  clfytest::Set set;
  nested_chain(set, 33);
  testsupport::NoLeakGuard guard;
  nuv_clfy_compiled *c = nullptr;
  EXPECT_EQ(nuv_clfy_set_compile(&set.set, &c), NUV_CLFY_COMPILE_E_TOO_BIG);
  EXPECT_EQ(c, nullptr);
}
