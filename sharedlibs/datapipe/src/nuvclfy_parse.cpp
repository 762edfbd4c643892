// Rule text parser: splits a rule line into keyword/value pairs and lets the
// keyword's handler from the keyword table fill the condition.
#include <cstdio>
#include <cstring>

#include "dp_bytes.h"
#include "dp_text.h"
#include "nuvclfy.h"
#include "nuvclfy_priv.h"
#include "nuvproto.h"

namespace {

// The parser works on a private copy of this many characters (NUL included).
constexpr std::size_t kLineBuffer = 256;

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_keyword_char(char c) { return is_letter(c) || c == '.'; }

// ---- Comparison operators of value lists and ip.len ----

struct OperatorText {
  const char *text;
  std::uint32_t op;
};

// Two-character forms first, so "<=" is not read as "<" followed by "=".
constexpr OperatorText kOperatorTexts[] = {
    {"!=", NUV_CLFY_OP_NE}, {"<>", NUV_CLFY_OP_NE}, {"<=", NUV_CLFY_OP_LE}, {">=", NUV_CLFY_OP_GE},
    {"==", NUV_CLFY_OP_EQ}, {"<", NUV_CLFY_OP_LT},  {">", NUV_CLFY_OP_GT},  {"=", NUV_CLFY_OP_EQ},
};

const OperatorText *find_operator(const char *p) {
  for (const OperatorText &entry : kOperatorTexts)
    if (std::strncmp(p, entry.text, std::strlen(entry.text)) == 0) return &entry;
  return nullptr;
}

// One comparison as the parser reads it; values in network byte order, as
// parse_u16 delivers them.
struct Comparison {
  std::uint32_t op = 0;
  std::uint16_t value1 = 0;
  std::uint16_t value2 = 0;
};

// "80", "1000-2000", ">= 8000", "!=22".
int parse_comparison(char *text, char **end, Comparison &out) {
  char *p = dp::skip_spaces(text);
  if (is_digit(*p)) {
    if (parse_u16(p, end, &out.value1) < 0) return -1;
    char *q = dp::skip_spaces(*end);
    if (*q != '-') {
      out.op = NUV_CLFY_OP_EQ;
      return 0;
    }
    if (parse_u16(dp::skip_spaces(q + 1), end, &out.value2) < 0) return -1;
    out.op = NUV_CLFY_OP_RANGE;
    return 0;
  }
  const OperatorText *op = find_operator(p);
  if (!op) return -1;
  out.op = op->op;
  return parse_u16(dp::skip_spaces(p + std::strlen(op->text)), end, &out.value1);
}

using AddComparison = void (*)(nuv_clfy *, std::uint32_t, std::uint16_t, std::uint16_t);

// A comma-separated list of comparisons.  The commas are looked for in the
// whole rest of the line, so a comma in a later keyword's value splits this
// list too; the piece before such a comma carries other words and the rule is
// refused.
int parse_comparison_list(char *text, char **end, nuv_clfy *rule, AddComparison add) {
  char *element = text;
  for (;;) {
    char *comma = std::strchr(element, ',');
    if (comma) *comma = '\0';
    Comparison c;
    const int rc = parse_comparison(element, end, c);
    const bool clean = rc == 0 && (!comma || *dp::skip_spaces(*end) == '\0');
    if (comma) *comma = ',';
    if (!clean) return -1;
    add(rule, c.op, c.value1, c.value2);
    if (!comma) return 0;
    element = comma + 1;
  }
}

// ---- Keyword handlers ----

int set_name(char *text, char **end, char *name, std::size_t size) {
  char *p = dp::skip_equals(text);
  char *stop = dp::word_end(p);
  if (*stop == ' ') *stop++ = '\0';
  std::size_t len = std::strlen(p);
  if (len > size - 1) len = size - 1;
  std::memcpy(name, p, len);
  name[len] = '\0';
  *end = stop;
  return 0;
}

int handle_dev(char *text, char **end, nuv_clfy *rule) {
  set_name(text, end, rule->dev, dp::clfy::kIfNameLimit);
  rule->dev_ifindex = -1;
  rule->flags |= NUV_CLFY_F_DEV;
  return 0;
}

int handle_brdev(char *text, char **end, nuv_clfy *rule) {
  set_name(text, end, rule->brdev, dp::clfy::kIfNameLimit);
  rule->brdev_ifindex = -1;
  rule->flags |= NUV_CLFY_F_BRDEV;
  return 0;
}

// Older configurations name the switch port; the classifier has no use for it.
int handle_ethport(char *text, char **end, nuv_clfy *) {
  *end = dp::word_end(dp::skip_equals(text));
  return 0;
}

int handle_localmark(char *text, char **end, nuv_clfy *rule) {
  unsigned char map[dp::clfy::kClassMapSize];
  std::memset(map, 0, sizeof map);
  char *name = dp::skip_equals(text);
  for (;;) {
    char *stop = name;
    while (*stop && *stop != ' ' && *stop != ',') ++stop;
    const char separator = *stop;
    *stop = '\0';
    // Whatever the platform answers is used: unknown names are not refused.
    map[static_cast<unsigned>(tcclass_name2value(name)) & 0x7fu] = 1;
    *stop = separator;
    if (separator != ',') {
      *end = stop;
      break;
    }
    name = stop + 1;
  }
  return nuv_clfy_add_localmark(rule, map) < 0 ? -1 : 0;
}

int handle_eth_proto(char *text, char **end, nuv_clfy *rule) {
  if (parse_u16(dp::skip_equals(text), end, &rule->eth_proto) < 0) return -1;
  rule->flags |= NUV_CLFY_F_ETH_PROTO;
  return 0;
}

int handle_eth_source(char *text, char **end, nuv_clfy *rule) {
  if (parse_mac(dp::skip_equals(text), end, rule->eth_source) < 0) return -1;
  rule->flags |= NUV_CLFY_F_ETH_SOURCE;
  return 0;
}

int handle_eth_sourceoui(char *text, char **end, nuv_clfy *rule) {
  if (parse_oui(dp::skip_equals(text), end, rule->eth_source) < 0) return -1;
  rule->flags |= NUV_CLFY_F_ETH_SOURCEOUI;
  return 0;
}

int handle_eth_dest(char *text, char **end, nuv_clfy *rule) {
  if (parse_mac(dp::skip_equals(text), end, rule->eth_dest) < 0) return -1;
  rule->flags |= NUV_CLFY_F_ETH_DEST;
  return 0;
}

int handle_eth_destoui(char *text, char **end, nuv_clfy *rule) {
  if (parse_oui(dp::skip_equals(text), end, rule->eth_dest) < 0) return -1;
  rule->flags |= NUV_CLFY_F_ETH_DESTOUI;
  return 0;
}

int handle_vlan_id(char *text, char **end, nuv_clfy *rule) {
  return parse_comparison_list(text, end, rule, nuv_clfy_add_vlanid);
}

int handle_vlan_prio(char *text, char **end, nuv_clfy *rule) {
  if (parse_u8(dp::skip_equals(text), end, &rule->vlan_prio) < 0) return -1;
  rule->flags |= NUV_CLFY_F_VLAN_PRIO;
  return 0;
}

// The table name is the next word; the text is terminated there only while
// the table is looked up.
template <typename Table>
int with_table_name(char *text, char **end, Table *(*find_or_create)(const char *), Table **out) {
  char *name = dp::skip_spaces(text);
  char *stop = dp::word_end(name);
  const char separator = *stop;
  *stop = '\0';
  *out = find_or_create(name);
  *stop = separator;
  *end = stop;
  return *out ? 0 : -1;
}

int handle_ethsrctab(char *text, char **end, nuv_clfy *rule) {
  if (with_table_name(text, end, nuv_clfy_ethersrctab_find_or_create, &rule->ethsrctab) < 0) return -1;
  rule->flags |= NUV_CLFY_F_ETHSRCTAB;
  return 0;
}

int handle_ipdsttab(char *text, char **end, nuv_clfy *rule) {
  if (with_table_name(text, end, nuv_clfy_ipdsttab_find_or_create, &rule->ipdsttab) < 0) return -1;
  rule->flags |= NUV_CLFY_F_IPDSTTAB;
  return 0;
}

int handle_ip_version(char *text, char **end, nuv_clfy *rule) {
  std::uint8_t version = 0;
  if (parse_u8(dp::skip_equals(text), end, &version) < 0) return -1;
  if (version != 4 && version != 6) return -1;
  rule->ip_version = version;
  rule->flags |= NUV_CLFY_F_IP_VERSION;
  return 0;
}

// Only one protocol is taken: a comma ends the name like a space does, and
// parsing goes on right behind it.
int handle_ip_proto(char *text, char **end, nuv_clfy *rule) {
  char *name = dp::skip_equals(text);
  char *stop = name;
  while (*stop && *stop != ' ' && *stop != ',') ++stop;
  if (*stop) *stop++ = '\0';
  *end = stop;
  std::uint8_t proto = 0;
  if (ipproto_parse(&proto, name) < 0) return -1;
  rule->ip_proto = proto;
  rule->flags |= NUV_CLFY_F_IP_PROTO;
  return 0;
}

// "value", "value/mask" or "value mask".
template <typename T, typename Parse>
int parse_value_and_mask(char *text, char **end, T *value, T *mask, T default_mask, Parse parse) {
  if (parse(dp::skip_equals(text), end, value) < 0) return -1;
  char *p = dp::skip_spaces(*end);
  if (*p == '/') return parse(p + 1, end, mask) < 0 ? -1 : 0;
  if (is_digit(*p)) return parse(p, end, mask) < 0 ? -1 : 0;
  *mask = default_mask;
  return 0;
}

int handle_ip_tos(char *text, char **end, nuv_clfy *rule) {
  if (parse_value_and_mask<std::uint8_t>(text, end, &rule->ip_tos, &rule->ip_tos_mask, dp::clfy::kTosMaskDefault,
                                         parse_u8) < 0)
    return -1;
  rule->flags |= NUV_CLFY_F_IP_TOS;
  return 0;
}

int handle_tcp_flags(char *text, char **end, nuv_clfy *rule) {
  rule->ip_proto = dp::clfy::kProtoTcp;
  rule->flags |= NUV_CLFY_F_IP_PROTO;
  const std::uint16_t twelve_bits = dp::host_to_net16(0x0fff);
  if (parse_value_and_mask<std::uint16_t>(text, end, &rule->tcp_flags, &rule->tcp_flags_mask, twelve_bits,
                                          parse_u16) < 0)
    return -1;
  // The data-offset nibble shares the word with the flags; it never takes part.
  rule->tcp_flags &= twelve_bits;
  rule->tcp_flags_mask &= twelve_bits;
  rule->flags |= NUV_CLFY_F_TCP_FLAGS;
  return 0;
}

bool reads_as_ipv4(const char *p) {
  unsigned a, b, c, d;
  return std::sscanf(p, "%u.%u.%u.%u", &a, &b, &c, &d) == 4;
}

// An IPv4 prefix ("10.0.0.0/8", "10.0.0.0 255.0.0.0", "10.0.0.1") or an IPv6
// one.  The IPv6 form takes the first "/" of the rest of the line as its
// length separator, and without one the rest of the line as the address.
int parse_address(char *text, char **end, std::uint8_t *addr, std::uint8_t *prefixlen, std::uint8_t *family) {
  char *p = dp::skip_equals(text);
  if (reads_as_ipv4(p)) {
    std::uint32_t address = 0, mask = 0;
    if (parse_prefix(p, end, &address, &mask) < 0) return -1;
    dp::store_net32(addr, address);
    dp::store_net32(addr + 4, mask);
    *family = 4;
    return 0;
  }
  std::uint8_t length = 128;
  if (parse_prefix6(p, end, addr, &length) < 0) return -1;
  *prefixlen = length;
  *family = 6;
  return 0;
}

int handle_ip_saddr(char *text, char **end, nuv_clfy *rule) {
  if (parse_address(text, end, rule->ip_saddr.v6, &rule->ip_saddr_prefixlen, &rule->ip_saddr_family) < 0) return -1;
  rule->flags |= NUV_CLFY_F_IP_SADDR;
  return 0;
}

int handle_ip_daddr(char *text, char **end, nuv_clfy *rule) {
  if (parse_address(text, end, rule->ip_daddr.v6, &rule->ip_daddr_prefixlen, &rule->ip_daddr_family) < 0) return -1;
  rule->flags |= NUV_CLFY_F_IP_DADDR;
  return 0;
}

int handle_ip_len(char *text, char **end, nuv_clfy *rule) {
  Comparison c;
  if (parse_comparison(text, end, c) < 0) return -1;
  rule->ip_len.op = c.op;
  rule->ip_len.value1 = dp::net_to_host16(c.value1);
  rule->ip_len.value2 = dp::net_to_host16(c.value2);
  rule->flags |= NUV_CLFY_F_IP_LEN;
  return 0;
}

template <std::uint8_t Proto, AddComparison Add>
int handle_ports(char *text, char **end, nuv_clfy *rule) {
  rule->ip_proto = Proto;
  rule->flags |= NUV_CLFY_F_IP_PROTO;
  return parse_comparison_list(text, end, rule, Add);
}

int handle_icmp_type(char *text, char **end, nuv_clfy *rule) {
  if (parse_u8(dp::skip_equals(text), end, &rule->icmp_type) < 0) return -1;
  rule->flags |= NUV_CLFY_F_ICMP_TYPE;
  return 0;
}

// Codes of a DHCP condition that cannot be taken.
constexpr int kDhcpMissingTable = -9;
constexpr int kDhcpNotStored = -10;

using DhcpMatchParser = int (*)(char *, char **, dhcp_match *);

// "<match> pattern tablename": the match parser reads up to the end of the
// pattern, then a table name of letters and dots must follow.  Pattern and
// name are terminated only while the condition is stored.
int parse_dhcp_condition(char *text, char **end, nuv_clfy *rule, DhcpMatchParser parse) {
  dhcp_match match;
  std::memset(&match, 0, sizeof match);
  char *pattern_end = text;
  const int length = parse(text, &pattern_end, &match);
  if (length < 0) return length;
  char *table = dp::skip_spaces(pattern_end);
  char *table_end = table;
  while (is_keyword_char(*table_end)) ++table_end;
  if (table_end == table) return kDhcpMissingTable;
  // The pattern lies in our writable copy of the line; the match record only
  // hands it back as const.
  char *pattern = match.pattern ? const_cast<char *>(match.pattern) : pattern_end;
  const char pattern_stop = pattern[length];
  const char table_stop = *table_end;
  pattern[length] = '\0';
  *table_end = '\0';
  const int rc = nuv_clfy_add_dhcppacketmatch(rule, match.code, match.enterprise, match.sub, pattern, table);
  *table_end = table_stop;
  pattern[length] = pattern_stop;
  *end = table_end;
  return rc < 0 ? kDhcpNotStored : 0;
}

int option_match(char *text, char **end, dhcp_match *match) {
  return parse_dhcpoptionmatch(text, end, match);
}

int header_match(char *text, char **end, dhcp_match *match) {
  return parse_dhcpheadermatch(text, end, match);
}

int handle_dhcpoption(char *text, char **end, nuv_clfy *rule) {
  return parse_dhcp_condition(text, end, rule, option_match);
}

int handle_dhcpheader(char *text, char **end, nuv_clfy *rule) {
  return parse_dhcp_condition(text, end, rule, header_match);
}

// The pattern is stored from its first character to the end of the line,
// while parsing goes on behind its first word: conditions written after a
// packetmatch pattern both apply and become part of the pattern.  Rule sets
// in the field are written with packetmatch last, relying on that.
int handle_packetmatch(char *text, char **end, nuv_clfy *rule) {
  char *pattern = dp::skip_spaces(text);
  *end = dp::word_end(pattern);
  return nuv_clfy_add_packetmatch(rule, pattern);
}

int handle_any(char *, char **, nuv_clfy *) { return 0; }

}  // namespace

