// The optimisations must not change verdicts: random rule sets and packets
// (fixed seeds) are classified by the grouped tree and by a plain first-match
// loop over the original rules; single rules before and after normalisation
// must agree on every packet.
#include <gtest/gtest.h>

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

// Pools shared by rules and packets, so that conditions hold often enough.
const char *const kDevs[] = {"eth0", "eth1", "wlan0"};
// Networks overlap, and some share their masked address with a network of
// another length (10.0.0.0/16 and /8, 2001:db8::/29 and /2): only
// conditions of equal length may share a parent.
const char *const kV4Prefixes[] = {"10.0.0.0/8",  "10.1.0.0/16",    "10.0.0.0/16",
                                   "10.0.0.0/24", "192.168.1.0/24", "192.168.1.7",
                                   "192.168.0.0 255.255.0.0", "192.168.1.0/25", "0.0.0.0/0"};
const char *const kV6Prefixes[] = {"2001:db8::/32", "2001:db8:1::/48", "2001:db8::/29", "2001:db8::/2",
                                   "2001:db8::/48", "fe80::/10",       "fe80::/64",     "::/0"};
const std::uint8_t kV4Hosts[][4] = {{10, 0, 0, 1},    {10, 1, 2, 3},   {10, 5, 0, 1},   {10, 0, 7, 1},
                                    {192, 168, 1, 7}, {192, 168, 1, 9}, {192, 168, 1, 200},
                                    {192, 168, 7, 7}, {172, 16, 0, 1}};
