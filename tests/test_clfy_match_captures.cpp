// Matching on captured packets: verdicts worked out by hand from the frames
// (addresses, ports, VLAN tags, TCP flags, ICMPv6 types, DHCP options with
// learning and forgetting of clients).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "clfy_testing.h"
#include "nikerkiog.h"
#include "nuvcsock_test.h"
#include "testsupport.h"

using clfytest::parse;

namespace {

// A captured frame as the data path would describe it: Ethernet header and
// IP part copied into exact-size buffers, the type and the innermost VLAN tag
// taken from the frame.
struct Frame {
  std::unique_ptr<std::uint8_t[]> eth;
  std::unique_ptr<std::uint8_t[]> net;
  nuv_clfy_packet desc{};
};

std::unique_ptr<Frame> frame(const std::string &capture_name, std::size_t number, std::uint32_t ifindex = 1) {
  const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path("captures/" + capture_name));
  for (const auto &packet : capture.packets) {
    if (packet.number != number) continue;
    const testsupport::NetworkLayer layer = testsupport::find_network_layer(capture, packet);
    if (!layer.found) break;
    auto f = std::make_unique<Frame>();
    if (capture.link_type == testsupport::kLinkEthernet) {
      f->eth.reset(new std::uint8_t[12]);
      std::memcpy(f->eth.get(), packet.data.data(), 12);
      f->desc.eth_header = f->eth.get();
      if (!layer.vlan_ids.empty()) {
        // Tag control of the innermost tag: the four bytes before the type.
        const std::size_t tag = layer.offset - 4;
        const std::uint16_t tci = static_cast<std::uint16_t>(packet.data[tag] << 8 | packet.data[tag + 1]);
        f->desc.vlan_tci = static_cast<std::uint16_t>(tci | NUV_CLFY_VLAN_TAG_PRESENT);
      }
    }
    const std::size_t size = packet.data.size() - layer.offset;
    f->net.reset(new std::uint8_t[size ? size : 1]);
    std::memcpy(f->net.get(), packet.data.data() + layer.offset, size);
    f->desc.ip_header = f->net.get();
    f->desc.ip_len = static_cast<std::uint32_t>(size);
    f->desc.eth_proto = clfytest::net16(layer.ethertype);
    f->desc.dev_ifindex = ifindex;
    return f;
  }
  // A missing capture or frame fails the test; the empty descriptor returned
  // instead (no link or IP header) lets the test go on without a crash.
  ADD_FAILURE() << capture_name << " has no frame " << number;
  return std::make_unique<Frame>();
}

// nuv_clfy_matches, after checking that the explanation of the same rule
// and packet (which learns nothing) gives the same verdict.
int matches_explained(nuv_clfy *rule, const nuv_clfy_packet *packet) {
  nuv_clfy_explanation why;
  const int explained = nuv_clfy_explain(rule, packet, 0, &why);
  const int verdict = nuv_clfy_matches(rule, packet, 0, 0);
  EXPECT_EQ(explained, verdict) << clfytest::text_of(rule) << ": " << why.text;
  EXPECT_EQ(why.matched, verdict);
  return verdict;
}

bool matches(const std::string &rule_text, const Frame *f) {
  auto rule = parse(rule_text);
  if (!rule) {
    ADD_FAILURE() << "refused: " << rule_text;
    return false;
  }
  if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = 1;
  return f && matches_explained(rule.get(), &f->desc) == 1;
}

class ClfyCaptures : public ::testing::Test {
 protected:
  void TearDown() override {
    nuv_clfy_ethersrctab_freeall();
    nuv_clfy_ipdsttab_freeall();
  }
};

}  // namespace

// ---- IPv4 TCP with a VLAN tag: 10.21.11.94:80 -> 10.114.101.120:5767, PSH+ACK, VLAN 165 ----