extern "C" {

const nuv_clfy_keyword parsetab[] = {
    {"dev", handle_dev},
    {"brdev", handle_brdev},
    {"ethport", handle_ethport},
    {"localmark", handle_localmark},
    {"eth.proto", handle_eth_proto},
    {"eth.source", handle_eth_source},
    {"eth.sourceoui", handle_eth_sourceoui},
    {"eth.dest", handle_eth_dest},
    {"eth.destoui", handle_eth_destoui},
    {"vlan.id", handle_vlan_id},
    {"vlan.prio", handle_vlan_prio},
    {"ethsrctab", handle_ethsrctab},
    {"ip.version", handle_ip_version},
    {"ip.proto", handle_ip_proto},
    {"ip.protocol", handle_ip_proto},
    {"ip.tos", handle_ip_tos},
    {"ip.saddr", handle_ip_saddr},
    {"ip.source", handle_ip_saddr},
    {"ip.daddr", handle_ip_daddr},
    {"ipdsttab", handle_ipdsttab},
    {"ip.dest", handle_ip_daddr},
    {"ip.len", handle_ip_len},
    {"udp.source", handle_ports<dp::clfy::kProtoUdp, nuv_clfy_add_ip_sport>},
    {"udp.sport", handle_ports<dp::clfy::kProtoUdp, nuv_clfy_add_ip_sport>},
    {"udp.dest", handle_ports<dp::clfy::kProtoUdp, nuv_clfy_add_ip_dport>},
    {"udp.dport", handle_ports<dp::clfy::kProtoUdp, nuv_clfy_add_ip_dport>},
    {"tcp.source", handle_ports<dp::clfy::kProtoTcp, nuv_clfy_add_ip_sport>},
    {"tcp.sport", handle_ports<dp::clfy::kProtoTcp, nuv_clfy_add_ip_sport>},
    {"tcp.dest", handle_ports<dp::clfy::kProtoTcp, nuv_clfy_add_ip_dport>},
    {"tcp.dport", handle_ports<dp::clfy::kProtoTcp, nuv_clfy_add_ip_dport>},
    {"tcp.flags", handle_tcp_flags},
    {"icmp.type", handle_icmp_type},
    {"dhcpoption", handle_dhcpoption},
    {"dhcpheader", handle_dhcpheader},
    {"packetmatch", handle_packetmatch},
    {"any", handle_any},
    {nullptr, nullptr},
};

}  // extern "C"

