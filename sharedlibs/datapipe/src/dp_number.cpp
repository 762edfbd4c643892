#include "dp_number.h"

#include <cerrno>
#include <cstdlib>

namespace dp {
namespace {

bool is_c_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

std::uint32_t strtoul32(const char *text, const char **end, int base) {
  const char *p = text;
  while (is_c_space(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  *end = text;
  // strtoull would skip blanks or take a second sign here; strtoul does not.
  if (is_c_space(*p) || *p == '+' || *p == '-') return 0;
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
