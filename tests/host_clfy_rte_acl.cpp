// Compiled rule sets against DPDK's packet classification library
// (rte_acl), which nobody here wrote, on the generated rule sets shaped
// like access lists, firewalls and IP chains (scripts/gen-rulesets.py, run
// at build time): for every plain IPv4 packet of a set's trace, the first
// rule the compiled set finds is the rule rte_acl finds, where rte_acl gets
// the address/port/protocol rules with priorities falling in list order.
// The few rules only the classifier expresses (IPv6, VLAN, device) are left
// out of rte_acl's set; they apply to none of those packets.  Packets drawn
// from them are checked against the list search.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nikerkiog.h"
#include "ruleset_files.h"
#ifdef NIKERKIOG_HAVE_DPDK
#include "acl_reference.h"
#endif

namespace {

using testsupport::rule_number;
using testsupport::TracedPacket;
using testsupport::TraceKind;

struct GeneratedSet {
  const char *flavour;
  int rules;
};

std::string set_name(const GeneratedSet &s) { return std::string(s.flavour) + "-" + std::to_string(s.rules); }

class CompiledSetAgainstRteAcl : public ::testing::TestWithParam<GeneratedSet> {};

struct OwnedSet {
  nuv_clfy_set set{};
  ~OwnedSet() { nuv_clfy_del_and_free_all(&set); }
};

struct OwnedCompiled {
  nuv_clfy_compiled *c = nullptr;
  ~OwnedCompiled() { nuv_clfy_compiled_free(c); }
};

TEST_P(CompiledSetAgainstRteAcl, FindsTheSameFirstRuleForEveryPacketOfTheTrace) {
#ifndef NIKERKIOG_HAVE_DPDK
  GTEST_SKIP() << "built without DPDK (pkg-config libdpdk not found; scripts/deps.sh installs dpdk-dev)";
#else
  ASSERT_TRUE(testsupport::start_dpdk()) << "DPDK's environment did not start";
  const std::string stem = std::string(NIKERKIOG_RULESETS_DIR) + "/" + set_name(GetParam());
  const std::vector<std::string> lines = testsupport::content_lines(stem + ".rules");
  const std::vector<testsupport::TupleRule> tuples = testsupport::read_tuples(stem + ".tuples");
  std::string error;
  const std::vector<TracedPacket> packets = testsupport::read_trace(stem + ".trace", error);
  ASSERT_EQ(error, "");
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(GetParam().rules));
  ASSERT_EQ(tuples.size(), lines.size());

  OwnedSet linear;
  ASSERT_TRUE(testsupport::fill_numbered_set(lines, linear.set, error)) << error;
  OwnedCompiled compiled;
  ASSERT_EQ(nuv_clfy_set_compile(&linear.set, &compiled.c), NUV_CLFY_COMPILE_OK);
  testsupport::AclReference acl;
  ASSERT_TRUE(acl.build(tuples, error)) << error;

  int plain = 0, found = 0, mismatches = 0;
  for (const TracedPacket &p : packets) {
    const unsigned mine = rule_number(nuv_clfy_compiled_get_clfy(compiled.c, 0, &p.desc));
    if (p.kind == TraceKind::kExtended) {
      EXPECT_EQ(mine, rule_number(nuv_clfy_get_clfy_from_set(&linear.set, 0, &p.desc))) << p.line;
      continue;
    }
    const std::uint8_t *header = p.frame.data() + p.ip4_offset;
    std::uint32_t reference = 0;
    acl.classify(&header, &reference, 1);
    ++plain;
    found += reference != 0;
    if (p.kind == TraceKind::kMiss) {
      EXPECT_EQ(reference, 0u) << "made to miss: " << p.line;
    }
    if (mine != reference && ++mismatches <= 10) {
      ADD_FAILURE() << "compiled set finds rule " << mine << ", rte_acl " << reference << ": " << p.line;
    }
  }
  EXPECT_EQ(mismatches, 0);
  // The traces are mostly drawn from inside rules: a comparison where
  // nothing matches would prove little.
  EXPECT_GT(plain, 3000);
  EXPECT_GT(found, plain / 2);
#endif
}

INSTANTIATE_TEST_SUITE_P(GeneratedSets, CompiledSetAgainstRteAcl,
                         ::testing::Values(GeneratedSet{"acl", 100}, GeneratedSet{"acl", 1000},
                                           GeneratedSet{"fw", 100}, GeneratedSet{"fw", 1000},
                                           GeneratedSet{"ipc", 100}, GeneratedSet{"ipc", 1000},
                                           GeneratedSet{"acl", 10000}),
                         [](const ::testing::TestParamInfo<GeneratedSet> &info) {
                           std::string name = set_name(info.param);
                           for (char &c : name)
                             if (c == '-') c = '_';
                           return name;
                         });

}  // namespace
