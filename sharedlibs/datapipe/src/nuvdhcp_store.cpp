// The DHCP option store: editing slots and parsing option areas into it.
#include <cstring>

#include "nuvdhcp.h"
#include "nuvdhcp_priv.h"

namespace {

using dp::dhcp::kOptionEnd;
using dp::dhcp::kOptionPad;

bool code_is_editable(int code) { return code >= 1 && code <= 255; }

void clear_slot(dhcp_option &slot) {
  slot.data = nullptr;
  slot.len = 0;
}

// Adds `len` value bytes to a slot: a new value, or the old one with the new
// bytes appended.  Either way the block ends with a NUL after the value.
// On allocation failure the slot is left exactly as it was.
bool append_to_slot(const dhcp_memops &memops, dhcp_option &slot, const unsigned char *bytes, uint32_t len) {
  const uint32_t old_len = slot.data ? slot.len : 0;
  auto *block = static_cast<unsigned char *>(memops.alloc(old_len + len + 1));
  if (!block) return false;
  if (old_len) std::memcpy(block, slot.data, old_len);
  if (len) std::memcpy(block + old_len, bytes, len);
  block[old_len + len] = 0;
  if (slot.data) memops.free(slot.data);
  slot.data = block;
  slot.len = old_len + len;
  return true;
}

int parse_area(const dhcp_memops &memops, const unsigned char *buf, int32_t len, dhcp_options store) {
  int32_t pos = 0;
  for (;;) {
    // The code byte is looked at before the end test, so an area ends at an
    // end mark even when it sits in the byte just after the area.
    const uint8_t code = buf[pos];
    if (code == kOptionEnd || pos >= len) return 0;
    if (code == kOptionPad) {
      ++pos;
      continue;
    }
    const uint8_t value_len = buf[pos + 1];
    if (static_cast<int64_t>(pos) + 2 + value_len > len) return -1;
    if (!append_to_slot(memops, store[code], buf + pos + 2, value_len)) return -1;
    pos += 2 + value_len;
  }
}

bool has_magic_cookie(const unsigned char *msg) {
  return std::memcmp(msg + dp::dhcp::kCookieOffset, dp::dhcp::kMagicCookie, sizeof dp::dhcp::kMagicCookie) == 0;
}

// The first value byte of the overload option, or 0 when it is absent.
uint8_t overload_flags(const dhcp_options store) {
  const dhcp_option &slot = store[dp::dhcp::kOptionOverload];
  return slot.data ? slot.data[0] : 0;
}

}  // namespace

extern "C" {

int dhcp_set_option(const dhcp_memops *memops, dhcp_options store, int code, uint32_t len, const void *data) {
  if (!code_is_editable(code)) return -1;
  dhcp_option &slot = store[code];
  unsigned char *previous = slot.data;
  slot.data = static_cast<unsigned char *>(memops->alloc(len));
  // After a failed allocation the old block is left to the caller: `data`
  // may point into it (a value rebuilt from its own bytes), and a caller
  // that read the slot before the call still holds it and releases it.
  if (!slot.data) return -1;
  if (len) std::memcpy(slot.data, data, len);
  slot.len = len;
  // Released only after the copy, so a new value taken from the old one is
  // read before its block goes.
  if (previous) memops->free(previous);
  return 0;
}

int dhcp_free_option(const dhcp_memops *memops, dhcp_options store, int code) {
  if (!code_is_editable(code)) return -1;
  dhcp_option &slot = store[code];
  if (slot.data) memops->free(slot.data);
  clear_slot(slot);
  return 0;
}

void dhcp_free_options(const dhcp_memops *memops, dhcp_options store) {
  for (unsigned code = 0; code < DHCP_OPTION_SLOTS; ++code) {
    if (store[code].data) memops->free(store[code].data);
    clear_slot(store[code]);
  }
}

int dhcp_parse_option_buffer(const dhcp_memops *memops, const unsigned char *buf, int32_t len, dhcp_options store) {
  return parse_area(*memops, buf, len, store);
}

int dhcp_parse_options(const dhcp_memops *memops, const unsigned char *msg, int32_t msglen, dhcp_options store) {
  using namespace dp::dhcp;
  for (unsigned code = 0; code < DHCP_OPTION_SLOTS; ++code) clear_slot(store[code]);
  if (msglen < static_cast<int32_t>(kOptionsOffset)) return -1;
  if (!has_magic_cookie(msg)) return -1;
  if (parse_area(*memops, msg + kOptionsOffset, msglen - static_cast<int32_t>(kOptionsOffset), store) < 0) return -1;
  // `file` comes first; it may itself extend the overload option, so the
  // flags are read again before deciding about `sname`.
  if (overload_flags(store) & 1) {
    if (parse_area(*memops, msg + kFileOffset, kFileSize, store) < 0) return -1;
  }
  if (overload_flags(store) & 2) {
    if (parse_area(*memops, msg + kSnameOffset, kSnameSize, store) < 0) return -1;
  }
  return 0;
}

}  // extern "C"
