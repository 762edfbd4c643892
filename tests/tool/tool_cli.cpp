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
  EXPECT_NE(r.err.find("--explain: not a packet number or range N-M: \"x\""), std::string::npos) << r.err;
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
    EXPECT_EQ(r.err, "nikerkiog: no-such-rules.txt: No such file or directory\n") << command;
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
  std::string path = std::string(NIKERKIOG_BINARY_DIR) + "/tools/nikerkiog.1";
  ASSERT_TRUE(std::ifstream(path).good())
      << "the manual page " << path << " was not built: scdoc was missing when the build was configured "
      << "(scripts/deps.sh native installs it; then configure again)";
  std::string page = testsupport::read_text_file(path);
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
  EXPECT_EQ(r.err, "nikerkiog: no-such-rules.txt: No such file or directory\n");
}

TEST(ToolCli, EveryCommandAnswersVersion) {
  for (const char *command : {"describe", "classify", "dhcp", "check", "acl", "acl check", "masq check",
                              "ip6fw check"}) {
    auto r = run_tool(std::string(command) + " --version");
    EXPECT_EQ(r.status, 0) << command << ": " << r.err;
    EXPECT_EQ(r.out, std::string("nikerkiog ") + NIKERKIOG_VERSION + "\n") << command;
  }
}

TEST(ToolCli, ExplainBeforeThePositionalArgumentsTakesOnlyItsOwnValue) {
  tooltest::expect_output("classify-explain-positional",
                          run_tool("classify --explain 2 tool/explain-positional.rules captures/dns_udp.pcap"), 0);
}

TEST(ToolCli, ExplainTakesRangesAndAll) {
  auto ranges = run_tool("classify --explain 1-2 tool/explain-positional.rules captures/dns_udp.pcap");
  auto all = run_tool("classify --explain all tool/explain-positional.rules captures/dns_udp.pcap");
  EXPECT_EQ(ranges.status, 0) << ranges.err;
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(ranges.out, all.out);
  std::size_t verdicts = 0;
  for (const auto &line : tooltest::lines_of(all.out)) verdicts += line.rfind("       verdict: ", 0) == 0;
  EXPECT_EQ(verdicts, 2u) << all.out;
}

TEST(ToolCli, ExplainRefusesABackwardRange) {
  auto r = run_tool("classify --explain 5-3 tool/explain-positional.rules captures/dns_udp.pcap");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("--explain: not a packet number or range N-M: \"5-3\""), std::string::npos) << r.err;
}

TEST(ToolCli, ClassifyRefusesSwappedRuleAndCaptureFilesBeforePrintingAnything) {
  auto r = run_tool("classify tool/captures/refused.pcap tool/refused.rules");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "nikerkiog: tool/captures/refused.pcap: a capture, not a rule file (the rule file comes first: "
            "classify RULES CAPTURE...)\n");
}

TEST(ToolCli, ClassifyRefusesAFileThatIsNotACaptureBeforePrintingAnything) {
  auto r = run_tool("classify tool/refused.rules tool/captures/refused.pcap tool/refused.rules");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "nikerkiog: tool/refused.rules: not a pcap or pcapng capture (unknown file format)\n");
}

TEST(ToolCli, ErrorMessagesNameTheFileOnceAndSayWhy) {
  struct Case {
    const char *args;
    const char *err;
  } cases[] = {
      {"describe tool/no-such.pcap", "nikerkiog: tool/no-such.pcap: No such file or directory\n"},
      {"dhcp tool", "nikerkiog: tool: Is a directory\n"},
      {"classify tool/no-such.rules captures/dns_udp.pcap", "nikerkiog: tool/no-such.rules: No such file or directory\n"},
      {"classify tool/refused.rules tool/no-such.pcap", "nikerkiog: tool/no-such.pcap: No such file or directory\n"},
      {"acl check tool/no-such.txt", "nikerkiog: tool/no-such.txt: No such file or directory\n"},
  };
  for (const auto &c : cases) {
    auto r = run_tool(c.args);
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_EQ(r.err, c.err) << c.args;
  }
}
