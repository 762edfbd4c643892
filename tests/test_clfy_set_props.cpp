// Set execution against nuv_clfy_matches rule by rule, on random rules and
// random packets (fixed seed), truncated packets and packets whose length
// fields lie included: the same rule applies, the same hits are counted and
// the same DHCP clients are learned.  The explanation of every rule and
// packet agrees with the matcher too.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"

using clfytest::Bytes;
using clfytest::Packet;

namespace {

using clfytest::chance;
using clfytest::pick;
using clfytest::pick_from;
using clfytest::Rng;

const char *const kV4Prefixes[] = {"10.0.0.0/8", "192.168.1.0/24", "192.168.1.7", "0.0.0.0/0"};
const char *const kV6Prefixes[] = {"2001:db8::/32", "fe80::/10", "2001:db8::1/127"};
const std::uint8_t kV4Hosts[][4] = {{10, 0, 0, 1}, {192, 168, 1, 7}, {192, 168, 1, 9}, {172, 16, 0, 1}};
const std::uint8_t kV6Hosts[][16] = {
    {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
    {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3},
    {0x20, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4},
};
const std::uint16_t kPorts[] = {53, 67, 68, 80, 443, 8080};
const std::uint8_t kMacs[][6] = {{0, 0x11, 0x22, 0x33, 0x44, 0x55}, {0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb}};

// A rule line; `tables` names the set's own source tables, so that two sets
// fed the same packets learn into tables of their own.
std::string random_rule(Rng &rng, const std::string &tables) {
  std::string line;
  auto add = [&line](const std::string &piece) { line += piece + " "; };
  if (chance(rng, 20)) add("dev eth0");
  const bool v6 = chance(rng, 35);
  if (chance(rng, 30)) add(std::string("ip.saddr ") + (v6 ? pick_from(rng, kV6Prefixes) : pick_from(rng, kV4Prefixes)));
  if (chance(rng, 20)) add(std::string("ip.daddr ") + (v6 ? pick_from(rng, kV6Prefixes) : pick_from(rng, kV4Prefixes)));
  if (chance(rng, 10)) add("ip.len >" + std::to_string(20 + pick(rng, 80)));
  if (chance(rng, 10)) add("ip.tos " + std::to_string(pick(rng, 2) * 0x20));
  if (chance(rng, 10)) add("ip.version " + std::string(v6 ? "6" : "4"));
  if (chance(rng, 10)) add("eth.sourceoui 00:11:22");
  if (chance(rng, 10)) add("ethsrctab " + tables + ".known");
  if (chance(rng, 10)) add("icmp.type " + std::to_string(128 + pick(rng, 2)));
  switch (pick(rng, 8)) {
    case 0: add("ip.proto tcp"); break;
    case 1: add("ip.proto udp"); break;
    case 2: add("tcp.flags 2/18"); break;
    case 3: add("tcp.dport " + std::to_string(pick_from(rng, kPorts))); break;
    case 4: add("udp.sport " + std::to_string(pick_from(rng, kPorts)) + "," + std::to_string(pick_from(rng, kPorts))); break;
    case 5: add("dhcpoption 50 192.168.* " + tables + ".known"); break;
    case 6: add("packetmatch *a*"); break;
    default: break;
  }
  if (chance(rng, 10)) add("vlan.id " + std::to_string(1 + pick(rng, 2)));
  return line.empty() ? "any" : line;
}

Bytes transport_part(Rng &rng, std::uint8_t proto) {
  const std::uint16_t sport = pick_from(rng, kPorts), dport = pick_from(rng, kPorts);
  const Bytes payload = chance(rng, 50) ? clfytest::text_bytes("data") : Bytes{};
  if (proto == 6) return clfytest::tcp_header(sport, dport, static_cast<std::uint16_t>(pick(rng, 0x40)), payload);
  if (proto == 17) return clfytest::udp_header(chance(rng, 30) ? 68 : sport, chance(rng, 30) ? 67 : dport,
                                               chance(rng, 40) ? clfytest::random_dhcp_client_message(rng, kMacs) : payload);
  return Bytes{static_cast<std::uint8_t>(128 + pick(rng, 2)), 0, 0, 0, 0, 0, 0, 0};
}

// Lies about lengths: header length nibble, total or payload length, TCP
// data offset; and truncation anywhere.
void distort(Rng &rng, Bytes &b, bool v6) {
  if (chance(rng, 15) && !v6) b[0] = static_cast<std::uint8_t>(0x40 | pick(rng, 16));
  if (chance(rng, 15)) clfytest::put16(b, v6 ? 4 : 2, static_cast<std::uint16_t>(pick(rng, 70000)));
  const std::size_t tcp_offset = (v6 ? 40 : 20) + 12;
  if (chance(rng, 10) && b.size() > tcp_offset) b[tcp_offset] = static_cast<std::uint8_t>(pick(rng, 256));
  if (chance(rng, 25)) b.resize(static_cast<std::size_t>(pick(rng, static_cast<int>(b.size()) + 1)));
}

void random_packet(Rng &rng, Packet &p) {
  const std::uint8_t proto = pick(rng, 4) == 0 ? 1 : (pick(rng, 2) ? 6 : 17);
  Bytes transport = transport_part(rng, proto);
  const bool v6 = chance(rng, 35);
  Bytes b;
  if (v6) {
    const bool hop_by_hop = chance(rng, 20);
    if (hop_by_hop) {
      const Bytes hbh{static_cast<std::uint8_t>(proto == 1 ? 58 : proto), 0, 5, 2, 0, 0, 1, 0};
      transport.insert(transport.begin(), hbh.begin(), hbh.end());
    }
    const std::uint8_t next = hop_by_hop ? 0 : (proto == 1 ? 58 : proto);
    b = clfytest::ipv6_packet(next, pick_from(rng, kV6Hosts), pick_from(rng, kV6Hosts), transport);
  } else {
    b = clfytest::ipv4_packet(proto, pick_from(rng, kV4Hosts), pick_from(rng, kV4Hosts), transport);
  }
  distort(rng, b, v6);
  const std::uint16_t ethertype = chance(rng, 5) ? 0x0806 : (v6 ? 0x86dd : 0x0800);
  p.set_ip(b, ethertype);
  if (chance(rng, 5)) p.desc.ip_header = nullptr;
  if (chance(rng, 90)) p.set_eth(pick_from(rng, kMacs), pick_from(rng, kMacs));
  p.desc.dev_ifindex = static_cast<std::uint32_t>(1 + pick(rng, 2));
  p.desc.vlan_tci = chance(rng, 50) ? static_cast<std::uint16_t>(NUV_CLFY_VLAN_TAG_PRESENT | (1 + pick(rng, 2))) : 0;
}

// The first rule of the list that nuv_clfy_matches accepts, one by one.
nuv_clfy *first_match(nuv_clfy *head, const nuv_clfy_packet &packet) {
  for (nuv_clfy *rule = head; rule; rule = rule->next)
    if (nuv_clfy_matches(rule, &packet, 0, 0)) return rule;
  return nullptr;
}

// Position of `rule` in the list, or -1.
int position(const nuv_clfy *head, const nuv_clfy *rule) {
  int i = 0;
  for (const nuv_clfy *r = head; r; r = r->next, ++i)
    if (r == rule) return i;
  return -1;
}

std::string table_text(const char *name) {
  const ethersrctab *table = nuv_clfy_ethersrctab_find(name);
  if (!table) return "-";
  return std::string(reinterpret_cast<const char *>(table->entries), 6 * table->count);
}

void build(clfytest::Set &set, const std::vector<std::string> &lines) {
  for (const std::string &line : lines) {
    nuv_clfy *rule = set.add(line);
    ASSERT_NE(rule, nullptr) << line;
  }
}

class ClfySetProps : public ::testing::Test {
 protected:
  void TearDown() override { nuv_clfy_ethersrctab_freeall(); }
};

}  // namespace

namespace {

// Rounds of a random list of `min_rules` to `max_rules` rules, each searched
// as a set and rule by rule with nuv_clfy_matches on 40 random packets: the
// same rule applies, the same clients are learned, the same hits counted.
// Counts the packets some rule applied to and the rounds that learned.
struct Agreement {
  int matched = 0;
  int learned = 0;
};

void agree_rule_by_rule(Rng &rng, int rounds, int min_rules, int max_rules, Agreement &seen) {
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::string> set_lines, ref_lines;
    const int n = min_rules + pick(rng, max_rules - min_rules + 1);
    for (int i = 0; i < n; ++i) {
      Rng same = rng;  // the same rule for both, with its own tables
      set_lines.push_back(random_rule(same, "set"));
      ref_lines.push_back(random_rule(rng, "ref"));
    }
    clfytest::Set set, reference;
    build(set, set_lines);
    build(reference, ref_lines);
    for (int k = 0; k < 40; ++k) {
      Packet p;
      random_packet(rng, p);
      const nuv_clfy *got = nuv_clfy_get_clfy_from_set(&set.set, 0, &p.desc);
      const nuv_clfy *want = first_match(reference.set.head, p.desc);
      ASSERT_EQ(position(set.set.head, got), position(reference.set.head, want)) << "round " << round << " packet " << k;
      ASSERT_EQ(table_text("set.known"), table_text("ref.known")) << "round " << round << " packet " << k;
      seen.matched += want != nullptr;
    }
    for (nuv_clfy *a = set.set.head, *b = reference.set.head; a && b; a = a->next, b = b->next)
      ASSERT_EQ(a->hits, b->hits) << "round " << round;
    const ethersrctab *table = nuv_clfy_ethersrctab_find("ref.known");
    seen.learned += table && table->count > 0;
    nuv_clfy_ethersrctab_freeall();
  }
}

}  // namespace

