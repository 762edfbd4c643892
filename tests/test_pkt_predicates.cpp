// Packet predicates: DNS query and reply validation on IPv4/UDP packets,
// ICMP and ICMPv6 reply-to-request mapping, port-carrying protocols.
#include <gtest/gtest.h>

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

void put16(Bytes &b, std::size_t at, unsigned v) {
  b[at] = static_cast<std::uint8_t>(v >> 8);
  b[at + 1] = static_cast<std::uint8_t>(v);
}

void append16(Bytes &b, unsigned v) {
  b.push_back(static_cast<std::uint8_t>(v >> 8));
  b.push_back(static_cast<std::uint8_t>(v));
}

void append32(Bytes &b, std::uint32_t v) {
  append16(b, v >> 16);
  append16(b, v & 0xFFFF);
}

// "www.example.com" -> 3www7example3com0
void append_name(Bytes &b, const std::string &dotted) {
  std::size_t start = 0;
  while (start < dotted.size()) {
    std::size_t dot = dotted.find('.', start);
    if (dot == std::string::npos) dot = dotted.size();
    b.push_back(static_cast<std::uint8_t>(dot - start));
    b.insert(b.end(), dotted.begin() + static_cast<long>(start), dotted.begin() + static_cast<long>(dot));
    start = dot + 1;
  }
  b.push_back(0);
}

// A DNS message built front to back.
struct Dns {
  Bytes b = Bytes(12, 0);
  Dns &id(unsigned v) { return put16(b, 0, v), *this; }
  Dns &flags(unsigned v) { return put16(b, 2, v), *this; }
  Dns &counts(unsigned qd, unsigned an, unsigned ns, unsigned ar) {
    put16(b, 4, qd);
    put16(b, 6, an);
    put16(b, 8, ns);
    put16(b, 10, ar);
    return *this;
  }
  Dns &question(const std::string &name, unsigned type = 1, unsigned qclass = 1) {
    append_name(b, name);
    append16(b, type);
    append16(b, qclass);
    return *this;
  }
  // A record whose owner is a pointer to offset 12 (the first question name).
  Dns &record(unsigned type, const Bytes &rdata, unsigned rdlength = 0xFFFFFFFF) {
    b.push_back(0xC0);
    b.push_back(12);
    append16(b, type);
    append16(b, 1);
    append32(b, 300);
    append16(b, rdlength == 0xFFFFFFFF ? static_cast<unsigned>(rdata.size()) : rdlength);
    b.insert(b.end(), rdata.begin(), rdata.end());
    return *this;
  }
  Dns &bytes(const Bytes &more) {
    b.insert(b.end(), more.begin(), more.end());
    return *this;
  }
};

constexpr unsigned kQuery = 0x0100;     // RD set, QR clear, opcode 0
constexpr unsigned kResponse = 0x8180;  // QR, RD, RA

// IPv4 + UDP + the DNS message.  The IP total length and UDP length follow
// the message unless overridden.
Bytes udp_packet(const Bytes &dns, int udp_length = -1, int total_length = -1, int ihl = 5) {
  Bytes p(static_cast<std::size_t>(ihl) * 4 + 8, 0);
  p[0] = static_cast<std::uint8_t>(0x40 | ihl);
  p[8] = 64;
  p[9] = 17;
  p[12] = 192, p[13] = 168, p[14] = 1, p[15] = 10;
  p[16] = 192, p[17] = 168, p[18] = 1, p[19] = 1;
  std::size_t udp = static_cast<std::size_t>(ihl) * 4;
  put16(p, udp, 40000);
  put16(p, udp + 2, 53);
  p.insert(p.end(), dns.begin(), dns.end());
  put16(p, udp + 4, udp_length >= 0 ? static_cast<unsigned>(udp_length) : static_cast<unsigned>(8 + dns.size()));
  put16(p, 2, total_length >= 0 ? static_cast<unsigned>(total_length) : static_cast<unsigned>(p.size()));
  return p;
}

// Runs a predicate on an exact-size heap copy of the first `size` bytes
// (the IP total length by default), so reads past it are caught.
int on_exact_copy(int (*predicate)(const uint8_t *), const Bytes &packet, std::size_t size = SIZE_MAX) {
  if (size == SIZE_MAX) size = std::min<std::size_t>(packet.size(), static_cast<std::size_t>(packet[2] << 8 | packet[3]));
  std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[size ? size : 1]);
  std::memcpy(copy.get(), packet.data(), size);
  return predicate(copy.get());
}

