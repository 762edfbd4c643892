// DHCP match expressions and vendor sub-option lookups compared with
// Debian's tshark at run time:
// - every DHCP message of the shared captures: each header field and each
//   option tshark decodes, written in the match text form, matches;
// - generated messages with vendor options 43 (PXE client sub-options) and
//   125 (Broadband Forum, enterprise 3561, device sub-options 1-6): every
//   sub-option tshark decodes is found with the same bytes.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "dhcp_testmemops.h"
#include "nuvdhcp.h"
#include "pcap_writer.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;
using testsupport::DhcpTestMemops;

bool have_tshark() { return testsupport::have_program("tshark"); }

std::vector<std::string> split(const std::string &text, char sep) {
  std::vector<std::string> out;
  std::string cur;
  std::istringstream in(text);
  while (std::getline(in, cur, sep)) out.push_back(cur);
  if (!text.empty() && text.back() == sep) out.emplace_back();
  return out;
}

// tshark -T fields output: one vector of fields per frame.
std::vector<std::vector<std::string>> tshark_fields(const std::string &pcap, const std::vector<std::string> &fields) {
  std::string cmd = "tshark -r '" + pcap + "' -Y bootp -T fields -E separator='|' -E aggregator=';'";
  for (const auto &f : fields) cmd += " -e " + f;
  cmd += " 2>/dev/null";
  int status = 0;
  const std::string out = testsupport::run_command(cmd, &status);
  EXPECT_EQ(status, 0) << cmd;
  std::vector<std::vector<std::string>> rows;
  for (const auto &line : split(out, '\n')) {
    if (line.empty()) continue;
    rows.push_back(split(line, '|'));
    rows.back().resize(fields.size());
  }
  return rows;
}

Bytes from_hex(const std::string &hex) { return testsupport::hex_bytes(hex); }

