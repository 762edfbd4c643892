/* DHCP options: option store, options-area parsing and construction, vendor options, match expressions. */
#ifndef NUVDHCP_H
#define NUVDHCP_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* ---- Memory operations and option store ---- */

/* The caller's memory operations.  Every DHCP function allocates and
 * releases through such a record; the library keeps no memory of its own.
 * `reserved` is never touched by the library (room for the caller's context). */
typedef struct dhcp_memops {
  void *reserved;
  /* Returns a block of at least `size` bytes, or null when exhausted. */
  void *(*alloc)(uint32_t size);
  /* Releases a block returned by `alloc`. */
  void (*free)(void *block);
} dhcp_memops;

/* One option slot of a store.  The slot holds a value when `data` is
 * non-null (test `data`, not `len`).  `data` is owned by the store. */
typedef struct dhcp_option {
  uint32_t len;        /* number of value bytes, 0 when absent */
  unsigned char *data; /* value bytes, or null when absent */
} dhcp_option;

/* Number of slots of an option store: one per option code 0..255. */
#define DHCP_OPTION_SLOTS 256

/* An option store: a plain array of 256 slots indexed by option code
 * (2048 bytes on a 32-bit target).  Values filled in by parsing carry one
 * extra NUL byte after their `len` bytes, so text options can be used as C
 * strings; values set with dhcp_set_option carry no terminator.  A store
 * never points into the message it was parsed from.  Clear a fresh store
 * with memset (or fill it with dhcp_parse_options) before first use. */
typedef dhcp_option dhcp_options[DHCP_OPTION_SLOTS];

/* Replaces the value of option `code` (1..255) by a copy of the `len` bytes
 * at `data` (allocated with exactly `len` bytes, no terminator).
 * Returns 0, or -1 when `code` is out of range (store unchanged) or the
 * allocation fails.  After a failed allocation the slot reads as absent
 * (`data` null) and its `len` is left as it was.  The previous block is
 * then not released: it belongs to the caller, who reads `store[code].data`
 * before the call when it may need to release it (the value may also be the
 * source `data` of the call).  On success the previous block is released
 * after the copy, so `data` may point into the old value.
 * With `len` 0 the result depends on what `alloc(0)` returns. */
NIKERKIOG_API int dhcp_set_option(const dhcp_memops *memops, dhcp_options store, int code, uint32_t len,
                                  const void *data);

/* Removes option `code` (1..255): releases its value and empties the slot.
 * Returns 0 (also for an empty slot), or -1 when `code` is out of range. */
NIKERKIOG_API int dhcp_free_option(const dhcp_memops *memops, dhcp_options store, int code);

/* Removes every option, slots 0..255 included. */
NIKERKIOG_API void dhcp_free_options(const dhcp_memops *memops, dhcp_options store);

/* Adds the options of the `len`-byte option area at `buf` to the store, as
 * code/length/value triples; pad bytes (0) are skipped, 255 ends the area.
 * An option already present (from this area or an earlier one parsed into
 * the same store) gets the new bytes appended, so long options split over
 * several instances come out joined in order of appearance.
 * Returns 0, or -1 when an option runs past the end of the area or an
 * allocation fails; options read before the failure stay in the store (the
 * slot being extended keeps its old value).
 * Precondition: the byte just after the area (buf[len], and buf[0] when
 * `len` is 0 or negative) must be readable: the code byte is looked at
 * before the end of the area is tested. */
NIKERKIOG_API int dhcp_parse_option_buffer(const dhcp_memops *memops, const unsigned char *buf, int32_t len,
                                           dhcp_options store);

/* Empties the store (without releasing anything: release a filled store
 * with dhcp_free_options first) and fills it from the DHCP message of
 * `msglen` bytes at `msg`: the options field at offset 240 and, when option
 * 52 asks for it, the `file` field (offset 108, 128 bytes) and then the
 * `sname` field (offset 44, 64 bytes).
 * Returns 0, or -1 when the message is shorter than 240 bytes, the magic
 * cookie 99.130.83.99 at offset 236 is wrong (store left empty) or a
 * parsed area fails (options read so far stay; release them with
 * dhcp_free_options).
 * Precondition: msglen + 1 bytes at `msg` are readable (the byte after the
 * options field may be looked at). */
