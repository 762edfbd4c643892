// Rule and rule-set optimisation: single-rule normalisation and the grouping
// of consecutive rules under shared parent rules.
#include <cstdint>
#include <cstring>

#include "dp_bytes.h"
#include "dp_portrange.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"

namespace {

using dp::host_to_net16;

static_assert(NUV_CLFY_OP_ANY == std::uint32_t(dp::PortOp::any) && NUV_CLFY_OP_EQ == std::uint32_t(dp::PortOp::eq) &&
              NUV_CLFY_OP_LE == std::uint32_t(dp::PortOp::le) && NUV_CLFY_OP_GE == std::uint32_t(dp::PortOp::ge) &&
              NUV_CLFY_OP_RANGE == std::uint32_t(dp::PortOp::range));

// Turns degenerate ranges into the single comparison they amount to, so the
// matcher tests one bound instead of two.
void normalise_range(nuv_clfy_value &entry) {
  if (entry.op != NUV_CLFY_OP_RANGE) {
    entry.value2 = 0;
    return;
  }
  const dp::PortCondition simplest = dp::simplest_port_range(entry.value1, entry.value2, dp::kPortMax);
  entry.op = static_cast<std::uint32_t>(simplest.op);
  entry.value1 = simplest.low;
  entry.value2 = simplest.high;
}

bool same_entry(const nuv_clfy_value &e, const nuv_clfy_value &f) {
  return e.op == f.op && e.value1 == f.value1 && e.value2 == f.value2;
}

// An equality or range entry E lying wholly inside entry F.
bool inside(const nuv_clfy_value &e, const nuv_clfy_value &f) {
  if (f.op == NUV_CLFY_OP_RANGE) {
    if (e.op == NUV_CLFY_OP_EQ) return f.value1 <= e.value1 && e.value1 <= f.value2;
    if (e.op == NUV_CLFY_OP_RANGE) return f.value1 <= e.value1 && e.value2 <= f.value2;
    return false;
  }
  if (e.op != NUV_CLFY_OP_EQ && e.op != NUV_CLFY_OP_RANGE) return false;
  const std::uint16_t top = e.value2 ? e.value2 : e.value1;
  switch (f.op) {
    case NUV_CLFY_OP_GE: return e.value1 >= f.value1;
    case NUV_CLFY_OP_GT: return e.value1 > f.value1;
    case NUV_CLFY_OP_LE: return top <= f.value1;
    case NUV_CLFY_OP_LT: return top < f.value1;
    default: return false;
  }
}

// Two bounds in the same direction: the looser one goes, even though it is
// the one that covers the other.  Lists compacted this way keep the tighter
// bound; configurations written against that behaviour depend on it.
bool looser_bound(const nuv_clfy_value &e, const nuv_clfy_value &f) {
  if (e.op != f.op) return false;
  switch (e.op) {
    case NUV_CLFY_OP_GE:
    case NUV_CLFY_OP_GT: return e.value1 <= f.value1;
    case NUV_CLFY_OP_LE:
    case NUV_CLFY_OP_LT: return f.value1 <= e.value1;
    default: return false;
  }
}

bool superfluous(const nuv_clfy_value &e, const nuv_clfy_value &f) {
  return same_entry(e, f) || inside(e, f) || looser_bound(e, f);
}

// Drop marks live on the stack; longer lists (never produced from one rule
// line) are left as they are.
constexpr std::uint32_t kMaxMarkedEntries = 1024;

void drop_superfluous(nuv_clfy_valuelist &list) {
  const std::uint32_t n = list.count;
  if (n < 2 || n > kMaxMarkedEntries) return;
  bool dropped[kMaxMarkedEntries];
  std::memset(dropped, 0, n * sizeof dropped[0]);
  std::uint32_t survivors = n;
  for (std::uint32_t i = 0; i < n; ++i) {
    for (std::uint32_t j = 0; j < n; ++j) {
      if (j == i || dropped[j]) continue;
      if (superfluous(list.entries[i], list.entries[j])) {
        dropped[i] = true;
        --survivors;
        break;
      }
    }
  }
  if (survivors == n) return;
  auto *kept = static_cast<nuv_clfy_value *>(CLFY_ZALLOC(survivors * sizeof(nuv_clfy_value)));
  if (!kept) return;
  std::uint32_t k = 0;
  for (std::uint32_t i = 0; i < n; ++i)
    if (!dropped[i]) kept[k++] = list.entries[i];
  CLFY_FREE(list.entries);
  list.entries = kept;
  list.count = survivors;
}

void optimise_list(nuv_clfy_valuelist &list) {
  for (std::uint32_t i = 0; i < list.count; ++i) normalise_range(list.entries[i]);
  drop_superfluous(list);
}

// 0.0.0.0/0 holds for every address, so the condition goes; otherwise the
// address is reduced once here instead of per packet.
void fold_ipv4_mask(nuv_clfy &rule, std::uint8_t *addr, std::uint8_t family, std::uint32_t bit) {
  if (family != dp::wire::kFamilyIpv4) return;
  const std::uint32_t address = dp::load_net32(addr);
  const std::uint32_t mask = dp::load_net32(addr + 4);
  if (mask == 0) rule.flags &= ~bit;
  dp::store_net32(addr, address & mask);
}

void derive_eth_proto(nuv_clfy &rule) {
  if (!(rule.flags & NUV_CLFY_GROUP_IP_NO_ICMP)) return;
  // The family fields count even when the address condition itself went away.
  using namespace dp::wire;
  if (rule.ip_saddr_family == kFamilyIpv4 || rule.ip_daddr_family == kFamilyIpv4) {
    rule.eth_proto = host_to_net16(kEtherTypeIpv4);
  } else if (rule.ip_saddr_family == kFamilyIpv6 || rule.ip_daddr_family == kFamilyIpv6) {
    rule.eth_proto = host_to_net16(kEtherTypeIpv6);
  } else {
    return;
  }
  rule.flags |= NUV_CLFY_F_ETH_PROTO;
}

}  // namespace

