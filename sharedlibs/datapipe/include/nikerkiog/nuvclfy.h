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

/* Result codes of the value parsers. */
enum nuv_value_result {
  NUV_VALUE_OK = 0,
  NUV_VALUE_E_REFUSED = -1,      /* not the expected form; parse_ipaddr: a part does not start with a digit */
  NUV_VALUE_E_PART_TOO_BIG = -2, /* parse_ipaddr: a part exceeds 255 */
  NUV_VALUE_E_NO_DOT = -3        /* parse_ipaddr: one of the first three parts is not followed by "." */
};

/* Short English text of a value parser's result code ("parsed" for 0 and
 * above, "unknown result code" for a code not listed above), for tools and
 * logs.  Static text, never null. */
NIKERKIOG_API const char *parse_value_strerror(int code);

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
 * out: HOST byte order.  Result: NUV_VALUE_OK; NUV_VALUE_E_REFUSED (-1) when a
 * part does not start with a digit, NUV_VALUE_E_PART_TOO_BIG (-2) when a part
 * exceeds 255, NUV_VALUE_E_NO_DOT (-3) when one of the first three parts is
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

struct ethersrctab;
struct ipdsttab;
struct nuv_clfy_set;

/* Presence bits of nuv_clfy.flags: one bit per condition, named after the
 * rule-text keyword that sets it.  Bits not listed are never set. */
#define NUV_CLFY_F_DEV 0x00000001u
#define NUV_CLFY_F_BRDEV 0x00000004u
#define NUV_CLFY_F_LOCALMARK 0x00000010u
#define NUV_CLFY_F_ETH_PROTO 0x00000020u
#define NUV_CLFY_F_ETH_SOURCE 0x00000100u
#define NUV_CLFY_F_ETH_DEST 0x00000200u
#define NUV_CLFY_F_ETH_SOURCEOUI 0x00000400u
#define NUV_CLFY_F_ETH_DESTOUI 0x00000800u
#define NUV_CLFY_F_VLAN_ID 0x00001000u
#define NUV_CLFY_F_VLAN_PRIO 0x00002000u
#define NUV_CLFY_F_ETHSRCTAB 0x00004000u
#define NUV_CLFY_F_IP_VERSION 0x00010000u
#define NUV_CLFY_F_IP_PROTO 0x00020000u
#define NUV_CLFY_F_IP_TOS 0x00040000u
#define NUV_CLFY_F_IP_SADDR 0x00080000u
#define NUV_CLFY_F_IP_DADDR 0x00100000u
#define NUV_CLFY_F_SPORTS 0x00200000u
#define NUV_CLFY_F_DPORTS 0x00400000u
#define NUV_CLFY_F_DHCP 0x00800000u
#define NUV_CLFY_F_IP_LEN 0x01000000u
#define NUV_CLFY_F_PACKETMATCH 0x02000000u
#define NUV_CLFY_F_ICMP_TYPE 0x04000000u
#define NUV_CLFY_F_TCP_FLAGS 0x08000000u
#define NUV_CLFY_F_IPDSTTAB 0x10000000u

/* Condition groups: the link layer; the IP layer; the IP layer without
 * icmp.type; the transport conditions (ports, DHCP, packetmatch, tcp.flags). */
#define NUV_CLFY_GROUP_LINK 0x0000ff00u
#define NUV_CLFY_GROUP_IP 0x1fff0000u
#define NUV_CLFY_GROUP_IP_NO_ICMP 0x1bff0000u
#define NUV_CLFY_GROUP_TRANSPORT 0x0ae00000u

/* Comparison operators of value-list entries and of ip_len.  Any code above
 * NUV_CLFY_OP_RANGE holds always, like NUV_CLFY_OP_ANY. */
#define NUV_CLFY_OP_ANY 0u   /* always true */
#define NUV_CLFY_OP_EQ 1u    /* x == value1 */
#define NUV_CLFY_OP_NE 2u    /* x != value1 */
#define NUV_CLFY_OP_LT 3u    /* x < value1 */
#define NUV_CLFY_OP_LE 4u    /* x <= value1 */
#define NUV_CLFY_OP_GT 5u    /* x > value1 */
#define NUV_CLFY_OP_GE 6u    /* x >= value1 */
#define NUV_CLFY_OP_RANGE 7u /* value1 <= x <= value2 */

/* One comparison: operator and two values in host byte order (value2 is used
 * by NUV_CLFY_OP_RANGE only). */
typedef struct nuv_clfy_value {
  uint32_t op;
  uint16_t value1;
  uint16_t value2;
} nuv_clfy_value;

/* A list of comparisons that holds when any entry holds.  `entries` is an
 * array of `count` entries owned by the rule, in order of addition. */
typedef struct nuv_clfy_valuelist {
  uint32_t count;
  nuv_clfy_value *entries;
} nuv_clfy_valuelist;

/* An address condition or table entry: 16 bytes holding either an IPv6
 * address, or an IPv4 address and mask (each 32-bit, network-order bytes). */
typedef struct nuv_clfy_ip4prefix {
  uint32_t addr;
  uint32_t mask;
} nuv_clfy_ip4prefix;