const std::uint8_t kV6Hosts[][16] = {
    {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
    {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2},
    {0x20, 0x01, 0x0d, 0xbf, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5},
    {0x20, 0x01, 0x0d, 0xc0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 6},
    {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3},
    {0xfe, 0x80, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 7},
    {0x20, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4},
};
const std::uint16_t kPorts[] = {22, 53, 67, 80, 443, 1000, 1500, 8080, 65535};
const std::uint8_t kMacs[][6] = {{0, 0x11, 0x22, 0x33, 0x44, 0x55}, {0, 0x11, 0x22, 0x99, 0x99, 0x99},
                                 {0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb}};
const char *const kMacTexts[] = {"00:11:22:33:44:55", "00:11:22:99:99:99", "66:77:88:99:aa:bb"};

std::string comparison(Rng &rng) {
  const std::uint16_t a = pick_from(rng, kPorts), b = pick_from(rng, kPorts);
  switch (pick(rng, 8)) {
    case 0: return std::to_string(a) + "-" + std::to_string(b);
    case 1: return "<" + std::to_string(a);
    case 2: return ">=" + std::to_string(a);
    case 3: return "!=" + std::to_string(a);
    case 4: return ">" + std::to_string(a);
    case 5: return "<=" + std::to_string(a);
    default: return std::to_string(a);
  }
}

std::string comparison_list(Rng &rng) {
  std::string list = comparison(rng);
  for (int n = pick(rng, 3); n > 0; --n) list += "," + comparison(rng);
  return list;
}

// A rule line from the common condition pool.  A list keyword splits at
// every later comma of the line, so the comma list comes after all other
// list keywords' values but the VLAN id, which is a single value after it.
std::string random_rule(Rng &rng) {
  std::string line;
  auto add = [&line](const std::string &piece) { line += piece + " "; };
  if (chance(rng, 60)) add(std::string("dev ") + pick_from(rng, kDevs));
  const bool v6 = chance(rng, 30);
  if (chance(rng, 40)) add(std::string("ip.saddr ") + (v6 ? pick_from(rng, kV6Prefixes) : pick_from(rng, kV4Prefixes)));
  if (chance(rng, 30)) add(std::string("ip.daddr ") + (v6 ? pick_from(rng, kV6Prefixes) : pick_from(rng, kV4Prefixes)));
  if (chance(rng, 15)) add("ip.len " + comparison(rng));
  if (chance(rng, 10)) add("ip.tos " + std::to_string(pick(rng, 4) * 0x20));
  if (chance(rng, 10)) add(std::string("eth.source ") + pick_from(rng, kMacTexts));
  if (chance(rng, 10)) add("eth.sourceoui 00:11:22");
  if (chance(rng, 10)) add("icmp.type " + std::to_string(128 + pick(rng, 2)));
  if (chance(rng, 10)) add("ip.version " + std::string(v6 ? "6" : "4"));
  const int transport = pick(rng, 6);
  if (transport == 0) add("ip.proto tcp");
  if (transport == 1) add("ip.proto udp");
  if (transport == 2) add("ip.proto icmp");
  if (transport == 3 && chance(rng, 50)) add("tcp.flags 2/" + std::to_string(pick(rng, 2) ? 2 : 0x12));
  if (transport == 3) add(std::string(chance(rng, 50) ? "tcp.dport " : "tcp.sport ") + comparison_list(rng));
  if (transport == 4) add(std::string(chance(rng, 50) ? "udp.dport " : "udp.sport ") + comparison_list(rng));
  if (chance(rng, 10)) add("vlan.id " + std::to_string(pick(rng, 3) + 1));
  return line;
}

std::int32_t ifindex_of(const char *dev) {
  for (int i = 0; i < 3; ++i)
    if (std::strcmp(dev, kDevs[i]) == 0) return i + 1;
  return 99;
}

void random_packet(Rng &rng, Packet &p) {
  const std::uint8_t proto = pick(rng, 4) == 0 ? 1 : (pick(rng, 2) ? 6 : 17);
  Bytes transport;
  const std::uint16_t sport = pick_from(rng, kPorts), dport = pick_from(rng, kPorts);
  if (proto == 6)
    transport = clfytest::tcp_header(sport, dport, static_cast<std::uint16_t>(pick(rng, 0x40)));
  else if (proto == 17)
    transport = clfytest::udp_header(sport, dport);
  else
    transport = Bytes{static_cast<std::uint8_t>(128 + pick(rng, 2)), 0, 0, 0, 0, 0, 0, 0};
  const std::uint8_t tos = static_cast<std::uint8_t>(pick(rng, 4) * 0x20);
  if (chance(rng, 35)) {
    const std::uint8_t next = proto == 1 ? 58 : proto;
    p.set_ip(clfytest::ipv6_packet(next, pick_from(rng, kV6Hosts), pick_from(rng, kV6Hosts), transport, tos),
             0x86dd);
  } else {
    p.set_ip(clfytest::ipv4_packet(proto, pick_from(rng, kV4Hosts), pick_from(rng, kV4Hosts), transport, tos),
             0x0800);
  }
  p.set_eth(pick_from(rng, kMacs), pick_from(rng, kMacs));
  p.desc.dev_ifindex = static_cast<std::uint32_t>(pick(rng, 3) + 1);
  p.desc.vlan_tci = chance(rng, 50) ? static_cast<std::uint16_t>(NUV_CLFY_VLAN_TAG_PRESENT | (pick(rng, 3) + 1)) : 0;
}

// First match over a flat list, the way the set would be searched without
// any grouping.
const nuv_clfy *first_match(nuv_clfy *head, const Packet &p) {
  for (nuv_clfy *rule = head; rule; rule = rule->next)
    if (nuv_clfy_matches(rule, &p.desc, 0, 0)) return rule;
  return nullptr;
}

}  // namespace

TEST(ClfySetOptimEquivalence, GroupedTreeKeepsEveryVerdict) {
  Rng rng(20240611);
  int verdicts = 0, grouped_sets = 0;
  for (int round = 0; round < 3000; ++round) {
    clfytest::Set src;
    std::vector<std::string> lines;
    const int n = 1 + pick(rng, 12);
    for (int i = 0; i < n; ++i) {
      lines.push_back(random_rule(rng));
      nuv_clfy *rule = src.add(lines.back(), static_cast<std::uint16_t>(i + 1));
      ASSERT_NE(rule, nullptr) << lines.back();
      if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = ifindex_of(rule->dev);
    }
    clfytest::Set dst;
    ASSERT_EQ(nuv_clfy_set_optim(&src.set, &dst.set), 0);
    for (nuv_clfy *top = dst.set.head; top; top = top->next) grouped_sets += top->children != nullptr;
    for (int k = 0; k < 30; ++k) {
      Packet p;
      random_packet(rng, p);
      const nuv_clfy *expected = first_match(src.set.head, p);
      const nuv_clfy *got = nuv_clfy_get_clfy_from_set(&dst.set, 0, &p.desc);
      const int want = expected ? expected->result : 0;
      const int have = got ? got->result : 0;
      if (want != have) {
        std::string rules;
        for (const auto &l : lines) rules += "\n  " + l;
        FAIL() << "round " << round << " packet " << k << ": first match " << want << ", tree " << have
               << "; rules:" << rules;
      }
      verdicts += expected != nullptr;
    }
  }
  // The pools must make rules match and group, or the property says little.
  EXPECT_GT(verdicts, 10000);
  EXPECT_GT(grouped_sets, 1000);
}