TEST_F(ClfyCaptures, HttpResponseAddressesAndPorts) {
  auto f = frame("ipv4_tcp_http_xml.pcap", 1);
  EXPECT_TRUE(matches("ip.saddr 10.21.11.0/24 tcp.sport 80", f.get()));
  EXPECT_TRUE(matches("ip.daddr 10.114.101.120 tcp.dport 5767", f.get()));
  EXPECT_TRUE(matches("tcp.dport 5000-6000", f.get()));
  EXPECT_FALSE(matches("tcp.dport 80", f.get()));
  EXPECT_FALSE(matches("udp.sport 80", f.get()));
  EXPECT_FALSE(matches("ip.saddr 10.21.12.0/24", f.get()));
  EXPECT_TRUE(matches("ip.len 645", f.get()));
  EXPECT_TRUE(matches("ip.version 4 ip.proto tcp", f.get()));
}

TEST_F(ClfyCaptures, HttpResponseLinkLayer) {
  auto f = frame("ipv4_tcp_http_xml.pcap", 1);
  EXPECT_TRUE(matches("vlan.id 165", f.get()));
  EXPECT_FALSE(matches("vlan.id 166", f.get()));
  EXPECT_TRUE(matches("vlan.prio 0", f.get()));
  EXPECT_TRUE(matches("eth.source 00:50:56:9f:36:9f", f.get()));
  EXPECT_TRUE(matches("eth.sourceoui 00:50:56 eth.dest 00:03:b2:78:04:17", f.get()));
  EXPECT_FALSE(matches("eth.destoui 00:50:56", f.get()));
  EXPECT_TRUE(matches("dev eth0", f.get()));
}

TEST_F(ClfyCaptures, HttpResponseFlagsAndPayload) {
  auto f = frame("ipv4_tcp_http_xml.pcap", 1);
  EXPECT_TRUE(matches("tcp.flags 0x018", f.get()));
  EXPECT_TRUE(matches("tcp.flags 0x010/0x010", f.get()));
  EXPECT_FALSE(matches("tcp.flags 2/2", f.get()));
  // The pattern's first word ends at the space, and "200*" is then read as a keyword.
  EXPECT_EQ(clfytest::parse_result("tcp.sport 80 packetmatch http/1.1 200*"), -1);
  EXPECT_TRUE(matches("tcp.sport 80 packetmatch http/1.1?200*", f.get()));
  EXPECT_TRUE(matches("tcp.sport 80 packetmatch *microsoft-iis*", f.get()));
  EXPECT_FALSE(matches("tcp.sport 80 packetmatch *apache*", f.get()));
  // Without a protocol the pattern sees the whole transport part from the
  // TCP header on, whose zero urgent pointer ends the text before the body.
  EXPECT_FALSE(matches("packetmatch *microsoft-iis*", f.get()));
}

// ---- A TCP handshake without Ethernet header ----

TEST_F(ClfyCaptures, HandshakeFlags) {
  auto syn = frame("tcp-handshake-nano.pcap", 1);
  auto synack = frame("tcp-handshake-nano.pcap", 2);
  auto ack = frame("tcp-handshake-nano.pcap", 3);
  const char *only_syn = "tcp.flags 0x002/0x012";
  EXPECT_TRUE(matches(only_syn, syn.get()));
  EXPECT_FALSE(matches(only_syn, synack.get()));
  EXPECT_FALSE(matches(only_syn, ack.get()));
  EXPECT_TRUE(matches("tcp.flags 0x012", synack.get()));
  EXPECT_TRUE(matches("tcp.flags 0x010 tcp.dport 80", ack.get()));
  EXPECT_TRUE(matches("ip.saddr 131.155.0.0/16 tcp.sport 46656", syn.get()));
}

TEST_F(ClfyCaptures, NoEthernetHeaderFailsOnlyAddressConditions) {
  auto syn = frame("tcp-handshake-nano.pcap", 1);
  ASSERT_TRUE(syn);
  EXPECT_EQ(syn->desc.eth_header, nullptr);
  EXPECT_FALSE(matches("eth.sourceoui 00:00:00", syn.get()));
  EXPECT_TRUE(matches("tcp.dport 80", syn.get()));
}

