// One-line packet descriptions of IPv4 and IPv6 packets.
#include <gtest/gtest.h>
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nuvpkt.h"
#include "testsupport.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using testsupport::hex_bytes;

// An IPv4 header (20 bytes, or more with `ihl`) from 10.0.0.1 to 10.0.0.2
// followed by the given upper-layer bytes.
Bytes ipv4(std::uint8_t proto, const Bytes &upper, std::uint16_t frag_field = 0, int ihl = 5,
           const char *src = "10.0.0.1", const char *dst = "10.0.0.2") {
  Bytes p(static_cast<std::size_t>(ihl) * 4, 0);
  p[0] = static_cast<std::uint8_t>(0x40 | ihl);
  std::size_t total = p.size() + upper.size();
  p[2] = static_cast<std::uint8_t>(total >> 8);
  p[3] = static_cast<std::uint8_t>(total);
  p[6] = static_cast<std::uint8_t>(frag_field >> 8);
  p[7] = static_cast<std::uint8_t>(frag_field);
  p[8] = 64;
  p[9] = proto;
  inet_pton(AF_INET, src, &p[12]);
  inet_pton(AF_INET, dst, &p[16]);
  p.insert(p.end(), upper.begin(), upper.end());
  return p;
}

Bytes ipv6(std::uint8_t next, const Bytes &upper, const char *src = "2001:db8::1", const char *dst = "fe80::2:3") {
  Bytes p(40, 0);
  p[0] = 0x60;
  p[4] = static_cast<std::uint8_t>(upper.size() >> 8);
  p[5] = static_cast<std::uint8_t>(upper.size());
  p[6] = next;
  p[7] = 64;
  inet_pton(AF_INET6, src, &p[8]);
  inet_pton(AF_INET6, dst, &p[24]);
  p.insert(p.end(), upper.begin(), upper.end());
  return p;
}

// The description of an exact-size heap copy, so any read beyond what the
// packet holds is caught by AddressSanitizer.
std::string describe(const char *(*fn)(const uint8_t *), const Bytes &packet) {
  std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[packet.size()]);
  std::memcpy(copy.get(), packet.data(), packet.size());
  return fn(copy.get());
}

std::string v4(const Bytes &p) { return describe(iph2str, p); }
std::string v6(const Bytes &p) { return describe(ip6h2str, p); }

std::string icmp(std::uint8_t type, std::uint8_t code, const Bytes &rest = Bytes(6, 0)) {
  Bytes h{type, code};
  h.insert(h.end(), rest.begin(), rest.end());
  return v4(ipv4(1, h));
}

std::string icmp6(std::uint8_t type, std::uint8_t code) { return v6(ipv6(58, {type, code, 0, 0, 0, 0, 0, 0})); }

std::string igmp(std::uint8_t type, const char *group) {
  Bytes h{type, 0, 0, 0, 0, 0, 0, 0};
  inet_pton(AF_INET, group, &h[4]);
  return v4(ipv4(2, h));
}

}  // namespace

// ---- IPv4 lines ----

TEST(Ipv4Description, TcpSynShowsPortsAndFlags) {
  Bytes tcp = hex_bytes("04d2 0050 00000001 00000000 5002");  // 14 bytes, flags byte SYN
  EXPECT_EQ(v4(ipv4(6, tcp)), "TCP 10.0.0.1:1234 -> 10.0.0.2:80 SYN");
}

TEST(Ipv4Description, TcpWithoutShownFlagsEndsInABlank) {
  Bytes tcp = hex_bytes("04d2 0050 00000001 00000000 5020");  // URG only
  EXPECT_EQ(v4(ipv4(6, tcp)), "TCP 10.0.0.1:1234 -> 10.0.0.2:80 ");
}

TEST(Ipv4Description, UdpShowsPorts) {
  EXPECT_EQ(v4(ipv4(17, hex_bytes("9c40 0035"))), "UDP 10.0.0.1:40000 -> 10.0.0.2:53");
}

TEST(Ipv4Description, HeaderOptionsMoveTheUpperLayer) {
  EXPECT_EQ(v4(ipv4(17, hex_bytes("0044 0043"), 0, 7)), "UDP 10.0.0.1:68 -> 10.0.0.2:67");
}

TEST(Ipv4Description, EspShowsSpiAndSequence) {
  EXPECT_EQ(v4(ipv4(50, hex_bytes("0000abcd ffffffff"))), "ESP 10.0.0.1 -> 10.0.0.2 SPI 0000abcd SEQ 4294967295");
}