// ---- Single-rule normalisation ----

namespace {

// Ranges written backwards ("20-10") or without an upper bound ("20-0") are
// read by normalisation as their writer meant them (10-20, equal 20), which
// changes what the raw entry would have matched; those forms have their own
// tests.  Here ranges are proper, including the bounds 0 and 65535.
void sane_range(std::uint32_t op, std::uint16_t &a, std::uint16_t &b) {
  if (op != NUV_CLFY_OP_RANGE) return;
  if (a > b) std::swap(a, b);
  if (b == 0) b = 1;
}

// A rule as the add functions leave it before normalisation: raw ranges,
// repeated and covered entries.  Addresses are written as networks, since
// a host part under the mask is exactly what normalisation exists to remove.
clfytest::Rule random_raw_rule(Rng &rng) {
  clfytest::Rule rule(nuv_clfy_alloc());
  // Of two bounds in the same direction the looser one is dropped, which
  // narrows the list (its own test below); each list gets at most one bound
  // per direction here.
  auto raw_entry = [&rng](nuv_clfy *r, void (*add)(nuv_clfy *, std::uint32_t, std::uint16_t, std::uint16_t),
                          unsigned &bounds_used) {
    std::uint32_t op = static_cast<std::uint32_t>(pick(rng, 9));
    if (op >= NUV_CLFY_OP_LT && op <= NUV_CLFY_OP_GE) {
      if (bounds_used & (1u << op)) op = NUV_CLFY_OP_EQ;
      bounds_used |= 1u << op;
    }
    std::uint16_t a = chance(rng, 15) ? 0 : pick_from(rng, kPorts);
    std::uint16_t b = chance(rng, 15) ? 0 : pick_from(rng, kPorts);
    sane_range(op, a, b);
    // Ranges from 0 or up to 65535 are bounds too once normalised.
    if (op == NUV_CLFY_OP_RANGE && (a == 0) != (b == 65535)) {
      const unsigned bit = 1u << (a == 0 ? NUV_CLFY_OP_LE : NUV_CLFY_OP_GE);
      if (bounds_used & bit) op = NUV_CLFY_OP_EQ;
      bounds_used |= bit;
    }
    add(r, op, clfytest::net16(a), clfytest::net16(b));
  };
  unsigned sport_bounds = 0, dport_bounds = 0, vlan_bounds = 0;
  for (int n = pick(rng, 4); n > 0; --n) raw_entry(rule.get(), nuv_clfy_add_ip_sport, sport_bounds);
  for (int n = pick(rng, 4); n > 0; --n) raw_entry(rule.get(), nuv_clfy_add_ip_dport, dport_bounds);
  for (int n = pick(rng, 3); n > 0; --n) raw_entry(rule.get(), nuv_clfy_add_vlanid, vlan_bounds);
  if (chance(rng, 30)) {
    rule->flags |= NUV_CLFY_F_IP_LEN;
    const std::uint32_t op = static_cast<std::uint32_t>(pick(rng, 9));
    std::uint16_t a = static_cast<std::uint16_t>(pick(rng, 120)), b = static_cast<std::uint16_t>(pick(rng, 120));
    sane_range(op, a, b);
    rule->ip_len = {op, a, b};
  }
  if (chance(rng, 40)) {
    rule->flags |= NUV_CLFY_F_IP_SADDR;
    rule->ip_saddr_family = 4;
    const std::uint32_t masks[] = {0, clfytest::ipv4(255, 0, 0, 0), clfytest::ipv4(255, 255, 255, 0), 0xffffffffu};
    const std::uint32_t mask = pick_from(rng, masks);
    rule->ip_saddr.v4 = {clfytest::ipv4(192, 168, 1, 7) & mask, mask};
    // A lone 0.0.0.0/0 becomes a rule without conditions (its own test);
    // next to another IP condition the derived Ethernet type keeps IPv4.
    if (!mask) rule->flags |= NUV_CLFY_F_IP_VERSION, rule->ip_version = 4;
  }
  if (chance(rng, 20)) {
    rule->flags |= NUV_CLFY_F_IP_DADDR;
    rule->ip_daddr_family = 6;
    std::memcpy(rule->ip_daddr.v6, kV6Hosts[0], 16);
    rule->ip_daddr_prefixlen = static_cast<std::uint8_t>(pick(rng, 129));
  }
  if (chance(rng, 30)) {
    rule->flags |= NUV_CLFY_F_IP_PROTO;
    rule->ip_proto = chance(rng, 50) ? 6 : 17;
  }
  return rule;
}

}  // namespace

