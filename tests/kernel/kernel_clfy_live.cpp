// The kernel's tc classifier at a real interface's ingress, against the
// library.  At ingress the kernel takes a frame's outer 802.1Q or 802.1ad
// tag out of the frame into the packet's metadata before the program runs,
// which test runs cannot do: here frames go through a veth pair, written
// on one end with a packet socket, and the program attached to the other
// end's ingress counts the rule it picks.  That rule must be the one the
// library picks for the same frame, read as the tool reads a captured one
// (the outer tag as the record's VLAN tag, the Ethernet type behind every
// tag).  Runs in a network namespace of its own; needs root and BPF, which
// CI has.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "nikerkiog.h"
#include "nuvkclfy.h"

namespace {

constexpr char kSender[] = "kclv0";
constexpr char kReceiver[] = "kclv1";

using Bytes = std::vector<std::uint8_t>;

// A frame: Ethernet addresses, VLAN tags (TPID and control word, outer
// first), the Ethernet type and the payload.
struct Tag {
  std::uint16_t tpid;
  std::uint16_t tci;
};

void put16(Bytes &b, std::uint16_t v) {
  b.push_back(static_cast<std::uint8_t>(v >> 8));
  b.push_back(static_cast<std::uint8_t>(v));
}

Bytes ethernet(const std::vector<Tag> &tags, std::uint16_t type, const Bytes &payload) {
  Bytes f = {0x02, 0, 0, 0, 0, 0xfe, 0x02, 0, 0, 0, 0, 0x01};
  for (const Tag &t : tags) {
    put16(f, t.tpid);
    put16(f, t.tci);
  }
  put16(f, type);
  f.insert(f.end(), payload.begin(), payload.end());
  return f;
}

Bytes udp4(std::uint8_t src_last, std::uint16_t dport) {
  Bytes ip = {0x45, 0, 0, 36, 0, 0, 0, 0, 64, 17, 0, 0, 10, 1, 2, src_last, 192, 0, 2, 1};
  put16(ip, 40000);
  put16(ip, dport);
  put16(ip, 16);
  put16(ip, 0);
  ip.insert(ip.end(), 8, 'x');
  return ip;
}

Bytes udp6(std::uint16_t dport) {
  Bytes ip = {0x60, 0, 0, 0, 0, 16, 17, 64};
  for (int side = 0; side < 2; ++side) {
    Bytes a = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(side + 1)};
    ip.insert(ip.end(), a.begin(), a.end());
  }
  put16(ip, 40000);
  put16(ip, dport);
  put16(ip, 16);
  put16(ip, 0);
  ip.insert(ip.end(), 8, 'y');
  return ip;
}

Bytes arp() {
  Bytes a = {0, 1, 8, 0, 6, 4, 0, 1, 0x02, 0, 0, 0, 0, 0x01, 10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 10, 1, 2, 1};
  return a;
}

bool is_tag(std::uint16_t type) { return type == 0x8100 || type == 0x88a8 || type == 0x9100; }

// The library's record of a frame as the tool builds it from a capture:
// the outer tag as the VLAN tag, the type behind every tag, the IP packet
// behind them (copied with zero bytes after it).
struct Record {
  nuv_clfy_packet packet{};
  Bytes ip;
  Record(const Bytes &f, std::uint32_t ifindex) {
    packet.dev_ifindex = ifindex;
    packet.eth_header = f.data();
    std::size_t at = 12;
    std::uint16_t type = static_cast<std::uint16_t>(f[at] << 8 | f[at + 1]);
    bool outer = true;
    while (is_tag(type)) {
      const auto tci = static_cast<std::uint16_t>(f[at + 2] << 8 | f[at + 3]);
      if (outer) packet.vlan_tci = static_cast<std::uint16_t>((tci & 0xEFFF) | NUV_CLFY_VLAN_TAG_PRESENT);
      outer = false;
      at += 4;
      type = static_cast<std::uint16_t>(f[at] << 8 | f[at + 1]);
    }
    std::memcpy(&packet.eth_proto, &f[at], 2);
    ip.assign(f.begin() + static_cast<std::ptrdiff_t>(at + 2), f.end());
    packet.ip_len = static_cast<std::uint32_t>(ip.size());
    ip.resize(ip.size() + 64, 0);
    packet.ip_header = ip.data();
  }
};

