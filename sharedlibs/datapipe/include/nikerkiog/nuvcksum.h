/* Internet checksums of IPv4, TCP, UDP, ICMP and their IPv6 forms: set, verify, update incrementally. */
#ifndef NUVCKSUM_H
#define NUVCKSUM_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* All functions take a pointer to the start of an IPv4 or IPv6 header and
 * read every length from the headers (IPv4 header length, total length, UDP
 * length, IPv6 payload length and extension header lengths).  The caller
 * guarantees that the buffer holds the whole packet as its headers describe
 * it; nothing is checked.  The pointer need not be aligned.  Checksums are
 * stored big-endian, as on the wire.  Nothing allocates. */

/* Zeroes the IPv4 header checksum (bytes 10-11), sums the header (4 x the
 * low nibble of byte 0 bytes) and stores the checksum. */
NIKERKIOG_API void set_ip_checksum(void *iph);

/* 1 if the IPv4 header, checksum included, sums to 0xffff, else 0. */
NIKERKIOG_API int ip_checksum_ok(const void *iph);

/* Stores the TCP checksum of the segment after the IPv4 header: total length
 * minus header length bytes plus the pseudo-header (addresses, the IP
 * header's protocol byte, that length).  A total length below the header
 * length counts as an empty segment. */
NIKERKIOG_API void set_tcp_checksum(void *iph);

/* 1 if the TCP segment (as set_tcp_checksum sums it) with its received
 * checksum sums to 0xffff, else 0. */
NIKERKIOG_API int tcp_checksum_ok(const void *iph);

/* Stores the UDP checksum of the datagram after the IPv4 header, summing as
 * many bytes as the UDP length field says (padding beyond it is left out)
 * plus the pseudo-header.  A computed 0 is stored as 0xffff. */
NIKERKIOG_API void set_udp_checksum(void *iph);

/* 1 if the UDP datagram with its received checksum sums to 0xffff, else 0.
 * A received checksum of 0 ("none sent") gets no special treatment: such a
 * datagram fails unless its data happens to sum to 0xffff. */
NIKERKIOG_API int udp_checksum_ok(const void *iph);

/* Stores the ICMP checksum over total length minus header length bytes (no
 * pseudo-header). */
NIKERKIOG_API void set_icmp_checksum(void *iph);

/* 1 if the ICMP message with its received checksum sums to 0xffff, else 0. */
NIKERKIOG_API int icmp_checksum_ok(const void *iph);

/* IPv6 upper-layer checksums.  The extension headers 0, 43, 44, 51, 59 and
 * 60 after the IPv6 header are skipped (authentication headers count in
 * 4-byte units plus 2, the others in 8-byte units plus 1), each taken off
 * the payload length; what remains is summed with the pseudo-header for the
 * given protocol.  The final next-header value is not checked.  When the
 * remaining length drops below 2 while extension headers still follow, the
 * chain counts as broken: the length becomes 0 and the upper-layer header is
 * taken to begin one byte before the IPv6 header, so the checksum is written
 * into the IPv6 header itself (byte 15 for TCP, 5 for UDP, 1 for ICMPv6).
 * A computed 0 is stored as 0, also for UDP.  Besides the packet the
 * headers describe, the buffer must hold the checksum field where the walk
 * ends (extension headers that claim more than the payload move it). */
NIKERKIOG_API void set_tcpv6_checksum(void *ip6h);
NIKERKIOG_API void set_udpv6_checksum(void *ip6h);
NIKERKIOG_API void set_icmpv6_checksum(void *ip6h);

/* Incremental updates (RFC 1624, equation 3) after a field of a packet
 * changed.  All checksums and values are given and returned exactly as they
 * stand in the packet (network byte order); the result is the new checksum,
 * equal to the one a full recomputation of the changed data gives, for
 * every value.  (A UDP/IPv4 result of 0 is sent as 0xffff, as
 * set_udp_checksum does; that substitution is the caller's.) */

/* A 16-bit field changed from old_value to new_value. */
NIKERKIOG_API uint16_t update_checksum_u16(uint16_t old_checksum, uint16_t old_value, uint16_t new_value);

/* A 32-bit field (an IPv4 address, say) changed from old_value to new_value. */
NIKERKIOG_API uint16_t update_checksum_u32(uint16_t old_checksum, uint32_t old_value, uint32_t new_value);

/* A run of bytes changed from old_bytes (old_len bytes) to new_bytes
 * (new_len bytes).  odd_start non-zero: the runs begin in the second byte of
 * a 16-bit word of the packet, so their first bytes count as low-order
 * bytes.  With odd_start set both lengths must be at least 1. */
NIKERKIOG_API uint16_t update_checksum(uint16_t old_checksum, int odd_start,
                                       const void *old_bytes, uint16_t old_len,
                                       const void *new_bytes, uint16_t new_len);

NIKERKIOG_END_DECLS

#endif
