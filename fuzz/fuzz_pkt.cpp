// Packet and address utilities on hostile input: address and mask texts
// against the C library's inet_pton/inet_ntop, protocol names, the value
// parsers, one-line header descriptions, IPv6 extension header walks, the
// DNS predicates, and checksums (set, verify, incremental update).
// Input: the whole input is used several ways: as a text up to its first
// NUL, and as packet bytes.
#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>

#include "fuzz_check.h"
#include "nikerkiog.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
void put16(std::uint8_t *p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}

bool is_v4_mapped(const std::uint8_t *a) {
  static const std::uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return std::memcmp(a, prefix, 12) == 0;
}

void check_address_texts(const std::string &text, const Bytes &bytes) {
  // What the C library reads, this library reads the same way.
  std::uint8_t theirs[16], ours[16];
  if (inet_pton(AF_INET6, text.c_str(), theirs) == 1) {
    FUZZ_CHECK(str2in6_addr(text.c_str(), reinterpret_cast<in6_addr *>(ours)) == 0);
    FUZZ_CHECK(std::memcmp(ours, theirs, 16) == 0);
  }
  std::uint32_t v4_theirs, v4_ours;
  if (inet_pton(AF_INET, text.c_str(), &v4_theirs) == 1) {
    FUZZ_CHECK(str2ipaddr(text.c_str(), &v4_ours) == 0);
    FUZZ_CHECK(v4_ours == v4_theirs);
  }
  // Printed addresses read back to the same bytes.
  std::uint8_t addr[16] = {};
  if (!bytes.empty()) std::memcpy(addr, bytes.data(), std::min<std::size_t>(16, bytes.size()));
  const std::string printed = ip6addr2str(reinterpret_cast<const in6_addr *>(addr));
  if (is_v4_mapped(addr)) {
    FUZZ_CHECK(inet_pton(AF_INET, printed.c_str(), &v4_theirs) == 1);
    FUZZ_CHECK(std::memcmp(&v4_theirs, addr + 12, 4) == 0);
  } else {
    FUZZ_CHECK(inet_pton(AF_INET6, printed.c_str(), theirs) == 1);
    FUZZ_CHECK(std::memcmp(theirs, addr, 16) == 0);
    FUZZ_CHECK(str2in6_addr(printed.c_str(), reinterpret_cast<in6_addr *>(ours)) == 0);
    FUZZ_CHECK(std::memcmp(ours, addr, 16) == 0);
  }
  std::uint32_t v4;
  std::memcpy(&v4, addr, 4);
  char buf[INET_ADDRSTRLEN];
  FUZZ_CHECK(inet_ntop(AF_INET, &v4, buf, sizeof buf) != nullptr);
  FUZZ_CHECK(std::strcmp(ipaddr2str(v4), buf) == 0);
  FUZZ_CHECK(str2ipaddr(buf, &v4_ours) == 0 && v4_ours == v4);
  char mac[18];
  std::snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", addr[0], addr[1], addr[2], addr[3], addr[4],
                addr[5]);
  FUZZ_CHECK(std::strcmp(ethaddr2str(addr), mac) == 0);
}

void check_masks(const Bytes &bytes) {
  const std::uint8_t len = bytes.empty() ? 0 : bytes[0];
  const std::uint32_t mask = dphelper_prefixlen2mask(len);
  FUZZ_CHECK(dphelper_mask2prefixlen(mask) == std::min<int>(len, 32));
  std::uint32_t addr = 0;
  if (bytes.size() > 1) std::memcpy(&addr, bytes.data() + 1, std::min<std::size_t>(4, bytes.size() - 1));
  FUZZ_CHECK(dphelper_addrcidr2network(addr, len) == (len > 32 ? addr : (addr & mask)));
  FUZZ_CHECK(dphelper_addrmask2network(addr, mask) == (addr & mask));
}

void check_protocols(const std::string &text, const Bytes &bytes) {
  for (std::size_t i = 0; i < std::min<std::size_t>(bytes.size(), 4); ++i) {
    // A printed name reads back to a protocol of the same name.
    const std::string name = ipproto2str(bytes[i]);
    std::uint8_t back = 0;
    FUZZ_CHECK(ipproto_parse(&back, name.c_str()) == 0);
    FUZZ_CHECK(strcasecmp(ipproto2str(back), name.c_str()) == 0);
  }
  std::uint8_t proto = 0;
  if (ipproto_parse(&proto, text.c_str()) == 0) {
    std::uint8_t again = 0;
    FUZZ_CHECK(ipproto_parse(&again, ipproto2str(proto)) == 0);
    FUZZ_CHECK(strcasecmp(ipproto2str(again), ipproto2str(proto)) == 0);
  }
  fuzz::Exact tcp(bytes, 14);
  const std::string flags = tcpflags2str(tcp.p);
  FUZZ_CHECK(flags.size() < 256);
  FUZZ_CHECK(icmp_rep2req(proto) == -1 || proto <= 18);
  FUZZ_CHECK(is_port_protocol(proto) == (proto == 6 || proto == 17 || proto == 33 || proto == 132 || proto == 136));
}