// ---- Q-in-Q: service tag 200, customer tag 2001, ARP ----

TEST_F(ClfyCaptures, QinQCarriesTheCustomerTag) {
  auto request = frame("802.1ad_QinQ.pcap", 1);
  auto reply = frame("802.1ad_QinQ.pcap", 2);
  EXPECT_TRUE(matches("vlan.id 2001", request.get()));
  EXPECT_TRUE(matches("vlan.id 2000-2010", reply.get()));
  EXPECT_FALSE(matches("vlan.id 200", request.get()));
  EXPECT_TRUE(matches("eth.proto 0x0806 vlan.id 2001", request.get()));
  EXPECT_TRUE(matches("eth.dest ff:ff:ff:ff:ff:ff", request.get()));
  EXPECT_FALSE(matches("eth.dest ff:ff:ff:ff:ff:ff", reply.get()));
  // ARP is no IP packet.
  EXPECT_FALSE(matches("ip.version 4", request.get()));
}

// ---- ICMPv6: a router advertisement, MLD reports and a query behind hop-by-hop headers ----

TEST_F(ClfyCaptures, Icmpv6Types) {
  auto ra = frame("icmpv6.pcap", 1);
  auto report = frame("icmpv6.pcap", 2);
  auto query = frame("icmpv6.pcap", 3);
  EXPECT_TRUE(matches("icmp.type 134", ra.get()));
  EXPECT_FALSE(matches("icmp.type 134", report.get()));
  EXPECT_TRUE(matches("icmp.type 143", report.get()));
  EXPECT_TRUE(matches("icmp.type 130", query.get()));
  // The hop-by-hop header is looked through for the protocol.
  EXPECT_TRUE(matches("ip.proto ipv6-icmp", ra.get()));
  EXPECT_TRUE(matches("ip.proto ipv6-icmp", report.get()));
  EXPECT_TRUE(matches("ip.daddr ff02::16/128 icmp.type 143", report.get()));
  EXPECT_TRUE(matches("ip.saddr fe80::/10", query.get()));
  EXPECT_FALSE(matches("ip.saddr 2000::/3", query.get()));
}

// ---- A routing header in front of ICMPv6 and UDP ----

TEST_F(ClfyCaptures, RoutingHeaderIsWalkedForTheIcmpTypeOnly) {
  auto echo = frame("ipv6-routing-header.pcap", 1);
  auto udp = frame("ipv6-routing-header.pcap", 3);
  EXPECT_TRUE(matches("icmp.type 128", echo.get()));
  // Ports are read right behind the IPv6 header (only one hop-by-hop header
  // is looked through): there lies the routing header, next header 17 and
  // length 2 ("11 02") then "00 01", so the UDP ports 5645 -> 5642 are not seen.
  EXPECT_FALSE(matches("udp.dport 5642", udp.get()));
  auto behind = parse("udp.sport 4354 udp.dport 1");
  // Without the protocol test (the next header is 43, not 17).
  behind->flags &= ~NUV_CLFY_F_IP_PROTO;
  EXPECT_TRUE(matches_explained(behind.get(), &udp->desc));
  EXPECT_TRUE(matches("ip.proto P43", udp.get()));
}

// ---- DNS over UDP ----

TEST_F(ClfyCaptures, DnsQueryAndAnswer) {
  auto query = frame("dns_udp.pcap", 1);
  auto answer = frame("dns_udp.pcap", 2);
  EXPECT_TRUE(matches("udp.dport 53 ip.saddr 192.168.1.11", query.get()));
  EXPECT_FALSE(matches("udp.dport 53", answer.get()));
  EXPECT_TRUE(matches("udp.sport 53 udp.dport >1023", answer.get()));
  EXPECT_TRUE(matches("ip.len > 200", answer.get()));
}

// ---- DHCP: conditions, learning into a source table, forgetting on RELEASE ----

