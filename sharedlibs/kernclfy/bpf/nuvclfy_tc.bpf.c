/* The classifier at the traffic-control hook: one fixed program that walks
 * the kernel image of a compiled rule set (see nuvclfy_kernel.h), kept in
 * an array map of 32-byte slots.
 *
 * The packet is read as the library's packet record describes it: the
 * outer VLAN tag (from the skb's metadata, or the first tag in the frame),
 * the Ethernet type behind every tag, a PPPoE session's IP packet without
 * Ethernet header, and the IP packet up to its own stated length.  Then
 * the search of the compiled set runs as a state machine, one step per
 * round of one bounded loop: a step of a tree walk, the next rule of the
 * leaves, or one probe of a value list.  Everything the search keeps
 * between steps lives in a per-CPU scratch record, not in registers: the
 * verifier then sees every round in the same few states and checks the
 * loop in time proportional to its bound.
 *
 * It must run on a 32-bit ARM kernel's JIT, so it has no calls between BPF
 * functions (everything is inlined), no bpf_loop, no atomic instructions
 * and no tail calls. */
#include <linux/bpf.h>
#include <linux/pkt_cls.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

typedef __u8 uint8_t;
typedef __u16 uint16_t;
typedef __u32 uint32_t;
typedef __s32 int32_t;
typedef __u64 uint64_t;
#include "nuvclfy_kernel.h"

#define ALWAYS static __always_inline

char LICENSE[] SEC("license") = "GPL";

/* Rounds of the search loop; a search that needs more asks userspace. */
#define MAX_STEPS 128
/* Inline VLAN tags read; a frame with more asks userspace. */
#define MAX_TAGS ((int)NUV_KCLFY_MAX_INLINE_TAGS)
/* IPv6 extension headers walked for the ICMPv6 type. */
#define MAX_EXTENSIONS ((int)NUV_KCLFY_MAX_EXTENSIONS)
/* Matched rules with sub-rules whose hits wait for the verdict. */
#define MAX_PENDING 16

struct slot {
  __u8 bytes[NUV_KCLFY_SLOT_BYTES];
};

/* Slot 0 of this outer map is the generation in force: an array map of
 * slots.  Replacing it is one pointer swap, and a packet holds the map it
 * looked up until it is done.  The loader gives every image map of one
 * program the same size, handing the kernel a map of that size as the
 * pattern of the slot (see nuvkclfy.c): slot lookups are then a bounds
 * check and an address, with no call. */
struct {
  __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
  __uint(max_entries, 1);
  __uint(key_size, sizeof(__u32));
  __uint(value_size, sizeof(__u32));
} images SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 2 * NUV_KCLFY_MAX_RULES);
  __type(key, __u32);
  __type(value, __u64);
} hits SEC(".maps");

struct ethersrc_key {
  __u32 table;
  __u8 mac[6];
  __u8 pad[2];
};

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 65536);
  __type(key, struct ethersrc_key);
  __type(value, __u8);
} ethersrc SEC(".maps");

struct ipdst4_key {
  __u32 prefixlen; /* 32 bits of table id, then the address bits */
  __u32 table;     /* big-endian */
  __u8 addr[4];
};

struct ipdst6_key {
  __u32 prefixlen;
  __u32 table;
  __u8 addr[16];
};

struct {
  __uint(type, BPF_MAP_TYPE_LPM_TRIE);
  __uint(max_entries, 65536);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct ipdst4_key);
  __type(value, __u8);
} ipdst4 SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LPM_TRIE);
  __uint(max_entries, 65536);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct ipdst6_key);
  __type(value, __u8);
} ipdst6 SEC(".maps");

/* Why packets were asked about, for the loader's statistics. */
enum ask_reason {
  ASK_RULE = NUV_KCLFY_ASKED_RULE,
  ASK_LINK = NUV_KCLFY_ASKED_LINK,
  ASK_ICMP = NUV_KCLFY_ASKED_ICMP,
  ASK_STEPS = NUV_KCLFY_ASKED_STEPS,
  ASK_NESTING = NUV_KCLFY_ASKED_NESTING,
  ASK_IMAGE = NUV_KCLFY_ASKED_IMAGE,
  ASK_REASONS = NUV_KCLFY_ASKED_REASONS
};

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, ASK_REASONS);
  __type(key, __u32);
  __type(value, __u64);
} asked SEC(".maps");

enum mode { WALK, SCAN, LIST, DONE };
enum verdict { NO_RULE, RULE, ASK };
enum icmp_state { ICMP_FAILS, ICMP_TYPE, ICMP_UNREAD };

#define FAMILY_IPV4 4
#define FAMILY_IPV6 6
#define PROTO_UNREADABLE 0x100
#define HAS_SPORT 1
#define HAS_DPORT 2
#define HAS_TCP_WORD 4

