// One-line descriptions and checksum verdicts of captured packets.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "capture.h"

namespace tool {

// What `describe` says about one frame.
struct FrameReport {
  std::size_t number = 0;
  std::string description;  // the library's one-line description, when it could be made
  std::string problem;      // why there is no description ("truncated: ...", "not IP ...")
  std::vector<std::uint16_t> vlan_ids;
  bool pppoe = false;                 // the packet came in a PPPoE session frame
  std::uint16_t pppoe_session = 0;    // that frame's session id
  // Checksum verdicts in header order: {"ip", "ok"}, {"udp", "bad"}, {"tcp", "truncated"}, ...
  std::vector<std::pair<std::string, std::string>> checksums;
};

// Describes one frame.  Library functions are only handed packets that hold
// every byte they read; anything shorter is reported as truncated.
FrameReport describe_frame(const Frame &frame);

// The report as one text line (without the newline).
std::string format_report(const FrameReport &report);

}  // namespace tool
