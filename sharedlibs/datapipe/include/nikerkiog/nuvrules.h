/* Firewall rule texts: access rules, masquerade forward rules, IPv6 forward rules, port ranges, PCP handling. */
#ifndef NUVRULES_H
#define NUVRULES_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

/* ---- Access rules: record, parser ---- */

/* Policy of an access rule (ipaccess_rule.policy). */
enum {
  IPACCESS_POLICY_DISABLED = 0,
  IPACCESS_POLICY_PERMIT = 1,
  IPACCESS_POLICY_DENY = 2,
  IPACCESS_POLICY_REJECT = 3
};

/* Port operator of a source or destination port condition
 * (ipaccess_rule.src_op, dst_op). */
enum {
  IPACCESS_OP_NONE = 0,
  IPACCESS_OP_EQ = 1,
  IPACCESS_OP_NE = 2,
  IPACCESS_OP_LT = 3,
  IPACCESS_OP_LE = 4,
  IPACCESS_OP_GT = 5,
  IPACCESS_OP_GE = 6,
  IPACCESS_OP_RANGE = 7
};

/* TCP state condition (ipaccess_rule.tcpflag). */
enum {
  IPACCESS_TCPFLAG_NONE = 0,
  IPACCESS_TCPFLAG_CONNECT = 1,
  IPACCESS_TCPFLAG_ESTABLISHED = 2
};

/* Connection state condition (ipaccess_rule.connflag). */
enum {
  IPACCESS_CONN_NORMAL = 0,
  IPACCESS_CONN_OUTGOING = 1,
  IPACCESS_CONN_OUTGOING_RELATED = 2,
  IPACCESS_CONN_INCOMING = 3,
  IPACCESS_CONN_INCOMING_RELATED = 4,
  IPACCESS_CONN_EXISTS = 5
};

/* Logging level (ipaccess_rule.logging). */
enum {
  IPACCESS_LOG_NONE = 0,
  IPACCESS_LOG_SHORT = 1,
  IPACCESS_LOG_LONG = 2,
  IPACCESS_LOG_ALERT = 3
};

/* Protocol number that stands for any IP protocol. */
#define IPACCESS_PROTO_ANY 255u

/* One line of an IPv4 packet-filter list.  The record is plain and owned by
 * the caller.  Addresses and masks are host-order integers: "10.1.2.3" is
 * 0x0A010203.  The enumerations are 32-bit numbers so that the layout does not
 * depend on the compiler's enum size; out-of-range values print as
 * "illegal-..." texts. */
typedef struct ipaccess_rule {
  uint32_t reserved[4]; /* the caller's; cleared by ipaccess_parse, never read */
  int32_t policy;       /* IPACCESS_POLICY_* */
  uint8_t proto;        /* IP protocol number, 255 for any */
  uint32_t src_addr;    /* source address, host order */
  uint32_t src_mask;    /* source mask: 0 any source, all ones one host */
  int32_t src_op;       /* IPACCESS_OP_* of the source port */
  uint16_t src_port;    /* source port, first bound of a range */
  uint16_t src_port2;   /* upper bound of a source range, else 0 */
  uint32_t dst_addr;    /* destination address, host order */
  uint32_t dst_mask;    /* destination mask */
  int32_t dst_op;       /* IPACCESS_OP_* of the destination port */
  uint16_t dst_port;    /* destination port, first bound of a range */
  uint16_t dst_port2;   /* upper bound of a destination range, else 0 */
  int32_t tcpflag;      /* IPACCESS_TCPFLAG_* */
  int32_t connflag;     /* IPACCESS_CONN_* */
  int32_t logging;      /* IPACCESS_LOG_* */
  uint32_t reserved2;   /* the caller's; cleared by ipaccess_parse */
  uint32_t used;        /* IPACCESS_USED_* bits from ipaccess_optim_rulestruct */
} ipaccess_rule;

