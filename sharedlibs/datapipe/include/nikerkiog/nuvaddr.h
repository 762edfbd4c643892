/* IPv4, IPv6 and MAC addresses and IPv4 masks: conversion between binary and text. */
#ifndef NUVADDR_H
#define NUVADDR_H

#include <stddef.h>
#include <stdint.h>
#include <netinet/in.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* Address texts returned by ipaddr2str, ethaddr2str and ip6addr2str live in
 * a ring of five static 64-byte buffers shared by these three printers: a
 * text stays valid until five further calls of any of them.  Not reentrant;
 * copy a text to keep it longer. */

/* Converts an IPv6 address text ("2001:db8::1", "::ffff:10.1.2.3") into its
 * 16 network-order bytes.
 * text: NUL-terminated, may be null.  addr: out, 16 bytes; only its bytes are
 * accessed, so it need not be aligned.
 * Result: 0, or -1 for any malformed text (null, empty, bad character, more
 * than eight groups, a group of more than four digits, a second "::", ...).
 * Accepted beyond the usual forms: one trailing ":" ("1:2:3:4:5:6:7:8:",
 * "::1:"), a "::" that stands for no group at all ("1:2:3:4::5:6:7:8"), and
 * leading zeros in the dotted-quad part.  A bare IPv4 text is rejected.
 * On a malformed character addr is untouched; when the groups do not add up
 * (too many, too few without "::") or the dotted quad is bad, addr has
 * already been set to all zeros. */
NIKERKIOG_API int str2in6_addr(const char *text, struct in6_addr *addr);

/* Prints an IPv6 address: lowercase hex words without leading zeros, the
 * first longest run of zero words (even a single one) written as "::".
 * An IPv4-mapped address (::ffff:a.b.c.d) prints as the bare dotted quad
 * "a.b.c.d"; no other address gets a dotted-quad form.
 * addr: 16 bytes, need not be aligned.  Result: text in the address ring. */
NIKERKIOG_API const char *ip6addr2str(const struct in6_addr *addr);

/* Prints an IPv4 address as "a.b.c.d".
 * addr: network byte order (the packet's bytes held in a 32-bit value).
 * Result: text in the address ring. */
NIKERKIOG_API const char *ipaddr2str(uint32_t addr);

/* Prints a MAC address as "xx:xx:xx:xx:xx:xx" (lowercase, two digits each).
 * mac: 6 bytes in transmission order.  Result: text in the address ring. */
NIKERKIOG_API const char *ethaddr2str(const uint8_t *mac);

/* Reads an IPv4 address text "a.b.c.d" into *addr (network byte order).
 * Each part is a decimal number as strtol reads it (leading white space and
 * a sign allowed).  An empty text gives 0.0.0.0.  A text ending in a dot
 * after fewer than four parts fills the rest with 0 ("10.1." gives
 * 10.1.0.0).  Characters after the fourth part are ignored.
 * Result: 0; -1 when a part has no digits; -2 for a part above 255 or
 * negative, or a part not followed by "." (so "10.1" and "10" fail).
 * *addr is written only on success.  text must not be null. */
NIKERKIOG_API int str2ipaddr(const char *text, uint32_t *addr);

/* 1 for an ordinary classful unicast address: class A, B or C whose host
 * part is not all ones (an all-zero host part is accepted); 0 for broadcast
 * host parts and for 224.0.0.0 and above.
 * addr: HOST byte order (unlike the other functions here). */
NIKERKIOG_API int is_normalipaddr(uint32_t addr);

/* Mask of the given prefix length, network byte order: 0 gives 0, 24 gives
 * 255.255.255.0, anything above 32 gives all ones. */
NIKERKIOG_API uint32_t dphelper_prefixlen2mask(uint8_t prefixlen);

/* Prefix length 0..32 of a network-order mask: 32 minus the number of
 * trailing zero bits, 0 for a zero mask.  Non-contiguous masks are not
 * rejected; only the lowest set bit counts (255.0.255.0 gives 24). */
NIKERKIOG_API int dphelper_mask2prefixlen(uint32_t mask);

/* addr AND the mask of prefixlen (both network order); a prefix length
 * above 32 leaves the address unchanged. */
NIKERKIOG_API uint32_t dphelper_addrcidr2network(uint32_t addr, uint8_t prefixlen);

/* addr AND mask, both network byte order. */
NIKERKIOG_API uint32_t dphelper_addrmask2network(uint32_t addr, uint32_t mask);

NIKERKIOG_END_DECLS

#endif