int is_request(const Bytes &p) { return on_exact_copy(packet_is_valid_dns_query_request, p); }
int is_reply(const Bytes &p) { return on_exact_copy(packet_is_valid_dns_query_reply, p); }

Dns simple_query() { return Dns().id(0x1234).flags(kQuery).counts(1, 0, 0, 0).question("www.example.com"); }
Dns simple_reply() {
  return Dns().id(0x1234).flags(kResponse).counts(1, 1, 0, 0).question("www.example.com").record(1, {93, 184, 216, 34});
}

}  // namespace

// ---- DNS requests ----

TEST(DnsQueryRequest, OneQuestionEndingExactlyAtTheIpLengthIsValid) {
  Bytes p = udp_packet(simple_query().b);
  EXPECT_EQ(is_request(p), 1);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryRequest, OneTrailingByteMakesItInvalid) {
  Bytes p = udp_packet(simple_query().bytes({0}).b);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, IpLengthEndingInsideTheQuestionIsInvalid) {
  Bytes p = udp_packet(simple_query().b);
  put16(p, 2, static_cast<unsigned>(p.size() - 1));
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, ChaosClassQuestionIsInvalid) {
  Bytes p = udp_packet(Dns().flags(kQuery).counts(1, 0, 0, 0).question("version.bind", 16, 3).b);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, InverseQueryIsRejected) {
  Bytes p = udp_packet(simple_query().flags(kQuery | 0x0800).b);  // opcode 1
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, StatusOpcodeIsRejected) {
  Bytes p = udp_packet(simple_query().flags(0x1000).b);  // opcode 2
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, NotifyOpcodeIsRejected) {
  Bytes p = udp_packet(simple_query().flags(0x2000).b);  // opcode 4
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, OtherHeaderFlagsDoNotMatter) {
  Bytes p = udp_packet(simple_query().flags(0x0700 | 0x00F0 | 0x000F).b);  // AA TC RD, RA Z, RCODE
  EXPECT_EQ(is_request(p), 1);
}

TEST(DnsQueryRequest, NoQuestionIsInvalid) {
  Bytes p = udp_packet(Dns().flags(kQuery).counts(0, 0, 0, 0).b);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, UdpLength520PassesTheLengthStep) {
  Bytes p = udp_packet(simple_query().b, 520);
  EXPECT_EQ(is_request(p), 1);
}

TEST(DnsQueryRequest, UdpLength521IsRejected) {
  Bytes p = udp_packet(simple_query().b, 521);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, UdpLength8PassesTheLengthStep) {
  Bytes p = udp_packet(simple_query().b, 8);
  EXPECT_EQ(is_request(p), 1);
}

TEST(DnsQueryRequest, UdpLengthBelow8WrapsAndIsRejected) {
  Bytes p = udp_packet(simple_query().b, 7);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, UdpLengthIsNotComparedWithTheIpLength) {
  Bytes p = udp_packet(simple_query().b, 100);
  EXPECT_EQ(is_request(p), 1);
}

TEST(DnsQueryRequest, ResponseBitMakesItNoRequest) {
  Bytes p = udp_packet(simple_query().flags(0x8000).b);
  EXPECT_EQ(is_request(p), 0);
  EXPECT_EQ(is_reply(p), 1);
}

TEST(DnsQueryRequest, AdditionalRecordMakesItNoRequest) {
  // An EDNS-style additional record (type 41) is well formed, but a request
  // must carry no records at all.
  Bytes p = udp_packet(simple_query().counts(1, 0, 0, 1).bytes({0, 0, 41, 0x10, 0, 0, 0, 0, 0, 0, 0}).b);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, TwoQuestionsAreValid) {
  Bytes p = udp_packet(simple_query().counts(2, 0, 0, 0).question("example.org", 28).b);
  EXPECT_EQ(is_request(p), 1);
}

TEST(DnsQueryRequest, QuestionCountBeyondTheQuestionsIsInvalid) {
  Bytes p = udp_packet(simple_query().counts(2, 0, 0, 0).b);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryRequest, QuestionMissingItsClassIsInvalid) {
  Dns d = Dns().flags(kQuery).counts(1, 0, 0, 0);
  append_name(d.b, "a.b");
  append16(d.b, 1);  // type, but no class
  EXPECT_EQ(is_request(udp_packet(d.b)), 0);
}

