// Vendor sub-option lookups in options 43, 124 and 125.
//
// A sub-option area is parsed into a temporary option store with the same
// parser as a whole options area, so repeated sub-options of one code are
// joined exactly like top-level options.  The found value block is taken out
// of the temporary store before the store is released and handed over.
#include <cstring>

#include "dp_bytes.h"
#include "nuvdhcp.h"

namespace {

constexpr std::uint32_t kBlockHeaderBytes = 5;  // enterprise number + data length

// A zeroed temporary store, or null when memory runs out.
dhcp_option *new_temporary_store(const dhcp_memops *memops) {
  auto *store = static_cast<dhcp_option *>(memops->alloc(sizeof(dhcp_options)));
  if (store) std::memset(store, 0, sizeof(dhcp_options));
  return store;
}

void release_temporary_store(const dhcp_memops *memops, dhcp_option *store) {
  dhcp_free_options(memops, store);
  memops->free(store);
}

// Parses one sub-option area and takes out the block of `subcode`.
// Returns its length and sets *found, or returns 0.
std::uint32_t take_suboption(const dhcp_memops *memops, const std::uint8_t *area, std::uint32_t len,
                             std::uint8_t subcode, std::uint8_t **found) {
  dhcp_option *store = new_temporary_store(memops);
  if (!store) return 0;
  // A sub-option running past the area ends the parse; the sub-options
  // before it are still usable, so the parser's result does not matter.
  // The parser takes a signed length; larger areas are not searched.
  const auto area_len = len > 0x7fffffffu ? 0 : static_cast<std::int32_t>(len);
  (void)dhcp_parse_option_buffer(memops, area, area_len, store);
  dhcp_option &slot = store[subcode];
  std::uint32_t result = 0;
  if (slot.len != 0 && slot.data) {
    result = slot.len;
    *found = slot.data;
    slot.data = nullptr;
    slot.len = 0;
  }
  release_temporary_store(memops, store);
  return result;
}

struct VendorBlock {
  std::uint32_t enterprise;
  std::uint32_t data_len;
};

VendorBlock read_block_header(const std::uint8_t *p) { return {dp::load_be32(p), p[4]}; }

}  // namespace

extern "C" {

NIKERKIOG_API std::uint32_t dhcp_find_125_option(const dhcp_memops *memops, unsigned char **valp, std::uint32_t len,
                                                 std::uint32_t enterprise, std::uint8_t subcode) {
  // Fewer bytes than a block header hold no block (checked before the header
  // is read, so a short value is never read past its end).
  if (len < kBlockHeaderBytes) return 0;
  const std::uint8_t *pos = *valp;
  std::uint32_t remaining = len;
  VendorBlock block = read_block_header(pos);
  if (remaining < block.data_len + kBlockHeaderBytes) return 0;
  for (;;) {
    if (block.enterprise == enterprise) {
      std::uint8_t *found = nullptr;
      const std::uint32_t found_len = take_suboption(memops, pos + kBlockHeaderBytes, block.data_len, subcode, &found);
      if (found_len != 0) {
        *valp = found;
        return found_len;
      }
    }
    remaining -= block.data_len + kBlockHeaderBytes;
    pos += block.data_len + kBlockHeaderBytes;
    if (remaining < kBlockHeaderBytes) return 0;
    block = read_block_header(pos);
    if (block.data_len + kBlockHeaderBytes > remaining) return 0;
  }
}

NIKERKIOG_API char *dhcp_extract_125_string(const dhcp_memops *memops, const dhcp_option *slot,
                                            std::uint32_t enterprise, std::uint8_t subcode) {
  // A slot whose last replacement failed keeps its length but has no data:
  // it counts as empty.
  if (slot->len == 0 || !slot->data) return nullptr;
  std::uint8_t *value = slot->data;
  const std::uint32_t len = dhcp_find_125_option(memops, &value, slot->len, enterprise, subcode);
  if (len == 0) return nullptr;
  auto *text = static_cast<char *>(memops->alloc(len + 1));
  if (text) {
    std::memcpy(text, value, len);
    text[len] = '\0';
  }
  memops->free(value);
  return text;
}

NIKERKIOG_API std::uint32_t dhcp_find_43_option(const dhcp_memops *memops, unsigned char **valp, std::uint32_t len,
                                                std::uint8_t subcode) {
  if (len == 0) return 0;
  std::uint8_t *found = nullptr;
  const std::uint32_t found_len = take_suboption(memops, *valp, len, subcode, &found);
  if (found_len != 0) *valp = found;
  return found_len;
}

}  // extern "C"
