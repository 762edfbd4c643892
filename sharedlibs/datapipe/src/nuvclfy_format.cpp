// Rule text formatter: one listing line per rule.
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

// Pieces of a value list and the class-map text are built in scratch texts
// of this size and cut there.
constexpr std::size_t kPieceSize = 128;

// Printed form of each comparison operator, indexed by its code.
constexpr const char *kOperatorFormats[] = {
    nullptr, "%hu", "!= %hu", "< %hu", "<= %hu", "> %hu", ">= %hu", "%hu-%hu",
};

}  // namespace

namespace dp::clfy {

void print_comparison(TextWriter &out, std::uint32_t op, std::uint16_t value1, std::uint16_t value2) {
  const bool known = op >= NUV_CLFY_OP_EQ && op <= NUV_CLFY_OP_RANGE;
  const char *format = known ? kOperatorFormats[op] : "op? %hu %hu";
  out.printf(format, value1, value2);
}

void print_value_list(TextWriter &out, const nuv_clfy_valuelist &list) {
  for (std::uint32_t i = 0; i < list.count; ++i) {
    char piece[kPieceSize];
    TextWriter entry(piece, sizeof piece);
    const nuv_clfy_value &v = list.entries[i];
    print_comparison(entry, v.op, v.value1, v.value2);
    if (i) out.append(",");
    out.printf("%s", piece);
  }
}

void print_dhcp(TextWriter &out, const nuv_clfy_dhcp &dhcp) {
  const char *table = dhcp.ethsrctab ? dhcp.ethsrctab->name : "";
  const char *pattern = dhcp.pattern ? dhcp.pattern : "";
  if (dhcp.code == 0)
    out.printf(" dhcpheader %s %s %s", dhcp_hfield2str(dhcp.sub), pattern, table);
  else if (dhcp.code == 124 || dhcp.code == 125)
    out.printf(" dhcpoption %d/0x%lx/%d %s %s", dhcp.code, static_cast<unsigned long>(dhcp.enterprise),
               dhcp.sub, pattern, table);
  else
    out.printf(" dhcpoption %d %s %s", dhcp.code, pattern, table);
}

}  // namespace dp::clfy

