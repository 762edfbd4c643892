/* Firewall rule texts: access rules, masquerade forward rules, IPv6 forward rules, port ranges, PCP handling. */
#ifndef NUVRULES_H
#define NUVRULES_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* ---- Access rules: record, parser ---- */



/* ---- Access rules: formatter ---- */



/* ---- Access rules: optimisation ---- */



/* ---- Masquerade forward rules ---- */

/* ipmasqfwrule.flags: the word "out" was given. */
#define IPMASQFWRULE_FLAG_OUT 0x1u

/* One IPv4 port forwarding through the masquerading firewall.  A plain
 * record owned by the caller.  What `number`, "out" and the two endpoints
 * mean to the firewall is up to the caller; this library only carries them. */
typedef struct ipmasqfwrule {
  uint8_t proto;   /* IP protocol number, 255 for any protocol */
  uint32_t addr1;  /* first endpoint address, network byte order */
  uint32_t addr2;  /* second endpoint address, network byte order */
  uint16_t port1;  /* first endpoint port, network byte order; 0 for none */
  uint16_t port2;  /* second endpoint port, network byte order; 0 for none */
  int32_t number;  /* the number after the endpoints; 0 when absent */
  uint32_t flags;  /* IPMASQFWRULE_FLAG_* */
  uint16_t count;  /* consecutive ports from port1, host order; 0 or 1: one port */
} ipmasqfwrule;

/* ipmasqfwruleex.scope */
#define IPMASQFWRULE_SCOPE_NONE 0
#define IPMASQFWRULE_SCOPE_LOCAL 1
#define IPMASQFWRULE_SCOPE_INTERNET 2

/* A masquerade forward rule with the fields of the extended text form. */
typedef struct ipmasqfwruleex {
  ipmasqfwrule rule;   /* the plain record */
  int32_t enabled;     /* 1 normally; 0 when the line begins with the word "#" */
  const char *comment; /* text after the "#" of the comment, pointing into the
                          line given to ipmasqfwruleex_parse (not copied); a
                          constant empty text when there is none */
  int32_t scope;       /* IPMASQFWRULE_SCOPE_* */
  unsigned long mark;  /* value after the word "mark"; 0 when absent */
} ipmasqfwruleex;

/* Fills `rule` from the NUL-terminated line `text`:
 *   protocol endpoint1 endpoint2 [number] ["out"] ["local"|"internet"]
 *            ["mark" value] [anything]
 * Words are separated by runs of blanks and tabs; only the first 17 are read.
 * protocol: "ip" in any case (any protocol, 255) or a name or "P" number of
 * ipproto_parse.  endpoint1: address[:port[+count]]; endpoint2:
 * address[:port].  An address has up to four dotted decimal parts 0..255; a
 * trailing "." ends it early with the missing parts 0 ("10." is 10.0.0.0);
 * it may be left out before the colon (":80" is 0.0.0.0 port 80).  Ports and
 * counts are 0..65535; what follows a complete address other than ":" is
 * ignored.  number: decimal, taken only when the word starts with one (values
 * beyond 32 bits are clamped to the 32-bit range).  "local", "internet" and
 * the mark value are read over but not kept in the plain record; any other
 * trailing words are ignored.
 * The record is cleared first; after a failure it holds what was read before
 * the faulty word.  `text` is read up to its NUL or its 1024th character,
 * whichever comes first.  `rule` and `text` must not be null.
 * Returns 0, or:
 *    1  the line is commented out: its first word is "#" (record cleared)
 *   -1  text longer than 1023 characters, or no scratch memory for the copy
 *   -2  a required word is missing (protocol or an endpoint)
 *   -3  unknown protocol
 *   -4  malformed endpoint
 *   -5  "mark" without a value */
NIKERKIOG_API int ipmasqfwrule_parse(ipmasqfwrule *rule, const char *text);

/* As ipmasqfwrule_parse, also filling the extended fields: a leading word "#"
 * clears `enabled` and parsing goes on with the next word (so it never returns
 * 1); "local" and "internet" set `scope`; "mark" value sets `mark` (decimal,
 * strtoul); when a word is left after them, `comment` points just past the
 * first "#" at or after that word in `text`, past any blanks (tabs stay).
 * Before parsing, `enabled` is 1, `comment` the empty text, `scope` and `mark`
 * 0.  The comment stays valid only as long as `text` does. */
