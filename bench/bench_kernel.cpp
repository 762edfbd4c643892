// The classifier in the kernel's data path: the tc program walking the
// kernel image of a compiled set, measured in one process inside a network
// namespace of its own.
//
//   1. Per packet, by the kernel's own test runs (BPF_PROG_TEST_RUN, each
//      packet of the set's trace run `kRepeat` times, the kernel's average
//      kept), on the generated sets of 100, 1,000 and 10,000 rules (the
//      sets and traces of bench_sets), less what an empty tc program costs
//      on the same packets in the same rounds; beside it the compiled set's
//      search in this process (nuv_clfy_compiled_get_clfy) on the same
//      packets.  Before anything is timed, every packet's mark is compared
//      with the compiled set's answer; the packets the program hands to
//      userspace are counted, not compared.
//   2. Load times: opening the classifier (the verifier's work), loading a
//      set, attaching to a veth.
//   3. Live packets per second through a veth pair: frames written on one
//      end (AF_PACKET), received by a UDP socket behind the other, with no
//      program, with the program at the receiving end's ingress (1,000
//      rules), and through the kernel queue to the classifier daemon's null
//      mode, in interleaved rounds, the best kept.
//
// It needs root and BPF.  Where the namespace or the program cannot be had
// it says why, prints a "skipped" line and exits 0.  A disagreement makes
// the exit status 1; speed never does.
//
// Usage: bench_kernel [rounds] [rule set directory]
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "capture_frames.h"
#include "generated_sets.h"
#include "nikerkiog.h"
#include "nuvkclfy.h"

extern char **environ;