NIKERKIOG_API int dhcp_parse_options(const dhcp_memops *memops, const unsigned char *msg, int32_t msglen,
                                     dhcp_options store);

/* ---- Option formats ---- */

/* The value format of option `code` in the library's option format table,
 * the table option construction and matching go by: "I" one IPv4 address,
 * "IA" a list of addresses, "IIA" a list of address pairs, "l" signed
 * 32-bit, "L" unsigned 32-bit, "S" unsigned 16-bit, "SA" a list of 16-bit
 * values, "B" unsigned 8-bit, "BA" a list of bytes, "f" a flag byte, "t"
 * text, "X" opaque bytes, "e" the end mark (255), "" for the pad (0).
 * Numbers are big-endian on the wire.  Static text, never null. */
NIKERKIOG_API const char *dhcp_option_format(uint8_t code);

/* ---- Option construction ---- */

struct dhcpoptions; /* a configured option record, nuvdhcpcfg.h */

/* Bits of the `overload` argument of dhcp_cons_options. */
#define DHCP_OVERLOAD_FILE 1  /* options may continue in `file` */
#define DHCP_OVERLOAD_SNAME 2 /* options may continue in `sname` */

/* Writes the option part of an outgoing DHCP message into `msg`: the magic
 * cookie at offset 236, the options field from offset 240 and, when the
 * options do not fit there, option 52 and the `file` (offset 108) and
 * `sname` (offset 44) fields.  Bytes 0..235 otherwise stay the caller's.
 *
 * The configured options of the list whose head pointer is at `optlist`
 * (records of nuvdhcpcfg.h) are written in priority order: 53, 54, 51, 56,
 * then the peer's parameter request list (option 55 of `store`) or, without
 * one, a fixed default order, and 82 last.  Configured options not in that
 * order are not written.  Options that do not fit are dropped one by one
 * (also those that would run past the 4096-byte working buffer).
 * Options of `store` (the peer's parsed message, or null) that are not
 * configured are then copied as they are, as far as the working buffer
 * holds them.
 *
 * The options field is 312 bytes long, or 64 with `short_area` non-zero,
 * unless `store` holds option 57: then it is that size less 264, within
 * 312..4096.  `overload`: DHCP_OVERLOAD_FILE and/or DHCP_OVERLOAD_SNAME.
 * `textnul` non-zero: text options get a terminating NUL byte.
 *
 * Returns the length of the message up to the last byte written to the
 * options field, 243 when options were moved to `file`/`sname`, or 0 when
 * working storage (4096 and 300 bytes through `memops`) cannot be had; then
 * `msg` is untouched.
 * Precondition: `msg` has room for 240 bytes plus the options field (up to
 * 240 + 4096 bytes when the peer sent option 57). */
NIKERKIOG_API int dhcp_cons_options(const dhcp_memops *memops, const dhcp_option *store, unsigned char *msg,
                                    struct dhcpoptions *const *optlist, int overload, int textnul, int short_area);

/* ---- Vendor options 43, 124 and 125 ---- */

/* Vendor sub-option lookups.  Option 43 holds sub-options as code, length,
 * value triples; options 124 and 125 hold blocks of {4-byte big-endian
 * enterprise number, 1-byte data length n, n bytes of sub-options}, each
 * block n + 5 bytes long.  A found sub-option is handed over as a new block
 * allocated through `memops`: its `len` bytes followed by a NUL byte.  The
 * caller releases it with memops->free.  Repeated sub-options of one code in
 * one area are joined in order of appearance, like top-level options.
 *
 * Working storage: one temporary option store (sizeof(dhcp_options) bytes,
 * 2048 on the 32-bit target) through `memops` per area searched, released
 * before returning.  An allocation failure reads as "not found".
 *
 * Precondition shared by all three: the byte right after the last value byte
 * must be readable (the option-area parser looks at it).  Values filled in by
 * dhcp_parse_options / dhcp_parse_option_buffer always have their NUL there.
 * Codes 0 and 255 are never found: the parser never stores them. */