extern "C" void nuv_clfy_optim(nuv_clfy *rule) {
  fold_ipv4_mask(*rule, rule->ip_saddr.v6, rule->ip_saddr_family, NUV_CLFY_F_IP_SADDR);
  fold_ipv4_mask(*rule, rule->ip_daddr.v6, rule->ip_daddr_family, NUV_CLFY_F_IP_DADDR);
  optimise_list(rule->vlan_ids);
  optimise_list(rule->sports);
  optimise_list(rule->dports);
  normalise_range(rule->ip_len);
  derive_eth_proto(*rule);
}

namespace {


// An address condition exactly as stored: IPv4 address and mask, or IPv6
// address and prefix length.
bool same_address(const nuv_clfy_ipaddr &a, std::uint8_t a_prefixlen, const nuv_clfy_ipaddr &b,
                  std::uint8_t b_prefixlen, std::uint8_t family) {
  if (family == dp::wire::kFamilyIpv4) return std::memcmp(a.v6, b.v6, 8) == 0;
  return a_prefixlen == b_prefixlen && std::memcmp(a.v6, b.v6, sizeof a.v6) == 0;
}

// What the comparison leaves out of the grouping masks' conditions: the
// resolved device index, IPv4 masks under equal masked values, IPv6 prefix
// lengths.  A parent tests its first child's conditions for all children,
// so they must mean the same thing for each of them.
bool same_details(const nuv_clfy &a, const nuv_clfy &b, std::uint32_t mask) {
  const std::uint32_t present = a.flags & mask;
  if ((present & NUV_CLFY_F_DEV) && a.dev_ifindex != b.dev_ifindex) return false;
  if ((present & NUV_CLFY_F_IP_SADDR) &&
      !same_address(a.ip_saddr, a.ip_saddr_prefixlen, b.ip_saddr, b.ip_saddr_prefixlen, a.ip_saddr_family))
    return false;
  if ((present & NUV_CLFY_F_IP_DADDR) &&
      !same_address(a.ip_daddr, a.ip_daddr_prefixlen, b.ip_daddr, b.ip_daddr_prefixlen, a.ip_daddr_family))
    return false;
  return true;
}

// Rules whose conditions of `mask` are the same: present in both, and
// comparing equal both under the rule comparison and in the details it
// does not look at.
bool identical_under(const nuv_clfy &a, const nuv_clfy &b, std::uint32_t mask) {
  return (b.flags & mask) && nuv_clfy_cmp(&a, &b, mask) == 0 && same_details(a, b, mask);
}

// Number of consecutive rules from rules[0] whose conditions of `mask` are
// identical to rules[0]'s; 1 when rules[0] has none of them.
std::size_t run_length(nuv_clfy *const *rules, std::size_t n, std::uint32_t mask) {
  const nuv_clfy &first = *rules[0];
  if (!(first.flags & mask)) return 1;
  std::size_t run = 0;
  while (run < n && identical_under(first, *rules[run], mask)) ++run;
  return run;
}

struct BestGroup {
  std::uint32_t mask;
  std::size_t run;
};

BestGroup best_group(nuv_clfy *const *rules, std::size_t n) {
  BestGroup best{dp::clfy::kGroupingMasks[0], 0};
  for (std::uint32_t mask : dp::clfy::kGroupingMasks) {
    const std::size_t run = run_length(rules, n, mask);
    if (run > best.run) best = {mask, run};
  }
  return best;
}

// A list being built.  Appending links and owns rules the way
// nuv_clfy_add_tail does, but remembers where the list ends instead of
// walking it for every rule.  A list being built has no lookup index to drop.
struct PendingList {
  nuv_clfy_set set;
  nuv_clfy **end = &set.head;
  PendingList() { std::memset(&set, 0, sizeof set); }
  PendingList(const PendingList &) = delete;
  PendingList &operator=(const PendingList &) = delete;
  nuv_clfy *head() const { return set.head; }
  void append(nuv_clfy *rule) {
    rule->owner = &set;
    *end = rule;
    while (*end) end = &(*end)->next;
  }
};

void free_subtree_list(nuv_clfy *head) {
  while (head) {
    nuv_clfy *next = head->next;
    free_subtree_list(head->children);
    head->children = nullptr;
    nuv_clfy_free(head);
    head = next;
  }
}

// Moves rules[i] into `list`; the array slot is cleared so that whoever
// cleans up after a failure frees each rule exactly once.
void move_rule(PendingList &list, nuv_clfy **slot) {
  list.append(*slot);
  *slot = nullptr;
}

int group_rules(nuv_clfy **out, nuv_clfy **rules, std::size_t n);

// Puts the run rules[0..run) under a new parent holding their shared
// conditions of `mask`.  Returns 1 when done, 0 when the parent would hold no
// condition (nothing done), -1 when memory ran out.
int group_run(PendingList &list, nuv_clfy **rules, std::size_t run, std::uint32_t mask) {
  nuv_clfy *parent = nuv_clfy_checkflag_clone(rules[0], mask);
  if (!parent) return -1;
  if (!parent->flags) {
    free_subtree_list(parent);
    return 0;
  }
  list.append(parent);
  for (std::size_t i = 0; i < run; ++i) rules[i]->flags &= ~parent->flags;
  return group_rules(&parent->children, rules, run) < 0 ? -1 : 1;
}

int group_rules(nuv_clfy **out, nuv_clfy **rules, std::size_t n) {
  PendingList list;
  std::size_t i = 0;
  while (n - i >= 2) {
    const BestGroup best = best_group(rules + i, n - i);
    if ((rules[i]->flags & best.mask) && best.run >= 2) {
      const int grouped = group_run(list, rules + i, best.run, best.mask);
      if (grouped < 0) {
        free_subtree_list(list.head());
        return -1;
      }
      if (grouped > 0) {
        i += best.run;
        continue;
      }
    }
    move_rule(list, &rules[i]);
    ++i;
  }
  if (i < n) move_rule(list, &rules[i]);
  *out = list.head();
  return 0;
}

int set_owner(nuv_clfy *rule, int, void *set) {
  rule->owner = static_cast<nuv_clfy_set *>(set);
  return 0;
}

std::size_t count_rules(const nuv_clfy *rule) {
  std::size_t n = 0;
  for (; rule; rule = rule->next) ++n;
  return n;
}

void free_clones(nuv_clfy **clones, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i)
    if (clones[i]) nuv_clfy_free(clones[i]);
}

}  // namespace

