// The named tables filled from the addresses of real captures, against the
// decoding of the same frames by tshark: a table built from every frame's
// Ethernet source (or IP destination) holds each distinct address once, in
// order of first appearance.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "nikerkiog.h"
#include "testsupport.h"

namespace {

struct TsharkFrame {
  std::string eth_src;
  std::string ip_dst;  // dotted IPv4 or IPv6 text; empty when none
};

std::vector<std::string> split(const std::string &line, char sep) {
  std::vector<std::string> out;
  std::string cell;
  std::istringstream in(line);
  while (std::getline(in, cell, sep)) out.push_back(cell);
  if (!line.empty() && line.back() == sep) out.emplace_back();
  return out;
}

// The outermost value of a field that tshark lists for every layer.
std::string first_of(const std::string &cell) { return cell.substr(0, cell.find(',')); }

std::vector<TsharkFrame> tshark_frames(const std::string &capture) {
  const std::string cmd = "tshark -r '" + testsupport::data_path("captures/" + capture) +
                          "' -T fields -E separator='|' -e eth.src -e ip.dst -e ipv6.dst 2>/dev/null";
  std::vector<TsharkFrame> frames;
  std::istringstream lines(testsupport::run_command(cmd));
  std::string line;
  while (std::getline(lines, line)) {
    const auto f = split(line, '|');
    TsharkFrame frame;
    if (f.size() > 0) frame.eth_src = first_of(f[0]);
    if (f.size() > 1) frame.ip_dst = first_of(f[1]);
    if (frame.ip_dst.empty() && f.size() > 2) frame.ip_dst = first_of(f[2]);
    frames.push_back(frame);
  }
  return frames;
}

void append_distinct(std::vector<std::string> &list, const std::string &value) {
  if (!value.empty() && std::find(list.begin(), list.end(), value) == list.end()) list.push_back(value);
}

std::string mac_text(const uint8_t *m) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
  return buf;
}

std::vector<std::string> table_macs(const ethersrctab *table) {
  std::vector<std::string> out;
  for (uint32_t i = 0; i < table->count; ++i) out.push_back(mac_text(table->entries + 6 * i));
  return out;
}

std::vector<std::string> table_destinations(const ipdsttab *table) {
  std::vector<std::string> out;
  for (uint32_t i = 0; i < table->count; ++i) {
    char buf[INET6_ADDRSTRLEN];
    const ipdsttab_entry &e = table->entries[i];
    if (e.family == 4) inet_ntop(AF_INET, &e.addr.v4.addr, buf, sizeof buf);
    else inet_ntop(AF_INET6, e.addr.v6, buf, sizeof buf);
    out.push_back(buf);
  }
  return out;
}

class ClfyTablesOnCaptures : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark not installed";
  }
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

TEST_P(ClfyTablesOnCaptures, SourceTableHoldsEachDistinctSourceOnceInOrder) {
  const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path("captures/" + GetParam()));
  if (capture.link_type != testsupport::kLinkEthernet) GTEST_SKIP() << "no Ethernet header";
  std::vector<std::string> expected;
  for (const TsharkFrame &frame : tshark_frames(GetParam())) append_distinct(expected, frame.eth_src);
  for (const auto &packet : capture.packets) {
    if (packet.data.size() < 12) continue;
    const std::vector<uint8_t> mac(packet.data.begin() + 6, packet.data.begin() + 12);  // exact size
    ASSERT_EQ(nuv_clfy_ethersrctab_add("captured", mac.data()), 0);
  }
  ethersrctab *table = nuv_clfy_ethersrctab_find("captured");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table_macs(table), expected);
  EXPECT_EQ(table->capacity, std::max<uint32_t>(4, (table->count + 3) / 4 * 4));
}

TEST_P(ClfyTablesOnCaptures, DestinationTableHoldsEachDistinctDestinationOnceInOrder) {
  const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path("captures/" + GetParam()));
  std::vector<std::string> expected;
  for (const TsharkFrame &frame : tshark_frames(GetParam())) append_distinct(expected, frame.ip_dst);
  for (const auto &packet : capture.packets) {
    const testsupport::NetworkLayer layer = testsupport::find_network_layer(capture, packet);
    if (!layer.found) continue;
    const uint8_t *ip = packet.data.data() + layer.offset;
    const size_t available = packet.data.size() - layer.offset;
    if (layer.ethertype == 0x0800 && available >= 20) {
      uint32_t dst;
      std::memcpy(&dst, ip + 16, 4);
      ASSERT_EQ(nuv_clfy_ipdsttab_add4("captured", dst), 0);
    } else if (layer.ethertype == 0x86dd && available >= 40) {
      const std::vector<uint8_t> dst(ip + 24, ip + 40);  // exact size
      ASSERT_EQ(nuv_clfy_ipdsttab_add6("captured", dst.data()), 0);
    }
  }
  ipdsttab *table = nuv_clfy_ipdsttab_find("captured");
  if (expected.empty()) {
    EXPECT_EQ(table, nullptr);
    return;
  }
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table_destinations(table), expected);
  for (const std::string &text : expected) {
    uint8_t addr[16];
    if (inet_pton(AF_INET, text.c_str(), addr) == 1) {
      uint32_t a4;
      std::memcpy(&a4, addr, 4);
      EXPECT_EQ(nuv_clfy_ipdsttab_is_in(table, a4), 1) << text;
    } else {
      ASSERT_EQ(inet_pton(AF_INET6, text.c_str(), addr), 1) << text;
      EXPECT_EQ(nuv_clfy_ip6dsttab_is_in(table, addr), 1) << text;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Captures, ClfyTablesOnCaptures, ::testing::ValuesIn(testsupport::capture_names()),
                         [](const ::testing::TestParamInfo<std::string> &info) {
                           std::string name = info.param.substr(0, info.param.find('.'));
                           for (char &c : name)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });
