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
 * before the faulty word.  The text is read up to its NUL or its 1024th
 * character, whichever comes first.
 * Returns 0, or:
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



/* ---- IPv6 forward rules, port ranges, PCP handling ---- */


NIKERKIOG_END_DECLS

#endif