typedef union nuv_clfy_ipaddr {
  uint8_t v6[16];
  nuv_clfy_ip4prefix v4;
} nuv_clfy_ipaddr;

/* The DHCP condition of a rule, owned by the rule.  Its first four fields
 * have the layout of the DHCP match record, so the condition can be handed to
 * the DHCP matcher as it is.  `pattern` is an owned NUL-terminated copy;
 * matching DHCP clients are learned into the shared table `ethsrctab`. */
typedef struct nuv_clfy_dhcp {
  uint8_t code;        /* DHCP option code, 0 = header field match */
  uint8_t sub;         /* header field index, or vendor sub-option (124/125) */
  uint32_t enterprise; /* vendor enterprise number (124/125) */
  char *pattern;
  struct ethersrctab *ethsrctab;
} nuv_clfy_dhcp;

/* A classifier rule: every condition a rule may test, a presence bit for each
 * in `flags`, its links into a rule set, its action and a hit counter.
 * Multi-byte values are in host byte order unless noted "network order". */
typedef struct nuv_clfy {
  struct nuv_clfy *next;      /* next rule at the same level */
  struct nuv_clfy *children;  /* first sub-rule, tried only after this rule matched */
  struct nuv_clfy_set *owner; /* set the rule was linked into; null when free-standing */
  uint32_t id;                /* serial number, unique per created rule */
  uint32_t flags;             /* NUV_CLFY_F_* presence bits */
  int32_t dev_ifindex;        /* receiving device index, -1 until the caller resolves `dev` */
  char dev[20];               /* receiving device name, at most 16 characters */
  int32_t brdev_ifindex;      /* bridge device index, -1 until resolved */
  char brdev[20];             /* bridge device name, at most 16 characters */
  uint8_t *localmark;         /* owned 128-byte map: non-zero byte = traffic class accepted */
  uint8_t eth_source[6];      /* source MAC (first 3 bytes for an OUI condition) */
  uint8_t eth_dest[6];        /* destination MAC (first 3 bytes for an OUI condition) */
  uint16_t eth_proto;         /* Ethernet type, network order */
  struct ethersrctab *ethsrctab; /* shared table of source MACs, not owned */
  nuv_clfy_valuelist vlan_ids;
  uint8_t vlan_prio;
  uint8_t ip_version;
  uint8_t ip_proto; /* 255 = any protocol */
  uint8_t ip_tos;
  uint8_t ip_tos_mask;
  nuv_clfy_ipaddr ip_saddr;
  uint8_t ip_saddr_prefixlen; /* IPv6 prefix length */
  uint8_t ip_saddr_family;    /* 4 or 6 */
  nuv_clfy_ipaddr ip_daddr;
  uint8_t ip_daddr_prefixlen;
  uint8_t ip_daddr_family;
  nuv_clfy_value ip_len;       /* condition on the IP packet length */
  struct ipdsttab *ipdsttab;   /* shared table of destinations, not owned */
  nuv_clfy_valuelist sports;   /* TCP/UDP source ports */
  nuv_clfy_valuelist dports;   /* TCP/UDP destination ports */
  uint16_t tcp_flags;          /* network order, data-offset nibble clear */
  uint16_t tcp_flags_mask;     /* network order */
  nuv_clfy_dhcp *dhcp;         /* owned DHCP condition */
  char *packetmatch;           /* owned wildcard pattern on the transport payload */
  uint8_t icmp_type;           /* ICMPv6 type */
  uint32_t hits;               /* matches reported so far */
  int32_t action;              /* 1-based action registry index, 0 = none */
  uint8_t action_data[16];     /* for the action's own use */
  uint16_t result;             /* the caller's class or queue number */
} nuv_clfy;

/* A rule set: the caller owns the record and its first four words; the
 * classifier keeps the top-level rule list in `head`.  The set functions
 * keep nothing about a set anywhere else: whatever a caller does with the
 * record or the rules' links, a search follows the links as they are.  For
 * a search structure built once and used for many packets, compile the set
 * (nuv_clfy_set_compile below). */
typedef struct nuv_clfy_set {
  uint32_t caller_words[4];
  nuv_clfy *head;
} nuv_clfy_set;

/* Action callbacks.  `execute` gets the matched rule, the caller's argument,
 * the packet's Ethernet header, its Ethernet type (network order) and its IP
 * header; its result is handed back by the set executor.  `release` gets a
 * rule of a set that is being freed, so the action can drop what it keeps in
 * `action_data`.  Either may be null. */
typedef int (*nuv_clfy_execute_fn)(nuv_clfy *rule, void *arg, const uint8_t *ethhdr, uint16_t eth_proto,
                                   const uint8_t *iphdr);
typedef void (*nuv_clfy_release_fn)(nuv_clfy *rule);

/* One action registry entry: name (at most 11 characters and NUL) and callbacks. */
typedef struct nuv_clfy_action {
  char name[12];
  nuv_clfy_execute_fn execute;
  nuv_clfy_release_fn release;
} nuv_clfy_action;

