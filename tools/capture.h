// Reading captures through libpcap and finding the IP layer of each frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace tool {

// One captured frame with its link layer taken apart.
struct Frame {
  std::size_t number = 0;              // 1-based position in the capture
  std::span<const std::uint8_t> bytes; // what was captured
  std::uint32_t wire_length = 0;       // length on the wire
  int link_type = 0;                   // libpcap DLT_* value
  const std::uint8_t *ethernet = nullptr;  // Ethernet header, when the link has one
  std::vector<std::uint16_t> vlan_ids; // 802.1Q/802.1ad tag ids, outer first
  std::vector<std::uint16_t> vlan_tcis; // the tags' whole control words, outer first
  std::uint16_t ethertype = 0;         // of the network layer
  std::size_t network_offset = 0;      // where the network layer starts in `bytes`
  bool link_complete = false;          // the link-layer headers were fully captured
  // A PPPoE session frame: the PPP payload is the network layer (IPv4 or
  // IPv6 as `ethertype`, any other PPP protocol leaves ethertype 0x8864).
  bool pppoe = false;
  std::uint16_t pppoe_session = 0;     // the PPPoE session id
  std::uint16_t ppp_protocol = 0;      // the PPP protocol number of the payload

  // The captured bytes of the network layer (empty when the link layer is incomplete).
  std::span<const std::uint8_t> network() const {
    return link_complete ? bytes.subspan(network_offset) : std::span<const std::uint8_t>{};
  }
  bool is_ipv4() const { return link_complete && ethertype == 0x0800; }
  bool is_ipv6() const { return link_complete && ethertype == 0x86DD; }
};

// Whether the tool can take frames of this libpcap link type apart.
bool link_type_supported(int link_type);

// Whether the frame was cut by the capture's snap length: fewer bytes
// stored than it had on the wire.
inline bool snapped(const Frame &frame) { return frame.bytes.size() < frame.wire_length; }

// Why the file at `path` cannot be read as a capture ("not a pcap or pcapng
// capture", the system's reason for an unopenable file, an unsupported link
// type), or an empty string when it can.  Reads only the file's header.
std::string capture_problem(const std::string &path);

// Whether the file at `path` starts like a pcap or pcapng capture.
bool looks_like_capture(const std::string &path);

// Calls `visit` for every frame of the capture file at `path` (pcap or
// pcapng).  Returns an empty string on success, else the error text.
// While the file is read, a progress line (frames, bytes, frames per second,
// percent of the file) is kept up to date on standard error when standard
// error is a terminal; it is erased when the file is done.
std::string for_each_frame(const std::string &path, const std::function<void(const Frame &)> &visit);

// When to stop a live capture: after `count` frames (0: no limit), after
// `seconds` (0: no limit), or on an interrupt (Ctrl-C) or a termination
// request (SIGTERM), whichever is first.
struct LiveLimits {
  std::size_t count = 0;
  double seconds = 0;
};

// Captures on the network interface `interface` through libpcap and calls
// `visit` for every frame until a limit of `limits` is reached; `tick` is
// called about once a second.  Returns an empty string when the capture ran
// (and stopped by a limit or an interrupt), else the error text; `opened`
// tells whether the interface could be captured on at all.
std::string for_each_live_frame(const std::string &interface, const LiveLimits &limits,
                                const std::function<void(const Frame &)> &visit, const std::function<void()> &tick,
                                bool &opened);

}  // namespace tool
