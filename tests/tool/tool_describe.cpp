// The `nikerkiog describe` command on real captures, checked against
// Debian's tshark decoding the same files.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "pcap_writer.h"
#include "testsupport.h"
#include "tool_support.h"

using testsupport::run_command;
using testsupport::data_path;

namespace {

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

std::vector<std::string> fields_of(const std::string &line) {
  std::vector<std::string> out;
  std::string field;
  std::istringstream in(line);
  while (std::getline(in, field, '\t')) out.push_back(field);
  if (!line.empty() && line.back() == '\t') out.push_back("");
  return out;
}

std::string describe(const std::string &args, int *status = nullptr) {
  return run_command(std::string(NIKERKIOG_TOOL_PATH) + " describe " + args + " 2>/dev/null", status);
}

// tshark's per-frame fields, one vector per frame.
std::vector<std::vector<std::string>> tshark_fields(const std::string &capture, const std::string &options) {
  std::vector<std::vector<std::string>> rows;
  std::string out = run_command("tshark -r " + capture + " " + options + " 2>/dev/null");
  for (const auto &line : lines_of(out)) rows.push_back(fields_of(line));
  return rows;
}

// The frame number a describe line starts with.
long frame_number_of(const std::string &line) { return std::strtol(line.c_str(), nullptr, 10); }

class DescribeWithTshark : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark is not installed";
  }
};

// A verdict word of the tool for tshark's checksum status (0 bad, 1 good).
std::string verdict_for_status(const std::string &status) {
  if (status == "0") return "bad";
  if (status == "1") return "ok";
  return "";
}

std::string verdict_in_line(const std::string &line, const std::string &layer) {
  std::string key = "  " + layer + ":";
  auto at = line.find(key);
  if (at == std::string::npos) return "";
  auto start = at + key.size();
  return line.substr(start, line.find(' ', start) - start);
}

}  // namespace

TEST_F(DescribeWithTshark, PrintsOneNumberedLinePerFrame) {
  for (const auto &name : testsupport::capture_names()) {
    std::string capture = data_path("captures/" + name);
    auto frames = tshark_fields(capture, "-T fields -e frame.number");
    auto lines = lines_of(describe(capture));
    ASSERT_EQ(lines.size(), frames.size()) << name;
    for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(frame_number_of(lines[i]), std::stol(frames[i][0])) << name;
  }
}

TEST_F(DescribeWithTshark, UdpLinesNameTheAddressesAndPortsTsharkDecodes) {
  std::string capture = data_path("captures/dns_udp.pcap");
  auto rows = tshark_fields(capture, "-T fields -e ip.src -e udp.srcport -e ip.dst -e udp.dstport");
  auto lines = lines_of(describe(capture));
  ASSERT_EQ(lines.size(), rows.size());
  ASSERT_FALSE(rows.empty());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    std::string expected = "UDP " + rows[i][0] + ":" + rows[i][1] + " -> " + rows[i][2] + ":" + rows[i][3];
    EXPECT_NE(lines[i].find(expected), std::string::npos) << lines[i] << "\nwanted: " << expected;
  }
}

TEST_F(DescribeWithTshark, ChecksumVerdictsAgreeWithTsharkValidation) {
  const std::string options =
      "-o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE -o udp.check_checksum:TRUE "
      "-T fields -e ip.checksum.status -e tcp.checksum.status -e udp.checksum.status -e icmp.checksum.status";
  const char *layers[] = {"ip", "tcp", "udp", "icmp"};
  int compared = 0;
  for (const auto &name : testsupport::capture_names()) {
    std::string capture = data_path("captures/" + name);
    auto rows = tshark_fields(capture, options);
    auto lines = lines_of(describe(capture));
    ASSERT_EQ(lines.size(), rows.size()) << name;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      for (std::size_t l = 0; l < 4 && l < rows[i].size(); ++l) {
        // Only the outermost header counts: tshark lists inner (ICMP-quoted) ones after a comma.
        std::string status = rows[i][l].substr(0, rows[i][l].find(','));
        std::string wanted = verdict_for_status(status);
        std::string got = verdict_in_line(lines[i], layers[l]);
        if (wanted.empty() || got.empty() || got == "truncated" || got == "fragment") continue;
        EXPECT_EQ(got, wanted) << name << " frame " << i + 1 << " " << layers[l] << ": " << lines[i];
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 20);
}

TEST_F(DescribeWithTshark, VlanIdsOfStackedTagsAreShownOuterFirst) {
  // tshark names the outer 802.1ad service tag and the inner 802.1Q tag apart.
  std::string capture = data_path("captures/802.1ad_QinQ.pcap");
  auto rows = tshark_fields(capture, "-T fields -e ieee8021ad.id -e vlan.id");
  auto lines = lines_of(describe(capture));
  ASSERT_EQ(lines.size(), rows.size());
  ASSERT_FALSE(rows.empty());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(rows[i].size(), 2u);
    EXPECT_NE(lines[i].find("vlan " + rows[i][0] + "/" + rows[i][1]), std::string::npos) << lines[i];
  }
}

