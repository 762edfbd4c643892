#include "dp_number.h"

#include <cerrno>
#include <cstdlib>

#include "nuvaddr_priv.h"

namespace dp {
namespace {

// Decimal numbers of up to nine digits cannot leave 32 bits; rule texts are
// made of them, so they are read here without the C library.
constexpr int kShortDecimal = 9;

// Reads the decimal digits at p into `value` when there are at most
// kShortDecimal of them and returns where they end; null otherwise.
const char *read_short_decimal(const char *p, std::uint32_t &value) {
  std::uint32_t v = 0;
  for (int i = 0; i < kShortDecimal && is_decimal_digit(*p); ++i, ++p) v = v * 10 + static_cast<std::uint32_t>(*p - '0');
  if (is_decimal_digit(*p)) return nullptr;
  value = v;
  return p;
}

// Whether the number at p reads in base 10: a base-0 number starting with
// 0 is octal or hexadecimal instead.
bool reads_decimal(const char *p, int base) {
  return is_decimal_digit(*p) && (base == 10 || (base == 0 && *p != '0'));
}

}  // namespace

std::uint32_t strtoul32(const char *text, const char **end, int base) {
  const char *p = text;
  while (is_c_space(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  *end = text;
  // strtoull would skip blanks or take a second sign here; strtoul does not.
  if (is_c_space(*p) || *p == '+' || *p == '-') return 0;
  if (reads_decimal(p, base)) {
    std::uint32_t value = 0;
    if (const char *after = read_short_decimal(p, value)) {
      *end = after;
      return negative ? 0u - value : value;
    }
  }
  char *after;
  const int saved_errno = errno;
  const unsigned long long magnitude = std::strtoull(p, &after, base);
  errno = saved_errno;
  if (after == p) return 0;
  *end = after;
  if (magnitude > 0xffffffffull) return 0xffffffffu;
  const auto value = static_cast<std::uint32_t>(magnitude);
  return negative ? 0u - value : value;
}

}  // namespace dp
