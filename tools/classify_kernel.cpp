// classify --kernel: every frame through the library's compiled set and
// through the kernel's tc program (BPF_PROG_TEST_RUN), side by side.
//
// The kernel decides what it can and asks userspace about the rest; in a
// deployment the daemon then decides those packets with the same compiled
// set, so here the library's verdict stands for them.  The frames go in
// capture order, the kernel first: a DHCP client the library learns is
// mirrored into the kernel's tables before the next frame, as the daemon
// does.
#include "classify_kernel.h"

#include <fmt/format.h>
#include <pcap/dlt.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "nuvkclfy.h"
#include "output.h"

namespace tool {
namespace {

// The mark a frame carries into both classifiers: a bit that every rule's
// result clears (results are 16 bits), so that a matching rule always
// changes it.
constexpr std::uint32_t kMarkIn = 0x40000000u;
// The receiving interface of the test runs: index 1, the loopback device,
// which is the index the rule set gives the --dev interface.
constexpr std::uint32_t kRunIfindex = 1;

using AskCounts = std::array<std::uint64_t, NUV_KCLFY_ASKED_REASONS>;

// The reason of the one packet asked about between two readings.
int asked_reason(const AskCounts &before, const AskCounts &after) {
  for (std::size_t r = 0; r < before.size(); ++r)
    if (after[r] != before[r]) return static_cast<int>(r);
  return -1;
}

const char *reason_text(int reason) {
  switch (reason) {
    case NUV_KCLFY_ASKED_RULE: return "a rule it may reach needs userspace";
    case NUV_KCLFY_ASKED_LINK: return "link layer cut short";
    case NUV_KCLFY_ASKED_ICMP: return "IPv6 extension chain longer than it walks";
    case NUV_KCLFY_ASKED_STEPS: return "search longer than its bound";
    case NUV_KCLFY_ASKED_NESTING: return "sub-rules nested beyond its bound";
    default: return "image inconsistent";
  }
}

class KernelRun {
 public:
  explicit KernelRun(const ClassifyOptions &o) : o_(o), set_(o.device, o.bridge) {}
  ~KernelRun() { nuv_kclfy_close(kernel_); }
  KernelRun(const KernelRun &) = delete;
  KernelRun &operator=(const KernelRun &) = delete;

  int run() {
    int built = build_rule_set(o_, set_, texts_);
    if (built >= 0) return built;
    if (!load()) return kExitError;
    note_ask_rules();
    int status = kExitOk;
    for (const auto &file : o_.captures) {
      if (o_.captures.size() > 1) fmt::print("# {}\n", file);
      std::string error = for_each_frame(file, [&](const Frame &frame) { packet(frame); });
      if (!error.empty()) {
        print_file_error(file, error);
        status = kExitError;
      }
    }
    fmt::print("# kernel: {} frames, {} agree, {} asked userspace where it may, {} not run (not Ethernet, or shorter than the IP header), {} differ; "
               "the verifier processed {} instructions\n",
               frames_, agree_, asked_, not_run_, differ_, nuv_kclfy_verified_instructions(kernel_));
    if (differ_) status = std::max(status, kExitFindings);
    return status;
  }

 private:
  bool load() {
    char why[1024] = "";
    const nuv_clfy_compiled *compiled = set_.compiled();
    if (!compiled) {
      fmt::print(stderr, "nikerkiog: the rule set could not be compiled (out of memory)\n");
      return false;
    }
    int rc = nuv_kclfy_open(nullptr, &kernel_, why, sizeof why);
    if (rc == NUV_KCLFY_OK) rc = nuv_kclfy_load_set(kernel_, compiled, why, sizeof why);
    if (rc != NUV_KCLFY_OK) {
      fmt::print(stderr, "nikerkiog: the kernel classifier: {}: {}\n", nuv_kclfy_strerror(rc), why);
      return false;
    }
    return true;
  }

  // The first line of a rule only userspace decides (0: none), over the
  // kernel's copy of the set's rules (every level).
  void note_ask_rules() {
    for (std::uint32_t r = 0; r < nuv_kclfy_rule_count(kernel_); ++r) {
      const nuv_clfy *rule = nuv_kclfy_rule(kernel_, r);
      if (!(rule->flags & NUV_KCLFY_ASK_CONDITIONS)) continue;
      std::size_t line = RuleSet::line_of(rule);
      if (line && (!first_ask_line_ || line < first_ask_line_)) first_ask_line_ = line;
    }
  }

  AskCounts asked_now() {
    AskCounts counts{};
    nuv_kclfy_asked(kernel_, counts.data());
    return counts;
  }

