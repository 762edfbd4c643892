// Value parsers over many random texts (fixed seed) against plain
// references written here; on a 32-bit host the number parsers are also
// compared with the C library's strtoul itself.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "nuvclfy.h"

namespace {

constexpr int kRounds = 20000;

std::string random_number_text(std::mt19937 &g) {
  static const char *const blanks[] = {"", "", "", " ", "\t", "  "};
  static const char *const signs[] = {"", "", "", "+", "-"};
  static const char *const prefixes[] = {"", "", "0", "0x", "0X"};
  static const char digits[] = "0123456789abcdefABCDEFxg";
  std::string s = blanks[g() % 6];
  s += signs[g() % 5];
  s += prefixes[g() % 5];
  const int n = static_cast<int>(g() % 13);
  for (int i = 0; i < n; ++i) s += (g() % 3) ? digits[g() % 10] : digits[g() % (sizeof digits - 1)];
  if (g() % 4 == 0) s += " rest";
  return s;
}

int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 99;
}

// strtoul(text, &end, 0) of a 32-bit C library, written out: blanks, sign,
// base prefix, digits; beyond 32 bits the value saturates.
struct Ref {
  std::uint32_t value;
  std::size_t consumed;
};
Ref ref_strtoul32(const std::string &s) {
  std::size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || (s[i] >= '\t' && s[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  int base = 10;
  if (i < s.size() && s[i] == '0') {
    // "0x" counts as a prefix only when a hex digit follows; else it is octal 0.
    const bool hex = i + 2 < s.size() && (s[i + 1] == 'x' || s[i + 1] == 'X') && digit_value(s[i + 2]) < 16;
    base = hex ? 16 : 8;
    if (hex) i += 2;
  }
  const std::size_t first = i;
  std::uint64_t v = 0;
  bool overflow = false;
  while (i < s.size() && digit_value(s[i]) < base) {
    v = v * static_cast<unsigned>(base) + static_cast<unsigned>(digit_value(s[i]));
    if (v > 0xffffffffull) overflow = true, v = 0xffffffffull;
    ++i;
  }
  if (i == first) return {0, 0};
  if (overflow) return {0xffffffffu, i};
  const auto m = static_cast<std::uint32_t>(v);
  return {negative ? 0u - m : m, i};
}

}  // namespace

TEST(ValueParserProperties, NumbersAgainstPlainReference) {
  std::mt19937 g(515);
  for (int r = 0; r < kRounds; ++r) {
    const std::string text = random_number_text(g);
    const Ref ref = ref_strtoul32(text);
    char *end = nullptr;
    std::uint32_t v32 = 0xabababab;
    const int rc = parse_ulong(text.c_str(), &end, &v32);
    if (ref.consumed == 0) {
      ASSERT_EQ(rc, -1) << '"' << text << '"';
      continue;
    }
    ASSERT_EQ(rc, 0) << '"' << text << '"';
    ASSERT_EQ(v32, ref.value) << '"' << text << '"';
    ASSERT_EQ(end, text.c_str() + ref.consumed) << '"' << text << '"';

    std::uint8_t v8 = 0xab;
    std::uint16_t v16 = 0xabab, vs = 0xabab;
    const int rc8 = parse_u8(text.c_str(), &end, &v8);
    const int rc16 = parse_u16(text.c_str(), &end, &v16);
    const int rcs = parse_ushort(text.c_str(), &end, &vs);
    // A consumed number never fails, whatever its cut value.
    ASSERT_EQ(rc8, 0) << text;
    ASSERT_EQ(rc16, 0) << text;
    ASSERT_EQ(rcs, 0) << text;
    ASSERT_EQ(v8, ref.value & 0xff) << text;
    ASSERT_EQ(vs, ref.value & 0xffff) << text;
    ASSERT_EQ(v16, htons(static_cast<std::uint16_t>(ref.value & 0xffff))) << text;
  }
}

TEST(ValueParserProperties, NumbersAgainstLibcOnThirtyTwoBitHosts) {
  if (sizeof(unsigned long) != 4) GTEST_SKIP() << "the C library's unsigned long is not 32 bits here";
  std::mt19937 g(616);
  for (int r = 0; r < kRounds; ++r) {
    const std::string text = random_number_text(g);
    char *ref_end;
    const unsigned long ref = std::strtoul(text.c_str(), &ref_end, 0);
    char *end = nullptr;
    std::uint32_t v = 0;
    const int rc = parse_ulong(text.c_str(), &end, &v);
    if (ref_end == text.c_str()) {
      ASSERT_EQ(rc, -1) << text;
    } else {
      ASSERT_EQ(rc, 0) << text;
      ASSERT_EQ(v, ref) << text;
      ASSERT_EQ(end, ref_end) << text;
    }
  }
}

namespace {

std::string random_dotted_text(std::mt19937 &g) {
  static const char alphabet[] = "0123456789.. x";
  std::string s;
  if (g() % 2) {
    for (int i = 0; i < 4; ++i) {
      if (i) s += '.';
      s += std::to_string(g() % 270);
    }
  }
  const int extra = static_cast<int>(g() % 4);
  for (int i = 0; i < extra; ++i) {
    const std::size_t at = s.empty() ? 0 : g() % (s.size() + 1);
    s.insert(at, 1, alphabet[g() % (sizeof alphabet - 1)]);
  }
  return s;
}

// The dotted-address rules written out: four digit runs at most 255,
// dots between, no blanks skipped.
int ref_parse_ipaddr(const std::string &s, std::uint32_t *out, std::size_t *consumed) {
  std::size_t i = 0;
  std::uint32_t addr = 0;
  for (int part = 0; part < 4; ++part) {
    if (i >= s.size() || s[i] < '0' || s[i] > '9') return -1;
    unsigned long v = 0;
    bool big = false;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
      v = v * 10 + static_cast<unsigned long>(s[i++] - '0');
      if (v > 255) big = true, v = 256;
    }
    if (big) return -2;
    addr = addr << 8 | static_cast<std::uint32_t>(v);
    if (part < 3) {
      if (i >= s.size() || s[i] != '.') return -3;
      ++i;
    }
  }
  *out = addr;
  *consumed = i;
  return 0;
}

}  // namespace

