// Walking the extension header chain of IPv6 packets.
#include <cstddef>
#include <cstdint>

#include "dp_bytes.h"
#include "dp_wire.h"
#include "nuvpkt.h"

namespace {

using namespace dp::wire;

bool is_ext_hdr(std::uint8_t nexthdr) {
  // 0, and 43/44 with or without bit 4: 59 and 60 are the latter.
  return nexthdr == kProtoHopByHop || (nexthdr & ~0x10u) == kProtoRouting || (nexthdr & ~0x10u) == kProtoFragment;
}


// The walks that start from the IPv6 header count the payload left in 16
// bits, as the payload length field does.  A header claiming more than is
// left makes the count go below zero; such a header's successor would lie
// beyond the payload, so it is reported as truncated instead of being read.
bool payload_has_room(int remaining) { return static_cast<std::uint16_t>(remaining) >= 2; }
bool payload_overrun(int remaining) { return remaining < 0; }

int payload_length(const std::uint8_t *ip6hdr) { return dp::load_be16(ip6hdr + kIpv6PayloadLengthOffset); }

}  // namespace

extern "C" {

int ip6_is_ext_hdr(uint8_t nexthdr) { return is_ext_hdr(nexthdr) ? 1 : 0; }

const uint8_t *ip6_find_fraghdr(const nuv_pktbuf *buf, const uint8_t *ip6hdr) {
  const std::uint8_t *p = ip6hdr + kIpv6HeaderLength;
  std::uint8_t nh = ip6hdr[kIpv6NextHeaderOffset];
  if (nh == kProtoFragment) return p;
  std::ptrdiff_t remaining = static_cast<std::ptrdiff_t>(buf->len) - (p - buf->data);
  while (true) {
    if (!is_ext_hdr(nh) || nh == kProtoNoNextHeader || remaining < 2) return nullptr;
    const std::ptrdiff_t size = dp::wire::ip6_extension_length(nh, p);
    nh = p[0];
    if (size > remaining) return nullptr;
    p += size;
    remaining -= size;
    if (nh == kProtoFragment) return p;
  }
}

int ip6_skip_exthdr_raw(const uint8_t *data, int len, int offset, uint8_t *nexthdr) {
  if (offset < 0) return -1;
  std::uint8_t nh = *nexthdr;
  // Wide enough that neither the end test nor the last step can overflow.
  std::int64_t pos = offset;
  while (is_ext_hdr(nh)) {
    if (pos + 2 > len) return -1;
    if (nh == kProtoNoNextHeader || nh == kProtoFragment || nh == kProtoRouting) break;
    nh = data[pos];
    pos += (data[pos + 1] + 1) * 8;
  }
  if (pos > INT32_MAX) return -1;
  *nexthdr = nh;
  return static_cast<int>(pos);
}

int ip6_skip_exthdr(const nuv_pktbuf *buf, int offset, uint8_t *nexthdr, int len) {
  return ip6_skip_exthdr_raw(buf->data, len, offset, nexthdr);
}

int ip6_skip_exthdr_from_ipv6hdr(const uint8_t *ip6hdr, uint8_t *nexthdr) {
  std::uint8_t nh = ip6hdr[kIpv6NextHeaderOffset];
  int remaining = payload_length(ip6hdr);
  int pos = kIpv6HeaderLength;
  while (is_ext_hdr(nh)) {
    if (!payload_has_room(remaining)) return -1;
    if (nh == kProtoNoNextHeader || nh == kProtoFragment) break;
    if (payload_overrun(remaining)) return -1;
    const int size = dp::wire::ip6_extension_length(nh, ip6hdr + pos);
    nh = ip6hdr[pos];
    pos += size;
    remaining -= size;
  }
  *nexthdr = nh;
  return pos;
}

int ip6_exthdr_order_is_valid_in_ipv6hdr(const uint8_t *ip6hdr) {
  if (!ip6hdr) return 0;
  std::uint8_t nh = ip6hdr[kIpv6NextHeaderOffset];
  int remaining = payload_length(ip6hdr);
  int pos = kIpv6HeaderLength;
  bool first = true;
  while (true) {
    if (!is_ext_hdr(nh)) return 1;
    if (!payload_has_room(remaining)) return -1;
    if (nh == kProtoHopByHop && !first) return -2;
    if (payload_overrun(remaining)) return -1;
    const int size = dp::wire::ip6_extension_length(nh, ip6hdr + pos);
    nh = ip6hdr[pos];
    pos += size;
    remaining -= size;
    first = false;
  }
}

}  // extern "C"
