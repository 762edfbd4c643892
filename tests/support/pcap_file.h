// The one reader of classic pcap capture files for tests and benchmarks
// (no libpcap and no test framework, so it also serves the benchmark
// programs and runs on the cross targets).
#ifndef NIKERKIOG_PCAP_FILE_H
#define NIKERKIOG_PCAP_FILE_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace testsupport {

struct CapturedPacket {
  std::size_t number;              // 1-based, as tshark numbers frames
  std::vector<std::uint8_t> data;  // the captured bytes (may be shorter than on the wire)
  std::uint32_t wire_length;
};

struct Capture {
  std::uint32_t link_type = 0;
  std::vector<CapturedPacket> packets;
};

namespace pcap_detail {

inline std::uint32_t read_u32(const std::uint8_t *p, bool big_endian) {
  return big_endian ? (std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3])
                    : (std::uint32_t{p[3]} << 24 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[1]} << 8 | p[0]);
}

}  // namespace pcap_detail

// Reads the classic pcap file at `path` (either byte order, micro- or
// nanosecond stamps) into `capture`.  Returns the empty text, or what is
// wrong with the file; `capture` then holds the records read before.
inline std::string read_pcap_file(const std::string &path, Capture &capture) {
  using pcap_detail::read_u32;
  capture = Capture();
  std::ifstream in(path, std::ios::binary);
  if (!in.good()) return path + ": cannot be read";
  const std::vector<std::uint8_t> raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (raw.size() < 24) return path + ": too short for a pcap header";
  const std::uint8_t *p = raw.data();
  const std::uint32_t magic = read_u32(p, false);
  bool big_endian;
  if (magic == 0xa1b2c3d4u || magic == 0xa1b23c4du) {
    big_endian = false;
  } else if (magic == 0xd4c3b2a1u || magic == 0x4d3cb2a1u) {
    big_endian = true;
  } else {
    return path + ": not a pcap file";
  }
  capture.link_type = read_u32(p + 20, big_endian) & 0x0FFFFFFFu;
  std::size_t pos = 24;
  std::size_t number = 0;
  while (pos + 16 <= raw.size()) {
    const std::uint32_t caplen = read_u32(p + pos + 8, big_endian);
    const std::uint32_t wirelen = read_u32(p + pos + 12, big_endian);
    pos += 16;
    if (caplen > raw.size() - pos) return path + ": record " + std::to_string(number + 1) + " runs past the end";
    capture.packets.push_back({++number, std::vector<std::uint8_t>(p + pos, p + pos + caplen), wirelen});
    pos += caplen;
  }
  return std::string();
}

}  // namespace testsupport

#endif
