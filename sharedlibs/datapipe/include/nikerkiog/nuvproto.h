/* IP protocol numbers and names, TCP flag texts. */
#ifndef NUVPROTO_H
#define NUVPROTO_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* The protocol number that stands for any IP protocol in every rule text. */
#define NUV_IPPROTO_ANY 255

/* Name of IP protocol `proto`.
 * 255 (any protocol) is "IP", 58 is "ICMPv6" and 94 is "IPIP"; other
 * numbers 0..139 have their registry keyword ("TCP", "IPv6-Frag",
 * "Mobility Header", ...; 4 is "IP" and the keyword-less rows 61, 63, 68, 99
 * and 114 are "any").  Those are constant texts.  Numbers 140..254 are written
 * as "P<number>" ("P200") into the next buffer of the library's result ring,
 * valid until nine further texts have been taken from the ring.
 * The result is read-only and never null. */
NIKERKIOG_API const char *ipproto2str(uint8_t proto);

/* Reads the protocol `name` (NUL-terminated) into `*proto`.
 * Names are compared ignoring case: "ip" is 255, "ipv4" is 0, "icmpv6" is 58,
 * "ipip" is 94, then every name ipproto2str knows gives its number (the first
 * row wins, so "any" is 61).  Otherwise an upper-case "P" followed by a
 * decimal number 0..255 gives that number ("P17"; digits are read as far as
 * they go, so "P" alone is 0 and "P17x" is 17).  A plain number ("6") is not a
 * protocol name.
 * Returns 0 and writes `*proto` on success; -1 on failure, leaving `*proto`
 * untouched.  Both pointers must be valid. */
NIKERKIOG_API int ipproto_parse(uint8_t *proto, const char *name);

/* The TCP flags of the segment whose header starts at `tcphdr` (the flag
 * byte is byte 13, so 14 bytes must be readable), as a comma-separated list in
 * the order SYN, ACK, PSH, FIN, RST ("SYN,ACK"; "" when none of these is set;
 * URG and the ECN bits are not shown).  The text is in the next buffer of
 * the library's result ring, valid until nine further texts have been taken
 * from it. */
NIKERKIOG_API const char *tcpflags2str(const uint8_t *tcphdr);

NIKERKIOG_END_DECLS

#endif
