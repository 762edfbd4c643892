// Bounds-checked readers for DNS messages.
#include "nuvcsock.h"

namespace {

constexpr unsigned kMaxNameLength = 255;   // wire bytes of one name, labels and lengths
constexpr unsigned kPointerMark = 0xC0;

}  // namespace

extern "C" {

const unsigned char *dnsutil_getuint16(uint16_t *out, const unsigned char *pos) {
  if (!out || !pos) return nullptr;
  *out = static_cast<uint16_t>((pos[0] << 8) | pos[1]);
  return pos + 2;
}

const unsigned char *dnsutil_getuint32(uint32_t *out, const unsigned char *pos) {
  if (!out || !pos) return nullptr;
  *out = (uint32_t{pos[0]} << 24) | (uint32_t{pos[1]} << 16) | (uint32_t{pos[2]} << 8) | uint32_t{pos[3]};
  return pos + 4;
}

const unsigned char *dnsutil_skipdnsname(const unsigned char *msg, const unsigned char *pos,
                                         const unsigned char *end) {
  if (!msg || !pos || !end || pos < msg || pos >= end) return nullptr;
  const unsigned char *after = nullptr;  // position after the name where it stands
  unsigned length = 0;
  // Every pointer must lead strictly backwards, so a chain cannot loop.
  const unsigned char *pointer_limit = pos;
  while (true) {
    if (pos >= end) return nullptr;
    unsigned label = *pos;
    if ((label & kPointerMark) == kPointerMark) {
      if (pos + 1 >= end) return nullptr;
      unsigned offset = ((label & 0x3Fu) << 8) | pos[1];
      if (!after) after = pos + 2;
      const unsigned char *target = msg + offset;
      if (target >= pointer_limit) return nullptr;
      pointer_limit = target;
      pos = target;
      continue;
    }
    if (label & kPointerMark) return nullptr;  // 0x40 and 0x80 label types are reserved
    length += label + 1;
    if (length > kMaxNameLength) return nullptr;
    if (label == 0) return after ? after : pos + 1;
    if (end - pos <= static_cast<long>(label)) return nullptr;
    pos += label + 1;
  }
}

}
