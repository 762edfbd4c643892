// Value parsers for rule texts: numbers, IPv4/IPv6 prefixes, MAC addresses,
// quoted strings, hex byte strings and words.
#include <cstdlib>
#include <cstring>

#include "dp_bytes.h"
#include "dp_codetext.h"
#include "dp_number.h"
#include "dp_text.h"
#include "dp_wire.h"
#include "nuvaddr.h"
#include "nuvaddr_priv.h"
#include "nuvclfy.h"

namespace {

constexpr int kMacBytes = dp::wire::kEthernetAddressLength;
constexpr int kOuiBytes = dp::wire::kOuiLength;

// ---------------------------------------------------------------------------
// Numbers

// The common rule of the number parsers: a value cut to `mask` fails only
// when it is 0 and nothing was consumed.
int parse_number(const char *text, char **end, std::uint32_t mask, std::uint32_t *out) {
  const char *after;
  const std::uint32_t value = dp::strtoul32(text, &after, 0) & mask;
  if (value == 0 && after == text) return NUV_VALUE_E_REFUSED;
  *out = value;
  *end = const_cast<char *>(after);
  return NUV_VALUE_OK;
}

// ---------------------------------------------------------------------------
// IPv4

// One component of a dotted address: NUV_VALUE_E_REFUSED without a leading
// digit, NUV_VALUE_E_PART_TOO_BIG above 255.
int read_ip_component(const char *&p, std::uint32_t *value) {
  if (!dp::is_decimal_digit(*p)) return NUV_VALUE_E_REFUSED;
  std::uint32_t v = 0;
  bool too_big = false;
  for (; dp::is_decimal_digit(*p); ++p) {
    v = v * 10 + static_cast<std::uint32_t>(*p - '0');
    if (v > 255) {
      too_big = true;
      v = 256;  // keeps the sum bounded while the digits are passed over
    }
  }
  if (too_big) return NUV_VALUE_E_PART_TOO_BIG;
  *value = v;
  return NUV_VALUE_OK;
}

// The mask part of a prefix at p (after the address and spaces).
int read_prefix_mask(const char *p, char **end, std::uint32_t *mask) {
  if (*p == '/') {
    std::uint8_t length;
    if (parse_u8(p + 1, end, &length) < 0) return NUV_VALUE_E_REFUSED;
    *mask = dphelper_prefixlen2mask(length);
    return NUV_VALUE_OK;
  }
  if (dp::is_decimal_digit(*p)) {
    std::uint32_t host_mask;
    if (parse_ipaddr(p, end, &host_mask) != 0) return NUV_VALUE_E_REFUSED;
    *mask = dp::host_to_net32(host_mask);
    return NUV_VALUE_OK;
  }
  *mask = 0xffffffffu;
  *end = const_cast<char *>(p);
  return NUV_VALUE_OK;
}

// ---------------------------------------------------------------------------
// MAC addresses

// Reads up to `count` groups of one or two hex digits.  The two-character
// conversion buffer keeps its second digit from group to group, so a
// one-digit group borrows the previous group's low digit; before any
// two-digit group that slot holds no digit and a one-digit group fails.
int parse_hex_groups(const char *text, char **end, std::uint8_t *out, int count) {
  const char *p = text;
  char pair[3] = {'\0', '\0', '\0'};
  for (int i = 0; i < count; ++i) {
    if (!dp::is_hex_digit(*p)) break;
    pair[0] = *p++;
    if (dp::is_hex_digit(*p)) pair[1] = *p++;
    if (!dp::is_hex_digit(pair[1])) return NUV_VALUE_E_REFUSED;
    out[i] = static_cast<std::uint8_t>(dp::hex_digit_value(pair[0]) << 4 | dp::hex_digit_value(pair[1]));
    if (*p == ':') ++p;
  }
  *end = const_cast<char *>(p);
  return NUV_VALUE_OK;
}

}  // namespace

