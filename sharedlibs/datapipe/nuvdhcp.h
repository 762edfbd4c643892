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
 * (`data` null); its previous block is not released and its `len` is left
 * as it was, so do not rely on the old value surviving a failed set.
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

/* ---- Option construction ---- */



/* ---- Vendor options 43, 124 and 125 ---- */



/* ---- Match expressions ---- */


NIKERKIOG_END_DECLS

#endif
