// classify --explain: for chosen packets every rule tried in tree order,
// with "matched" or the first condition that failed, then the verdict.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

#include "tool_support.h"

using tooltest::expect_output;
using tooltest::run_tool;

TEST(ToolExplain, PlainVerdictsAndHitTableOfTheExampleRules) {
  expect_output("classify-dhcp-rfc3004", run_tool("classify ../../examples/rules.txt captures/dhcp-rfc3004.pcap"), 0);
}

TEST(ToolExplain, MulticastListenerQueryMissesTheRouterAdvertisementRule) {
  // Packet 3 is an ICMPv6 multicast listener query (type 130) behind a
  // hop-by-hop header, sent to ff02::1.
  expect_output("classify-explain",
                run_tool("classify ../../examples/rules.txt captures/icmpv6.pcap --explain 3"), 0);
}

TEST(ToolExplain, OptimisedSetIsExplainedThroughItsGroups) {
  expect_output("classify-explain-optimised",
                run_tool("classify --optimise ../../examples/rules.txt captures/icmpv6.pcap --explain 3"), 0);
}

TEST(ToolExplain, ExplanationCountsNoHits) {
  auto plain = run_tool("classify ../../examples/rules.txt captures/icmpv6.pcap");
  auto explained = run_tool("classify ../../examples/rules.txt captures/icmpv6.pcap --explain 1,2,3,4,5");
  auto table = [](const std::string &out) { return out.substr(out.find("# rule set")); };
  EXPECT_EQ(table(explained.out), table(plain.out));
}

TEST(ToolExplain, JsonPacketCarriesItsExplanation) {
  auto r = run_tool("classify --json ../../examples/rules.txt captures/dns_udp.pcap --explain 2");
  EXPECT_EQ(r.status, 0);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_FALSE(nlohmann::json::parse(lines[0]).contains("explanation"));
  auto packet = nlohmann::json::parse(lines[1]);
  EXPECT_EQ(packet["rule_line"], 14);
  ASSERT_EQ(packet["explanation"].size(), 6u);
  EXPECT_EQ(packet["explanation"][4],
            nlohmann::json::parse(R"({"depth":0,"line":13,"matched":false,"keyword":"udp.dport",)"
                                  R"("reason":"udp.dport: packet has 43966, rule wants 53"})"));
  EXPECT_EQ(packet["explanation"][5], nlohmann::json::parse(R"({"depth":0,"line":14,"matched":true})"));
}

TEST(ToolExplain, ExplainedNumberBeyondTheCaptureIsWarnedAboutButNotAnError) {
  auto r = run_tool("classify ../../examples/rules.txt captures/dns_udp.pcap --explain 1,9");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.find("    2  rule at line 14 => 31\n       line"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("verdict:"), std::string::npos) << r.out;
  EXPECT_EQ(r.err, "nikerkiog: captures/dns_udp.pcap: warning: --explain 9: the capture has only 2 packets\n");
}