/* Most actions the registry holds. */
#define NUV_CLFY_MAX_ACTIONS 23

/* Creates an empty rule: all zero, except ip_proto 255 (any protocol) and a
 * fresh id (the previous rule's id plus one; the first rule gets 1).
 * Returns the rule, owned by the caller (free with nuv_clfy_free), or null
 * when memory is exhausted (no id is used up then). */
NIKERKIOG_API nuv_clfy *nuv_clfy_alloc(void);

/* Destroys a rule.  For a rule linked into a set (`owner` set) whose `action`
 * names a registered action, that action's release callback is called first.
 * Then the class map, VLAN list, DHCP condition, port lists and packetmatch
 * pattern are freed, and the record itself.  `next` and `children` are not
 * followed.  Null is ignored. */
NIKERKIOG_API void nuv_clfy_free(nuv_clfy *rule);

/* Append one comparison to the rule's VLAN id, source port or destination
 * port list and set the list's presence bit.  `op` is a NUV_CLFY_OP_* code;
 * `value1` and `value2` are in network byte order (as parse_u16 delivers
 * them) and are stored in host order.  When memory is exhausted the rule is
 * left unchanged; there is no result. */
NIKERKIOG_API void nuv_clfy_add_vlanid(nuv_clfy *rule, uint32_t op, uint16_t value1, uint16_t value2);
NIKERKIOG_API void nuv_clfy_add_ip_sport(nuv_clfy *rule, uint32_t op, uint16_t value1, uint16_t value2);
NIKERKIOG_API void nuv_clfy_add_ip_dport(nuv_clfy *rule, uint32_t op, uint16_t value1, uint16_t value2);

/* Copies the caller's 128-byte class map `map` into the rule (allocating the
 * rule's own map the first time) and sets the localmark bit.
 * Returns 0, or -1 when memory is exhausted (rule unchanged). */
NIKERKIOG_API int nuv_clfy_add_localmark(nuv_clfy *rule, const uint8_t *map);

/* Gives the rule a DHCP condition: option `code` (0 = header field `sub`),
 * vendor `enterprise` and sub-option `sub` for codes 124/125, a copy of the
 * wildcard `pattern`, and the Ethernet source table named `tablename` (found
 * or created) into which matching clients are learned.  Also makes the rule
 * UDP (ip_proto 17 and its bit) and appends "destination port equal 67".
 * A DHCP condition the rule already had is not freed.  Returns 0, or -1 when
 * memory is exhausted or the table cannot be had; the rule is then unchanged. */
NIKERKIOG_API int nuv_clfy_add_dhcppacketmatch(nuv_clfy *rule, uint8_t code, uint32_t enterprise, uint8_t sub,
                                               const char *pattern, const char *tablename);

/* Replaces the rule's packetmatch pattern by a copy of `pattern` and sets
 * the bit.  Returns 0.  A copy that cannot be allocated leaves the rule with
 * the bit and no pattern. */
NIKERKIOG_API int nuv_clfy_add_packetmatch(nuv_clfy *rule, const char *pattern);

/* Links `rule` (not in any list) in front of the set's rules and makes the
 * set its owner.  Returns `set`. */
NIKERKIOG_API nuv_clfy_set *nuv_clfy_add_head(nuv_clfy_set *set, nuv_clfy *rule);

/* Links `rule` behind the set's last rule (or as the only one) and makes the
 * set its owner.  The rule's own `next` is kept: pass an unlinked rule. */
NIKERKIOG_API void nuv_clfy_add_tail(nuv_clfy_set *set, nuv_clfy *rule);

/* As nuv_clfy_add_tail, for building long lists: `last` is the rule the
 * caller linked last (null for an empty set), so nothing is walked and a
 * list of n rules is built in n steps.  When `last` is null the list is
 * walked from its head; when `last` is no longer the end of the list, the
 * list is walked from `last` on, so a stale `last` costs time, never a rule.
 * Returns `rule`, the new last rule to pass next time (null when `set` or
 * `rule` is null). */
NIKERKIOG_API nuv_clfy *nuv_clfy_add_tail_after(nuv_clfy_set *set, nuv_clfy *last, nuv_clfy *rule);

/* Removes from the set's top-level list the rule whose id equals rule->id
 * (`rule` itself only supplies the id) and frees it with all its sub-rules.
 * Returns 0, or -1 when the list is empty or holds no rule with that id. */
NIKERKIOG_API int nuv_clfy_del_and_free(nuv_clfy_set *set, nuv_clfy *rule);

/* Frees every rule of the set with its sub-rules; the set is empty afterwards. */
NIKERKIOG_API void nuv_clfy_del_and_free_all(nuv_clfy_set *set);

/* Registers an action under `name` (only its first 11 characters are kept;
 * duplicates are accepted).  Returns the action's 1-based index, which is
 * also the number of registered actions, or -1 when NUV_CLFY_MAX_ACTIONS are
 * registered already or `name` is null.  Actions are never removed. */
NIKERKIOG_API int nuv_clfy_register_action(const char *name, nuv_clfy_execute_fn execute,
                                           nuv_clfy_release_fn release);

