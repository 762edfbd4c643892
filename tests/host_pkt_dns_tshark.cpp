// The DNS query and reply predicates on captured DNS traffic and on DNS
// messages built by scapy, checked against tshark's reading of each packet.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "nuvpkt.h"
#include "testsupport.h"

namespace {

std::vector<std::string> split(const std::string &s, char sep) {
  std::vector<std::string> out;
  std::string item;
  std::istringstream in(s);
  while (std::getline(in, item, sep)) out.push_back(item);
  if (!s.empty() && s.back() == sep) out.emplace_back();
  return out;
}

const char *const kFields[] = {"frame.number",      "udp.length",        "dns.flags.response", "dns.flags.opcode",
                               "dns.count.queries", "dns.count.answers", "dns.count.auth_rr",  "dns.count.add_rr",
                               "dns.qry.class",     "_ws.malformed"};

// What tshark's dissection says each predicate should answer.
struct TsharkView {
  bool request = false;
  bool reply = false;
};

int number(const std::string &s) { return s.empty() ? 0 : static_cast<int>(std::stoul(s, nullptr, 0)); }

std::map<std::size_t, TsharkView> tshark_views(const std::string &pcap) {
  std::string cmd = "tshark -r '" + pcap + "' -T fields -E separator='|'";
  for (const char *f : kFields) cmd += std::string(" -e ") + f;
  cmd += " 2>/dev/null";
  std::map<std::size_t, TsharkView> views;
  std::istringstream out(testsupport::run_command(cmd));
  std::string line;
  while (std::getline(out, line)) {
    auto c = split(line, '|');
    if (c.size() != std::size(kFields) || c[2].empty()) continue;
    bool all_in = true;
    for (const auto &cls : split(c[8], ',')) all_in = all_in && number(cls) == 1;
    int udp_length = number(c[1]);
    // Standard query, at least one question, every question of class IN, a
    // DNS message of at most 512 bytes, and nothing tshark calls malformed.
    bool sound = number(c[3]) == 0 && number(c[4]) > 0 && all_in && udp_length >= 8 && udp_length - 8 <= 512 &&
                 c[9].empty();
    bool no_records = number(c[5]) == 0 && number(c[6]) == 0 && number(c[7]) == 0;
    TsharkView v;
    v.request = sound && number(c[2]) == 0 && no_records;
    v.reply = sound && number(c[2]) == 1;
    views[std::stoul(c[0])] = v;
  }
  return views;
}

struct Checked {
  std::size_t packets = 0, requests = 0, replies = 0;
};

Checked compare_with_tshark(const std::string &pcap) {
  Checked n;
  testsupport::Capture capture = testsupport::read_pcap(pcap);
  auto views = tshark_views(pcap);
  for (const auto &pkt : capture.packets) {
    testsupport::NetworkLayer l = testsupport::find_network_layer(capture, pkt);
    if (!l.found || l.ethertype != 0x0800) continue;
    SCOPED_TRACE(pcap + " frame " + std::to_string(pkt.number));
    const std::uint8_t *ip = pkt.data.data() + l.offset;
    std::size_t available = pkt.data.size() - l.offset;
    std::size_t total = available >= 4 ? static_cast<std::size_t>(ip[2] << 8 | ip[3]) : 0;
    if (available < 20 || total > available || ip[9] != 17) continue;  // cut short, or not UDP
    if (!views.count(pkt.number)) continue;  // not DNS
    // Exactly the IP total length, so reads past the packet are caught.
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[total]);
    std::memcpy(copy.get(), ip, total);
    const TsharkView &v = views[pkt.number];
    EXPECT_EQ(packet_is_valid_dns_query_request(copy.get()), v.request ? 1 : 0);
    EXPECT_EQ(packet_is_valid_dns_query_reply(copy.get()), v.reply ? 1 : 0);
    ++n.packets;
    n.requests += v.request;
    n.replies += v.reply;
  }
  return n;
}