TEST(Ipv4Description, AhShowsSpiAndSequenceBehindItsFirstWord) {
  EXPECT_EQ(v4(ipv4(51, hex_bytes("32040000 12345678 00000007"))), "AH 10.0.0.1 -> 10.0.0.2 SPI 12345678 SEQ 7");
}

TEST(Ipv4Description, IpCompShowsCpi) {
  EXPECT_EQ(v4(ipv4(108, hex_bytes("0400 0a0b"))), "IPComp 10.0.0.1 -> 10.0.0.2 CPI 0a0b");
}

TEST(Ipv4Description, OtherProtocolShowsItsName) { EXPECT_EQ(v4(ipv4(47, {})), "GRE 10.0.0.1 -> 10.0.0.2"); }
TEST(Ipv4Description, UnnamedProtocolIsNumeric) { EXPECT_EQ(v4(ipv4(200, {})), "P200 10.0.0.1 -> 10.0.0.2"); }
TEST(Ipv4Description, ProtocolAnyValueIsIP) { EXPECT_EQ(v4(ipv4(255, {})), "IP 10.0.0.1 -> 10.0.0.2"); }

TEST(Ipv4Description, FragmentWithMoreFragmentsEndsInTwoBlanksAndMF) {
  EXPECT_EQ(v4(ipv4(17, {}, 0x2000 | 185)), "UDP 10.0.0.1 -> 10.0.0.2 off=185  MF");
}

TEST(Ipv4Description, LastFragmentEndsInABlank) {
  EXPECT_EQ(v4(ipv4(17, {}, 185)), "UDP 10.0.0.1 -> 10.0.0.2 off=185 ");
}

TEST(Ipv4Description, FragmentOffsetIsInItsOwnUnitsAndDontFragmentIsIgnored) {
  EXPECT_EQ(v4(ipv4(6, {}, 0x4000 | 0x1FFF)), "TCP 10.0.0.1 -> 10.0.0.2 off=8191 ");
}

TEST(Ipv4Description, FragmentOfUnnamedProtocol) {
  EXPECT_EQ(v4(ipv4(150, {}, 1)), "P150 10.0.0.1 -> 10.0.0.2 off=1 ");
}

TEST(Ipv4Description, FirstFragmentIsDescribedLikeAWholePacket) {
  EXPECT_EQ(v4(ipv4(17, hex_bytes("0035 0035"), 0x2000)), "UDP 10.0.0.1:53 -> 10.0.0.2:53");
}

TEST(Ipv4Description, VersionSixIsDescribedAsIpv6) {
  EXPECT_EQ(v4(ipv6(17, hex_bytes("0222 0223"))), "UDP 2001:db8::1:546 -> fe80::2:3:547");
}

TEST(Ipv4Description, Icmpv6InsideIpv4IsStillDecodedAsIcmpv6) {
  EXPECT_EQ(v4(ipv4(58, {136, 0, 0, 0, 0, 0, 0, 0})), "ICMPv6 10.0.0.1 -> 10.0.0.2 NA");
}

// ---- ICMP message texts ----

TEST(IcmpText, EchoReplyHasNoIdentifier) {
  EXPECT_EQ(icmp(0, 0, hex_bytes("0000 1234 0001")), "ICMP 10.0.0.1 -> 10.0.0.2 echo reply");
}

TEST(IcmpText, EchoRequestShowsIdentifierAndSequence) {
  EXPECT_EQ(icmp(8, 0, hex_bytes("0000 1234 0001")), "ICMP 10.0.0.1 -> 10.0.0.2 echo request id=4660 seq=1");
}

TEST(IcmpText, PortUnreachable) { EXPECT_EQ(icmp(3, 3), "ICMP 10.0.0.1 -> 10.0.0.2 port unreachable"); }
TEST(IcmpText, UnknownUnreachableCode) { EXPECT_EQ(icmp(3, 20), "ICMP 10.0.0.1 -> 10.0.0.2 unreachable code=20"); }
TEST(IcmpText, PrecedenceCutoffKeepsItsSpelling) {
  EXPECT_EQ(icmp(3, 15), "ICMP 10.0.0.1 -> 10.0.0.2 precedende cutoff");
}

TEST(IcmpText, EveryUnreachableCode) {
  const char *expected[] = {"network unreachable", "host unreachable",  "protocol unreachable",   "port unreachable",
                            "fragmentation needed", "source route failed", "net unknown",         "host unknown",
                            "host isolated",        "net ano",             "host ano",            "net unreachable (tos)",
                            "host unreachable (tos)", "packet filtered",   "precedence violation", "precedende cutoff"};
  for (int code = 0; code < 16; ++code)
    EXPECT_EQ(icmp(3, static_cast<std::uint8_t>(code)), std::string("ICMP 10.0.0.1 -> 10.0.0.2 ") + expected[code]);
  EXPECT_EQ(icmp(3, 16), "ICMP 10.0.0.1 -> 10.0.0.2 unreachable code=16");
}

