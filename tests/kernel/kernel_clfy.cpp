// The kernel's tc classifier against the library, through test runs in
// the kernel itself (BPF_PROG_TEST_RUN).  Needs root and BPF; CI has both,
// so a program that cannot be loaded fails these tests.
#include <bpf/bpf.h>
#include <net/if.h>
#include <sched.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nikerkiog.h"
#include "nuvkclfy.h"

namespace {

constexpr std::uint32_t kMarkIn = 0x40000000u;

// A rule set built from rule texts, each with its result, and its compiled form.
class Rules {
 public:
  explicit Rules(const std::vector<std::pair<std::string, std::uint16_t>> &texts) {
    nuv_clfy *last = nullptr;
    for (const auto &[text, result] : texts) {
      std::string copy = text;
      nuv_clfy *rule = nullptr;
      EXPECT_EQ(nuv_clfy_parse(copy.data(), &rule), 0) << text;
      if (!rule) continue;
      rule->result = result;
      rule->dev_ifindex = 1;
      last = nuv_clfy_add_tail_after(&set_, last, rule);
    }
    EXPECT_EQ(nuv_clfy_set_compile(&set_, &compiled_), NUV_CLFY_COMPILE_OK);
  }
  ~Rules() {
    nuv_clfy_compiled_free(compiled_);
    nuv_clfy_del_and_free_all(&set_);
  }
  const nuv_clfy_compiled *compiled() const { return compiled_; }
  // The library's mark for an Ethernet frame.
  std::uint32_t mark(const std::vector<std::uint8_t> &frame) {
    nuv_clfy_packet p{};
    p.dev_ifindex = 1;
    p.eth_header = frame.data();
    std::memcpy(&p.eth_proto, &frame[12], 2);
    p.ip_header = frame.data() + 14;
    p.ip_len = static_cast<std::uint32_t>(frame.size() - 14);
    nuv_clfy *rule = nuv_clfy_compiled_get_clfy(compiled_, 0, &p);
    return rule ? rule->result : kMarkIn;
  }
  nuv_clfy *head() const { return set_.head; }

 private:
  nuv_clfy_set set_{};
  nuv_clfy_compiled *compiled_ = nullptr;
};

struct Kernel {
  nuv_kclfy *k = nullptr;
  std::string why;
  Kernel() {
    char text[1024] = "";
    int rc = nuv_kclfy_open(nullptr, &k, text, sizeof text);
    why = std::string(nuv_kclfy_strerror(rc)) + ": " + text;
  }
  ~Kernel() { nuv_kclfy_close(k); }
  std::uint32_t run(const std::vector<std::uint8_t> &frame, int *verdict = nullptr) {
    nuv_kclfy_run r{};
    r.ifindex = 1;
    r.mark_in = kMarkIn;
    EXPECT_EQ(nuv_kclfy_test_run(k, frame.data(), static_cast<std::uint32_t>(frame.size()), &r), NUV_KCLFY_OK)
        << frame.size() << " bytes";
    if (verdict) *verdict = r.verdict;
    return r.mark_out;
  }
};

// An IPv4 or IPv6 frame with a UDP or TCP header, exact in its lengths.
std::vector<std::uint8_t> frame(bool v6, std::uint8_t proto, std::uint32_t src, std::uint32_t dst, std::uint16_t sport,
                                std::uint16_t dport, std::uint8_t tcp_flags = 0x02) {
  const std::size_t transport = proto == 6 ? 20 : 8;
  std::vector<std::uint8_t> f(14, 0);
  for (int i = 0; i < 12; ++i) f[i] = static_cast<std::uint8_t>(i + 1);
  f[12] = v6 ? 0x86 : 0x08;
  f[13] = v6 ? 0xdd : 0x00;
  auto be32 = [&f](std::uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) f.push_back(static_cast<std::uint8_t>(v >> s));
  };
  if (v6) {
    f.insert(f.end(), {0x60, 0, 0, 0, 0, static_cast<std::uint8_t>(transport), proto, 64});
    be32(0x20010db8); be32(0); be32(0); be32(src);
    be32(0x20010db8); be32(0); be32(0); be32(dst);
  } else {
    f.insert(f.end(), {0x45, 0, 0, static_cast<std::uint8_t>(20 + transport), 0, 0, 0, 0, 64, proto, 0, 0});
    be32(src);
    be32(dst);
  }
  std::vector<std::uint8_t> t(transport, 0);
  t[0] = static_cast<std::uint8_t>(sport >> 8), t[1] = static_cast<std::uint8_t>(sport);
  t[2] = static_cast<std::uint8_t>(dport >> 8), t[3] = static_cast<std::uint8_t>(dport);
  if (proto == 6) t[12] = 0x50, t[13] = tcp_flags;
  f.insert(f.end(), t.begin(), t.end());
  return f;
}