/* Returns the 1-based index of the first registered action whose name equals
 * `name` in its first 12 characters, or 0 when there is none. */
NIKERKIOG_API int nuv_clfy_find_action(const char *name);


/* ---- Ethernet source tables ---- */

/* A named, shared set of Ethernet source addresses.  All tables are kept in
 * one process-wide list, in order of creation.  36 bytes on a 32-bit target. */
typedef struct ethersrctab {
  struct ethersrctab *next; /* next table of the list */
  uint32_t reserved;        /* zero; not used by the library */
  char name[16];            /* at most 15 characters and NUL */
  uint32_t count;           /* addresses in use */
  uint32_t capacity;        /* 6-byte slots allocated */
  uint8_t *entries;         /* `capacity` addresses back to back; unused slots zero */
} ethersrctab;

/* Returns the table named exactly `name` (case-sensitive), or null. */
NIKERKIOG_API ethersrctab *nuv_clfy_ethersrctab_find(const char *name);

/* Returns the table named `name`, creating it at the end of the list when it
 * does not exist.  Null when a new table cannot be allocated.  Names are
 * stored with at most 15 characters, so a longer name is never found again
 * and creates a further table on each call. */
NIKERKIOG_API ethersrctab *nuv_clfy_ethersrctab_find_or_create(const char *name);

/* Creates a table (4 empty slots, or none when that array cannot be had)
 * without linking it into the list.  Returns it, or null. */
NIKERKIOG_API ethersrctab *_nuv_clfy_ethersrctab_create(const char *name);

/* Adds the 6-byte address `mac` to the table `name` (created if needed).
 * Returns 0, also when the address was there already; -1 when the table
 * cannot be created or grown (table unchanged). */
NIKERKIOG_API int nuv_clfy_ethersrctab_add(const char *name, const uint8_t *mac);

/* As nuv_clfy_ethersrctab_add, on a table in hand. */
NIKERKIOG_API int _nuv_clfy_ethersrctab_add(ethersrctab *table, const uint8_t *mac);

/* Removes the 6-byte address `mac` from the table `name`; later addresses
 * move down by one slot.  Returns 0, or -1 when the table is unknown or empty
 * or does not hold the address. */
NIKERKIOG_API int nuv_clfy_ethersrctab_del(const char *name, const uint8_t *mac);

/* Empties the table `name`, keeping its storage.  Returns 0, or -1 when the
 * table is unknown. */
NIKERKIOG_API int nuv_clfy_ethersrctab_reset(const char *name);

/* Returns 1 when the 6-byte address `mac` is in `table`, else 0 (also for a
 * null table). */
NIKERKIOG_API int nuv_clfy_ethersrctab_is_in(const ethersrctab *table, const uint8_t *mac);

/* Frees a table's address array and record without unlinking it. */
NIKERKIOG_API void _nuv_clfy_ethersrctab_free(ethersrctab *table);

/* Unlinks and frees every Ethernet source table.  Rules still referring to
 * one must not be used for matching afterwards. */
NIKERKIOG_API void nuv_clfy_ethersrctab_freeall(void);


/* ---- IP destination tables ---- */

/* One destination of an IP destination table; all zero when unused.
 * 24 bytes. */
typedef struct ipdsttab_entry {
  nuv_clfy_ipaddr addr; /* IPv6 address, or IPv4 address and mask */
  uint8_t prefixlen;    /* IPv6 prefix length; 0 for IPv4 */
  uint8_t family;       /* 4 or 6; 0 in an unused slot */
  uint8_t reserved[6];
} ipdsttab_entry;

/* A named, shared set of IPv4 and IPv6 destinations, in one process-wide list
 * (separate from the Ethernet source tables).  36 bytes on a 32-bit target. */
typedef struct ipdsttab {
  struct ipdsttab *next;   /* next table of the list */
  uint32_t reserved;       /* zero; not used by the library */
  char name[16];           /* at most 15 characters and NUL */
  uint32_t count;          /* entries in use */
  uint32_t capacity;       /* entry slots allocated */
  ipdsttab_entry *entries; /* `capacity` slots; unused slots zero */
} ipdsttab;

/* Returns the table named exactly `name` (case-sensitive), or null. */
NIKERKIOG_API ipdsttab *nuv_clfy_ipdsttab_find(const char *name);

/* Returns the table named `name`, creating it (4 empty slots) at the end of
 * the list when it does not exist.  Null when the record cannot be allocated.
 * Names are stored with at most 15 characters, so a longer name is never
 * found again and creates a further table on each call. */
NIKERKIOG_API ipdsttab *nuv_clfy_ipdsttab_find_or_create(const char *name);

/* Adds the host `addr` (IPv4, network-order bytes) or the 16-byte `addr6` to
 * the table `name` (created if needed).  Returns 0, also when an entry
 * already covers the address; -1 when the table cannot be created or grown. */
NIKERKIOG_API int nuv_clfy_ipdsttab_add4(const char *name, uint32_t addr);
NIKERKIOG_API int nuv_clfy_ipdsttab_add6(const char *name, const uint8_t *addr6);

