/* Packet classifier: rules, value parsers, rule text, matching, rule sets, named tables, optimisation. */
#ifndef NUVCLFY_H
#define NUVCLFY_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvdhcp.h"

NIKERKIOG_BEGIN_DECLS

/* ---- Value parsers (rule text values) ---- */



/* ---- Rule record, presence bits, value lists, rule sets, action registry ---- */



/* ---- Ethernet source tables ---- */



/* ---- IP destination tables ---- */



/* ---- Rule text parser ---- */

/* A keyword handler of the rule text parser.  `text` points just behind the
 * keyword inside the parser's private, writable copy of the line; `end` is
 * preset to `text` and a handler that consumed a value moves it to where
 * parsing continues.  Fills the condition into `rule` and sets its presence
 * bit.  Returns 0, or a negative value when the value is not acceptable. */
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
 * Words are separated by spaces only.  On success stores a new rule,
 * normalised by nuv_clfy_optim, in *result and returns 0; the caller owns it
 * (until it is linked into a set).  Returns -1 for an over-long line, an
 * unknown keyword, a value a keyword does not accept, or exhausted memory;
 * *result is then untouched and nothing stays allocated (named tables a
 * keyword created stay, as tables always do). */
NIKERKIOG_API int nuv_clfy_parse(const char *text, struct nuv_clfy **result);

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
  const uint8_t *eth_header; /* destination MAC at byte 0, source MAC at byte 6; may be null */
  uint16_t eth_proto;       /* Ethernet type, network byte order (0x0800, 0x86dd) */
  uint16_t vlan_tci;        /* host order: NUV_CLFY_VLAN_TAG_PRESENT, id in the low 12 bits, priority in the top 3 */
  const uint8_t *ip_header; /* IPv4 or IPv6 header; may be null */
  uint32_t ip_len;          /* bytes readable from ip_header on */
} nuv_clfy_packet;

/* Whether `packet` satisfies every condition of `rule`: 1 or 0.  `mark` is
 * the packet's traffic class (only the localmark condition reads it);
 * `reserved` is ignored.  Every match except that of a rule without
 * conditions counts in the rule's `hits`.  A DHCP condition learns matching
 * clients into its table and forgets releasing ones.  The packet's fixed IP
 * header (20 bytes for IPv4, 40 for IPv6) must be readable when the rule has
 * IP conditions; conditions that need bytes beyond `ip_len` do not hold.
 * Allocates nothing except while evaluating a DHCP condition. */
NIKERKIOG_API int nuv_clfy_matches(struct nuv_clfy *rule, const nuv_clfy_packet *packet, uint8_t reserved,
                                   uint32_t mark);

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

/* ---- Comparison and cloning ---- */



/* ---- Optimisation ---- */

/* Normalises `rule` in place: IPv4 addresses are reduced by their masks (a
 * zero mask drops the condition), degenerate ranges become single
 * comparisons, value-list entries covered by other entries are dropped, and
 * a rule with IP conditions gets the Ethernet type of its address family.
 * A list that cannot be compacted for lack of memory stays as it was. */
NIKERKIOG_API void nuv_clfy_optim(struct nuv_clfy *rule);

/* Builds into `dst` a tree of clones of the top-level rules of `src`:
 * consecutive rules that share interface, Ethernet type, protocol and
 * addresses or length are placed under a parent rule testing those once,
 * so that the first-match verdict stays the same.  `src` is not changed;
 * `dst`'s previous list is replaced without being freed, and `dst` owns the
 * new tree.  Returns 0 (also for an empty `src`, leaving `dst` untouched),
 * or -1 when memory ran out (nothing of the new tree stays allocated and
 * `dst` is untouched). */
NIKERKIOG_API int nuv_clfy_set_optim(struct nuv_clfy_set *src, struct nuv_clfy_set *dst);

NIKERKIOG_END_DECLS

#endif