namespace {

const nuv_clfy_keyword *find_keyword(const char *word) {
  for (const nuv_clfy_keyword *row = parsetab; row->keyword; ++row)
    if (std::strcmp(row->keyword, word) == 0) return row;
  return nullptr;
}

// Runs the keyword at `p`; returns where parsing continues, or null.
char *parse_condition(char *p, nuv_clfy *rule) {
  char *keyword_end = p;
  while (is_keyword_char(*keyword_end)) ++keyword_end;
  const char saved = *keyword_end;
  *keyword_end = '\0';
  const nuv_clfy_keyword *row = find_keyword(p);
  *keyword_end = saved;
  if (!row) return nullptr;
  char *end = keyword_end;
  if (row->handler(keyword_end, &end, rule) < 0) return nullptr;
  return end;
}

}  // namespace

extern "C" int nuv_clfy_parse(const char *text, nuv_clfy **result) {
  const std::size_t length = std::strlen(text);
  if (length >= kLineBuffer) return -1;
  nuv_clfy *rule = nuv_clfy_alloc();
  if (!rule) return -1;
  char line[kLineBuffer];
  std::memcpy(line, text, length + 1);
  // A handler may stop in front of the next keyword; no blank is needed there.
  for (char *p = dp::skip_spaces(line); *p; p = dp::skip_spaces(p)) {
    p = parse_condition(p, rule);
    if (!p) {
      nuv_clfy_free(rule);
      return -1;
    }
  }
  nuv_clfy_optim(rule);
  *result = rule;
  return 0;
}