struct scratch {
  /* The packet. */
  __u32 key[8]; /* the five tree fields (host order); the rest zero */
  __u32 has;    /* which of them the packet has (bit per field) */
  __u32 ifindex;
  __u32 eth_present;
  __u8 eth[12];
  __u32 eth_proto; /* as the frame carries it (network order in memory) */
  __u32 vlan_tci;  /* NUV_CLFY_VLAN_TAG_PRESENT form; 0 untagged */
  __u32 family;
  __u32 proto;
  __u32 proto_key;
  __u32 version;
  __u32 tos;
  __u32 length;
  __u32 readable;
  __u32 tcp_word;
  __u8 saddr6[16];
  __u8 daddr6[16];
  __u32 icmp_state;
  __u32 icmp_type;
  /* The search. */
  __u32 mode;
  __u32 verdict;
  __u32 result;
  __u32 list;
  __u32 tree;
  __u32 trees;
  __u32 node;
  __u32 roots[NUV_KCLFY_MAX_TREES];
  __u32 at[NUV_KCLFY_MAX_TREES];
  __u32 depth;
  __u32 stack_at[NUV_KCLFY_MAX_NESTING][NUV_KCLFY_MAX_TREES];
  __u32 stack_trees[NUV_KCLFY_MAX_NESTING];
  __u32 pending[MAX_PENDING];
  __u32 pending_count;
  __u32 rule;      /* the rule whose value lists are being searched */
  __u32 lists;     /* bits of the lists still to search: 1 VLAN, 2 source port, 4 destination port */
  __u32 list_slot; /* the list being searched */
  __u32 value;
  __u32 lo, hi;    /* the binary search's bounds */
  __u32 ask_reason;
};

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct scratch);
} scratch SEC(".maps");

/* ---- The image ---- */

ALWAYS const void *slot_at(void *image, __u32 index) { return bpf_map_lookup_elem(image, &index); }

ALWAYS int node_at(void *image, const struct nuv_kclfy_header *h, __u32 index, struct nuv_kclfy_node *out) {
  const struct nuv_kclfy_node *nodes = slot_at(image, h->node_base + index / 4);
  if (!nodes) return 0;
  *out = nodes[index & 3];
  return 1;
}

/* Word `index` of the run of words from slot `first` on. */
ALWAYS int word_at(void *image, __u32 first, __u32 index, __u32 *out) {
  const __u32 *words = slot_at(image, first + index / NUV_KCLFY_WORDS_PER_SLOT);
  if (!words) return 0;
  *out = words[index & (NUV_KCLFY_WORDS_PER_SLOT - 1)];
  return 1;
}

/* ---- Reading the packet ---- */

ALWAYS int is_vlan_tag(__u16 type) { return type == 0x8100 || type == 0x88a8 || type == 0x9100; }

/* The first bytes of the frame, read directly: every header the program
 * reads lies in them except an IPv6 extension chain's far end (four VLAN
 * tags, a PPPoE header, IPv4 options and the transport words end by byte
 * 112).  `end` is the first byte past them (or past the frame). */
#define DIRECT_BYTES 128

struct frame {
  const __u8 *data;
  const __u8 *end;
};

/* Makes the first DIRECT_BYTES (or the whole frame) readable directly,
 * pulling them into the packet's linear part when a driver left them in
 * fragments.  Returns 0 when they cannot be had. */
ALWAYS int direct_frame(struct __sk_buff *skb, struct frame *f) {
  __u32 want = skb->len < DIRECT_BYTES ? skb->len : DIRECT_BYTES;
  f->data = (const __u8 *)(long)skb->data;
  f->end = (const __u8 *)(long)skb->data_end;
  if (f->data + want <= f->end) return 1;
  if (bpf_skb_pull_data(skb, want) < 0) return 0;
  f->data = (const __u8 *)(long)skb->data;
  f->end = (const __u8 *)(long)skb->data_end;
  return f->data + want <= f->end;
}

ALWAYS __u16 be16(const __u8 *p) { return (__u16)(p[0] << 8 | p[1]); }

/* The link layer.  Returns the offset of the network layer, or -1 when
 * the frame's link layer is cut short or has more tags than are read.  */
