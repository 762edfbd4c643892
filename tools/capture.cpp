#include "capture.h"

#include <pcap/pcap.h>

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

namespace tool {
namespace {

constexpr std::uint16_t kVlanTags[] = {0x8100, 0x88A8, 0x9100};
constexpr std::size_t kEthernetHeader = 14;
constexpr std::size_t kCookedHeader = 16;   // Linux cooked capture v1
constexpr std::size_t kCooked2Header = 20;  // Linux cooked capture v2
constexpr std::size_t kLoopbackHeader = 4;  // BSD loopback address family

std::uint16_t be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

bool is_vlan_tag(std::uint16_t type) {
  for (auto t : kVlanTags)
    if (t == type) return true;
  return false;
}

constexpr std::uint16_t kPppoeSession = 0x8864;
constexpr std::size_t kPppoeHeader = 6;  // version and type, code, session id, length
constexpr std::size_t kPppProtocol = 2;

// The PPP protocols carried in PPPoE sessions that hold IP packets, with
// the ethertype the packet has on the router's PPP interface.
struct PppIp {
  std::uint16_t ppp_protocol;
  std::uint16_t ethertype;
};
constexpr PppIp kPppIp[] = {{0x0021, 0x0800}, {0x0057, 0x86DD}};

// A PPPoE session frame whose session header starts at `at`: the router's
// PPP interface sees only the PPP payload, so an IP payload becomes the
// network layer.  A session header cut by the capture leaves the link
// layer incomplete.
void take_pppoe_session(Frame &f, std::size_t at) {
  if (f.bytes.size() < at + kPppoeHeader + kPppProtocol) {
    f.link_complete = false;
    return;
  }
  f.pppoe = true;
  f.pppoe_session = be16(&f.bytes[at + 2]);
  f.ppp_protocol = be16(&f.bytes[at + kPppoeHeader]);
  for (const auto &ip : kPppIp) {
    if (ip.ppp_protocol != f.ppp_protocol) continue;
    f.ethertype = ip.ethertype;
    f.network_offset = at + kPppoeHeader + kPppProtocol;
  }
}

// Walks VLAN tags from the ethertype at `at`; fills the frame's network layer.
void take_ethertype(Frame &f, std::size_t at) {
  auto b = f.bytes;
  std::uint16_t type = be16(&b[at]);
  at += 2;
  while (is_vlan_tag(type)) {
    if (b.size() < at + 4) return;
    f.vlan_tcis.push_back(be16(&b[at]));
    f.vlan_ids.push_back(be16(&b[at]) & 0x0FFF);
    type = be16(&b[at + 2]);
    at += 4;
  }
  f.ethertype = type;
  f.network_offset = at;
  f.link_complete = true;
  if (type == kPppoeSession) take_pppoe_session(f, at);
}

// Link types whose frames start with the IP header; DLT_RAW is numbered 12
// or 14 depending on the system that wrote the file, libpcap maps both.
constexpr int kRawIpLinkTypes[] = {DLT_RAW, DLT_IPV4, DLT_IPV6};

bool is_raw_ip(int link_type) {
  for (int t : kRawIpLinkTypes)
    if (t == link_type) return true;
  return false;
}

// The IP header starts at `at`; its version nibble gives the network type.
void take_raw_ip(Frame &f, std::size_t at) {
  if (f.bytes.size() <= at) return;
  unsigned version = f.bytes[at] >> 4;
  if (version != 4 && version != 6) return;
  f.ethertype = version == 4 ? 0x0800 : 0x86DD;
  f.network_offset = at;
  f.link_complete = true;
}

void dissect_link(Frame &f) {
  auto b = f.bytes;
  switch (f.link_type) {
    case DLT_EN10MB:
      if (b.size() < kEthernetHeader) return;
      f.ethernet = b.data();
      take_ethertype(f, 12);
      return;
    case DLT_LINUX_SLL:
      if (b.size() < kCookedHeader) return;
      take_ethertype(f, 14);
      return;
    case DLT_LINUX_SLL2:
      if (b.size() < kCooked2Header) return;
      f.ethertype = be16(&b[0]);
      f.network_offset = kCooked2Header;
      f.link_complete = true;
      return;
    case DLT_NULL:
    case DLT_LOOP:
      // A 4-byte address family (host order of the capturing machine for
      // DLT_NULL); the family values differ between systems, so the IP
      // version nibble decides.
      take_raw_ip(f, kLoopbackHeader);
      return;
    default:
      if (is_raw_ip(f.link_type)) take_raw_ip(f, 0);
      return;
  }
}

struct PcapCloser {
  void operator()(pcap_t *p) const { pcap_close(p); }
};
using PcapHandle = std::unique_ptr<pcap_t, PcapCloser>;

Frame make_frame(std::size_t number, const pcap_pkthdr &header, const u_char *data, int link) {
  Frame f;
  f.number = number;
  f.bytes = {data, header.caplen};
  f.wire_length = header.len;
  f.link_type = link;
  dissect_link(f);
  return f;
}

std::string unsupported_link(int link) {
  const char *name = pcap_datalink_val_to_name(link);
  return "unsupported link type " + std::string(name ? name : std::to_string(link));
}

// The first bytes of pcap files (both byte orders, micro- and nanosecond
// stamps) and of pcapng files (the section header block's type).
constexpr std::uint8_t kCaptureMagics[][4] = {
    {0xa1, 0xb2, 0xc3, 0xd4}, {0xd4, 0xc3, 0xb2, 0xa1}, {0xa1, 0xb2, 0x3c, 0x4d},
    {0x4d, 0x3c, 0xb2, 0xa1}, {0x0a, 0x0d, 0x0d, 0x0a},
};

// Opens a capture file.  The error names no file (the caller does, once):
// the system's reason when the file cannot be opened, else what libpcap
// found wrong with its contents.
PcapHandle open_capture(const std::string &path, std::string &error) {
  std::FILE *file = std::fopen(path.c_str(), "rb");
  if (!file) {
    error = std::strerror(errno);
    return nullptr;
  }
  struct stat st {};
  if (fstat(fileno(file), &st) == 0 && S_ISDIR(st.st_mode)) {
    std::fclose(file);
    error = std::strerror(EISDIR);
    return nullptr;
  }
  std::array<char, PCAP_ERRBUF_SIZE> err{};
  PcapHandle pcap(pcap_fopen_offline(file, err.data()));  // takes the file over when it succeeds
  if (!pcap) {
    std::fclose(file);
    std::string why = err.data();
    error = why.find("unknown file format") != std::string::npos || why.find("truncated dump file") == 0
                ? "not a pcap or pcapng capture (" + why + ")"
                : why;
  }
  return pcap;
}

using Clock = std::chrono::steady_clock;

// The progress line of a capture file being read: frames, bytes read,
// frames per second and percent of the file, rewritten in place on standard
// error at most ten times a second.  It is shown only when standard error
// is a terminal, so it never ends up in pipes or files, and it is erased
// when the file is done.
class ProgressLine {
 public:
  ProgressLine(pcap_t *pcap, const std::string &path)
      : file_(pcap_file(pcap)), enabled_(isatty(STDERR_FILENO) == 1 && file_ != nullptr) {
    struct stat st {};
    if (enabled_ && stat(path.c_str(), &st) == 0) size_ = static_cast<std::uint64_t>(st.st_size);
    start_ = last_ = Clock::now();
  }
  ~ProgressLine() {
    if (shown_) std::fputs("\r\033[K", stderr);
  }
  ProgressLine(const ProgressLine &) = delete;
  ProgressLine &operator=(const ProgressLine &) = delete;

