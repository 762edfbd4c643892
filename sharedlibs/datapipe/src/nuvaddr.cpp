// Address and mask text conversion: IPv4, IPv6 and MAC addresses.
#include "nuvaddr.h"

#include <cstdlib>
#include <cstring>

#include "dp_bytes.h"
#include "dp_textring.h"
#include "dp_textwriter.h"
#include "nuvaddr_priv.h"

namespace {

constexpr int kIp6Words = 8;
constexpr int kIp6WordsBeforeQuad = 6;

// ---------------------------------------------------------------------------
// IPv6 text to binary

// Groups collected while scanning: those before "::" (head) and after (tail).
struct Ip6Groups {
  std::uint16_t head[kIp6Words];
  std::uint16_t tail[kIp6Words];
  int head_count = 0;
  int tail_count = 0;
  bool in_tail = false;  // "::" seen

  int current_count() const { return in_tail ? tail_count : head_count; }
  void append(std::uint16_t value) {
    if (in_tail)
      tail[tail_count++] = value;
    else
      head[head_count++] = value;
  }
};

// Scanner state for the group currently being read.
struct Ip6Scan {
  Ip6Groups groups;
  std::uint32_t value = 0;
  int digits = 0;
  bool previous_colon = false;
};

// A dotted quad may begin at a digit that starts a group: the rest of the
// text after that digit must consist of digits and dots with exactly three dots.
bool dotted_quad_follows(const char *after_digit) {
  int dots = 0;
  for (const char *p = after_digit; *p; ++p) {
    if (*p == '.')
      ++dots;
    else if (!dp::is_decimal_digit(*p))
      return false;
  }
  return dots == 3;
}

// Reads "%u.%u.%u.%u" of a text made only of digits and dots into four
// bytes; -1 when a number is missing or above 255.
int read_dotted_quad(const char *p, std::uint8_t *out4) {
  for (int i = 0; i < 4; ++i) {
    if (i > 0) {
      if (*p != '.') return -1;
      ++p;
    }
    if (!dp::is_decimal_digit(*p)) return -1;
    std::uint32_t value = 0;
    for (; dp::is_decimal_digit(*p); ++p) {
      value = value * 10 + static_cast<std::uint32_t>(*p - '0');
      if (value > 255) return -1;
    }
    out4[i] = static_cast<std::uint8_t>(value);
  }
  return 0;
}

// Places head groups at the first words and tail groups at the last of
// `words` words of out (big-endian).
void store_groups(const Ip6Groups &g, int words, std::uint8_t *out) {
  for (int k = 0; k < g.head_count; ++k) dp::store_be16(out + 2 * k, g.head[k]);
  for (int k = 0; k < g.tail_count; ++k) dp::store_be16(out + 2 * (words - g.tail_count + k), g.tail[k]);
}

// Without "::" the head must fill all words; with it, head and tail together
// may fill at most all words ("::" may then stand for no group at all).
bool groups_fit(const Ip6Groups &g, int words) {
  if (!g.in_tail && g.head_count != words) return false;
  return g.head_count + g.tail_count <= words;
}

int finish_plain(const Ip6Scan &s, std::uint8_t *out) {
  Ip6Groups g = s.groups;
  if (s.digits) g.append(static_cast<std::uint16_t>(s.value));
  std::memset(out, 0, 16);
  if (!groups_fit(g, kIp6Words)) return -1;
  store_groups(g, kIp6Words, out);
  return 0;
}

int finish_with_quad(const Ip6Scan &s, const char *quad, std::uint8_t *out) {
  std::memset(out, 0, 16);
  std::uint8_t quad_bytes[4];
  if (read_dotted_quad(quad, quad_bytes) < 0) return -1;
  if (!groups_fit(s.groups, kIp6WordsBeforeQuad)) return -1;
  store_groups(s.groups, kIp6WordsBeforeQuad, out);
  std::memcpy(out + 12, quad_bytes, 4);
  return 0;
}

int scan_hex_digit(Ip6Scan &s, int digit) {
  if (s.groups.current_count() == kIp6Words) return -1;
  if (s.digits == 4) return -1;
  s.value = s.digits ? s.value * 16 + static_cast<std::uint32_t>(digit) : static_cast<std::uint32_t>(digit);
  ++s.digits;
  s.previous_colon = false;
  return 0;
}

int scan_colon(Ip6Scan &s, const char *p) {
  if (s.previous_colon) {
    if (s.groups.in_tail) return -1;  // a second "::"
    s.groups.in_tail = true;
    s.digits = 0;
    return 0;
  }
  if (s.digits) {
    s.groups.append(static_cast<std::uint16_t>(s.value));
    s.digits = 0;
  } else if (p[1] != ':') {
    return -1;  // a lone leading colon
  }
  s.previous_colon = true;
  return 0;
}

// ---------------------------------------------------------------------------
// IPv6 binary to text

struct ZeroRun {
  int start = -1;
  int length = 0;
};

// First longest run of zero words; a single zero word is a run too.
ZeroRun longest_zero_run(const std::uint16_t *words) {
  ZeroRun best;
  for (int i = 0; i < kIp6Words;) {
    if (words[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < kIp6Words && words[j] == 0) ++j;
    if (j - i > best.length) best = ZeroRun{i, j - i};
    i = j;
  }
  return best;
}

bool is_ipv4_mapped(const ZeroRun &run, const std::uint16_t *words) {
  return run.start == 0 && run.length == 5 && words[5] == 0xffff;
}

void write_ip6_words(dp::TextWriter &out, const std::uint16_t *words, const ZeroRun &run) {
  const int run_end = run.start + run.length;
  for (int i = 0; i < kIp6Words; ++i) {
    if (run.length && i >= run.start && i < run_end) {
      if (i == run.start) out.append(":");
      continue;
    }
    if (i > 0) out.append(":");
    out.printf("%x", static_cast<unsigned>(words[i]));
  }
  if (run.length && run_end == kIp6Words) out.append(":");
}

// ---------------------------------------------------------------------------
// IPv4

constexpr int kIp4Parts = 4;

bool part_out_of_range(long value) { return value != 0 && static_cast<unsigned long>(value) > 255; }

}  // namespace

extern "C" {

int str2in6_addr(const char *text, struct in6_addr *addr) {
  if (text == nullptr || *text == '\0') return -1;
  // Only the bytes are touched, so an unaligned caller buffer is fine.
  auto *out = reinterpret_cast<std::uint8_t *>(addr);
  Ip6Scan s;
  for (const char *p = text; *p; ++p) {
    const char c = *p;
    if (dp::is_decimal_digit(c) && s.digits == 0 && dotted_quad_follows(p + 1)) return finish_with_quad(s, p, out);
    const int digit = dp::hex_digit_value(c);
    int rc;
    if (digit >= 0)
      rc = scan_hex_digit(s, digit);
    else if (c == ':')
      rc = scan_colon(s, p);
    else
      rc = -1;
    if (rc < 0) return -1;
  }
  return finish_plain(s, out);
}

const char *ip6addr2str(const struct in6_addr *addr) {
  const auto *bytes = reinterpret_cast<const std::uint8_t *>(addr);
  std::uint16_t words[kIp6Words];
  for (int i = 0; i < kIp6Words; ++i) words[i] = dp::load_be16(bytes + 2 * i);
  char *buf = dp::address_ring_next();
  dp::TextWriter out(buf, dp::kAddressBufferSize);
  const ZeroRun run = longest_zero_run(words);
  if (is_ipv4_mapped(run, words))
    out.printf("%d.%d.%d.%d", bytes[12], bytes[13], bytes[14], bytes[15]);
  else
    write_ip6_words(out, words, run);
  return buf;
}

const char *ipaddr2str(uint32_t addr) {
  std::uint8_t b[4];
  dp::store_net32(b, addr);
  char *buf = dp::address_ring_next();
  dp::TextWriter(buf, dp::kAddressBufferSize).printf("%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
  return buf;
}

const char *ethaddr2str(const uint8_t *mac) {
  char *buf = dp::address_ring_next();
  dp::TextWriter(buf, dp::kAddressBufferSize)
      .printf("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return buf;
}

int str2ipaddr(const char *text, uint32_t *addr) {
  if (text == nullptr) return -1;
  std::uint8_t parts[kIp4Parts] = {0, 0, 0, 0};
  const char *p = text;
  // An empty text is 0.0.0.0; the loop below handles it by not running.
  for (int i = 0; *text && i < kIp4Parts; ++i) {
    char *after;
    const long value = std::strtol(p, &after, 10);
    if (part_out_of_range(value)) return -2;
    if (value == 0 && after == p) return -1;
    parts[i] = static_cast<std::uint8_t>(value);
    if (i == kIp4Parts - 1) break;
    if (*after != '.') return -2;
    p = after + 1;
    if (*p == '\0') break;  // "10.1." : the remaining parts stay 0
  }
  *addr = dp::load_net32(parts);
  return 0;
}

int is_normalipaddr(uint32_t addr) {
  const std::uint32_t first = addr >> 24;
  if (first < 128) return (addr & 0x00ffffffu) != 0x00ffffffu;
  if (first < 192) return (addr & 0x0000ffffu) != 0x0000ffffu;
  if (first < 224) return (addr & 0x000000ffu) != 0x000000ffu;
  return 0;
}

uint32_t dphelper_prefixlen2mask(uint8_t prefixlen) {
  if (prefixlen > 32) return 0xffffffffu;
  if (prefixlen == 0) return 0;
  return dp::host_to_net32(0xffffffffu << (32 - prefixlen));
}

int dphelper_mask2prefixlen(uint32_t mask) {
  if (mask == 0) return 0;
  return 32 - __builtin_ctz(dp::net_to_host32(mask));
}

uint32_t dphelper_addrcidr2network(uint32_t addr, uint8_t prefixlen) {
  return addr & dphelper_prefixlen2mask(prefixlen);
}

uint32_t dphelper_addrmask2network(uint32_t addr, uint32_t mask) { return addr & mask; }

}  // extern "C"
