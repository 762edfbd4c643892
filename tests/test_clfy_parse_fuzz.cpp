// Hostile rule text and hostile packets (fixed seeds): the parser answers 0
// or -1 and keeps nothing of a refused line, the matcher reads nothing past
// the bytes the descriptor announces (AddressSanitizer builds check that).
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "clfy_rule_ptr.h"
#include "clfy_testing.h"
#include "nikerkiog.h"
#include "testsupport.h"

namespace {

using clfytest::pick;
using clfytest::Rng;

const char *const kPieces[] = {
    "dev ", "brdev ", "ethport ", "localmark ", "eth.proto ", "eth.source ", "eth.sourceoui ", "eth.dest ",
    "vlan.id ", "vlan.prio ", "ethsrctab ", "ip.version ", "ip.proto ", "ip.tos ", "ip.saddr ", "ip.daddr ",
    "ipdsttab ", "ip.len ", "udp.sport ", "tcp.dport ", "tcp.flags ", "icmp.type ", "dhcpoption ", "dhcpheader ",
    "packetmatch ", "any ", "=", "==", "!=", "<", ">=", "-", ",", "/", " ", "  ", "0x", "80", "65535", "99999",
    "10.0.0.1", "255.255.0.0", "fe80::", "::1", "00:11:22:33:44:55", "00:1", "tcp", "udp", "voice", "*", "?",
    "125/3561/1", "60", "chaddr", "lan.tab", "\t", "\xff", "ip.", ".", "P6"};

std::string random_line(Rng &rng) {
  std::string line;
  const int n = pick(rng, 14);
  for (int i = 0; i < n; ++i) {
    if (pick(rng, 8) == 0)
      line += static_cast<char>(1 + pick(rng, 255));
    else
      line += kPieces[pick(rng, static_cast<int>(std::size(kPieces)))];
  }
  return line;
}

}  // namespace

TEST(ClfyParseFuzz, RandomLinesAreParsedOrRefusedCleanly) {
  Rng rng(1234567);
  int accepted = 0, refused = 0;
  // Tables named by accepted lines stay; they are released at the end.
  for (int round = 0; round < 20000; ++round) {
    const std::string line = random_line(rng);
    const long before = testsupport::live_blocks().slab;
    nuv_clfy *rule = nullptr;
    const int rc = nuv_clfy_parse(line.c_str(), &rule);
    ASSERT_TRUE(rc == 0 || rc == -1) << line;
    if (rc == 0) {
      const testsupport::ClfyRulePtr owned(rule);  // freed before the count below
      ++accepted;
      char text[512];
      nuv_clfy_as_string(3, rule, text, sizeof text);
    } else {
      ++refused;
      EXPECT_EQ(rule, nullptr);
    }
    // Only named tables may outlive the call.
    const long after = testsupport::live_blocks().slab;
    if (after != before) {
      ASSERT_TRUE(line.find("tab") != std::string::npos || line.find("dhcp") != std::string::npos) << line;
    }
  }
  EXPECT_GT(accepted, 500);
  EXPECT_GT(refused, 500);
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}

TEST(ClfyMatchFuzz, RandomPacketsAreClassifiedWithinTheirBytes) {
  Rng rng(42);
  clfytest::Set set;
  const char *const rules[] = {"icmp.type 135",
                               "tcp.flags 2/2 packetmatch *x*",
                               "udp.dport 67 packetmatch *",
                               "ip.saddr 10.0.0.0/8 tcp.sport 80",
                               "ip.daddr fe80::/10 udp.sport 546",
                               "dhcpoption 60 * fuzz.clients",
                               "dhcpheader chaddr * fuzz.hosts",
                               "ip.len > 100 ip.tos 0/0",
                               "ipdsttab fuzz.dsts",
                               "ip.proto P0"};
  for (const char *text : rules) ASSERT_NE(set.add(text), nullptr) << text;
  ASSERT_EQ(nuv_clfy_ipdsttab_add4("fuzz.dsts", clfytest::ipv4(10, 0, 0, 1)), 0);
  int matched = 0;
  for (int round = 0; round < 20000; ++round) {
    // A plausible header with random bytes and a random length behind it.
    const bool v6 = pick(rng, 2);
    const std::size_t size = static_cast<std::size_t>(pick(rng, 400));
    clfytest::Bytes bytes(size);
    for (auto &b : bytes) b = static_cast<std::uint8_t>(pick(rng, 256));
    if (size > 0) bytes[0] = static_cast<std::uint8_t>(v6 ? 0x60 : 0x40 | (pick(rng, 3) ? 5 : pick(rng, 16)));
    if (size > 9 && !v6) bytes[9] = static_cast<std::uint8_t>(pick(rng, 2) ? 17 : 6);
    if (size > 6 && v6) {
      const std::uint8_t next[] = {0, 6, 17, 58, 60, 43, 44};
      bytes[6] = next[pick(rng, 7)];
    }
    if (size > 28 + 240 && !v6 && pick(rng, 2)) {
      // A DHCP message: cookie in place, options as random as the rest.
      bytes[0] = 0x45;
      bytes[9] = 17;
      bytes[22] = 0;
      bytes[23] = 67;
      const std::uint8_t cookie[4] = {0x63, 0x82, 0x53, 0x63};
      std::memcpy(&bytes[28 + 236], cookie, 4);
      bytes[28 + 240] = 53;
    }
    clfytest::Packet p;
    p.set_ip(bytes, v6 ? 0x86dd : 0x0800);
    matched += nuv_clfy_get_clfy_from_set(&set.set, 0, &p.desc) != nullptr;
  }
  EXPECT_GT(matched, 100);
  nuv_clfy_del_and_free_all(&set.set);
  nuv_clfy_ethersrctab_freeall();
  nuv_clfy_ipdsttab_freeall();
}
