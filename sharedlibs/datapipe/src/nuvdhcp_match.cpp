// DHCP match expressions: the rule-text parsers, the header field names and
// the evaluation of a match against a received DHCP message.
#include <cstring>
#include <strings.h>

#include "dp_codetext.h"
#include "dp_scratch.h"
#include "dp_text.h"
#include "nuvclfy.h"
#include "nuvcsock.h"
#include "nuvdhcp.h"
#include "nuvdhcp_match_priv.h"
#include "nuvdhcp_priv.h"

namespace {

using dp::dhcpmatch::kHeaderFields;

constexpr std::uint8_t kClientIdentifier = 61;
constexpr std::uint8_t kHwTypeEthernet = 1;
constexpr std::uint32_t kClientIdEthernetBytes = 7;  // hardware type + 6 address bytes
constexpr std::uint32_t kAddressBytes = 4;

constexpr bool is_vendor_code(std::uint8_t code) { return code == 124 || code == 125; }

// The number readers take a non-const end pointer, like strtoul.
int read_u8(const char *text, const char **end, std::uint8_t *out) {
  char *stop = nullptr;
  const int rc = parse_u8(text, &stop, out);
  *end = stop;
  return rc;
}

int read_ulong(const char *text, const char **end, std::uint32_t *out) {
  char *stop = nullptr;
  const int rc = parse_ulong(text, &stop, out);
  *end = stop;
  return rc;
}

// "/enterprise/sub" after a vendor option code; *p is at the first "/".
int parse_vendor_suffix(const char **p, dhcp_match *match) {
  const char *end = nullptr;
  if (read_ulong(*p + 1, &end, &match->enterprise) != 0) return DHCP_MATCH_E_ENTERPRISE;
  if (*end != '/') return DHCP_MATCH_E_SECOND_SLASH;
  if (read_u8(end + 1, &end, &match->sub) != 0) return DHCP_MATCH_E_SUB_CODE;
  *p = end;
  return 0;
}

// Index of a header field name (ignoring case), or -1.
int find_header_field(const char *name) {
  for (int i = 0; i < DHCP_HFIELD_COUNT; ++i) {
    if (strcasecmp(name, kHeaderFields[i].name) == 0) return i;
  }
  return -1;
}

constexpr dp::CodeText kMatchParserTexts[] = {
    {DHCP_MATCH_E_NO_PATTERN, "header field name without a pattern"},
    {DHCP_MATCH_E_BAD_CODE, "bad DHCP option code or unknown header field"},
    {DHCP_MATCH_E_NOT_VENDOR, "only options 124 and 125 take /enterprise/sub"},
    {DHCP_MATCH_E_ENTERPRISE, "bad enterprise number"},
    {DHCP_MATCH_E_SECOND_SLASH, "missing \"/\" before the sub-option code"},
    {DHCP_MATCH_E_SUB_CODE, "bad sub-option code"},
};

int match_header(const std::uint8_t *msg, const dhcp_match *match) {
  if (match->sub >= DHCP_HFIELD_COUNT) return 0;
  const auto &field = kHeaderFields[match->sub];
  return field.matcher(msg + field.offset, field.size, match->pattern) == 0 ? 1 : 0;
}

// The option value's text goes into a scratch buffer of kScratchBytes.
using ScratchText = char *;

// The client identifier of an Ethernet client reads as its hardware address;
// other hardware types never match.
bool match_client_identifier(const std::uint8_t *value, std::uint32_t len, const char *pattern, ScratchText text) {
  if (len < kClientIdEthernetBytes || value[0] != kHwTypeEthernet) return false;
  dp::dhcpmatch::write_hwaddr_text(text, value + 1);
  return shcasematch(text, pattern) != 0;
}

bool match_single_address(const std::uint8_t *value, std::uint32_t len, const char *pattern, ScratchText text) {
  if (len < kAddressBytes) return false;
  dp::dhcpmatch::write_dotted_text(text, value);
  return shmatch(text, pattern) != 0;
}

// Any other value as text: it ends at its first NUL, at most 1023 bytes.
bool match_value_text(const std::uint8_t *value, std::uint32_t len, const char *pattern, ScratchText text) {
  const std::size_t copied = len < dp::dhcpmatch::kMaxStringBytes ? len : dp::dhcpmatch::kMaxStringBytes;
  std::memcpy(text, value, copied);
  text[copied] = '\0';
  return shmatch(text, pattern) != 0;
}

bool is_single_address_option(std::uint8_t code) { return std::strcmp(dp::dhcp::option_format(code), "I") == 0; }

bool match_option_value(std::uint8_t code, const std::uint8_t *value, std::uint32_t len, const char *pattern) {
  dp::ScratchBuffer scratch(dp::dhcpmatch::kScratchBytes);
  if (!scratch) return false;
  if (code == kClientIdentifier) return match_client_identifier(value, len, pattern, scratch.data());
  if (is_single_address_option(code)) return match_single_address(value, len, pattern, scratch.data());
  return match_value_text(value, len, pattern, scratch.data());
}

int match_option(const dhcp_memops *memops, const dhcp_option *store, const dhcp_match *match) {
  const dhcp_option &slot = store[match->code];
  // A slot whose last replacement failed keeps its length but has no data.
  if (slot.len == 0 || !slot.data) return 0;
  std::uint8_t *value = slot.data;
  std::uint32_t len = slot.len;
  if (is_vendor_code(match->code)) {
    len = dhcp_find_125_option(memops, &value, len, match->enterprise, match->sub);
    if (len == 0) return 0;
  }
  const bool matched = match_option_value(match->code, value, len, match->pattern);
  if (value != slot.data) memops->free(value);
  return matched ? 1 : 0;
}

}  // namespace