TEST(IcmpText, RedirectsNameTheGateway) {
  Bytes gw = hex_bytes("0000 0a090807 ");
  EXPECT_EQ(icmp(5, 0, gw), "ICMP 10.0.0.1 -> 10.0.0.2 redirect net to 10.9.8.7");
  EXPECT_EQ(icmp(5, 1, gw), "ICMP 10.0.0.1 -> 10.0.0.2 redirect host to 10.9.8.7");
  EXPECT_EQ(icmp(5, 2, gw), "ICMP 10.0.0.1 -> 10.0.0.2 redirect net for tos to 10.9.8.7");
  EXPECT_EQ(icmp(5, 3, gw), "ICMP 10.0.0.1 -> 10.0.0.2 redirect host for tos to 10.9.8.7");
}

TEST(IcmpText, UnknownRedirectCodeShowsCodeAndGateway) {
  EXPECT_EQ(icmp(5, 7, hex_bytes("0000 c0a80101")), "ICMP 10.0.0.1 -> 10.0.0.2 redirect code=7 to 192.168.1.1");
}

TEST(IcmpText, TimeExceeded) {
  EXPECT_EQ(icmp(11, 0), "ICMP 10.0.0.1 -> 10.0.0.2 ttl count exceeded");
  EXPECT_EQ(icmp(11, 1), "ICMP 10.0.0.1 -> 10.0.0.2 frag reass time exceeded");
  EXPECT_EQ(icmp(11, 2), "ICMP 10.0.0.1 -> 10.0.0.2 time exceeded code=2");
}

TEST(IcmpText, FixedTexts) {
  EXPECT_EQ(icmp(4, 0), "ICMP 10.0.0.1 -> 10.0.0.2 source quench");
  EXPECT_EQ(icmp(12, 0), "ICMP 10.0.0.1 -> 10.0.0.2 param problem");
  EXPECT_EQ(icmp(13, 0), "ICMP 10.0.0.1 -> 10.0.0.2 timestamp request");
  EXPECT_EQ(icmp(14, 0), "ICMP 10.0.0.1 -> 10.0.0.2 timestamp reply");
  EXPECT_EQ(icmp(15, 0), "ICMP 10.0.0.1 -> 10.0.0.2 info request");
  EXPECT_EQ(icmp(16, 0), "ICMP 10.0.0.1 -> 10.0.0.2 info reply");
  EXPECT_EQ(icmp(17, 0), "ICMP 10.0.0.1 -> 10.0.0.2 address request");
  EXPECT_EQ(icmp(18, 0), "ICMP 10.0.0.1 -> 10.0.0.2 address reply");
}

TEST(IcmpText, FixedTextsIgnoreTheCode) { EXPECT_EQ(icmp(4, 9), "ICMP 10.0.0.1 -> 10.0.0.2 source quench"); }

TEST(IcmpText, UnknownTypeShowsTypeAndCode) {
  EXPECT_EQ(icmp(42, 3), "ICMP 10.0.0.1 -> 10.0.0.2 type=42 code=3");
  EXPECT_EQ(icmp(1, 0), "ICMP 10.0.0.1 -> 10.0.0.2 type=1 code=0");
  EXPECT_EQ(icmp(255, 255), "ICMP 10.0.0.1 -> 10.0.0.2 type=255 code=255");
}

// ---- ICMPv6 message texts ----

TEST(Icmp6Text, NeighbourAdvertisement) { EXPECT_EQ(icmp6(136, 0), "ICMPv6 2001:db8::1 -> fe80::2:3 NA"); }
TEST(Icmp6Text, Type138IsUnnamed) { EXPECT_EQ(icmp6(138, 0), "ICMPv6 2001:db8::1 -> fe80::2:3 type 138 code 0"); }

TEST(Icmp6Text, DestinationUnreachableCodes) {
  const char *expected[] = {"no route",         "adm prohibited",   "beyond scope of source address",
                            "addr unreachable", "port unreachable", "source address failed policy",
                            "reject route to destination"};
  for (int code = 0; code < 7; ++code)
    EXPECT_EQ(icmp6(1, static_cast<std::uint8_t>(code)), std::string("ICMPv6 2001:db8::1 -> fe80::2:3 ") + expected[code]);
  EXPECT_EQ(icmp6(1, 7), "ICMPv6 2001:db8::1 -> fe80::2:3 dest unreach (code 7)");
}

