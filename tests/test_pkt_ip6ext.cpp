// Walking IPv6 extension header chains: classification, fragment header
// search, the three skip walks and the hop-by-hop placement check.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "nuvpkt.h"
#include "testsupport.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kHopByHop = 0;
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint8_t kRouting = 43;
constexpr std::uint8_t kFragment = 44;
constexpr std::uint8_t kNoNext = 59;
constexpr std::uint8_t kDestOpts = 60;
constexpr std::uint8_t kUntouched = 0xEE;

struct Ext {
  std::uint8_t type;  // type of this header (named by its predecessor)
  int size;           // bytes, a multiple of 8
};

// An IPv6 packet: 40-byte header, the chain, then `upper_len` bytes of the
// upper-layer header `upper`.  The payload length field covers exactly what
// follows the header unless `payload_length` says otherwise.
Bytes ip6_packet(const std::vector<Ext> &chain, std::uint8_t upper, int upper_len = 20, int payload_length = -1) {
  Bytes p(40, 0);
  p[0] = 0x60;
  p[7] = 64;
  p[6] = chain.empty() ? upper : chain[0].type;
  for (std::size_t i = 0; i < chain.size(); ++i) {
    Bytes h(static_cast<std::size_t>(chain[i].size), 0);
    h[0] = i + 1 < chain.size() ? chain[i + 1].type : upper;
    h[1] = static_cast<std::uint8_t>(chain[i].size / 8 - 1);
    if (chain[i].type == kFragment) h[1] = 0;  // a fragment header's second byte is reserved
    p.insert(p.end(), h.begin(), h.end());
  }
  p.insert(p.end(), static_cast<std::size_t>(upper_len), 0xA5);
  int plen = payload_length >= 0 ? payload_length : static_cast<int>(p.size()) - 40;
  p[4] = static_cast<std::uint8_t>(plen >> 8);
  p[5] = static_cast<std::uint8_t>(plen);
  return p;
}

// A heap copy of exactly `n` bytes, so AddressSanitizer reports any read past it.
struct ExactBuffer {
  explicit ExactBuffer(const Bytes &bytes, std::size_t n = SIZE_MAX)
      : size(n == SIZE_MAX ? bytes.size() : n), mem(new std::uint8_t[size ? size : 1]) {
    std::memcpy(mem.get(), bytes.data(), std::min(size, bytes.size()));
  }
  std::uint8_t *data() { return mem.get(); }
  std::size_t size;
  std::unique_ptr<std::uint8_t[]> mem;
};

nuv_pktbuf pktbuf_of(std::uint8_t *data, std::size_t len) {
  nuv_pktbuf b{};
  b.reserved0 = 0xDEADBEEF;
  b.len = static_cast<std::uint32_t>(len);
  b.reserved2 = 0xDEADBEEF;
  b.data = data;
  return b;
}

struct Walk {
  int result;
  std::uint8_t nexthdr;
};

Walk from_ipv6hdr(const Bytes &packet) {
  ExactBuffer buf(packet);
  Walk w{0, kUntouched};
  w.result = ip6_skip_exthdr_from_ipv6hdr(buf.data(), &w.nexthdr);
  return w;
}

Walk raw(const Bytes &packet, int offset, std::uint8_t nexthdr, int len = -1) {
  ExactBuffer buf(packet);
  Walk w{0, nexthdr};
  w.result = ip6_skip_exthdr_raw(buf.data(), len >= 0 ? len : static_cast<int>(packet.size()), offset, &w.nexthdr);
  return w;
}

int order(const Bytes &packet) {
  ExactBuffer buf(packet);
  return ip6_exthdr_order_is_valid_in_ipv6hdr(buf.data());
}

// Offset of the fragment header found, -1 for none.
long fraghdr(const Bytes &packet, std::size_t descriptor_len = SIZE_MAX) {
  ExactBuffer buf(packet);
  nuv_pktbuf b = pktbuf_of(buf.data(), descriptor_len == SIZE_MAX ? packet.size() : descriptor_len);
  const std::uint8_t *f = ip6_find_fraghdr(&b, buf.data());
  return f ? f - buf.data() : -1;
}

}  // namespace

// ---- classification ----