NIKERKIOG_API int ipmasqfwruleex_parse(ipmasqfwruleex *rule, const char *text);

/* Prints `rule` as a line ipmasqfwrule_parse reads: the protocol in lower
 * case ("ip" for 255), endpoint 1 with ":port" when its port is non-zero and
 * then "+count" when the count is above 1, endpoint 2 with ":port" when
 * non-zero, the number (always), and " out" when flagged.  Names that hold a
 * blank or numeric names ("p200") do not read back.
 * Returns a library-owned static buffer of 1024 characters, shared with
 * ipmasqfwruleex_string and overwritten by the next call of either; the
 * addresses also use the address text ring.  `rule` must not be null. */
NIKERKIOG_API const char *ipmasqfwrule_string(const ipmasqfwrule *rule);

/* As ipmasqfwrule_string for the extended record: "# " in front when
 * `enabled` is 0, then the plain text, " local" or " internet" for the scope,
 * " mark N" for a non-zero mark and " # comment" for a non-empty comment.
 * `rule` must not be null. */
NIKERKIOG_API const char *ipmasqfwruleex_string(const ipmasqfwruleex *rule);

/* ---- IPv6 forward rules, port ranges, PCP handling ---- */

/* ip6_portrange.scope */
#define IP6_PORTRANGE_SCOPE_NONE 0
#define IP6_PORTRANGE_SCOPE_LOCAL 1
#define IP6_PORTRANGE_SCOPE_INTERNET 2

/* One protocol and port range a host behind the router may receive from
 * outside, with the fields of its one-line text.  Also the entry type of an
 * IPv6 forward rule block (20 bytes on a 32-bit target). */
typedef struct ip6_portrange {
  uint8_t enabled;     /* 1 normally, 0 when the line was commented out with "#" */
  uint8_t proto;       /* IP protocol number */
  uint16_t port_lo;    /* lowest port, host order */
  uint16_t port_hi;    /* highest port, host order */
  const char *comment; /* comment, pointing into the parsed text; null for none */
  int32_t scope;       /* IP6_PORTRANGE_SCOPE_* */
  uint32_t mark;       /* mark value, 0 when absent */
} ip6_portrange;

/* An IPv6 forward rule: a flat block in caller memory that collects lines
 * "protocol [ports]" and prints as one compact line.  The header is 48 bytes;
 * the entries follow it directly, `capacity` of them fitting in the block.
 * Use it in the order init, parse (once per line), finish, then 2str. */
typedef struct ip6_forwardrule {
  uint32_t size;          /* block size in bytes: the buffer size after init,
                             the used size after finish */
  uint32_t all_protocols; /* set by the caller: the rule prints as "ip" */
  uint32_t ping;          /* set by the caller: the text begins with "ping " */
  uint32_t proto_bits[8]; /* protocols without ports: bit n % 32 of word n / 32 */
  uint16_t count;         /* entries in use */
  uint16_t capacity;      /* entries that fit in the block */
  ip6_portrange entries[]; /* only proto, port_lo and port_hi are filled */
} ip6_forwardrule;

/* Size of the block header, before the first entry. */
#define IP6_FORWARDRULE_HEADER_SIZE 48u

/* Prepares the `size` bytes at `block` as an empty forward rule block: clears
 * them all, stores the size and the capacity (size - 48) / entry size (at most
 * 65535).  `block` must be aligned for an ip6_portrange.  Returns the block,
 * or null when `block` is null or `size` is below 48. */
NIKERKIOG_API ip6_forwardrule *ip6_forwardrule_init(void *block, size_t size);

