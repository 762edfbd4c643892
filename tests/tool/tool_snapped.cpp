// classify on a capture taken with a small snap length (64 bytes, as routers
// often capture): packets are classified on the bytes that were kept, and a
// verdict says when a rule needed bytes beyond them.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

#include "tool_support.h"

using tooltest::expect_output;
using tooltest::run_tool;

// Packet 1 is a TCP segment to port 80 and packet 3 an IPv6 DNS query, both
// cut after their transport headers; packet 2 is a DHCP discover cut long
// before its options, so the dhcpoption rule cannot be decided.
TEST(ToolSnapped, PacketsAreClassifiedOnTheirCapturedBytesAndUndecidedVerdictsSaySo) {
  expect_output("classify-snapped", run_tool("classify tool/snapped.rules tool/captures/snapped-64.pcap"), 1);
}

TEST(ToolSnapped, ExplanationShowsTheConditionThatNeededMoreBytes) {
  expect_output("classify-snapped-explain",
                run_tool("classify tool/snapped.rules tool/captures/snapped-64.pcap --explain 2"), 1);
}

TEST(ToolSnapped, JsonPacketNamesTheRuleThatNeededMoreBytes) {
  auto r = run_tool("classify --json tool/snapped.rules tool/captures/snapped-64.pcap");
  EXPECT_EQ(r.status, 1);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_FALSE(nlohmann::json::parse(lines[0]).contains("beyond_snap"));
  EXPECT_EQ(nlohmann::json::parse(lines[1])["beyond_snap"],
            nlohmann::json::parse(R"({"captured":64,"wire_length":303,"line":2,"keyword":"dhcpoption"})"));
  auto summary = nlohmann::json::parse(lines[3]);
  EXPECT_EQ(summary["beyond_snap"], 1);
  EXPECT_EQ(summary["no_rule"], 1);
}

TEST(ToolSnapped, SnappedPacketsThatNoRuleNeedsMoreOfExitWith0) {
  // Without the DHCP rule every verdict stands on the captured bytes.
  std::string rules = tooltest::build_path("snapped-decided.rules");
  std::ofstream(rules) << "tcp.dport 80 => 20\nudp.dport 53 => 30\n";
  auto r = run_tool("classify " + rules + " tool/captures/snapped-64.pcap");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.find("snapped"), std::string::npos) << r.out;
  EXPECT_EQ(tooltest::lines_of(r.out)[0], "    1  rule at line 1 => 20");
}

// The same with a capture cut by editcap, the tool users snap captures with:
// the relay's DHCP messages still reach the port rule, and the host-name
// rule before it could not be decided.
TEST(ToolSnapped, CaptureSnappedByEditcapIsClassifiedOnItsHeaders) {
  if (!testsupport::have_program("editcap")) GTEST_SKIP() << "editcap (wireshark-common) is not installed";
  std::string snapped = tooltest::build_path("dhcp-mud-64.pcap");
  int status = -1;
  testsupport::run_command("editcap -s 64 '" + testsupport::data_path("captures/dhcp-mud.pcap") + "' '" + snapped +
                               "' 2>&1",
                           &status);
  ASSERT_EQ(status, 0);
  auto r = run_tool("classify tool/snapped-editcap.rules " + snapped);
  EXPECT_EQ(r.status, 1) << r.err;
  auto lines = tooltest::lines_of(r.out);
  ASSERT_GE(lines.size(), 2u) << r.out;
  EXPECT_EQ(lines[0], "    1  rule at line 3 => 6  (snapped at 64 of 436 bytes: line 2 dhcpoption needs bytes beyond them)");
  EXPECT_EQ(lines[1], "    2  rule at line 3 => 6  (snapped at 64 of 352 bytes: line 2 dhcpoption needs bytes beyond them)");
}
