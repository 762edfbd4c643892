/* The kernel image of a compiled rule set: the same search, laid out as
 * fixed-size slots that a program without pointers (the traffic-control
 * classifier in the kernel) walks with bounded loops.
 *
 * The image is an array of 32-byte slots addressed by index.  Slot 0 is
 * the header; the sections it names follow: the tree nodes (four to a
 * slot), the leaf entries (eight to a slot), one slot per rule list, four
 * slots per rule, then the values some rules refer to (IPv6 addresses and
 * port or VLAN id intervals).  Every index in the image is a slot index or
 * an element index inside its section, checked against the header by the
 * reader.  Multi-byte fields are in the host's byte order unless noted.
 *
 * This header is read by the library, by its users and by the kernel
 * program, so it holds plain C with fixed-width fields only. */
#ifndef NUVCLFY_KERNEL_H
#define NUVCLFY_KERNEL_H

#ifndef __bpf__
#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"
#include "nuvclfy.h"
#endif

#define NUV_KCLFY_SLOT_BYTES 32u
#define NUV_KCLFY_MAGIC 0x6b636c31u /* "kcl1" */
/* The five tree fields, in the order of the rule ranges below. */
#define NUV_KCLFY_FIELD_SOURCE 0u
#define NUV_KCLFY_FIELD_DESTINATION 1u
#define NUV_KCLFY_FIELD_SOURCE_PORT 2u
#define NUV_KCLFY_FIELD_DESTINATION_PORT 3u
#define NUV_KCLFY_FIELD_PROTOCOL 4u
#define NUV_KCLFY_FIELDS 5u
/* Ends the entries of a leaf. */
#define NUV_KCLFY_END_OF_LEAF 0xffffffffu
/* Most trees of one list, and most lists the kernel search nests: a set
 * nested deeper has no kernel image. */
#define NUV_KCLFY_MAX_TREES 4u
#define NUV_KCLFY_MAX_NESTING 8u
/* Most rules of a kernel image (every level), which sizes the per-CPU hit
 * counters, and most slots. */
#define NUV_KCLFY_MAX_RULES 65536u
#define NUV_KCLFY_MAX_SLOTS (1u << 22)
/* Most decisions on the way to a leaf. */
#define NUV_KCLFY_MAX_DEPTH 16u

/* Slot 0 is the header, slot 1 the settings (zero in the library's image;
 * the loader writes them), the sections follow from slot 2 on. */
struct nuv_kclfy_header {
  uint32_t magic;      /* NUV_KCLFY_MAGIC */
  uint32_t slot_count; /* slots of the image, header included */
  uint32_t rule_count;
  uint32_t list_count;
  uint32_t node_base;  /* first slot of the nodes: node i is in slot node_base + i/4 */
  uint32_t entry_base; /* first slot of the leaf entries: entry i is in slot entry_base + i/8 */
  uint32_t list_base;  /* slot of list 0 */
  uint32_t rule_base;  /* first slot of rule 0; rule r takes slots rule_base + 4r .. + 4r+3 */
};

/* Slot 1: what the loader decides for a generation. */
struct nuv_kclfy_settings {
  uint32_t hits_base; /* the first per-CPU hit counter of this generation's rules */
  uint32_t mark_mask; /* a verdict's mark: (mark & ~mark_mask) | (result & mark_mask) */
  uint32_t ask_mark;  /* bits set on a packet that userspace must decide */
  uint32_t reserved[5];
};

/* A cut or a leaf of a tree.  A cut sends value v of field `field` on to node
 * first + ((v >> shift) & mask); a leaf (field == NUV_KCLFY_FIELDS) holds the
 * leaf entries from `first` on, up to NUV_KCLFY_END_OF_LEAF. */
struct nuv_kclfy_node {
  uint32_t first;
  uint8_t field;
  uint8_t shift;
  uint16_t mask;
};

/* A rule list: the roots of its trees (node indexes) and its rules (rule
 * indexes first_rule .. first_rule + rule_count - 1, in list order).  A
 * packet meets the rules of the leaves it reaches in every tree, merged in
 * rule order. */
struct nuv_kclfy_list {
  uint32_t root[NUV_KCLFY_MAX_TREES];
  uint32_t trees;
  uint32_t first_rule;
  uint32_t rule_count;
  uint32_t reserved;
};

/* Rule slot 0: the five fields' ranges.  A packet field outside its range,
 * or a field the rule needs (`needs`, one bit per field) that the packet
 * lacks, turns the rule away.  Addresses in host order. */
struct nuv_kclfy_ranges {
  uint32_t source_lo, source_hi;
  uint32_t destination_lo, destination_hi;
  uint16_t source_port_lo, source_port_hi;
  uint16_t destination_port_lo, destination_port_hi;
  uint8_t protocol_lo, protocol_hi;
  uint8_t needs;
  uint8_t covers;    /* 1: the ranges are the whole rule */
  uint32_t children; /* 1 + index of the rule's sub-list, 0 for none */
};