TEST_F(ClfySetProps, SetExecutionAgreesWithTheMatcherRuleByRule) {
  Rng rng(9091);
  Agreement seen;
  agree_rule_by_rule(rng, 400, 1, 10, seen);
  // The pools must make rules match and learn, or the property says little.
  EXPECT_GT(seen.matched, 3000);
  EXPECT_GT(seen.learned, 20);
}

// Lists of eight rules and more are searched through the array kept beside
// the set.
TEST_F(ClfySetProps, LongListsAgreeWithTheMatcherRuleByRule) {
  Rng rng(5150);
  Agreement seen;
  agree_rule_by_rule(rng, 120, 8, 67, seen);
  EXPECT_GT(seen.matched, 2000);
  EXPECT_GT(seen.learned, 10);
}

TEST_F(ClfySetProps, ExplanationAgreesWithTheMatcherOnRandomRulesAndPackets) {
  Rng rng(4242);
  int misses = 0;
  for (int round = 0; round < 3000; ++round) {
    auto rule = clfytest::parse(random_rule(rng, "expl"));
    ASSERT_TRUE(rule);
    if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = 1;
    for (int k = 0; k < 10; ++k) {
      Packet p;
      random_packet(rng, p);
      nuv_clfy_explanation why;
      const std::uint32_t hits = rule->hits;
      const int explained = nuv_clfy_explain(rule.get(), &p.desc, 0, &why);
      ASSERT_EQ(rule->hits, hits);
      const int verdict = nuv_clfy_matches(rule.get(), &p.desc, 0, 0);
      ASSERT_EQ(explained, verdict) << clfytest::text_of(rule.get()) << ": " << why.text;
      ASSERT_EQ(why.text[0] == '\0', verdict == 1) << why.text;
      misses += verdict == 0;
    }
  }
  EXPECT_GT(misses, 10000);
}