TEST(Icmp6Text, TimeExceededCodes) {
  EXPECT_EQ(icmp6(3, 0), "ICMPv6 2001:db8::1 -> fe80::2:3 hop limit exceeded");
  EXPECT_EQ(icmp6(3, 1), "ICMPv6 2001:db8::1 -> fe80::2:3 fragtime exceeded");
  EXPECT_EQ(icmp6(3, 2), "ICMPv6 2001:db8::1 -> fe80::2:3 time exceeded (code 2)");
}

TEST(Icmp6Text, ParameterProblemCodes) {
  EXPECT_EQ(icmp6(4, 0), "ICMPv6 2001:db8::1 -> fe80::2:3 hdr field problem");
  EXPECT_EQ(icmp6(4, 1), "ICMPv6 2001:db8::1 -> fe80::2:3 unknown nexthdr");
  EXPECT_EQ(icmp6(4, 2), "ICMPv6 2001:db8::1 -> fe80::2:3 unknown option");
  EXPECT_EQ(icmp6(4, 3), "ICMPv6 2001:db8::1 -> fe80::2:3 parameter problem (code 3)");
}

TEST(Icmp6Text, FixedTexts) {
  const std::pair<int, const char *> expected[] = {
      {2, "pkt too big"},     {128, "echo request"},  {129, "echo reply"},    {130, "mgm query"},
      {131, "mgm report"},    {132, "mgm reduction"}, {133, "RS"},            {134, "RA"},
      {135, "NS"},            {136, "NA"},            {137, "redirect"},      {139, "ni query"},
      {140, "ni reply"},      {143, "mld2 report"},   {144, "dhaad request"}, {145, "dhaad reply"},
      {146, "mobile PS"},     {147, "mobile PA"}};
  for (const auto &[type, text] : expected)
    EXPECT_EQ(icmp6(static_cast<std::uint8_t>(type), 5), std::string("ICMPv6 2001:db8::1 -> fe80::2:3 ") + text) << type;
}

TEST(Icmp6Text, UnnamedTypes) {
  for (int type : {0, 5, 127, 138, 141, 142, 148, 255})
    EXPECT_EQ(icmp6(static_cast<std::uint8_t>(type), 9),
              "ICMPv6 2001:db8::1 -> fe80::2:3 type " + std::to_string(type) + " code 9");
}

// ---- IGMP message texts ----

TEST(IgmpText, V2LeaveNamesTheGroup) { EXPECT_EQ(igmp(0x17, "239.1.2.3"), "IGMP 10.0.0.1 -> 10.0.0.2 v2 leave 239.1.2.3"); }
TEST(IgmpText, QueryNamesTheGroup) { EXPECT_EQ(igmp(0x11, "0.0.0.0"), "IGMP 10.0.0.1 -> 10.0.0.2 query 0.0.0.0"); }
TEST(IgmpText, V1Report) { EXPECT_EQ(igmp(0x12, "224.1.1.1"), "IGMP 10.0.0.1 -> 10.0.0.2 v1 report 224.1.1.1"); }
TEST(IgmpText, V2Report) { EXPECT_EQ(igmp(0x16, "224.0.0.251"), "IGMP 10.0.0.1 -> 10.0.0.2 v2 report 224.0.0.251"); }
TEST(IgmpText, V3ReportHasNoAddress) { EXPECT_EQ(igmp(0x22, "224.9.9.9"), "IGMP 10.0.0.1 -> 10.0.0.2 v3 report"); }
TEST(IgmpText, UnknownTypeInHex) { EXPECT_EQ(igmp(0x1e, "1.2.3.4"), "IGMP 10.0.0.1 -> 10.0.0.2 type 0x1e"); }

// ---- IPv6 lines ----

TEST(Ipv6Description, FragmentHeaderIsNotFollowed) {
  EXPECT_EQ(v6(ipv6(44, {})), "IPv6-Frag 2001:db8::1 -> fe80::2:3");
}

TEST(Ipv6Description, TcpShowsPortsAndFlags) {
  Bytes tcp = hex_bytes("c000 01bb 00000000 00000000 5012");
  EXPECT_EQ(v6(ipv6(6, tcp)), "TCP 2001:db8::1:49152 -> fe80::2:3:443 SYN,ACK");
}

TEST(Ipv6Description, IcmpInsideIpv6IsStillDecodedAsIcmp) {
  EXPECT_EQ(v6(ipv6(1, {8, 0, 0, 0, 0, 1, 0, 2})), "ICMP 2001:db8::1 -> fe80::2:3 echo request id=1 seq=2");
}

