// Helpers shared by the test programs: reference data paths, a small pcap
// reader (no libpcap, so it also runs on the cross targets), byte helpers
// and a guard that checks nothing allocated through the platform leaks.
#ifndef NIKERKIOG_TESTSUPPORT_H
#define NIKERKIOG_TESTSUPPORT_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "pcap_file.h"

namespace testsupport {

using Bytes = std::vector<std::uint8_t>;

// Path of a file in the repository's test data (tests/data/: captures, the
// IANA registry, rule files).  A missing file fails the current test with a
// message naming it.
std::string data_path(std::string_view relative);
// Path of a file in the source tree (tests/data/..., examples/...).
std::string source_path(std::string_view relative);
// Whole contents of a file as text; fails the current test when unreadable.
std::string read_text_file(const std::string &path);

// Bytes from a hex text; blanks, colons and newlines between bytes are ignored.
Bytes hex_bytes(std::string_view hex);
// "45 00 00 54 ..." for diagnostics.
std::string to_hex(const std::uint8_t *data, std::size_t len);

// The protocol keywords of the IANA protocol-number registry copy
// (tests/data/iana-protocol-numbers.csv), by number: every row that names a
// single number, with its keyword as written there (the empty text for rows
// without one).  Rows naming a range of numbers ("146-252") are left out.
// Read once; fails the current test when the file is unreadable.
const std::map<int, std::string> &iana_protocol_keywords();

// Link types of the captures.
inline constexpr std::uint32_t kLinkNull = 0;  // BSD loopback: 4-byte address family
inline constexpr std::uint32_t kLinkEthernet = 1;
inline constexpr std::uint32_t kLinkRaw = 101;
inline constexpr std::uint32_t kLinkLinuxCooked = 113;
inline constexpr std::uint32_t kLinkIpv4 = 228;  // bare IPv4 packets
inline constexpr std::uint32_t kLinkIpv6 = 229;  // bare IPv6 packets

// Reads a classic pcap file (see read_pcap_file).  Fails the current test
// when the file is unreadable or malformed.
Capture read_pcap(const std::string &path);

// Where the network layer of a captured frame starts.
struct NetworkLayer {
  std::size_t offset = 0;          // of the IP header in the frame
  std::uint16_t ethertype = 0;     // 0x0800, 0x86DD, ...
  std::vector<std::uint16_t> vlan_ids;  // outer first
  bool found = false;
};
NetworkLayer find_network_layer(const Capture &capture, const CapturedPacket &packet);

// Every IPv4/IPv6 packet of every capture in the shared captures folder,
// as {capture file name, frame number, IP bytes (copied, so that reads past
// the end are caught by AddressSanitizer)}.
struct IpPacket {
  std::string capture;
  std::size_t number;
  std::uint16_t ethertype;
  Bytes ip;
};
std::vector<IpPacket> all_captured_ip_packets();
// Names of all .pcap files in the shared captures folder, sorted.
std::vector<std::string> capture_names();

// Counts of live platform allocations (slab, scratch stack, memory blocks).
struct LiveBlocks {
  long slab;
  long cmemstack;
  long memblock;
  bool operator==(const LiveBlocks &) const = default;
};
LiveBlocks live_blocks();

// Checks at scope exit that no platform allocation made inside the scope is
// still live, and switches fault injection off again.
class NoLeakGuard {
 public:
  NoLeakGuard();
  ~NoLeakGuard();
  NoLeakGuard(const NoLeakGuard &) = delete;
  NoLeakGuard &operator=(const NoLeakGuard &) = delete;

 private:
  LiveBlocks before_;
};

// Whether a program can be run on the build machine (tshark, /usr/bin/python3 ...).
bool have_program(const char *name);
// Runs a shell command and returns what it printed on standard output.
std::string run_command(const std::string &command, int *exit_status = nullptr);

}  // namespace testsupport

#endif