namespace {

using benchsupport::Clock;
using benchsupport::Flavour;
using benchsupport::kFlavours;
using benchsupport::OwnedCompiled;
using benchsupport::OwnedSet;
using testsupport::TracedPacket;

constexpr int kSizes[] = {100, 1000, 10000};
// Runs of each packet per test run; the kernel reports their average.
constexpr std::uint32_t kRepeat = 1000;
// The mark packets carry into a test run: inside the mark mask, and equal
// to no rule's result, so that every applying rule changes it.
constexpr std::uint32_t kMarkIn = 0x40000000u;
// The classifier's default mark mask: all bits but the ask-userspace bit.
constexpr std::uint32_t kMarkMask = ~NUV_KCLFY_DEFAULT_ASK_MARK;
// Live runs: at most this many packets or seconds each.
constexpr long kLivePackets = 200000;
constexpr double kLiveSeconds = 5.0;
constexpr int kLiveWindow = 256;
constexpr int kBurst = 32;
constexpr std::uint16_t kLivePort = 9000;
constexpr int kQueue = 9;

volatile unsigned long g_sink;

double ms_since(Clock::time_point start) {
  return 1e3 * std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] void skip(const std::string &why) {
  std::printf("bench_kernel: %s\nbench_kernel: skipped (needs root, network namespaces and BPF)\n", why.c_str());
  std::exit(0);
}

[[noreturn]] void die(const std::string &message) {
  std::fprintf(stderr, "bench_kernel: %s\n", message.c_str());
  std::exit(2);
}

// Runs a shell command line (ip, iptables); false when it fails.
bool shell(const std::string &command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

// ---- The empty tc program: what a test run costs without classifying ----

class EmptyProgram {
 public:
  // Loads "r0 = 0; exit" as a tc classifier; false with `why` when the
  // kernel refuses.
  bool load(std::string &why) {
    bpf_insn code[2]{};
    code[0].code = BPF_ALU64 | BPF_MOV | BPF_K;  // r0 = 0
    code[0].dst_reg = BPF_REG_0;
    code[0].imm = 0;
    code[1].code = BPF_JMP | BPF_EXIT;
    fd_ = bpf_prog_load(BPF_PROG_TYPE_SCHED_CLS, "nuv_empty", "GPL", code, 2, nullptr);
    if (fd_ < 0) why = std::string("loading an empty tc program: ") + std::strerror(errno);
    return fd_ >= 0;
  }
  int fd() const { return fd_; }
  ~EmptyProgram() {
    if (fd_ >= 0) close(fd_);
  }

 private:
  int fd_ = -1;
};

// The kernel's average time of one run of program `fd` on `frame`, in ns.
double test_run_ns(int fd, const std::vector<std::uint8_t> &frame, std::uint32_t ifindex) {
  __sk_buff ctx{};
  ctx.mark = kMarkIn;
  ctx.ifindex = ifindex;
  LIBBPF_OPTS(bpf_test_run_opts, opts, .data_in = frame.data(), .data_size_in = static_cast<std::uint32_t>(frame.size()),
              .ctx_in = &ctx, .ctx_size_in = sizeof ctx, .repeat = kRepeat);
  if (bpf_prog_test_run_opts(fd, &opts) != 0) die(std::string("a test run failed: ") + std::strerror(errno));
  return opts.duration;
}

// Mean over the packets of the kernel's per-run time.
double trace_ns(int fd, const std::vector<TracedPacket> &packets) {
  double sum = 0;
  for (const TracedPacket &p : packets) sum += test_run_ns(fd, p.frame, p.ifindex);
  return sum / static_cast<double>(packets.size());
}

// ---- The network namespace ----

// The receiving devices of the generated rules are eth0..eth3, ifindex 1..4:
// the loopback is 1, devices of their own take 2..4 (ifb: a device with no
// peer that every kernel with tc has), so that test runs on those packets
// find their device.  Then the veth pair of the live runs.
const char *const kVethSend = "nkbench0";
const char *const kVethReceive = "nkbench1";
const char *const kReceiveMac = "02:00:00:00:09:02";
const std::uint8_t kReceiveMacBytes[6] = {2, 0, 0, 0, 9, 2};
const std::uint8_t kSendMacBytes[6] = {2, 0, 0, 0, 9, 1};
const char *const kReceiveAddress = "10.9.0.2";
const char *const kSourceAddress = "10.9.0.3";

void enter_namespace() {
  if (geteuid() != 0) skip("not running as root");
  if (unshare(CLONE_NEWNET) != 0) skip(std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno));
  if (!shell("ip link set lo up")) skip("ip link set lo up failed (iproute2 missing?)");
  for (int index = 2; index <= 4; ++index)
    if (!shell("ip link add eth" + std::to_string(index - 1) + " index " + std::to_string(index) + " type ifb"))
      skip("cannot add the traces' receiving devices (ip link add ... type ifb)");
}

// The veth pair; false when the kernel has no veth.
bool make_veth_pair() {
  return shell(std::string("ip link add ") + kVethSend + " address 02:00:00:00:09:01 type veth peer name " +
               kVethReceive + " address " + kReceiveMac) &&
         shell(std::string("ip addr add ") + kReceiveAddress + "/24 dev " + kVethReceive) &&
         shell(std::string("ip link set ") + kVethSend + " up") &&
         shell(std::string("ip link set ") + kVethReceive + " up") &&
         shell("sysctl -w net.ipv4.conf.all.rp_filter=0") &&
         shell(std::string("sysctl -w net.ipv4.conf.") + kVethReceive + ".rp_filter=0");
}

// ---- Part 1: per packet ----

struct SetRow {
  std::string flavour;
  int rules = 0;
  std::size_t packets = 0;
  double kernel_ns = 1e300, empty_ns = 1e300, library_ns = 0;
  std::size_t asked = 0, disagreements = 0;
  double load_ms = 0;
  double net_ns() const { return kernel_ns - empty_ns; }
};

// What the compiled set makes of a packet's mark in the kernel's terms.
std::uint32_t library_mark(nuv_clfy_compiled *compiled, const TracedPacket &p) {
  const nuv_clfy *rule = nuv_clfy_compiled_get_clfy(compiled, 0, &p.desc);
  return rule ? (kMarkIn & ~kMarkMask) | (rule->result & kMarkMask) : kMarkIn;
}

void check_agreement(nuv_kclfy *k, nuv_clfy_compiled *compiled, const std::string &name,
                     const std::vector<TracedPacket> &packets, SetRow &row) {
  for (const TracedPacket &p : packets) {
    nuv_kclfy_run run{};
    run.ifindex = p.ifindex;
    run.mark_in = kMarkIn;
    if (nuv_kclfy_test_run(k, p.frame.data(), static_cast<std::uint32_t>(p.frame.size()), &run) != NUV_KCLFY_OK)
      die(name + ": a test run failed: " + std::strerror(errno));
    if (run.verdict == NUV_KCLFY_ASK) {
      ++row.asked;
      continue;
    }
    const std::uint32_t want = library_mark(compiled, p);
    if (run.mark_out != want && ++row.disagreements <= 10)
      std::printf("  DISAGREEMENT %s: the kernel's mark 0x%08x, the compiled set's 0x%08x: %s\n", name.c_str(),
                  run.mark_out, want, p.line.c_str());
  }
}

double library_ns(nuv_clfy_compiled *compiled, const std::vector<TracedPacket> &packets, int rounds) {
  constexpr int kPasses = 10;
  benchsupport::Timed t{"compiled", [&] {
                          unsigned long found = 0;
                          for (int pass = 0; pass < kPasses; ++pass)
                            for (const TracedPacket &p : packets)
                              found += nuv_clfy_compiled_get_clfy(compiled, 0, &p.desc) != nullptr;
                          g_sink = found;
                        }, static_cast<double>(packets.size()) * kPasses};
  benchsupport::measure({&t}, rounds);
  return t.per_unit() * 1e9;
}

SetRow run_set(nuv_kclfy *k, const EmptyProgram &empty, const Flavour &flavour, int n, const std::string &dir,
               int rounds) {
  const std::string name = std::string(flavour.file) + "-" + std::to_string(n);
  benchsupport::LoadedSet set;
  std::string error;
  if (!benchsupport::load_generated_set(benchsupport::set_stem(dir, flavour, n), set, error)) die(error);
  OwnedSet rules;
  if (!testsupport::fill_numbered_set(set.lines, rules.set, error)) die(error);
  OwnedCompiled compiled;
  if (nuv_clfy_set_compile(&rules.set, &compiled.c) != NUV_CLFY_COMPILE_OK) die(name + ": nuv_clfy_set_compile failed");

  SetRow row;
  row.flavour = flavour.name;
  row.rules = n;
  row.packets = set.packets.size();
  char why[512] = "";
  const auto start = Clock::now();
  if (nuv_kclfy_load_set(k, compiled.c, why, sizeof why) != NUV_KCLFY_OK) die(name + ": loading the set: " + why);
  row.load_ms = ms_since(start);

  check_agreement(k, compiled.c, name, set.packets, row);
  std::printf("  %-9s %zu packets: %zu asked userspace, %zu disagreements\n", name.c_str(), row.packets, row.asked,
              row.disagreements);
  const int program = nuv_kclfy_program_fd(k);
  for (int r = 0; r < rounds; ++r) {  // interleaved, the fastest of each kept
    row.kernel_ns = std::min(row.kernel_ns, trace_ns(program, set.packets));
    row.empty_ns = std::min(row.empty_ns, trace_ns(empty.fd(), set.packets));
  }
  row.library_ns = library_ns(compiled.c, set.packets, rounds);
  return row;
}

std::string cell(double v, int precision = 1) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.*f", precision, v);
  return buf;
}

