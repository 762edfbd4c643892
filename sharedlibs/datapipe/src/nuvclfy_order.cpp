// The order of a set's rules: an array of the top-level list, kept beside
// the set in a private table keyed by the set record's address.
//
// Orders are made and remade by the set functions that link or remove
// rules, and dropped with the set's rules, or when the rule an order starts
// with is freed (a set torn down rule by rule); a list shorter than
// kMinOrdered is searched by its links alone.  An order that names freed
// rules is harmless: the search touches a rule only once the links lead to
// it.  The array grows by doubling,
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

// Writes the rules from `rule` on into `order` from slot `at`, and the null
// behind them.
void fill(SetOrder &order, std::uint32_t at, nuv_clfy *rule) {
  for (; rule; rule = rule->next) order.rules[at++] = rule;
  order.rules[at] = nullptr;
  order.count = at;
}

void drop(SetOrder **link) {
  SetOrder *order = *link;
  *link = order->chain;
  CLFY_FREE(order);
}

}  // namespace

void forget_set_order(const nuv_clfy_set *set) {
  SetOrder **link = link_to(set);
  if (*link) drop(link);
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
  fill(*order, 0, set->head);
}

void order_after_append(const nuv_clfy_set *set, const nuv_clfy *tail) {
  SetOrder *order = *link_to(set);
  if (!order || !tail || order->rules[order->count - 1] != tail) return refresh_set_order(set);
  // Rules linked behind `tail`: the appended one and any it brought along.
  if (order->count + list_length(tail->next) > order->capacity) return refresh_set_order(set);
  fill(*order, order->count, tail->next);
}

void forget_order_headed_by(const nuv_clfy *rule) {
  SetOrder **link = link_to(rule->owner);
  if (*link && (*link)->rules[0] == rule) drop(link);
}

const SetOrder *set_order(const nuv_clfy_set *set) { return *link_to(set); }

}  // namespace dp::clfy
