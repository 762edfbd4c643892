// Packet utilities on the data path: cost of describing a packet, walking
// an IPv6 extension header chain and reading a protocol name, each as a
// ratio to a plain reference run in the same process on the same input.
#include <benchmark/benchmark.h>
#include <arpa/inet.h>
#include <strings.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "nuvpkt.h"
#include "nuvproto.h"

namespace {

template <typename F>
double seconds_of(F &&work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <typename Subject, typename Reference>
void run_against_reference(benchmark::State &state, const char *counter, Subject &&subject, Reference &&reference) {
  double subject_time = 0;
  double reference_time = 0;
  for (auto _ : state) {
    subject_time += seconds_of([&] {
      for (int i = 0; i < 64; ++i) subject();
    });
    reference_time += seconds_of([&] {
      for (int i = 0; i < 64; ++i) reference();
    });
  }
  state.counters[counter] = reference_time > 0 ? subject_time / reference_time : 0;
  state.SetItemsProcessed(state.iterations() * 64);
}

// IPv4 TCP SYN 192.168.178.20:51000 -> 93.184.216.34:443.
const std::uint8_t kTcpSyn[34] = {0x45, 0, 0, 40, 0, 0, 0x40, 0, 64, 6, 0, 0, 192, 168, 178, 20, 93, 184,
                                  216, 34, 0xc7, 0x38, 0x01, 0xbb, 0, 0, 0, 1, 0, 0, 0, 0, 0x50, 0x02};

// The same line with one snprintf and libc address texts.
const char *reference_tcp_line(const std::uint8_t *ip) {
  static char line[256];
  char s[INET_ADDRSTRLEN], d[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, ip + 12, s, sizeof s);
  inet_ntop(AF_INET, ip + 16, d, sizeof d);
  std::snprintf(line, sizeof line, "TCP %s:%d -> %s:%d %s", s, ip[20] << 8 | ip[21], d, ip[22] << 8 | ip[23],
                (ip[33] & 2) ? "SYN" : "");
  return line;
}

void BM_DescribeTcpSyn(benchmark::State &state) {
  run_against_reference(
      state, "ratio_to_snprintf", [] { benchmark::DoNotOptimize(iph2str(kTcpSyn)); },
      [] { benchmark::DoNotOptimize(reference_tcp_line(kTcpSyn)); });
}

// IPv6 with hop-by-hop, destination options and routing headers before UDP.
std::vector<std::uint8_t> chained_packet() {
  std::vector<std::uint8_t> p(40 + 8 + 16 + 24 + 8, 0);
  p[0] = 0x60;
  p[5] = static_cast<std::uint8_t>(p.size() - 40);
  p[6] = 0;
  p[40] = 60, p[41] = 0;
  p[48] = 43, p[49] = 1;
  p[64] = 17, p[65] = 2;
  return p;
}

// The walk with no checks at all: the least any walk has to do.
int reference_walk(const std::uint8_t *ip6, std::uint8_t *nexthdr) {
  int nh = ip6[6];
  int pos = 40;
  while (nh == 0 || nh == 43 || nh == 60) {
    int size = (ip6[pos + 1] + 1) * 8;
    nh = ip6[pos];
    pos += size;
  }
  *nexthdr = static_cast<std::uint8_t>(nh);
  return pos;
}

void BM_SkipExtensionHeaders(benchmark::State &state) {
  static const std::vector<std::uint8_t> p = chained_packet();
  run_against_reference(
      state, "ratio_to_unchecked_walk",
      [] {
        std::uint8_t nh;
        benchmark::DoNotOptimize(ip6_skip_exthdr_from_ipv6hdr(p.data(), &nh));
      },
      [] {
        std::uint8_t nh;
        benchmark::DoNotOptimize(reference_walk(p.data(), &nh));
      });
}

// A protocol name near the end of the table, against one strcasecmp per name
// of a short list.
void BM_ParseProtocolName(benchmark::State &state) {
  static const char *const kNames[] = {"ip", "icmp", "igmp", "tcp", "udp", "gre", "esp", "ah", "sctp", "udplite"};
  run_against_reference(
      state, "ratio_to_short_list_scan",
      [] {
        std::uint8_t proto;
        benchmark::DoNotOptimize(ipproto_parse(&proto, "UDPLite"));
      },
      [] {
        int found = -1;
        for (int i = 0; i < 10; ++i)
          if (strcasecmp(kNames[i], "UDPLite") == 0) found = i;
        benchmark::DoNotOptimize(found);
      });
}

}  // namespace

BENCHMARK(BM_DescribeTcpSyn);
BENCHMARK(BM_SkipExtensionHeaders);
BENCHMARK(BM_ParseProtocolName);
BENCHMARK_MAIN();