int run(const std::string &command) { return std::system((command + " >/dev/null 2>&1").c_str()); }

bool write_file(const char *path, const char *text) {
  int fd = open(path, O_WRONLY);
  if (fd < 0) return false;
  bool ok = write(fd, text, std::strlen(text)) == static_cast<ssize_t>(std::strlen(text));
  close(fd);
  return ok;
}

// The rules, with `dev` conditions resolved against this namespace's
// interfaces, in first-match order; the last one holds for every frame that
// arrives, so that every delivered frame counts one hit.
const std::vector<std::pair<std::string, std::uint16_t>> kRules = {
    {"dev kclv0 ip.version 4", 1},  // the sending end: no frame arrives there
    {"vlan.id 100 vlan.prio 5 ip.proto udp", 2},
    {"vlan.id 200 ip.version 6", 3},
    {"vlan.id 5", 4},
    {"vlan.id 0-9 vlan.prio 7", 5},
    {"vlan.id !=100 eth.proto 0x0806", 6},
    {"vlan.id 300-4095 udp.dport 53", 7},
    {"vlan.id 100 eth.proto 0x0806", 8},
    {"eth.proto 0x0800 ip.saddr 10.1.2.0/28", 9},
    {"vlan.prio 3", 10},
    {"eth.proto 0x86dd udp.dport 53", 11},
    {"dev kclv1", 12},
};