TEST(Ip6IsExtHdr, AuthenticationHeaderIsNotWalked) { EXPECT_EQ(ip6_is_ext_hdr(51), 0); }
TEST(Ip6IsExtHdr, EncapsulatingSecurityPayloadIsNotWalked) { EXPECT_EQ(ip6_is_ext_hdr(50), 0); }
TEST(Ip6IsExtHdr, NoNextHeaderIsAnExtensionHeader) { EXPECT_EQ(ip6_is_ext_hdr(59), 1); }
TEST(Ip6IsExtHdr, MobilityHeaderIsNotWalked) { EXPECT_EQ(ip6_is_ext_hdr(135), 0); }

TEST(Ip6IsExtHdr, ExactlyFiveValuesAreExtensionHeaders) {
  for (int v = 0; v < 256; ++v) {
    int expected = (v == 0 || v == 43 || v == 44 || v == 59 || v == 60) ? 1 : 0;
    EXPECT_EQ(ip6_is_ext_hdr(static_cast<std::uint8_t>(v)), expected) << v;
  }
}

// ---- fragment header search ----

TEST(Ip6FindFraghdr, DirectFragmentHeaderIsReturnedEvenBeyondTheDescriptorLength) {
  Bytes p = ip6_packet({}, kFragment, 0);  // only the 40-byte header exists
  EXPECT_EQ(fraghdr(p, 10), 40);
}

TEST(Ip6FindFraghdr, FoundBehindHopByHopAndDestinationOptions) {
  Bytes p = ip6_packet({{kHopByHop, 8}, {kDestOpts, 16}, {kFragment, 8}}, kUdp);
  EXPECT_EQ(fraghdr(p), 40 + 8 + 16);
}

TEST(Ip6FindFraghdr, FoundBehindRoutingHeader) {
  Bytes p = ip6_packet({{kRouting, 24}, {kFragment, 8}}, kTcp);
  EXPECT_EQ(fraghdr(p), 64);
}

TEST(Ip6FindFraghdr, NoneInAPlainPacket) { EXPECT_EQ(fraghdr(ip6_packet({}, kTcp)), -1); }

TEST(Ip6FindFraghdr, NoneBehindOptionsEndingInUpperLayer) {
  EXPECT_EQ(fraghdr(ip6_packet({{kHopByHop, 8}, {kDestOpts, 8}}, kUdp)), -1);
}

TEST(Ip6FindFraghdr, NoNextHeaderEndsTheSearch) {
  EXPECT_EQ(fraghdr(ip6_packet({{kHopByHop, 8}, {kNoNext, 8}}, kFragment)), -1);
}

TEST(Ip6FindFraghdr, HeaderLongerThanTheBufferGivesNull) {
  // The hop-by-hop header claims 16 bytes but only 8 are in the buffer.
  Bytes p = ip6_packet({{kHopByHop, 16}}, kFragment, 0);
  p.resize(48);
  EXPECT_EQ(fraghdr(p), -1);
}

TEST(Ip6FindFraghdr, FragmentHeaderEndingExactlyAtTheBufferEndIsFound) {
  // The fragment header itself is not size-checked, only the headers before it.
  Bytes p = ip6_packet({{kHopByHop, 8}, {kFragment, 8}}, kUdp, 0);
  EXPECT_EQ(fraghdr(p, 48), 48);
}

TEST(Ip6FindFraghdr, FewerThanTwoBytesLeftGivesNull) {
  Bytes p = ip6_packet({{kHopByHop, 8}}, kFragment, 0);
  p.resize(41);
  EXPECT_EQ(fraghdr(p), -1);
}

TEST(Ip6FindFraghdr, NoBytesBehindTheHeaderGivesNull) {
  Bytes p = ip6_packet({{kHopByHop, 8}}, kFragment, 0);
  p.resize(40);
  EXPECT_EQ(fraghdr(p), -1);
}

