// Compiled rule sets: a decision tree per rule list over five header
// fields, built once from a set and owned by the caller.
//
// Every list of the set (the top-level list and each sub-list) gets a tree
// (a long list one per kind of rule, see ListRecord) whose nodes cut the
// region of one field into equal pieces: the IPv4 source and destination
// address, the source and destination port and the protocol.  A leaf holds, in list order, the rules whose conditions on
// those fields can hold for a packet whose values lie in the leaf's region,
// up to the first rule that holds for every packet there.  The search walks
// to the leaf of the packet's values and tries the leaf's rules in order: a
// rule whose five ranges are all it asks is decided by them, any other
// through the one test sequence.  A rule left out of the leaf fails one of
// the five fields, which the sequence tests before anything with a side
// effect (DHCP learning, hit counting), or comes behind a rule that takes
// the packet; so the verdict, the hits and the DHCP clients learned are
// those of trying every rule of the list.
//
// A field the packet lacks (no IPv4 address, no readable port, no protocol)
// takes the value 0 on the walk; rules that test that field are turned away
// at the leaf by their record's `needs` bits.
//
// Everything lives in flat arrays addressed by index (rules, their records,
// nodes, leaf entries, lists), with small integer fields, so the same form
// can be walked with bounded loops by code that has no pointers.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_compiled_priv.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"

namespace dp::clfy {
namespace {

// ---- Building records ----

// Width of each field's whole range in bits, and its largest value.
constexpr std::uint8_t kFieldBits[kFields] = {32, 32, 16, 16, 8};
constexpr std::uint32_t field_max(unsigned f) { return kFieldBits[f] == 32 ? ~0u : (1u << kFieldBits[f]) - 1u; }

// What a rule asks of the five fields, as the tree is built: for each, the
// smallest range that holds every value its conditions accept (the whole
// field when it has no condition on it), and which fields the packet must
// have at all.
struct RuleBounds {
  std::uint32_t lo[kFields];
  std::uint32_t hi[kFields];
  std::uint8_t needs;   // kNeed* bits
  std::uint8_t covers;  // 1: the ranges are the whole rule (it has no other condition and no sub-rules), so
                        // it matches every packet inside them that has the fields it needs
  std::uint32_t children;  // 1 + index of its sub-list, 0 for none
};

RuleRecord packed(const RuleBounds &b) {
  RuleRecord r{};
  r.source_lo = b.lo[kSource];
  r.source_hi = b.hi[kSource];
  r.destination_lo = b.lo[kDestination];
  r.destination_hi = b.hi[kDestination];
  r.source_port_lo = static_cast<std::uint16_t>(b.lo[kSourcePort]);
  r.source_port_hi = static_cast<std::uint16_t>(b.hi[kSourcePort]);
  r.destination_port_lo = static_cast<std::uint16_t>(b.lo[kDestinationPort]);
  r.destination_port_hi = static_cast<std::uint16_t>(b.hi[kDestinationPort]);
  r.protocol_lo = static_cast<std::uint8_t>(b.lo[kProtocol]);
  r.protocol_hi = static_cast<std::uint8_t>(b.hi[kProtocol]);
  r.needs = b.needs;
  r.covers = b.covers;
  r.children = b.children;
  return r;
}

// The packet's five values and which of them it has.
struct Keys {
  std::uint32_t value[kFields];
  std::uint8_t has;
};

// Most rules of all levels, and the deepest nesting of sub-lists: the
// indexes are 32-bit, and the search keeps one place per level.
constexpr std::uint32_t kMaxRules = 1u << 24;
constexpr std::uint32_t kMaxNesting = 32;
// A leaf of at most this many rules is not split further.
constexpr std::uint32_t kLeafRules = 4;
// A set of one list of at most this many rules is searched rule by rule.
constexpr std::uint32_t kDirectRules = 2;
// Decisions on the way to a leaf, at most.
constexpr std::uint32_t kMaxDepth = 16;
// Nodes and leaf entries a tree may take: this many per rule and this many
// more.
constexpr std::uint64_t kShareFactor = 256;
constexpr std::uint64_t kShareBase = 65536;

}  // namespace
}  // namespace dp::clfy

