// Rule text that reads back as the rule it came from, and whether one rule
// matches every packet another one matches.
#include <cstdint>
#include <cstring>

#include "dp_bytes.h"
#include "dp_textwriter.h"
#include "dp_wire.h"
#include "nuvaddr.h"
#include "nuvclfy.h"
#include "nuvclfy_priv.h"
#include "nuvcsock.h"
#include "nuvdhcp.h"

namespace {

using dp::TextWriter;
using dp::wire::kFamilyIpv4;
using dp::wire::kFamilyIpv6;

constexpr std::size_t kPieceSize = 256;
// Room for every condition of one rule; rule lines themselves have at most
// 255 characters, but a normalised rule may print longer.
constexpr std::size_t kLineSize = 1024;

// ---- Printing ----

bool has(const nuv_clfy &rule, std::uint32_t bit) { return (rule.flags & bit) != 0; }

bool several(const nuv_clfy &rule, std::uint32_t bit, const nuv_clfy_valuelist &list) {
  return has(rule, bit) && list.count > 1;
}

// The length of a contiguous IPv4 mask (host order), or -1.
int mask_length(std::uint32_t mask) {
  int length = 0;
  while (length < 32 && (mask & (0x80000000u >> length))) ++length;
  const std::uint32_t contiguous = length ? ~std::uint32_t{0} << (32 - length) : 0;
  return contiguous == mask ? length : -1;
}

void print_address(TextWriter &out, const char *keyword, const nuv_clfy_ipaddr &addr, std::uint8_t prefixlen,
                   std::uint8_t family) {
  if (family == kFamilyIpv6) {
    // An IPv4-mapped address prints as a dotted quad, which would read as IPv4.
    const char *text = ip6addr2str(reinterpret_cast<const in6_addr *>(addr.v6));
    out.printf(" %s %s%s/%u", keyword, std::strchr(text, ':') ? "" : "::ffff:", text, prefixlen);
    return;
  }
  out.printf(" %s %s", keyword, ipaddr2str(dp::load_net32(addr.v6)));
  const int length = mask_length(dp::load_be32(addr.v6 + 4));
  if (length >= 0) out.printf("/%d", length);
  else out.printf(" %s", ipaddr2str(dp::load_net32(addr.v6 + 4)));
}

// One comparison as rule text: an entry that always holds (what "0-65535"
// becomes) is written so again.
void print_value(TextWriter &out, const nuv_clfy_value &v) {
  if (v.op >= NUV_CLFY_OP_EQ && v.op <= NUV_CLFY_OP_RANGE) dp::clfy::print_comparison(out, v.op, v.value1, v.value2);
  else out.append("0-65535");
}

void print_list(TextWriter &out, const char *keyword, const nuv_clfy_valuelist &list) {
  out.printf(" %s ", keyword);
  for (std::uint32_t i = 0; i < list.count; ++i) {
    if (i) out.append(",");
    print_value(out, list.entries[i]);
  }
}

// The conditions before any list: interfaces, link layer, IP header.
void print_fixed(TextWriter &out, const nuv_clfy &rule) {
  if (has(rule, NUV_CLFY_F_DEV)) out.printf(" dev %s", rule.dev);
  if (has(rule, NUV_CLFY_F_BRDEV)) out.printf(" brdev %s", rule.brdev);
  if (has(rule, NUV_CLFY_F_LOCALMARK) && rule.localmark) {
    char classes[kPieceSize];
    out.printf(" localmark %s", tcclassset_value2str(rule.localmark, classes, sizeof classes));
  }
  if (has(rule, NUV_CLFY_F_ETH_PROTO)) out.printf(" eth.proto 0x%04x", dp::net_to_host16(rule.eth_proto));
  if (has(rule, NUV_CLFY_F_ETHSRCTAB) && rule.ethsrctab) out.printf(" ethsrctab %s", rule.ethsrctab->name);
  // Both bits of an address may be set; the OUI shares the address's bytes.
  if (has(rule, NUV_CLFY_F_ETH_SOURCEOUI))
    out.printf(" eth.sourceoui %02x:%02x:%02x", rule.eth_source[0], rule.eth_source[1], rule.eth_source[2]);
  if (has(rule, NUV_CLFY_F_ETH_SOURCE)) out.printf(" eth.source %s", ethaddr2str(rule.eth_source));
  if (has(rule, NUV_CLFY_F_ETH_DESTOUI))
    out.printf(" eth.destoui %02x:%02x:%02x", rule.eth_dest[0], rule.eth_dest[1], rule.eth_dest[2]);
  if (has(rule, NUV_CLFY_F_ETH_DEST)) out.printf(" eth.dest %s", ethaddr2str(rule.eth_dest));
  if (has(rule, NUV_CLFY_F_VLAN_PRIO)) out.printf(" vlan.prio %u", rule.vlan_prio);
  if (has(rule, NUV_CLFY_F_IP_VERSION)) out.printf(" ip.version %u", rule.ip_version);
  if (has(rule, NUV_CLFY_F_IP_TOS)) out.printf(" ip.tos 0x%02x/0x%02x", rule.ip_tos, rule.ip_tos_mask);
  if (has(rule, NUV_CLFY_F_IP_LEN)) {
    out.append(" ip.len ");
    print_value(out, rule.ip_len);
  }
  if (has(rule, NUV_CLFY_F_IP_SADDR))
    print_address(out, "ip.saddr", rule.ip_saddr, rule.ip_saddr_prefixlen, rule.ip_saddr_family);
  if (has(rule, NUV_CLFY_F_IP_DADDR))
    print_address(out, "ip.daddr", rule.ip_daddr, rule.ip_daddr_prefixlen, rule.ip_daddr_family);
  if (has(rule, NUV_CLFY_F_IPDSTTAB) && rule.ipdsttab) out.printf(" ipdsttab %s", rule.ipdsttab->name);
  if (has(rule, NUV_CLFY_F_ICMP_TYPE)) out.printf(" icmp.type %u", rule.icmp_type);
  if (has(rule, NUV_CLFY_F_DHCP) && rule.dhcp) dp::clfy::print_dhcp(out, *rule.dhcp);
}

// Whether the rule can be said on one line: the parser splits a comma list
// at every later comma of the line, so at most one list may have several
// entries, and no comma may follow any list (a pattern with a comma).
bool sayable(const nuv_clfy &rule) {
  const int lists = several(rule, NUV_CLFY_F_VLAN_ID, rule.vlan_ids) + several(rule, NUV_CLFY_F_SPORTS, rule.sports) +
                    several(rule, NUV_CLFY_F_DPORTS, rule.dports);
  const bool any_list = has(rule, NUV_CLFY_F_VLAN_ID | NUV_CLFY_F_SPORTS | NUV_CLFY_F_DPORTS);
  const bool comma_after = has(rule, NUV_CLFY_F_PACKETMATCH) && rule.packetmatch && std::strchr(rule.packetmatch, ',');
  // An empty name would take the next word as the name, and an interface
  // name starting with "=" would read as the optional "=".
  auto interface_ok = [&rule](std::uint32_t bit, const char *name) {
    return !has(rule, bit) || (name[0] != '\0' && name[0] != '=');
  };
  const bool names_ok = interface_ok(NUV_CLFY_F_DEV, rule.dev) && interface_ok(NUV_CLFY_F_BRDEV, rule.brdev) &&
                        !(has(rule, NUV_CLFY_F_ETHSRCTAB) && rule.ethsrctab && rule.ethsrctab->name[0] == '\0') &&
                        !(has(rule, NUV_CLFY_F_IPDSTTAB) && rule.ipdsttab && rule.ipdsttab->name[0] == '\0');
  return lists <= 1 && !(any_list && comma_after) && names_ok;
}

// The lists, tcp.flags and the protocol, then packetmatch.  A list is split
// at every comma of the rest of its line, so the one list with several
// entries comes first and no comma follows it.  The port and flag keywords
// set the protocol, so the protocol comes after them when they do not say it.
void print_transport(TextWriter &out, const nuv_clfy &rule) {
  const char *ports = rule.ip_proto == dp::clfy::kProtoUdp ? "udp" : "tcp";
  char sport[16], dport[16];
  TextWriter(sport, sizeof sport).printf("%s.sport", ports);
  TextWriter(dport, sizeof dport).printf("%s.dport", ports);
  struct List {
    std::uint32_t bit;
    const char *keyword;
    const nuv_clfy_valuelist *list;
  } lists[] = {{NUV_CLFY_F_VLAN_ID, "vlan.id", &rule.vlan_ids},
               {NUV_CLFY_F_SPORTS, sport, &rule.sports},
               {NUV_CLFY_F_DPORTS, dport, &rule.dports}};
  for (const List &l : lists)
    if (has(rule, l.bit) && l.list->count > 1) print_list(out, l.keyword, *l.list);
  for (const List &l : lists)
    if (has(rule, l.bit) && l.list->count <= 1) print_list(out, l.keyword, *l.list);
  if (has(rule, NUV_CLFY_F_TCP_FLAGS))
    out.printf(" tcp.flags 0x%03x/0x%03x", dp::net_to_host16(rule.tcp_flags), dp::net_to_host16(rule.tcp_flags_mask));
  // The protocol the keywords printed so far gave, in their order; when it
  // is the rule's, the protocol needs no words of its own.
  const std::uint8_t port_proto = rule.ip_proto == dp::clfy::kProtoUdp ? dp::clfy::kProtoUdp : dp::clfy::kProtoTcp;
  std::uint8_t said = 0;
  if (has(rule, NUV_CLFY_F_DHCP) && rule.dhcp) said = dp::clfy::kProtoUdp;
  if (has(rule, NUV_CLFY_F_SPORTS | NUV_CLFY_F_DPORTS)) said = port_proto;
  if (has(rule, NUV_CLFY_F_TCP_FLAGS)) said = dp::clfy::kProtoTcp;
  if (has(rule, NUV_CLFY_F_IP_PROTO) && said != rule.ip_proto) out.printf(" ip.proto P%u", rule.ip_proto);
  if (has(rule, NUV_CLFY_F_PACKETMATCH)) out.printf(" packetmatch %s", rule.packetmatch ? rule.packetmatch : "");
}

// ---- Covering ----

// Values a list accepts, as closed intervals of 0..65535.
struct Interval {
  std::uint32_t low, high;
};

// The intervals of one entry (at most two): their count.
int entry_intervals(const nuv_clfy_value &v, Interval *out) {
  constexpr std::uint32_t kTop = 65535;
  switch (v.op) {
    case NUV_CLFY_OP_EQ: out[0] = {v.value1, v.value1}; return 1;
    case NUV_CLFY_OP_NE: {
      int n = 0;
      if (v.value1 > 0) out[n++] = {0, v.value1 - 1u};
      if (v.value1 < kTop) out[n++] = {v.value1 + 1u, kTop};
      return n;
    }
    case NUV_CLFY_OP_LT:
      if (v.value1 == 0) return 0;
      out[0] = {0, v.value1 - 1u};
      return 1;
    case NUV_CLFY_OP_LE: out[0] = {0, v.value1}; return 1;
    case NUV_CLFY_OP_GT:
      if (v.value1 == kTop) return 0;
      out[0] = {v.value1 + 1u, kTop};
      return 1;
    case NUV_CLFY_OP_GE: out[0] = {v.value1, kTop}; return 1;
    case NUV_CLFY_OP_RANGE:
      if (v.value1 > v.value2) return 0;
      out[0] = {v.value1, v.value2};
      return 1;
    default: out[0] = {0, kTop}; return 1;  // every other code holds always
  }
}

// Whether the values of `interval` are all accepted by some entry of `list`,
// walking up from its low end.
bool interval_within(Interval interval, const nuv_clfy_valuelist &list) {
  std::uint32_t next = interval.low;  // the lowest value not yet known accepted
  for (bool progress = true; progress && next <= interval.high;) {
    progress = false;
    for (std::uint32_t i = 0; i < list.count; ++i) {
      Interval parts[2];
      const int n = entry_intervals(list.entries[i], parts);
      for (int k = 0; k < n; ++k)
        if (parts[k].low <= next && parts[k].high >= next) {
          next = parts[k].high + 1;
          progress = true;
        }
    }
  }
  return next > interval.high;
}

// Whether every value `later` accepts is accepted by `earlier`.
bool list_within(const nuv_clfy_valuelist &later, const nuv_clfy_valuelist &earlier) {
  for (std::uint32_t i = 0; i < later.count; ++i) {
    Interval parts[2];
    const int n = entry_intervals(later.entries[i], parts);
    for (int k = 0; k < n; ++k)
      if (!interval_within(parts[k], earlier)) return false;
  }
  return true;
}

bool value_within(const nuv_clfy_value &later, const nuv_clfy_value &earlier) {
  const nuv_clfy_valuelist l{1, const_cast<nuv_clfy_value *>(&later)};
  const nuv_clfy_valuelist e{1, const_cast<nuv_clfy_value *>(&earlier)};
  return list_within(l, e);
}

bool address_within(std::uint8_t family_l, const nuv_clfy_ipaddr &l, std::uint8_t len_l, std::uint8_t family_e,
                    const nuv_clfy_ipaddr &e, std::uint8_t len_e) {
  if (family_l != family_e) return false;
  if (family_e == kFamilyIpv4) {
    const std::uint32_t mask_e = dp::load_net32(e.v6 + 4), mask_l = dp::load_net32(l.v6 + 4);
    return (mask_l & mask_e) == mask_e && (dp::load_net32(l.v6) & mask_e) == (dp::load_net32(e.v6) & mask_e);
  }
  if (family_e != kFamilyIpv6) return false;
  // The same condition twice holds for the same packets, whatever a length
  // beyond 128 means to the matcher.
  if (len_l == len_e && std::memcmp(l.v6, e.v6, sizeof l.v6) == 0) return true;
  if (len_e > 128 || len_l > 128 || len_l < len_e) return false;
  for (unsigned bit = 0; bit < len_e; ++bit) {
    const unsigned mask = 0x80u >> (bit % 8);
    if ((l.v6[bit / 8] & mask) != (e.v6[bit / 8] & mask)) return false;
  }
  return true;
}

// Conditions whose outcome depends on state beyond the packet and the rule.
constexpr std::uint32_t kUndecided =
    NUV_CLFY_F_LOCALMARK | NUV_CLFY_F_ETHSRCTAB | NUV_CLFY_F_IPDSTTAB | NUV_CLFY_F_DHCP | NUV_CLFY_F_PACKETMATCH;

bool same_mac(const nuv_clfy &l, const nuv_clfy &e, std::uint32_t full, std::uint32_t oui, const std::uint8_t *mac_l,
              const std::uint8_t *mac_e) {
  if (has(e, full)) return has(l, full) && std::memcmp(mac_l, mac_e, 6) == 0;
  if (has(e, oui)) return (has(l, full) || has(l, oui)) && std::memcmp(mac_l, mac_e, 3) == 0;
  return true;
}

bool masked_within(std::uint32_t value_l, std::uint32_t mask_l, std::uint32_t value_e, std::uint32_t mask_e) {
  return (mask_l & mask_e) == mask_e && (value_l & mask_e) == (value_e & mask_e);
}

bool covers(const nuv_clfy &e, const nuv_clfy &l) {
  if (e.flags & kUndecided) return false;
  // Every condition of the earlier rule must be implied by one of the later's.
  auto needs = [&](std::uint32_t bit) { return has(e, bit) && !has(l, bit); };
  if (needs(NUV_CLFY_F_DEV) || needs(NUV_CLFY_F_BRDEV) || needs(NUV_CLFY_F_ETH_PROTO) || needs(NUV_CLFY_F_VLAN_ID) ||
      needs(NUV_CLFY_F_VLAN_PRIO) || needs(NUV_CLFY_F_IP_VERSION) || needs(NUV_CLFY_F_IP_TOS) ||
      needs(NUV_CLFY_F_IP_SADDR) || needs(NUV_CLFY_F_IP_DADDR) || needs(NUV_CLFY_F_SPORTS) ||
      needs(NUV_CLFY_F_DPORTS) || needs(NUV_CLFY_F_IP_LEN) || needs(NUV_CLFY_F_TCP_FLAGS) ||
      needs(NUV_CLFY_F_ICMP_TYPE))
    return false;
  if (has(e, NUV_CLFY_F_DEV) && std::strncmp(e.dev, l.dev, sizeof e.dev) != 0) return false;
  if (has(e, NUV_CLFY_F_BRDEV) && std::strncmp(e.brdev, l.brdev, sizeof e.brdev) != 0) return false;
  if (has(e, NUV_CLFY_F_ETH_PROTO) && e.eth_proto != l.eth_proto) return false;
  if (!same_mac(l, e, NUV_CLFY_F_ETH_SOURCE, NUV_CLFY_F_ETH_SOURCEOUI, l.eth_source, e.eth_source)) return false;
  if (!same_mac(l, e, NUV_CLFY_F_ETH_DEST, NUV_CLFY_F_ETH_DESTOUI, l.eth_dest, e.eth_dest)) return false;
  if (has(e, NUV_CLFY_F_VLAN_ID) && !list_within(l.vlan_ids, e.vlan_ids)) return false;
  if (has(e, NUV_CLFY_F_VLAN_PRIO) && e.vlan_prio != l.vlan_prio) return false;
  if (has(e, NUV_CLFY_F_IP_VERSION) && e.ip_version != l.ip_version) return false;
  if (has(e, NUV_CLFY_F_IP_PROTO) && e.ip_proto != dp::clfy::kProtoAny &&
      (!has(l, NUV_CLFY_F_IP_PROTO) || l.ip_proto != e.ip_proto))
    return false;
  if (has(e, NUV_CLFY_F_IP_TOS) && !masked_within(l.ip_tos, l.ip_tos_mask, e.ip_tos, e.ip_tos_mask)) return false;
  if (has(e, NUV_CLFY_F_IP_LEN) && !value_within(l.ip_len, e.ip_len)) return false;
  if (has(e, NUV_CLFY_F_IP_SADDR) && !address_within(l.ip_saddr_family, l.ip_saddr, l.ip_saddr_prefixlen,
                                                     e.ip_saddr_family, e.ip_saddr, e.ip_saddr_prefixlen))
    return false;
  if (has(e, NUV_CLFY_F_IP_DADDR) && !address_within(l.ip_daddr_family, l.ip_daddr, l.ip_daddr_prefixlen,
                                                     e.ip_daddr_family, e.ip_daddr, e.ip_daddr_prefixlen))
    return false;
  if (has(e, NUV_CLFY_F_SPORTS) && !list_within(l.sports, e.sports)) return false;
  if (has(e, NUV_CLFY_F_DPORTS) && !list_within(l.dports, e.dports)) return false;
  if (has(e, NUV_CLFY_F_TCP_FLAGS) &&
      !masked_within(l.tcp_flags, l.tcp_flags_mask, e.tcp_flags, e.tcp_flags_mask))
    return false;
  if (has(e, NUV_CLFY_F_ICMP_TYPE) && e.icmp_type != l.icmp_type) return false;
  return true;
}

}  // namespace

extern "C" {

int nuv_clfy_print_rule(const nuv_clfy *rule, char *buf, size_t size) {
  if (size) buf[0] = '\0';
  if (!sayable(*rule)) return -1;
  // Built with a leading blank in a line of its own, then copied when it fits.
  char line[kLineSize];
  TextWriter out(line, sizeof line);
  print_fixed(out, *rule);
  print_transport(out, *rule);
  if (out.length() == 0) out.append(" any");
  const std::size_t length = out.length() - 1;
  if (out.full() || length + 1 > size) return -1;
  std::memcpy(buf, line + 1, length + 1);
  return static_cast<int>(length);
}

int nuv_clfy_covers(const nuv_clfy *earlier, const nuv_clfy *later) { return covers(*earlier, *later) ? 1 : 0; }

}  // extern "C"
