// The `nikerkiog classify` command: rules from a file tried on captures.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "testsupport.h"

using testsupport::run_command;
using testsupport::data_path;

namespace {

std::string write_rules(const std::string &name, const std::string &text) {
  std::string path = std::string(NIKERKIOG_BINARY_DIR) + "/" + name;
  std::ofstream(path) << text;
  return path;
}

std::string classify(const std::string &args, int *status = nullptr) {
  return run_command(std::string(NIKERKIOG_TOOL_PATH) + " classify " + args + " 2>&1", status);
}

// The per-packet verdict lines ("    1  rule at line 3 => 7"), without the rule-set listing.
std::vector<std::string> verdicts(const std::string &out) {
  std::vector<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("# rule set", 0) == 0) break;
    if (line.rfind("# ", 0) != 0) lines.push_back(line);
  }
  return lines;
}

std::string capture(const char *name) { return data_path(std::string("captures/") + name); }

}  // namespace

TEST(Classify, DnsQueryAndAnswerTakeTheirPortRules) {
  std::string rules = write_rules("dns.rules",
                                  "# DNS\n"
                                  "udp.dport 53 => 30\n"
                                  "udp.sport 53 => 31\n");
  int status = -1;
  auto lines = verdicts(classify(rules + " " + capture("dns_udp.pcap"), &status));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(lines, (std::vector<std::string>{"    1  rule at line 2 => 30", "    2  rule at line 3 => 31"}));
}

TEST(Classify, FirstMatchingRuleWinsAndUnmatchedPacketsSaySo) {
  std::string rules = write_rules("web.rules",
                                  "tcp.flags 0x002/0x012 => 1\n"   // SYN without ACK
                                  "tcp.sport 80 => 2\n"
                                  "ip.daddr 137.116.81.94 => 3\n");
  auto lines = verdicts(classify(rules + " " + capture("tcp-handshake-nano.pcap")));
  EXPECT_EQ(lines, (std::vector<std::string>{"    1  rule at line 1 => 1", "    2  rule at line 2 => 2",
                                             "    3  rule at line 3 => 3"}));
  std::string none = write_rules("none.rules", "udp.dport 53 => 1\n");
  EXPECT_EQ(verdicts(classify(none + " " + capture("tcp-handshake-nano.pcap"))).front(), "    1  no rule");
}

TEST(Classify, OuterVlanTagOfStackedTagsIsTheDescriptorsTag) {
  std::string rules = write_rules("vlan.rules", "vlan.id 2001 => 1\nvlan.id 200 => 2\n");
  auto lines = verdicts(classify(rules + " " + capture("802.1ad_QinQ.pcap")));
  EXPECT_EQ(lines, (std::vector<std::string>{"    1  rule at line 2 => 2", "    2  rule at line 2 => 2"}));
}

TEST(Classify, DhcpClientLearnedFromItsDiscoverIsKnownByItsAddressLater) {
  // Frames 1 and 3 are the client's DISCOVER and REQUEST (sent from its own
  // MAC 00:0c:29:1f:74:06), 2 and 4 the server's OFFER and ACK.
  std::string rules = write_rules("learn.rules",
                                  "ethsrctab vm.clients => 1\n"
                                  "dhcpheader chaddr 00:0C:29:* vm.clients => 2\n");
  auto lines = verdicts(classify(rules + " " + capture("dhcp-rfc3004.pcap")));
  EXPECT_EQ(lines, (std::vector<std::string>{"    1  rule at line 2 => 2", "    2  no rule",
                                             "    3  rule at line 1 => 1", "    4  no rule"}));
}

