// The generated rule sets and packet traces (scripts/gen-rulesets.py) as the
// benchmarks and host tests use them: rule text lines, their five header
// fields, and each traced packet as an Ethernet frame with the classifier's
// descriptor.  Host-only (no test framework, no cross build).
#ifndef NIKERKIOG_RULESET_FILES_H
#define NIKERKIOG_RULESET_FILES_H

#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "frame_desc.h"
#include "nikerkiog.h"

namespace testsupport {

// An address/port/protocol rule as five header fields; `expressible` is
// false for a rule only the classifier expresses (IPv6, VLAN, device).
struct TupleRule {
  bool expressible = false;
  std::uint32_t src = 0, dst = 0;  // host order
  std::uint8_t src_len = 0, dst_len = 0;
  int proto = -1;  // -1: any protocol
  std::vector<std::pair<std::uint16_t, std::uint16_t>> sports, dports;  // empty: any port
};

// Kinds of traced packets.
enum class TraceKind {
  kHit,       // drawn from inside an address/port rule
  kMiss,      // applies to no rule of the set
  kExtended,  // IPv6, VLAN-tagged or from another device: classifier only
};

// One traced packet, its frame and its descriptor.  The descriptor points
// into `frame`: keep the record where it is once described (see read_trace).
struct TracedPacket {
  TraceKind kind = TraceKind::kHit;
  std::uint32_t ifindex = 1;
  std::string line;  // as written in the trace, for messages
  std::vector<std::uint8_t> frame;
  nuv_clfy_packet desc{};
  // Offset of the IPv4 header in `frame` (0 for IPv6).
  std::size_t ip4_offset = 0;
};

inline std::vector<std::string> content_lines(const std::string &path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  return lines;
}

// "a.b.c.d/len" into host-order address and length.
inline bool read_prefix(const std::string &text, std::uint32_t &addr, std::uint8_t &len) {
  const std::size_t slash = text.find('/');
  in_addr a{};
  if (slash == std::string::npos || inet_pton(AF_INET, text.substr(0, slash).c_str(), &a) != 1) return false;
  addr = ntohl(a.s_addr);
  len = static_cast<std::uint8_t>(std::stoi(text.substr(slash + 1)));
  return len <= 32;
}

// "*" or "lo-hi,lo-hi".
inline std::vector<std::pair<std::uint16_t, std::uint16_t>> read_ports(const std::string &text) {
  std::vector<std::pair<std::uint16_t, std::uint16_t>> ranges;
  if (text == "*") return ranges;
  std::stringstream list(text);
  for (std::string range; std::getline(list, range, ',');) {
    const std::size_t dash = range.find('-');
    ranges.emplace_back(static_cast<std::uint16_t>(std::stoul(range.substr(0, dash))),
                        static_cast<std::uint16_t>(std::stoul(range.substr(dash + 1))));
  }
  return ranges;
}

inline std::vector<TupleRule> read_tuples(const std::string &path) {
  std::vector<TupleRule> rules;
  for (const std::string &line : content_lines(path)) {
    TupleRule r;
    std::istringstream words(line);
    std::string src, dst, proto, sports, dports;
    words >> src >> dst >> proto >> sports >> dports;
    if (src != "-") {
      r.expressible = read_prefix(src, r.src, r.src_len) && read_prefix(dst, r.dst, r.dst_len);
      r.proto = proto == "*" ? -1 : std::stoi(proto);
      r.sports = read_ports(sports);
      r.dports = read_ports(dports);
    }
    rules.push_back(std::move(r));
  }
  return rules;
}

// ---- Frames of traced packets ----

inline void put16(std::vector<std::uint8_t> &f, std::uint16_t v) {
  f.push_back(static_cast<std::uint8_t>(v >> 8));
  f.push_back(static_cast<std::uint8_t>(v));
}

inline void put_transport(std::vector<std::uint8_t> &f, int proto, std::uint16_t sport, std::uint16_t dport) {
  if (proto == 6) {
    put16(f, sport), put16(f, dport);
    for (int i = 0; i < 8; ++i) f.push_back(static_cast<std::uint8_t>(i + 1));  // sequence, acknowledgement
    f.push_back(0x50), f.push_back(0x18);                                          // 20-byte header, PSH ACK
    put16(f, 8192), put16(f, 0), put16(f, 0);
  } else if (proto == 17) {
    put16(f, sport), put16(f, dport), put16(f, 8 + 8), put16(f, 0);
  } else if (proto == 1 || proto == 58) {
    f.push_back(proto == 1 ? 8 : 128), f.push_back(0);  // echo request
    put16(f, 0), put16(f, 0x1234), put16(f, 1);
  } else {
    for (int i = 0; i < 8; ++i) f.push_back(0);
  }
  for (int i = 0; i < 8; ++i) f.push_back(static_cast<std::uint8_t>('a' + i));  // payload
}

inline std::uint16_t ip4_checksum(const std::uint8_t *h) {
  std::uint32_t sum = 0;
  for (int i = 0; i < 20; i += 2) sum += static_cast<std::uint32_t>(h[i] << 8 | h[i + 1]);
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

// The Ethernet frame of a trace line's packet; false for a line it cannot read.
inline bool build_frame(TracedPacket &p) {
  std::istringstream words(p.line);
  std::string kind, vlan, src, dst, sport, dport;
  int proto = 0;
  if (!(words >> kind >> p.ifindex >> vlan >> src >> dst >> proto >> sport >> dport)) return false;
  p.kind = kind == "hit" ? TraceKind::kHit : kind == "miss" ? TraceKind::kMiss : TraceKind::kExtended;
  const std::uint16_t sp = sport == "-" ? 0 : static_cast<std::uint16_t>(std::stoul(sport));
  const std::uint16_t dp = dport == "-" ? 0 : static_cast<std::uint16_t>(std::stoul(dport));
  const bool v6 = src.find(':') != std::string::npos;
  std::vector<std::uint8_t> &f = p.frame;
  const std::uint8_t macs[12] = {0x02, 0, 0, 0, 0, 1, 0x02, 0, 0, 0, 0, 2};
  f.assign(macs, macs + 12);
  if (vlan != "-") put16(f, 0x8100), put16(f, static_cast<std::uint16_t>(std::stoul(vlan)));
  put16(f, v6 ? 0x86dd : 0x0800);
  std::vector<std::uint8_t> l4;
  put_transport(l4, proto, sp, dp);
  if (v6) {
    std::uint8_t a[16], b[16];
    if (inet_pton(AF_INET6, src.c_str(), a) != 1 || inet_pton(AF_INET6, dst.c_str(), b) != 1) return false;
    put16(f, 0x6000), put16(f, 0), put16(f, static_cast<std::uint16_t>(l4.size()));
    f.push_back(static_cast<std::uint8_t>(proto)), f.push_back(64);
    f.insert(f.end(), a, a + 16), f.insert(f.end(), b, b + 16);
  } else {
    in_addr a{}, b{};
    if (inet_pton(AF_INET, src.c_str(), &a) != 1 || inet_pton(AF_INET, dst.c_str(), &b) != 1) return false;
    p.ip4_offset = f.size();
    put16(f, 0x4500), put16(f, static_cast<std::uint16_t>(20 + l4.size())), put16(f, 0x1c46), put16(f, 0x4000);
    f.push_back(64), f.push_back(static_cast<std::uint8_t>(proto)), put16(f, 0);
    const auto *sa = reinterpret_cast<const std::uint8_t *>(&a.s_addr);
    const auto *da = reinterpret_cast<const std::uint8_t *>(&b.s_addr);
    f.insert(f.end(), sa, sa + 4), f.insert(f.end(), da, da + 4);
    const std::uint16_t sum = ip4_checksum(f.data() + p.ip4_offset);
    f[p.ip4_offset + 10] = static_cast<std::uint8_t>(sum >> 8);
    f[p.ip4_offset + 11] = static_cast<std::uint8_t>(sum);
  }
  f.insert(f.end(), l4.begin(), l4.end());
  return true;
}

// The packets of a trace, each with its frame and descriptor.  Empty when
// the file is missing or a line cannot be read (`error` says which).
inline std::vector<TracedPacket> read_trace(const std::string &path, std::string &error) {
  std::vector<TracedPacket> packets;
  for (const std::string &line : content_lines(path)) {
    TracedPacket p;
    p.line = line;
    if (!build_frame(p)) {
      error = path + ": unreadable packet line: " + line;
      return {};
    }
    packets.push_back(std::move(p));
  }
  if (packets.empty()) error = path + ": no packets";
  // Described only now: the frames no longer move.
  for (TracedPacket &p : packets) {
    describe_frame(p.frame, kLinkEthernet, p.desc);
    p.desc.dev_ifindex = p.ifindex;
  }
  return packets;
}

// The receiving devices of the generated rules, by name: eth0 is index 1.
inline int ifindex_of(const char *name) {
  if (std::strncmp(name, "eth", 3) != 0) return -1;
  return std::atoi(name + 3) + 1;
}

// Parses the rule lines into a linear set, numbering each rule's result
// 1, 2, ... in line order and resolving its device.  False (with `error`)
// for a line the parser refuses.
inline bool fill_numbered_set(const std::vector<std::string> &lines, nuv_clfy_set &set, std::string &error) {
  nuv_clfy *last = nullptr;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    nuv_clfy *rule = nullptr;
    if (nuv_clfy_parse(lines[i].c_str(), &rule) != 0) {
      error = "the classifier refuses rule " + std::to_string(i + 1) + ": " + lines[i];
      return false;
    }
    rule->result = static_cast<std::uint16_t>(i + 1);
    if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = ifindex_of(rule->dev);
    last = nuv_clfy_add_tail_after(&set, last, rule);
  }
  return true;
}

// A search's answer as a rule number: 0 for none.
inline unsigned rule_number(const nuv_clfy *rule) { return rule ? rule->result : 0u; }

}  // namespace testsupport

#endif
