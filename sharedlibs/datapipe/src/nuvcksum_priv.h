/* The Internet checksum core: ones'-complement sums of byte runs (private).
 * Header-only so that the benchmark can measure the same code. */
#ifndef NUVCKSUM_PRIV_H
#define NUVCKSUM_PRIV_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

inline std::uint32_t load32(const std::uint8_t *p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// The native-order sum of the last 0..3 bytes at p: pieces at even offsets
// keep their word positions, an odd last byte is the first byte of a word.
inline std::uint32_t tail_sum(const std::uint8_t *p, std::size_t len) {
  std::uint32_t tail = 0;
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
  return tail;
}

// Adds w to s and returns the carry out (0 or 1).
inline std::uint64_t add_carry(std::uint64_t &s, std::uint64_t w) {
  s += w;
  return s < w;
}

#if defined(__SSE2__)
// Adds the 32-bit lanes of one pair of accumulators: lanes of `a` hold the
// sum of whole 32-bit words modulo 2^32, lanes of `b` the exact sum of their
// high halves.  The exact sum of the low halves is then a - (b << 16), and
// high plus low halves is the ones'-complement sum (2^16 = 1 modulo 0xffff).
inline std::uint64_t sse2_lane_sums(__m128i a, __m128i b) {
  const __m128i low = _mm_sub_epi32(a, _mm_slli_epi32(b, 16));
  std::uint32_t high_lanes[4], low_lanes[4];
  _mm_storeu_si128(reinterpret_cast<__m128i *>(high_lanes), b);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(low_lanes), low);
  std::uint64_t s = 0;
  for (int i = 0; i < 4; ++i) s += std::uint64_t{high_lanes[i]} + low_lanes[i];
  return s;
}

// Sums the whole 64-byte blocks at p (advancing p and len) with three vector
// operations per 16 bytes.  A lane takes at most 0xfffe words before it is
// reduced, so neither half-sum can overflow 32 bits.
inline std::uint64_t sse2_sum_blocks(const std::uint8_t *&p, std::size_t &len) {
  std::uint64_t total = 0;
  while (len >= 64) {
    std::size_t blocks = len / 64;
    if (blocks > 0x7fff) blocks = 0x7fff;
    __m128i a0 = _mm_setzero_si128(), a1 = _mm_setzero_si128();
    __m128i b0 = _mm_setzero_si128(), b1 = _mm_setzero_si128();
    // A local cursor: vector loads may alias anything, the caller's pointer included.
    const std::uint8_t *q = p;
    for (std::size_t i = 0; i < blocks; ++i, q += 64) {
      const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q));
      const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + 16));
      const __m128i v2 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + 32));
      const __m128i v3 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + 48));
      a0 = _mm_add_epi32(a0, _mm_add_epi32(v0, v2));
      a1 = _mm_add_epi32(a1, _mm_add_epi32(v1, v3));
      b0 = _mm_add_epi32(b0, _mm_add_epi32(_mm_srli_epi32(v0, 16), _mm_srli_epi32(v2, 16)));
      b1 = _mm_add_epi32(b1, _mm_add_epi32(_mm_srli_epi32(v1, 16), _mm_srli_epi32(v3, 16)));
    }
    p = q;
    len -= blocks * 64;
    total += sse2_lane_sums(a0, b0) + sse2_lane_sums(a1, b1);
  }
  return total;
}
#endif

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
#if UINTPTR_MAX == 0xffffffffu
  // 32-bit processors (the router's): 32-bit words into 64-bit accumulators
  // need one add and one add-with-carry each and cannot overflow, where the
  // 64-bit carry tracking below would cost several instructions per word.
  std::uint64_t s0 = 0, s1 = 0;
  for (; len >= 16; p += 16, len -= 16) {
    s0 += load32(p);
    s1 += load32(p + 4);
    s0 += load32(p + 8);
    s1 += load32(p + 12);
  }
  for (; len >= 4; p += 4, len -= 4) s0 += load32(p);
  return fold64_to16(s0 + s1 + tail_sum(p, len));
#else
  std::uint64_t s0 = 0, s1 = 0, c0 = 0, c1 = 0;
#if defined(__SSE2__)
  // Below a few blocks the reduction of the vector lanes costs more than it saves.
  if (len >= 256) s0 = sse2_sum_blocks(p, len);
#endif
  for (; len >= 32; p += 32, len -= 32) {
    c0 += add_carry(s0, load64(p));
    c1 += add_carry(s1, load64(p + 8));
    c0 += add_carry(s0, load64(p + 16));
    c1 += add_carry(s1, load64(p + 24));
  }
  for (; len >= 8; p += 8, len -= 8) c0 += add_carry(s0, load64(p));
  std::uint64_t tail = 0;
  if (len >= 4) {
    tail += load32(p);
    p += 4;
    len -= 4;
  }
  tail += tail_sum(p, len);
  c0 += add_carry(s0, tail);
  c0 += add_carry(s0, s1);
  // Each carry stands for 2^64, which is 1 modulo 0xffff.  When adding them
  // carries out, s0 is below the carries, so adding that last 1 cannot.
  const std::uint64_t last_carry = add_carry(s0, c0 + c1);
  return fold64_to16(s0 + last_carry);
#endif
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
