// Classifier rules: creation, destruction, the add functions for list-valued
// and referenced conditions, and linking rules into rule sets.
#include <cstring>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"

namespace dp::clfy {
namespace {

// Serial number of the last rule created; ids start at 1.
std::uint32_t last_rule_id = 0;

constexpr std::uint16_t kDhcpServerPort = 67;

void free_owned_parts(nuv_clfy *rule) {
  // Each pointer is cleared before the next part goes, so a callback or a
  // debugger never sees a dangling part.
  CLFY_FREE(rule->localmark);
  rule->localmark = nullptr;
  valuelist_clear(rule->vlan_ids);
  if (rule->dhcp) {
    CLFY_FREE(rule->dhcp->pattern);
    rule->dhcp->pattern = nullptr;
    CLFY_FREE(rule->dhcp);
    rule->dhcp = nullptr;
  }
  valuelist_clear(rule->sports);
  valuelist_clear(rule->dports);
  CLFY_FREE(rule->packetmatch);
  rule->packetmatch = nullptr;
}

void add_to_list(nuv_clfy *rule, nuv_clfy_valuelist &list, std::uint32_t presence, std::uint32_t op,
                 std::uint16_t value1, std::uint16_t value2) {
  if (!rule) return;
  if (valuelist_append(list, op, net_to_host16(value1), net_to_host16(value2))) rule->flags |= presence;
}

void free_subtree(nuv_clfy *rule) {
  free_rule_list(&rule->children);
  nuv_clfy_free(rule);
}

}  // namespace

std::uint32_t next_rule_id() { return ++last_rule_id; }

void release_rule(nuv_clfy *rule) {
  if (!rule) return;
  free_owned_parts(rule);
  CLFY_FREE(rule);
}

void free_rule_list(nuv_clfy **head) {
  while (nuv_clfy *rule = *head) {
    free_rule_list(&rule->children);
    *head = rule->next;
    nuv_clfy_free(rule);
  }
}

bool valuelist_append(nuv_clfy_valuelist &list, std::uint32_t op, std::uint16_t value1, std::uint16_t value2) {
  const std::uint32_t count = list.entries ? list.count : 0;
  auto *grown = static_cast<nuv_clfy_value *>(CLFY_ZALLOC((count + 1) * sizeof(nuv_clfy_value)));
  if (!grown) return false;
  if (count) std::memcpy(grown, list.entries, count * sizeof(nuv_clfy_value));
  CLFY_FREE(list.entries);
  grown[count] = nuv_clfy_value{op, value1, value2};
  list.entries = grown;
  list.count = count + 1;
  return true;
}

bool valuelist_copy(nuv_clfy_valuelist &copy, const nuv_clfy_valuelist &original) {
  copy.count = 0;
  copy.entries = nullptr;
  if (!original.entries || original.count == 0) return true;
  auto *entries = static_cast<nuv_clfy_value *>(CLFY_ZALLOC(original.count * sizeof(nuv_clfy_value)));
  if (!entries) return false;
  std::memcpy(entries, original.entries, original.count * sizeof(nuv_clfy_value));
  copy.entries = entries;
  copy.count = original.count;
  return true;
}

void valuelist_clear(nuv_clfy_valuelist &list) {
  CLFY_FREE(list.entries);
  list.entries = nullptr;
  list.count = 0;
}

bool valuelist_identical(const nuv_clfy_valuelist &a, const nuv_clfy_valuelist &b) {
  if (a.count != b.count) return false;
  for (std::uint32_t i = 0; i < a.count; ++i) {
    const nuv_clfy_value &x = a.entries[i];
    const nuv_clfy_value &y = b.entries[i];
    if (x.op != y.op || x.value1 != y.value1) return false;
    if (x.op == NUV_CLFY_OP_RANGE && x.value2 != y.value2) return false;
  }
  return true;
}

}  // namespace dp::clfy

using namespace dp::clfy;

