/* The Internet checksum core: ones'-complement sums of byte runs (private).
 * Header-only so that the benchmark can measure the same code. */
#ifndef NUVCKSUM_PRIV_H
#define NUVCKSUM_PRIV_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace dp {

// Folds a 64-bit ones'-complement accumulator to 16 bits.  The result is 0
// only for a zero accumulator; a non-zero multiple of 0xffff gives 0xffff.
constexpr std::uint32_t fold64_to16(std::uint64_t s) {
  s = (s >> 32) + (s & 0xffffffffu);  // at most 33 bits
  s = (s >> 16) + (s & 0xffffu);      // at most 0x1fffe + 1
  s = (s >> 16) + (s & 0xffffu);
  s = (s >> 16) + (s & 0xffffu);
  return static_cast<std::uint32_t>(s);
}

inline std::uint64_t load64(const std::uint8_t *p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// Adds w to s and returns the carry out (0 or 1).
inline std::uint64_t add_carry(std::uint64_t &s, std::uint64_t w) {
  s += w;
  return s < w;
}

// Ones'-complement sum of len bytes at p taken as 16-bit words in the host's
// byte order, folded to 16 bits (0 only when every byte is 0).  An odd last
// byte is added in its memory position, i.e. as the first byte of a word
// whose second byte is zero.  Any alignment of p.
//
// Why native order: the ones'-complement sum commutes with swapping the two
// bytes of every word, so whole 64-bit loads can be added with end-around
// carries (2^64 = 1 modulo 0xffff) and only the 16-bit result is swapped.
inline std::uint32_t native_sum16(const void *data, std::size_t len) {
  const auto *p = static_cast<const std::uint8_t *>(data);
  std::uint64_t s0 = 0, s1 = 0, c0 = 0, c1 = 0;
  for (; len >= 32; p += 32, len -= 32) {
    c0 += add_carry(s0, load64(p));
    c1 += add_carry(s1, load64(p + 8));
    c0 += add_carry(s0, load64(p + 16));
    c1 += add_carry(s1, load64(p + 24));
  }
  for (; len >= 8; p += 8, len -= 8) c0 += add_carry(s0, load64(p));
  // The tail: pieces at even offsets keep their native word positions.
  std::uint64_t tail = 0;
  if (len >= 4) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    tail += v;
    p += 4;
    len -= 4;
  }
  if (len >= 2) {
    std::uint16_t v;
    std::memcpy(&v, p, 2);
    tail += v;
    p += 2;
    len -= 2;
  }
  if (len) {
    const std::uint8_t last[2] = {p[0], 0};
    std::uint16_t v;
    std::memcpy(&v, last, 2);
    tail += v;
  }
  c0 += add_carry(s0, tail);
  c0 += add_carry(s0, s1);
  // Each carry stands for 2^64, which is 1 modulo 0xffff.  When adding them
  // carries out, s0 is below the carries, so adding that last 1 cannot.
  const std::uint64_t last_carry = add_carry(s0, c0 + c1);
  return fold64_to16(s0 + last_carry);
}

// The 16-bit result of native_sum16 as the sum of big-endian words.
constexpr std::uint32_t native_to_be_sum16(std::uint32_t s) {
  if constexpr (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__) return s;
  return ((s & 0xffu) << 8) | (s >> 8);
}

// Ones'-complement sum of big-endian 16-bit words, folded to 16 bits.
inline std::uint32_t be_sum16(const void *data, std::size_t len) {
  return native_to_be_sum16(native_sum16(data, len));
}

}  // namespace dp

#endif