TEST_F(ClfyCaptures, DhcpVendorClassIsMatchedCaseSensitively) {
  auto request = frame("dhcp-mud.pcap", 1);  // REQUEST from b8:27:eb:b8:53:c8, class "dhcpcd-6.11.5:..."
  EXPECT_TRUE(matches("dhcpoption 60 dhcpcd-* pi.clients", request.get()));
  EXPECT_FALSE(matches("dhcpoption 60 DHCPCD-* pi.clients", request.get()));
  EXPECT_TRUE(matches("dhcpoption 12 raspberry* pi.clients", request.get()));
  EXPECT_TRUE(matches("dhcpheader chaddr B8:27:EB:* pi.hosts", request.get()));
  EXPECT_FALSE(matches("dhcpheader chaddr 00:0c:29:* pi.hosts", request.get()));
  // Option 60 is missing in the server's ACK, which goes to port 68 anyway.
  auto ack = frame("dhcp-mud.pcap", 2);
  EXPECT_FALSE(matches("dhcpoption 60 * pi.clients", ack.get()));
}

TEST_F(ClfyCaptures, MatchingDhcpClientIsLearnedAndForgottenOnRelease) {
  auto discover = frame("dhcp-rfc3004.pcap", 1);  // DISCOVER, client 00:0c:29:1f:74:06, requests 192.168.1.4
  auto offer = frame("dhcp-rfc3004.pcap", 2);     // OFFER from the server to the client
  auto request = frame("dhcp-rfc3004.pcap", 3);   // REQUEST from the client
  ASSERT_TRUE(discover && offer && request);
  const std::uint8_t client[6] = {0x00, 0x0c, 0x29, 0x1f, 0x74, 0x06};

  auto learner = parse("dhcpoption 50 192.168.1.* lan.learned");
  auto known = parse("ethsrctab lan.learned");
  ASSERT_TRUE(learner && known);
  ethersrctab *table = nuv_clfy_ethersrctab_find("lan.learned");
  ASSERT_NE(table, nullptr);

  // Frames from the client are not known yet.
  EXPECT_FALSE(matches_explained(known.get(), &request->desc));
  EXPECT_TRUE(matches_explained(learner.get(), &discover->desc));
  ASSERT_EQ(table->count, 1u);
  EXPECT_EQ(std::memcmp(table->entries, client, 6), 0);
  EXPECT_TRUE(matches_explained(known.get(), &request->desc));
  // The server's frames come from another address and another port.
  EXPECT_FALSE(matches_explained(known.get(), &offer->desc));
  EXPECT_FALSE(matches_explained(learner.get(), &offer->desc));

  // The same REQUEST turned into a RELEASE: option 53 (at its place in the
  // options area) set to 7.  The client is forgotten and the rule fails.
  auto release = frame("dhcp-rfc3004.pcap", 3);
  std::uint8_t *options = release->net.get() + 20 + 8 + 240;
  ASSERT_EQ(options[0], 53);
  ASSERT_EQ(options[2], 3);
  options[2] = 7;
  EXPECT_FALSE(matches_explained(learner.get(), &release->desc));
  EXPECT_EQ(table->count, 0u);
  EXPECT_FALSE(matches_explained(known.get(), &request->desc));

  // A later matching REQUEST learns it again.
  EXPECT_TRUE(matches_explained(learner.get(), &request->desc));
  EXPECT_EQ(table->count, 1u);
  EXPECT_TRUE(matches_explained(known.get(), &request->desc));
  EXPECT_EQ(learner->hits, 2u);
}