namespace {

using dp::clfy::print_comparison;

// "80,443,>= 8000", cut at the scratch size.
const char *list_text(const nuv_clfy_valuelist &list, char (&text)[kPieceSize]) {
  TextWriter out(text, sizeof text);
  dp::clfy::print_value_list(out, list);
  return text;
}

void print_interfaces(TextWriter &out, const nuv_clfy &rule) {
  if (rule.flags & NUV_CLFY_F_DEV) out.printf(" dev %s", rule.dev);
  if (rule.flags & NUV_CLFY_F_BRDEV) out.printf(" brdev %s", rule.brdev);
  if ((rule.flags & NUV_CLFY_F_LOCALMARK) && rule.localmark) {
    char classes[kPieceSize];
    out.printf(" localmark %s", tcclassset_value2str(rule.localmark, classes, sizeof classes));
  }
  if (rule.flags & NUV_CLFY_F_ETH_PROTO) out.printf(" eth.proto 0x%04hx", dp::net_to_host16(rule.eth_proto));
}

void print_oui(TextWriter &out, const char *keyword, const std::uint8_t *mac) {
  out.printf(" %s %02x:%02x:%02x", keyword, mac[0], mac[1], mac[2]);
}

void print_link_layer(TextWriter &out, const nuv_clfy &rule) {
  if (!(rule.flags & NUV_CLFY_GROUP_LINK)) return;
  if ((rule.flags & NUV_CLFY_F_ETHSRCTAB) && rule.ethsrctab) {
    const ethersrctab &table = *rule.ethsrctab;
    out.printf(" ethsrctab %s", table.name);
    for (std::uint32_t i = 0; i < table.count; ++i) out.printf(" %s", ethaddr2str(table.entries + dp::wire::kEthernetAddressLength * i));
  }
  if (rule.flags & NUV_CLFY_F_ETH_SOURCE)
    out.printf(" eth.source %s", ethaddr2str(rule.eth_source));
  else if (rule.flags & NUV_CLFY_F_ETH_SOURCEOUI)
    print_oui(out, "eth.sourceoui", rule.eth_source);
  if (rule.flags & NUV_CLFY_F_ETH_DEST)
    out.printf(" eth.dest %s", ethaddr2str(rule.eth_dest));
  else if (rule.flags & NUV_CLFY_F_ETH_DESTOUI)
    print_oui(out, "eth.destoui", rule.eth_dest);
  if (rule.flags & NUV_CLFY_F_VLAN_ID) {
    char text[kPieceSize];
    out.printf(" vlan.id %s", list_text(rule.vlan_ids, text));
  }
  if (rule.flags & NUV_CLFY_F_VLAN_PRIO) out.printf(" vlan.prio %u", rule.vlan_prio);
}

// Address fields are 16-byte unions aligned for 32-bit words.
const in6_addr *as_in6(const std::uint8_t *bytes) { return reinterpret_cast<const in6_addr *>(bytes); }

// IPv4 conditions print address and mask as two dotted quads.
void print_address(TextWriter &out, const char *keyword, const std::uint8_t *addr, std::uint8_t prefixlen,
                   std::uint8_t family) {
  if (family == dp::wire::kFamilyIpv4)
    out.printf(" %s %s %s", keyword, ipaddr2str(dp::load_net32(addr)), ipaddr2str(dp::load_net32(addr + 4)));
  else if (family == dp::wire::kFamilyIpv6)
    out.printf(" %s %s/%u", keyword, ip6addr2str(as_in6(addr)), prefixlen);
}

void print_ipdsttab(TextWriter &out, const ipdsttab &table) {
  out.printf(" ipdsttab %s", table.name);
  for (std::uint32_t i = 0; i < table.count; ++i) {
    const ipdsttab_entry &entry = table.entries[i];
    if (entry.family == dp::wire::kFamilyIpv6)
      out.printf(" %s", ip6addr2str(as_in6(entry.addr.v6)));
    else
      out.printf(" %s", ipaddr2str(dp::load_net32(entry.addr.v6)));
  }
}

// " tcp", " udp", or a lone space for ports under any other protocol.
const char *port_prefix(std::uint8_t proto) {
  if (proto == dp::wire::kProtoTcp) return " tcp";
  if (proto == dp::wire::kProtoUdp) return " udp";
  return " ";
}

void print_transport(TextWriter &out, const nuv_clfy &rule) {
  if (!(rule.flags & NUV_CLFY_GROUP_TRANSPORT)) return;
  char text[kPieceSize];
  if (rule.flags & NUV_CLFY_F_SPORTS)
    out.printf("%s.sport %s", port_prefix(rule.ip_proto), list_text(rule.sports, text));
  if (rule.flags & NUV_CLFY_F_DPORTS)
    out.printf("%s.dport %s", port_prefix(rule.ip_proto), list_text(rule.dports, text));
  if (rule.flags & NUV_CLFY_F_TCP_FLAGS)
    out.printf(" tcp.flags 0x%03hx/0x%03hx", dp::net_to_host16(rule.tcp_flags), dp::net_to_host16(rule.tcp_flags_mask));
  if ((rule.flags & NUV_CLFY_F_DHCP) && rule.dhcp) dp::clfy::print_dhcp(out, *rule.dhcp);
  if (rule.flags & NUV_CLFY_F_PACKETMATCH) out.printf(" packetmatch %s", rule.packetmatch ? rule.packetmatch : "");
}

void print_ip(TextWriter &out, const nuv_clfy &rule) {
  if (!(rule.flags & NUV_CLFY_GROUP_IP_NO_ICMP)) return;
  if (rule.flags & NUV_CLFY_F_IP_VERSION) out.printf(" ip.version %u", rule.ip_version);
  if (rule.flags & NUV_CLFY_F_IP_PROTO) out.printf(" ip.proto %u", rule.ip_proto);
  if (rule.flags & NUV_CLFY_F_IP_TOS) out.printf(" ip.tos 0x%x/0x%x", rule.ip_tos, rule.ip_tos_mask);
  if (rule.flags & NUV_CLFY_F_IP_LEN) {
    out.append(" ip.len ");
    print_comparison(out, rule.ip_len.op, rule.ip_len.value1, rule.ip_len.value2);
  }
  if (rule.flags & NUV_CLFY_F_IP_SADDR)
    print_address(out, "ip.saddr", rule.ip_saddr.v6, rule.ip_saddr_prefixlen, rule.ip_saddr_family);
  if (rule.flags & NUV_CLFY_F_IP_DADDR)
    print_address(out, "ip.daddr", rule.ip_daddr.v6, rule.ip_daddr_prefixlen, rule.ip_daddr_family);
  if ((rule.flags & NUV_CLFY_F_IPDSTTAB) && rule.ipdsttab) print_ipdsttab(out, *rule.ipdsttab);
  print_transport(out, rule);
}

void print_action(TextWriter &out, const nuv_clfy &rule) {
  if (!rule.owner) return;
  const nuv_clfy_action *action = dp::clfy::action_at(rule.action);
  if (action) out.printf(" (%s)", action->name);
}

}  // namespace

extern "C" char *nuv_clfy_as_string(int depth, const nuv_clfy *rule, char *buf, size_t size) {
  TextWriter out(buf, size);
  if (depth >= 0) {
    out.printf("%3d:", depth);
    for (int level = 0; level < depth && !out.full(); ++level) out.append("   ");
  }
  print_interfaces(out, *rule);
  print_link_layer(out, *rule);
  print_ip(out, *rule);
  if (rule->flags & NUV_CLFY_F_ICMP_TYPE) out.printf(" icmp.type %u", rule->icmp_type);
  print_action(out, *rule);
  if (depth >= 0) out.printf(" => %hu", rule->result);
  return buf;
}

extern "C" void nuv_clfy_show(int, nuv_clfy *) {}
