// A classifier rule built condition by condition in tests, without the
// rule text parser: each setter stores the value and the presence bit the
// way a parsed rule holds them.  Values are given in host byte order.
#ifndef NIKERKIOG_CLFY_RULE_BUILDER_H
#define NIKERKIOG_CLFY_RULE_BUILDER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <utility>

#include "clfy_rule_ptr.h"
#include "nikerkiog.h"

namespace testsupport {

// A rule owned by the test, with helpers that set one condition each the
// way the rule text parser does (value and presence bit).
struct ClfyRule {
  ClfyRulePtr owned{nuv_clfy_alloc()};
  ClfyRule() = default;
  // Takes over a rule made elsewhere (parsed or cloned).
  explicit ClfyRule(ClfyRulePtr rule) : owned(std::move(rule)) {}
  nuv_clfy *get() const { return owned.get(); }
  nuv_clfy *operator->() const { return owned.get(); }
  operator const nuv_clfy *() const { return owned.get(); }
  // Hands the rule over to the caller (a rule set, say).
  nuv_clfy *release() { return owned.release(); }

  ClfyRule &dev(const char *name) {
    std::strncpy(get()->dev, name, 16);
    get()->dev_ifindex = -1;
    get()->flags |= NUV_CLFY_F_DEV;
    return *this;
  }
  ClfyRule &brdev(const char *name) {
    std::strncpy(get()->brdev, name, 16);
    get()->flags |= NUV_CLFY_F_BRDEV;
    return *this;
  }
  ClfyRule &localmark(int cls) {
    uint8_t map[128] = {};
    map[cls] = 1;
    nuv_clfy_add_localmark(get(), map);
    return *this;
  }
  ClfyRule &eth_proto(uint16_t type) {
    get()->eth_proto = htons(type);
    get()->flags |= NUV_CLFY_F_ETH_PROTO;
    return *this;
  }
  ClfyRule &eth_source(const uint8_t (&mac)[6]) {
    std::memcpy(get()->eth_source, mac, 6);
    get()->flags |= NUV_CLFY_F_ETH_SOURCE;
    return *this;
  }
  ClfyRule &eth_sourceoui(const uint8_t (&oui)[3]) {
    std::memcpy(get()->eth_source, oui, 3);
    get()->flags |= NUV_CLFY_F_ETH_SOURCEOUI;
    return *this;
  }
  ClfyRule &eth_dest(const uint8_t (&mac)[6]) {
    std::memcpy(get()->eth_dest, mac, 6);
    get()->flags |= NUV_CLFY_F_ETH_DEST;
    return *this;
  }
  ClfyRule &eth_destoui(const uint8_t (&oui)[3]) {
    std::memcpy(get()->eth_dest, oui, 3);
    get()->flags |= NUV_CLFY_F_ETH_DESTOUI;
    return *this;
  }
  ClfyRule &ethsrctab(const char *name) {
    get()->ethsrctab = nuv_clfy_ethersrctab_find_or_create(name);
    get()->flags |= NUV_CLFY_F_ETHSRCTAB;
    return *this;
  }
  ClfyRule &vlan(uint32_t op, uint16_t v1, uint16_t v2 = 0) {
    nuv_clfy_add_vlanid(get(), op, htons(v1), htons(v2));
    return *this;
  }
  ClfyRule &vlan_prio(uint8_t prio) {
    get()->vlan_prio = prio;
    get()->flags |= NUV_CLFY_F_VLAN_PRIO;
    return *this;
  }
  ClfyRule &ip_version(uint8_t v) {
    get()->ip_version = v;
    get()->flags |= NUV_CLFY_F_IP_VERSION;
    return *this;
  }
  ClfyRule &proto(uint8_t p) {
    get()->ip_proto = p;
    get()->flags |= NUV_CLFY_F_IP_PROTO;
    return *this;
  }
  ClfyRule &tos(uint8_t value, uint8_t mask) {
    get()->ip_tos = value;
    get()->ip_tos_mask = mask;
    get()->flags |= NUV_CLFY_F_IP_TOS;
    return *this;
  }
  ClfyRule &len(uint32_t op, uint16_t v1, uint16_t v2 = 0) {
    get()->ip_len = nuv_clfy_value{op, v1, v2};
    get()->flags |= NUV_CLFY_F_IP_LEN;
    return *this;
  }
  ClfyRule &saddr4(const char *addr, const char *mask) {
    inet_pton(AF_INET, addr, &get()->ip_saddr.v4.addr);
    inet_pton(AF_INET, mask, &get()->ip_saddr.v4.mask);
    get()->ip_saddr_family = 4;
    get()->flags |= NUV_CLFY_F_IP_SADDR;
    return *this;
  }
  ClfyRule &saddr6(const char *addr, uint8_t prefixlen) {
    inet_pton(AF_INET6, addr, get()->ip_saddr.v6);
    get()->ip_saddr_prefixlen = prefixlen;
    get()->ip_saddr_family = 6;
    get()->flags |= NUV_CLFY_F_IP_SADDR;
    return *this;
  }
  ClfyRule &daddr4(const char *addr, const char *mask) {
    inet_pton(AF_INET, addr, &get()->ip_daddr.v4.addr);
    inet_pton(AF_INET, mask, &get()->ip_daddr.v4.mask);
    get()->ip_daddr_family = 4;
    get()->flags |= NUV_CLFY_F_IP_DADDR;
    return *this;
  }
  ClfyRule &daddr6(const char *addr, uint8_t prefixlen) {
    inet_pton(AF_INET6, addr, get()->ip_daddr.v6);
    get()->ip_daddr_prefixlen = prefixlen;
    get()->ip_daddr_family = 6;
    get()->flags |= NUV_CLFY_F_IP_DADDR;
    return *this;
  }
  ClfyRule &ipdsttab(const char *name) {
    get()->ipdsttab = nuv_clfy_ipdsttab_find_or_create(name);
    get()->flags |= NUV_CLFY_F_IPDSTTAB;
    return *this;
  }
  ClfyRule &sport(uint32_t op, uint16_t v1, uint16_t v2 = 0) {
    nuv_clfy_add_ip_sport(get(), op, htons(v1), htons(v2));
    return *this;
  }
  ClfyRule &dport(uint32_t op, uint16_t v1, uint16_t v2 = 0) {
    nuv_clfy_add_ip_dport(get(), op, htons(v1), htons(v2));
    return *this;
  }
  ClfyRule &tcp_flags(uint16_t value, uint16_t mask) {
    get()->tcp_flags = htons(value);
    get()->tcp_flags_mask = htons(mask);
    get()->flags |= NUV_CLFY_F_TCP_FLAGS;
    return *this;
  }
  ClfyRule &icmp_type(uint8_t type) {
    get()->icmp_type = type;
    get()->flags |= NUV_CLFY_F_ICMP_TYPE;
    return *this;
  }
  ClfyRule &dhcp(uint8_t code, uint32_t enterprise, uint8_t sub, const char *pattern, const char *table) {
    EXPECT_EQ(nuv_clfy_add_dhcppacketmatch(get(), code, enterprise, sub, pattern, table), 0);
    return *this;
  }
  ClfyRule &packetmatch(const char *pattern) {
    nuv_clfy_add_packetmatch(get(), pattern);
    return *this;
  }
};

inline const uint8_t kRandomMacA[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
inline const uint8_t kRandomMacB[6] = {0x00, 0x11, 0x22, 0x99, 0x44, 0x55};
inline const uint8_t kRandomMacC[6] = {0x00, 0x11, 0x23, 0x33, 0x44, 0x55};

// Fills a rule with random conditions from small value sets, so that
// equal values are frequent.
inline void randomise_rule(ClfyRule &rule, std::mt19937 &random) {
  auto pick = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
  auto maybe = [&] { return pick(3) == 0; };
  if (maybe()) rule.dev(pick(2) ? "eth0" : "eth1");
  if (maybe()) rule.localmark(static_cast<int>(pick(2)));
  if (maybe()) rule.eth_proto(pick(2) ? 0x0800 : 0x86dd);
  if (maybe()) rule.ethsrctab(pick(2) ? "e1" : "e2");
  if (maybe()) rule.eth_source(pick(2) ? kRandomMacA : kRandomMacB);
  if (maybe()) rule.eth_sourceoui({0x00, 0x11, static_cast<uint8_t>(0x22 + pick(2))});
  if (maybe()) rule.eth_dest(pick(2) ? kRandomMacA : kRandomMacC);
  if (maybe()) rule.eth_destoui({0x00, 0x11, static_cast<uint8_t>(0x22 + pick(2))});
  if (maybe()) rule.vlan(1 + pick(7), static_cast<uint16_t>(pick(3)), static_cast<uint16_t>(pick(3)));
  if (maybe()) rule.vlan_prio(static_cast<uint8_t>(pick(3)));
  if (maybe()) rule.ip_version(pick(2) ? 4 : 6);
  if (maybe()) rule.proto(pick(3) == 0 ? 255 : (pick(2) ? 6 : 17));
  if (maybe()) rule.tos(static_cast<uint8_t>(pick(4) << 2), pick(2) ? 0xfc : 0xf0);
  if (maybe()) rule.len(pick(8), static_cast<uint16_t>(pick(3)), static_cast<uint16_t>(pick(3)));
  if (maybe()) {
    if (pick(2)) rule.saddr4(pick(2) ? "10.0.0.1" : "10.0.0.2", pick(2) ? "255.255.255.0" : "255.255.255.255");
    else rule.saddr6(pick(2) ? "2001:db8::1" : "2001:db8::2", static_cast<uint8_t>(64 + pick(2) * 64));
  }
  if (maybe()) {
    if (pick(2)) rule.daddr4(pick(2) ? "192.0.2.1" : "198.51.100.1", "255.255.255.255");
    else rule.daddr6(pick(2) ? "2001:db8::1" : "fe80::1", 128);
  }
  if (maybe()) rule.ipdsttab(pick(2) ? "d1" : "d2");
  if (maybe()) rule.sport(1 + pick(7), static_cast<uint16_t>(pick(3)), static_cast<uint16_t>(pick(3)));
  if (maybe()) rule.dport(1 + pick(7), static_cast<uint16_t>(pick(3)), static_cast<uint16_t>(pick(3)));
  if (maybe()) rule.dhcp(static_cast<uint8_t>(pick(2) ? 60 : 125), pick(2), static_cast<uint8_t>(pick(2)),
                         pick(2) ? "a*" : "b*", pick(2) ? "e1" : "e2");
  if (maybe()) rule.packetmatch(pick(2) ? "x" : "y");
  if (maybe()) rule.brdev(pick(2) ? "br0" : "br1");
  if (maybe()) rule.icmp_type(static_cast<uint8_t>(pick(2)));
  if (maybe()) rule.tcp_flags(static_cast<uint16_t>(pick(2)), 0xfff);
}

}  // namespace testsupport

#endif