namespace dp::clfy {
namespace {

// ---- A growable array from the classifier's allocator ----

template <class T>
class Grow {
 public:
  Grow() = default;
  Grow(const Grow &) = delete;
  Grow &operator=(const Grow &) = delete;
  ~Grow() { CLFY_FREE(data_); }

  bool push(const T &value) {
    if (size_ == capacity_ && !grow()) return false;
    data_[size_++] = value;
    return true;
  }
  T &operator[](std::uint32_t i) { return data_[i]; }
  const T &operator[](std::uint32_t i) const { return data_[i]; }
  std::uint32_t size() const { return size_; }
  std::uint32_t bytes() const { return capacity_ * static_cast<std::uint32_t>(sizeof(T)); }
  T *data() { return data_; }
  // Hands the array over; this object is empty afterwards.
  T *release() {
    T *data = data_;
    data_ = nullptr;
    size_ = capacity_ = 0;
    return data;
  }

 private:
  bool grow() {
    const std::uint32_t capacity = capacity_ ? capacity_ * 2 : 16;
    if (capacity > (0x7fffffffu / sizeof(T))) return false;
    T *data = static_cast<T *>(CLFY_ZALLOC(capacity * sizeof(T)));
    if (!data) return false;
    if (size_) std::memcpy(data, data_, size_ * sizeof(T));
    CLFY_FREE(data_);
    data_ = data;
    capacity_ = capacity;
    return true;
  }

  T *data_ = nullptr;
  std::uint32_t size_ = 0;
  std::uint32_t capacity_ = 0;
};

// A block from the classifier's allocator, freed when the scope ends.
template <class T>
class Scratch {
 public:
  explicit Scratch(std::uint32_t count)
      : data_(count ? static_cast<T *>(CLFY_ZALLOC(std::size_t{count} * sizeof(T))) : nullptr), ok_(!count || data_) {}
  Scratch(const Scratch &) = delete;
  Scratch &operator=(const Scratch &) = delete;
  ~Scratch() { CLFY_FREE(data_); }
  explicit operator bool() const { return ok_; }
  T *get() const { return data_; }