/* Removes the first entry of the family that covers `addr` / the 16-byte
 * `addr6`; later entries move down.  Returns 0, or -1 when the table is
 * unknown or empty or no entry covers the address. */
NIKERKIOG_API int nuv_clfy_ipdsttab_del4(const char *name, uint32_t addr);
NIKERKIOG_API int nuv_clfy_ipdsttab_del6(const char *name, const uint8_t *addr6);

/* Empties the table `name`, keeping its storage.  Returns 0, or -1 when the
 * table is unknown. */
NIKERKIOG_API int nuv_clfy_ipdsttab_reset(const char *name);

/* Return 1 when an entry of `table` covers the IPv4 address `addr`
 * (network-order bytes) / the 16-byte IPv6 address `addr6`, else 0 (also
 * for a null table). */
NIKERKIOG_API int nuv_clfy_ipdsttab_is_in(const ipdsttab *table, uint32_t addr);
NIKERKIOG_API int nuv_clfy_ip6dsttab_is_in(const ipdsttab *table, const uint8_t *addr6);

/* Unlinks and frees every IP destination table.  Rules still referring to
 * one must not be used for matching afterwards. */
NIKERKIOG_API void nuv_clfy_ipdsttab_freeall(void);


/* ---- Rule text parser ---- */

/* Result codes of the keyword handlers (parsetab) and of the rule parsers.
 * nuv_clfy_parse collapses every failure to NUV_CLFY_E_REFUSED; the
 * diagnostic parser reports the precise code in its nuv_clfy_diag. */
enum {
  NUV_CLFY_E_OK = 0,
  /* The handler does not accept its value (or the value is missing).  Also
   * the result of nuv_clfy_parse for every refused line. */
  NUV_CLFY_E_REFUSED = -1,
  /* dhcpoption and dhcpheader pass their match parser's code on. */
  NUV_CLFY_E_DHCP_NO_PATTERN = DHCP_MATCH_E_NO_PATTERN, /* -1: dhcpheader field without a pattern */
  NUV_CLFY_E_DHCP_BAD_CODE = DHCP_MATCH_E_BAD_CODE,     /* -2: bad option code or unknown header field */
  NUV_CLFY_E_DHCP_NOT_VENDOR = DHCP_MATCH_E_NOT_VENDOR, /* -3: "/" after a code other than 124 or 125 */
  NUV_CLFY_E_DHCP_ENTERPRISE = DHCP_MATCH_E_ENTERPRISE, /* -4: bad enterprise number */
  NUV_CLFY_E_DHCP_SECOND_SLASH = DHCP_MATCH_E_SECOND_SLASH, /* -5: no "/" before the sub-option code */
  NUV_CLFY_E_DHCP_SUB_CODE = DHCP_MATCH_E_SUB_CODE,     /* -6: bad sub-option code */
  NUV_CLFY_E_MISSING_TABLE = -9,    /* no table name after a DHCP condition's pattern */
  NUV_CLFY_E_DHCP_NOT_STORED = -10, /* the DHCP condition could not be stored (memory) */
  /* Failures of the line itself, not of a handler; reported only in the
   * nuv_clfy_diag of the diagnostic parser. */
  NUV_CLFY_E_UNKNOWN_KEYWORD = -11, /* the word is no keyword of parsetab */
  NUV_CLFY_E_LINE_TOO_LONG = -12,   /* the line has more than 255 characters */
  NUV_CLFY_E_NO_MEMORY = -13        /* the rule itself could not be allocated */
};

/* Short English text of a code above, for tools and logs ("parsed" for
 * NUV_CLFY_E_OK, "unknown result code" for a code not listed).  -1 reads as
 * the handlers' refusal.  Static text, never null. */
NIKERKIOG_API const char *nuv_clfy_strerror(int code);

/* A keyword handler of the rule text parser.  `text` points just behind the
 * keyword inside the parser's private, writable copy of the line; `end` is
 * preset to `text` and a handler that consumed a value moves it to where
 * parsing continues.  Fills the condition into `rule` and sets its presence
 * bit.  Returns NUV_CLFY_E_OK, or a negative NUV_CLFY_E_* code when the
 * value is not acceptable (NUV_CLFY_E_REFUSED unless the DHCP codes apply). */
typedef int (*nuv_clfy_keyword_handler)(char *text, char **end, struct nuv_clfy *rule);

/* One row of the keyword table: the keyword as written in rule text
 * (compared exactly, case-sensitively) and its handler. */
typedef struct nuv_clfy_keyword {
  const char *keyword;
  nuv_clfy_keyword_handler handler;
} nuv_clfy_keyword;

/* The rule keyword table, ended by a row whose keyword is null.  The parser
 * looks every keyword up here; nothing else decides which words are known. */
NIKERKIOG_API extern const nuv_clfy_keyword parsetab[];

