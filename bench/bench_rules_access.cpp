// Access rules: cost of parsing, normalising and printing rule lines, as a
// ratio to a plain reference run in the same process on the same lines (a
// word split with strtok_r and a strtol per word, the least any parser of
// these lines has to do).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nuvrules.h"

namespace {

const std::vector<std::string> &rule_lines() {
  static const std::vector<std::string> lines = {
      "permit tcp 192.168.178.0 255.255.255.0 host 192.168.178.1 eq 443",
      "deny tcp any host 192.168.178.1 range 1 1023 log alert",
      "permit udp any range 68 67 any range 67 67",
      "permit tcp 192.168.178.0 255.255.255.0 any eq 80 connection outgoing",
      "permit ip any 192.168.178.0 255.255.255.0 related",
      "permit tcp any host 192.168.178.22 ge 50000 connection incoming log long",
      "deny icmp any any range 13 300 log",
      "permit gre any host 192.168.178.30",
      "reject tcp any lt 1024 any eq 445 connect",
      "deny tcp 192.168.179.0 255.255.255.0 range 1024 65535 192.168.178.0 255.255.255.0 range 1 1023 "
      "established connection incoming log alert",
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

template <typename F>
void run_against_reference(benchmark::State &state, F &&subject) {
  double subject_time = 0;
  double reference_time = 0;
  for (auto _ : state) {
    subject_time += seconds_of([&] {
      for (const std::string &line : rule_lines()) subject(line);
    });
    reference_time += seconds_of([&] {
      for (const std::string &line : rule_lines()) benchmark::DoNotOptimize(reference_split(line));
    });
  }
  state.counters["ratio_to_split"] = reference_time > 0 ? subject_time / reference_time : 0;
  state.SetItemsProcessed(state.iterations() * static_cast<long>(rule_lines().size()));
}

void BM_AccessParse(benchmark::State &state) {
  run_against_reference(state, [](const std::string &line) {
    ipaccess_rule rule;
    benchmark::DoNotOptimize(ipaccess_parse(&rule, line.c_str()));
  });
}

void BM_AccessParseOptimisePrint(benchmark::State &state) {
  run_against_reference(state, [](const std::string &line) {
    ipaccess_rule rule;
    ipaccess_parse(&rule, line.c_str());
    ipaccess_optim_rulestruct(&rule);
    benchmark::DoNotOptimize(ipaccess_string_use_flags(&rule));
  });
}

}  // namespace

BENCHMARK(BM_AccessParse);
BENCHMARK(BM_AccessParseOptimisePrint);

BENCHMARK_MAIN();
