// The dhcp command: every DHCP message of a capture with its header fields
// and its options as the library's option store reads them.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <set>
#include <string>

#include "tool_support.h"

using testsupport::Bytes;
using testsupport::hex_bytes;
using tooltest::expect_output;
using tooltest::run_tool;

namespace {

void append(Bytes &to, const Bytes &bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

// An Ethernet frame carrying `dhcp` from 192.168.1.1:67 to 192.168.1.4:68.
Bytes dhcp_frame(const Bytes &dhcp) {
  Bytes f = hex_bytes("00 0c 29 1f 74 06 00 11 22 33 44 55 08 00");
  std::size_t udp = 8 + dhcp.size(), ip = 20 + udp;
  append(f, hex_bytes("45 00"));
  f.push_back(static_cast<std::uint8_t>(ip >> 8));
  f.push_back(static_cast<std::uint8_t>(ip));
  append(f, hex_bytes("00 01 00 00 40 11 00 00 c0 a8 01 01 c0 a8 01 04 00 43 00 44"));
  f.push_back(static_cast<std::uint8_t>(udp >> 8));
  f.push_back(static_cast<std::uint8_t>(udp));
  append(f, hex_bytes("00 00"));
  append(f, dhcp);
  return f;
}

// A field of `size` bytes holding `bytes`, zero-filled.
Bytes field(const Bytes &bytes, std::size_t size) {
  Bytes f = bytes;
  f.resize(size, 0);
  return f;
}

// An ACK whose options continue in `file` and `sname` (option 52 = 3):
//   options area: 53 = 5; 52 = 3; 12 "box" and again "-01"; option 43 with
//     sub-options 1 "abc", 2 = 01 02, 1 "de"; option 125 with a block of
//     enterprise 3561 (sub 1 "xyz", sub 2 = 07) and one of 4491 (sub 1 "ok");
//     option 124 with enterprise 3561 (sub 1 "cl01"); end.
//   file: 15 "lan", 12 "x", end.   sname: 66 "tftp.lan", end.
Bytes overloaded_ack() {
  Bytes m = hex_bytes(
      "02 01 06 00 de ad be ef 00 05 80 00"  // op, htype, hlen, hops, xid, secs 5, broadcast flag
      "00 00 00 00 c0 a8 01 04 c0 a8 01 01 00 00 00 00"  // ciaddr, yiaddr, siaddr, giaddr
      "00 0c 29 1f 74 06 00 00 00 00 00 00 00 00 00 00");  // chaddr
  append(m, field(hex_bytes("42 08 74 66 74 70 2e 6c 61 6e ff"), 64));     // sname: 66 "tftp.lan"
  append(m, field(hex_bytes("0f 03 6c 61 6e 0c 01 78 ff"), 128));          // file: 15 "lan", 12 "x"
  append(m, hex_bytes("63 82 53 63"
                      "35 01 05 34 01 03"
                      "0c 03 62 6f 78 0c 03 2d 30 31"
                      "2b 0d 01 03 61 62 63 02 02 01 02 01 02 64 65"
                      "7d 16 00 00 0d e9 08 01 03 78 79 7a 02 01 07 00 00 11 8b 04 01 02 6f 6b"
                      "7c 0b 00 00 0d e9 06 01 04 63 6c 30 31"
                      "ff"));
  return m;
}

std::string overloaded_capture() {
  tooltest::PcapWriter w("dhcp-overloaded.pcap");
  w.add(dhcp_frame(overloaded_ack()));
  return w.close();
}

std::string cut_capture() {
  tooltest::PcapWriter w("dhcp-cut.pcap");
  w.add(dhcp_frame(overloaded_ack()), 14 + 28 + 100);  // the message cut after 100 bytes
  return w.close();
}

std::vector<nlohmann::json> json_lines(const std::string &out) {
  std::vector<nlohmann::json> objects;
  for (const auto &line : tooltest::lines_of(out)) objects.push_back(nlohmann::json::parse(line));
  return objects;
}

}  // namespace

TEST(ToolDhcp, RelayedRequestAndAckWithMudUrl) {
  expect_output("dhcp-mud", run_tool("dhcp captures/dhcp-mud.pcap"), 0);
}

TEST(ToolDhcp, StaticRouteOptionsOfWholeAndBrokenLengths) {
  expect_output("dhcp-option-33", run_tool("dhcp captures/dhcp-option-33.pcap"), 0);
}

TEST(ToolDhcp, UserClassOptionIsTextWithItsLengthBytesEscaped) {
  expect_output("dhcp-rfc3004", run_tool("dhcp captures/dhcp-rfc3004.pcap"), 0);
}

TEST(ToolDhcp, OptionWithoutSchemaMemberHasNoName) {
  expect_output("dhcp-rfc5859", run_tool("dhcp captures/dhcp-rfc5859.pcap"), 0);
}

TEST(ToolDhcp, OverloadedConcatenatedAndVendorOptionsAsTheStoreReadsThem) {
  std::string capture = overloaded_capture();
  auto r = run_tool("dhcp " + capture);
  EXPECT_EQ(r.status, 0);
  std::string expected = tooltest::expected("dhcp-overloaded.out");
  // The expected text names the capture as "CAPTURE".
  expected.replace(expected.find("CAPTURE"), 7, capture);
  EXPECT_EQ(r.out, expected);
}

TEST(ToolDhcp, MessageCutByTheCaptureIsReportedAsTruncated) {
  std::string capture = cut_capture();
  auto r = run_tool("dhcp " + capture);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, capture + " frame 1: UDP 192.168.1.1:67 -> 192.168.1.4:68\n"
                   "  truncated: the UDP datagram is not fully captured (108 of 317 bytes)\n"
                   "# 1 DHCP message in 1 frame\n");
}

