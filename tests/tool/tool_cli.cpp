// The tool's command line: help, version, exit statuses, unreadable and
// truncated files.
#include <gtest/gtest.h>

#include <string>

#include "tool_support.h"

using tooltest::run_tool;

TEST(ToolCli, NoCommandPrintsTheHelpOnStandardErrorAndExits2) {
  auto r = run_tool("");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("Subcommands:"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("dhcp"), std::string::npos) << r.err;
}

TEST(ToolCli, VersionIsTheLibrarysVersion) {
  auto r = run_tool("--version");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("nikerkiog ") + NIKERKIOG_VERSION + "\n");
}

TEST(ToolCli, EveryCommandHasHelpAndExits0) {
  for (const char *command : {"describe", "classify", "dhcp", "check", "acl check", "masq check", "ip6fw check"}) {
    auto r = run_tool(std::string(command) + " --help");
    EXPECT_EQ(r.status, 0) << command;
    EXPECT_NE(r.out.find("Usage:"), std::string::npos) << command << ": " << r.out;
  }
}

TEST(ToolCli, FirewallGroupWithoutCommandPrintsItsHelpAndExits2) {
  auto r = run_tool("acl");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("check"), std::string::npos) << r.err;
}

TEST(ToolCli, UnknownOptionIsAUsageErrorWithStatus2) {
  auto r = run_tool("describe --frobnicate captures/dns_udp.pcap");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("--frobnicate"), std::string::npos) << r.err;
}

TEST(ToolCli, ClassifyNeedsCapturesOrLiveInterface) {
  auto r = run_tool("classify ../../examples/rules.txt");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "nikerkiog classify: give capture files or --live INTERFACE (one of the two)\n");
}

TEST(ToolCli, ExplainTakesOnlyPacketNumbers) {
  auto r = run_tool("classify ../../examples/rules.txt captures/dns_udp.pcap --explain 1,x");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("not a packet number: x"), std::string::npos) << r.err;
}

TEST(ToolCli, MissingCaptureGivesStatus2ForEveryCaptureCommand) {
  for (const char *command : {"describe", "dhcp", "classify ../../examples/rules.txt"}) {
    auto r = run_tool(std::string(command) + " captures/no-such-file.pcap");
    EXPECT_EQ(r.status, 2) << command;
    EXPECT_NE(r.err.find("nikerkiog: captures/no-such-file.pcap: "), std::string::npos) << command << ": " << r.err;
  }
}

TEST(ToolCli, MissingRuleFileGivesStatus2ForEveryCheck) {
  for (const char *command : {"check", "acl check", "masq check", "ip6fw check"}) {
    auto r = run_tool(std::string(command) + " no-such-rules.txt");
    EXPECT_EQ(r.status, 2) << command;
    EXPECT_EQ(r.err, "nikerkiog: no-such-rules.txt: cannot read the rules file: No such file or directory\n") << command;
  }
}

TEST(ToolCli, TruncatedCaptureGivesStatus2AfterItsWholeFrames) {
  // The first frame of dns_udp.pcap whole, the second cut inside its record.
  auto capture = testsupport::read_pcap(testsupport::data_path("captures/dns_udp.pcap"));
  ASSERT_EQ(capture.packets.size(), 2u);
  std::string path = tooltest::build_path("dns-cut.pcap");
  {
    tooltest::PcapWriter w("dns-cut.pcap");
    w.add(capture.packets[0].data);
    w.add(capture.packets[1].data);
    w.close();
  }
  std::string text = testsupport::read_text_file(path);
  { std::ofstream(path, std::ios::binary | std::ios::trunc) << text.substr(0, text.size() - 10); }
  auto r = run_tool("describe " + path);
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(tooltest::lines_of(r.out).size(), 1u) << r.out;
  EXPECT_NE(r.err.find("nikerkiog: " + path + ": "), std::string::npos) << r.err;
}

TEST(ToolCli, NonCaptureFileGivesStatus2ForDhcp) {
  auto r = run_tool("dhcp iana-protocol-numbers.csv");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "# 0 DHCP messages in 0 frames\n");
  EXPECT_NE(r.err.find("nikerkiog: iana-protocol-numbers.csv: "), std::string::npos) << r.err;
}

TEST(ToolCli, ManualPageShowsEveryCommandWithAnExample) {
  std::string page = testsupport::read_text_file(std::string(NIKERKIOG_BINARY_DIR) + "/tools/nikerkiog.1");
  for (const char *example : {"nikerkiog check ", "nikerkiog acl check ", "nikerkiog masq check ",
                              "nikerkiog ip6fw check ", "nikerkiog classify ", "--live ", "--explain ",
                              "nikerkiog dhcp ", "nikerkiog describe "})
    EXPECT_NE(page.find(example), std::string::npos) << example;
  EXPECT_NE(page.find("JSON LINES"), std::string::npos);
  EXPECT_NE(page.find("EXIT STATUS"), std::string::npos);
}

TEST(ToolCli, DescribeOfTwoCapturesNamesEachBeforeItsPackets) {
  tooltest::expect_output("describe-two-captures",
                          run_tool("describe captures/dns_udp.pcap captures/802.1ad_QinQ.pcap"), 0);
}

TEST(ToolCli, MissingRuleFileGivesStatus2ForClassify) {
  auto r = run_tool("classify no-such-rules.txt captures/dns_udp.pcap");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "nikerkiog: no-such-rules.txt: cannot read the rules file: No such file or directory\n");
}
