// One-line descriptions of IPv4 and IPv6 packets for logs.
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "dp_bytes.h"
#include "dp_textring.h"
#include "dp_textwriter.h"
#include "dp_wire.h"
#include "nuvaddr.h"
#include "nuvpkt.h"
#include "nuvproto.h"

namespace {

// ---- small text helpers ----

const char *ring_vprintf(const char *format, va_list args) {
  char *buf = dp::result_ring_next();
  dp::TextWriter(buf, dp::kResultBufferSize).vprintf(format, args);
  return buf;
}

// Formats into a fresh result-ring buffer.  The format may come from one of
// the tables below; arguments it does not name are ignored.
const char *ring_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
const char *ring_printf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const char *text = ring_vprintf(format, args);
  va_end(args);
  return text;
}

const char *ipv4_text(const std::uint8_t *address) { return ipaddr2str(dp::load_net32(address)); }
// Packet memory need not be aligned for an in6_addr: copy the bytes out.
const char *ipv6_text(const std::uint8_t *address) {
  in6_addr copy;
  __builtin_memcpy(copy.s6_addr, address, sizeof copy.s6_addr);
  return ip6addr2str(&copy);
}

// ---- ICMP, ICMPv6 and IGMP message texts ----

// Texts chosen by the message code, with a format for codes beyond them.
struct CodeTexts {
  const char *const *texts;
  std::size_t count;
  const char *other_code_format;  // takes the code
};

// How one message type is described: a fixed text, a text per code, or a
// function for messages that show fields of their own.
struct MessageKind {
  std::uint8_t type;
  const char *text;
  const CodeTexts *by_code;
  const char *(*describe)(const std::uint8_t *hdr);
};

template <std::size_t N>
constexpr std::size_t count_of(const char *const (&)[N]) {
  return N;
}

const char *message_text(const MessageKind *kinds, std::size_t count, const std::uint8_t *hdr,
                         const char *other_type_format) {
  const std::uint8_t type = hdr[0];
  const std::uint8_t code = hdr[1];
  for (std::size_t i = 0; i < count; ++i) {
    const MessageKind &kind = kinds[i];
    if (kind.type != type) continue;
    if (kind.describe) return kind.describe(hdr);
    if (!kind.by_code) return kind.text;
    if (code < kind.by_code->count) return kind.by_code->texts[code];
    return ring_printf(kind.by_code->other_code_format, code);
  }
  return ring_printf(other_type_format, type, code);
}

constexpr const char *kIcmpUnreachable[] = {
    "network unreachable", "host unreachable",  "protocol unreachable",   "port unreachable",
    "fragmentation needed", "source route failed", "net unknown",          "host unknown",
    "host isolated",        "net ano",             "host ano",             "net unreachable (tos)",
    "host unreachable (tos)", "packet filtered",   "precedence violation", "precedende cutoff",
};
constexpr CodeTexts kIcmpUnreachableCodes{kIcmpUnreachable, count_of(kIcmpUnreachable), "unreachable code=%d"};

constexpr const char *kIcmpTimeExceeded[] = {"ttl count exceeded", "frag reass time exceeded"};
constexpr CodeTexts kIcmpTimeExceededCodes{kIcmpTimeExceeded, count_of(kIcmpTimeExceeded), "time exceeded code=%d"};

constexpr const char *kIcmpRedirectFormats[] = {
    "redirect net to %s", "redirect host to %s", "redirect net for tos to %s", "redirect host for tos to %s"};

// The gateway a redirect names is the address at offset 4.
const char *icmp_redirect(const std::uint8_t *hdr) {
  const std::uint8_t code = hdr[1];
  const char *gateway = ipv4_text(hdr + 4);
  if (code < count_of(kIcmpRedirectFormats)) return ring_printf(kIcmpRedirectFormats[code], gateway);
  return ring_printf("redirect code=%d to %s", code, gateway);
}

// Only the request shows identifier and sequence number; the reply does not.
const char *icmp_echo_request(const std::uint8_t *hdr) {
  return ring_printf("echo request id=%d seq=%d", dp::load_be16(hdr + 4), dp::load_be16(hdr + 6));
}

