// DHCP messages of captured frames, decoded by the library's option store.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

#include "capture.h"

namespace tool {

// One vendor sub-option as the library's vendor lookups find it.
struct DhcpSubOption {
  bool has_enterprise = false;
  std::uint32_t enterprise = 0;  // options 124 and 125
  unsigned code = 0;
  std::vector<std::uint8_t> value;
};

// One option as the option store holds it (instances joined, overloaded
// fields included), with its name in the configuration schema and its value
// rendered by the option's format.
struct DhcpOptionReport {
  unsigned code = 0;
  std::string name;    // member name in the configuration schema, empty when none
  std::string format;  // the option's format in the option format table
  std::vector<std::uint8_t> value;
  std::string text;    // the value rendered by the format
  nlohmann::json typed;  // the value by its format: number, text or array; null for opaque or misfit values
  std::string misfit;  // why the length does not fit the format, empty when it does
  std::vector<DhcpSubOption> suboptions;
};

// One DHCP message found in a frame.
struct DhcpReport {
  std::size_t frame = 0;
  std::string description;  // the IP packet in one line
  std::vector<std::pair<std::string, std::string>> header;  // field name, text as rules match it
  std::vector<nlohmann::json> header_values;  // the same fields for JSON: sname and file as plain text
  std::vector<std::string> overloaded;  // "file", "sname": fields that hold options
  std::vector<DhcpOptionReport> options;  // in code order
  std::string problem;  // why the options area could not be read (fully), empty when fine
};

// The DHCP message of a frame (IPv4 UDP to or from port 67 or 68), or
// nothing when the frame holds none.  A message that is not fully captured
// or shorter than its fixed part is reported with a problem text.
std::optional<DhcpReport> decode_dhcp(const Frame &frame);

// The report as indented text lines (each ending with a newline).
std::string format_dhcp(const std::string &file, const DhcpReport &report);

// The report as one JSON object.
nlohmann::json dhcp_json(const std::string &file, const DhcpReport &report);

}  // namespace tool
