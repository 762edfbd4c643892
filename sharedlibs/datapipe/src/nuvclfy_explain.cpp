// Match explanation: the matcher's own test sequence, run with a policy that
// keeps the first failed condition, turned into rule-text words.
#include <cstdint>
#include <cstring>

#include "dp_bytes.h"
#include "dp_textwriter.h"
#include "nuvaddr.h"
#include "nuvclfy.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"
#include "nuvcsock.h"
#include "nuvdhcp.h"

namespace {

using dp::TextWriter;
using dp::clfy::Cond;
using dp::clfy::Finding;
using dp::clfy::Why;

// Port keywords are written with the protocol the rule implies.
const char *sports_keyword(const nuv_clfy &rule) {
  return rule.ip_proto == dp::clfy::kProtoUdp ? "udp.sport" : "tcp.sport";
}

const char *dports_keyword(const nuv_clfy &rule) {
  return rule.ip_proto == dp::clfy::kProtoUdp ? "udp.dport" : "tcp.dport";
}

const char *dhcp_keyword(const nuv_clfy &rule) {
  return rule.dhcp && rule.dhcp->code == 0 ? "dhcpheader" : "dhcpoption";
}

// Keyword of each condition; the port and DHCP keywords depend on the rule.
const char *keyword_of(Cond cond, const nuv_clfy &rule) {
  switch (cond) {
    case Cond::kDev: return "dev";
    case Cond::kBrdev: return "brdev";
    case Cond::kLocalmark: return "localmark";
    case Cond::kEthProto: return "eth.proto";
    case Cond::kEthSource: return "eth.source";
    case Cond::kEthSourceOui: return "eth.sourceoui";
    case Cond::kEthSrcTab: return "ethsrctab";
    case Cond::kEthDest: return "eth.dest";
    case Cond::kEthDestOui: return "eth.destoui";
    case Cond::kVlanId: return "vlan.id";
    case Cond::kVlanPrio: return "vlan.prio";
    case Cond::kIpVersion: return "ip.version";
    case Cond::kIpProto: return "ip.proto";
    case Cond::kIpTos: return "ip.tos";
    case Cond::kIpLen: return "ip.len";
    case Cond::kIpSaddr: return "ip.saddr";
    case Cond::kIpDaddr: return "ip.daddr";
    case Cond::kIpDstTab: return "ipdsttab";
    case Cond::kSports: return sports_keyword(rule);
    case Cond::kDports: return dports_keyword(rule);
    case Cond::kDhcp: return dhcp_keyword(rule);
    case Cond::kTcpFlags: return "tcp.flags";
    case Cond::kPacketMatch: return "packetmatch";
    case Cond::kIcmpType: return "icmp.type";
    default: return "";
  }
}

// The IP conditions in the order the matcher tests them, with their bits.
struct IpCondition {
  std::uint32_t bit;
  Cond cond;
};
constexpr IpCondition kIpConditions[] = {
    {NUV_CLFY_F_IP_VERSION, Cond::kIpVersion}, {NUV_CLFY_F_IP_PROTO, Cond::kIpProto},
    {NUV_CLFY_F_IP_TOS, Cond::kIpTos},         {NUV_CLFY_F_IP_LEN, Cond::kIpLen},
    {NUV_CLFY_F_IP_SADDR, Cond::kIpSaddr},     {NUV_CLFY_F_IP_DADDR, Cond::kIpDaddr},
    {NUV_CLFY_F_IPDSTTAB, Cond::kIpDstTab},    {NUV_CLFY_F_SPORTS, Cond::kSports},
    {NUV_CLFY_F_DPORTS, Cond::kDports},        {NUV_CLFY_F_DHCP, Cond::kDhcp},
    {NUV_CLFY_F_TCP_FLAGS, Cond::kTcpFlags},   {NUV_CLFY_F_PACKETMATCH, Cond::kPacketMatch},
    {NUV_CLFY_F_ICMP_TYPE, Cond::kIcmpType},
};

// A packet without an IP layer is blamed on the rule's first IP condition.
Cond first_ip_condition(const nuv_clfy &rule) {
  for (const IpCondition &c : kIpConditions)
    if (rule.flags & c.bit) return c.cond;
  return Cond::kNone;
}

// ---- The rule's side ----

const in6_addr *as_in6(const std::uint8_t *bytes) { return reinterpret_cast<const in6_addr *>(bytes); }

// "10.0.0.0/8" for a contiguous mask, "10.0.0.0/255.0.255.0" otherwise;
// IPv6 "2001:db8::/32".
void print_rule_address(TextWriter &out, const nuv_clfy_ipaddr &addr, std::uint8_t prefixlen, std::uint8_t family) {
  if (family == 6) {
    out.printf("IPv6 %s/%u", ip6addr2str(as_in6(addr.v6)), prefixlen);
    return;
  }
  if (family != 4) {
    out.append("an address of no IP version");
    return;
  }
  const std::uint32_t inverse = ~dp::load_be32(addr.v6 + 4);
  if ((inverse & (inverse + 1u)) == 0)  // contiguous: a prefix length says it
    out.printf("%s/%d", ipaddr2str(dp::load_net32(addr.v6)), 32 - __builtin_popcount(inverse));
  else
    out.printf("%s/%s", ipaddr2str(dp::load_net32(addr.v6)), ipaddr2str(dp::load_net32(addr.v6 + 4)));
}

void print_packet_address(TextWriter &out, const Finding &f) {
  if (f.value == 6)
    out.printf("%s", ip6addr2str(as_in6(f.bytes)));
  else
    out.printf("%s", ipaddr2str(dp::load_net32(f.bytes)));
}

void print_mac(TextWriter &out, const std::uint8_t *mac, bool oui) {
  if (oui)
    out.printf("%02x:%02x:%02x", mac[0], mac[1], mac[2]);
  else
    out.printf("%s", ethaddr2str(mac));
}

// What the rule wants, in its rule-text form.
void print_wanted(TextWriter &out, Cond cond, const nuv_clfy &rule) {
  switch (cond) {
    case Cond::kDev: out.printf("%s (index %d)", rule.dev, rule.dev_ifindex); break;
    case Cond::kBrdev: out.printf("%s (index %d)", rule.brdev, rule.brdev_ifindex); break;
    case Cond::kEthProto: out.printf("0x%04x", dp::net_to_host16(rule.eth_proto)); break;
    case Cond::kEthSource: print_mac(out, rule.eth_source, false); break;
    case Cond::kEthSourceOui: print_mac(out, rule.eth_source, true); break;
    case Cond::kEthDest: print_mac(out, rule.eth_dest, false); break;
    case Cond::kEthDestOui: print_mac(out, rule.eth_dest, true); break;
    case Cond::kVlanId: dp::clfy::print_value_list(out, rule.vlan_ids); break;
    case Cond::kVlanPrio: out.printf("%u", rule.vlan_prio); break;
    case Cond::kIpVersion: out.printf("%u", rule.ip_version); break;
    case Cond::kIpProto: out.printf("%u", rule.ip_proto); break;
    case Cond::kIpTos: out.printf("0x%02x/0x%02x", rule.ip_tos, rule.ip_tos_mask); break;
    case Cond::kIpLen: dp::clfy::print_comparison(out, rule.ip_len.op, rule.ip_len.value1, rule.ip_len.value2); break;
    case Cond::kIpSaddr:
      print_rule_address(out, rule.ip_saddr, rule.ip_saddr_prefixlen, rule.ip_saddr_family);
      break;
    case Cond::kIpDaddr:
      print_rule_address(out, rule.ip_daddr, rule.ip_daddr_prefixlen, rule.ip_daddr_family);
      break;
    case Cond::kSports: dp::clfy::print_value_list(out, rule.sports); break;
    case Cond::kDports: dp::clfy::print_value_list(out, rule.dports); break;
    case Cond::kTcpFlags:
      out.printf("0x%03x/0x%03x", dp::net_to_host16(rule.tcp_flags), dp::net_to_host16(rule.tcp_flags_mask));
      break;
    case Cond::kIcmpType: out.printf("%u", rule.icmp_type); break;
    default: break;
  }
}

// ---- The packet's side ----

void print_seen(TextWriter &out, const Finding &f) {
  switch (f.cond) {
    case Cond::kDev:
    case Cond::kBrdev: out.printf("interface index %u", f.value); break;
    case Cond::kEthProto: out.printf("0x%04x", f.value); break;
    case Cond::kEthSource:
    case Cond::kEthDest: print_mac(out, f.bytes, false); break;
    case Cond::kEthSourceOui:
    case Cond::kEthDestOui: print_mac(out, f.bytes, true); break;
    case Cond::kIpTos: out.printf("0x%02x", f.value); break;
    case Cond::kIpSaddr:
    case Cond::kIpDaddr: print_packet_address(out, f); break;
    case Cond::kTcpFlags: out.printf("0x%03x", f.value); break;
    default: out.printf("%u", f.value); break;
  }
}

void print_dhcp_miss(TextWriter &out, const Finding &f, const nuv_clfy &rule) {
  const nuv_clfy_dhcp *dhcp = rule.dhcp;
  switch (f.why) {
    case Why::kNoCondition: out.append("rule has no DHCP condition record"); break;
    case Why::kShort: out.append("packet too short for a DHCP message"); break;
    case Why::kDhcpUnreadable: out.append("the DHCP message's options cannot be read"); break;
    case Why::kDhcpRelease: out.append("a RELEASE never matches"); break;
    case Why::kDhcpType:
      out.printf("message type %u is neither DISCOVER (1) nor REQUEST (3)", f.value);
      break;
    default:
      if (dhcp->code == 0)
        out.printf("header field %s does not match \"%s\"", dhcp_hfield2str(dhcp->sub), dhcp->pattern ? dhcp->pattern : "");
      else
        out.printf("option %u does not match \"%s\"", dhcp->code, dhcp->pattern ? dhcp->pattern : "");
      break;
  }
}

// The sentence after "KEYWORD: ".
void print_reason(TextWriter &out, const Finding &f, const nuv_clfy &rule) {
  if (f.cond == Cond::kDhcp) return print_dhcp_miss(out, f, rule);
  switch (f.why) {
    case Why::kUnresolved: out.append("rule's interface "); print_wanted(out, f.cond, rule); out.append(" is not resolved"); return;
    case Why::kNoMap: out.append("rule has no class map"); return;
    case Why::kNoEthernet: out.append("packet has no Ethernet header"); return;
    case Why::kUntagged: out.append("packet has no VLAN tag, rule wants "); print_wanted(out, f.cond, rule); return;
    case Why::kNoIpHeader: out.append("packet has no IP header"); return;
    case Why::kNotIp: out.printf("packet's Ethernet type 0x%04x is neither IPv4 nor IPv6", f.value); return;
    case Why::kRuleNotTcp: out.append("rule's protocol is not TCP"); return;
    case Why::kNoPayloadMatch:
      out.printf("payload does not match \"%s\"", rule.packetmatch ? rule.packetmatch : "");
      return;
    case Why::kNotIcmpv6: out.printf("packet's upper-layer header %u is not ICMPv6", f.value); return;
    case Why::kNotInTable:
      out.append("packet has ");
      if (f.cond == Cond::kEthSrcTab) print_mac(out, f.bytes, false); else print_packet_address(out, f);
      out.append(", not in the rule's table");
      return;
    case Why::kIpTooShort: out.append("packet too short for its IP header"); return;
    case Why::kShort: out.append("packet ends before the bytes this condition reads"); return;
    case Why::kFamily:
      out.printf("packet is IPv%u (", f.value);
      print_packet_address(out, f);
      out.append("), rule wants ");
      print_wanted(out, f.cond, rule);
      return;
    default: break;
  }
  if (f.cond == Cond::kLocalmark) {
    out.printf("packet has class %u, which the rule's class map does not accept", f.value);
    return;
  }
  if (f.cond == Cond::kNothingTestable) {
    out.append("rule has no condition a packet could meet");
    return;
  }
  out.append("packet has ");
  print_seen(out, f);
  out.append(", rule wants ");
  print_wanted(out, f.cond, rule);
}

// Explanations are for people reading them, not for the packet path: the
// text is compiled for size.
[[gnu::cold]] void describe(const nuv_clfy &rule, Finding f, nuv_clfy_explanation &out) {
  if (f.cond == Cond::kIp) f.cond = first_ip_condition(rule);
  const char *keyword = keyword_of(f.cond, rule);
  TextWriter word(out.keyword, sizeof out.keyword);
  word.append(keyword);
  TextWriter text(out.text, sizeof out.text);
  if (*keyword) text.printf("%s: ", keyword);
  print_reason(text, f, rule);
}

}  // namespace

extern "C" int nuv_clfy_explain(const nuv_clfy *rule, const nuv_clfy_packet *packet, uint32_t mark,
                                nuv_clfy_explanation *out) {
  std::memset(out, 0, sizeof *out);
  dp::clfy::PacketFacts facts;
  dp::clfy::read_packet(*packet, facts);
  Finding finding;
  out->matched = dp::clfy::rule_explained(*rule, facts, mark, finding) ? 1 : 0;
  if (!out->matched) describe(*rule, finding, *out);
  return out->matched;
}