ALWAYS int read_link(struct __sk_buff *skb, const struct frame *f, struct scratch *s, __u16 *type_out) {
  const __u8 *d = f->data;
  if (d + 14 > f->end) return -1;
  __builtin_memcpy(s->eth, d, 12);
  s->eth_present = 1;
  s->vlan_tci = 0;
  if (skb->vlan_present) s->vlan_tci = (skb->vlan_tci & 0xefff) | 0x1000;
  __u16 type = be16(d + 12);
  __u32 at = 14;
#pragma unroll
  for (int i = 0; i < MAX_TAGS; i++) {
    if (!is_vlan_tag(type)) break;
    const __u8 *tag = d + at;
    if (tag + 4 > f->end) return -1;
    if (!s->vlan_tci) s->vlan_tci = (be16(tag) & 0xefff) | 0x1000;
    type = be16(tag + 2);
    at += 4;
  }
  if (is_vlan_tag(type)) return -1;
  if (type == 0x8864) {
    /* A PPPoE session: the router's PPP interface sees the IP packet alone. */
    const __u8 *pppoe = d + at;
    if (pppoe + 8 > f->end) return -1;
    __u16 ppp = be16(pppoe + 6);
    if (ppp == 0x0021 || ppp == 0x0057) {
      s->eth_present = 0;
      s->vlan_tci = 0;
      type = ppp == 0x0021 ? 0x0800 : 0x86dd;
      at += 8;
    }
  }
  *type_out = type;
  return (int)at;
}

/* The IPv6 extension-header walks of the ICMPv6 type condition: whether the
 * chain up to the upper-layer header lies in the packet, and where that
 * header is. */
ALWAYS void read_icmp6(struct __sk_buff *skb, struct scratch *s, __u32 ip, __u32 available, __u8 next,
                       __u16 payload) {
  int ok = 1;
  /* The chain must be readable: the same steps, bounded by the bytes kept. */
  __u8 nh = next;
  __u16 remaining = payload;
  __u32 pos = 40;
  int done = 0;
  /* One round more than the headers walked: a chain of exactly that many
   * headers ends in the last round's first tests. */
#pragma unroll
  for (int i = 0; i <= MAX_EXTENSIONS; i++) {
    if (done) break;
    if (!(nh == 0 || (nh & ~0x10) == 43 || (nh & ~0x10) == 44)) { done = 1; break; }
    if (remaining < 2 || nh == 59 || nh == 44) { done = 1; break; }
    if (i == MAX_EXTENSIONS) break;
    if (pos + 2 > available) {
      s->icmp_state = ICMP_FAILS;
      return;
    }
    __u8 hdr[2];
    if (bpf_skb_load_bytes(skb, ip + pos, hdr, 2) < 0) ok = 0;
    __u32 size = (hdr[1] + 1u) * 8u;
    nh = hdr[0];
    pos += size;
    remaining = (__u16)(remaining - size);
  }
  if (!done || !ok) {
    s->icmp_state = ICMP_UNREAD;
    return;
  }
  /* Then the walk to the upper-layer header. */
  nh = next;
  int left = payload;
  pos = 40;
  done = 0;
#pragma unroll
  for (int i = 0; i <= MAX_EXTENSIONS; i++) {
    if (done) break;
    if (!(nh == 0 || (nh & ~0x10) == 43 || (nh & ~0x10) == 44)) { done = 1; break; }
    if ((__u16)left < 2 || left < 0) {
      s->icmp_state = ICMP_FAILS;
      return;
    }
    if (nh == 59 || nh == 44) { done = 1; break; }
    if (i == MAX_EXTENSIONS) break;
    __u8 hdr[2];
    if (pos + 2 > available || bpf_skb_load_bytes(skb, ip + pos, hdr, 2) < 0) {
      s->icmp_state = ICMP_UNREAD;
      return;
    }
    __u32 size = (hdr[1] + 1u) * 8u;
    nh = hdr[0];
    pos += size;
    left -= size;
  }
  if (!done) {
    s->icmp_state = ICMP_UNREAD;
    return;
  }
  if (nh != 58 || pos >= available) {
    s->icmp_state = ICMP_FAILS;
    return;
  }
  __u8 type;
  if (bpf_skb_load_bytes(skb, ip + pos, &type, 1) < 0) {
    s->icmp_state = ICMP_UNREAD;
    return;
  }
  s->icmp_state = ICMP_TYPE;
  s->icmp_type = type;
}

/* The transport words that lie inside the packet.  Returns 0 when they
 * are not where the frame was made readable (which the bounds above rule
 * out). */
ALWAYS int read_transport(const struct frame *f, struct scratch *s, const __u8 *t, __u32 room) {
  s->readable = 0;
  s->tcp_word = 0;
  if (room >= 2) {
    if (t + 2 > f->end) return 0;
    s->key[NUV_KCLFY_FIELD_SOURCE_PORT] = be16(t);
    s->has |= 1u << NUV_KCLFY_FIELD_SOURCE_PORT;
    s->readable = HAS_SPORT;
  }
  if (room >= 4) {
    if (t + 4 > f->end) return 0;
    s->key[NUV_KCLFY_FIELD_DESTINATION_PORT] = be16(t + 2);
    s->has |= 1u << NUV_KCLFY_FIELD_DESTINATION_PORT;
    s->readable |= HAS_DPORT;
  }
  if (room >= 14) {
    if (t + 14 > f->end) return 0;
    s->tcp_word = be16(t + 12);
    s->readable |= HAS_TCP_WORD;
  }
  return 1;
}

