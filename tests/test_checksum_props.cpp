// Property tests of the checksums over thousands of random packets (fixed
// seed): set-then-verify, stored value against a plain 16-bit word
// reference, and incremental updates against full recomputation.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "nuvcksum.h"
#include "nuvcksum_priv.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kRounds = 4000;

std::uint32_t ref_sum(const std::uint8_t *p, std::size_t n, std::uint32_t s = 0) {
  for (std::size_t i = 0; i + 1 < n; i += 2) s += static_cast<std::uint32_t>(p[i] << 8 | p[i + 1]);
  if (n % 2) s += static_cast<std::uint32_t>(p[n - 1]) << 8;
  return s;
}

std::uint32_t ref_fold(std::uint32_t s) {
  while (s >> 16) s = (s & 0xffff) + (s >> 16);
  return s;
}

std::uint16_t ref_checksum(std::uint32_t s) { return static_cast<std::uint16_t>(~ref_fold(s) & 0xffff); }

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
void put16(std::uint8_t *p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}
void put32(std::uint8_t *p, std::uint32_t v) {
  put16(p, static_cast<std::uint16_t>(v >> 16));
  put16(p + 2, static_cast<std::uint16_t>(v));
}
// The two bytes at p as they stand in memory (network order), as the update
// functions return them.
std::uint16_t load16(const std::uint8_t *p) {
  std::uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

class Random {
 public:
  explicit Random(std::uint32_t seed) : gen_(seed) {}
  std::uint32_t below(std::uint32_t n) { return std::uniform_int_distribution<std::uint32_t>(0, n - 1)(gen_); }
  std::uint8_t byte() { return static_cast<std::uint8_t>(below(256)); }
  std::uint32_t u32() { return gen_(); }
  void fill(std::uint8_t *p, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) p[i] = byte();
  }
  // Payload lengths: mostly small, sometimes up to a jumbo frame.
  std::size_t length(std::size_t min) {
    switch (below(4)) {
      case 0: return min + below(16);
      case 1: return min + below(200);
      case 2: return min + below(1600);
      default: return min + below(9000);
    }
  }

 private:
  std::mt19937 gen_;
};

// 32-bit values for the update tests: half of them at the edges where a
// word is all ones or all zeros (broadcast addresses, carries out of the
// top word), the rest random.
std::uint32_t edgy_u32(Random &r) {
  switch (r.below(8)) {
    case 0: return 0xffff0000u | r.below(0x10000);
    case 1: return 0xffffffffu - r.below(0x200);
    case 2: return 0xffffffffu;
    case 3: return r.below(2) ? 0u : (r.u32() & 0xffff0000u) | 0xffffu;
    default: return r.u32();
  }
}

// A buffer whose packet starts `shift` bytes in, so that unaligned starts
// are covered; the packet still ends exactly at the end of the allocation.
struct Shifted {
  Bytes storage;
  std::size_t shift;
  std::uint8_t *data() { return storage.data() + shift; }
  std::size_t size() const { return storage.size() - shift; }
};

Shifted make_packet(Random &r, std::size_t size) {
  Shifted s{Bytes(size + 7), r.below(8)};
  s.storage.resize(size + s.shift);
  r.fill(s.storage.data(), s.storage.size());
  return s;
}

struct Ip4Case {
  std::uint8_t protocol;
  std::size_t field;  // checksum offset in the transport header
  bool pseudo;
  void (*set)(void *);
  int (*ok)(const void *);
};

const Ip4Case kIp4Cases[] = {
    {6, 16, true, set_tcp_checksum, tcp_checksum_ok},
    {17, 6, true, set_udp_checksum, udp_checksum_ok},
    {1, 2, false, set_icmp_checksum, icmp_checksum_ok},
};

// A random IPv4 packet of the case's protocol, with options and, for UDP,
// sometimes padding after the datagram.
Shifted random_ipv4(Random &r, const Ip4Case &c, std::size_t *transport_len) {
  const std::size_t header = 4 * (5 + r.below(11));
  const std::size_t payload = r.length(c.field + 2);
  Shifted p = make_packet(r, header + payload);
  std::uint8_t *ip = p.data();
  ip[0] = static_cast<std::uint8_t>(0x40 | header / 4);
  put16(ip + 2, static_cast<std::uint16_t>(header + payload));
  ip[9] = r.below(8) ? c.protocol : r.byte();
  *transport_len = payload;
  if (c.protocol == 17) {
    *transport_len = payload - (r.below(4) == 0 ? r.below(static_cast<std::uint32_t>(payload - 7)) : 0);
    put16(ip + header + 4, static_cast<std::uint16_t>(*transport_len));
  }
  return p;
}