TEST_F(ClfyCaptures, ReleaseRemovesOnlyThatClientAndKeepsOrder) {
  auto release = frame("dhcp-rfc3004.pcap", 3);
  release->net.get()[20 + 8 + 240 + 2] = 7;
  auto learner = parse("dhcpoption 50 * lan.mixed");
  const std::uint8_t a[6] = {1, 1, 1, 1, 1, 1}, client[6] = {0x00, 0x0c, 0x29, 0x1f, 0x74, 0x06},
                     b[6] = {2, 2, 2, 2, 2, 2};
  ASSERT_EQ(nuv_clfy_ethersrctab_add("lan.mixed", a), 0);
  ASSERT_EQ(nuv_clfy_ethersrctab_add("lan.mixed", client), 0);
  ASSERT_EQ(nuv_clfy_ethersrctab_add("lan.mixed", b), 0);
  EXPECT_FALSE(matches_explained(learner.get(), &release->desc));
  ethersrctab *table = nuv_clfy_ethersrctab_find("lan.mixed");
  ASSERT_EQ(table->count, 2u);
  EXPECT_EQ(std::memcmp(table->entries, a, 6), 0);
  EXPECT_EQ(std::memcmp(table->entries + 6, b, 6), 0);
  const std::uint8_t zero[6] = {};
  EXPECT_EQ(std::memcmp(table->entries + 12, zero, 6), 0);
  // Releasing a client that is not there changes nothing and fails too.
  EXPECT_FALSE(matches_explained(learner.get(), &release->desc));
  EXPECT_EQ(table->count, 2u);
}

TEST_F(ClfyCaptures, DhcpMessageWithoutTypePassesUntested) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  std::uint8_t *options = request->net.get() + 20 + 8 + 240;
  options[0] = 0;  // the type option's code becomes a pad ...
  options[1] = 0;  // ... and its length too
  options[2] = 0;  // and its value: the walk reads pads up to the next option
  auto rule = parse("dhcpoption 50 10.* lan.untyped");  // would not match the requested address
  EXPECT_TRUE(matches_explained(rule.get(), &request->desc));
  EXPECT_EQ(nuv_clfy_ethersrctab_find("lan.untyped")->count, 0u);
}

TEST_F(ClfyCaptures, OtherDhcpMessageTypesFail) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  request->net.get()[20 + 8 + 240 + 2] = 8;  // INFORM
  EXPECT_FALSE(matches("dhcpoption 50 * lan.other", request.get()));
}

TEST_F(ClfyCaptures, TruncatedDhcpMessageDoesNotMatch) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  for (std::uint32_t cut : {0u, 8u, 100u, 20u + 8u + 239u}) {
    request->desc.ip_len = cut;
    EXPECT_FALSE(matches("dhcpoption 50 * lan.cut", request.get())) << cut;
  }
}

TEST_F(ClfyCaptures, DhcpOptionLengthLyingPastTheMessageDoesNotMatch) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  const std::uint32_t options_at = 20 + 8 + 240;
  // Cut the message right behind the type option's value and make that
  // option claim 200 bytes.
  request->desc.ip_len = options_at + 3;
  request->net.get()[options_at + 1] = 200;
  EXPECT_FALSE(matches("dhcpoption 50 * lan.lying", request.get()));
  // A message that ends exactly after its options (no end option) is read
  // without looking past it.
  auto exact = frame("dhcp-rfc3004.pcap", 3);
  exact->desc.ip_len = options_at + 3;
  EXPECT_FALSE(matches("dhcpoption 50 * lan.exact", exact.get()));  // type 3, option 50 cut away
  EXPECT_TRUE(matches("dhcpheader chaddr 00:0C:29:* lan.exact", exact.get()));
}

// ---- Every captured IP packet against a small rule set ----