ALWAYS __u32 be32(const __u8 *p) { return ((__u32)p[0] << 24) | ((__u32)p[1] << 16) | ((__u32)p[2] << 8) | p[3]; }

/* The network layer: the family, protocol, addresses and the transport
 * words, as the matcher reads them, from `ip` on.  Its bytes are the
 * frame's, up to the IP packet's stated length when it states one.
 * Returns 0 when the frame cannot be read as it should. */
ALWAYS int read_network(struct __sk_buff *skb, const struct frame *f, struct scratch *s, __u32 ip, __u16 type) {
  s->family = 0;
  if (type != 0x0800 && type != 0x86dd) return 1;
  if (skb->len <= ip) return 1; /* no IP header: no IP condition holds */
  const __u32 size = skb->len - ip;
  const __u8 *h = f->data + ip;
  __u32 available, transport;
  if (type == 0x0800) {
    if (size < 20) return 1;
    if (h + 20 > f->end) return 0;
    __u32 stated = size >= (h[0] & 0x0fu) * 4u ? be16(h + 2) : 0;
    available = stated && stated < size ? stated : size;
    if (available < 20) return 1;
    s->family = FAMILY_IPV4;
    s->version = h[0] >> 4;
    s->proto = h[9];
    s->proto_key = h[9];
    s->tos = h[1];
    s->length = be16(h + 2);
    transport = (h[0] & 0x0fu) * 4u;
    s->key[NUV_KCLFY_FIELD_SOURCE] = be32(h + 12);
    s->key[NUV_KCLFY_FIELD_DESTINATION] = be32(h + 16);
    s->has = (1u << NUV_KCLFY_FIELD_SOURCE) | (1u << NUV_KCLFY_FIELD_DESTINATION);
  } else {
    if (size < 40) return 1;
    if (h + 40 > f->end) return 0;
    __u32 stated = 40 + be16(h + 4);
    available = stated < size ? stated : size;
    int hop = h[6] == 0;
    int behind = available > 40;
    __u8 after_hop = 0;
    if (hop && behind) {
      const __u8 *next = h + 40;
      if (next + 1 > f->end) return 0;
      after_hop = next[0];
    }
    s->family = FAMILY_IPV6;
    s->version = h[0] >> 4;
    s->proto = hop ? after_hop : h[6];
    s->proto_key = hop && !behind ? PROTO_UNREADABLE : s->proto;
    s->tos = ((h[0] << 4) | (h[1] >> 4)) & 0xff;
    s->length = be16(h + 4) + 40;
    transport = 40 + (hop ? 8 : 0);
    __builtin_memcpy(s->saddr6, h + 8, 16);
    __builtin_memcpy(s->daddr6, h + 24, 16);
    read_icmp6(skb, s, ip, available, h[6], be16(h + 4));
  }
  if (s->proto_key != PROTO_UNREADABLE) {
    s->key[NUV_KCLFY_FIELD_PROTOCOL] = s->proto;
    s->has |= 1u << NUV_KCLFY_FIELD_PROTOCOL;
  }
  __u32 room = transport <= available ? available - transport : 0;
  return read_transport(f, s, h + transport, room);
}

/* ---- The rule tests ---- */

ALWAYS int outside(__u32 value, __u32 lo, __u32 hi) { return value - lo > hi - lo; }

ALWAYS int ranges_hold(const struct nuv_kclfy_ranges *r, const struct scratch *s) {
  if (r->needs & ~s->has) return 0;
  return !(outside(s->key[0], r->source_lo, r->source_hi) | outside(s->key[1], r->destination_lo, r->destination_hi) |
           outside(s->key[2], r->source_port_lo, r->source_port_hi) |
           outside(s->key[3], r->destination_port_lo, r->destination_port_hi) |
           outside(s->key[4], r->protocol_lo, r->protocol_hi));
}

/* Whether the first `n` (6, 3 or 0) bytes agree, without a branch per byte. */
ALWAYS int bytes_equal(const __u8 *a, const __u8 *b, __u32 n) {
  __u32 first = (a[0] ^ b[0]) | (a[1] ^ b[1]) | (a[2] ^ b[2]);
  __u32 second = (a[3] ^ b[3]) | (a[4] ^ b[4]) | (a[5] ^ b[5]);
  __u32 wanted = n >= 6 ? 0xffffffff : 0;
  return n == 0 || (first | (second & wanted)) == 0;
}