TEST(ClfyOptimEquivalence, NormalisationNeverChangesWhetherARuleMatches) {
  Rng rng(777);
  int matched = 0;
  for (int round = 0; round < 3000; ++round) {
    clfytest::Rule raw = random_raw_rule(rng);
    clfytest::Rule optimised(nuv_clfy_clone(raw.get()));
    ASSERT_TRUE(optimised);
    nuv_clfy_optim(optimised.get());
    for (int k = 0; k < 30; ++k) {
      Packet p;
      random_packet(rng, p);
      const bool before = clfytest::matches(raw.get(), p);
      const bool after = clfytest::matches(optimised.get(), p);
      ASSERT_EQ(before, after) << "round " << round << " packet " << k << ": " << clfytest::text_of(raw.get())
                               << " became " << clfytest::text_of(optimised.get());
      matched += after;
    }
  }
  EXPECT_GT(matched, 5000);
}

TEST(ClfyOptimEquivalence, HostBitsUnderTheMaskAreWhatNormalisationRemoves) {
  // Before normalisation an address with host bits never equals a masked
  // packet address; after it, the rule matches its network.
  clfytest::Rule raw(nuv_clfy_alloc());
  raw->flags = NUV_CLFY_F_IP_SADDR;
  raw->ip_saddr_family = 4;
  raw->ip_saddr.v4 = {clfytest::ipv4(192, 168, 1, 7), clfytest::ipv4(255, 255, 255, 0)};
  Packet p;
  const std::uint8_t src[4] = {192, 168, 1, 7}, dst[4] = {10, 0, 0, 1};
  p.set_ip(clfytest::ipv4_packet(17, src, dst, clfytest::udp_header(1, 2)), 0x0800);
  EXPECT_FALSE(clfytest::matches(raw.get(), p));
  nuv_clfy_optim(raw.get());
  EXPECT_TRUE(clfytest::matches(raw.get(), p));
}

TEST(ClfyOptimEquivalence, LoneZeroMaskBecomesARuleForEveryPacket) {
  // 0.0.0.0/0 holds for every IPv4 address, and with nothing else left the
  // rule has no condition: it then matches IPv6 packets as well.
  clfytest::Rule raw(nuv_clfy_alloc());
  raw->flags = NUV_CLFY_F_IP_SADDR;
  raw->ip_saddr_family = 4;
  raw->ip_saddr.v4 = {0, 0};
  Packet p;
  p.set_ip(clfytest::ipv6_packet(17, kV6Hosts[0], kV6Hosts[1], clfytest::udp_header(1, 2)), 0x86dd);
  EXPECT_FALSE(clfytest::matches(raw.get(), p));
  nuv_clfy_optim(raw.get());
  EXPECT_EQ(raw->flags, 0u);
  EXPECT_TRUE(clfytest::matches(raw.get(), p));
}

TEST(ClfyOptimEquivalence, LooserOfTwoSameDirectionBoundsIsDroppedNarrowingTheList) {
  // ">= 443,>= 1500" keeps only ">= 1500": port 1000 matched before and does
  // not after.  Rule sets rely on the tighter bound being the one kept.
  clfytest::Rule raw(nuv_clfy_alloc());
  raw->ip_proto = 17;
  nuv_clfy_add_ip_dport(raw.get(), NUV_CLFY_OP_GE, clfytest::net16(443), 0);
  nuv_clfy_add_ip_dport(raw.get(), NUV_CLFY_OP_GE, clfytest::net16(1500), 0);
  Packet p;
  const std::uint8_t src[4] = {10, 0, 0, 1}, dst[4] = {10, 0, 0, 2};
  p.set_ip(clfytest::ipv4_packet(17, src, dst, clfytest::udp_header(5, 1000)), 0x0800);
  EXPECT_TRUE(clfytest::matches(raw.get(), p));
  nuv_clfy_optim(raw.get());
  EXPECT_EQ(clfytest::text_of(raw.get()), " udp.dport >= 1500");
  EXPECT_FALSE(clfytest::matches(raw.get(), p));
}
