// The IPv6 extension header walks on captured packets, checked against the
// header chain tshark dissects from the same packets.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "nuvpkt.h"
#include "testsupport.h"

namespace {

std::vector<std::string> split(const std::string &s, char sep) {
  std::vector<std::string> out;
  std::string item;
  std::istringstream in(s);
  while (std::getline(in, item, sep)) out.push_back(item);
  if (!s.empty() && s.back() == sep) out.emplace_back();
  return out;
}

const char *const kFields[] = {"frame.number",      "frame.protocols",  "ipv6.nxt",         "ipv6.plen",
                               "ipv6.hopopts.nxt",  "ipv6.hopopts.len", "ipv6.routing.nxt", "ipv6.routing.len",
                               "ipv6.dstopts.nxt",  "ipv6.dstopts.len", "ipv6.fraghdr.nxt"};

// One extension header as tshark saw it, in chain order.
struct ChainHeader {
  int type;  // 0, 43, 44, 60
  int next;
  int size;  // bytes
};

struct TsharkChain {
  int first_next = -1;
  int payload_length = -1;
  std::vector<ChainHeader> headers;
};

std::map<std::size_t, TsharkChain> tshark_chains(const std::string &capture) {
  std::string cmd = "tshark -r '" + testsupport::data_path("captures/" + capture) +
                    "' -o ipv6.defragment:FALSE -T fields -E separator='|' -E occurrence=a";
  for (const char *f : kFields) cmd += std::string(" -e ") + f;
  cmd += " 2>/dev/null";
  std::map<std::size_t, TsharkChain> chains;
  std::istringstream out(testsupport::run_command(cmd));
  std::string line;
  static const std::map<std::string, std::pair<int, std::string>> kLayers = {
      {"ipv6.hopopts", {0, "ipv6.hopopts"}},
      {"ipv6.routing", {43, "ipv6.routing"}},
      {"ipv6.dstopts", {60, "ipv6.dstopts"}},
      {"ipv6.fraghdr", {44, "ipv6.fraghdr"}}};
  while (std::getline(out, line)) {
    auto cols = split(line, '|');
    if (cols.size() != std::size(kFields)) continue;
    std::map<std::string, std::vector<std::string>> f;
    for (std::size_t i = 0; i < cols.size(); ++i) f[kFields[i]] = split(cols[i], ',');
    if (f["ipv6.nxt"].empty()) continue;
    TsharkChain chain;
    chain.first_next = std::stoi(f["ipv6.nxt"][0]);
    chain.payload_length = std::stoi(f["ipv6.plen"][0]);
    // Only the outermost IPv6 header's chain: the layers between the first
    // "ipv6" and the next non-extension layer.
    std::map<std::string, std::size_t> seen;
    bool in_ipv6 = false;
    for (const auto &layer : split(f["frame.protocols"][0], ':')) {
      if (!in_ipv6) {
        in_ipv6 = layer == "ipv6";
        continue;
      }
      auto it = kLayers.find(layer);
      if (it == kLayers.end()) break;
      std::size_t n = seen[layer]++;
      ChainHeader h{it->second.first, std::stoi(f[layer + ".nxt"].at(n)), 8};
      if (h.type != 44) h.size = (std::stoi(f[layer + ".len"].at(n)) + 1) * 8;
      chain.headers.push_back(h);
    }
    chains[std::stoul(f["frame.number"][0])] = chain;
  }
  return chains;
}

struct Expected {
  int offset;
  int next;
};

// Where each walk should stop, derived from tshark's chain.
Expected walk_from_header(const TsharkChain &c) {
  int offset = 40, next = c.first_next;
  for (const auto &h : c.headers) {
    if (next == 44 || next == 59) break;
    offset += h.size;
    next = h.next;
  }
  return {offset, next};
}

Expected raw_walk(const TsharkChain &c) {
  int offset = 40, next = c.first_next;
  for (const auto &h : c.headers) {
    if (next == 43 || next == 44 || next == 59) break;
    offset += h.size;
    next = h.next;
  }
  return {offset, next};
}

long fragment_offset(const TsharkChain &c) {
  long offset = 40;
  for (const auto &h : c.headers) {
    if (h.type == 44) return offset;
    offset += h.size;
  }
  return -1;
}

int expected_order(const TsharkChain &c) {
  for (std::size_t i = 1; i < c.headers.size(); ++i)
    if (c.headers[i].type == 0) return -2;
  return 1;
}

}  // namespace

TEST(Ip6ExthdrAgainstTshark, WalksAgreeOnTheExtensionHeaderCaptures) {
  if (!testsupport::have_program("tshark")) GTEST_SKIP() << "tshark not installed";
  std::size_t checked = 0, routed = 0, no_next = 0;
  std::map<std::string, std::map<std::size_t, TsharkChain>> tshark;
  for (const auto &pkt : testsupport::all_captured_ip_packets()) {
    if (pkt.ethertype != 0x86DD || pkt.ip.size() < 40) continue;
    if (!tshark.count(pkt.capture)) tshark[pkt.capture] = tshark_chains(pkt.capture);
    SCOPED_TRACE(pkt.capture + " frame " + std::to_string(pkt.number));
    ASSERT_TRUE(tshark[pkt.capture].count(pkt.number));
    const TsharkChain &chain = tshark[pkt.capture][pkt.number];
    std::size_t length = 40 + static_cast<std::size_t>(chain.payload_length);
    if (pkt.ip.size() < length) continue;  // cut short by the capture
    // Exactly the IPv6 packet, so reads past the payload are caught.
    std::unique_ptr<std::uint8_t[]> ip(new std::uint8_t[length]);
    std::memcpy(ip.get(), pkt.ip.data(), length);

    std::uint8_t nh = 0xEE;
    Expected from = walk_from_header(chain);
    EXPECT_EQ(ip6_skip_exthdr_from_ipv6hdr(ip.get(), &nh), from.offset);
    EXPECT_EQ(nh, from.next);

    Expected r = raw_walk(chain);
    nh = ip.get()[6];
    EXPECT_EQ(ip6_skip_exthdr_raw(ip.get(), static_cast<int>(length), 40, &nh), r.offset);
    EXPECT_EQ(nh, r.next);

    nuv_pktbuf buf{0, static_cast<std::uint32_t>(length), 0, ip.get()};
    const std::uint8_t *frag = ip6_find_fraghdr(&buf, ip.get());
    EXPECT_EQ(frag ? frag - ip.get() : -1, fragment_offset(chain));

    // A no-next-header value makes the order check read the bytes behind it,
    // which tshark shows as plain data: leave those packets out here.
    if (from.next != 59) {
      EXPECT_EQ(ip6_exthdr_order_is_valid_in_ipv6hdr(ip.get()), expected_order(chain));
    }

    ++checked;
    if (chain.first_next == 43) ++routed;
    if (from.next == 59) ++no_next;
  }
  EXPECT_GE(routed, 4u);
  EXPECT_GE(no_next, 1u);
  EXPECT_GE(checked, 20u);
}