constexpr MessageKind kIcmpMessages[] = {
    {0, "echo reply", nullptr, nullptr},
    {3, nullptr, &kIcmpUnreachableCodes, nullptr},
    {4, "source quench", nullptr, nullptr},
    {5, nullptr, nullptr, icmp_redirect},
    {8, nullptr, nullptr, icmp_echo_request},
    {11, nullptr, &kIcmpTimeExceededCodes, nullptr},
    {12, "param problem", nullptr, nullptr},
    {13, "timestamp request", nullptr, nullptr},
    {14, "timestamp reply", nullptr, nullptr},
    {15, "info request", nullptr, nullptr},
    {16, "info reply", nullptr, nullptr},
    {17, "address request", nullptr, nullptr},
    {18, "address reply", nullptr, nullptr},
};

constexpr const char *kIcmp6Unreachable[] = {
    "no route",         "adm prohibited",       "beyond scope of source address",
    "addr unreachable", "port unreachable",     "source address failed policy",
    "reject route to destination",
};
constexpr CodeTexts kIcmp6UnreachableCodes{kIcmp6Unreachable, count_of(kIcmp6Unreachable), "dest unreach (code %u)"};

constexpr const char *kIcmp6TimeExceeded[] = {"hop limit exceeded", "fragtime exceeded"};
constexpr CodeTexts kIcmp6TimeExceededCodes{kIcmp6TimeExceeded, count_of(kIcmp6TimeExceeded), "time exceeded (code %u)"};

constexpr const char *kIcmp6ParamProblem[] = {"hdr field problem", "unknown nexthdr", "unknown option"};
constexpr CodeTexts kIcmp6ParamProblemCodes{kIcmp6ParamProblem, count_of(kIcmp6ParamProblem),
                                            "parameter problem (code %u)"};

constexpr MessageKind kIcmp6Messages[] = {
    {1, nullptr, &kIcmp6UnreachableCodes, nullptr},
    {2, "pkt too big", nullptr, nullptr},
    {3, nullptr, &kIcmp6TimeExceededCodes, nullptr},
    {4, nullptr, &kIcmp6ParamProblemCodes, nullptr},
    {128, "echo request", nullptr, nullptr},
    {129, "echo reply", nullptr, nullptr},
    {130, "mgm query", nullptr, nullptr},
    {131, "mgm report", nullptr, nullptr},
    {132, "mgm reduction", nullptr, nullptr},
    {133, "RS", nullptr, nullptr},
    {134, "RA", nullptr, nullptr},
    {135, "NS", nullptr, nullptr},
    {136, "NA", nullptr, nullptr},
    {137, "redirect", nullptr, nullptr},
    {139, "ni query", nullptr, nullptr},
    {140, "ni reply", nullptr, nullptr},
    {143, "mld2 report", nullptr, nullptr},
    {144, "dhaad request", nullptr, nullptr},
    {145, "dhaad reply", nullptr, nullptr},
    {146, "mobile PS", nullptr, nullptr},
    {147, "mobile PA", nullptr, nullptr},
};

// IGMP messages name their group (offset 4), except the version 3 report,
// whose groups are in records further on.
struct IgmpMessage {
  std::uint8_t type;
  const char *format;
  bool shows_group;
};

constexpr IgmpMessage kIgmpMessages[] = {
    {0x11, "query %s", true},
    {0x12, "v1 report %s", true},
    {0x16, "v2 report %s", true},
    {0x17, "v2 leave %s", true},
    {0x22, "v3 report", false},
};

const char *igmp_text(const std::uint8_t *hdr) {
  for (const IgmpMessage &m : kIgmpMessages) {
    if (m.type != hdr[0]) continue;
    if (!m.shows_group) return m.format;
    return ring_printf(m.format, ipv4_text(hdr + 4));
  }
  return ring_printf("type 0x%x", hdr[0]);
}

const char *icmp_text(const std::uint8_t *hdr) {
  return message_text(kIcmpMessages, sizeof kIcmpMessages / sizeof kIcmpMessages[0], hdr, "type=%d code=%d");
}

const char *icmp6_text(const std::uint8_t *hdr) {
  return message_text(kIcmp6Messages, sizeof kIcmp6Messages / sizeof kIcmp6Messages[0], hdr, "type %u code %u");
}

// ---- upper-layer lines ----

// The parts of a line every protocol shares.
struct Endpoints {
  const char *source;
  const char *destination;
  const std::uint8_t *upper;  // first byte of the upper-layer header
};

const char *udp_line(const Endpoints &e) {
  return ring_printf("%s %s:%d -> %s:%d", "UDP", e.source, dp::load_be16(e.upper), e.destination,
                     dp::load_be16(e.upper + 2));
}