// A text as a wildcard pattern that matches exactly that text.
std::string literal_pattern(const std::string &text) {
  std::string out;
  for (char c : text) {
    if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// The DHCP message (UDP payload) of each captured frame, with one readable
// byte after it.
std::vector<Bytes> captured_messages(const std::string &path) {
  const auto cap = testsupport::read_pcap(path);
  std::vector<Bytes> out;
  for (const auto &pkt : cap.packets) {
    const auto net = testsupport::find_network_layer(cap, pkt);
    if (!net.found || net.ethertype != 0x0800 || pkt.data[net.offset + 9] != 17) continue;
    const std::size_t ihl = (pkt.data[net.offset] & 0x0f) * 4u;
    Bytes m(pkt.data.begin() + static_cast<std::ptrdiff_t>(net.offset + ihl + 8), pkt.data.end());
    m.push_back(0);
    out.push_back(m);
  }
  return out;
}

struct Parsed {
  Parsed(const dhcp_memops *ops, Bytes message) : ops(ops), msg(std::move(message)) {
    rc = dhcp_parse_options(ops, msg.data(), static_cast<std::int32_t>(msg.size() - 1), store);
  }
  ~Parsed() { dhcp_free_options(ops, store); }
  int matches(std::uint8_t code, std::uint8_t sub, std::uint32_t enterprise, const std::string &pattern) const {
    dhcp_match m{code, sub, enterprise, pattern.c_str()};
    return dhcp_packet_matches(ops, msg.data(), store, &m);
  }
  const dhcp_memops *ops;
  Bytes msg;
  dhcp_options store;
  int rc = -1;
};

// The text an option value is matched as, worked out from tshark's bytes.
std::optional<std::string> option_text(std::uint8_t code, const Bytes &v) {
  char buf[64];
  if (code == 61) {
    if (v.size() < 7 || v[0] != 1) return std::nullopt;
    std::snprintf(buf, sizeof buf, "%02X:%02X:%02X:%02X:%02X:%02X", v[1], v[2], v[3], v[4], v[5], v[6]);
    return std::string(buf);
  }
  if (code == 1 || code == 16 || code == 28 || code == 32 || code == 50 || code == 54) {
    if (v.size() < 4) return std::nullopt;
    std::snprintf(buf, sizeof buf, "%d.%d.%d.%d", v[0], v[1], v[2], v[3]);
    return std::string(buf);
  }
  if (v.empty()) return std::nullopt;
  std::string s(v.begin(), v.end());
  s = s.substr(0, s.find('\0'));
  return s.substr(0, 1023);
}

}  // namespace

TEST(HostDhcpMatch, CapturedHeaderFieldsMatchTsharksDecoding) {
  if (!have_tshark()) GTEST_SKIP() << "tshark not installed";
  for (const std::string name : {"dhcp-mud.pcap", "dhcp-option-33.pcap", "dhcp-rfc3004.pcap", "dhcp-rfc5859.pcap"}) {
    const std::string path = testsupport::data_path("captures/" + name);
    const auto rows = tshark_fields(path, {"dhcp.type", "dhcp.hw.type", "dhcp.hw.len", "dhcp.hops", "dhcp.id",
                                           "dhcp.secs", "dhcp.flags", "dhcp.ip.client", "dhcp.ip.your",
                                           "dhcp.ip.server", "dhcp.ip.relay", "dhcp.hw.mac_addr"});
    const auto messages = captured_messages(path);
    ASSERT_EQ(rows.size(), messages.size()) << name;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      SCOPED_TRACE(name + " frame " + std::to_string(i + 1));
      const auto &r = rows[i];
      DhcpTestMemops memops;
      Parsed p(memops.ops(), messages[i]);
      ASSERT_EQ(p.rc, 0);
      char buf[32];
      std::snprintf(buf, sizeof buf, "%02X", std::stoi(r[0]));
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_OP, 0, buf), 1) << buf;
      std::snprintf(buf, sizeof buf, "%02X", std::stoi(r[1], nullptr, 16));
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_HTYPE, 0, buf), 1) << buf;
      std::snprintf(buf, sizeof buf, "%02X", std::stoi(r[2]));
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_HLEN, 0, buf), 1) << buf;
      std::snprintf(buf, sizeof buf, "%02X", std::stoi(r[3]));
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_HOPS, 0, buf), 1) << buf;
      std::snprintf(buf, sizeof buf, "%08lX", std::stoul(r[4], nullptr, 16));
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_XID, 0, buf), 1) << buf;
      std::snprintf(buf, sizeof buf, "%04X", std::stoi(r[5]));
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_SECS, 0, buf), 1) << buf;
      std::snprintf(buf, sizeof buf, "%04X", std::stoi(r[6], nullptr, 16));
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_FLAGS, 0, buf), 1) << buf;
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_CIADDR, 0, r[7]), 1) << r[7];
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_YIADDR, 0, r[8]), 1) << r[8];
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_SIADDR, 0, r[9]), 1) << r[9];
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_GIADDR, 0, r[10]), 1) << r[10];
      // The header's address comes first when option 61 carries one too.
      const std::string mac = split(r[11], ';')[0];
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_CHADDR, 0, mac), 1) << mac;
      EXPECT_EQ(p.matches(0, DHCP_HFIELD_CHADDR, 0, mac.substr(0, 16) + (mac.back() == '0' ? "1" : "0")), 0);
    }
  }
}

TEST(HostDhcpMatch, CapturedOptionsMatchTsharksDecoding) {
  if (!have_tshark()) GTEST_SKIP() << "tshark not installed";
  int checked = 0;
  for (const std::string name : {"dhcp-mud.pcap", "dhcp-option-33.pcap", "dhcp-rfc3004.pcap", "dhcp-rfc5859.pcap"}) {
    const std::string path = testsupport::data_path("captures/" + name);
    const auto rows = tshark_fields(path, {"dhcp.option.type", "dhcp.option.value"});
    const auto messages = captured_messages(path);
    ASSERT_EQ(rows.size(), messages.size()) << name;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      SCOPED_TRACE(name + " frame " + std::to_string(i + 1));
      const auto types = split(rows[i][0], ';');
      const auto values = split(rows[i][1], ';');
      // Values joined per code, in order of appearance, as the store holds them.
      std::map<int, Bytes> joined;
      for (std::size_t k = 0; k < types.size() && k < values.size(); ++k) {
        const int code = std::stoi(types[k]);
        if (code == 0 || code == 255 || values[k] == "<MISSING>") continue;
        const Bytes v = from_hex(values[k]);
        joined[code].insert(joined[code].end(), v.begin(), v.end());
      }
      DhcpTestMemops memops;
      Parsed p(memops.ops(), messages[i]);
      ASSERT_EQ(p.rc, 0);
      for (const auto &[code, value] : joined) {
        const auto text = option_text(static_cast<std::uint8_t>(code), value);
        if (code == 124 || code == 125) continue;  // looked up by sub-option, below
        if (!text) {
          EXPECT_EQ(p.matches(static_cast<std::uint8_t>(code), 0, 0, "*"), 0) << code;
          continue;
        }
        EXPECT_EQ(p.matches(static_cast<std::uint8_t>(code), 0, 0, literal_pattern(*text)), 1)
            << "option " << code << " as \"" << *text << "\"";
        EXPECT_EQ(p.matches(static_cast<std::uint8_t>(code), 0, 0, literal_pattern(*text) + "x"), 0) << code;
        ++checked;
      }
    }
  }
  EXPECT_GT(checked, 40);
}

