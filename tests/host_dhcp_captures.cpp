// Every BOOTP/DHCP message of the reference captures parses into an option
// store whose options are those a packet dissector nobody here wrote
// (tshark) finds in the same message: same codes, same bytes, repeated
// options joined in order.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "dhcp_testmemops.h"
#include "nuvdhcp.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;

struct DhcpMessage {
  std::string capture;
  std::size_t frame;
  Bytes payload;
};

// BOOTP messages: UDP to or from port 67 or 68 over IPv4.
std::vector<DhcpMessage> captured_dhcp_messages(const std::string &name) {
  std::vector<DhcpMessage> out;
  testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path("captures/" + name));
  for (const testsupport::CapturedPacket &packet : capture.packets) {
    testsupport::NetworkLayer layer = testsupport::find_network_layer(capture, packet);
    if (!layer.found || layer.ethertype != 0x0800) continue;
    const Bytes &d = packet.data;
    const std::size_t ip = layer.offset;
    if (d.size() < ip + 20 || d[ip + 9] != 17) continue;
    const std::size_t udp = ip + 4u * (d[ip] & 0x0F);
    if (d.size() < udp + 8) continue;
    const unsigned sport = d[udp] << 8 | d[udp + 1], dport = d[udp + 2] << 8 | d[udp + 3];
    auto bootp = [](unsigned port) { return port == 67 || port == 68; };
    if (!bootp(sport) || !bootp(dport)) continue;
    const std::size_t udp_len = d[udp + 4] << 8 | d[udp + 5];
    const std::size_t end = std::min(d.size(), udp + std::max<std::size_t>(udp_len, 8));
    out.push_back({name, packet.number, Bytes(d.begin() + static_cast<long>(udp + 8), d.begin() + static_cast<long>(end))});
  }
  return out;
}

// Options per frame as tshark dissects them: each option field's raw bytes
// (code, length, value); pad and end are left out.
std::map<std::size_t, std::vector<Bytes>> tshark_options(const std::string &name) {
  std::map<std::size_t, std::vector<Bytes>> out;
  const std::string pdml = testsupport::run_command(
      "tshark -r '" + testsupport::data_path("captures/" + name) + "' -d udp.port==67,dhcp -T pdml 2>/dev/null");
  static const std::regex frame_re(R"re(<field name="num" [^>]*show="(\d+)")re");
  static const std::regex option_re(R"re(<field name="dhcp\.option\.type" [^>]*value="([0-9a-f]*)")re");
  std::size_t frame = 0;
  std::size_t line_start = 0;
  while (line_start < pdml.size()) {
    std::size_t line_end = pdml.find('\n', line_start);
    if (line_end == std::string::npos) line_end = pdml.size();
    const std::string line = pdml.substr(line_start, line_end - line_start);
    line_start = line_end + 1;
    std::smatch m;
    if (std::regex_search(line, m, frame_re)) {
      frame = std::stoul(m[1]);
      out[frame];
    } else if (std::regex_search(line, m, option_re)) {
      Bytes raw = testsupport::hex_bytes(m[1].str());
      if (raw.size() >= 2 && raw[0] != 0 && raw[0] != 255) out[frame].push_back(raw);
    }
  }
  return out;
}

std::vector<std::string> dhcp_capture_names() {
  std::vector<std::string> names;
  for (const std::string &name : testsupport::capture_names()) {
    if (name.rfind("dhcp-", 0) == 0) names.push_back(name);
  }
  return names;
}

}  // namespace

TEST(DhcpCaptures, ThereAreDhcpMessagesToCompare) {
  std::size_t messages = 0;
  for (const std::string &name : dhcp_capture_names()) messages += captured_dhcp_messages(name).size();
  EXPECT_GE(dhcp_capture_names().size(), 4u);
  EXPECT_GE(messages, 12u);
}

TEST(DhcpCaptures, EveryMessageParsesIntoTheOptionsTsharkFinds) {
  if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark is not installed";
  for (const std::string &name : dhcp_capture_names()) {
    const auto reference = tshark_options(name);
    for (const DhcpMessage &message : captured_dhcp_messages(name)) {
      SCOPED_TRACE(name + " frame " + std::to_string(message.frame));
      auto it = reference.find(message.frame);
      ASSERT_NE(it, reference.end());
      ASSERT_FALSE(it->second.empty());
      std::map<int, Bytes> expected;
      for (const Bytes &raw : it->second) {
        ASSERT_EQ(raw.size(), 2u + raw[1]);
        expected[raw[0]].insert(expected[raw[0]].end(), raw.begin() + 2, raw.end());
      }

      testsupport::DhcpTestMemops mem;
      // Exact size plus the one byte after the message the parser may read.
      Bytes buf = message.payload;
      buf.push_back(0);
      dhcp_options store;
      ASSERT_EQ(dhcp_parse_options(mem.ops(), buf.data(), static_cast<int32_t>(message.payload.size()), store), 0);
      std::map<int, Bytes> got;
      for (int code = 0; code < 256; ++code) {
        if (store[code].data) got[code] = Bytes(store[code].data, store[code].data + store[code].len);
      }
      EXPECT_EQ(got, expected);
      dhcp_free_options(mem.ops(), store);
    }
  }
}

TEST(DhcpCaptures, TruncatedMessagesNeverReadOutsideTheirBytes) {
  for (const std::string &name : dhcp_capture_names()) {
    for (const DhcpMessage &message : captured_dhcp_messages(name)) {
      SCOPED_TRACE(name + " frame " + std::to_string(message.frame));
      for (std::size_t len = 240; len < message.payload.size(); ++len) {
        testsupport::DhcpTestMemops mem;
        Bytes buf(message.payload.begin(), message.payload.begin() + static_cast<long>(len) + 1);
        dhcp_options store;
        const int rc = dhcp_parse_options(mem.ops(), buf.data(), static_cast<int32_t>(len), store);
        EXPECT_TRUE(rc == 0 || rc == -1);
        dhcp_free_options(mem.ops(), store);
      }
    }
  }
}