TEST_F(ClfyCaptures, EveryCapturedPacketIsClassifiedWithoutHarm) {
  clfytest::Set set;
  const char *rules[] = {"icmp.type 135",
                         "tcp.flags 2/2",
                         "udp.dport 53,67,68,5353",
                         "ip.saddr 10.0.0.0/8 packetmatch *",
                         "ip.daddr ff02::/16",
                         "dhcpoption 60 * all.clients",
                         "ip.len > 1000",
                         "any"};
  for (std::size_t i = 0; i < std::size(rules); ++i) ASSERT_NE(set.add(rules[i], static_cast<std::uint16_t>(i + 1)), nullptr);
  // The captures are named here rather than listed from the folder, which
  // 32-bit programs under emulation cannot always read.
  const char *captures[] = {"02-sunrise-sunset-esp.pcap", "802.1ad_QinQ.pcap", "IGMP_V2.pcap", "dhcp-mud.pcap",
                            "dhcp-option-33.pcap", "dhcp-rfc3004.pcap", "dhcp-rfc5859.pcap", "dns-badcookie.pcap",
                            "dns_udp.pcap", "icmpv6.pcap", "igmpv3-queries.pcap", "ipv4_tcp_http_xml.pcap",
                            "ipv6-routing-header.pcap", "ipv6_mobility_1.pcap", "ipv6_no_next_header.pcap",
                            "tcp-handshake-nano.pcap"};
  int classified = 0;
  for (const char *name : captures) {
    const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path(std::string("captures/") + name));
    for (const auto &packet : capture.packets) {
      const testsupport::NetworkLayer layer = testsupport::find_network_layer(capture, packet);
      if (!layer.found || (layer.ethertype != 0x0800 && layer.ethertype != 0x86dd)) continue;
      const std::size_t size = packet.data.size() - layer.offset;
      std::unique_ptr<std::uint8_t[]> ip(new std::uint8_t[size ? size : 1]);
      std::memcpy(ip.get(), packet.data.data() + layer.offset, size);
      nuv_clfy_packet desc{};
      desc.ip_header = ip.get();
      desc.ip_len = static_cast<std::uint32_t>(size);
      desc.eth_proto = clfytest::net16(layer.ethertype);
      // The last rule catches everything the others leave.
      nuv_clfy *rule = nuv_clfy_get_clfy_from_set(&set.set, 0, &desc);
      ASSERT_NE(rule, nullptr) << name << " #" << packet.number;
      ++classified;
    }
  }
  EXPECT_GT(classified, 30);
}

// ---- Explanations of the same packets ----

namespace {

nuv_clfy_explanation explained(const std::string &rule_text, const Frame *f) {
  nuv_clfy_explanation why{};
  auto rule = parse(rule_text);
  if (!rule || !f) {
    ADD_FAILURE() << "no rule or frame: " << rule_text;
    return why;
  }
  nuv_clfy_explain(rule.get(), &f->desc, 0, &why);
  EXPECT_EQ(rule->hits, 0u);
  return why;
}

// The names of the bundled captures (the folder is not listed: 32-bit
// programs under emulation cannot always read it).
const char *const kCaptureNames[] = {
    "02-sunrise-sunset-esp.pcap", "802.1ad_QinQ.pcap", "IGMP_V2.pcap", "dhcp-mud.pcap",
    "dhcp-option-33.pcap", "dhcp-rfc3004.pcap", "dhcp-rfc5859.pcap", "dns-badcookie.pcap",
    "dns_udp.pcap", "icmpv6.pcap", "igmpv3-queries.pcap", "ipv4_tcp_http_xml.pcap",
    "ipv6-routing-header.pcap", "ipv6_mobility_1.pcap", "ipv6_no_next_header.pcap",
    "tcp-handshake-nano.pcap"};

}  // namespace

TEST_F(ClfyCaptures, MatchingDhcpRequestIsExplainedWithoutLearning) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  const nuv_clfy_explanation why = explained("dhcpoption 50 192.168.1.* lan.quiet", request.get());
  EXPECT_EQ(why.matched, 1);
  EXPECT_EQ(nuv_clfy_ethersrctab_find("lan.quiet")->count, 0u);
}

TEST_F(ClfyCaptures, DhcpOptionMissIsExplained) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  const nuv_clfy_explanation why = explained("dhcpoption 50 10.* lan.miss", request.get());
  EXPECT_EQ(why.matched, 0);
  EXPECT_STREQ(why.keyword, "dhcpoption");
  EXPECT_STREQ(why.text, "dhcpoption: option 50 does not match \"10.*\"");
}

