// The matcher's view of every captured IP packet against tshark's dissection:
// rules written from tshark's addresses, protocol, ports and ICMPv6 type
// match the packet, and rules one value off do not.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "testsupport.h"

namespace {

struct Dissected {
  std::string src4, dst4, src6, dst6;
  int proto4 = -1, next6 = -1;
  int sport = -1, dport = -1;
  int icmp6_type = -1;
};

int number_or(const std::string &text, int fallback) {
  if (text.empty()) return fallback;
  // Tunnelled packets list several values; the outer one comes first.
  return std::stoi(text.substr(0, text.find(',')));
}

std::string first(const std::string &text) { return text.substr(0, text.find(',')); }

std::map<std::size_t, Dissected> dissect(const std::string &capture) {
  const std::string command = "tshark -r '" + testsupport::data_path("captures/" + capture) +
                              "' -T fields -E separator=/t -e frame.number -e ip.src -e ip.dst -e ip.proto "
                              "-e ipv6.src -e ipv6.dst -e ipv6.nxt -e tcp.srcport -e tcp.dstport -e udp.srcport "
                              "-e udp.dstport -e icmpv6.type 2>/dev/null";
  std::map<std::size_t, Dissected> out;
  std::istringstream lines(testsupport::run_command(command));
  std::string line;
  while (std::getline(lines, line)) {
    std::vector<std::string> f;
    std::size_t start = 0;
    for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
      f.push_back(line.substr(start, tab - start));
    f.push_back(line.substr(start));
    if (f.size() < 12) continue;
    Dissected d;
    d.src4 = first(f[1]);
    d.dst4 = first(f[2]);
    d.proto4 = number_or(f[3], -1);
    d.src6 = first(f[4]);
    d.dst6 = first(f[5]);
    d.next6 = number_or(f[6], -1);
    d.sport = number_or(f[7].empty() ? f[9] : f[7], -1);
    d.dport = number_or(f[8].empty() ? f[10] : f[8], -1);
    d.icmp6_type = number_or(f[11], -1);
    out[static_cast<std::size_t>(std::stoul(f[0]))] = d;
  }
  return out;
}

bool rule_matches(const std::string &text, const nuv_clfy_packet &desc) {
  auto rule = clfytest::parse(text);
  if (!rule) {
    ADD_FAILURE() << "refused: " << text;
    return false;
  }
  return nuv_clfy_matches(rule.get(), &desc, 0, 0) == 1;
}

}  // namespace

TEST(ClfyAgainstTshark, AddressesProtocolsPortsAndIcmpv6Types) {
  if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark is not installed";
  int checked = 0;
  for (const std::string &name : testsupport::capture_names()) {
    const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path("captures/" + name));
    const auto dissected = dissect(name);
    for (const auto &packet : capture.packets) {
      const testsupport::NetworkLayer layer = testsupport::find_network_layer(capture, packet);
      if (!layer.found || (layer.ethertype != 0x0800 && layer.ethertype != 0x86dd)) continue;
      const auto it = dissected.find(packet.number);
      if (it == dissected.end()) continue;
      const Dissected &d = it->second;
      const std::size_t size = packet.data.size() - layer.offset;
      std::unique_ptr<std::uint8_t[]> ip(new std::uint8_t[size]);
      std::memcpy(ip.get(), packet.data.data() + layer.offset, size);
      nuv_clfy_packet desc{};
      desc.ip_header = ip.get();
      desc.ip_len = static_cast<std::uint32_t>(size);
      desc.eth_proto = clfytest::net16(layer.ethertype);
      const std::string where = name + " #" + std::to_string(packet.number);
      int transport = -1;
      if (layer.ethertype == 0x0800) {
        ASSERT_FALSE(d.src4.empty()) << where;
        EXPECT_TRUE(rule_matches("ip.saddr " + d.src4, desc)) << where;
        EXPECT_TRUE(rule_matches("ip.daddr " + d.dst4 + "/32", desc)) << where;
        EXPECT_TRUE(rule_matches("ip.proto P" + std::to_string(d.proto4), desc)) << where;
        EXPECT_FALSE(rule_matches("ip.proto P" + std::to_string((d.proto4 + 1) % 256), desc)) << where;
        transport = d.proto4;
      } else {
        ASSERT_FALSE(d.src6.empty()) << where;
        EXPECT_TRUE(rule_matches("ip.saddr " + d.src6 + "/128", desc)) << where;
        EXPECT_TRUE(rule_matches("ip.daddr " + d.dst6 + "/128", desc)) << where;
        if (d.next6 > 0) {
          EXPECT_TRUE(rule_matches("ip.proto P" + std::to_string(d.next6), desc)) << where;
        }
        // Ports are read behind the IPv6 header or one hop-by-hop header.
        if (d.next6 == 6 || d.next6 == 17) transport = d.next6;
        if (d.icmp6_type >= 0) {
          EXPECT_TRUE(rule_matches("icmp.type " + std::to_string(d.icmp6_type), desc)) << where;
          EXPECT_FALSE(rule_matches("icmp.type " + std::to_string((d.icmp6_type + 1) % 256), desc)) << where;
        }
      }
      if ((transport == 6 || transport == 17) && d.sport >= 0 && d.dport >= 0) {
        const std::string kind = transport == 6 ? "tcp" : "udp";
        EXPECT_TRUE(rule_matches(kind + ".sport " + std::to_string(d.sport), desc)) << where;
        EXPECT_TRUE(rule_matches(kind + ".dport " + std::to_string(d.dport), desc)) << where;
        EXPECT_FALSE(rule_matches(kind + ".dport !=" + std::to_string(d.dport), desc)) << where;
        EXPECT_FALSE(rule_matches(kind + ".sport " + std::to_string((d.sport + 1) % 65536), desc)) << where;
      }
      ++checked;
    }
  }
  EXPECT_GT(checked, 30);
}