std::uint16_t ref_ip4_checksum(const std::uint8_t *ip, const Ip4Case &c, std::size_t len) {
  const std::size_t header = static_cast<std::size_t>(ip[0] & 15) * 4;
  std::uint32_t s = ref_sum(ip + header, len);
  if (c.pseudo) s = ref_sum(ip + 12, 8, s) + ip[9] + static_cast<std::uint32_t>(len);
  std::uint16_t k = ref_checksum(s);
  if (k == 0 && c.protocol == 17) k = 0xffff;
  return k;
}

}  // namespace

TEST(ChecksumProperties, CoreEqualsWordReferenceForAnyLengthAndStart) {
  Random r(1);
  for (int i = 0; i < kRounds; ++i) {
    Shifted p = make_packet(r, r.length(0));
    if (r.below(8) == 0) std::memset(p.data(), r.below(2) ? 0xff : 0, p.size());
    ASSERT_EQ(dp::be_sum16(p.data(), p.size()), ref_fold(ref_sum(p.data(), p.size())))
        << "length " << p.size() << " shift " << p.shift;
  }
}

TEST(ChecksumProperties, IpHeaderSetThenOkAndReferenceValue) {
  Random r(2);
  for (int i = 0; i < kRounds; ++i) {
    const std::size_t header = 4 * (5 + r.below(11));
    Shifted p = make_packet(r, header);
    p.data()[0] = static_cast<std::uint8_t>(0x40 | header / 4);
    set_ip_checksum(p.data());
    ASSERT_EQ(ip_checksum_ok(p.data()), 1);
    const std::uint16_t stored = be16(p.data() + 10);
    put16(p.data() + 10, 0);
    ASSERT_EQ(stored, ref_checksum(ref_sum(p.data(), header)));
  }
}

TEST(ChecksumProperties, Ip4TransportSetThenOkAndReferenceValue) {
  Random r(3);
  for (const Ip4Case &c : kIp4Cases) {
    for (int i = 0; i < kRounds; ++i) {
      std::size_t len;
      Shifted p = random_ipv4(r, c, &len);
      std::uint8_t *ip = p.data();
      c.set(ip);
      ASSERT_EQ(c.ok(ip), 1) << "protocol " << int(c.protocol) << " round " << i;
      std::uint8_t *field = ip + (ip[0] & 15) * 4 + c.field;
      const std::uint16_t stored = be16(field);
      put16(field, 0);
      ASSERT_EQ(stored, ref_ip4_checksum(ip, c, len)) << "protocol " << int(c.protocol) << " round " << i;
    }
  }
}

TEST(ChecksumProperties, Ip4TransportVerifyRejectsSingleByteChanges) {
  Random r(4);
  for (const Ip4Case &c : kIp4Cases) {
    for (int i = 0; i < kRounds / 4; ++i) {
      std::size_t len;
      Shifted p = random_ipv4(r, c, &len);
      std::uint8_t *ip = p.data();
      c.set(ip);
      const std::size_t header = (ip[0] & 15) * 4;
      std::size_t at = header + r.below(static_cast<std::uint32_t>(len));
      if (c.protocol == 17 && (at == header + 4 || at == header + 5)) at += 2;  // keep the length the caller vouches for
      const std::uint8_t delta = static_cast<std::uint8_t>(1 + r.below(255));
      ip[at] = static_cast<std::uint8_t>(ip[at] + delta);
      // A byte changed by d changes the sum by d or 256 d, never a multiple
      // of ffff, so every such change must be noticed.
      ASSERT_EQ(c.ok(ip), 0) << "protocol " << int(c.protocol) << " round " << i;
    }
  }
}

namespace {

struct Ip6Case {
  std::uint8_t protocol;
  std::size_t field;
  void (*set)(void *);
};

const Ip6Case kIp6Cases[] = {
    {6, 16, set_tcpv6_checksum},
    {17, 6, set_udpv6_checksum},
    {58, 2, set_icmpv6_checksum},
};

const std::uint8_t kWalked[] = {0, 43, 44, 51, 59, 60};

}  // namespace

