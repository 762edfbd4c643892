// The kernel image of a compiled set: the compiled form's arrays copied
// into 32-byte slots, and each rule's further conditions turned into
// values a program without pointers can test (lists of comparisons into
// sorted intervals, addresses into host-order words, tables into ids).
#include "nuvclfy_kernel.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_compiled_priv.h"
#include "nuvclfy_priv.h"

namespace dp::clfy {
namespace {

static_assert(sizeof(nuv_kclfy_header) == NUV_KCLFY_SLOT_BYTES);
static_assert(sizeof(nuv_kclfy_list) == NUV_KCLFY_SLOT_BYTES);
static_assert(sizeof(nuv_kclfy_ranges) == NUV_KCLFY_SLOT_BYTES);
static_assert(sizeof(nuv_kclfy_tests) == NUV_KCLFY_SLOT_BYTES);
static_assert(sizeof(nuv_kclfy_link) == NUV_KCLFY_SLOT_BYTES);
static_assert(sizeof(nuv_kclfy_more) == NUV_KCLFY_SLOT_BYTES);
static_assert(sizeof(nuv_kclfy_node) == sizeof(Node) && sizeof(nuv_kclfy_ranges) == sizeof(RuleRecord));
static_assert(kFields == NUV_KCLFY_FIELDS && kMaxTrees == NUV_KCLFY_MAX_TREES && kEndOfLeaf == NUV_KCLFY_END_OF_LEAF);

static_assert(NUV_KCLFY_T_DEV == NUV_CLFY_F_DEV && NUV_KCLFY_T_ETH_PROTO == NUV_CLFY_F_ETH_PROTO &&
              NUV_KCLFY_T_ETH_SOURCE == NUV_CLFY_F_ETH_SOURCE && NUV_KCLFY_T_ETH_DEST == NUV_CLFY_F_ETH_DEST &&
              NUV_KCLFY_T_ETH_SOURCEOUI == NUV_CLFY_F_ETH_SOURCEOUI && NUV_KCLFY_T_ETH_DESTOUI == NUV_CLFY_F_ETH_DESTOUI &&
              NUV_KCLFY_T_VLAN_ID == NUV_CLFY_F_VLAN_ID && NUV_KCLFY_T_VLAN_PRIO == NUV_CLFY_F_VLAN_PRIO &&
              NUV_KCLFY_T_ETHSRCTAB == NUV_CLFY_F_ETHSRCTAB && NUV_KCLFY_T_IP_VERSION == NUV_CLFY_F_IP_VERSION &&
              NUV_KCLFY_T_IP_PROTO == NUV_CLFY_F_IP_PROTO && NUV_KCLFY_T_IP_TOS == NUV_CLFY_F_IP_TOS &&
              NUV_KCLFY_T_IP_SADDR == NUV_CLFY_F_IP_SADDR && NUV_KCLFY_T_IP_DADDR == NUV_CLFY_F_IP_DADDR &&
              NUV_KCLFY_T_SPORTS == NUV_CLFY_F_SPORTS && NUV_KCLFY_T_DPORTS == NUV_CLFY_F_DPORTS &&
              NUV_KCLFY_T_IP_LEN == NUV_CLFY_F_IP_LEN && NUV_KCLFY_T_ICMP_TYPE == NUV_CLFY_F_ICMP_TYPE &&
              NUV_KCLFY_T_TCP_FLAGS == NUV_CLFY_F_TCP_FLAGS && NUV_KCLFY_T_IPDSTTAB == NUV_CLFY_F_IPDSTTAB &&
              NUV_KCLFY_T_GROUP_IP == NUV_CLFY_GROUP_IP && NUV_KCLFY_T_LINK_ADDRESSES == kLinkAddressConditions);

constexpr std::uint32_t kRuleSlots = 4;
constexpr std::uint32_t kNodesPerSlot = NUV_KCLFY_SLOT_BYTES / sizeof(Node);
constexpr std::uint32_t kWords = NUV_KCLFY_WORDS_PER_SLOT;

// Conditions only userspace can decide.
constexpr std::uint32_t kAskConditions =
    NUV_CLFY_F_DHCP | NUV_CLFY_F_PACKETMATCH | NUV_CLFY_F_LOCALMARK | NUV_CLFY_F_BRDEV;
static_assert(kAskConditions == NUV_KCLFY_ASK_CONDITIONS);

std::uint32_t slots_for(std::uint32_t count, std::uint32_t per_slot) { return (count + per_slot - 1) / per_slot; }

// ---- Value lists as intervals ----

// The values a list accepts (any entry holds) as sorted, disjoint, not
// adjacent intervals, into `out` (room for 2 * count).  Returns how many.
std::uint32_t list_intervals(const nuv_clfy_valuelist &list, ValueInterval *out) {
  std::uint32_t n = 0;
  for (std::uint32_t i = 0; i < list.count; ++i) n += comparison_intervals(list.entries[i], out + n);
  std::sort(out, out + n, [](const ValueInterval &x, const ValueInterval &y) { return x.lo < y.lo; });
  std::uint32_t merged = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    if (merged && out[i].lo <= out[merged - 1].hi + 1) {
      out[merged - 1].hi = std::max(out[merged - 1].hi, out[i].hi);
    } else {
      out[merged++] = out[i];
    }
  }
  return merged;
}

// Slots an interval list takes: its count word and one word per interval.
std::uint32_t list_slots(std::uint32_t intervals) { return slots_for(1 + intervals, kWords); }

// The length of an IPv6 packet (payload and fixed header) may pass 65535,
// so "greater" tests become intervals open above.
void write_length_test(const nuv_clfy_value &v, nuv_kclfy_tests &t) {
  const std::uint16_t a = v.value1;
  t.ip_len_test = NUV_KCLFY_LEN_WITHIN;
  t.ip_len_lo = 0;
  t.ip_len_hi = 0;
  switch (v.op) {
    case NUV_CLFY_OP_EQ: t.ip_len_lo = t.ip_len_hi = a; break;
    case NUV_CLFY_OP_NE: t.ip_len_test = NUV_KCLFY_LEN_NOT; t.ip_len_lo = a; break;
    case NUV_CLFY_OP_LT:
      if (a == 0) t.ip_len_test = NUV_KCLFY_LEN_NONE;
      t.ip_len_hi = static_cast<std::uint16_t>(a - 1);
      break;
    case NUV_CLFY_OP_LE: t.ip_len_hi = a; break;
    case NUV_CLFY_OP_GT: t.ip_len_test = NUV_KCLFY_LEN_ABOVE; t.ip_len_lo = a; break;
    case NUV_CLFY_OP_GE: t.ip_len_test = NUV_KCLFY_LEN_FROM; t.ip_len_lo = a; break;
    case NUV_CLFY_OP_RANGE:
      if (v.value1 > v.value2) t.ip_len_test = NUV_KCLFY_LEN_NONE;
      t.ip_len_lo = v.value1;
      t.ip_len_hi = v.value2;
      break;
    default: t.ip_len_test = NUV_KCLFY_LEN_FROM; break;  // 0 and unknown codes always hold
  }
}

// ---- Layout ----

class Image {
 public:
  Image(const nuv_clfy_compiled &c, nuv_clfy_kernel_table_id_fn table_id, void *context)
      : c_(c), table_id_(table_id), context_(context) {}
  ~Image() {
    CLFY_FREE(slots_);
    CLFY_FREE(tables_);
    CLFY_FREE(scratch_);
  }
  Image(const Image &) = delete;
  Image &operator=(const Image &) = delete;