TEST(DnsQueryRequest, HeaderOptionsAreSkippedByTheHeaderLength) {
  Bytes p = udp_packet(simple_query().b, -1, -1, 6);
  EXPECT_EQ(is_request(p), 1);
}

TEST(DnsQueryRequest, RootNameQuestionIsValid) {
  Bytes p = udp_packet(Dns().flags(kQuery).counts(1, 0, 0, 0).question("", 2).b);
  EXPECT_EQ(is_request(p), 1);
}

// ---- DNS replies ----

TEST(DnsQueryReply, AnswerWithAddressIsValid) {
  Bytes p = udp_packet(simple_reply().b);
  EXPECT_EQ(is_reply(p), 1);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryReply, ReplyWithoutRecordsIsValid) {
  Bytes p = udp_packet(simple_query().flags(kResponse | 3).b);  // NXDOMAIN, nothing else
  EXPECT_EQ(is_reply(p), 1);
}

TEST(DnsQueryReply, ChaosClassQuestionIsInvalid) {
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 0, 0, 0).question("version.bind", 16, 3).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, OneTrailingByteMakesItInvalid) {
  Bytes p = udp_packet(simple_reply().bytes({0}).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, InverseQueryReplyIsRejected) {
  Bytes p = udp_packet(simple_reply().flags(kResponse | 0x0800).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, CnameThenAddressIsValid) {
  Bytes cname;
  append_name(cname, "edge.example.net");
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 2, 0, 0).question("www.example.com").record(5, cname)
                           .record(1, {10, 0, 0, 1}).b);
  EXPECT_EQ(is_reply(p), 1);
}

TEST(DnsQueryReply, CompressedNameInRecordDataIsValid) {
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 1, 0, 0).question("www.example.com").record(5, {0xC0, 16}).b);
  EXPECT_EQ(is_reply(p), 1);  // points at "example.com" inside the question
}

TEST(DnsQueryReply, MalformedNameInNsRecordIsInvalid) {
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 0, 1, 0).question("example.com").record(2, {0x40, 0}).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, MalformedNameInPtrRecordIsInvalid) {
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 1, 0, 0).question("1.0.0.10.in-addr.arpa", 12).record(12, {5, 'a'}).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, OtherRecordTypesAreNotExamined) {
  // A TXT record with data that is no valid name or anything else.
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 1, 0, 0).question("example.com", 16).record(16, {0xFF, 0xC0, 0x41}).b);
  EXPECT_EQ(is_reply(p), 1);
}

TEST(DnsQueryReply, RecordDataPastTheEndIsInvalid) {
  Bytes p = udp_packet(simple_reply().b);
  put16(p, p.size() - 6, 5);  // RDLENGTH 5 with 4 bytes left
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, AddressRecordCutShortAtTheEndIsInvalid) {
  // RDLENGTH 2 and only 2 bytes left: the 4-byte address is not readable.
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 1, 0, 0).question("a.example").record(1, {10, 0}).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, ShortAddressRecordFollowedByMoreDataIsWalkedByItsLength) {
  // RDLENGTH 2, then another record: the 4 bytes are readable, and the walk
  // continues behind the 2 declared bytes.
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 2, 0, 0).question("a.example").record(1, {10, 0})
                           .record(1, {10, 0, 0, 2}).b);
  EXPECT_EQ(is_reply(p), 1);
}

TEST(DnsQueryReply, RecordWithFewerThanTenFixedBytesIsInvalid) {
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 1, 0, 0).question("a.example").bytes({0xC0, 12, 0, 1, 0, 1, 0, 0, 0}).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, RecordCountBeyondTheRecordsIsInvalid) {
  Bytes p = udp_packet(simple_reply().counts(1, 1, 1, 0).b);
  EXPECT_EQ(is_reply(p), 0);
}

TEST(DnsQueryReply, AuthorityAndAdditionalRecordsAreWalked) {
  Bytes ns;
  append_name(ns, "ns1.example.com");
  Bytes p = udp_packet(simple_reply().counts(1, 1, 1, 1).record(2, ns).record(1, {10, 9, 9, 9}).b);
  EXPECT_EQ(is_reply(p), 1);
}

