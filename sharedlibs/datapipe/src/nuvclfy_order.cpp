// The order of a set's rules: an array of the top-level list, kept beside
// the set in a private table keyed by the set record's address.
//
// Orders are made and remade by the set functions that link or remove
// rules, and dropped when a rule of the set is freed; a list shorter than
// kMinOrdered is searched by its links alone.  The array grows by doubling,
// so appending rules one by one allocates only now and then.
#include <cstdint>
#include <cstring>

#include "nuvclfy.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"

namespace dp::clfy {
namespace {

// Below this many rules, following the links costs no more than the array.
constexpr std::uint32_t kMinOrdered = 8;
constexpr std::size_t kBuckets = 64;

SetOrder *g_orders[kBuckets];

std::size_t bucket_of(const nuv_clfy_set *set) { return chain_of(set, kBuckets); }

SetOrder **link_to(const nuv_clfy_set *set) {
  SetOrder **link = &g_orders[bucket_of(set)];
  while (*link && (*link)->set != set) link = &(*link)->chain;
  return link;
}

std::uint32_t list_length(const nuv_clfy *rule) {
  std::uint32_t n = 0;
  for (; rule; rule = rule->next) ++n;
  return n;
}

// A record with room for at least `count` rules, or null.  One slot more
// than the capacity holds the null that ends the array, as it ends the list.
SetOrder *make_order(const nuv_clfy_set *set, std::uint32_t count) {
  std::uint32_t capacity = kMinOrdered * 2;
  while (capacity < count) capacity *= 2;
  auto *order = static_cast<SetOrder *>(CLFY_ZALLOC(sizeof(SetOrder) + (capacity + 1) * sizeof(nuv_clfy *)));
  if (!order) return nullptr;
  order->set = set;
  order->capacity = capacity;
  order->rules = reinterpret_cast<nuv_clfy **>(order + 1);
  return order;
}

}  // namespace

void forget_set_order(const nuv_clfy_set *set) {
  SetOrder **link = link_to(set);
  if (SetOrder *order = *link) {
    *link = order->chain;
    CLFY_FREE(order);
  }
}

void refresh_set_order(const nuv_clfy_set *set) {
  const std::uint32_t count = list_length(set->head);
  SetOrder **link = link_to(set);
  SetOrder *order = *link;
  if (count < kMinOrdered || (order && order->capacity < count)) {
    forget_set_order(set);
    order = nullptr;
    if (count < kMinOrdered) return;
  }
  if (!order) {
    order = make_order(set, count);
    if (!order) return;
    order->chain = g_orders[bucket_of(set)];
    g_orders[bucket_of(set)] = order;
  }
  order->count = count;
  std::uint32_t i = 0;
  for (nuv_clfy *rule = set->head; rule; rule = rule->next) order->rules[i++] = rule;
  order->rules[i] = nullptr;
}

void order_after_append(const nuv_clfy_set *set, const nuv_clfy *tail) {
  SetOrder *order = *link_to(set);
  if (!order || !tail || order->rules[order->count - 1] != tail) return refresh_set_order(set);
  // Rules linked behind `tail`: the appended one and any it brought along.
  std::uint32_t count = order->count;
  for (const nuv_clfy *rule = tail->next; rule; rule = rule->next) ++count;
  if (count > order->capacity) return refresh_set_order(set);
  std::uint32_t i = order->count;
  for (nuv_clfy *rule = tail->next; rule; rule = rule->next) order->rules[i++] = rule;
  order->rules[i] = nullptr;
  order->count = count;
}

const SetOrder *set_order(const nuv_clfy_set *set) { return *link_to(set); }

}  // namespace dp::clfy