  int build();
  // Hands the result over.
  nuv_clfy_kernel_image *release();

 private:
  int check_nesting() const;
  int plan();
  void write_header();
  void write_tree();
  void write_rule(std::uint32_t r);
  void write_tests(const nuv_clfy &rule, nuv_kclfy_tests &t) const;
  void write_link(const nuv_clfy &rule, nuv_kclfy_link &l);
  void write_more(const nuv_clfy &rule, nuv_kclfy_more &m);
  std::uint32_t put_ipv6(const nuv_clfy_ipaddr &addr, std::uint8_t prefixlen);
  std::uint32_t put_list(const nuv_clfy_valuelist &list);
  std::uint32_t id_of(std::uint32_t kind, const void *table);
  std::uint8_t *slot(std::uint32_t i) { return slots_ + std::size_t{i} * NUV_KCLFY_SLOT_BYTES; }
  std::uint32_t *word(std::uint32_t first_slot, std::uint32_t w) {
    return reinterpret_cast<std::uint32_t *>(slot(first_slot + w / kWords)) + w % kWords;
  }

  const nuv_clfy_compiled &c_;
  nuv_clfy_kernel_table_id_fn table_id_;
  void *context_;
  nuv_kclfy_header header_{};
  std::uint32_t value_base_ = 0;
  std::uint32_t next_value_ = 0;
  std::uint32_t ask_rules_ = 0;
  std::uint8_t *slots_ = nullptr;
  nuv_clfy_kernel_table *tables_ = nullptr;
  std::uint32_t table_count_ = 0;
  std::uint32_t table_capacity_ = 0;
  ValueInterval *scratch_ = nullptr;  // room for the longest list's intervals
  std::uint32_t scratch_room_ = 0;
};

// NUV_CLFY_KERNEL_OK when no list is nested deeper than the kernel search
// follows: each list's parent is the list of the rule that opens it, and
// the top-level list (0) is level 1.
int Image::check_nesting() const {
  const std::uint32_t n = c_.list_count;
  auto *parent = static_cast<std::uint32_t *>(CLFY_ZALLOC(sizeof(std::uint32_t) * (n ? n : 1)));
  if (!parent) return NUV_CLFY_KERNEL_E_NO_MEMORY;
  for (std::uint32_t p = 0; p < n; ++p)
    for (std::uint32_t r = c_.lists[p].first_rule; r < c_.lists[p].first_rule + c_.lists[p].rule_count; ++r)
      if (c_.records[r].children && c_.records[r].children <= n) parent[c_.records[r].children - 1] = p;
  bool fits = true;
  for (std::uint32_t l = 1; l < n && fits; ++l) {
    std::uint32_t level = 1;
    for (std::uint32_t list = l; list != 0 && level <= NUV_KCLFY_MAX_NESTING; list = parent[list]) ++level;
    fits = level <= NUV_KCLFY_MAX_NESTING;
  }
  CLFY_FREE(parent);
  return fits ? NUV_CLFY_KERNEL_OK : NUV_CLFY_KERNEL_E_TOO_BIG;
}

// Counts the slots: sections in order, then the values rules refer to.
int Image::plan() {
  if (c_.rule_count > NUV_KCLFY_MAX_RULES) return NUV_CLFY_KERNEL_E_TOO_BIG;
  if (const int rc = check_nesting(); rc != NUV_CLFY_KERNEL_OK) return rc;
  std::uint64_t at = 2;
  header_.magic = NUV_KCLFY_MAGIC;
  header_.rule_count = c_.rule_count;
  header_.list_count = c_.list_count;
  header_.node_base = static_cast<std::uint32_t>(at);
  at += slots_for(c_.node_count, kNodesPerSlot);
  header_.entry_base = static_cast<std::uint32_t>(at);
  at += slots_for(c_.entry_count, kWords);
  header_.list_base = static_cast<std::uint32_t>(at);
  at += c_.list_count;
  header_.rule_base = static_cast<std::uint32_t>(at);
  at += std::uint64_t{kRuleSlots} * c_.rule_count;
  value_base_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(at, NUV_KCLFY_MAX_SLOTS));
  std::uint32_t longest = 0;
  for (std::uint32_t r = 0; r < c_.rule_count; ++r) {
    const nuv_clfy &rule = *c_.rules[r];
    const std::uint32_t flags = rule.flags;
    if ((flags & NUV_CLFY_F_IP_SADDR) && rule.ip_saddr_family == wire::kFamilyIpv6) ++at;
    if ((flags & NUV_CLFY_F_IP_DADDR) && rule.ip_daddr_family == wire::kFamilyIpv6) ++at;
    // Each entry gives at most two intervals.
    if (flags & NUV_CLFY_F_VLAN_ID) at += list_slots(2 * rule.vlan_ids.count), longest = std::max(longest, rule.vlan_ids.count);
    if (flags & NUV_CLFY_F_SPORTS) at += list_slots(2 * rule.sports.count), longest = std::max(longest, rule.sports.count);
    if (flags & NUV_CLFY_F_DPORTS) at += list_slots(2 * rule.dports.count), longest = std::max(longest, rule.dports.count);
    if (at > NUV_KCLFY_MAX_SLOTS) return NUV_CLFY_KERNEL_E_TOO_BIG;
  }
  header_.slot_count = static_cast<std::uint32_t>(at);
  scratch_room_ = 2 * longest + 2;
  scratch_ = static_cast<ValueInterval *>(CLFY_ZALLOC(sizeof(ValueInterval) * scratch_room_));
  slots_ = static_cast<std::uint8_t *>(CLFY_ZALLOC(std::size_t{header_.slot_count} * NUV_KCLFY_SLOT_BYTES));
  if (!scratch_ || !slots_) return NUV_CLFY_KERNEL_E_NO_MEMORY;
  next_value_ = value_base_;
  return NUV_CLFY_KERNEL_OK;
}