const std::vector<std::pair<std::string, std::uint16_t>> kFirewall = {
    {"dev lo tcp.dport 22 ip.saddr 10.0.0.0/8", 1},
    {"tcp.dport 80,443 tcp.flags 0x002/0x012", 2},
    {"udp.dport 53 ip.daddr 192.168.1.1", 3},
    {"udp.sport 1000-2000 udp.dport != 7", 4},
    {"ip.saddr 10.1.0.0/16 ip.daddr 10.2.0.0 255.255.0.0", 5},
    {"ip.saddr 2001:db8::/96 tcp.dport 8080", 6},
    {"ip.len > 60", 7},
    {"ip.version 6 udp.dport 5000-6000", 8},
    {"ip.proto udp", 9},
};

TEST(KernelClassifier, LoadsWithinTheVerifierLimitAndSaysHowMuchItChecked) {
  Kernel kernel;
  ASSERT_NE(kernel.k, nullptr) << kernel.why;
  const std::uint32_t processed = nuv_kclfy_verified_instructions(kernel.k);
  std::printf("the verifier processed %u instructions\n", processed);
  EXPECT_GT(processed, 0u);
  EXPECT_LT(processed, 1000000u);
}

// No calls between BPF functions, no bpf_loop, no tail calls, no atomics:
// a 32-bit ARM kernel's JIT takes none of them.  Checked on the built
// objects (helper numbers intact) and on the program as the kernel holds it.
void expect_plain_instructions(const bpf_insn *insns, std::size_t count, const char *where) {
  for (std::size_t i = 0; i < count; ++i) {
    const bpf_insn &in = insns[i];
    if (in.code == (BPF_JMP | BPF_CALL)) {
      EXPECT_NE(in.src_reg, BPF_PSEUDO_CALL) << where << ": a call between BPF functions at " << i;
      if (in.src_reg == 0) {
        EXPECT_NE(in.imm, BPF_FUNC_tail_call) << where << ": a tail call at " << i;
        EXPECT_NE(in.imm, 181) << where << ": bpf_loop at " << i;
      }
    }
    EXPECT_NE(BPF_MODE(in.code) == BPF_ATOMIC && (BPF_CLASS(in.code) == BPF_STX), true)
        << where << ": an atomic instruction at " << i;
  }
}