TEST(ChecksumProperties, Ip6UpperLayerReferenceValue) {
  Random r(5);
  for (const Ip6Case &c : kIp6Cases) {
    for (int i = 0; i < kRounds; ++i) {
      // Random chain of zero to four extension headers.
      std::vector<std::pair<std::uint8_t, std::uint8_t>> exts(r.below(5));
      std::size_t ext_bytes = 0;
      for (auto &e : exts) {
        e.first = kWalked[r.below(6)];
        e.second = static_cast<std::uint8_t>(r.below(4));
        ext_bytes += e.first == 51 ? (e.second + 2u) * 4u : (e.second + 1u) * 8u;
      }
      const std::size_t upper = r.length(c.field + 2);
      Shifted p = make_packet(r, 40 + ext_bytes + upper);
      std::uint8_t *ip = p.data();
      put16(ip + 4, static_cast<std::uint16_t>(ext_bytes + upper));
      std::uint8_t *next = ip + 6;
      std::size_t at = 40;
      for (auto &e : exts) {
        *next = e.first;
        next = ip + at;
        ip[at + 1] = e.second;
        at += e.first == 51 ? (e.second + 2u) * 4u : (e.second + 1u) * 8u;
      }
      *next = r.below(8) ? c.protocol : r.byte();
      while (std::find(std::begin(kWalked), std::end(kWalked), *next) != std::end(kWalked)) *next = r.byte();
      c.set(ip);
      const std::uint16_t stored = be16(ip + at + c.field);
      put16(ip + at + c.field, 0);
      std::uint32_t s = ref_sum(ip + 8, 32) + static_cast<std::uint32_t>(upper) + c.protocol;
      s = ref_sum(ip + at, upper, s);
      ASSERT_EQ(stored, ref_checksum(s)) << "protocol " << int(c.protocol) << " round " << i;
    }
  }
}

// ---- incremental updates ---------------------------------------------------

namespace {

// An ICMP message (no pseudo-header, so every payload byte counts the same)
// with a valid checksum: the update functions are checked against setting
// the checksum again after a change.
Shifted icmp_packet(Random &r, std::size_t payload) {
  Shifted p = make_packet(r, 20 + payload);
  std::uint8_t *ip = p.data();
  ip[0] = 0x45;
  put16(ip + 2, static_cast<std::uint16_t>(20 + payload));
  ip[9] = 1;
  set_icmp_checksum(ip);
  return p;
}

std::uint16_t stored_icmp(const std::uint8_t *ip) {
  std::uint16_t k;
  std::memcpy(&k, ip + 22, 2);
  return k;  // network order, as the update functions take it
}

std::uint16_t recomputed_icmp(std::uint8_t *ip) {
  set_icmp_checksum(ip);
  return stored_icmp(ip);
}

}  // namespace

TEST(ChecksumProperties, UpdateU16EqualsRecomputation) {
  Random r(6);
  for (int i = 0; i < kRounds; ++i) {
    Shifted p = icmp_packet(r, 8 + 2 * r.below(200));
    std::uint8_t *ip = p.data();
    // Any 16-bit field of the message except the checksum itself.
    std::size_t at;
    do at = 20 + 2 * r.below(static_cast<std::uint32_t>((p.size() - 20) / 2));
    while (at == 22);
    std::uint16_t old_value, new_value;
    std::memcpy(&old_value, ip + at, 2);
    const std::uint16_t k = stored_icmp(ip);
    ip[at] = r.byte();
    ip[at + 1] = r.byte();
    std::memcpy(&new_value, ip + at, 2);
    ASSERT_EQ(update_checksum_u16(k, old_value, new_value), recomputed_icmp(ip)) << "round " << i;
  }
}

TEST(ChecksumProperties, UpdateU32EqualsRecomputation) {
  Random r(7);
  for (int i = 0; i < kRounds; ++i) {
    Shifted p = icmp_packet(r, 8 + 4 * r.below(100));
    std::uint8_t *ip = p.data();
    const std::size_t at = 24 + 4 * r.below(static_cast<std::uint32_t>((p.size() - 24) / 4));
    std::uint32_t old_value, new_value;
    put32(ip + at, edgy_u32(r));
    set_icmp_checksum(ip);
    std::memcpy(&old_value, ip + at, 4);
    const std::uint16_t k = stored_icmp(ip);
    put32(ip + at, edgy_u32(r));
    std::memcpy(&new_value, ip + at, 4);
    ASSERT_EQ(update_checksum_u32(k, old_value, new_value), recomputed_icmp(ip)) << "round " << i;
  }
}