void Image::write_header() { std::memcpy(slot(0), &header_, sizeof header_); }

void Image::write_tree() {
  std::memcpy(slot(header_.node_base), c_.nodes, sizeof(Node) * c_.node_count);
  std::memcpy(slot(header_.entry_base), c_.entries, sizeof(std::uint32_t) * c_.entry_count);
  for (std::uint32_t l = 0; l < c_.list_count; ++l) {
    const ListRecord &in = c_.lists[l];
    nuv_kclfy_list out{};
    std::memcpy(out.root, in.root, sizeof out.root);
    out.trees = in.trees;
    out.first_rule = in.first_rule;
    out.rule_count = in.rule_count;
    std::memcpy(slot(header_.list_base + l), &out, sizeof out);
  }
}

void Image::write_tests(const nuv_clfy &rule, nuv_kclfy_tests &t) const {
  t.flags = rule.flags;
  t.result = rule.result;
  t.kind = (rule.flags & kAskConditions)                                          ? NUV_KCLFY_KIND_ASK
           : (rule.flags && !(rule.flags & (NUV_CLFY_GROUP_IP | kConditionsBeforeIp))) ? NUV_KCLFY_KIND_NEVER
                                                                                       : NUV_KCLFY_KIND_DECIDE;
  t.counts = rule.flags != 0;
  t.dev_ifindex = rule.dev_ifindex;
  t.eth_proto = rule.eth_proto;
  t.vlan_prio = rule.vlan_prio;
  t.ip_version = rule.ip_version;
  t.ip_proto = rule.ip_proto;
  t.ip_tos = rule.ip_tos;
  t.ip_tos_mask = rule.ip_tos_mask;
  t.icmp_type = rule.icmp_type;
  t.tcp_flags = net_to_host16(rule.tcp_flags);
  t.tcp_flags_mask = net_to_host16(rule.tcp_flags_mask);
  write_length_test(rule.ip_len, t);
  t.saddr_family = rule.ip_saddr_family;
  t.daddr_family = rule.ip_daddr_family;
}

