/* The classifier's packet record and its one test sequence (private).
 *
 * A packet's fields are read once into a PacketFacts record; every rule of
 * a set is then tested against that record.  The same sequence of condition
 * tests serves the plain matcher and the explanation of a miss: the sequence
 * reports the condition that failed to a policy object, which the plain
 * matcher discards and the explanation keeps. */
#ifndef NUVCLFY_MATCH_PRIV_H
#define NUVCLFY_MATCH_PRIV_H

#include <cstddef>
#include <cstdint>

#include "nuvclfy.h"

namespace dp::clfy {

// What a packet offers the conditions, read once per call and only as far
// as the rules tried need it: the network layer when the first rule with an
// IP condition is tried, the transport words when the first port or flag
// condition is.
struct PacketFacts {
  const nuv_clfy_packet *desc;
  const std::uint8_t *ip;   // the IP header when family is 4 or 6
  std::uint32_t available;  // bytes readable from ip on
  std::uint32_t transport;  // offset of the transport header from ip
  std::uint8_t read;        // kRead* bits: which parts below are filled in
  std::uint8_t family;      // 4 or 6; 0 when no IP condition can hold
  std::uint8_t proto;       // IPv4 protocol; IPv6 next header behind one hop-by-hop header
  std::uint16_t proto_key;  // proto, or kProtoUnreadable behind an IPv6 hop-by-hop header with
                            // nothing readable after the fixed header: one compare tests both
  std::uint8_t readable;    // kHas* bits: which transport words lie inside the packet
  std::uint16_t sport, dport;
  std::uint16_t tcp_word;   // 16-bit word at offset 12 of the transport header
};

inline constexpr std::uint16_t kProtoUnreadable = 0x100;  // equals no protocol number

inline constexpr std::uint8_t kReadNetwork = 1;
inline constexpr std::uint8_t kReadTransport = 2;

inline constexpr std::uint8_t kHasSport = 1;
inline constexpr std::uint8_t kHasDport = 2;
inline constexpr std::uint8_t kHasTcpWord = 4;

// Starts the record of `packet`: nothing of the packet is read yet.
inline void read_packet(const nuv_clfy_packet &packet, PacketFacts &facts) {
  facts.desc = &packet;
  facts.read = 0;
}

// The conditions as the sequence names them, in the order it tests them.
enum class Cond : std::uint8_t {
  kNone,
  kDev,
  kBrdev,
  kLocalmark,
  kEthProto,
  kEthSource,
  kEthSourceOui,
  kEthSrcTab,
  kEthDest,
  kEthDestOui,
  kVlanId,
  kVlanPrio,
  kNothingTestable,  // only bits that name no condition
  kIp,               // the packet offers no IP layer to the IP conditions
  kIpVersion,
  kIpProto,
  kIpTos,
  kIpLen,
  kIpSaddr,
  kIpDaddr,
  kIpDstTab,
  kSports,
  kDports,
  kDhcp,
  kTcpFlags,
  kPacketMatch,
  kIcmpType,
};

// Why the packet failed a condition, beyond its value.
enum class Why : std::uint8_t {
  kValue,         // `value` (or `bytes`) is what the packet has
  kUnresolved,    // the rule's interface index was never resolved
  kNoMap,         // the rule has no class map
  kNoEthernet,    // no Ethernet header
  kUntagged,      // no VLAN tag
  kNoIpHeader,    // no IP header
  kNotIp,         // Ethernet type `value` is neither IPv4 nor IPv6
  kShort,         // the packet ends before the bytes the condition reads
  kIpTooShort,    // the packet is shorter than its fixed IP header
  kFamily,        // the packet is of IP version `value`, the rule's address is not
  kNotInTable,    // the address is not in the rule's table
  kRuleNotTcp,    // tcp.flags on a rule whose protocol is not TCP
  kNoPayloadMatch,
  kNotIcmpv6,     // the upper-layer header `value` is not ICMPv6 (or the walk failed)
  kDhcpUnreadable,
  kDhcpType,      // message type `value` neither matches nor is learned
  kDhcpRelease,   // a release: the client is forgotten (when learning), never matched
  kDhcpNoMatch,
  kNoCondition,   // no DHCP condition record
};

// The first failed condition of a miss.
struct Finding {
  Cond cond = Cond::kNone;
  Why why = Why::kValue;
  std::uint32_t value = 0;
  const std::uint8_t *bytes = nullptr;  // an address or MAC of the packet
};

// The same verdict without counting or learning; a miss fills `finding`.
bool rule_explained(const nuv_clfy &rule, PacketFacts &facts, std::uint32_t mark, Finding &finding);

// The first rule of the list `rule` (and its siblings) that applies to the
// packet, searching sub-rules of matching rules (a rule with sub-rules is
// never the result itself); null when none applies.
nuv_clfy *first_applying(nuv_clfy *rule, PacketFacts &facts);

// The chain of a private table keyed by a record's address that `key`
// falls in, among `chains` (a power of two).  Records are at least 16-byte
// aligned, so the lowest bits say nothing.
inline std::size_t chain_of(const void *key, std::size_t chains) {
  const auto bits = reinterpret_cast<std::uintptr_t>(key);
  return ((bits >> 4) ^ (bits >> 12)) & (chains - 1);
}

// ---- Value lookup among siblings of an optimised tree ----

// The exact value a run of siblings is looked up by.
enum class SegmentKind : std::uint8_t { kSource4, kDest4, kDport, kProto };

struct IndexEntry {
  std::uint32_t key;       // the sibling's value (addresses: network-order bytes in memory order)
  std::uint32_t position;  // place in the segment, for first-match order among equal values
  nuv_clfy *rule;
};

// A run of consecutive siblings from `start` up to (not including) `after`.
struct Segment {
  nuv_clfy *start;
  nuv_clfy *after;
  SegmentKind kind;
  std::uint32_t mask;  // the addresses' common mask
  IndexEntry *entries; // sorted by key, then position
  std::uint32_t count;
};

// The segments of one list, in list order.
struct ListIndex {
  ListIndex *chain;
  const nuv_clfy *head;
  std::uint32_t head_id;
  std::uint32_t segment_count;
  Segment *segments;
  IndexEntry *entries;
};

// Builds the indexes of the list at `head` and of every sub-list below it
// (replacing older ones).  A list without a long run gets none; so does
// one whose index cannot be allocated.
void index_tree(nuv_clfy *head);

// Drops the index of the list whose first rule is `head`, if any.
void forget_list_index(const nuv_clfy *head);

// The index of the list whose first rule is `head`, or null.
const ListIndex *list_index(const nuv_clfy *head);

// ---- The order of a set's rules ----

// The rules of a set's top-level list in list order, kept beside the set so
// that the search can walk an array instead of chasing links from rule to
// rule: the processor then fetches the rules ahead of the test.  The array
// is only a guide: the search checks each rule's `next` against the
// following entry and follows the links from the first difference on, so a
// list the caller relinks by hand is still searched as it is.
struct SetOrder {
  SetOrder *chain;
  const nuv_clfy_set *set;
  std::uint32_t count;
  std::uint32_t capacity;
  nuv_clfy **rules;  // `count` rules and a null, in `capacity` + 1 slots behind the record
};

// Makes the order of `set` match its list again (after a set function
// linked or removed rules).  Short lists get none, and so does a list whose
// order cannot be allocated: the search then follows the links.
void refresh_set_order(const nuv_clfy_set *set);

// The same after rules were linked behind `tail`, the list's last rule
// before (null when the list was empty): when the order still ends at
// `tail`, the new rules are only appended to it.
void order_after_append(const nuv_clfy_set *set, const nuv_clfy *tail);

// Drops the order of `rule`'s set when it starts with `rule` (which is
// being freed): a set torn down rule by rule leaves no order behind, while
// freeing any other rule, a copy or a sub-rule keeps the set's order.
void forget_order_headed_by(const nuv_clfy *rule);

// Drops the order of `set`, if any.
void forget_set_order(const nuv_clfy_set *set);

// The order of `set`, or null.
const SetOrder *set_order(const nuv_clfy_set *set);

// The first rule of the set's list that applies, as first_applying, walking
// the set's order when it has one.
nuv_clfy *first_applying_in_set(const nuv_clfy_set &set, PacketFacts &facts);

}  // namespace dp::clfy

#endif