// Address translation rewrites the source address of the IP header and the
// TCP pseudo-header; both updated checksums equal setting them again.
TEST(ChecksumProperties, AddressRewriteUpdatesEqualSettingBothChecksums) {
  Random r(11);
  for (int i = 0; i < kRounds; ++i) {
    Shifted p = make_packet(r, 20 + 20 + r.below(100));
    std::uint8_t *ip = p.data();
    ip[0] = 0x45;
    put16(ip + 2, static_cast<std::uint16_t>(p.size()));
    ip[9] = 6;
    const std::size_t field = r.below(2) ? 12 : 16;
    put32(ip + field, edgy_u32(r));
    set_ip_checksum(ip);
    set_tcp_checksum(ip);
    std::uint32_t old_addr, new_addr;
    std::memcpy(&old_addr, ip + field, 4);
    std::uint16_t k_ip, k_tcp;
    std::memcpy(&k_ip, ip + 10, 2);
    std::memcpy(&k_tcp, ip + 36, 2);
    put32(ip + field, edgy_u32(r));
    std::memcpy(&new_addr, ip + field, 4);
    k_ip = update_checksum_u32(k_ip, old_addr, new_addr);
    k_tcp = update_checksum_u32(k_tcp, old_addr, new_addr);
    set_ip_checksum(ip);
    set_tcp_checksum(ip);
    ASSERT_EQ(k_ip, load16(ip + 10)) << "round " << i;
    ASSERT_EQ(k_tcp, load16(ip + 36)) << "round " << i;
  }
}

TEST(ChecksumProperties, UpdateRunEqualsRecomputation) {
  Random r(8);
  for (int i = 0; i < kRounds; ++i) {
    Shifted p = icmp_packet(r, 8 + r.below(600));
    std::uint8_t *ip = p.data();
    const std::size_t message = p.size() - 20;
    // A run anywhere after the checksum field, even or odd start, any length.
    const std::size_t start = 4 + r.below(static_cast<std::uint32_t>(message - 4));
    const std::size_t len = 1 + r.below(static_cast<std::uint32_t>(message - start));
    std::uint8_t *run = ip + 20 + start;
    const Bytes old_run(run, run + len);
    const std::uint16_t k = stored_icmp(ip);
    r.fill(run, len);
    const Bytes new_run(run, run + len);
    ASSERT_EQ(update_checksum(k, static_cast<int>(start % 2), old_run.data(), static_cast<std::uint16_t>(len),
                              new_run.data(), static_cast<std::uint16_t>(len)),
              recomputed_icmp(ip))
        << "round " << i << " start " << start << " length " << len;
  }
}

TEST(ChecksumProperties, UpdatedChecksumVerifies) {
  Random r(9);
  for (int i = 0; i < kRounds; ++i) {
    // A TCP segment whose source address is rewritten, as address
    // translation does: the checksum is updated, not recomputed.
    Shifted p = make_packet(r, 20 + 20 + r.below(100));
    std::uint8_t *ip = p.data();
    ip[0] = 0x45;
    put16(ip + 2, static_cast<std::uint16_t>(p.size()));
    ip[9] = 6;
    put32(ip + 12, edgy_u32(r));
    set_ip_checksum(ip);
    set_tcp_checksum(ip);
    std::uint32_t old_addr, new_addr;
    std::memcpy(&old_addr, ip + 12, 4);
    put32(ip + 12, edgy_u32(r));
    std::memcpy(&new_addr, ip + 12, 4);
    std::uint16_t k;
    std::memcpy(&k, ip + 36, 2);
    k = update_checksum_u32(k, old_addr, new_addr);
    std::memcpy(ip + 36, &k, 2);
    std::memcpy(&k, ip + 10, 2);
    k = update_checksum_u32(k, old_addr, new_addr);
    std::memcpy(ip + 10, &k, 2);
    ASSERT_EQ(tcp_checksum_ok(ip), 1) << "round " << i;
    ASSERT_EQ(ip_checksum_ok(ip), 1) << "round " << i;
  }
}

TEST(ChecksumProperties, CoreHandlesBuffersLongerThanAnyPacket) {
  // Long enough that the core has to reduce its partial sums on the way,
  // all ones (the largest words) and random, with odd lengths and starts.
  Random r(10);
  for (std::size_t size : {std::size_t{4300001}, std::size_t{2097152 + 63}}) {
    for (int fill = 0; fill < 2; ++fill) {
      Shifted p = make_packet(r, size);
      if (fill == 0) std::memset(p.data(), 0xff, p.size());
      std::uint64_t s = 0;
      for (std::size_t i = 0; i + 1 < p.size(); i += 2) s += static_cast<std::uint32_t>(p.data()[i] << 8 | p.data()[i + 1]);
      if (p.size() % 2) s += static_cast<std::uint32_t>(p.data()[p.size() - 1]) << 8;
      while (s >> 16) s = (s & 0xffff) + (s >> 16);
      EXPECT_EQ(dp::be_sum16(p.data(), p.size()), s) << size << " fill " << fill;
    }
  }
}