/* Parses one rule line, such as "dev eth0 ip.proto tcp tcp.dport 80,443".
 * `text`: NUL-terminated, at most 255 characters (longer lines are refused).
 * Words are separated by spaces only.  A comma list (VLAN ids, ports) is
 * split at every comma of the rest of the line, so a line holds at most one
 * list with commas and it comes after the other lists; a packetmatch
 * pattern is stored up to the end of the line, so it is written last; an
 * IPv6 address without "/length" is read to the end of the line.
 * On success stores a new rule,
 * normalised by nuv_clfy_optim, in *result and returns 0; the caller owns it
 * (until it is linked into a set).  Returns -1 for an over-long line, an
 * unknown keyword, a value a keyword does not accept, or exhausted memory;
 * *result is then untouched and nothing stays allocated (named tables a
 * keyword created stay, as tables always do). */
NIKERKIOG_API int nuv_clfy_parse(const char *text, struct nuv_clfy **result);

/* Why the diagnostic parser refused a rule line. */
typedef struct nuv_clfy_diag {
  uint32_t offset;    /* byte offset in the line of the failing keyword or value */
  uint32_t length;    /* bytes of that word (0 at the end of the line) */
  int32_t code;       /* the handler's code, NUV_CLFY_E_* (0 on success) */
  char keyword[32];   /* the keyword involved as written, "" when none */
  const char *reason; /* short English reason, static text; "" on success */
} nuv_clfy_diag;

/* Parses `text` exactly like nuv_clfy_parse (same result, same rule, same
 * ownership) and, when `diag` is not null, says why a line was refused:
 * the byte offset and length of the failing word (the unknown keyword, or
 * the value or list element a handler refused; the end of the line with
 * length 0 when a value is missing), the keyword as written (truncated to 31
 * characters), the code and a reason.  The code is the handler's code, or
 * for failures of the line itself NUV_CLFY_E_UNKNOWN_KEYWORD,
 * NUV_CLFY_E_LINE_TOO_LONG (offset 255, length the excess) or
 * NUV_CLFY_E_NO_MEMORY.  The reason is finer than the code where a handler
 * knows more: "value missing", "protocol number without the P prefix (write
 * P58)", "out of memory", ...  On success `diag` holds offset, length and
 * code 0, keyword "" and reason "". */
NIKERKIOG_API int nuv_clfy_parse_with_diag(const char *text, struct nuv_clfy **result, nuv_clfy_diag *diag);

/* ---- Rule text formatter ---- */

/* Prints `rule` as one line of rule text into `buf` of `size` bytes and
 * returns `buf`.  With `depth` 0 or more it is a listing line: "%3d:" with the
 * depth, three spaces per nesting level, the conditions, the action name in
 * parentheses (for a rule in a set with a registered action) and " => " with
 * the rule's result.  With a negative `depth` only the conditions and action
 * are printed.  Addresses print with their masks, the protocol as a number
 * and tables with their current contents, so the text is not always rule
 * text the parser accepts.  A line longer than the buffer is cut; the text
 * is always NUL-terminated (when `size` is at least 1). */
NIKERKIOG_API char *nuv_clfy_as_string(int depth, const struct nuv_clfy *rule, char *buf, size_t size);

/* Per-rule display hook of nuv_clfy_set_show; this library displays nothing. */
NIKERKIOG_API void nuv_clfy_show(int depth, struct nuv_clfy *rule);

/* ---- Packet descriptor, matching and rule sets ---- */

/* Presence bit of the VLAN tag in nuv_clfy_packet.vlan_tci. */
#define NUV_CLFY_VLAN_TAG_PRESENT 0x1000u

/* What the matcher knows about a packet; filled by the caller. */
typedef struct nuv_clfy_packet {
  uint32_t brdev_ifindex;   /* index of the bridge device the packet came through */
  uint32_t dev_ifindex;     /* index of the receiving device */
  const uint8_t *eth_header; /* 12 readable bytes: destination MAC, source MAC; may be null */
  uint16_t eth_proto;       /* Ethernet type, network byte order (0x0800, 0x86dd) */
  uint16_t vlan_tci;        /* host order: NUV_CLFY_VLAN_TAG_PRESENT, id in the low 12 bits, priority in the top 3 */
  const uint8_t *ip_header; /* IPv4 or IPv6 header; may be null */
  uint32_t ip_len;          /* bytes readable from ip_header on */
} nuv_clfy_packet;

/* Whether `packet` satisfies every condition of `rule`: 1 or 0.  `mark` is
 * the packet's traffic class (only the localmark condition reads it);
 * `reserved` is ignored.  Every match except that of a rule without
 * conditions counts in the rule's `hits`.  A DHCP condition learns matching
 * clients into its table and forgets releasing ones.  `ip_len` must be the
 * number of bytes readable at `ip_header`: IP conditions do not hold for a
 * packet shorter than its fixed header (20 bytes IPv4, 40 IPv6), nor do
 * conditions that need bytes beyond `ip_len`, whatever the packet's own
 * length fields claim.
 * Allocates nothing except while evaluating a DHCP condition. */
NIKERKIOG_API int nuv_clfy_matches(struct nuv_clfy *rule, const nuv_clfy_packet *packet, uint8_t reserved,
                                   uint32_t mark);