/* Finds sub-option `subcode` in the first block of enterprise `enterprise`
 * that holds it, inside the `len`-byte option 124/125 value at *valp.
 * Returns the sub-option's length and replaces *valp by the new value block;
 * returns 0 and leaves *valp alone when nothing is found, when a block header
 * claims more bytes than are left (the search ends there), or when a
 * sub-option is present with length 0.  Sub-options of one code in two blocks
 * of the same enterprise are not joined: the first block that has it wins. */
NIKERKIOG_API uint32_t dhcp_find_125_option(const dhcp_memops *memops, unsigned char **valp, uint32_t len,
                                            uint32_t enterprise, uint8_t subcode);

/* As dhcp_find_125_option on the value held by the store slot `slot`
 * (option 124 or 125), returning the sub-option's value as a new
 * NUL-terminated string allocated through `memops` (released with
 * memops->free), or null when the slot is empty, the sub-option is missing
 * or memory runs out.  Nothing else stays allocated. */
NIKERKIOG_API char *dhcp_extract_125_string(const dhcp_memops *memops, const dhcp_option *slot, uint32_t enterprise,
                                            uint8_t subcode);

/* Finds sub-option `subcode` in the `len`-byte option 43 value at *valp
 * (code, length, value triples; a triple that runs past the end ends the
 * search, the sub-options before it still count).  Returns the sub-option's
 * length and replaces *valp by the new value block, or returns 0 and leaves
 * *valp alone. */
NIKERKIOG_API uint32_t dhcp_find_43_option(const dhcp_memops *memops, unsigned char **valp, uint32_t len, uint8_t subcode);

/* ---- Match expressions ---- */

/* A DHCP match: one option value or one fixed header field of a DHCP message,
 * as text, against a shell-style wildcard pattern. */
typedef struct dhcp_match {
  uint8_t code;        /* option code 1..255; 0 for a header field match */
  uint8_t sub;         /* header field index (DHCP_HFIELD_*) when code is 0;
                          vendor sub-option code for codes 124 and 125; else 0 */
  uint32_t enterprise; /* vendor enterprise number for codes 124 and 125; else 0 */
  const char *pattern; /* wildcard pattern (see the parsers and dhcp_packet_matches) */
} dhcp_match;

/* Header fields a match can test, by index.  Their text forms:
 * op, htype, hlen, hops, xid, secs, flags: the field's bytes in message order
 *   as upper-case hexadecimal digits, two per byte ("8000" for a broadcast
 *   flag), compared ignoring case;
 * ciaddr, yiaddr, siaddr, giaddr: dotted decimal, "192.168.1.4";
 * chaddr: the first six bytes as "00:11:22:AA:BB:CC", compared ignoring case
 *   (an empty pattern never matches);
 * sname, file: the field's text up to its first NUL, compared ignoring case. */
enum {
  DHCP_HFIELD_OP = 0,
  DHCP_HFIELD_HTYPE = 1,
  DHCP_HFIELD_HLEN = 2,
  DHCP_HFIELD_HOPS = 3,
  DHCP_HFIELD_XID = 4,
  DHCP_HFIELD_SECS = 5,
  DHCP_HFIELD_FLAGS = 6,
  DHCP_HFIELD_CIADDR = 7,
  DHCP_HFIELD_YIADDR = 8,
  DHCP_HFIELD_SIADDR = 9,
  DHCP_HFIELD_GIADDR = 10,
  DHCP_HFIELD_CHADDR = 11,
  DHCP_HFIELD_SNAME = 12,
  DHCP_HFIELD_FILE = 13,
  DHCP_HFIELD_COUNT = 14
};

/* Result codes of parse_dhcpoptionmatch and parse_dhcpheadermatch (a
 * result of 0 or more is the pattern's length). */
enum {
  DHCP_MATCH_E_OK = 0,
  DHCP_MATCH_E_NO_PATTERN = -1,     /* header form: the field name ends the text */
  DHCP_MATCH_E_BAD_CODE = -2,       /* option form: option code missing, malformed or 0 */
  DHCP_MATCH_E_UNKNOWN_FIELD = -2,  /* header form: no header field of that name */
  DHCP_MATCH_E_NOT_VENDOR = -3,     /* "/" after a code other than 124 or 125 */
  DHCP_MATCH_E_ENTERPRISE = -4,     /* enterprise number missing or malformed */
  DHCP_MATCH_E_SECOND_SLASH = -5,   /* no "/" after the enterprise number */
  DHCP_MATCH_E_SUB_CODE = -6        /* sub-option code missing or malformed */
};