extern "C" {

nuv_clfy *nuv_clfy_alloc(void) {
  auto *rule = static_cast<nuv_clfy *>(CLFY_ZALLOC(sizeof(nuv_clfy)));
  if (!rule) return nullptr;
  rule->ip_proto = kProtoAny;
  rule->id = next_rule_id();
  return rule;
}

void nuv_clfy_free(nuv_clfy *rule) {
  if (!rule) return;
  if (rule->owner) {
    const nuv_clfy_action *action = action_at(rule->action);
    if (action && action->release) action->release(rule);
  }
  release_rule(rule);
}

void nuv_clfy_add_vlanid(nuv_clfy *rule, uint32_t op, uint16_t value1, uint16_t value2) {
  if (rule) add_to_list(rule, rule->vlan_ids, NUV_CLFY_F_VLAN_ID, op, value1, value2);
}

void nuv_clfy_add_ip_sport(nuv_clfy *rule, uint32_t op, uint16_t value1, uint16_t value2) {
  if (rule) add_to_list(rule, rule->sports, NUV_CLFY_F_SPORTS, op, value1, value2);
}

void nuv_clfy_add_ip_dport(nuv_clfy *rule, uint32_t op, uint16_t value1, uint16_t value2) {
  if (rule) add_to_list(rule, rule->dports, NUV_CLFY_F_DPORTS, op, value1, value2);
}

int nuv_clfy_add_localmark(nuv_clfy *rule, const uint8_t *map) {
  if (!rule || !map) return -1;
  if (!rule->localmark) {
    rule->localmark = static_cast<std::uint8_t *>(CLFY_ZALLOC(kClassMapSize));
    if (!rule->localmark) return -1;
  }
  std::memcpy(rule->localmark, map, kClassMapSize);
  rule->flags |= NUV_CLFY_F_LOCALMARK;
  return 0;
}

int nuv_clfy_add_dhcppacketmatch(nuv_clfy *rule, uint8_t code, uint32_t enterprise, uint8_t sub,
                                 const char *pattern, const char *tablename) {
  if (!rule || !pattern || !tablename) return -1;
  auto *dhcp = static_cast<nuv_clfy_dhcp *>(CLFY_ZALLOC(sizeof(nuv_clfy_dhcp)));
  if (!dhcp) return -1;
  dhcp->pattern = CLFY_STRDUP(pattern);
  ethersrctab *table = dhcp->pattern ? nuv_clfy_ethersrctab_find_or_create(tablename) : nullptr;
  // The port entry is appended last of all allocations, so that any failure
  // leaves the rule exactly as it was.
  if (!table || !valuelist_append(rule->dports, NUV_CLFY_OP_EQ, kDhcpServerPort, 0)) {
    CLFY_FREE(dhcp->pattern);
    CLFY_FREE(dhcp);
    return -1;
  }
  dhcp->code = code;
  dhcp->sub = sub;
  dhcp->enterprise = enterprise;
  dhcp->ethsrctab = table;
  rule->dhcp = dhcp;
  rule->ip_proto = dp::wire::kProtoUdp;
  rule->flags |= NUV_CLFY_F_DHCP | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_DPORTS;
  return 0;
}

int nuv_clfy_add_packetmatch(nuv_clfy *rule, const char *pattern) {
  if (!rule) return -1;
  CLFY_FREE(rule->packetmatch);
  rule->packetmatch = CLFY_STRDUP(pattern);
  rule->flags |= NUV_CLFY_F_PACKETMATCH;
  return 0;
}

nuv_clfy_set *nuv_clfy_add_head(nuv_clfy_set *set, nuv_clfy *rule) {
  if (!set || !rule) return set;
  rule->owner = set;
  rule->next = set->head;
  set->head = rule;
  return set;
}

void nuv_clfy_add_tail(nuv_clfy_set *set, nuv_clfy *rule) { nuv_clfy_add_tail_after(set, nullptr, rule); }

nuv_clfy *nuv_clfy_add_tail_after(nuv_clfy_set *set, nuv_clfy *last, nuv_clfy *rule) {
  if (!set || !rule) return nullptr;
  rule->owner = set;
  // The walk starts where the caller says the list ends; a stale `last`
  // only makes it longer.
  nuv_clfy **link = last ? &last->next : &set->head;
  while (*link) link = &(*link)->next;
  *link = rule;
  return rule;
}

int nuv_clfy_del_and_free(nuv_clfy_set *set, nuv_clfy *rule) {
  if (!set || !rule || !set->head) return -1;
  for (nuv_clfy **link = &set->head; *link; link = &(*link)->next) {
    nuv_clfy *found = *link;
    if (found->id != rule->id) continue;
    *link = found->next;
    free_subtree(found);
    return 0;
  }
  return -1;
}

void nuv_clfy_del_and_free_all(nuv_clfy_set *set) {
  if (!set) return;
  while (nuv_clfy *rule = set->head) {
    set->head = rule->next;
    free_subtree(rule);
  }
}

}  // extern "C"
