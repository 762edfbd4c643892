// Packet descriptions of every captured IPv4/IPv6 packet, checked against
// what tshark (and libtins, where present) read from the same packets:
// protocol, addresses, ports, TCP flags, ESP SPI and sequence, IGMP group.
#include <gtest/gtest.h>
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "nuvpkt.h"
#include "testsupport.h"

#ifdef NIKERKIOG_HAVE_LIBTINS
#include <tins/tins.h>
#endif

namespace {

using testsupport::Bytes;

std::vector<std::string> split(const std::string &s, char sep) {
  std::vector<std::string> out;
  std::string item;
  std::istringstream in(s);
  while (std::getline(in, item, sep)) out.push_back(item);
  if (!s.empty() && s.back() == sep) out.emplace_back();
  return out;
}

// First of tshark's comma-separated occurrences (outermost layer).
std::string first(const std::string &field) { return field.substr(0, field.find(',')); }

const char *const kFields[] = {"frame.number", "ip.src",      "ip.dst",       "ip.proto",     "ipv6.src",
                               "ipv6.dst",     "ipv6.nxt",    "tcp.srcport",  "tcp.dstport",  "udp.srcport",
                               "udp.dstport",  "ip.frag_offset", "tcp.flags", "esp.spi",      "esp.sequence",
                               "igmp.type",    "igmp.maddr"};

using Row = std::map<std::string, std::string>;

// tshark's reading of every frame of a capture, by frame number.
std::map<std::size_t, Row> tshark_rows(const std::string &capture) {
  std::string cmd = "tshark -r '" + testsupport::data_path("captures/" + capture) +
                    "' -o ip.defragment:FALSE -o ipv6.defragment:FALSE -T fields -E separator='|'";
  for (const char *f : kFields) cmd += std::string(" -e ") + f;
  cmd += " 2>/dev/null";
  std::map<std::size_t, Row> rows;
  std::istringstream out(testsupport::run_command(cmd));
  std::string line;
  while (std::getline(out, line)) {
    auto cols = split(line, '|');
    if (cols.size() != std::size(kFields)) continue;
    Row row;
    for (std::size_t i = 0; i < cols.size(); ++i) row[kFields[i]] = first(cols[i]);
    rows[std::stoul(row["frame.number"])] = row;
  }
  return rows;
}

// Protocol names as the registry copy has them, with the library's
// exceptions written out here independently.
std::string expected_protocol_word(int proto) {
  const std::map<int, std::string> &registry = testsupport::iana_protocol_keywords();
  if (proto == 255 || proto == 4) return "IP";
  if (proto == 58) return "ICMPv6";
  if (proto == 94) return "IPIP";
  if (proto >= 140) return "P" + std::to_string(proto);
  const std::string &keyword = registry.at(proto);
  return keyword.empty() ? "any" : keyword;
}

// Upper-layer bytes a description reads for each protocol.
std::size_t upper_bytes_read(int proto) {
  switch (proto) {
    case 6: return 14;
    case 17: case 108: return 4;
    case 50: case 1: case 58: case 2: return 8;
    case 51: return 12;
    default: return 0;
  }
}

// Address text (IPv4, IPv6, or an IPv6 mapped address printed as dotted quad) to 16 bytes.
bool address_bytes(const std::string &text, bool v6, std::uint8_t out[16]) {
  std::memset(out, 0, 16);
  if (!v6) return inet_pton(AF_INET, text.c_str(), out) == 1;
  if (inet_pton(AF_INET6, text.c_str(), out) == 1) return true;
  out[10] = out[11] = 0xFF;
  return inet_pton(AF_INET, text.c_str(), out + 12) == 1;
}

bool same_address(const std::string &ours, const std::string &theirs, bool v6) {
  std::uint8_t a[16], b[16];
  return address_bytes(ours, v6, a) && address_bytes(theirs, v6, b) && std::memcmp(a, b, 16) == 0;
}

// "addr:port" -> {addr, port}; the port follows the last colon.
std::pair<std::string, std::string> split_port(const std::string &s) {
  std::size_t colon = s.rfind(':');
  return {s.substr(0, colon), s.substr(colon + 1)};
}

std::string flags_from_tshark(const std::string &hex) {
  unsigned v = static_cast<unsigned>(std::stoul(hex, nullptr, 16));
  std::string s;
  const std::pair<unsigned, const char *> order[] = {{2, "SYN"}, {0x10, "ACK"}, {8, "PSH"}, {1, "FIN"}, {4, "RST"}};
  for (const auto &[bit, name] : order)
    if (v & bit) s += (s.empty() ? "" : ",") + std::string(name);
  return s;
}

// "<protocol> <source> -> <destination> <rest...>" as words, where the
// protocol name may itself hold a blank ("Mobility Header"): {protocol,
// source, "->", destination, rest...}.
std::vector<std::string> line_words(const std::string &line) {
  std::size_t arrow = line.find(" -> ");
  if (arrow == std::string::npos) return {};
  std::string left = line.substr(0, arrow);
  std::size_t blank = left.rfind(' ');
  if (blank == std::string::npos) return {};
  std::vector<std::string> words{left.substr(0, blank), left.substr(blank + 1), "->"};
  for (const auto &w : split(line.substr(arrow + 4), ' ')) words.push_back(w);
  return words;
}

struct Described {
  std::string capture;
  std::size_t number;
  bool v6;
  std::string line;
  Bytes ip;
};

std::vector<Described> describe_all_captured(int *skipped) {
  std::vector<Described> out;
  *skipped = 0;
  for (const auto &pkt : testsupport::all_captured_ip_packets()) {
    const Bytes &ip = pkt.ip;
    if (ip.empty()) continue;
    bool v6 = (ip[0] >> 4) == 6;
    std::size_t header = v6 ? 40 : std::size_t{ip[0] & 0x0Fu} * 4;
    if (ip.size() < (v6 ? 40u : 20u) || ip.size() < header) {
      ++*skipped;
      continue;
    }
    int proto = v6 ? ip[6] : ip[9];
    bool later_fragment = !v6 && ((ip[6] << 8 | ip[7]) & 0x1FFF) != 0;
    std::size_t needed = header + (later_fragment ? 0 : upper_bytes_read(proto));
    if (ip.size() < needed) {
      ++*skipped;
      continue;
    }
    // Exactly the bytes a description may read, so ASan catches any more.
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[needed]);
    std::memcpy(copy.get(), ip.data(), needed);
    out.push_back({pkt.capture, pkt.number, v6, iph2str(copy.get()), ip});
  }
  return out;
}

}  // namespace

