/* Router platform utility interfaces used by libnikerkiog.
 *
 * This is the project's portable default of the platform library: a real
 * platform build links its own libnuvcsock with the same interfaces instead.
 * Nothing here is reentrant; use it from one thread at a time. */
#ifndef NUVCSOCK_H
#define NUVCSOCK_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define NUVCSOCK_API __attribute__((visibility("default")))
#else
#define NUVCSOCK_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Slab allocator with source tagging ---- */

/* Allocates `size` bytes tagged with the caller's source `file` and `line`
 * (kept for leak reports).  The memory is zero-filled.  Returns the block, or
 * null when memory is exhausted (or a test made this allocation fail).  The
 * caller releases it with slab_cbcontext_free. */
NUVCSOCK_API void *slab_dmalloc(size_t size, const char *file, int line);

/* Returns an allocated copy of the NUL-terminated `string`, tagged like
 * slab_dmalloc, or null when `string` is null or memory is exhausted. */
NUVCSOCK_API char *slab_dstrdup(const char *string, const char *file, int line);

/* Releases a block from slab_dmalloc or slab_dstrdup; null is ignored.
 * `file` and `line` name the releasing call. */
NUVCSOCK_API void slab_cbcontext_free(void *pointer, const char *file, int line);

/* ---- Scratch-buffer stack ---- */

/* Returns a scratch block of `size` bytes for short-lived use, or null.
 * Contents are unspecified.  Release with cmemstack_free. */
NUVCSOCK_API void *cmemstack_alloc(size_t size);

/* Releases a block from cmemstack_alloc; null is ignored. */
NUVCSOCK_API void cmemstack_free(void *block);

/* ---- Growable memory blocks ---- */

/* A growable byte block held inside a record: `data` holds `len` bytes of an
 * allocation of `size` bytes (data may be null when both are 0). */
typedef struct memblock {
  unsigned char *data;
  size_t len;
  size_t size;
} memblock;

/* Appends `len` bytes from `bytes` to the block, growing it as needed.
 * Returns 0, or -1 when memory is exhausted (the block is left as it was). */
NUVCSOCK_API int nuvcsock_memblock_append(memblock *block, const void *bytes, size_t len);

/* Releases the block's data and leaves it empty (data null, len and size 0).
 * A null `block` is ignored. */
NUVCSOCK_API void memblock_free(memblock *block);

/* ---- Shell-style wildcard matching ---- */

/* Case-sensitive shell wildcard match (`*`, `?`, `[...]`, backslash escapes)
 * of the whole NUL-terminated `string` against `pattern`.  Non-zero on match,
 * 0 otherwise or when either argument is null. */
NUVCSOCK_API int shmatch(const char *string, const char *pattern);

/* As shmatch, ignoring case. */
NUVCSOCK_API int shcasematch(const char *string, const char *pattern);

/* As shcasematch, on the first `length` characters of `string` (which need
 * not be NUL-terminated; an embedded NUL ends the text early). */
NUVCSOCK_API int shcasenmatch(const char *string, size_t length, const char *pattern);

/* ---- Configuration-schema descriptors ---- */

/* One member of a configuration record type. */
typedef struct config_member {
  const char *name;      /* member name */
  int type;              /* member type code */
  const char *typename_; /* name of the member's own type (structured members), or null */
  size_t offset;         /* offset of the member in the record */
  size_t size;           /* size of the member in the record */
  unsigned flags;        /* CONFIG_MEMBER_HEADER, CONFIG_MEMBER_LIST */
  int magic;             /* magic value that selects the member */
  const void *defval;    /* default value, or null */
} config_member;

/* Fixed header member of a record (such as `next` and the magic member). */
#define CONFIG_MEMBER_HEADER 2u
/* Structured member that holds a list. */
#define CONFIG_MEMBER_LIST 1u

/* A configuration record type. */
typedef struct config_type {
  const char *name;                   /* type name */
  int kind;                           /* kind of type */
  const config_member *members;       /* member table, ended by a member with a null name */
  const config_member *magic_member;  /* member carrying the magic (signed 32-bit), or null */
  size_t size;                        /* record size in bytes */
  int ten;                            /* trailing constant, always 10 */
} config_type;

/* Reads the signed 32-bit magic member of `record` (laid out as `type`
 * describes) and returns the first non-header member whose magic equals it,
 * or null when none does, the type has no magic member, or an argument is
 * null. */
NUVCSOCK_API const config_member *config_memberbymagic(const config_type *type, const void *record);

/* ---- Traffic-class names ---- */

/* Maps a traffic-class name (case-insensitive) to its value 0..127, or a
 * number written in decimal to itself.  Unknown names give -1.
 * The default names are those of tcclass_names (nuvcsock_tcclass_name). */
NUVCSOCK_API int tcclass_name2value(const char *name);

/* Writes the set of classes whose bytes are non-zero in the 128-byte `map`
 * as comma-separated names (values without a name as decimal numbers) into
 * `buf` of `size` bytes, cut to fit and NUL-terminated.  Returns `buf`
 * (the empty text for an empty set). */
NUVCSOCK_API char *tcclassset_value2str(const unsigned char *map, char *buf, size_t size);

/* Returns the default name of traffic class `value`, or null when it has none. */
NUVCSOCK_API const char *nuvcsock_tcclass_name(int value);

/* ---- DNS message readers ---- */

/* Stores the big-endian 16-bit number at `pos` into `*out` in host order and
 * returns pos + 2; null when `pos` or `out` is null.  Two bytes at `pos` must
 * be readable (caller's precondition). */
NUVCSOCK_API const unsigned char *dnsutil_getuint16(uint16_t *out, const unsigned char *pos);

/* As dnsutil_getuint16 for a 32-bit number; returns pos + 4. */
NUVCSOCK_API const unsigned char *dnsutil_getuint32(uint32_t *out, const unsigned char *pos);

/* Skips the DNS name at `pos` in the message starting at `msg` and ending
 * before `end`.  Compression pointers are followed (they must point inside the
 * message, and a chain of pointers that loops is rejected).  Nothing at or
 * beyond `end` is read.  Returns the position after the name as it stands at
 * `pos` (after the first pointer when the name is compressed), or null when
 * the name is malformed: running past `end`, a reserved label type, a name
 * longer than 255 bytes or a pointer loop. */
NUVCSOCK_API const unsigned char *dnsutil_skipdnsname(const unsigned char *msg, const unsigned char *pos,
                                                     const unsigned char *end);

#ifdef __cplusplus
}
#endif

#endif
