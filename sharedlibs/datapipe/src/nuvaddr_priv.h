/* Character helpers shared by the address texts and the value parsers (private). */
#ifndef NUVADDR_PRIV_H
#define NUVADDR_PRIV_H

#include <cstdint>

namespace dp {

constexpr bool is_decimal_digit(char c) { return c >= '0' && c <= '9'; }

// Value of a hexadecimal digit (either case), or -1 for any other character.
constexpr int hex_digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr bool is_hex_digit(char c) { return hex_digit_value(c) >= 0; }

}  // namespace dp

#endif
