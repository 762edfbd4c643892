// DHCP match expressions on real captured DHCP messages.  The expected field
// and option values were read off the captures with Debian's tshark 4.0
// (`tshark -r FILE -T fields -e dhcp.id -e dhcp.flags -e dhcp.hw.mac_addr
// -e dhcp.ip.client ... -e dhcp.option.value`) and are written here as tshark
// shows them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dhcp_testmemops.h"
#include "nuvdhcp.h"
#include "testsupport.h"

namespace {

using testsupport::Bytes;
using testsupport::DhcpTestMemops;

// The DHCP message (UDP payload) of a captured frame, in a buffer of its
// length plus the one byte after it that option parsing may look at.
Bytes captured_message(const std::string &capture, std::size_t frame) {
  const auto cap = testsupport::read_pcap(testsupport::data_path("captures/" + capture));
  if (frame == 0 || frame > cap.packets.size()) {
    ADD_FAILURE() << capture << " has no frame " << frame;
    return Bytes(241, 0);
  }
  const auto &pkt = cap.packets[frame - 1];
  const auto net = testsupport::find_network_layer(cap, pkt);
  EXPECT_TRUE(net.found);
  EXPECT_EQ(pkt.data[net.offset + 9], 17) << "UDP";
  const std::size_t ihl = (pkt.data[net.offset] & 0x0f) * 4u;
  Bytes m(pkt.data.begin() + static_cast<std::ptrdiff_t>(net.offset + ihl + 8), pkt.data.end());
  m.push_back(0);
  return m;
}

// A captured message with its options parsed, and a way to evaluate rule
// texts ("dhcpoption ..." / "dhcpheader ...") against it.
class CapturedDhcp {
 public:
  CapturedDhcp(const DhcpTestMemops &memops, const std::string &capture, std::size_t frame)
      : ops_(memops.ops()), msg_(captured_message(capture, frame)) {
    parse_rc_ = dhcp_parse_options(ops_, msg_.data(), static_cast<std::int32_t>(msg_.size() - 1), store_);
  }
  ~CapturedDhcp() { dhcp_free_options(ops_, store_); }
  CapturedDhcp(const CapturedDhcp &) = delete;
  CapturedDhcp &operator=(const CapturedDhcp &) = delete;

  int parse_rc() const { return parse_rc_; }

  // 1 or 0 from dhcp_packet_matches; -1 when the rule text is rejected.
  int rule(const std::string &keyword, const std::string &rest) const {
    std::vector<char> text(rest.begin(), rest.end());
    text.push_back('\0');
    dhcp_match m{};
    char *end = nullptr;
    const int rc = keyword == "dhcpoption" ? parse_dhcpoptionmatch(text.data(), &end, &m)
                                           : parse_dhcpheadermatch(text.data(), &end, &m);
    if (rc < 0) return -1;
    const std::string pattern(m.pattern, static_cast<std::size_t>(rc));
    m.pattern = pattern.c_str();
    return dhcp_packet_matches(ops_, msg_.data(), store_, &m);
  }

 private:
  const dhcp_memops *ops_;
  Bytes msg_;
  dhcp_options store_;
  int parse_rc_;
};

struct Expectation {
  const char *keyword;
  const char *rest;
  int result;
};

void check_all(const char *capture, std::size_t frame, std::initializer_list<Expectation> expectations) {
  SCOPED_TRACE(std::string(capture) + " frame " + std::to_string(frame));
  DhcpTestMemops memops;
  CapturedDhcp dhcp(memops, capture, frame);
  ASSERT_EQ(dhcp.parse_rc(), 0);
  for (const Expectation &e : expectations) {
    EXPECT_EQ(dhcp.rule(e.keyword, e.rest), e.result) << e.keyword << " " << e.rest;
  }
}

}  // namespace

// tshark, dhcp-mud.pcap frame 1 (DHCP Request through a relay):
// Boot Request (1), hw type 0x01, hlen 6, hops 1, xid 0x068c4847, secs 0,
// flags 0x0000, ciaddr 62.12.173.123, yiaddr/siaddr 0.0.0.0, giaddr
// 62.12.173.121, chaddr b8:27:eb:b8:53:c8; option 61 01b827ebb853c8,
// option 57 05c0, option 60 "dhcpcd-6.11.5:Linux-4.1.18-v7+:armv7l:BCM2709",
// option 12 "raspberrypi".
TEST(DhcpMatchCaptured, MudRequestHeaderFields) {
  check_all("dhcp-mud.pcap", 1,
            {
                {"dhcpheader", "op 01", 1},
                {"dhcpheader", "op 02", 0},
                {"dhcpheader", "htype 01", 1},
                {"dhcpheader", "hlen 06", 1},
                {"dhcpheader", "hops 01", 1},
                {"dhcpheader", "xid 068C4847", 1},
                {"dhcpheader", "xid 068c4847", 1},
                {"dhcpheader", "xid 68c4847", 0},
                {"dhcpheader", "secs 0000", 1},
                {"dhcpheader", "flags 0000", 1},
                {"dhcpheader", "flags 8000", 0},
                {"dhcpheader", "ciaddr 62.12.173.123", 1},
                {"dhcpheader", "yiaddr 0.0.0.0", 1},
                {"dhcpheader", "siaddr 0.0.0.0", 1},
                {"dhcpheader", "giaddr 62.12.173.121", 1},
                {"dhcpheader", "giaddr 62.12.173.12", 0},
                {"dhcpheader", "chaddr b8:27:eb:b8:53:c8", 1},
                {"dhcpheader", "chaddr B8:27:EB:*", 1},
                {"dhcpheader", "chaddr b8:27:eb:b8:53:c9", 0},
                {"dhcpheader", "sname *", 1},
                {"dhcpheader", "file ?*", 0},
            });
}

TEST(DhcpMatchCaptured, MudRequestOptions) {
  check_all("dhcp-mud.pcap", 1,
            {
                {"dhcpoption", "61 b8:27:eb:b8:53:c8", 1},
                {"dhcpoption", "61 B8:27:EB:*", 1},
                {"dhcpoption", "61 00:0c:29:*", 0},
                {"dhcpoption", "60 dhcpcd-6.11.5:Linux-4.1.18-v7+:armv7l:BCM2709", 1},
                {"dhcpoption", "60 dhcpcd-*", 1},
                {"dhcpoption", "60 *:armv7l:*", 1},
                {"dhcpoption", "60 DHCPCD-*", 0},
                {"dhcpoption", "60 MSFT*", 0},
                {"dhcpoption", "12 raspberrypi", 1},
                {"dhcpoption", "12 raspberry", 0},
                {"dhcpoption", "50 *", 0},  // no requested address in this renewal
                {"dhcpoption", "125/3561/1 *", 0},
            });
}

// tshark, dhcp-mud.pcap frame 2 (DHCP ACK): Boot Reply (2), yiaddr
// 62.12.173.123, siaddr 62.12.173.114, option 54 3e0cad72 (62.12.173.114),
// option 1 fffffff8, option 15 "ofcourseimright.com", option 101
// "Europe/Berlin".
TEST(DhcpMatchCaptured, MudAck) {
  check_all("dhcp-mud.pcap", 2,
            {
                {"dhcpheader", "op 02", 1},
                {"dhcpheader", "yiaddr 62.12.173.123", 1},
                {"dhcpheader", "siaddr 62.12.173.114", 1},
                {"dhcpheader", "xid 068C4847", 1},
                {"dhcpoption", "54 62.12.173.114", 1},
                {"dhcpoption", "54 62.12.173.*", 1},
                {"dhcpoption", "1 255.255.255.248", 1},
                {"dhcpoption", "1 255.255.255.0", 0},
                {"dhcpoption", "15 ofcourseimright.com", 1},
                {"dhcpoption", "15 *.com", 1},
                {"dhcpoption", "101 Europe/*", 1},
                {"dhcpoption", "61 *", 0},
            });
}

// tshark, dhcp-rfc3004.pcap frame 1 (DHCP Discover): xid 0x06e32864, chaddr
// 00:0c:29:1f:74:06, option 50 c0a80104 (192.168.1.4).
TEST(DhcpMatchCaptured, Rfc3004DiscoverRequestedAddress) {
  check_all("dhcp-rfc3004.pcap", 1,
            {
                {"dhcpoption", "50 192.168.*", 1},
                {"dhcpoption", "50 192.168.1.4", 1},
                {"dhcpoption", "50 192.168.1.40", 0},
                {"dhcpoption", "50 10.*", 0},
                {"dhcpheader", "xid 06E32864", 1},
                {"dhcpheader", "chaddr 00:0c:29:1f:74:06", 1},
                {"dhcpheader", "chaddr 00:0C:29:*", 1},
                {"dhcpheader", "ciaddr 0.0.0.0", 1},
                {"dhcpheader", "op 01", 1},
            });
}