void print_set_rows(const std::vector<SetRow> &rows) {
  std::printf("| %-13s | %5s | %7s | %9s | %9s | %9s | %9s | %8s | %6s | %9s | %7s\n", "rule set", "rules",
              "packets", "kernel", "(with run", "(empty", "library", "kernel/", "asked", "disagree-", "load");
  std::printf("| %-13s | %5s | %7s | %9s | %9s | %9s | %9s | %8s | %6s | %9s | %7s\n", "", "", "", "ns/pkt",
              "ns/pkt)", "ns/pkt)", "ns/pkt", "library", "", "ments", "ms");
  for (const SetRow &r : rows)
    std::printf("| %-13s | %5d | %7zu | %9s | %9s | %9s | %9s | %8s | %6zu | %9zu | %7s\n", r.flavour.c_str(),
                r.rules, r.packets, cell(r.net_ns()).c_str(), cell(r.kernel_ns).c_str(), cell(r.empty_ns).c_str(),
                cell(r.library_ns).c_str(), cell(r.net_ns() / r.library_ns, 2).c_str(), r.asked, r.disagreements,
                cell(r.load_ms, 2).c_str());
}

// ---- Part 3: live packets ----

// The UDP datagram the live runs send, as an Ethernet frame to the
// receiving veth: 16 bytes of payload, as the daemon's benchmark sends.
std::vector<std::uint8_t> live_frame() {
  std::vector<std::uint8_t> f(kReceiveMacBytes, kReceiveMacBytes + 6);
  f.insert(f.end(), kSendMacBytes, kSendMacBytes + 6);
  testsupport::put16(f, 0x0800);
  const std::size_t ip = f.size();
  testsupport::put16(f, 0x4500), testsupport::put16(f, 20 + 8 + 16), testsupport::put16(f, 1),
      testsupport::put16(f, 0x4000);
  f.push_back(64), f.push_back(17), testsupport::put16(f, 0);
  in_addr src{}, dst{};
  inet_pton(AF_INET, kSourceAddress, &src);
  inet_pton(AF_INET, kReceiveAddress, &dst);
  const auto *s = reinterpret_cast<const std::uint8_t *>(&src.s_addr);
  const auto *d = reinterpret_cast<const std::uint8_t *>(&dst.s_addr);
  f.insert(f.end(), s, s + 4), f.insert(f.end(), d, d + 4);
  const std::uint16_t sum = testsupport::ip4_checksum(f.data() + ip);
  f[ip + 10] = static_cast<std::uint8_t>(sum >> 8), f[ip + 11] = static_cast<std::uint8_t>(sum);
  testsupport::put16(f, 40000), testsupport::put16(f, kLivePort), testsupport::put16(f, 8 + 16),
      testsupport::put16(f, 0);
  for (int i = 0; i < 16; ++i) f.push_back(static_cast<std::uint8_t>('a' + i));
  return f;
}

