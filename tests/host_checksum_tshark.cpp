// Checksum verdicts on every IPv4/IPv6 packet of the shared captures,
// compared with Wireshark's tshark (checksum validation switched on).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "nuvcksum.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;

// tshark's checksum status values.
constexpr int kBad = 0;
constexpr int kGood = 1;
constexpr int kNone = -1;  // field absent (or "unverified")

constexpr std::uint32_t kLinkLoopback = 0;

struct Verdicts {
  int ip = kNone, tcp = kNone, udp = kNone, icmp = kNone, icmpv6 = kNone;
};

// First value of a field that tshark may repeat for inner headers.
int status_of(const std::string &field) {
  const std::string first = field.substr(0, field.find(','));
  if (first == "0") return kBad;
  if (first == "1") return kGood;
  return kNone;
}

std::vector<std::string> split(const std::string &line, char sep) {
  std::vector<std::string> out;
  std::string cell;
  std::istringstream in(line);
  while (std::getline(in, cell, sep)) out.push_back(cell);
  if (!line.empty() && line.back() == sep) out.emplace_back();
  return out;
}

std::map<std::size_t, Verdicts> tshark_verdicts(const std::string &capture) {
  const std::string cmd = "tshark -r '" + testsupport::data_path("captures/" + capture) +
                          "' -o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE -o udp.check_checksum:TRUE"
                          " -T fields -E separator='|' -e frame.number -e ip.checksum.status"
                          " -e tcp.checksum.status -e udp.checksum.status -e icmp.checksum.status"
                          " -e icmpv6.checksum.status 2>/dev/null";
  std::map<std::size_t, Verdicts> out;
  std::istringstream lines(testsupport::run_command(cmd));
  std::string line;
  while (std::getline(lines, line)) {
    const auto f = split(line, '|');
    if (f.size() < 6) continue;
    Verdicts v;
    v.ip = status_of(f[1]);
    v.tcp = status_of(f[2]);
    v.udp = status_of(f[3]);
    v.icmp = status_of(f[4]);
    v.icmpv6 = status_of(f[5]);
    out[std::stoul(f[0])] = v;
  }
  return out;
}

std::uint16_t be16(const Bytes &b, std::size_t at) { return static_cast<std::uint16_t>(b[at] << 8 | b[at + 1]); }

struct Counts {
  int ip = 0, tcp = 0, udp = 0, icmp = 0, ip6 = 0, routed = 0, bad = 0, skipped = 0;
};

// Verdicts on one IPv4 packet; `ip` holds exactly total-length bytes.
void check_ipv4(const Bytes &ip, const Verdicts &v, const std::string &where, Counts &n) {
  if (v.ip != kNone) {
    EXPECT_EQ(ip_checksum_ok(ip.data()), v.ip == kGood ? 1 : 0) << where;
    ++n.ip;
    n.bad += v.ip == kBad;
  }
  const std::size_t header = (ip[0] & 15u) * 4;
  const bool fragment = (be16(ip, 6) & 0x3fff) != 0;
  if (fragment) return;
  const std::size_t payload = ip.size() - header;
  if (v.tcp != kNone && payload >= 20) {
    EXPECT_EQ(tcp_checksum_ok(ip.data()), v.tcp == kGood ? 1 : 0) << where;
    ++n.tcp;
  }
  if (payload >= 8 && ip[9] == 17) {
    const std::size_t udp_length = be16(ip, header + 4);
    if (udp_length < 8 || udp_length > payload) return;
    if (v.udp != kNone) {
      EXPECT_EQ(udp_checksum_ok(ip.data()), v.udp == kGood ? 1 : 0) << where;
      ++n.udp;
      n.bad += v.udp == kBad;
    } else if (be16(ip, header + 6) == 0) {
      // Sent without a checksum: tshark does not judge it, the check is strict.
      EXPECT_EQ(udp_checksum_ok(ip.data()), 0) << where;
    }
  }
  if (v.icmp != kNone && payload >= 4) {
    EXPECT_EQ(icmp_checksum_ok(ip.data()), v.icmp == kGood ? 1 : 0) << where;
    ++n.icmp;
  }
}

// Final destination of a packet with a type 0 routing header that still has
// segments left (the last listed address), or null.
const std::uint8_t *routed_final_destination(const Bytes &ip) {
  std::uint8_t next = ip[6];
  std::size_t at = 40;
  while ((next == 0 || next == 60 || next == 43) && at + 8 <= ip.size()) {
    const std::size_t len = (ip[at + 1] + 1u) * 8;
    if (at + len > ip.size()) return nullptr;
    if (next == 43 && ip[at + 2] == 0 && ip[at + 3] > 0 && ip[at + 1] >= 2) return &ip[at + len - 16];
    next = ip[at];
    at += len;
  }
  return nullptr;
}