TEST_F(ClfyCaptures, DhcpHeaderMissIsExplained) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  const nuv_clfy_explanation why = explained("dhcpheader chaddr 00:0D:* lan.miss", request.get());
  EXPECT_STREQ(why.keyword, "dhcpheader");
  EXPECT_STREQ(why.text, "dhcpheader: header field chaddr does not match \"00:0D:*\"");
}

TEST_F(ClfyCaptures, DhcpServerReplyFailsAtTheClientPort) {
  auto offer = frame("dhcp-rfc3004.pcap", 2);
  const nuv_clfy_explanation why = explained("dhcpoption 50 * lan.offer", offer.get());
  EXPECT_STREQ(why.keyword, "udp.dport");
  EXPECT_STREQ(why.text, "udp.dport: packet has 68, rule wants 67");
}

TEST_F(ClfyCaptures, OtherDhcpMessageTypeIsExplained) {
  auto request = frame("dhcp-rfc3004.pcap", 3);
  request->net.get()[20 + 8 + 240 + 2] = 8;  // INFORM
  EXPECT_STREQ(explained("dhcpoption 50 * lan.other", request.get()).text,
               "dhcpoption: message type 8 is neither DISCOVER (1) nor REQUEST (3)");
}

TEST_F(ClfyCaptures, DhcpReleaseIsExplainedWithoutForgetting) {
  auto release = frame("dhcp-rfc3004.pcap", 3);
  release->net.get()[20 + 8 + 240 + 2] = 7;
  const std::uint8_t client[6] = {0x00, 0x0c, 0x29, 0x1f, 0x74, 0x06};
  ASSERT_EQ(nuv_clfy_ethersrctab_add("lan.kept", client), 0);
  const nuv_clfy_explanation why = explained("dhcpoption 50 * lan.kept", release.get());
  EXPECT_EQ(why.matched, 0);
  EXPECT_STREQ(why.text, "dhcpoption: a RELEASE never matches");
  EXPECT_EQ(nuv_clfy_ethersrctab_find("lan.kept")->count, 1u);
}

TEST_F(ClfyCaptures, ExplanationAgreesWithTheMatcherOnEveryRuleAndPacket) {
  const char *rules[] = {
      "dev eth0",
      "dhcpheader chaddr 00:0C:29:* lan.exact",
      "dhcpheader chaddr 00:0c:29:* pi.hosts",
      "dhcpheader chaddr B8:27:EB:* pi.hosts",
      "dhcpoption 12 raspberry* pi.clients",
      "dhcpoption 50 * lan.cut",
      "dhcpoption 50 * lan.exact",
      "dhcpoption 50 * lan.lying",
      "dhcpoption 50 * lan.mixed",
      "dhcpoption 50 * lan.other",
      "dhcpoption 50 10.* lan.untyped",
      "dhcpoption 50 192.168.1.* lan.learned",
      "dhcpoption 60 * pi.clients",
      "dhcpoption 60 DHCPCD-* pi.clients",
      "dhcpoption 60 dhcpcd-* pi.clients",
      "eth.dest ff:ff:ff:ff:ff:ff",
      "eth.destoui 00:50:56",
      "eth.proto 0x0806 vlan.id 2001",
      "eth.source 00:50:56:9f:36:9f",
      "eth.sourceoui 00:00:00",
      "eth.sourceoui 00:50:56 eth.dest 00:03:b2:78:04:17",
      "ethsrctab lan.learned",
      "icmp.type 128",
      "icmp.type 130",
      "icmp.type 134",
      "icmp.type 143",
      "ip.daddr 10.114.101.120 tcp.dport 5767",
      "ip.daddr ff02::16/128 icmp.type 143",
      "ip.len 645",
      "ip.len > 200",
      "ip.proto P43",
      "ip.proto ipv6-icmp",
      "ip.saddr 10.21.11.0/24 tcp.sport 80",
      "ip.saddr 10.21.12.0/24",
      "ip.saddr 131.155.0.0/16 tcp.sport 46656",
      "ip.saddr 2000::/3",
      "ip.saddr fe80::/10",
      "ip.version 4",
      "ip.version 4 ip.proto tcp",
      "packetmatch *microsoft-iis*",
      "tcp.dport 5000-6000",
      "tcp.dport 80",
      "tcp.flags 0x010 tcp.dport 80",
      "tcp.flags 0x010/0x010",
      "tcp.flags 0x012",
      "tcp.flags 0x018",
      "tcp.flags 2/2",
      "tcp.sport 80 packetmatch *apache*",
      "tcp.sport 80 packetmatch *microsoft-iis*",
      "tcp.sport 80 packetmatch http/1.1?200*",
      "udp.dport 53",
      "udp.dport 53 ip.saddr 192.168.1.11",
      "udp.dport 5642",
      "udp.sport 4354 udp.dport 1",
      "udp.sport 53 udp.dport >1023",
      "udp.sport 80",
      "vlan.id 165",
      "vlan.id 166",
      "vlan.id 200",
      "vlan.id 2000-2010",
      "vlan.id 2001",
      "vlan.prio 0",
  };
  int pairs = 0;
  for (const char *name : kCaptureNames) {
    const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path(std::string("captures/") + name));
    for (const auto &packet : capture.packets) {
      if (!testsupport::find_network_layer(capture, packet).found) continue;
      auto f = frame(name, packet.number);
      for (const char *text : rules) {
        auto rule = parse(text);
        ASSERT_TRUE(rule) << text;
        if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = 1;
        matches_explained(rule.get(), &f->desc);
        ++pairs;
      }
    }
  }
  EXPECT_GT(pairs, 1000);
}