// tshark, dhcp-rfc3004.pcap frame 2 (DHCP Offer): yiaddr 192.168.1.4,
// option 54 c0a80101, option 1 ffffff00, option 15 "Home".
TEST(DhcpMatchCaptured, Rfc3004Offer) {
  check_all("dhcp-rfc3004.pcap", 2,
            {
                {"dhcpheader", "op 02", 1},
                {"dhcpheader", "yiaddr 192.168.1.4", 1},
                {"dhcpoption", "54 192.168.1.1", 1},
                {"dhcpoption", "1 255.255.255.0", 1},
                {"dhcpoption", "15 Home", 1},
                {"dhcpoption", "15 home", 0},
                {"dhcpoption", "50 *", 0},
            });
}

// tshark, dhcp-rfc5859.pcap frame 3 (DHCP Request): xid 0xde549277, option
// 50 c0a80104, option 54 c0a80101.
TEST(DhcpMatchCaptured, Rfc5859Request) {
  check_all("dhcp-rfc5859.pcap", 3,
            {
                {"dhcpheader", "xid DE549277", 1},
                {"dhcpheader", "xid de549277", 1},
                {"dhcpheader", "xid DE54*", 1},
                {"dhcpheader", "xid 779254DE", 0},
                {"dhcpoption", "50 192.168.1.4", 1},
                {"dhcpoption", "54 192.168.1.1", 1},
                {"dhcpheader", "flags 0000", 1},
            });
}

// tshark, dhcp-option-33.pcap frames 1 and 5 (DHCP Offers): xid 0x12345678,
// yiaddr 192.168.1.100, siaddr 192.168.1.1, chaddr 00:11:22:33:44:55,
// option 54 c0a80101; option 33 0a0000010a000002 in frame 1 and of length 0
// in frame 5.  Option 33 is a list of address pairs, so it is compared as raw
// text: frame 1's text is the single byte 0x0a (newline) before its first NUL.
TEST(DhcpMatchCaptured, Option33Offers) {
  check_all("dhcp-option-33.pcap", 1,
            {
                {"dhcpheader", "xid 12345678", 1},
                {"dhcpheader", "yiaddr 192.168.1.100", 1},
                {"dhcpheader", "siaddr 192.168.1.1", 1},
                {"dhcpheader", "chaddr 00:11:22:33:44:55", 1},
                {"dhcpoption", "54 192.168.1.1", 1},
                {"dhcpoption", "33 ?", 1},
                {"dhcpoption", "33 ??*", 0},
            });
  check_all("dhcp-option-33.pcap", 5,
            {
                {"dhcpoption", "33 *", 0},  // present with length 0: never matches
                {"dhcpoption", "54 192.168.1.1", 1},
            });
}

// Every header field of every captured DHCP message matches "*"; rule texts
// that are rejected stay rejected whatever the message.
TEST(DhcpMatchCaptured, EveryFieldOfEveryMessageMatchesAStar) {
  const std::pair<const char *, std::size_t> frames[] = {
      {"dhcp-mud.pcap", 1},         {"dhcp-mud.pcap", 2},         {"dhcp-option-33.pcap", 1},
      {"dhcp-option-33.pcap", 2},   {"dhcp-option-33.pcap", 3},   {"dhcp-option-33.pcap", 4},
      {"dhcp-option-33.pcap", 5},   {"dhcp-rfc3004.pcap", 1},     {"dhcp-rfc3004.pcap", 2},
      {"dhcp-rfc3004.pcap", 3},     {"dhcp-rfc3004.pcap", 4},     {"dhcp-rfc5859.pcap", 1},
      {"dhcp-rfc5859.pcap", 2},     {"dhcp-rfc5859.pcap", 3},     {"dhcp-rfc5859.pcap", 4},
  };
  for (const auto &[capture, frame] : frames) {
    SCOPED_TRACE(std::string(capture) + " frame " + std::to_string(frame));
    DhcpTestMemops memops;
    CapturedDhcp dhcp(memops, capture, frame);
    ASSERT_EQ(dhcp.parse_rc(), 0);
    for (int f = 0; f < DHCP_HFIELD_COUNT; ++f) {
      EXPECT_EQ(dhcp.rule("dhcpheader", std::string(dhcp_hfield2str(static_cast<std::uint8_t>(f))) + " *"), 1)
          << dhcp_hfield2str(static_cast<std::uint8_t>(f));
    }
    EXPECT_EQ(dhcp.rule("dhcpoption", "60/1/1 x"), -1);
    EXPECT_EQ(dhcp.rule("dhcpheader", "op"), -1);
  }
}
