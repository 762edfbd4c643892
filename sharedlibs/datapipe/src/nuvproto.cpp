// IP protocol names and numbers, TCP flag texts.
#include "dp_wire.h"
#include "nuvproto.h"

#include <strings.h>

#include <cstddef>
#include <cstdint>

#include "dp_textring.h"
#include "dp_textwriter.h"

namespace {

constexpr std::size_t kNamedProtocols = 140;

// Registry keywords of protocols 0..139.  Row 4 reads "IP" (so it prints like
// the any-protocol value), and the registry rows without a keyword
// (61, 63, 68, 99, 114) read "any".  Numbers from 140 up have no name.
constexpr const char *kProtocolNames[kNamedProtocols] = {
    "HOPOPT", "ICMP", "IGMP", "GGP", "IP", "ST", "TCP", "CBT", "EGP", "IGP", "BBN-RCC-MON",
    "NVP-II", "PUP", "ARGUS (deprecated)", "EMCON", "XNET", "CHAOS", "UDP", "MUX", "DCN-MEAS",
    "HMP", "PRM", "XNS-IDP", "TRUNK-1", "TRUNK-2", "LEAF-1", "LEAF-2", "RDP", "IRTP", "ISO-TP4",
    "NETBLT", "MFE-NSP", "MERIT-INP", "DCCP", "3PC", "IDPR", "XTP", "DDP", "IDPR-CMTP", "TP++",
    "IL", "IPv6", "SDRP", "IPv6-Route", "IPv6-Frag", "IDRP", "RSVP", "GRE", "DSR", "BNA", "ESP",
    "AH", "I-NLSP", "SWIPE (deprecated)", "NARP", "Min-IPv4", "TLSP", "SKIP", "IPv6-ICMP",
    "IPv6-NoNxt", "IPv6-Opts", "any", "CFTP", "any", "SAT-EXPAK", "KRYPTOLAN", "RVD", "IPPC",
    "any", "SAT-MON", "VISA", "IPCV", "CPNX", "CPHB", "WSN", "PVP", "BR-SAT-MON", "SUN-ND",
    "WB-MON", "WB-EXPAK", "ISO-IP", "VMTP", "SECURE-VMTP", "VINES", "IPTM", "NSFNET-IGP", "DGP",
    "TCF", "EIGRP", "OSPFIGP", "Sprite-RPC", "LARP", "MTP", "AX.25", "IPIP", "MICP (deprecated)",
    "SCC-SP", "ETHERIP", "ENCAP", "any", "GMTP", "IFMP", "PNNI", "PIM", "ARIS", "SCPS", "QNX",
    "A/N", "IPComp", "SNP", "Compaq-Peer", "IPX-in-IP", "VRRP", "PGM", "any", "L2TP", "DDX",
    "IATP", "STP", "SRP", "UTI", "SMP", "SM (deprecated)", "PTP", "ISIS over IPv4", "FIRE", "CRTP",
    "CRUDP", "SSCOPMCE", "IPLT", "SPS", "PIPE", "SCTP", "FC", "RSVP-E2E-IGNORE", "Mobility Header",
    "UDPLite", "MPLS-in-IP", "manet", "HIP",
};

struct ProtocolAlias {
  const char *name;
  std::uint8_t number;
};

// Names printed instead of the table entry.  255 is the any-protocol value
// of the rule texts, which users write as "IP".
constexpr ProtocolAlias kPrintedAliases[] = {
    {"IP", NUV_IPPROTO_ANY},
    {"ICMPv6", dp::wire::kProtoIcmpv6},
    {"IPIP", 94},
};

// Names read before the table is searched (ignoring case).  "ipv4" has always
// meant 0 in rule texts, and configurations depend on that.
constexpr ProtocolAlias kParsedAliases[] = {
    {"ip", NUV_IPPROTO_ANY},
    {"ipv4", 0},
    {"icmpv6", dp::wire::kProtoIcmpv6},
    {"ipip", 94},
};

constexpr ProtocolAlias kNoAlias{nullptr, 0};

const ProtocolAlias &printed_alias(std::uint8_t proto) {
  for (const ProtocolAlias &alias : kPrintedAliases)
    if (alias.number == proto) return alias;
  return kNoAlias;
}

const ProtocolAlias &parsed_alias(const char *name) {
  for (const ProtocolAlias &alias : kParsedAliases)
    if (strcasecmp(alias.name, name) == 0) return alias;
  return kNoAlias;
}

// Index of the first table row named `name` (ignoring case), or -1.
int table_row_named(const char *name) {
  for (std::size_t row = 0; row < kNamedProtocols; ++row)
    if (kProtocolNames[row] && strcasecmp(kProtocolNames[row], name) == 0) return static_cast<int>(row);
  return -1;
}

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Decimal conversion in the manner of atoi (leading white space, optional
// sign, digits as far as they go; no digits read as 0), saturating instead
// of overflowing so that a long digit string simply counts as too large.
long long lenient_decimal(const char *text) {
  while (is_blank(*text)) ++text;
  bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  long long value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    if (value < 1000000) value = value * 10 + (*text - '0');
  }
  return negative ? -value : value;
}

// "P<number>" names any protocol numerically; the prefix is case-sensitive.
bool parse_numeric_name(const char *name, std::uint8_t *proto) {
  if (name[0] != 'P') return false;
  long long value = lenient_decimal(name + 1);
  if (value < 0 || value > 255) return false;
  *proto = static_cast<std::uint8_t>(value);
  return true;
}

struct TcpFlagName {
  std::uint8_t bit;
  const char *format;
};

// Listed in the order the text shows them.
constexpr TcpFlagName kTcpFlagNames[] = {
    {0x02, "%sSYN"}, {0x10, "%sACK"}, {0x08, "%sPSH"}, {0x01, "%sFIN"}, {0x04, "%sRST"},
};

constexpr std::size_t kTcpFlagsByte = 13;

}  // namespace

extern "C" {

const char *ipproto2str(uint8_t proto) {
  const ProtocolAlias &alias = printed_alias(proto);
  if (alias.name) return alias.name;
  if (proto < kNamedProtocols && kProtocolNames[proto]) return kProtocolNames[proto];
  char *buf = dp::result_ring_next();
  dp::TextWriter(buf, dp::kResultBufferSize).printf("P%d", proto);
  return buf;
}

int ipproto_parse(uint8_t *proto, const char *name) {
  const ProtocolAlias &alias = parsed_alias(name);
  if (alias.name) {
    *proto = alias.number;
    return 0;
  }
  int row = table_row_named(name);
  if (row >= 0) {
    *proto = static_cast<std::uint8_t>(row);
    return 0;
  }
  return parse_numeric_name(name, proto) ? 0 : -1;
}

const char *tcpflags2str(const uint8_t *tcphdr) {
  const std::uint8_t flags = tcphdr[kTcpFlagsByte];
  char *buf = dp::result_ring_next();
  dp::TextWriter text(buf, dp::kResultBufferSize);
  const char *separator = "";
  for (const TcpFlagName &flag : kTcpFlagNames) {
    if (!(flags & flag.bit)) continue;
    text.printf(flag.format, separator);
    separator = ",";
  }
  return buf;
}

}  // extern "C"
