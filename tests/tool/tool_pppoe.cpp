// PPPoE session frames: the IP packet inside is what the router's PPP
// interface sees, so it is described and classified as that packet.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

#include "tool_support.h"

using tooltest::expect_output;
using tooltest::run_tool;

// Session 0x1234: an IPv4 DNS query, an IPv6 TCP SYN, an LCP echo request
// (not IP) and an ICMP echo request in a frame with VLAN tag 7.
TEST(ToolPppoe, DescribeDecodesTheIpPacketOfEachSessionFrameAndSaysSo) {
  expect_output("describe-pppoe", run_tool("describe tool/captures/pppoe-session.pcap"), 0);
}

// The PPP interface has no Ethernet header and no VLAN tag: the VLAN rule
// never applies, and only the LCP frame (not IP) is seen with its Ethernet
// type 0x8864.
TEST(ToolPppoe, ClassifyMatchesTheIpPacketAsThePppInterfaceSeesIt) {
  expect_output("classify-pppoe", run_tool("classify tool/pppoe.rules tool/captures/pppoe-session.pcap"), 0);
}

TEST(ToolPppoe, DescribeJsonCarriesTheSessionId) {
  auto r = run_tool("describe --json tool/captures/pppoe-session.pcap");
  EXPECT_EQ(r.status, 0);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 5u) << r.out;
  auto first = nlohmann::json::parse(lines[0]);
  EXPECT_EQ(first["pppoe_session"], 0x1234);
  EXPECT_EQ(first["description"], "UDP 100.64.0.2:40000 -> 198.51.100.53:53");
}

TEST(ToolPppoe, AddressesOfTheInnerPacketsAgreeWithTshark) {
  if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark is not installed";
  std::string capture = testsupport::data_path("tool/captures/pppoe-session.pcap");
  auto rows = tooltest::lines_of(testsupport::run_command(
      "tshark -r " + capture + " -T fields -E separator=' ' -e pppoe.session_id -e ip.src -e ipv6.src -e ip.dst "
      "-e ipv6.dst 2>/dev/null"));
  auto lines = tooltest::lines_of(run_tool("describe " + capture).out);
  ASSERT_EQ(rows.size(), 4u);
  ASSERT_EQ(lines.size(), 4u);
  for (std::size_t i : {0u, 1u, 3u}) {
    std::istringstream fields(rows[i]);
    std::string session, source, destination;
    fields >> session >> source >> destination;
    EXPECT_EQ(session, "0x1234") << rows[i];
    EXPECT_NE(lines[i].find(" " + source), std::string::npos) << lines[i] << " / tshark: " << rows[i];
    EXPECT_NE(lines[i].find("-> " + destination), std::string::npos) << lines[i] << " / tshark: " << rows[i];
    EXPECT_NE(lines[i].find("pppoe session 0x1234"), std::string::npos) << lines[i];
  }
}