ALWAYS int link_holds(const struct nuv_kclfy_tests *t, const struct nuv_kclfy_link *l, struct scratch *s) {
  __u32 flags = t->flags;
  if (flags & NUV_KCLFY_T_LINK_ADDRESSES) {
    if (!s->eth_present) return 0;
    if (l->eth_source_length && !bytes_equal(s->eth + 6, l->eth_source, l->eth_source_length)) return 0;
    if (flags & NUV_KCLFY_T_ETHSRCTAB) {
      struct ethersrc_key k = {.table = l->ethsrctab};
      __builtin_memcpy(k.mac, s->eth + 6, 6);
      if (!l->ethsrctab || !bpf_map_lookup_elem(&ethersrc, &k)) return 0;
    }
    if (l->eth_dest_length && !bytes_equal(s->eth, l->eth_dest, l->eth_dest_length)) return 0;
  }
  if (flags & (NUV_KCLFY_T_VLAN_ID | NUV_KCLFY_T_VLAN_PRIO)) {
    if (!(s->vlan_tci & 0x1000)) return 0;
    if ((flags & NUV_KCLFY_T_VLAN_PRIO) && (s->vlan_tci >> 13) != t->vlan_prio) return 0;
  }
  return 1;
}

ALWAYS int length_holds(const struct nuv_kclfy_tests *t, __u32 length) {
  switch (t->ip_len_test) {
    case NUV_KCLFY_LEN_WITHIN: return t->ip_len_lo <= length && length <= t->ip_len_hi;
    case NUV_KCLFY_LEN_FROM: return t->ip_len_lo <= length;
    case NUV_KCLFY_LEN_NOT: return length != t->ip_len_lo;
    case NUV_KCLFY_LEN_ABOVE: return t->ip_len_lo < length;
    default: return 0;
  }
}

ALWAYS int header_fields_hold(const struct nuv_kclfy_tests *t, const struct scratch *s) {
  __u32 flags = t->flags;
  if ((flags & NUV_KCLFY_T_IP_VERSION) && s->version != t->ip_version) return 0;
  if ((flags & NUV_KCLFY_T_IP_PROTO) && s->proto != t->ip_proto) return 0;
  if ((flags & NUV_KCLFY_T_IP_TOS) && (s->tos & t->ip_tos_mask) != t->ip_tos) return 0;
  if ((flags & NUV_KCLFY_T_IP_LEN) && !length_holds(t, s->length)) return 0;
  return 1;
}

/* An IPv6 prefix slot: the address, then the mask of its prefix. */
ALWAYS int prefix6_holds(const __u8 *stored, const __u8 *addr) {
  const __u32 *want = (const __u32 *)stored, *mask = (const __u32 *)(stored + 16);
  __u32 have[4];
  __builtin_memcpy(have, addr, 16);
  return (((have[0] ^ want[0]) & mask[0]) | ((have[1] ^ want[1]) & mask[1]) | ((have[2] ^ want[2]) & mask[2]) |
          ((have[3] ^ want[3]) & mask[3])) == 0;
}

ALWAYS int ip4_table_holds(__u32 table, __u32 daddr) {
  struct ipdst4_key k = {.prefixlen = 64, .table = bpf_htonl(table)};
  __u32 be = bpf_htonl(daddr);
  __builtin_memcpy(k.addr, &be, 4);
  return table && bpf_map_lookup_elem(&ipdst4, &k) != 0;
}

ALWAYS int ip6_table_holds(__u32 table, const __u8 *daddr) {
  struct ipdst6_key k = {.prefixlen = 160, .table = bpf_htonl(table)};
  __builtin_memcpy(k.addr, daddr, 16);
  return table && bpf_map_lookup_elem(&ipdst6, &k) != 0;
}

ALWAYS int transport_holds(const struct nuv_kclfy_tests *t, const struct scratch *s) {
  __u32 flags = t->flags;
  if ((flags & NUV_KCLFY_T_SPORTS) && !(s->readable & HAS_SPORT)) return 0;
  if ((flags & NUV_KCLFY_T_DPORTS) && !(s->readable & HAS_DPORT)) return 0;
  if (flags & NUV_KCLFY_T_TCP_FLAGS) {
    if (t->ip_proto != 6 || !(s->readable & HAS_TCP_WORD)) return 0;
    if ((s->tcp_word & t->tcp_flags_mask) != t->tcp_flags) return 0;
  }
  return 1;
}

/* Every test of a rule of kind DECIDE except its value lists.  Returns 1
 * when they hold, 0 when one fails, -1 when the packet was not read far
 * enough to tell. */