// DNS messages of many shapes, built by scapy: plain and EDNS queries,
// inverse and status queries, a CHAOS-class query, replies with address,
// alias, name server, pointer, mail exchanger and text records, an
// oversized reply, and replies cut short inside their answer.
const char *const kScapyScript = R"PY(
import sys
from scapy.all import IP, UDP, DNS, DNSQR, DNSRR, DNSRROPT, wrpcap
from scapy.layers.dns import DNSRRSOA, DNSRRMX
src, dst = "192.0.2.10", "192.0.2.53"
def q(**kw): return IP(src=src, dst=dst)/UDP(sport=40000, dport=53)/DNS(**kw)
def r(**kw): return IP(src=dst, dst=src)/UDP(sport=53, dport=40000)/DNS(**kw)
pk = [
 q(rd=1, qd=DNSQR(qname="www.example.com", qtype="A")),
 q(rd=1, qd=DNSQR(qname="example.org", qtype="AAAA")/DNSQR(qname="example.net", qtype="MX")),
 q(rd=1, qd=DNSQR(qname="www.example.com"), ar=DNSRROPT(rclass=4096)),
 q(opcode=1, qd=DNSQR(qname="www.example.com")),
 q(opcode=2, qd=DNSQR(qname="www.example.com")),
 q(rd=1, qd=DNSQR(qname="version.bind", qtype="TXT", qclass="CH")),
 r(qr=1, rd=1, ra=1, qd=DNSQR(qname="www.example.com"), an=DNSRR(rrname="www.example.com", type="A", rdata="93.184.216.34")),
 r(qr=1, qd=DNSQR(qname="www.example.com"), an=DNSRR(rrname="www.example.com", type="CNAME", rdata="edge.example.net")/DNSRR(rrname="edge.example.net", type="A", rdata="10.1.2.3")),
 r(qr=1, rcode=3, qd=DNSQR(qname="nope.example.com"), ns=DNSRRSOA(rrname="example.com", mname="ns1.example.com", rname="host.example.com")),
 r(qr=1, qd=DNSQR(qname="example.com", qtype="MX"), an=DNSRRMX(rrname="example.com", type="MX", exchange="mx.example.com", preference=10)),
 r(qr=1, qd=DNSQR(qname="example.com", qtype="NS"), an=DNSRR(rrname="example.com", type="NS", rdata="ns1.example.com")/DNSRR(rrname="example.com", type="NS", rdata="ns2.example.com"), ar=DNSRR(rrname="ns1.example.com", type="A", rdata="10.0.0.1")),
 r(qr=1, qd=DNSQR(qname="34.216.184.93.in-addr.arpa", qtype="PTR"), an=DNSRR(rrname="34.216.184.93.in-addr.arpa", type="PTR", rdata="www.example.com")),
 r(qr=1, qd=DNSQR(qname="big.example.com", qtype="TXT"), an=DNSRR(rrname="big.example.com", type="TXT", rdata=["x"*200]*3)),
 r(qr=1, qd=DNSQR(qname="version.bind", qtype="TXT", qclass="CH")),
 r(qr=1, opcode=1, qd=DNSQR(qname="www.example.com")),
 r(qr=1, qd=DNSQR(qname="www.example.com"), an=DNSRR(rrname="www.example.com", type="A", rdata="10.9.8.7"), ar=DNSRROPT(rclass=1232)),
 q(rd=1, qd=None),
]
out = [IP(bytes(p)) for p in pk]
full = bytes(pk[6])
for cut in (len(full) - 2, len(full) - 9):
    b = bytearray(full[:cut]); b[2:4] = cut.to_bytes(2, "big"); b[10:12] = b"\0\0"
    b[24:26] = (cut - 20).to_bytes(2, "big")
    out.append(IP(bytes(b)))
wrpcap(sys.argv[1], out)
)PY";

}  // namespace

class DnsPredicatesAgainstTshark : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark not installed";
  }
};

TEST_F(DnsPredicatesAgainstTshark, CapturedDnsUdpTrafficAgrees) {
  Checked n = compare_with_tshark(testsupport::data_path("captures/dns_udp.pcap"));
  EXPECT_EQ(n.packets, 2u);
  EXPECT_EQ(n.replies, 1u);
}

TEST_F(DnsPredicatesAgainstTshark, CapturedCookieExchangeAgrees) {
  Checked n = compare_with_tshark(testsupport::data_path("captures/dns-badcookie.pcap"));
  EXPECT_EQ(n.packets, 4u);
  EXPECT_EQ(n.replies, 2u);
}

TEST_F(DnsPredicatesAgainstTshark, ScapyBuiltMessagesAgree) {
  if (!testsupport::have_program("/usr/bin/python3")) GTEST_SKIP() << "python3 not installed";
  std::string dir = std::string(NIKERKIOG_BINARY_DIR) + "/tests";
  std::string script = dir + "/host_pkt_dns_variants.py";
  std::string pcap = dir + "/host_pkt_dns_variants.pcap";
  std::ofstream(script) << kScapyScript;
  int status = -1;
  testsupport::run_command("/usr/bin/python3 '" + script + "' '" + pcap + "' 2>&1", &status);
  if (status != 0) GTEST_SKIP() << "scapy not usable";
  Checked n = compare_with_tshark(pcap);
  EXPECT_EQ(n.packets, 19u);
  EXPECT_GE(n.requests, 2u);
  EXPECT_GE(n.replies, 5u);
}