/* Result codes of ipaccess_parse. */
enum {
  IPACCESS_E_OK = 0,
  IPACCESS_E_TOO_LONG = -1,                /* text longer than 1023 characters, or no scratch memory */
  IPACCESS_E_MISSING_WORD = -2,            /* a required word is missing */
  IPACCESS_E_UNKNOWN_POLICY = -3,
  IPACCESS_E_UNKNOWN_PROTOCOL = -4,
  IPACCESS_E_BAD_SRC_HOST = -5,            /* bad source address after "host" */
  IPACCESS_E_BAD_SRC_ADDR = -6,
  IPACCESS_E_BAD_SRC_MASK = -7,
  IPACCESS_E_BAD_SRC_PORT = -8,
  IPACCESS_E_BAD_SRC_UPPER_PORT = -9,      /* bad upper bound of a source range */
  IPACCESS_E_BAD_DST_HOST = -10,           /* bad destination address after "host" */
  IPACCESS_E_BAD_DST_ADDR = -11,
  IPACCESS_E_BAD_DST_MASK = -12,
  IPACCESS_E_BAD_DST_PORT = -13,
  IPACCESS_E_BAD_DST_UPPER_PORT = -14,     /* bad upper bound of a destination range */
  IPACCESS_E_CONNECTION_WITHOUT_FLAG = -15, /* "connection" is the last word */
  IPACCESS_E_UNKNOWN_CONNECTION_FLAG = -16, /* unknown word after "connection" */
  IPACCESS_E_UNKNOWN_TRAILING_WORD = -17   /* unknown logging word or other trailing word */
};

/* Short English text of an ipaccess_parse result ("parsed" for 0, "unknown
 * result code" for a code not listed above), for tools and logs.  Static
 * text, never null. */
NIKERKIOG_API const char *ipaccess_strerror(int code);

/* Fills `rule` from the NUL-terminated rule line `text`:
 *   policy protocol source [src-ports] destination [dst-ports]
 *          [tcp-flag] [connection-part] [log-part]
 * Words are separated by runs of blanks and tabs; only the first 16 words are
 * read, anything after them is dropped without notice.  The protocol is "ip"
 * in any case (any protocol) or a name or "P" number of ipproto_parse.  A
 * source or destination is "any", "host" address, or address mask; a port
 * condition is an operator word and a port, or "range" and two ports (ports
 * 1..65535).  "connection" flag or a connection word alone; "log" [level] or
 * a logging word alone ("log" alone means "short").
 * The record is cleared first, so after a failure it holds what was read
 * before the faulty word.  `rule` and `text` must not be null; the text is
 * read up to its NUL or its 1024th character, whichever comes first.  The
 * line is split in a 1024-byte scratch copy from cmemstack_alloc, released
 * before returning.
 * Returns IPACCESS_E_OK (0), or an IPACCESS_E_* code:
 *   -1  text longer than 1023 characters, or no scratch memory for the copy
 *   -2  a required word is missing         -3  unknown policy
 *   -4  unknown protocol                   -5  bad source address after "host"
 *   -6  bad source address                 -7  bad source mask
 *   -8  bad source port                    -9  bad upper source bound
 *   -10 bad destination address after "host"
 *   -11 bad destination address            -12 bad destination mask
 *   -13 bad destination port               -14 bad upper destination bound
 *   -15 "connection" is the last word      -16 unknown word after "connection"
 *   -17 unknown logging word, or any other unrecognised trailing word */
NIKERKIOG_API int ipaccess_parse(ipaccess_rule *rule, const char *text);

/* Why a firewall rule parser refused a line; filled by the _with_diag
 * parsers. */
typedef struct nuvrules_diag {
  uint32_t offset;    /* byte offset of the failing word in the line */
  uint32_t length;    /* bytes of that word (0 at the end of the line) */
  int32_t code;       /* the parser's result code */
  const char *reason; /* the code's text (the family's _strerror) */
} nuvrules_diag;

/* Parses like ipaccess_parse, with the same result and the same record.
 * When `diag` is not null it receives the result code, its text and the
 * word the code is about: the word that was refused (policy, protocol,
 * address, mask, port or trailing word), or the end of the line with length
 * 0 when a word is missing (-2, -15); a text that is too long is reported at
 * offset 1023 with the excess as length; no scratch memory at offset 0.  On
 * success offset and length are 0. */
NIKERKIOG_API int ipaccess_parse_with_diag(ipaccess_rule *rule, const char *text, nuvrules_diag *diag);

/* Word <-> value conversions of the rule's enumerations.  Each _parse
 * compares the whole `word` exactly (case-sensitive), stores the value in
 * `*value` and returns 0; any other word returns -1 and leaves `*value` as it
 * was.  Each _string returns a constant text, or the "illegal-..." text named
 * below for a value outside the table. */