ALWAYS int tests_hold(void *image, __u32 base, const struct nuv_kclfy_tests *t, struct scratch *s) {
  __u32 flags = t->flags;
  if ((flags & NUV_KCLFY_T_DEV) && (t->dev_ifindex < 0 || s->ifindex != (__u32)t->dev_ifindex)) return 0;
  if ((flags & NUV_KCLFY_T_ETH_PROTO) && s->eth_proto != t->eth_proto) return 0;
  const struct nuv_kclfy_link *l = slot_at(image, base + 2);
  const struct nuv_kclfy_more *m = slot_at(image, base + 3);
  if (!l || !m) return -1;
  if (!link_holds(t, l, s)) return 0;
  if (!(flags & NUV_KCLFY_T_GROUP_IP)) return 1;
  if (!s->family) return 0;
  if (s->family == FAMILY_IPV6) {
    if (s->proto_key == PROTO_UNREADABLE && (flags & NUV_KCLFY_T_IP_PROTO)) return 0;
    if (!header_fields_hold(t, s)) return 0;
    if (flags & NUV_KCLFY_T_IP_SADDR) {
      const __u8 *a = slot_at(image, m->saddr6_slot);
      if (t->saddr_family != FAMILY_IPV6 || !a || !m->saddr6_slot) return 0;
      if (!prefix6_holds(a, s->saddr6)) return 0;
    }
    if (flags & NUV_KCLFY_T_IP_DADDR) {
      const __u8 *a = slot_at(image, m->daddr6_slot);
      if (t->daddr_family != FAMILY_IPV6 || !a || !m->daddr6_slot) return 0;
      if (!prefix6_holds(a, s->daddr6)) return 0;
    }
    if ((flags & NUV_KCLFY_T_IPDSTTAB) && !ip6_table_holds(l->ipdsttab, s->daddr6)) return 0;
    if (!transport_holds(t, s)) return 0;
    if (flags & NUV_KCLFY_T_ICMP_TYPE) {
      if (s->icmp_state == ICMP_UNREAD) return -1;
      if (s->icmp_state != ICMP_TYPE || s->icmp_type != t->icmp_type) return 0;
    }
    return 1;
  }
  if (!header_fields_hold(t, s)) return 0;
  if (flags & NUV_KCLFY_T_IP_SADDR) {
    if (t->saddr_family != FAMILY_IPV4) return 0;
    if ((s->key[NUV_KCLFY_FIELD_SOURCE] & l->smask4) != l->saddr4) return 0;
  }
  if (flags & NUV_KCLFY_T_IP_DADDR) {
    if (t->daddr_family != FAMILY_IPV4) return 0;
    if ((s->key[NUV_KCLFY_FIELD_DESTINATION] & m->dmask4) != m->daddr4) return 0;
  }
  if ((flags & NUV_KCLFY_T_IPDSTTAB) && !ip4_table_holds(l->ipdsttab, s->key[NUV_KCLFY_FIELD_DESTINATION])) return 0;
  /* The ICMPv6 type is an IPv6 condition: IPv4 packets pass it untested. */
  return transport_holds(t, s);
}

/* ---- The search ---- */

ALWAYS void ask(struct scratch *s, __u32 reason) {
  s->verdict = ASK;
  s->ask_reason = reason;
  s->mode = DONE;
}

ALWAYS void open_list(void *image, const struct nuv_kclfy_header *h, struct scratch *s, __u32 list) {
  const struct nuv_kclfy_list *l = slot_at(image, h->list_base + list);
  if (list >= h->list_count || !l || l->trees == 0) {
    ask(s, ASK_IMAGE);
    return;
  }
  s->list = list;
  s->trees = l->trees > NUV_KCLFY_MAX_TREES ? NUV_KCLFY_MAX_TREES : l->trees;
#pragma unroll
  for (int t = 0; t < (int)NUV_KCLFY_MAX_TREES; t++) {
    s->roots[t] = l->root[t];
    s->at[t] = 0;
  }
  s->tree = 0;
  s->node = l->root[0];
  s->mode = WALK;
}

/* Steps down a tree taken in one round of the search. */
#define WALK_STEPS 3

/* Up to WALK_STEPS steps down a tree of the list; at the leaf, on to the
 * next tree. */
ALWAYS void walk_step(void *image, const struct nuv_kclfy_header *h, struct scratch *s) {
  struct nuv_kclfy_node n;
  __u32 node = s->node;
#pragma unroll
  for (int step = 0; step < WALK_STEPS; step++) {
    if (!node_at(image, h, node, &n)) {
      ask(s, ASK_IMAGE);
      return;
    }
    if (n.field >= NUV_KCLFY_FIELDS) break;
    node = n.first + ((s->key[n.field & 7] >> (n.shift & 31)) & n.mask);
  }
  if (n.field < NUV_KCLFY_FIELDS) {
    s->node = node;
    return;
  }
  __u32 t = s->tree & (NUV_KCLFY_MAX_TREES - 1);
  s->at[t] = n.first;
  s->tree = t + 1;
  if (s->tree >= s->trees) {
    s->mode = SCAN;
    return;
  }
  s->node = s->roots[s->tree & (NUV_KCLFY_MAX_TREES - 1)];
}