TEST_F(ClfyCaptures, SetExecutionAllocatesNothingOnAnyBundledPacket) {
  // Every condition but DHCP, in a list and in its optimised tree.
  clfytest::Set list;
  const char *rules[] = {"dev eth0 tcp.dport 80 ip.saddr 10.0.0.0/8",
                         "udp.dport 53,5353 ip.daddr 224.0.0.0/4",
                         "ip.saddr 10.0.0.0/8 packetmatch *x*",
                         "tcp.flags 2/2",
                         "icmp.type 135",
                         "vlan.id 165 eth.sourceoui 00:50:56",
                         "ethsrctab alloc.known",
                         "ipdsttab alloc.dst",
                         "ip.len > 1000 ip.tos 0",
                         "ip.daddr ff02::/16"};
  for (const char *text : rules) ASSERT_NE(list.add(text), nullptr) << text;
  clfytest::Set tree;
  ASSERT_EQ(nuv_clfy_set_optim(&list.set, &tree.set), 0);
  const std::uint8_t group[4] = {224, 0, 0, 1};
  std::uint32_t address;
  std::memcpy(&address, group, 4);
  ASSERT_EQ(nuv_clfy_ipdsttab_add4("alloc.dst", address), 0);
  std::vector<std::unique_ptr<Frame>> frames;
  for (const char *name : kCaptureNames) {
    const testsupport::Capture capture = testsupport::read_pcap(testsupport::data_path(std::string("captures/") + name));
    for (const auto &packet : capture.packets)
      if (testsupport::find_network_layer(capture, packet).found) frames.push_back(frame(name, packet.number));
  }
  ASSERT_GT(frames.size(), 60u);
  const long before = nuvcsock_allocations();
  int applied = 0;
  for (const auto &f : frames) {
    applied += nuv_clfy_get_clfy_from_set(&list.set, 0, &f->desc) != nullptr;
    applied += nuv_clfy_get_clfy_from_set(&tree.set, 0, &f->desc) != nullptr;
    nuv_clfy_set_execute(&list.set, nullptr, &f->desc);
    nuv_clfy_set_execute(&tree.set, nullptr, &f->desc);
  }
  EXPECT_EQ(nuvcsock_allocations(), before);
  EXPECT_GT(applied, 10);
}