/* Result of nuv_clfy_explain. */
typedef struct nuv_clfy_explanation {
  int32_t matched;   /* 1 when the rule matched, else 0 */
  char keyword[32];  /* the first failed condition's keyword as written in rule text ("tcp.dport"); "" when matched */
  char text[192];    /* e.g. "tcp.dport: packet has 443, rule wants 80"; "" when matched */
} nuv_clfy_explanation;

/* Whether `packet` satisfies `rule`, as nuv_clfy_matches decides it, and if
 * not which condition failed first: the same tests run in the same order,
 * and the first that fails is named in out->keyword and described in
 * out->text (the packet's value and the rule's, cut to fit).  A miss with
 * no condition to blame (a rule whose presence bits name no condition) has
 * an empty keyword.  Counts no hits and learns or forgets no DHCP clients.
 * `mark` as for nuv_clfy_matches.  out: written completely.  Returns
 * out->matched. */
NIKERKIOG_API int nuv_clfy_explain(const struct nuv_clfy *rule, const nuv_clfy_packet *packet, uint32_t mark,
                                   nuv_clfy_explanation *out);

/* The rule of `set` that applies to `packet`, or null.  Top-level rules are
 * tried in order, first match wins; a matching rule with sub-rules is never
 * the result itself: its sub-rules are searched the same way, and when none
 * applies the search goes on with its next sibling.  `reserved` is ignored. */
NIKERKIOG_API struct nuv_clfy *nuv_clfy_get_clfy_from_set(struct nuv_clfy_set *set, uint8_t reserved,
                                                          const nuv_clfy_packet *packet);

/* Finds the applying rule like nuv_clfy_get_clfy_from_set and, when it has
 * an owner and a registered action with an execute callback, returns that
 * callback's result for (rule, arg, Ethernet header, Ethernet type, IP
 * header); otherwise returns 0. */
NIKERKIOG_API int nuv_clfy_set_execute(struct nuv_clfy_set *set, void *arg, const nuv_clfy_packet *packet);

/* Callback of nuv_clfy_set_walk: `depth` 0 for top-level rules, one more per
 * nesting level.  A non-zero result stops the walk. */
typedef int (*nuv_clfy_walk_callback)(struct nuv_clfy *rule, int depth, void *arg);

/* Visits every rule of `set` in pre-order (a rule, its sub-rules depth
 * first, then its next sibling).  Returns the first non-zero callback result,
 * or 0 after a complete walk (or for an empty set). */
NIKERKIOG_API int nuv_clfy_set_walk(struct nuv_clfy_set *set, nuv_clfy_walk_callback callback, void *arg);

/* Calls nuv_clfy_show for every rule of `set` with its depth; returns 0. */
NIKERKIOG_API int nuv_clfy_set_show(struct nuv_clfy_set *set);

/* Stores the process-wide classifier debug flag; returns the previous value
 * (the flag starts at 0). */
NIKERKIOG_API int nuv_clfy_set_debugflag(int value);

/* ---- Compiled rule sets ---- */

/* A compiled rule set: a search structure built from a set as it stands,
 * owned by the caller.  It gives the same answer as the set search
 * (nuv_clfy_get_clfy_from_set) on the set it was built from, with the same
 * hit counts, action call and DHCP learning, at a cost that grows slowly
 * with the number of rules.
 *
 * Contract: the compiled set refers to the set's rules (for their further
 * conditions, hits, actions and results), so while it is used those rules
 * must stay alive and unchanged: no rule freed, relinked or given other
 * conditions.  After any such change, compile again and free the old one.
 * It keeps no pointer to the set record itself, which may move.  Named
 * tables are looked up live, so adding to them, DHCP learning and table
 * edits need no new compile.  Nothing is cached anywhere else: freeing the
 * compiled set releases everything it holds, and other sets are unaffected.
 *
 * The structure is flat: arrays of fixed-size records addressed by index. */
typedef struct nuv_clfy_compiled nuv_clfy_compiled;

/* Result codes of nuv_clfy_set_compile. */
enum nuv_clfy_compile_result {
  NUV_CLFY_COMPILE_OK = 0,
  NUV_CLFY_COMPILE_E_INVALID = -1,   /* `set` or `out` is null */
  NUV_CLFY_COMPILE_E_NO_MEMORY = -2, /* the allocator refused; nothing stays allocated */
  NUV_CLFY_COMPILE_E_TOO_BIG = -3    /* more than 2^24 rules, or lists nested more than 32 deep (the
                                        top-level list is the first); a list linked into a ring ends
                                        with this code or the previous one, never in an endless loop */
};

/* Builds the search structure of `set` as it stands now (its top-level list
 * and every sub-list).  An empty set compiles to a structure that finds no
 * rule.  On success stores it in *out (owned by the caller, free with
 * nuv_clfy_compiled_free) and returns NUV_CLFY_COMPILE_OK; otherwise *out is
 * untouched and a negative code above is returned.  Allocates through the
 * classifier's allocator; time grows as n log n for typical sets. */