// Every value parser on the text: on success the end lies inside it.
void check_value_parsers(const std::string &text) {
  std::vector<char> copy(text.begin(), text.end());
  copy.push_back('\0');
  const char *begin = copy.data();
  const char *stop = begin + text.size();
  auto inside = [&](const char *end) { return end >= begin && end <= stop; };
  char *end = nullptr;
  std::uint8_t u8, mac[6], buf[64];
  std::uint16_t u16;
  std::uint32_t u32, mask;
  char str[64];
  if (parse_u8(begin, &end, &u8) == 0) FUZZ_CHECK(inside(end));
  if (parse_u16(begin, &end, &u16) == 0) FUZZ_CHECK(inside(end));
  if (parse_ushort(begin, &end, &u16) == 0) FUZZ_CHECK(inside(end));
  if (parse_ulong(begin, &end, &u32) == 0) FUZZ_CHECK(inside(end));
  if (parse_ipaddr(begin, &end, &u32) == 0) FUZZ_CHECK(inside(end));
  if (parse_prefix(begin, &end, &u32, &mask) == 0) FUZZ_CHECK(inside(end));
  if (parse_mac(begin, &end, mac) == 0) FUZZ_CHECK(inside(end));
  if (parse_oui(begin, &end, mac) == 0) FUZZ_CHECK(inside(end));
  if (parse_string(begin, &end, str, sizeof str) == 0) FUZZ_CHECK(inside(end) && std::strlen(str) < sizeof str);
  const int hex = parse_hex(begin, &end, buf, sizeof buf);
  FUZZ_CHECK(hex >= -1 && hex <= static_cast<int>(sizeof buf));
  if (hex > 0) FUZZ_CHECK(inside(end));
  if (parse_nonblank(begin, &end, str, sizeof str) == 0) FUZZ_CHECK(inside(end) && std::strlen(str) < sizeof str);
  std::uint8_t addr16[16], prefixlen = 0;
  if (parse_prefix6(copy.data(), &end, addr16, &prefixlen) == 0) FUZZ_CHECK(inside(end));
}

void check_descriptions(const Bytes &bytes) {
  if (bytes.empty()) return;
  // The whole header and the first 14 bytes behind it are readable.
  const std::size_t header = (bytes[0] >> 4) == 6 ? 40 : std::max<std::size_t>(20, (bytes[0] & 0x0fu) * 4u);
  fuzz::Exact p(bytes, std::max(bytes.size(), header + 14));
  const char *text = (bytes[0] >> 4) == 6 ? ip6h2str(p.p) : iph2str(p.p);
  FUZZ_CHECK(text && std::strlen(text) < 256);
}

void check_ipv6_walks(const Bytes &bytes) {
  fuzz::Exact raw(bytes);
  const int len = static_cast<int>(bytes.size());
  std::uint8_t nh = bytes.empty() ? 0 : bytes[0];
  const int start = bytes.size() > 1 ? bytes[1] % 48 : 0;
  const std::uint8_t before = nh;
  const int at = ip6_skip_exthdr_raw(raw.p, len, start, &nh);
  if (at < 0) FUZZ_CHECK(nh == before);
  else FUZZ_CHECK(at >= start);  // the header found there is not read

  // With the IPv6 header and its announced payload readable.
  Bytes ip6(bytes);
  if (ip6.size() < 40) ip6.resize(40);
  const std::size_t whole = 40 + be16(&ip6[4]);
  fuzz::Exact pkt(ip6, std::max(whole, ip6.size()));
  std::uint8_t next = 0;
  const int upper = ip6_skip_exthdr_from_ipv6hdr(pkt.p, &next);
  FUZZ_CHECK(upper == -1 || upper >= 40);
  const int order = ip6_exthdr_order_is_valid_in_ipv6hdr(pkt.p);
  FUZZ_CHECK(order == 1 || order == -1 || order == -2);
  nuv_pktbuf buf{};
  buf.len = static_cast<std::uint32_t>(pkt.n);
  buf.data = pkt.p;
  const std::uint8_t *frag = ip6_find_fraghdr(&buf, pkt.p);
  if (frag) FUZZ_CHECK(frag >= pkt.p + 40 && frag <= pkt.p + pkt.n);
}

