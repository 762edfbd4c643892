// Options built from configuration records of every member type parse back
// into the values the member types stand for, in every options space, with
// and without overload, with and without terminated text options.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "dhcp_cfgbuild.h"
#include "dhcp_testmemops.h"
#include "nuvdhcp.h"
#include "nuvdhcpcfg.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;
using testsupport::DhcpConfigBuilder;
using testsupport::DhcpTestMemops;
using testsupport::hex_bytes;

// Options whose values are text (they get the NUL with textnul).
const std::set<int> kTextCodes = {12, 14, 15, 17, 18, 40, 47, 56, 60, 77};

struct Configured {
  int code;
  std::function<void(DhcpConfigBuilder &)> add;
  Bytes wire;  // the value on the wire
};

Bytes seventy_addresses() {
  Bytes b;
  for (int i = 0; i < 70; ++i) b.insert(b.end(), {10, 1, 0, static_cast<std::uint8_t>(i)});
  return b;
}

// One configured option per member type and per structured option.
std::vector<Configured> every_member_type() {
  return {
      {53, [](DhcpConfigBuilder &c) { c.add_u8(53, 5); }, hex_bytes("05")},
      {54, [](DhcpConfigBuilder &c) { c.add_addr(54, 0xC0A80101); }, hex_bytes("c0 a8 01 01")},
      {51, [](DhcpConfigBuilder &c) { c.add_i32(51, 86400); }, hex_bytes("00 01 51 80")},
      {1, [](DhcpConfigBuilder &c) { c.add_addr(1, 0xFFFFFF00); }, hex_bytes("ff ff ff 00")},
      {2, [](DhcpConfigBuilder &c) { c.add_i32(2, -3600); }, hex_bytes("ff ff f1 f0")},
      {3, [](DhcpConfigBuilder &c) { c.add_addrs(3, {0xC0A80101}); }, hex_bytes("c0 a8 01 01")},
      {6, [](DhcpConfigBuilder &c) { c.add_addrs(6, {0x08080808, 0x01010101}); },
       hex_bytes("08 08 08 08 01 01 01 01")},
      {12, [](DhcpConfigBuilder &c) { c.add_string(12, "box"); }, hex_bytes("62 6f 78")},
      {13, [](DhcpConfigBuilder &c) { c.add_u16(13, 0x1234); }, hex_bytes("12 34")},
      {15, [](DhcpConfigBuilder &c) { c.add_string(15, "lan"); }, hex_bytes("6c 61 6e")},
      {19, [](DhcpConfigBuilder &c) { c.add_i32(19, 1); }, hex_bytes("00 00 00 01")},
      {21, [](DhcpConfigBuilder &c) { c.add(21)->value.ipnets = c.net_list({{0x0A000000, 0xFF000000}}); },
       hex_bytes("0a 00 00 00 ff 00 00 00")},
      {23, [](DhcpConfigBuilder &c) { c.add_u8(23, 64); }, hex_bytes("40")},
      {25, [](DhcpConfigBuilder &c) { c.add(25)->value.words = c.word_list({576, 1500}); }, hex_bytes("02 40 05 dc")},
      {33, [](DhcpConfigBuilder &c) { c.add(33)->value.ipnets = c.net_list({{0xC0A80200, 0xC0A80101}}); },
       hex_bytes("c0 a8 02 00 c0 a8 01 01")},
      {42, [](DhcpConfigBuilder &c) {
         dhcpoptions_record *r = c.add(42);
         ipaddr_tab **tail = &r->value.ipaddrs;
         for (std::uint32_t i = 0; i < 70; ++i) {
           *tail = c.addr_list({0x0A010000 | i});
           tail = &(*tail)->next;
         }
       },
       seventy_addresses()},
      {43, [](DhcpConfigBuilder &c) { c.add(43)->value.suboptions = c.sub_list({{1, "ab"}, {2, "", false}, {3, "xyz"}}); },
       hex_bytes("01 02 61 62 03 03 78 79 7a")},
      {55, [](DhcpConfigBuilder &c) { c.add(55)->value.bytes = c.byte_list({1, 3, 6, 15}); }, hex_bytes("01 03 06 0f")},
      {57, [](DhcpConfigBuilder &c) { c.add_u16(57, 1500); }, hex_bytes("05 dc")},
      {60, [](DhcpConfigBuilder &c) { c.add_string(60, "router-1"); }, hex_bytes("72 6f 75 74 65 72 2d 31")},
      {61, [](DhcpConfigBuilder &c) { c.add(61)->value.bytes = c.byte_list({1, 0, 0x11, 0x22, 0x33, 0x44, 0x55}); },
       hex_bytes("01 00 11 22 33 44 55")},
      {67, [](DhcpConfigBuilder &c) { c.add_string(67, "pxelinux.0"); }, hex_bytes("70 78 65 6c 69 6e 75 78 2e 30")},
      {82, [](DhcpConfigBuilder &c) { c.add(82)->value.suboptions = c.sub_list({{1, "eth0"}, {2, std::string("\x00\x11", 2)}}); },
       hex_bytes("01 04 65 74 68 30 02 02 00 11")},
      {121, [](DhcpConfigBuilder &c) {
         c.add(121)->value.routes = c.route_list({{0x0A000000, 8, 0x0A000001}, {0, 0, 0xC0A80001}});
       },
       hex_bytes("08 0a 0a 00 00 01 00 c0 a8 00 01")},
      {249, [](DhcpConfigBuilder &c) { c.add(249)->value.routes = c.route_list({{0xAC100000, 12, 0xC0A80001}}); },
       hex_bytes("0c ac 10 c0 a8 00 01")},
      {124, [](DhcpConfigBuilder &c) { c.add(124)->value.vendors = c.vendor_list({{3561, {{1, "a"}}}}); },
       hex_bytes("00 00 0d e9 03 01 01 61")},
      {125, [](DhcpConfigBuilder &c) { c.add(125)->value.vendors = c.vendor_list({{4491, {{1, "cfg"}, {2, "xy"}}}}); },
       hex_bytes("00 00 11 8b 09 01 03 63 66 67 02 02 78 79")},
      {158, [](DhcpConfigBuilder &c) { c.add(158)->value.pcp_servers = c.pcp_list({{0x0A000001, 0x0A000002}, {0x0A000003}}); },
       hex_bytes("08 0a 00 00 01 0a 00 00 02 04 0a 00 00 03")},
      {212, [](DhcpConfigBuilder &c) {
         dhcpoptions_record *r = c.add(212);
         r->value.sixrd.ipv4masklen = 8;
         r->value.sixrd.prefixlen = 32;
         std::memcpy(r->value.sixrd.prefix, "\x20\x01\x0d\xb8", 4);
         r->value.sixrd.borderrouter = c.addr_list({0xC0000201});
       },
       hex_bytes("08 20 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 00 c0 00 02 01")},
  };
}

