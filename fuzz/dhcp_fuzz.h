// Shared by the DHCP fuzz targets: counting memory operations, and the
// operations both targets run on one input.
#ifndef NIKERKIOG_FUZZ_DHCP_H
#define NIKERKIOG_FUZZ_DHCP_H

#include "fuzz_check.h"
#include "nikerkiog.h"

namespace fuzz {

// Memory operations that count live blocks and can fail the nth
// allocation from a chosen point on (0: never).
struct DhcpMemory {
  static long &live() { static long n = 0; return n; }
  static long &attempts() { static long n = 0; return n; }
  static long &fail_at() { static long n = 0; return n; }
  static void *alloc(std::uint32_t size) {
    ++attempts();
    if (fail_at() && attempts() == fail_at()) return nullptr;
    void *p = std::malloc(size ? size : 1);
    if (p) ++live();
    return p;
  }
  static void release(void *p) {
    if (!p) return;
    --live();
    std::free(p);
  }
  static const dhcp_memops *ops() {
    static const dhcp_memops memops{nullptr, alloc, release};
    return &memops;
  }
};

// Configured options derived from the input: an option code, then its
// value shaped by the member type the code has.  Every record and element
// is allocated through `ops`, so dhcp_free_dhcpoptions releases them.
class Config {
 public:
  explicit Config(const dhcp_memops *ops) : ops_(ops) {}
  ~Config() { dhcp_free_dhcpoptions(ops_, &head_); }
  Config(const Config &) = delete;
  Config &operator=(const Config &) = delete;
  dhcpoptions_record **head() { return &head_; }

  // False when memory ran out (what was built stays in the list).
  bool add_from(Input &in) {
    auto *r = static_cast<dhcpoptions_record *>(ops_->alloc(sizeof(dhcpoptions_record)));
    if (!r) return false;
    std::memset(r, 0, sizeof *r);
    r->optionnr = in.byte();
    *tail_ = r;
    tail_ = &r->next;
    switch (DHCPOPTIONS_dhcpoptions_memberbymagic(r)) {
      case DHCPCFG_TYPE_UINT8: r->value.u8 = in.byte(); return true;
      case DHCPCFG_TYPE_UINT16: r->value.u16 = in.u16(); return true;
      case DHCPCFG_TYPE_UINT32:
      case DHCPCFG_TYPE_INT32:
      case DHCPCFG_TYPE_ENUM:
      case DHCPCFG_TYPE_IPADDR: r->value.u32 = in.u32(); return true;
      case DHCPCFG_TYPE_BOOL: r->value.i32 = in.byte() & 1; return true;
      case DHCPCFG_TYPE_STRING: return add_string(r, in);
      case DHCPCFG_TYPE_IPADDR_LIST: return add_addresses(r, in);
      default: r->optionnr = 0; return true;  // structured values are left out
    }
  }

 private:
  bool add_string(dhcpoptions_record *r, Input &in) {
    const std::string s = in.until(0).substr(0, 300);
    r->value.string = static_cast<char *>(ops_->alloc(static_cast<std::uint32_t>(s.size() + 1)));
    if (!r->value.string) return false;
    std::memcpy(r->value.string, s.c_str(), s.size() + 1);
    return true;
  }
  bool add_addresses(dhcpoptions_record *r, Input &in) {
    ipaddr_tab **link = &r->value.ipaddrs;
    for (int n = in.byte() % 8; n > 0; --n) {
      auto *e = static_cast<ipaddr_tab *>(ops_->alloc(sizeof(ipaddr_tab)));
      if (!e) return false;
      e->next = nullptr;
      e->ipaddr = in.u32();
      *link = e;
      link = &e->next;
    }
    return true;
  }

  const dhcp_memops *ops_;
  dhcpoptions_record *head_ = nullptr;
  dhcpoptions_record **tail_ = &head_;
};

// The slot of `store` for `code` holds exactly `len` bytes equal to `bytes`.
inline bool slot_holds(const dhcp_option *store, int code, const void *bytes, std::uint32_t len) {
  return store[code].data && store[code].len == len && std::memcmp(store[code].data, bytes, len) == 0;
}

}  // namespace fuzz

#endif
