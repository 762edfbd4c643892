// classify --live: live traffic of the loopback interface, inside a network
// namespace of the test's own, with a bounded number of UDP datagrams the
// test sends to 127.0.0.1 itself.
#include <gtest/gtest.h>

#include <string>

#include "tool_support.h"

namespace {

// Runs `nikerkiog classify RULES --live lo OPTIONS` in a new network
// namespace, sends `datagrams` UDP datagrams to 127.0.0.1:9999 (where a
// socket of the sender receives them, so no ICMP error comes back) one
// second after the start, and returns what the tool printed.
tooltest::Run live(const std::string &options, int datagrams, int *status) {
  std::string rules = tooltest::build_path("live.rules");
  std::ofstream(rules) << "udp.dport 9999 => 1\nudp.dport 53 => 2\n";
  std::string out = tooltest::build_path("live.out");
  std::string script =
      "ip link set lo up || exit 3\n"
      "'" + std::string(NIKERKIOG_TOOL_PATH) + "' classify '" + rules + "' --live lo " + options + " >'" + out +
      "' 2>&1 &\n"
      "sleep 1\n"
      "python3 -c \"import socket\n"
      "r = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); r.bind(('127.0.0.1', 9999))\n"
      "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
      "for _ in range(" + std::to_string(datagrams) + "): s.sendto(b'live', ('127.0.0.1', 9999))\"\n"
      "wait $!\n";
  std::string script_path = tooltest::build_path("live.sh");
  std::ofstream(script_path) << script;
  testsupport::run_command("timeout 30 unshare -n sh '" + script_path + "'", status);
  tooltest::Run r;
  r.out = testsupport::read_text_file(out);
  return r;
}

class ToolLive : public ::testing::Test {
 protected:
  void SetUp() override {
    int status = -1;
    testsupport::run_command("unshare -n true 2>/dev/null", &status);
    if (status != 0) GTEST_SKIP() << "no network namespace can be made here";
  }
};

}  // namespace

TEST_F(ToolLive, StopsAfterCountPacketsAndPrintsTheHitTableOnce) {
  int status = -1;
  auto r = live("--count 5 --seconds 20", 5, &status);
  EXPECT_EQ(status, 0);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u) << r.out;
  EXPECT_EQ(lines[0].rfind("# 5 packets on lo in ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "  0: ip.proto 17 udp.dport 9999 (tool-report) => 1  (line 1, 5 hits)");
  EXPECT_EQ(lines[2], "  0: ip.proto 17 udp.dport 53 (tool-report) => 2  (line 2, 0 hits)");
}

TEST_F(ToolLive, StopsAfterSecondsWithFewerPacketsThanCount) {
  int status = -1;
  auto r = live("--count 100 --seconds 3", 3, &status);
  EXPECT_EQ(status, 0);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u) << r.out;
  EXPECT_EQ(lines[0].rfind("# 3 packets on lo in ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "  0: ip.proto 17 udp.dport 9999 (tool-report) => 1  (line 1, 3 hits)");
}

TEST_F(ToolLive, UnknownInterfaceGivesStatus2) {
  auto r = tooltest::run_tool("classify ../../examples/rules.txt --live no-such-if0 --seconds 1");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("nikerkiog: no-such-if0: "), std::string::npos) << r.err;
}
