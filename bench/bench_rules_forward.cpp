// Masquerade forward rules, IPv6 forward rules and IPv6 port ranges: cost of
// parsing and printing rule lines, as a ratio to a plain reference run in the
// same process on the same lines (a word split with strtok_r and a strtol per
// word, the least any parser of these lines has to do).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nuvrules.h"

namespace {

const std::vector<std::string> &masq_lines() {
  static const std::vector<std::string> lines = {
      "tcp 0.0.0.0:80 192.168.178.20:80 0",
      "tcp 0.0.0.0:443 192.168.178.20:443 0 # https",
      "udp 0.0.0.0:27015+10 192.168.178.40:27015 0 # game server",
      "# tcp 0.0.0.0:22 192.168.178.2:22 0 # ssh to the NAS, off for now",
      "udp 0.0.0.0:7078+32 192.168.178.50:7078 0 out mark 46 # RTP",
      "tcp 0.0.0.0:25 192.168.178.21:25 0 internet mark 1 # smtp",
      "ip 0.0.0.0 192.168.178.60 0 # exposed host",
      "gre 0.0.0.0 192.168.178.61 0",
  };
  return lines;
}

const std::vector<std::string> &forward_lines() {
  static const std::vector<std::string> lines = {
      "tcp 445", "tcp 22", "tcp 80,443", "tcp 5000-5001", "udp 5353", "icmpv6",
      "udp 88,500,3544,4500", "udp 1024 - 1030 , 2000", "# media server", "gre",
  };
  return lines;
}

const std::vector<std::string> &range_lines() {
  static const std::vector<std::string> lines = {
      "tcp 443 internet # web server", "# udp 5000-5010 internet mark 3 # game",
      "udp 5353 local",                "tcp 8080 - 8090 local mark 17",
      "icmpv6 # ping",                 "tcp 22 ssh mark 5 #admin",
  };
  return lines;
}

long reference_split(const std::string &line) {
  char copy[1024];
  std::strncpy(copy, line.c_str(), sizeof copy - 1);
  copy[sizeof copy - 1] = '\0';
  long sum = 0;
  char *save = nullptr;
  for (char *word = strtok_r(copy, " \t", &save); word; word = strtok_r(nullptr, " \t", &save))
    sum += std::strtol(word, nullptr, 10) + word[0];
  return sum;
}

template <typename F>
double seconds_of(F &&work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs `subject` once over `lines` per iteration, then the reference over the
// same lines, and reports the ratio of the two times.
template <typename F>
void run_against_reference(benchmark::State &state, const std::vector<std::string> &lines, F &&subject) {
  double subject_time = 0;
  double reference_time = 0;
  for (auto _ : state) {
    subject_time += seconds_of([&] { subject(lines); });
    reference_time += seconds_of([&] {
      for (const std::string &line : lines) benchmark::DoNotOptimize(reference_split(line));
    });
  }
  state.counters["ratio_to_split"] = reference_time > 0 ? subject_time / reference_time : 0;
  state.SetItemsProcessed(state.iterations() * static_cast<long>(lines.size()));
}

void BM_MasqParse(benchmark::State &state) {
  run_against_reference(state, masq_lines(), [](const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
      ipmasqfwruleex rule;
      benchmark::DoNotOptimize(ipmasqfwruleex_parse(&rule, line.c_str()));
    }
  });
}

void BM_MasqParsePrint(benchmark::State &state) {
  run_against_reference(state, masq_lines(), [](const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
      ipmasqfwruleex rule;
      ipmasqfwruleex_parse(&rule, line.c_str());
      benchmark::DoNotOptimize(ipmasqfwruleex_string(&rule));
    }
  });
}

void BM_Ip6ForwardRuleBlock(benchmark::State &state) {
  run_against_reference(state, forward_lines(), [](const std::vector<std::string> &lines) {
    std::uint64_t memory[(48 + 32 * sizeof(ip6_portrange)) / 8 + 1];
    ip6_forwardrule *block = ip6_forwardrule_init(memory, 48 + 32 * sizeof(ip6_portrange));
    for (const std::string &line : lines) ip6_forwardrule_parse(block, line.c_str());
    ip6_forwardrule_finish(block);
    benchmark::DoNotOptimize(ip6_forwardrule2str(block));
  });
}

void BM_Ip6PortRangeParsePrint(benchmark::State &state) {
  run_against_reference(state, range_lines(), [](const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
      ip6_portrange range;
      ip6_portrange_parse(line.c_str(), &range);
      benchmark::DoNotOptimize(ip6_portrange2str(&range));
    }
  });
}

}  // namespace

BENCHMARK(BM_MasqParse);
BENCHMARK(BM_MasqParsePrint);
BENCHMARK(BM_Ip6ForwardRuleBlock);
BENCHMARK(BM_Ip6PortRangeParsePrint);

BENCHMARK_MAIN();
