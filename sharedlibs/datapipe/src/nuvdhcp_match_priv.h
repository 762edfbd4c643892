/* DHCP header field table and its per-kind matchers (private). */
#ifndef NUVDHCP_MATCH_PRIV_H
#define NUVDHCP_MATCH_PRIV_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dp_scratch.h"
#include "nuvcsock.h"
#include "nuvdhcp.h"

namespace dp::dhcpmatch {

// A matcher compares the text form of `size` field bytes at `field` with a
// NUL-terminated wildcard pattern: 0 when it matches, -1 when it does not.
using FieldMatcher = int (*)(const std::uint8_t *field, std::uint32_t size, const char *pattern);

constexpr std::size_t kScratchBytes = 1024;
constexpr std::size_t kShortTextBytes = 32;
// Two hex digits per byte and the NUL must fit in the scratch text.
constexpr std::uint32_t kMaxHexBytes = 511;
constexpr std::size_t kMaxStringBytes = kScratchBytes - 1;
constexpr std::uint32_t kHwAddrBytes = 6;

// Writers of the fixed text forms; `out` must hold kShortTextBytes.  They
// write what "%02X:%02X:%02X:%02X:%02X:%02X" and "%d.%d.%d.%d" would, without
// the cost of a formatted print on every evaluated packet.
inline char *write_hex_byte(char *out, std::uint8_t b) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  *out++ = kDigits[b >> 4];
  *out++ = kDigits[b & 0x0f];
  return out;
}

inline void write_hwaddr_text(char *out, const std::uint8_t *bytes) {
  for (std::uint32_t i = 0; i < kHwAddrBytes; ++i) {
    if (i) *out++ = ':';
    out = write_hex_byte(out, bytes[i]);
  }
  *out = '\0';
}

inline char *write_decimal_byte(char *out, std::uint8_t b) {
  if (b >= 100) *out++ = static_cast<char>('0' + b / 100);
  if (b >= 10) *out++ = static_cast<char>('0' + b / 10 % 10);
  *out++ = static_cast<char>('0' + b % 10);
  return out;
}

inline void write_dotted_text(char *out, const std::uint8_t *bytes) {
  for (int i = 0; i < 4; ++i) {
    if (i) *out++ = '.';
    out = write_decimal_byte(out, bytes[i]);
  }
  *out = '\0';
}

// Bytes in message order, two upper-case hex digits each.  A field longer
// than the scratch text holds is compared on what fits (511 bytes).
inline int match_hex(const std::uint8_t *field, std::uint32_t size, const char *pattern) {
  if (size == 0) return 0;
  ScratchBuffer scratch(kScratchBytes);
  if (!scratch) return -1;
  char *out = scratch.data();
  const std::uint32_t shown = size < kMaxHexBytes ? size : kMaxHexBytes;
  for (std::uint32_t i = 0; i < shown; ++i) out = write_hex_byte(out, field[i]);
  *out = '\0';
  // The first 2 x size characters are compared; for a field longer than the
  // text holds that is the whole text, so the length passed never reaches
  // past it.
  return shcasenmatch(scratch.data(), std::size_t{2} * shown, pattern) ? 0 : -1;
}

// An IPv4 address in dotted decimal.
inline int match_address(const std::uint8_t *field, std::uint32_t /*size*/, const char *pattern) {
  char buf[kShortTextBytes];
  write_dotted_text(buf, field);
  return shcasematch(buf, pattern) ? 0 : -1;
}

// The first six bytes of a hardware address, "00:11:22:AA:BB:CC".  An empty
// pattern would only match an empty text, which this form never is, so it
// is refused outright, as are fields too short to hold an Ethernet address.
inline int match_hwaddr(const std::uint8_t *field, std::uint32_t size, const char *pattern) {
  if (!field || !pattern || size < kHwAddrBytes || pattern[0] == '\0') return -1;
  char buf[kShortTextBytes];
  write_hwaddr_text(buf, field);
  return shcasematch(buf, pattern) ? 0 : -1;
}

// A text field up to its first NUL, ignoring case.
inline int match_string(const std::uint8_t *field, std::uint32_t size, const char *pattern) {
  if (size == 0) return 0;
  ScratchBuffer scratch(kScratchBytes);
  if (!scratch) return -1;
  const std::size_t copied = size < kMaxStringBytes ? size : kMaxStringBytes;
  std::memcpy(scratch.data(), field, copied);
  scratch.data()[copied] = '\0';
  return shcasematch(scratch.data(), pattern) ? 0 : -1;
}

struct HeaderField {
  const char *name;
  std::uint32_t size;
  std::uint32_t offset;  // in the DHCP message
  FieldMatcher matcher;
};

// Indexed by DHCP_HFIELD_*.
inline constexpr HeaderField kHeaderFields[DHCP_HFIELD_COUNT] = {
    {"op", 1, 0, match_hex},
    {"htype", 1, 1, match_hex},
    {"hlen", 1, 2, match_hex},
    {"hops", 1, 3, match_hex},
    {"xid", 4, 4, match_hex},
    {"secs", 2, 8, match_hex},
    {"flags", 2, 10, match_hex},
    {"ciaddr", 4, 12, match_address},
    {"yiaddr", 4, 16, match_address},
    {"siaddr", 4, 20, match_address},
    {"giaddr", 4, 24, match_address},
    {"chaddr", 16, 28, match_hwaddr},
    {"sname", 64, 44, match_string},
    {"file", 128, 108, match_string},
};

}  // namespace dp::dhcpmatch

#endif
