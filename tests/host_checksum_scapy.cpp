// Checksums of random packets built by scapy (which fills in every
// checksum itself): the verify functions accept them, and setting a
// checksum again reproduces scapy's packet byte for byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "nuvcksum.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;

struct Packet {
  std::string kind;
  Bytes bytes;
};

std::vector<Packet> scapy_packets(int seed, int count) {
  const std::string cmd = "/usr/bin/python3 '" + testsupport::source_path("tests/data/checksum_packets.py") + "' " +
                          std::to_string(seed) + " " + std::to_string(count);
  int status = -1;
  std::istringstream lines(testsupport::run_command(cmd, &status));
  EXPECT_EQ(status, 0) << cmd;
  std::vector<Packet> out;
  std::string kind, hex;
  while (lines >> kind >> hex) out.push_back({kind, testsupport::hex_bytes(hex)});
  return out;
}

struct Kind {
  const char *name;
  void (*set)(void *);
  int (*ok)(const void *);  // null for IPv6
  std::size_t field;        // checksum offset in the upper-layer header
};

const Kind kKinds[] = {
    {"tcp4", set_tcp_checksum, tcp_checksum_ok, 16},  {"udp4", set_udp_checksum, udp_checksum_ok, 6},
    {"icmp4", set_icmp_checksum, icmp_checksum_ok, 2}, {"tcp6", set_tcpv6_checksum, nullptr, 16},
    {"udp6", set_udpv6_checksum, nullptr, 6},          {"icmp6", set_icmpv6_checksum, nullptr, 2},
};

const Kind *kind_named(const std::string &name) {
  for (const Kind &k : kKinds)
    if (name == k.name) return &k;
  return nullptr;
}

}  // namespace

TEST(ChecksumsAgainstScapy, RandomPackets) {
  if (!testsupport::have_program("/usr/bin/python3")) GTEST_SKIP() << "python3 not installed";
  const std::vector<Packet> packets = scapy_packets(31337, 600);
  ASSERT_EQ(packets.size(), 600u);
  int ipv4 = 0, ipv6 = 0;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    const Packet &p = packets[i];
    const Kind *k = kind_named(p.kind);
    ASSERT_NE(k, nullptr) << p.kind;
    const std::string where = "packet " + std::to_string(i) + " " + p.kind + " " +
                              testsupport::to_hex(p.bytes.data(), p.bytes.size());
    Bytes copy = p.bytes;  // exactly the packet, so overreads are caught
    if (k->ok) {
      EXPECT_EQ(ip_checksum_ok(copy.data()), 1) << where;
      EXPECT_EQ(k->ok(copy.data()), 1) << where;
      const std::size_t field = (copy[0] & 15u) * 4 + k->field;
      copy[field] ^= 0xa5;
      copy[field + 1] ^= 0x5a;
      EXPECT_EQ(k->ok(copy.data()), 0) << where;
      k->set(copy.data());
      set_ip_checksum(copy.data());
      EXPECT_EQ(copy, p.bytes) << where;
      ++ipv4;
    } else {
      k->set(copy.data());
      // scapy sends a computed 0 as ffff for UDP over IPv6 too; this library
      // stores the 0 itself.
      if (copy != p.bytes && p.kind == "udp6") {
        Bytes zeroed = p.bytes;
        for (std::size_t j = 0; j < zeroed.size(); ++j)
          if (copy[j] != zeroed[j] && zeroed[j] == 0xff) zeroed[j] = 0;
        EXPECT_EQ(copy, zeroed) << where;
      } else {
        EXPECT_EQ(copy, p.bytes) << where;
      }
      ++ipv6;
    }
  }
  EXPECT_GT(ipv4, 200);
  EXPECT_GT(ipv6, 200);
}