class Live : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << std::strerror(errno);
    // Nothing but the test's frames may reach the program: no IPv6
    // addresses (no solicitations, no listener reports) on the pair.
    ASSERT_TRUE(write_file("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1"));
    ASSERT_EQ(run(std::string("ip link add ") + kSender + " type veth peer name " + kReceiver), 0);
    ASSERT_EQ(run(std::string("ip link set ") + kReceiver + " up"), 0);
    ASSERT_EQ(run(std::string("ip link set ") + kSender + " up"), 0);
    sender_ = static_cast<int>(if_nametoindex(kSender));
    receiver_ = static_cast<int>(if_nametoindex(kReceiver));
    ASSERT_GT(sender_, 0);
    ASSERT_GT(receiver_, 0);

    nuv_clfy *last = nullptr;
    for (const auto &[text, result] : kRules) {
      std::string copy = text;
      nuv_clfy *rule = nullptr;
      ASSERT_EQ(nuv_clfy_parse(copy.data(), &rule), 0) << text;
      rule->result = result;
      if (rule->flags & NUV_CLFY_F_DEV) rule->dev_ifindex = static_cast<std::int32_t>(if_nametoindex(rule->dev));
      last = nuv_clfy_add_tail_after(&set_, last, rule);
    }
    ASSERT_EQ(nuv_clfy_set_compile(&set_, &compiled_), NUV_CLFY_COMPILE_OK);

    char why[1024] = "";
    int rc = nuv_kclfy_open(nullptr, &kernel_, why, sizeof why);
    ASSERT_EQ(rc, NUV_KCLFY_OK) << nuv_kclfy_strerror(rc) << ": " << why;
    rc = nuv_kclfy_load_set(kernel_, compiled_, why, sizeof why);
    ASSERT_EQ(rc, NUV_KCLFY_OK) << nuv_kclfy_strerror(rc) << ": " << why;
    rc = nuv_kclfy_attach(kernel_, receiver_, 0, why, sizeof why);
    ASSERT_EQ(rc, NUV_KCLFY_OK) << nuv_kclfy_strerror(rc) << ": " << why;

    socket_ = socket(AF_PACKET, SOCK_RAW, 0);
    ASSERT_GE(socket_, 0) << std::strerror(errno);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = sender_;
    ASSERT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&to), sizeof to), 0) << std::strerror(errno);
  }

  void TearDown() override {
    if (socket_ >= 0) close(socket_);
    nuv_kclfy_close(kernel_);
    nuv_clfy_compiled_free(compiled_);
    nuv_clfy_del_and_free_all(&set_);
    run(std::string("ip link del ") + kSender);
  }

  // Every rule's kernel hits, then every ask reason's count.
  std::vector<std::uint64_t> counts() {
    std::vector<std::uint64_t> all;
    for (std::uint32_t i = 0; i < nuv_kclfy_rule_count(kernel_); ++i) {
      std::uint64_t hits = 0;
      EXPECT_EQ(nuv_kclfy_rule_hits(kernel_, i, &hits), NUV_KCLFY_OK);
      all.push_back(hits);
    }
    std::array<std::uint64_t, NUV_KCLFY_ASKED_REASONS> asked{};
    EXPECT_EQ(nuv_kclfy_asked(kernel_, asked.data()), NUV_KCLFY_OK);
    all.insert(all.end(), asked.begin(), asked.end());
    return all;
  }

  // Sends the frame and waits (a bounded number of short polls) until the
  // program has counted it.  Returns the counts that grew.
  std::vector<std::size_t> send_and_count(const Bytes &frame) {
    const auto before = counts();
    EXPECT_EQ(send(socket_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size())) << std::strerror(errno);
    std::vector<std::size_t> grew;
    for (int poll = 0; poll < 2000 && grew.empty(); ++poll) {
      const auto after = counts();
      for (std::size_t i = 0; i < after.size(); ++i)
        if (after[i] != before[i]) grew.push_back(i);
      if (grew.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return grew;
  }

  // The kernel's counter the library's verdict predicts: the image index
  // of the library's rule.
  std::size_t predicted(const Bytes &frame) {
    Record record(frame, static_cast<std::uint32_t>(receiver_));
    nuv_clfy *rule = nuv_clfy_compiled_get_clfy(compiled_, 0, &record.packet);
    for (std::uint32_t i = 0; i < nuv_kclfy_rule_count(kernel_); ++i)
      if (rule && nuv_kclfy_rule(kernel_, i) == rule) return i;
    return SIZE_MAX;
  }

  std::string counter_name(std::size_t index) {
    const std::uint32_t rules = nuv_kclfy_rule_count(kernel_);
    if (index == SIZE_MAX) return "no rule";
    if (index < rules) return "the rule => " + std::to_string(nuv_kclfy_rule(kernel_, static_cast<std::uint32_t>(index))->result);
    return "asked userspace (reason " + std::to_string(index - rules) + ")";
  }

  nuv_clfy_set set_{};
  nuv_clfy_compiled *compiled_ = nullptr;
  nuv_kclfy *kernel_ = nullptr;
  int sender_ = 0, receiver_ = 0, socket_ = -1;
};

struct LiveFrame {
  const char *what;
  Bytes bytes;
};

std::vector<LiveFrame> live_frames() {
  const std::uint16_t q = 0x8100, ad = 0x88a8;
  return {
      {"untagged IPv4 from the rules' /28", ethernet({}, 0x0800, udp4(3, 9))},
      {"untagged IPv4 outside the /28", ethernet({}, 0x0800, udp4(16, 9))},
      {"untagged IPv6 to port 53", ethernet({}, 0x86dd, udp6(53))},
      {"untagged ARP", ethernet({}, 0x0806, arp())},
      {"tag 100 priority 5, UDP", ethernet({{q, 0xA064}}, 0x0800, udp4(16, 9))},
      {"tag 100 priority 5 drop-eligible, UDP", ethernet({{q, 0xB064}}, 0x0800, udp4(16, 9))},
      {"tag 100 priority 4, UDP", ethernet({{q, 0x8064}}, 0x0800, udp4(16, 9))},
      {"tag 100, ARP", ethernet({{q, 0x0064}}, 0x0806, arp())},
      {"tag 101, ARP", ethernet({{q, 0x0065}}, 0x0806, arp())},
      {"tag 200, IPv6", ethernet({{q, 0x00C8}}, 0x86dd, udp6(9))},
      {"tag 5 priority 7", ethernet({{q, 0xE005}}, 0x0800, udp4(16, 9))},
      {"priority tag (id 0) priority 7", ethernet({{q, 0xE000}}, 0x0800, udp4(16, 9))},
      {"tag 4095 to port 53", ethernet({{q, 0x0FFF}}, 0x0800, udp4(16, 53))},
      {"tag 300 priority 3", ethernet({{q, 0x612C}}, 0x0800, udp4(16, 9))},
      {"QinQ outer 200 inner 5, IPv6", ethernet({{ad, 0x00C8}, {q, 0x0005}}, 0x86dd, udp6(9))},
      {"QinQ outer 5 inner 200, IPv6", ethernet({{ad, 0x0005}, {q, 0x00C8}}, 0x86dd, udp6(9))},
      {"QinQ outer 100 priority 5 inner 200", ethernet({{ad, 0xA064}, {q, 0x00C8}}, 0x0800, udp4(16, 9))},
      {"two 802.1Q tags, outer 300", ethernet({{q, 0x012C}, {q, 0x0005}}, 0x0800, udp4(16, 53))},
      {"0x9100 tag 5 (stays in the frame)", ethernet({{0x9100, 0x0005}}, 0x0800, udp4(16, 9))},
      {"outer 100 then 0x9100 tag 200", ethernet({{q, 0xA064}, {0x9100, 0x00C8}}, 0x0800, udp4(16, 9))},
      // Five tags: the outer one in the metadata and four in the frame,
      // which the program reads.
      {"five tags, outer 100 priority 5", ethernet({{ad, 0xA064}, {q, 1}, {q, 2}, {q, 3}, {q, 4}}, 0x0800, udp4(16, 9))},
      {"five tags, outer 7, IPv6 to port 53", ethernet({{ad, 0x0007}, {q, 1}, {q, 2}, {q, 3}, {q, 4}}, 0x86dd, udp6(53))},
  };
}

TEST_F(Live, EveryFrameCountsTheRuleTheLibraryPicksWithTheOuterTagInMetadata) {
  for (const LiveFrame &f : live_frames()) {
    SCOPED_TRACE(f.what);
    const std::size_t want = predicted(f.bytes);
    ASSERT_NE(want, SIZE_MAX) << "the last rule holds for every frame that arrives";
    const auto grew = send_and_count(f.bytes);
    ASSERT_EQ(grew.size(), 1u) << "one counter must grow once the frame arrives (none: not delivered)";
    EXPECT_EQ(counter_name(grew[0]), counter_name(want));
  }
}

// Six tags: one in the metadata and five in the frame, one more than the
// program reads, so it asks userspace; the same frame with five tags
// above was decided, which it can only be with the outer tag out of the frame.
TEST_F(Live, AFrameWithMoreTagsThanTheProgramReadsBehindTheOuterOneIsAskedAbout) {
  const std::uint16_t q = 0x8100;
  const Bytes six = ethernet({{0x88a8, 0xA064}, {q, 1}, {q, 2}, {q, 3}, {q, 4}, {q, 5}}, 0x0800, udp4(16, 9));
  const auto grew = send_and_count(six);
  ASSERT_EQ(grew.size(), 1u);
  EXPECT_EQ(counter_name(grew[0]), "asked userspace (reason " + std::to_string(NUV_KCLFY_ASKED_LINK) + ")");
}

// The tags in the metadata: a frame whose only tag is 802.1Q id 100 hits
// the vlan.id rule, so the program saw the tag where the kernel put it.
TEST_F(Live, ASingleTagTakenIntoMetadataIsReadAsTheFramesTag) {
  const Bytes tagged = ethernet({{0x8100, 0xA064}}, 0x0800, udp4(16, 9));
  const auto grew = send_and_count(tagged);
  ASSERT_EQ(grew.size(), 1u);
  EXPECT_EQ(counter_name(grew[0]), "the rule => 2");
}

}  // namespace
