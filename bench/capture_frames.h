// What the classifier benchmarks share: the Ethernet frames of the bundled
// captures with their descriptors, the one-rule filters written in both
// libpcap's filter language and the classifier's rule text, and timing by
// interleaved repetitions keeping the minimum.
#ifndef NIKERKIOG_BENCH_CAPTURE_FRAMES_H
#define NIKERKIOG_BENCH_CAPTURE_FRAMES_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "frame_desc.h"
#include "nikerkiog.h"
#include "pcap_file.h"

namespace benchsupport {

inline const char *const kCaptures[] = {
    "02-sunrise-sunset-esp.pcap", "802.1ad_QinQ.pcap",      "IGMP_V2.pcap",          "dhcp-mud.pcap",
    "dhcp-option-33.pcap",        "dhcp-rfc3004.pcap",      "dhcp-rfc5859.pcap",     "dns_udp.pcap",
    "icmpv6.pcap",                "igmpv3-queries.pcap",    "ipv4_tcp_http_xml.pcap", "ipv6-routing-header.pcap",
    "ipv6_no_next_header.pcap"};

struct Frame {
  std::vector<std::uint8_t> bytes;
  nuv_clfy_packet desc{};
  std::string origin;  // "capture #n"
};

// The Ethernet frames of the captures under `dir` (libpcap's filters read
// Ethernet headers), each with the descriptor the data path would hand
// over.  Exits with a message naming `program` when a capture is unreadable.
inline std::vector<Frame> read_capture_frames(const char *program, const std::string &dir) {
  std::vector<Frame> frames;
  for (const char *name : kCaptures) {
    testsupport::Capture capture;
    const std::string error = testsupport::read_pcap_file(dir + "/" + name, capture);
    if (!error.empty()) {
      std::fprintf(stderr, "%s: %s\n", program, error.c_str());
      std::exit(1);
    }
    if (capture.link_type != testsupport::kLinkEthernet) continue;
    for (testsupport::CapturedPacket &packet : capture.packets) {
      Frame f;
      f.bytes = std::move(packet.data);
      f.origin = std::string(name) + " #" + std::to_string(packet.number);
      frames.push_back(std::move(f));
    }
  }
  // Descriptors point into the frames' buffers, which no longer move now.
  std::vector<Frame> described;
  for (Frame &f : frames) {
    if (!testsupport::describe_frame(f.bytes, testsupport::kLinkEthernet, f.desc)) continue;
    f.desc.dev_ifindex = 1;
    described.push_back(std::move(f));
  }
  return described;
}

// One question in both languages.
struct OneRule {
  const char *bpf;
  const char *rule;
};
inline constexpr OneRule kOneRules[] = {
    {"tcp dst port 80", "tcp.dport 80"},
    {"udp dst port 53", "udp.dport 53"},
    {"ip6", "ip.version 6"},
    {"src net 10.0.0.0/8 and udp dst port 53", "ip.saddr 10.0.0.0/8 udp.dport 53"},
};

// ---- Timing: interleaved repetitions, minimum kept ----

using Clock = std::chrono::steady_clock;

struct Timed {
  std::string name;
  std::function<void()> run;  // one batch
  double units;               // what one batch counts (packets, rules tried, rules parsed)
  double best = 1e300;        // seconds per batch
  double per_unit() const { return best / units; }
};

inline void measure(const std::vector<Timed *> &cases, int repetitions) {
  for (int r = 0; r < repetitions; ++r) {
    for (Timed *t : cases) {
      const auto start = Clock::now();
      t->run();
      const double s = std::chrono::duration<double>(Clock::now() - start).count();
      t->best = std::min(t->best, s);
    }
  }
}

// Seconds `work` takes, the fastest of `repetitions` runs.
inline double fastest_seconds(int repetitions, const std::function<void()> &work) {
  double best = 1e300;
  for (int r = 0; r < repetitions; ++r) {
    const auto start = Clock::now();
    work();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
  }
  return best;
}

}  // namespace benchsupport

#endif