TEST(Ip6FindFraghdr, LengthCountsFromTheDescriptorDataNotTheIpv6Header) {
  // A 14-byte link header in front: the descriptor covers it too.
  Bytes frame(14, 0xFF);
  Bytes p = ip6_packet({{kDestOpts, 8}, {kFragment, 8}}, kUdp, 0);
  frame.insert(frame.end(), p.begin(), p.end());
  ExactBuffer buf(frame);
  nuv_pktbuf b = pktbuf_of(buf.data(), frame.size());
  EXPECT_EQ(ip6_find_fraghdr(&b, buf.data() + 14), buf.data() + 14 + 48);
  b.len = 14 + 40 + 7;  // the options header no longer fits
  EXPECT_EQ(ip6_find_fraghdr(&b, buf.data() + 14), nullptr);
}

// ---- the raw walk ----

TEST(Ip6SkipExthdrRaw, StopsAtRoutingHeader) {
  Bytes p = ip6_packet({{kHopByHop, 8}, {kRouting, 24}}, kTcp);
  Walk w = raw(p, 40, kHopByHop);
  EXPECT_EQ(w.result, 48);
  EXPECT_EQ(w.nexthdr, kRouting);
}

TEST(Ip6SkipExthdrRaw, StopsAtFragmentHeader) {
  Walk w = raw(ip6_packet({{kDestOpts, 16}, {kFragment, 8}}, kUdp), 40, kDestOpts);
  EXPECT_EQ(w.result, 56);
  EXPECT_EQ(w.nexthdr, kFragment);
}

TEST(Ip6SkipExthdrRaw, StopsAtNoNextHeader) {
  Walk w = raw(ip6_packet({{kHopByHop, 8}, {kNoNext, 8}}, kUdp), 40, kHopByHop);
  EXPECT_EQ(w.result, 48);
  EXPECT_EQ(w.nexthdr, kNoNext);
}

TEST(Ip6SkipExthdrRaw, PassesOptionHeadersToTheUpperLayer) {
  Walk w = raw(ip6_packet({{kHopByHop, 8}, {kDestOpts, 24}}, kUdp), 40, kHopByHop);
  EXPECT_EQ(w.result, 72);
  EXPECT_EQ(w.nexthdr, kUdp);
}

TEST(Ip6SkipExthdrRaw, UpperLayerAtStartReturnsTheStartOffset) {
  Walk w = raw(ip6_packet({}, kTcp), 40, kTcp);
  EXPECT_EQ(w.result, 40);
  EXPECT_EQ(w.nexthdr, kTcp);
}

TEST(Ip6SkipExthdrRaw, ExtensionHeaderStartingAtTheEndIsTruncated) {
  Bytes p = ip6_packet({{kHopByHop, 8}}, kDestOpts, 0);  // destination options named but absent
  Walk w = raw(p, 40, kHopByHop);
  EXPECT_EQ(w.result, -1);
  EXPECT_EQ(w.nexthdr, kHopByHop);
}

TEST(Ip6SkipExthdrRaw, OneByteOfAHeaderIsTruncated) {
  Bytes p = ip6_packet({{kHopByHop, 8}}, kDestOpts, 1);
  Walk w = raw(p, 40, kHopByHop);
  EXPECT_EQ(w.result, -1);
  EXPECT_EQ(w.nexthdr, kHopByHop);
}

TEST(Ip6SkipExthdrRaw, StopHeaderAtTheEndIsStillTruncated) {
  // Even a routing value needs its two bytes present before the walk stops there.
  Bytes p = ip6_packet({}, kRouting, 0);
  Walk w = raw(p, 40, kRouting);
  EXPECT_EQ(w.result, -1);
  EXPECT_EQ(w.nexthdr, kRouting);
}

TEST(Ip6SkipExthdrRaw, HeaderLengthPointingPastTheEndIsTruncated) {
  // The options header claims 2048 bytes; the next header would start far outside.
  Bytes p = ip6_packet({{kDestOpts, 8}}, kTcp, 20);
  p[41] = 255;
  Walk w = raw(p, 40, kDestOpts);
  // A non-extension successor is reported with its (out-of-buffer) offset, unread.
  EXPECT_EQ(w.result, 40 + 2048);
  EXPECT_EQ(w.nexthdr, kTcp);
  p[40] = kHopByHop;  // an extension successor would need reading: truncated
  Walk w2 = raw(p, 40, kDestOpts);
  EXPECT_EQ(w2.result, -1);
  EXPECT_EQ(w2.nexthdr, kDestOpts);
}