ALWAYS void finish_rule(void *image, const struct nuv_kclfy_header *h, struct scratch *s, __u32 rule,
                        const struct nuv_kclfy_ranges *r, const struct nuv_kclfy_tests *t) {
  if (!r->children) {
    s->verdict = RULE;
    s->result = t->result;
    s->rule = rule;
    s->mode = DONE;
    return;
  }
  /* A matching rule with sub-rules: its hit counts whatever follows; the
   * search goes into its sub-list and comes back behind it. */
  if (s->depth >= NUV_KCLFY_MAX_NESTING - 1 || (t->counts && s->pending_count >= MAX_PENDING)) {
    ask(s, ASK_NESTING);
    return;
  }
  if (t->counts) s->pending[s->pending_count++ & (MAX_PENDING - 1)] = rule;
  __u32 d = s->depth & (NUV_KCLFY_MAX_NESTING - 1);
#pragma unroll
  for (int i = 0; i < (int)NUV_KCLFY_MAX_TREES; i++) s->stack_at[d][i] = s->at[i];
  s->stack_trees[d] = s->trees;
  s->depth = d + 1;
  open_list(image, h, s, r->children - 1);
}

ALWAYS __u32 next_list(__u32 lists) { return lists & 1 ? 1 : lists & 2 ? 2 : 4; }

/* Starts the search of the next value list of the rule. */
ALWAYS void start_list(void *image, struct scratch *s, const struct nuv_kclfy_more *m) {
  __u32 which = next_list(s->lists);
  __u32 first = which == 1 ? m->vlan_slot : which == 2 ? m->sport_slot : m->dport_slot;
  __u32 count;
  if (!first || !word_at(image, first, 0, &count)) {
    ask(s, ASK_IMAGE);
    return;
  }
  s->lists &= ~which;
  s->list_slot = first;
  s->value = which == 1 ? (s->vlan_tci & 0x0fff)
             : which == 2 ? s->key[NUV_KCLFY_FIELD_SOURCE_PORT] : s->key[NUV_KCLFY_FIELD_DESTINATION_PORT];
  s->lo = 0;
  s->hi = count;
  s->mode = LIST;
}

ALWAYS void scan_step(void *image, const struct nuv_kclfy_header *h, struct scratch *s) {
  __u32 best = NUV_KCLFY_END_OF_LEAF, from = 0;
#pragma unroll
  for (int t = 0; t < (int)NUV_KCLFY_MAX_TREES; t++) {
    __u32 e;
    if ((__u32)t < s->trees && word_at(image, h->entry_base, s->at[t], &e) && e < best) {
      best = e;
      from = t;
    }
  }
  if (best == NUV_KCLFY_END_OF_LEAF) {
    if (s->depth == 0) {
      s->verdict = NO_RULE;
      s->mode = DONE;
      return;
    }
    __u32 d = (s->depth - 1) & (NUV_KCLFY_MAX_NESTING - 1);
#pragma unroll
    for (int i = 0; i < (int)NUV_KCLFY_MAX_TREES; i++) s->at[i] = s->stack_at[d][i];
    s->trees = s->stack_trees[d];
    s->depth = d;
    return;
  }
  s->at[from & (NUV_KCLFY_MAX_TREES - 1)]++;
  if (best >= h->rule_count) {
    ask(s, ASK_IMAGE);
    return;
  }
  __u32 base = h->rule_base + 4 * best;
  const struct nuv_kclfy_ranges *r = slot_at(image, base);
  const struct nuv_kclfy_tests *t = slot_at(image, base + 1);
  if (!r || !t) {
    ask(s, ASK_IMAGE);
    return;
  }
  if (!ranges_hold(r, s)) return;
  if (r->covers) {
    s->verdict = RULE;
    s->result = t->result;
    s->rule = best;
    s->mode = DONE;
    return;
  }
  if (t->kind == NUV_KCLFY_KIND_NEVER) return;
  if (t->kind != NUV_KCLFY_KIND_DECIDE) {
    ask(s, ASK_RULE);
    return;
  }
  int held = tests_hold(image, base, t, s);
  if (held < 0) {
    ask(s, ASK_ICMP);
    return;
  }
  if (!held) return;
  __u32 lists = ((t->flags & NUV_KCLFY_T_VLAN_ID) ? 1 : 0) | ((t->flags & NUV_KCLFY_T_SPORTS) ? 2 : 0) |
                ((t->flags & NUV_KCLFY_T_DPORTS) ? 4 : 0);
  if (!lists) {
    finish_rule(image, h, s, best, r, t);
    return;
  }
  const struct nuv_kclfy_more *m = slot_at(image, base + 3);
  if (!m) {
    ask(s, ASK_IMAGE);
    return;
  }
  s->rule = best;
  s->lists = lists;
  start_list(image, s, m);
}

