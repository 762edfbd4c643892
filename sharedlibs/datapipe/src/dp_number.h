/* Numbers in rule texts read as the router reads them (private). */
#ifndef DP_NUMBER_H
#define DP_NUMBER_H

#include <cstdint>

namespace dp {

// The white space the C library's number readers skip before a number
// (isspace in the C locale).
constexpr bool is_c_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// strtoul(text, end, base) as it behaves where unsigned long is 32 bits, as
// on the router's processor: leading white space and one sign are taken, a
// minus negates modulo 2^32, a magnitude beyond 32 bits reads as 0xffffffff.
// `*end` is set after the last digit, or to `text` when no digit was read
// (then the result is 0).  errno is left untouched.  Reading the same way on
// 64-bit hosts keeps rule texts meaning the same everywhere.
std::uint32_t strtoul32(const char *text, const char **end, int base);

}  // namespace dp

#endif