std::uint32_t Image::id_of(std::uint32_t kind, const void *table) {
  if (!table) return 0;  // no table: the condition holds for no packet
  for (std::uint32_t i = 0; i < table_count_; ++i)
    if (tables_[i].table == table) return tables_[i].id;
  if (table_count_ == table_capacity_) {
    const std::uint32_t capacity = table_capacity_ ? 2 * table_capacity_ : 4;
    auto *grown = static_cast<nuv_clfy_kernel_table *>(CLFY_ZALLOC(sizeof(nuv_clfy_kernel_table) * capacity));
    if (!grown) return 0;
    if (tables_) std::memcpy(grown, tables_, sizeof(nuv_clfy_kernel_table) * table_count_);
    CLFY_FREE(tables_);
    tables_ = grown;
    table_capacity_ = capacity;
  }
  const std::uint32_t id = table_id_ ? table_id_(context_, kind, table) : table_count_ + 1;
  tables_[table_count_++] = nuv_clfy_kernel_table{id, kind, table};
  return id;
}

void Image::write_link(const nuv_clfy &rule, nuv_kclfy_link &l) {
  const std::uint32_t flags = rule.flags;
  std::memcpy(l.eth_dest, rule.eth_dest, 6);
  std::memcpy(l.eth_source, rule.eth_source, 6);
  l.eth_dest_length = (flags & NUV_CLFY_F_ETH_DEST) ? 6 : (flags & NUV_CLFY_F_ETH_DESTOUI) ? 3 : 0;
  l.eth_source_length = (flags & NUV_CLFY_F_ETH_SOURCE) ? 6 : (flags & NUV_CLFY_F_ETH_SOURCEOUI) ? 3 : 0;
  if (flags & NUV_CLFY_F_ETHSRCTAB) l.ethsrctab = id_of(NUV_KCLFY_TABLE_ETHERSRC, rule.ethsrctab);
  if (flags & NUV_CLFY_F_IPDSTTAB) l.ipdsttab = id_of(NUV_KCLFY_TABLE_IPDST, rule.ipdsttab);
  l.saddr4 = load_be32(rule.ip_saddr.v6);
  l.smask4 = load_be32(rule.ip_saddr.v6 + 4);
}

