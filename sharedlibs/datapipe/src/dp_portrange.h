/* Port ranges reduced to the simplest comparison, shared by the classifier's
 * and the access rules' optimisers (private). */
#ifndef DP_PORTRANGE_H
#define DP_PORTRANGE_H

#include <cstdint>

namespace dp {

// Comparison operators of port conditions.  The classifier's NUV_CLFY_OP_*
// and the access rules' IPACCESS_OP_* use these same codes; the optimisers
// check that at compile time.
enum class PortOp : std::uint32_t { any = 0, eq = 1, ne = 2, lt = 3, le = 4, gt = 5, ge = 6, range = 7 };

// A port condition: operator, first value, and the upper bound of a range
// (0 for every other operator).
struct PortCondition {
  PortOp op;
  std::uint16_t low;
  std::uint16_t high;
};

// The simplest condition admitting the same ports as the range low..high,
// where `ceiling` is the highest port the field can hold:
//   high 0        -> "== low", or no condition when low is 0 too;
//   bounds swapped when high < low;
//   0..ceiling    -> no condition (every port);
//   0..high       -> "<= high";
//   low..low      -> "== low";
//   low..ceiling  -> ">= low";
//   anything else stays a range.
constexpr PortCondition simplest_port_range(std::uint16_t low, std::uint16_t high, std::uint16_t ceiling) {
  if (high == 0) return low != 0 ? PortCondition{PortOp::eq, low, 0} : PortCondition{PortOp::any, 0, 0};
  if (low > high) {
    const std::uint16_t swapped = low;
    low = high;
    high = swapped;
  }
  if (low == 0 && high == ceiling) return {PortOp::any, 0, 0};
  if (low == 0) return {PortOp::le, high, 0};
  if (low == high) return {PortOp::eq, low, 0};
  if (high == ceiling) return {PortOp::ge, low, 0};
  return {PortOp::range, low, high};
}

// Highest TCP or UDP port.
inline constexpr std::uint16_t kPortMax = 65535;

}  // namespace dp

#endif
