// Value lookup among siblings of an optimised rule tree.
//
// In a list built by nuv_clfy_set_optim, long runs of consecutive siblings
// often differ only in one exact value: the source or destination IPv4
// network under the same mask, a single destination port, the protocol.
// For such a run (a segment) the siblings are kept in a table sorted by that
// value and, within one value, by their place in the list.  The set search
// then tries only the siblings whose value equals the packet's, in list
// order; the others could not have matched, since the value is one of their
// own conditions, tested before anything with side effects.  So the first
// match, the hit counts and DHCP learning are those of trying every sibling.
//
// Indexes live in a private table keyed by the list's first rule (and its
// id).  They are dropped when that rule is freed and when a set's top-level
// list is changed through the set functions.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"

namespace dp::clfy {
namespace {

// Segments shorter than this are tried sibling by sibling.
constexpr std::size_t kMinSegment = 8;
constexpr std::size_t kBuckets = 256;

ListIndex *g_buckets[kBuckets];

std::size_t bucket_of(const nuv_clfy *head) { return chain_of(head, kBuckets); }

// The value a rule carries for `kind` (with `mask` for addresses), or false
// when the rule does not test that value exactly.
bool key_of(const nuv_clfy &rule, SegmentKind kind, std::uint32_t mask, std::uint32_t &key) {
  const std::uint32_t flags = rule.flags;
  switch (kind) {
    case SegmentKind::kSource4:
      if (!(flags & NUV_CLFY_F_IP_SADDR) || rule.ip_saddr_family != wire::kFamilyIpv4) return false;
      if (load_net32(rule.ip_saddr.v6 + 4) != mask) return false;
      key = load_net32(rule.ip_saddr.v6);
      return true;
    case SegmentKind::kDest4:
      if (!(flags & NUV_CLFY_F_IP_DADDR) || rule.ip_daddr_family != wire::kFamilyIpv4) return false;
      if (load_net32(rule.ip_daddr.v6 + 4) != mask) return false;
      key = load_net32(rule.ip_daddr.v6);
      return true;
    case SegmentKind::kDport:
      if (!(flags & NUV_CLFY_F_DPORTS) || rule.dports.count != 1 || !rule.dports.entries) return false;
      if (rule.dports.entries[0].op != NUV_CLFY_OP_EQ) return false;
      key = rule.dports.entries[0].value1;
      return true;
    case SegmentKind::kProto:
      if (!(flags & NUV_CLFY_F_IP_PROTO)) return false;
      key = rule.ip_proto;
      return true;
  }
  return false;
}

// The mask a segment of `kind` starting at `rule` would use.
std::uint32_t mask_for(const nuv_clfy &rule, SegmentKind kind) {
  if (kind == SegmentKind::kSource4) return load_net32(rule.ip_saddr.v6 + 4);
  if (kind == SegmentKind::kDest4) return load_net32(rule.ip_daddr.v6 + 4);
  return 0;
}

constexpr SegmentKind kKinds[] = {SegmentKind::kSource4, SegmentKind::kDest4, SegmentKind::kDport,
                                  SegmentKind::kProto};

struct Plan {
  SegmentKind kind;
  std::uint32_t mask;
  std::size_t run;
};

// The longest run of siblings from `rule` on that share one exact-value
// condition kind.
Plan best_plan(const nuv_clfy *rule) {
  Plan best{SegmentKind::kProto, 0, 0};
  for (SegmentKind kind : kKinds) {
    const std::uint32_t mask = mask_for(*rule, kind);
    std::size_t run = 0;
    std::uint32_t key;
    for (const nuv_clfy *r = rule; r && key_of(*r, kind, mask, key); r = r->next) ++run;
    if (run > best.run) best = {kind, mask, run};
  }
  return best;
}

// Segments and entries of one list, counted before allocation.
struct Sizes {
  std::size_t segments = 0;
  std::size_t entries = 0;
};

Sizes plan_list(const nuv_clfy *head) {
  Sizes sizes;
  for (const nuv_clfy *rule = head; rule;) {
    const Plan plan = best_plan(rule);
    if (plan.run < kMinSegment) {
      rule = rule->next;
      continue;
    }
    ++sizes.segments;
    sizes.entries += plan.run;
    for (std::size_t i = 0; i < plan.run; ++i) rule = rule->next;
  }
  return sizes;
}

int by_key_then_position(const void *left, const void *right) {
  const auto &a = *static_cast<const IndexEntry *>(left);
  const auto &b = *static_cast<const IndexEntry *>(right);
  if (a.key != b.key) return a.key < b.key ? -1 : 1;
  return a.position < b.position ? -1 : (a.position > b.position ? 1 : 0);
}

void fill_segments(ListIndex &index, nuv_clfy *head) {
  IndexEntry *entry = index.entries;
  Segment *segment = index.segments;
  for (nuv_clfy *rule = head; rule;) {
    const Plan plan = best_plan(rule);
    if (plan.run < kMinSegment) {
      rule = rule->next;
      continue;
    }
    *segment = Segment{rule, nullptr, plan.kind, plan.mask, entry, static_cast<std::uint32_t>(plan.run)};
    for (std::uint32_t i = 0; i < plan.run; ++i, rule = rule->next) {
      std::uint32_t key = 0;
      key_of(*rule, plan.kind, plan.mask, key);
      entry[i] = IndexEntry{key, i, rule};
    }
    segment->after = rule;
    std::qsort(entry, plan.run, sizeof *entry, by_key_then_position);
    entry += plan.run;
    ++segment;
  }
}

// Indexes one list (not its sub-lists); nothing when it has no segment or
// memory runs out (the list is then searched sibling by sibling).
void index_one_list(nuv_clfy *head) {
  const Sizes sizes = plan_list(head);
  if (!sizes.segments) return;
  const std::size_t bytes =
      sizeof(ListIndex) + sizes.segments * sizeof(Segment) + sizes.entries * sizeof(IndexEntry);
  auto *index = static_cast<ListIndex *>(CLFY_ZALLOC(bytes));
  if (!index) return;
  index->segments = reinterpret_cast<Segment *>(index + 1);
  index->entries = reinterpret_cast<IndexEntry *>(index->segments + sizes.segments);
  index->segment_count = static_cast<std::uint32_t>(sizes.segments);
  index->head = head;
  index->head_id = head->id;
  fill_segments(*index, head);
  ListIndex *&bucket = g_buckets[bucket_of(head)];
  index->chain = bucket;
  bucket = index;
}

}  // namespace

// Built once per optimised set: compiled for size.
[[gnu::cold]] void index_tree(nuv_clfy *head) {
  if (!head) return;
  forget_list_index(head);
  index_one_list(head);
  for (nuv_clfy *rule = head; rule; rule = rule->next) index_tree(rule->children);
}

void forget_list_index(const nuv_clfy *head) {
  ListIndex **link = &g_buckets[bucket_of(head)];
  while (ListIndex *index = *link) {
    if (index->head != head) {
      link = &index->chain;
      continue;
    }
    *link = index->chain;
    CLFY_FREE(index);
  }
}

const ListIndex *list_index(const nuv_clfy *head) {
  for (const ListIndex *index = g_buckets[bucket_of(head)]; index; index = index->chain)
    if (index->head == head) return index->head_id == head->id ? index : nullptr;
  return nullptr;
}

}  // namespace dp::clfy