// Whether `p` is a run of prefixes of `v` that together are as long as `v`:
// the form a value split into fragments takes, each fragment repeating the
// value's first bytes.
bool is_prefix_run(const Bytes &p, const Bytes &v) {
  if (p.size() != v.size()) return false;
  std::vector<bool> reachable(p.size() + 1, false);
  reachable[0] = true;
  for (std::size_t i = 0; i < p.size(); ++i) {
    if (!reachable[i]) continue;
    for (std::size_t n = 0; i + n < p.size() && p[i + n] == v[n]; ++n) reachable[i + n + 1] = true;
  }
  return reachable[p.size()];
}

struct RoundTripCase {
  int space;
  int overload;
  int textnul;
};

std::string case_name(const ::testing::TestParamInfo<RoundTripCase> &info) {
  return "Space" + std::to_string(info.param.space) + (info.param.overload ? "Overload" : "NoOverload") +
         (info.param.textnul ? "TextNul" : "");
}

class DhcpConsRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

// Overload runs first fill the options field up to where it is cut for
// `file` (space - 7 buffer bytes) with opaque fillers, so that the options
// under test all land in `file`.
TEST_P(DhcpConsRoundTrip, ValuesParseBack) {
  const RoundTripCase rt = GetParam();
  DhcpTestMemops mem;
  DhcpConfigBuilder cfg(mem.ops());
  dhcp_options peer;
  std::memset(peer, 0, sizeof peer);

  Bytes request;
  std::map<int, Bytes> expected;
  if (rt.overload) {
    const int total = rt.space - 7;
    int n = 0;
    auto used = [](int len) { return len + 2 * ((len + 254) / 255); };
    while (used(n + 1) <= total - 3) ++n;
    cfg.add_string(64, std::string(static_cast<std::size_t>(n), 'f'));
    cfg.add_string(66, std::string(static_cast<std::size_t>(total - used(n) - 2), 'g'));
    request = {64, 66};
  }
  for (const Configured &c : every_member_type()) {
    // The leading codes would go before the fillers.
    if (rt.overload && (c.code == 53 || c.code == 54 || c.code == 51)) continue;
    c.add(cfg);
    request.push_back(static_cast<std::uint8_t>(c.code));
    Bytes wire = c.wire;
    if (rt.textnul && kTextCodes.count(c.code)) wire.push_back(0);
    expected[c.code] = wire;
  }
  ASSERT_EQ(dhcp_set_option(mem.ops(), peer, 55, static_cast<uint32_t>(request.size()), request.data()), 0);
  if (rt.space > 312) {
    const unsigned size = static_cast<unsigned>(rt.space) + 264;
    const std::uint8_t max_size[2] = {static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)};
    ASSERT_EQ(dhcp_set_option(mem.ops(), peer, 57, 2, max_size), 0);
  }

  Bytes msg(240 + 4096 + 1, 0);
  const int length = dhcp_cons_options(mem.ops(), peer, msg.data(), cfg.head(), rt.overload, rt.textnul,
                                       rt.space == 64);
  dhcp_free_options(mem.ops(), peer);
  ASSERT_GT(length, 240);
  EXPECT_EQ(length == 243, rt.overload != 0);

  dhcp_options parsed;
  const int msglen = length == 243 ? 240 + rt.space : length;
  ASSERT_EQ(dhcp_parse_options(mem.ops(), msg.data(), msglen, parsed), 0);

  int present = 0;
  for (const auto &[code, wire] : expected) {
    const dhcp_option &slot = parsed[code];
    if (!slot.data) continue;
    ++present;
    SCOPED_TRACE(code);
    const Bytes got(slot.data, slot.data + slot.len);
    if (!rt.overload && wire.size() <= 255) {
      EXPECT_EQ(got, wire);
    } else if (rt.textnul && kTextCodes.count(code)) {
      ASSERT_FALSE(got.empty());
      EXPECT_EQ(got.back(), 0);
      EXPECT_TRUE(is_prefix_run(Bytes(got.begin(), got.end() - 1), Bytes(wire.begin(), wire.end() - 1)));
    } else {
      EXPECT_TRUE(is_prefix_run(got, wire)) << testsupport::to_hex(got.data(), got.size());
    }
  }
  // Nothing else: fillers, and option 52 when overloading.
  for (int code = 0; code < 256; ++code) {
    if (!parsed[code].data || expected.count(code)) continue;
    if (rt.overload && (code == 64 || code == 66)) continue;
    if (rt.overload && code == 52) {
      EXPECT_EQ(parsed[52].len, 1u);
      EXPECT_EQ(parsed[52].data[0], 1);
      continue;
    }
    ADD_FAILURE() << "unexpected option " << code;
  }
  if (rt.space >= 1236 && !rt.overload) {
    EXPECT_EQ(present, static_cast<int>(expected.size()));
  }
  EXPECT_GT(present, 0);
  dhcp_free_options(mem.ops(), parsed);
}