extern "C" {

NIKERKIOG_API int parse_dhcpoptionmatch(const char *text, char **endp, dhcp_match *match) {
  std::memset(match, 0, sizeof *match);
  const char *p = dp::skip_spaces(text);
  const char *end = nullptr;
  if (read_u8(p, &end, &match->code) != 0 || match->code == 0) return DHCP_MATCH_E_BAD_CODE;
  p = end;
  if (*p == '/') {
    if (!is_vendor_code(match->code)) return DHCP_MATCH_E_NOT_VENDOR;
    const int rc = parse_vendor_suffix(&p, match);
    if (rc != 0) return rc;
  }
  // The pattern may follow the number directly ("12abc"); that is accepted.
  const char *pattern = dp::skip_spaces(p);
  const char *pattern_end = dp::word_end(pattern);
  match->pattern = pattern;
  *endp = const_cast<char *>(pattern_end);
  return static_cast<int>(pattern_end - pattern);
}

NIKERKIOG_API int parse_dhcpheadermatch(char *text, char **endp, dhcp_match *match) {
  std::memset(match, 0, sizeof *match);
  char *name = const_cast<char *>(dp::skip_spaces(text));
  char *separator = const_cast<char *>(dp::word_end(name));
  if (*separator == '\0') return DHCP_MATCH_E_NO_PATTERN;
  const char saved = *separator;
  *separator = '\0';
  const int index = find_header_field(name);
  // An unknown name leaves its terminating NUL in the text.
  if (index < 0) return DHCP_MATCH_E_UNKNOWN_FIELD;
  *separator = saved;
  const char *pattern = dp::skip_spaces(separator);
  const char *pattern_end = dp::word_end(pattern);
  match->sub = static_cast<std::uint8_t>(index);
  match->pattern = pattern;
  *endp = const_cast<char *>(pattern_end);
  return static_cast<int>(pattern_end - pattern);
}

NIKERKIOG_API int dhcp_packet_matches(const dhcp_memops *memops, const unsigned char *msg, const dhcp_option *store,
                                      const dhcp_match *match) {
  if (match->code == 0) return match_header(msg, match);
  return match_option(memops, store, match);
}

NIKERKIOG_API const char *dhcp_match_strerror(int code) {
  if (code >= DHCP_MATCH_E_OK) return "parsed";
  return dp::code_text(kMatchParserTexts, code, dp::kUnknownCodeText);
}

NIKERKIOG_API const char *dhcp_hfield2str(std::uint8_t index) {
  return index < DHCP_HFIELD_COUNT ? kHeaderFields[index].name : "unknown";
}

}  // extern "C"
