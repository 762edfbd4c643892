// The classifier's descriptor of a captured frame, as the data path hands
// it over (no test framework, so the benchmark programs use it too).
#ifndef NIKERKIOG_FRAME_DESC_H
#define NIKERKIOG_FRAME_DESC_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "nikerkiog.h"

namespace testsupport {

// Link types of pcap files the descriptor is made for.
inline constexpr std::uint32_t kLinkEthernet = 1;
inline constexpr std::uint32_t kLinkLinuxCooked = 113;

// Fills `desc` for `frame` of link type `link` (Ethernet or Linux cooked):
// the Ethernet type behind any VLAN tags, the innermost tag, the bytes from
// the network header on.  False for another link type or a frame too short
// for its link header; `desc` is then left cleared.
inline bool describe_frame(const std::vector<std::uint8_t> &frame, std::uint32_t link, nuv_clfy_packet &desc) {
  std::memset(&desc, 0, sizeof desc);
  std::size_t at;
  if (link == kLinkEthernet && frame.size() >= 14) {
    desc.eth_header = frame.data();
    at = 12;
  } else if (link == kLinkLinuxCooked && frame.size() >= 16) {
    at = 14;
  } else {
    return false;
  }
  std::uint16_t type = static_cast<std::uint16_t>(frame[at] << 8 | frame[at + 1]);
  at += 2;
  while ((type == 0x8100 || type == 0x88a8) && frame.size() >= at + 4) {
    desc.vlan_tci = static_cast<std::uint16_t>((frame[at] << 8 | frame[at + 1]) | NUV_CLFY_VLAN_TAG_PRESENT);
    type = static_cast<std::uint16_t>(frame[at + 2] << 8 | frame[at + 3]);
    at += 4;
  }
  const std::uint8_t type_bytes[2] = {static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type)};
  std::memcpy(&desc.eth_proto, type_bytes, 2);
  desc.ip_header = frame.data() + at;
  desc.ip_len = static_cast<std::uint32_t>(frame.size() - at);
  return true;
}

}  // namespace testsupport

#endif
