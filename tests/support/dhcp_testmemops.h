// A dhcp_memops record for tests: counts allocations and live blocks, can
// make the nth allocation fail, fills new blocks with garbage (so nothing
// relies on zeroed memory) and checks that only live blocks are released.
#ifndef NIKERKIOG_DHCP_TESTMEMOPS_H
#define NIKERKIOG_DHCP_TESTMEMOPS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "nuvdhcp.h"

namespace testsupport {

// Process-wide state behind the memops functions (they get no context).
struct DhcpMemopsState {
  std::map<void *, std::uint32_t> live;  // block -> requested size
  std::vector<std::uint32_t> requested;  // sizes of all attempted allocations
  long fail_at = 0;                      // attempt number that fails, 0: none
  bool fail_onwards = false;             // also every attempt after it
  long attempts = 0;
  long bad_frees = 0;
};

inline DhcpMemopsState &dhcp_memops_state() {
  static DhcpMemopsState state;
  return state;
}

inline void *dhcp_test_alloc(std::uint32_t size) {
  DhcpMemopsState &s = dhcp_memops_state();
  ++s.attempts;
  s.requested.push_back(size);
  if (s.fail_at && (s.attempts == s.fail_at || (s.fail_onwards && s.attempts > s.fail_at))) return nullptr;
  void *block = std::malloc(size ? size : 1);
  if (!block) return nullptr;
  std::memset(block, 0xA5, size ? size : 1);
  s.live[block] = size;
  return block;
}

inline void dhcp_test_free(void *block) {
  DhcpMemopsState &s = dhcp_memops_state();
  auto it = s.live.find(block);
  if (it == s.live.end()) {
    ++s.bad_frees;
    ADD_FAILURE() << "dhcp_memops free of a block that is not live: " << block;
    return;
  }
  s.live.erase(it);
  std::free(block);
}

// Use one per test: resets the counters on construction and, on
// destruction, fails the test when blocks are still live (a leak) or a
// bad pointer was released.  Call expect_no_leaks() earlier for a check
// before the test's own clean-up.
class DhcpTestMemops {
 public:
  DhcpTestMemops() {
    DhcpMemopsState &s = dhcp_memops_state();
    EXPECT_TRUE(s.live.empty()) << "blocks left over from an earlier test";
    s = DhcpMemopsState{};
  }
  ~DhcpTestMemops() {
    DhcpMemopsState &s = dhcp_memops_state();
    EXPECT_EQ(s.live.size(), 0u) << "dhcp_memops blocks leaked";
    EXPECT_EQ(s.bad_frees, 0);
    for (auto &entry : s.live) std::free(entry.first);
    s = DhcpMemopsState{};
  }
  DhcpTestMemops(const DhcpTestMemops &) = delete;
  DhcpTestMemops &operator=(const DhcpTestMemops &) = delete;

  const dhcp_memops *ops() const { return &ops_; }
  // Makes the `n`th allocation from now fail (1: the next one); 0: none.
  void fail_nth(long n) {
    DhcpMemopsState &s = dhcp_memops_state();
    s.fail_at = n ? s.attempts + n : 0;
    s.fail_onwards = false;
  }
  // Makes every allocation from the `n`th from now on fail.
  void fail_from(long n) {
    fail_nth(n);
    dhcp_memops_state().fail_onwards = n != 0;
  }
  long live() const { return static_cast<long>(dhcp_memops_state().live.size()); }
  long attempts() const { return dhcp_memops_state().attempts; }
  const std::vector<std::uint32_t> &requested() const { return dhcp_memops_state().requested; }
  bool is_live(const void *block) const {
    return dhcp_memops_state().live.count(const_cast<void *>(block)) != 0;
  }

 private:
  dhcp_memops ops_{nullptr, dhcp_test_alloc, dhcp_test_free};
};

// An option store that starts empty and is released at scope end.
struct DhcpStore {
  explicit DhcpStore(const dhcp_memops *memops) : ops(memops) { std::memset(slots, 0, sizeof slots); }
  ~DhcpStore() { dhcp_free_options(ops, slots); }
  DhcpStore(const DhcpStore &) = delete;
  DhcpStore &operator=(const DhcpStore &) = delete;
  const dhcp_memops *ops;
  dhcp_options slots;
  // The value of option `code` as text, or "<absent>".
  std::string value(int code) const {
    return slots[code].data ? std::string(reinterpret_cast<const char *>(slots[code].data), slots[code].len)
                            : std::string("<absent>");
  }
  // How many slots hold a value.
  int present() const {
    int n = 0;
    for (const dhcp_option &o : slots) n += o.data != nullptr;
    return n;
  }
};

}  // namespace testsupport

#endif
