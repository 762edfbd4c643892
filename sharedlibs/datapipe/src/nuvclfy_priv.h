/* Classifier internals shared by the classifier's source files (private). */
#ifndef NUVCLFY_PRIV_H
#define NUVCLFY_PRIV_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvcsock.h"

namespace dp::clfy {

// Every classifier allocation is tagged with this source path and the line of
// the allocating call, so the platform allocator can trace leaks to us.
inline constexpr char kSourceTag[] = "sharedlibs/datapipe/nuvclfy";

// Zero-filled block of `size` bytes, or null.  The platform allocator is not
// relied upon to zero memory.
inline void *zalloc(std::size_t size, int line) {
  void *block = slab_dmalloc(size, kSourceTag, line);
  if (block) std::memset(block, 0, size);
  return block;
}

inline char *strdup_tagged(const char *text, int line) { return slab_dstrdup(text, kSourceTag, line); }

inline void release(void *block, int line) { slab_cbcontext_free(block, kSourceTag, line); }

}  // namespace dp::clfy

// Allocation macros: they pass the caller's line to the tagged allocator.
#define CLFY_ZALLOC(size) ::dp::clfy::zalloc((size), __LINE__)
#define CLFY_STRDUP(text) ::dp::clfy::strdup_tagged((text), __LINE__)
#define CLFY_FREE(block) ::dp::clfy::release((block), __LINE__)

namespace dp::clfy {

// ---- Rules ----

// Size of a localmark class map: one byte per traffic class 0..127.
inline constexpr std::size_t kClassMapSize = 128;
// ip_proto of a rule without a protocol condition: any protocol.
inline constexpr std::uint8_t kProtoAny = 255;

// The next rule serial number (advances the process-wide counter).
std::uint32_t next_rule_id();

// Frees what the rule owns and the record, without calling any action's
// release callback.  Null is ignored.
void release_rule(nuv_clfy *rule);

// Frees every rule of the list at *head with all sub-rules (depth first, each
// rule's children before the rule, siblings in list order) and leaves *head
// null.
void free_rule_list(nuv_clfy **head);

// The result of the action of `rule` (the applying rule of a search, or
// null) for the packet: its execute callback's result when the rule has an
// owner and a registered action with such a callback, otherwise 0.
int execute_action(nuv_clfy *rule, void *arg, const nuv_clfy_packet &packet);

// The registered action at the 1-based `index`, or null when `index` names
// no registered action.
const nuv_clfy_action *action_at(std::int32_t index);

// ---- DHCP condition ----

// The rule's DHCP condition starts with the fields of the DHCP match record,
// in the same places, so C callers may hand it to the DHCP matcher as it is.
static_assert(offsetof(nuv_clfy_dhcp, code) == offsetof(dhcp_match, code));
static_assert(offsetof(nuv_clfy_dhcp, sub) == offsetof(dhcp_match, sub));
static_assert(offsetof(nuv_clfy_dhcp, enterprise) == offsetof(dhcp_match, enterprise));
static_assert(offsetof(nuv_clfy_dhcp, pattern) == offsetof(dhcp_match, pattern));

// The DHCP match record of a rule's condition, for the DHCP matcher (a copy,
// so C++ code needs no cast between the two record types).
inline dhcp_match match_of(const nuv_clfy_dhcp &condition) {
  return dhcp_match{condition.code, condition.sub, condition.enterprise, condition.pattern};
}

// ---- Tables ----

// Removes the 6-byte address `mac` from `table`; later addresses move down
// by one slot.  False when the table or address is null or the table does
// not hold the address.
bool ethersrctab_forget(ethersrctab *table, const std::uint8_t *mac);

// ---- Value lists ----

// Appends one entry (values already in host order).  Returns false when
// memory is exhausted; the list is then unchanged.
bool valuelist_append(nuv_clfy_valuelist &list, std::uint32_t op, std::uint16_t value1, std::uint16_t value2);

// Makes `copy` an owned copy of `original` (same count, same entries).
// `copy` must not own an array.  Returns false when memory is exhausted,
// leaving `copy` empty.
bool valuelist_copy(nuv_clfy_valuelist &copy, const nuv_clfy_valuelist &original);

// Frees the list's array and leaves it empty.
void valuelist_clear(nuv_clfy_valuelist &list);

// True when both lists have the same count and, entry by entry, equal
// operators, equal first values and, for ranges, equal second values.
bool valuelist_identical(const nuv_clfy_valuelist &a, const nuv_clfy_valuelist &b);

}  // namespace dp::clfy

namespace dp {
class TextWriter;
}

namespace dp::clfy {

// ---- Rule text, matching and optimisation ----

// Appends a comparison as rule text prints it ("80", ">= 8000", "10-20").
void print_comparison(TextWriter &out, std::uint32_t op, std::uint16_t value1, std::uint16_t value2);

// Appends a value list as rule text prints it ("80,443,>= 8000").
void print_value_list(TextWriter &out, const nuv_clfy_valuelist &list);

// Interface names keep at most 16 characters and the NUL.
inline constexpr std::size_t kIfNameLimit = 17;
// Mask of an ip.tos condition written without one: the ECN bits are ignored.
inline constexpr std::uint8_t kTosMaskDefault = 0xfc;
// The two protocols whose ports rules test.
using dp::wire::kProtoTcp;
using dp::wire::kProtoUdp;

// Link-layer conditions that read the Ethernet header.
inline constexpr std::uint32_t kLinkAddressConditions = NUV_CLFY_F_ETH_SOURCE | NUV_CLFY_F_ETH_DEST |
                                                        NUV_CLFY_F_ETH_SOURCEOUI | NUV_CLFY_F_ETH_DESTOUI |
                                                        NUV_CLFY_F_ETHSRCTAB;
// Every condition tested before the IP layer.
inline constexpr std::uint32_t kConditionsBeforeIp = NUV_CLFY_F_DEV | NUV_CLFY_F_BRDEV | NUV_CLFY_F_LOCALMARK |
                                                     NUV_CLFY_F_ETH_PROTO | kLinkAddressConditions |
                                                     NUV_CLFY_F_VLAN_ID | NUV_CLFY_F_VLAN_PRIO;

// Presence-bit groups tried for a shared parent when rule sets are grouped,
// in order of preference when runs are equally long (ties go to the
// earlier row).
inline constexpr std::uint32_t kGroupingMasks[] = {
    NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO,
    NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO | NUV_CLFY_F_IP_PROTO,
    NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_LEN,
    NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_SADDR | NUV_CLFY_F_IP_DADDR,
    NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_DADDR,
    NUV_CLFY_F_DEV | NUV_CLFY_F_ETH_PROTO | NUV_CLFY_F_IP_PROTO | NUV_CLFY_F_IP_SADDR,
};

}  // namespace dp::clfy

#endif
