// classify --live: live traffic of the loopback interface, inside a network
// namespace of the test's own, with a bounded number of UDP datagrams the
// test sends to 127.0.0.1 itself.
#include <gtest/gtest.h>

#include <string>

#include "tool_support.h"

namespace {

// What a live run inside its namespace does besides capturing.
struct LiveScenario {
  std::string options;        // after "--live lo"
  int datagrams = 0;          // to 127.0.0.1:9999, which the first rule takes
  int unmatched = 0;          // to 127.0.0.1:7777, which no rule takes
  std::string then;           // shell lines run after sending ($tool is the tool's process id)
  std::string wrapper;        // command the tool runs under (setpriv ...)
};

// Runs `nikerkiog classify RULES --live lo OPTIONS` in a new network
// namespace, sends the scenario's UDP datagrams (to ports where a socket of
// the sender receives them, so no ICMP error comes back) one second after
// the start, and returns what the tool printed on standard output and
// standard error, with its exit status.
tooltest::Run live(const LiveScenario &s) {
  std::string rules = tooltest::build_path("live.rules");
  std::ofstream(rules) << "udp.dport 9999 => 1\nudp.dport 53 => 2\n";
  std::string out = tooltest::build_path("live.out");
  std::string err = tooltest::build_path("live.err");
  std::string script =
      "ip link set lo up || exit 3\n" + s.wrapper + " '" + std::string(NIKERKIOG_TOOL_PATH) + "' classify '" + rules +
      "' --live lo " + s.options + " >'" + out + "' 2>'" + err + "' &\n"
      "tool=$!\n"
      "sleep 1\n"
      "python3 -c \"import socket\n"
      "r = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); r.bind(('127.0.0.1', 9999))\n"
      "u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); u.bind(('127.0.0.1', 7777))\n"
      "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
      "for _ in range(" + std::to_string(s.datagrams) + "): s.sendto(b'live', ('127.0.0.1', 9999))\n"
      "for _ in range(" + std::to_string(s.unmatched) + "): s.sendto(b'miss', ('127.0.0.1', 7777))\"\n" +
      s.then + "wait $tool\n";
  std::string script_path = tooltest::build_path("live.sh");
  std::ofstream(script_path) << script;
  tooltest::Run r;
  testsupport::run_command("timeout 30 unshare -n sh '" + script_path + "'", &r.status);
  r.out = testsupport::read_text_file(out);
  r.err = testsupport::read_text_file(err);
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
  auto r = live({"--count 5 --seconds 20", 5, 0, "", ""});
  EXPECT_EQ(r.status, 0) << r.err;
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_EQ(lines[0].rfind("# 5 packets on lo in ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "  0: ip.proto 17 udp.dport 9999 (tool-report) => 1  (line 1, 5 hits)");
  EXPECT_EQ(lines[2], "  0: ip.proto 17 udp.dport 53 (tool-report) => 2  (line 2, 0 hits)");
  EXPECT_EQ(lines[3], "  no rule  (0 packets)");
}

TEST_F(ToolLive, StopsAfterSecondsWithFewerPacketsThanCount) {
  auto r = live({"--count 100 --seconds 3", 3, 0, "", ""});
  EXPECT_EQ(r.status, 0) << r.err;
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_EQ(lines[0].rfind("# 3 packets on lo in ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "  0: ip.proto 17 udp.dport 9999 (tool-report) => 1  (line 1, 3 hits)");
}

TEST_F(ToolLive, PacketsNoRuleTakesAreCounted) {
  auto r = live({"--count 5 --seconds 20", 2, 3, "", ""});
  EXPECT_EQ(r.status, 0) << r.err;
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_EQ(lines[0].rfind("# 5 packets on lo in ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "  0: ip.proto 17 udp.dport 9999 (tool-report) => 1  (line 1, 2 hits)");
  EXPECT_EQ(lines[3], "  no rule  (3 packets)");
}

TEST_F(ToolLive, TerminationRequestPrintsTheFinalTable) {
  // The capture would run 20 seconds; SIGTERM ends it once the datagrams are in.
  auto r = live({"--seconds 20", 4, 0, "sleep 1\nkill -TERM $tool\n", ""});
  EXPECT_EQ(r.status, 0) << r.err;
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_EQ(lines[0].rfind("# 4 packets on lo in ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "  0: ip.proto 17 udp.dport 9999 (tool-report) => 1  (line 1, 4 hits)");
}

TEST_F(ToolLive, InterruptPrintsTheFinalTable) {
  // A shell starts background jobs with SIGINT ignored; the tool's own
  // handler takes it over as Ctrl-C would reach it.
  auto r = live({"--seconds 20", 2, 0, "sleep 1\nkill -INT $tool\n", ""});
  EXPECT_EQ(r.status, 0) << r.err;
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_EQ(lines[0].rfind("# 2 packets on lo in ", 0), 0u) << lines[0];
}

TEST_F(ToolLive, MissingCaptureRightsFailClearlyWithoutATable) {
  auto r = live({"--seconds 3", 1, 0, "", "setpriv --inh-caps=-net_raw --bounding-set=-net_raw"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("nikerkiog: lo: cannot capture: no permission to capture on this interface (capturing "
                        "needs root or the CAP_NET_RAW capability)", 0), 0u) << r.err;
}

TEST_F(ToolLive, UnknownInterfaceFailsClearlyWithoutATable) {
  auto r = tooltest::run_tool("classify ../../examples/rules.txt --live no-such-if0 --seconds 1");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("nikerkiog: no-such-if0: cannot capture: no such interface", 0), 0u) << r.err;
}

TEST(ToolLiveLimits, CountAndSecondsOfZeroOrLessAreRefused) {
  struct Case {
    const char *args;
    const char *message;
  } cases[] = {
      {"--count 0", "--count: must be a whole number above 0, not \"0\""},
      {"--seconds 0", "--seconds: must be a number of seconds above 0, not \"0\""},
      {"--seconds -1", "--seconds: must be a number of seconds above 0, not \"-1\""},
      {"--count -3", "--count: must be a whole number above 0, not \"-3\""},
  };
  // On an interface that does not exist, so that a limit taken for "no
  // limit" ends in an error instead of a capture that never stops.
  for (const auto &c : cases) {
    auto r = tooltest::run_tool("classify ../../examples/rules.txt --live no-such-if0 " + std::string(c.args));
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_EQ(r.out, "") << c.args;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << ": " << r.err;
  }
}