/* "disabled" "permit" "deny" "reject"; otherwise "illegal-policy". */
NIKERKIOG_API int ipaccesspolicy_parse(int32_t *value, const char *word);
NIKERKIOG_API const char *ipaccesspolicy_string(int32_t value);

/* "none" "eq" "ne" "lt" "le" "gt" "ge" "range"; otherwise "illegal-operator". */
NIKERKIOG_API int ipaccessoperator_parse(int32_t *value, const char *word);
NIKERKIOG_API const char *ipaccessoperator_string(int32_t value);

/* "none" "connect" "established"; otherwise "illegal-tcpflag". */
NIKERKIOG_API int ipaccesstcpflag_parse(int32_t *value, const char *word);
NIKERKIOG_API const char *ipaccesstcpflag_string(int32_t value);

/* "normal" "outgoing" "outgoing-related" "incoming" "incoming-related"
 * "exists"; otherwise "illegal-connection-flag".  The parser also takes
 * "related" for outgoing-related (2); the string function never prints it. */
NIKERKIOG_API int ipaccessconnectionflag_parse(int32_t *value, const char *word);
NIKERKIOG_API const char *ipaccessconnectionflag_string(int32_t value);

/* "none" "short" "long" "alert"; otherwise "illegal-logging". */
NIKERKIOG_API int ipaccesslogging_parse(int32_t *value, const char *word);
NIKERKIOG_API const char *ipaccesslogging_string(int32_t value);

/* Name of a filter direction: "INPUT" for 1, "OUTPUT" for 2, "NONE" for
 * anything else.  Rules themselves carry no direction. */
NIKERKIOG_API const char *ipaccessdirection_string(int32_t direction);

/* ---- Access rules: formatter ---- */

/* Prints `rule` as one rule line that ipaccess_parse reads back: every field
 * by its own value (a zero TCP flag, connection flag or logging level prints
 * nothing; a zero mask prints "any").  The protocol is printed in lower case.
 * Returns a library-owned static buffer of 1024 characters, shared with
 * ipaccess_string_use_flags and overwritten by the next call of either; the
 * dotted addresses and port numbers also take up to eight buffers of the
 * shared result ring.  `rule` must not be null.  Not reentrant. */
NIKERKIOG_API const char *ipaccess_string(const ipaccess_rule *rule);

/* As ipaccess_string, but the protocol, the addresses and the port
 * conditions follow the rule's `used` bits (see ipaccess_optim_rulestruct):
 * a protocol or address whose bit is clear prints as "ip" or "any", and a
 * port condition whose bit is set is printed even with operator "none". */
NIKERKIOG_API const char *ipaccess_string_use_flags(const ipaccess_rule *rule);

/* ---- Access rules: optimisation ---- */

/* Bits of ipaccess_rule.used. */
#define IPACCESS_USED_PROTO 0x01u      /* a specific protocol (not 255) */
#define IPACCESS_USED_SRC_ADDR 0x02u   /* a source mask */
#define IPACCESS_USED_DST_ADDR 0x04u   /* a destination mask */
#define IPACCESS_USED_CONNFLAG 0x08u   /* a connection flag */
#define IPACCESS_USED_SRC_PORT 0x10u   /* a source port operator */
#define IPACCESS_USED_DST_PORT 0x20u   /* a destination port operator */
#define IPACCESS_USED_TCPFLAG 0x40u    /* a TCP flag on a TCP rule */

/* Brings `rule` into its canonical form, in place:
 * - port conditions exist only for TCP, UDP and ICMP (whose "ports" are ICMP
 *   types, 0..255); for other protocols both operators become "none" and the
 *   port values are left alone;
 * - ports above the protocol's ceiling are clamped (ICMP: 255);
 * - an upper bound is kept only for "range"; a range is ordered and reduced
 *   to the simplest operator meaning the same ("eq", "le", "ge", or no
 *   condition when it admits every port);
 * - `used` is recomputed from the result (IPACCESS_USED_* bits).
 * `rule` must not be null. */
NIKERKIOG_API void ipaccess_optim_rulestruct(ipaccess_rule *rule);

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