 private:
  T *data_;
  bool ok_;
};

// ---- What a rule asks of the five fields ----

struct Range {
  std::uint32_t lo, hi;
  bool empty() const { return lo > hi; }
};

constexpr Range kNoValue{1, 0};

// The smallest range holding the values one comparison accepts.
Range comparison_range(const nuv_clfy_value &v) {
  ValueInterval parts[2];
  const std::uint32_t n = comparison_intervals(v, parts);
  return n ? Range{parts[0].lo, parts[n - 1].hi} : kNoValue;
}

// The smallest range holding every value some entry of `list` accepts;
// empty for an empty list, which never holds.
Range list_range(const nuv_clfy_valuelist &list) {
  Range hull = kNoValue;
  for (std::uint32_t i = 0; i < list.count; ++i) {
    const Range r = comparison_range(list.entries[i]);
    if (r.empty()) continue;
    hull = hull.empty() ? r : Range{std::min(hull.lo, r.lo), std::max(hull.hi, r.hi)};
  }
  return hull;
}

// Whether the list accepts exactly the values of its range.
bool list_is_one_range(const nuv_clfy_valuelist &list) {
  return list.count == 1 && list.entries[0].op != NUV_CLFY_OP_NE;
}

// The addresses x with (x & mask) == addr: a range, empty when addr has bits
// outside the mask.  `exact` says whether the range holds nothing else
// (the mask is a prefix).
Range address_range(const nuv_clfy_ipaddr &stored, bool &exact) {
  const std::uint32_t addr = load_be32(stored.v6);
  const std::uint32_t mask = load_be32(stored.v6 + 4);
  const std::uint32_t host = ~mask;
  exact = (host & (host + 1u)) == 0;
  if (addr & host) return kNoValue;
  return {addr, addr | host};
}

constexpr std::uint32_t kRecordedConditions = NUV_CLFY_F_IP_SADDR | NUV_CLFY_F_IP_DADDR | NUV_CLFY_F_SPORTS |
                                              NUV_CLFY_F_DPORTS | NUV_CLFY_F_IP_PROTO;

RuleBounds record_of(const nuv_clfy &rule) {
  RuleBounds r{};
  for (unsigned f = 0; f < kFields; ++f) r.hi[f] = field_max(f);
  const std::uint32_t flags = rule.flags;
  bool exact = (flags & ~(kRecordedConditions | NUV_CLFY_F_ETH_PROTO)) == 0 && !rule.children;
  auto restrict_to = [&r](Field field, Range range) {
    r.lo[field] = range.lo;
    r.hi[field] = range.hi;
    r.needs |= static_cast<std::uint8_t>(1u << field);
  };
  auto address = [&](Field field, std::uint32_t bit, const nuv_clfy_ipaddr &stored, std::uint8_t family) {
    if (!(flags & bit)) return;
    if (family != wire::kFamilyIpv4) {
      exact = false;  // an IPv6 address is left to the sequence
      return;
    }
    bool prefix = false;
    restrict_to(field, address_range(stored, prefix));
    exact = exact && prefix;
  };
  address(kSource, NUV_CLFY_F_IP_SADDR, rule.ip_saddr, rule.ip_saddr_family);
  address(kDestination, NUV_CLFY_F_IP_DADDR, rule.ip_daddr, rule.ip_daddr_family);
  if (flags & NUV_CLFY_F_SPORTS) {
    restrict_to(kSourcePort, list_range(rule.sports));
    exact = exact && list_is_one_range(rule.sports);
  }
  if (flags & NUV_CLFY_F_DPORTS) {
    restrict_to(kDestinationPort, list_range(rule.dports));
    exact = exact && list_is_one_range(rule.dports);
  }
  if (flags & NUV_CLFY_F_IP_PROTO) restrict_to(kProtocol, {rule.ip_proto, rule.ip_proto});
  // A packet with an IPv4 address has the IPv4 Ethernet type: the Ethernet
  // type condition of an IPv4 address rule asks nothing more.
  if (flags & NUV_CLFY_F_ETH_PROTO)
    exact = exact && rule.eth_proto == host_to_net16(wire::kEtherTypeIpv4) &&
            (r.needs & (kNeedSource | kNeedDestination));
  r.covers = exact ? 1 : 0;
  return r;
}

bool record_can_match(const RuleBounds &r) {
  for (unsigned f = 0; f < kFields; ++f)
    if (r.lo[f] > r.hi[f]) return false;
  return true;
}

// ---- Building ----

// A region of the five fields: lo[f] .. hi[f] each.
struct Box {
  std::uint32_t lo[kFields];
  std::uint32_t hi[kFields];
};

// Whether every packet with values in `box` satisfies the rule.  A field
// the rule needs must start above 0 in the box, since 0 also stands for a
// packet without that field.
bool covers(const RuleBounds &r, const Box &box) {
  if (!r.covers) return false;
  for (unsigned f = 0; f < kFields; ++f) {
    if (!(r.needs & (1u << f))) continue;
    if (box.lo[f] == 0 || r.lo[f] > box.lo[f] || box.hi[f] > r.hi[f]) return false;
  }
  return true;
}

// Most bits one cut takes, and how many copies of its rules a cut may make
// (times the rules of the node, plus its pieces) before it is too costly.
constexpr std::uint32_t kMaxCutBits = 8;
constexpr std::uint32_t kSpaceFactor = 4;

struct Cut {
  std::uint8_t field = kFields;
  std::uint8_t bits = 0;
  std::uint32_t worst = 0;  // rules in the fullest piece
  std::uint32_t total = 0;  // rules in all pieces together
};

class Builder {
 public:
  explicit Builder(Grow<RuleBounds> &records) : records_(records) {}