TEST(Ip6SkipExthdrRaw, NegativeOffsetIsRefused) {
  Walk w = raw(ip6_packet({}, kTcp), -8, kHopByHop);
  EXPECT_EQ(w.result, -1);
  EXPECT_EQ(w.nexthdr, kHopByHop);
}

TEST(Ip6SkipExthdrRaw, ShorterLengthArgumentLimitsTheWalk) {
  Bytes p = ip6_packet({{kHopByHop, 8}, {kDestOpts, 8}}, kTcp);
  EXPECT_EQ(raw(p, 40, kHopByHop, 49).result, -1);
  EXPECT_EQ(raw(p, 40, kHopByHop, 50).result, 56);
}

TEST(Ip6SkipExthdr, UsesTheDescriptorDataAndTheGivenLength) {
  Bytes frame(14, 0xFF);
  Bytes p = ip6_packet({{kHopByHop, 8}, {kRouting, 24}}, kTcp);
  frame.insert(frame.end(), p.begin(), p.end());
  ExactBuffer buf(frame);
  nuv_pktbuf b = pktbuf_of(buf.data(), 0);  // the descriptor's own length is not used
  std::uint8_t nh = kHopByHop;
  EXPECT_EQ(ip6_skip_exthdr(&b, 54, &nh, static_cast<int>(frame.size())), 62);
  EXPECT_EQ(nh, kRouting);
  nh = kHopByHop;
  EXPECT_EQ(ip6_skip_exthdr(&b, 54, &nh, 55), -1);
  EXPECT_EQ(nh, kHopByHop);
}

// ---- the walk from the IPv6 header ----

TEST(Ip6SkipFromHeader, StopsAtFragmentHeaderBehindOptions) {
  Walk w = from_ipv6hdr(ip6_packet({{kHopByHop, 8}, {kDestOpts, 8}, {kFragment, 8}}, kUdp));
  EXPECT_EQ(w.result, 56);
  EXPECT_EQ(w.nexthdr, kFragment);
}

TEST(Ip6SkipFromHeader, WalksThroughRoutingHeaderToTcp) {
  Walk w = from_ipv6hdr(ip6_packet({{kHopByHop, 8}, {kRouting, 24}}, kTcp));
  EXPECT_EQ(w.result, 72);
  EXPECT_EQ(w.nexthdr, kTcp);
}

TEST(Ip6SkipFromHeader, PlainPacketGivesOffset40) {
  Walk w = from_ipv6hdr(ip6_packet({}, kUdp));
  EXPECT_EQ(w.result, 40);
  EXPECT_EQ(w.nexthdr, kUdp);
}

TEST(Ip6SkipFromHeader, StopsAtNoNextHeader) {
  Walk w = from_ipv6hdr(ip6_packet({{kDestOpts, 8}}, kNoNext, 0));
  // The value 59 still needs two payload bytes to be counted as present.
  EXPECT_EQ(w.result, -1);
  Walk w2 = from_ipv6hdr(ip6_packet({{kDestOpts, 8}}, kNoNext, 2));
  EXPECT_EQ(w2.result, 48);
  EXPECT_EQ(w2.nexthdr, kNoNext);
}

TEST(Ip6SkipFromHeader, ZeroPayloadLengthWithExtensionHeaderIsTruncated) {
  Walk w = from_ipv6hdr(ip6_packet({}, kHopByHop, 0));
  EXPECT_EQ(w.result, -1);
  EXPECT_EQ(w.nexthdr, kUntouched);
}

TEST(Ip6SkipFromHeader, ZeroPayloadLengthWithoutExtensionHeaderIsFine) {
  Walk w = from_ipv6hdr(ip6_packet({}, kTcp, 0));
  EXPECT_EQ(w.result, 40);
  EXPECT_EQ(w.nexthdr, kTcp);
}

TEST(Ip6SkipFromHeader, PayloadLengthNotCapturedLength) {
  // Payload length 8 covers the options header only; the TCP behind it is
  // reported without being read.
  Bytes p = ip6_packet({{kDestOpts, 8}}, kTcp, 0);
  Walk w = from_ipv6hdr(p);
  EXPECT_EQ(w.result, 48);
  EXPECT_EQ(w.nexthdr, kTcp);
}