TEST(DnsQueryReply, CompressionLoopInQuestionIsInvalid) {
  // The question name is a pointer to itself.
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 0, 0, 0).bytes({0xC0, 12, 0, 1, 0, 1}).b);
  EXPECT_EQ(is_reply(p), 0);
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsQueryReply, CompressionLoopBetweenTwoRecordNamesIsInvalid) {
  // Two names pointing at each other.
  Dns d = Dns().flags(kResponse).counts(1, 1, 0, 0).question("a");
  std::size_t owner = d.b.size();
  d.bytes({0xC0, static_cast<std::uint8_t>(owner + 12)});  // owner -> the CNAME data
  append16(d.b, 5);
  append16(d.b, 1);
  append32(d.b, 1);
  append16(d.b, 2);
  d.bytes({0xC0, static_cast<std::uint8_t>(owner)});  // data -> the owner
  EXPECT_EQ(is_reply(udp_packet(d.b)), 0);
}

TEST(DnsQueryReply, PointerPastTheEndIsInvalid) {
  Bytes p = udp_packet(Dns().flags(kResponse).counts(1, 0, 0, 0).bytes({0xC0, 200, 0, 1, 0, 1}).b);
  EXPECT_EQ(is_reply(p), 0);
}

// ---- only IPv4 carrying UDP holds a DNS message ----

TEST(DnsOnlyOverIpv4Udp, TcpPacketWithADnsLookingPayloadIsNeitherRequestNorReply) {
  Bytes q = udp_packet(simple_query().b);
  Bytes r = udp_packet(simple_reply().b);
  q[9] = 6;
  r[9] = 6;
  EXPECT_EQ(is_request(q), 0);
  EXPECT_EQ(is_reply(r), 0);
}

TEST(DnsOnlyOverIpv4Udp, IcmpAndEspPacketsWithADnsLookingPayloadAreNeitherRequestNorReply) {
  for (std::uint8_t proto : {1, 50}) {
    Bytes q = udp_packet(simple_query().b);
    Bytes r = udp_packet(simple_reply().b);
    q[9] = proto;
    r[9] = proto;
    EXPECT_EQ(is_request(q), 0) << int(proto);
    EXPECT_EQ(is_reply(r), 0) << int(proto);
  }
}

TEST(DnsOnlyOverIpv4Udp, HeaderOfAnotherVersionIsNeitherRequestNorReply) {
  for (std::uint8_t version : {0, 5, 6, 15}) {
    Bytes q = udp_packet(simple_query().b);
    Bytes r = udp_packet(simple_reply().b);
    q[0] = static_cast<std::uint8_t>(version << 4 | 5);
    r[0] = static_cast<std::uint8_t>(version << 4 | 5);
    EXPECT_EQ(is_request(q), 0) << int(version);
    EXPECT_EQ(is_reply(r), 0) << int(version);
  }
}

TEST(DnsOnlyOverIpv4Udp, SamePacketAsUdpIsValid) {
  EXPECT_EQ(is_request(udp_packet(simple_query().b)), 1);
  EXPECT_EQ(is_reply(udp_packet(simple_reply().b)), 1);
}

// ---- truncated and hostile packets ----

TEST(DnsHostile, IpLengthShorterThanTheDnsHeaderIsInvalid) {
  Bytes p = udp_packet(simple_query().b);
  for (unsigned len = 0; len < 40; ++len) {
    put16(p, 2, len);
    EXPECT_EQ(on_exact_copy(packet_is_valid_dns_query_request, p, std::max(len, 4u)), 0) << len;
    EXPECT_EQ(on_exact_copy(packet_is_valid_dns_query_reply, p, std::max(len, 4u)), 0) << len;
  }
}

TEST(DnsHostile, EveryTruncationOfAValidReplyIsInvalid) {
  Bytes full = udp_packet(simple_reply().b);
  for (std::size_t len = 20; len < full.size(); ++len) {
    Bytes p(full.begin(), full.begin() + static_cast<long>(len));
    put16(p, 2, static_cast<unsigned>(len));
    EXPECT_EQ(is_reply(p), 0) << len;
    EXPECT_EQ(is_request(p), 0) << len;
  }
}

TEST(DnsHostile, HeaderLengthBeyondThePacketIsInvalid) {
  Bytes p = udp_packet(simple_query().b);
  p[0] = 0x4F;  // 60-byte header claimed in a 45-byte packet
  EXPECT_EQ(is_request(p), 0);
}