const char *tcp_line(const Endpoints &e) {
  const char *flags = tcpflags2str(e.upper);
  return ring_printf("%s %s:%d -> %s:%d %s", "TCP", e.source, dp::load_be16(e.upper), e.destination,
                     dp::load_be16(e.upper + 2), flags);
}

const char *ipsec_line(const char *name, const Endpoints &e, std::size_t spi_offset) {
  return ring_printf("%s %s -> %s SPI %08x SEQ %u", name, e.source, e.destination,
                     static_cast<unsigned>(dp::load_be32(e.upper + spi_offset)),
                     static_cast<unsigned>(dp::load_be32(e.upper + spi_offset + 4)));
}

const char *esp_line(const Endpoints &e) { return ipsec_line("ESP", e, 0); }
const char *ah_line(const Endpoints &e) { return ipsec_line("AH", e, 4); }

const char *ipcomp_line(const Endpoints &e) {
  return ring_printf("%s %s -> %s CPI %04x", "IPComp", e.source, e.destination, dp::load_be16(e.upper + 2));
}

const char *message_line(const char *name, const Endpoints &e, const char *message) {
  return ring_printf("%s %s -> %s %s", name, e.source, e.destination, message);
}

const char *icmp_line(const Endpoints &e) { return message_line("ICMP", e, icmp_text(e.upper)); }
const char *icmp6_line(const Endpoints &e) { return message_line("ICMPv6", e, icmp6_text(e.upper)); }
const char *igmp_line(const Endpoints &e) { return message_line("IGMP", e, igmp_text(e.upper)); }

struct UpperLayer {
  std::uint8_t proto;
  const char *(*line)(const Endpoints &);
};

// The protocol number alone selects the decoder, whichever IP version
// carries it (so ICMP inside IPv6 is still read as ICMP).
constexpr UpperLayer kUpperLayers[] = {
    {dp::wire::kProtoUdp, udp_line},       {dp::wire::kProtoTcp, tcp_line},   {dp::wire::kProtoEsp, esp_line},
    {dp::wire::kProtoAuthentication, ah_line}, {dp::wire::kProtoIpComp, ipcomp_line},
    {dp::wire::kProtoIcmp, icmp_line},     {dp::wire::kProtoIcmpv6, icmp6_line}, {dp::wire::kProtoIgmp, igmp_line},
};

const char *upper_layer_line(std::uint8_t proto, const Endpoints &e) {
  for (const UpperLayer &u : kUpperLayers)
    if (u.proto == proto) return u.line(e);
  return ring_printf("%s %s -> %s", ipproto2str(proto), e.source, e.destination);
}

// ---- IPv4 specifics ----

constexpr std::uint16_t kFragmentOffsetMask = 0x1FFF;
constexpr std::uint8_t kMoreFragmentsBit = 0x20;

// A non-first fragment shows its offset in 8-byte units; the blank before
// the flag text stays even when the flag is absent.
const char *ipv4_fragment_line(const std::uint8_t *ip, std::uint16_t offset, const Endpoints &e) {
  return ring_printf("%s %s -> %s off=%d %s", ipproto2str(ip[9]), e.source, e.destination, offset,
                     (ip[6] & kMoreFragmentsBit) ? " MF" : "");
}

}  // namespace

extern "C" {

const char *iph2str(const uint8_t *packet) {
  if ((packet[0] >> 4) == dp::wire::kFamilyIpv6) return ip6h2str(packet);
  Endpoints e{};
  e.source = ipv4_text(packet + 12);
  e.destination = ipv4_text(packet + 16);
  e.upper = packet + std::size_t{packet[0] & 0x0Fu} * 4;
  const std::uint16_t offset = dp::load_be16(packet + 6) & kFragmentOffsetMask;
  if (offset) return ipv4_fragment_line(packet, offset, e);
  return upper_layer_line(packet[9], e);
}

const char *ip6h2str(const uint8_t *packet) {
  Endpoints e{};
  e.source = ipv6_text(packet + dp::wire::kIpv6SourceOffset);
  e.destination = ipv6_text(packet + dp::wire::kIpv6DestinationOffset);
  e.upper = packet + dp::wire::kIpv6HeaderLength;
  return upper_layer_line(packet[dp::wire::kIpv6NextHeaderOffset], e);
}

}  // extern "C"