extern "C" int nuv_clfy_set_optim(nuv_clfy_set *src, nuv_clfy_set *dst) {
  if (!src->head) return 0;
  const std::size_t n = count_rules(src->head);
  auto **clones = static_cast<nuv_clfy **>(CLFY_ZALLOC(n * sizeof(nuv_clfy *)));
  if (!clones) return -1;
  std::memset(clones, 0, n * sizeof(nuv_clfy *));
  bool complete = true;
  std::size_t i = 0;
  for (nuv_clfy *rule = src->head; rule; rule = rule->next, ++i) {
    clones[i] = nuv_clfy_clone(rule);
    // A missing clone would silently drop a rule and change verdicts.
    if (!clones[i]) complete = false;
  }
  nuv_clfy *tree = nullptr;
  const int result = complete ? group_rules(&tree, clones, n) : -1;
  free_clones(clones, n);
  CLFY_FREE(clones);
  if (result < 0) return -1;
  dst->head = tree;
  nuv_clfy_set_walk(dst, set_owner, dst);
  return 0;
}

extern "C" int nuv_clfy_set_optim_in_place(nuv_clfy_set *set) {
  if (!set) return -1;
  nuv_clfy_set tree{};
  if (nuv_clfy_set_optim(set, &tree) != 0) return -1;
  // The copies carry the action data on, so the old rules must not have
  // their actions release it: they are freed as rules of no set.
  nuv_clfy_set_walk(set, set_owner, nullptr);
  nuv_clfy_del_and_free_all(set);
  set->head = tree.head;
  nuv_clfy_set_walk(set, set_owner, set);
  return 0;
}
