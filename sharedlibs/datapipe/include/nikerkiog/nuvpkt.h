/* Packet headers: one-line descriptions, IPv6 extension header walk, packet predicates. */
#ifndef NUVPKT_H
#define NUVPKT_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvaddr.h"
#include "nuvproto.h"

NIKERKIOG_BEGIN_DECLS

/* ---- header descriptions ---- */

/* One line describing the IP packet at `packet`, for logs: protocol name,
 * addresses and, for UDP, TCP, ESP, AH, IPComp, ICMP, ICMPv6 and IGMP, the
 * ports, flags, SPI/sequence, CPI or message ("TCP 10.0.0.1:1234 -> 10.0.0.2:80
 * SYN"); a non-first IPv4 fragment shows its offset ("off=185  MF").
 * A packet whose version nibble is 6 is described by ip6h2str.
 * Nothing is checked: the caller guarantees the whole IP header and the first
 * bytes of the upper-layer header are readable (4 for UDP and IPComp, 14 for
 * TCP, 8 for ESP, ICMP, ICMPv6 and IGMP, 12 for AH).
 * The text lives in the library's result ring (valid until nine further
 * takes; one description takes up to two result buffers and three address
 * buffers). */
NIKERKIOG_API const char *iph2str(const uint8_t *packet);

/* As iph2str for a packet starting with an IPv6 header (40 bytes, then the
 * upper-layer header described by the next-header byte; extension headers
 * are not followed, so a fragment is described as "IPv6-Frag"). */
NIKERKIOG_API const char *ip6h2str(const uint8_t *packet);

/* ---- IPv6 extension headers ---- */

/* A caller's packet buffer: the library reads only `len`, the number of
 * valid bytes, and `data`, the first valid byte.  The other fields belong to
 * the caller. */
typedef struct nuv_pktbuf {
  uint32_t reserved0;
  uint32_t len;
  uint32_t reserved2;
  uint8_t *data;
} nuv_pktbuf;

/* 1 when `nexthdr` names an IPv6 extension header this library walks:
 * 0 (hop-by-hop options), 43 (routing), 44 (fragment), 59 (no next header)
 * and 60 (destination options).  0 for every other value, including the
 * authentication (51) and encapsulating security payload (50) headers. */
NIKERKIOG_API int ip6_is_ext_hdr(uint8_t nexthdr);

/* The fragment header of the IPv6 packet whose header `ip6hdr` points into
 * `buf`'s data, or null when its extension header chain has none.
 * When the IPv6 header's own next header is 44 the byte behind the 40-byte
 * header is returned without looking at `buf`'s length.  Otherwise each
 * header of the chain must lie wholly inside `buf`'s valid bytes, else null.
 * The 40 bytes of the IPv6 header must be readable. */
NIKERKIOG_API const uint8_t *ip6_find_fraghdr(const nuv_pktbuf *buf, const uint8_t *ip6hdr);

/* Skips the hop-by-hop and destination options headers starting at
 * `offset` in the `len` bytes at `data`; `*nexthdr` holds the type of the
 * header at `offset` on entry.  The walk stops at the first header that is
 * not an extension header, or at a routing (43), fragment (44) or
 * no-next-header (59) value.  Returns the offset of that header and stores its
 * type in `*nexthdr`; returns -1 when a header's first two bytes lie beyond
 * `len` (or `offset` is negative), leaving `*nexthdr` unchanged.
 * `len` bytes at `data` must be readable. */
NIKERKIOG_API int ip6_skip_exthdr_raw(const uint8_t *data, int len, int offset, uint8_t *nexthdr);

/* ip6_skip_exthdr_raw on `buf`'s data pointer with the given `len`
 * (offsets count from `buf->data`). */
NIKERKIOG_API int ip6_skip_exthdr(const nuv_pktbuf *buf, int offset, uint8_t *nexthdr, int len);

/* Skips the extension headers behind the IPv6 header at `ip6hdr`, routing
 * headers included, stopping at the first header that is not an extension
 * header or at a fragment (44) or no-next-header (59) value.  Returns the
 * offset of that header from `ip6hdr` and stores its type in `*nexthdr`.
 * Returns -1, leaving `*nexthdr` unchanged, when the IPv6 payload length
 * leaves fewer than two bytes for the next header to be read.
 * The 40-byte header and the payload its length field announces must be
 * readable. */
NIKERKIOG_API int ip6_skip_exthdr_from_ipv6hdr(const uint8_t *ip6hdr, uint8_t *nexthdr);

/* Checks the extension header chain behind the IPv6 header at `ip6hdr`:
 * a hop-by-hop options header may only directly follow the IPv6 header.
 * Returns 1 when valid, -1 when the payload ends inside the chain, -2 for a
 * misplaced hop-by-hop header, 0 for a null `ip6hdr`.  No other order is
 * checked.  The header and its announced payload must be readable. */
NIKERKIOG_API int ip6_exthdr_order_is_valid_in_ipv6hdr(const uint8_t *ip6hdr);

/* ---- packet predicates ---- */

/* 1 when the packet at `ip` is IPv4 (version 4) carrying UDP (protocol 17)
 * with a well-formed standard DNS query; any other version or protocol
 * gives 0, whatever its payload looks like.  A valid query has the QR bit
 * clear, opcode 0, at least one question of class IN, no answer, authority
 * or additional records, and nothing behind the last question.  The
 * message ends where the IP total length says; the UDP length must be
 * 8..520.  0 otherwise.  The caller guarantees that the bytes up to
 * the IP total length are readable (the packet is not read beyond them). */
NIKERKIOG_API int packet_is_valid_dns_query_request(const uint8_t *ip);

/* As packet_is_valid_dns_query_request (IPv4 carrying UDP only, else 0)
 * for a reply: QR bit set, opcode 0, at least one question of class IN, and
 * well-formed answer, authority and additional records ending exactly at
 * the end of the packet. */
NIKERKIOG_API int packet_is_valid_dns_query_reply(const uint8_t *ip);

/* The ICMP request type answered by reply type `type`: 0 gives 8 (echo),
 * 14 gives 13 (timestamp), 16 gives 15 (information), 18 gives 17 (address
 * mask).  Other types up to 18 give 255, types above 18 give -1. */
NIKERKIOG_API int icmp_rep2req(uint8_t type);

/* The ICMPv6 request type answered by reply type `type`: 129 gives 128
 * (echo), 140 gives 139 (node information), 145 gives 144 (home agent address
 * discovery).  Other types from 129 to 145 give 255, all others -1. */
NIKERKIOG_API int icmp6_rep2req(uint8_t type);

/* 1 when IP protocol `proto` carries port numbers: TCP (6), UDP (17),
 * DCCP (33), SCTP (132) and UDP-Lite (136); 0 otherwise. */
NIKERKIOG_API int is_port_protocol(uint8_t proto);

NIKERKIOG_END_DECLS

#endif