/* Short English text of a result of the two DHCP match parsers, for tools
 * and logs: "parsed" for 0 and above (a pattern length), the code's text for
 * the codes above, "unknown result code" for any other.  Static text, never
 * null. */
NIKERKIOG_API const char *dhcp_match_strerror(int code);

/* Parses "code pattern" or, for codes 124 and 125, "code/enterprise/sub
 * pattern" from `text` (NUL-terminated) into *match, which is cleared first.
 * Leading spaces are skipped; the code and the sub-option code are read like
 * parse_u8 (decimal, 0x hexadecimal or leading-0 octal, truncated to 8 bits),
 * the enterprise number like parse_ulong.  The pattern starts after the
 * spaces that follow the number (no space is needed: "12abc" is code 12 with
 * pattern "abc") and runs to the next space or the end.  match->pattern then
 * points into `text` and is not terminated.
 * Returns the pattern's length (0 when the text ends after the number) and
 * sets *endp just after the pattern; on error returns
 *   DHCP_MATCH_E_BAD_CODE (-2) bad option code or code 0,
 *   DHCP_MATCH_E_NOT_VENDOR (-3) "/" after a code other than 124 or 125,
 *   DHCP_MATCH_E_ENTERPRISE (-4) bad enterprise number,
 *   DHCP_MATCH_E_SECOND_SLASH (-5) no "/" after the enterprise number,
 *   DHCP_MATCH_E_SUB_CODE (-6) bad sub-option code;
 * *endp is left alone on error. */
NIKERKIOG_API int parse_dhcpoptionmatch(const char *text, char **endp, dhcp_match *match);

/* Parses "field pattern" from `text` into *match (cleared first; code stays
 * 0, sub is the field index).  The field name is one of the names printed by
 * dhcp_hfield2str, compared ignoring case.  `text` must be writable: a NUL is
 * written after the field name while it is looked up and then replaced by
 * the original separator, except when the name is unknown (-2), where the NUL
 * stays in the text.  The pattern is what follows the spaces after the name,
 * up to the next space or the end; match->pattern points into `text`, not
 * terminated.  Returns the pattern's length (0 when only spaces follow the
 * name) and sets *endp after it; returns DHCP_MATCH_E_NO_PATTERN (-1) when
 * the name ends the text, DHCP_MATCH_E_UNKNOWN_FIELD (-2) for an unknown name
 * (*endp left alone on error). */
NIKERKIOG_API int parse_dhcpheadermatch(char *text, char **endp, dhcp_match *match);

/* Whether the DHCP message at `msg` matches *match: 1 or 0.
 * `store` holds the options parsed from the same message (dhcp_parse_options)
 * and `memops` is used for vendor sub-option lookups; match->pattern must be
 * NUL-terminated.
 * Header match (code 0): the field's text form (see DHCP_HFIELD_*) against
 * the pattern; `msg` must hold the 236-byte fixed header.  An index above 13
 * never matches.
 * Option match: an absent option never matches.  For 124 and 125 the value is
 * the vendor sub-option `sub` of enterprise `enterprise` (missing: no match).
 * Option 61 is written "00:11:22:33:44:55" from value bytes 1..6 and compared
 * ignoring case, only when its first byte (hardware type) is 1 and it has at
 * least 7 bytes; single-address options (1, 16, 28, 32, 50, 54) are written
 * in dotted decimal from their first four bytes (shorter values never match);
 * any other value is compared as text up to its first NUL (at most 1023
 * bytes), case-sensitively.
 * Scratch text comes from cmemstack; when it cannot be had, no match.
 * For 124 and 125 the byte after the option value must be readable, as for
 * dhcp_find_125_option (always so for values filled in by parsing). */
NIKERKIOG_API int dhcp_packet_matches(const dhcp_memops *memops, const unsigned char *msg, const dhcp_option *store,
                                      const dhcp_match *match);

/* The name of header field `index` ("op" ... "file"), "unknown" above 13.
 * Static text, never null. */
NIKERKIOG_API const char *dhcp_hfield2str(uint8_t index);

NIKERKIOG_END_DECLS

#endif
