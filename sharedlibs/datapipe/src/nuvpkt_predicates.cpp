// Small yes/no and mapping functions on packets and protocol numbers.
#include <cstddef>
#include <cstdint>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvcsock.h"
#include "nuvpkt.h"

namespace {

using dp::wire::kUdpHeaderLength;
constexpr std::size_t kDnsHeaderLength = 12;
constexpr std::size_t kIpv4ProtocolOffset = 9;
constexpr std::uint16_t kMaxDnsPayload = 512;
constexpr std::uint8_t kOpcodeMask = 0x78;
constexpr std::uint8_t kQrBit = 0x80;
constexpr std::uint16_t kClassIn = 1;

enum DnsRecordType : std::uint16_t { kTypeA = 1, kTypeNs = 2, kTypeCname = 5, kTypePtr = 12 };

// The DNS header fields both predicates decide on.
struct DnsHeader {
  std::uint8_t flags;  // first flags byte (QR, opcode, AA, TC, RD)
  std::uint16_t qdcount;
  std::uint16_t ancount;
  std::uint16_t nscount;
  std::uint16_t arcount;
};

// A DNS message between `msg` and `end`, read front to back.
struct DnsCursor {
  const unsigned char *msg;
  const unsigned char *pos;
  const unsigned char *end;

  bool has(std::ptrdiff_t bytes) const { return end - pos >= bytes; }
};

bool skip_name(DnsCursor &c) {
  c.pos = dnsutil_skipdnsname(c.msg, c.pos, c.end);
  return c.pos != nullptr;
}

bool read_u16(DnsCursor &c, std::uint16_t *value) {
  c.pos = dnsutil_getuint16(value, c.pos);
  return c.pos != nullptr;
}

bool read_u32(DnsCursor &c, std::uint32_t *value) {
  c.pos = dnsutil_getuint32(value, c.pos);
  return c.pos != nullptr;
}

bool walk_question(DnsCursor &c) {
  std::uint16_t qtype = 0;
  std::uint16_t qclass = 0;
  if (!skip_name(c) || !c.has(4)) return false;
  if (!read_u16(c, &qtype) || !read_u16(c, &qclass)) return false;
  return qclass == kClassIn;
}

// Only the record types holding an address or a name have their data looked at.
bool record_data_is_sound(const DnsCursor &c, std::uint16_t type) {
  switch (type) {
    case kTypeA:
      return c.has(4);
    case kTypeNs:
    case kTypeCname:
    case kTypePtr:
      return dnsutil_skipdnsname(c.msg, c.pos, c.end) != nullptr;
    default:
      return true;
  }
}

bool walk_record(DnsCursor &c) {
  std::uint16_t type = 0;
  std::uint16_t rclass = 0;
  std::uint32_t ttl = 0;
  std::uint16_t rdlength = 0;
  if (!skip_name(c) || !c.has(10)) return false;
  if (!read_u16(c, &type) || !read_u16(c, &rclass) || !read_u32(c, &ttl) || !read_u16(c, &rdlength)) return false;
  if (!c.has(rdlength)) return false;
  if (!record_data_is_sound(c, type)) return false;
  c.pos += rdlength;
  return true;
}

bool walk_records(DnsCursor &c, std::uint16_t count) {
  for (std::uint16_t i = 0; i < count; ++i)
    if (!walk_record(c)) return false;
  return true;
}

void read_dns_header(const std::uint8_t *dns, DnsHeader *header) {
  header->flags = dns[2];
  header->qdcount = dp::load_be16(dns + 4);
  header->ancount = dp::load_be16(dns + 6);
  header->nscount = dp::load_be16(dns + 8);
  header->arcount = dp::load_be16(dns + 10);
}

// Checks that the IPv4/UDP packet at `ip` holds a well-formed standard DNS
// message ending exactly at the IP total length, and returns its header.
// The UDP length is only checked against the 512-byte DNS limit, not
// against the IP length.
bool walk_dns_message(const std::uint8_t *ip, DnsHeader *header) {
  const std::size_t ip_header_length = std::size_t{ip[0] & 0x0Fu} * 4;
  const std::size_t total_length = dp::load_be16(ip + 2);
  // The UDP and DNS headers must lie inside the packet before they are read.
  if (total_length < ip_header_length + kUdpHeaderLength + kDnsHeaderLength) return false;
  // Only an IPv4 header carrying UDP holds a UDP header: other protocols'
  // payloads are not DNS messages, however much they look like one.
  if ((ip[0] >> 4) != dp::wire::kFamilyIpv4 || ip[kIpv4ProtocolOffset] != dp::wire::kProtoUdp) return false;
  const std::uint8_t *udp = ip + ip_header_length;
  const std::uint8_t *dns = udp + kUdpHeaderLength;
  const std::uint16_t dns_length = static_cast<std::uint16_t>(dp::load_be16(udp + 4) - kUdpHeaderLength);
  if (dns_length > kMaxDnsPayload) return false;
  read_dns_header(dns, header);
  if (header->flags & kOpcodeMask) return false;
  if (header->qdcount == 0) return false;
  DnsCursor c{dns, dns + kDnsHeaderLength, ip + total_length};
  for (std::uint16_t i = 0; i < header->qdcount; ++i)
    if (!walk_question(c)) return false;
  if (!walk_records(c, header->ancount) || !walk_records(c, header->nscount) || !walk_records(c, header->arcount))
    return false;
  return c.pos == c.end;
}

// Request types answered by ICMP reply types 0..18; 255 marks a type that
// is not a reply.
constexpr std::uint8_t kIcmpRequestOf[19] = {
    8,   255, 255, 255, 255, 255, 255, 255, 255, 255,  // 0 echo reply
    255, 255, 255, 255, 13,  255, 15,  255, 17,        // 14 timestamp, 16 info, 18 address mask
};

// Request types answered by ICMPv6 reply types 129..145.
constexpr std::uint8_t kIcmp6FirstReply = 129;
constexpr std::uint8_t kIcmp6RequestOf[17] = {
    128, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255,  // 129 echo reply
    139, 255, 255, 255, 255, 144,                           // 140 node information, 145 home agent discovery
};

constexpr std::uint8_t kPortProtocols[] = {dp::wire::kProtoTcp, dp::wire::kProtoUdp, dp::wire::kProtoDccp,
                                           dp::wire::kProtoSctp, dp::wire::kProtoUdpLite};

}  // namespace

extern "C" {

int packet_is_valid_dns_query_request(const uint8_t *ip) {
  DnsHeader h{};
  if (!walk_dns_message(ip, &h)) return 0;
  return !(h.flags & kQrBit) && h.qdcount != 0 && h.ancount == 0 && h.nscount == 0 && h.arcount == 0;
}

int packet_is_valid_dns_query_reply(const uint8_t *ip) {
  DnsHeader h{};
  if (!walk_dns_message(ip, &h)) return 0;
  return (h.flags & kQrBit) && h.qdcount != 0;
}

int icmp_rep2req(uint8_t type) {
  // Beyond the table the answer is -1, inside it a non-reply is 255; callers
  // tell the two apart.
  if (type >= sizeof kIcmpRequestOf) return -1;
  return kIcmpRequestOf[type];
}

int icmp6_rep2req(uint8_t type) {
  if (type < kIcmp6FirstReply || type - kIcmp6FirstReply >= static_cast<int>(sizeof kIcmp6RequestOf)) return -1;
  return kIcmp6RequestOf[type - kIcmp6FirstReply];
}

int is_port_protocol(uint8_t proto) {
  for (std::uint8_t p : kPortProtocols)
    if (p == proto) return 1;
  return 0;
}

}  // extern "C"