// ---- Large optimised sets, whose long runs of siblings are looked up by value ----

namespace {

const std::uint16_t kFewPorts[] = {22, 80, 443};

// Rules in runs of one shape, as configurations list them: networks under
// one mask with one port, hosts with one port, ports alone, and now and then
// a rule of another shape in between.
std::string run_rule(Rng &rng, int shape) {
  const std::string port = std::to_string(pick_from(rng, kFewPorts));
  switch (shape) {
    case 0: return "ip.saddr 10.0." + std::to_string(pick(rng, 4)) + ".0/24 tcp.dport " + port;
    case 1: return "ip.daddr 192.168.1." + std::to_string(pick(rng, 4)) + " udp.dport " + port;
    case 2: return "tcp.dport " + port;
    case 3: return "dev eth0 udp.dport " + port + " ip.len > " + std::to_string(20 + pick(rng, 60));
    // IPv4 and IPv6 in turn: no two neighbours share their Ethernet type, so
    // nothing groups them and the run stays in the list it was written in.
    case 4: return std::string(pick(rng, 2) ? "ip.saddr 10.0.0.0/8" : "ip.saddr 2001:db8::/32") + " tcp.dport " + port;
    default: return pick(rng, 2) ? "ip.proto icmp" : "ip.len > 100";
  }
}

std::vector<std::string> run_rules(Rng &rng, int n, bool alternate_families) {
  std::vector<std::string> lines;
  while (static_cast<int>(lines.size()) < n) {
    const int shape = alternate_families ? 4 : pick(rng, 6);
    const int run = 1 + pick(rng, 40);
    bool v6 = pick(rng, 2);
    for (int i = 0; i < run && static_cast<int>(lines.size()) < n; ++i) {
      if (shape == 4) {
        const std::string port = std::to_string(pick_from(rng, kFewPorts));
        lines.push_back(std::string(v6 ? "ip.saddr 2001:db8::/32" : "ip.saddr 10.0.0.0/8") + " tcp.dport " + port);
        v6 = !v6;
      } else {
        lines.push_back(run_rule(rng, shape));
      }
    }
  }
  return lines;
}

void pool_packet(Rng &rng, Packet &p) {
  const std::uint8_t src[4] = {10, 0, static_cast<std::uint8_t>(pick(rng, 5)), 1};
  const std::uint8_t dst[4] = {192, 168, 1, static_cast<std::uint8_t>(pick(rng, 5))};
  const std::uint8_t proto = pick(rng, 5) == 0 ? 1 : (pick(rng, 2) ? 6 : 17);
  const std::uint16_t sport = 1000, dport = pick_from(rng, kFewPorts);
  Bytes transport = proto == 6    ? clfytest::tcp_header(sport, dport, 0x10)
                    : proto == 17 ? clfytest::udp_header(sport, dport)
                                  : Bytes{128, 0, 0, 0, 0, 0, 0, 0};
  Bytes b = chance(rng, 30) ? clfytest::ipv6_packet(proto == 1 ? 58 : proto, kV6Hosts[0], kV6Hosts[1], transport)
                            : clfytest::ipv4_packet(proto, src, dst, transport);
  const bool v6 = b[0] >> 4 == 6;
  if (chance(rng, 10)) b.resize(static_cast<std::size_t>(pick(rng, static_cast<int>(b.size()) + 1)));
  p.set_ip(b, v6 ? 0x86dd : 0x0800);
  p.desc.dev_ifindex = 1;
}

// The set search written out plainly over the tree with nuv_clfy_matches.
nuv_clfy *tree_first_match(nuv_clfy *rule, const nuv_clfy_packet &packet) {
  for (; rule; rule = rule->next) {
    if (!nuv_clfy_matches(rule, &packet, 0, 0)) continue;
    if (!rule->children) return rule;
    if (nuv_clfy *found = tree_first_match(rule->children, packet)) return found;
  }
  return nullptr;
}

// Hits of the tree's leaves by result.  A leaf whose every condition went
// to its parents has none left and counts no hits (as any rule without
// conditions): it is marked in `uncounted`.
int leaf_hits(const nuv_clfy *rule, std::vector<std::uint32_t> &hits, std::vector<bool> &uncounted) {
  int leaves = 0;
  for (; rule; rule = rule->next) {
    if (rule->children) {
      leaves += leaf_hits(rule->children, hits, uncounted);
      continue;
    }
    if (rule->result < hits.size()) {
      hits[rule->result] = rule->hits;
      uncounted[rule->result] = rule->flags == 0;
    }
    ++leaves;
  }
  return leaves;
}

}  // namespace