std::uint32_t Image::put_ipv6(const nuv_clfy_ipaddr &addr, std::uint8_t prefixlen) {
  const std::uint32_t at = next_value_++;
  std::memcpy(slot(at), addr.v6, 16);
  // The mask of the prefix: a length beyond the address means all of it.
  const unsigned bits = prefixlen > 128 ? 128u : prefixlen;
  for (unsigned i = 0; i < 16; ++i) {
    const unsigned start = 8 * i;
    slot(at)[16 + i] = bits >= start + 8 ? 0xff : bits > start ? static_cast<std::uint8_t>(0xff << (start + 8 - bits)) : 0;
  }
  return at;
}

std::uint32_t Image::put_list(const nuv_clfy_valuelist &list) {
  const std::uint32_t n = list_intervals(list, scratch_);
  const std::uint32_t at = next_value_;
  *word(at, 0) = n;
  for (std::uint32_t i = 0; i < n; ++i) *word(at, i + 1) = scratch_[i].lo | (scratch_[i].hi << 16);
  next_value_ += list_slots(n);
  return at;
}

void Image::write_more(const nuv_clfy &rule, nuv_kclfy_more &m) {
  const std::uint32_t flags = rule.flags;
  m.daddr4 = load_be32(rule.ip_daddr.v6);
  m.dmask4 = load_be32(rule.ip_daddr.v6 + 4);
  if ((flags & NUV_CLFY_F_IP_SADDR) && rule.ip_saddr_family == wire::kFamilyIpv6)
    m.saddr6_slot = put_ipv6(rule.ip_saddr, rule.ip_saddr_prefixlen);
  if ((flags & NUV_CLFY_F_IP_DADDR) && rule.ip_daddr_family == wire::kFamilyIpv6)
    m.daddr6_slot = put_ipv6(rule.ip_daddr, rule.ip_daddr_prefixlen);
  if (flags & NUV_CLFY_F_VLAN_ID) m.vlan_slot = put_list(rule.vlan_ids);
  if (flags & NUV_CLFY_F_SPORTS) m.sport_slot = put_list(rule.sports);
  if (flags & NUV_CLFY_F_DPORTS) m.dport_slot = put_list(rule.dports);
}