/* How the kernel decides a rule that passed its ranges. */
#define NUV_KCLFY_KIND_DECIDE 0u /* by the tests of rule slots 1 to 3 */
#define NUV_KCLFY_KIND_ASK 1u   /* not at all: it needs userspace (DHCP, payload pattern, class map, bridge) */
#define NUV_KCLFY_KIND_NEVER 2u  /* it matches no packet (presence bits that name no condition) */
/* The presence bits (NUV_CLFY_F_*) that make a rule of kind ASK: DHCP,
 * payload pattern, class map and bridge conditions. */
#define NUV_KCLFY_ASK_CONDITIONS 0x02800014u

/* The presence bits of nuv_kclfy_tests.flags: the rule's own NUV_CLFY_F_*
 * bits, under names the kernel program can use. */
#define NUV_KCLFY_T_DEV 0x00000001u
#define NUV_KCLFY_T_ETH_PROTO 0x00000020u
#define NUV_KCLFY_T_ETH_SOURCE 0x00000100u
#define NUV_KCLFY_T_ETH_DEST 0x00000200u
#define NUV_KCLFY_T_ETH_SOURCEOUI 0x00000400u
#define NUV_KCLFY_T_ETH_DESTOUI 0x00000800u
#define NUV_KCLFY_T_VLAN_ID 0x00001000u
#define NUV_KCLFY_T_VLAN_PRIO 0x00002000u
#define NUV_KCLFY_T_ETHSRCTAB 0x00004000u
#define NUV_KCLFY_T_IP_VERSION 0x00010000u
#define NUV_KCLFY_T_IP_PROTO 0x00020000u
#define NUV_KCLFY_T_IP_TOS 0x00040000u
#define NUV_KCLFY_T_IP_SADDR 0x00080000u
#define NUV_KCLFY_T_IP_DADDR 0x00100000u
#define NUV_KCLFY_T_SPORTS 0x00200000u
#define NUV_KCLFY_T_DPORTS 0x00400000u
#define NUV_KCLFY_T_IP_LEN 0x01000000u
#define NUV_KCLFY_T_ICMP_TYPE 0x04000000u
#define NUV_KCLFY_T_TCP_FLAGS 0x08000000u
#define NUV_KCLFY_T_IPDSTTAB 0x10000000u
/* Every IP-layer bit: a rule with any of them needs an IP header. */
#define NUV_KCLFY_T_GROUP_IP 0x1fff0000u
#define NUV_KCLFY_T_LINK_ADDRESSES 0x00004f00u

/* The ip.len test as an interval of the packet's length. */
#define NUV_KCLFY_LEN_WITHIN 0u /* lo <= length <= hi */
#define NUV_KCLFY_LEN_FROM 1u   /* lo <= length */
#define NUV_KCLFY_LEN_NOT 2u    /* length != lo */
#define NUV_KCLFY_LEN_NONE 3u   /* no length */
#define NUV_KCLFY_LEN_ABOVE 4u  /* lo < length */

/* Rule slot 1: the scalar tests.  `flags` are the rule's presence bits
 * (NUV_CLFY_F_*). */
struct nuv_kclfy_tests {
  uint32_t flags;
  uint16_t result;     /* the rule's result, the mark it gives */
  uint8_t kind;        /* NUV_KCLFY_KIND_DECIDE or NUV_KCLFY_ASK */
  uint8_t counts;      /* 1: a match counts as a hit (a rule with conditions) */
  int32_t dev_ifindex; /* -1: never resolved, matches no packet */
  uint16_t eth_proto;  /* network order, as the packet carries it */
  uint8_t vlan_prio;
  uint8_t ip_version;
  uint8_t ip_proto;
  uint8_t ip_tos;
  uint8_t ip_tos_mask;
  uint8_t icmp_type;
  uint16_t tcp_flags;      /* host order, tested against the 16-bit word at offset 12 of TCP */
  uint16_t tcp_flags_mask; /* host order */
  uint8_t ip_len_test;     /* NUV_KCLFY_LEN_* */
  uint8_t saddr_family;    /* 4 or 6, as the rule's address */
  uint8_t daddr_family;
  uint8_t reserved;
  uint16_t ip_len_lo, ip_len_hi;
};

/* Rule slot 2: link-layer addresses, table references and IPv4 addresses. */
struct nuv_kclfy_link {
  uint8_t eth_dest[6];
  uint8_t eth_source[6];
  uint8_t eth_dest_length;   /* bytes compared: 6, 3 (OUI) or 0 */
  uint8_t eth_source_length;
  uint16_t reserved;
  uint32_t ethsrctab; /* table id (see nuv_clfy_kernel_image), 0 when the rule names none */
  uint32_t ipdsttab;
  uint32_t saddr4, smask4; /* host order */
};

/* Rule slot 3: the further IPv4 address, and references to value slots (0
 * for none).  An IPv6 address is one slot: 16 bytes of address, then the
 * 16-byte mask of its prefix.  An interval list is a run of 32-bit words from
 * the first word of its first slot on, eight words to a slot: word 0 is the
 * number of intervals, word i + 1 is interval i, its low value in the low 16
 * bits and its high value in the high 16 bits.  The intervals are sorted,
 * disjoint and not adjacent; a value is in the list when one holds it. */