  Grow<Node> nodes;
  Grow<std::uint32_t> entries;
  std::uint32_t depth = 0;

  // The tree of rules ids[0..n-1] (ascending) inside `box`, whose region of
  // field f is 2^width[f] values wide, in at most `share` nodes and leaf
  // entries; its root node in `root`.
  bool build(const std::uint32_t *ids, std::uint32_t n, const Box &box, const std::uint8_t *width,
             std::uint32_t level, std::uint64_t share, Node &root) {
    // Behind a rule that matches every packet of the region, nothing is
    // ever tried.
    for (std::uint32_t i = 0; i < n; ++i)
      if (covers(records_[ids[i]], box)) {
        n = i + 1;
        break;
      }
    if (level > depth) depth = level;
    Cut cut;
    if (n > kLeafRules && level < kMaxDepth && share > 2u * std::uint64_t{n}) cut = best_cut(ids, n, box, width);
    if (cut.field == kFields) return leaf(ids, n, root);
    return cut_node(ids, n, box, width, level, cut, share, root);
  }

 private:
  bool leaf(const std::uint32_t *ids, std::uint32_t n, Node &root) {
    root = Node{};
    root.field = kFields;
    root.first = entries.size();
    for (std::uint32_t i = 0; i < n; ++i)
      if (!entries.push(ids[i])) return false;
    return entries.push(kEndOfLeaf);
  }

  // The first and last piece of `cut` that the rule's range reaches.
  static void pieces_of(const RuleBounds &r, Field f, const Box &box, unsigned shift, std::uint32_t &first,
                        std::uint32_t &last) {
    const std::uint32_t lo = std::max(r.lo[f], box.lo[f]) - box.lo[f];
    const std::uint32_t hi = std::min(r.hi[f], box.hi[f]) - box.lo[f];
    first = shift >= 32 ? 0 : lo >> shift;
    last = shift >= 32 ? 0 : hi >> shift;
  }

  // For each field the widest cut within the space factor; of those, the
  // one that leaves the fewest rules in its fullest piece (then the fewest
  // copies).
  Cut best_cut(const std::uint32_t *ids, std::uint32_t n, const Box &box, const std::uint8_t *width) {
    Cut best;
    std::uint32_t count[(1u << kMaxCutBits) + 1];
    for (unsigned f = 0; f < kFields; ++f) {
      Cut widest;
      for (unsigned bits = 1; bits <= kMaxCutBits && bits <= width[f]; ++bits) {
        const std::uint32_t pieces = 1u << bits;
        const unsigned shift = width[f] - bits;
        std::memset(count, 0, sizeof(std::uint32_t) * (pieces + 1));
        std::uint32_t total = 0;
        for (std::uint32_t i = 0; i < n; ++i) {
          std::uint32_t first, last;
          pieces_of(records_[ids[i]], static_cast<Field>(f), box, shift, first, last);
          ++count[first];
          --count[last + 1];
          total += last - first + 1;
        }
        if (total > kSpaceFactor * n + pieces) break;
        // A cut that leaves every rule in every piece gains nothing.
        if (total == n * pieces) continue;
        std::uint32_t worst = 0, running = 0;
        for (std::uint32_t p = 0; p < pieces; ++p) worst = std::max(worst, running += count[p]);
        widest = Cut{static_cast<std::uint8_t>(f), static_cast<std::uint8_t>(bits), worst, total};
      }
      if (widest.field == kFields) continue;
      if (best.field == kFields || widest.worst < best.worst ||
          (widest.worst == best.worst && widest.total < best.total))
        best = widest;
    }
    return best;
  }

  // What a piece of `n` rules may spend of the share of a cut into `pieces`:
  // the share less the cut's own nodes, in proportion to the rules.  A
  // region with many rules may grow a deep tree, while one budget spent
  // region after region would leave the regions built last long leaves.
  static std::uint64_t piece_share(std::uint64_t share, std::uint32_t pieces, std::uint32_t n, const Cut &cut) {
    if (share <= pieces || cut.total == 0) return 0;
    return (share - pieces) * n / cut.total;
  }