/* One probe of the binary search for the last interval starting at or
 * below the value; when the bounds meet, that interval decides. */
ALWAYS void list_step(void *image, const struct nuv_kclfy_header *h, struct scratch *s) {
  __u32 interval;
  if (s->lo < s->hi) {
    __u32 mid = (s->lo + s->hi) / 2;
    if (!word_at(image, s->list_slot, mid + 1, &interval)) {
      ask(s, ASK_IMAGE);
      return;
    }
    if ((interval & 0xffff) > s->value)
      s->hi = mid;
    else
      s->lo = mid + 1;
    return;
  }
  int in = 0;
  if (s->lo > 0) {
    if (!word_at(image, s->list_slot, s->lo, &interval)) {
      ask(s, ASK_IMAGE);
      return;
    }
    in = s->value <= (interval >> 16);
  }
  if (!in) {
    s->mode = SCAN; /* the rule does not apply */
    return;
  }
  __u32 base = h->rule_base + 4 * s->rule;
  if (s->lists) {
    const struct nuv_kclfy_more *m = slot_at(image, base + 3);
    if (!m) {
      ask(s, ASK_IMAGE);
      return;
    }
    start_list(image, s, m);
    return;
  }
  const struct nuv_kclfy_ranges *r = slot_at(image, base);
  const struct nuv_kclfy_tests *t = slot_at(image, base + 1);
  if (!r || !t) {
    ask(s, ASK_IMAGE);
    return;
  }
  s->mode = SCAN;
  finish_rule(image, h, s, s->rule, r, t);
}

ALWAYS void count(void *map, __u32 index) {
  __u64 *c = bpf_map_lookup_elem(map, &index);
  if (c) *c += 1;
}

ALWAYS void count_hits(const struct nuv_kclfy_settings *settings, struct scratch *s, __u32 rule, int with_rule) {
  __u32 base = settings->hits_base;
  /* Matching rules with sub-rules are rare: most packets skip the loop. */
  if (s->pending_count) {
#pragma unroll
    for (int i = 0; i < MAX_PENDING; i++)
      if ((__u32)i < s->pending_count) count(&hits, base + s->pending[i]);
  }
  if (with_rule) count(&hits, base + rule);
}

SEC("tc")
int nuvclfy_classify(struct __sk_buff *skb) {
  __u32 zero = 0;
  void *image = bpf_map_lookup_elem(&images, &zero);
  struct scratch *s = bpf_map_lookup_elem(&scratch, &zero);
  if (!image || !s) return TC_ACT_OK;
  const struct nuv_kclfy_header *h = slot_at(image, 0);
  const struct nuv_kclfy_settings *settings = slot_at(image, 1);
  if (!h || !settings || h->magic != NUV_KCLFY_MAGIC || h->rule_count == 0) return TC_ACT_OK;

#pragma unroll
  for (int i = 0; i < 8; i++) s->key[i] = 0;
  s->has = 0;
  s->depth = 0;
  s->pending_count = 0;
  s->mode = SCAN;
  s->verdict = NO_RULE;
  s->readable = 0;
  s->tcp_word = 0;
  s->icmp_state = ICMP_FAILS;
  s->ifindex = skb->ifindex;
  struct frame f;
  __u16 type = 0;
  int ip = direct_frame(skb, &f) ? read_link(skb, &f, s, &type) : -1;
  if (ip < 0) {
    ask(s, ASK_LINK);
  } else {
    s->eth_proto = bpf_htons(type);
    if (!read_network(skb, &f, s, (__u32)ip, type)) ask(s, ASK_LINK);
  }
  if (s->mode != DONE) open_list(image, h, s, 0);

#pragma clang loop unroll(disable)
  for (int i = 0; i < MAX_STEPS; i++) {
    __u32 mode = s->mode;
    if (mode == DONE) break;
    if (mode == WALK)
      walk_step(image, h, s);
    else if (mode == SCAN)
      scan_step(image, h, s);
    else
      list_step(image, h, s);
  }
  if (s->mode != DONE) ask(s, ASK_STEPS);

  switch (s->verdict) {
    case RULE: {
      const struct nuv_kclfy_tests *t = slot_at(image, h->rule_base + 4 * s->rule + 1);
      count_hits(settings, s, s->rule, t && t->counts);
      skb->mark = (skb->mark & ~settings->mark_mask) | (s->result & settings->mark_mask);
      break;
    }
    case ASK:
      count(&asked, s->ask_reason);
      skb->mark |= settings->ask_mark;
      break;
    default: count_hits(settings, s, 0, 0); break;
  }
  return TC_ACT_OK;
}