TEST(Classify, RelayedDhcpRequestLearnsTheClientNotTheRelay) {
  // The REQUEST of dhcp-mud.pcap comes through a relay (frame source
  // 00:23:eb:10:2c:29); the learned address is the client hardware address.
  std::string table_rules = write_rules("relay2.rules", "ethsrctab relayed.clients => 1\n"
                                                        "dhcpoption 60 dhcpcd-* relayed.clients => 2\n");
  std::string listing = classify(table_rules + " " + capture("dhcp-mud.pcap"));
  EXPECT_NE(listing.find("ethsrctab relayed.clients b8:27:eb:b8:53:c8 "), std::string::npos) << listing;
  EXPECT_EQ(verdicts(listing).front(), "    1  rule at line 2 => 2");
}

TEST(Classify, DevConditionsHoldOnlyForTheInterfaceNamed) {
  std::string rules = write_rules("dev.rules", "dev wan0 => 9\n");
  EXPECT_EQ(verdicts(classify(rules + " " + capture("dns_udp.pcap"))).front(), "    1  no rule");
  EXPECT_EQ(verdicts(classify("--dev wan0 " + rules + " " + capture("dns_udp.pcap"))).front(),
            "    1  rule at line 1 => 9");
}

TEST(Classify, OptimisedSetGivesTheSameVerdictsOnEveryCapture) {
  std::string rules = testsupport::source_path("examples/rules.txt");
  for (const auto &name : testsupport::capture_names()) {
    std::string file = data_path("captures/" + name);
    EXPECT_EQ(verdicts(classify(rules + " " + file)), verdicts(classify("--optimise " + rules + " " + file))) << name;
  }
}

TEST(Classify, RefusedRuleIsReportedWithLineAndColumnAndGivesExitStatus1) {
  std::string rules = write_rules("bad.rules", "udp.dport 53\nip.version 5\n");
  int status = -1;
  std::string out = classify(rules + " " + capture("dns_udp.pcap"), &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find(rules + ":2:12: error: ip.version: IP version must be 4 or 6\n"
                     "ip.version 5\n"
                     "           ^\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(out.find("rule at line"), std::string::npos) << out;
}

TEST(Classify, ResultThatIsNotANumberGivesExitStatus1) {
  std::string rules = write_rules("badresult.rules", "udp.dport 53 => many\n");
  int status = -1;
  std::string out = classify(rules + " " + capture("dns_udp.pcap"), &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find(rules + ":1:17: error: the result after \"=>\" must be a number 0..65535\n"
                     "udp.dport 53 => many\n"
                     "                ^~~~\n"),
            std::string::npos)
      << out;
}

TEST(Classify, KeepGoingUsesTheAcceptedLinesAndStillGivesExitStatus1) {
  std::string rules = write_rules("keepgoing.rules", "udp.dport 53 => 30\nip.version 5\nudp.sport 53 => 31\n");
  int status = -1;
  std::string out = classify("--keep-going " + rules + " " + capture("dns_udp.pcap"), &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find(rules + ":2:12: error: "), std::string::npos) << out;
  std::string verdict_out = run_command(std::string(NIKERKIOG_TOOL_PATH) + " classify --keep-going " + rules + " " +
                                        capture("dns_udp.pcap") + " 2>/dev/null");
  EXPECT_EQ(verdicts(verdict_out),
            (std::vector<std::string>{"    1  rule at line 1 => 30", "    2  rule at line 3 => 31"}));
}

TEST(Classify, JsonReportsEveryPacketThenTheRuleSetWithHits) {
  std::string rules = write_rules("json.rules", "udp.sport 53 => 31\n");
  std::string out = run_command(std::string(NIKERKIOG_TOOL_PATH) + " classify --json " + rules + " " +
                                capture("dns_udp.pcap"));
  std::vector<nlohmann::json> objects;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) objects.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(objects.size(), 3u);
  EXPECT_TRUE(objects[0]["rule_line"].is_null());
  EXPECT_EQ(objects[1]["rule_line"], 1);
  EXPECT_EQ(objects[1]["result"], 31);
  ASSERT_EQ(objects[2]["rules"].size(), 1u);
  EXPECT_EQ(objects[2]["rules"][0]["text"], "ip.proto 17 udp.sport 53");
  EXPECT_EQ(objects[2]["rules"][0]["hits"], 1);
}