TEST(Ip6SkipFromHeader, OverlongHeaderFollowedByUpperLayerReportsItsOffset) {
  // A 16-byte options header in an 8-byte payload: the walk moves past it
  // and names the upper layer, which it does not need to read.
  Bytes p = ip6_packet({{kDestOpts, 16}}, kTcp, 0, 8);
  p.resize(48);
  Walk w = from_ipv6hdr(p);
  EXPECT_EQ(w.result, 56);
  EXPECT_EQ(w.nexthdr, kTcp);
}

TEST(Ip6SkipFromHeader, OverlongHeaderFollowedByFragmentHeaderStopsThere) {
  Bytes p = ip6_packet({{kDestOpts, 16}}, kFragment, 0, 8);
  p.resize(48);
  Walk w = from_ipv6hdr(p);
  EXPECT_EQ(w.result, 56);
  EXPECT_EQ(w.nexthdr, kFragment);
}

TEST(Ip6SkipFromHeader, OverlongHeaderFollowedByOptionsIsTruncated) {
  // The next header would lie beyond the payload: never read.
  Bytes p = ip6_packet({{kDestOpts, 16}}, kHopByHop, 0, 8);
  p.resize(48);
  Walk w = from_ipv6hdr(p);
  EXPECT_EQ(w.result, -1);
  EXPECT_EQ(w.nexthdr, kUntouched);
}

TEST(Ip6SkipFromHeader, MaximalHeaderLengthInShortPacketIsTruncated) {
  Bytes p = ip6_packet({{kHopByHop, 8}}, kDestOpts, 0);
  p[41] = 255;
  Walk w = from_ipv6hdr(p);
  EXPECT_EQ(w.result, -1);
  EXPECT_EQ(w.nexthdr, kUntouched);
}

TEST(Ip6SkipFromHeader, AuthenticationHeaderEndsTheWalk) {
  Walk w = from_ipv6hdr(ip6_packet({{kHopByHop, 8}}, 51, 24));
  EXPECT_EQ(w.result, 48);
  EXPECT_EQ(w.nexthdr, 51);
}

// ---- hop-by-hop placement ----

TEST(Ip6ExthdrOrder, NullHeaderGivesZero) { EXPECT_EQ(ip6_exthdr_order_is_valid_in_ipv6hdr(nullptr), 0); }
TEST(Ip6ExthdrOrder, PlainPacketIsValid) { EXPECT_EQ(order(ip6_packet({}, kTcp)), 1); }
TEST(Ip6ExthdrOrder, LeadingHopByHopIsValid) {
  EXPECT_EQ(order(ip6_packet({{kHopByHop, 8}, {kRouting, 24}, {kFragment, 8}}, kTcp)), 1);
}
TEST(Ip6ExthdrOrder, SecondHopByHopIsMisplaced) {
  EXPECT_EQ(order(ip6_packet({{kHopByHop, 8}, {kDestOpts, 8}, {kHopByHop, 8}}, kTcp)), -2);
}
TEST(Ip6ExthdrOrder, HopByHopAfterRoutingIsMisplaced) {
  EXPECT_EQ(order(ip6_packet({{kRouting, 24}, {kHopByHop, 8}}, kUdp)), -2);
}
TEST(Ip6ExthdrOrder, ZeroPayloadWithExtensionHeaderIsTruncated) {
  EXPECT_EQ(order(ip6_packet({}, kDestOpts, 0)), -1);
}
TEST(Ip6ExthdrOrder, OtherOrdersAreNotChecked) {
  // Destination options before routing, and a repeated routing header.
  EXPECT_EQ(order(ip6_packet({{kDestOpts, 8}, {kRouting, 24}, {kRouting, 24}, {kDestOpts, 8}}, kTcp)), 1);
}
TEST(Ip6ExthdrOrder, NoNextHeaderIsWalkedLikeTheOthers) {
  // The bytes after a no-next-header value are read as one more header:
  // here they name a hop-by-hop header, which is then misplaced.
  Bytes p = ip6_packet({{kDestOpts, 8}, {kNoNext, 8}, {kHopByHop, 8}}, kTcp);
  EXPECT_EQ(order(p), -2);
  Bytes q = ip6_packet({{kDestOpts, 8}, {kNoNext, 8}}, kTcp);
  EXPECT_EQ(order(q), 1);
}
TEST(Ip6ExthdrOrder, TruncatedInsideTheChain) {
  Bytes p = ip6_packet({{kHopByHop, 8}}, kDestOpts, 1);
  EXPECT_EQ(order(p), -1);
}
TEST(Ip6ExthdrOrder, OverlongHeaderBeforeAnotherExtensionIsTruncated) {
  Bytes p = ip6_packet({{kHopByHop, 16}}, kDestOpts, 0, 8);
  p.resize(48);
  EXPECT_EQ(order(p), -1);
}
TEST(Ip6ExthdrOrder, OverlongHeaderBeforeUpperLayerIsValid) {
  Bytes p = ip6_packet({{kHopByHop, 16}}, kUdp, 0, 8);
  p.resize(48);
  EXPECT_EQ(order(p), 1);
}

