// Helpers of the classifier tests: owned rules and sets, rule text, and
// packets built byte by byte into exact-size buffers.
#ifndef NIKERKIOG_CLFY_TESTING_H
#define NIKERKIOG_CLFY_TESTING_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clfy_rule_ptr.h"
#include "nikerkiog.h"

namespace clfytest {

// Fixed-seed random choices of the property tests.
using Rng = std::mt19937;

// A number 0..n-1.
inline int pick(Rng &rng, int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); }
// True `percent` times in a hundred.
inline bool chance(Rng &rng, int percent) { return pick(rng, 100) < percent; }
// One element of `items`.
template <typename T, std::size_t N>
const T &pick_from(Rng &rng, const T (&items)[N]) {
  return items[pick(rng, static_cast<int>(N))];
}

using Bytes = std::vector<std::uint8_t>;

using Rule = testsupport::ClfyRulePtr;

// The rule parsed from `text`, or null when the parser refuses it.
inline Rule parse(const std::string &text) { return testsupport::parse_clfy_rule(text.c_str()); }

// The parser's result code for `text` (a parsed rule is freed again).
inline int parse_result(const std::string &text) {
  nuv_clfy *rule = nullptr;
  const int rc = nuv_clfy_parse(text.c_str(), &rule);
  const Rule owned(rc == 0 ? rule : nullptr);
  return rc;
}

// Printed conditions (no listing prefix, no result).
inline std::string text_of(const nuv_clfy *rule, int depth = -1) {
  char buf[1024];
  return nuv_clfy_as_string(depth, rule, buf, sizeof buf);
}

// A rule set that frees its rules when it goes.
struct Set {
  nuv_clfy_set set;
  Set() { std::memset(&set, 0, sizeof set); }
  ~Set() { nuv_clfy_del_and_free_all(&set); }
  Set(const Set &) = delete;
  Set &operator=(const Set &) = delete;
  // Parses `text` and appends it; returns the rule (owned by the set).
  nuv_clfy *add(const std::string &text, std::uint16_t result = 0) {
    nuv_clfy *rule = nullptr;
    if (nuv_clfy_parse(text.c_str(), &rule) != 0) return nullptr;
    rule->result = result;
    if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = 1;
    nuv_clfy_add_tail(&set, rule);
    return rule;
  }
};

// A host-order 16-bit value in network byte order (as parse_u16 delivers it).
inline std::uint16_t net16(std::uint16_t host) {
  const std::uint8_t b[2] = {static_cast<std::uint8_t>(host >> 8), static_cast<std::uint8_t>(host)};
  std::uint16_t v;
  std::memcpy(&v, b, 2);
  return v;
}

inline std::uint32_t ipv4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  std::uint32_t v;
  const std::uint8_t bytes[4] = {a, b, c, d};
  std::memcpy(&v, bytes, 4);
  return v;
}

inline void put16(Bytes &b, std::size_t at, std::uint16_t v) {
  b[at] = static_cast<std::uint8_t>(v >> 8);
  b[at + 1] = static_cast<std::uint8_t>(v);
}

// IPv4 header (20 bytes, no options) + transport bytes.
inline Bytes ipv4_packet(std::uint8_t proto, const std::uint8_t src[4], const std::uint8_t dst[4],
                         const Bytes &transport, std::uint8_t tos = 0) {
  Bytes b(20, 0);
  b[0] = 0x45;
  b[1] = tos;
  put16(b, 2, static_cast<std::uint16_t>(20 + transport.size()));
  b[8] = 64;
  b[9] = proto;
  std::memcpy(&b[12], src, 4);
  std::memcpy(&b[16], dst, 4);
  b.insert(b.end(), transport.begin(), transport.end());
  return b;
}

// IPv6 header + payload (extension headers included in `payload`).
inline Bytes ipv6_packet(std::uint8_t next_header, const std::uint8_t src[16], const std::uint8_t dst[16],
                         const Bytes &payload, std::uint8_t traffic_class = 0) {
  Bytes b(40, 0);
  b[0] = static_cast<std::uint8_t>(0x60 | traffic_class >> 4);
  b[1] = static_cast<std::uint8_t>(traffic_class << 4);
  put16(b, 4, static_cast<std::uint16_t>(payload.size()));
  b[6] = next_header;
  b[7] = 64;
  std::memcpy(&b[8], src, 16);
  std::memcpy(&b[24], dst, 16);
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}