struct nuv_kclfy_more {
  uint32_t daddr4, dmask4; /* host order */
  uint32_t saddr6_slot, daddr6_slot;
  uint32_t vlan_slot, sport_slot, dport_slot;
  uint32_t reserved;
};

#define NUV_KCLFY_WORDS_PER_SLOT 8u

/* One interval list holds at most this many intervals (the 16-bit values
 * cannot make more disjoint ones). */
#define NUV_KCLFY_MAX_INTERVALS 32768u

/* How far the kernel program reads a packet: the VLAN tags in the frame
 * (besides a tag the kernel carries as metadata), and the IPv6 extension
 * headers it walks to reach an ICMPv6 type.  A packet with more is asked
 * about (NUV_KCLFY_ASKED_LINK, NUV_KCLFY_ASKED_ICMP). */
#define NUV_KCLFY_MAX_INLINE_TAGS 4u
#define NUV_KCLFY_MAX_EXTENSIONS 8u

/* Why the kernel program asked userspace about a packet: the index of its
 * per-CPU counter of such packets. */
#define NUV_KCLFY_ASKED_RULE 0u    /* the first rule that may apply needs userspace */
#define NUV_KCLFY_ASKED_LINK 1u    /* the link layer is cut short or has more tags than it reads */
#define NUV_KCLFY_ASKED_ICMP 2u    /* an ICMPv6 type behind a longer extension chain than it walks */
#define NUV_KCLFY_ASKED_STEPS 3u   /* the search needs more rounds than its bound */
#define NUV_KCLFY_ASKED_NESTING 4u /* more matching rules with sub-rules than it keeps */
#define NUV_KCLFY_ASKED_IMAGE 5u   /* the image is inconsistent */
#define NUV_KCLFY_ASKED_REASONS 6u

/* Table kinds of the table ids. */
#define NUV_KCLFY_TABLE_ETHERSRC 1u
#define NUV_KCLFY_TABLE_IPDST 2u

#ifndef __bpf__
NIKERKIOG_BEGIN_DECLS

/* A named table a kernel image refers to: its id in the image (1-based),
 * kind and the library's table record (not owned). */
typedef struct nuv_clfy_kernel_table {
  uint32_t id;
  uint32_t kind; /* NUV_KCLFY_TABLE_* */
  const void *table; /* const ethersrctab * or const ipdsttab * */
} nuv_clfy_kernel_table;

/* The kernel image of a compiled set, owned by the caller (free with
 * nuv_clfy_kernel_image_free).  `slots` holds slot_count slots.  `rules`
 * lists the compiled set's rules in image order (rule r of the image is
 * rules[r]); the pointers are borrowed from the compiled set and stay valid
 * as long as its rules do.  `tables` lists the named tables the rules refer
 * to, with the ids the image uses for them. */
typedef struct nuv_clfy_kernel_image {
  uint32_t slot_count;
  uint32_t rule_count;
  uint32_t table_count;
  uint32_t ask_rules; /* rules of kind NUV_KCLFY_ASK */
  uint8_t *slots;
  struct nuv_clfy **rules;
  nuv_clfy_kernel_table *tables;
} nuv_clfy_kernel_image;

/* Picks the id of a table in an image: called once per distinct table a
 * rule refers to, in rule order; returns a non-zero id.  Lets a caller keep
 * a table's id the same from one image to the next. */
typedef uint32_t (*nuv_clfy_kernel_table_id_fn)(void *context, uint32_t kind, const void *table);

/* Result codes of nuv_clfy_compiled_kernel_image. */
enum nuv_clfy_kernel_image_result {
  NUV_CLFY_KERNEL_OK = 0,
  NUV_CLFY_KERNEL_E_INVALID = -1,   /* `compiled` or `out` is null */
  NUV_CLFY_KERNEL_E_NO_MEMORY = -2, /* the allocator refused; nothing stays allocated */
  NUV_CLFY_KERNEL_E_TOO_BIG = -3    /* more than NUV_KCLFY_MAX_RULES rules or NUV_KCLFY_MAX_SLOTS slots,
                                       or lists nested deeper than NUV_KCLFY_MAX_NESTING */
};

/* Lays out the kernel image of `compiled`.  `table_id` (may be null: ids
 * are then 1, 2, ... in order of first reference) names the tables.  On
 * success stores the image in *out and returns NUV_CLFY_KERNEL_OK;
 * otherwise *out is untouched and a negative code above is returned.  The
 * image stays valid as long as the compiled set's rules stay unchanged. */
NIKERKIOG_API int nuv_clfy_compiled_kernel_image(const struct nuv_clfy_compiled *compiled,
                                                 nuv_clfy_kernel_table_id_fn table_id, void *context,
                                                 nuv_clfy_kernel_image **out);

/* Frees an image.  Null is ignored. */
NIKERKIOG_API void nuv_clfy_kernel_image_free(nuv_clfy_kernel_image *image);

NIKERKIOG_END_DECLS
#endif

#endif