TEST_F(ClfySetProps, LargeOptimisedSetsKeepFirstMatchAndHits) {
  Rng rng(777);
  int matched = 0;
  for (int round = 0; round < 40; ++round) {
    const int n = 20 + pick(rng, 400);
    const std::vector<std::string> lines = run_rules(rng, n, round % 4 == 3);
    clfytest::Set list, tree;
    for (int i = 0; i < n; ++i) ASSERT_NE(list.add(lines[i], static_cast<std::uint16_t>(i + 1)), nullptr) << lines[i];
    ASSERT_EQ(nuv_clfy_set_optim(&list.set, &tree.set), 0);
    for (int k = 0; k < 200; ++k) {
      Packet p;
      pool_packet(rng, p);
      const nuv_clfy *want = first_match(list.set.head, p.desc);
      const nuv_clfy *got = nuv_clfy_get_clfy_from_set(&tree.set, 0, &p.desc);
      ASSERT_EQ(got ? got->result : 0, want ? want->result : 0) << "round " << round << " packet " << k;
      matched += want != nullptr;
    }
    std::vector<std::uint32_t> tree_hits(n + 1, 0), list_hits(n + 1, 0);
    std::vector<bool> uncounted(n + 1, false);
    ASSERT_EQ(leaf_hits(tree.set.head, tree_hits, uncounted), n);
    for (const nuv_clfy *r = list.set.head; r; r = r->next) list_hits[r->result] = uncounted[r->result] ? 0 : r->hits;
    ASSERT_EQ(tree_hits, list_hits) << "round " << round;
  }
  EXPECT_GT(matched, 3000);
}

