// Random configurations and peer stores (fixed seeds): construction stays
// inside the message, leaves the fixed header alone, returns a length that
// fits the options space, releases its working storage, and whatever it
// puts into the options field without overload parses back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
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

// The options space as the peer's maximum message size implies it.
int expected_space(const dhcp_option *store, bool short_area) {
  if (store && store[57].data && store[57].len >= 2) {
    const int size = store[57].data[0] << 8 | store[57].data[1];
    return std::clamp(size - 264, 312, 4096);
  }
  return short_area ? 64 : 312;
}

void add_random_option(DhcpConfigBuilder &cfg, std::mt19937 &rng) {
  static const int kStrings[] = {12, 14, 15, 17, 18, 40, 47, 56, 60, 64, 66, 67};
  static const int kAddressLists[] = {3, 4, 5, 6, 41, 42, 44, 65, 68, 69};
  static const int kScalars8[] = {23, 37, 46, 52, 53};
  static const int kScalars32[] = {1, 2, 16, 19, 24, 28, 51, 54, 58, 59};
  switch (rng() % 8) {
    case 0: cfg.add_string(kStrings[rng() % 12], std::string(rng() % 600, static_cast<char>('a' + rng() % 26))); break;
    case 1: {
      dhcpoptions_record *r = cfg.add(kAddressLists[rng() % 10]);
      ipaddr_tab **tail = &r->value.ipaddrs;
      for (unsigned n = rng() % 90; n > 0; --n) {
        *tail = cfg.addr_list({static_cast<std::uint32_t>(rng())});
        tail = &(*tail)->next;
      }
      break;
    }
    case 2: cfg.add_u8(kScalars8[rng() % 5], static_cast<std::uint8_t>(rng())); break;
    case 3: cfg.add_u32(kScalars32[rng() % 10], static_cast<std::uint32_t>(rng())); break;
    case 4: cfg.add(rng() % 2 ? 43 : 82)->value.suboptions = cfg.sub_list({{1, std::string(rng() % 300, 's')}, {2, "x"}}); break;
    case 5: cfg.add(158)->value.pcp_servers = cfg.pcp_list({{1, 2}, {}, {3}}); break;
    case 6: cfg.add(rng() % 2 ? 121 : 249)->value.routes = cfg.route_list({{static_cast<std::uint32_t>(rng()), static_cast<std::uint8_t>(rng() % 40), 7}}); break;
    default: cfg.add(static_cast<int>(rng() % 256)); break;
  }
}

void fill_random_store(const dhcp_memops *ops, dhcp_options store, std::mt19937 &rng) {
  std::memset(store, 0, sizeof(dhcp_options));
  for (unsigned n = rng() % 6; n > 0; --n) {
    Bytes value(rng() % 400);
    for (auto &b : value) b = static_cast<std::uint8_t>(rng());
    int code = static_cast<int>(1 + rng() % 254);
    if (rng() % 3 == 0) code = 55;
    if (rng() % 4 == 0) {
      code = 57;
      value.resize(2);
    }
    ASSERT_EQ(dhcp_set_option(ops, store, code, static_cast<uint32_t>(value.size()), value.data()), 0);
  }
}

}  // namespace

TEST(DhcpConsProperties, RandomConstructionsStayInsideTheMessage) {
  std::mt19937 rng(0x6b1d);
  for (int round = 0; round < 1500; ++round) {
    SCOPED_TRACE(round);
    DhcpTestMemops mem;
    DhcpConfigBuilder cfg(mem.ops());
    for (unsigned n = rng() % 12; n > 0; --n) add_random_option(cfg, rng);
    dhcp_options peer;
    const bool with_store = rng() % 3 != 0;
    if (with_store) fill_random_store(mem.ops(), peer, rng);
    const int overload = static_cast<int>(rng() % 4);
    const int textnul = static_cast<int>(rng() % 2);
    const bool short_area = rng() % 2;
    const int space = expected_space(with_store ? peer : nullptr, short_area);

    // Exactly the message the space needs: nothing after it may be written.
    Bytes msg(240 + static_cast<std::size_t>(space), 0xCC);
    const long live = mem.live();
    const int length = dhcp_cons_options(mem.ops(), with_store ? peer : nullptr, msg.data(), cfg.head(), overload,
                                         textnul, short_area);
    EXPECT_EQ(mem.live(), live);
    EXPECT_TRUE(length == 243 || (length > 240 && length <= 240 + space)) << length;
    EXPECT_TRUE(std::all_of(msg.begin(), msg.begin() + 44, [](std::uint8_t b) { return b == 0xCC; }));
    EXPECT_EQ(Bytes(msg.begin() + 236, msg.begin() + 240), testsupport::hex_bytes("63 82 53 63"));
    if (length != 243) {
      // Not overloaded: the options field parses as one area (fragments of
      // configured options never cross its end).  A copied peer option
      // longer than a length byte can say is the exception.
      Bytes area(msg.begin() + 240, msg.begin() + length);
      area.push_back(0);
      dhcp_options parsed;
      std::memset(parsed, 0, sizeof parsed);
      const bool copied_long_store_option =
          with_store && std::any_of(std::begin(peer), std::end(peer), [](const dhcp_option &o) { return o.len > 255; });
      const int rc = dhcp_parse_option_buffer(mem.ops(), area.data(), length - 240, parsed);
      if (!copied_long_store_option) {
        EXPECT_EQ(rc, 0);
      }
      dhcp_free_options(mem.ops(), parsed);
    }
    if (with_store) dhcp_free_options(mem.ops(), peer);
  }
}