TEST(Ipv6Description, IgmpInsideIpv6IsStillDecodedAsIgmp) {
  Bytes h{0x17, 0, 0, 0, 239, 0, 0, 1};
  EXPECT_EQ(v6(ipv6(2, h)), "IGMP 2001:db8::1 -> fe80::2:3 v2 leave 239.0.0.1");
}

TEST(Ipv6Description, Icmpv6NeighbourSolicitation) {
  EXPECT_EQ(v6(ipv6(58, {135, 0, 0, 0, 0, 0, 0, 0}, "::", "ff02::1:ff00:1")), "ICMPv6 :: -> ff02::1:ff00:1 NS");
}

TEST(Ipv6Description, HopByHopHeaderNamesItsProtocol) {
  EXPECT_EQ(v6(ipv6(0, {})), "HOPOPT 2001:db8::1 -> fe80::2:3");
}

TEST(Ipv6Description, MappedAddressesPrintAsDottedQuads) {
  EXPECT_EQ(v6(ipv6(17, hex_bytes("0035 0035"), "::ffff:10.1.2.3", "::1")), "UDP 10.1.2.3:53 -> ::1:53");
}

TEST(Ipv6Description, EspShowsSpiAndSequence) {
  EXPECT_EQ(v6(ipv6(50, hex_bytes("00000101 00000002"))), "ESP 2001:db8::1 -> fe80::2:3 SPI 00000101 SEQ 2");
}

// ---- ring use ----

TEST(PacketDescription, TextSurvivesEightFurtherRingTakes) {
  std::unique_ptr<std::uint8_t[]> copy;
  Bytes p = ipv4(1, {42, 3, 0, 0, 0, 0, 0, 0});
  copy.reset(new std::uint8_t[p.size()]);
  std::memcpy(copy.get(), p.data(), p.size());
  const char *line = iph2str(copy.get());
  for (int i = 0; i < 8; ++i) ipproto2str(static_cast<std::uint8_t>(150 + i));
  EXPECT_STREQ(line, "ICMP 10.0.0.1 -> 10.0.0.2 type=42 code=3");
}

// ---- random packets against a plain formatter using libc address texts ----

TEST(Ipv4Description, RandomUdpAndTcpPacketsAgainstInetNtop) {
  std::mt19937 rng(4242);
  for (int i = 0; i < 3000; ++i) {
    bool tcp = rng() & 1;
    Bytes upper(tcp ? 14 : 4);
    for (auto &b : upper) b = static_cast<std::uint8_t>(rng());
    Bytes p = ipv4(tcp ? 6 : 17, upper);
    for (int k = 12; k < 20; ++k) p[static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(rng());
    char s[INET_ADDRSTRLEN], d[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &p[12], s, sizeof s);
    inet_ntop(AF_INET, &p[16], d, sizeof d);
    std::string expected = std::string(tcp ? "TCP " : "UDP ") + s + ":" + std::to_string(upper[0] << 8 | upper[1]) +
                           " -> " + d + ":" + std::to_string(upper[2] << 8 | upper[3]);
    if (tcp) {
      std::string flags;
      const std::pair<int, const char *> order[] = {{2, "SYN"}, {0x10, "ACK"}, {8, "PSH"}, {1, "FIN"}, {4, "RST"}};
      for (const auto &[bit, name] : order)
        if (upper[13] & bit) flags += (flags.empty() ? "" : ",") + std::string(name);
      expected += " " + flags;
    }
    ASSERT_EQ(v4(p), expected);
  }
}

TEST(PacketDescription, RedirectLineTakesTwoResultBuffers) {
  // A marker text, then the description (message text and line), then
  // further takes: the ring comes back to the marker's buffer on the
  // seventh, so the description took exactly two buffers.
  Bytes p = ipv4(1, hex_bytes("0501 0000 0a090807"));
  std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[p.size()]);
  std::memcpy(copy.get(), p.data(), p.size());
  const char *marker = ipproto2str(199);
  const char *line = iph2str(copy.get());
  EXPECT_STREQ(line, "ICMP 10.0.0.1 -> 10.0.0.2 redirect host to 10.9.8.7");
  std::vector<const char *> later;
  for (int i = 0; i < 7; ++i) later.push_back(ipproto2str(static_cast<std::uint8_t>(160 + i)));
  for (int i = 0; i < 6; ++i) EXPECT_NE(later[static_cast<std::size_t>(i)], marker) << i;
  EXPECT_EQ(later[6], marker);
}