  // Whether every rule of ids[0..n-1] takes every value lo..hi of field f.
  // Then the subtree of one piece serves its neighbour too: no rule tells
  // the two apart, so neither do the rules that cover a region.  (Piece 0
  // is never shared: its value 0 also stands for a packet without the
  // field.)
  bool all_span(const std::uint32_t *ids, std::uint32_t n, Field f, std::uint32_t lo, std::uint32_t hi) const {
    for (std::uint32_t i = 0; i < n; ++i) {
      const RuleBounds &r = records_[ids[i]];
      if (r.lo[f] > lo || r.hi[f] < hi) return false;
    }
    return true;
  }

  bool cut_node(const std::uint32_t *ids, std::uint32_t n, const Box &box, const std::uint8_t *width,
                std::uint32_t level, const Cut &cut, std::uint64_t share, Node &root) {
    const Field f = static_cast<Field>(cut.field);
    const std::uint32_t pieces = 1u << cut.bits;
    const unsigned shift = width[f] - cut.bits;
    root = Node{};
    root.field = f;
    root.shift = static_cast<std::uint8_t>(shift);
    root.mask = static_cast<std::uint16_t>(pieces - 1);
    root.first = nodes.size();
    for (std::uint32_t p = 0; p < pieces; ++p)
      if (!nodes.push(Node{})) return false;
    // Two lists of the rules of a piece: the previous piece's and this one's.
    Scratch<std::uint32_t> lists(2 * n);
    if (!lists) return false;
    std::uint32_t *previous = lists.get(), *current = lists.get() + n;
    std::uint32_t n_previous = 0;
    std::uint8_t child_width[kFields];
    std::memcpy(child_width, width, sizeof child_width);
    child_width[f] = static_cast<std::uint8_t>(shift);
    for (std::uint32_t p = 0; p < pieces; ++p) {
      std::uint32_t n_current = 0;
      for (std::uint32_t i = 0; i < n; ++i) {
        std::uint32_t first, last;
        pieces_of(records_[ids[i]], f, box, shift, first, last);
        if (first <= p && p <= last) current[n_current++] = ids[i];
      }
      Box piece = box;
      piece.lo[f] = box.lo[f] + (p << shift);
      piece.hi[f] = piece.lo[f] + ((1u << shift) - 1u);
      Node child;
      if (p > 1 && n_current == n_previous && std::equal(current, current + n_current, previous) &&
          all_span(current, n_current, f, piece.lo[f] - (1u << shift), piece.hi[f])) {
        child = nodes[root.first + p - 1];
      } else if (!build(current, n_current, piece, child_width, level + 1, piece_share(share, pieces, n_current, cut),
                        child)) {
        return false;
      }
      nodes[root.first + p] = child;
      std::swap(previous, current);
      n_previous = n_current;
    }
    return true;
  }