TEST(ToolDhcp, JsonHoldsOneObjectPerMessageThenTheSummary) {
  auto objects = json_lines(run_tool("dhcp --json " + overloaded_capture()).out);
  ASSERT_EQ(objects.size(), 2u);
  const auto &m = objects[0];
  EXPECT_EQ(m["type"], "message");
  EXPECT_EQ(m["frame"], 1);
  EXPECT_EQ(m["header"]["xid"], "DEADBEEF");
  EXPECT_EQ(m["header"]["flags"], "8000");
  EXPECT_EQ(m["header"]["chaddr"], "00:0C:29:1F:74:06");
  EXPECT_EQ(m["overload"], nlohmann::json::array({"file", "sname"}));
  std::vector<int> codes;
  for (const auto &o : m["options"]) codes.push_back(o["code"]);
  EXPECT_EQ(codes, (std::vector<int>{12, 15, 43, 52, 53, 66, 124, 125}));
  EXPECT_EQ(m["options"][0], nlohmann::json::parse(R"({"code":12,"name":"host_name","format":"t","length":7,)"
                                                   R"("value":"box-01x","hex":"62 6f 78 2d 30 31 78"})"));
  EXPECT_EQ(m["options"][7]["suboptions"],
            nlohmann::json::parse(R"([{"enterprise":3561,"code":1,"length":3,"hex":"78 79 7a"},)"
                                  R"({"enterprise":3561,"code":2,"length":1,"hex":"07"},)"
                                  R"({"enterprise":4491,"code":1,"length":2,"hex":"6f 6b"}])"));
  EXPECT_EQ(objects[1], nlohmann::json::parse(R"({"type":"summary","files":1,"frames":1,"messages":1,)"
                                              R"("unreadable":[]})"));
}

