#include "testsupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "nuvcsock_test.h"

namespace testsupport {

std::string data_path(std::string_view relative) {
  std::string path = std::string(NIKERKIOG_DATA_DIR) + "/" + std::string(relative);
  EXPECT_EQ(access(path.c_str(), R_OK), 0) << "test data missing: " << path
                                           << " (the repository's tests/data/ should hold it)";
  return path;
}

std::string source_path(std::string_view relative) {
  return std::string(NIKERKIOG_SOURCE_DIR) + "/" + std::string(relative);
}

std::string read_text_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

static int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

Bytes hex_bytes(std::string_view hex) {
  Bytes out;
  int high = -1;
  for (char c : hex) {
    int v = hex_value(c);
    if (v < 0) {
      EXPECT_TRUE(c == ' ' || c == ':' || c == '\n' || c == '\t') << "bad hex character '" << c << "'";
      continue;
    }
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<std::uint8_t>(high << 4 | v));
      high = -1;
    }
  }
  EXPECT_EQ(high, -1) << "odd number of hex digits";
  return out;
}

std::string to_hex(const std::uint8_t *data, std::size_t len) {
  std::string s;
  char b[4];
  for (std::size_t i = 0; i < len; ++i) {
    std::snprintf(b, sizeof b, i ? " %02x" : "%02x", data[i]);
    s += b;
  }
  return s;
}

static std::map<int, std::string> read_iana_protocol_keywords() {
  std::map<int, std::string> keywords;
  std::istringstream in(read_text_file(data_path("iana-protocol-numbers.csv")));
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t comma = line.find(',');
    const std::string number = line.substr(0, comma);
    if (comma == std::string::npos || number.find('-') != std::string::npos) continue;
    // The keyword is the second field, in double quotes (never containing one).
    const std::size_t open = line.find('"', comma);
    const std::size_t close = open == std::string::npos ? open : line.find('"', open + 1);
    if (close == std::string::npos) {
      ADD_FAILURE() << "iana-protocol-numbers.csv: no quoted keyword in \"" << line << '"';
      continue;
    }
    keywords[std::stoi(number)] = line.substr(open + 1, close - open - 1);
  }
  EXPECT_FALSE(keywords.empty()) << "iana-protocol-numbers.csv holds no protocol";
  return keywords;
}

const std::map<int, std::string> &iana_protocol_keywords() {
  static const std::map<int, std::string> keywords = read_iana_protocol_keywords();
  return keywords;
}

Capture read_pcap(const std::string &path) {
  Capture capture;
  const std::string error = read_pcap_file(path, capture);
  if (!error.empty()) ADD_FAILURE() << error;
  return capture;
}

static std::uint16_t be16(const Bytes &b, std::size_t at) {
  return static_cast<std::uint16_t>(b[at] << 8 | b[at + 1]);
}

NetworkLayer find_network_layer(const Capture &capture, const CapturedPacket &packet) {
  NetworkLayer layer;
  const Bytes &d = packet.data;
  std::size_t at;
  std::uint16_t type;
  switch (capture.link_type) {
    case kLinkEthernet:
      if (d.size() < 14) return layer;
      at = 12;
      break;
    case kLinkLinuxCooked:
      if (d.size() < 16) return layer;
      at = 14;
      break;
    case kLinkRaw:
      if (d.empty()) return layer;
      layer.offset = 0;
      layer.ethertype = (d[0] >> 4) == 6 ? 0x86DD : 0x0800;
      layer.found = true;
      return layer;
    case kLinkNull:
      // The family word is in the byte order of the capturing host; the IP
      // version nibble behind it tells the same more simply.
      if (d.size() < 5) return layer;
      layer.offset = 4;
      layer.ethertype = (d[4] >> 4) == 6 ? 0x86DD : 0x0800;
      layer.found = true;
      return layer;
    case kLinkIpv4:
    case kLinkIpv6:
      if (d.empty()) return layer;
      layer.offset = 0;
      layer.ethertype = capture.link_type == kLinkIpv6 ? 0x86DD : 0x0800;
      layer.found = true;
      return layer;
    default:
      return layer;
  }
  type = be16(d, at);
  at += 2;
  while ((type == 0x8100 || type == 0x88A8 || type == 0x9100) && d.size() >= at + 4) {
    layer.vlan_ids.push_back(be16(d, at) & 0x0FFF);
    type = be16(d, at + 2);
    at += 4;
  }
  layer.offset = at;
  layer.ethertype = type;
  layer.found = at <= d.size();
  return layer;
}

std::vector<std::string> capture_names() {
  std::vector<std::string> names;
  std::string dir = data_path("captures");
  if (DIR *dp = opendir(dir.c_str())) {
    while (dirent *e = readdir(dp)) {
      std::string n = e->d_name;
      if (n.size() > 5 && n.compare(n.size() - 5, 5, ".pcap") == 0) names.push_back(n);
    }
    closedir(dp);
  }
  std::sort(names.begin(), names.end());
  // Tests over "every capture" must not pass vacuously when the data is missing.
  EXPECT_FALSE(names.empty()) << "no captures found in " << dir;
  return names;
}

std::vector<IpPacket> all_captured_ip_packets() {
  std::vector<IpPacket> out;
  for (const auto &name : capture_names()) {
    Capture c = read_pcap(data_path("captures/" + name));
    for (const auto &pkt : c.packets) {
      NetworkLayer l = find_network_layer(c, pkt);
      if (!l.found || (l.ethertype != 0x0800 && l.ethertype != 0x86DD)) continue;
      out.push_back({name, pkt.number, l.ethertype, Bytes(pkt.data.begin() + l.offset, pkt.data.end())});
    }
  }
  return out;
}

LiveBlocks live_blocks() {
  return {nuvcsock_slab_live_blocks(), nuvcsock_cmemstack_live_blocks(), nuvcsock_memblock_live_blocks()};
}

NoLeakGuard::NoLeakGuard() : before_(live_blocks()) {}

NoLeakGuard::~NoLeakGuard() {
  nuvcsock_fail_nth_allocation(0);
  LiveBlocks after = live_blocks();
  EXPECT_EQ(after.slab, before_.slab) << "slab blocks leaked";
  EXPECT_EQ(after.cmemstack, before_.cmemstack) << "scratch blocks leaked";
  EXPECT_EQ(after.memblock, before_.memblock) << "memory blocks leaked";
}

bool have_program(const char *name) {
  std::string cmd = std::string("command -v ") + name + " >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

std::string run_command(const std::string &command, int *exit_status) {
  std::string out;
  FILE *f = popen(command.c_str(), "r");
  if (!f) {
    if (exit_status) *exit_status = -1;
    return out;
  }
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  int status = pclose(f);
  if (exit_status) *exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

}  // namespace testsupport