  // Whether asking userspace about this frame is what the kernel should do:
  // where the frame's link layer is cut short or stacks more tags than the
  // program reads, where an ICMPv6 type lies behind more extension headers
  // than it walks, or where a rule only userspace decides may apply.
  bool ask_allowed(int reason, const Frame &frame, bool described, std::size_t line) const {
    switch (reason) {
      case NUV_KCLFY_ASKED_LINK: return !described || frame.vlan_tcis.size() > NUV_KCLFY_MAX_INLINE_TAGS;
      case NUV_KCLFY_ASKED_ICMP: return extension_headers(frame) > NUV_KCLFY_MAX_EXTENSIONS;
      case NUV_KCLFY_ASKED_RULE: return first_ask_line_ && (!line || first_ask_line_ <= line);
      default: return false;
    }
  }

  // The IPv6 extension headers the walk to the upper-layer header steps
  // through, within the packet's stated length and the captured bytes (a
  // fragment or no-next-header value ends the walk).
  static std::size_t extension_headers(const Frame &frame) {
    auto ip = frame.network();
    if (!frame.is_ipv6() || ip.size() < 40) return 0;
    const std::size_t stated = 40u + static_cast<std::size_t>(ip[4] << 8 | ip[5]);
    const std::size_t available = std::min(stated, ip.size());
    std::uint8_t next = ip[6];
    std::size_t remaining = stated - 40, at = 40, count = 0;
    auto is_extension = [](std::uint8_t n) { return n == 0 || n == 43 || n == 44 || n == 59 || n == 60; };
    while (is_extension(next) && next != 44 && next != 59 && remaining >= 2 && at + 2 <= available) {
      const std::size_t size = (ip[at + 1] + 1u) * 8u;
      next = ip[at];
      at += size;
      remaining = remaining > size ? remaining - size : 0;
      ++count;
    }
    return count;
  }

  static bool shorter_than_ip_header(const Frame &frame) {
    const std::size_t ip = frame.link_complete ? frame.network_offset : 14;
    const std::size_t fixed = frame.is_ipv6() ? 40 : frame.is_ipv4() ? 20 : 0;
    return frame.bytes.size() < ip + fixed;
  }

  std::string library_text(bool described, const std::string &why, std::size_t line) {
    if (!described) return why;
    return verdict_text(line, set_.result_of(line));
  }

  void packet(const Frame &frame) {
    ++frames_;
    if (frame.link_type != DLT_EN10MB) {
      ++not_run_;
      return;
    }
    nuv_kclfy_run run{};
    run.ifindex = kRunIfindex;
    run.mark_in = kMarkIn;
    int rc = nuv_kclfy_test_run(kernel_, frame.bytes.data(), static_cast<std::uint32_t>(frame.bytes.size()), &run);
    std::string why;
    auto descriptor = packet_descriptor(frame, storage_, why);
    std::size_t line = descriptor ? set_.classify(*descriptor) : 0;
    char sync_why[256] = "";
    nuv_kclfy_sync_tables(kernel_, sync_why, sizeof sync_why);
    std::string library = library_text(descriptor.has_value(), why, line);
    std::string kernel;
    bool same = false;
    if (rc != NUV_KCLFY_OK && shorter_than_ip_header(frame)) {
      ++not_run_;
      fmt::print("{:>5}  {:<40} kernel: not run (the kernel tests no frame shorter than its IP header)\n",
                 frame.number, library);
      return;
    }
    if (rc != NUV_KCLFY_OK) {
      kernel = fmt::format("test run failed: {}", nuv_kclfy_strerror(rc));
    } else if (run.verdict == NUV_KCLFY_ASK) {
      // The kernel's counters change only when it asks: the counts seen at
      // the last ask are the ones before this frame.
      const AskCounts now = asked_now();
      int reason = asked_reason(asked_seen_, now);
      asked_seen_ = now;
      same = ask_allowed(reason, frame, descriptor.has_value(), line);
      kernel = fmt::format("asks userspace ({})", reason_text(reason));
      if (same) ++asked_;
    } else {
      std::uint32_t expected = line ? set_.result_of(line) : kMarkIn;
      same = descriptor && run.mark_out == expected;
      kernel = run.verdict == NUV_KCLFY_RULE ? fmt::format("=> {}", run.mark_out) : std::string("no rule");
      if (same) ++agree_;
    }
    if (!same) ++differ_;
    fmt::print("{:>5}  {:<40} kernel: {}{}\n", frame.number, library, kernel, same ? "" : "  DIFFERENT");
  }

  const ClassifyOptions &o_;
  RuleSet set_;
  std::map<std::size_t, std::string> texts_;
  nuv_kclfy *kernel_ = nullptr;
  std::vector<std::uint8_t> storage_;
  std::size_t first_ask_line_ = 0;
  AskCounts asked_seen_{};  // the kernel's ask counters after the last ask
  std::size_t frames_ = 0, agree_ = 0, asked_ = 0, not_run_ = 0, differ_ = 0;
};

}  // namespace

int run_classify_kernel(const ClassifyOptions &o) {
  if (!o.live.empty()) {
    fmt::print(stderr, "nikerkiog classify: --kernel runs captured frames, not --live traffic\n");
    return kExitError;
  }
  return KernelRun(o).run();
}

}  // namespace tool
