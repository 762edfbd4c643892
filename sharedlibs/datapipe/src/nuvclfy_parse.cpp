// Rule text parser: splits a rule line into keyword/value pairs and lets the
// keyword's handler from the keyword table fill the condition.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "dp_bytes.h"
#include "dp_codetext.h"
#include "dp_number.h"
#include "dp_text.h"
#include "dp_textwriter.h"
#include "nuvaddr_priv.h"
#include "nuvclfy.h"
#include "nuvclfy_priv.h"
#include "nuvproto.h"

namespace {

// The parser works on a private copy of this many characters (NUL included).
constexpr std::size_t kLineBuffer = 256;

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_keyword_char(char c) { return is_letter(c) || c == '.'; }

// ---- Why a handler refused its value ----

// Reasons a handler gives besides its code.
constexpr const char *kValueMissing = "value missing";
constexpr const char *kNotANumber = "not a number";
constexpr const char *kBadOperator = "unknown comparison operator";
constexpr const char *kListJunk = "unexpected word inside a comma list (a later comma of the line splits it)";
constexpr const char *kBadVersion = "IP version must be 4 or 6";
constexpr const char *kUnknownProtocol = "unknown protocol";
constexpr const char *kProtocolNumber = "protocol number without the P prefix (numbers are written P6, P58, ...)";
constexpr const char *kBadMac = "not a MAC address";
constexpr const char *kBadOui = "not an OUI (three bytes)";
constexpr const char *kBadMask = "mask not a number";
constexpr const char *kBadAddress = "not an IPv4 or IPv6 address or prefix";
constexpr const char *kMissingTable = "table name missing";
constexpr const char *kOutOfMemory = "out of memory";

// Where and why a handler refused; filled only for the diagnostic parser
// (handlers get a null note otherwise) and read only when the handler
// fails.  `at` points into the parser's copy of the line; `length` is
// measured when the note is taken, while commas of a list are still cut off.
struct Lint;

struct Refusal {
  const char *at = nullptr;
  std::size_t length = 0;
  const char *reason = nullptr;
  Lint *lint = nullptr;  // set while the warning parser runs
};

// ---- What the warning parser notes about an accepted line ----

// A keyword as the line uses it: where, and the protocol it gives the rule
// (0 for none).
struct KeywordUse {
  long row;
  const char *at;
  std::uint8_t proto;
};

constexpr std::size_t kMaxKeywordUses = 64;

struct Lint {
  const char *line = nullptr;  // the parser's copy of the line
  const char *keyword = "";    // the keyword being parsed
  nuv_clfy_warning *out = nullptr;
  std::uint32_t count = 0;
  KeywordUse uses[kMaxKeywordUses];
  std::size_t used = 0;
};

Lint *lint_of(Refusal *note) { return note ? note->lint : nullptr; }

// Adds a warning about the word at `at`; warnings beyond the room are dropped.
[[gnu::cold]] [[gnu::format(printf, 4, 5)]] void warn(Lint *lint, int kind, const char *at, const char *format, ...) {
  if (!lint || lint->count >= NUV_CLFY_MAX_WARNINGS) return;
  nuv_clfy_warning &w = lint->out[lint->count++];
  std::memset(&w, 0, sizeof w);
  w.kind = kind;
  w.is_error = kind == NUV_CLFY_W_TABLE_NAME;
  w.offset = static_cast<std::uint32_t>(at - lint->line);
  w.length = static_cast<std::uint32_t>(dp::word_end(at) - at);
  va_list args;
  va_start(args, format);
  std::vsnprintf(w.text, sizeof w.text, format, args);
  va_end(args);
}

// Warns when the number at `at` (read as the value parsers read numbers)
// is beyond `limit`; `used` is what the rule holds instead.
void check_number(Refusal *note, const char *at, std::uint32_t limit, std::uint32_t used) {
  Lint *lint = lint_of(note);
  if (!lint) return;
  char *end = nullptr;
  std::uint32_t value = 0;
  if (parse_ulong(at, &end, &value) < 0 || value <= limit) return;
  const int digits = static_cast<int>(end - dp::skip_spaces(at));
  if (used == value)
    warn(lint, NUV_CLFY_W_RANGE, dp::skip_spaces(at), "%s: %.*s is beyond %lu, the largest the field holds",
         lint->keyword, digits, dp::skip_spaces(at), static_cast<unsigned long>(limit));
  else
    warn(lint, NUV_CLFY_W_RANGE, dp::skip_spaces(at), "%s: %.*s is beyond %lu: %lu is used", lint->keyword, digits,
         dp::skip_spaces(at), static_cast<unsigned long>(limit), static_cast<unsigned long>(used));
}

// The largest table name a table keeps.
constexpr std::size_t kTableNameLimit = sizeof(ethersrctab::name) - 1;

void check_table_name(Refusal *note, const char *name, std::size_t length) {
  if (length > kTableNameLimit)
    warn(lint_of(note), NUV_CLFY_W_TABLE_NAME, name,
         "table name \"%.*s\" is longer than %zu characters: it is never found again, so every load makes a new "
         "table", static_cast<int>(length), name, kTableNameLimit);
}

// Fills `note` for the word at `at`.  Only the diagnostic parser gets here,
// and only on the way out of a refused line: kept out of the handlers' way.
[[gnu::cold]] [[gnu::noinline]] void take_note(Refusal *note, const char *at, const char *reason) {
  note->at = at;
  note->length = static_cast<std::size_t>(dp::word_end(at) - at);
  note->reason = reason;
}

// Notes a refusal of the word at `at` and returns `code`.
int refuse(Refusal *note, const char *at, const char *reason, int code = NUV_CLFY_E_REFUSED) {
  if (note) take_note(note, at, reason);
  return code;
}

// As refuse, for a value read at `at`: at the end of the line it is missing.
int refuse_value(Refusal *note, const char *at, const char *reason) {
  return refuse(note, at, *at == '\0' ? kValueMissing : reason);
}

bool all_digits(const char *word) {
  if (!dp::is_decimal_digit(*word)) return false;
  while (dp::is_decimal_digit(*word)) ++word;
  return *word == '\0';
}

// Largest values of fields narrower than the numbers that fill them.
constexpr std::uint32_t kVlanIdLimit = 4095;
constexpr std::uint32_t kVlanPrioLimit = 7;
constexpr std::uint32_t kTcpFlagsLimit = 0xFFF;

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

// Where `text` ends in p when p starts with it, or null.
char *after_prefix(char *p, const char *text) {
  while (*text && *p == *text) ++p, ++text;
  return *text ? nullptr : p;
}

// The operator p starts with, and in `after` where it ends; null for none.
const OperatorText *find_operator(char *p, char **after) {
  for (const OperatorText &entry : kOperatorTexts)
    if ((*after = after_prefix(p, entry.text))) return &entry;
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
int parse_comparison(char *text, char **end, Comparison &out, Refusal *note, std::uint32_t limit = 0xFFFF) {
  char *p = dp::skip_spaces(text);
  if (dp::is_decimal_digit(*p)) {
    if (parse_u16(p, end, &out.value1) < 0) return refuse_value(note, p, kNotANumber);
    check_number(note, p, limit, dp::net_to_host16(out.value1));
    char *q = dp::skip_spaces(*end);
    if (*q != '-') {
      out.op = NUV_CLFY_OP_EQ;
      return 0;
    }
    char *upper = dp::skip_spaces(q + 1);
    if (parse_u16(upper, end, &out.value2) < 0) return refuse_value(note, upper, kNotANumber);
    check_number(note, upper, limit, dp::net_to_host16(out.value2));
    out.op = NUV_CLFY_OP_RANGE;
    return 0;
  }
  char *after = nullptr;
  const OperatorText *op = find_operator(p, &after);
  if (!op) return refuse_value(note, p, kBadOperator);
  out.op = op->op;
  char *number = dp::skip_spaces(after);
  if (parse_u16(number, end, &out.value1) < 0) return refuse_value(note, number, kNotANumber);
  check_number(note, number, limit, dp::net_to_host16(out.value1));
  return 0;
}

using AddComparison = void (*)(nuv_clfy *, std::uint32_t, std::uint16_t, std::uint16_t);

// A comma-separated list of comparisons.  The commas are looked for in the
// whole rest of the line, so a comma in a later keyword's value splits this
// list too; the piece before such a comma carries other words and the rule is
// refused.
int parse_comparison_list(char *text, char **end, nuv_clfy *rule, AddComparison add, Refusal *note,
                          std::uint32_t limit = 0xFFFF) {
  char *element = text;
  for (;;) {
    char *comma = std::strchr(element, ',');
    if (comma) *comma = '\0';
    Comparison c;
    int rc = parse_comparison(element, end, c, note, limit);
    if (rc == 0 && comma && *dp::skip_spaces(*end) != '\0') rc = refuse(note, dp::skip_spaces(*end), kListJunk);
    if (comma) *comma = ',';
    if (rc != 0) return rc;
    add(rule, c.op, c.value1, c.value2);
    if (!comma) return 0;
    element = comma + 1;
  }
}

// ---- Keyword handlers ----
//
// Each handler takes the parser's arguments and a note, null unless the
// diagnostic parser runs, in which it says where and why it refused.

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

int handle_dev(char *text, char **end, nuv_clfy *rule, Refusal *) {
  set_name(text, end, rule->dev, dp::clfy::kIfNameLimit);
  rule->dev_ifindex = -1;
  rule->flags |= NUV_CLFY_F_DEV;
  return 0;
}

int handle_brdev(char *text, char **end, nuv_clfy *rule, Refusal *) {
  set_name(text, end, rule->brdev, dp::clfy::kIfNameLimit);
  rule->brdev_ifindex = -1;
  rule->flags |= NUV_CLFY_F_BRDEV;
  return 0;
}

// Older configurations name the switch port; the classifier has no use for it.
int handle_ethport(char *text, char **end, nuv_clfy *, Refusal *) {
  *end = dp::word_end(dp::skip_equals(text));
  return 0;
}

int handle_localmark(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  unsigned char map[dp::clfy::kClassMapSize];
  std::memset(map, 0, sizeof map);
  char *first = dp::skip_equals(text);
  for (char *name = first;;) {
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
  return nuv_clfy_add_localmark(rule, map) < 0 ? refuse(note, first, kOutOfMemory) : 0;
}

int handle_eth_proto(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  char *value = dp::skip_equals(text);
  if (parse_u16(value, end, &rule->eth_proto) < 0) return refuse_value(note, value, kNotANumber);
  check_number(note, value, 0xFFFF, dp::net_to_host16(rule->eth_proto));
  rule->flags |= NUV_CLFY_F_ETH_PROTO;
  return 0;
}

using ByteParser = int (*)(const char *, char **, std::uint8_t *);

// A MAC address or OUI into `out`; `flag` is the condition's presence bit.
// Shared by four keywords, so kept out of line.
[[gnu::noinline]] int parse_hardware(char *text, char **end, nuv_clfy *rule, Refusal *note, ByteParser parse, std::uint8_t *out,
                   std::uint32_t flag, const char *reason) {
  char *value = dp::skip_equals(text);
  if (parse(value, end, out) < 0) return refuse_value(note, value, reason);
  rule->flags |= flag;
  return 0;
}

int handle_eth_source(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  return parse_hardware(text, end, rule, note, parse_mac, rule->eth_source, NUV_CLFY_F_ETH_SOURCE, kBadMac);
}

int handle_eth_sourceoui(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  return parse_hardware(text, end, rule, note, parse_oui, rule->eth_source, NUV_CLFY_F_ETH_SOURCEOUI, kBadOui);
}

int handle_eth_dest(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  return parse_hardware(text, end, rule, note, parse_mac, rule->eth_dest, NUV_CLFY_F_ETH_DEST, kBadMac);
}

int handle_eth_destoui(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  return parse_hardware(text, end, rule, note, parse_oui, rule->eth_dest, NUV_CLFY_F_ETH_DESTOUI, kBadOui);
}

int handle_vlan_id(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  return parse_comparison_list(text, end, rule, nuv_clfy_add_vlanid, note, kVlanIdLimit);
}

// A single number of 8 bits into `out`; `limit` is the field's largest value.
[[gnu::noinline]] int parse_byte(char *text, char **end, std::uint8_t *out, Refusal *note, std::uint32_t limit = 0xFF) {
  char *value = dp::skip_equals(text);
  if (parse_u8(value, end, out) < 0) return refuse_value(note, value, kNotANumber);
  check_number(note, value, limit, *out);
  return 0;
}

int handle_vlan_prio(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  if (parse_byte(text, end, &rule->vlan_prio, note, kVlanPrioLimit) < 0) return NUV_CLFY_E_REFUSED;
  rule->flags |= NUV_CLFY_F_VLAN_PRIO;
  return 0;
}

// The table name is the next word; the text is terminated there only while
// the table is looked up.  Tables are only refused for want of memory.
template <typename Table>
int with_table_name(char *text, char **end, Table *(*find_or_create)(const char *), Table **out, Refusal *note) {
  char *name = dp::skip_spaces(text);
  char *stop = dp::word_end(name);
  const char separator = *stop;
  check_table_name(note, name, static_cast<std::size_t>(stop - name));
  *stop = '\0';
  *out = find_or_create(name);
  *stop = separator;
  *end = stop;
  return *out ? 0 : refuse(note, name, kOutOfMemory);
}

int handle_ethsrctab(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  if (with_table_name(text, end, nuv_clfy_ethersrctab_find_or_create, &rule->ethsrctab, note) < 0)
    return NUV_CLFY_E_REFUSED;
  rule->flags |= NUV_CLFY_F_ETHSRCTAB;
  return 0;
}

int handle_ipdsttab(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  if (with_table_name(text, end, nuv_clfy_ipdsttab_find_or_create, &rule->ipdsttab, note) < 0)
    return NUV_CLFY_E_REFUSED;
  rule->flags |= NUV_CLFY_F_IPDSTTAB;
  return 0;
}

int handle_ip_version(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  std::uint8_t version = 0;
  if (parse_byte(text, end, &version, note) < 0) return NUV_CLFY_E_REFUSED;
  if (version != 4 && version != 6) return refuse(note, dp::skip_equals(text), kBadVersion);
  rule->ip_version = version;
  rule->flags |= NUV_CLFY_F_IP_VERSION;
  return 0;
}

// Only one protocol is taken: a comma ends the name like a space does, and
// parsing goes on right behind it.  Numbers are written "P6"; a bare number
// is refused, so that it is not mistaken for a port.
int handle_ip_proto(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  char *name = dp::skip_equals(text);
  char *stop = name;
  while (*stop && *stop != ' ' && *stop != ',') ++stop;
  if (*stop) *stop++ = '\0';
  *end = stop;
  std::uint8_t proto = 0;
  if (ipproto_parse(&proto, name) < 0)
    return refuse_value(note, name, all_digits(name) ? kProtocolNumber : kUnknownProtocol);
  rule->ip_proto = proto;
  rule->flags |= NUV_CLFY_F_IP_PROTO;
  return 0;
}

// "value", "value/mask" or "value mask".
// `host` turns a parsed value into the host-order number the field holds;
// `limit` is the field's largest value.
template <typename T, typename Parse, typename Host>
int parse_value_and_mask(char *text, char **end, T *value, T *mask, T default_mask, Parse parse, Refusal *note,
                         std::uint32_t limit, Host host) {
  char *first = dp::skip_equals(text);
  if (parse(first, end, value) < 0) return refuse_value(note, first, kNotANumber);
  check_number(note, first, limit, host(*value) & limit);
  char *p = dp::skip_spaces(*end);
  if (*p != '/' && !dp::is_decimal_digit(*p)) {
    *mask = default_mask;
    return 0;
  }
  if (*p == '/') ++p;
  if (parse(p, end, mask) < 0) return refuse_value(note, p, kBadMask);
  check_number(note, p, limit, host(*mask) & limit);
  return 0;
}

int handle_ip_tos(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  if (parse_value_and_mask<std::uint8_t>(text, end, &rule->ip_tos, &rule->ip_tos_mask, dp::clfy::kTosMaskDefault,
                                         parse_u8, note, 0xFF, [](std::uint8_t v) { return std::uint32_t{v}; }) < 0)
    return NUV_CLFY_E_REFUSED;
  rule->flags |= NUV_CLFY_F_IP_TOS;
  return 0;
}

int handle_tcp_flags(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  rule->ip_proto = dp::clfy::kProtoTcp;
  rule->flags |= NUV_CLFY_F_IP_PROTO;
  const std::uint16_t twelve_bits = dp::host_to_net16(0x0fff);
  if (parse_value_and_mask<std::uint16_t>(text, end, &rule->tcp_flags, &rule->tcp_flags_mask, twelve_bits,
                                          parse_u16, note, kTcpFlagsLimit,
                                          [](std::uint16_t v) { return std::uint32_t{dp::net_to_host16(v)}; }) < 0)
    return NUV_CLFY_E_REFUSED;
  // The data-offset nibble shares the word with the flags; it never takes part.
  rule->tcp_flags &= twelve_bits;
  rule->tcp_flags_mask &= twelve_bits;
  rule->flags |= NUV_CLFY_F_TCP_FLAGS;
  return 0;
}

// Whether the text starts with four dot-separated numbers.  Each number may
// be preceded by blanks of any kind and one sign; the dots follow the digits
// directly.  Only the shape is checked: the address reader judges the values.
bool reads_as_ipv4(const char *p) {
  for (int part = 0; part < 4; ++part) {
    if (part > 0 && *p++ != '.') return false;
    while (dp::is_c_space(*p)) ++p;
    if (*p == '+' || *p == '-') ++p;
    if (!dp::is_decimal_digit(*p)) return false;
    while (dp::is_decimal_digit(*p)) ++p;
  }
  return true;
}

// Warns about a "/length" inside [word, end) beyond 32: the IPv4 reader
// takes such a length as a full mask.
void check_ipv4_length(Refusal *note, const char *word, const char *end) {
  Lint *lint = lint_of(note);
  if (!lint) return;
  const char *slash = word;
  while (slash < end && *slash != '/' && *slash != '\0') ++slash;
  if (slash >= end || *slash != '/') return;
  char *stop = nullptr;
  std::uint32_t length = 0;
  if (parse_ulong(slash + 1, &stop, &length) < 0 || length <= 32) return;
  warn(lint, NUV_CLFY_W_PREFIX, word, "%s: prefix length /%lu is beyond /32: /32 is used", lint->keyword,
       static_cast<unsigned long>(length));
}

// As check_ipv4_length for an IPv6 length at `length`, after the reader
// cut the line at its "/".
void check_ipv6_length(Refusal *note, const char *word, const char *length) {
  Lint *lint = lint_of(note);
  if (!lint) return;
  char *stop = nullptr;
  std::uint32_t value = 0;
  if (parse_ulong(length, &stop, &value) < 0 || value <= 128) return;
  warn(lint, NUV_CLFY_W_PREFIX, word, "%s: prefix length /%lu is beyond /128: /%lu is used", lint->keyword,
       static_cast<unsigned long>(value), static_cast<unsigned long>(value & 0xFFu));
}

// An IPv4 prefix ("10.0.0.0/8", "10.0.0.0 255.0.0.0", "10.0.0.1") or an IPv6
// one.  The IPv6 form takes the first "/" of the rest of the line as its
// length separator, and without one the rest of the line as the address.
int parse_address(char *text, char **end, std::uint8_t *addr, std::uint8_t *prefixlen, std::uint8_t *family,
                  Refusal *note) {
  char *p = dp::skip_equals(text);
  if (reads_as_ipv4(p)) {
    std::uint32_t address = 0, mask = 0;
    if (parse_prefix(p, end, &address, &mask) < 0) return refuse_value(note, p, kBadAddress);
    check_ipv4_length(note, p, *end);
    dp::store_net32(addr, address);
    dp::store_net32(addr + 4, mask);
    *family = 4;
    return 0;
  }
  // The IPv6 reader cuts the line at the "/", so the word is noted first
  // (a note is only read when the handler fails).
  std::uint8_t length = 128;
  refuse_value(note, p, kBadAddress);
  char *slash = std::strchr(p, '/');
  if (parse_prefix6(p, end, addr, &length) < 0) return NUV_CLFY_E_REFUSED;
  if (slash) check_ipv6_length(note, p, slash + 1);
  *prefixlen = length;
  *family = 6;
  return 0;
}

int handle_ip_saddr(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  if (parse_address(text, end, rule->ip_saddr.v6, &rule->ip_saddr_prefixlen, &rule->ip_saddr_family, note) < 0)
    return NUV_CLFY_E_REFUSED;
  rule->flags |= NUV_CLFY_F_IP_SADDR;
  return 0;
}

int handle_ip_daddr(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  if (parse_address(text, end, rule->ip_daddr.v6, &rule->ip_daddr_prefixlen, &rule->ip_daddr_family, note) < 0)
    return NUV_CLFY_E_REFUSED;
  rule->flags |= NUV_CLFY_F_IP_DADDR;
  return 0;
}

int handle_ip_len(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  Comparison c;
  if (parse_comparison(text, end, c, note) < 0) return NUV_CLFY_E_REFUSED;
  rule->ip_len.op = c.op;
  rule->ip_len.value1 = dp::net_to_host16(c.value1);
  rule->ip_len.value2 = dp::net_to_host16(c.value2);
  rule->flags |= NUV_CLFY_F_IP_LEN;
  return 0;
}

template <std::uint8_t Proto, AddComparison Add>
int handle_ports(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  rule->ip_proto = Proto;
  rule->flags |= NUV_CLFY_F_IP_PROTO;
  return parse_comparison_list(text, end, rule, Add, note);
}

int handle_icmp_type(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  if (parse_byte(text, end, &rule->icmp_type, note) < 0) return NUV_CLFY_E_REFUSED;
  rule->flags |= NUV_CLFY_F_ICMP_TYPE;
  return 0;
}

using DhcpMatchParser = int (*)(char *, char **, dhcp_match *);

// "<match> pattern tablename": the match parser reads up to the end of the
// pattern, then a table name of letters and dots must follow.  Pattern and
// name are terminated only while the condition is stored.  Shared by two
// keywords, so kept out of line.
[[gnu::noinline]] int parse_dhcp_condition(char *text, char **end, nuv_clfy *rule, DhcpMatchParser parse, Refusal *note) {
  dhcp_match match;
  std::memset(&match, 0, sizeof match);
  char *pattern_end = text;
  char *value = dp::skip_spaces(text);
  const int length = parse(text, &pattern_end, &match);
  if (length < 0) return refuse(note, value, *value ? dhcp_match_strerror(length) : kValueMissing, length);
  char *table = dp::skip_spaces(pattern_end);
  char *table_end = table;
  while (is_keyword_char(*table_end)) ++table_end;
  if (table_end == table) return refuse(note, table, kMissingTable, NUV_CLFY_E_MISSING_TABLE);
  check_table_name(note, table, static_cast<std::size_t>(table_end - table));
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
  return rc < 0 ? refuse(note, table, kOutOfMemory, NUV_CLFY_E_DHCP_NOT_STORED) : 0;
}

int option_match(char *text, char **end, dhcp_match *match) {
  return parse_dhcpoptionmatch(text, end, match);
}

int header_match(char *text, char **end, dhcp_match *match) {
  return parse_dhcpheadermatch(text, end, match);
}

int handle_dhcpoption(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  return parse_dhcp_condition(text, end, rule, option_match, note);
}

int handle_dhcpheader(char *text, char **end, nuv_clfy *rule, Refusal *note) {
  return parse_dhcp_condition(text, end, rule, header_match, note);
}

// The pattern is stored from its first character to the end of the line,
// while parsing goes on behind its first word: conditions written after a
// packetmatch pattern both apply and become part of the pattern.  Rule sets
// in the field are written with packetmatch last, relying on that.
int handle_packetmatch(char *text, char **end, nuv_clfy *rule, Refusal *) {
  char *pattern = dp::skip_spaces(text);
  *end = dp::word_end(pattern);
  return nuv_clfy_add_packetmatch(rule, pattern);
}

int handle_any(char *, char **, nuv_clfy *, Refusal *) { return 0; }

using Handler = int (*)(char *, char **, nuv_clfy *, Refusal *);

constexpr Handler handle_udp_sport = handle_ports<dp::clfy::kProtoUdp, nuv_clfy_add_ip_sport>;
constexpr Handler handle_udp_dport = handle_ports<dp::clfy::kProtoUdp, nuv_clfy_add_ip_dport>;
constexpr Handler handle_tcp_sport = handle_ports<dp::clfy::kProtoTcp, nuv_clfy_add_ip_sport>;
constexpr Handler handle_tcp_dport = handle_ports<dp::clfy::kProtoTcp, nuv_clfy_add_ip_dport>;

// Runs a handler without a note.  Kept out of line, so that each exported
// entry stays a call instead of a second copy of its handler.
[[gnu::noinline]] int without_note(Handler handler, char *text, char **end, nuv_clfy *rule) {
  return handler(text, end, rule, nullptr);
}

// The handler as the keyword table exports it: without a note.
template <Handler H>
int exported(char *text, char **end, nuv_clfy *rule) {
  return without_note(H, text, end, rule);
}

// The keywords in table order, written once: they give both the exported
// table and the parser's own handlers (same rows, same order).
// The keywords in table order, written once: they give the exported
// table, the parser's own handlers and the keyword help (same rows, same
// order).  Columns: keyword, handler, value syntax, example.
#define NUV_CLFY_KEYWORDS(ROW)                                                                                  \
  ROW("dev", handle_dev, "NAME (receiving interface, at most 16 characters)", "dev eth0")                      \
  ROW("brdev", handle_brdev, "NAME (bridge the packet passed)", "brdev br0")                                   \
  ROW("ethport", handle_ethport, "WORD (accepted and ignored)", "ethport 1")                                    \
  ROW("localmark", handle_localmark, "CLASS[,CLASS...] (traffic class names)", "localmark voip,video")         \
  ROW("eth.proto", handle_eth_proto, "NUMBER (Ethernet type, 0x hex allowed)", "eth.proto 0x0806")             \
  ROW("eth.source", handle_eth_source, "MAC (aa:bb:cc:dd:ee:ff or aabbccddeeff)", "eth.source 00:11:22:33:44:55") \
  ROW("eth.sourceoui", handle_eth_sourceoui, "OUI (aa:bb:cc)", "eth.sourceoui 00:0c:29")                       \
  ROW("eth.dest", handle_eth_dest, "MAC", "eth.dest ff:ff:ff:ff:ff:ff")                                        \
  ROW("eth.destoui", handle_eth_destoui, "OUI", "eth.destoui 01:00:5e")                                        \
  ROW("vlan.id", handle_vlan_id, "LIST of N, N-M, <N, <=N, >N, >=N, !=N (0..4095)", "vlan.id 100,200-299")     \
  ROW("vlan.prio", handle_vlan_prio, "NUMBER 0..7", "vlan.prio 5")                                             \
  ROW("ethsrctab", handle_ethsrctab, "TABLE (at most 15 characters)", "ethsrctab dhcp.clients")                \
  ROW("ip.version", handle_ip_version, "4 or 6", "ip.version 6")                                               \
  ROW("ip.proto", handle_ip_proto, "NAME or PNUMBER (tcp, udp, icmpv6, P47)", "ip.proto P47")                  \
  ROW("ip.protocol", handle_ip_proto, "as ip.proto", "ip.protocol gre")                                        \
  ROW("ip.tos", handle_ip_tos, "NUMBER[/MASK] (0..255)", "ip.tos 0xb8/0xfc")                                   \
  ROW("ip.saddr", handle_ip_saddr, "A.B.C.D[/LEN or MASK] or IPV6/LEN", "ip.saddr 192.168.1.0/24")             \
  ROW("ip.source", handle_ip_saddr, "as ip.saddr", "ip.source 2001:db8::/32")                                  \
  ROW("ip.daddr", handle_ip_daddr, "as ip.saddr", "ip.daddr 10.0.0.0 255.0.0.0")                               \
  ROW("ipdsttab", handle_ipdsttab, "TABLE (at most 15 characters)", "ipdsttab blocked")                        \
  ROW("ip.dest", handle_ip_daddr, "as ip.saddr", "ip.dest ff02::/16")                                          \
  ROW("ip.len", handle_ip_len, "N, N-M, <N, <=N, >N, >=N or !=N (0..65535)", "ip.len >= 1400")                 \
  ROW("udp.source", handle_udp_sport, "LIST as udp.sport", "udp.source 67")                                    \
  ROW("udp.sport", handle_udp_sport, "LIST of ports (0..65535); makes the rule UDP", "udp.sport 1024-65535")   \
  ROW("udp.dest", handle_udp_dport, "LIST as udp.dport", "udp.dest 53")                                        \
  ROW("udp.dport", handle_udp_dport, "LIST of ports (0..65535); makes the rule UDP", "udp.dport 53,123")       \
  ROW("tcp.source", handle_tcp_sport, "LIST as tcp.sport", "tcp.source 80")                                    \
  ROW("tcp.sport", handle_tcp_sport, "LIST of ports (0..65535); makes the rule TCP", "tcp.sport 80")           \
  ROW("tcp.dest", handle_tcp_dport, "LIST as tcp.dport", "tcp.dest 443")                                       \
  ROW("tcp.dport", handle_tcp_dport, "LIST of ports (0..65535); makes the rule TCP", "tcp.dport 80,443")       \
  ROW("tcp.flags", handle_tcp_flags, "VALUE[/MASK] (0..0xfff); makes the rule TCP", "tcp.flags 0x002/0x012")   \
  ROW("icmp.type", handle_icmp_type, "NUMBER 0..255 (ICMPv6 type; not tested on IPv4)", "icmp.type 134 ip.version 6") \
  ROW("dhcpoption", handle_dhcpoption, "CODE[/ENTERPRISE/SUB] PATTERN TABLE; makes the rule UDP",              \
      "dhcpoption 60 dhcpcd-* dhcp.clients")                                                                   \
  ROW("dhcpheader", handle_dhcpheader, "FIELD PATTERN TABLE; makes the rule UDP",                              \
      "dhcpheader chaddr 00:0C:29:* dhcp.vmware")                                                              \
  ROW("packetmatch", handle_packetmatch, "PATTERN (wildcards; to the end of the line, so write it last)",      \
      "udp.dport 5060 packetmatch *INVITE*")                                                                   \
  ROW("any", handle_any, "(no value; matches every packet)", "any")

#define NUV_CLFY_EXPORTED_ROW(keyword, handler, syntax, example) {keyword, exported<handler>},
#define NUV_CLFY_HANDLER_ROW(keyword, handler, syntax, example) handler,
#define NUV_CLFY_HELP_ROW(keyword, handler, syntax, example) {keyword, syntax, example},

#define NUV_CLFY_SKETCH_ROW(keyword, handler, syntax, example) sketch(keyword, sizeof keyword - 1),

// A word's length with its first and last characters: a word is compared
// only with the keywords of the same sketch.
constexpr std::uint32_t sketch(const char *word, std::size_t length) {
  return static_cast<std::uint32_t>(length) << 16 | static_cast<std::uint32_t>(static_cast<unsigned char>(word[0])) << 8 |
         static_cast<unsigned char>(word[length - 1]);
}

constexpr Handler kHandlers[] = {NUV_CLFY_KEYWORDS(NUV_CLFY_HANDLER_ROW)};
constexpr std::uint32_t kKeywordSketches[] = {NUV_CLFY_KEYWORDS(NUV_CLFY_SKETCH_ROW)};
constexpr nuv_clfy_keyword_help kKeywordHelp[] = {NUV_CLFY_KEYWORDS(NUV_CLFY_HELP_ROW)};

}  // namespace

extern "C" {

const nuv_clfy_keyword parsetab[] = {NUV_CLFY_KEYWORDS(NUV_CLFY_EXPORTED_ROW){nullptr, nullptr}};

}  // extern "C"

#undef NUV_CLFY_HANDLER_ROW
#undef NUV_CLFY_HELP_ROW
#undef NUV_CLFY_SKETCH_ROW
#undef NUV_CLFY_EXPORTED_ROW
#undef NUV_CLFY_KEYWORDS

namespace {

static_assert(std::size(kHandlers) + 1 == std::size(parsetab), "one handler per keyword row");
static_assert(std::size(kKeywordSketches) == std::size(kHandlers), "one sketch per keyword row");
static_assert(std::size(kKeywordHelp) == std::size(kHandlers), "one help row per keyword row");

// Texts of the codes, for nuv_clfy_strerror.  -1 to -6 of the DHCP keywords
// share their values with the handlers' refusal; the refusal's text stands.
constexpr dp::CodeText kCodeTexts[] = {
    {NUV_CLFY_E_OK, "parsed"},
    {NUV_CLFY_E_REFUSED, "value missing or not accepted"},
    {NUV_CLFY_E_DHCP_BAD_CODE, "bad DHCP option code or unknown header field"},
    {NUV_CLFY_E_DHCP_NOT_VENDOR, "only options 124 and 125 take /enterprise/sub"},
    {NUV_CLFY_E_DHCP_ENTERPRISE, "bad enterprise number"},
    {NUV_CLFY_E_DHCP_SECOND_SLASH, "missing \"/\" before the sub-option code"},
    {NUV_CLFY_E_DHCP_SUB_CODE, "bad sub-option code"},
    {NUV_CLFY_E_MISSING_TABLE, "table name missing"},
    {NUV_CLFY_E_DHCP_NOT_STORED, "DHCP condition could not be stored"},
    {NUV_CLFY_E_UNKNOWN_KEYWORD, "unknown keyword"},
    {NUV_CLFY_E_LINE_TOO_LONG, "line longer than 255 characters"},
    {NUV_CLFY_E_NO_MEMORY, "out of memory"},
};

// Whether the `length` characters at `a` and `b` are the same; keywords are
// too short for a library call to pay.
bool same_chars(const char *a, const char *b, std::size_t length) {
  while (length && *a == *b) ++a, ++b, --length;
  return length == 0;
}

// Index of the keyword row that the `length` characters at `word` name, or -1.
long find_keyword(const char *word, std::size_t length) {
  if (length == 0) return -1;
  const std::uint32_t key = sketch(word, length);
  for (std::size_t row = 0; row < std::size(kKeywordSketches); ++row)
    if (kKeywordSketches[row] == key && same_chars(parsetab[row].keyword, word, length)) return static_cast<long>(row);
  return -1;
}

// Where the parse of one line failed, in the parser's copy of it.
struct Failure {
  const char *keyword = nullptr;  // as written; null when none
  std::size_t keyword_length = 0;
  int code = NUV_CLFY_E_OK;
  Refusal refusal;
  Lint *lint = nullptr;  // the warning parser's notes, or null
};

// What a rule said about its protocol before a keyword ran.
struct ProtocolBefore {
  bool set;
  std::uint8_t proto;
};

// Notes a keyword the line uses and the protocol it gave the rule: a
// keyword gives one when it set or changed the protocol, and ip.proto always.
void note_use(Lint *lint, long row, const char *at, ProtocolBefore before, const nuv_clfy &after) {
  if (!lint || lint->used >= kMaxKeywordUses) return;
  const bool gave = (after.flags & NUV_CLFY_F_IP_PROTO) &&
                    (!before.set || before.proto != after.ip_proto || kHandlers[row] == handle_ip_proto);
  lint->uses[lint->used++] = KeywordUse{row, at, gave ? after.ip_proto : std::uint8_t{0}};
}

// Runs the keyword at `p`; returns where parsing continues, or null after
// filling `failure` (when it is not null).
char *parse_condition(char *p, nuv_clfy *rule, Failure *failure) {
  char *keyword_end = p;
  while (is_keyword_char(*keyword_end)) ++keyword_end;
  const long row = find_keyword(p, static_cast<std::size_t>(keyword_end - p));
  if (failure) {
    failure->keyword = p;
    failure->keyword_length = static_cast<std::size_t>(keyword_end - p);
  }
  if (row < 0) {
    if (failure) failure->code = refuse(&failure->refusal, p, nuv_clfy_strerror(NUV_CLFY_E_UNKNOWN_KEYWORD),
                                        NUV_CLFY_E_UNKNOWN_KEYWORD);
    return nullptr;
  }
  char *end = keyword_end;
  Refusal *note = nullptr;
  Lint *lint = failure ? failure->lint : nullptr;
  if (failure) {
    failure->refusal = Refusal();
    failure->refusal.lint = lint;
    note = &failure->refusal;
  }
  if (lint) lint->keyword = parsetab[row].keyword;
  const ProtocolBefore before{(rule->flags & NUV_CLFY_F_IP_PROTO) != 0, rule->ip_proto};
  const int rc = kHandlers[row](keyword_end, &end, rule, note);
  if (rc < 0) {
    if (failure) failure->code = rc;
    return nullptr;
  }
  note_use(lint, row, p, before, *rule);
  return end;
}

// The diagnostic parts below run only for nuv_clfy_parse_with_diag and are
// built for size.
[[gnu::cold]] void clear_diag(nuv_clfy_diag *diag) {
  std::memset(diag, 0, sizeof *diag);
  diag->reason = "";
}

// Fills `diag` from a failure inside `line`.  A handler that gave no note
// is reported at its value with its code's text.
[[gnu::cold]] void report(nuv_clfy_diag *diag, const char *line, const Failure &failure) {
  diag->code = failure.code;
  const std::size_t keyword_length = std::min(failure.keyword_length, sizeof diag->keyword - 1);
  std::memcpy(diag->keyword, failure.keyword, keyword_length);
  diag->keyword[keyword_length] = '\0';
  Refusal refusal = failure.refusal;
  if (!refusal.at) refuse(&refusal, dp::skip_equals(failure.keyword + failure.keyword_length),
                          nuv_clfy_strerror(failure.code));
  diag->offset = static_cast<std::uint32_t>(refusal.at - line);
  diag->length = static_cast<std::uint32_t>(refusal.length);
  diag->reason = refusal.reason;
}

[[gnu::cold]] void report_line(nuv_clfy_diag *diag, int code, std::size_t offset, std::size_t length) {
  diag->code = code;
  diag->offset = static_cast<std::uint32_t>(offset);
  diag->length = static_cast<std::uint32_t>(length);
  diag->reason = nuv_clfy_strerror(code);
}

// ---- Warnings about the whole rule ----

const char *protocol_name(std::uint8_t proto) {
  if (proto == dp::clfy::kProtoTcp) return "TCP";
  if (proto == dp::clfy::kProtoUdp) return "UDP";
  return ipproto2str(proto);
}

// Keywords that gave the rule different protocols: the last one given wins,
// and port lists written for another protocol become the winner's.
[[gnu::cold]] void lint_protocols(Lint &lint, const nuv_clfy &rule) {
  const KeywordUse *first = nullptr;
  for (std::size_t i = 0; i < lint.used; ++i) {
    const KeywordUse &use = lint.uses[i];
    if (!use.proto) continue;
    if (!first) {
      first = &use;
      continue;
    }
    if (use.proto == first->proto) continue;
    char ports[192];
    dp::TextWriter out(ports, sizeof ports);
    const char *prefix = rule.ip_proto == dp::clfy::kProtoUdp ? "udp" : "tcp";
    if (rule.flags & NUV_CLFY_F_SPORTS) {
      out.printf(", %s.sport ", prefix);
      dp::clfy::print_value_list(out, rule.sports);
    }
    if (rule.flags & NUV_CLFY_F_DPORTS) {
      out.printf(", %s.dport ", prefix);
      dp::clfy::print_value_list(out, rule.dports);
    }
    warn(&lint, NUV_CLFY_W_PROTOCOL, use.at, "%s (%s) after %s (%s): the rule is %s%s", parsetab[use.row].keyword,
         protocol_name(use.proto), parsetab[first->row].keyword, protocol_name(first->proto),
         protocol_name(rule.ip_proto), ports);
    return;
  }
}

// Where the keyword that sets the presence bit `flag` is used first, or null.
const KeywordUse *first_use(const Lint &lint, std::uint32_t flag) {
  for (std::size_t i = 0; i < lint.used; ++i) {
    const Handler h = kHandlers[lint.uses[i].row];
    if ((flag == NUV_CLFY_F_IP_SADDR && h == handle_ip_saddr) || (flag == NUV_CLFY_F_IP_DADDR && h == handle_ip_daddr) ||
        (flag == NUV_CLFY_F_IP_VERSION && h == handle_ip_version) ||
        (flag == NUV_CLFY_F_ICMP_TYPE && h == handle_icmp_type) ||
        (flag == NUV_CLFY_F_PACKETMATCH && h == handle_packetmatch))
      return &lint.uses[i];
  }
  return nullptr;
}

// Address families that disagree with each other or with ip.version.
[[gnu::cold]] void lint_families(Lint &lint, const nuv_clfy &rule) {
  const bool has_s = rule.flags & NUV_CLFY_F_IP_SADDR, has_d = rule.flags & NUV_CLFY_F_IP_DADDR;
  if (has_s && has_d && rule.ip_saddr_family != rule.ip_daddr_family) {
    const KeywordUse *at = first_use(lint, NUV_CLFY_F_IP_DADDR);
    warn(&lint, NUV_CLFY_W_NEVER, at ? at->at : lint.line,
         "never matches: an IPv%u source and an IPv%u destination address in one rule", rule.ip_saddr_family,
         rule.ip_daddr_family);
    return;
  }
  if (!(rule.flags & NUV_CLFY_F_IP_VERSION)) return;
  const std::uint8_t family = has_s ? rule.ip_saddr_family : has_d ? rule.ip_daddr_family : 0;
  if (family && family != rule.ip_version) {
    const KeywordUse *at = first_use(lint, NUV_CLFY_F_IP_VERSION);
    warn(&lint, NUV_CLFY_W_NEVER, at ? at->at : lint.line, "never matches: ip.version %u with an IPv%u address",
         rule.ip_version, family);
  }
}

constexpr std::uint16_t kEtherTypeIpv6 = 0x86DD;

// icmp.type is tested on IPv6 packets only: a rule that IPv4 packets can
// match lets them through whatever their ICMP type.
[[gnu::cold]] void lint_icmp(Lint &lint, const nuv_clfy &rule) {
  if (!(rule.flags & NUV_CLFY_F_ICMP_TYPE)) return;
  const bool ipv6_only = ((rule.flags & NUV_CLFY_F_IP_VERSION) && rule.ip_version == 6) ||
                         ((rule.flags & NUV_CLFY_F_IP_SADDR) && rule.ip_saddr_family == 6) ||
                         ((rule.flags & NUV_CLFY_F_IP_DADDR) && rule.ip_daddr_family == 6) ||
                         ((rule.flags & NUV_CLFY_F_ETH_PROTO) && dp::net_to_host16(rule.eth_proto) == kEtherTypeIpv6);
  if (ipv6_only) return;
  const KeywordUse *at = first_use(lint, NUV_CLFY_F_ICMP_TYPE);
  warn(&lint, NUV_CLFY_W_ICMP_IPV4, at ? at->at : lint.line,
       "icmp.type is tested on IPv6 packets only: IPv4 packets match whatever their type (add ip.version 6)");
}

// Words behind a packetmatch pattern are conditions and part of the pattern.
[[gnu::cold]] void lint_packetmatch(Lint &lint) {
  const KeywordUse *at = first_use(lint, NUV_CLFY_F_PACKETMATCH);
  if (!at || at == &lint.uses[lint.used - 1]) return;
  warn(&lint, NUV_CLFY_W_PACKETMATCH, at->at,
       "packetmatch is not last: the words after it are conditions and also part of its pattern");
}

[[gnu::cold]] void lint_rule(Lint &lint, const nuv_clfy &rule) {
  lint_protocols(lint, rule);
  lint_families(lint, rule);
  lint_icmp(lint, rule);
  lint_packetmatch(lint);
}

// The one rule line parser; `diag` is null for nuv_clfy_parse, `lint` is
// null unless warnings are wanted (and then `diag` is not null).
int parse_line(const char *text, nuv_clfy **result, nuv_clfy_diag *diag, Lint *lint = nullptr) {
  if (diag) clear_diag(diag);
  const std::size_t length = std::strlen(text);
  if (length >= kLineBuffer) {
    if (diag) report_line(diag, NUV_CLFY_E_LINE_TOO_LONG, kLineBuffer - 1, length - (kLineBuffer - 1));
    return NUV_CLFY_E_REFUSED;
  }
  nuv_clfy *rule = nuv_clfy_alloc();
  if (!rule) {
    if (diag) report_line(diag, NUV_CLFY_E_NO_MEMORY, 0, 0);
    return NUV_CLFY_E_REFUSED;
  }
  char line[kLineBuffer];
  std::memcpy(line, text, length + 1);
  Failure failure;
  if (lint) {
    lint->line = line;
    failure.lint = lint;
  }
  // A handler may stop in front of the next keyword; no blank is needed there.
  for (char *p = dp::skip_spaces(line); *p; p = dp::skip_spaces(p)) {
    p = parse_condition(p, rule, diag ? &failure : nullptr);
    if (!p) {
      if (diag) report(diag, line, failure);
      nuv_clfy_free(rule);
      if (lint) lint->count = 0;
      return NUV_CLFY_E_REFUSED;
    }
  }
  if (lint) lint_rule(*lint, *rule);
  nuv_clfy_optim(rule);
  *result = rule;
  return NUV_CLFY_E_OK;
}

}  // namespace

extern "C" {

int nuv_clfy_parse(const char *text, nuv_clfy **result) { return parse_line(text, result, nullptr); }

int nuv_clfy_parse_with_diag(const char *text, nuv_clfy **result, nuv_clfy_diag *diag) {
  return parse_line(text, result, diag);
}

int nuv_clfy_parse_with_warnings(const char *text, nuv_clfy **result, nuv_clfy_diag *diag, nuv_clfy_warning *warnings,
                                 uint32_t *count) {
  nuv_clfy_diag own;
  Lint lint;
  lint.out = warnings;
  const int rc = parse_line(text, result, diag ? diag : &own, &lint);
  *count = lint.count;
  return rc;
}

const char *nuv_clfy_nearest_keyword(const char *word, size_t length) {
  constexpr std::size_t kMaxDistance = 2;
  constexpr std::size_t kLongest = 32;
  if (length == 0 || length > kLongest) return nullptr;
  const char *best = nullptr;
  std::size_t best_distance = kMaxDistance + 1;
  for (const nuv_clfy_keyword *row = parsetab; row->keyword; ++row) {
    // Edit distance by rows of the classic table.
    const std::size_t n = std::strlen(row->keyword);
    std::size_t previous[kLongest + 1], current[kLongest + 1];
    for (std::size_t j = 0; j <= n; ++j) previous[j] = j;
    for (std::size_t i = 1; i <= length; ++i) {
      current[0] = i;
      for (std::size_t j = 1; j <= n; ++j) {
        const std::size_t change = previous[j - 1] + (word[i - 1] == row->keyword[j - 1] ? 0 : 1);
        current[j] = std::min({change, previous[j] + 1, current[j - 1] + 1});
      }
      std::memcpy(previous, current, sizeof previous);
    }
    if (previous[n] < best_distance) best_distance = previous[n], best = row->keyword;
  }
  return best;
}

const nuv_clfy_keyword_help *nuv_clfy_keyword_help_at(size_t row) {
  return row < std::size(kKeywordHelp) ? &kKeywordHelp[row] : nullptr;
}

[[gnu::cold]] const char *nuv_clfy_strerror(int code) { return dp::code_text(kCodeTexts, code, dp::kUnknownCodeText); }

}  // extern "C"