NIKERKIOG_API int nuv_clfy_set_compile(const struct nuv_clfy_set *set, struct nuv_clfy_compiled **out);

/* The rule of the compiled set that applies to `packet`, or null: exactly
 * the rule nuv_clfy_get_clfy_from_set finds in the set, with the same hits
 * counted and DHCP clients learned.  `mark` is the packet's traffic class,
 * which localmark conditions test; the set search always passes 0, so pass
 * 0 for its answers.  Allocates nothing except while evaluating a DHCP
 * condition.  A null `compiled` or `packet` finds nothing. */
NIKERKIOG_API struct nuv_clfy *nuv_clfy_compiled_get_clfy(struct nuv_clfy_compiled *compiled, uint32_t mark,
                                                          const nuv_clfy_packet *packet);

/* As nuv_clfy_set_execute on the set the structure was built from (mark 0):
 * finds the applying rule and, when it has an owner and a registered action
 * with an execute callback, returns that callback's result; otherwise 0
 * (also for a null `compiled` or `packet`). */
NIKERKIOG_API int nuv_clfy_compiled_execute(struct nuv_clfy_compiled *compiled, void *arg,
                                            const nuv_clfy_packet *packet);

/* Frees the compiled set (not the rules it refers to).  Null is ignored. */
NIKERKIOG_API void nuv_clfy_compiled_free(struct nuv_clfy_compiled *compiled);

/* What a compiled set is made of, for tools and benchmarks. */
typedef struct nuv_clfy_compiled_stats {
  uint32_t rules;        /* rules of the set, every level */
  uint32_t lists;        /* the top-level list and each sub-list */
  uint32_t nodes;        /* decision nodes and leaves */
  uint32_t leaf_entries; /* rule references held by the leaves */
  uint32_t depth;        /* most decisions on the way to a leaf */
  uint32_t bytes;        /* memory held, in bytes */
} nuv_clfy_compiled_stats;

/* Fills `stats` for `compiled`.  Returns 0, or -1 when either is null. */
NIKERKIOG_API int nuv_clfy_compiled_get_stats(const struct nuv_clfy_compiled *compiled,
                                              nuv_clfy_compiled_stats *stats);

/* ---- Comparison and cloning ---- */

/* Compares the conditions of `a` and `b` selected by the presence bits in
 * `mask`.  Returns 0 when they agree on every selected condition compared,
 * else a value whose sign tells which rule sorts first.  brdev, tcp.flags and
 * icmp.type are never compared.  Value lists are only tested for equality
 * (-1 when different).  For packetmatch the result is 1 when both rules have
 * equal patterns and 0 otherwise. */
NIKERKIOG_API int nuv_clfy_cmp(const nuv_clfy *a, const nuv_clfy *b, uint32_t mask);

/* Returns a copy of `rule` with its own value lists, class map, DHCP
 * condition and pattern, a fresh id, and no next or children; owner, action,
 * result and hits are kept.  The copy of a rule with a DHCP condition gains
 * one more "destination port equal 67" entry.  Null when memory is exhausted. */
NIKERKIOG_API nuv_clfy *nuv_clfy_clone(const nuv_clfy *rule);

/* As nuv_clfy_clone, but the copy keeps only the presence bits in `mask`,
 * and the owned parts whose bits are not in `mask` stay null in the copy. */
NIKERKIOG_API nuv_clfy *nuv_clfy_checkflag_clone(const nuv_clfy *rule, uint32_t mask);


/* ---- Optimisation ---- */

/* Normalises `rule` in place: IPv4 addresses are reduced by their masks (a
 * zero mask drops the condition), degenerate ranges become single
 * comparisons, value-list entries covered by other entries are dropped, and
 * a rule with IP conditions gets the Ethernet type of its address family.
 * A list that cannot be compacted for lack of memory stays as it was. */
NIKERKIOG_API void nuv_clfy_optim(struct nuv_clfy *rule);

/* Builds into `dst` a tree of clones of the top-level rules of `src`:
 * consecutive rules whose interface, Ethernet type, protocol and addresses
 * or length are identical (same masks and prefix lengths too) are placed
 * under a parent rule testing those once, so that the first-match verdict
 * stays the same.  `src` is not changed;
 * `dst`'s previous list is replaced without being freed, and `dst` owns the
 * new tree.  Returns 0 (also for an empty `src`, leaving `dst` untouched),
 * or -1 when memory ran out (nothing of the new tree stays allocated and
 * `dst` is untouched). */
NIKERKIOG_API int nuv_clfy_set_optim(struct nuv_clfy_set *src, struct nuv_clfy_set *dst);

/* Replaces the list of `set` by its optimised tree (as nuv_clfy_set_optim
 * builds it), makes `set` the owner of every rule of the tree and frees the
 * old rules.  The copies in the tree carry the rules' action data on, so the
 * old rules are freed without their actions' release callbacks.  Returns 0 (also
 * for an empty set), or -1 when memory ran out; the set is then unchanged. */
NIKERKIOG_API int nuv_clfy_set_optim_in_place(struct nuv_clfy_set *set);

NIKERKIOG_END_DECLS

#endif