TEST(DnsHostile, RandomBytesNeverReadOutsideThePacket) {
  std::mt19937 rng(53);
  Bytes seed = udp_packet(simple_reply().counts(1, 1, 0, 0).b);
  for (int i = 0; i < 30000; ++i) {
    Bytes p = seed;
    int flips = 1 + static_cast<int>(rng() % 6);
    for (int f = 0; f < flips; ++f) p[28 + rng() % (p.size() - 28)] = static_cast<std::uint8_t>(rng());
    if (rng() % 3 == 0) p.resize(28 + rng() % (p.size() - 27));
    put16(p, 2, static_cast<unsigned>(p.size()));
    int q = is_request(p);
    int r = is_reply(p);
    EXPECT_TRUE((q == 0 || q == 1) && (r == 0 || r == 1));
    EXPECT_FALSE(q && r);  // the QR bit decides
  }
}

// ---- ICMP reply types ----

TEST(IcmpRep2Req, EchoReplyAnswersEchoRequest) { EXPECT_EQ(icmp_rep2req(0), 8); }
TEST(IcmpRep2Req, TimestampReply) { EXPECT_EQ(icmp_rep2req(14), 13); }
TEST(IcmpRep2Req, InformationReply) { EXPECT_EQ(icmp_rep2req(16), 15); }
TEST(IcmpRep2Req, AddressMaskReply) { EXPECT_EQ(icmp_rep2req(18), 17); }
TEST(IcmpRep2Req, UnreachableIsNoReplyInsideTheTable) { EXPECT_EQ(icmp_rep2req(3), 255); }
TEST(IcmpRep2Req, EchoRequestIsNoReplyInsideTheTable) { EXPECT_EQ(icmp_rep2req(8), 255); }
TEST(IcmpRep2Req, Type19IsBeyondTheTable) { EXPECT_EQ(icmp_rep2req(19), -1); }
TEST(IcmpRep2Req, Type255IsBeyondTheTable) { EXPECT_EQ(icmp_rep2req(255), -1); }

TEST(IcmpRep2Req, EveryTypeAgainstThePlainMapping) {
  for (int t = 0; t < 256; ++t) {
    int expected = t > 18 ? -1 : 255;
    if (t == 0) expected = 8;
    if (t == 14) expected = 13;
    if (t == 16) expected = 15;
    if (t == 18) expected = 17;
    EXPECT_EQ(icmp_rep2req(static_cast<std::uint8_t>(t)), expected) << t;
  }
}

TEST(Icmp6Rep2Req, EchoReplyAnswersEchoRequest) { EXPECT_EQ(icmp6_rep2req(129), 128); }
TEST(Icmp6Rep2Req, NodeInformationReply) { EXPECT_EQ(icmp6_rep2req(140), 139); }
TEST(Icmp6Rep2Req, HomeAgentDiscoveryReply) { EXPECT_EQ(icmp6_rep2req(145), 144); }
TEST(Icmp6Rep2Req, EchoRequestIsBeyondTheTable) { EXPECT_EQ(icmp6_rep2req(128), -1); }
TEST(Icmp6Rep2Req, MulticastReportIsNoReplyInsideTheTable) { EXPECT_EQ(icmp6_rep2req(130), 255); }
TEST(Icmp6Rep2Req, Type146IsBeyondTheTable) { EXPECT_EQ(icmp6_rep2req(146), -1); }

TEST(Icmp6Rep2Req, EveryTypeAgainstThePlainMapping) {
  for (int t = 0; t < 256; ++t) {
    int expected = (t < 129 || t > 145) ? -1 : 255;
    if (t == 129) expected = 128;
    if (t == 140) expected = 139;
    if (t == 145) expected = 144;
    EXPECT_EQ(icmp6_rep2req(static_cast<std::uint8_t>(t)), expected) << t;
  }
}

// ---- port-carrying protocols ----

TEST(IsPortProtocol, TcpUdpDccpSctpUdpLite) {
  for (int p = 0; p < 256; ++p) {
    int expected = (p == 6 || p == 17 || p == 33 || p == 132 || p == 136) ? 1 : 0;
    EXPECT_EQ(is_port_protocol(static_cast<std::uint8_t>(p)), expected) << p;
  }
}

TEST(IsPortProtocol, IcmpCarriesNoPorts) { EXPECT_EQ(is_port_protocol(1), 0); }
TEST(IsPortProtocol, AnyProtocolCarriesNoPorts) { EXPECT_EQ(is_port_protocol(255), 0); }