TEST(ValueParserProperties, DottedAddressesAgainstPlainReference) {
  std::mt19937 g(717);
  int good = 0;
  for (int r = 0; r < kRounds; ++r) {
    const std::string text = random_dotted_text(g);
    std::uint32_t ref = 0, ours = 0;
    std::size_t consumed = 0;
    const int ref_rc = ref_parse_ipaddr(text, &ref, &consumed);
    char *end = nullptr;
    const int rc = parse_ipaddr(text.c_str(), &end, &ours);
    ASSERT_EQ(rc, ref_rc) << '"' << text << '"';
    if (rc == 0) {
      ASSERT_EQ(ours, ref) << text;
      ASSERT_EQ(end, text.c_str() + consumed) << text;
      // On plain quads the C library agrees.
      in_addr a;
      if (consumed == text.size() && text.find(".0") == std::string::npos && text[0] != '0' &&
          inet_pton(AF_INET, text.c_str(), &a) == 1) {
        ASSERT_EQ(ours, ntohl(a.s_addr)) << text;
      }
      ++good;
    }
  }
  EXPECT_GT(good, kRounds / 8);
}

TEST(ValueParserProperties, HexStringsAgainstPlainReference) {
  std::mt19937 g(818);
  static const char alphabet[] = "0123456789abcdefABCDEF g";
  for (int r = 0; r < kRounds; ++r) {
    std::string text;
    const int n = static_cast<int>(g() % 20);
    for (int i = 0; i < n; ++i) text += alphabet[g() % (sizeof alphabet - 1)];
    const std::size_t max = g() % 10;
    std::size_t digits = 0;
    while (digits < text.size() && digit_value(text[digits]) < 16) ++digits;
    std::uint8_t buf[16] = {};
    char *end = nullptr;
    const int rc = parse_hex(text.c_str(), &end, buf, max);
    if (digits % 2 || digits / 2 > max) {
      ASSERT_EQ(rc, -1) << text;
      continue;
    }
    ASSERT_EQ(rc, static_cast<int>(digits / 2)) << text;
    for (std::size_t b = 0; b < digits / 2; ++b)
      ASSERT_EQ(buf[b], std::stoul(text.substr(2 * b, 2), nullptr, 16)) << text;
    if (digits) {
      ASSERT_EQ(end, text.c_str() + digits) << text;
    }
  }
}

TEST(ValueParserProperties, MacAddressesAgainstInetStyleReference) {
  std::mt19937 g(919);
  for (int r = 0; r < kRounds; ++r) {
    std::uint8_t mac[6];
    for (auto &b : mac) b = static_cast<std::uint8_t>(g());
    char text[32];
    if (g() % 2)
      std::snprintf(text, sizeof text, "%02x:%02X:%02x:%02X:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    else
      std::snprintf(text, sizeof text, "%02x%02x%02X%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    std::uint8_t out[6] = {};
    char *end = nullptr;
    ASSERT_EQ(parse_mac(text, &end, out), 0) << text;
    ASSERT_EQ(std::memcmp(out, mac, 6), 0) << text;
    ASSERT_EQ(*end, '\0') << text;
  }
}