extern "C" {

int parse_u8(const char *text, char **end, uint8_t *out) {
  std::uint32_t v;
  if (parse_number(text, end, 0xffu, &v) < 0) return NUV_VALUE_E_REFUSED;
  *out = static_cast<std::uint8_t>(v);
  return NUV_VALUE_OK;
}

int parse_u16(const char *text, char **end, uint16_t *out) {
  std::uint32_t v;
  if (parse_number(text, end, 0xffffu, &v) < 0) return NUV_VALUE_E_REFUSED;
  *out = dp::host_to_net16(static_cast<std::uint16_t>(v));
  return NUV_VALUE_OK;
}

int parse_ushort(const char *text, char **end, uint16_t *out) {
  std::uint32_t v;
  if (parse_number(text, end, 0xffffu, &v) < 0) return NUV_VALUE_E_REFUSED;
  *out = static_cast<std::uint16_t>(v);
  return NUV_VALUE_OK;
}

int parse_ulong(const char *text, char **end, uint32_t *out) {
  return parse_number(text, end, 0xffffffffu, out);
}

int parse_ipaddr(const char *text, char **end, uint32_t *out) {
  const char *p = text;
  std::uint32_t addr = 0;
  for (int i = 0; i < 4; ++i) {
    std::uint32_t component;
    const int rc = read_ip_component(p, &component);
    if (rc < 0) return rc;
    addr = addr << 8 | component;
    if (i < 3) {
      if (*p != '.') return NUV_VALUE_E_NO_DOT;
      ++p;
    }
  }
  *out = addr;
  *end = const_cast<char *>(p);
  return NUV_VALUE_OK;
}

int parse_prefix(const char *text, char **end, uint32_t *addr, uint32_t *mask) {
  const char *p = dp::skip_equals(text);
  char *after;
  std::uint32_t host_addr;
  if (parse_ipaddr(p, &after, &host_addr) != 0) return NUV_VALUE_E_REFUSED;
  *addr = dp::host_to_net32(host_addr);
  return read_prefix_mask(dp::skip_spaces(after), end, mask);
}

int parse_prefix6(char *text, char **end, uint8_t *addr16, uint8_t *prefixlen) {
  char *p = const_cast<char *>(dp::skip_equals(text));
  auto *addr = reinterpret_cast<struct in6_addr *>(addr16);
  char *slash = std::strchr(p, '/');
  if (slash != nullptr) {
    *slash = '\0';  // stays: callers see the address alone from here on
    if (str2in6_addr(p, addr) < 0) return NUV_VALUE_E_REFUSED;
    return parse_u8(slash + 1, end, prefixlen) < 0 ? -1 : 0;
  }
  if (str2in6_addr(p, addr) < 0) return NUV_VALUE_E_REFUSED;
  char *stop = p;
  while (*stop != ' ' && *stop != '\0') ++stop;
  *end = stop;
  return NUV_VALUE_OK;
}

int parse_mac(const char *text, char **end, uint8_t *out) { return parse_hex_groups(text, end, out, kMacBytes); }

int parse_oui(const char *text, char **end, uint8_t *out) { return parse_hex_groups(text, end, out, kOuiBytes); }

int parse_string(const char *text, char **end, char *buf, size_t size) {
  if (*text != '"') return NUV_VALUE_E_REFUSED;
  const char *start = text + 1;
  const char *close = std::strchr(start, '"');
  if (close == nullptr) return NUV_VALUE_E_REFUSED;
  const std::size_t length = static_cast<std::size_t>(close - start);
  if (length >= size) return NUV_VALUE_E_REFUSED;
  std::memcpy(buf, start, length);
  buf[length] = '\0';
  *end = const_cast<char *>(close + 1);
  return NUV_VALUE_OK;
}

int parse_hex(const char *text, char **end, uint8_t *buf, size_t max) {
  std::size_t digits = 0;
  while (dp::is_hex_digit(text[digits])) ++digits;
  if (digits % 2 != 0) return NUV_VALUE_E_REFUSED;
  const std::size_t bytes = digits / 2;
  if (bytes > max) return NUV_VALUE_E_REFUSED;
  if (bytes == 0) return 0;
  for (std::size_t i = 0; i < bytes; ++i)
    buf[i] = static_cast<std::uint8_t>(dp::hex_digit_value(text[2 * i]) << 4 | dp::hex_digit_value(text[2 * i + 1]));
  *end = const_cast<char *>(text + digits);
  return static_cast<int>(bytes);
}

int parse_nonblank(const char *text, char **end, char *buf, size_t size) {
  std::size_t length = 0;
  while (text[length] != ' ' && text[length] != '\0') ++length;
  if (length >= size) return NUV_VALUE_E_REFUSED;
  std::memcpy(buf, text, length);
  buf[length] = '\0';
  *end = const_cast<char *>(text[length] == ' ' ? text + length + 1 : text + length);
  return NUV_VALUE_OK;
}

}  // extern "C"

namespace {

constexpr dp::CodeText kValueCodeTexts[] = {
    {NUV_VALUE_E_REFUSED, "value not in the expected form"},
    {NUV_VALUE_E_PART_TOO_BIG, "address part above 255"},
    {NUV_VALUE_E_NO_DOT, "address part not followed by \".\""},
};

}  // namespace

const char *parse_value_strerror(int code) {
  if (code >= NUV_VALUE_OK) return "parsed";
  return dp::code_text(kValueCodeTexts, code, dp::kUnknownCodeText);
}
