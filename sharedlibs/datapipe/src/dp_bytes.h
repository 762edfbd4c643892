/* Byte-order helpers for packet memory (private).  They read and write byte
 * by byte, so they never make unaligned accesses and work on either byte
 * order of the host. */
#ifndef DP_BYTES_H
#define DP_BYTES_H

#include <cstdint>

namespace dp {

constexpr std::uint16_t load_be16(const std::uint8_t *p) {
  return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

constexpr std::uint32_t load_be32(const std::uint8_t *p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | std::uint32_t{p[3]};
}

constexpr void store_be16(std::uint8_t *p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}

constexpr void store_be32(std::uint8_t *p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 24);
  p[1] = static_cast<std::uint8_t>(v >> 16);
  p[2] = static_cast<std::uint8_t>(v >> 8);
  p[3] = static_cast<std::uint8_t>(v);
}

// A 32-bit value that holds the network-order bytes of an IPv4 address in
// memory order (the library's usual IPv4 form), read from / written to bytes.
inline std::uint32_t load_net32(const std::uint8_t *p) {
  std::uint32_t v;
  __builtin_memcpy(&v, p, 4);
  return v;
}

inline void store_net32(std::uint8_t *p, std::uint32_t v) { __builtin_memcpy(p, &v, 4); }

// Host-order conversion of a network-order value held in memory order.
constexpr std::uint16_t net_to_host16(std::uint16_t v) {
  if constexpr (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__) return v;
  return static_cast<std::uint16_t>(v << 8 | v >> 8);
}

constexpr std::uint32_t net_to_host32(std::uint32_t v) {
  if constexpr (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__) return v;
  return __builtin_bswap32(v);
}

constexpr std::uint16_t host_to_net16(std::uint16_t v) { return net_to_host16(v); }
constexpr std::uint32_t host_to_net32(std::uint32_t v) { return net_to_host32(v); }

}  // namespace dp

#endif