namespace {

// tshark's decoding of the DHCP messages of a capture: per frame number the
// header fields and the set of option codes (pad and end left out).
struct TsharkMessage {
  std::string xid, chaddr, ciaddr, yiaddr, siaddr, giaddr;
  std::set<int> codes;
};

std::map<int, TsharkMessage> tshark_messages(const std::string &capture) {
  std::map<int, TsharkMessage> out;
  std::string text = testsupport::run_command(
      "tshark -r " + capture + " -Y dhcp -T fields -E separator='|' -e frame.number -e dhcp.id "
      "-e dhcp.hw.mac_addr -e dhcp.ip.client -e dhcp.ip.your -e dhcp.ip.server -e dhcp.ip.relay "
      "-e dhcp.option.type 2>/dev/null");
  for (const auto &line : tooltest::lines_of(text)) {
    std::vector<std::string> f;
    std::stringstream in(line);
    for (std::string part; std::getline(in, part, '|');) f.push_back(part);
    if (f.size() < 8) continue;
    TsharkMessage m{f[1], f[2].substr(0, f[2].find(',')), f[3], f[4], f[5], f[6], {}};
    std::stringstream codes(f[7]);
    for (std::string c; std::getline(codes, c, ',');)
      if (int code = std::stoi(c); code != 0 && code != 255) m.codes.insert(code);
    out[std::stoi(f[0])] = m;
  }
  return out;
}

std::string lower(std::string s) {
  for (auto &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

TEST(ToolDhcp, EveryBundledCaptureAgreesWithTsharksDecoding) {
  if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark is not installed";
  int compared = 0;
  for (const auto &name : testsupport::capture_names()) {
    if (name.rfind("dhcp-", 0) != 0) continue;
    std::string capture = testsupport::data_path("captures/" + name);
    auto wanted = tshark_messages(capture);
    auto objects = json_lines(run_tool("dhcp --json " + capture).out);
    ASSERT_EQ(objects.size(), wanted.size() + 1) << name;
    for (std::size_t i = 0; i + 1 < objects.size(); ++i) {
      const auto &m = objects[i];
      int frame = m["frame"];
      ASSERT_TRUE(wanted.count(frame)) << name << " frame " << frame;
      const auto &t = wanted[frame];
      EXPECT_EQ("0x" + lower(m["header"]["xid"]), t.xid) << name << " frame " << frame;
      EXPECT_EQ(lower(m["header"]["chaddr"]), t.chaddr) << name << " frame " << frame;
      EXPECT_EQ(m["header"]["ciaddr"], t.ciaddr) << name << " frame " << frame;
      EXPECT_EQ(m["header"]["yiaddr"], t.yiaddr) << name << " frame " << frame;
      EXPECT_EQ(m["header"]["siaddr"], t.siaddr) << name << " frame " << frame;
      EXPECT_EQ(m["header"]["giaddr"], t.giaddr) << name << " frame " << frame;
      std::set<int> codes;
      for (const auto &o : m["options"]) codes.insert(o["code"].get<int>());
      EXPECT_EQ(codes, t.codes) << name << " frame " << frame;
      ++compared;
    }
  }
  EXPECT_EQ(compared, 15);
}

TEST(ToolDhcp, OverloadedMessageAgreesWithTsharkOnItsOptionCodes) {
  if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark is not installed";
  std::string capture = overloaded_capture();
  auto wanted = tshark_messages(capture);
  ASSERT_EQ(wanted.size(), 1u);
  auto objects = json_lines(run_tool("dhcp --json " + capture).out);
  std::set<int> codes;
  for (const auto &o : objects[0]["options"]) codes.insert(o["code"].get<int>());
  EXPECT_EQ(codes, wanted[1].codes);
}

// Router option 3 holds 6 bytes (addresses are 4) and lease time option 51
// holds 3 (the format wants 4): both are flagged and shown as bytes.
TEST(ToolDhcp, OptionsWhoseLengthDoesNotFitTheirFormatAreFlagged) {
  tooltest::expect_output("dhcp-lengths", run_tool("dhcp tool/captures/dhcp-lengths.pcap"), 0);
}

TEST(ToolDhcp, JsonValuesAreNumbersTextsAndArraysByTheirFormat) {
  auto objects = json_lines(run_tool("dhcp --json tool/captures/dhcp-lengths.pcap").out);
  ASSERT_EQ(objects.size(), 2u);
  std::map<int, nlohmann::json> by_code;
  for (const auto &o : objects[0]["options"]) by_code[o["code"].get<int>()] = o;
  EXPECT_EQ(by_code[1]["value"], "255.255.255.0");
  EXPECT_EQ(by_code[6]["value"], nlohmann::json::parse(R"(["192.0.2.53","198.51.100.53"])"));
  EXPECT_EQ(by_code[12]["value"], "raspberrypi");
  EXPECT_EQ(by_code[53]["value"], 5);
  EXPECT_EQ(by_code[53]["meaning"], "ACK");
  EXPECT_EQ(by_code[55]["value"], nlohmann::json::parse("[1,3,6]"));
  EXPECT_EQ(by_code[57]["value"], 1472);
  EXPECT_EQ(by_code[3], nlohmann::json::parse(R"({"code":3,"name":"routers","format":"IA","length":6,"value":null,)"
                                              R"("hex":"c0 00 02 01 00 00",)"
                                              R"("problem":"length 6 does not fit format IA: a multiple of 4 bytes"})"));
  EXPECT_EQ(by_code[51]["value"], nullptr);
  EXPECT_EQ(by_code[51]["problem"], "length 3 does not fit format L: 4 bytes");
  EXPECT_FALSE(by_code[1].contains("problem"));
  EXPECT_EQ(objects[0]["header"]["sname"], "");
  EXPECT_EQ(objects[0]["header"]["yiaddr"], "192.0.2.50");
}

TEST(ToolDhcp, JsonHostNameIsTheTextWithoutAddedQuotes) {
  auto objects = json_lines(run_tool("dhcp --json captures/dhcp-mud.pcap").out);
  ASSERT_GE(objects.size(), 2u);
  const auto &options = objects[0]["options"];
  ASSERT_FALSE(options.empty());
  EXPECT_EQ(options[0]["code"], 12);
  EXPECT_EQ(options[0]["value"], "raspberrypi");
}
