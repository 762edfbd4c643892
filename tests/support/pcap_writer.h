// A writer of classic pcap files for tests that build their own captures
// (truncated frames, generated traffic, hand-made DHCP messages).
#ifndef NIKERKIOG_PCAP_WRITER_H
#define NIKERKIOG_PCAP_WRITER_H

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <string>

#include "testsupport.h"

namespace testsupport {

// Writes `path` as a pcap file in the machine's byte order (the magic number
// tells readers which), microsecond stamps one second apart from 1 on.
class PcapWriter {
 public:
  explicit PcapWriter(const std::string &path, std::uint32_t link = kLinkEthernet)
      : path_(path), out_(path_, std::ios::binary) {
    u32(0xa1b2c3d4);
    u16(2);
    u16(4);
    u32(0);
    u32(0);
    u32(65535);
    u32(link);
  }
  // Adds `frame`, of which the first `captured` bytes are stored; it was
  // `wire_length` bytes long on the wire (0: as long as `frame`).
  void add(const Bytes &frame, std::size_t captured = SIZE_MAX, std::size_t wire_length = 0) {
    const std::size_t n = std::min(captured, frame.size());
    u32(seconds_++);
    u32(0);
    u32(static_cast<std::uint32_t>(n));
    u32(static_cast<std::uint32_t>(wire_length ? wire_length : frame.size()));
    out_.write(reinterpret_cast<const char *>(frame.data()), static_cast<std::streamsize>(n));
  }
  // Closes the file and returns its path.
  std::string close() {
    out_.close();
    return path_;
  }

 private:
  void u32(std::uint32_t v) { out_.write(reinterpret_cast<const char *>(&v), 4); }
  void u16(std::uint16_t v) { out_.write(reinterpret_cast<const char *>(&v), 2); }

  std::string path_;
  std::ofstream out_;
  std::uint32_t seconds_ = 1;
};

}  // namespace testsupport

#endif
