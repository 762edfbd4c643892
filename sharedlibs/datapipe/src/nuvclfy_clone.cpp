// Rule copies: the full clone and the selective clone that keeps only the
// conditions of a mask (the set optimiser builds parent rules with it).
#include <cstring>

#include "nuvclfy.h"
#include "nuvclfy_priv.h"

namespace {

using dp::clfy::valuelist_copy;

// Which owned parts a clone gets its own copy of.
struct OwnedParts {
  bool localmark;
  bool vlan_ids;
  bool sports;
  bool dports;
  bool dhcp;
  bool packetmatch;
};

constexpr OwnedParts kAllParts{true, true, true, true, true, true};

OwnedParts parts_in(std::uint32_t mask) {
  return OwnedParts{(mask & NUV_CLFY_F_LOCALMARK) != 0, (mask & NUV_CLFY_F_VLAN_ID) != 0,
                    (mask & NUV_CLFY_F_SPORTS) != 0,    (mask & NUV_CLFY_F_DPORTS) != 0,
                    (mask & NUV_CLFY_F_DHCP) != 0,      (mask & NUV_CLFY_F_PACKETMATCH) != 0};
}

// Clears every owned pointer the byte copy took over from the original, so
// that the copy never shares memory with it.
void drop_borrowed_parts(nuv_clfy *copy) {
  copy->next = nullptr;
  copy->children = nullptr;
  copy->localmark = nullptr;
  copy->vlan_ids = nuv_clfy_valuelist{0, nullptr};
  copy->sports = nuv_clfy_valuelist{0, nullptr};
  copy->dports = nuv_clfy_valuelist{0, nullptr};
  copy->dhcp = nullptr;
  copy->packetmatch = nullptr;
}

bool copy_dhcp(nuv_clfy *copy, const nuv_clfy_dhcp &dhcp) {
  // Rebuilding the condition through the add function also appends its
  // server-port entry, so the copy has one destination-port entry more than
  // the original; rule sets built from clones depend on that entry.
  const char *table = dhcp.ethsrctab ? dhcp.ethsrctab->name : "";
  return nuv_clfy_add_dhcppacketmatch(copy, dhcp.code, dhcp.enterprise, dhcp.sub, dhcp.pattern ? dhcp.pattern : "",
                                      table) == 0;
}

bool copy_parts(nuv_clfy *copy, const nuv_clfy *rule, const OwnedParts &parts) {
  if (parts.localmark && rule->localmark && nuv_clfy_add_localmark(copy, rule->localmark) != 0) return false;
  if (parts.vlan_ids && !valuelist_copy(copy->vlan_ids, rule->vlan_ids)) return false;
  if (parts.sports && !valuelist_copy(copy->sports, rule->sports)) return false;
  if (parts.dports && !valuelist_copy(copy->dports, rule->dports)) return false;
  if (parts.dhcp && rule->dhcp && !copy_dhcp(copy, *rule->dhcp)) return false;
  // A pattern that cannot be copied leaves the copy without one; this is not
  // treated as a failure.
  if (parts.packetmatch && rule->packetmatch) copy->packetmatch = CLFY_STRDUP(rule->packetmatch);
  return true;
}

nuv_clfy *clone_with(const nuv_clfy *rule, std::uint32_t flags, const OwnedParts &parts) {
  if (!rule) return nullptr;
  auto *copy = static_cast<nuv_clfy *>(CLFY_ZALLOC(sizeof(nuv_clfy)));
  if (!copy) return nullptr;
  std::memcpy(copy, rule, sizeof(nuv_clfy));
  drop_borrowed_parts(copy);
  copy->flags = flags;
  if (!copy_parts(copy, rule, parts)) {
    dp::clfy::release_rule(copy);
    return nullptr;
  }
  copy->id = dp::clfy::next_rule_id();
  return copy;
}

}  // namespace

extern "C" {

nuv_clfy *nuv_clfy_clone(const nuv_clfy *rule) { return rule ? clone_with(rule, rule->flags, kAllParts) : nullptr; }

nuv_clfy *nuv_clfy_checkflag_clone(const nuv_clfy *rule, uint32_t mask) {
  return rule ? clone_with(rule, rule->flags & mask, parts_in(mask)) : nullptr;
}

}  // extern "C"