// ---- generated vendor options, decoded by tshark ----

namespace {

void put_be16(Bytes &b, std::size_t at, std::uint16_t v) {
  b[at] = static_cast<std::uint8_t>(v >> 8);
  b[at + 1] = static_cast<std::uint8_t>(v);
}

// Ethernet, IPv4 and UDP (68 -> 67) around a DHCP message.
Bytes frame_around(const Bytes &dhcp) {
  Bytes f = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x08, 0x00};
  Bytes ip = {0x45, 0, 0, 0, 0, 1, 0, 0, 64, 17, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255};
  put_be16(ip, 2, static_cast<std::uint16_t>(20 + 8 + dhcp.size()));
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < 20; i += 2) sum += std::uint32_t{ip[i]} << 8 | ip[i + 1];
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  put_be16(ip, 10, static_cast<std::uint16_t>(~sum));
  Bytes udp = {0, 68, 0, 67, 0, 0, 0, 0};
  put_be16(udp, 4, static_cast<std::uint16_t>(8 + dhcp.size()));
  f.insert(f.end(), ip.begin(), ip.end());
  f.insert(f.end(), udp.begin(), udp.end());
  f.insert(f.end(), dhcp.begin(), dhcp.end());
  return f;
}

void write_pcap(const std::string &path, const std::vector<Bytes> &frames) {
  testsupport::PcapWriter writer(path);
  for (const Bytes &f : frames) writer.add(f);
}

struct VendorMessage {
  Bytes dhcp;
  std::map<int, Bytes> sub43;   // what was put in, per code
  std::map<int, Bytes> sub125;  // enterprise 3561
};

VendorMessage random_vendor_message(std::mt19937 &rng) {
  std::uniform_int_distribution<int> byte(0, 255), printable('0', 'z'), len(1, 20), coin(0, 1);
  VendorMessage vm;
  Bytes m(236, 0);
  m[0] = 1;
  m[1] = 1;
  m[2] = 6;
  for (int i = 4; i < 8; ++i) m[i] = static_cast<std::uint8_t>(byte(rng));
  for (std::uint8_t b : {0x63, 0x82, 0x53, 0x63, 53, 1, 1}) m.push_back(b);
  const std::string pxe = "PXEClient:Arch:00000:UNDI:002001";
  m.push_back(60);
  m.push_back(static_cast<std::uint8_t>(pxe.size()));
  m.insert(m.end(), pxe.begin(), pxe.end());
  // Option 43: PXE sub-options with their proper lengths.
  const int pxe_lengths[] = {0, 4, 2, 2, 1, 1, 1};
  Bytes v43;
  for (int code = 1; code <= 6; ++code) {
    if (!coin(rng)) continue;
    Bytes v;
    for (int k = 0; k < pxe_lengths[code]; ++k) v.push_back(static_cast<std::uint8_t>(byte(rng)));
    vm.sub43[code] = v;
    v43.push_back(static_cast<std::uint8_t>(code));
    v43.push_back(static_cast<std::uint8_t>(v.size()));
    v43.insert(v43.end(), v.begin(), v.end());
  }
  if (!v43.empty()) {
    m.push_back(43);
    m.push_back(static_cast<std::uint8_t>(v43.size()));
    m.insert(m.end(), v43.begin(), v43.end());
  }
  // Option 125: one Broadband Forum block with device sub-options.
  Bytes data;
  for (int code = 1; code <= 6; ++code) {
    if (!coin(rng)) continue;
    Bytes v;
    for (int k = len(rng); k > 0; --k) v.push_back(static_cast<std::uint8_t>(printable(rng)));
    vm.sub125[code] = v;
    data.push_back(static_cast<std::uint8_t>(code));
    data.push_back(static_cast<std::uint8_t>(v.size()));
    data.insert(data.end(), v.begin(), v.end());
  }
  if (!data.empty()) {
    Bytes v125 = {0, 0, 0x0d, 0xe9, static_cast<std::uint8_t>(data.size())};
    v125.insert(v125.end(), data.begin(), data.end());
    m.push_back(125);
    m.push_back(static_cast<std::uint8_t>(v125.size()));
    m.insert(m.end(), v125.begin(), v125.end());
  }
  m.push_back(255);
  while (m.size() < 300) m.push_back(0);
  vm.dhcp = m;
  return vm;
}