TEST_F(ClfySetProps, OptimisedSetChangedThroughTheSetFunctionsIsSearchedAsItIsNow) {
  Rng rng(31337);
  for (int round = 0; round < 40; ++round) {
    const std::vector<std::string> lines = run_rules(rng, 30 + pick(rng, 100), round % 2 == 0);
    clfytest::Set list, tree;
    for (std::size_t i = 0; i < lines.size(); ++i) ASSERT_NE(list.add(lines[i], static_cast<std::uint16_t>(i + 1)), nullptr);
    ASSERT_EQ(nuv_clfy_set_optim(&list.set, &tree.set), 0);
    for (int change = 0; change < 12; ++change) {
      const int what = pick(rng, 4);
      if (what == 0 || what == 1) {
        nuv_clfy *rule = nullptr;
        ASSERT_EQ(nuv_clfy_parse(run_rule(rng, pick(rng, 6)).c_str(), &rule), 0);
        rule->result = static_cast<std::uint16_t>(1000 + change);
        if (what == 0) nuv_clfy_add_tail(&tree.set, rule);
        else nuv_clfy_add_head(&tree.set, rule);
      } else if (tree.set.head) {
        int at = pick(rng, 5);
        nuv_clfy *victim = tree.set.head;
        while (at-- > 0 && victim->next) victim = victim->next;
        ASSERT_EQ(nuv_clfy_del_and_free(&tree.set, victim), 0);
      }
      for (int k = 0; k < 40; ++k) {
        Packet p;
        pool_packet(rng, p);
        const nuv_clfy *want = tree_first_match(tree.set.head, p.desc);
        const nuv_clfy *got = nuv_clfy_get_clfy_from_set(&tree.set, 0, &p.desc);
        ASSERT_EQ(got, want) << "round " << round << " change " << change << " packet " << k;
      }
    }
  }
}