  Grow<RuleBounds> &records_;
};

Box whole_fields() {
  Box box{};
  for (unsigned f = 0; f < kFields; ++f) box.hi[f] = field_max(f);
  return box;
}

// The lists of the set, breadth first, each with its rules numbered in list
// order; each rule's record names its sub-list.
int gather_lists(const nuv_clfy_set &set, Grow<nuv_clfy *> &rules, Grow<RuleBounds> &records,
                 Grow<ListRecord> &lists, Grow<nuv_clfy *> &heads, Grow<std::uint32_t> &nesting) {
  if (!heads.push(set.head) || !nesting.push(0) || !lists.push(ListRecord{})) return NUV_CLFY_COMPILE_E_NO_MEMORY;
  for (std::uint32_t l = 0; l < heads.size(); ++l) {
    lists[l].first_rule = rules.size();
    for (nuv_clfy *rule = heads[l]; rule; rule = rule->next) {
      if (rules.size() >= kMaxRules) return NUV_CLFY_COMPILE_E_TOO_BIG;
      RuleBounds record = record_of(*rule);
      if (rule->children) {
        if (nesting[l] + 1 >= kMaxNesting) return NUV_CLFY_COMPILE_E_TOO_BIG;
        record.children = heads.size() + 1;
        if (!heads.push(rule->children) || !nesting.push(nesting[l] + 1) || !lists.push(ListRecord{}))
          return NUV_CLFY_COMPILE_E_NO_MEMORY;
      }
      if (!rules.push(rule) || !records.push(record)) return NUV_CLFY_COMPILE_E_NO_MEMORY;
    }
    lists[l].rule_count = rules.size() - lists[l].first_rule;
  }
  return NUV_CLFY_COMPILE_OK;
}

// Lists shorter than this get one tree: walking more costs more than the
// copies it saves.
constexpr std::uint32_t kPartedListRules = 64;
// An address range this wide or wider (a prefix of /4 or shorter) is open.
constexpr std::uint32_t kOpenAddressSpan = (1u << 28) - 1u;

// The part of a rule: bit 0 when its source is open, bit 1 when its
// destination is.
std::uint32_t part_of(const RuleBounds &r) {
  return (r.hi[kSource] - r.lo[kSource] >= kOpenAddressSpan ? 1u : 0u) |
         (r.hi[kDestination] - r.lo[kDestination] >= kOpenAddressSpan ? 2u : 0u);
}

// The trees of `list`: its rules that can match at all, in list order, in
// one tree or one per part.
bool build_list(Builder &builder, Grow<RuleBounds> &records, ListRecord &list) {
  const std::uint32_t n = list.rule_count;
  Scratch<std::uint32_t> scratch(n);
  if (!scratch) return false;
  std::uint32_t *ids = scratch.get();
  const bool parted = n >= kPartedListRules;
  list.trees = 0;
  for (std::uint32_t part = 0; part < (parted ? kMaxTrees : 1u); ++part) {
    std::uint32_t kept = 0;
    for (std::uint32_t i = 0; i < n; ++i) {
      const RuleBounds &r = records[list.first_rule + i];
      if (record_can_match(r) && (!parted || part_of(r) == part)) ids[kept++] = list.first_rule + i;
    }
    if (parted && kept == 0) continue;
    // Nodes and leaf entries the tree may take: past this, regions stay
    // leaves of more rules (slower, never wrong).
    const std::uint64_t share = kShareFactor * std::uint64_t{kept} + kShareBase;
    Node root;
    if (!builder.build(ids, kept, whole_fields(), kFieldBits, 0, share, root)) return false;
    list.root[list.trees++] = builder.nodes.size();
    if (!builder.nodes.push(root)) return false;
  }
  if (list.trees == 0) {
    // No rule of the list can match: one empty tree.
    Node root;
    if (!builder.build(ids, 0, whole_fields(), kFieldBits, 0, 0, root)) return false;
    list.root[list.trees++] = builder.nodes.size();
    if (!builder.nodes.push(root)) return false;
  }
  return true;
}

void free_compiled(nuv_clfy_compiled *c) {
  if (!c) return;
  CLFY_FREE(c->rules);
  CLFY_FREE(c->records);
  CLFY_FREE(c->lists);
  CLFY_FREE(c->nodes);
  CLFY_FREE(c->entries);
  CLFY_FREE(c);
}

// ---- Searching ----

// The packet's five values, read as the test sequence reads them (which
// it then does no more for the rules it tries).
inline void read_keys(PacketFacts &facts, Keys &keys) {
  read_network_here(facts);
  keys = Keys{};
  if (!facts.family) return;
  read_transport_here(facts);
  if (facts.family == wire::kFamilyIpv4) {
    keys.value[kSource] = load_be32(facts.ip + 12);
    keys.value[kDestination] = load_be32(facts.ip + 16);
    keys.has = kNeedSource | kNeedDestination;
  }
  keys.value[kSourcePort] = facts.sport;
  keys.value[kDestinationPort] = facts.dport;
  keys.has |= static_cast<std::uint8_t>(((facts.readable & kHasSport) ? kNeedSourcePort : 0) |
                                        ((facts.readable & kHasDport) ? kNeedDestinationPort : 0));
  if (facts.proto_key != kProtoUnreadable) {
    keys.value[kProtocol] = facts.proto;
    keys.has |= kNeedProtocol;
  }
}

// One test of all five ranges without a branch per field: the processor
// cannot guess which field turns a rule away.
inline bool outside(std::uint32_t value, std::uint32_t lo, std::uint32_t hi) { return value - lo > hi - lo; }

inline bool record_holds(const RuleRecord &r, const Keys &keys) {
  const unsigned missing = (r.needs & ~keys.has) != 0;
  return !(missing | outside(keys.value[kSource], r.source_lo, r.source_hi) |
           outside(keys.value[kDestination], r.destination_lo, r.destination_hi) |
           outside(keys.value[kSourcePort], r.source_port_lo, r.source_port_hi) |
           outside(keys.value[kDestinationPort], r.destination_port_lo, r.destination_port_hi) |
           outside(keys.value[kProtocol], r.protocol_lo, r.protocol_hi));
}

inline const Node &leaf_of(const nuv_clfy_compiled &c, std::uint32_t root, const Keys &keys) {
  const Node *node = &c.nodes[root];
  while (node->field < kFields)
    node = &c.nodes[node->first + ((keys.value[node->field] >> node->shift) & node->mask)];
  return *node;
}

// Where the search stands in one list: the next entry of the leaf it
// reached in each of the list's trees.
struct Cursor {
  const std::uint32_t *at[kMaxTrees];
  std::uint32_t trees;
};

inline void open_list(const nuv_clfy_compiled &c, std::uint32_t list, const Keys &keys, Cursor &cursor) {
  const ListRecord &record = c.lists[list];
  cursor.trees = record.trees;
  for (std::uint32_t t = 0; t < record.trees; ++t) cursor.at[t] = c.entries + leaf_of(c, record.root[t], keys).first;
}

// The next rule in list order among the leaves (kEndOfLeaf, which is
// greater than any rule, when all are done).
inline std::uint32_t next_entry(Cursor &cursor) {
  std::uint32_t best = 0;
  std::uint32_t index = *cursor.at[0];
  for (std::uint32_t t = 1; t < cursor.trees; ++t)
    if (*cursor.at[t] < index) {
      index = *cursor.at[t];
      best = t;
    }
  if (index != kEndOfLeaf) ++cursor.at[best];
  return index;
}

// The applying rule: the leaves' rules in list order; a matching rule with
// sub-rules sends the search into its sub-list's leaves, and back behind it
// when none of them applies.  The way back is kept in a stack as deep as
// the nesting (which compiling bounds), not in calls.
nuv_clfy *first_applying(const nuv_clfy_compiled &c, const Keys &keys, PacketFacts &facts, std::uint32_t mark) {
  Cursor resume[kMaxNesting];
  std::uint32_t depth = 0;
  Cursor cursor;
  open_list(c, 0, keys, cursor);
  for (;;) {
    const std::uint32_t index = next_entry(cursor);
    if (index == kEndOfLeaf) {
      if (depth == 0) return nullptr;
      cursor = resume[--depth];
      continue;
    }
    const RuleRecord &record = c.records[index];
    if (!record_holds(record, keys)) continue;
    nuv_clfy *rule = c.rules[index];
    if (record.covers) {
      // The ranges are the whole rule: the record's test is the verdict.
      if (rule->flags) ++rule->hits;
      return rule;
    }
    if (!rule_applies(*rule, facts, mark)) continue;
    if (!record.children) return rule;
    resume[depth++] = cursor;
    open_list(c, record.children - 1, keys, cursor);
  }
}

// A short flat list costs less tried rule by rule, each through the
// matcher's own entry (which reads only what the rule asks), than reading
// the five fields and walking a tree.
nuv_clfy *first_applying_directly(const nuv_clfy_compiled &c, std::uint32_t mark, const nuv_clfy_packet &packet) {
  for (std::uint32_t i = 0; i < c.rule_count; ++i)
    if (nuv_clfy_matches(c.rules[i], &packet, 0, mark)) return c.rules[i];
  return nullptr;
}

nuv_clfy *search(nuv_clfy_compiled *c, std::uint32_t mark, const nuv_clfy_packet *packet) {
  if (!c || !packet || !c->rule_count) return nullptr;
  if (c->direct) return first_applying_directly(*c, mark, *packet);
  PacketFacts facts;
  read_packet(*packet, facts);
  Keys keys;
  read_keys(facts, keys);
  return first_applying(*c, keys, facts, mark);
}

}  // namespace
}  // namespace dp::clfy