/* Result codes of ipmasqfwrule_parse and ipmasqfwruleex_parse. */
enum {
  IPMASQFWRULE_E_OK = 0,
  IPMASQFWRULE_E_COMMENTED_OUT = 1,     /* plain parser only: the first word is "#" (not an error) */
  IPMASQFWRULE_E_TOO_LONG = -1,         /* text longer than 1023 characters, or no scratch memory */
  IPMASQFWRULE_E_MISSING_WORD = -2,     /* the protocol or an endpoint is missing */
  IPMASQFWRULE_E_UNKNOWN_PROTOCOL = -3,
  IPMASQFWRULE_E_BAD_ENDPOINT = -4,     /* malformed address, port or count */
  IPMASQFWRULE_E_MARK_WITHOUT_VALUE = -5
};

/* Short English text of a masquerade parser result ("parsed" for 0,
 * "unknown result code" for a code not listed above), for tools and logs.
 * Static text, never null. */
NIKERKIOG_API const char *ipmasqfwrule_strerror(int code);

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
 * Returns IPMASQFWRULE_E_OK (0), or an IPMASQFWRULE_E_* code:
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

/* Parse like ipmasqfwrule_parse and ipmasqfwruleex_parse, with the same
 * result and the same record.  When `diag` is not null it receives the
 * result code, its text and the word the code is about: the protocol word
 * (-3), the endpoint (-4), the "#" of a commented-out line (1), or the end
 * of the line with length 0 when a word or the mark value is missing (-2,
 * -5); a text that is too long is reported at offset 1023 with the excess
 * as length; no scratch memory at offset 0.  On success offset and length
 * are 0. */
NIKERKIOG_API int ipmasqfwrule_parse_with_diag(ipmasqfwrule *rule, const char *text, nuvrules_diag *diag);
NIKERKIOG_API int ipmasqfwruleex_parse_with_diag(ipmasqfwruleex *rule, const char *text, nuvrules_diag *diag);

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

/* Result codes of ip6_forwardrule_parse. */
enum {
  IP6_FORWARDRULE_E_OK = 0,
  IP6_FORWARDRULE_E_BAD_PORT = -1,        /* missing or bad port number, or no scratch memory */
  IP6_FORWARDRULE_E_BAD_SEPARATOR = -2,   /* an item not followed by "," or the end */
  IP6_FORWARDRULE_E_FULL = -3,            /* the block is full */
  IP6_FORWARDRULE_E_UNKNOWN_PROTOCOL = -5
};

/* Short English text of an ip6_forwardrule_parse result ("parsed" for 0,
 * "unknown result code" for a code not listed above), for tools and logs.
 * Static text, never null. */
NIKERKIOG_API const char *ip6_forwardrule_strerror(int code);

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
 * Returns IP6_FORWARDRULE_E_OK (0, also for an ignored line), or an
 * IP6_FORWARDRULE_E_* code:
 *   -1  missing or bad port number, or no scratch memory for the copy
 *   -2  an item is followed by something other than "," or the end
 *   -3  the block is full
 *   -5  unknown protocol */
NIKERKIOG_API int ip6_forwardrule_parse(ip6_forwardrule *block, const char *line);

/* Adds `line` to `block` like ip6_forwardrule_parse, with the same result and
 * the same entries.  When `diag` is not null it receives the result code,
 * its text and the word the code is about: the protocol word (-5), the
 * port number that is missing or bad (-1; length 0 where a number is
 * missing), the character after an item that is no "," (-2), the item that
 * did not fit (-3); no scratch memory at offset 0.  On success offset and
 * length are 0. */
NIKERKIOG_API int ip6_forwardrule_parse_with_diag(ip6_forwardrule *block, const char *line, nuvrules_diag *diag);

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

/* Result codes of ip6_portrange_parse. */
enum {
  IP6_PORTRANGE_E_OK = 0,
  IP6_PORTRANGE_E_MALFORMED = -2 /* unknown protocol, over-long word, or "mark" without a value */
};

/* Short English text of an ip6_portrange_parse result ("parsed" for 0,
 * "unknown result code" for a code not listed above), for tools and logs.
 * Static text, never null. */
NIKERKIOG_API const char *ip6_portrange_strerror(int code);

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
 * Returns IP6_PORTRANGE_E_OK (0), or IP6_PORTRANGE_E_MALFORMED (-2) for an
 * unknown protocol, a word of 32 characters or more, or "mark" without a
 * value. */
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