/* Adds one NUL-terminated line "protocol [port list]" to the block.  Leading
 * blanks are skipped and a line starting with "#" is ignored (returns 0).  The
 * protocol is a name or "P" number of ipproto_parse.  A protocol that carries
 * no ports (anything but TCP, UDP, DCCP, SCTP, UDP-Lite) is only marked in
 * `proto_bits` and the rest of the line ignored.  For a port protocol without
 * a list, one entry 0-65535 is added; otherwise the list holds items "p" or
 * "p-q" separated by "," (blanks allowed around "-" and before ","), one entry
 * each; "p-q" with p above q is stored as q-p.  Each number is decimal and cut
 * to its low 16 bits, as a 32-bit unsigned long would hold it, so "70000"
 * is port 4464; a number that is 0 after the cut is refused.  Only the first
 * 1023 characters after the leading blanks are read; the line must not carry
 * a line end.  Entries added before an error stay in the block.
 * `block` must come from ip6_forwardrule_init; `line` must not be null.
 * Returns 0 (also for an ignored line), or:
 *   -1  missing or bad port number, or no scratch memory for the copy
 *   -2  an item is followed by something other than "," or the end
 *   -3  the block is full
 *   -5  unknown protocol */
NIKERKIOG_API int ip6_forwardrule_parse(ip6_forwardrule *block, const char *line);

/* Sorts the entries by protocol, lowest port and highest port (all ascending)
 * and sets `size` to the used size, 48 + count x entry size, which it returns.
 * `block` must not be null. */
NIKERKIOG_API uint32_t ip6_forwardrule_finish(ip6_forwardrule *block);

/* Prints the block as one line: the constant "ip" when `all_protocols` is
 * set; otherwise "ping " when `ping` is set, then the entries in block order,
 * grouped by protocol ("TCP 80,443,1000-2000 UDP 53"), then " NAME" for every
 * marked protocol without ports, 0..254 ("... GRE"; a block with no entries
 * therefore begins with a blank).  Names are those of ipproto2str, in its case.
 * Returns a buffer of the shared result ring (256 characters, cut to fit).
 * `block` must not be null. */
NIKERKIOG_API const char *ip6_forwardrule2str(const ip6_forwardrule *block);

/* Fills `range` from the NUL-terminated line
 *   ["#"] protocol [port ["-" port]] ["local"|"internet"|word] ["mark" value]
 *         ["#" comment]
 * Blanks separate words (tabs are not blanks).  A leading "#" clears
 * `enabled`.  The protocol word (at most 31 characters) goes through
 * ipproto_parse.  Ports are read like parse_ushort reads them; without a port
 * a port protocol gets 0-65535; the bounds are kept in the given order, and a
 * protocol without ports gets 0-0.  Up to two further words are read before a
 * "#": "local" or "internet" (first word only) sets the scope, "mark" takes
 * the next value (parse_ulong); other words are skipped.  `comment` points
 * past the first "#" after that (and past blanks) into `text`, or is null.
 * `scope` and `mark` are cleared first; after a failure the other fields hold
 * what was read before it.  Both arguments must not be null.
 * Returns 0, or -2 for an unknown protocol, a word of 32 characters or more,
 * or "mark" without a value. */
NIKERKIOG_API int ip6_portrange_parse(const char *text, ip6_portrange *range);

/* Prints `range` as ip6_portrange_parse reads it: "# " when `enabled` is 0,
 * the protocol name of ipproto2str, the ports for a port protocol ("80" or
 * "80-90"), " local" or " internet", " mark N" for a non-zero mark and
 * " # comment" whenever `comment` is non-null (also when it is empty).
 * Returns a buffer of the shared result ring.  `range` must not be null. */
NIKERKIOG_API const char *ip6_portrange2str(const ip6_portrange *range);

/* The protocol name and, for a port protocol, the ports of `range`; nothing
 * else.  Returns a buffer of the shared result ring.  `range` must not be null. */
NIKERKIOG_API const char *ip6_portrange2simplestr(const ip6_portrange *range);

/* PCP handling values. */
#define PCPHANDLING_IGNORE 0
#define PCPHANDLING_LOCAL 1
#define PCPHANDLING_INTERNET 2

/* Reads the word "ignore", "local" or "internet" (exact, lower case) into
 * `*value` and returns 0; any other word (or null) returns -1 and leaves
 * `*value` as it was. */
NIKERKIOG_API int pcphandling_parse(const char *word, int32_t *value);

/* The word of a PCP handling value, or "<ill. pcphandling>" for any other
 * value.  A constant text. */
NIKERKIOG_API const char *pcphandling2str(int32_t value);

NIKERKIOG_END_DECLS

#endif