// The instructions of the program section "tc" of an ELF object of either
// byte order, read without libbpf (which reads objects of the host's order
// only): the section headers give the section, and each instruction's
// multi-byte fields and register nibbles are put into this host's order.
std::vector<bpf_insn> program_section(const char *path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::uint8_t> elf((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<bpf_insn> out;
  if (elf.size() < 64 || std::memcmp(elf.data(), "\x7f" "ELF", 4) != 0 || elf[4] != 2) return out;
  const bool big = elf[5] == 2;
  auto u16 = [&](std::size_t at) {
    return static_cast<std::uint16_t>(big ? elf[at] << 8 | elf[at + 1] : elf[at + 1] << 8 | elf[at]);
  };
  auto u32 = [&](std::size_t at) {
    return big ? std::uint32_t{u16(at)} << 16 | u16(at + 2) : std::uint32_t{u16(at + 2)} << 16 | u16(at);
  };
  auto u64 = [&](std::size_t at) {
    return big ? std::uint64_t{u32(at)} << 32 | u32(at + 4) : std::uint64_t{u32(at + 4)} << 32 | u32(at);
  };
  const std::uint64_t sections = u64(0x28);
  const std::uint16_t entry = u16(0x3a), count = u16(0x3c), names = u16(0x3e);
  const std::uint64_t names_at = u64(sections + std::uint64_t{names} * entry + 0x18);
  for (std::uint16_t i = 0; i < count; ++i) {
    const std::uint64_t header = sections + std::uint64_t{i} * entry;
    const char *name = reinterpret_cast<const char *>(elf.data() + names_at + u32(header));
    if (std::strcmp(name, "tc") != 0) continue;
    const std::uint64_t at = u64(header + 0x18), size = u64(header + 0x20);
    for (std::uint64_t off = at; off + 8 <= at + size; off += 8) {
      bpf_insn insn{};
      insn.code = elf[off];
      const std::uint8_t regs = elf[off + 1];
      insn.dst_reg = big ? regs >> 4 : regs & 0xf;
      insn.src_reg = big ? regs & 0xf : regs >> 4;
      insn.off = static_cast<std::int16_t>(u16(off + 2));
      insn.imm = static_cast<std::int32_t>(u32(off + 4));
      out.push_back(insn);
    }
  }
  return out;
}

// The helpers a program calls.
std::set<std::int32_t> helpers_called(const std::vector<bpf_insn> &insns) {
  std::set<std::int32_t> helpers;
  for (const bpf_insn &in : insns)
    if (in.code == (BPF_JMP | BPF_CALL) && in.src_reg == 0) helpers.insert(in.imm);
  return helpers;
}

TEST(KernelClassifier, TheBigEndianProgramIsAsPlainAndCallsTheSameHelpers) {
  const std::vector<bpf_insn> little = program_section(NIKERKIOG_KCLFY_OBJECT_EL);
  const std::vector<bpf_insn> big = program_section(NIKERKIOG_KCLFY_OBJECT_EB);
  ASSERT_GT(little.size(), 100u);
  ASSERT_GT(big.size(), 100u);
  expect_plain_instructions(big.data(), big.size(), NIKERKIOG_KCLFY_OBJECT_EB);
  expect_plain_instructions(little.data(), little.size(), NIKERKIOG_KCLFY_OBJECT_EL);
  const std::set<std::int32_t> expected = {BPF_FUNC_map_lookup_elem, BPF_FUNC_skb_load_bytes, BPF_FUNC_skb_pull_data};
  EXPECT_EQ(helpers_called(little), expected);
  EXPECT_EQ(helpers_called(big), expected);
}

TEST(KernelClassifier, ProgramUsesNoFunctionCallsLoopHelperTailCallsOrAtomics) {
  // (libbpf reads objects of this host's byte order only; the big-endian
  // object is read by the test above.)
  for (const char *path : {NIKERKIOG_KCLFY_OBJECT_EL}) {
    bpf_object *object = bpf_object__open_file(path, nullptr);
    ASSERT_NE(object, nullptr) << path;
    std::size_t programs = 0;
    bpf_program *program;
    bpf_object__for_each_program(program, object) {
      ++programs;
      expect_plain_instructions(bpf_program__insns(program), bpf_program__insn_cnt(program), path);
    }
    EXPECT_EQ(programs, 1u) << path;
    bpf_object__close(object);
  }
  Kernel kernel;
  ASSERT_NE(kernel.k, nullptr) << kernel.why;
  bpf_prog_info info{};
  std::uint32_t length = sizeof info;
  ASSERT_EQ(bpf_obj_get_info_by_fd(nuv_kclfy_program_fd(kernel.k), &info, &length), 0);
  std::vector<bpf_insn> loaded(info.xlated_prog_len / sizeof(bpf_insn));
  ASSERT_FALSE(loaded.empty());
  bpf_prog_info again{};
  again.xlated_prog_len = info.xlated_prog_len;
  again.xlated_prog_insns = reinterpret_cast<std::uint64_t>(loaded.data());
  length = sizeof again;
  ASSERT_EQ(bpf_obj_get_info_by_fd(nuv_kclfy_program_fd(kernel.k), &again, &length), 0);
  for (const bpf_insn &in : loaded) {
    if (in.code == (BPF_JMP | BPF_CALL)) {
      EXPECT_NE(in.src_reg, BPF_PSEUDO_CALL);
    }
    EXPECT_FALSE(BPF_MODE(in.code) == BPF_ATOMIC && BPF_CLASS(in.code) == BPF_STX);
  }
}

TEST(KernelClassifier, RandomPacketsGetTheLibrarysMarkAndHits) {
  Kernel kernel;
  ASSERT_NE(kernel.k, nullptr) << kernel.why;
  Rules rules(kFirewall);
  char why[512] = "";
  ASSERT_EQ(nuv_kclfy_load_set(kernel.k, rules.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  std::mt19937 random(7);
  auto pick = [&random](std::initializer_list<std::uint32_t> values) {
    return *(values.begin() + random() % values.size());
  };
  std::size_t asked = 0;
  for (int i = 0; i < 3000; ++i) {
    const bool v6 = random() % 4 == 0;
    const auto proto = static_cast<std::uint8_t>(pick({6, 17, 17, 1}));
    const std::uint32_t src = pick({0x0a000001, 0x0a010203, 0x0b000001, 0xc0a80102, 0x00000001});
    const std::uint32_t dst = pick({0xc0a80101, 0x0a020304, 0x0a030000, 0x08080808, 0x00000002});
    const auto sport = static_cast<std::uint16_t>(pick({0, 999, 1000, 1500, 2000, 2001, 65535}));
    const auto dport = static_cast<std::uint16_t>(pick({0, 7, 22, 53, 80, 443, 5000, 6000, 6001, 8080, 65535}));
    const auto flags = static_cast<std::uint8_t>(pick({0x02, 0x12, 0x10}));
    auto f = frame(v6, proto, src, dst, sport, dport, flags);
    // Cut short, but not below the fixed IP header: the kernel runs no
    // test of a shorter frame.
    const std::size_t fixed = 14 + (v6 ? 40 : 20);
    if (random() % 5 == 0) f.resize(fixed + random() % (f.size() - fixed + 1));
    if (random() % 7 == 0) f.resize(f.size() + random() % 30, 0);        // padded
    int verdict = 0;
    const std::uint32_t mark = kernel.run(f, &verdict);
    asked += verdict == NUV_KCLFY_ASK;
    ASSERT_EQ(mark, rules.mark(f)) << "packet " << i;
  }
  EXPECT_EQ(asked, 0u) << "no rule of this set needs userspace";
  for (std::uint32_t r = 0; r < nuv_kclfy_rule_count(kernel.k); ++r) {
    std::uint64_t hits = 0;
    ASSERT_EQ(nuv_kclfy_rule_hits(kernel.k, r, &hits), NUV_KCLFY_OK);
    EXPECT_EQ(hits, nuv_kclfy_rule(kernel.k, r)->hits) << "rule " << r;
  }
}

// A DHCP discovery from `mac` whose vendor class (option 60) is `vendor`.
std::vector<std::uint8_t> dhcp_discover(const std::uint8_t mac[6], const std::string &vendor) {
  std::vector<std::uint8_t> f = frame(false, 17, 0, 0xffffffff, 68, 67);
  std::memcpy(&f[6], mac, 6);
  std::vector<std::uint8_t> bootp(236, 0);
  bootp[0] = 1, bootp[1] = 1, bootp[2] = 6;
  std::memcpy(&bootp[28], mac, 6);
  bootp.insert(bootp.end(), {99, 130, 83, 99, 53, 1, 1, 60, static_cast<std::uint8_t>(vendor.size())});
  bootp.insert(bootp.end(), vendor.begin(), vendor.end());
  bootp.push_back(255);
  f.insert(f.end(), bootp.begin(), bootp.end());
  // The IPv4 total length and the UDP length cover the message.
  const std::size_t ip_length = f.size() - 14, udp_length = ip_length - 20;
  f[16] = static_cast<std::uint8_t>(ip_length >> 8), f[17] = static_cast<std::uint8_t>(ip_length);
  f[38] = static_cast<std::uint8_t>(udp_length >> 8), f[39] = static_cast<std::uint8_t>(udp_length);
  return f;
}

// The rules of the replay below, with the name of their DHCP client table.
std::vector<std::pair<std::string, std::uint16_t>> replay_rules(const std::string &table) {
  return {{"tcp.dport 22", 1},
          {"dhcpoption 60 android-* " + table, 2},
          {"ethsrctab " + table, 3},
          {"udp.dport 53", 4},
          {"packetmatch GET*", 5},
          {"ip.version 4", 6}};
}

// Kernel plus userspace: the kernel decides what it can, the library
// decides what the kernel asks about (learning DHCP clients, which are then
// mirrored into the kernel).  Their hits together are those of the library
// deciding every packet alone.
TEST(KernelClassifier, KernelAndUserspaceHitsTogetherEqualTheLibrarysAlone) {
  Kernel kernel;
  ASSERT_NE(kernel.k, nullptr) << kernel.why;
  Rules split(replay_rules("replay.split")), alone(replay_rules("replay.alone"));
  char why[512] = "";
  ASSERT_EQ(nuv_kclfy_load_set(kernel.k, split.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  std::mt19937 random(11);
  const std::uint8_t phone[6] = {0x02, 0, 0, 0, 0, 7}, laptop[6] = {0x02, 0, 0, 0, 0, 8};
  std::vector<std::vector<std::uint8_t>> frames;
  for (int i = 0; i < 400; ++i) {
    const std::uint8_t *mac = random() % 2 ? phone : laptop;
    std::vector<std::uint8_t> f;
    switch (random() % 5) {
      case 0: f = dhcp_discover(mac, random() % 2 ? "android-12" : "dhcpcd-9"); break;
      case 1: f = frame(false, 6, 1, 2, 1234, 22); break;
      case 2: f = frame(false, 17, 1, 2, 1234, static_cast<std::uint16_t>(random() % 2 ? 53 : 54)); break;
      default: f = frame(random() % 4 == 0, 6, 1, 2, 1234, 80); break;
    }
    if (f[12] == 0x08) std::memcpy(&f[6], mac, 6);
    frames.push_back(f);
  }
  std::size_t asked = 0, in_kernel = 0;
  for (const auto &f : frames) {
    int verdict = 0;
    const std::uint32_t mark = kernel.run(f, &verdict);
    const std::uint32_t expected = alone.mark(f);
    if (verdict == NUV_KCLFY_ASK) {
      ++asked;
      EXPECT_EQ(split.mark(f), expected) << "userspace decides as the library alone";
      ASSERT_EQ(nuv_kclfy_sync_tables(kernel.k, why, sizeof why), NUV_KCLFY_OK) << why;
    } else {
      ++in_kernel;
      EXPECT_EQ(mark, expected);
    }
  }
  EXPECT_GT(asked, 0u);
  EXPECT_GT(in_kernel, 0u);
  std::map<std::uint16_t, std::uint64_t> together, library;
  for (std::uint32_t r = 0; r < nuv_kclfy_rule_count(kernel.k); ++r) {
    std::uint64_t hits = 0;
    ASSERT_EQ(nuv_kclfy_rule_hits(kernel.k, r, &hits), NUV_KCLFY_OK);
    const nuv_clfy *rule = nuv_kclfy_rule(kernel.k, r);
    together[rule->result] = hits + rule->hits;
  }
  for (const nuv_clfy *rule = alone.head(); rule; rule = rule->next) library[rule->result] = rule->hits;
  EXPECT_EQ(together, library);
  EXPECT_GT(library[3], 0u) << "a learned phone's packets are decided by its table's rule";
}

TEST(KernelClassifier, AskRulesSendOnlyThePacketsThatReachThemToUserspace) {
  Kernel kernel;
  ASSERT_NE(kernel.k, nullptr) << kernel.why;
  Rules rules({{"tcp.dport 80", 1}, {"dhcpoption 60 android-* kernel.phones", 2}, {"udp.dport 53", 3}});
  char why[512] = "";
  ASSERT_EQ(nuv_kclfy_load_set(kernel.k, rules.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  int verdict = 0;
  EXPECT_EQ(kernel.run(frame(false, 6, 1, 2, 1234, 80), &verdict), 1u);
  EXPECT_EQ(verdict, NUV_KCLFY_RULE);
  kernel.run(frame(false, 17, 1, 2, 68, 67), &verdict);
  EXPECT_EQ(verdict, NUV_KCLFY_ASK) << "a DHCP request reaches the DHCP rule";
  EXPECT_EQ(kernel.run(frame(false, 17, 1, 2, 1234, 53), &verdict), 3u)
      << "the DHCP rule is UDP port 67 only: its ranges turn a DNS query away in the kernel";
  EXPECT_EQ(verdict, NUV_KCLFY_RULE);
}

TEST(KernelClassifier, TableChangesReachTheKernelWhenMirrored) {
  Kernel kernel;
  ASSERT_NE(kernel.k, nullptr) << kernel.why;
  Rules rules({{"ipdsttab kernel.dst", 4}, {"ethsrctab kernel.src", 5}});
  char why[512] = "";
  ASSERT_EQ(nuv_kclfy_load_set(kernel.k, rules.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  auto f = frame(false, 17, 0x0a000001, 0x0a000063, 1, 2);
  EXPECT_EQ(kernel.run(f), kMarkIn);
  const std::uint8_t dst[4] = {10, 0, 0, 0x63};
  std::uint32_t addr;
  std::memcpy(&addr, dst, 4);
  ASSERT_EQ(nuv_clfy_ipdsttab_add4("kernel.dst", addr), 0);
  ASSERT_EQ(nuv_kclfy_sync_tables(kernel.k, why, sizeof why), NUV_KCLFY_OK) << why;
  EXPECT_EQ(kernel.run(f), 4u);
  EXPECT_EQ(rules.mark(f), 4u);
  ASSERT_EQ(nuv_clfy_ipdsttab_del4("kernel.dst", addr), 0);
  ASSERT_EQ(nuv_clfy_ethersrctab_add("kernel.src", f.data() + 6), 0);
  ASSERT_EQ(nuv_kclfy_sync_tables(kernel.k, why, sizeof why), NUV_KCLFY_OK) << why;
  EXPECT_EQ(kernel.run(f), 5u) << "the address left the destination table; the source joined its table";
  EXPECT_EQ(rules.mark(f), 5u);
  ASSERT_EQ(nuv_clfy_ethersrctab_del("kernel.src", f.data() + 6), 0);
  ASSERT_EQ(nuv_kclfy_sync_tables(kernel.k, why, sizeof why), NUV_KCLFY_OK) << why;
  EXPECT_EQ(kernel.run(f), kMarkIn);
}

TEST(KernelClassifier, AThousandReloadsNeverMixTwoSets) {
  Kernel kernel;
  ASSERT_NE(kernel.k, nullptr) << kernel.why;
  // Two sets of different shapes: every verdict of the first is 1, of the
  // second 2; a packet decided by a mix of the two would get neither or ask.
  std::vector<std::pair<std::string, std::uint16_t>> first, second;
  for (int p = 1; p <= 40; ++p) first.push_back({"udp.dport " + std::to_string(p), 1});
  first.push_back({"any", 1});
  for (int p = 1; p <= 300; ++p) second.push_back({"ip.saddr 10." + std::to_string(p % 250) + ".0.0/16 tcp.dport " + std::to_string(p), 2});
  second.push_back({"any", 2});
  Rules a(first), b(second);
  char why[512] = "";
  ASSERT_EQ(nuv_kclfy_load_set(kernel.k, a.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  std::atomic<bool> stop{false};
  std::atomic<long> runs{0}, wrong{0};
  std::thread runner([&] {
    std::mt19937 random(3);
    while (!stop) {
      auto f = frame(false, random() % 2 ? 6 : 17, 0x0a000000u | (random() % 300) << 16, 1, 9,
                     static_cast<std::uint16_t>(random() % 320));
      nuv_kclfy_run r{};
      r.ifindex = 1;
      r.mark_in = kMarkIn;
      if (nuv_kclfy_test_run(kernel.k, f.data(), static_cast<std::uint32_t>(f.size()), &r) != NUV_KCLFY_OK ||
          (r.mark_out != 1 && r.mark_out != 2))
        ++wrong;
      ++runs;
    }
  });
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(nuv_kclfy_load_set(kernel.k, (i % 2 ? a : b).compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  stop = true;
  runner.join();
  EXPECT_GT(runs.load(), 0);
  EXPECT_EQ(wrong.load(), 0) << "of " << runs.load() << " test runs";
}

TEST(KernelClassifier, MarkMaskAndAskBitMustNotOverlap) {
  nuv_kclfy *k = nullptr;
  nuv_kclfy_options o{0xff, 0x80, 0};
  char why[256] = "";
  EXPECT_EQ(nuv_kclfy_open(&o, &k, why, sizeof why), NUV_KCLFY_E_INVALID);
  EXPECT_EQ(k, nullptr);
  EXPECT_NE(std::string(why).find("overlap"), std::string::npos);
}

TEST(KernelClassifier, ResultsOutsideTheMaskKeepThePacketsOtherBits) {
  nuv_kclfy *k = nullptr;
  nuv_kclfy_options o{0x00ff, 0x8000, 0};
  char why[512] = "";
  ASSERT_EQ(nuv_kclfy_open(&o, &k, why, sizeof why), NUV_KCLFY_OK) << why;
  Rules rules({{"udp.dport 53", 0x1234}});
  ASSERT_EQ(nuv_kclfy_load_set(k, rules.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  auto f = frame(false, 17, 1, 2, 3, 53);
  nuv_kclfy_run r{};
  r.ifindex = 1;
  r.mark_in = 0xabcd0000u | 0x0f00u | 0x00ffu;
  ASSERT_EQ(nuv_kclfy_test_run(k, f.data(), static_cast<std::uint32_t>(f.size()), &r), NUV_KCLFY_OK);
  EXPECT_EQ(r.mark_out, 0xabcd0f34u);
  nuv_kclfy_close(k);
}

// The program id attached at an interface's ingress (0: none).
std::uint32_t attached_program(int ifindex) {
  LIBBPF_OPTS(bpf_tc_hook, hook, .ifindex = ifindex, .attach_point = BPF_TC_INGRESS);
  LIBBPF_OPTS(bpf_tc_opts, opts, .handle = 1, .priority = 1);
  return bpf_tc_query(&hook, &opts) == 0 ? opts.prog_id : 0;
}

std::uint32_t program_id(int fd) {
  bpf_prog_info info{};
  std::uint32_t length = sizeof info;
  return bpf_obj_get_info_by_fd(fd, &info, &length) == 0 ? info.id : 0;
}

TEST(KernelClassifier, ASetLargerThanTheRoomMovesEveryInterfaceToALargerProgram) {
  // In a network namespace of its own, with a veth pair of its own.
  ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
  ASSERT_EQ(std::system("ip link add nkgrow0 type veth peer name nkgrow1 && ip link set nkgrow0 up && "
                        "ip link set nkgrow1 up"),
            0);
  const int ifindex = static_cast<int>(if_nametoindex("nkgrow0"));
  ASSERT_GT(ifindex, 0);
  nuv_kclfy *k = nullptr;
  nuv_kclfy_options o{0, 0, 4096};
  char why[1024] = "";
  ASSERT_EQ(nuv_kclfy_open(&o, &k, why, sizeof why), NUV_KCLFY_OK) << why;
  Rules small({{"udp.dport 53", 1}, {"ipdsttab kernel.grow", 2}});
  ASSERT_EQ(nuv_kclfy_load_set(k, small.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  ASSERT_EQ(nuv_kclfy_attach(k, ifindex, 0, why, sizeof why), NUV_KCLFY_OK) << why;
  const std::uint32_t first = program_id(nuv_kclfy_program_fd(k));
  EXPECT_EQ(attached_program(ifindex), first);
  const std::uint8_t dst[4] = {10, 9, 9, 9};
  std::uint32_t addr;
  std::memcpy(&addr, dst, 4);
  ASSERT_EQ(nuv_clfy_ipdsttab_add4("kernel.grow", addr), 0);

  // About 1,000 rules need more than 4,096 slots.
  std::vector<std::pair<std::string, std::uint16_t>> texts;
  for (int p = 1; p <= 1000; ++p)
    texts.push_back({"ip.saddr 10." + std::to_string(p % 200) + ".0.0/16 udp.dport " + std::to_string(1000 + p), 3});
  texts.push_back({"ipdsttab kernel.grow", 4});
  Rules large(texts);
  ASSERT_EQ(nuv_kclfy_load_set(k, large.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  const std::uint32_t second = program_id(nuv_kclfy_program_fd(k));
  EXPECT_NE(second, first);
  EXPECT_EQ(attached_program(ifindex), second) << "the interface runs the larger program";
  nuv_kclfy_run run{};
  run.ifindex = 1;
  run.mark_in = kMarkIn;
  auto f = frame(false, 17, 0x0a070001, 0x0a090909, 9, 1007);
  ASSERT_EQ(nuv_kclfy_test_run(k, f.data(), static_cast<std::uint32_t>(f.size()), &run), NUV_KCLFY_OK);
  EXPECT_EQ(run.mark_out, 3u);
  f = frame(false, 17, 0x0b000001, 0x0a090909, 9, 9);
  ASSERT_EQ(nuv_kclfy_test_run(k, f.data(), static_cast<std::uint32_t>(f.size()), &run), NUV_KCLFY_OK);
  EXPECT_EQ(run.mark_out, 4u) << "the table moved with the classifier";
  EXPECT_EQ(run.mark_out, large.mark(f));

  // Back to a small set: it fits the larger room, the program stays.
  ASSERT_EQ(nuv_kclfy_load_set(k, small.compiled(), why, sizeof why), NUV_KCLFY_OK) << why;
  EXPECT_EQ(program_id(nuv_kclfy_program_fd(k)), second);
  nuv_kclfy_close(k);
  EXPECT_EQ(attached_program(ifindex), 0u) << "closing detaches";
}

}  // namespace