class DescriptionAgainstTshark : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark not installed";
  }
};

TEST_F(DescriptionAgainstTshark, ProtocolAddressesPortsAndFlagsAgree) {
  int skipped = 0;
  auto described = describe_all_captured(&skipped);
  ASSERT_GT(described.size(), 50u);
  std::map<std::string, std::map<std::size_t, Row>> tshark;
  std::size_t ports_checked = 0, flags_checked = 0, esp_checked = 0, igmp_checked = 0;
  for (const auto &d : described) {
    if (!tshark.count(d.capture)) tshark[d.capture] = tshark_rows(d.capture);
    SCOPED_TRACE(d.capture + " frame " + std::to_string(d.number) + ": " + d.line);
    ASSERT_TRUE(tshark[d.capture].count(d.number));
    Row &t = tshark[d.capture][d.number];
    auto words = line_words(d.line);
    ASSERT_GE(words.size(), 4u);
    EXPECT_EQ(words[2], "->");
    int proto = std::stoi(t[d.v6 ? "ipv6.nxt" : "ip.proto"]);
    EXPECT_EQ(words[0], expected_protocol_word(proto));

    bool has_ports = (proto == 6 || proto == 17) && (d.v6 || t["ip.frag_offset"] == "0");
    std::string src = words[1], dst = words[3];
    if (has_ports) {
      auto [s, sp] = split_port(words[1]);
      auto [dd, dp] = split_port(words[3]);
      src = s;
      dst = dd;
      const char *layer = proto == 6 ? "tcp" : "udp";
      EXPECT_EQ(sp, t[std::string(layer) + ".srcport"]);
      EXPECT_EQ(dp, t[std::string(layer) + ".dstport"]);
      ++ports_checked;
    }
    EXPECT_TRUE(same_address(src, t[d.v6 ? "ipv6.src" : "ip.src"], d.v6)) << t[d.v6 ? "ipv6.src" : "ip.src"];
    EXPECT_TRUE(same_address(dst, t[d.v6 ? "ipv6.dst" : "ip.dst"], d.v6)) << t[d.v6 ? "ipv6.dst" : "ip.dst"];

    if (proto == 6 && has_ports) {
      std::string flags = words.size() > 4 ? words[4] : "";
      EXPECT_EQ(words.size(), 5u);
      EXPECT_EQ(flags, flags_from_tshark(t["tcp.flags"]));
      ++flags_checked;
    }
    if (proto == 50 && !t["esp.spi"].empty()) {
      ASSERT_EQ(words.size(), 8u);
      EXPECT_EQ(std::stoul(words[5], nullptr, 16), std::stoul(t["esp.spi"], nullptr, 16));
      EXPECT_EQ(words[7], t["esp.sequence"]);
      ++esp_checked;
    }
    if (proto == 2 && !d.v6) {
      int type = static_cast<int>(std::stoul(t["igmp.type"], nullptr, 16));
      if (type == 0x11 || type == 0x12 || type == 0x16 || type == 0x17) {
        EXPECT_TRUE(same_address(words.back(), t["igmp.maddr"], false)) << t["igmp.maddr"];
        ++igmp_checked;
      }
    }
  }
  EXPECT_GT(ports_checked, 10u);
  EXPECT_GT(flags_checked, 2u);
  EXPECT_GT(esp_checked, 2u);
  EXPECT_GT(igmp_checked, 5u);
}

