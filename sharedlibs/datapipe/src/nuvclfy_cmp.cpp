// Rule comparison under a mask of presence bits, used to find rules that
// share conditions.  The conditions are compared in a fixed order (interface
// and link layer, then IP, then transport); the first difference decides.
#include <cstring>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvclfy.h"
#include "nuvclfy_priv.h"

namespace {

using dp::wire::kFamilyIpv4;
using dp::wire::kFamilyIpv6;
constexpr std::size_t kOuiSize = 3;

// The outcome of one comparison step: decided (with a result) or equal so far.
struct Step {
  bool decided;
  int result;
};
constexpr Step kEqual{false, 0};
constexpr Step decide(int result) { return result ? Step{true, result} : kEqual; }

// Presence gate of one condition: decided when only one rule has it; equal
// when neither has it; `both` tells whether the values need comparing.
Step presence(const nuv_clfy *a, const nuv_clfy *b, std::uint32_t bit, bool *both) {
  const bool in_a = (a->flags & bit) != 0;
  const bool in_b = (b->flags & bit) != 0;
  *both = in_a && in_b;
  if (in_a && !in_b) return Step{true, -1};
  if (in_b && !in_a) return Step{true, 1};
  return kEqual;
}

int difference(int a, int b) { return a - b; }

int order(std::uint32_t a, std::uint32_t b) { return a == b ? 0 : (a < b ? -1 : 1); }

// Shared tables are told apart by their addresses: the same table is equal.
int order_tables(const void *a, const void *b) {
  const auto x = reinterpret_cast<std::uintptr_t>(a);
  const auto y = reinterpret_cast<std::uintptr_t>(b);
  return x == y ? 0 : (x < y ? -1 : 1);
}

// Masked values that agree are equal; otherwise the looser mask sorts first,
// and under equal masks the smaller masked value.
int order_masked(std::uint32_t value_a, std::uint32_t mask_a, std::uint32_t value_b, std::uint32_t mask_b) {
  if ((value_a & mask_a) == (value_b & mask_b)) return 0;
  if (mask_a != mask_b) return mask_a < mask_b ? -1 : 1;
  return (value_a & mask_a) < (value_b & mask_b) ? -1 : 1;
}

int lists_identical(const nuv_clfy_valuelist &a, const nuv_clfy_valuelist &b) {
  return dp::clfy::valuelist_identical(a, b) ? 0 : -1;
}

const std::uint8_t kNoClasses[dp::clfy::kClassMapSize] = {};
const std::uint8_t *class_map(const nuv_clfy *rule) { return rule->localmark ? rule->localmark : kNoClasses; }

int compare_protocols(std::uint8_t a, std::uint8_t b) {
  if (a == b) return 0;
  if (a == dp::clfy::kProtoAny) return -1;
  if (b == dp::clfy::kProtoAny) return 1;
  return difference(a, b);
}

int compare_tos(const nuv_clfy *a, const nuv_clfy *b) {
  return order_masked(a->ip_tos, a->ip_tos_mask, b->ip_tos, b->ip_tos_mask);
}

int compare_length(const nuv_clfy *a, const nuv_clfy *b) {
  const nuv_clfy_value &x = a->ip_len;
  const nuv_clfy_value &y = b->ip_len;
  // Differing operators order by b's operator minus a's: the reversed sign
  // is what the rule set optimiser has always relied upon.
  if (x.op != y.op) return static_cast<int>(y.op) - static_cast<int>(x.op);
  if (x.value1 != y.value1) return difference(x.value1, y.value1);
  if (x.op == NUV_CLFY_OP_RANGE) return difference(x.value2, y.value2);
  return 0;
}

int compare_address(std::uint8_t family_a, const nuv_clfy_ipaddr &a, std::uint8_t family_b,
                    const nuv_clfy_ipaddr &b) {
  if (family_a != family_b) return -1;
  if (family_a == kFamilyIpv4) return order_masked(a.v4.addr, a.v4.mask, b.v4.addr, b.v4.mask);
  // IPv6 conditions compare by address alone; the prefix lengths do not count.
  if (family_a == kFamilyIpv6) return std::memcmp(a.v6, b.v6, sizeof a.v6);
  return -1;
}

int compare_dhcp(const nuv_clfy *a, const nuv_clfy *b) {
  const nuv_clfy_dhcp *x = a->dhcp;
  const nuv_clfy_dhcp *y = b->dhcp;
  if (!x || !y) return x == y ? 0 : (x ? 1 : -1);
  if (int r = order(x->code, y->code)) return r;
  if (int r = order(x->enterprise, y->enterprise)) return r;
  if (int r = order(x->sub, y->sub)) return r;
  if (int r = order_tables(x->ethsrctab, y->ethsrctab)) return r;
  const char *pattern_a = x->pattern ? x->pattern : "";
  const char *pattern_b = y->pattern ? y->pattern : "";
  if (int r = std::strcmp(pattern_a, pattern_b)) return r;
  // A DHCP condition implies its server-port entry, so the port lists belong
  // to the condition whatever the mask says about ports.
  return lists_identical(a->dports, b->dports);
}

// One step of the comparison: the condition's bit, and how to compare the
// values when both rules have it.
struct Row {
  std::uint32_t bit;
  int (*compare)(const nuv_clfy *, const nuv_clfy *);
};

Step compare_row(const nuv_clfy *a, const nuv_clfy *b, std::uint32_t mask, const Row &row) {
  if (!(mask & row.bit)) return kEqual;
  bool both = false;
  const Step gate = presence(a, b, row.bit, &both);
  if (gate.decided || !both) return gate;
  return decide(row.compare(a, b));
}

// Either the full address (6 bytes) or, when only the OUI bit is selected,
// its first 3 bytes.
Step compare_mac(const nuv_clfy *a, const nuv_clfy *b, std::uint32_t mask, std::uint32_t full_bit,
                 std::uint32_t oui_bit, const std::uint8_t *mac_a, const std::uint8_t *mac_b) {
  std::uint32_t bit = 0;
  std::size_t size = 0;
  if (mask & full_bit) {
    bit = full_bit;
    size = dp::wire::kEthernetAddressLength;
  } else if (mask & oui_bit) {
    bit = oui_bit;
    size = kOuiSize;
  } else {
    return kEqual;
  }
  bool both = false;
  const Step gate = presence(a, b, bit, &both);
  if (gate.decided || !both) return gate;
  return decide(std::memcmp(mac_a, mac_b, size));
}

constexpr Row kInterfaceRows[] = {
    {NUV_CLFY_F_DEV, [](const nuv_clfy *a, const nuv_clfy *b) { return std::strncmp(a->dev, b->dev, sizeof a->dev); }},
    {NUV_CLFY_F_LOCALMARK,
     [](const nuv_clfy *a, const nuv_clfy *b) {
       return std::memcmp(class_map(a), class_map(b), dp::clfy::kClassMapSize);
     }},
    {NUV_CLFY_F_ETH_PROTO,
     [](const nuv_clfy *a, const nuv_clfy *b) {
       return difference(dp::net_to_host16(a->eth_proto), dp::net_to_host16(b->eth_proto));
     }},
};

constexpr Row kTableRow = {NUV_CLFY_F_ETHSRCTAB,
                           [](const nuv_clfy *a, const nuv_clfy *b) { return order_tables(a->ethsrctab, b->ethsrctab); }};

constexpr Row kVlanRows[] = {
    {NUV_CLFY_F_VLAN_ID, [](const nuv_clfy *a, const nuv_clfy *b) { return lists_identical(a->vlan_ids, b->vlan_ids); }},
    {NUV_CLFY_F_VLAN_PRIO, [](const nuv_clfy *a, const nuv_clfy *b) { return difference(a->vlan_prio, b->vlan_prio); }},
};

constexpr Row kIpRows[] = {
    {NUV_CLFY_F_IP_VERSION,
     [](const nuv_clfy *a, const nuv_clfy *b) { return difference(a->ip_version, b->ip_version); }},
    {NUV_CLFY_F_IP_PROTO, [](const nuv_clfy *a, const nuv_clfy *b) { return compare_protocols(a->ip_proto, b->ip_proto); }},
    {NUV_CLFY_F_IP_TOS, compare_tos},
    {NUV_CLFY_F_IP_LEN, compare_length},
    {NUV_CLFY_F_IP_SADDR,
     [](const nuv_clfy *a, const nuv_clfy *b) {
       return compare_address(a->ip_saddr_family, a->ip_saddr, b->ip_saddr_family, b->ip_saddr);
     }},
    {NUV_CLFY_F_IP_DADDR,
     [](const nuv_clfy *a, const nuv_clfy *b) {
       return compare_address(a->ip_daddr_family, a->ip_daddr, b->ip_daddr_family, b->ip_daddr);
     }},
    {NUV_CLFY_F_IPDSTTAB, [](const nuv_clfy *a, const nuv_clfy *b) { return order_tables(a->ipdsttab, b->ipdsttab); }},
};

constexpr Row kTransportRows[] = {
    {NUV_CLFY_F_SPORTS, [](const nuv_clfy *a, const nuv_clfy *b) { return lists_identical(a->sports, b->sports); }},
    {NUV_CLFY_F_DPORTS, [](const nuv_clfy *a, const nuv_clfy *b) { return lists_identical(a->dports, b->dports); }},
    {NUV_CLFY_F_DHCP, compare_dhcp},
};

template <std::size_t N>
Step compare_rows(const nuv_clfy *a, const nuv_clfy *b, std::uint32_t mask, const Row (&rows)[N]) {
  for (const Row &row : rows) {
    const Step step = compare_row(a, b, mask, row);
    if (step.decided) return step;
  }
  return kEqual;
}

Step compare_link_layer(const nuv_clfy *a, const nuv_clfy *b, std::uint32_t mask) {
  if (!(mask & NUV_CLFY_GROUP_LINK)) return kEqual;
  Step step = compare_row(a, b, mask, kTableRow);
  if (step.decided) return step;
  step = compare_mac(a, b, mask, NUV_CLFY_F_ETH_SOURCE, NUV_CLFY_F_ETH_SOURCEOUI, a->eth_source, b->eth_source);
  if (step.decided) return step;
  step = compare_mac(a, b, mask, NUV_CLFY_F_ETH_DEST, NUV_CLFY_F_ETH_DESTOUI, a->eth_dest, b->eth_dest);
  if (step.decided) return step;
  return compare_rows(a, b, mask, kVlanRows);
}

// The packetmatch step ignores the presence bits and answers 1 for equal
// patterns and 0 otherwise: the optimiser depends on this inverted answer.
int compare_packetmatch(const nuv_clfy *a, const nuv_clfy *b) {
  if (!a->packetmatch || !b->packetmatch) return 0;
  return std::strcmp(a->packetmatch, b->packetmatch) == 0 ? 1 : 0;
}

}  // namespace

extern "C" {

int nuv_clfy_cmp(const nuv_clfy *a, const nuv_clfy *b, uint32_t mask) {
  if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
  Step step = compare_rows(a, b, mask, kInterfaceRows);
  if (step.decided) return step.result;
  step = compare_link_layer(a, b, mask);
  if (step.decided) return step.result;
  if (!(mask & NUV_CLFY_GROUP_IP_NO_ICMP)) return 0;
  step = compare_rows(a, b, mask, kIpRows);
  if (step.decided) return step.result;
  if (!(mask & NUV_CLFY_GROUP_TRANSPORT)) return 0;
  step = compare_rows(a, b, mask, kTransportRows);
  if (step.decided) return step.result;
  if (!(mask & NUV_CLFY_F_PACKETMATCH)) return 0;
  return compare_packetmatch(a, b);
}

}  // extern "C"
