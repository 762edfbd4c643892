/* The compiled form of a rule set (private): flat arrays of fixed-size
 * records addressed by index, shared by the search and the kernel image. */
#ifndef NUVCLFY_COMPILED_PRIV_H
#define NUVCLFY_COMPILED_PRIV_H

#include <cstdint>

#include "nuvclfy.h"

namespace dp::clfy {

enum Field : std::uint8_t { kSource, kDestination, kSourcePort, kDestinationPort, kProtocol, kFields };

inline constexpr std::uint8_t kNeedSource = 1u << kSource;
inline constexpr std::uint8_t kNeedDestination = 1u << kDestination;
inline constexpr std::uint8_t kNeedSourcePort = 1u << kSourcePort;
inline constexpr std::uint8_t kNeedDestinationPort = 1u << kDestinationPort;
inline constexpr std::uint8_t kNeedProtocol = 1u << kProtocol;

// What a rule asks of the five fields, packed into 32 bytes for the
// search: each field's range at the field's own width, the fields the
// packet must have (kNeed* bits), whether the ranges are the whole rule,
// and 1 + the index of its sub-list (0 for none).
struct RuleRecord {
  std::uint32_t source_lo, source_hi;
  std::uint32_t destination_lo, destination_hi;
  std::uint16_t source_port_lo, source_port_hi;
  std::uint16_t destination_port_lo, destination_port_hi;
  std::uint8_t protocol_lo, protocol_hi;
  std::uint8_t needs;
  std::uint8_t covers;
  std::uint32_t children;
};

// A cut or a leaf.  A cut divides its region of field `field` into
// mask+1 equal pieces: the piece of a value is (value >> shift) & mask, and
// piece i goes on at node first + i.  Every region is aligned to its
// power-of-two size, so the piece is found by a shift and a mask, without
// comparisons for the processor to guess, and each step of the walk waits
// for one load only.  Equal neighbouring pieces hold copies of one node,
// which lead on to the same places.  A leaf (`field` == kFields) holds the
// entries from first on, up to kEndOfLeaf.
struct Node {
  std::uint32_t first;
  std::uint8_t field;
  std::uint8_t shift;
  std::uint16_t mask;
};

// Ends the entries of a leaf; no rule has this index.
constexpr std::uint32_t kEndOfLeaf = 0xffffffffu;

// A long list's rules are parted by which addresses they leave (nearly)
// open: a rule open in a field would be copied into every piece of a cut
// of that field, so each part gets a tree of its own, cut where its rules
// are narrow.  A packet walks every tree of the list and meets the rules of
// its leaves merged back into list order.
constexpr std::uint32_t kMaxTrees = 4;

struct ListRecord {
  std::uint32_t root[kMaxTrees];  // node indexes of the trees
  std::uint32_t trees;            // 1 to kMaxTrees
  std::uint32_t first_rule;       // the list's rules are first_rule .. first_rule+rule_count-1, in list order
  std::uint32_t rule_count;
};

// The values from lo to hi of a 16-bit field (a port, a VLAN id).
struct ValueInterval {
  std::uint32_t lo, hi;
};

// The values one comparison of a value list accepts within 0..65535, as up
// to two intervals in order (`!=` leaves two); returns how many.  The
// compiled form takes their hull, the kernel image the intervals.
inline std::uint32_t comparison_intervals(const nuv_clfy_value &v, ValueInterval out[2]) {
  const std::uint32_t a = v.value1, b = v.value2, top = 0xffffu;
  switch (v.op) {
    case NUV_CLFY_OP_EQ: out[0] = {a, a}; return 1;
    case NUV_CLFY_OP_NE:
      if (a == 0) { out[0] = {1, top}; return 1; }
      if (a == top) { out[0] = {0, top - 1}; return 1; }
      out[0] = {0, a - 1};
      out[1] = {a + 1, top};
      return 2;
    case NUV_CLFY_OP_LT: if (a == 0) return 0; out[0] = {0, a - 1}; return 1;
    case NUV_CLFY_OP_LE: out[0] = {0, a}; return 1;
    case NUV_CLFY_OP_GT: if (a == top) return 0; out[0] = {a + 1, top}; return 1;
    case NUV_CLFY_OP_GE: out[0] = {a, top}; return 1;
    case NUV_CLFY_OP_RANGE: if (a > b) return 0; out[0] = {a, b}; return 1;
    default: out[0] = {0, top}; return 1;  // 0 and unknown codes always hold
  }
}

}  // namespace dp::clfy

struct nuv_clfy_compiled {
  std::uint32_t rule_count;
  std::uint32_t list_count;
  std::uint32_t node_count;
  std::uint32_t entry_count;
  std::uint32_t depth;
  std::uint32_t bytes;
  std::uint32_t direct;  // 1: a short flat list, whose rules are tried one by one
  nuv_clfy **rules;
  dp::clfy::RuleRecord *records;
  dp::clfy::ListRecord *lists;
  dp::clfy::Node *nodes;
  std::uint32_t *entries;
};

#endif