struct LiveResult {
  bool ok = false;
  std::string why;
  long sent = 0, received = 0;
  double seconds = 0;
  double rate() const { return seconds > 0 ? received / seconds : 0; }
};

struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  Fd(const Fd &) = delete;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// Writes frames on the sending veth, at most kLiveWindow of them not yet
// received, until kLivePackets arrived or kLiveSeconds passed; counts what
// the UDP socket behind the receiving veth gets.
LiveResult live_run(const std::vector<std::uint8_t> &frame) {
  LiveResult result;
  Fd receiver(socket(AF_INET, SOCK_DGRAM, 0));
  Fd sender(socket(AF_PACKET, SOCK_RAW, 0));
  if (receiver.fd < 0 || sender.fd < 0) {
    result.why = std::string("sockets: ") + std::strerror(errno);
    return result;
  }
  int buffer = 8 << 20;
  setsockopt(receiver.fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(kLivePort);
  inet_pton(AF_INET, kReceiveAddress, &at.sin_addr);
  if (bind(receiver.fd, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) {
    result.why = std::string("binding the receiver: ") + std::strerror(errno);
    return result;
  }
  sockaddr_ll link{};
  link.sll_family = AF_PACKET;
  link.sll_ifindex = static_cast<int>(if_nametoindex(kVethSend));
  link.sll_halen = 6;
  std::memcpy(link.sll_addr, kReceiveMacBytes, 6);
  if (bind(sender.fd, reinterpret_cast<sockaddr *>(&link), sizeof link) != 0) {
    result.why = std::string("binding the sender: ") + std::strerror(errno);
    return result;
  }
  iovec out_iov{const_cast<std::uint8_t *>(frame.data()), frame.size()};
  mmsghdr out[kBurst]{};
  for (mmsghdr &m : out) m.msg_hdr.msg_iov = &out_iov, m.msg_hdr.msg_iovlen = 1;
  static char in_buffers[kBurst][64];
  iovec in_iov[kBurst];
  mmsghdr in[kBurst]{};
  for (int i = 0; i < kBurst; ++i) {
    in_iov[i] = {in_buffers[i], sizeof in_buffers[i]};
    in[i].msg_hdr.msg_iov = &in_iov[i], in[i].msg_hdr.msg_iovlen = 1;
  }
  const auto start = Clock::now();
  const auto deadline = start + std::chrono::duration<double>(kLiveSeconds);
  while (result.received < kLivePackets && Clock::now() < deadline) {
    while (result.sent < kLivePackets && result.sent - result.received < kLiveWindow) {
      const long room = std::min<long>({kBurst, kLivePackets - result.sent, kLiveWindow - (result.sent - result.received)});
      const int n = sendmmsg(sender.fd, out, static_cast<unsigned>(room), 0);
      if (n <= 0) break;
      result.sent += n;
    }
    pollfd ready{receiver.fd, POLLIN, 0};
    if (poll(&ready, 1, 1000) <= 0) break;  // nothing for a second: lost
    const int n = recvmmsg(receiver.fd, in, kBurst, MSG_DONTWAIT, nullptr);
    if (n > 0) result.received += n;
  }
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  result.ok = result.received > 0;
  if (!result.ok) result.why = "no datagram arrived";
  return result;
}

// The classifier daemon in its null mode on the kernel queue, with the
// firewall rule that queues the live datagrams, for as long as it lives.
class QueueDaemon {
 public:
  bool start(std::string &why) {
#ifdef NIKERKIOG_CLASSD_PATH
    if (!shell(std::string("iptables -t mangle -A PREROUTING -i ") + kVethReceive + " -p udp --dport " +
               std::to_string(kLivePort) + " -j NFQUEUE --queue-num " + std::to_string(kQueue))) {
      why = "iptables refused the queue rule";
      return false;
    }
    firewall_ = true;
    std::snprintf(log_path_, sizeof log_path_, "/tmp/bench_kernel_classd_XXXXXX");
    const int log = mkstemp(log_path_);
    if (log < 0) {
      why = "no log file for the daemon";
      return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, log, 2);
    const std::string queue = std::to_string(kQueue);
    char *argv[] = {const_cast<char *>(NIKERKIOG_CLASSD_PATH), const_cast<char *>("--queue"),
                    const_cast<char *>(queue.c_str()), const_cast<char *>("--null"), nullptr};
    const int rc = posix_spawn(&pid_, NIKERKIOG_CLASSD_PATH, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(log);
    if (rc != 0) {
      why = std::string("starting the daemon: ") + std::strerror(rc);
      pid_ = -1;
      return false;
    }
    // Ready once it says its queue is bound (as the daemon's own benchmark waits).
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
      std::ifstream in(log_path_);
      const std::string said((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      if (said.find("bound") != std::string::npos) return true;
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        why = "the daemon stopped: " + said;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    why = "the daemon did not bind its queue in 10 s";
    return false;
#else
    why = "built without the classifier daemon";
    return false;
#endif
  }
  ~QueueDaemon() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    if (firewall_) shell("iptables -t mangle -F PREROUTING");
    if (log_path_[0]) unlink(log_path_);
  }

 private:
  pid_t pid_ = -1;
  bool firewall_ = false;
  char log_path_[64] = "";
};

struct LiveRow {
  explicit LiveRow(const char *n) : name(n) {}
  const char *name;
  LiveResult best;
  std::string why;  // when it could not run
};

void keep_best(LiveRow &row, const LiveResult &r) {
  if (!r.ok) {
    row.why = r.why;
    return;
  }
  if (!row.best.ok || r.rate() > row.best.rate()) row.best = r;
}

// What a configuration adds to each packet's time over the bare path, in
// microseconds.  The bare path (writing, the veth, the IP stack, the socket)
// bounds every rate here, so the ratio of rates understates how much
// cheaper one classifier is than another; this difference does not.
double added_us(const LiveRow &row, const LiveRow &none) {
  if (!row.best.ok || !none.best.ok) return 0;
  return 1e6 * (1.0 / row.best.rate() - 1.0 / none.best.rate());
}

// ---- Goals ----

const char *verdict(bool met) { return met ? "met" : "MISSED"; }

void print_goals(const std::vector<SetRow> &rows, const LiveRow *none, const LiveRow *tc, const LiveRow *queue) {
  std::printf("\nGoals (reported, never enforced):\n");
  for (const Flavour &f : kFlavours) {
    double at100 = 0, at1000 = 0, at10000 = 0;
    for (const SetRow &r : rows) {
      if (r.flavour != f.name) continue;
      (r.rules == 100 ? at100 : r.rules == 1000 ? at1000 : at10000) = r.net_ns();
    }
    std::printf("  %-13s kernel ns/pkt at 1000 rules <= 100: %.1f: %s\n", f.name, at1000, verdict(at1000 <= 100));
    std::printf("  %-13s kernel at 10000 rules / at 100 <= 3: %.2f: %s\n", f.name, at10000 / at100,
                verdict(at10000 / at100 <= 3));
  }
  if (tc && queue && tc->best.ok && queue->best.ok) {
    std::printf("  live: tc program / kernel queue with the null daemon >= 10: %.2f: %s\n",
                tc->best.rate() / queue->best.rate(), verdict(tc->best.rate() / queue->best.rate() >= 10));
    if (none->best.ok)
      std::printf("    (the bare path alone runs at %.2f times the queue's rate; per packet the queue adds %.2f us, "
                  "the tc program %.2f us: %.1f times less)\n",
                  none->best.rate() / queue->best.rate(), added_us(*queue, *none), added_us(*tc, *none),
                  added_us(*queue, *none) / added_us(*tc, *none));
  } else
    std::printf("  live: tc program / kernel queue >= 10: not measured\n");
}

}  // namespace

int main(int argc, char **argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  const std::string dir = argc > 2 && *argv[2] ? argv[2] : NIKERKIOG_RULESETS_DIR;
  enter_namespace();

  EmptyProgram empty;
  std::string why;
  if (!empty.load(why)) skip(why);
  char text[1024] = "";
  nuv_kclfy *k = nullptr;
  auto start = Clock::now();
  if (nuv_kclfy_open(nullptr, &k, text, sizeof text) != NUV_KCLFY_OK) skip(std::string("opening the classifier: ") + text);
  const double open_ms = ms_since(start);

  std::printf("Kernel classifier: test runs of %u repetitions per packet (the kernel's average), %d interleaved "
              "rounds, fastest kept; \"kernel\" is the run less an empty tc program's on the same packets\n\n",
              kRepeat, rounds);
  std::vector<SetRow> rows;
  std::size_t disagreements = 0;
  for (const Flavour &f : kFlavours)
    for (int n : kSizes) {
      rows.push_back(run_set(k, empty, f, n, dir, rounds));
      disagreements += rows.back().disagreements;
      std::fflush(stdout);
    }
  print_set_rows(rows);

  // Loading and attaching.
  std::printf("\nLoading: opening the classifier %.2f ms (the verifier processed %u instructions)\n", open_ms,
              nuv_kclfy_verified_instructions(k));
  for (const SetRow &r : rows)
    if (r.rules >= 1000) std::printf("  loading the %-13s %5d-rule set: %.2f ms\n", r.flavour.c_str(), r.rules, r.load_ms);

  // Live: the firewall-like set of 1,000 rules in force.
  {
    benchsupport::LoadedSet set;
    if (!benchsupport::load_generated_set(benchsupport::set_stem(dir, kFlavours[1], 1000), set, why)) die(why);
    OwnedSet rules;
    if (!testsupport::fill_numbered_set(set.lines, rules.set, why)) die(why);
    OwnedCompiled compiled;
    if (nuv_clfy_set_compile(&rules.set, &compiled.c) != NUV_CLFY_COMPILE_OK) die("nuv_clfy_set_compile failed");
    if (nuv_kclfy_load_set(k, compiled.c, text, sizeof text) != NUV_KCLFY_OK) die(std::string("loading: ") + text);

    LiveRow none("no program"), tc("tc program, 1000 firewall-like rules"),
        queue("kernel queue, the daemon's null mode");
    if (!make_veth_pair()) {
      std::printf("\nLive: not measured: no veth pair (ip link add ... type veth failed)\n");
      print_goals(rows, nullptr, nullptr, nullptr);
    } else {
      const std::vector<std::uint8_t> frame = live_frame();
      nuv_kclfy_run run{};
      run.mark_in = kMarkIn;
      run.ifindex = if_nametoindex(kVethReceive);
      nuv_kclfy_test_run(k, frame.data(), static_cast<std::uint32_t>(frame.size()), &run);
      const int receive_index = static_cast<int>(if_nametoindex(kVethReceive));
      double attach_ms = -1;
      for (int r = 0; r < rounds; ++r) {
        keep_best(none, live_run(frame));
        start = Clock::now();
        if (nuv_kclfy_attach(k, receive_index, 0, text, sizeof text) != NUV_KCLFY_OK) {
          tc.why = std::string("attaching: ") + text;
        } else {
          const double ms = ms_since(start);
          attach_ms = attach_ms < 0 ? ms : std::min(attach_ms, ms);
          keep_best(tc, live_run(frame));
          nuv_kclfy_detach_all(k);
        }
        if (queue.why.empty()) {
          QueueDaemon daemon;
          if (daemon.start(why))
            keep_best(queue, live_run(frame));
          else
            queue.why = why;
        }
      }
      if (attach_ms >= 0) std::printf("  attaching to a veth's ingress: %.2f ms (fastest of %d)\n", attach_ms, rounds);
      std::printf("\nLive: UDP datagrams of 16 bytes written on %s (AF_PACKET), received behind %s, at most %ld "
                  "or %.0f s per run, %d not yet received at most, best of %d rounds (the live frame's verdict in a "
                  "test run: %s, mark 0x%08x)\n",
                  kVethSend, kVethReceive, kLivePackets, kLiveSeconds, kLiveWindow, rounds,
                  run.verdict == NUV_KCLFY_RULE ? "a rule applies" : run.verdict == NUV_KCLFY_ASK ? "asks userspace"
                                                                                               : "no rule",
                  run.mark_out);
      for (const LiveRow *row : {&none, &tc, &queue}) {
        if (row->best.ok)
          std::printf("  %-38s %9.0f packets/s  (%ld sent, %ld received in %.2f s)  ratio to no program %.3f, "
                      "%.2f us per packet more\n",
                      row->name, row->best.rate(), row->best.sent, row->best.received, row->best.seconds,
                      none.best.ok ? row->best.rate() / none.best.rate() : 0.0, added_us(*row, none));
        else
          std::printf("  %-38s not measured: %s\n", row->name, row->why.c_str());
      }
      print_goals(rows, &none, &tc, &queue);
    }
  }
  nuv_kclfy_close(k);

  if (disagreements) {
    std::printf("\n%zu DISAGREEMENTS between the kernel and the compiled set (the first 10 per set are listed)\n",
                disagreements);
    return 1;
  }
  std::printf("\nThe kernel and the compiled set agree on every packet the kernel decides.\n");
  return 0;
}