// ---- random chains against a plain walk ----

namespace {

// The walk from the IPv6 header written out plainly over a byte vector whose
// size is 40 + payload length.
Walk reference_from_ipv6hdr(const Bytes &p) {
  auto ext = [](int v) { return v == 0 || v == 43 || v == 44 || v == 59 || v == 60; };
  int nh = p[6];
  int remaining = p[4] << 8 | p[5];
  std::size_t pos = 40;
  while (ext(nh)) {
    if (remaining < 2 && remaining >= 0) return {-1, kUntouched};
    if (nh == 59 || nh == 44) break;
    if (remaining < 0) return {-1, kUntouched};
    int size = (p.at(pos + 1) + 1) * 8;
    nh = p.at(pos);
    pos += static_cast<std::size_t>(size);
    remaining -= size;
  }
  return {static_cast<int>(pos), static_cast<std::uint8_t>(nh)};
}

Bytes random_chain_packet(std::mt19937 &rng) {
  static const std::uint8_t kTypes[] = {0, 43, 44, 59, 60, 6, 17, 58, 51};
  std::vector<Ext> chain;
  int n = static_cast<int>(rng() % 5);
  for (int i = 0; i < n; ++i) chain.push_back({kTypes[rng() % 5], static_cast<int>(8 * (1 + rng() % 3))});
  Bytes p = ip6_packet(chain, kTypes[rng() % 9], static_cast<int>(rng() % 12));
  // Damage it: cut the payload short, or corrupt a length or type byte.
  switch (rng() % 4) {
    case 0: {
      std::size_t cut = 40 + rng() % (p.size() - 39);
      p.resize(cut);
      break;
    }
    case 1:
      if (p.size() > 41) p[40 + rng() % (p.size() - 40)] = static_cast<std::uint8_t>(rng());
      break;
    default:
      break;
  }
  std::size_t plen = p.size() - 40;
  p[4] = static_cast<std::uint8_t>(plen >> 8);
  p[5] = static_cast<std::uint8_t>(plen);
  return p;
}

}  // namespace

TEST(Ip6SkipFromHeader, RandomDamagedChainsMatchAPlainWalkWithoutReadingOutside) {
  std::mt19937 rng(0x1B6E);
  for (int i = 0; i < 20000; ++i) {
    Bytes p = random_chain_packet(rng);
    Walk got = from_ipv6hdr(p);  // exact-size buffer: overreads abort under ASan
    Walk want = reference_from_ipv6hdr(p);
    ASSERT_EQ(got.result, want.result) << testsupport::to_hex(p.data(), p.size());
    ASSERT_EQ(got.nexthdr, want.nexthdr) << testsupport::to_hex(p.data(), p.size());
  }
}

TEST(Ip6ExthdrWalks, RandomDamagedChainsStayInsideTheirBuffers) {
  std::mt19937 rng(0x5EED);
  for (int i = 0; i < 20000; ++i) {
    Bytes p = random_chain_packet(rng);
    int o = order(p);
    EXPECT_TRUE(o == 1 || o == -1 || o == -2);
    long f = fraghdr(p);
    EXPECT_TRUE(f == -1 || (f >= 40 && static_cast<std::size_t>(f) <= p.size()) || p[6] == kFragment);
    Walk r = raw(p, 40, p[6]);
    EXPECT_GE(r.result, -1);
  }
}