#ifdef NIKERKIOG_HAVE_LIBTINS
TEST(DescriptionAgainstLibtins, AddressesAgree) {
  int skipped = 0;
  std::size_t checked = 0;
  for (const auto &d : describe_all_captured(&skipped)) {
    SCOPED_TRACE(d.capture + " frame " + std::to_string(d.number) + ": " + d.line);
    auto words = line_words(d.line);
    ASSERT_GE(words.size(), 4u);
    std::string src = words[1], dst = words[3];
    if (words[0] == "TCP" || words[0] == "UDP") {
      if (d.v6 || ((d.ip[6] << 8 | d.ip[7]) & 0x1FFF) == 0) {
        src = split_port(src).first;
        dst = split_port(dst).first;
      }
    }
    std::string tins_src, tins_dst;
    try {
      if (d.v6) {
        Tins::IPv6 pdu(d.ip.data(), static_cast<std::uint32_t>(d.ip.size()));
        tins_src = pdu.src_addr().to_string();
        tins_dst = pdu.dst_addr().to_string();
      } else {
        Tins::IP pdu(d.ip.data(), static_cast<std::uint32_t>(d.ip.size()));
        tins_src = pdu.src_addr().to_string();
        tins_dst = pdu.dst_addr().to_string();
      }
    } catch (const std::exception &) {
      continue;  // libtins refuses some packets; tshark covers them
    }
    EXPECT_TRUE(same_address(src, tins_src, d.v6)) << tins_src;
    EXPECT_TRUE(same_address(dst, tins_dst, d.v6)) << tins_dst;
    ++checked;
  }
  EXPECT_GT(checked, 50u);
}
#endif