// The IPv6 checksums are recomputed on a copy: the copy equals the packet
// exactly when the received checksum is the right one.  The library's
// pseudo-header takes the destination of the IPv6 header; a packet still on
// its way along a source route carries the checksum for its final
// destination, so for those the copy gets that destination first and the
// address bytes are left out of the comparison.
void check_ipv6(const Bytes &ip, const Verdicts &v, const std::string &where, Counts &n) {
  struct Upper {
    int verdict;
    void (*set)(void *);
    const char *name;
  };
  const Upper uppers[] = {{v.tcp, set_tcpv6_checksum, "tcp"},
                          {v.udp, set_udpv6_checksum, "udp"},
                          {v.icmpv6, set_icmpv6_checksum, "icmpv6"}};
  const std::uint8_t *final_destination = routed_final_destination(ip);
  for (const Upper &u : uppers) {
    if (u.verdict == kNone) continue;
    Bytes copy = ip;
    if (final_destination) std::copy(final_destination, final_destination + 16, copy.begin() + 24);
    u.set(copy.data());
    if (final_destination) std::copy(ip.begin() + 24, ip.begin() + 40, copy.begin() + 24);
    EXPECT_EQ(copy == ip, u.verdict == kGood) << where << " " << u.name;
    ++n.ip6;
    n.routed += final_destination != nullptr;
  }
}

// Where the IP header starts in a frame of a loopback capture (link type 0:
// a 4-byte address family in the byte order of the capturing host).
testsupport::NetworkLayer loopback_layer(const testsupport::CapturedPacket &packet) {
  testsupport::NetworkLayer layer;
  if (packet.data.size() < 5) return layer;
  const std::uint8_t version = packet.data[4] >> 4;
  layer.offset = 4;
  layer.ethertype = version == 6 ? 0x86DD : version == 4 ? 0x0800 : 0;
  layer.found = layer.ethertype != 0;
  return layer;
}

}  // namespace

TEST(ChecksumsAgainstTshark, EveryCapturedIpPacket) {
  if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark not installed";
  Counts n;
  for (const std::string &name : testsupport::capture_names()) {
    const auto verdicts = tshark_verdicts(name);
    const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path("captures/" + name));
    for (const auto &packet : capture.packets) {
      const auto layer = capture.link_type == kLinkLoopback ? loopback_layer(packet)
                                                            : testsupport::find_network_layer(capture, packet);
      if (!layer.found || (layer.ethertype != 0x0800 && layer.ethertype != 0x86DD)) continue;
      const auto it = verdicts.find(packet.number);
      ASSERT_NE(it, verdicts.end()) << name << " frame " << packet.number;
      const std::string where = name + " frame " + std::to_string(packet.number);
      const Bytes &frame = packet.data;
      const std::size_t avail = frame.size() - layer.offset;
      // Only whole packets: a function is never given fewer bytes than it reads.
      if (packet.wire_length != frame.size()) {
        ++n.skipped;
        continue;
      }
      if (layer.ethertype == 0x0800) {
        if (avail < 20 || (frame[layer.offset] >> 4) != 4) continue;
        const std::size_t header = (frame[layer.offset] & 15u) * 4;
        const std::size_t total = static_cast<std::size_t>(frame[layer.offset + 2] << 8 | frame[layer.offset + 3]);
        if (header < 20 || total < header || total > avail) {
          ++n.skipped;
          continue;
        }
        const Bytes ip(frame.begin() + static_cast<std::ptrdiff_t>(layer.offset),
                       frame.begin() + static_cast<std::ptrdiff_t>(layer.offset + total));
        check_ipv4(ip, it->second, where, n);
      } else {
        if (avail < 40) continue;
        const std::size_t total = 40 + static_cast<std::size_t>(frame[layer.offset + 4] << 8 | frame[layer.offset + 5]);
        if (total > avail) {
          ++n.skipped;
          continue;
        }
        const Bytes ip(frame.begin() + static_cast<std::ptrdiff_t>(layer.offset),
                       frame.begin() + static_cast<std::ptrdiff_t>(layer.offset + total));
        check_ipv6(ip, it->second, where, n);
      }
    }
  }
  std::printf("compared: %d IPv4 headers, %d TCP, %d UDP, %d ICMP, %d IPv6 upper layers (%d source-routed);"
              " %d judged bad; %d skipped\n", n.ip, n.tcp, n.udp, n.icmp, n.ip6, n.routed, n.bad, n.skipped);
  // The captures hold these many judged packets; fewer means the comparison broke.
  EXPECT_GE(n.ip, 50);
  EXPECT_GE(n.udp, 15);
  EXPECT_GE(n.tcp, 4);
  EXPECT_GE(n.ip6, 9);
  EXPECT_GE(n.routed, 4);
  EXPECT_GE(n.bad, 8);
}