TEST_F(DescribeWithTshark, PcapngFileDescribesLikeThePcapItWasMadeFrom) {
  std::string pcap = data_path("captures/dns_udp.pcap");
  std::string pcapng = std::string(NIKERKIOG_BINARY_DIR) + "/dns_udp.pcapng";
  int status = -1;
  run_command("tshark -r " + pcap + " -F pcapng -w " + pcapng + " 2>/dev/null", &status);
  ASSERT_EQ(status, 0);
  std::string from_pcap = describe(pcap);
  EXPECT_FALSE(from_pcap.empty());
  EXPECT_EQ(describe(pcapng), from_pcap);
}

namespace {

// Writes a one-frame Ethernet pcap holding `frame`, which was 100 bytes
// longer on the wire.
std::string write_pcap(const std::string &name, const testsupport::Bytes &frame) {
  testsupport::PcapWriter writer(std::string(NIKERKIOG_BINARY_DIR) + "/" + name);
  writer.add(frame, SIZE_MAX, frame.size() + 100);
  return writer.close();
}

}  // namespace

TEST(Describe, FrameCutInsideTheIpHeaderIsReportedAsTruncated) {
  auto frame = testsupport::hex_bytes(
      "00 11 22 33 44 55 66 77 88 99 aa bb 08 00"  // Ethernet, IPv4
      "45 00 00 3c 1c 46 40 00 40 06");            // 10 of 20 header bytes
  std::string path = write_pcap("cut-ipv4.pcap", frame);
  int status = -1;
  auto lines = lines_of(describe(path, &status));
  EXPECT_EQ(status, 0);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("truncated: IPv4 header needs 20 bytes, 10 captured"), std::string::npos) << lines[0];
}

TEST(Describe, TcpSegmentCutBeforeItsFlagsIsNotDescribed) {
  auto frame = testsupport::hex_bytes(
      "00 11 22 33 44 55 66 77 88 99 aa bb 08 00"
      "45 00 00 28 00 01 00 00 40 06 00 00 0a 00 00 01 0a 00 00 02"
      "04 d2 00 50 00 00 00 00");  // ports and sequence number only
  std::string path = write_pcap("cut-tcp.pcap", frame);
  auto lines = lines_of(describe(path));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("truncated"), std::string::npos) << lines[0];
  EXPECT_EQ(lines[0].find("TCP"), std::string::npos) << lines[0];
}

TEST(Describe, ArpFrameIsReportedAsNotIp) {
  auto frame = testsupport::hex_bytes(
      "ff ff ff ff ff ff 66 77 88 99 aa bb 08 06"
      "00 01 08 00 06 04 00 01 66 77 88 99 aa bb 0a 00 00 01 00 00 00 00 00 00 0a 00 00 02");
  std::string path = write_pcap("arp.pcap", frame);
  auto lines = lines_of(describe(path));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("not IP (ethertype 0x0806)"), std::string::npos) << lines[0];
}

TEST(Describe, UnreadableFileGivesAnErrorAndExitStatus2) {
  int status = -1;
  std::string err = run_command(std::string(NIKERKIOG_TOOL_PATH) + " describe /nonexistent/x.pcap 2>&1 >/dev/null",
                                &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(err.find("nikerkiog: /nonexistent/x.pcap:"), std::string::npos) << err;
}

TEST(Describe, NonCaptureFileGivesExitStatus2AfterDescribingTheOthers) {
  int status = -1;
  std::string out = describe(data_path("captures/dns_udp.pcap") + " " + data_path("iana-protocol-numbers.csv"),
                             &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(out.find("UDP "), std::string::npos);
}

TEST(Describe, JsonOutputHoldsOneObjectPerFrameThenASummary) {
  std::string out = describe("--json " + data_path("captures/dns_udp.pcap"));
  auto lines = lines_of(out);
  ASSERT_EQ(lines.size(), 3u);
  auto first = nlohmann::json::parse(lines[0]), second = nlohmann::json::parse(lines[1]);
  EXPECT_EQ(first["number"], 1);
  EXPECT_EQ(first["checksums"]["ip"], "ok");
  EXPECT_EQ(second["checksums"]["udp"], "ok");
  EXPECT_NE(second["description"].get<std::string>().find("UDP 209.87.249.18:53"), std::string::npos);
  EXPECT_EQ(nlohmann::json::parse(lines[2])["frames"], 2);
}

// Frame 1 has a zero UDP checksum (the sender computed none), frame 2 a
// correct one and frame 3 a wrong one.
TEST(ToolDescribe, ZeroIpv4UdpChecksumIsNoneNotBad) {
  tooltest::expect_output("describe-udp-zero-checksum",
                          tooltest::run_tool("describe tool/captures/udp-zero-checksum.pcap"), 0);
}
