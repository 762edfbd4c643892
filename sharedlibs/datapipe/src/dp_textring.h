/* The library's two shared rings of static text buffers (private). */
#ifndef DP_TEXTRING_H
#define DP_TEXTRING_H

#include <cstddef>

namespace dp {

// Result-buffer ring: nine static buffers of this many characters, used in
// turn by every text-returning function except the address printers.  A text
// stays valid until nine further takes.
inline constexpr std::size_t kResultBufferSize = 256;
inline constexpr std::size_t kResultRingLength = 9;

// Advances the ring pointer and returns the next result buffer
// (kResultBufferSize characters, contents left as the previous user wrote them).
char *result_ring_next();

// Address text ring: five static buffers used in turn by ipaddr2str,
// ethaddr2str and ip6addr2str.
inline constexpr std::size_t kAddressBufferSize = 64;
inline constexpr std::size_t kAddressRingLength = 5;

// Advances the address ring and returns the next buffer (kAddressBufferSize characters).
char *address_ring_next();

}  // namespace dp

#endif
