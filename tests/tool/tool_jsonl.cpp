// JSON Lines output: one compact object per packet as it is produced, then
// one summary object; memory stays flat however large the capture.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "tool_support.h"

namespace {

constexpr std::size_t kPackets = 200000;
constexpr long kPeakLimitKiB = 64 * 1024;

// An Ethernet frame with an IPv4 UDP datagram from port 1000 + n % 50 to 53.
testsupport::Bytes udp_frame(std::size_t n) {
  testsupport::Bytes f = testsupport::hex_bytes(
      "00 11 22 33 44 55 66 77 88 99 aa bb 08 00"
      "45 00 00 24 00 00 40 00 40 11 00 00 0a 00 00 01 0a 00 00 02"
      "00 00 00 35 00 10 00 00 61 62 63 64 65 66 67 68");
  std::uint16_t sport = static_cast<std::uint16_t>(1000 + n % 50);
  f[34] = static_cast<std::uint8_t>(sport >> 8);
  f[35] = static_cast<std::uint8_t>(sport);
  return f;
}

const std::string &large_capture() {
  static const std::string path = [] {
    tooltest::PcapWriter w("jsonl-200000.pcap");
    for (std::size_t n = 0; n < kPackets; ++n) w.add(udp_frame(n));
    return w.close();
  }();
  return path;
}

// Runs the tool with `args` (standard output to `out_path`) and returns the
// child's peak resident size in KiB, or -1 when it did not exit with 0.
long peak_rss_kib(const std::vector<std::string> &args, const std::string &out_path) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, STDOUT_FILENO);
    std::vector<char *> argv{const_cast<char *>(NIKERKIOG_TOOL_PATH)};
    for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(NIKERKIOG_TOOL_PATH, argv.data());
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return usage.ru_maxrss;
}

std::size_t count_lines(const std::string &path) {
  std::ifstream in(path);
  std::size_t n = 0;
  for (std::string line; std::getline(in, line);) ++n;
  return n;
}

std::string write_rules() {
  std::string path = tooltest::build_path("jsonl.rules");
  std::ofstream(path) << "udp.sport 1000-1009 => 1\nudp.dport 53 => 2\n";
  return path;
}

// Resident sizes mean something only for the tool as it ships: the
// sanitizers' shadow memory and quarantine of freed blocks grow it by
// hundreds of megabytes.
class ToolMemory : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef NIKERKIOG_SANITIZED
    GTEST_SKIP() << "resident sizes are not measured in sanitizer builds";
#endif
  }
};

}  // namespace

TEST_F(ToolMemory, ClassifyOf200000PacketsStaysUnder64MB) {
  std::string out = tooltest::build_path("jsonl-classify.out");
  long peak = peak_rss_kib({"classify", "--json", write_rules(), large_capture()}, out);
  ASSERT_GT(peak, 0);
  EXPECT_LT(peak, kPeakLimitKiB);
  EXPECT_EQ(count_lines(out), kPackets + 1);
}

TEST_F(ToolMemory, DescribeOf200000PacketsStaysUnder64MB) {
  std::string out = tooltest::build_path("jsonl-describe.out");
  long peak = peak_rss_kib({"describe", "--json", large_capture()}, out);
  ASSERT_GT(peak, 0);
  EXPECT_LT(peak, kPeakLimitKiB);
  EXPECT_EQ(count_lines(out), kPackets + 1);
}

TEST(ToolJsonLines, ClassifyWritesOneCompactObjectPerPacketThenTheSummary) {
  auto r = tooltest::run_tool("classify --json ../../examples/rules.txt captures/dns_udp.pcap");
  EXPECT_EQ(r.status, 0);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u);
  auto first = nlohmann::json::parse(lines[0]);
  EXPECT_EQ(first, nlohmann::json::parse(R"({"type":"packet","file":"captures/dns_udp.pcap","number":1,)"
                                         R"("rule_line":13,"result":30})"));
  auto second = nlohmann::json::parse(lines[1]);
  EXPECT_EQ(second["rule_line"], 14);
  EXPECT_EQ(second["result"], 31);
  auto summary = nlohmann::json::parse(lines[2]);
  EXPECT_EQ(summary["type"], "summary");
  EXPECT_EQ(summary["packets"], 2);
  ASSERT_EQ(summary["rules"].size(), 10u);
  EXPECT_EQ(summary["rules"][4], nlohmann::json::parse(R"({"line":13,"depth":0,"text":"ip.proto 17 udp.dport 53",)"
                                                       R"("hits":1,"result":30})"));
}

TEST(ToolJsonLines, DescribeWritesOneObjectPerPacketThenTheSummary) {
  auto r = tooltest::run_tool("describe --json captures/dns_udp.pcap");
  EXPECT_EQ(r.status, 0);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u);
  auto first = nlohmann::json::parse(lines[0]);
  EXPECT_EQ(first["type"], "packet");
  EXPECT_EQ(first["number"], 1);
  EXPECT_EQ(first["checksums"]["ip"], "ok");
  EXPECT_EQ(nlohmann::json::parse(lines[2]),
            nlohmann::json::parse(R"({"type":"summary","files":1,"frames":2,"unreadable":[]})"));
}

TEST(ToolJsonLines, UnreadableFileIsNamedInTheSummary) {
  auto r = tooltest::run_tool("describe --json captures/dns_udp.pcap captures/no-such-file.pcap");
  EXPECT_EQ(r.status, 2);
  auto lines = tooltest::lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(nlohmann::json::parse(lines[2])["unreadable"], nlohmann::json::array({"captures/no-such-file.pcap"}));
}

TEST(ToolProgress, ProgressLineIsShownOnATerminalAndErasedAtTheEnd) {
  if (!testsupport::have_program("script")) GTEST_SKIP() << "script (util-linux) is not installed";
  // script gives the tool a terminal; standard output goes to /dev/null, so
  // what script records is the progress written to standard error.
  std::string terminal = testsupport::run_command("script -qec \"'" + std::string(NIKERKIOG_TOOL_PATH) +
                                                  "' describe '" + large_capture() + "' >/dev/null\" /dev/null");
  EXPECT_NE(terminal.find(" frames, "), std::string::npos) << terminal;
  EXPECT_NE(terminal.find(" frames/s, "), std::string::npos) << terminal;
  ASSERT_GE(terminal.size(), 4u);
  EXPECT_EQ(terminal.substr(terminal.size() - 4), "\r\033[K") << "the last thing written erases the line";
}

TEST(ToolProgress, NoProgressLineWhenStandardErrorIsNotATerminal) {
  auto r = tooltest::run_tool("describe " + large_capture() + " >/dev/null");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
}
