// DPDK's packet classification library (rte_acl) as a reference for
// address/port/protocol rule sets: one context per rule list, one category,
// priorities in reverse list order so that the first rule of the list wins,
// and each rule's number as its user data.  Host-only; the including target
// links libdpdk.
#ifndef NIKERKIOG_ACL_REFERENCE_H
#define NIKERKIOG_ACL_REFERENCE_H

#include <rte_acl.h>
#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_malloc.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ruleset_files.h"

namespace testsupport {

// Starts DPDK's environment once per process, without huge pages, devices,
// telemetry or shared configuration files, printing only errors.  False
// when it cannot be started.
inline bool start_dpdk() {
  static int started = -1;
  if (started < 0) {
    static char args[][32] = {"nikerkiog", "--no-huge", "--no-pci", "--no-telemetry", "--no-shconf",
                              "-l",        "0",         "-m",       "1024",           "--log-level=3"};
    char *argv[std::size(args)];
    for (std::size_t i = 0; i < std::size(args); ++i) argv[i] = args[i];
    started = rte_eal_init(static_cast<int>(std::size(args)), argv) >= 0 ? 1 : 0;
  }
  return started == 1;
}

// The five fields, as they lie in an IPv4 header without options followed
// by the transport header: protocol, source, destination, ports.
enum AclField : std::uint8_t { kAclProto, kAclSrc, kAclDst, kAclSport, kAclDport, kAclFields };
RTE_ACL_RULE_DEF(AclRule, kAclFields);

inline const rte_acl_field_def *acl_field_defs() {
  static const rte_acl_field_def defs[kAclFields] = {
      {RTE_ACL_FIELD_TYPE_BITMASK, 1, kAclProto, 0, 9},
      {RTE_ACL_FIELD_TYPE_MASK, 4, kAclSrc, 1, 12},
      {RTE_ACL_FIELD_TYPE_MASK, 4, kAclDst, 2, 16},
      {RTE_ACL_FIELD_TYPE_RANGE, 2, kAclSport, 3, 20},
      {RTE_ACL_FIELD_TYPE_RANGE, 2, kAclDport, 3, 22},
  };
  return defs;
}

// The rte_acl rules of address/port/protocol rule number `number` (of
// `count`): one per pair of its port ranges, all with its number and
// priority, so that together they accept exactly what the rule accepts.
inline void append_acl_rules(const TupleRule &r, std::uint32_t number, std::uint32_t count,
                             std::vector<AclRule> &out) {
  const std::vector<std::pair<std::uint16_t, std::uint16_t>> any{{0, 0xffff}};
  for (const auto &sp : r.sports.empty() ? any : r.sports)
    for (const auto &dp : r.dports.empty() ? any : r.dports) {
      AclRule a{};
      a.data.category_mask = 1;
      a.data.priority = static_cast<std::int32_t>(count - number + 1);
      a.data.userdata = number;
      a.field[kAclProto].value.u8 = static_cast<std::uint8_t>(r.proto < 0 ? 0 : r.proto);
      a.field[kAclProto].mask_range.u8 = r.proto < 0 ? 0 : 0xff;
      a.field[kAclSrc].value.u32 = r.src;
      a.field[kAclSrc].mask_range.u32 = r.src_len;
      a.field[kAclDst].value.u32 = r.dst;
      a.field[kAclDst].mask_range.u32 = r.dst_len;
      a.field[kAclSport].value.u16 = sp.first;
      a.field[kAclSport].mask_range.u16 = sp.second;
      a.field[kAclDport].value.u16 = dp.first;
      a.field[kAclDport].mask_range.u16 = dp.second;
      out.push_back(a);
    }
}

inline std::size_t dpdk_heap_bytes() {
  rte_malloc_socket_stats stats{};
  rte_malloc_get_socket_stats(0, &stats);
  return stats.heap_allocsz_bytes;
}

// A built rte_acl context for the expressible rules of a list (the others
// are left out: they never apply to the plain IPv4 packets it classifies).
class AclReference {
 public:
  AclReference() = default;
  AclReference(const AclReference &) = delete;
  AclReference &operator=(const AclReference &) = delete;
  ~AclReference() { rte_acl_free(ctx_); }

  // Builds the context; false with `error` on failure.  `bytes` is what
  // DPDK's heap holds for it afterwards.
  bool build(const std::vector<TupleRule> &rules, std::string &error) {
    static unsigned serial;
    const std::string name = "nikerkiog" + std::to_string(serial++);
    std::vector<AclRule> acl;
    for (std::size_t i = 0; i < rules.size(); ++i)
      if (rules[i].expressible)
        append_acl_rules(rules[i], static_cast<std::uint32_t>(i + 1), static_cast<std::uint32_t>(rules.size()), acl);
    const std::size_t before = dpdk_heap_bytes();
    rte_acl_param param{};
    param.name = name.c_str();
    param.socket_id = SOCKET_ID_ANY;
    param.rule_size = RTE_ACL_RULE_SZ(kAclFields);
    param.max_rule_num = static_cast<std::uint32_t>(acl.size() ? acl.size() : 1);
    ctx_ = rte_acl_create(&param);
    if (!ctx_) return fail(error, "rte_acl_create");
    if (!acl.empty() && rte_acl_add_rules(ctx_, reinterpret_cast<const rte_acl_rule *>(acl.data()),
                                          static_cast<std::uint32_t>(acl.size())) != 0)
      return fail(error, "rte_acl_add_rules");
    rte_acl_config config{};
    config.num_categories = 1;
    config.num_fields = kAclFields;
    std::copy(acl_field_defs(), acl_field_defs() + kAclFields, config.defs);
    if (rte_acl_build(ctx_, &config) != 0) return fail(error, "rte_acl_build");
    bytes = dpdk_heap_bytes() - before;
    acl_rules = acl.size();
    return true;
  }

  // Rule numbers (0: none) of `count` IPv4 headers (options-free, transport
  // header behind), classified in one call.
  void classify(const std::uint8_t **headers, std::uint32_t *numbers, std::uint32_t count) const {
    rte_acl_classify(ctx_, headers, numbers, count, 1);
  }

  std::size_t bytes = 0;
  std::size_t acl_rules = 0;

 private:
  bool fail(std::string &error, const char *what) {
    error = std::string(what) + " failed: " + rte_strerror(rte_errno);
    return false;
  }
  rte_acl_ctx *ctx_ = nullptr;
};

}  // namespace testsupport

#endif