void check_dns_predicates(const Bytes &bytes) {
  Bytes ip(bytes);
  if (ip.size() < 4) ip.resize(4);
  const std::size_t total = be16(&ip[2]);
  fuzz::Exact p(ip, std::max<std::size_t>(total, 4));
  const int request = packet_is_valid_dns_query_request(p.p);
  const int reply = packet_is_valid_dns_query_reply(p.p);
  FUZZ_CHECK((request == 0 || request == 1) && (reply == 0 || reply == 1));
  FUZZ_CHECK(!(request && reply));
  // Only IPv4 carrying UDP holds a DNS message.
  if (request || reply) FUZZ_CHECK((p.p[0] >> 4) == 4 && p.p[9] == 17);
}

std::uint16_t stored(const std::uint8_t *p) {
  std::uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

// An IPv4 packet from the input: set checksums verify, and incremental
// updates after an address and a port rewrite equal setting them again.
void check_checksums(const Bytes &bytes) {
  fuzz::Input in(bytes.data(), bytes.size());
  const std::uint8_t options = in.byte() % 11;
  const std::uint32_t new_addr = in.u32();
  const std::uint16_t new_port = in.u16();
  Bytes body = in.rest();
  const std::size_t header = 20 + 4 * options;
  const std::size_t total = std::min<std::size_t>(std::max(body.size(), header + 20), 1600);
  body.resize(total);
  fuzz::Exact p(body);
  std::uint8_t *ip = p.p;
  ip[0] = static_cast<std::uint8_t>(0x40 | (header / 4));
  put16(ip + 2, static_cast<std::uint16_t>(total));
  ip[9] = 6;
  set_ip_checksum(ip);
  set_tcp_checksum(ip);
  FUZZ_CHECK(ip_checksum_ok(ip) == 1);
  FUZZ_CHECK(tcp_checksum_ok(ip) == 1);
  const std::uint16_t k_ip = stored(ip + 10), k_tcp = stored(ip + header + 16);
  std::uint32_t old_addr;
  std::memcpy(&old_addr, ip + 12, 4);
  const std::uint16_t old_port = stored(ip + header);
  std::uint32_t addr_net = htonl(new_addr);
  std::uint16_t port_net = htons(new_port);
  std::memcpy(ip + 12, &addr_net, 4);
  std::memcpy(ip + header, &port_net, 2);
  const std::uint16_t updated_ip = update_checksum_u32(k_ip, old_addr, addr_net);
  const std::uint16_t updated_tcp = update_checksum_u16(update_checksum_u32(k_tcp, old_addr, addr_net), old_port, port_net);
  std::memcpy(ip + 10, &updated_ip, 2);
  std::memcpy(ip + header + 16, &updated_tcp, 2);
  FUZZ_CHECK(ip_checksum_ok(ip) == 1);
  FUZZ_CHECK(tcp_checksum_ok(ip) == 1);
  set_ip_checksum(ip);
  set_tcp_checksum(ip);
  FUZZ_CHECK(stored(ip + 10) == updated_ip);
  FUZZ_CHECK(stored(ip + header + 16) == updated_tcp);
  // The same rewrite as a run of bytes.
  const std::uint16_t run = update_checksum(k_ip, 0, &old_addr, 4, &addr_net, 4);
  FUZZ_CHECK(run == updated_ip);
  // UDP over the same bytes: its own length field decides what is summed.
  ip[9] = 17;
  put16(ip + header + 4, static_cast<std::uint16_t>(total - header));
  set_udp_checksum(ip);
  FUZZ_CHECK(udp_checksum_ok(ip) == 1);
  ip[9] = 1;
  set_icmp_checksum(ip);
  FUZZ_CHECK(icmp_checksum_ok(ip) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const Bytes bytes = fuzz::Input(data, size).rest();
  fuzz::Input in(data, size);
  const std::string text = in.until(0);
  check_address_texts(text, bytes);
  check_masks(bytes);
  check_protocols(text, bytes);
  check_value_parsers(text);
  check_descriptions(bytes);
  check_ipv6_walks(bytes);
  check_dns_predicates(bytes);
  check_checksums(bytes);
  return 0;
}
