// Access rules: canonical form of a parsed rule and its presence bits.
#include <cstdint>

#include "dp_portrange.h"
#include "dp_wire.h"
#include "nuvrules.h"

namespace {

using dp::wire::kProtoIcmp;
using dp::wire::kProtoTcp;
using dp::wire::kProtoUdp;

// Highest port a protocol's port fields can hold; 0 for protocols without
// port conditions.  ICMP rules use the port fields for ICMP types.
std::uint16_t port_ceiling(std::uint8_t proto) {
  switch (proto) {
    case kProtoTcp:
    case kProtoUdp:
      return dp::kPortMax;
    case kProtoIcmp:
      return 255;
    default:
      return 0;
  }
}

static_assert(IPACCESS_OP_NONE == int(dp::PortOp::any) && IPACCESS_OP_EQ == int(dp::PortOp::eq) &&
              IPACCESS_OP_LE == int(dp::PortOp::le) && IPACCESS_OP_GE == int(dp::PortOp::ge) &&
              IPACCESS_OP_RANGE == int(dp::PortOp::range));

// Reduces a "range" condition to the simplest operator that admits the same
// ports; other operators lose their upper bound.
void normalise_condition(std::int32_t &op, std::uint16_t &low, std::uint16_t &high, std::uint16_t ceiling) {
  if (op != IPACCESS_OP_RANGE) {
    high = 0;
    return;
  }
  const dp::PortCondition simplest = dp::simplest_port_range(low, high, ceiling);
  op = static_cast<std::int32_t>(simplest.op);
  low = simplest.low;
  high = simplest.high;
}

// ICMP types stop at 255; an upper bound only survives for a range.
void clamp_icmp_destination(ipaccess_rule &rule) {
  if (rule.dst_port > 255) rule.dst_port = 255;
  if (rule.dst_port2 > 255) rule.dst_port2 = rule.dst_op == IPACCESS_OP_RANGE ? 255 : 0;
}

void clamp_source(ipaccess_rule &rule, std::uint16_t ceiling) {
  if (rule.src_port > ceiling) rule.src_port = ceiling;
  if (rule.src_port2 > ceiling) rule.src_port2 = ceiling;
}

std::uint32_t presence_bits(const ipaccess_rule &rule) {
  std::uint32_t used = 0;
  if (rule.proto != IPACCESS_PROTO_ANY) used |= IPACCESS_USED_PROTO;
  if (rule.src_mask != 0) used |= IPACCESS_USED_SRC_ADDR;
  if (rule.dst_mask != 0) used |= IPACCESS_USED_DST_ADDR;
  if (rule.connflag != IPACCESS_CONN_NORMAL) used |= IPACCESS_USED_CONNFLAG;
  if (rule.src_op != IPACCESS_OP_NONE) used |= IPACCESS_USED_SRC_PORT;
  if (rule.dst_op != IPACCESS_OP_NONE) used |= IPACCESS_USED_DST_PORT;
  if (rule.proto == kProtoTcp && rule.tcpflag != IPACCESS_TCPFLAG_NONE) used |= IPACCESS_USED_TCPFLAG;
  return used;
}

void normalise_ports(ipaccess_rule &rule) {
  std::uint16_t ceiling = port_ceiling(rule.proto);
  if (ceiling == 0) {
    // The port values stay; only the conditions go.
    rule.src_op = IPACCESS_OP_NONE;
    rule.dst_op = IPACCESS_OP_NONE;
    return;
  }
  if (rule.proto == kProtoIcmp) clamp_icmp_destination(rule);
  normalise_condition(rule.dst_op, rule.dst_port, rule.dst_port2, ceiling);
  clamp_source(rule, ceiling);
  normalise_condition(rule.src_op, rule.src_port, rule.src_port2, ceiling);
}

}  // namespace

extern "C" void ipaccess_optim_rulestruct(ipaccess_rule *rule) {
  normalise_ports(*rule);
  rule->used = presence_bits(*rule);
}