// tshark's sub-options of one frame: code -> value bytes.
std::map<int, Bytes> tshark_suboptions(const std::string &codes, const std::string &values) {
  std::map<int, Bytes> out;
  const auto c = split(codes, ';');
  const auto v = split(values, ';');
  EXPECT_EQ(c.size(), v.size()) << codes << " / " << values;
  for (std::size_t i = 0; i < c.size() && i < v.size(); ++i) {
    if (c[i].empty()) continue;
    out[std::stoi(c[i])] = from_hex(v[i]);
  }
  return out;
}

}  // namespace

TEST(HostDhcpMatch, GeneratedVendorSubOptionsAgreeWithTshark) {
  if (!have_tshark()) GTEST_SKIP() << "tshark not installed";
  std::mt19937 rng(3561);
  std::vector<VendorMessage> messages;
  std::vector<Bytes> frames;
  for (int i = 0; i < 60; ++i) {
    messages.push_back(random_vendor_message(rng));
    frames.push_back(frame_around(messages.back().dhcp));
  }
  const std::string path = std::string(NIKERKIOG_BINARY_DIR) + "/host_dhcp_match_vendor.pcap";
  write_pcap(path, frames);
  const auto rows = tshark_fields(path, {"dhcp.option.vendor.pxeclient.suboption", "dhcp.option.vendor.value",
                                         "dhcp.option.vi.enterprise", "dhcp.option.vi.tr111.suboption",
                                         "dhcp.option.vi.value"});
  ASSERT_EQ(rows.size(), messages.size());
  int found43 = 0, found125 = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE("generated frame " + std::to_string(i + 1));
    const auto pxe = tshark_suboptions(rows[i][0], rows[i][1]);
    const auto tr111 = tshark_suboptions(rows[i][3], rows[i][4]);
    // tshark decodes what was put in: the generator and tshark agree.
    EXPECT_EQ(pxe, messages[i].sub43);
    EXPECT_EQ(tr111, messages[i].sub125);
    if (!tr111.empty()) {
      EXPECT_EQ(rows[i][2], "3561");
    }

    DhcpTestMemops memops;
    Bytes msg = messages[i].dhcp;
    msg.push_back(0);
    Parsed p(memops.ops(), msg);
    ASSERT_EQ(p.rc, 0);
    for (int code = 0; code < 256; ++code) {
      const auto sub = static_cast<std::uint8_t>(code);
      unsigned char *v = p.store[43].data;
      const std::uint32_t n43 = p.store[43].data ? dhcp_find_43_option(p.ops, &v, p.store[43].len, sub) : 0;
      const auto it43 = pxe.find(code);
      if (it43 != pxe.end()) {
        ASSERT_EQ(n43, it43->second.size()) << "option 43 sub-option " << code;
        EXPECT_EQ(Bytes(v, v + n43), it43->second);
        p.ops->free(v);
        ++found43;
      } else {
        EXPECT_EQ(n43, 0u) << "option 43 sub-option " << code;
      }
      char *s = dhcp_extract_125_string(p.ops, &p.store[125], 3561, sub);
      const auto it125 = tr111.find(code);
      if (it125 != tr111.end()) {
        ASSERT_NE(s, nullptr) << "option 125 sub-option " << code;
        EXPECT_EQ(std::string(s), std::string(it125->second.begin(), it125->second.end()));
        EXPECT_EQ(p.matches(125, sub, 3561, literal_pattern(s)), 1);
        EXPECT_EQ(p.matches(125, sub, 3562, "*"), 0);
        ++found125;
      } else {
        EXPECT_EQ(s, nullptr) << "option 125 sub-option " << code;
        EXPECT_EQ(p.matches(125, sub, 3561, "*"), 0);
      }
      if (s) p.ops->free(s);
    }
  }
  EXPECT_GT(found43, 60);
  EXPECT_GT(found125, 60);
  std::remove(path.c_str());
}
