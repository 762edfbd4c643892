// Firewall rule texts on hostile input: access rules, masquerade forward
// rules, IPv6 forward rule blocks, IPv6 port ranges and PCP handling words.
// Wherever a printed form is documented to read back, printing, reading and
// printing again gives the same text (a fixpoint).
// Input: lines separated by newlines; every line goes through every parser.
#include <algorithm>

#include "fuzz_check.h"
#include "nikerkiog.h"

namespace {

void check_access(const std::string &line) {
  ipaccess_rule rule;
  if (ipaccess_parse(&rule, line.c_str()) != 0) return;
  const std::string printed = ipaccess_string(&rule);
  ipaccess_rule again;
  FUZZ_CHECK(ipaccess_parse(&again, printed.c_str()) == 0);
  FUZZ_CHECK(printed == ipaccess_string(&again));
  ipaccess_optim_rulestruct(&rule);
  const std::string canonical = ipaccess_string(&rule);
  const std::string by_flags = ipaccess_string_use_flags(&rule);
  ipaccess_rule opt;
  FUZZ_CHECK(ipaccess_parse(&opt, canonical.c_str()) == 0);
  ipaccess_optim_rulestruct(&opt);
  FUZZ_CHECK(canonical == ipaccess_string(&opt));
  FUZZ_CHECK(by_flags == ipaccess_string_use_flags(&opt));
}

void check_masquerade(const std::string &line) {
  ipmasqfwrule rule;
  if (ipmasqfwrule_parse(&rule, line.c_str()) == 0) {
    const std::string printed = ipmasqfwrule_string(&rule);
    ipmasqfwrule again;
    // Protocol names with a blank or of the form "p200" do not read back.
    if (ipmasqfwrule_parse(&again, printed.c_str()) == 0) FUZZ_CHECK(printed == ipmasqfwrule_string(&again));
  }
  ipmasqfwruleex ex;
  if (ipmasqfwruleex_parse(&ex, line.c_str()) == 0) {
    const std::string printed = ipmasqfwruleex_string(&ex);
    ipmasqfwruleex again;
    if (ipmasqfwruleex_parse(&again, printed.c_str()) == 0) {
      const std::string second = ipmasqfwruleex_string(&again);
      ipmasqfwruleex third;
      FUZZ_CHECK(ipmasqfwruleex_parse(&third, second.c_str()) == 0);
      FUZZ_CHECK(second == ipmasqfwruleex_string(&third));
    }
  }
}

void check_portrange(const std::string &line) {
  ip6_portrange range;
  if (ip6_portrange_parse(line.c_str(), &range) != 0) return;
  const std::string printed = ip6_portrange2str(&range);
  const std::string simple = ip6_portrange2simplestr(&range);
  FUZZ_CHECK(printed.size() < 256 && simple.size() < 256);
  ip6_portrange again;
  if (ip6_portrange_parse(printed.c_str(), &again) != 0) return;
  const std::string second = ip6_portrange2str(&again);
  ip6_portrange third;
  FUZZ_CHECK(ip6_portrange_parse(second.c_str(), &third) == 0);
  FUZZ_CHECK(second == ip6_portrange2str(&third));
}

void check_pcp(const std::string &line) {
  std::int32_t value = -7;
  if (pcphandling_parse(line.c_str(), &value) == 0) {
    FUZZ_CHECK(line == pcphandling2str(value));
  } else {
    FUZZ_CHECK(value == -7);
  }
}

// All lines into one IPv6 forward rule block; every entry lies inside the
// block, the finished block is sorted, and its text fits the ring buffer.
void check_forward_block(const std::vector<std::string> &lines, std::uint8_t capacity) {
  const std::size_t size = IP6_FORWARDRULE_HEADER_SIZE + (capacity % 16) * sizeof(ip6_portrange);
  std::vector<ip6_portrange> storage(size / sizeof(ip6_portrange) + 1);
  ip6_forwardrule *block = ip6_forwardrule_init(storage.data(), size);
  FUZZ_CHECK(block != nullptr);
  for (const std::string &line : lines) {
    const int rc = ip6_forwardrule_parse(block, line.c_str());
    FUZZ_CHECK(rc == 0 || rc == -1 || rc == -2 || rc == -3 || rc == -5);
    FUZZ_CHECK(block->count <= block->capacity);
  }
  const std::uint32_t used = ip6_forwardrule_finish(block);
  FUZZ_CHECK(used == IP6_FORWARDRULE_HEADER_SIZE + block->count * sizeof(ip6_portrange));
  for (std::uint16_t i = 1; i < block->count; ++i) {
    const ip6_portrange &a = block->entries[i - 1], &b = block->entries[i];
    FUZZ_CHECK(a.proto < b.proto || (a.proto == b.proto && (a.port_lo < b.port_lo ||
                                                            (a.port_lo == b.port_lo && a.port_hi <= b.port_hi))));
  }
  FUZZ_CHECK(std::strlen(ip6_forwardrule2str(block)) < 256);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input in(data, size);
  const std::uint8_t capacity = in.byte();
  std::vector<std::string> lines;
  while (in.left() && lines.size() < 16) {
    std::string line = in.until('\n');
    line = line.substr(0, std::min(line.find('\0'), line.size()));
    lines.push_back(line);
  }
  for (const std::string &line : lines) {
    check_access(line);
    check_masquerade(line);
    check_portrange(line);
    check_pcp(line);
  }
  check_forward_block(lines, capacity);
  return 0;
}