inline Bytes udp_header(std::uint16_t sport, std::uint16_t dport, const Bytes &payload = {}) {
  Bytes b(8, 0);
  put16(b, 0, sport);
  put16(b, 2, dport);
  put16(b, 4, static_cast<std::uint16_t>(8 + payload.size()));
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}

inline Bytes tcp_header(std::uint16_t sport, std::uint16_t dport, std::uint16_t flags, const Bytes &payload = {}) {
  Bytes b(20, 0);
  put16(b, 0, sport);
  put16(b, 2, dport);
  put16(b, 12, static_cast<std::uint16_t>(0x5000 | (flags & 0x0fff)));
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}

inline Bytes text_bytes(const std::string &s) { return Bytes(s.begin(), s.end()); }

// A DHCP message from the client with hardware address `mac`: fixed part,
// cookie, message type `type` and requested address 192.168.1.`host`.
inline Bytes dhcp_client_message(const std::uint8_t mac[6], std::uint8_t type, std::uint8_t host) {
  Bytes m(240, 0);
  m[0] = 1;
  std::memcpy(&m[28], mac, 6);
  m[236] = 99, m[237] = 130, m[238] = 83, m[239] = 99;
  const Bytes options{53, 1, type, 50, 4, 192, 168, 1, host, 255};
  m.insert(m.end(), options.begin(), options.end());
  return m;
}

// A DHCP client message from one of `macs`, of a random type (DISCOVER,
// REQUEST, RELEASE or OFFER), requesting one of three addresses.
template <std::size_t N>
Bytes random_dhcp_client_message(Rng &rng, const std::uint8_t (&macs)[N][6]) {
  static const std::uint8_t kTypes[] = {1, 3, 7, 2};
  // One pick after the other: the order of a call's arguments is the compiler's.
  const std::uint8_t *mac = pick_from(rng, macs);
  const std::uint8_t type = pick_from(rng, kTypes);
  return dhcp_client_message(mac, type, static_cast<std::uint8_t>(pick(rng, 3)));
}

// A packet to match: the bytes live in exact-size heap buffers, so a read past
// the end is caught by AddressSanitizer.
struct Packet {
  std::unique_ptr<std::uint8_t[]> eth;
  std::unique_ptr<std::uint8_t[]> ip;
  nuv_clfy_packet desc;

  Packet() { std::memset(&desc, 0, sizeof desc); }
  Packet(const Packet &) = delete;
  Packet &operator=(const Packet &) = delete;

  void set_ip(const Bytes &bytes, std::uint16_t ethertype) {
    ip.reset(new std::uint8_t[bytes.size() ? bytes.size() : 1]);
    if (!bytes.empty()) std::memcpy(ip.get(), bytes.data(), bytes.size());
    desc.ip_header = ip.get();
    desc.ip_len = static_cast<std::uint32_t>(bytes.size());
    const std::uint8_t net[2] = {static_cast<std::uint8_t>(ethertype >> 8), static_cast<std::uint8_t>(ethertype)};
    std::memcpy(&desc.eth_proto, net, 2);
  }
  void set_eth(const std::uint8_t dst[6], const std::uint8_t src[6]) {
    eth.reset(new std::uint8_t[14]);
    std::memcpy(eth.get(), dst, 6);
    std::memcpy(eth.get() + 6, src, 6);
    std::memcpy(eth.get() + 12, &desc.eth_proto, 2);
    desc.eth_header = eth.get();
  }
};

inline bool matches(nuv_clfy *rule, const Packet &p, std::uint32_t mark = 0) {
  if (!rule) {
    ADD_FAILURE() << "no rule to match (refused by the parser?)";
    return false;
  }
  return nuv_clfy_matches(rule, &p.desc, 0, mark) == 1;
}

}  // namespace clfytest

#endif
