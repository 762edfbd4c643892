/* Packet classifier: rules, value parsers, rule text, matching, rule sets, named tables, optimisation. */
#ifndef NUVCLFY_H
#define NUVCLFY_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvdhcp.h"

NIKERKIOG_BEGIN_DECLS

/* ---- Value parsers (rule text values) ---- */

/* Each parser reads one value at text and, on success, stores in *end the
 * first character it did not consume.  On failure *end is left alone, but
 * output bytes already written stay written.  Results are 0 on success and
 * -1 on failure unless a parser says otherwise.  text must be NUL-terminated
 * and end must not be null. */

/* Number as strtoul reads it with base 0 (decimal, "0x" hex, leading-0 octal;
 * leading white space and a sign allowed), computed as a 32-bit unsigned
 * long on every host, then cut to 8 bits without a range check: "300" gives
 * 44, "256" gives 0.  Fails only when nothing was consumed (the cut value is
 * then 0). */
NIKERKIOG_API int parse_u8(const char *text, char **end, uint8_t *out);

/* As parse_u8, cut to 16 bits and stored in network byte order. */
NIKERKIOG_API int parse_u16(const char *text, char **end, uint16_t *out);

/* As parse_u8, cut to 16 bits, host byte order. */
NIKERKIOG_API int parse_ushort(const char *text, char **end, uint16_t *out);

/* As parse_u8 without cutting: 32 bits, host byte order.  Values beyond 32
 * bits give 0xffffffff, as a 32-bit strtoul does. */
NIKERKIOG_API int parse_ulong(const char *text, char **end, uint32_t *out);

/* Dotted IPv4 address "a.b.c.d", exactly four parts of one or more decimal
 * digits each at most 255; no leading spaces are skipped.
 * out: HOST byte order.  Result: 0; -1 when a part does not start with a
 * digit, -2 when a part exceeds 255, -3 when one of the first three parts is
 * not followed by ".". */
NIKERKIOG_API int parse_ipaddr(const char *text, char **end, uint32_t *out);

/* IPv4 prefix: optional spaces and "=" or "==" with spaces, an address, then
 * after spaces "/length" (0 gives mask 0, 33 and above all ones), or a second
 * dotted address as the mask, or nothing (all ones).  The address keeps its
 * host bits.  addr, mask: network byte order.  Result 0 or -1. */
NIKERKIOG_API int parse_prefix(const char *text, char **end, uint32_t *addr, uint32_t *mask);

/* IPv6 prefix: optional spaces and "=" or "==" with spaces, then the first
 * "/" anywhere in the rest of the text splits address and length.  That "/"
 * is overwritten with NUL for good (text is modified); the address before it
 * is read with str2in6_addr and the length after it with parse_u8.  Without
 * any "/", the whole rest of the text must be the address (so an address
 * followed by more words fails), *end goes to the next space or NUL and
 * *prefixlen keeps the value the caller preset.
 * addr16: out, 16 bytes.  Result 0 or -1. */
NIKERKIOG_API int parse_prefix6(char *text, char **end, uint8_t *addr16, uint8_t *prefixlen);

/* MAC address: six groups of one or two hex digits, each optionally followed
 * by one ":" ("00:11:22:33:44:55" and "001122334455" are equal).  Reading
 * stops successfully at the first character that is not a hex digit, leaving
 * the remaining output bytes as they were.  A one-digit group takes the
 * second digit of the previous group as its low digit ("00:1:" gives 0x00,
 * 0x10); a one-digit first group fails (-1).  out: 6 bytes. */
NIKERKIOG_API int parse_mac(const char *text, char **end, uint8_t *out);

/* As parse_mac with three groups (an OUI).  out: 3 bytes. */
NIKERKIOG_API int parse_oui(const char *text, char **end, uint8_t *out);

/* Double-quoted string, copied without escape processing into buf and
 * NUL-terminated; *end goes after the closing quote.  Fails without an
 * opening or closing quote, or when the string has size or more characters.
 * buf: size bytes. */
NIKERKIOG_API int parse_string(const char *text, char **end, char *buf, size_t size);

/* Hex byte string: the leading hex digits, two per byte.  Result: the number
 * of bytes (0 when no digit leads, *end then untouched); -1 for an odd
 * number of digits or more than max bytes.  buf: max bytes. */
NIKERKIOG_API int parse_hex(const char *text, char **end, uint8_t *buf, size_t max);

/* Word up to the next space or NUL (only those two end it), copied into buf
 * and NUL-terminated; *end goes after the ending space, or to the NUL.
 * Fails when the word has size or more characters.  buf: size bytes. */
NIKERKIOG_API int parse_nonblank(const char *text, char **end, char *buf, size_t size);

/* ---- Rule record, presence bits, value lists, rule sets, action registry ---- */



/* ---- Ethernet source tables ---- */



/* ---- IP destination tables ---- */



/* ---- Rule text parser ---- */



/* ---- Rule text formatter ---- */



/* ---- Packet descriptor, matching and rule sets ---- */



/* ---- Comparison and cloning ---- */



/* ---- Optimisation ---- */


NIKERKIOG_END_DECLS

#endif