using namespace dp::clfy;

extern "C" {

int nuv_clfy_set_compile(const nuv_clfy_set *set, nuv_clfy_compiled **out) {
  if (!set || !out) return NUV_CLFY_COMPILE_E_INVALID;
  auto *c = static_cast<nuv_clfy_compiled *>(CLFY_ZALLOC(sizeof(nuv_clfy_compiled)));
  if (!c) return NUV_CLFY_COMPILE_E_NO_MEMORY;
  Grow<nuv_clfy *> rules, heads;
  Grow<RuleBounds> records;
  Grow<ListRecord> lists;
  Grow<std::uint32_t> nesting;
  int rc = gather_lists(*set, rules, records, lists, heads, nesting);
  Builder builder(records);
  for (std::uint32_t l = 0; rc == NUV_CLFY_COMPILE_OK && l < lists.size(); ++l)
    if (!build_list(builder, records, lists[l])) rc = NUV_CLFY_COMPILE_E_NO_MEMORY;
  if (rc != NUV_CLFY_COMPILE_OK) {
    CLFY_FREE(c);
    return rc;
  }
  c->rule_count = rules.size();
  c->list_count = lists.size();
  c->node_count = builder.nodes.size();
  c->entry_count = builder.entries.size();
  c->depth = builder.depth;
  c->direct = lists.size() == 1 && rules.size() <= kDirectRules;
  Grow<RuleRecord> search_records;
  for (std::uint32_t i = 0; rc == NUV_CLFY_COMPILE_OK && i < records.size(); ++i)
    if (!search_records.push(packed(records[i]))) rc = NUV_CLFY_COMPILE_E_NO_MEMORY;
  if (rc != NUV_CLFY_COMPILE_OK) {
    CLFY_FREE(c);
    return rc;
  }
  c->bytes = static_cast<std::uint32_t>(sizeof *c) + rules.bytes() + search_records.bytes() + lists.bytes() +
             builder.nodes.bytes() + builder.entries.bytes();
  c->rules = rules.release();
  c->records = search_records.release();
  c->lists = lists.release();
  c->nodes = builder.nodes.release();
  c->entries = builder.entries.release();
  *out = c;
  return NUV_CLFY_COMPILE_OK;
}

nuv_clfy *nuv_clfy_compiled_get_clfy(nuv_clfy_compiled *compiled, uint32_t mark, const nuv_clfy_packet *packet) {
  return search(compiled, mark, packet);
}

int nuv_clfy_compiled_execute(nuv_clfy_compiled *compiled, void *arg, const nuv_clfy_packet *packet) {
  nuv_clfy *rule = search(compiled, 0, packet);
  return rule ? execute_action(rule, arg, *packet) : 0;
}

void nuv_clfy_compiled_free(nuv_clfy_compiled *compiled) { free_compiled(compiled); }

int nuv_clfy_compiled_get_stats(const nuv_clfy_compiled *compiled, nuv_clfy_compiled_stats *stats) {
  if (!compiled || !stats) return -1;
  stats->rules = compiled->rule_count;
  stats->lists = compiled->list_count;
  stats->nodes = compiled->node_count;
  stats->leaf_entries = compiled->entry_count;
  stats->depth = compiled->depth;
  stats->bytes = compiled->bytes;
  return 0;
}

}  // extern "C"