INSTANTIATE_TEST_SUITE_P(Spaces, DhcpConsRoundTrip,
                         ::testing::Values(RoundTripCase{64, 0, 0}, RoundTripCase{64, 0, 1}, RoundTripCase{64, 1, 0},
                                           RoundTripCase{64, 1, 1}, RoundTripCase{312, 0, 0}, RoundTripCase{312, 0, 1},
                                           RoundTripCase{312, 1, 0}, RoundTripCase{312, 1, 1},
                                           RoundTripCase{1236, 0, 0}, RoundTripCase{1236, 0, 1},
                                           RoundTripCase{1236, 1, 0}, RoundTripCase{1236, 1, 1},
                                           RoundTripCase{4096, 0, 0}, RoundTripCase{4096, 0, 1},
                                           RoundTripCase{4096, 1, 0}, RoundTripCase{4096, 1, 1}),
                         case_name);

TEST(DhcpConsRoundTripCheck, PrefixRunAcceptsRepeatedStartsAndRejectsOthers) {
  EXPECT_TRUE(is_prefix_run(hex_bytes("01 02 01"), hex_bytes("01 02 03")));
  EXPECT_TRUE(is_prefix_run(hex_bytes("01 02 03"), hex_bytes("01 02 03")));
  EXPECT_FALSE(is_prefix_run(hex_bytes("01 02 02"), hex_bytes("01 02 03")));
  EXPECT_FALSE(is_prefix_run(hex_bytes("01 02"), hex_bytes("01 02 03")));
}

}  // namespace