void Image::write_rule(std::uint32_t r) {
  const nuv_clfy &rule = *c_.rules[r];
  const std::uint32_t base = header_.rule_base + kRuleSlots * r;
  std::memcpy(slot(base), &c_.records[r], sizeof(RuleRecord));
  nuv_kclfy_tests tests{};
  write_tests(rule, tests);
  if (tests.kind == NUV_KCLFY_KIND_ASK) ++ask_rules_;
  std::memcpy(slot(base + 1), &tests, sizeof tests);
  nuv_kclfy_link link{};
  write_link(rule, link);
  std::memcpy(slot(base + 2), &link, sizeof link);
  nuv_kclfy_more more{};
  write_more(rule, more);
  std::memcpy(slot(base + 3), &more, sizeof more);
}

int Image::build() {
  const int rc = plan();
  if (rc != NUV_CLFY_KERNEL_OK) return rc;
  write_header();
  write_tree();
  for (std::uint32_t r = 0; r < c_.rule_count; ++r) write_rule(r);
  // A table id of 0 means the table list could not grow.
  for (std::uint32_t r = 0; r < c_.rule_count; ++r) {
    const nuv_clfy &rule = *c_.rules[r];
    const auto *link = reinterpret_cast<const nuv_kclfy_link *>(slot(header_.rule_base + kRuleSlots * r + 2));
    if (((rule.flags & NUV_CLFY_F_ETHSRCTAB) && rule.ethsrctab && !link->ethsrctab) ||
        ((rule.flags & NUV_CLFY_F_IPDSTTAB) && rule.ipdsttab && !link->ipdsttab))
      return NUV_CLFY_KERNEL_E_NO_MEMORY;
  }
  return NUV_CLFY_KERNEL_OK;
}

nuv_clfy_kernel_image *Image::release() {
  auto *image = static_cast<nuv_clfy_kernel_image *>(CLFY_ZALLOC(sizeof(nuv_clfy_kernel_image)));
  nuv_clfy **rules = nullptr;
  if (c_.rule_count) rules = static_cast<nuv_clfy **>(CLFY_ZALLOC(sizeof(nuv_clfy *) * c_.rule_count));
  if (!image || (c_.rule_count && !rules)) {
    CLFY_FREE(image);
    CLFY_FREE(rules);
    return nullptr;
  }
  if (rules) std::memcpy(rules, c_.rules, sizeof(nuv_clfy *) * c_.rule_count);
  image->slot_count = header_.slot_count;
  image->rule_count = c_.rule_count;
  image->table_count = table_count_;
  image->ask_rules = ask_rules_;
  image->slots = slots_;
  image->rules = rules;
  image->tables = tables_;
  slots_ = nullptr;
  tables_ = nullptr;
  return image;
}

}  // namespace
}  // namespace dp::clfy

extern "C" {

int nuv_clfy_compiled_kernel_image(const nuv_clfy_compiled *compiled, nuv_clfy_kernel_table_id_fn table_id,
                                   void *context, nuv_clfy_kernel_image **out) {
  if (!compiled || !out) return NUV_CLFY_KERNEL_E_INVALID;
  dp::clfy::Image image(*compiled, table_id, context);
  const int rc = image.build();
  if (rc != NUV_CLFY_KERNEL_OK) return rc;
  nuv_clfy_kernel_image *result = image.release();
  if (!result) return NUV_CLFY_KERNEL_E_NO_MEMORY;
  *out = result;
  return NUV_CLFY_KERNEL_OK;
}

void nuv_clfy_kernel_image_free(nuv_clfy_kernel_image *image) {
  if (!image) return;
  CLFY_FREE(image->slots);
  CLFY_FREE(image->rules);
  CLFY_FREE(image->tables);
  CLFY_FREE(image);
}

}  // extern "C"