  // Called once per frame; looks at the clock only every 4096 frames.
  void frame_read(std::size_t frames) {
    if (!enabled_ || (frames & kCheckEvery) != 0) return;
    auto now = Clock::now();
    if (now - last_ < kInterval) return;
    last_ = now;
    show(frames, now);
  }

 private:
  static constexpr std::size_t kCheckEvery = 4095;
  static constexpr auto kInterval = std::chrono::milliseconds(100);

  void show(std::size_t frames, Clock::time_point now) {
    long position = std::ftell(file_);
    double seconds = std::chrono::duration<double>(now - start_).count();
    double rate = seconds > 0 ? static_cast<double>(frames) / seconds : 0;
    double percent = size_ && position > 0 ? 100.0 * static_cast<double>(position) / static_cast<double>(size_) : 0;
    fmt::print(stderr, "\r\033[K{} frames, {:.1f} MB, {:.0f} frames/s, {:.0f}%", frames,
               static_cast<double>(position > 0 ? position : 0) / 1e6, rate, percent);
    std::fflush(stderr);
    shown_ = true;
  }

  std::FILE *file_;
  bool enabled_;
  bool shown_ = false;
  std::uint64_t size_ = 0;
  Clock::time_point start_, last_;
};

// How long a live capture waits for a frame before it looks at its limits.
constexpr int kPollMilliseconds = 100;

// Set by the interrupt handler of a live capture.
volatile std::sig_atomic_t g_interrupted = 0;
pcap_t *g_live = nullptr;

extern "C" void on_interrupt(int) {
  g_interrupted = 1;
  if (g_live) pcap_breakloop(g_live);
}

// Why libpcap could not start capturing, in words that say what to do.
std::string activation_error(pcap_t *pcap, int rc) {
  std::string detail = pcap_geterr(pcap);
  switch (rc) {
    case PCAP_ERROR_NO_SUCH_DEVICE:
      return "no such interface" + (detail.empty() ? std::string() : " (" + detail + ")");
    case PCAP_ERROR_PERM_DENIED:
      return "no permission to capture on this interface (capturing needs root or the CAP_NET_RAW "
             "capability)" + (detail.empty() ? std::string() : ": " + detail);
    case PCAP_ERROR_IFACE_NOT_UP:
      return "the interface is down";
    case PCAP_ERROR:
      return detail;
    default:
      return pcap_statustostr(rc) + (detail.empty() ? std::string() : ": " + detail);
  }
}

// Opens `interface` for a live capture.
PcapHandle open_live(const std::string &interface, std::string &error) {
  std::array<char, PCAP_ERRBUF_SIZE> err{};
  PcapHandle pcap(pcap_create(interface.c_str(), err.data()));
  if (!pcap) {
    error = err.data();
    return nullptr;
  }
  pcap_set_snaplen(pcap.get(), 65535);
  pcap_set_promisc(pcap.get(), 0);
  pcap_set_timeout(pcap.get(), kPollMilliseconds);
  pcap_set_immediate_mode(pcap.get(), 1);
  int rc = pcap_activate(pcap.get());
  if (rc < 0) {
    error = activation_error(pcap.get(), rc);
    return nullptr;
  }
  // Non-blocking: the capture loop waits for frames itself, so that it
  // sees its limits even when no frame comes.
  if (pcap_setnonblock(pcap.get(), 1, err.data()) != 0) {
    error = err.data();
    return nullptr;
  }
  return pcap;
}

}  // namespace

bool link_type_supported(int link_type) {
  return link_type == DLT_EN10MB || link_type == DLT_LINUX_SLL || link_type == DLT_LINUX_SLL2 ||
         link_type == DLT_NULL || link_type == DLT_LOOP || is_raw_ip(link_type);
}

std::string capture_problem(const std::string &path) {
  std::string error;
  PcapHandle pcap = open_capture(path, error);
  if (!pcap) return error;
  int link = pcap_datalink(pcap.get());
  return link_type_supported(link) ? std::string() : unsupported_link(link);
}

bool looks_like_capture(const std::string &path) {
  std::uint8_t magic[4] = {};
  std::FILE *file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  std::size_t got = std::fread(magic, 1, sizeof magic, file);
  std::fclose(file);
  if (got != sizeof magic) return false;
  for (const auto &known : kCaptureMagics)
    if (std::memcmp(magic, known, sizeof magic) == 0) return true;
  return false;
}

std::string for_each_frame(const std::string &path, const std::function<void(const Frame &)> &visit) {
  std::string error;
  PcapHandle pcap = open_capture(path, error);
  if (!pcap) return error;
  int link = pcap_datalink(pcap.get());
  if (!link_type_supported(link)) return unsupported_link(link);
  ProgressLine progress(pcap.get(), path);
  pcap_pkthdr *header;
  const u_char *data;
  std::size_t number = 0;
  int rc;
  while ((rc = pcap_next_ex(pcap.get(), &header, &data)) == 1) {
    visit(make_frame(++number, *header, data, link));
    progress.frame_read(number);
  }
  if (rc == PCAP_ERROR) return pcap_geterr(pcap.get());
  return {};
}

std::string for_each_live_frame(const std::string &interface, const LiveLimits &limits,
                                const std::function<void(const Frame &)> &visit, const std::function<void()> &tick,
                                bool &opened) {
  std::string error;
  opened = false;
  PcapHandle pcap = open_live(interface, error);
  if (!pcap) return error;
  int link = pcap_datalink(pcap.get());
  if (!link_type_supported(link)) return unsupported_link(link);
  opened = true;
  g_interrupted = 0;
  g_live = pcap.get();
  struct sigaction action {}, previous_int {}, previous_term {};
  action.sa_handler = on_interrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &previous_int);
  sigaction(SIGTERM, &action, &previous_term);
  const auto start = Clock::now();
  auto next_tick = start + std::chrono::seconds(1);
  std::size_t number = 0;
  pcap_pkthdr *header;
  const u_char *data;
  while (!g_interrupted) {
    int rc = pcap_next_ex(pcap.get(), &header, &data);
    if (rc == 1) {
      visit(make_frame(++number, *header, data, link));
    } else if (rc == 0) {
      pollfd wait{pcap_get_selectable_fd(pcap.get()), POLLIN, 0};
      poll(&wait, 1, kPollMilliseconds);
    } else if (rc != PCAP_ERROR_BREAK) {
      error = pcap_geterr(pcap.get());
      break;
    }
    auto now = Clock::now();
    if (limits.count && number >= limits.count) break;
    if (limits.seconds > 0 && std::chrono::duration<double>(now - start).count() >= limits.seconds) break;
    if (now >= next_tick) {
      tick();
      next_tick = now + std::chrono::seconds(1);
    }
  }
  sigaction(SIGINT, &previous_int, nullptr);
  sigaction(SIGTERM, &previous_term, nullptr);
  g_live = nullptr;
  return error;
}

}  // namespace tool
